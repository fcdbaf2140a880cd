/*
 * primitives_p.h: internals of the primitives unit.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the system-call table through which the library
 * reads clocks and process ids and reaps children, so tests can make time
 * and pids deterministic and count calls, and the out-of-memory exit.
 */
#ifndef ZORV_GLOBAL_PRIMITIVES_P_H
#define ZORV_GLOBAL_PRIMITIVES_P_H

#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "zorv2000/primitives.h"

/* System calls used by the library's clocks and process code. Every caller
 * in the library goes through this table; tests replace entries and put
 * them back. Unguarded: replace entries only while no other thread runs. */
struct ZorvSyscalls {
  int (*pfnGetTimeOfDay)(struct timeval* tv);
  pid_t (*pfnGetPid)(void);
  pid_t (*pfnWaitPid)(pid_t pid, int* status, int options);
};
extern struct ZorvSyscalls zorvSyscalls;

/* The real system calls, for putting a table entry back. */
int Zorv_I_RealGetTimeOfDay(struct timeval* tv);
pid_t Zorv_I_RealGetPid(void);
pid_t Zorv_I_RealWaitPid(pid_t pid, int* status, int options);

/* Diagnostics of the mutex table: held counter and last grabber's pid of
 * entry `index` (0 for a bad index). */
int32_t Zorv_I_MutexHeldCount(uint32_t index);
int32_t Zorv_I_MutexOwnerPid(uint32_t index);
/* Zorv_I_MutexGrabSite(): file, line and function of the last successful
 * grab of entry `index`, kept after the release so a hang can be traced to
 * its last holder. 1 when filled, 0 for a bad index or an entry never
 * grabbed. Each output may be null. */
int Zorv_I_MutexGrabSite(uint32_t index, const char** pFile, int* pLine,
                         const char** pFunction);

/* Zorv_I_VerifyFailed(): prints "Zorv2000 Verify Failed: Line:%i File:%s
 * Possibly Out of Memory.\n" on standard error and exits with status 1.
 * The one out-of-memory exit of the library. */
[[noreturn]] void Zorv_I_VerifyFailed(int line, const char* file);
#define ZORV_VERIFY(condition) \
  ((condition) ? (void)0 : Zorv_I_VerifyFailed(__LINE__, __FILE__))

#endif /* ZORV_GLOBAL_PRIMITIVES_P_H */
