/*
 * dapi2-main.cpp: the module main of the diagnostic module interface
 * (dapi2/dapi2 continued): registration, the command line, the four modes,
 * the start-up, shut-down and result notifications, the test's events,
 * time-outs and the stop command. Process-wide state, module main thread
 * only; the pipe thread runs between start and stop of communications.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/ini-profile.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/nls-access.h"
#include "zorv2000/param-valid.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/test-common.h"
#include "zorv2000/tracing.h"

/* Buffers of the module state. */
enum {
  DAPI2_REF_SIZE = 80,
  DAPI2_DEFFILE_SIZE = 256,
  DAPI2_SFIFO_SIZE = 256,
  DAPI2_PROCESS_SIZE = 30
};
/* Notification buffers; event buffers. */
enum {
  DAPI2_NOTIFY_HEADER_SIZE = 200,
  DAPI2_NOTIFY_MESSAGE_SIZE = 400,
  DAPI2_EVENT_HEADER_SIZE = 150,
  DAPI2_EVENT_MESSAGE_SIZE = 2048,
  DAPI2_EVENT_TEXT_SIZE = 8192
};
/* A version number not set by Dapi2_Version(). */
enum { DAPI2_VERSION_UNSET = -1024 };
/* Longest wait for the engine's time-out reply. */
enum { DAPI2_TIMEOUT_WAIT_MS = 2000 };
/* The time-out reply before one came. */
enum { DAPI2_NO_TIMEOUT_REPLY = -2 };

/* The result words of the test-result notification; 9 to 11 are empty. */
static const char* const kResultWords[12] = {"PASS",
                                             "SETUPERROR",
                                             "FAIL",
                                             "BUSY",
                                             "PRIVILEGEERROR",
                                             "NOTAPPLICABLE",
                                             "BADPARAMS",
                                             "NOMEDIA",
                                             "DISCONTINUED",
                                             "",
                                             "",
                                             ""};

/* The text handed to the sysinfo callback. */
static const char kSysInfoText[] = "Parameters Can Go Here Eventually";
/* The copyright line of the banners. */
static const char kCopyright[] =
    "Copyright (c) the Zorv2000 diagnostics authors. All rights reserved.\n";

/* The module's process-wide state. */
static struct {
  /* unguarded: main thread only; set by Dapi2_Main() */
  Dapi2RegistrationStructure* pReg;
  /* unguarded: main thread only; "ref=" */
  char szRef[DAPI2_REF_SIZE];
  /* unguarded: main thread only; "deffile=" or sysinfo's argv[5] */
  char szDefFile[DAPI2_DEFFILE_SIZE];
  /* unguarded: main thread only; "sfifo=" */
  char szServerFifo[DAPI2_SFIFO_SIZE];
  /* unguarded: main thread only; "process=", in every event */
  char szProcessId[DAPI2_PROCESS_SIZE];
  /* unguarded: main thread only; "errlimit=" */
  int32_t errorLimit;
  /* unguarded: set before Dapi2_Main() on the main thread */
  int32_t versionMajor, versionMinor, versionRevision;
  /* unguarded: main thread only */
  int32_t mode;
  /* unguarded: main thread only; time of day of the last timed progress */
  uint32_t lastProgressTime;
  /* unguarded: main thread only; -1 before the first */
  int32_t lastPercent;
  /* unguarded: main thread only; only rises */
  int32_t stopFlag;
  /* unguarded: main thread only; -2 while no reply came */
  int32_t timeOutReply;
} dapi2Main = {NULL,
               "",
               "",
               "",
               "",
               5,
               DAPI2_VERSION_UNSET,
               DAPI2_VERSION_UNSET,
               DAPI2_VERSION_UNSET,
               DAPI2_MODE_NONE,
               0,
               -1,
               0,
               DAPI2_NO_TIMEOUT_REPLY};

/* ---- Registration ----------------------------------------------------------
 */

/* Dapi2_CreateRegistrationStructure(): zero-filled, size word set. */
Dapi2RegistrationStructure* Dapi2_CreateRegistrationStructure(void) {
  Dapi2RegistrationStructure* pReg = (Dapi2RegistrationStructure*)calloc(
      1, sizeof(Dapi2RegistrationStructure));
  if (!pReg) return NULL;
  pReg->size = sizeof(Dapi2RegistrationStructure);
  return pReg;
}

/* Dapi2_FreeRegistrationStructure(): 28 for null. */
int Dapi2_FreeRegistrationStructure(Dapi2RegistrationStructure* reg) {
  if (!reg) return DAPI2_NO_REGISTRATION;
  free(reg);
  return DAPI2_OK;
}

/* Dapi2_AddRegistrationStructureCallback(): slot 1 to 12 only. */
int Dapi2_AddRegistrationStructureCallback(Dapi2RegistrationStructure* reg,
                                           int32_t slot,
                                           Dapi2Callback function) {
  if (!reg || reg->size < sizeof(Dapi2RegistrationStructure) || slot < 1 ||
      slot > DAPI2_CALLBACK_SLOTS) {
    return DAPI2_NO_REGISTRATION;
  }
  reg->slot[slot - 1] = function;
  return DAPI2_OK;
}

/* Dapi2_Version(): kept for the start-up notification. */
void Dapi2_Version(int32_t major, int32_t minor, int32_t revision) {
  dapi2Main.versionMajor = major;
  dapi2Main.versionMinor = minor;
  dapi2Main.versionRevision = revision;
}

/* Dapi2_I_IsValidModuleVersion(): false only for -1024.-1024.-1024. */
int Dapi2_I_IsValidModuleVersion(const char* text) {
  if (!text) return 1;
  long major = strtol(text, NULL, 10);
  const char* pFirst = strchr(text, '.');
  const char* pLast = strrchr(text, '.');
  long minor = pFirst ? strtol(pFirst + 1, NULL, 10) : 0;
  long revision = pLast ? strtol(pLast + 1, NULL, 10) : 0;
  // Deliberate: only the "never set" triple is refused; any other numbers,
  // negative ones included, pass, because modules announce what they like.
  return !(major == DAPI2_VERSION_UNSET && minor == DAPI2_VERSION_UNSET &&
           revision == DAPI2_VERSION_UNSET);
}

/* Dapi2_GetErrorLimit(): "errlimit=", 5 by default. */
int32_t Dapi2_GetErrorLimit(void) { return dapi2Main.errorLimit; }

/* ---- The command line ------------------------------------------------------
 */

/* valueAfter(): the text after `key` when `arg` starts with it, else null. */
static const char* valueAfter(const char* arg, const char* key) {
  size_t nKey = strlen(key);
  return strncmp(arg, key, nKey) == 0 ? arg + nKey : NULL;
}

/* copyBounded(): copies `text` into `buffer` of `size` bytes, cut to fit. */
static void copyBounded(char* buffer, uint32_t size, const char* text) {
  if (!buffer || size == 0) return;
  snprintf(buffer, size, "%s", text);
}

/* Dapi2_ParseCommandLine(): whole words first, then the keys. */
int Dapi2_ParseCommandLine(int argc, char** argv, int32_t* mode, char* ref,
                           uint32_t refSize, char* defFile,
                           uint32_t defFileSize, int32_t* device, int32_t* test,
                           float* percent, int32_t* errorLimit) {
  for (int i = 0; argv && i < argc; i++) {
    const char* pArg = argv[i];
    const char* pValue;
    if (!pArg) continue;
    if (strcmp(pArg, "validate") == 0) {
      if (mode) *mode = DAPI2_MODE_VALIDATE;
    } else if (strcmp(pArg, "enumerate") == 0) {
      if (mode) *mode = DAPI2_MODE_ENUMERATE;
    } else if (strcmp(pArg, "run") == 0) {
      if (mode) *mode = DAPI2_MODE_RUN;
    } else if (strcmp(pArg, "sysinfo") == 0) {
      if (mode) *mode = DAPI2_MODE_SYSINFO;
    } else if ((pValue = valueAfter(pArg, "ref=")) != NULL) {
      copyBounded(ref, refSize, pValue);
    } else if ((pValue = valueAfter(pArg, "deffile=")) != NULL) {
      copyBounded(defFile, defFileSize, pValue);
    } else if ((pValue = valueAfter(pArg, "device=")) != NULL) {
      if (device) *device = (int32_t)strtol(pValue, NULL, 10);
    } else if ((pValue = valueAfter(pArg, "test=")) != NULL) {
      if (test) *test = (int32_t)strtol(pValue, NULL, 10);
    } else if ((pValue = valueAfter(pArg, "percent=")) != NULL) {
      float value = (float)strtod(pValue, NULL);
      // Deliberate: out-of-range percentages mean "all of it" rather than
      // an error, since the engine passes what the user typed.
      if (value <= 0.0f || value > 100.0f) value = 100.0f;
      if (percent) *percent = value;
    } else if ((pValue = valueAfter(pArg, "errlimit=")) != NULL) {
      int32_t value = (int32_t)strtol(pValue, NULL, 10);
      // Deliberate: a negative limit means "practically unlimited".
      if (value < 0) value = 10000;
      if (errorLimit) *errorLimit = value;
    } else if ((pValue = valueAfter(pArg, "process=")) != NULL) {
      copyBounded(dapi2Main.szProcessId, sizeof dapi2Main.szProcessId, pValue);
    } else if ((pValue = valueAfter(pArg, "sfifo=")) != NULL) {
      copyBounded(dapi2Main.szServerFifo, sizeof dapi2Main.szServerFifo,
                  pValue);
    }
  }
  return DAPI2_OK;
}

/* ---- Notifications ---------------------------------------------------------
 */

/* resultWord(): the word of a test result; codes outside the table are
 * "SETUPERROR". */
static const char* resultWord(int32_t code) {
  // Deliberate: anything above 11 (and, to stay in the table, below 0) is
  // reported as a set-up error; 9 to 11 go out as empty words.
  if (code < 0 || code > 11) return "SETUPERROR";
  return kResultWords[code];
}

/* Dapi2_SendNotification(): one DE_NOTIFY (or start-up) message. */
int Dapi2_SendNotification(int32_t kind, int32_t value) {
  char szData[DAPI2_NOTIFY_MESSAGE_SIZE];
  const char* pType = "DE_NOTIFY";
  switch (kind) {
    case DAPI2_NOTIFY_STARTUP:
      snprintf(szData, sizeof szData,
               "<DATA><STARTUP>%s</STARTUP><VERSION>%d.%d.%d</VERSION></DATA>",
               dapi2Main.szRef, (int)dapi2Main.versionMajor,
               (int)dapi2Main.versionMinor, (int)dapi2Main.versionRevision);
      // Deliberate: the start-up message's type is the reference text; the
      // engine finds the module it started by it.
      pType = dapi2Main.szRef;
      break;
    case DAPI2_NOTIFY_SHUTDOWN:
      snprintf(szData, sizeof szData, "<DATA>SHUTDOWN</DATA>");
      break;
    case DAPI2_NOTIFY_TESTRESULT:
      snprintf(szData, sizeof szData,
               "<DATA><TESTRESULT>%s</TESTRESULT><TESTPROCESSID>%s"
               "</TESTPROCESSID></DATA>",
               resultWord(value), dapi2Main.szProcessId);
      break;
    default:
      return DAPI2_BAD_ARGUMENT;
  }
  char szHeader[DAPI2_NOTIFY_HEADER_SIZE];
  szHeader[0] = '\0';
  int rcHeader = dapi2MessageCalls.pfnCreateMessageHeader(
      szHeader, sizeof szHeader, "DIAGENGINE", NULL, pType, NULL);
  if (rcHeader != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_SendNotification: CreateMessageHeader %i\n", rcHeader);
    return DAPI2_HEADER_FAILED;
  }
  char szMessage[DAPI2_NOTIFY_MESSAGE_SIZE];
  if (ZorvCreateMessage(szMessage, sizeof szMessage, "MSG", szHeader, szData,
                        (const char*)NULL) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_SendNotification: CreateMessage failed\n");
    return DAPI2_MESSAGE_FAILED;
  }
  if (dapi2MessageCalls.pfnSendMessage(szMessage) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendNotification: error sending\n");
    return DAPI2_SEND_FAILED;
  }
  return DAPI2_OK;
}

/* ---- Communications --------------------------------------------------------
 */

/* clientClassFor(): the client class for the definitions file's szType. */
static const char* clientClassFor(const char* type) {
  if (strcasecmp(type, "DIAG") == 0) return "DIAGMODULE";
  if (strcasecmp(type, "RUNTIME") == 0) return "RUNTIMEDIAG";
  if (strcasecmp(type, "SYSINFO") == 0) return "SYSINFOMODULE";
  return "NORMAL";
}

/* Dapi2_StartCommunications(): connection and start-up notification. */
int Dapi2_StartCommunications(const char* ref) {
  if (ref && ref != dapi2Main.szRef) {
    copyBounded(dapi2Main.szRef, sizeof dapi2Main.szRef, ref);
  }
  if (dapi2Main.szServerFifo[0])
    ZorvSetServerFifoNameEx(dapi2Main.szServerFifo);
  ZorvInitPipes();
  ZorvPipeSignalHandle();
  ZorvInitReadWriteThread();
  char szType[64];
  char szName[DAPI2_REF_SIZE];
  ZorvGetPrivateProfileString("Module", "szType", "", szType, sizeof szType,
                              dapi2Main.szDefFile);
  ZorvGetPrivateProfileString("Module", "szModuleName", "", szName,
                              sizeof szName, dapi2Main.szDefFile);
  if (ZorvClientOpenConnectionEx(szName, clientClassFor(szType),
                                 dapi2Main.szDefFile, NULL) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_StartCommunications: Error Opening Connection\n");
    return DAPI2_SEND_FAILED;
  }
  if (Dapi2_SendNotification(DAPI2_NOTIFY_STARTUP, 0) != DAPI2_OK) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_StartCommunications: Error Sending Startup\n");
    return DAPI2_STARTUP_FAILED;
  }
  return DAPI2_OK;
}

/* Dapi2_StopCommunications(): shut-down notification and close. */
int Dapi2_StopCommunications(void) {
  Dapi2_KillDeviceList();
  ZorvFlushWriteFIFO(1500);
  Dapi2_SendNotification(DAPI2_NOTIFY_SHUTDOWN, 0);
  // The shut-down must leave before the FIFOs close: closing drops what is
  // still queued.
  ZorvFlushWriteFIFO(1500);
  ZorvClientCloseConnection();
  ZorvStopReadWriteThread();
  ZorvCleanupPipes();
  return DAPI2_OK;
}

/* ---- Modes ------------------------------------------------------------------
 */

/* processNameCut(): the module name (else argv[0]'s file name) up to its
 * first "." into `buffer`, upper-cased when asked. */
static void processNameCut(const char* argv0, int upper, char* buffer,
                           size_t size) {
  const char* pName = pidToProcName((int32_t)ZorvGetPid());
  if (!pName) {
    pName = argv0 ? argv0 : "";
    const char* pSlash = strrchr(pName, '/');
    if (pSlash) pName = pSlash + 1;
  }
  snprintf(buffer, size, "%s", pName);
  char* pDot = strchr(buffer, '.');
  if (pDot) *pDot = '\0';
  for (char* p = buffer; upper && *p; p++) {
    if (*p >= 'a' && *p <= 'z') *p = (char)(*p - 'a' + 'A');
  }
}

/* Dapi2_PerformEnumerate(): start-up, enumeration data, shut-down. */
int Dapi2_PerformEnumerate(const char* ref) {
  if (Dapi2_StartCommunications(ref) != DAPI2_OK) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_PerformEnumerate:Error in start comm\n");
    return DAPI2_NO_COMMUNICATIONS;
  }
  ZorvWait(1);
  if (dapi2Main.pReg && dapi2Main.pReg->slot[0]) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_PerformEnumerate: doenum\n");
    ((Dapi2EnumerateCallback)dapi2Main.pReg->slot[0])();
  }
  char szName[256];
  processNameCut(NULL, 1, szName, sizeof szName);
  printf("\nDAPI2 Diagnostic Module: %s\n", szName);
  printf("%s", kCopyright);
  fflush(stdout);
  Dapi2_SendEnumInfo();
  Dapi2_KillDeviceList();
  Dapi2_StopCommunications();
  return DAPI2_OK;
}

/* findDevice(): the device with `id` in the engine's list, or null. */
static Dapi2Device* findDevice(int32_t id, int sysinfo) {
  for (Dapi2Device* pDevice = Dapi2_GetFirstDevice(sysinfo); pDevice;
       pDevice = Dapi2_GetNextDevice()) {
    if ((int32_t)pDevice->id == id) return pDevice;
  }
  return NULL;
}

/* buildParamList(): the test's parameters from the command line, the
 * predefined ones and the definitions file. 1, or 0 on failure. */
static int buildParamList(Dapi2ParamList* list, int32_t test, int argc,
                          char** argv, int* percentOk) {
  for (int i = 0; i < argc; i++) {
    if (!AddParamToParamListFromTokenC_Str(list, argv[i])) return 0;
  }
  if (!ProcessPredefinedParameters(list, percentOk)) return 0;
  if (!GetParamIniInfo(dapi2Main.szDefFile, test, list)) return 0;
  return 1;
}

/* Dapi2_PerformRunDiag(): start-up, events, result, shut-down. */
int Dapi2_PerformRunDiag(const char* ref, int32_t device, int32_t test,
                         int argc, char** argv) {
  Dapi2ParamList* pList = (Dapi2ParamList*)malloc(sizeof(Dapi2ParamList));
  if (!pList) return DAPI2_PARAMETERS_FAILED;
  if (!Dapi2_ParamListConstruct(pList)) {
    free(pList);
    return DAPI2_PARAMETERS_FAILED;
  }
  int bPercentOk = 1;
  if (!buildParamList(pList, test, argc, argv, &bPercentOk) || !bPercentOk) {
    Dapi2_ParamListDestruct(pList);
    free(pList);
    return DAPI2_PARAMETERS_FAILED;
  }
  Dapi2_I_SetModuleParamList(pList);
  if (Dapi2_StartCommunications(ref) != DAPI2_OK) {
    Dapi2_I_SetModuleParamList(NULL);
    Dapi2_ParamListDestruct(pList);
    free(pList);
    return DAPI2_NO_COMMUNICATIONS;
  }
  int32_t result = DAPI2_RESULT_BADPARAMS;
  if (dapi2Main.pReg && dapi2Main.pReg->slot[2]) {
    Dapi2Device* pDevice = findDevice(device, 0);
    result = ((Dapi2TestCallback)dapi2Main.pReg->slot[2])(test, pDevice);
  }
  Dapi2_SendNotification(DAPI2_NOTIFY_TESTRESULT, result);
  Dapi2_StopCommunications();
  Dapi2_I_SetModuleParamList(NULL);
  Dapi2_ParamListDestruct(pList);
  free(pList);
  return DAPI2_OK;
}

/* decimalArgument(): the value of the last "key" argument, 0 when absent. */
static uint32_t decimalArgument(int argc, char** argv, const char* key) {
  uint32_t value = 0;
  for (int i = 0; i < argc; i++) {
    const char* pValue = argv[i] ? valueAfter(argv[i], key) : NULL;
    if (pValue) value = (uint32_t)strtoul(pValue, NULL, 10);
  }
  return value;
}

/* Dapi2_PerformParamValidate(): start-up, validation results, shut-down. */
int Dapi2_PerformParamValidate(const char* ref, int32_t test, int32_t device,
                               int argc, char** argv) {
  if (!dapi2Main.pReg || !dapi2Main.pReg->slot[1]) return DAPI2_UNKNOWN_MODE;
  Dapi2ParamList* pList = (Dapi2ParamList*)malloc(sizeof(Dapi2ParamList));
  if (!pList) return DAPI2_PARAMETERS_FAILED;
  if (!Dapi2_ParamListConstruct(pList)) {
    free(pList);
    return DAPI2_PARAMETERS_FAILED;
  }
  uint32_t senderPid = decimalArgument(argc, argv, "senderpid=");
  uint32_t transactionId = decimalArgument(argc, argv, "reid=");
  // Deliberate: an invalid percentage does not stop validation; its flag
  // is what the requester wants to see.
  int bPercentOk = 1;
  if (!buildParamList(pList, test, argc, argv, &bPercentOk)) {
    Dapi2_ParamListDestruct(pList);
    free(pList);
    return DAPI2_PARAMETERS_FAILED;
  }
  Dapi2_I_SetModuleParamList(pList);
  if (Dapi2_StartCommunications(ref) != DAPI2_OK) {
    Dapi2_I_SetModuleParamList(NULL);
    Dapi2_ParamListDestruct(pList);
    free(pList);
    return DAPI2_NO_COMMUNICATIONS;
  }
  Dapi2Device* pDevice = findDevice(device, 0);
  ((Dapi2TestCallback)dapi2Main.pReg->slot[1])(test, pDevice);
  int bSent = SendValidateParmsResults(senderPid, transactionId, pList);
  if (!bSent) {
    // Deliberate: a failed reply leaves communications open; the process
    // ends right after and the broker notices the closed FIFO.
    return DAPI2_PARAMETERS_FAILED;
  }
  Dapi2_StopCommunications();
  Dapi2_I_SetModuleParamList(NULL);
  Dapi2_ParamListDestruct(pList);
  free(pList);
  return DAPI2_OK;
}

/* Dapi2_PerformSysInfo(): start-up, system information, shut-down. */
int Dapi2_PerformSysInfo(int argc, char** argv) {
  const char* pArg2 = argc > 2 ? argv[2] : "";
  const char* pArg3 = argc > 3 ? argv[3] : "";
  const char* pLocator = argc > 4 ? argv[4] : "";
  const char* pArg6 = argc > 6 ? argv[6] : "";
  if (argc > 5)
    copyBounded(dapi2Main.szDefFile, sizeof dapi2Main.szDefFile, argv[5]);
  if (Dapi2_StartCommunications("SYSINFO") != DAPI2_OK) {
    return DAPI2_NO_COMMUNICATIONS;
  }
  Dapi2Device* pDevice = NULL;
  for (Dapi2Device* p = Dapi2_GetFirstDevice(1); p; p = Dapi2_GetNextDevice()) {
    if (p->hwLocator && strcmp(p->hwLocator, pLocator) == 0) {
      pDevice = p;
      break;
    }
  }
  if (dapi2Main.pReg && dapi2Main.pReg->slot[11]) {
    ((Dapi2SysInfoCallback)dapi2Main.pReg->slot[11])(pDevice, kSysInfoText);
  }
  Dapi2_SendSysInfo(pArg6, pArg2, pArg3, pLocator);
  Dapi2_KillDeviceList();
  Dapi2_StopCommunications();
  return DAPI2_OK;
}

/* Dapi2_Main(): the module's entry point. */
int Dapi2_Main(int argc, char** argv, Dapi2RegistrationStructure* reg) {
  if (argc == 1) {
    char szName[256];
    processNameCut(argv ? argv[0] : NULL, 0, szName, sizeof szName);
    fprintf(stderr, "%s %d.%d.%d\n", szName, (int)dapi2Main.versionMajor,
            (int)dapi2Main.versionMinor, (int)dapi2Main.versionRevision);
    return DAPI2_OK;
  }
  if (argc > 1 && argv && argv[argc - 1] && strstr(argv[argc - 1], "trace")) {
    ProcessTracingArgs(argc, argv);
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "\nDAPI2 Diagnostic Module %s\n", argv[0]);
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s", kCopyright);
    for (int i = 0; i < argc; i++) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:Param %i = %s\n", i, argv[i]);
    }
  }
  if (!reg) return DAPI2_NO_REGISTRATION;
  dapi2Main.pReg = reg;
  int32_t device = -1;
  int32_t test = -1;
  float percent = 100.0f;
  Dapi2_ParseCommandLine(argc, argv, &dapi2Main.mode, dapi2Main.szRef,
                         sizeof dapi2Main.szRef, dapi2Main.szDefFile,
                         sizeof dapi2Main.szDefFile, &device, &test, &percent,
                         &dapi2Main.errorLimit);
  Dapi2_I_SetPercentageToTest(percent);
  switch (dapi2Main.mode) {
    case DAPI2_MODE_VALIDATE:
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:ParamValidate\n");
      return Dapi2_PerformParamValidate(dapi2Main.szRef, test, device, argc,
                                        argv);
    case DAPI2_MODE_ENUMERATE:
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:Enumerate\n");
      return Dapi2_PerformEnumerate(dapi2Main.szRef);
    case DAPI2_MODE_RUN:
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:RunDiag\n");
      return Dapi2_PerformRunDiag(dapi2Main.szRef, device, test, argc, argv);
    case DAPI2_MODE_SYSINFO:
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:SysInfo\n");
      return Dapi2_PerformSysInfo(argc, argv);
    default:
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_main:Unknown mode\n");
      return DAPI2_UNKNOWN_MODE;
  }
}

/* ---- Events -----------------------------------------------------------------
 */

/* Dapi2_I_SendEvent(): a DE_EVENT message around the DATA text. */
int Dapi2_I_SendEvent(const char* dataText) {
  char* pMessage = (char*)malloc(DAPI2_EVENT_MESSAGE_SIZE);
  if (!pMessage) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_I_SendEvent:outofmem\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  char szHeader[DAPI2_EVENT_HEADER_SIZE];
  szHeader[0] = '\0';
  if (dapi2MessageCalls.pfnCreateMessageHeader(szHeader, sizeof szHeader,
                                               "DIAGENGINE", NULL, "DE_EVENT",
                                               NULL) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_I_SendEvent:createheader failed\n");
    free(pMessage);
    return DAPI2_HEADER_FAILED;
  }
  if (ZorvCreateMessage(pMessage, DAPI2_EVENT_MESSAGE_SIZE, "MSG", szHeader,
                        dataText ? dataText : "", (const char*)NULL) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_I_SendEvent:createmessage failed\n");
    free(pMessage);
    return DAPI2_MESSAGE_FAILED;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_I_SendEvent: sending = %s\n",
                pMessage);
  int rc = DAPI2_OK;
  if (dapi2MessageCalls.pfnSendMessage(pMessage) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_I_SendEvent:sendmessage failed\n");
    rc = DAPI2_SEND_FAILED;
  }
  free(pMessage);
  return rc;
}

/* sendTextEvent(): opening part, the formatted user text, closing part, as
 * one event. 0, or 27 without the text buffer. */
static int sendTextEvent(const char* opening, const char* closing,
                         const char* format, va_list args) ZORV_PRINTF(3, 0);
static int sendTextEvent(const char* opening, const char* closing,
                         const char* format, va_list args) {
  char* pText = (char*)malloc(DAPI2_EVENT_TEXT_SIZE);
  if (!pText) return DAPI2_OUT_OF_MEMORY;
  int nUsed = snprintf(pText, DAPI2_EVENT_TEXT_SIZE, "%s", opening);
  if (nUsed < 0) nUsed = 0;
  size_t nRoom = DAPI2_EVENT_TEXT_SIZE - (size_t)nUsed;
  // The user text is cut so that the closing part always fits; an event
  // longer than a message is then refused by the message builder.
  size_t nClosing = strlen(closing);
  if (format && nRoom > nClosing + 1) {
    vsnprintf(pText + nUsed, nRoom - nClosing, format, args);
  }
  strncat(pText, closing, DAPI2_EVENT_TEXT_SIZE - strlen(pText) - 1);
  Dapi2_I_SendEvent(pText);
  free(pText);
  return DAPI2_OK;
}

/* progressOpening(): the opening part of a PROGRESS event. */
static void progressOpening(char* buffer, size_t size) {
  snprintf(buffer, size,
           "<DATA><EVENT><TYPE>PROGRESS</TYPE><TESTPROCESSID>%s"
           "</TESTPROCESSID><TEXT>",
           dapi2Main.szProcessId);
}

/* Dapi2_SetProgressInformation(): always sent. */
int Dapi2_SetProgressInformation(const char* format, ...) {
  char szOpening[128];
  progressOpening(szOpening, sizeof szOpening);
  va_list args;
  va_start(args, format);
  int rc = sendTextEvent(szOpening, "</TEXT></EVENT></DATA>", format, args);
  va_end(args);
  return rc;
}

/* Dapi2_SetProgressInformationTimed(): at most one per interval. */
int Dapi2_SetProgressInformationTimed(uint32_t intervalMs, const char* format,
                                      ...) {
  uint32_t now = ZorvGetTimeOfDay();
  // Deliberate: the stamp is a time of day, so after midnight UTC the
  // progress stays silent until the new time passes the old stamp plus the
  // interval; the engine copes with the gap.
  if ((uint64_t)dapi2Main.lastProgressTime + intervalMs >= now) return DAPI2_OK;
  dapi2Main.lastProgressTime = now;
  char szOpening[128];
  progressOpening(szOpening, sizeof szOpening);
  va_list args;
  va_start(args, format);
  int rc = sendTextEvent(szOpening, "</TEXT></EVENT></DATA>", format, args);
  va_end(args);
  return rc;
}

/* sendSimpleEvent(): an event without user text. */
static int sendSimpleEvent(const char* text) {
  Dapi2_I_SendEvent(text);
  return DAPI2_OK;
}

/* Dapi2_SetPercentDone(): only changes go out. */
int Dapi2_SetPercentDone(int32_t percent) {
  if (percent == dapi2Main.lastPercent) return DAPI2_OK;
  dapi2Main.lastPercent = percent;
  char szData[256];
  snprintf(szData, sizeof szData,
           "<DATA><EVENT><TYPE>PERCENTDONE</TYPE><TESTPROCESSID>%s"
           "</TESTPROCESSID><TEXT>%i</TEXT></EVENT></DATA>",
           dapi2Main.szProcessId, (int)percent);
  return sendSimpleEvent(szData);
}

/* codedEvent(): an INFO, WARN or ERROR event with its code. */
static int codedEvent(const char* type, int32_t code, const char* format,
                      va_list args) ZORV_PRINTF(3, 0);
static int codedEvent(const char* type, int32_t code, const char* format,
                      va_list args) {
  char szOpening[128];
  char szClosing[96];
  snprintf(szOpening, sizeof szOpening,
           "<DATA><EVENT><TYPE>%s</TYPE><TESTPROCESSID>%s</TESTPROCESSID>"
           "<TEXT>",
           type, dapi2Main.szProcessId);
  snprintf(szClosing, sizeof szClosing,
           "</TEXT><EVENTCODE>%i</EVENTCODE></EVENT></DATA>", (int)code);
  return sendTextEvent(szOpening, szClosing, format, args);
}

/* Dapi2_Informative(): always event code -1. */
int Dapi2_Informative(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = codedEvent("INFO", -1, format, args);
  va_end(args);
  return rc;
}

/* Dapi2_Warning(): a WARN event. */
int Dapi2_Warning(int32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = codedEvent("WARN", code, format, args);
  va_end(args);
  return rc;
}

/* Dapi2_Error(): an ERROR event. */
int Dapi2_Error(int32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int rc = codedEvent("ERROR", code, format, args);
  va_end(args);
  return rc;
}

/* Dapi2_SetTimeOut(): asks the engine to set the test's time-out. */
int Dapi2_SetTimeOut(int32_t value) {
  char szData[256];
  snprintf(szData, sizeof szData,
           "<DATA><EVENT><TYPE>SET_TIMEOUT</TYPE><TESTPROCESSID>%s"
           "</TESTPROCESSID><TIMEOUT_VALUE>%i</TIMEOUT_VALUE></EVENT></DATA>",
           dapi2Main.szProcessId, (int)value);
  return sendSimpleEvent(szData);
}

/* Dapi2_ClearTimeOutCount(): asks the engine to clear the time-out. */
int Dapi2_ClearTimeOutCount(void) {
  char szData[256];
  snprintf(szData, sizeof szData,
           "<DATA><EVENT><TYPE>CLEAR_TIMEOUT</TYPE><TESTPROCESSID>%s"
           "</TESTPROCESSID></EVENT></DATA>",
           dapi2Main.szProcessId);
  return sendSimpleEvent(szData);
}

/* Dapi2_GetTimeOut(): asks and waits up to 2000 ms. */
int Dapi2_GetTimeOut(int32_t* out) {
  if (!out) return DAPI2_SEND_FAILED;
  *out = 0;
  char szData[256];
  snprintf(szData, sizeof szData,
           "<DATA><EVENT><TYPE>GET_TIMEOUT</TYPE><TESTPROCESSID>%s"
           "</TESTPROCESSID></EVENT></DATA>",
           dapi2Main.szProcessId);
  sendSimpleEvent(szData);
  uint32_t start = ZorvMilliSeconds();
  while (dapi2Main.timeOutReply == DAPI2_NO_TIMEOUT_REPLY) {
    if (ZorvMilliSeconds() - start >= DAPI2_TIMEOUT_WAIT_MS) {
      return DAPI2_SEND_FAILED;
    }
    Dapi2_CheckForIncomingMessages();
    // Keeps the loop from spinning when no connection is there to wait on.
    if (dapi2Main.timeOutReply == DAPI2_NO_TIMEOUT_REPLY) ZorvWait(1);
  }
  *out = dapi2Main.timeOutReply;
  dapi2Main.timeOutReply = DAPI2_NO_TIMEOUT_REPLY;
  return DAPI2_OK;
}

/* Dapi2_CheckForIncomingMessages(): obeys the engine's commands. */
void Dapi2_CheckForIncomingMessages(void) {
  // Deliberate: the first 50 ms after midnight UTC are skipped; commands
  // wait in the table until the next call.
  if (ZorvGetTimeOfDay() <= 50) return;
  for (;;) {
    if (ZorvClientWaitForMessages(1, 0) <= 0) break;
    ZorvClientMessage* pMessage = ZorvClientGetNextMessage(NULL);
    if (!pMessage) break;
    const char* pData = pMessage->pData ? pMessage->pData : "";
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_CheckForIncomingMessages:Received message %p (data "
                  "%p = %s)\n",
                  (void*)pMessage, (const void*)pMessage->pData, pData);
    char szType[100];
    if (ZorvXmlGetField(pData, "MSG/HDR/TYPE", 0, szType, sizeof szType) == 0 &&
        strcmp(szType, "DAPI_COMMAND") == 0) {
      char szCommand[100];
      if (ZorvXmlGetField(pData, "MSG/DATA/DAPICOMMANDTYPE", 0, szCommand,
                          sizeof szCommand) == 0) {
        if (strcmp(szCommand, "STOPTESTING") == 0) {
          dapi2Main.stopFlag = 1;
        } else if (strcmp(szCommand, "SENDINGTIMEOUT") == 0) {
          char szValue[32];
          if (ZorvXmlGetField(pData, "MSG/DATA/TIMEOUT_VALUE", 0, szValue,
                              sizeof szValue) == 0) {
            dapi2Main.timeOutReply = (int32_t)strtol(szValue, NULL, 10);
          }
        }
      }
    }
    ZorvClientFreeMessage(pMessage);
  }
}

/* Dapi2_CheckForStop(): the stop flag after draining the commands. */
int Dapi2_CheckForStop(void) {
  Dapi2_CheckForIncomingMessages();
  if (dapi2Main.stopFlag) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_CheckForStop:Returning true\n");
  }
  return dapi2Main.stopFlag;
}

/* ---- Language pass-throughs -------------------------------------------------
 */

/* Dapi2_NlsAddVariableToTag(): ZorvNlsAddVariableToTag(). */
int Dapi2_NlsAddVariableToTag(char* buffer, uint32_t size, const char* name,
                              const char* value) {
  return ZorvNlsAddVariableToTag(buffer, size, name, value);
}

/* Dapi2_NlsGetStringWithId(): ZorvGetNlsStringWithId(). */
char* Dapi2_NlsGetStringWithId(const char* id, char* buffer, int32_t size) {
  return ZorvGetNlsStringWithId(id, buffer, size);
}

/* Dapi2_NlsGetStringWithIdEx(): ZorvGetNlsStringWithIdEx(). */
char* Dapi2_NlsGetStringWithIdEx(const char* module, const char* id,
                                 const char* lang, char* buffer, int32_t size) {
  return ZorvGetNlsStringWithIdEx(module, id, lang, buffer, size);
}

/* Dapi2_NlsGetStringWithXmlTag(): a two-letter language only. */
char* Dapi2_NlsGetStringWithXmlTag(const char* handle, const char* language,
                                   char* buffer, int32_t size) {
  if (!buffer || size <= 0) return NULL;
  buffer[0] = '\0';
  if (!handle || !language || strlen(language) != 2) return buffer;
  CGenStr result;
  if (!CGenStrInit(&result)) return buffer;
  char szLang[3];
  if (ZorvGetNlsStringWithXmlTag(handle, language, szLang, &result) == 1 &&
      CGenStrSize(&result) < (uint32_t)size) {
    memcpy(buffer, CGenStrC_Str(&result), CGenStrSize(&result) + 1);
  }
  CGenStrDelete(&result);
  return buffer;
}
