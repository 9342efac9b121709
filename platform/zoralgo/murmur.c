/* 64-bit MurmurHash3 on top of libmurmurhash. */
#include "nuv_murmur.h"

#include <limits.h>
#include <stdint.h>
#include <murmurhash.h>

/* lmmh_x64_128 takes an unsigned int length; a wider size_t must not be silently cut to it. */
_Static_assert(UINT_MAX >= UINT32_MAX, "unsigned int narrower than 32 bits");

uint64_t nuv_murmur_hash64(const void *data, size_t size, uint32_t seed)
{
  /* Stands in for NULL so the library never does arithmetic on a null pointer. */
  static const unsigned char empty[1];
  uint64_t out[2];

  if (data == NULL) {
    if (size > 0)
      return 0;
    data = empty;
  }
  /* Cutting the length would give a hash of a different text, and one that differs between
   * 32- and 64-bit builds; such sizes are refused instead. */
#if SIZE_MAX > UINT32_MAX
  if (size > UINT32_MAX)
    return 0;
#endif
  lmmh_x64_128(data, (unsigned int)size, seed, out);
  return out[0];
}
