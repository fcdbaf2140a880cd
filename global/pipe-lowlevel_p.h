/*
 * pipe-lowlevel_p.h: internals of the FIFO pipe layer.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the sizes of the piece framing, the FIFO record and
 * queue element, the internal steps (exported: the framework's servers link
 * them), the system-call table through which tests give the layer short
 * writes, full FIFOs and failures, and read-only views for tests.
 */
#ifndef ZORV_GLOBAL_PIPE_LOWLEVEL_P_H
#define ZORV_GLOBAL_PIPE_LOWLEVEL_P_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include "zorv2000/genlist.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/zorv-api.h"

/* Sizes and periods of the layer. */
enum {
  ZORV_PIPE_PIECE_SIZE = 4020,     /* largest piece data */
  ZORV_PIPE_CAPACITY = 4096,       /* what a writer assumes a FIFO holds */
  ZORV_PIPE_READ_CHUNK = 4096,     /* one read() of the reader */
  ZORV_PIPE_RESULT_INITIAL = 2048, /* first size of ZorvPipeRead's buffer */
  /* an incomplete message without a new piece for this long is given up
   * when it holds back the messages behind it */
  ZORV_PIPE_STALE_MS = 10000,
  ZORV_PIPE_HEADER_WINDOW = 64, /* a header ends within this many bytes */
  ZORV_PIPE_HEADER_BUFFER = 96, /* room for a header with any numbers */
  ZORV_PIPE_MARK_SIZE = 4,      /* bytes of a start or end mark */
  ZORV_PIPE_PATH_CHARS = 64,    /* characters of a path kept */
  ZORV_PIPE_THREAD_PERIOD_US = 1000,
  ZORV_PIPE_LOCK_BACKOFF_MS = 10,
  ZORV_PIPE_FLUSH_POLL_MS = 350,
  ZORV_PIPE_SELECT_SLACK_MS = 50
};
/* Largest message total a reader accepts and a writer sends: 16 MiB. A
 * header claiming more is hostile or broken. */
#define ZORV_PIPE_MAX_TOTAL (16u * 1024u * 1024u)

/* The two marks around a piece header: a bar and three bytes of value 1,
 * and the mirror image. */
#define ZORV_PIPE_START_MARK "|\x01\x01\x01"
#define ZORV_PIPE_END_MARK "\x01\x01\x01|"

/* A FIFO the layer has open. Fields in this order and width. */
typedef struct ZorvPipeFifo {
  int32_t descriptor;
  int32_t byteCount; /* starts 0, lowered by the bytes ZorvPipeRead hands out */
  char szPath[ZORV_PIPE_PATH_CHARS + 1];
} ZorvPipeFifo;

/* One piece waiting to be written, or a message being put together on the
 * read side. Fields in this order and width. */
typedef struct ZorvPipeQueElement {
  uint32_t messageSerial; /* the sender's message number, from 1 */
  uint32_t senderPid;
  uint32_t pieceNumber; /* from 1; read side: the last piece added */
  uint32_t pieceCount;
  uint32_t pieceLength; /* read side: the bytes put together so far */
  uint32_t totalLength;
  int32_t descriptor;
  char* pData;    /* owned by the element */
  uint32_t nData; /* bytes held in pData */
  /* read side: ZorvMilliSeconds() when the last piece came in, so a
   * message whose writer died half-way can be given up */
  uint32_t lastPieceMs;
} ZorvPipeQueElement;

/* The numbers of a piece header as read. */
typedef struct ZorvPipePieceHeader {
  int32_t kind; /* 'H' or 'F' */
  uint32_t messageSerial;
  uint32_t senderPid;
  uint32_t pieceNumber;
  uint32_t pieceCount;
  uint32_t pieceLength;
  uint32_t totalLength;
} ZorvPipePieceHeader;

/* System calls of the layer. Every call of the unit goes through this table;
 * tests replace entries and put the saved table back. Unguarded: replace
 * entries only while no read/write thread runs. pfnIoctl serves FIONREAD. */
struct ZorvPipeSyscalls {
  int (*pfnOpen)(const char* path, int flags);
  int (*pfnClose)(int fd);
  ssize_t (*pfnRead)(int fd, void* buffer, size_t size);
  ssize_t (*pfnWrite)(int fd, const void* buffer, size_t size);
  int (*pfnFstat)(int fd, struct stat* pStat);
  int (*pfnIoctl)(int fd, unsigned long request, int* pValue);
  int (*pfnSelect)(int nfds, fd_set* pRead, fd_set* pWrite, fd_set* pError,
                   struct timeval* pTimeout);
  int (*pfnMkFifo)(const char* path, mode_t mode);
};
extern struct ZorvPipeSyscalls zorvPipeSyscalls;

/* What one drain of a FIFO has done so far, carried across its chunks. */
typedef struct ZorvPipeTake {
  uint32_t nTaken;           /* data bytes taken into the read queue */
  int32_t bCountStopped;     /* set by a piece of an unknown message */
  ZorvPipeQueElement* pLast; /* element of the previous piece, or null */
} ZorvPipeTake;

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Internal steps ------------------------------------------------------ */

/* Status of a write pass that met a broken pipe (the system's EPIPE). */
enum { ZORV_PIPE_BROKEN = 32 };

/* ZorvPipeWriteQue(): cuts a message into pieces, queues them and runs
 * ZorvPipeServiceWriteQue(). Returns 32 when that did, else `length`.
 * Caller holds lock 4. */
ZORV_API int32_t ZorvPipeWriteQue(int32_t descriptor, const char* data,
                                  uint32_t length);

/* ZorvPipeServiceWriteQue(): writes the queued pieces of one FIFO in order
 * until one does not fit. Returns the data bytes written, or 32 for a broken
 * pipe. Caller holds lock 4. */
ZORV_API int32_t ZorvPipeServiceWriteQue(int32_t descriptor);

/* ZorvPipeWritePipe(): one write() of a framed piece when the FIFO has room
 * for all of it. Returns write()'s result (-1 with errno), or 0 when the
 * FIFO's status cannot be read or there is no room. */
ZORV_API int32_t ZorvPipeWritePipe(int32_t descriptor, const char* buffer,
                                   uint32_t length);

/* ZorvPipeReadQue(): reads a FIFO until it is empty and takes the pieces
 * into the read queue; a piece cut by the end of a read is kept for the
 * next. Returns the data bytes taken in (see ZorvPipeTake.bCountStopped).
 * Caller holds lock 3. */
ZORV_API int32_t ZorvPipeReadQue(int32_t descriptor);

/* ZorvPipeServiceReadQue(): ZorvPipeReadQue() when the FIFO holds bytes;
 * the thread's cheap step for an idle FIFO. Caller holds lock 3. */
ZORV_API int32_t ZorvPipeServiceReadQue(int32_t descriptor);

/* ZorvPipeReadPipe(): one read() of up to `size` bytes; its result. */
ZORV_API int32_t ZorvPipeReadPipe(int32_t descriptor, char* buffer,
                                  uint32_t size);

/* ZorvQueCleanup(): drops the queued pieces of a descriptor; returns how
 * many. Caller holds lock 4. */
ZORV_API int32_t ZorvQueCleanup(int32_t descriptor);

/* MakeDelimiterStr(): writes a piece header into `buffer` of `size` bytes:
 * the start mark, the kind letter (0 "H", 1 "F", any other value none),
 * ":", the six numbers each followed by ":", the end mark; zero-terminated.
 * Returns its length without the terminator, or 0 when it does not fit. */
ZORV_API int32_t MakeDelimiterStr(char* buffer, uint32_t size, int32_t kind,
                                  uint32_t messageSerial, int32_t senderPid,
                                  int32_t pieceNumber, int32_t pieceCount,
                                  uint32_t pieceLength, uint32_t totalLength);

/* Results of FindDelimiter(). */
enum ZorvPipeDelimiterFind {
  ZORV_PIPE_DELIM_FOUND = 0,  /* start and end mark within 64 bytes */
  ZORV_PIPE_DELIM_NONE = 1,   /* no start mark */
  ZORV_PIPE_DELIM_NO_END = 2, /* start mark, no end mark within 64 bytes */
  ZORV_PIPE_DELIM_CUT = 3     /* start mark near the end: more may come */
};

/* FindDelimiter(): locates the first start mark in `length` bytes of `text`
 * and the first end mark after it. Sets *pStart to the start mark's offset
 * (for all but NONE) and *pEnd just past the end mark (FOUND). The header is
 * accepted when the end mark ends fewer than 64 bytes after *pStart. */
ZORV_API int32_t FindDelimiter(const char* text, uint32_t length,
                               uint32_t* pStart, uint32_t* pEnd);

/* ParseDelimStr(): reads a header of `length` bytes from its start mark to
 * the end of its end mark: the kind letter "H" within the first 7 bytes,
 * else "F", then ":" and six decimal numbers of at most 10 digits, each
 * followed by ":", ending at the end mark. Returns 1 and fills *pHeader, or
 * 0 for anything else (numbers above 4294967295 included). */
ZORV_API int32_t ParseDelimStr(const char* header, uint32_t length,
                               ZorvPipePieceHeader* pHeader);

/* FifoListCompare(): 0 when the ZorvPipeFifo `data` has the descriptor
 * pointed to by `key` (an int32_t). */
ZORV_API int FifoListCompare(const void* data, const void* key);

/* FifoListObjectDestructor(): element destructor of the FIFO lists; a FIFO
 * record owns nothing, the list frees the record itself. */
ZORV_API void FifoListObjectDestructor(void* data);

/* QueObjectDestructor(): element destructor of the queues; frees the data
 * buffer, the list frees the element. */
ZORV_API void QueObjectDestructor(void* data);

/* ZorvReadWriteThread(): body of the read/write thread: sleep 1 ms, one
 * ZorvServicePipes(), while the running flag is set. */
ZORV_API void* ZorvReadWriteThread(void* argument);

#ifdef __cplusplus
}
#endif

/* ---- Hidden helpers and views for tests ---------------------------------- */

/* ZorvPipe_I_TakeChunk(): takes the whole pieces of `length` bytes read from
 * `descriptor` into the read queue and returns how many leading bytes are
 * done with; the rest (a piece cut by the end of the read, less than 4096
 * bytes) is to be offered again in front of the next read. Bad pieces are
 * traced and skipped. Caller holds lock 3 and has run ZorvInitPipes(). */
uint32_t ZorvPipe_I_TakeChunk(int32_t descriptor, const char* chunk,
                              uint32_t length, ZorvPipeTake* pTake);

/* The four lists, or null before ZorvInitPipes() and after cleanup. Read
 * them only while holding the lock of their side. */
const CGenList* ZorvPipe_I_ReadFifoList(void);
const CGenList* ZorvPipe_I_WriteFifoList(void);
const CGenList* ZorvPipe_I_ReadQue(void);
const CGenList* ZorvPipe_I_WriteQue(void);

/* ZorvPipe_I_CarriedBytes(): bytes of a cut piece kept for a descriptor. */
uint32_t ZorvPipe_I_CarriedBytes(int32_t descriptor);

/* ZorvPipe_I_DiscardReadQue(): drops every read-queue element and the
 * carried bytes of a descriptor, so a harness can start each input afresh.
 * Caller holds lock 3. */
void ZorvPipe_I_DiscardReadQue(int32_t descriptor);

/* ZorvPipe_I_MessageSerial(): the last message serial handed out. */
uint32_t ZorvPipe_I_MessageSerial(void);

#endif /* ZORV_GLOBAL_PIPE_LOWLEVEL_P_H */
