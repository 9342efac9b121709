// Asking the running daemon on its status topic: this process serves a reply topic of its
// own for the one answer, posts the question, and takes the answer that arrived meanwhile.
#ifndef NUV_TOOLS_NUVCTL_DAEMON_QUERY_H
#define NUV_TOOLS_NUVCTL_DAEMON_QUERY_H

#include <string>

namespace nuvctl {

// `query` is "status" or "monitors". True with the answer's JSON text; false with `error`
// naming the bus result and the directory tried.
bool AskDaemon(const std::string& query, std::string& answer, std::string& error);

}  // namespace nuvctl

#endif
