/* Random (version 4) UUIDs.
 *
 * Results: 0, or -1 for a NULL or too small argument. */
#ifndef NUV_UUID_H
#define NUV_UUID_H

#include <stddef.h>

#include "nuv_api.h"

NUV_BEGIN_DECLS

#define NUV_UUID_LENGTH 16
#define NUV_UUID_STR_LENGTH 37 /* 36 characters and the terminator */

/* Fills `uuid` with a new random UUID. Returns 0, -1 on NULL. */
NUV_API int nuv_uuid_create(unsigned char uuid[NUV_UUID_LENGTH]);

/* Writes the lower-case text form (8-4-4-4-12) into `out` of `size` bytes. Returns 0, or -1
 * when size < NUV_UUID_STR_LENGTH or an argument is NULL. */
NUV_API int nuv_uuid_make_cstr(const unsigned char uuid[NUV_UUID_LENGTH], char *out, size_t size);

NUV_END_DECLS

#endif
