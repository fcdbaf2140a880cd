/*
 * client-connection-manager.h: the one connection of a client (diagnostic
 * module or controller) to the framework.
 *
 * The client makes its own read FIFO, announces it to the server FIFO with a
 * start-up message and waits for the acknowledgement. Afterwards it sends
 * whole envelopes (optionally translated into a language first) and receives
 * what arrives. The pipe layer must be initialised and its thread running
 * before opening:
 *   ZorvInitPipes(); ZorvInitReadWriteThread();
 *   ZorvClientOpenConnectionEx("mymod", "NORMAL", "/opt/mymod.nls", argv[0]);
 *   ... ZorvClientSendMessage / ZorvClientSendTransaction ...
 *   ZorvFlushWriteFIFO(1000); ZorvClientCloseConnection();
 *   ZorvStopReadWriteThread(); ZorvCleanupPipes();
 * The connection state is process-wide and has no lock: use it from one
 * thread at a time (the send time and error counters alone are safe to touch
 * from several). Plain C.
 */
#ifndef ZORV2000_CLIENT_CONNECTION_MANAGER_H
#define ZORV2000_CLIENT_CONNECTION_MANAGER_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of ZorvClientOpenConnectionEx() and ZorvClient_I_OpenConnectionEx().
 * Every failure from 11 on closes what was opened and removes the own FIFO
 * from the pipe directory. */
enum ZorvOpenStatus {
  ZORV_OPEN_OK = 0,
  ZORV_OPEN_ALREADY_OPEN = 1,   /* two connections are counted already */
  ZORV_OPEN_SERVER_FIFO = 11,   /* nobody reads the server FIFO */
  ZORV_OPEN_OWN_FIFO = 12,      /* the own FIFO could not be made or opened */
  ZORV_OPEN_READ_TOO_LONG = 21, /* start-up element READ */
  ZORV_OPEN_PID_TOO_LONG = 22,  /* PID */
  ZORV_OPEN_NAME_TOO_LONG = 23, /* NAME (80 bytes with its tags) */
  ZORV_OPEN_NLSDATA_TOO_LONG = 24, /* NLSDATA (300 bytes with its tags) */
  ZORV_OPEN_CLASS_TOO_LONG = 25,   /* CLASS (80 bytes with its tags) */
  /* EXE_FILENAME (416 bytes with its tags) or the whole STARTUP message
   * (800 bytes): one code for both */
  ZORV_OPEN_STARTUP_TOO_LONG = 26,
  ZORV_OPEN_SEND_FAILED = 27, /* the start-up message could not be sent */
  ZORV_OPEN_NO_ANSWER = 30,   /* nothing came within 10000 ms */
  ZORV_OPEN_NOT_ACK = 31,     /* the answer was not an acknowledgement */
  /* open; the acknowledgement said the enumeration is complete (only
   * ZorvClient_I_OpenConnectionEx() returns it) */
  ZORV_OPEN_ENUM_COMPLETE = 40
};

/* ZorvClientOpenConnection(): ZorvClientOpenConnectionEx("Name Here",
 * "NORMAL", "", null). */
ZORV_API int ZorvClientOpenConnection(void);

/* ZorvClientOpenConnectionEx(): opens the connection to the server FIFO
 * (ZorvGetServerFifoName()) as client `name` of class `clientClass`
 * ("NORMAL" for modules, "API" for controllers; null means "NORMAL").
 * `nlsData` (null means "") names the client's NLS data file and is
 * registered with the NLS engine after the acknowledgement; `exePath` may be
 * null, only its file name is announced. Returns a ZorvOpenStatus; 40 is
 * turned into 0. Messages that arrive together with the acknowledgement go
 * into the message table (client-messaging-engine.h). */
ZORV_API int ZorvClientOpenConnectionEx(const char* name,
                                        const char* clientClass,
                                        const char* nlsData,
                                        const char* exePath);

/* ZorvClientCloseConnection(): sends "<STOP><PID>pid</PID></STOP>\r\n"
 * (its result ignored), closes the FIFOs, removes the own FIFO's name and
 * lowers the connection count when positive. Always returns 0. Queued
 * pieces of the write FIFO are dropped: flush first (ZorvFlushWriteFIFO). */
ZORV_API int ZorvClientCloseConnection(void);

/* ZorvClientSendMessage(): writes `text`, a whole envelope ending in "\r\n",
 * to the server FIFO. Returns 0, or 1 when the pipe layer took fewer bytes
 * than the text has (the write error count then rises; a good send resets
 * it). A null text counts as a failed send. */
ZORV_API int ZorvClientSendMessage(const char* text);

/* ZorvClientSendMessageTranslated(): sends `text` with its NLS tags
 * translated into `language` (nls-access.h). An empty `language` is set to
 * "EN" in the caller's buffer: two letters are written, no terminator, so the
 * buffer needs room and a zero third byte. "TK" sends the text as it is.
 * A null `language` is taken as "EN" without writing. Returns the send
 * result (0 or 1), or 2 when the translation failed (nothing sent). */
ZORV_API int ZorvClientSendMessageTranslated(const char* text, char* language);

/* ZorvClientSendMessageSetLanguage(): keeps the first two characters of
 * `language` as the client's message language; null empties it. */
ZORV_API void ZorvClientSendMessageSetLanguage(const char* language);
/* ZorvClientSendMessageGetLanguage(): the client's message language, or
 * null when none is set. */
ZORV_API const char* ZorvClientSendMessageGetLanguage(void);

/* Called by ZorvClientProcessMessages() with each received message, without
 * its "\r\n". The text belongs to the caller of the callback; copy it. */
typedef int (*ZorvClientMessageCallback)(const char* text);

/* ZorvClientProcessMessages(): waits up to `timeoutMs` for data on the own
 * FIFO (standard input is handed to the wait when `watchInput` is non-zero,
 * which the pipe layer ignores), then passes each complete message in order
 * to `callback` (null: counted only). Text after the last "\r\n" is
 * dropped. Returns the number of messages, 0 when nothing arrived. */
ZORV_API int32_t ZorvClientProcessMessages(ZorvClientMessageCallback callback,
                                           uint32_t timeoutMs, int watchInput);

/* ZorvFlushWriteFIFO(): ZorvFlushWritePipe() on the server FIFO; returns the
 * pieces still queued. */
ZORV_API int32_t ZorvFlushWriteFIFO(uint32_t timeoutMs);

/* Consecutive failed reads and sends; each good one resets its count. */
ZORV_API int32_t ZorvClientGetReadErrorCount(void);
ZORV_API int32_t ZorvClientGetWriteErrorCount(void);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_CLIENT_CONNECTION_MANAGER_H */
