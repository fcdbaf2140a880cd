/*
 * mb-clients.cpp: the broker's client table. Opens a client's FIFO only
 * after checking that it is a FIFO in the pipe directory, acknowledges the
 * start-up, writes messages through the pipe layer and forgets clients whose
 * FIFO broke. Runs on the broker's one thread: no locks of its own (the pipe
 * layer takes its locks 3 and 4 inside its calls).
 */
#include "servers/zorv2000/mb-clients.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "servers/common/server-common.h"
#include "servers/zorv2000/mb-engines.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* The two acknowledgements a client accepts. */
static const char kAck[] = "<ACK></ACK>\r\n";
static const char kAckEnumComplete[] = "<ACK>ENUM_COMPLETE</ACK>\r\n";

/* Largest message the pipe layer carries. */
enum { MB_PIPE_MAX_MESSAGE = 16 * 1024 * 1024 };

/* The table; the unit's process-wide state. */
static struct {
  /* unguarded: the broker's one thread only */
  ZorvMbClient aClients[ZORV_MB_MAX_CLIENTS];
  int32_t nClients;
  /* unguarded: start-ups held while the gate is closed, malloc'ed copies in
   * arrival order */
  char* apPending[ZORV_MB_MAX_CLIENTS];
  int32_t nPending;
  /* unguarded: set once shutting down */
  int bRefusing;
  /* unguarded: the pipe directory, as device and inode */
  dev_t pipeDev;
  ino_t pipeIno;
  /* unguarded: milliseconds a client may leave its FIFO unread */
  uint64_t stallLimitMs;
  /* unguarded: the diagnostic engine's last "ENUM_COMPLETE" notice with its
   * "\r\n", malloc'ed; null while enumeration is not complete */
  char* pEnumNotice;
} table;

/* ZorvMb_I_InitClients(): pipe directory and stall limit. */
int ZorvMb_I_InitClients(const char* pipeDirectory) {
  struct stat st;
  if (stat(pipeDirectory, &st) != 0) return 0;
  table.pipeDev = st.st_dev;
  table.pipeIno = st.st_ino;
  table.stallLimitMs = ZORV_MB_STALL_DEFAULT_MS;
  uint32_t value = 0;
  if (ZorvServerParseDecimal(getenv("ZORV_MB_STALL_MS"), 86400000u, &value) &&
      value > 0)
    table.stallLimitMs = value;
  return 1;
}

/* ---- Lookups ------------------------------------------------------------- */

/* ZorvMb_I_FindClientByPid(): a linear walk; the table is small. */
ZorvMbClient* ZorvMb_I_FindClientByPid(int32_t pid) {
  for (int32_t i = 0; i < table.nClients; ++i)
    if (table.aClients[i].pid == pid) return &table.aClients[i];
  return NULL;
}

/* ZorvMb_I_FindClientByClass(): the first of that class. */
ZorvMbClient* ZorvMb_I_FindClientByClass(const char* clientClass) {
  for (int32_t i = 0; i < table.nClients; ++i)
    if (strcmp(table.aClients[i].szClass, clientClass) == 0)
      return &table.aClients[i];
  return NULL;
}

/* ZorvMb_I_ClientCount(): clients in the table. */
int32_t ZorvMb_I_ClientCount(void) { return table.nClients; }

/* ZorvMb_I_ClientAt(): by position, null outside. */
ZorvMbClient* ZorvMb_I_ClientAt(int32_t index) {
  if (index < 0 || index >= table.nClients) return NULL;
  return &table.aClients[index];
}

/* ---- Removal ------------------------------------------------------------- */

/* forgetClient(): drops a record; closes its FIFO when `bClose` is set (not
 * when the pipe layer closed it already and the number may be in use). */
static void forgetClient(ZorvMbClient* pClient, int bClose,
                         const char* reason) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "client %lu (%s, %s) removed: %s\n",
                (unsigned long)(uint32_t)pClient->pid, pClient->szName,
                pClient->szClass, reason);
  if (bClose) ZorvPipeClose(pClient->fd);
  if (strcmp(pClient->szClass, "DIAGENGINE") == 0)
    ZorvMb_I_SetEnumComplete(NULL);
  int32_t index = (int32_t)(pClient - table.aClients);
  memmove(&table.aClients[index], &table.aClients[index + 1],
          (size_t)(table.nClients - index - 1) * sizeof table.aClients[0]);
  --table.nClients;
}

/* ZorvMb_I_RemoveClient(): closes and forgets. */
void ZorvMb_I_RemoveClient(ZorvMbClient* pClient, const char* reason) {
  forgetClient(pClient, 1, reason);
}

/* ---- Writing ------------------------------------------------------------- */

/* ZorvMb_I_SendToClient(): one message through the pipe layer. */
int ZorvMb_I_SendToClient(ZorvMbClient* pClient, const char* text,
                          uint32_t length) {
  if (length == 0 || length > MB_PIPE_MAX_MESSAGE) return 1;
  int32_t rc = ZorvPipeWrite(pClient->fd, text, length);
  if (rc == (int32_t)length) return 1;
  /* 0: the layer met a broken pipe and closed the FIFO; -1: its thread had
   * closed it before. Either way the number is no longer this client's. */
  forgetClient(pClient, 0, rc == 0 ? "broken FIFO" : "FIFO closed");
  return 0;
}

/* writeRaw(): a message to a FIFO that is not (yet) in the table. */
static int writeRaw(int32_t fd, const char* text) {
  uint32_t length = (uint32_t)strlen(text);
  return ZorvPipeWrite(fd, text, length) == (int32_t)length;
}

/* ---- Opening a client's FIFO --------------------------------------------- */

/* isInPipeDirectory(): the directory part of an absolute path is the pipe
 * directory (compared as device and inode, so any spelling of it counts). */
static int isInPipeDirectory(const char* path) {
  const char* pSlash = strrchr(path, '/');
  if (path[0] != '/' || !pSlash || !pSlash[1]) return 0;
  size_t nDir = pSlash == path ? 1 : (size_t)(pSlash - path);
  char szDir[ZORV_MB_READ_SIZE];
  if (nDir >= sizeof szDir) return 0;
  memcpy(szDir, path, nDir);
  szDir[nDir] = '\0';
  struct stat st;
  return stat(szDir, &st) == 0 && st.st_dev == table.pipeDev &&
         st.st_ino == table.pipeIno;
}

/* openClientFifo(): the client's FIFO for writing, or -1. Only a FIFO in
 * the pipe directory is opened, never through a symbolic link and never
 * anything else: a start-up must not make the broker write into a file. */
static int32_t openClientFifo(const char* path) {
  if (!isInPipeDirectory(path)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "start-up refused: %s is not in the pipe directory\n", path);
    return -1;
  }
  struct stat stPath;
  if (lstat(path, &stPath) != 0 || !S_ISFIFO(stPath.st_mode)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "start-up refused: %s is not a FIFO\n",
                  path);
    return -1;
  }
  /* A first open outside the layer: it fails at once when the client has
   * gone (no reader), and it is checked before the layer registers it. */
  int probe = open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (probe < 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "start-up refused: cannot open %s: %s\n",
                  path, strerror(errno));
    return -1;
  }
  struct stat stProbe;
  int bSame = fstat(probe, &stProbe) == 0 && S_ISFIFO(stProbe.st_mode) &&
              stProbe.st_dev == stPath.st_dev &&
              stProbe.st_ino == stPath.st_ino;
  int32_t fd = bSame ? ZorvPipeOpen(path, 1) : -1;
  close(probe);
  if (fd < 0) {
    /* The layer keeps a record even for a failed open; drop it. */
    ZorvPipeClose(-1);
    return -1;
  }
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  struct stat stFd;
  if (fstat(fd, &stFd) != 0 || stFd.st_dev != stPath.st_dev ||
      stFd.st_ino != stPath.st_ino) {
    ZorvPipeClose(fd);
    return -1;
  }
  return fd;
}

/* sendNack(): a refusal the client reads as "not an acknowledgement". */
static void sendNack(int32_t fd, const char* reason) {
  CGenStr text;
  if (!CGenStrInit(&text)) return;
  if (CGenStrCatf(&text, "<NACK>%s</NACK>\r\n", reason))
    writeRaw(fd, CGenStrC_Str(&text));
  CGenStrDelete(&text);
}

/* ---- Start-up and stop --------------------------------------------------- */

/* readField(): one start-up element into a buffer; 1 when present and
 * fitting. */
static int readField(const char* text, const char* path, char* buffer,
                     uint32_t size) {
  return ZorvXmlGetField(text, path, 0, buffer, size) == ZORV_FIELD_FOUND;
}

/* refuseReason(): why a start-up of `clientClass` from `pid` is refused, or
 * null to accept it. */
static const char* refuseReason(const char* clientClass, int32_t pid) {
  if (table.bRefusing) return "SHUTTING_DOWN";
  if (strcmp(clientClass, "MESSAGEBROKER") == 0) return "RESERVED_CLASS";
  if (ZorvMb_I_IsEngineClass(clientClass)) {
    ZorvMbClient* pOther = ZorvMb_I_FindClientByClass(clientClass);
    if (pOther && pOther->pid != pid) {
      /* The other one may have died unnoticed: only a live one blocks. */
      ZorvMb_I_CheckClients(ZorvServerNowMs());
      pOther = ZorvMb_I_FindClientByClass(clientClass);
      if (pOther && pOther->pid != pid) return "ENGINE_ALREADY_CONNECTED";
    }
  }
  if (!ZorvMb_I_FindClientByPid(pid) && table.nClients >= ZORV_MB_MAX_CLIENTS)
    return "TOO_MANY_CLIENTS";
  return NULL;
}

/* acceptStartup(): the whole start-up of one client. */
static void acceptStartup(const char* text) {
  char szRead[ZORV_MB_READ_SIZE];
  char szPid[ZORV_MB_PID_SIZE];
  if (!readField(text, "STARTUP/READ", szRead, sizeof szRead)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "start-up without usable READ dropped\n");
    return;
  }
  int32_t fd = openClientFifo(szRead);
  if (fd < 0) return;

  ZorvMbClient client;
  memset(&client, 0, sizeof client);
  uint32_t pid = 0;
  if (!readField(text, "STARTUP/PID", szPid, sizeof szPid) ||
      !ZorvServerParseDecimal(szPid, 0x7fffffffu, &pid) || pid == 0) {
    sendNack(fd, "BAD_PID");
    ZorvPipeClose(fd);
    return;
  }
  client.pid = (int32_t)pid;
  client.fd = fd;
  readField(text, "STARTUP/NAME", client.szName, sizeof client.szName);
  readField(text, "STARTUP/NLSDATA", client.szNlsData, sizeof client.szNlsData);
  readField(text, "STARTUP/EXE_FILENAME", client.szExe, sizeof client.szExe);
  if (!readField(text, "STARTUP/CLASS", client.szClass,
                 sizeof client.szClass) ||
      !client.szClass[0])
    strcpy(client.szClass, "NORMAL");

  const char* pReason = refuseReason(client.szClass, client.pid);
  if (pReason) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "start-up of %lu (%s) refused: %s\n",
                  (unsigned long)pid, client.szClass, pReason);
    sendNack(fd, pReason);
    ZorvPipeClose(fd);
    return;
  }
  /* A descriptor number the pipe layer hands out again was closed by it
   * (broken pipe): the client that held it is gone. Its record must not be
   * closed, the number now belongs to the new client. */
  for (int32_t i = 0; i < table.nClients; ++i) {
    if (table.aClients[i].fd == fd) {
      forgetClient(&table.aClients[i], 0, "FIFO closed by the pipe layer");
      break;
    }
  }
  ZorvMbClient* pOld = ZorvMb_I_FindClientByPid(client.pid);
  if (pOld) ZorvMb_I_RemoveClient(pOld, "replaced by a new start-up");

  CGenStr ack;
  if (!CGenStrInit(&ack)) {
    ZorvPipeClose(fd);
    return;
  }
  int bEnum = table.pEnumNotice != NULL;
  int ok = CGenStrCatChar(&ack, bEnum ? kAckEnumComplete : kAck);
  /* A controller that comes after the enumeration ended still gets the
   * engine's notice, right behind the acknowledgement: its start waits for
   * that message. */
  if (ok && bEnum && strcmp(client.szClass, "API") == 0)
    ok = CGenStrCatChar(&ack, table.pEnumNotice);
  if (!ok || !writeRaw(fd, CGenStrC_Str(&ack))) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "acknowledgement to %lu failed\n",
                  (unsigned long)pid);
    CGenStrDelete(&ack);
    ZorvPipeClose(fd);
    return;
  }
  CGenStrDelete(&ack);
  table.aClients[table.nClients++] = client;
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "client %lu connected: name \"%s\", class %s, exe \"%s\", "
                "NLS data \"%s\"\n",
                (unsigned long)pid, client.szName, client.szClass, client.szExe,
                client.szNlsData);
}

/* isEngineStartup(): the start-up of an engine, which the gate lets pass. */
static int isEngineStartup(const char* text) {
  char szClass[ZORV_MB_CLASS_SIZE];
  if (!readField(text, "STARTUP/CLASS", szClass, sizeof szClass)) return 0;
  return ZorvMb_I_IsEngineClass(szClass);
}

/* ZorvMb_I_HandleStartup(): now, or held until the engines are there. */
void ZorvMb_I_HandleStartup(const char* text) {
  if (!table.bRefusing && !ZorvMb_I_StartupGateOpen() &&
      !isEngineStartup(text) && table.nPending < ZORV_MB_MAX_CLIENTS) {
    char* pCopy = strdup(text);
    if (pCopy) {
      table.apPending[table.nPending++] = pCopy;
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "start-up held until the engines are connected\n");
      return;
    }
  }
  acceptStartup(text);
}

/* ZorvMb_I_ReleasePendingStartups(): the held start-ups, oldest first. */
void ZorvMb_I_ReleasePendingStartups(void) {
  int32_t n = table.nPending;
  table.nPending = 0;
  for (int32_t i = 0; i < n; ++i) {
    acceptStartup(table.apPending[i]);
    free(table.apPending[i]);
    table.apPending[i] = NULL;
  }
}

/* ZorvMb_I_RefuseStartups(): shutting down. */
void ZorvMb_I_RefuseStartups(void) {
  table.bRefusing = 1;
  ZorvMb_I_ReleasePendingStartups();
}

/* ZorvMb_I_HandleStop(): "<STOP><PID>pid</PID></STOP>". */
void ZorvMb_I_HandleStop(const char* text) {
  char szPid[ZORV_MB_PID_SIZE];
  uint32_t pid = 0;
  if (!readField(text, "STOP/PID", szPid, sizeof szPid) ||
      !ZorvServerParseDecimal(szPid, 0x7fffffffu, &pid)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "STOP without usable PID dropped\n");
    return;
  }
  ZorvMbClient* pClient = ZorvMb_I_FindClientByPid((int32_t)pid);
  if (!pClient) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "STOP from unknown client %lu\n",
                  (unsigned long)pid);
    return;
  }
  ZorvMb_I_RemoveClient(pClient, "STOP");
}

/* ---- Checks -------------------------------------------------------------- */

/* ZorvMb_I_CheckClients(): readers gone, FIFOs closed, readers stalled. */
void ZorvMb_I_CheckClients(uint64_t nowMs) {
  int32_t i = 0;
  while (i < table.nClients) {
    ZorvMbClient* pClient = &table.aClients[i];
    if (fcntl(pClient->fd, F_GETFD) < 0) {
      forgetClient(pClient, 0, "FIFO closed by the pipe layer");
      continue;
    }
    struct pollfd pfd = {pClient->fd, POLLOUT, 0};
    /* A FIFO's write end reports an error once no reader is left: the
     * client and the dummy writer that kept it open have gone. */
    if (poll(&pfd, 1, 0) == 1 && (pfd.revents & (POLLERR | POLLNVAL))) {
      ZorvMb_I_RemoveClient(pClient, "reader gone");
      continue;
    }
    int nUnread = 0;
    if (ioctl(pClient->fd, FIONREAD, &nUnread) == 0 && nUnread > 0) {
      if (pClient->stallSinceMs == 0) pClient->stallSinceMs = nowMs;
      if (nowMs - pClient->stallSinceMs >= table.stallLimitMs) {
        ZorvMb_I_RemoveClient(pClient, "does not read its FIFO");
        continue;
      }
    } else {
      pClient->stallSinceMs = 0;
    }
    ++i;
  }
}

/* ZorvMb_I_CloseAllClients(): the end of the broker. */
void ZorvMb_I_CloseAllClients(void) {
  while (table.nClients > 0)
    ZorvMb_I_RemoveClient(&table.aClients[table.nClients - 1], "shutdown");
  for (int32_t i = 0; i < table.nPending; ++i) free(table.apPending[i]);
  table.nPending = 0;
  ZorvMb_I_SetEnumComplete(NULL);
}

/* ---- Enumeration state --------------------------------------------------- */

/* ZorvMb_I_SetEnumComplete(): keep a copy of the notice, or clear. */
void ZorvMb_I_SetEnumComplete(const char* notice) {
  free(table.pEnumNotice);
  table.pEnumNotice = notice ? strdup(notice) : NULL;
}

/* ZorvMb_I_IsEnumComplete(): a notice is kept. */
int ZorvMb_I_IsEnumComplete(void) { return table.pEnumNotice != NULL; }
