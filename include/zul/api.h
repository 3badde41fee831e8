/* What every public header begins with: C linkage and visibility for the names the module exports. */
#ifndef ZUL_API_H
#define ZUL_API_H
#ifdef __cplusplus
#define ZUL_EXTERN_C extern "C"
#define ZUL_ASSERT(c) static_assert(c, #c)
#else
#define ZUL_EXTERN_C extern
#define ZUL_ASSERT(c) _Static_assert(c, #c)
#endif
/* Exactly the declarations that begin a line with ZUL_API are exported; the build reads them. */
#define ZUL_API ZUL_EXTERN_C __attribute__((visibility("default")))
#define ZUL_PACKED __attribute__((packed))
#endif
