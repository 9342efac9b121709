// Where a tool looks for the bus, worked out by the rule the bus itself follows, and what is
// there: so that "nobody serves the topic" can say which directory was tried and why.
#ifndef NUV_TOOLS_BUS_DIR_H
#define NUV_TOOLS_BUS_DIR_H

#include <string>
#include <vector>

namespace nuvtools {

struct BusDir {
  std::string path;
  std::string source;  // "NUV_COMM_DIR", "default for root", "XDG_RUNTIME_DIR", "no XDG_RUNTIME_DIR"
  bool exists = false;
  std::vector<std::string> sockets;  // socket file names (topics), sorted
};

BusDir FindBusDir();

// "/run/nuv-comm (default for root): exists, sockets: maintenance:POST, ..." or
// "... : does not exist", with a hint when root's default differs from a user's.
std::string DescribeBusDir(const BusDir& dir);

}  // namespace nuvtools

#endif
