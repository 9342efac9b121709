/* Shared declarations of the platform libraries. */
#ifndef NUV_API_H
#define NUV_API_H

/* Every platform call is exported; everything else in the libraries stays hidden. */
#define NUV_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define NUV_BEGIN_DECLS extern "C" {
#define NUV_END_DECLS }
#else
#define NUV_BEGIN_DECLS
#define NUV_END_DECLS
#endif

#endif
