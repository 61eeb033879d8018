/* vxtools3 — definitions shared by every public header. */
#ifndef VXTOOLS3_COMMON_H
#define VXTOOLS3_COMMON_H

#include <stddef.h>
#include <stdint.h>

/* VX_API marks the exported functions; everything else in the library is hidden. */
#if defined(__GNUC__) || defined(__clang__)
#define VX_API __attribute__((visibility("default")))
#else
#define VX_API
#endif

#ifdef __cplusplus
#define VX_BEGIN_DECLS extern "C" {
#define VX_END_DECLS }
#else
#define VX_BEGIN_DECLS
#define VX_END_DECLS
#endif

/* printf-style format checking where the compiler offers it. */
#if defined(__GNUC__) || defined(__clang__)
#define VX_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define VX_PRINTF(fmt, args)
#endif

#define VXTOOLS3_VERSION_MAJOR 3
#define VXTOOLS3_VERSION_MINOR 0

#endif
