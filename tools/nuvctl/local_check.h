// What nuvctl checks before it posts, with the library's own code, so that the reason for a
// refusal is printed here instead of only in the daemon's log.
#ifndef NUV_TOOLS_NUVCTL_LOCAL_CHECK_H
#define NUV_TOOLS_NUVCTL_LOCAL_CHECK_H

#include <string>

namespace nuvctl {

// Checks `bytes` for `topic`: a burying point for maintenance:POST, a monitor definition for
// maintenance:register, JSON for maintenance:unregister; anything for other topics. True when
// the daemon would take it as far as can be told here; false with the reason, e.g.
// "not JSON: line 2, column 5: ..." or "condition 'C' refused: ...".
bool CheckBeforePost(const std::string& topic, const std::string& bytes, std::string& reason);

}  // namespace nuvctl

#endif
