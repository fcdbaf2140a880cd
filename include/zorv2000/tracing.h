/*
 * tracing.h: the one trace call of the library and its switches.
 *
 * A trace line passes when its category is switched on; it is prefixed with
 * the process name and id, the function, the source file and the line.
 * Tracing is off by default. Two environment variables switch it on, read
 * once, at the first trace call of the process:
 *   ZORV_TRACE       category keywords separated by commas ("pipe,mb,dll"),
 *                    or "all"; letter case does not matter, unknown words
 *                    are ignored.
 *   ZORV_TRACE_FILE  a file to append trace lines to instead of standard
 *                    error (opened and closed for every line).
 * Plain C.
 */
#ifndef ZORV2000_TRACING_H
#define ZORV2000_TRACING_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Trace categories. ZORV_TRC_PROGRAM has no keyword: it stands for the
 * category of the running program, found from its process name. */
enum ZorvTraceCategory {
  ZORV_TRC_PIPE = 0,    /* "pipe": pipe layer, detailed */
  ZORV_TRC_PIPE2 = 1,   /* "pipe2": pipe thread start and stop */
  ZORV_TRC_MEM = 2,     /* "mem": tracked allocation */
  ZORV_TRC_PROGRAM = 3, /* the running program's own category */
  ZORV_TRC_DIAG = 4,    /* "diag": modules and other programs */
  ZORV_TRC_MB = 5,      /* "mb": the message broker */
  ZORV_TRC_DE = 6,      /* "de": the diagnostic engine */
  ZORV_TRC_NLS = 7,     /* "nls": the NLS engine */
  ZORV_TRC_CLI = 8,     /* "cli": the command-line client */
  ZORV_TRC_PV = 9,      /* "pv": parameter validation */
  ZORV_TRC_DLL = 10,    /* "dll": the object model */
  ZORV_TRC_COUNT = 11
};

/* TPRINTF(): writes "%s(%lu):%s():%s:%d " (process name, process id,
 * function, file name without directory, line) and then the formatted
 * message (which carries its own "\n"), to the trace file when one is set,
 * else to standard error. Returns 0 when the category is disabled (nothing
 * is formatted then), else the number of bytes written. */
ZORV_API int TPRINTF(int category, const char* file, int line,
                     const char* function, const char* format, ...)
    ZORV_PRINTF(5, 6);

/* TPRINTF_NH(): the message alone, without prefix, to standard output
 * (deliberately not standard error) or the trace file. Returns as
 * TPRINTF(). */
ZORV_API int TPRINTF_NH(int category, const char* file, int line,
                        const char* format, ...) ZORV_PRINTF(4, 5);

/* ZORV_TRACE_AT(): TPRINTF() with the caller's file, line and function. */
#define ZORV_TRACE_AT(category, ...) \
  TPRINTF((category), __FILE__, __LINE__, __func__, __VA_ARGS__)

/* TracingTypeEnabled(): 0 for a category outside 0 to 10; for category 3
 * ProgramTracingEnabled(); else the category's switch. */
ZORV_API int TracingTypeEnabled(int category);
/* ProgramTracingEnabled(): the switch of the running program's category. */
ZORV_API int ProgramTracingEnabled(void);
/* TracingTypeStrToType(): category of a keyword ("PIPE2" -> 1), ignoring
 * letter case; -1 for any other text or null. */
ZORV_API int TracingTypeStrToType(const char* keyword);
/* ProcNameToTracingType(): "zorv2000" 5, "diagengine" 6, "nlsengine" 7,
 * "zorvcli" 8 (ignoring case), anything else 4. */
ZORV_API int ProcNameToTracingType(const char* name);
/* TracingString(): the optional tracing string, or null when empty. */
ZORV_API const char* TracingString(void);
/* InitProcName(): on first use, sets the process name from /proc without
 * directory and extension ("a.b" -> "a"). Unguarded; the trace call runs it
 * once for the process. */
ZORV_API void InitProcName(void);
/* PidToProcName(): the name between the first "(" and the first ")" of the
 * first 64 bytes of /proc/<pid>/stat, in a static buffer; "????" when the
 * file is missing, empty or lacks the brackets. */
ZORV_API const char* PidToProcName(int32_t pid);
/* ProcessTracingArgs(): when an argument contains "trace", computes the
 * module's trace file name (SetTraceFilenameForModule(argv[0])). */
ZORV_API void ProcessTracingArgs(int argc, char** argv);
/* SetTraceFilenameForModule(): formats "%s%ld_trace" from the name part of
 * `path` and the process id and hands it to SetTraceFilenameForComponent(),
 * which keeps nothing: the trace file stays as it was. */
ZORV_API void SetTraceFilenameForModule(const char* path);
ZORV_API void SetTraceFilenameForComponent(const char* name);
/* GetLastErrnoError(): stores errno in *code (when code is not null) and
 * returns its system text. */
ZORV_API const char* GetLastErrnoError(int* code);
/* StartGdb(): starts a debugger attached to this process in a terminal
 * window ("gdb_<program>"), symbols and command file taken from the bin
 * directory; sleeps one second to let it attach. */
ZORV_API void StartGdb(const char* program, const char* commandFile);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_TRACING_H */
