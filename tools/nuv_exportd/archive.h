// A day archive (DAY.tgz) unpacked with the system's tar into a private directory that is
// removed with this object, so a day packed before it was shipped can still be shipped.
#ifndef NUV_TOOLS_EXPORTD_ARCHIVE_H
#define NUV_TOOLS_EXPORTD_ARCHIVE_H

#include <string>

namespace nuvexport {

class UnpackedArchive {
 public:
  UnpackedArchive() = default;
  ~UnpackedArchive();
  UnpackedArchive(const UnpackedArchive&) = delete;
  UnpackedArchive& operator=(const UnpackedArchive&) = delete;

  // Unpacks `archive` of `day` under a new directory in `workDir`; its streams are then at
  // Root()/DAY/NAME/... False, with `error`, when tar fails.
  bool Unpack(const std::string& archive, const std::string& day, const std::string& workDir,
              std::string& error);
  const std::string& Root() const { return root_; }
  const std::string& Archive() const { return archive_; }

  // Removes what an exporter that died left in `workDir`.
  static void RemoveLeftovers(const std::string& workDir);

 private:
  std::string root_;
  std::string archive_;
};

}  // namespace nuvexport

#endif
