/*
 * server-common.h: what the message broker and the engines share: a
 * monotonic clock, their own directory, the "trace" argument, decimal
 * checks, and replies built in the message envelope. Built on the library's
 * flat interface only, like any other client. No state, no locks.
 */
#ifndef ZORV_SERVERS_COMMON_SERVER_COMMON_H
#define ZORV_SERVERS_COMMON_SERVER_COMMON_H

#include <stdint.h>

#include "zorv2000/genstr.h"

/* Environment variable through which the broker tells the engines it starts
 * its process id, so they can end with it. */
#define ZORV_SERVER_BROKER_PID_ENV "ZORV_MB_PID"

/* Trace categories that the "trace" argument switches on when ZORV_TRACE is
 * not set: the broker's, the diagnostic engine's and the NLS engine's. */
#define ZORV_SERVER_TRACE_KEYWORDS "mb,de,nls"

/* Message types the servers write. */
#define ZORV_SERVER_TYPE_RESPONSE "TRANSACTION_RESPONSE"
#define ZORV_SERVER_TYPE_BROKER_COMMAND "MBCMD"

/* ZorvServerNowMs(): milliseconds of the monotonic clock; never goes back,
 * unlike the time of day the library's waits use. */
uint64_t ZorvServerNowMs(void);

/* ZorvServerOwnDirectory(): the directory of the running executable
 * (from /proc/self/exe), without a trailing "/", into `buffer`. 1 on
 * success, 0 when it cannot be read or does not fit. */
int ZorvServerOwnDirectory(char* buffer, uint32_t size);

/* ZorvServerTakeArguments(): reads a server's command line. "trace" turns
 * tracing of the server categories on (ZORV_TRACE is set, for this process
 * and the ones it starts, unless the caller's environment already sets it);
 * empty arguments are skipped; anything else is reported on standard error
 * under `program` and ignored. Call before the first trace line. Returns 1
 * when "trace" was given, else 0. */
int ZorvServerTakeArguments(const char* program, int argc, char** argv);

/* ZorvServerParseDecimal(): 1 and *value when `text` is 1 to 10 decimal
 * digits worth at most `max`; 0 for anything else (signs, blanks, empty,
 * null, overflow). */
int ZorvServerParseDecimal(const char* text, uint32_t max, uint32_t* value);

/* ZorvServerBuildMessage(): a whole envelope into `out` (replaced): header
 * from this process to `to` with RE `re` (null: none) and `type`, then
 * DATA holding `data` as it stands (escape free text first), then "\r\n".
 * `out` must be initialised. 1 on success, 0 when a part did not build. */
int ZorvServerBuildMessage(CGenStr* out, const char* to, const char* re,
                           const char* type, const char* data);

/* ZorvServerCatEscaped(): appends `text` to `out` with the envelope's
 * escaping ("a<b" -> "a@3Cb"). 1 on success, 0 when out of memory. */
int ZorvServerCatEscaped(CGenStr* out, const char* text);

/* ZorvServerCatElement(): appends "<tag>" + escaped text + "</tag>". 1 on
 * success, 0 when out of memory. */
int ZorvServerCatElement(CGenStr* out, const char* tag, const char* text);

#endif /* ZORV_SERVERS_COMMON_SERVER_COMMON_H */
