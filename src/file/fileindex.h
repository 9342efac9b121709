// Index entries and the index file of one stream: one 22-byte line "%010d %010d\n" (offset,
// length) per record, in record order, with no header or trailer. Record n is line n, counting
// from 1, and starts at byte (n - 1) * 22.
#ifndef NUV_FILE_FILEINDEX_H
#define NUV_FILE_FILEINDEX_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/error.h"
#include "file/storefile.h"

constexpr int kIndexLineSize = 22;

struct IndexData {
  IndexData() = default;
  IndexData(unsigned int entryOffset, unsigned int entryLength)
      : length(entryLength), offset(entryOffset) {}

  // The 22-byte line of this entry.
  std::string ToString() const;
  // The same line written into `line`, without an allocation; returns its length.
  size_t Format(char (&line)[32]) const;
  // Parses one line; false, with the entry unchanged, when it is not an index line.
  bool StringToIndex(const std::string& line);
  bool IsValid() const { return length != 0; }

  unsigned int length = 0;
  unsigned int offset = 0;
};

// How one index line stands against a content file of a given size.
enum class IndexLine { kStored, kNotALine, kEmptyRecord, kPastContent };
// The one reading of a line that crash repair and store verification share: kStored for a
// whole line that parses and locates a non-empty record inside the content. `entry` is filled
// whenever the line parses.
IndexLine CheckIndexLine(const std::string& line, uint64_t contentSize, IndexData& entry);

class CFileIndex : public CStoreFile {
 public:
  CError WriteIndex(IndexData& entry);
  // The lines of `count` entries, in order, with as few writes as a bounded buffer allows. An
  // invalid entry refuses them all, with nothing written.
  CError WriteIndex(const IndexData* entries, size_t count);
  // Entry n (1-based); 209 for the last line of the file. A line that does not parse leaves
  // `entry` as passed.
  CError ReadIndex(unsigned int n, IndexData& entry);
  // Entries start .. start + count - 1, clamped to the last one; `next` is the first entry not
  // read (0 after an error).
  CError ReadBatchIndexs(unsigned int start, unsigned int count, unsigned int& next,
                         std::vector<IndexData>& out);
  // Every line that parses. An empty file is error 208.
  CError ReadAllIndex(std::vector<IndexData>& out);

  int GetIndexCounts() { return operator_.GetFileLines(); }
  std::string GetIndexFilePath() const { return path_; }
};

#endif
