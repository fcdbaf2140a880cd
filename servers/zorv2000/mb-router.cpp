/*
 * mb-router.cpp: cuts what the broker's FIFO delivered into messages and
 * routes each: start-up and stop to the client table, envelopes by TO to a
 * client, an engine or the broker itself. Runs on the broker's one thread;
 * no locks of its own. Nothing that arrives is trusted: every field is read
 * into a bounded buffer and a message that does not read is dropped.
 */
#include "servers/zorv2000/mb-router.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "servers/common/server-common.h"
#include "servers/zorv2000/mb-clients.h"
#include "servers/zorv2000/mb-engines.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/tracing.h"

/* Header fields read for routing: names, numbers and type words are short;
 * a longer field is not one a client builds. */
enum { MB_FIELD_SIZE = 128 };
/* The payload of a broker command or an enumeration notice. */
enum { MB_COMMAND_SIZE = 256 };

/* How each kind of message begins. */
static const char kEnvelopeStart[] = "<MSG><HDR>";
static const char kStartupStart[] = "<STARTUP><READ>";
static const char kStopStart[] = "<STOP><PID>";

/* Process-wide state of the unit. */
static struct {
  /* unguarded: the broker's one thread only */
  int bStopRequested;
} router;

/* One envelope being routed. */
typedef struct MbEnvelope {
  const char* pText;   /* zero-terminated, without "\r\n" */
  const char* pWire;   /* the same with "\r\n", for forwarding */
  uint32_t wireLength; /* bytes at pWire */
  uint32_t from;
  char szFrom[MB_FIELD_SIZE];
  char szTo[MB_FIELD_SIZE];
  char szId[MB_FIELD_SIZE];
  char szType[MB_FIELD_SIZE];
} MbEnvelope;

/* ZorvMb_I_StopRequested(): set by the broker command. */
int ZorvMb_I_StopRequested(void) { return router.bStopRequested; }

/* startsWith(): the `length` bytes at `text` begin with `prefix`. */
static int startsWith(const char* text, uint32_t length, const char* prefix,
                      uint32_t prefixLength) {
  return length >= prefixLength && memcmp(text, prefix, prefixLength) == 0;
}

/* ZorvMb_I_FindMessageStart(): the last start of any kind. */
int32_t ZorvMb_I_FindMessageStart(const char* line, uint32_t length) {
  for (uint32_t i = length; i-- > 0;) {
    if (line[i] != '<') continue;
    const char* p = line + i;
    uint32_t nLeft = length - i;
    if (startsWith(p, nLeft, kEnvelopeStart, sizeof kEnvelopeStart - 1) ||
        startsWith(p, nLeft, kStartupStart, sizeof kStartupStart - 1) ||
        startsWith(p, nLeft, kStopStart, sizeof kStopStart - 1))
      return (int32_t)i;
  }
  return -1;
}

/* ---- Replies ------------------------------------------------------------- */

/* replyTo(): a message of `type` answering the envelope (RE = its ID) to
 * its sender, when the sender is a client. */
static void replyTo(const MbEnvelope* pEnvelope, const char* type,
                    const char* data) {
  ZorvMbClient* pSender = ZorvMb_I_FindClientByPid((int32_t)pEnvelope->from);
  if (!pSender) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "no client %s to answer\n",
                  pEnvelope->szFrom);
    return;
  }
  CGenStr message;
  if (!CGenStrInit(&message)) return;
  if (ZorvServerBuildMessage(&message, pEnvelope->szFrom, pEnvelope->szId, type,
                             data))
    ZorvMb_I_SendToClient(pSender, CGenStrC_Str(&message),
                          CGenStrSize(&message));
  CGenStrDelete(&message);
}

/* ---- The broker's own commands ------------------------------------------- */

/* clientList(): the "GET_CLIENTS" answer: one CLIENT element per client. */
static int clientList(CGenStr* out) {
  for (int32_t i = 0; i < ZorvMb_I_ClientCount(); ++i) {
    const ZorvMbClient* pClient = ZorvMb_I_ClientAt(i);
    if (!CGenStrCatf(out, "<CLIENT><PID>%lu</PID>",
                     (unsigned long)(uint32_t)pClient->pid) ||
        !ZorvServerCatElement(out, "NAME", pClient->szName) ||
        !ZorvServerCatElement(out, "CLASS", pClient->szClass) ||
        !ZorvServerCatElement(out, "EXE_FILENAME", pClient->szExe) ||
        !ZorvServerCatElement(out, "NLSDATA", pClient->szNlsData) ||
        !CGenStrCatChar(out, "</CLIENT>"))
      return 0;
  }
  return 1;
}

/* brokerCommand(): an "MBCMD" message to "MESSAGEBROKER". */
static void brokerCommand(const MbEnvelope* pEnvelope) {
  char szCommand[MB_COMMAND_SIZE];
  if (ZorvXmlGetField(pEnvelope->pText, "MSG/DATA", 0, szCommand,
                      sizeof szCommand) != ZORV_FIELD_FOUND)
    szCommand[0] = '\0';
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "command \"%s\" from %s\n", szCommand,
                pEnvelope->szFrom);
  if (strcmp(szCommand, "STOP_MESSAGE_BROKER") == 0) {
    /* One-way: the controller sends it without waiting for an answer. */
    router.bStopRequested = 1;
    return;
  }
  if (strcmp(szCommand, "GET_CLIENTS") == 0) {
    CGenStr list;
    if (!CGenStrInit(&list)) return;
    if (clientList(&list))
      replyTo(pEnvelope, ZORV_SERVER_TYPE_RESPONSE, CGenStrC_Str(&list));
    CGenStrDelete(&list);
    return;
  }
  replyTo(pEnvelope, ZORV_SERVER_TYPE_RESPONSE, "ERROR:unknown command");
}

/* ---- Enumeration notices ------------------------------------------------- */

/* fromDiagEngine(): the sender is the connected diagnostic engine. */
static int fromDiagEngine(const MbEnvelope* pEnvelope) {
  ZorvMbClient* pSender = ZorvMb_I_FindClientByPid((int32_t)pEnvelope->from);
  return pSender && strcmp(pSender->szClass, "DIAGENGINE") == 0;
}

/* noteEnumNotice(): "DE_ENUM_NOTIFY" from the diagnostic engine sets or
 * clears the enumeration state that start-ups are acknowledged with. */
static void noteEnumNotice(const MbEnvelope* pEnvelope) {
  if (!fromDiagEngine(pEnvelope)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "DE_ENUM_NOTIFY from %s, not the diagnostic engine\n",
                  pEnvelope->szFrom);
    return;
  }
  char szData[MB_COMMAND_SIZE];
  int bComplete = ZorvXmlGetField(pEnvelope->pText, "MSG/DATA", 0, szData,
                                  sizeof szData) == ZORV_FIELD_FOUND &&
                  strcmp(szData, "ENUM_COMPLETE") == 0;
  ZorvMb_I_SetEnumComplete(bComplete ? pEnvelope->pWire : NULL);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "enumeration %s\n",
                bComplete ? "complete" : "not complete");
}

/* broadcastToControllers(): a copy to every client of class "API". */
static void broadcastToControllers(const MbEnvelope* pEnvelope) {
  int32_t i = 0;
  while (i < ZorvMb_I_ClientCount()) {
    ZorvMbClient* pClient = ZorvMb_I_ClientAt(i);
    if (strcmp(pClient->szClass, "API") == 0 &&
        !ZorvMb_I_SendToClient(pClient, pEnvelope->pWire,
                               pEnvelope->wireLength))
      continue; /* removed: the next one moved into this index */
    ++i;
  }
}

/* ---- Routing ------------------------------------------------------------- */

/* isCommandType(): the types that clients send as transactions to a
 * server and wait for. */
static int isCommandType(const char* type) {
  return strcmp(type, "DE_COMMAND") == 0 || strcmp(type, "NLS_COMMAND") == 0;
}

/* undeliverable(): nobody takes the message. A command to a missing engine
 * is answered at once, so the sender's transaction ends now with a reply
 * that holds no result; anything else is dropped and a sender that waits
 * sees its own time-out. */
static void undeliverable(const MbEnvelope* pEnvelope) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "undeliverable: no client for TO %s (TYPE %s from %s): "
                "dropped\n",
                pEnvelope->szTo, pEnvelope->szType, pEnvelope->szFrom);
  if (!isCommandType(pEnvelope->szType)) return;
  CGenStr data;
  if (!CGenStrInit(&data)) return;
  if (CGenStrCatChar(&data, "NO_RECIPIENT:") &&
      ZorvServerCatEscaped(&data, pEnvelope->szTo))
    replyTo(pEnvelope, "MB_UNDELIVERABLE", CGenStrC_Str(&data));
  CGenStrDelete(&data);
}

/* readHeader(): FROM, TO, ID and TYPE; 0 when one is missing or FROM is not
 * a process id. */
static int readHeader(MbEnvelope* pEnvelope) {
  const char* pText = pEnvelope->pText;
  if (ZorvXmlGetField(pText, "MSG/HDR/FROM", 0, pEnvelope->szFrom,
                      MB_FIELD_SIZE) != ZORV_FIELD_FOUND ||
      ZorvXmlGetField(pText, "MSG/HDR/TO", 0, pEnvelope->szTo, MB_FIELD_SIZE) !=
          ZORV_FIELD_FOUND ||
      ZorvXmlGetField(pText, "MSG/HDR/ID", 0, pEnvelope->szId, MB_FIELD_SIZE) !=
          ZORV_FIELD_FOUND ||
      ZorvXmlGetField(pText, "MSG/HDR/TYPE", 0, pEnvelope->szType,
                      MB_FIELD_SIZE) != ZORV_FIELD_FOUND)
    return 0;
  uint32_t id = 0;
  return ZorvServerParseDecimal(pEnvelope->szFrom, 0x7fffffffu,
                                &pEnvelope->from) &&
         pEnvelope->from > 0 &&
         ZorvServerParseDecimal(pEnvelope->szId, 0xffffffffu, &id) &&
         pEnvelope->szTo[0] && pEnvelope->szType[0];
}

/* routeEnvelope(): by TO. */
static void routeEnvelope(MbEnvelope* pEnvelope) {
  if (!readHeader(pEnvelope)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "envelope without usable FROM, TO, ID or TYPE dropped\n");
    return;
  }
  if (strcmp(pEnvelope->szType, "DE_ENUM_NOTIFY") == 0)
    noteEnumNotice(pEnvelope);
  if (strcmp(pEnvelope->szTo, "MESSAGEBROKER") == 0) {
    if (strcmp(pEnvelope->szType, ZORV_SERVER_TYPE_BROKER_COMMAND) == 0) {
      brokerCommand(pEnvelope);
    } else if (strcmp(pEnvelope->szType, "DE_ENUM_NOTIFY") == 0) {
      if (fromDiagEngine(pEnvelope)) broadcastToControllers(pEnvelope);
    } else {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "TYPE %s to MESSAGEBROKER from %s dropped\n",
                    pEnvelope->szType, pEnvelope->szFrom);
    }
    return;
  }
  /* Only the broker gives commands to the engines ("SHUTDOWN"): a client's
   * MBCMD to anyone else is not passed on. */
  if (strcmp(pEnvelope->szType, ZORV_SERVER_TYPE_BROKER_COMMAND) == 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "MBCMD from %s to %s dropped\n",
                  pEnvelope->szFrom, pEnvelope->szTo);
    return;
  }
  ZorvMbClient* pTarget = NULL;
  uint32_t pid = 0;
  if (ZorvMb_I_IsEngineClass(pEnvelope->szTo))
    pTarget = ZorvMb_I_FindClientByClass(pEnvelope->szTo);
  else if (ZorvServerParseDecimal(pEnvelope->szTo, 0x7fffffffu, &pid))
    pTarget = ZorvMb_I_FindClientByPid((int32_t)pid);
  if (!pTarget) {
    undeliverable(pEnvelope);
    return;
  }
  ZorvMb_I_SendToClient(pTarget, pEnvelope->pWire, pEnvelope->wireLength);
}

/* handleMessage(): one message of `length` bytes at `pText`, zero-terminated
 * there; `pWire` holds the same with its "\r\n". */
static void handleMessage(char* pText, uint32_t length, const char* pWire) {
  if (startsWith(pText, length, kStartupStart, sizeof kStartupStart - 1)) {
    ZorvMb_I_HandleStartup(pText);
    return;
  }
  if (startsWith(pText, length, kStopStart, sizeof kStopStart - 1)) {
    ZorvMb_I_HandleStop(pText);
    return;
  }
  MbEnvelope envelope;
  memset(&envelope, 0, sizeof envelope);
  envelope.pText = pText;
  envelope.pWire = pWire;
  envelope.wireLength = length + 2;
  routeEnvelope(&envelope);
}

/* handleLine(): one line of the batch, without its "\r\n". */
static void handleLine(char* pLine, uint32_t length) {
  int32_t start = ZorvMb_I_FindMessageStart(pLine, length);
  if (start < 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "%lu bytes without a message start dropped\n",
                  (unsigned long)length);
    return;
  }
  if (start > 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%lu bytes before a message dropped\n",
                  (unsigned long)start);
  }
  char* pText = pLine + start;
  uint32_t nText = length - (uint32_t)start;
  /* The parsers read the text without its line end, forwarding sends it
   * with one (also when the sender left it out). */
  char* pWire = (char*)malloc((size_t)nText + 3);
  if (!pWire) return;
  memcpy(pWire, pText, nText);
  memcpy(pWire + nText, "\r\n", 3);
  /* A NUL inside the line ends the text the parsers see; such a message
   * does not read as an envelope and is dropped there. */
  pText[nText] = '\0';
  handleMessage(pText, nText, pWire);
  free(pWire);
}

/* ZorvMb_I_HandleBatch(): line by line. */
void ZorvMb_I_HandleBatch(char* data, int32_t length) {
  uint32_t n = (uint32_t)length;
  uint32_t pos = 0;
  while (pos < n) {
    uint32_t end = pos;
    while (end + 1 < n && !(data[end] == '\r' && data[end + 1] == '\n')) ++end;
    if (end + 1 >= n) {
      /* No line end left: the rest is one last line. */
      handleLine(data + pos, n - pos);
      return;
    }
    handleLine(data + pos, end - pos);
    pos = end + 2;
  }
}
