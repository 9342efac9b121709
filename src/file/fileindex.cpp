#include "file/fileindex.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/utils.h"

namespace {

// The pieces between single blanks, empty ones included, so that a doubled, leading or
// trailing blank changes the count and the line is refused.
std::vector<std::string> SplitAtEveryBlank(const std::string& line) {
  std::vector<std::string> pieces(1);
  for (char c : line) {
    if (c == ' ') {
      pieces.emplace_back();
    } else {
      pieces.back().push_back(c);
    }
  }
  return pieces;
}

}  // namespace

size_t IndexData::Format(char (&line)[32]) const {
  if (offset > static_cast<unsigned int>(INT_MAX) || length > static_cast<unsigned int>(INT_MAX)) {
    // Shown as the negative ints they become, as the format has always shown them.
    const int n = std::snprintf(line, sizeof line, "%010d %010d\n", static_cast<int>(offset),
                                static_cast<int>(length));
    return n > 0 ? static_cast<size_t>(n) : 0;
  }
  // Both fit ten digits: written by hand, since this runs for every stored record.
  auto digits = [](unsigned int value, char* out) {
    for (int i = 9; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  };
  digits(offset, line);
  line[10] = ' ';
  digits(length, line + 11);
  line[21] = '\n';
  line[22] = '\0';
  return kIndexLineSize;
}

std::string IndexData::ToString() const {
  char line[32];
  return std::string(line, Format(line));
}

bool IndexData::StringToIndex(const std::string& line) {
  if (line.empty()) {
    return false;
  }
  const std::vector<std::string> pieces = SplitAtEveryBlank(line);
  if (pieces.size() != 2 || pieces[1].empty()) {
    return false;
  }
  const std::string lengthText = pieces[1].substr(0, pieces[1].size() - 1);
  if (!IsNumberA(pieces[0]) || !IsNumberA(lengthText)) {
    return false;
  }
  offset = static_cast<unsigned int>(ConvertStringToNumber(pieces[0].c_str()));
  length = static_cast<unsigned int>(ConvertStringToNumber(pieces[1].c_str()));
  return true;
}

IndexLine CheckIndexLine(const std::string& line, uint64_t contentSize, IndexData& entry) {
  if (line.size() != static_cast<size_t>(kIndexLineSize) || line.back() != '\n' ||
      !entry.StringToIndex(line)) {
    return IndexLine::kNotALine;
  }
  if (!entry.IsValid()) return IndexLine::kEmptyRecord;
  if (static_cast<uint64_t>(entry.offset) + entry.length > contentSize) {
    return IndexLine::kPastContent;
  }
  return IndexLine::kStored;
}

CError CFileIndex::WriteIndex(IndexData& entry) { return WriteIndex(&entry, 1); }

CError CFileIndex::WriteIndex(const IndexData* entries, size_t count) {
  // Lines go out a buffer at a time: one write for any run the store makes.
  constexpr size_t kLinesPerWrite = 64;
  char lines[kLinesPerWrite * kIndexLineSize];
  for (size_t i = 0; i < count; ++i) {
    if (!entries[i].IsValid()) {
      return CError::CreateError(kErrParam, "parameters invalid, %s", "index data len = 0");
    }
  }
  for (size_t at = 0; at < count;) {
    size_t used = 0;
    for (size_t n = 0; n < kLinesPerWrite && at < count; ++n, ++at) {
      char line[32];
      const size_t size = entries[at].Format(line);
      if (used + size > sizeof lines) break;
      std::memcpy(lines + used, line, size);
      used += size;
    }
    int offset = 0;
    CError result = operator_.WriteFile(std::string_view(lines, used), offset);
    if (!result.IsSuccess()) return result;
  }
  return CError();
}

CError CFileIndex::ReadIndex(unsigned int n, IndexData& entry) {
  if (n == 0) {
    return CError::CreateError(kErrParam, "parameters invalid, %s", "read index = 0");
  }
  const uint64_t position = static_cast<uint64_t>(n - 1) * kIndexLineSize;
  std::string line;
  CError result;
  if (position <= static_cast<uint64_t>(INT_MAX)) {
    int next = 0;
    result = operator_.ReadFile(static_cast<int>(position), kIndexLineSize, line, next);
  }
  if (line.empty()) {
    return CError::CreateError(kFileErrRead, "read file failed, path = %s", path_.c_str());
  }
  if (!IsReadOk(result)) {
    return result;
  }
  entry.StringToIndex(line);
  return result;
}

CError CFileIndex::ReadBatchIndexs(unsigned int start, unsigned int count, unsigned int& next,
                                   std::vector<IndexData>& out) {
  const int64_t total = GetIndexCounts();
  if (total < static_cast<int64_t>(start)) {
    next = 0;
    out.clear();
    return CError::CreateError(kErrParam, "parameters invalid, %s",
                               "read batch indexs invalid");
  }
  uint64_t batch = count;
  if (total < static_cast<int64_t>(batch) ||
      total < static_cast<int64_t>(start) + static_cast<int64_t>(batch)) {
    batch = static_cast<uint64_t>(total - start + 1);
  }
  const uint64_t end = start + batch;
  CError result;
  for (uint64_t i = start; i < end; ++i) {
    IndexData entry;
    result = ReadIndex(static_cast<unsigned int>(i), entry);
    if (!IsReadOk(result)) {
      next = 0;
      out.clear();
      return result;
    }
    out.push_back(entry);
  }
  next = static_cast<unsigned int>(end);
  return result;
}

CError CFileIndex::ReadAllIndex(std::vector<IndexData>& out) {
  int offset = 0;
  for (;;) {
    std::string line;
    int next = 0;
    CError result = operator_.ReadFile(offset, kIndexLineSize, line, next);
    if (!IsReadOk(result)) {
      out.clear();
      return result;
    }
    if (line.empty() && result.code != kFileErrReadEnd) {
      out.clear();
      return CError::CreateError(kFileErrRead, "read file failed, path = %s", path_.c_str());
    }
    IndexData entry;
    if (entry.StringToIndex(line)) {
      out.push_back(entry);
    }
    if (result.code == kFileErrReadEnd) {
      return CError();
    }
    offset = next;
  }
}
