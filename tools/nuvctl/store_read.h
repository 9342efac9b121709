// Reading records: "store cat" (one stream) and "store query" (every stream that matches), with
// time bounds, filters, the last N, JSON output and following new records as they are indexed.
#ifndef NUV_TOOLS_NUVCTL_STORE_READ_H
#define NUV_TOOLS_NUVCTL_STORE_READ_H

#include <string>
#include <vector>

namespace nuvctl {

struct ReadOptions {
  std::vector<unsigned int> types;  // base directories to walk
  // Filters; empty / 0 / false when not given.
  std::string name;
  bool byPid = false;
  unsigned int pid = 0;
  unsigned int type = 0;
  std::string monitor;
  // "YYYYMMDD HH:MM:SS" bounds, inclusive; "" when open.
  std::string since;
  std::string until;
  unsigned int from = 1;   // first record of each stream
  unsigned int count = 0;  // records per stream from `from`, 0 for all
  unsigned int last = 0;   // only the last N overall, 0 for all
  bool follow = false;
  bool json = false;
  bool streamColumns = false;  // text output names the stream before each record
};

// Prints the matching records in time order; returns an exit code. `what` names the selection
// in messages ("no stream app-7-512 on 20240310").
int ReadStore(const ReadOptions& options, const std::string& what);

// Parses WHEN for --since / --until: YYYYMMDD or YYYY-MM-DD, optionally followed by " " or "T"
// and HH:MM[:SS], or "today", "yesterday", "now". A day alone stands for its first second
// (`end` false) or its last (`end` true). False when WHEN is none of these.
bool ParseWhen(const std::string& when, bool end, std::string& key);

}  // namespace nuvctl

#endif
