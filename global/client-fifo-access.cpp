/*
 * client-fifo-access.cpp: the client's two FIFOs: the write end of the
 * server FIFO and the client's own read FIFO with its dummy writer. Opens,
 * hides and closes them, sends and receives raw bytes, counts errors.
 * Holds: every ZorvClient_I_ step on FIFOs, the accessors. No lock of its
 * own; the pipe layer's locks protect its queues.
 */
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "global/client-fifo-access_p.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Process-wide state of the connection's FIFOs. */
static struct {
  /* unguarded: changed only by opening and closing, which the client does
   * on one thread before and after any concurrent use; 0 when closed */
  int32_t writeFd;
  /* unguarded: as writeFd */
  int32_t readFd;
  /* unguarded: as writeFd; the own FIFO opened a second time for writing */
  int32_t dummyFd;
  /* unguarded: as writeFd; the server FIFO path in use */
  char szMainFifo[ZORV_PATH_SIZE];
  /* unguarded: as writeFd; the own FIFO path, empty when closed */
  char szOwnFifo[ZORV_PATH_SIZE];
  /* atomic: every sending thread stores it */
  std::atomic<uint32_t> lastSendTime;
  /* atomic: consecutive failed sends, from any sending thread */
  std::atomic<int32_t> writeErrors;
  /* atomic: consecutive failed reads, from any waiting thread */
  std::atomic<int32_t> readErrors;
} state;

/* dropFailedOpen(): ZorvPipeOpen() registers a record even when open()
 * fails; this takes it out again so a failed attempt leaves nothing. */
static void dropFailedOpen(int32_t descriptor) {
  if (descriptor < 0) ZorvPipeClose(descriptor);
}

/* closeOne(): closes a descriptor of the layer unless it is 0 (closed). */
static void closeOne(int32_t* pDescriptor) {
  if (*pDescriptor > 0) ZorvPipeClose(*pDescriptor);
  *pDescriptor = 0;
}

/* ZorvClient_I_OpenWriteFifo(): opens the server FIFO for writing. */
int ZorvClient_I_OpenWriteFifo(void) {
  ZorvSafeStrCpy(state.szMainFifo, ZorvGetServerFifoName(),
                 (int32_t)sizeof state.szMainFifo);
  int32_t fd = ZorvPipeOpen(state.szMainFifo, 1);
  if (fd < 0) {
    dropFailedOpen(fd);
    state.writeFd = 0;
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_OpenWriteFifo() cannot open %s\n",
                  state.szMainFifo);
    return ZORV_FIFO_OPEN_WRITE;
  }
  state.writeFd = fd;
  return ZORV_FIFO_OPEN_OK;
}

/* ZorvClient_I_CreateAndOpenReadFifo(): makes and opens the own FIFO. */
int ZorvClient_I_CreateAndOpenReadFifo(void) {
  ZorvSafeStrCpy(state.szOwnFifo, ZorvGetClientFifoName(),
                 (int32_t)sizeof state.szOwnFifo);
  ZorvPipeUMask(0);
  if (ZorvPipeMkFifo(state.szOwnFifo) != 0) {
    /* Whatever stands at that name is not ours: leave it alone. */
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_CreateAndOpenReadFifo() cannot make %s\n",
                  state.szOwnFifo);
    state.szOwnFifo[0] = '\0';
    return ZORV_FIFO_OPEN_READ;
  }
  int32_t readFd = ZorvPipeOpen(state.szOwnFifo, 0);
  if (readFd < 0) {
    dropFailedOpen(readFd);
    ZorvPipeUnLink(state.szOwnFifo);
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_CreateAndOpenReadFifo() cannot open %s\n",
                  state.szOwnFifo);
    state.szOwnFifo[0] = '\0';
    return ZORV_FIFO_OPEN_READ;
  }
  int32_t dummyFd = ZorvPipeOpen(state.szOwnFifo, 1);
  if (dummyFd < 0) {
    dropFailedOpen(dummyFd);
    ZorvPipeClose(readFd);
    ZorvPipeUnLink(state.szOwnFifo);
    ZORV_TRACE_AT(
        ZORV_TRC_PROGRAM,
        "ZorvClient_I_CreateAndOpenReadFifo() no dummy writer for %s\n",
        state.szOwnFifo);
    state.szOwnFifo[0] = '\0';
    return ZORV_FIFO_OPEN_DUMMY;
  }
  state.readFd = readFd;
  state.dummyFd = dummyFd;
  return ZORV_FIFO_OPEN_OK;
}

/* ZorvClient_I_OpenFifoConnection(): opens both FIFOs. */
int ZorvClient_I_OpenFifoConnection(void) {
  ZorvPipeSignalHandle();
  int rc = ZorvClient_I_OpenWriteFifo();
  if (rc != ZORV_FIFO_OPEN_OK) return rc;
  rc = ZorvClient_I_CreateAndOpenReadFifo();
  if (rc != ZORV_FIFO_OPEN_OK) ZorvClient_I_CloseWriteFifo();
  return rc;
}

/* ZorvClient_I_CloseWriteFifo(): closes the server FIFO. */
void ZorvClient_I_CloseWriteFifo(void) { closeOne(&state.writeFd); }

/* ZorvClient_I_CloseReadFifo(): closes the dummy writer and the reader. */
void ZorvClient_I_CloseReadFifo(void) {
  closeOne(&state.dummyFd);
  closeOne(&state.readFd);
}

/* ZorvClient_I_HideFifo(): unlinks the own FIFO's name; the ends stay. */
int ZorvClient_I_HideFifo(void) {
  if (!state.szOwnFifo[0]) return -1;
  return ZorvPipeUnLink(state.szOwnFifo);
}

/* ZorvClient_I_CloseFifoConnection(): closes everything, removes the name. */
void ZorvClient_I_CloseFifoConnection(void) {
  ZorvClient_I_CloseReadFifo();
  ZorvClient_I_CloseWriteFifo();
  if (state.szOwnFifo[0]) {
    ZorvPipeUnLink(state.szOwnFifo);
    state.szOwnFifo[0] = '\0';
  }
}

/* ZorvClient_I_WriteFifo(): one whole text to the server FIFO. */
int ZorvClient_I_WriteFifo(const char* text) {
  state.lastSendTime.store(ZorvGetTimeOfDay(), std::memory_order_relaxed);
  int64_t nText = text ? (int64_t)strlen(text) : -1;
  int32_t nTaken = -1;
  if (text) nTaken = ZorvPipeWrite(state.writeFd, text, (uint32_t)nText);
  if (!text || (int64_t)nTaken < nText) {
    state.writeErrors.fetch_add(1, std::memory_order_relaxed);
    return 1;
  }
  state.writeErrors.store(0, std::memory_order_relaxed);
  return 0;
}

/* ZorvClient_I_ReadFifo(): the complete messages received so far. */
char* ZorvClient_I_ReadFifo(int32_t* length) {
  char* pData = NULL;
  int32_t nData = ZorvPipeRead(state.readFd, &pData);
  if (length) *length = 0;
  if (nData < 0) {
    int32_t nErrors =
        state.readErrors.fetch_add(1, std::memory_order_relaxed) + 1;
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_ReadFifo() g_iReadErrors: %d\n", (int)nErrors);
  } else {
    state.readErrors.store(0, std::memory_order_relaxed);
  }
  if (nData <= 0 || !pData) {
    free(pData);
    return NULL;
  }
  pData[nData] = '\0';
  if (length) *length = nData;
  return pData;
}

/* ZorvClient_I_WaitForFifoData(): waits for a message, then reads. */
char* ZorvClient_I_WaitForFifoData(int32_t* length, uint32_t timeoutMs,
                                   int watchInput) {
  if (length) *length = 0;
  if (state.readFd <= 0) {
    /* No own FIFO: descriptor 0 would be standard input. Pausing keeps a
     * caller's wait loop from spinning until its deadline. */
    ZorvWait(timeoutMs);
    return NULL;
  }
  int32_t inputFd = watchInput ? ZorvGetStdInFileNo() : -1;
  int rc = ZorvPipeSelect(state.readFd, inputFd, timeoutMs);
  /* Odd results say a complete message is there; 0 is a time-out and a
   * negative one a failed select(). */
  if (rc < 0 || rc % 2 == 0) return NULL;
  return ZorvClient_I_ReadFifo(length);
}

/* ZorvClient_I_GetReadErrorCount(): consecutive failed reads. */
int32_t ZorvClient_I_GetReadErrorCount(void) {
  return state.readErrors.load(std::memory_order_relaxed);
}

/* ZorvClient_I_GetWriteErrorCount(): consecutive failed sends. */
int32_t ZorvClient_I_GetWriteErrorCount(void) {
  return state.writeErrors.load(std::memory_order_relaxed);
}

/* ZorvClient_I_GetReadFifoHandle(): the own FIFO's reader, 0 when closed. */
int32_t ZorvClient_I_GetReadFifoHandle(void) { return state.readFd; }

/* ZorvClient_I_GetWriteFifoHandle(): the server FIFO, 0 when closed. */
int32_t ZorvClient_I_GetWriteFifoHandle(void) { return state.writeFd; }

/* ZorvClient_I_GetDummyWriterHandle(): the dummy writer, 0 when closed. */
int32_t ZorvClient_I_GetDummyWriterHandle(void) { return state.dummyFd; }

/* ZorvClient_I_GetMainFifoName(): the server FIFO path in use. */
const char* ZorvClient_I_GetMainFifoName(void) { return state.szMainFifo; }

/* ZorvClient_I_GetLastAccessTime(): time of day of the last send. */
uint32_t ZorvClient_I_GetLastAccessTime(void) {
  return state.lastSendTime.load(std::memory_order_relaxed);
}

/* ZorvClient_I_GetReadPipeName(): the own FIFO's name into a buffer. */
int ZorvClient_I_GetReadPipeName(char* buffer, uint32_t size) {
  /* Deliberate: ZorvStrNCpy does not terminate a name of `size` characters
   * or more; callers give a buffer of 256 bytes, which always holds it. */
  ZorvStrNCpy(buffer, state.szOwnFifo, size);
  return 0;
}
