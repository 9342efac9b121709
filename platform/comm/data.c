/* Messages: a length and a copy of the bytes, with a NUL after them for callers that treat
 * the bytes as text. */
#include <stdlib.h>
#include <string.h>

#include "internal.h"

comm_data *nuv_comm_new_data(const void *bytes, unsigned int length) {
  /* length + 1 must not wrap where size_t has 32 bits. */
  if ((!bytes && length > 0) || length == UINT_MAX) return NULL;
  comm_data *d = malloc(sizeof *d);
  if (!d) return NULL;
  d->bytes = malloc((size_t)length + 1);
  if (!d->bytes) {
    free(d);
    return NULL;
  }
  if (length > 0) memcpy(d->bytes, bytes, length);
  d->bytes[length] = '\0';
  d->length = length;
  return d;
}

void nuv_comm_delete_data(comm_data *data) {
  if (!data) return;
  free(data->bytes);
  free(data);
}

int nuv_comm_get_data(comm_data *data, void **pointer, unsigned int *length) {
  if (!data || !pointer || !length || !data->bytes) return NUV_COMM_E_INVAL;
  *pointer = data->bytes;
  *length = data->length;
  return 0;
}
