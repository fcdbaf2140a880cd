/*
 * primitives.cpp: numbered process-wide mutexes, clocks, process ids, child
 * programs and the thin C-library wrappers the rest of the library uses.
 * Locks only the table entry a caller names. Clocks, pids and reaping go
 * through zorvSyscalls so tests can steer them.
 */
#include <ctype.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "global/primitives_p.h"

/* What a safe copy leaves in place of a source that does not fit. */
static const char kOverflowMarker[] = "!!!OVERFLOW!!!";

/* Argument 0 (the path), at most 19 split from the command line, and the
 * terminating null entry. */
enum { ZORV_EXEC_MAX_SPLIT_ARGS = 19 };
enum { ZORV_EXEC_ARGV_SIZE = 1 + ZORV_EXEC_MAX_SPLIT_ARGS + 1 };

/* One entry of the mutex table. Only `mutex` is a lock; the rest is
 * diagnostics, written after a successful grab and before a release by the
 * holder, read by anyone. Relaxed atomics: a reader may see a value one step
 * old, never a torn one. */
struct ZorvMutexEntry {
  pthread_mutex_t mutex;
  std::atomic<int32_t> nHeld;             /* grabs minus releases */
  std::atomic<int32_t> pidOwner;          /* last grabber, 0 after release */
  std::atomic<const char*> pGrabFile;     /* last grabber's call site, kept */
  std::atomic<int> grabLine;              /* after release so a hang shows */
  std::atomic<const char*> pGrabFunction; /* who held it last */
};

#define ZORV_MUTEX_ENTRY_INIT                                        \
  {                                                                  \
    PTHREAD_MUTEX_INITIALIZER, {0}, {0}, {nullptr}, {0}, { nullptr } \
  }

/* Process-wide state of the unit; nothing is ever torn down. */
static struct {
  /* each entry guarded by its own `mutex` (the diagnostics: see above) */
  ZorvMutexEntry aMutex[ZORV_MUTEX_COUNT];
  /* unguarded: written once with the same value by whoever comes first */
  std::atomic<int32_t> clientPid;
  /* unguarded: one stamp per process, a racing stamp only moves it */
  std::atomic<uint32_t> timeStamp;
  /* unguarded: exchanged, so exactly one ZorvExec installs the handler */
  std::atomic<bool> bNeedZombieHandler;
} state = {
    {ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT,
     ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT,
     ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT,
     ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT, ZORV_MUTEX_ENTRY_INIT},
    {0},
    {0},
    {true},
};

/* ---- System-call table ------------------------------------------------- */

/* Zorv_I_RealGetTimeOfDay(): gettimeofday() without a time zone. */
int Zorv_I_RealGetTimeOfDay(struct timeval* tv) {
  return gettimeofday(tv, nullptr);
}

/* The process id as getpid() gives it, kept so that every mutex grab and
 * every queued piece does not cost a system call; a forked child refreshes
 * it before it runs any of our code. */
static struct {
  /* unguarded: every writer stores this process's id */
  std::atomic<pid_t> pid;
  pthread_once_t once; /* registers refreshPid() with pthread_atfork() */
} pidCache = {{0}, PTHREAD_ONCE_INIT};

/* refreshPid(): pthread_atfork() child handler. */
static void refreshPid(void) {
  pidCache.pid.store(getpid(), std::memory_order_relaxed);
}

/* registerPidRefresh(): run once, before the first pid is kept. */
static void registerPidRefresh(void) {
  pthread_atfork(nullptr, nullptr, refreshPid);
}

/* Zorv_I_RealGetPid(): getpid(), kept per process. */
pid_t Zorv_I_RealGetPid(void) {
  pid_t pid = pidCache.pid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pthread_once(&pidCache.once, registerPidRefresh);
    pid = getpid();
    pidCache.pid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

/* Zorv_I_RealWaitPid(): waitpid(). */
pid_t Zorv_I_RealWaitPid(pid_t pid, int* status, int options) {
  return waitpid(pid, status, options);
}

struct ZorvSyscalls zorvSyscalls = {Zorv_I_RealGetTimeOfDay, Zorv_I_RealGetPid,
                                    Zorv_I_RealWaitPid};

/* Zorv_I_VerifyFailed(): the library's one out-of-memory exit. */
void Zorv_I_VerifyFailed(int line, const char* file) {
  fprintf(stderr,
          "Zorv2000 Verify Failed: Line:%i File:%s Possibly Out of Memory.\n",
          line, file);
  exit(1);
}

/* ---- Mutexes ----------------------------------------------------------- */

/* recordGrab(): diagnostics after a successful lock or try-lock. */
static void recordGrab(ZorvMutexEntry* pEntry, const char* file, int line,
                       const char* function) {
  pEntry->nHeld.fetch_add(1, std::memory_order_relaxed);
  pEntry->pidOwner.store(ZorvGetPid(), std::memory_order_relaxed);
  pEntry->pGrabFile.store(file, std::memory_order_relaxed);
  pEntry->grabLine.store(line, std::memory_order_relaxed);
  pEntry->pGrabFunction.store(function, std::memory_order_relaxed);
}

/* ZorvGrabMutex(): lock or unlock one table entry. */
int ZorvGrabMutex(const char* file, int line, const char* function,
                  uint32_t index, int grab) {
  if (index >= ZORV_MUTEX_COUNT) return -1;
  ZorvMutexEntry* pEntry = &state.aMutex[index];
  if (grab) {
    int rc = pthread_mutex_lock(&pEntry->mutex);
    if (rc != 0) {
      fflush(stdout);
      fflush(stderr);
      return rc;
    }
    recordGrab(pEntry, file, line, function);
    return 0;
  }
  /* The bookkeeping is undone while the mutex is still held, so the next
   * grabber's pid is never cleared by this release; an unlock error puts
   * it back and leaves the counters as they were. */
  int32_t pidBefore = pEntry->pidOwner.load(std::memory_order_relaxed);
  pEntry->nHeld.fetch_sub(1, std::memory_order_relaxed);
  pEntry->pidOwner.store(0, std::memory_order_relaxed);
  int rc = pthread_mutex_unlock(&pEntry->mutex);
  if (rc != 0) {
    pEntry->nHeld.fetch_add(1, std::memory_order_relaxed);
    pEntry->pidOwner.store(pidBefore, std::memory_order_relaxed);
    fflush(stdout);
    fflush(stderr);
  }
  return rc;
}

/* ZorvTryMutex(): non-blocking grab of one table entry. */
int ZorvTryMutex(const char* file, int line, const char* function,
                 uint32_t index) {
  if (index >= ZORV_MUTEX_COUNT) return -1;
  ZorvMutexEntry* pEntry = &state.aMutex[index];
  int rc = pthread_mutex_trylock(&pEntry->mutex);
  if (rc == 0) {
    recordGrab(pEntry, file, line, function);
  } else if (rc != EBUSY) {
    /* Busy is the everyday answer of the pipe thread's 1 ms poll; only a
     * real error flushes the streams as a failed grab does. */
    fflush(stdout);
    fflush(stderr);
  }
  return rc;
}

/* Zorv_I_MutexHeldCount(): held counter of an entry, 0 for a bad index. */
int32_t Zorv_I_MutexHeldCount(uint32_t index) {
  if (index >= ZORV_MUTEX_COUNT) return 0;
  return state.aMutex[index].nHeld.load(std::memory_order_relaxed);
}

/* Zorv_I_MutexOwnerPid(): last grabber's pid of an entry, 0 when released
 * or for a bad index. */
int32_t Zorv_I_MutexOwnerPid(uint32_t index) {
  if (index >= ZORV_MUTEX_COUNT) return 0;
  return state.aMutex[index].pidOwner.load(std::memory_order_relaxed);
}

/* Zorv_I_MutexGrabSite(): call site of the last successful grab of an
 * entry (kept after the release); 0 for a bad index or no grab yet. */
int Zorv_I_MutexGrabSite(uint32_t index, const char** pFile, int* pLine,
                         const char** pFunction) {
  if (index >= ZORV_MUTEX_COUNT) return 0;
  ZorvMutexEntry* pEntry = &state.aMutex[index];
  const char* file = pEntry->pGrabFile.load(std::memory_order_relaxed);
  const char* function = pEntry->pGrabFunction.load(std::memory_order_relaxed);
  int line = pEntry->grabLine.load(std::memory_order_relaxed);
  if (!file && !function && line == 0) return 0;
  if (pFile) *pFile = file;
  if (pLine) *pLine = line;
  if (pFunction) *pFunction = function;
  return 1;
}

/* ---- Time -------------------------------------------------------------- */

/* ZorvWait(): pause through a descriptor-less select(). */
int ZorvWait(uint32_t ms) {
  struct timeval tv;
  tv.tv_sec = static_cast<time_t>(ms / 1000);
  tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
  return select(0, nullptr, nullptr, nullptr, &tv);
}

/* ZorvSleep(): pause through nanosleep(). */
int ZorvSleep(uint32_t ms) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return nanosleep(&ts, nullptr);
}

/* ZorvUserInputPending(): zero-timeout poll of standard input. */
int ZorvUserInputPending(void) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(STDIN_FILENO, &readable);
  struct timeval tv;
  tv.tv_sec = 0;
  tv.tv_usec = 0;
  int rc = select(STDIN_FILENO + 1, &readable, nullptr, nullptr, &tv);
  if (rc > 0 && FD_ISSET(STDIN_FILENO, &readable)) return 1;
  return 0;
}

/* readClock(): the wall clock through the seam; zero on failure. */
static struct timeval readClock(void) {
  struct timeval tv;
  if (zorvSyscalls.pfnGetTimeOfDay(&tv) != 0) {
    tv.tv_sec = 0;
    tv.tv_usec = 0;
  }
  return tv;
}

/* ZorvGetTimeOfDay(): milliseconds since midnight UTC. */
uint32_t ZorvGetTimeOfDay(void) {
  struct timeval tv = readClock();
  return static_cast<uint32_t>(tv.tv_sec % 86400) * 1000u +
         static_cast<uint32_t>(tv.tv_usec / 1000);
}

/* ZorvMilliSeconds(): wall-clock milliseconds, truncated to 32 bits. */
uint32_t ZorvMilliSeconds(void) {
  struct timeval tv = readClock();
  /* Deliberate: unsigned 32-bit arithmetic wraps about every 49.7 days;
   * every elapsed-time user subtracts two readings, which survives it. */
  return static_cast<uint32_t>(tv.tv_sec) * 1000u +
         static_cast<uint32_t>(tv.tv_usec / 1000);
}

/* ZorvTimeStamp(): set the process-wide stamp. */
uint32_t ZorvTimeStamp(void) {
  uint32_t now = ZorvMilliSeconds();
  state.timeStamp.store(now, std::memory_order_relaxed);
  return now;
}

/* ZorvTimeDiff(): milliseconds since the stamp. */
uint32_t ZorvTimeDiff(void) {
  return ZorvMilliSeconds() - state.timeStamp.load(std::memory_order_relaxed);
}

/* fillDateTime(): copy a broken-down time into the calendar record. */
static void fillDateTime(ZorvDateTime* record, const struct tm* pTm) {
  record->year = static_cast<uint32_t>(pTm->tm_year + 1900);
  record->month = static_cast<uint32_t>(pTm->tm_mon + 1);
  record->day = static_cast<uint32_t>(pTm->tm_mday);
  record->hour = static_cast<uint32_t>(pTm->tm_hour);
  record->minute = static_cast<uint32_t>(pTm->tm_min);
  record->second = static_cast<uint32_t>(pTm->tm_sec);
  record->milliseconds = 0;
}

/* ZorvGetUtcTime(): calendar record in UTC. */
int ZorvGetUtcTime(ZorvDateTime* record) {
  if (!record) return 1;
  time_t seconds = readClock().tv_sec;
  struct tm broken;
  memset(&broken, 0, sizeof broken);
  gmtime_r(&seconds, &broken);
  fillDateTime(record, &broken);
  return 0;
}

/* ZorvGetLocalTime(): calendar record in local time. */
int ZorvGetLocalTime(ZorvDateTime* record) {
  time_t seconds = readClock().tv_sec;
  struct tm broken;
  memset(&broken, 0, sizeof broken);
  localtime_r(&seconds, &broken);
  fillDateTime(record, &broken);
  return 0;
}

/* ---- Processes ----------------------------------------------------------- */

/* ZorvGetPid(): this process's id through the seam. */
int32_t ZorvGetPid(void) {
  return static_cast<int32_t>(zorvSyscalls.pfnGetPid());
}

/* ZorvGetClientPid(): the pid cached on first call. */
int32_t ZorvGetClientPid(void) {
  int32_t pid = state.clientPid.load(std::memory_order_relaxed);
  if (pid == 0) {
    /* Deliberate: never refreshed, not even in a forked child; message
     * headers and FIFO names of one run must all carry the same id. */
    pid = ZorvGetPid();
    state.clientPid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

/* ZorvWaitPid(): waitpid() through the seam. */
int32_t ZorvWaitPid(int32_t pid, int* status, int options) {
  return static_cast<int32_t>(
      zorvSyscalls.pfnWaitPid(static_cast<pid_t>(pid), status, options));
}

/* CheckForZombiesHandler(): reaps one finished child without blocking. */
void CheckForZombiesHandler(int signalNumber) {
  (void)signalNumber;
  int savedErrno = errno;
  int status = 0;
  zorvSyscalls.pfnWaitPid(-1, &status, WNOHANG);
  errno = savedErrno;
}

/* installZombieHandler(): SIGCHLD -> CheckForZombiesHandler. */
static void installZombieHandler(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = CheckForZombiesHandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_NOCLDSTOP;
  sigaction(SIGCHLD, &action, nullptr);
}

/* splitArgs(): cut `line` in place into argv[1..]; returns the count of
 * entries used including argv[0]. argv gets its null entry. */
static int splitArgs(char* line, char** argv) {
  int nArgs = 1;
  char* p = line;
  while (*p == ' ') ++p;
  /* Deliberate: each single space ends an argument, so "a  b" gives "a", ""
   * and "b"; programs started this way count on positional arguments. */
  while (*p && nArgs <= ZORV_EXEC_MAX_SPLIT_ARGS) {
    argv[nArgs++] = p;
    while (*p && *p != ' ') ++p;
    if (*p) *p++ = '\0';
  }
  /* Deliberate: arguments past the 19th are dropped without notice. */
  argv[nArgs] = nullptr;
  return nArgs;
}

/* ZorvExec(): start `path` with arguments split from `commandLine`. */
int32_t ZorvExec(const char* path, const char* commandLine) {
  if (state.bNeedZombieHandler.exchange(false)) installZombieHandler();

  if (!commandLine) commandLine = "";
  size_t nBytes = strlen(commandLine) + 1;
  char* pCopy = static_cast<char*>(malloc(nBytes));
  ZORV_VERIFY(pCopy != nullptr);
  memcpy(pCopy, commandLine, nBytes);

  char* argv[ZORV_EXEC_ARGV_SIZE];
  argv[0] = const_cast<char*>(path);
  splitArgs(pCopy, argv);

  pid_t child = vfork();
  if (child == 0) {
    execv(path, argv);
    /* Deliberate: a program that cannot be executed exits with 0; the
     * caller learns of it only through the missing work, never here. */
    _exit(0);
  }
  free(pCopy);
  if (child < 0) return -1;
  return static_cast<int32_t>(child);
}

/* ZorvClearExitStatusForChildProcesses(): reap finished children for up to
 * `ms` milliseconds of the time of day. */
void ZorvClearExitStatusForChildProcesses(uint32_t ms) {
  uint32_t start = ZorvGetTimeOfDay();
  for (;;) {
    int status = 0;
    pid_t rc = zorvSyscalls.pfnWaitPid(-1, &status, WNOHANG | WUNTRACED);
    if (ms == 0 || rc == -1) return;
    /* Leaving [start, start + ms) also covers the wrap at midnight: the
     * unsigned difference then jumps far above ms. */
    uint32_t now = ZorvGetTimeOfDay();
    if (now - start >= ms) return;
    /* Children exist but none has finished: pause a millisecond rather than
     * spin on the system call for the whole interval. */
    if (rc == 0) ZorvSleep(1);
  }
}

/* ---- Safe copies ------------------------------------------------------- */

/* copyBounded(): copy at most size - 1 characters and terminate; returns 1
 * when the whole source fitted. dst non-null, size >= 1, src non-null. */
static int copyBounded(char* dst, const char* src, int32_t size) {
  int32_t i = 0;
  while (i < size - 1 && src[i]) {
    dst[i] = src[i];
    ++i;
  }
  dst[i] = '\0';
  return src[i] == '\0';
}

/* ZorvSafeStrNCpy(): bounded copy that cuts quietly. */
int ZorvSafeStrNCpy(char* dst, const char* src, int32_t size) {
  if (!dst || size < 1) return 0;
  dst[0] = '\0';
  if (!src) return 0;
  copyBounded(dst, src, size);
  return 1;
}

/* ZorvSafeStrCpy(): bounded copy that marks an over-long source. */
int ZorvSafeStrCpy(char* dst, const char* src, int32_t size) {
  if (!dst || size < 1) return 0;
  dst[0] = '\0';
  if (!src) return 0;
  if (copyBounded(dst, src, size)) return 1;
  /* Deliberate: a cut value is replaced by the marker (cut itself to fit)
   * so that no truncated path or name is ever used as if it were whole. */
  ZorvSafeStrNCpy(dst, kOverflowMarker, size);
  return 0;
}

/* ZorvSafeStrCat(): ZorvSafeStrCpy() onto the end of dst. */
int ZorvSafeStrCat(char* dst, const char* src, int32_t size) {
  if (!dst || size < 1) return 0;
  /* The current length is looked for only inside the buffer: a dst without
   * a terminator in its size leaves no room and is not touched. */
  int32_t nLen = 0;
  while (nLen < size && dst[nLen]) ++nLen;
  return ZorvSafeStrCpy(dst + nLen, src, size - nLen);
}

/* ZorvStrNCpy(): classic bounded copy without zero filling. */
char* ZorvStrNCpy(char* dst, const char* src, uint32_t n) {
  if (!dst || !src) return dst;
  uint32_t i = 0;
  while (i < n && src[i]) {
    dst[i] = src[i];
    ++i;
  }
  /* Deliberate: a source of n or more characters leaves dst unterminated,
   * as the classic bounded copy does; the bytes after it stay untouched. */
  if (i < n) dst[i] = '\0';
  return dst;
}

/* ZorvStrCpy(): unbounded copy; nothing for a null pointer. */
char* ZorvStrCpy(char* dst, const char* src) {
  if (!dst || !src) return dst;
  return strcpy(dst, src);
}

/* CopyStrToPointer(): replace *pointer by a heap copy of text. A null text
 * is copied as the empty text; a null pointer returns 0. */
int CopyStrToPointer(char** pointer, const char* text) {
  if (!pointer) return 0;
  if (!text) text = "";
  size_t nLen = strlen(text);
  char* pCopy = static_cast<char*>(calloc(nLen + 1, 1));
  if (!pCopy) return 0;
  memcpy(pCopy, text, nLen);
  if (*pointer) free(*pointer);
  *pointer = pCopy;
  return 1;
}

/* StrToBool(): false only for "0", "f" and "false" (any case). A null text
 * is false: there is no value to be true. */
int StrToBool(const char* text) {
  if (!text) return 0;
  if (strcmp(text, "0") == 0) return 0;
  if (strcasecmp(text, "f") == 0) return 0;
  if (strcasecmp(text, "false") == 0) return 0;
  /* Deliberate: everything else is true, "no" and the empty text included;
   * definitions files rely on a bare key meaning "on". */
  return 1;
}

/* BoolToStr(): "true" or "false". */
const char* BoolToStr(int value) { return value ? "true" : "false"; }

/* SplitFilename(): directory, name and extension of a path. */
void SplitFilename(const char* path, char* directory, char* name,
                   char* extension) {
  if (directory) directory[0] = '\0';
  if (name) name[0] = '\0';
  if (extension) extension[0] = '\0';
  if (!path || !path[0]) return;
  const char* pSlash = strrchr(path, '/');
  size_t nDir = pSlash ? static_cast<size_t>(pSlash - path) + 1 : 0;
  const char* pRest = path + nDir;
  /* Deliberate: the extension starts at the first dot of the last part, so
   * "c.tar.gz" has the name "c" and the extension ".tar.gz". */
  const char* pDot = strchr(pRest, '.');
  size_t nName = pDot ? static_cast<size_t>(pDot - pRest) : strlen(pRest);
  if (directory) {
    memcpy(directory, path, nDir);
    directory[nDir] = '\0';
  }
  if (name) {
    memcpy(name, pRest, nName);
    name[nName] = '\0';
  }
  if (extension && pDot) strcpy(extension, pDot);
}

/* GetPathFilename(): name and extension joined, the path minus its
 * directory. `out` may overlap `path`. */
void GetPathFilename(const char* path, char* out) {
  if (!out) return;
  if (!path || !path[0]) {
    out[0] = '\0';
    return;
  }
  const char* pSlash = strrchr(path, '/');
  const char* pRest = pSlash ? pSlash + 1 : path;
  memmove(out, pRest, strlen(pRest) + 1);
}

/* ---- Thin wrappers ---------------------------------------------------------
 */

/* ZorvGetCwd(): getcwd(). */
char* ZorvGetCwd(char* buffer, size_t size) { return getcwd(buffer, size); }

/* ZorvChDir(): chdir(). */
int ZorvChDir(const char* path) { return chdir(path); }

/* ZorvGetStdInFileNo(): descriptor of standard input. */
int ZorvGetStdInFileNo(void) { return fileno(stdin); }

/* ZorvMemSet(): memset(). */
void* ZorvMemSet(void* dst, int value, size_t count) {
  return memset(dst, value, count);
}

/* ZorvMemMove(): memmove(). */
void* ZorvMemMove(void* dst, const void* src, size_t count) {
  return memmove(dst, src, count);
}

/* ZorvStrLen(): strlen(). */
size_t ZorvStrLen(const char* text) { return strlen(text); }

/* ZorvStrCmp(): strcmp(). */
int ZorvStrCmp(const char* a, const char* b) { return strcmp(a, b); }

/* ZorvStrNCmp(): strncmp(). */
int ZorvStrNCmp(const char* a, const char* b, size_t n) {
  return strncmp(a, b, n);
}

/* ZorvStrCaseCmp(): strcasecmp(). */
int ZorvStrCaseCmp(const char* a, const char* b) { return strcasecmp(a, b); }

/* ZorvStrStr(): strstr(). */
char* ZorvStrStr(const char* text, const char* needle) {
  return const_cast<char*>(strstr(text, needle));
}

/* ZorvStrChr(): strchr(). */
char* ZorvStrChr(const char* text, int ch) {
  return const_cast<char*>(strchr(text, ch));
}

/* ZorvStrCSpn(): strcspn(). */
size_t ZorvStrCSpn(const char* text, const char* reject) {
  return strcspn(text, reject);
}

/* ZorvStrCat(): strcat(). */
char* ZorvStrCat(char* dst, const char* src) { return strcat(dst, src); }

/* ZorvStrToL(): strtol(). */
long ZorvStrToL(const char* text, char** end, int base) {
  return strtol(text, end, base);
}

/* ZorvAToI(): atoi(). */
int ZorvAToI(const char* text) { return atoi(text); }

/* ZorvAToL(): atol(). */
long ZorvAToL(const char* text) { return atol(text); }

/* ZorvAToF(): atof() narrowed to float. */
float ZorvAToF(const char* text) { return static_cast<float>(atof(text)); }

/* atoul(): strtoul() in base 10. */
unsigned long atoul(const char* text) { return strtoul(text, nullptr, 10); }

/* ZorvIsAlpha(): isalpha(). */
int ZorvIsAlpha(int ch) { return isalpha(ch); }

/* ZorvIsDigit(): isdigit(). */
int ZorvIsDigit(int ch) { return isdigit(ch); }

/* ZorvIsAlNum(): isalnum(). */
int ZorvIsAlNum(int ch) { return isalnum(ch); }

/* ZorvToLower(): tolower() for -128 to 255, other values unchanged. */
int ZorvToLower(int ch) {
  /* The C library's table covers exactly this range (signed and unsigned
   * char); outside it tolower() is undefined, so the value passes through. */
  if (ch < -128 || ch > 255) return ch;
  return tolower(ch);
}

/* ZorvSprintf(): vsprintf() into an unbounded buffer. */
int ZorvSprintf(char* buffer, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = vsprintf(buffer, format, args);
  va_end(args);
  return rc;
}

/* ZorvPrintf(): vprintf(). */
int ZorvPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = vprintf(format, args);
  va_end(args);
  return rc;
}

/* ZorvSScanf(): vsscanf(). */
int ZorvSScanf(const char* text, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = vsscanf(text, format, args);
  va_end(args);
  return rc;
}
