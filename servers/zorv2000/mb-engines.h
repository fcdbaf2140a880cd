/*
 * mb-engines.h: the engines the broker starts from its own directory
 * ("nlsengine", "diagengine"), the start-up gate that holds ordinary
 * clients until they are connected, and their stop in order.
 */
#ifndef ZORV_SERVERS_ZORV2000_MB_ENGINES_H
#define ZORV_SERVERS_ZORV2000_MB_ENGINES_H

#include <stdint.h>

/* Longest time the gate holds ordinary start-ups after the engines were
 * started. */
enum { ZORV_MB_GATE_MS = 5000 };
/* After "SHUTDOWN" an engine has this long to end, then SIGTERM, then
 * SIGKILL after the second limit. */
enum { ZORV_MB_ENGINE_STOP_MS = 5000, ZORV_MB_ENGINE_TERM_MS = 2000 };

/* ZorvMb_I_StartEngines(): starts every engine program found beside the
 * broker (in `directory`), with "trace" when `bTrace` is set, and the
 * broker's pid in ZORV_MB_PID. A missing program is skipped with a trace
 * line; one that cannot be started is reported on standard error. */
void ZorvMb_I_StartEngines(const char* directory, int bTrace);

/* ZorvMb_I_IsEngineClass(): "DIAGENGINE" or "NLSENGINE". */
int ZorvMb_I_IsEngineClass(const char* clientClass);

/* ZorvMb_I_StartupGateOpen(): 1 once every started engine is connected or
 * has ended, or the gate time has passed; it stays open after that. */
int ZorvMb_I_StartupGateOpen(void);

/* ZorvMb_I_ReapEngines(): notes engines that have ended. */
void ZorvMb_I_ReapEngines(void);

/* ZorvMb_I_StepEngineStop(): drives the ordered stop, the diagnostic engine
 * first: "SHUTDOWN" to the engine, wait, SIGTERM, wait, SIGKILL. Call it
 * repeatedly while serving the FIFO (the engines' "STOP" must be read).
 * Returns 1 when every started engine has ended. */
int ZorvMb_I_StepEngineStop(uint64_t nowMs);

/* ZorvMb_I_KillEngines(): SIGKILL to every engine still running and reap
 * them (the broker's own failure path). */
void ZorvMb_I_KillEngines(void);

#endif /* ZORV_SERVERS_ZORV2000_MB_ENGINES_H */
