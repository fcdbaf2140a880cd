/*
 * tracing.cpp: the trace call, its category switches, process names and
 * the debugger launch.
 * The switches come from ZORV_TRACE and ZORV_TRACE_FILE, read once with the
 * process name at the first trace call; after that a disabled line costs a
 * pthread_once check and an array load. Takes no locks: a line is two
 * writes, and lines of concurrent threads may interleave.
 */
#include "zorv2000/tracing.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "global/tracing_p.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/primitives.h"

/* Sizes of the unit's buffers, terminator included. */
enum TraceSizes {
  TRACE_FILE_SIZE = 256,
  TRACE_PROC_NAME_SIZE = 256,
  TRACE_STRING_SIZE = 512,
  /* /proc/<pid>/stat is read this far: the name comes right after the pid. */
  TRACE_STAT_READ = 64,
  /* Longest keyword ("pipe2") and terminator, with room to spare. */
  TRACE_KEYWORD_SIZE = 8
};

const char* Zorv_I_pszTerminalProgram = "/usr/X11R6/bin/xterm";
const char* Zorv_I_pszProcDirectory = "/proc";

/* Process-wide state of the unit. */
static struct TraceState {
  /* Runs readSwitches() once per process; pthread_once is the guard of the
   * fields marked "once" below. */
  pthread_once_t once = PTHREAD_ONCE_INIT;
  /* once: category switches, written inside `once` only, then read-only. */
  int abEnabled[ZORV_TRC_COUNT] = {};
  /* once: category of the running program, from the process name. */
  int iProgramCategory = ZORV_TRC_DIAG;
  /* once: trace lines go to szTraceFile instead of the console. */
  int bTraceToFile = 0;
  char szTraceFile[TRACE_FILE_SIZE] = {};
  /* unguarded: set once by InitProcName(), which the trace call runs inside
   * `once`; a program calling it directly does so before its threads. */
  int bProcNameSet = 0;
  char szProcName[TRACE_PROC_NAME_SIZE] = {};
  /* unguarded: only the test seam writes it, while no thread traces. */
  char szTracingString[TRACE_STRING_SIZE] = {};
  /* unguarded: modules compute it from main(), before they start threads. */
  char szModuleTraceFile[TRACE_FILE_SIZE] = {};
  /* unguarded: the static result of PidToProcName(); concurrent callers of
   * that function share it, as its interface says. */
  char szPidProcName[TRACE_STAT_READ + 1] = {};
} traceState;

/* Keyword of each category; category 3 has none, it follows the program. */
static const char* const traceKeywords[ZORV_TRC_COUNT] = {
    "pipe", "pipe2", "mem", nullptr, "diag", "mb",
    "de",   "nls",   "cli", "pv",    "dll"};

/* Process names of the framework's own programs and their categories. */
static const struct {
  const char* pszName;
  int iCategory;
} traceProgramNames[] = {{"zorv2000", ZORV_TRC_MB},
                         {"diagengine", ZORV_TRC_DE},
                         {"nlsengine", ZORV_TRC_NLS},
                         {"zorvcli", ZORV_TRC_CLI}};

/* enableKeyword(): switches on the category named by one comma-separated
 * item of ZORV_TRACE (`nLength` bytes, not terminated), or all of them for
 * "all". Spaces and tabs around the item do not count; anything else that
 * is no keyword is ignored. */
static void enableKeyword(const char* pItem, size_t nLength) {
  while (nLength > 0 && (*pItem == ' ' || *pItem == '\t')) {
    ++pItem;
    --nLength;
  }
  while (nLength > 0 &&
         (pItem[nLength - 1] == ' ' || pItem[nLength - 1] == '\t'))
    --nLength;
  if (nLength == 0 || nLength >= TRACE_KEYWORD_SIZE) return;
  char szWord[TRACE_KEYWORD_SIZE];
  memcpy(szWord, pItem, nLength);
  szWord[nLength] = '\0';
  if (ZorvStrCaseCmp(szWord, "all") == 0) {
    for (int iCategory = 0; iCategory < ZORV_TRC_COUNT; ++iCategory)
      traceState.abEnabled[iCategory] = 1;
    return;
  }
  int iCategory = TracingTypeStrToType(szWord);
  if (iCategory >= 0) traceState.abEnabled[iCategory] = 1;
}

/* enableKeywords(): walks the comma-separated list of ZORV_TRACE. Empty
 * items (",,", a trailing comma) are skipped by enableKeyword(). */
static void enableKeywords(const char* pszList) {
  const char* pItem = pszList;
  for (;;) {
    const char* pEnd = pItem;
    while (*pEnd != '\0' && *pEnd != ',') ++pEnd;
    enableKeyword(pItem, static_cast<size_t>(pEnd - pItem));
    if (*pEnd == '\0') return;
    pItem = pEnd + 1;
  }
}

/* readSwitches(): the one-time set-up of the trace call: the process name,
 * the program's category and the two environment variables. */
static void readSwitches(void) {
  InitProcName();
  traceState.iProgramCategory = ProcNameToTracingType(traceState.szProcName);
  const char* pszList = getenv("ZORV_TRACE");
  if (pszList) enableKeywords(pszList);
  const char* pszFile = getenv("ZORV_TRACE_FILE");
  /* Deliberate: a name too long for the buffer is ignored, not cut; a cut
   * path could name some other file, which tracing would then append to. */
  if (pszFile && pszFile[0] != '\0' &&
      ZorvStrLen(pszFile) < sizeof traceState.szTraceFile) {
    ZorvSafeStrCpy(traceState.szTraceFile, pszFile, TRACE_FILE_SIZE);
    traceState.bTraceToFile = 1;
  }
}

/* isEnabled(): the category test of the trace call; `once` has run. */
static inline int isEnabled(int category) {
  if (category < 0 || category >= ZORV_TRC_COUNT) return 0;
  if (category == ZORV_TRC_PROGRAM)
    return traceState.abEnabled[traceState.iProgramCategory];
  return traceState.abEnabled[category];
}

/* writePrefix(): "%s(%lu):%s():%s:%d " on `pOut`; returns the bytes
 * written (0 on a failed write). */
static int writePrefix(FILE* pOut, const char* file, int line,
                       const char* function) {
  const char* pszPath = file ? file : "";
  char szFile[TRACE_FILE_SIZE];
  char* pszFile = szFile;
  size_t nPath = ZorvStrLen(pszPath);
  if (nPath >= sizeof szFile) {
    pszFile = static_cast<char*>(malloc(nPath + 1));
    if (!pszFile) return 0;
  }
  GetPathFilename(pszPath, pszFile);
  int nBytes = fprintf(pOut, "%s(%lu):%s():%s:%d ", traceState.szProcName,
                       static_cast<unsigned long>(ZorvGetPid()),
                       function ? function : "", pszFile, line);
  if (pszFile != szFile) free(pszFile);
  return nBytes > 0 ? nBytes : 0;
}

/* writeLine(): one trace line, with or without prefix, to the trace file
 * when one is set, else to `pConsole`. Returns the bytes written. */
static int writeLine(FILE* pConsole, int bPrefix, const char* file, int line,
                     const char* function, const char* format, va_list ap)
    ZORV_PRINTF(6, 0);
static int writeLine(FILE* pConsole, int bPrefix, const char* file, int line,
                     const char* function, const char* format, va_list ap) {
  FILE* pOut = pConsole;
  if (traceState.bTraceToFile) {
    /* Deliberate: opened and closed for every line, so a crash loses no
     * line and the file can be moved away while the program runs. */
    pOut = fopen(traceState.szTraceFile, "at");
    /* Deliberate: no fallback to the console when the file cannot be
     * opened; standard error may belong to whoever started the program. */
    if (!pOut) return 0;
  }
  int nBytes = 0;
  if (bPrefix) nBytes += writePrefix(pOut, file, line, function);
  if (format) {
    int nMessage = vfprintf(pOut, format, ap);
    if (nMessage > 0) nBytes += nMessage;
  }
  if (pOut != pConsole)
    fclose(pOut);
  else
    fflush(pOut);
  return nBytes;
}

/* TPRINTF(): the trace call; see tracing.h. */
int TPRINTF(int category, const char* file, int line, const char* function,
            const char* format, ...) {
  pthread_once(&traceState.once, readSwitches);
  if (!isEnabled(category)) return 0;
  va_list ap;
  va_start(ap, format);
  int nBytes = writeLine(stderr, 1, file, line, function, format, ap);
  va_end(ap);
  return nBytes;
}

/* TPRINTF_NH(): the trace call without prefix. */
int TPRINTF_NH(int category, const char* file, int line, const char* format,
               ...) {
  pthread_once(&traceState.once, readSwitches);
  if (!isEnabled(category)) return 0;
  va_list ap;
  va_start(ap, format);
  /* Deliberate: standard output, not standard error: headerless lines
   * continue tables that the tracing program prints there. */
  int nBytes = writeLine(stdout, 0, file, line, nullptr, format, ap);
  va_end(ap);
  return nBytes;
}

/* TracingTypeEnabled(): 1 when lines of `category` pass, else 0. */
int TracingTypeEnabled(int category) {
  pthread_once(&traceState.once, readSwitches);
  return isEnabled(category);
}

/* ProgramTracingEnabled(): the switch of the running program's category. */
int ProgramTracingEnabled(void) {
  pthread_once(&traceState.once, readSwitches);
  return traceState.abEnabled[traceState.iProgramCategory];
}

/* TracingTypeStrToType(): category of a keyword, -1 for anything else. */
int TracingTypeStrToType(const char* keyword) {
  if (!keyword) return -1;
  for (int iCategory = 0; iCategory < ZORV_TRC_COUNT; ++iCategory) {
    if (traceKeywords[iCategory] &&
        ZorvStrCaseCmp(keyword, traceKeywords[iCategory]) == 0)
      return iCategory;
  }
  return -1;
}

/* ProcNameToTracingType(): category of a process name; 4 for any program
 * that is not one of the framework's servers or its client (null too). */
int ProcNameToTracingType(const char* name) {
  if (!name) return ZORV_TRC_DIAG;
  for (size_t i = 0; i < sizeof traceProgramNames / sizeof *traceProgramNames;
       ++i) {
    if (ZorvStrCaseCmp(name, traceProgramNames[i].pszName) == 0)
      return traceProgramNames[i].iCategory;
  }
  return ZORV_TRC_DIAG;
}

/* TracingString(): the tracing string, null while it is empty. */
const char* TracingString(void) {
  return traceState.szTracingString[0] ? traceState.szTracingString : nullptr;
}

/* InitProcName(): sets the process name once, without directory and
 * extension. */
void InitProcName(void) {
  if (traceState.bProcNameSet) return;
  /* PidToProcName() gives at most 63 characters, so the name part fits. */
  SplitFilename(PidToProcName(ZorvGetPid()), nullptr, traceState.szProcName,
                nullptr);
  traceState.bProcNameSet = 1;
}

/* readAtMost(): up to `nSize` bytes of the file `pszPath` into `pBuffer`;
 * returns the count, 0 for a missing or unreadable file. */
static size_t readAtMost(const char* pszPath, char* pBuffer, size_t nSize) {
  int fd = open(pszPath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  size_t nRead = 0;
  while (nRead < nSize) {
    ssize_t n = read(fd, pBuffer + nRead, nSize - nRead);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    nRead += static_cast<size_t>(n);
  }
  close(fd);
  return nRead;
}

/* PidToProcName(): the name in brackets of /proc/<pid>/stat. */
const char* PidToProcName(int32_t pid) {
  char* pszName = traceState.szPidProcName;
  ZorvSafeStrCpy(pszName, "????", sizeof traceState.szPidProcName);
  char szPath[TRACE_FILE_SIZE];
  int nPath = snprintf(szPath, sizeof szPath, "%s/%d/stat",
                       Zorv_I_pszProcDirectory, static_cast<int>(pid));
  if (nPath < 0 || static_cast<size_t>(nPath) >= sizeof szPath) return pszName;
  char acStat[TRACE_STAT_READ];
  size_t nRead = readAtMost(szPath, acStat, sizeof acStat);
  /* The file is outside input: search only what was read, terminator or
   * not. A ")" before the first "(" counts as no brackets. */
  const char* pOpen = static_cast<const char*>(memchr(acStat, '(', nRead));
  const char* pClose = static_cast<const char*>(memchr(acStat, ')', nRead));
  if (!pOpen || !pClose || pClose < pOpen) return pszName;
  size_t nName = static_cast<size_t>(pClose - pOpen - 1);
  memcpy(pszName, pOpen + 1, nName);
  pszName[nName] = '\0';
  return pszName;
}

/* ProcessTracingArgs(): computes the module's trace file name when an
 * argument after the program path contains "trace". */
void ProcessTracingArgs(int argc, char** argv) {
  if (!argv) return;
  for (int i = 1; i < argc; ++i) {
    if (argv[i] && ZorvStrStr(argv[i], "trace")) {
      SetTraceFilenameForModule(argv[0] ? argv[0] : "");
      return;
    }
  }
}

/* SetTraceFilenameForModule(): "<name part of path><pid>_trace", handed to
 * SetTraceFilenameForComponent(). Nothing happens when memory runs out. */
void SetTraceFilenameForModule(const char* path) {
  const char* pszPath = path ? path : "";
  size_t nPath = ZorvStrLen(pszPath);
  char* pszName = static_cast<char*>(malloc(nPath + 1));
  if (!pszName) return;
  SplitFilename(pszPath, nullptr, pszName, nullptr);
  /* Room for the name, a 64-bit pid with sign, "_trace" and terminator. */
  size_t nFile = nPath + 32;
  char* pszFile = static_cast<char*>(malloc(nFile));
  if (pszFile) {
    snprintf(pszFile, nFile, "%s%ld_trace", pszName,
             static_cast<long>(ZorvGetPid()));
    ZorvSafeStrCpy(traceState.szModuleTraceFile, pszFile, TRACE_FILE_SIZE);
    SetTraceFilenameForComponent(pszFile);
    free(pszFile);
  }
  free(pszName);
}

/* SetTraceFilenameForComponent(): keeps nothing. */
void SetTraceFilenameForComponent(const char* name) {
  /* Deliberate: the name is dropped and the trace file stays as it was;
   * a module passing "trace" keeps its lines where ZORV_TRACE_FILE (or
   * standard error) puts them, which is where its callers look. */
  (void)name;
}

/* GetLastErrnoError(): errno and its system text. */
const char* GetLastErrnoError(int* code) {
  int iError = errno;
  if (code) *code = iError;
  return strerror(iError);
}

/* formatAlloc(): a malloc'ed formatted text, null when memory runs out. */
static char* formatAlloc(const char* format, ...) ZORV_PRINTF(1, 2);
static char* formatAlloc(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  va_list apCopy;
  va_copy(apCopy, ap);
  int nText = vsnprintf(nullptr, 0, format, ap);
  va_end(ap);
  char* pszText = nullptr;
  if (nText >= 0) {
    pszText = static_cast<char*>(malloc(static_cast<size_t>(nText) + 1));
    if (pszText)
      vsnprintf(pszText, static_cast<size_t>(nText) + 1, format, apCopy);
  }
  va_end(apCopy);
  return pszText;
}

/* asArg(): execv() takes char* but never writes through it. */
static char* asArg(const char* text) { return const_cast<char*>(text); }

/* spawnTerminal(): vfork()s and executes the terminal program with
 * `apszArgs`; returns the child's id or -1. Kept apart from StartGdb() so
 * the child shares no locals with the caller's frame. */
static pid_t spawnTerminal(char** apszArgs) {
  pid_t pid = vfork();
  if (pid == 0) {
    execv(Zorv_I_pszTerminalProgram, apszArgs);
    /* Deliberate: the stray "n" stays; whoever watches the terminal for a
     * failed launch matches this text. Exit status 0 all the same. */
    if (write(STDOUT_FILENO, "Exec Failedn\n\n\n",
              sizeof "Exec Failedn\n\n\n" - 1) < 0) {
    }
    _exit(0);
  }
  return pid;
}

/* StartGdb(): a debugger on this process in a terminal window. */
void StartGdb(const char* program, const char* commandFile) {
  const char* pszProgram = program ? program : "";
  const char* pszCommand = commandFile ? commandFile : "";
  const char* pszBin = ZorvGetBinDirectory();
  if (!pszBin) pszBin = "";
  char szPid[16];
  snprintf(szPid, sizeof szPid, "%d", static_cast<int>(ZorvGetPid()));
  char* pszTitle = formatAlloc("gdb_%s", pszProgram);
  char* pszSymbols = formatAlloc("--symbols=%s/%s", pszBin, pszProgram);
  char* pszCommandArg = formatAlloc("--command=%s/%s", pszBin, pszCommand);
  if (pszTitle && pszSymbols && pszCommandArg) {
    char* apszArgs[] = {asArg(Zorv_I_pszTerminalProgram),
                        asArg("-T"),
                        pszTitle,
                        asArg("-e"),
                        asArg("/usr/bin/gdb"),
                        asArg("-c"),
                        szPid,
                        pszSymbols,
                        asArg("--readnow"),
                        pszCommandArg,
                        nullptr};
    /* The debugger needs a moment to attach before this process goes on. */
    if (spawnTerminal(apszArgs) > 0) ZorvSleep(1000);
  }
  free(pszTitle);
  free(pszSymbols);
  free(pszCommandArg);
}

/* Tracing_I_ProcName(): the process name as set so far. */
const char* Tracing_I_ProcName(void) { return traceState.szProcName; }

/* Tracing_I_ModuleTraceFilename(): the name last computed for a module. */
const char* Tracing_I_ModuleTraceFilename(void) {
  return traceState.szModuleTraceFile;
}

/* Tracing_I_SetTracingString(): the text of TracingString(). */
void Tracing_I_SetTracingString(const char* text) {
  ZorvSafeStrCpy(traceState.szTracingString, text ? text : "",
                 TRACE_STRING_SIZE);
}
