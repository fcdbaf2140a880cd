/*
 * memory-alloc_p.h: internals of the tracked allocator.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the arena and bookkeeping functions (exported for
 * the framework's own tools), the system-allocator seam and read-only views
 * of the arenas for tests.
 */
#ifndef ZORV_GLOBAL_MEMORY_ALLOC_P_H
#define ZORV_GLOBAL_MEMORY_ALLOC_P_H

#include <stddef.h>
#include <stdint.h>

#include "zorv2000/memory-alloc.h"
#include "zorv2000/zorv-api.h"

/* Arena layout: a signed 32-bit size and the 32-bit link to the next arena,
 * then blocks back to back. A block is a signed 32-bit size (header
 * included) and 32-bit flags, followed by its data. */
enum {
  MEM_ARENA_HEADER = 8,
  MEM_BLOCK_HEADER = 8,
  MEM_MIN_ARENA = 65536,
  /* An arena added for a request of n bytes holds n + MEM_ARENA_EXTRA. */
  MEM_ARENA_EXTRA = 16,
  /* Free remainders are split off in whole multiples of this. */
  MEM_SPLIT_UNIT = 16
};
enum { MEM_FLAG_IN_USE = 1u, MEM_FLAG_LAST = 2u };

/* Length kept of the allocating file's name in a record, NUL excluded. */
enum { MEM_FILE_NAME_MAX = 256 };

/* Record of one block in the tracking list. */
typedef struct CMemBlockInfo {
  void* address;
  uint32_t size; /* the size argument of the allocation */
  char file[MEM_FILE_NAME_MAX + 1];
  int32_t line;
} CMemBlockInfo;

#ifdef __cplusplus
extern "C" {
#endif

/* GetOsMemory(): `size` bytes from the system allocator (through the seam
 * below), or null. FreeOsMemory(): gives them back. */
ZORV_API void* GetOsMemory(uint32_t size);
ZORV_API void FreeOsMemory(void* pointer);
/* AllocNewArena(): an arena of `size` bytes (at least 65536) holding one
 * free block marked last, not yet linked; null when memory is short. */
ZORV_API void* AllocNewArena(int32_t size);
/* AddNewArena(): AllocNewArena() and links it at the end of the list;
 * registers FreeArenasAtExit() with atexit(). 0, or 1 on failure. */
ZORV_API int AddNewArena(int32_t size);
/* FreeArena(): unlinks `arena` and returns it to the system; 1 when it is
 * not in the list. */
ZORV_API int FreeArena(void* arena);
/* FreeArenasAtExit(): returns every arena to the system. */
ZORV_API void FreeArenasAtExit(void);
/* LookForMemory(): the data of a block of at least n bytes chosen worst-fit
 * from the existing arenas and marked in use (the remainder split off), or
 * null when none is free. Does not zero and does not add arenas. */
ZORV_API void* LookForMemory(int32_t n);
/* GetMemSize(): usable bytes of the block whose data is `pointer`; 0 when no
 * block has that data address. */
ZORV_API int32_t GetMemSize(const void* pointer);
/* FreeMemory(): marks the block free, merges it with free neighbours and
 * returns a wholly free arena; unknown pointers change nothing. */
ZORV_API void FreeMemory(void* pointer);

/* InitMemBlocksList(): creates the tracking list on first use; 1. */
ZORV_API int InitMemBlocksList(void);
/* CMemBlockInfoInit(): fills a record (the file name cut to 256
 * characters; null becomes empty). */
ZORV_API void CMemBlockInfoInit(CMemBlockInfo* info, void* address,
                                uint32_t size, const char* file, int32_t line);
/* IsSameMemBlock(): list comparison, 0 when the record's address is `key`.
 * PointerIsInMemBlock(): 0 when `key` lies inside the record's block. */
ZORV_API int IsSameMemBlock(const void* data, const void* key);
ZORV_API int PointerIsInMemBlock(const void* data, const void* key);
/* LogMemoryBlockAlloc(): records a new block, or reports an existing record
 * with the same address. LogMemoryBlockFree(): drops the block's record, or
 * reports that there is none. */
ZORV_API void LogMemoryBlockAlloc(void* pointer, uint32_t size,
                                  const char* file, int32_t line);
ZORV_API void LogMemoryBlockFree(void* pointer, const char* file, int32_t line);

#ifdef __cplusplus
}
#endif

/* System allocator of the arenas, the string copies and the records, the
 * mutex call of the entry points and the exit registration; tests replace
 * entries to fail allocations or locks and put them back. Unguarded: change it
 * only while no other thread allocates. */
struct ZorvMemAllocCalls {
  void* (*pfnMalloc)(size_t size);
  void* (*pfnCalloc)(size_t count, size_t size);
  int (*pfnGrabMutex)(const char* file, int line, const char* function,
                      uint32_t index, int grab);
  int (*pfnAtExit)(void (*function)(void));
};
extern struct ZorvMemAllocCalls zorvMemAllocCalls;

/* Read-only views for tests, valid while no other thread allocates. */
/* ZorvMem_I_ArenaCount(): arenas in the list. */
int32_t ZorvMem_I_ArenaCount(void);
/* ZorvMem_I_ArenaAt(): the arena at list position `index` (0 the root), or
 * null. */
void* ZorvMem_I_ArenaAt(int32_t index);
/* ZorvMem_I_ArenaSize(): the size word of `arena`. */
int32_t ZorvMem_I_ArenaSize(const void* arena);
/* ZorvMem_I_BlockCount(): blocks of `arena` in the order of the walk. */
int32_t ZorvMem_I_BlockCount(const void* arena);
/* ZorvMem_I_BlockAt(): size and flags of block `index` of `arena` and its
 * data address; 1 when it exists, else 0. Outputs may be null. */
int ZorvMem_I_BlockAt(const void* arena, int32_t index, int32_t* size,
                      uint32_t* flags, void** data);
/* ZorvMem_I_RecordCount(): records in the tracking list (0 before it is
 * made). */
int32_t ZorvMem_I_RecordCount(void);
/* ZorvMem_I_FindRecord(): the record whose address is `pointer`, or null. */
const CMemBlockInfo* ZorvMem_I_FindRecord(const void* pointer);

#endif /* ZORV_GLOBAL_MEMORY_ALLOC_P_H */
