/*
 * tracing_p.h: internals of the tracing unit.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the seams through which tests point the debugger
 * launch and the process-name reader elsewhere, and read-only views of the
 * unit state that no public call shows.
 */
#ifndef ZORV_GLOBAL_TRACING_P_H
#define ZORV_GLOBAL_TRACING_P_H

#include "zorv2000/tracing.h"

/* Terminal program that StartGdb() executes; "/usr/X11R6/bin/xterm" unless a
 * test points it at a recording helper or at a missing file. Unguarded:
 * change it only while no other thread calls StartGdb(). */
extern const char* Zorv_I_pszTerminalProgram;

/* Directory under which PidToProcName() reads "<dir>/<pid>/stat"; "/proc"
 * unless a test points it at prepared files. Unguarded like the above. */
extern const char* Zorv_I_pszProcDirectory;

/* Tracing_I_ProcName(): the process name as InitProcName() set it; empty
 * before the first use. */
const char* Tracing_I_ProcName(void);

/* Tracing_I_ModuleTraceFilename(): the name that the last
 * SetTraceFilenameForModule() computed ("mymodule4711_trace"), empty before
 * the first call. It is kept for tests to read only: the trace file does not
 * change. */
const char* Tracing_I_ModuleTraceFilename(void);

/* Tracing_I_SetTracingString(): replaces the text that TracingString()
 * returns (null or "" empties it; a text of 512 bytes or more becomes the
 * overflow marker). Nothing in the library sets it otherwise. */
void Tracing_I_SetTracingString(const char* text);

#endif /* ZORV_GLOBAL_TRACING_P_H */
