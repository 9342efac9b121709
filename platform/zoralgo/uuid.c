/* Random UUIDs on top of libuuid. */
#include "nuv_uuid.h"

#include <string.h>
#include <uuid/uuid.h>

_Static_assert(sizeof(uuid_t) == NUV_UUID_LENGTH, "uuid_t is not 16 bytes");

int nuv_uuid_create(unsigned char uuid[NUV_UUID_LENGTH])
{
  uuid_t id;

  if (uuid == NULL)
    return -1;
  uuid_generate_random(id);
  memcpy(uuid, id, NUV_UUID_LENGTH);
  return 0;
}

int nuv_uuid_make_cstr(const unsigned char uuid[NUV_UUID_LENGTH], char *out, size_t size)
{
  uuid_t id;
  char text[NUV_UUID_STR_LENGTH];

  if (uuid == NULL || out == NULL || size < NUV_UUID_STR_LENGTH)
    return -1;
  memcpy(id, uuid, NUV_UUID_LENGTH);
  uuid_unparse_lower(id, text);
  memcpy(out, text, sizeof(text));
  return 0;
}
