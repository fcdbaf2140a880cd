/*
 * primitives.h: the lowest layer of the library.
 *
 * A table of twelve process-wide mutexes addressed by number, waits and
 * clocks in milliseconds, process ids, starting and reaping child programs,
 * and the thin string and number wrappers through which the rest of the
 * library reaches the C library. Plain C; every function is thread-safe
 * unless its comment says otherwise.
 */
#ifndef ZORV2000_PRIMITIVES_H
#define ZORV2000_PRIMITIVES_H

#include <stddef.h>
#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Indices into the mutex table. 0, 1, 2 and 11 are reserved. Code that needs
 * both pipe locks takes ZORV_MUTEX_PIPE_READ before ZORV_MUTEX_PIPE_WRITE. */
enum ZorvMutexIndex {
  ZORV_MUTEX_PIPE_READ = 3,
  ZORV_MUTEX_PIPE_WRITE = 4,
  ZORV_MUTEX_MEM_ALLOC = 5,
  ZORV_MUTEX_MEM_FREE = 6,
  ZORV_MUTEX_MEM_REALLOC = 7,
  ZORV_MUTEX_MEM_STRING = 8,
  ZORV_MUTEX_MEM_REPORT = 9,
  ZORV_MUTEX_MSG_TABLE = 10,
  ZORV_MUTEX_COUNT = 12
};

/* Calendar time: seven unsigned 32-bit fields in this order. The readers of
 * this unit always set milliseconds to 0. */
typedef struct ZorvDateTime {
  uint32_t year;  /* four digits */
  uint32_t month; /* 1 to 12 */
  uint32_t day;
  uint32_t hour;
  uint32_t minute;
  uint32_t second;
  uint32_t milliseconds;
} ZorvDateTime;

/* ---- Mutexes ---------------------------------------------------------- */

/* ZorvGrabMutex(): locks (grab non-zero, blocking) or unlocks (grab zero)
 * mutex `index` of the table. Returns 0, -1 for an index above 11, or the
 * thread library's error number (standard output and error are flushed and
 * the held counter is left as it was). file, line and function name the
 * caller: the last successful grab's site is kept, also after the release,
 * for diagnostics only; the pointers must stay valid (literals). */
ZORV_API int ZorvGrabMutex(const char* file, int line, const char* function,
                           uint32_t index, int grab);

/* ZorvTryMutex(): non-blocking lock. Returns 0 when locked, -1 for a bad
 * index, otherwise the thread library's result (busy is non-zero; only
 * errors other than busy flush the output streams). */
ZORV_API int ZorvTryMutex(const char* file, int line, const char* function,
                          uint32_t index);

/* ---- Time (milliseconds unless stated) ------------------------------ */

/* ZorvWait(): pauses through select() without descriptors; returns its
 * result. */
ZORV_API int ZorvWait(uint32_t ms);
/* ZorvSleep(): the same pause through nanosleep(); returns its result. */
ZORV_API int ZorvSleep(uint32_t ms);
/* ZorvUserInputPending(): 1 when standard input is readable now, else 0. */
ZORV_API int ZorvUserInputPending(void);
/* ZorvGetTimeOfDay(): milliseconds since midnight UTC; wraps at midnight.
 * The clock for deadlines of waits. */
ZORV_API uint32_t ZorvGetTimeOfDay(void);
/* ZorvMilliSeconds(): wall clock in milliseconds truncated to 32 bits
 * (wraps about every 49.7 days). The clock for elapsed times. */
ZORV_API uint32_t ZorvMilliSeconds(void);
/* ZorvTimeStamp(): stores ZorvMilliSeconds() as the process-wide stamp and
 * returns it. ZorvTimeDiff(): milliseconds since that stamp. */
ZORV_API uint32_t ZorvTimeStamp(void);
ZORV_API uint32_t ZorvTimeDiff(void);
/* ZorvGetUtcTime(): fills `record` in UTC; 1 for a null record, else 0. */
ZORV_API int ZorvGetUtcTime(ZorvDateTime* record);
/* ZorvGetLocalTime(): the same in local time. `record` must not be null. */
ZORV_API int ZorvGetLocalTime(ZorvDateTime* record);

/* ---- Processes ---------------------------------------------------------- */

/* ZorvGetPid(): this process's id. */
ZORV_API int32_t ZorvGetPid(void);
/* ZorvGetClientPid(): the process id cached on first call and never
 * refreshed; the id written into message headers and FIFO names. */
ZORV_API int32_t ZorvGetClientPid(void);
/* ZorvWaitPid(): waitpid() as it stands. */
ZORV_API int32_t ZorvWaitPid(int32_t pid, int* status, int options);
/* ZorvExec(): starts `path` with the arguments split from `commandLine` at
 * single spaces (argument 0 is `path`, at most 19 more; two spaces in a row
 * give an empty argument). Returns the child's id, or -1 when no child could
 * be created. A program that cannot be executed shows only as a child that
 * exits with status 0. The first call installs CheckForZombiesHandler for
 * SIGCHLD. */
ZORV_API int32_t ZorvExec(const char* path, const char* commandLine);
/* ZorvClearExitStatusForChildProcesses(): reaps finished children for up
 * to `ms` milliseconds of ZorvGetTimeOfDay() (stopping early when no child
 * is left); with 0, makes exactly one reaping call. While children exist
 * but none has finished it polls once a millisecond. */
ZORV_API void ZorvClearExitStatusForChildProcesses(uint32_t ms);
/* CheckForZombiesHandler(): SIGCHLD handler; reaps one finished child
 * without blocking. */
ZORV_API void CheckForZombiesHandler(int signalNumber);

/* ---- Safe copies ----------------------------------------------------------
 */

/* ZorvSafeStrCpy(): copies `src` into `dst` of `size` bytes. Returns 1 when
 * the whole source was copied. Returns 0 when dst is null or size < 1, when
 * src is null (dst emptied), or when src does not fit: dst then holds the
 * marker "!!!OVERFLOW!!!", itself cut to size - 1 characters, so a cut value
 * never passes silently. */
ZORV_API int ZorvSafeStrCpy(char* dst, const char* src, int32_t size);
/* ZorvSafeStrNCpy(): the same, but an over-long source is cut to size - 1
 * characters and 1 is returned. */
ZORV_API int ZorvSafeStrNCpy(char* dst, const char* src, int32_t size);
/* ZorvSafeStrCat(): ZorvSafeStrCpy() onto the end of `dst` with the room
 * left; on overflow the appended part becomes the (cut) marker. */
ZORV_API int ZorvSafeStrCat(char* dst, const char* src, int32_t size);
/* ZorvStrNCpy(): copies at most n characters; terminates only when fewer
 * than n were copied (no zero filling). Does nothing for a null pointer.
 * Returns dst. */
ZORV_API char* ZorvStrNCpy(char* dst, const char* src, uint32_t n);
/* ZorvStrCpy(): copies with terminator; nothing for a null pointer. */
ZORV_API char* ZorvStrCpy(char* dst, const char* src);
/* CopyStrToPointer(): replaces *pointer (freed with free() when set) by a
 * malloc'ed copy of text. 1 on success, 0 with *pointer unchanged when the
 * allocation fails. A null text is copied as ""; a null pointer gives 0. */
ZORV_API int CopyStrToPointer(char** pointer, const char* text);
/* StrToBool(): 0 for "0", "f" and "false" (any letter case), 1 otherwise,
 * the empty text included. A null text is 0. */
ZORV_API int StrToBool(const char* text);
/* BoolToStr(): "true" or "false". */
ZORV_API const char* BoolToStr(int value);
/* SplitFilename(): "/a/b/c.tar.gz" -> "/a/b/", "c", ".tar.gz". Each output
 * may be null; each is emptied first. Outputs need strlen(path) + 1 bytes. */
ZORV_API void SplitFilename(const char* path, char* directory, char* name,
                            char* extension);
/* GetPathFilename(): the path without its directory ("c.tar.gz"). */
ZORV_API void GetPathFilename(const char* path, char* out);

/* ---- Thin wrappers ------------------------------------------------------ */

ZORV_API char* ZorvGetCwd(char* buffer, size_t size);
ZORV_API int ZorvChDir(const char* path);
ZORV_API int ZorvGetStdInFileNo(void);
ZORV_API void* ZorvMemSet(void* dst, int value, size_t count);
ZORV_API void* ZorvMemMove(void* dst, const void* src, size_t count);
ZORV_API size_t ZorvStrLen(const char* text);
ZORV_API int ZorvStrCmp(const char* a, const char* b);
ZORV_API int ZorvStrNCmp(const char* a, const char* b, size_t n);
ZORV_API int ZorvStrCaseCmp(const char* a, const char* b);
ZORV_API char* ZorvStrStr(const char* text, const char* needle);
ZORV_API char* ZorvStrChr(const char* text, int ch);
ZORV_API size_t ZorvStrCSpn(const char* text, const char* reject);
ZORV_API char* ZorvStrCat(char* dst, const char* src);
ZORV_API long ZorvStrToL(const char* text, char** end, int base);
ZORV_API int ZorvAToI(const char* text);
ZORV_API long ZorvAToL(const char* text);
/* ZorvAToF(): floating conversion narrowed to single precision. */
ZORV_API float ZorvAToF(const char* text);
ZORV_API unsigned long atoul(const char* text);
ZORV_API int ZorvIsAlpha(int ch);
ZORV_API int ZorvIsDigit(int ch);
ZORV_API int ZorvIsAlNum(int ch);
/* ZorvToLower(): lower case for -128 to 255; other values unchanged. */
ZORV_API int ZorvToLower(int ch);
ZORV_API int ZorvSprintf(char* buffer, const char* format, ...)
    ZORV_PRINTF(2, 3);
ZORV_API int ZorvPrintf(const char* format, ...) ZORV_PRINTF(1, 2);
ZORV_API int ZorvSScanf(const char* text, const char* format, ...)
    ZORV_SCANF(2, 3);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_PRIMITIVES_H */
