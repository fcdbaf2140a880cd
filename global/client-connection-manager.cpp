/*
 * client-connection-manager.cpp: opens and closes the client's one
 * connection (start-up message, acknowledgement, "STOP"), sends envelopes,
 * translated or not, and cuts received data into messages. Holds the open,
 * close, send, language and ProcessMessages calls. No lock of its own.
 */
#include "zorv2000/client-connection-manager.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "global/client-connection-manager_p.h"
#include "global/client-fifo-access_p.h"
#include "global/client-messaging-engine_p.h"
#include "global/primitives_p.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/nls-access.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Connections a process may count. */
enum { ZORV_MAX_CONNECTIONS = 2 };

/* The two acknowledgements a server gives, as they begin its answer. */
static const char kAck[] = "<ACK></ACK>";
static const char kAckEnumComplete[] = "<ACK>ENUM_COMPLETE</ACK>";

/* Process-wide state of the connection. */
static struct {
  /* unguarded: opening and closing run on one thread at a time */
  int32_t connectionCount;
  /* unguarded: set before messages are sent; two letters and terminator */
  char szLanguage[3];
} state;

struct ZorvClientElementSizes zorvClientElementSizes = {
    ZORV_STARTUP_READ_SIZE,    ZORV_STARTUP_PID_SIZE,   ZORV_STARTUP_NAME_SIZE,
    ZORV_STARTUP_NLSDATA_SIZE, ZORV_STARTUP_CLASS_SIZE, ZORV_STARTUP_EXE_SIZE,
    ZORV_STARTUP_MESSAGE_SIZE};

/* usableSize(): the part of a buffer of `have` bytes the table allows. */
static uint32_t usableSize(uint32_t want, size_t have) {
  return want < have ? want : (uint32_t)have;
}

/* findLineEnd(): the first "\r\n" in [pText, pEnd), or null. */
static char* findLineEnd(char* pText, const char* pEnd) {
  for (char* p = pText; p + 1 < pEnd; ++p)
    if (p[0] == '\r' && p[1] == '\n') return p;
  return NULL;
}

/* ZorvClient_I_SplitMessages(): received data cut into messages. */
int32_t ZorvClient_I_SplitMessages(char* pData, int32_t nData,
                                   ZorvClientMessageCallback callback) {
  const char* pEnd = pData + nData;
  int32_t nMessages = 0;
  char* pMessage = pData;
  while (pMessage < pEnd) {
    char* pLineEnd = findLineEnd(pMessage, pEnd);
    if (!pLineEnd) break;
    *pLineEnd = '\0';
    if (callback) callback(pMessage);
    ++nMessages;
    pMessage = pLineEnd + 2;
  }
  return nMessages;
}

/* ZorvClientOpenConnection(): an ordinary client without NLS data. */
int ZorvClientOpenConnection(void) {
  return ZorvClientOpenConnectionEx("Name Here", "NORMAL", "", NULL);
}

/* ZorvClientOpenConnectionEx(): opens the connection to the server FIFO. */
int ZorvClientOpenConnectionEx(const char* name, const char* clientClass,
                               const char* nlsData, const char* exePath) {
  int rc =
      ZorvClient_I_OpenConnectionEx(0, name, clientClass, nlsData, exePath);
  /* Deliberate: an enumeration-complete acknowledgement is an ordinary
   * success here; only the internal call tells the two apart. */
  return rc == ZORV_OPEN_ENUM_COMPLETE ? ZORV_OPEN_OK : rc;
}

/* ZorvClient_I_OpenConnectionEx(): FIFOs, start-up message, acknowledgement,
 * hiding the own FIFO, NLS registration. */
int ZorvClient_I_OpenConnectionEx(int32_t serverPid, const char* name,
                                  const char* clientClass, const char* nlsData,
                                  const char* exePath) {
  if (state.connectionCount >= ZORV_MAX_CONNECTIONS) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClientOpenConnection - conncection already open\n");
    return ZORV_OPEN_ALREADY_OPEN;
  }
  if (!nlsData) nlsData = "";
  char* pExeFilename = NULL;
  if (exePath && exePath[0]) {
    pExeFilename = (char*)malloc(strlen(exePath) + 1);
    ZORV_VERIFY(pExeFilename != NULL);
    GetPathFilename(exePath, pExeFilename);
  }
  if (serverPid != 0) ZorvSetServerFifoName(serverPid);

  int rc = ZorvClient_I_OpenFifoConnection();
  if (rc != ZORV_FIFO_OPEN_OK) {
    free(pExeFilename);
    return rc == ZORV_FIFO_OPEN_WRITE ? ZORV_OPEN_SERVER_FIFO
                                      : ZORV_OPEN_OWN_FIFO;
  }
  rc = ZorvClient_I_SendFifoStartupMessage(name, clientClass, nlsData,
                                           pExeFilename);
  free(pExeFilename);
  if (rc != ZORV_OPEN_OK) {
    ZorvClient_I_CloseFifoConnection();
    return rc;
  }

  int32_t nData = 0;
  char* pData = ZorvClient_I_WaitForFifoData(&nData, ZORV_OPEN_ACK_WAIT_MS, 0);
  if (!pData) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_OpenConnectionEx() no answer from %s\n",
                  ZorvClient_I_GetMainFifoName());
    ZorvClient_I_CloseFifoConnection();
    return ZORV_OPEN_NO_ANSWER;
  }
  int bEnumComplete = 0;
  if (strncmp(pData, kAck, sizeof kAck - 1) == 0) {
    bEnumComplete = 0;
  } else if (strncmp(pData, kAckEnumComplete, sizeof kAckEnumComplete - 1) ==
             0) {
    bEnumComplete = 1;
  } else {
    ZORV_TRACE_AT(
        ZORV_TRC_PROGRAM,
        "ZorvClient_I_OpenConnectionEx() not an acknowledgement: %s\n", pData);
    free(pData);
    ZorvClient_I_CloseFifoConnection();
    return ZORV_OPEN_NOT_ACK;
  }
  /* The server may write its next message (the engine's notice that the
   * enumeration is complete, for one) right behind the acknowledgement, and
   * the pipe layer hands both out in one buffer: keep what follows the
   * acknowledgement's line end in the message table. */
  char* pLineEnd = findLineEnd(pData, pData + nData);
  if (pLineEnd)
    ZorvClient_I_SplitMessages(pLineEnd + 2,
                               (int32_t)(pData + nData - (pLineEnd + 2)),
                               ZorvClient_I_MoveMessagesToTable);
  free(pData);

  ZorvClient_I_HideFifo();
  if (nlsData[0]) ZorvNlsRegisterModuleNlsFile(nlsData);
  ++state.connectionCount;
  return bEnumComplete ? ZORV_OPEN_ENUM_COMPLETE : ZORV_OPEN_OK;
}

/* ZorvClient_I_SendFifoStartupMessage(): builds and sends "STARTUP". */
int ZorvClient_I_SendFifoStartupMessage(const char* name,
                                        const char* clientClass,
                                        const char* nlsData,
                                        const char* exeFilename) {
  char szRead[ZORV_STARTUP_READ_SIZE];
  char szPid[ZORV_STARTUP_PID_SIZE];
  char szName[ZORV_STARTUP_NAME_SIZE];
  char szNlsData[ZORV_STARTUP_NLSDATA_SIZE];
  char szClass[ZORV_STARTUP_CLASS_SIZE];
  char szExe[ZORV_STARTUP_EXE_SIZE];
  char szStartup[ZORV_STARTUP_MESSAGE_SIZE];
  const struct ZorvClientElementSizes* pSizes = &zorvClientElementSizes;

  char szOwnFifo[ZORV_PATH_SIZE];
  ZorvClient_I_GetReadPipeName(szOwnFifo, sizeof szOwnFifo);
  szOwnFifo[sizeof szOwnFifo - 1] = '\0';
  char szPidText[32];
  snprintf(szPidText, sizeof szPidText, "%lu",
           (unsigned long)(uint32_t)ZorvGetClientPid());

  if (ZorvCreateMessage(szRead, usableSize(pSizes->read, sizeof szRead), "READ",
                        szOwnFifo, NULL) != 0)
    return ZORV_OPEN_READ_TOO_LONG;
  if (ZorvCreateMessage(szPid, usableSize(pSizes->pid, sizeof szPid), "PID",
                        szPidText, NULL) != 0)
    return ZORV_OPEN_PID_TOO_LONG;
  if (ZorvCreateMessage(szName, usableSize(pSizes->name, sizeof szName), "NAME",
                        name ? name : "", NULL) != 0)
    return ZORV_OPEN_NAME_TOO_LONG;
  if (ZorvCreateMessage(szNlsData,
                        usableSize(pSizes->nlsData, sizeof szNlsData),
                        "NLSDATA", nlsData ? nlsData : "", NULL) != 0)
    return ZORV_OPEN_NLSDATA_TOO_LONG;
  if (ZorvCreateMessage(
          szClass, usableSize(pSizes->clientClass, sizeof szClass), "CLASS",
          clientClass ? clientClass : "NORMAL", NULL) != 0)
    return ZORV_OPEN_CLASS_TOO_LONG;
  if (ZorvCreateMessage(szExe, usableSize(pSizes->exeFilename, sizeof szExe),
                        "EXE_FILENAME", exeFilename ? exeFilename : "",
                        NULL) != 0)
    return ZORV_OPEN_STARTUP_TOO_LONG;
  /* Deliberate: a whole message that is too long shares 26 with an
   * over-long EXE_FILENAME; callers know 26 as "start-up too long". */
  if (ZorvCreateMessage(
          szStartup, usableSize(pSizes->startup, sizeof szStartup), "STARTUP",
          szRead, szPid, szName, szNlsData, szClass, szExe, NULL) != 0)
    return ZORV_OPEN_STARTUP_TOO_LONG;
  if (ZorvClientSendMessage(szStartup) != 0) return ZORV_OPEN_SEND_FAILED;
  return ZORV_OPEN_OK;
}

/* ZorvClient_I_SendFifoCloseMessage(): builds and sends "STOP". */
int ZorvClient_I_SendFifoCloseMessage(void) {
  char szPid[ZORV_STOP_PID_SIZE];
  char szStop[ZORV_STOP_MESSAGE_SIZE];
  char szPidText[32];
  snprintf(szPidText, sizeof szPidText, "%lu",
           (unsigned long)(uint32_t)ZorvGetClientPid());
  if (ZorvCreateMessage(szPid, sizeof szPid, "PID", szPidText, NULL) != 0)
    return ZORV_CLOSEMSG_PID;
  if (ZorvCreateMessage(szStop, sizeof szStop, "STOP", szPid, NULL) != 0)
    return ZORV_CLOSEMSG_MESSAGE;
  if (ZorvClientSendMessage(szStop) != 0) return ZORV_CLOSEMSG_SEND;
  return ZORV_CLOSEMSG_OK;
}

/* ZorvClientCloseConnection(): "STOP", then the FIFOs go. */
int ZorvClientCloseConnection(void) {
  /* The server may be gone already; closing goes on regardless. */
  (void)ZorvClient_I_SendFifoCloseMessage();
  ZorvClient_I_CloseFifoConnection();
  if (state.connectionCount > 0) --state.connectionCount;
  return 0;
}

/* ZorvClientSendMessage(): one whole envelope to the server FIFO. */
int ZorvClientSendMessage(const char* text) {
  return ZorvClient_I_WriteFifo(text);
}

/* ZorvClientSendMessageTranslated(): translate the NLS tags, then send. */
int ZorvClientSendMessageTranslated(const char* text, char* language) {
  uint32_t start = ZorvMilliSeconds();
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "LANGUAGE %s\n",
                language ? language : "(null)");
  const char* pLanguage = language ? language : "EN";
  if (language && !language[0]) {
    /* Deliberate: two letters and no terminator go into the caller's
     * buffer; callers pass a zeroed buffer of three bytes or more. */
    memcpy(language, "EN", 2);
  }
  int rc;
  if (strncmp(pLanguage, "TK", 2) == 0) {
    rc = ZorvClientSendMessage(text);
  } else {
    CGenStr translated;
    if (!CGenStrInit(&translated) ||
        !ZorvGetNlsMessageWithXmlMessage(text, pLanguage, &translated)) {
      rc = 2;
    } else {
      rc = ZorvClientSendMessage(CGenStrC_Str(&translated));
    }
    CGenStrDelete(&translated);
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "ZorvClientSendMessageTranslated - elapsed time %d\n",
                (int)(ZorvMilliSeconds() - start));
  return rc;
}

/* ZorvClientSendMessageSetLanguage(): two letters, or none for null. */
void ZorvClientSendMessageSetLanguage(const char* language) {
  state.szLanguage[0] = '\0';
  if (!language) return;
  ZorvSafeStrNCpy(state.szLanguage, language, (int32_t)sizeof state.szLanguage);
}

/* ZorvClientSendMessageGetLanguage(): the language, null when none. */
const char* ZorvClientSendMessageGetLanguage(void) {
  return state.szLanguage[0] ? state.szLanguage : NULL;
}

/* ZorvClientProcessMessages(): waits, then hands out each message. */
int32_t ZorvClientProcessMessages(ZorvClientMessageCallback callback,
                                  uint32_t timeoutMs, int watchInput) {
  int32_t nData = 0;
  char* pData = ZorvClient_I_WaitForFifoData(&nData, timeoutMs, watchInput);
  if (!pData) return 0;
  int32_t nMessages = ZorvClient_I_SplitMessages(pData, nData, callback);
  free(pData);
  return nMessages;
}

/* ZorvFlushWriteFIFO(): pushes out what is queued for the server FIFO. */
int32_t ZorvFlushWriteFIFO(uint32_t timeoutMs) {
  return ZorvFlushWritePipe(ZorvClient_I_GetWriteFifoHandle(), timeoutMs);
}

/* ZorvClientGetReadErrorCount(): consecutive failed reads. */
int32_t ZorvClientGetReadErrorCount(void) {
  return ZorvClient_I_GetReadErrorCount();
}

/* ZorvClientGetWriteErrorCount(): consecutive failed sends. */
int32_t ZorvClientGetWriteErrorCount(void) {
  return ZorvClient_I_GetWriteErrorCount();
}

/* ZorvClient_I_GetConnectionCount(): open connections. */
int32_t ZorvClient_I_GetConnectionCount(void) { return state.connectionCount; }
