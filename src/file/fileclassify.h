// The classification of one stored stream (day, name, pid, record type), the three paths that
// follow from it, and the date rules the clean-up pass applies to day directories and archives.
//
// On-disk layout under a base directory B:
//   B//DAY/NAME/index-NAME-PID-TYPE   the index file
//   B//DAY/NAME/NAME-PID-TYPE         the content file
// The doubled separator is kept: every parse searches for the last "/" and is unaffected.
#ifndef NUV_FILE_FILECLASSIFY_H
#define NUV_FILE_FILECLASSIFY_H

#include <cstdint>
#include <string>

// Types kept under the maintenance-log directory and bounded by the default size limit; every
// other type uses the directory and limit configured for it.
bool IsMaintainceLogType(unsigned int type);
// The store's base directory for a type.
std::string GetStoreBaseDirectory(unsigned int type);
// The same without a copy: the configured string itself, or `scratch` holding a resolved one.
const std::string& StoreBaseDirectory(unsigned int type, std::string& scratch);

class CFileClassify {
 public:
  CFileClassify();

  // Classifies a stream opened today. False, with the object reset, for an empty name, type 0,
  // or a name that is not a safe store name.
  bool InitFileClassify(const std::string& name, unsigned int pid, unsigned int type);
  // Fills the directory, index and content paths from time, name, pid and type.
  void ConstructPath(std::string base);
  // Name non-empty and type non-zero.
  bool CheckValid() const;
  // Murmur hash of the key; 0 (an unusable classification) while the content path is empty.
  uint64_t GetHashKey() const;

  std::string GetTime() const { return time_; }
  std::string GetName() const { return name_; }
  std::string GetPath() const { return path_; }
  std::string GetIndexPath() const { return indexPath_; }
  std::string GetContentPath() const { return contentPath_; }
  std::string GetKey() const { return key_; }
  unsigned int GetPid() const { return pid_; }
  unsigned int GetType() const { return type_; }
  // The day directory: the path up to its last "/"; empty when there is none.
  std::string GetTimePath() const;

  void Reset();

  // Classification of an index or content file found on disk. False, with `out` reset, for a
  // path that is not a store file. A name holding "-" is read from its name directory.
  static bool ParseFilePath(const std::string& file, CFileClassify& out);
  static bool CheckFilePathValid(const std::string& file);
  // A name that stays one directory below its day: not empty, ".", or "..", no "/", no NUL,
  // and short enough that no path built from it is cut.
  static bool IsStoreName(const std::string& name);
  // Eight characters forming a valid year-month-day date (the year is not range-checked).
  static bool CheckDataTime(const std::string& day);
  // Seconds from day `from` to day `to`; false, with `seconds` untouched, unless both texts
  // have eight characters.
  static bool DifferTime(const std::string& from, const std::string& to, double& seconds);
  // The day of an archive such as ".../20240131.tgz", or "" when the name holds no valid day.
  static std::string GetCompressFileTime(const std::string& file, const std::string& suffix);

 private:
  void MakeKey();

  std::string time_;
  std::string name_;
  unsigned int pid_ = 0;
  unsigned int type_ = 0;
  std::string indexPath_;
  std::string contentPath_;
  std::string path_;
  std::string key_;
  uint64_t keyHash_ = 0;  // of key_, taken when key_ is made
  // The base InitFileClassify built the paths from; empty once anything else fills them.
  std::string base_;
};

#endif
