/*
 * memory-alloc.cpp: tracked allocation from arenas of the library's own, and
 * the bookkeeping that the "mem" trace category switches on.
 * Each entry point takes its own mutex of the table (5 allocation, 6 free,
 * 7 re-allocation, which takes 5 and 6 inside it, 8 string copy, 9 final
 * report); no lock is common to all, so the arena list is not safe for
 * concurrent allocation and freeing. Reports go to the trace and change
 * nothing.
 */
#include "zorv2000/memory-alloc.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "global/memory-alloc_p.h"
#include "global/primitives_p.h"
#include "zorv2000/genlist.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Largest request: n + MEM_ARENA_EXTRA must still fit the signed 32-bit
 * arena size. */
static const uint64_t kMaxRequest = (uint64_t)INT32_MAX - 64;

struct ZorvMemAllocCalls zorvMemAllocCalls = {malloc, calloc, ZorvGrabMutex,
                                              atexit};

/* The arena list and the tracking list: the unit's process-wide state. */
static struct {
  /* mutex 5 when an arena is added, mutex 6 when one is returned; no common
   * lock (see the top of the file). Arena pointers by slot number; slot s
   * is apSlots[s - 1], 0 means none. */
  void** apSlots;
  /* as above: entries in apSlots */
  uint32_t nSlots;
  /* as above: slot of the first arena, 0 when there is none */
  uint32_t rootSlot;
  /* mutexes 5 and 6 as above, 9 when dropped: records of blocks in use */
  CGenList blocks;
  /* as above: the tracking list has been constructed */
  int bBlocksMade;
} memState;

/* ---- header access ------------------------------------------------------
 * Headers are read and written through memcpy: an arena added for an odd
 * request size leaves later headers at unaligned addresses. */

static int32_t getI32(const unsigned char* p) {
  int32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

static uint32_t getU32(const unsigned char* p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

static void putI32(unsigned char* p, int32_t v) { memcpy(p, &v, sizeof v); }

static void putU32(unsigned char* p, uint32_t v) { memcpy(p, &v, sizeof v); }

/* arenaSize(), arenaNext(): the two leading words of an arena. */
static int32_t arenaSize(const unsigned char* pArena) { return getI32(pArena); }

static uint32_t arenaNext(const unsigned char* pArena) {
  return getU32(pArena + 4);
}

static void setArenaNext(unsigned char* pArena, uint32_t slot) {
  putU32(pArena + 4, slot);
}

/* blockSize(), blockFlags(): the two words of a block header. */
static int32_t blockSize(const unsigned char* pBlock) { return getI32(pBlock); }

static uint32_t blockFlags(const unsigned char* pBlock) {
  return getU32(pBlock + 4);
}

static void setBlock(unsigned char* pBlock, int32_t size, uint32_t flags) {
  putI32(pBlock, size);
  putU32(pBlock + 4, flags);
}

/* arenaAt(): the arena in `slot`, or null for 0 or a slot out of range. */
static unsigned char* arenaAt(uint32_t slot) {
  if (slot == 0 || slot > memState.nSlots) return NULL;
  return (unsigned char*)memState.apSlots[slot - 1];
}

/* nextBlock(): the block after `pBlock` in `pArena`, or null when `pBlock`
 * is marked last, reaches the arena's end, or has a size that cannot be a
 * block's. */
static unsigned char* nextBlock(unsigned char* pArena, unsigned char* pBlock) {
  int32_t size = blockSize(pBlock);
  if (blockFlags(pBlock) & MEM_FLAG_LAST) return NULL;
  if (size < MEM_BLOCK_HEADER) return NULL;
  int64_t offNext = (int64_t)(pBlock - pArena) + size;
  if (offNext + MEM_BLOCK_HEADER > (int64_t)arenaSize(pArena)) return NULL;
  return pArena + offNext;
}

/* firstBlock(): the first block of an arena. */
static unsigned char* firstBlock(unsigned char* pArena) {
  return pArena + MEM_ARENA_HEADER;
}

/* findBlock(): the block whose data is `pointer`, with its arena and the
 * block before it (null for the first); null when there is none. */
static unsigned char* findBlock(const void* pointer, unsigned char** ppArena,
                                unsigned char** ppPrev) {
  if (!pointer) return NULL;
  for (uint32_t slot = memState.rootSlot; slot != 0;) {
    unsigned char* pArena = arenaAt(slot);
    if (!pArena) break;
    uintptr_t begin = (uintptr_t)pArena;
    uintptr_t end = begin + (uintptr_t)arenaSize(pArena);
    uintptr_t where = (uintptr_t)pointer;
    /* Only an arena that holds the address is walked. */
    if (where > begin && where < end) {
      unsigned char* pPrev = NULL;
      for (unsigned char* pBlock = firstBlock(pArena); pBlock;
           pBlock = nextBlock(pArena, pBlock)) {
        if (pBlock + MEM_BLOCK_HEADER == pointer) {
          if (ppArena) *ppArena = pArena;
          if (ppPrev) *ppPrev = pPrev;
          return pBlock;
        }
        pPrev = pBlock;
      }
    }
    slot = arenaNext(pArena);
  }
  return NULL;
}

/* grabMemMutex(): takes (grab 1) or releases (grab 0) a mutex of the table;
 * a failure ends the process. */
static void grabMemMutex(uint32_t index, int grab) {
  int rc =
      zorvMemAllocCalls.pfnGrabMutex(__FILE__, __LINE__, __func__, index, grab);
  ZORV_VERIFY(rc == 0);
}

/* safeText(): `text`, or "" for null, for trace arguments. */
static const char* safeText(const char* text) { return text ? text : ""; }

/* ---- arenas -------------------------------------------------------------
 */

/* GetOsMemory(): the system allocator, through the seam. */
void* GetOsMemory(uint32_t size) {
  return zorvMemAllocCalls.pfnMalloc((size_t)size);
}

/* FreeOsMemory(): the system's free(). */
void FreeOsMemory(void* pointer) { free(pointer); }

/* AllocNewArena(): an unlinked arena with one free block marked last. */
void* AllocNewArena(int32_t size) {
  if (size < MEM_MIN_ARENA) size = MEM_MIN_ARENA;
  unsigned char* pArena = (unsigned char*)GetOsMemory((uint32_t)size);
  if (!pArena) return NULL;
  putI32(pArena, size);
  setArenaNext(pArena, 0);
  setBlock(firstBlock(pArena), size - MEM_ARENA_HEADER, MEM_FLAG_LAST);
  return pArena;
}

/* claimSlot(): a free slot number for `pArena`, growing the slot table;
 * 0 when it cannot grow. */
static uint32_t claimSlot(void* pArena) {
  for (uint32_t i = 0; i < memState.nSlots; ++i) {
    if (!memState.apSlots[i]) {
      memState.apSlots[i] = pArena;
      return i + 1;
    }
  }
  uint32_t nNew = memState.nSlots ? memState.nSlots * 2 : 8;
  void** apNew = (void**)realloc(memState.apSlots, nNew * sizeof(void*));
  if (!apNew) return 0;
  for (uint32_t i = memState.nSlots; i < nNew; ++i) apNew[i] = NULL;
  uint32_t slot = memState.nSlots + 1;
  apNew[slot - 1] = pArena;
  memState.apSlots = apNew;
  memState.nSlots = nNew;
  return slot;
}

/* AddNewArena(): a new arena at the end of the list. */
int AddNewArena(int32_t size) {
  unsigned char* pArena = (unsigned char*)AllocNewArena(size);
  if (!pArena) return 1;
  uint32_t slot = claimSlot(pArena);
  if (slot == 0) {
    FreeOsMemory(pArena);
    return 1;
  }
  if (memState.rootSlot == 0) {
    memState.rootSlot = slot;
  } else {
    unsigned char* pLast = arenaAt(memState.rootSlot);
    while (arenaNext(pLast) != 0) pLast = arenaAt(arenaNext(pLast));
    setArenaNext(pLast, slot);
  }
  /* Deliberate: registered again for every arena; the first call at exit
   * frees them all and the later ones find the list empty. */
  zorvMemAllocCalls.pfnAtExit(FreeArenasAtExit);
  return 0;
}

/* FreeArena(): unlinks and frees `arena`. */
int FreeArena(void* arena) {
  uint32_t prevSlot = 0;
  for (uint32_t slot = memState.rootSlot; slot != 0;) {
    unsigned char* pArena = arenaAt(slot);
    if (!pArena) break;
    if (pArena == arena) {
      uint32_t next = arenaNext(pArena);
      if (prevSlot == 0) {
        memState.rootSlot = next;
      } else {
        setArenaNext(arenaAt(prevSlot), next);
      }
      memState.apSlots[slot - 1] = NULL;
      FreeOsMemory(pArena);
      return 0;
    }
    prevSlot = slot;
    slot = arenaNext(pArena);
  }
  return 1;
}

/* FreeArenasAtExit(): frees every arena and the slot table. */
void FreeArenasAtExit(void) {
  uint32_t slot = memState.rootSlot;
  while (slot != 0) {
    unsigned char* pArena = arenaAt(slot);
    if (!pArena) break;
    slot = arenaNext(pArena);
    FreeOsMemory(pArena);
  }
  memState.rootSlot = 0;
  free(memState.apSlots);
  memState.apSlots = NULL;
  memState.nSlots = 0;
}

/* LookForMemory(): worst-fit search and split. */
void* LookForMemory(int32_t n) {
  if (n < 0) return NULL;
  unsigned char* pBest = NULL;
  int64_t bestRemainder = -1;
  int64_t need = (int64_t)n + MEM_BLOCK_HEADER;
  for (uint32_t slot = memState.rootSlot; slot != 0;) {
    unsigned char* pArena = arenaAt(slot);
    if (!pArena) break;
    for (unsigned char* pBlock = firstBlock(pArena); pBlock;
         pBlock = nextBlock(pArena, pBlock)) {
      if (blockFlags(pBlock) & MEM_FLAG_IN_USE) continue;
      int64_t size = blockSize(pBlock);
      if (size < need) continue;
      /* Deliberate: worst fit. The block that leaves the largest remainder
       * wins (the first on a tie), which keeps large free stretches at the
       * front of the search. */
      if (size - need > bestRemainder) {
        bestRemainder = size - need;
        pBest = pBlock;
      }
    }
    slot = arenaNext(pArena);
  }
  if (!pBest) return NULL;
  uint32_t flags = blockFlags(pBest) | MEM_FLAG_IN_USE;
  int32_t size = blockSize(pBest);
  /* Deliberate: a remainder of 9 or more is cut down to whole multiples of
   * 16; 9 to 15 bytes therefore stay with the block. */
  if (bestRemainder >= 9) {
    int32_t cut = (int32_t)(bestRemainder & ~(int64_t)(MEM_SPLIT_UNIT - 1));
    if (cut > 0) {
      setBlock(pBest + size - cut, cut, flags & MEM_FLAG_LAST);
      size -= cut;
      flags &= ~(uint32_t)MEM_FLAG_LAST;
    }
  }
  setBlock(pBest, size, flags);
  return pBest + MEM_BLOCK_HEADER;
}

/* GetMemSize(): usable bytes of a block. */
int32_t GetMemSize(const void* pointer) {
  unsigned char* pBlock = findBlock(pointer, NULL, NULL);
  if (!pBlock) return 0;
  int32_t size = blockSize(pBlock);
  /* Deliberate: a size below the header's 8 bytes answers 8. */
  if (size < MEM_BLOCK_HEADER) return MEM_BLOCK_HEADER;
  return size - MEM_BLOCK_HEADER;
}

/* FreeMemory(): free, merge, and return a wholly free arena. */
void FreeMemory(void* pointer) {
  unsigned char* pArena = NULL;
  unsigned char* pPrev = NULL;
  unsigned char* pBlock = findBlock(pointer, &pArena, &pPrev);
  if (!pBlock) return;
  int32_t size = blockSize(pBlock);
  uint32_t flags = blockFlags(pBlock) & ~(uint32_t)MEM_FLAG_IN_USE;
  setBlock(pBlock, size, flags);
  if (pPrev && !(blockFlags(pPrev) & MEM_FLAG_IN_USE)) {
    setBlock(pPrev, blockSize(pPrev) + size,
             blockFlags(pPrev) | (flags & MEM_FLAG_LAST));
    pBlock = pPrev;
  }
  unsigned char* pNext = nextBlock(pArena, pBlock);
  if (pNext && !(blockFlags(pNext) & MEM_FLAG_IN_USE)) {
    setBlock(pBlock, blockSize(pBlock) + blockSize(pNext),
             blockFlags(pBlock) | (blockFlags(pNext) & MEM_FLAG_LAST));
  }
  if (pBlock == firstBlock(pArena) && (blockFlags(pBlock) & MEM_FLAG_LAST)) {
    int bRootAlone =
        pArena == arenaAt(memState.rootSlot) && arenaNext(pArena) == 0;
    /* Deliberate: the first arena stays while it is the only one, so a
     * program that allocates and frees in turn does not go to the system
     * every time. */
    if (!bRootAlone) FreeArena(pArena);
  }
}

/* ---- bookkeeping --------------------------------------------------------
 */

/* DoMemoryBlockTracing(): the "mem" category switch. */
int DoMemoryBlockTracing(void) { return TracingTypeEnabled(ZORV_TRC_MEM); }

/* InitMemBlocksList(): the tracking list, made once, with nodes from malloc
 * so the tracker never allocates from what it tracks. */
int InitMemBlocksList(void) {
  if (!memState.bBlocksMade) {
    CGenListConstructForMemTracing(&memState.blocks, 1, NULL);
    memState.bBlocksMade = 1;
  }
  return 1;
}

/* CMemBlockInfoInit(): fills a record. */
void CMemBlockInfoInit(CMemBlockInfo* info, void* address, uint32_t size,
                       const char* file, int32_t line) {
  if (!info) return;
  info->address = address;
  info->size = size;
  ZorvSafeStrNCpy(info->file, file ? file : "", (int32_t)sizeof info->file);
  info->line = line;
}

/* IsSameMemBlock(): 0 when the record is the block at `key`. */
int IsSameMemBlock(const void* data, const void* key) {
  const CMemBlockInfo* info = (const CMemBlockInfo*)data;
  return info && info->address == key ? 0 : 1;
}

/* PointerIsInMemBlock(): 0 when `key` lies in the record's bytes. */
int PointerIsInMemBlock(const void* data, const void* key) {
  const CMemBlockInfo* info = (const CMemBlockInfo*)data;
  if (!info || info->size == 0) return 1;
  uintptr_t begin = (uintptr_t)info->address;
  uintptr_t last = begin + (uintptr_t)info->size - 1;
  uintptr_t where = (uintptr_t)key;
  return where >= begin && where <= last ? 0 : 1;
}

/* traceBlockInfo(): the "MEM BLOCK INFO" text of a record. */
static void traceBlockInfo(const CMemBlockInfo* info) {
  /* Deliberate: "%ul" prints the size followed by a letter l; readers of
   * the report have always seen it so. */
  ZORV_TRACE_AT(ZORV_TRC_MEM,
                "\nMEM BLOCK INFO\nAddress: %p\nSize: %ul\nAllocated at "
                "file: %s\nLine: %d\n",
                info->address, (unsigned)info->size, info->file,
                (int)info->line);
}

/* findRecord(): the record of the block at `pointer`, or null. */
static CMemBlockInfo* findRecord(const void* pointer, CGenListIter* pIter) {
  if (!memState.bBlocksMade) return NULL;
  CGenListIter it;
  CGenListFind(&it, &memState.blocks, IsSameMemBlock, pointer);
  if (CGenListIterAtEnd(it)) return NULL;
  if (pIter) *pIter = it;
  return (CMemBlockInfo*)CGenListIterGetData(it);
}

/* LogMemoryBlockAlloc(): records a block or reports the address clash. */
void LogMemoryBlockAlloc(void* pointer, uint32_t size, const char* file,
                         int32_t line) {
  InitMemBlocksList();
  CMemBlockInfo* pOld = findRecord(pointer, NULL);
  if (pOld) {
    ZORV_TRACE_AT(ZORV_TRC_MEM,
                  "\nMEMORY ERROR - New mem block has same address as an "
                  "existing block.\nThis may be due to freeing a memory block "
                  "by calling free() directly\ninstead of calling ZorvFree() "
                  "or it may be due to an error in the\nZORV memory logging "
                  "functions\n");
    traceBlockInfo(pOld);
    return;
  }
  CMemBlockInfo* info =
      (CMemBlockInfo*)zorvMemAllocCalls.pfnMalloc(sizeof(CMemBlockInfo));
  if (!info) return;
  CMemBlockInfoInit(info, pointer, size, file, line);
  if (!CGenListPushBack(&memState.blocks, info)) free(info);
}

/* LogMemoryBlockFree(): drops a record or reports the unknown block. */
void LogMemoryBlockFree(void* pointer, const char* file, int32_t line) {
  InitMemBlocksList();
  CGenListIter it;
  if (!findRecord(pointer, &it)) {
    ZORV_TRACE_AT(ZORV_TRC_MEM,
                  "\nMEMORY ERROR - Attempting to free nonexisting memory "
                  "block\nThis may be caused by freeing a block twice, freeing "
                  "a block\nwhich was allocated with malloc() instead of "
                  "ZorvAlloc(),\nfreeing a block which was not dynamically "
                  "allocated, or an\nerror in the ZORV memory logging "
                  "functions\n");
    ZORV_TRACE_AT(ZORV_TRC_MEM, "\nLOCATION\nAddress: %p\nFile: %s\nLine: %d\n",
                  pointer, safeText(file), (int)line);
    return;
  }
  CGenListIter next;
  CGenListErase(&next, &memState.blocks, it);
}

/* ---- entry points -------------------------------------------------------
 */

/* TracingZorvAlloc(): under mutex 5, a zeroed block; one new arena is
 * added when the search finds no room. */
void* TracingZorvAlloc(uint32_t count, uint32_t size, const char* file,
                       int32_t line) {
  uint64_t nBytes = (uint64_t)count * size;
  if (nBytes > kMaxRequest) return NULL;
  int32_t n = (int32_t)nBytes;
  grabMemMutex(ZORV_MUTEX_MEM_ALLOC, 1);
  void* pData = LookForMemory(n);
  if (!pData && AddNewArena(n + MEM_ARENA_EXTRA) == 0) {
    pData = LookForMemory(n);
  }
  if (pData) {
    memset(pData, 0, (size_t)n);
    /* Deliberate: the record keeps `size`, the second argument, not the
     * product; the report has always shown it that way. */
    if (DoMemoryBlockTracing()) LogMemoryBlockAlloc(pData, size, file, line);
  }
  grabMemMutex(ZORV_MUTEX_MEM_ALLOC, 0);
  return pData;
}

/* TracingZorvFree(): under mutex 6. */
void TracingZorvFree(void* pointer, const char* file, int32_t line) {
  grabMemMutex(ZORV_MUTEX_MEM_FREE, 1);
  FreeMemory(pointer);
  if (DoMemoryBlockTracing()) LogMemoryBlockFree(pointer, file, line);
  grabMemMutex(ZORV_MUTEX_MEM_FREE, 0);
}

/* TracingZorvReAlloc(): under mutex 7; allocation and free take 5 and 6. */
void* TracingZorvReAlloc(void* pointer, uint32_t size, const char* file,
                         int32_t line) {
  /* Deliberate: unlike realloc(), a null pointer gives null and allocates
   * nothing; callers test for it to tell "never had a block". */
  if (!pointer) return NULL;
  grabMemMutex(ZORV_MUTEX_MEM_REALLOC, 1);
  void* pResult = NULL;
  if (size == 0) {
    TracingZorvFree(pointer, file, line);
  } else {
    int bKnown = findBlock(pointer, NULL, NULL) != NULL;
    int32_t usable = GetMemSize(pointer);
    if (bKnown && usable > 0 && (uint32_t)usable > size) {
      pResult = pointer;
    } else {
      pResult = TracingZorvAlloc(1, size, file, line);
      if (pResult) {
        /* Deliberate: a pointer found in no arena is copied for all `size`
         * bytes; the caller vouches for them. */
        uint32_t nCopy = bKnown ? (uint32_t)usable : size;
        memcpy(pResult, pointer, nCopy);
        TracingZorvFree(pointer, file, line);
      }
    }
  }
  grabMemMutex(ZORV_MUTEX_MEM_REALLOC, 0);
  return pResult;
}

/* copyString(): a zeroed system buffer of length + 4 holding `text`. */
static char* copyString(const char* text) {
  if (!text) return NULL;
  size_t len = strlen(text);
  char* pCopy = (char*)zorvMemAllocCalls.pfnCalloc(len + 4, 1);
  if (pCopy) memcpy(pCopy, text, len);
  return pCopy;
}

/* TracingZorvAllocString(): under mutex 8. */
char* TracingZorvAllocString(const char* text) {
  if (!text) return NULL;
  grabMemMutex(ZORV_MUTEX_MEM_STRING, 1);
  char* pCopy = copyString(text);
  grabMemMutex(ZORV_MUTEX_MEM_STRING, 0);
  return pCopy;
}

/* ZorvAllocStringEx(): the copy without a lock. */
char* ZorvAllocStringEx(const char* text) { return copyString(text); }

/* TracingIsPointerValid(): checks `pointer` against the records. */
int TracingIsPointerValid(const void* pointer, const char* file, int32_t line) {
  if (!DoMemoryBlockTracing()) return 1;
  if (memState.bBlocksMade) {
    CGenListIter it;
    CGenListFind(&it, &memState.blocks, PointerIsInMemBlock, pointer);
    if (!CGenListIterAtEnd(it)) return 1;
  }
  ZORV_TRACE_AT(ZORV_TRC_MEM,
                "\nMEMORY ERROR - invalid pointer\nAddress %p\nFile: "
                "%s\nLine: %d\n",
                pointer, safeText(file), (int)line);
  return 0;
}

/* ListBlocksStillInUse(): under mutex 9, the report of remaining records. */
void ListBlocksStillInUse(void) {
  grabMemMutex(ZORV_MUTEX_MEM_REPORT, 1);
  if (memState.bBlocksMade && CGenListGetCount(&memState.blocks) > 0) {
    ZORV_TRACE_AT(ZORV_TRC_MEM,
                  "\nMEMORY ERROR - some memory blocks have not been "
                  "released\nLIST OF BLOCKS STILL ALLOCATED\n");
    CGenListIter it;
    for (CGenListIterInit(&it, &memState.blocks); !CGenListIterAtEnd(it);
         CGenListIterAdv(&it)) {
      traceBlockInfo((const CMemBlockInfo*)CGenListIterGetData(it));
    }
  }
  grabMemMutex(ZORV_MUTEX_MEM_REPORT, 0);
}

/* FinishMemoryBlockTracing(): the report, then the records go (mutex 9). */
void FinishMemoryBlockTracing(void) {
  if (!DoMemoryBlockTracing()) return;
  ListBlocksStillInUse();
  grabMemMutex(ZORV_MUTEX_MEM_REPORT, 1);
  if (memState.bBlocksMade) {
    CGenListDestruct(&memState.blocks);
    memState.bBlocksMade = 0;
  }
  grabMemMutex(ZORV_MUTEX_MEM_REPORT, 0);
}

/* ---- views for tests ----------------------------------------------------
 */

int32_t ZorvMem_I_ArenaCount(void) {
  int32_t n = 0;
  for (unsigned char* pArena = arenaAt(memState.rootSlot); pArena;
       pArena = arenaAt(arenaNext(pArena))) {
    ++n;
  }
  return n;
}

void* ZorvMem_I_ArenaAt(int32_t index) {
  int32_t i = 0;
  for (unsigned char* pArena = arenaAt(memState.rootSlot); pArena;
       pArena = arenaAt(arenaNext(pArena))) {
    if (i++ == index) return pArena;
  }
  return NULL;
}

int32_t ZorvMem_I_ArenaSize(const void* arena) {
  return arena ? arenaSize((const unsigned char*)arena) : 0;
}

int32_t ZorvMem_I_BlockCount(const void* arena) {
  if (!arena) return 0;
  unsigned char* pArena = (unsigned char*)arena;
  int32_t n = 0;
  for (unsigned char* pBlock = firstBlock(pArena); pBlock;
       pBlock = nextBlock(pArena, pBlock)) {
    ++n;
  }
  return n;
}

int ZorvMem_I_BlockAt(const void* arena, int32_t index, int32_t* size,
                      uint32_t* flags, void** data) {
  if (!arena) return 0;
  unsigned char* pArena = (unsigned char*)arena;
  int32_t i = 0;
  for (unsigned char* pBlock = firstBlock(pArena); pBlock;
       pBlock = nextBlock(pArena, pBlock)) {
    if (i++ == index) {
      if (size) *size = blockSize(pBlock);
      if (flags) *flags = blockFlags(pBlock);
      if (data) *data = pBlock + MEM_BLOCK_HEADER;
      return 1;
    }
  }
  return 0;
}

int32_t ZorvMem_I_RecordCount(void) {
  return memState.bBlocksMade ? CGenListGetCount(&memState.blocks) : 0;
}

const CMemBlockInfo* ZorvMem_I_FindRecord(const void* pointer) {
  return findRecord(pointer, NULL);
}
