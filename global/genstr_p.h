/*
 * genstr_p.h: internals of the generic string and list units.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the growth rule of CGenStr, its grow step, and the
 * allocation table through which both containers and the INI reader reach
 * the heap, so tests can fail the Nth allocation.
 */
#ifndef ZORV_GLOBAL_GENSTR_P_H
#define ZORV_GLOBAL_GENSTR_P_H

#include <stddef.h>
#include <stdint.h>

#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

/* Heap calls of CGenStr, CGenList and the INI reader. Every allocation of
 * these units goes through this table; tests replace entries and put them back.
 * Unguarded: replace entries only while no other thread runs. */
struct CGenAllocCalls {
  void* (*pfnMalloc)(size_t size);
  void* (*pfnCalloc)(size_t count, size_t size);
  void* (*pfnRealloc)(void* pOld, size_t size);
  void (*pfnFree)(void* p);
};
extern struct CGenAllocCalls cGenAllocCalls;

/* GROWTH(): spare bytes added when a string of `n` needed bytes is
 * reallocated: 64 up to 128, half of n (truncated) up to 2047, then 2048. */
static inline uint32_t GROWTH(uint32_t n) {
  if (n <= 128) return 64;
  if (n > 2047) return 2048;
  return (uint32_t)((double)n * 0.5);
}

#ifdef __cplusplus
extern "C" {
#endif

/* _CGenStrGrowIt(): makes room for `needed` bytes (text plus NUL). Returns
 * 0 without touching a fixed-buffer string. With no buffer yet, allocates
 * exactly `needed` zeroed bytes; otherwise reallocates to needed +
 * GROWTH(needed). When the reallocation fails the old buffer is dropped:
 * buffer becomes null (the record then reads as deleted) and 0 is returned.
 * 1 on success. */
ZORV_API int _CGenStrGrowIt(CGenStr* s, uint32_t needed);

/* CGenStr_I_CopyText(): a heap copy of `text` ("" for null) through the
 * allocation table, so records that hold it are freed with
 * cGenAllocCalls.pfnFree and tests can fail it; null when memory is short.
 * The one text copy of the flat records (module data, log items, scan). */
char* CGenStr_I_CopyText(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_GLOBAL_GENSTR_P_H */
