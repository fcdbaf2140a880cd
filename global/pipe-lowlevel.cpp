/*
 * pipe-lowlevel.cpp: named pipes as a message transport. Messages are cut
 * into framed pieces on a write queue and put together again on a read
 * queue; one background thread moves bytes every millisecond.
 * Lock 3 guards the read side, lock 4 the write side. Code that changes the
 * FIFO lists try-locks 4, then 3, and backs off; the thread only try-locks.
 * Every system call goes through zorvPipeSyscalls.
 */
#include "zorv2000/pipe-lowlevel.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "global/pipe-lowlevel_p.h"
#include "global/primitives_p.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Lock and unlock one side, naming the caller for the mutex diagnostics. */
#define PIPE_GRAB(index) ZorvGrabMutex(__FILE__, __LINE__, __func__, (index), 1)
#define PIPE_RELEASE(index) \
  ZorvGrabMutex(__FILE__, __LINE__, __func__, (index), 0)
#define PIPE_TRY(index) ZorvTryMutex(__FILE__, __LINE__, __func__, (index))

/* A drain keeps at most one cut piece: a header under 64 bytes and 4020
 * bytes of data fit in this. */
enum { ZORV_PIPE_CARRY_SIZE = 4096 };
/* Carried bytes and one read() side by side. */
enum { ZORV_PIPE_WORK_SIZE = ZORV_PIPE_CARRY_SIZE + ZORV_PIPE_READ_CHUNK };
/* A read-side buffer for a message up to this size is taken whole at its
 * first piece; a larger one grows with the pieces that really arrive, so a
 * header claiming 16 MiB costs nothing until the bytes come. */
enum { ZORV_PIPE_WHOLE_ALLOC = 64 * 1024 };

/* The bytes a read FIFO keeps from a read that ended inside a piece. */
typedef struct ZorvPipeCarry {
  int32_t descriptor;
  uint32_t nBytes;
  char aBytes[ZORV_PIPE_CARRY_SIZE];
} ZorvPipeCarry;

/* Process-wide state of the unit. */
static struct {
  /* lock 3: records of FIFOs open for reading */
  CGenList gReadFifoList;
  /* lock 4: records of FIFOs open for writing */
  CGenList gWriteFifoList;
  /* lock 3: messages being put together and complete ones */
  CGenList gReadQue;
  /* lock 4: pieces waiting to be written */
  CGenList gWriteQue;
  /* lock 3: ZorvPipeCarry records, one per FIFO that has a cut piece */
  CGenList carryList;
  /* lock 4: header of the piece being written */
  char szHeader[ZORV_PIPE_HEADER_BUFFER];
  /* lock 3: carried bytes followed by one read() */
  char aWork[ZORV_PIPE_WORK_SIZE];
  /* lock 4: number of the last message queued; the first is 1 */
  uint32_t messageSerial;
  /* lock 4: a piece whose write() was cut short, and how much of it (header
   * included) went out; it is finished before anything else of its FIFO */
  ZorvPipeQueElement* pPartial;
  uint32_t nPartialDone;
  /* written under lock 4; read without it by the thread's idle test, where
   * a stale value only delays the write side by one cycle */
  std::atomic<int32_t> nWriteQueued;
  /* unguarded: set by the first ZorvInitPipes under both locks, cleared by
   * ZorvCleanupPipes under both locks; checked again under the lock */
  std::atomic<bool> bListsReady;
  /* unguarded: exchanged, so only the first ZorvInitPipes creates lists */
  std::atomic<bool> bInitDone;
  /* unguarded: the thread's running flag, inverted so that it starts set
   * in zeroed storage; it is only ever set, never cleared */
  std::atomic<bool> bStopped;
  /* unguarded: written by ZorvInitReadWriteThread and read by
   * ZorvStopReadWriteThread, which the program's start and stop code call */
  pthread_t threadId;
  bool bThreadStarted;
} state;

/* ---- System-call table --------------------------------------------------- */

/* realOpen(): open() without a mode; the layer never creates files so. */
static int realOpen(const char* path, int flags) { return open(path, flags); }

/* realRead(): read(). */
static ssize_t realRead(int fd, void* buffer, size_t size) {
  return read(fd, buffer, size);
}

/* realWrite(): write(). */
static ssize_t realWrite(int fd, const void* buffer, size_t size) {
  return write(fd, buffer, size);
}

/* realIoctl(): ioctl() with an int result, as FIONREAD fills. */
static int realIoctl(int fd, unsigned long request, int* pValue) {
  return ioctl(fd, request, pValue);
}

struct ZorvPipeSyscalls zorvPipeSyscalls = {
    realOpen, close, realRead, realWrite, fstat, realIoctl, select, mkfifo};

/* ---- Small helpers ------------------------------------------------------- */

/* grabBothLocks(): takes lock 4 and then lock 3 without ever waiting on
 * one while holding the other: when either is busy both are let go and the
 * attempt repeats after 10 ms, so no order of callers can deadlock. */
static void grabBothLocks(void) {
  for (;;) {
    if (PIPE_TRY(ZORV_MUTEX_PIPE_WRITE) == 0) {
      if (PIPE_TRY(ZORV_MUTEX_PIPE_READ) == 0) return;
      PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
    }
    ZorvSleep(ZORV_PIPE_LOCK_BACKOFF_MS);
  }
}

/* releaseBothLocks(): the reverse of grabBothLocks(). */
static void releaseBothLocks(void) {
  PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
  PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
}

/* findFifo(): the record of `descriptor` in a FIFO list, or null. */
static ZorvPipeFifo* findFifo(const CGenList* pList, int32_t descriptor) {
  CGenListIter it;
  CGenListFind(&it, pList, FifoListCompare, &descriptor);
  if (CGenListIterAtEnd(it)) return NULL;
  return (ZorvPipeFifo*)CGenListIterGetData(it);
}

/* eraseFifo(): removes the record of `descriptor` from a list; 1 when there
 * was one. */
static int eraseFifo(CGenList* pList, int32_t descriptor) {
  CGenListIter it;
  CGenListFind(&it, pList, FifoListCompare, &descriptor);
  if (CGenListIterAtEnd(it)) return 0;
  CGenListIter next;
  CGenListErase(&next, pList, it);
  return 1;
}

/* findCarry(): the carry record of `descriptor`, or null. */
static ZorvPipeCarry* findCarry(int32_t descriptor) {
  CGenListIter it;
  for (CGenListIterInit(&it, &state.carryList); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    ZorvPipeCarry* pCarry = (ZorvPipeCarry*)CGenListIterGetData(it);
    if (pCarry->descriptor == descriptor) return pCarry;
  }
  return NULL;
}

/* dropCarry(): forgets the cut piece kept for `descriptor`. */
static void dropCarry(int32_t descriptor) {
  CGenListIter it;
  for (CGenListIterInit(&it, &state.carryList); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    ZorvPipeCarry* pCarry = (ZorvPipeCarry*)CGenListIterGetData(it);
    if (pCarry->descriptor == descriptor) {
      CGenListIter next;
      CGenListErase(&next, &state.carryList, it);
      return;
    }
  }
}

/* isComplete(): a read-side element holds its last piece. */
static int isComplete(const ZorvPipeQueElement* pElement) {
  return pElement->pieceNumber == pElement->pieceCount;
}

/* hasCompleteMessage(): a complete message of `descriptor` is queued.
 * Deliberate: any complete element counts, also one queued behind an
 * incomplete message that ZorvPipeRead() will not hand out yet; callers of
 * ZorvPipeSelect() get at least 1 then and poll again after reading
 * nothing, a millisecond apart. */
static int hasCompleteMessage(int32_t descriptor) {
  CGenListIter it;
  for (CGenListIterInit(&it, &state.gReadQue); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor == descriptor && isComplete(pElement)) return 1;
  }
  return 0;
}

/* serviceAllWriteFifos(): services the write queue of every write FIFO in
 * turn, stopping at the first broken pipe. Returns 1 and the descriptor in
 * *pBroken when one broke. Caller holds lock 4. */
static int serviceAllWriteFifos(int32_t* pBroken) {
  CGenListIter it;
  for (CGenListIterInit(&it, &state.gWriteFifoList); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    ZorvPipeFifo* pFifo = (ZorvPipeFifo*)CGenListIterGetData(it);
    if (ZorvPipeServiceWriteQue(pFifo->descriptor) == ZORV_PIPE_BROKEN) {
      *pBroken = pFifo->descriptor;
      return 1;
    }
  }
  return 0;
}

/* pieceCountOf(): pieces of a message of `length` bytes. */
static uint32_t pieceCountOf(uint32_t length) {
  if (length <= ZORV_PIPE_PIECE_SIZE) return 1;
  return length / ZORV_PIPE_PIECE_SIZE +
         (length % ZORV_PIPE_PIECE_SIZE != 0 ? 1 : 0);
}

/* ---- Lists and records --------------------------------------------------- */

/* FifoListCompare(): equal when the descriptors are equal. */
int FifoListCompare(const void* data, const void* key) {
  const ZorvPipeFifo* pFifo = (const ZorvPipeFifo*)data;
  return pFifo->descriptor == *(const int32_t*)key ? 0 : 1;
}

/* FifoListObjectDestructor(): a FIFO record owns nothing. */
void FifoListObjectDestructor(void* data) { (void)data; }

/* QueObjectDestructor(): frees the element's data buffer. */
void QueObjectDestructor(void* data) {
  ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)data;
  if (!pElement) return;
  free(pElement->pData);
  pElement->pData = NULL;
}

/* ZorvInitPipes(): creates the lists on the first call of the process. */
void ZorvInitPipes(void) {
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvInitPipes()\n");
  /* Deliberate: only the first call creates the lists, also when a cleanup
   * came in between: stopping the layer is final for the process. */
  if (state.bInitDone.exchange(true)) return;
  grabBothLocks();
  CGenListConstruct(&state.gReadFifoList, 1, FifoListObjectDestructor);
  CGenListConstruct(&state.gWriteFifoList, 1, FifoListObjectDestructor);
  CGenListConstruct(&state.gReadQue, 1, QueObjectDestructor);
  CGenListConstruct(&state.gWriteQue, 1, QueObjectDestructor);
  CGenListConstruct(&state.carryList, 1, NULL);
  state.bListsReady.store(true);
  releaseBothLocks();
}

/* ZorvCleanupPipes(): destroys the lists with their contents. */
void ZorvCleanupPipes(void) {
  grabBothLocks();
  if (state.bListsReady.load()) {
    state.bListsReady.store(false);
    state.pPartial = NULL;
    state.nPartialDone = 0;
    CGenListDestruct(&state.gReadFifoList);
    CGenListDestruct(&state.gWriteFifoList);
    CGenListDestruct(&state.gReadQue);
    CGenListDestruct(&state.gWriteQue);
    CGenListDestruct(&state.carryList);
    state.nWriteQueued.store(0);
  }
  releaseBothLocks();
}

/* ---- FIFO files and descriptors ------------------------------------------ */

/* ZorvPipeMkFifo(): mkfifo() with mode 0660; an existing FIFO is success. */
int ZorvPipeMkFifo(const char* path) {
  int rc = zorvPipeSyscalls.pfnMkFifo(path, 0660);
  if (rc != 0 && errno == EEXIST) {
    struct stat st;
    if (stat(path, &st) == 0 && S_ISFIFO(st.st_mode)) return 0;
    errno = EEXIST;
  }
  return rc;
}

/* ZorvPipeUMask(): umask(). */
uint32_t ZorvPipeUMask(uint32_t mask) { return (uint32_t)umask((mode_t)mask); }

/* ZorvPipeUnLink(): unlink(). */
int ZorvPipeUnLink(const char* path) { return unlink(path); }

/* ZorvPipeOpen(): opens non-blocking and registers the FIFO. */
int32_t ZorvPipeOpen(const char* path, int forWrite) {
  if (!state.bListsReady.load() || !path) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeOpen() pipes not initialised\n");
    return -1;
  }
  int32_t descriptor = zorvPipeSyscalls.pfnOpen(
      path, (forWrite ? O_WRONLY : O_RDONLY) | O_NONBLOCK);
  ZorvPipeFifo* pFifo = (ZorvPipeFifo*)calloc(1, sizeof *pFifo);
  ZORV_VERIFY(pFifo != NULL);
  pFifo->descriptor = descriptor;
  pFifo->byteCount = 0;
  ZorvSafeStrNCpy(pFifo->szPath, path, (int32_t)sizeof pFifo->szPath);
  grabBothLocks();
  if (!state.bListsReady.load()) {
    releaseBothLocks();
    free(pFifo);
    if (descriptor >= 0) zorvPipeSyscalls.pfnClose(descriptor);
    return -1;
  }
  if (forWrite) {
    if (eraseFifo(&state.gWriteFifoList, descriptor))
      ZorvQueCleanup(descriptor);
    ZORV_VERIFY(CGenListPushBack(&state.gWriteFifoList, pFifo));
  } else {
    ZORV_VERIFY(CGenListPushBack(&state.gReadFifoList, pFifo));
  }
  releaseBothLocks();
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeOpen() %s fd %d for %s\n",
                pFifo->szPath, (int)descriptor,
                forWrite ? "writing" : "reading");
  return descriptor;
}

/* ZorvPipeClose(): unregisters and closes a descriptor of the layer. */
int ZorvPipeClose(int32_t descriptor) {
  int bKnown = 0;
  grabBothLocks();
  if (state.bListsReady.load()) {
    if (eraseFifo(&state.gReadFifoList, descriptor)) {
      dropCarry(descriptor);
      bKnown = 1;
    } else if (eraseFifo(&state.gWriteFifoList, descriptor)) {
      ZorvQueCleanup(descriptor);
      bKnown = 1;
    }
  }
  releaseBothLocks();
  if (!bKnown) return 0;
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeClose() fd %d\n", (int)descriptor);
  return zorvPipeSyscalls.pfnClose(descriptor);
}

/* ZorvQueCleanup(): drops the queued pieces of a descriptor. */
int32_t ZorvQueCleanup(int32_t descriptor) {
  int32_t nDropped = 0;
  CGenListIter it;
  CGenListIterInit(&it, &state.gWriteQue);
  while (!CGenListIterAtEnd(it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor != descriptor) {
      CGenListIterAdv(&it);
      continue;
    }
    if (pElement == state.pPartial) {
      state.pPartial = NULL;
      state.nPartialDone = 0;
    }
    CGenListErase(&it, &state.gWriteQue, it);
    state.nWriteQueued.fetch_sub(1, std::memory_order_relaxed);
    ++nDropped;
  }
  return nDropped;
}

/* ---- Piece headers ------------------------------------------------------- */

/* putUnsigned(): appends `value` in decimal and a ":" at *pPos when it
 * fits below `size`; 0 when it does not. */
static int putUnsigned(char* buffer, uint32_t size, uint32_t* pPos,
                       unsigned long value) {
  char aDigits[24];
  uint32_t nDigits = 0;
  do {
    aDigits[nDigits++] = (char)('0' + value % 10u);
    value /= 10u;
  } while (value != 0);
  if (*pPos + nDigits + 1 >= size) return 0;
  while (nDigits > 0) buffer[(*pPos)++] = aDigits[--nDigits];
  buffer[(*pPos)++] = ':';
  return 1;
}

/* putSigned(): putUnsigned() with a leading "-" for a negative value, as
 * "%i" writes it. */
static int putSigned(char* buffer, uint32_t size, uint32_t* pPos,
                     int32_t value) {
  if (value >= 0) return putUnsigned(buffer, size, pPos, (unsigned long)value);
  if (*pPos + 1 >= size) return 0;
  buffer[(*pPos)++] = '-';
  return putUnsigned(buffer, size, pPos, 0ul - (unsigned long)(long)value);
}

/* MakeDelimiterStr(): writes one piece header. The layout is the printf
 * text "%s%s:%lu:%i:%i:%i:%lu:%lu:%s" (marks, kind, numbers), put together
 * by hand because every piece written pays for it. */
int32_t MakeDelimiterStr(char* buffer, uint32_t size, int32_t kind,
                         uint32_t messageSerial, int32_t senderPid,
                         int32_t pieceNumber, int32_t pieceCount,
                         uint32_t pieceLength, uint32_t totalLength) {
  if (!buffer || size == 0) return 0;
  const char* pszKind = kind == 0 ? "H" : kind == 1 ? "F" : "";
  uint32_t nKind = (uint32_t)strlen(pszKind);
  uint32_t pos = 0;
  int bFits = ZORV_PIPE_MARK_SIZE + nKind + 1 < size;
  if (bFits) {
    memcpy(buffer, ZORV_PIPE_START_MARK, ZORV_PIPE_MARK_SIZE);
    pos = ZORV_PIPE_MARK_SIZE;
    memcpy(buffer + pos, pszKind, nKind);
    pos += nKind;
    buffer[pos++] = ':';
  }
  bFits = bFits && putUnsigned(buffer, size, &pos, messageSerial) &&
          putSigned(buffer, size, &pos, senderPid) &&
          putSigned(buffer, size, &pos, pieceNumber) &&
          putSigned(buffer, size, &pos, pieceCount) &&
          putUnsigned(buffer, size, &pos, pieceLength) &&
          putUnsigned(buffer, size, &pos, totalLength) &&
          pos + ZORV_PIPE_MARK_SIZE < size;
  if (!bFits) {
    buffer[0] = '\0';
    return 0;
  }
  memcpy(buffer + pos, ZORV_PIPE_END_MARK, ZORV_PIPE_MARK_SIZE);
  pos += ZORV_PIPE_MARK_SIZE;
  buffer[pos] = '\0';
  return (int32_t)pos;
}

/* findMark(): offset of the first `needle` (4 bytes) in [from, limit) of
 * `text`, or `limit` when there is none. */
static uint32_t findMark(const char* text, uint32_t from, uint32_t limit,
                         const char* needle) {
  if (limit < ZORV_PIPE_MARK_SIZE) return limit;
  for (uint32_t i = from; i + ZORV_PIPE_MARK_SIZE <= limit; ++i) {
    /* The first byte decides almost always; memchr would skip faster but
     * pieces are short and this keeps the bounds obvious. */
    if (text[i] == needle[0] &&
        memcmp(text + i, needle, ZORV_PIPE_MARK_SIZE) == 0)
      return i;
  }
  return limit;
}

/* FindDelimiter(): the first start mark and the first end mark after it. */
int32_t FindDelimiter(const char* text, uint32_t length, uint32_t* pStart,
                      uint32_t* pEnd) {
  uint32_t start = findMark(text, 0, length, ZORV_PIPE_START_MARK);
  if (start == length) return ZORV_PIPE_DELIM_NONE;
  *pStart = start;
  /* The end mark must end fewer than 64 bytes after the start mark's first
   * byte: it may occupy bytes up to start + 62. An end mark before the start
   * mark belongs to nothing. */
  uint32_t limit = start + ZORV_PIPE_HEADER_WINDOW - 1;
  uint32_t searchEnd = limit < length ? limit : length;
  uint32_t end = findMark(text, start + ZORV_PIPE_MARK_SIZE, searchEnd,
                          ZORV_PIPE_END_MARK);
  if (end < searchEnd) {
    *pEnd = end + ZORV_PIPE_MARK_SIZE;
    return ZORV_PIPE_DELIM_FOUND;
  }
  return length >= limit ? ZORV_PIPE_DELIM_NO_END : ZORV_PIPE_DELIM_CUT;
}

/* readNumber(): one decimal number of 1 to 10 digits followed by ":" in
 * [*pPos, limit); advances *pPos past the ":". 0 for anything else. */
static int readNumber(const char* text, uint32_t* pPos, uint32_t limit,
                      uint32_t* pValue) {
  uint64_t value = 0;
  uint32_t nDigits = 0;
  uint32_t pos = *pPos;
  while (pos < limit && text[pos] >= '0' && text[pos] <= '9') {
    if (++nDigits > 10) return 0;
    value = value * 10u + (uint64_t)(text[pos] - '0');
    ++pos;
  }
  if (nDigits == 0 || value > 0xFFFFFFFFu) return 0;
  if (pos >= limit || text[pos] != ':') return 0;
  *pValue = (uint32_t)value;
  *pPos = pos + 1;
  return 1;
}

/* ParseDelimStr(): the kind letter and the six numbers of a header. */
int32_t ParseDelimStr(const char* header, uint32_t length,
                      ZorvPipePieceHeader* pHeader) {
  if (!header || !pHeader || length < 2 * ZORV_PIPE_MARK_SIZE + 2 ||
      memcmp(header, ZORV_PIPE_START_MARK, ZORV_PIPE_MARK_SIZE) != 0 ||
      memcmp(header + length - ZORV_PIPE_MARK_SIZE, ZORV_PIPE_END_MARK,
             ZORV_PIPE_MARK_SIZE) != 0)
    return 0;
  uint32_t limit = length - ZORV_PIPE_MARK_SIZE;
  uint32_t kindEnd = limit < 7 ? limit : 7;
  uint32_t pos = kindEnd;
  for (uint32_t i = ZORV_PIPE_MARK_SIZE; i < kindEnd; ++i) {
    if (header[i] == 'H') {
      pos = i;
      break;
    }
  }
  if (pos == kindEnd) {
    for (uint32_t i = ZORV_PIPE_MARK_SIZE; i < kindEnd; ++i) {
      if (header[i] == 'F') {
        pos = i;
        break;
      }
    }
  }
  if (pos == kindEnd) return 0;
  pHeader->kind = header[pos];
  ++pos;
  if (pos >= limit || header[pos] != ':') return 0;
  ++pos;
  uint32_t* apField[6] = {&pHeader->messageSerial, &pHeader->senderPid,
                          &pHeader->pieceNumber,   &pHeader->pieceCount,
                          &pHeader->pieceLength,   &pHeader->totalLength};
  for (int i = 0; i < 6; ++i) {
    if (!readNumber(header, &pos, limit, apField[i])) return 0;
  }
  return pos == limit ? 1 : 0;
}

/* ---- Writing ------------------------------------------------------------- */

/* ZorvPipeWritePipe(): one write() when the FIFO has room for all of it. */
int32_t ZorvPipeWritePipe(int32_t descriptor, const char* buffer,
                          uint32_t length) {
  struct stat st;
  if (zorvPipeSyscalls.pfnFstat(descriptor, &st) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeWritePipe could not get stats for pipe\n");
    return 0;
  }
  /* A FIFO's status shows size 0 whatever it holds; FIONREAD tells the
   * bytes waiting in it. */
  int nInPipe = 0;
  if (zorvPipeSyscalls.pfnIoctl(descriptor, FIONREAD, &nInPipe) != 0)
    nInPipe = (int)st.st_size;
  if (ZORV_PIPE_CAPACITY - nInPipe < (int)length) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeWrite: Write_Failed Not enough room in pipe need "
                  "%d, pipe has %d in it RETURNING\n",
                  (int)length, nInPipe);
    return 0;
  }
  return (int32_t)zorvPipeSyscalls.pfnWrite(descriptor, buffer, length);
}

/* ZorvPipeServiceWriteQue(): writes the queued pieces of one FIFO. */
int32_t ZorvPipeServiceWriteQue(int32_t descriptor) {
  int32_t nTotal = 0;
  CGenListIter it;
  CGenListIterInit(&it, &state.gWriteQue);
  while (!CGenListIterAtEnd(it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor != descriptor) {
      CGenListIterAdv(&it);
      continue;
    }
    char aPiece[ZORV_PIPE_CAPACITY];
    int32_t nHeader = MakeDelimiterStr(
        state.szHeader, sizeof state.szHeader, 0, pElement->messageSerial,
        (int32_t)pElement->senderPid, (int32_t)pElement->pieceNumber,
        (int32_t)pElement->pieceCount, pElement->pieceLength,
        pElement->totalLength);
    uint32_t nPiece = (uint32_t)nHeader + pElement->nData;
    if (nHeader == 0 || nPiece > sizeof aPiece) {
      /* Only an element queued with impossible numbers gets here. */
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeServiceWriteQue() piece does not fit: dropped\n");
      if (pElement == state.pPartial) state.pPartial = NULL;
      CGenListErase(&it, &state.gWriteQue, it);
      state.nWriteQueued.fetch_sub(1, std::memory_order_relaxed);
      continue;
    }
    memcpy(aPiece, state.szHeader, (size_t)nHeader);
    memcpy(aPiece + nHeader, pElement->pData, pElement->nData);
    uint32_t nDone = pElement == state.pPartial ? state.nPartialDone : 0;
    int32_t rc = ZorvPipeWritePipe(descriptor, aPiece + nDone, nPiece - nDone);
    int writeErrno = errno;
    if (rc == -1 && writeErrno == EPIPE) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeServiceWriteQue() Broken Pipe RETURNING\n");
      return ZORV_PIPE_BROKEN;
    }
    if (rc < 1) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeServiceWriteQue() Couldn't Write RETURN\n");
      break;
    }
    if ((uint32_t)rc < nPiece - nDone) {
      /* A pipe write under 4096 bytes is whole or nothing; should one come
       * back short all the same, the rest of this piece goes out first next
       * time, so the piece is never torn. */
      state.pPartial = pElement;
      state.nPartialDone = nDone + (uint32_t)rc;
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeServiceWriteQue() short write of %d bytes\n",
                    (int)rc);
      break;
    }
    if (pElement == state.pPartial) {
      state.pPartial = NULL;
      state.nPartialDone = 0;
    }
    int32_t nData = (int32_t)pElement->nData;
    nTotal += nData;
    CGenListErase(&it, &state.gWriteQue, it);
    state.nWriteQueued.fetch_sub(1, std::memory_order_relaxed);
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeServiceWriteQue() Wrote %d bytes from buffer\n",
                  (int)nData);
  }
  /* Deliberate: the byte total shares its channel with the broken-pipe
   * status 32, so a pass that writes exactly 32 data bytes reads as a broken
   * pipe and its FIFO is closed. Every caller of the layer compares with 32;
   * the result keeps this one meaning for them. */
  return nTotal;
}

/* ZorvPipeWriteQue(): cuts a message into pieces and queues them. */
int32_t ZorvPipeWriteQue(int32_t descriptor, const char* data,
                         uint32_t length) {
  uint32_t nPieces = pieceCountOf(length);
  if (nPieces > 1) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeWriteQue() Message Being Divided into %d pieces\n",
                  (int)nPieces);
  }
  ++state.messageSerial;
  uint32_t pid = (uint32_t)ZorvGetPid();
  for (uint32_t iPiece = 1; iPiece <= nPieces; ++iPiece) {
    uint32_t offset = (iPiece - 1) * ZORV_PIPE_PIECE_SIZE;
    uint32_t nData =
        iPiece < nPieces ? (uint32_t)ZORV_PIPE_PIECE_SIZE : length - offset;
    ZorvPipeQueElement* pElement =
        (ZorvPipeQueElement*)calloc(1, sizeof *pElement);
    ZORV_VERIFY(pElement != NULL);
    pElement->pData = (char*)calloc(1, (size_t)nData + 1);
    ZORV_VERIFY(pElement->pData != NULL);
    memcpy(pElement->pData, data + offset, nData);
    pElement->messageSerial = state.messageSerial;
    pElement->senderPid = pid;
    pElement->pieceNumber = iPiece;
    pElement->pieceCount = nPieces;
    pElement->pieceLength = nData;
    pElement->totalLength = length;
    pElement->descriptor = descriptor;
    pElement->nData = nData;
    ZORV_VERIFY(CGenListPushBack(&state.gWriteQue, pElement));
    state.nWriteQueued.fetch_add(1, std::memory_order_relaxed);
  }
  if (ZorvPipeServiceWriteQue(descriptor) == ZORV_PIPE_BROKEN)
    return ZORV_PIPE_BROKEN;
  /* Deliberate: a message of 32 bytes returns 32 here whether or not it went
   * out, and ZorvPipeWrite takes that for a broken pipe: the length and the
   * status share this result, and callers compare it with 32. */
  return (int32_t)length;
}

/* ZorvPipeWrite(): queues a message and writes what fits at once. */
int32_t ZorvPipeWrite(int32_t descriptor, const char* data, uint32_t length) {
  PIPE_GRAB(ZORV_MUTEX_PIPE_WRITE);
  if (!state.bListsReady.load() ||
      !findFifo(&state.gWriteFifoList, descriptor)) {
    PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeWrite() PIPE NOT OPEN\n");
    return -1;
  }
  if (length == 0 || !data || length > ZORV_PIPE_MAX_TOTAL) {
    PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
    if (length > ZORV_PIPE_MAX_TOTAL) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeWrite() message of %lu bytes is over the limit: "
                    "not sent\n",
                    (unsigned long)length);
    }
    return 0;
  }
  int32_t rc = ZorvPipeWriteQue(descriptor, data, length);
  PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
  if (rc == ZORV_PIPE_BROKEN) {
    ZorvPipeClose(descriptor);
    return 0;
  }
  return (int32_t)length;
}

/* ZorvFlushWritePipe(): writes queued pieces for up to timeoutMs. */
int32_t ZorvFlushWritePipe(int32_t descriptor, uint32_t timeoutMs) {
  uint32_t start = ZorvMilliSeconds();
  uint32_t nWaited = 0;
  int bBroken = 0;
  PIPE_GRAB(ZORV_MUTEX_PIPE_WRITE);
  if (!state.bListsReady.load()) {
    PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
    return 0;
  }
  while (CGenListGetCount(&state.gWriteQue) > 0) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvFlushWritePipe() %d Elements in Que\n",
                  (int)CGenListGetCount(&state.gWriteQue));
    if (ZorvPipeServiceWriteQue(descriptor) == ZORV_PIPE_BROKEN) {
      bBroken = 1;
      break;
    }
    if (ZorvMilliSeconds() - start >= timeoutMs) break;
    ZorvWait(ZORV_PIPE_FLUSH_POLL_MS);
    nWaited += ZORV_PIPE_FLUSH_POLL_MS;
    if (nWaited >= timeoutMs) break;
  }
  int32_t nLeft = CGenListGetCount(&state.gWriteQue);
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvFlushWritePipe() %d Elements in Que\n",
                (int)nLeft);
  PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
  if (bBroken) ZorvPipeClose(descriptor);
  /* After a close the queue is shorter; the count taken under the lock is
   * what this flush left behind. */
  return nLeft;
}

/* ---- Reading ------------------------------------------------------------- */

/* capacityFor(): buffer size of a read-side element holding nData bytes of
 * a message of `total` bytes (see ZORV_PIPE_WHOLE_ALLOC). */
static uint32_t capacityFor(uint32_t nData, uint32_t total) {
  if (total < ZORV_PIPE_WHOLE_ALLOC) return total + 1;
  uint32_t capacity = ZORV_PIPE_WHOLE_ALLOC;
  while (capacity < nData + 1) capacity *= 2;
  return capacity < total + 1 ? capacity : total + 1;
}

/* Why a piece header that reads well is refused. */
enum ZorvPipePieceCheck {
  ZORV_PIECE_OK = 0,
  ZORV_PIECE_TOO_LONG = 1,
  ZORV_PIECE_TOTAL_TOO_LARGE = 2,
  ZORV_PIECE_BAD_NUMBER = 3,
  ZORV_PIECE_BAD_COUNT = 4,
  ZORV_PIECE_BAD_LENGTH = 5
};

/* checkPiece(): the numbers of a header agree with each other and with the
 * limits; traces the reason of a refusal. */
static int checkPiece(const ZorvPipePieceHeader* pHeader) {
  if (pHeader->pieceLength > ZORV_PIPE_PIECE_SIZE) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() piece of %lu bytes is too long: "
                  "refused\n",
                  (unsigned long)pHeader->pieceLength);
    return ZORV_PIECE_TOO_LONG;
  }
  if (pHeader->totalLength > ZORV_PIPE_MAX_TOTAL) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() message of %lu bytes is too large: "
                  "refused\n",
                  (unsigned long)pHeader->totalLength);
    return ZORV_PIECE_TOTAL_TOO_LARGE;
  }
  if (pHeader->pieceNumber == 0 || pHeader->pieceNumber > pHeader->pieceCount) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() piece %lu of %lu does not exist: "
                  "refused\n",
                  (unsigned long)pHeader->pieceNumber,
                  (unsigned long)pHeader->pieceCount);
    return ZORV_PIECE_BAD_NUMBER;
  }
  if (pHeader->totalLength == 0 ||
      pHeader->pieceCount != pieceCountOf(pHeader->totalLength)) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() %lu pieces do not make %lu bytes: "
                  "refused\n",
                  (unsigned long)pHeader->pieceCount,
                  (unsigned long)pHeader->totalLength);
    return ZORV_PIECE_BAD_COUNT;
  }
  uint32_t expected = pHeader->pieceNumber < pHeader->pieceCount
                          ? (uint32_t)ZORV_PIPE_PIECE_SIZE
                          : pHeader->totalLength - (pHeader->pieceCount - 1) *
                                                       ZORV_PIPE_PIECE_SIZE;
  if (pHeader->pieceLength != expected) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() piece %lu has %lu bytes, not %lu: "
                  "refused\n",
                  (unsigned long)pHeader->pieceNumber,
                  (unsigned long)pHeader->pieceLength, (unsigned long)expected);
    return ZORV_PIECE_BAD_LENGTH;
  }
  return ZORV_PIECE_OK;
}

/* findIncomplete(): the incomplete element of `descriptor` that the
 * sender's message `serial` is being put together in, or null. */
static CGenListIter findIncomplete(int32_t descriptor, uint32_t serial,
                                   uint32_t pid) {
  CGenListIter it;
  for (CGenListIterInit(&it, &state.gReadQue); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor == descriptor &&
        pElement->messageSerial == serial && pElement->senderPid == pid &&
        !isComplete(pElement))
      return it;
  }
  return it;
}

/* dropMessage(): removes the incomplete message a refused piece belonged
 * to, so its later pieces count as pieces of an unknown message. */
static void dropMessage(int32_t descriptor, const ZorvPipePieceHeader* pHeader,
                        ZorvPipeTake* pTake) {
  CGenListIter it =
      findIncomplete(descriptor, pHeader->messageSerial, pHeader->senderPid);
  if (CGenListIterAtEnd(it)) return;
  if (CGenListIterGetData(it) == pTake->pLast) pTake->pLast = NULL;
  ZORV_TRACE_AT(
      ZORV_TRC_PIPE, "ZorvPipeReadQue() message %lu of process %lu dropped\n",
      (unsigned long)pHeader->messageSerial, (unsigned long)pHeader->senderPid);
  CGenListErase(&it, &state.gReadQue, it);
}

/* countTaken(): adds to the bytes taken in unless counting has stopped. */
static void countTaken(ZorvPipeTake* pTake, uint32_t nBytes) {
  if (!pTake->bCountStopped) pTake->nTaken += nBytes;
}

/* addPiece(): puts one checked piece into the read queue. */
static void addPiece(int32_t descriptor, const ZorvPipePieceHeader* pHeader,
                     const char* data, ZorvPipeTake* pTake) {
  if (pHeader->pieceNumber == 1) {
    /* A first piece again for a message being put together: the earlier
     * one lost its later pieces; start over with this one. */
    dropMessage(descriptor, pHeader, pTake);
    ZorvPipeQueElement* pElement =
        (ZorvPipeQueElement*)calloc(1, sizeof *pElement);
    ZORV_VERIFY(pElement != NULL);
    pElement->pData = (char*)calloc(
        1, capacityFor(pHeader->pieceLength, pHeader->totalLength));
    ZORV_VERIFY(pElement->pData != NULL);
    memcpy(pElement->pData, data, pHeader->pieceLength);
    pElement->messageSerial = pHeader->messageSerial;
    pElement->senderPid = pHeader->senderPid;
    pElement->pieceNumber = pHeader->pieceNumber;
    pElement->pieceCount = pHeader->pieceCount;
    pElement->pieceLength = pHeader->pieceLength;
    pElement->totalLength = pHeader->totalLength;
    pElement->descriptor = descriptor;
    pElement->nData = pHeader->pieceLength;
    pElement->lastPieceMs = ZorvMilliSeconds();
    ZORV_VERIFY(CGenListPushBack(&state.gReadQue, pElement));
    pTake->pLast = pElement;
    countTaken(pTake, pHeader->pieceLength);
    return;
  }
  ZorvPipeQueElement* pElement = pTake->pLast;
  if (!pElement || pElement->descriptor != descriptor ||
      pElement->messageSerial != pHeader->messageSerial ||
      pElement->senderPid != pHeader->senderPid || isComplete(pElement)) {
    CGenListIter it =
        findIncomplete(descriptor, pHeader->messageSerial, pHeader->senderPid);
    pElement = CGenListIterAtEnd(it)
                   ? NULL
                   : (ZorvPipeQueElement*)CGenListIterGetData(it);
  }
  if (!pElement) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() piece %lu of unknown message %lu of "
                  "process %lu: dropped\n",
                  (unsigned long)pHeader->pieceNumber,
                  (unsigned long)pHeader->messageSerial,
                  (unsigned long)pHeader->senderPid);
    /* Deliberate: after a piece whose message start was never seen, the
     * bytes of this drain are no longer counted (the pieces still are taken
     * in); the count answers "how much arrived in order", nothing reads it
     * as a total. */
    pTake->bCountStopped = 1;
    return;
  }
  if (pHeader->pieceNumber != pElement->pieceNumber + 1 ||
      pHeader->pieceCount != pElement->pieceCount ||
      pHeader->totalLength != pElement->totalLength) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeReadQue() piece %lu does not follow piece %lu\n",
                  (unsigned long)pHeader->pieceNumber,
                  (unsigned long)pElement->pieceNumber);
    dropMessage(descriptor, pHeader, pTake);
    return;
  }
  uint32_t nNew = pElement->nData + pHeader->pieceLength;
  uint32_t capacity = capacityFor(pElement->nData, pElement->totalLength);
  if (nNew + 1 > capacity) {
    uint32_t newCapacity = capacityFor(nNew, pElement->totalLength);
    char* pGrown = (char*)realloc(pElement->pData, newCapacity);
    ZORV_VERIFY(pGrown != NULL);
    pElement->pData = pGrown;
  }
  memcpy(pElement->pData + pElement->nData, data, pHeader->pieceLength);
  pElement->pData[nNew] = '\0';
  pElement->nData = nNew;
  pElement->pieceLength = nNew;
  pElement->pieceNumber = pHeader->pieceNumber;
  pElement->lastPieceMs = ZorvMilliSeconds();
  pTake->pLast = pElement;
  countTaken(pTake, pHeader->pieceLength);
}

/* partialMarkLength(): length of the longest tail of `length` bytes that
 * begins a start mark (0 to 3): it may be completed by the next read. */
static uint32_t partialMarkLength(const char* text, uint32_t length) {
  for (uint32_t n = ZORV_PIPE_MARK_SIZE - 1; n > 0; --n) {
    if (n <= length && memcmp(text + length - n, ZORV_PIPE_START_MARK, n) == 0)
      return n;
  }
  return 0;
}

/* ZorvPipe_I_TakeChunk(): takes the whole pieces of a chunk. */
uint32_t ZorvPipe_I_TakeChunk(int32_t descriptor, const char* chunk,
                              uint32_t length, ZorvPipeTake* pTake) {
  uint32_t pos = 0;
  while (pos < length) {
    uint32_t start = 0;
    uint32_t after = 0;
    int32_t found = FindDelimiter(chunk + pos, length - pos, &start, &after);
    if (found == ZORV_PIPE_DELIM_NONE) {
      uint32_t keep = partialMarkLength(chunk + pos, length - pos);
      if (length - pos > keep) {
        ZORV_TRACE_AT(ZORV_TRC_PIPE,
                      "ZorvPipeReadQue() %lu bytes without a piece header "
                      "skipped\n",
                      (unsigned long)(length - pos - keep));
      }
      return length - keep;
    }
    if (start > 0) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeReadQue() %lu bytes without a piece header "
                    "skipped\n",
                    (unsigned long)start);
    }
    uint32_t headerPos = pos + start;
    if (found == ZORV_PIPE_DELIM_CUT) return headerPos;
    if (found == ZORV_PIPE_DELIM_NO_END) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeReadQue() piece header without end mark "
                    "skipped\n");
      pos = headerPos + ZORV_PIPE_MARK_SIZE;
      continue;
    }
    uint32_t dataPos = pos + after;
    /* A start mark that a broken writer left without its header, right
     * before another writer's piece: the end mark found belongs to the
     * second start mark. Skip the stray one so that piece survives. */
    uint32_t endMarkPos = dataPos - ZORV_PIPE_MARK_SIZE;
    uint32_t nextStart =
        findMark(chunk, headerPos + 1, endMarkPos, ZORV_PIPE_START_MARK);
    if (nextStart < endMarkPos) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeReadQue() start mark without header skipped\n");
      pos = nextStart;
      continue;
    }
    ZorvPipePieceHeader header;
    if (!ParseDelimStr(chunk + headerPos, dataPos - headerPos, &header)) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeReadQue() unreadable piece header skipped\n");
      pos = dataPos;
      continue;
    }
    if (checkPiece(&header) != ZORV_PIECE_OK) {
      dropMessage(descriptor, &header, pTake);
      pos = dataPos;
      continue;
    }
    if (length - dataPos < header.pieceLength) return headerPos;
    addPiece(descriptor, &header, chunk + dataPos, pTake);
    pos = dataPos + header.pieceLength;
  }
  return length;
}

/* ZorvPipeReadPipe(): one read(). */
int32_t ZorvPipeReadPipe(int32_t descriptor, char* buffer, uint32_t size) {
  return (int32_t)zorvPipeSyscalls.pfnRead(descriptor, buffer, size);
}

/* drainFifo(): ZorvPipeReadQue() that also reports the raw bytes read. */
static int32_t drainFifo(int32_t descriptor, uint32_t* pnRead) {
  ZorvPipeTake take = {0, 0, NULL};
  *pnRead = 0;
  for (;;) {
    ZorvPipeCarry* pCarry = findCarry(descriptor);
    uint32_t nCarried = pCarry ? pCarry->nBytes : 0;
    if (nCarried > 0) memcpy(state.aWork, pCarry->aBytes, nCarried);
    int32_t nRead = ZorvPipeReadPipe(descriptor, state.aWork + nCarried,
                                     ZORV_PIPE_READ_CHUNK);
    if (nRead <= 0) break;
    *pnRead += (uint32_t)nRead;
    uint32_t nHave = nCarried + (uint32_t)nRead;
    uint32_t nDone =
        ZorvPipe_I_TakeChunk(descriptor, state.aWork, nHave, &take);
    uint32_t nTail = nHave - nDone;
    if (nTail > 0 && !pCarry) {
      pCarry = (ZorvPipeCarry*)malloc(sizeof *pCarry);
      ZORV_VERIFY(pCarry != NULL);
      pCarry->descriptor = descriptor;
      ZORV_VERIFY(CGenListPushBack(&state.carryList, pCarry));
    }
    if (pCarry) {
      /* The parser keeps less than one piece with its header. */
      if (nTail > ZORV_PIPE_CARRY_SIZE) nTail = 0;
      memcpy(pCarry->aBytes, state.aWork + nDone, nTail);
      pCarry->nBytes = nTail;
    }
    /* A short read has emptied the FIFO: asking again would only meet
     * EAGAIN. Bytes written meanwhile make the FIFO readable for the next
     * wait or cycle. */
    if ((uint32_t)nRead < ZORV_PIPE_READ_CHUNK) break;
  }
  return (int32_t)take.nTaken;
}

/* ZorvPipeReadQue(): drains a FIFO into the read queue. */
int32_t ZorvPipeReadQue(int32_t descriptor) {
  uint32_t nRead = 0;
  return drainFifo(descriptor, &nRead);
}

/* ZorvPipeServiceReadQue(): drains a FIFO only when it holds bytes. */
int32_t ZorvPipeServiceReadQue(int32_t descriptor) {
  int nAvailable = 0;
  if (zorvPipeSyscalls.pfnIoctl(descriptor, FIONREAD, &nAvailable) == 0 &&
      nAvailable <= 0)
    return 0;
  return ZorvPipeReadQue(descriptor);
}

/* ZorvPipeRead(): hands out the complete messages of a read FIFO. */
int32_t ZorvPipeRead(int32_t descriptor, char** buffer) {
  if (!buffer) return 0;
  *buffer = NULL;
  PIPE_GRAB(ZORV_MUTEX_PIPE_READ);
  if (!state.bListsReady.load()) {
    PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
    return 0;
  }
  ZorvPipeReadQue(descriptor);
  char* pResult = NULL;
  uint32_t nResult = 0;
  uint32_t capacity = 0;
  CGenListIter it;
  CGenListIterInit(&it, &state.gReadQue);
  while (!CGenListIterAtEnd(it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor != descriptor) {
      CGenListIterAdv(&it);
      continue;
    }
    if (!isComplete(pElement)) {
      /* Messages are handed out in arrival order, so one whose writer died
       * between two pieces would hold back every later message of the
       * FIFO for good (the broker's FIFO: all routing). One that has had
       * no new piece for ZORV_PIPE_STALE_MS is given up. */
      uint32_t idleMs = ZorvMilliSeconds() - pElement->lastPieceMs;
      if (idleMs < ZORV_PIPE_STALE_MS) break;
      ZORV_TRACE_AT(ZORV_TRC_PIPE,
                    "ZorvPipeRead() message %lu of process %lu incomplete for "
                    "%lu ms: dropped\n",
                    (unsigned long)pElement->messageSerial,
                    (unsigned long)pElement->senderPid, (unsigned long)idleMs);
      CGenListErase(&it, &state.gReadQue, it);
      continue;
    }
    uint32_t nNeeded = nResult + pElement->nData + 1;
    if (nNeeded > capacity) {
      uint32_t newCapacity =
          capacity == 0 ? (uint32_t)ZORV_PIPE_RESULT_INITIAL : capacity * 2;
      if (newCapacity < nNeeded) newCapacity = nNeeded;
      char* pGrown = (char*)realloc(pResult, newCapacity);
      ZORV_VERIFY(pGrown != NULL);
      pResult = pGrown;
      capacity = newCapacity;
    }
    memcpy(pResult + nResult, pElement->pData, pElement->nData);
    nResult += pElement->nData;
    CGenListErase(&it, &state.gReadQue, it);
  }
  if (nResult == 0) {
    PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
    free(pResult);
    return 0;
  }
  pResult[nResult] = '\0';
  ZorvPipeFifo* pFifo = findFifo(&state.gReadFifoList, descriptor);
  /* Deliberate: the counter only ever goes down, by what is handed out;
   * nothing adds what arrives. Callers read it as the negated total of
   * bytes delivered on that FIFO. */
  if (pFifo) pFifo->byteCount -= (int32_t)nResult;
  PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
  *buffer = pResult;
  return (int32_t)nResult;
}

/* ZorvGetBytesInQue(): the byte counter of a read FIFO, -1 if unknown. */
int32_t ZorvGetBytesInQue(int32_t descriptor) {
  int32_t nBytes = -1;
  PIPE_GRAB(ZORV_MUTEX_PIPE_READ);
  if (state.bListsReady.load()) {
    ZorvPipeFifo* pFifo = findFifo(&state.gReadFifoList, descriptor);
    if (pFifo) nBytes = pFifo->byteCount;
  }
  PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
  return nBytes;
}

/* ---- Waiting ------------------------------------------------------------- */

/* ZorvPipeSelect(): waits for a complete message on a read FIFO. */
int ZorvPipeSelect(int32_t descriptor, int32_t inputDescriptor,
                   uint32_t timeoutMs) {
  (void)inputDescriptor;
  if (!state.bListsReady.load()) return -1;
  uint32_t nRead = 0;

  PIPE_GRAB(ZORV_MUTEX_PIPE_READ);
  int bWaiting = hasCompleteMessage(descriptor);
  drainFifo(descriptor, &nRead);
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeSelect %d Element in READ Que\n",
                (int)CGenListGetCount(&state.gReadQue));
  /* A message that came in through this drain is handed back at once, as a
   * wake-up of the select below would hand it back. */
  int bTakenNow = !bWaiting && hasCompleteMessage(descriptor);
  PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);

  /* With nothing queued the write pass would find nothing to do. */
  if (state.nWriteQueued.load(std::memory_order_relaxed) > 0 &&
      PIPE_TRY(ZORV_MUTEX_PIPE_WRITE) == 0) {
    int32_t broken = -1;
    int bBroken = serviceAllWriteFifos(&broken);
    PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
    if (bBroken) ZorvPipeClose(broken);
  }
  if (bTakenNow) return 1;

  PIPE_GRAB(ZORV_MUTEX_PIPE_READ);
  int bQueued = hasCompleteMessage(descriptor);
  if (bQueued && !bWaiting) {
    /* The read/write thread took it in after the drain above. */
    PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
    return 1;
  }
  fd_set readSet;
  FD_ZERO(&readSet);
  int nfds = 0;
  struct timeval tv;
  int rc = 0;
  if (bQueued) {
    /* Deliberate: a message that was already waiting before the call is
     * reported after a pause of 1 ms on nothing; a caller polling in a tight
     * loop gives the read/write thread and its peers a turn that way. */
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeSelect() DATA in READ Q\n");
    tv.tv_sec = 0;
    tv.tv_usec = 1000;
  } else if (descriptor < 0 || descriptor >= FD_SETSIZE) {
    /* fd_set cannot name it; report it as select() would a bad one. */
    rc = -1;
  } else {
    FD_SET(descriptor, &readSet);
    nfds = descriptor + 1;
    tv.tv_sec = (time_t)(timeoutMs / 1000);
    tv.tv_usec = (suseconds_t)((timeoutMs % 1000) * 1000);
  }
  uint32_t start = ZorvMilliSeconds();
  while (rc == 0) {
    rc = zorvPipeSyscalls.pfnSelect(nfds, nfds ? &readSet : NULL, NULL, NULL,
                                    &tv);
    if (rc <= 0 || nfds == 0 || !FD_ISSET(descriptor, &readSet)) break;
    drainFifo(descriptor, &nRead);
    if (hasCompleteMessage(descriptor)) {
      rc = 1;
      break;
    }
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeSelect Incomplet Message\n");
    uint32_t elapsed = ZorvMilliSeconds() - start;
    uint32_t remaining = timeoutMs - elapsed;
    /* Past the time-out the unsigned difference wraps to a huge value;
     * that is time up as well. */
    if (remaining <= ZORV_PIPE_SELECT_SLACK_MS || elapsed > timeoutMs) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvPipeSelect Time is Up\n");
      break;
    }
    /* A FIFO whose writers are all gone reads as readable with nothing in
     * it; a short pause keeps this wait from spinning until the time-out. */
    if (nRead == 0) ZorvSleep(1);
    FD_ZERO(&readSet);
    FD_SET(descriptor, &readSet);
    tv.tv_sec = (time_t)(remaining / 1000);
    tv.tv_usec = (suseconds_t)((remaining % 1000) * 1000);
    ZORV_TRACE_AT(ZORV_TRC_PIPE,
                  "ZorvPipeSelect Select again time remaning %d\n",
                  (int)remaining);
    rc = 0;
  }
  PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
  if (rc < 0 && !bQueued) return -1;
  if (bQueued) return rc | 1;
  return rc;
}

/* ---- The read/write thread ----------------------------------------------- */

/* ZorvServicePipes(): one cycle of the read/write thread. */
void ZorvServicePipes(void) {
  if (!state.bListsReady.load(std::memory_order_acquire)) return;
  if (PIPE_TRY(ZORV_MUTEX_PIPE_READ) == 0) {
    if (state.bListsReady.load(std::memory_order_relaxed)) {
      ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvServicePipes: ***READING***\n");
      CGenListIter it;
      for (CGenListIterInit(&it, &state.gReadFifoList); !CGenListIterAtEnd(it);
           CGenListIterAdv(&it)) {
        ZorvPipeFifo* pFifo = (ZorvPipeFifo*)CGenListIterGetData(it);
        ZorvPipeServiceReadQue(pFifo->descriptor);
      }
    }
    PIPE_RELEASE(ZORV_MUTEX_PIPE_READ);
  }
  if (state.bStopped.load()) return;
  /* An idle cycle leaves the write lock alone: nothing is queued. */
  if (state.nWriteQueued.load(std::memory_order_relaxed) == 0) return;
  if (PIPE_TRY(ZORV_MUTEX_PIPE_WRITE) != 0) return;
  int32_t broken = -1;
  int bBroken = 0;
  if (state.bListsReady.load(std::memory_order_relaxed)) {
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvServicePipes: ***WRITING***\n");
    bBroken = serviceAllWriteFifos(&broken);
  }
  PIPE_RELEASE(ZORV_MUTEX_PIPE_WRITE);
  if (bBroken) ZorvPipeClose(broken);
}

/* ZorvReadWriteThread(): the thread's loop. */
void* ZorvReadWriteThread(void* argument) {
  (void)argument;
  /* Deliberate: the loop tests the running flag after its cycle, so a
   * thread started after a stop still runs one cycle (reading only). */
  do {
    usleep(ZORV_PIPE_THREAD_PERIOD_US);
    /* Deliberate: the line shows "%l" as written and no time: the text is
     * printed as it stands, so the trace reads the same everywhere. */
    ZORV_TRACE_AT(ZORV_TRC_PIPE, "%s", "ZorvReadWriteThread: Time %l\n");
    ZorvServicePipes();
  } while (!state.bStopped.load());
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvReadWriteThread: EXITING\n");
  ZORV_TRACE_AT(ZORV_TRC_PIPE2, "read-write thread exiting\n");
  return NULL;
}

/* ZorvInitReadWriteThread(): starts the thread. */
int ZorvInitReadWriteThread(void) {
  ZORV_TRACE_AT(ZORV_TRC_PIPE2, "creating read/write thread\n");
  pthread_t threadId;
  int rc = pthread_create(&threadId, NULL, ZorvReadWriteThread, NULL);
  if (rc == 0) {
    state.threadId = threadId;
    state.bThreadStarted = true;
  }
  return rc;
}

/* ZorvStopReadWriteThread(): stops the thread for good and joins it. */
int ZorvStopReadWriteThread(void) {
  ZORV_TRACE_AT(ZORV_TRC_PIPE2, "ZorvStopReadWriteThread: top of function\n");
  state.bStopped.store(true);
  ZORV_TRACE_AT(ZORV_TRC_PIPE2, "thread_id is %lu\n",
                (unsigned long)state.threadId);
  int rc = ESRCH;
  if (state.bThreadStarted) {
    rc = pthread_join(state.threadId, NULL);
    state.bThreadStarted = false;
  }
  ZORV_TRACE_AT(ZORV_TRC_PIPE2, "pthread_join() returned %d\n", rc);
  return rc;
}

/* ---- Signals ------------------------------------------------------------- */

/* ZorvPipeSignalHandle(): ignores SIGPIPE. */
void ZorvPipeSignalHandle(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  sigaction(SIGPIPE, &action, NULL);
}

/* ZorvSIGPIPEHandler(): traces only. */
void ZorvSIGPIPEHandler(int signalNumber) {
  (void)signalNumber;
  ZORV_TRACE_AT(ZORV_TRC_PIPE, "ZorvSIGPIPEHandler\n");
}

/* ---- Views for tests ----------------------------------------------------- */

/* The lists, null while they do not exist. */
const CGenList* ZorvPipe_I_ReadFifoList(void) {
  return state.bListsReady.load() ? &state.gReadFifoList : NULL;
}
const CGenList* ZorvPipe_I_WriteFifoList(void) {
  return state.bListsReady.load() ? &state.gWriteFifoList : NULL;
}
const CGenList* ZorvPipe_I_ReadQue(void) {
  return state.bListsReady.load() ? &state.gReadQue : NULL;
}
const CGenList* ZorvPipe_I_WriteQue(void) {
  return state.bListsReady.load() ? &state.gWriteQue : NULL;
}

/* ZorvPipe_I_CarriedBytes(): bytes kept from a cut read. */
uint32_t ZorvPipe_I_CarriedBytes(int32_t descriptor) {
  if (!state.bListsReady.load()) return 0;
  ZorvPipeCarry* pCarry = findCarry(descriptor);
  return pCarry ? pCarry->nBytes : 0;
}

/* ZorvPipe_I_DiscardReadQue(): forgets what a descriptor has received. */
void ZorvPipe_I_DiscardReadQue(int32_t descriptor) {
  if (!state.bListsReady.load()) return;
  dropCarry(descriptor);
  CGenListIter it;
  CGenListIterInit(&it, &state.gReadQue);
  while (!CGenListIterAtEnd(it)) {
    ZorvPipeQueElement* pElement = (ZorvPipeQueElement*)CGenListIterGetData(it);
    if (pElement->descriptor == descriptor) {
      CGenListErase(&it, &state.gReadQue, it);
    } else {
      CGenListIterAdv(&it);
    }
  }
}

/* ZorvPipe_I_MessageSerial(): the last serial handed out. */
uint32_t ZorvPipe_I_MessageSerial(void) { return state.messageSerial; }
