/*
 * client-connection-manager_p.h: internals of the client connection.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. The opening call with a server process id, the start-up
 * and close messages (exported: the framework's servers link them), the
 * sizes of the start-up message's element buffers as a table tests can
 * shrink, and a view of the connection count.
 */
#ifndef ZORV_GLOBAL_CLIENT_CONNECTION_MANAGER_P_H
#define ZORV_GLOBAL_CLIENT_CONNECTION_MANAGER_P_H

#include <stdint.h>

#include "zorv2000/client-connection-manager.h"
#include "zorv2000/zorv-api.h"

/* Buffer sizes of the start-up and close messages' elements, terminator
 * included. The buffers are this large; the table says how much of each the
 * builder may use, so tests can make an element too long for its buffer.
 * Unguarded: tests change entries only while no other thread opens or
 * closes, and put them back. */
enum {
  ZORV_STARTUP_READ_SIZE = 300,
  ZORV_STARTUP_PID_SIZE = 80,
  ZORV_STARTUP_NAME_SIZE = 80,
  ZORV_STARTUP_NLSDATA_SIZE = 300,
  ZORV_STARTUP_CLASS_SIZE = 80,
  ZORV_STARTUP_EXE_SIZE = 416,
  ZORV_STARTUP_MESSAGE_SIZE = 800,
  ZORV_STOP_PID_SIZE = 80,
  ZORV_STOP_MESSAGE_SIZE = 100
};
struct ZorvClientElementSizes {
  uint32_t read;
  uint32_t pid;
  uint32_t name;
  uint32_t nlsData;
  uint32_t clientClass;
  uint32_t exeFilename;
  uint32_t startup;
};
extern struct ZorvClientElementSizes zorvClientElementSizes;

/* Milliseconds the opening waits for the acknowledgement. */
enum { ZORV_OPEN_ACK_WAIT_MS = 10000 };

#ifdef __cplusplus
extern "C" {
#endif

/* ZorvClient_I_OpenConnectionEx(): opens the connection (see
 * ZorvClientOpenConnectionEx()); a non-zero `serverPid` first selects that
 * process's server FIFO (ZorvSetServerFifoName()). Returns a ZorvOpenStatus,
 * 40 after "<ACK>ENUM_COMPLETE</ACK>". */
ZORV_API int ZorvClient_I_OpenConnectionEx(int32_t serverPid, const char* name,
                                           const char* clientClass,
                                           const char* nlsData,
                                           const char* exePath);

/* Results of ZorvClient_I_SendFifoStartupMessage(): the codes 21 to 27 of
 * ZorvOpenStatus, or 0. */

/* ZorvClient_I_SendFifoStartupMessage(): builds "<STARTUP><READ>..</READ>
 * <PID>..</PID><NAME>..</NAME><NLSDATA>..</NLSDATA><CLASS>..</CLASS>
 * <EXE_FILENAME>..</EXE_FILENAME></STARTUP>\r\n" (one line) and sends it.
 * READ is the own FIFO's path, PID the cached process id; null texts are
 * empty ("NORMAL" for a null class). */
ZORV_API int ZorvClient_I_SendFifoStartupMessage(const char* name,
                                                 const char* clientClass,
                                                 const char* nlsData,
                                                 const char* exeFilename);

/* Results of ZorvClient_I_SendFifoCloseMessage(). */
enum ZorvCloseMessageStatus {
  ZORV_CLOSEMSG_OK = 0,
  ZORV_CLOSEMSG_PID = 1,     /* the PID element did not build */
  ZORV_CLOSEMSG_MESSAGE = 2, /* the STOP message did not build */
  ZORV_CLOSEMSG_SEND = 3     /* it could not be sent */
};

/* ZorvClient_I_SendFifoCloseMessage(): sends "<STOP><PID>pid</PID></STOP>"
 * and "\r\n". Returns a ZorvCloseMessageStatus. */
ZORV_API int ZorvClient_I_SendFifoCloseMessage(void);

#ifdef __cplusplus
}
#endif

/* ---- Hidden views for tests -------------------------------------------------
 */

/* ZorvClient_I_SplitMessages(): cuts `nData` bytes of received data at each
 * "\r\n" (writing a terminator there) and hands every message in order to
 * `callback` (null: counted only); returns how many there were. Text after
 * the last "\r\n" is no whole message and is dropped. */
int32_t ZorvClient_I_SplitMessages(char* pData, int32_t nData,
                                   ZorvClientMessageCallback callback);

/* ZorvClient_I_GetConnectionCount(): open connections (at most 2). */
int32_t ZorvClient_I_GetConnectionCount(void);

#endif /* ZORV_GLOBAL_CLIENT_CONNECTION_MANAGER_P_H */
