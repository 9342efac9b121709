// Packs a directory into a gzip-compressed tar archive with the system's tar, run as a child
// process with a bounded wait.
#ifndef NUV_COMPRESS_COMPRESS_FILE_H
#define NUV_COMPRESS_COMPRESS_FILE_H

#include <cstdint>

// Packs the contents of `target` into <source>.<suffix> with tar, waiting up to `timeout`
// milliseconds. `source` is the archive's stem and must exist. Paths are quoted for the shell.
// The archive is written under a temporary name, listed back whole, and renamed into place.
// 0: the archive is in place and reads back;
// 0x84CE0001: tar could not be started, waiting failed or timed out, or it failed (no archive
//             was put in place, and an earlier one is left as it was);
// 0x84CE0002: a null argument, or `source` does not exist (nothing is started).
uint32_t GenCompressFile(const char* source, const char* target, const char* suffix,
                         long long timeout);

#endif
