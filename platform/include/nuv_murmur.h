/* Non-cryptographic 64-bit hashing. */
#ifndef NUV_MURMUR_H
#define NUV_MURMUR_H

#include <stddef.h>
#include <stdint.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

/* The first 64 bits of MurmurHash3 x64_128 of `size` bytes of `data` with `seed`. The same on
 * every platform, 32- and 64-bit alike. NULL data with size 0 hashes the empty text. Sizes
 * above UINT32_MAX, and NULL data with a size above 0, are not supported and return 0. */
NUV_API uint64_t nuv_murmur_hash64(const void *data, size_t size, uint32_t seed);

NUV_END_DECLS

#endif
