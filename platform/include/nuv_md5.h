/* MD5 digests.
 *
 * Results: 0, or -1 for a NULL or too small argument. */
#ifndef NUV_MD5_H
#define NUV_MD5_H

#include <stddef.h>
#include <stdint.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

#define NUV_MD5_DIGEST_LENGTH 16

/* Digest state; its contents are private. */
typedef struct {
  uint64_t opaque[16];
} nuv_md5_ctx_t;

/* Starts a digest in *ctx. Returns 0, -1 on NULL. */
NUV_API int nuv_md5_init(nuv_md5_ctx_t *ctx);

/* Adds `size` bytes of `data`. Returns 0, -1 on NULL ctx (or NULL data with size > 0). */
NUV_API int nuv_md5_update(nuv_md5_ctx_t *ctx, const void *data, size_t size);

/* Ends the digest and writes its 16 bytes to `digest`. Returns 0, -1 on NULL. */
NUV_API int nuv_md5_final(nuv_md5_ctx_t *ctx, unsigned char digest[NUV_MD5_DIGEST_LENGTH]);

/* Writes `size` bytes of `bin` as lower-case hexadecimal text into `out` of `out_size` bytes,
 * terminated. Returns 0, or -1 when out_size < 2 * size + 1 (nothing is written then). */
NUV_API int nuv_md5_bin2str(const unsigned char *bin, size_t size, char *out, size_t out_size);

NUV_END_DECLS

#endif
