/*
 * zorv-api.h: export and checking macros shared by every public header.
 *
 * The library is built with hidden visibility; ZORV_API marks what other
 * programs may link. ZORV_PRINTF lets the compiler check every caller of a
 * formatting function. Plain C, so a C program can include it.
 */
#ifndef ZORV2000_ZORV_API_H
#define ZORV2000_ZORV_API_H

#if defined(__GNUC__) || defined(__clang__)
#define ZORV_API __attribute__((visibility("default")))
#define ZORV_PRINTF(fmtIndex, argIndex) \
  __attribute__((format(printf, fmtIndex, argIndex)))
#define ZORV_SCANF(fmtIndex, argIndex) \
  __attribute__((format(scanf, fmtIndex, argIndex)))
#define ZORV_SENTINEL __attribute__((sentinel))
#else
#define ZORV_API
#define ZORV_PRINTF(fmtIndex, argIndex)
#define ZORV_SCANF(fmtIndex, argIndex)
#define ZORV_SENTINEL
#endif

/* Library version; the shared object's SONAME carries the major number. */
#define ZORV2000_VERSION_MAJOR 1
#define ZORV2000_VERSION_MINOR 0
#define ZORV2000_VERSION_PATCH 0

#endif /* ZORV2000_ZORV_API_H */
