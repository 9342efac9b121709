/* A release/acquire pair built without the sanitizer, as a library that is not instrumented
 * orders its threads. */
#ifndef NUV_TOOLS_EXPORT_TSAN_UNSEEN_ORDER_H
#define NUV_TOOLS_EXPORT_TSAN_UNSEEN_ORDER_H

void unseen_publish(void **slot, void *value);
void *unseen_wait(void **slot);

#endif
