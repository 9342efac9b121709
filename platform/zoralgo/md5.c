/* MD5 digests on top of libmd. */
#include "nuv_md5.h"

#include <md5.h>
#include <stdalign.h>
#include <string.h>

/* The public context is an opaque block big enough for libmd's state; checked here so a libmd
 * upgrade that grows MD5_CTX breaks the build instead of the heap. */
_Static_assert(sizeof(MD5_CTX) <= sizeof(nuv_md5_ctx_t), "nuv_md5_ctx_t too small for MD5_CTX");
_Static_assert(alignof(MD5_CTX) <= alignof(nuv_md5_ctx_t),
               "nuv_md5_ctx_t alignment too weak for MD5_CTX");

/* The state moves in and out through memcpy so the opaque block is never accessed through an
 * incompatible type. */
static void load(const nuv_md5_ctx_t *ctx, MD5_CTX *md)
{
  memcpy(md, ctx->opaque, sizeof(*md));
}

static void store(nuv_md5_ctx_t *ctx, const MD5_CTX *md)
{
  memcpy(ctx->opaque, md, sizeof(*md));
}

int nuv_md5_init(nuv_md5_ctx_t *ctx)
{
  MD5_CTX md;

  if (ctx == NULL)
    return -1;
  memset(ctx, 0, sizeof(*ctx));
  MD5Init(&md);
  store(ctx, &md);
  return 0;
}

int nuv_md5_update(nuv_md5_ctx_t *ctx, const void *data, size_t size)
{
  MD5_CTX md;

  if (ctx == NULL || (data == NULL && size > 0))
    return -1;
  if (size == 0)
    return 0;
  load(ctx, &md);
  MD5Update(&md, data, size);
  store(ctx, &md);
  return 0;
}

int nuv_md5_final(nuv_md5_ctx_t *ctx, unsigned char digest[NUV_MD5_DIGEST_LENGTH])
{
  MD5_CTX md;

  if (ctx == NULL || digest == NULL)
    return -1;
  load(ctx, &md);
  MD5Final(digest, &md);
  /* MD5Final wipes its state; keep the caller's copy wiped as well. */
  memset(ctx, 0, sizeof(*ctx));
  return 0;
}

int nuv_md5_bin2str(const unsigned char *bin, size_t size, char *out, size_t out_size)
{
  static const char hex[] = "0123456789abcdef";
  size_t i;

  if (out == NULL || (bin == NULL && size > 0))
    return -1;
  /* Written as a division so a huge `size` cannot wrap 2 * size + 1. */
  if (out_size == 0 || size > (out_size - 1) / 2)
    return -1;
  for (i = 0; i < size; i++) {
    out[2 * i] = hex[bin[i] >> 4];
    out[2 * i + 1] = hex[bin[i] & 0x0f];
  }
  out[2 * size] = '\0';
  return 0;
}
