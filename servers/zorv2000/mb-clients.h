/*
 * mb-clients.h: the broker's table of connected clients: start-up and stop
 * messages, acknowledgements, writes to a client's FIFO, and the removal of
 * clients whose FIFO broke or who stopped reading it.
 */
#ifndef ZORV_SERVERS_ZORV2000_MB_CLIENTS_H
#define ZORV_SERVERS_ZORV2000_MB_CLIENTS_H

#include <stdint.h>
#include <sys/types.h>

/* Clients served at once; a start-up beyond it is refused. */
enum { ZORV_MB_MAX_CLIENTS = 256 };

/* Start-up element buffers, the same the clients build them with (tags
 * included), so every field a library client can send fits. */
enum {
  ZORV_MB_READ_SIZE = 300,
  ZORV_MB_PID_SIZE = 80,
  ZORV_MB_NAME_SIZE = 80,
  ZORV_MB_NLSDATA_SIZE = 300,
  ZORV_MB_CLASS_SIZE = 80,
  ZORV_MB_EXE_SIZE = 416
};

/* A client unread for this long (its FIFO never empty at a check) is taken
 * for hung and removed; ZORV_MB_STALL_MS overrides it. */
enum { ZORV_MB_STALL_DEFAULT_MS = 30000 };

/* One connected client. */
typedef struct ZorvMbClient {
  int32_t pid;
  int32_t fd; /* the client's FIFO, open for writing through the pipe layer */
  char szName[ZORV_MB_NAME_SIZE];
  char szClass[ZORV_MB_CLASS_SIZE];
  char szNlsData[ZORV_MB_NLSDATA_SIZE];
  char szExe[ZORV_MB_EXE_SIZE];
  uint64_t stallSinceMs; /* first check that found unread bytes; 0 none */
} ZorvMbClient;

/* ZorvMb_I_InitClients(): remembers the pipe directory (a client's FIFO
 * must stand in it) and the stall limit. 1 on success, 0 when the
 * directory cannot be examined. */
int ZorvMb_I_InitClients(const char* pipeDirectory);

/* ZorvMb_I_HandleStartup(): a "<STARTUP>" message without its "\r\n":
 * checks and opens the client's FIFO, registers the client (replacing one of
 * the same pid) and acknowledges, or answers "<NACK>reason</NACK>" when the
 * FIFO could be opened but the client is refused. Start-ups of ordinary
 * clients wait while the start-up gate is closed (mb-engines.h). */
void ZorvMb_I_HandleStartup(const char* text);
/* ZorvMb_I_HandleStop(): a "<STOP>" message: unregisters that pid. */
void ZorvMb_I_HandleStop(const char* text);

/* ZorvMb_I_ReleasePendingStartups(): handles the start-ups held while the
 * gate was closed, in arrival order. */
void ZorvMb_I_ReleasePendingStartups(void);
/* ZorvMb_I_RefuseStartups(): from now on every start-up is answered with
 * "<NACK>SHUTTING_DOWN</NACK>", the held ones included. */
void ZorvMb_I_RefuseStartups(void);

ZorvMbClient* ZorvMb_I_FindClientByPid(int32_t pid);
/* ZorvMb_I_FindClientByClass(): the first client of that class (exact). */
ZorvMbClient* ZorvMb_I_FindClientByClass(const char* clientClass);
int32_t ZorvMb_I_ClientCount(void);
/* ZorvMb_I_ClientAt(): the client at `index` (0 to count - 1), or null. */
ZorvMbClient* ZorvMb_I_ClientAt(int32_t index);

/* ZorvMb_I_SendToClient(): writes `length` bytes, a whole message with its
 * "\r\n", to the client. 1 when handed to the pipe layer; 0 when the FIFO
 * is broken or gone, the client then removed (the pointer is stale). */
int ZorvMb_I_SendToClient(ZorvMbClient* pClient, const char* text,
                          uint32_t length);
/* ZorvMb_I_RemoveClient(): closes the client's FIFO and forgets it;
 * `reason` goes into the trace line. */
void ZorvMb_I_RemoveClient(ZorvMbClient* pClient, const char* reason);
/* ZorvMb_I_CheckClients(): removes clients whose reader is gone or who have
 * not read their FIFO for the stall limit. */
void ZorvMb_I_CheckClients(uint64_t nowMs);
/* ZorvMb_I_CloseAllClients(): closes every client FIFO and frees what the
 * table holds (held start-ups, the enumeration notice). */
void ZorvMb_I_CloseAllClients(void);

/* ZorvMb_I_SetEnumComplete(): the diagnostic engine's enumeration state.
 * With `notice` (its "DE_ENUM_NOTIFY" message with "\r\n") start-ups are
 * acknowledged "<ACK>ENUM_COMPLETE</ACK>" and controllers (class "API") get
 * a copy of the notice right behind it; null clears it. */
void ZorvMb_I_SetEnumComplete(const char* notice);
int ZorvMb_I_IsEnumComplete(void);

#endif /* ZORV_SERVERS_ZORV2000_MB_CLIENTS_H */
