#include "store_view.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>

#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "config/config_mgr.h"
#include "file/fileclassify.h"
#include "file/fileindex.h"

namespace nuvexport {
namespace {

constexpr int64_t kDaySeconds = 86400;

class Fd {
 public:
  explicit Fd(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool ReadAt(int fd, char* data, size_t size, uint64_t at) {
  while (size > 0) {
    const ssize_t n = ::pread(fd, data, size, static_cast<off_t>(at));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
    at += static_cast<uint64_t>(n);
  }
  return true;
}

// An index line exactly as IndexData::ToString writes it: ten digits, a blank, ten digits, a
// line feed. Read by hand because IndexData::StringToIndex parses each number through a
// stream, which cost the exporter most of its time; anything else is a torn or foreign line.
bool ParseIndexLine(const char* line, IndexData& entry) {
  uint64_t numbers[2] = {0, 0};
  for (int n = 0; n < 2; ++n) {
    for (int i = 0; i < 10; ++i) {
      const char c = line[n * 11 + i];
      if (c < '0' || c > '9') return false;
      numbers[n] = numbers[n] * 10 + static_cast<uint64_t>(c - '0');
    }
  }
  if (line[10] != ' ' || line[21] != '\n' || numbers[0] > INT32_MAX || numbers[1] > INT32_MAX) {
    return false;
  }
  entry = IndexData(static_cast<unsigned int>(numbers[0]), static_cast<unsigned int>(numbers[1]));
  return true;
}

}  // namespace

bool LoadStoreLayout(const std::string& configPath, StoreLayout& out, std::string& error) {
  ConfigMgr loader;
  const CError loaded = loader.LoadConfig(configPath);
  if (!loaded.IsSuccess()) {
    error = "cannot load the store's configuration " + configPath + ": " + loaded.desc;
    return false;
  }
  out = StoreLayout();
  // 512 stands for the maintenance-log directory, where every type without its own lives.
  std::vector<int> types = {512};
  int64_t keepDays = CClearnCfg::GetInstance()->GetTimeInterval();
  for (int type : CAdditionCtrlor::GetInstance()->GetTypes()) {
    types.push_back(type);
    keepDays = std::min<int64_t>(keepDays, CAdditionCtrlor::GetInstance()->GetClearnDay(type));
  }
  for (int type : types) {
    std::string base = GetStoreBaseDirectory(static_cast<unsigned int>(type));
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (std::find(out.bases.begin(), out.bases.end(), base) == out.bases.end()) {
      out.bases.push_back(base);
    }
  }
  out.keepSeconds = std::max<int64_t>(keepDays, 1) * kDaySeconds;
  return true;
}

bool OutsideStore(const std::string& dir, const StoreLayout& layout, std::string& error) {
  std::error_code ignored;
  const std::string inside = std::filesystem::weakly_canonical(dir, ignored).string() + "/";
  for (const std::string& base : layout.bases) {
    const std::string store = std::filesystem::weakly_canonical(base, ignored).string() + "/";
    if (inside.compare(0, store.size(), store) == 0) {
      error = "the state directory " + dir + " lies in the store " + base +
              ", whose clean-up would pack or delete what is unpacked there";
      return false;
    }
  }
  return true;
}

std::vector<StoredStream> ListStreams(const std::string& root) {
  std::map<StreamId, StoredStream> found;
  std::error_code failed;
  for (std::filesystem::recursive_directory_iterator it(root, failed), end;
       !failed && it != end; it.increment(failed)) {
    if (it.depth() != 2 || !it->is_regular_file(failed)) continue;
    CFileClassify classify;
    const std::string file = it->path().string();
    if (!CFileClassify::ParseFilePath(file, classify) || file != classify.GetIndexPath()) {
      continue;
    }
    StoredStream stream;
    stream.id.day = classify.GetTime();
    stream.id.name = classify.GetName();
    stream.id.pid = classify.GetPid();
    stream.id.type = classify.GetType();
    stream.indexPath = classify.GetIndexPath();
    stream.contentPath = classify.GetContentPath();
    found[stream.id] = stream;
  }
  std::vector<StoredStream> streams;
  for (auto& entry : found) streams.push_back(std::move(entry.second));
  return streams;
}

std::vector<DayArchive> ListArchives(const std::string& base) {
  std::vector<DayArchive> archives;
  std::error_code failed;
  for (std::filesystem::directory_iterator it(base, failed), end; !failed && it != end;
       it.increment(failed)) {
    const std::string path = it->path().string();
    const std::string day = CFileClassify::GetCompressFileTime(path, ".tgz");
    if (!day.empty() && path.size() >= 4 && path.compare(path.size() - 4, 4, ".tgz") == 0 &&
        it->is_regular_file(failed)) {
      archives.push_back({path, day});
    }
  }
  std::sort(archives.begin(), archives.end(),
            [](const DayArchive& a, const DayArchive& b) { return a.day < b.day; });
  return archives;
}

uint64_t WholeLines(const std::string& indexPath) {
  struct stat st;
  return ::stat(indexPath.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) / kIndexLineSize
                                             : 0;
}

FileIdentity IdentityOf(const std::string& path) {
  FileIdentity identity;
  struct statx st {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_BTIME, &st) != 0) return identity;
  identity.inode = st.stx_ino;
  if ((st.stx_mask & STATX_BTIME) != 0) {
    identity.bornNs =
        static_cast<uint64_t>(st.stx_btime.tv_sec) * 1000000000u + st.stx_btime.tv_nsec;
  }
  return identity;
}

int64_t DayStart(const std::string& day) {
  std::tm midnight{};
  midnight.tm_year = std::atoi(day.substr(0, 4).c_str()) - 1900;
  midnight.tm_mon = std::atoi(day.substr(4, 2).c_str()) - 1;
  midnight.tm_mday = std::atoi(day.substr(6, 2).c_str());
  midnight.tm_isdst = -1;
  return static_cast<int64_t>(std::mktime(&midnight));
}

bool ReadRecords(const StoredStream& stream, uint64_t first, size_t maxRecords, size_t maxBytes,
                 RecordBatch& out) {
  Fd index(stream.indexPath);
  Fd content(stream.contentPath);
  struct stat indexStat;
  struct stat contentStat;
  if (index.get() < 0 || content.get() < 0 || ::fstat(index.get(), &indexStat) != 0 ||
      ::fstat(content.get(), &contentStat) != 0) {
    return false;
  }
  // The content is sized after the index, so every whole line counted refers to bytes the
  // content already held when it was sized.
  const uint64_t lines = static_cast<uint64_t>(indexStat.st_size) / kIndexLineSize;
  if (first == 0 || first > lines) return true;
  const uint64_t contentSize = static_cast<uint64_t>(contentStat.st_size);
  const size_t count = static_cast<size_t>(std::min<uint64_t>(lines - first + 1, maxRecords));
  std::string& block = out.indexLines;
  std::vector<IndexData>& entries = out.entries;
  block.resize(count * kIndexLineSize);
  entries.clear();
  if (!ReadAt(index.get(), &block[0], block.size(), (first - 1) * kIndexLineSize)) return false;
  uint64_t begin = UINT64_MAX;
  uint64_t end = 0;
  size_t bytes = 0;
  for (size_t i = 0; i < count && bytes < maxBytes; ++i) {
    IndexData entry;
    if (!ParseIndexLine(block.data() + i * kIndexLineSize, entry) || !entry.IsValid() ||
        uint64_t{entry.offset} + entry.length > contentSize) {
      break;
    }
    begin = std::min<uint64_t>(begin, entry.offset);
    end = std::max<uint64_t>(end, uint64_t{entry.offset} + entry.length);
    bytes += entry.length;
    entries.push_back(entry);
  }
  out.bytes.clear();
  out.records.clear();
  if (entries.empty()) return true;
  // Records lie back to back, so the batch is one read unless the index jumps about.
  const bool together = end - begin <= 2 * bytes;
  if (together) {
    out.bytes.resize(static_cast<size_t>(end - begin));
    if (!ReadAt(content.get(), &out.bytes[0], out.bytes.size(), begin)) return false;
  } else {
    out.bytes.resize(bytes);
  }
  size_t at = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (together) {
      at = static_cast<size_t>(entries[i].offset - begin);
    } else if (!ReadAt(content.get(), &out.bytes[at], entries[i].length, entries[i].offset)) {
      return false;
    }
    out.records.push_back(Record{first + i, entries[i].offset, out.bytes.data() + at,
                                 entries[i].length});
    if (!together) at += entries[i].length;
  }
  return true;
}

}  // namespace nuvexport
