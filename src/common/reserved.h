// The reserved monitor targets and the record type of fired-monitor records, named once for
// every part of the library that meets them.
#ifndef NUV_COMMON_RESERVED_H
#define NUV_COMMON_RESERVED_H

// The whole machine.
constexpr char kSystemImage[] = "system";
constexpr unsigned int kSystemPid = 0;
// All processes of one notification at once.
constexpr char kProcessPointImage[] = "processpoint";
constexpr unsigned int kProcessPointPid = 3;
// The sender id whose records are gathered into the process-point stream.
constexpr char kProcessPointId[] = "71b05a3c-6ad0-40b5-9389-917e83b7e14a";
// The store type of the records fired monitors post.
constexpr unsigned int kPerformanceRecordType = 100;

#endif
