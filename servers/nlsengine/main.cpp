/*
 * main.cpp: nlsengine [trace], the NLS engine. A client of class "NLSENGINE"
 * that answers the NLS commands from the string files of ZORV_NLS_DIR (else
 * "nls" beside it). Ends on the broker's "SHUTDOWN", with the broker, or on
 * SIGTERM. Exit status 0 after a stop, 2 when it cannot connect.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "servers/common/server-common.h"
#include "servers/nlsengine/nls-commands.h"
#include "servers/nlsengine/nls-strings.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/tracing.h"

/* Exit statuses. */
enum { NLS_EXIT_OK = 0, NLS_EXIT_NO_BROKER = 2 };
/* Longest wait for a message; the broker's presence is checked between. */
enum { NLS_WAIT_MS = 1000 };
/* Header fields read from a message. */
enum { NLS_FIELD_SIZE = 64 };
/* Flushing the last answers at the end. */
enum { NLS_FLUSH_MS = 1000 };

/* Process-wide state of the engine's main unit. */
static struct {
  /* unguarded: the main thread only */
  uint32_t brokerPid; /* from ZORV_MB_PID; 0 when started by hand */
  int bStop;
} engine;

/* readHeaderField(): one field of "MSG/HDR"; 1 when present. */
static int readHeaderField(const char* text, const char* path, char* buffer) {
  return ZorvXmlGetField(text, path, 0, buffer, NLS_FIELD_SIZE) ==
         ZORV_FIELD_FOUND;
}

/* answer(): the reply to an NLS command, RE its ID, back to its sender. A
 * command whose DATA does not read (broken markup) is answered too, so the
 * sender's transaction ends now. */
static void answer(const char* from, const char* id, const char* text) {
  uint32_t requester = 0;
  if (!ZorvServerParseDecimal(from, 0x7fffffffu, &requester)) return;
  CGenStr command;
  CGenStr data;
  CGenStr message;
  int ok = CGenStrInit(&command) && CGenStrInit(&data) && CGenStrInit(&message);
  if (ok) {
    if (ZorvXmlGetFieldStr(text, "MSG/DATA", 0, &command) == ZORV_FIELD_FOUND)
      ok = ZorvNls_I_HandleCommand(requester, CGenStrC_Str(&command), &data);
    else
      ok = CGenStrAssignChar(&data, "ERROR:unreadable command");
  }
  if (ok &&
      ZorvServerBuildMessage(&message, from, id, ZORV_SERVER_TYPE_RESPONSE,
                             CGenStrC_Str(&data))) {
    if (ZorvClientSendMessage(CGenStrC_Str(&message)) != 0)
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "answer to %s not sent\n", from);
  }
  CGenStrDelete(&command);
  CGenStrDelete(&data);
  CGenStrDelete(&message);
}

/* onMessage(): each message the connection delivers. */
static int onMessage(const char* text) {
  char szType[NLS_FIELD_SIZE];
  char szFrom[NLS_FIELD_SIZE];
  char szId[NLS_FIELD_SIZE];
  if (!readHeaderField(text, "MSG/HDR/TYPE", szType) ||
      !readHeaderField(text, "MSG/HDR/FROM", szFrom) ||
      !readHeaderField(text, "MSG/HDR/ID", szId)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "message without header ignored\n");
    return 0;
  }
  if (strcmp(szType, "NLS_COMMAND") == 0) {
    answer(szFrom, szId, text);
    return 0;
  }
  if (strcmp(szType, ZORV_SERVER_TYPE_BROKER_COMMAND) == 0) {
    char szData[NLS_FIELD_SIZE];
    uint32_t from = 0;
    ZorvServerParseDecimal(szFrom, 0x7fffffffu, &from);
    if (ZorvXmlGetField(text, "MSG/DATA", 0, szData, sizeof szData) ==
            ZORV_FIELD_FOUND &&
        strcmp(szData, "SHUTDOWN") == 0 &&
        (engine.brokerPid == 0 || from == engine.brokerPid)) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "SHUTDOWN from the broker\n");
      engine.bStop = 1;
    }
    return 0;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "TYPE %s from %s ignored\n", szType, szFrom);
  return 0;
}

/* handleTabled(): messages that came with the acknowledgement went into
 * the client's message table (a request the broker passed on right after
 * it); everything later comes through the callback. */
static void handleTabled(void) {
  ZorvClientMessage* pRecord;
  while ((pRecord = ZorvClientGetNextMessage(NULL)) != NULL) {
    onMessage(pRecord->pData);
    ZorvClientFreeMessage(pRecord);
  }
}

/* brokerGone(): the broker that started us has ended, or nobody reads the
 * server FIFO any more. */
static int brokerGone(void) {
  if (engine.brokerPid != 0 && (uint32_t)getppid() != engine.brokerPid)
    return 1;
  /* Opening for writing without writing does not disturb the broker; it
   * fails when the FIFO has no reader or is gone. */
  int fd = open(ZorvGetServerFifoName(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno == ENXIO || errno == ENOENT;
  close(fd);
  return 0;
}

/* stringDirectory(): ZORV_NLS_DIR, else "nls" beside the executable. */
static void stringDirectory(char* buffer, size_t size) {
  const char* pEnv = getenv("ZORV_NLS_DIR");
  if (pEnv && pEnv[0]) {
    snprintf(buffer, size, "%s", pEnv);
    return;
  }
  char szOwn[ZORV_NLS_PATH_SIZE - 8];
  if (!ZorvServerOwnDirectory(szOwn, sizeof szOwn)) snprintf(szOwn, 2, ".");
  snprintf(buffer, size, "%s/nls", szOwn);
}

/* main(): strings, connection, the loop, the end. */
int main(int argc, char** argv) {
  ZorvServerTakeArguments("nlsengine", argc, argv);
  uint32_t brokerPid = 0;
  if (ZorvServerParseDecimal(getenv(ZORV_SERVER_BROKER_PID_ENV), 0x7fffffffu,
                             &brokerPid)) {
    /* Started by the broker: end with it, even when it is killed. */
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if ((uint32_t)getppid() != brokerPid) return NLS_EXIT_OK;
    engine.brokerPid = brokerPid;
  }
  char szDirectory[ZORV_NLS_PATH_SIZE];
  stringDirectory(szDirectory, sizeof szDirectory);
  ZorvNls_I_InitStrings(szDirectory);

  ZorvInitPipes();
  ZorvPipeSignalHandle();
  ZorvInitReadWriteThread();
  int rc = ZorvClientOpenConnectionEx("nlsengine", "NLSENGINE", "", argv[0]);
  if (rc != 0) {
    fprintf(stderr,
            "nlsengine: cannot connect to the message broker at %s "
            "(result %d)\n",
            ZorvGetServerFifoName(), rc);
    ZorvStopReadWriteThread();
    ZorvCleanupPipes();
    return NLS_EXIT_NO_BROKER;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "connected\n");
  while (!engine.bStop) {
    handleTabled();
    if (ZorvClientProcessMessages(onMessage, NLS_WAIT_MS, 0) == 0 &&
        brokerGone()) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "the broker is gone\n");
      break;
    }
  }
  ZorvFlushWriteFIFO(NLS_FLUSH_MS);
  ZorvClientCloseConnection();
  ZorvStopReadWriteThread();
  ZorvCleanupPipes();
  ZorvNls_I_EndStrings();
  return NLS_EXIT_OK;
}
