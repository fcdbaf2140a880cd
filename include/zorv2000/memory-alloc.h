/*
 * memory-alloc.h: tracked allocation from the library's own arenas.
 *
 * Blocks are carved from arenas of at least 65536 bytes obtained from the
 * system allocator, handed out zeroed, merged with free neighbours when
 * released; an arena that becomes wholly free goes back to the system
 * (except the first one while it is alone). With the "mem" trace category
 * switched on, every block is also recorded with the file and line that
 * allocated it, and misuse is reported on the trace. Entry points take their
 * own mutex of the table (5 allocation, 6 free, 7 re-allocation, 8 string
 * copy, 9 final report); allocating and freeing from several threads at once
 * is not supported. Plain C.
 */
#ifndef ZORV2000_MEMORY_ALLOC_H
#define ZORV2000_MEMORY_ALLOC_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* TracingZorvAlloc(): a zeroed block of count x size bytes from the arenas,
 * or null when no arena can be obtained (or the product does not fit in 31
 * bits). `file` and `line` name the caller for the bookkeeping; the record
 * keeps `size` (the second argument), not the product. Release with
 * TracingZorvFree(), never with free(). */
ZORV_API void* TracingZorvAlloc(uint32_t count, uint32_t size, const char* file,
                                int32_t line);

/* TracingZorvFree(): releases a block of the arenas. A pointer that is not
 * the start of a block in use (null included) changes nothing; with tracing
 * on, it is reported. */
ZORV_API void TracingZorvFree(void* pointer, const char* file, int32_t line);

/* TracingZorvReAlloc(): null `pointer` returns null without allocating;
 * size 0 frees the block and returns null; a block whose usable size is
 * greater than `size` is returned as it is. Otherwise a new block of `size`
 * bytes receives the old usable size (all `size` bytes when the old pointer
 * lies in no arena), the old block is freed and the new one returned. When
 * the new block cannot be had, null is returned and the old one stays. */
ZORV_API void* TracingZorvReAlloc(void* pointer, uint32_t size,
                                  const char* file, int32_t line);

/* TracingZorvAllocString(): a copy of `text` in a zeroed buffer of its
 * length + 4 bytes from the system allocator (not the arenas); release it
 * with free(). Null for a null text or when memory is short. */
ZORV_API char* TracingZorvAllocString(const char* text);

/* ZorvAllocStringEx(): TracingZorvAllocString() without taking a mutex. */
ZORV_API char* ZorvAllocStringEx(const char* text);

/* TracingIsPointerValid(): 1 when tracing is off or `pointer` lies inside a
 * recorded block (from its address up to address + recorded size - 1);
 * otherwise traces the invalid pointer with `file` and `line` and returns
 * 0. */
ZORV_API int TracingIsPointerValid(const void* pointer, const char* file,
                                   int32_t line);

/* ListBlocksStillInUse(): traces every recorded block that was not freed
 * (nothing when none is recorded). */
ZORV_API void ListBlocksStillInUse(void);

/* FinishMemoryBlockTracing(): with tracing on, lists the blocks still in use
 * and drops the records. */
ZORV_API void FinishMemoryBlockTracing(void);

/* DoMemoryBlockTracing(): non-zero when trace category 2 ("mem") is on. */
ZORV_API int DoMemoryBlockTracing(void);

/* Shorthands that name the calling file and line. ZorvAlloc(n) records n. */
#define ZorvAlloc(size) TracingZorvAlloc(1, (size), __FILE__, __LINE__)
#define ZorvFree(pointer) TracingZorvFree((pointer), __FILE__, __LINE__)
#define ZorvReAlloc(pointer, size) \
  TracingZorvReAlloc((pointer), (size), __FILE__, __LINE__)

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_MEMORY_ALLOC_H */
