// Packs a directory into a gzip-compressed tar archive with the system's tar, run as a child
// process with a bounded wait.
#ifndef NUV_COMPRESS_COMPRESS_FILE_H
#define NUV_COMPRESS_COMPRESS_FILE_H

#include <cstdint>

// Runs "tar -zcvf <source>.<suffix> -C <target> ." and waits up to `timeout` milliseconds.
// `source` is the archive's stem and must exist; `target` is the directory whose contents are
// archived. Paths go into the command unquoted.
// 0: tar ended in time (its exit status is not examined);
// 0x84CE0001: tar could not be started, or waiting for it failed or timed out;
// 0x84CE0002: a null argument, or `source` does not exist (nothing is started).
uint32_t GenCompressFile(const char* source, const char* target, const char* suffix,
                         long long timeout);

#endif
