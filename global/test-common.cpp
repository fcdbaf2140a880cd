/*
 * test-common.cpp: severities and test log items, the reaction to a device
 * that cannot be opened, the module's name and language tags, and the
 * module's device list as the diagnostic engine keeps it (request and
 * parsing). Process-wide buffers, unguarded: module main thread only.
 */
#include "zorv2000/test-common.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "global/primitives_p.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/tracing.h"

/* Source path of the out-of-memory exit of the parser. */
static const char kSourcePath[] = "global/test-common";
/* Sizes of the process-wide buffers. */
enum {
  TC_CMDLINE_SIZE = 256, /* 255 bytes of /proc/<pid>/cmdline read */
  TC_NAME_SIZE = 256,
  TC_TAG_SIZE = 1024,
  TC_VARIABLE_SIZE = 64, /* each text of a Var form */
  TC_VARIABLE_COUNT = 16 /* "%" markers filled at most */
};
/* Time-out of the device-list requests. */
enum { TC_REQUEST_TIMEOUT_MS = 30000 };

/* Process-wide state of this unit. */
static struct {
  /* unguarded: main thread only; pidToProcName()'s result */
  char szProcName[TC_NAME_SIZE];
  /* unguarded: main thread only; results of the tag builders */
  char szTag[TC_TAG_SIZE];
  /* unguarded: main thread only; 1 once the engine's list was asked for */
  int bListFetched;
  /* unguarded: main thread only; position of the device walk */
  CGenListIter current;
} testCommon = {"", "", 0, NULL};

/* ---- Severities and log items
 * ------------------------------------------------
 */

/* The severity words by code. */
static const char* const kSeverityWords[3] = {"INFO", "WARN", "ERROR"};

/* SeverityCodeToStr(): the word, or "INVALID SEVERITY TYPE". */
const char* SeverityCodeToStr(int32_t code) {
  if (code < 0 || code > 2) return "INVALID SEVERITY TYPE";
  return kSeverityWords[code];
}

/* SeverityStrToCode(): exact comparison, -1 for other words. */
int32_t SeverityStrToCode(const char* word) {
  if (!word) return -1;
  for (int32_t i = 0; i < 3; i++) {
    if (strcmp(word, kSeverityWords[i]) == 0) return i;
  }
  return -1;
}

/* CZORVTestLogItemConstruct(): 0, 0, -1 and "". */
int CZORVTestLogItemConstruct(CZORVTestLogItem* item) {
  if (!item) return 0;
  item->severity = 0;
  item->timeStamp = 0;
  item->eventCode = -1;
  item->message = CGenStr_I_CopyText("");
  return item->message != NULL;
}

/* CZORVTestLogItemDestruct(): frees the message. */
void CZORVTestLogItemDestruct(CZORVTestLogItem* item) {
  if (!item) return;
  cGenAllocCalls.pfnFree(item->message);
  item->message = NULL;
}

/* CZORVTestLogItemSetMessage(): a copy replaces the message. */
int CZORVTestLogItemSetMessage(CZORVTestLogItem* item, const char* message) {
  if (!item || !message) return 0;
  char* pCopy = CGenStr_I_CopyText(message);
  if (!pCopy) return 0;
  cGenAllocCalls.pfnFree(item->message);
  item->message = pCopy;
  return 1;
}

/* ---- Names and tags ---------------------------------------------------------
 */

/* pidToProcName(): "<name>.vtq" from the ".linux" program of `pid`. */
const char* pidToProcName(int32_t pid) {
  char szPath[64];
  snprintf(szPath, sizeof szPath, "/proc/%d/cmdline", (int)pid);
  char szLine[TC_CMDLINE_SIZE];
  int fd = open(szPath, O_RDONLY);
  if (fd < 0) return NULL;
  ssize_t nRead = read(fd, szLine, sizeof szLine - 1);
  close(fd);
  if (nRead <= 0) return NULL;
  szLine[nRead] = '\0';
  char* pLinux = strstr(szLine, ".linux");
  if (!pLinux) return NULL;
  char* pStart = pLinux;
  while (pStart > szLine && pStart[-1] != '/') pStart--;
  size_t nName = (size_t)(pLinux - pStart) + 1; /* the "." kept */
  if (nName + 4 > sizeof testCommon.szProcName) return NULL;
  memcpy(testCommon.szProcName, pStart, nName);
  memcpy(testCommon.szProcName + nName, "vtq", 4);
  return testCommon.szProcName;
}

/* moduleName(): this module's name, "" when it has none. */
static const char* moduleName(void) {
  const char* pName = pidToProcName((int32_t)getpid());
  return pName ? pName : "";
}

/* fillVariables(): `variables` with each "%s" (any "%" conversion) replaced
 * by the next text of `args`, each cut at 64 bytes, into `out`. */
static void fillVariables(char* out, size_t size, const char* variables,
                          va_list args) {
  size_t nOut = 0;
  int nFilled = 0;
  out[0] = '\0';
  for (const char* p = variables; p && *p && nOut + 1 < size; p++) {
    if (*p == '%' && p[1] == '%') {
      out[nOut++] = '%';
      p++;
    } else if (*p == '%' && p[1] && nFilled < TC_VARIABLE_COUNT) {
      const char* pText = va_arg(args, const char*);
      char szValue[TC_VARIABLE_SIZE + 1];
      snprintf(szValue, sizeof szValue, "%.*s", TC_VARIABLE_SIZE,
               pText ? pText : "");
      for (const char* v = szValue; *v && nOut + 1 < size; v++)
        out[nOut++] = *v;
      nFilled++;
      p++;
    } else {
      out[nOut++] = *p;
    }
  }
  out[nOut] = '\0';
}

/* buildTag(): the tag for module and id, with filled variables. */
static const char* buildTag(const char* module, const char* tag,
                            const char* filled) {
  if (filled && filled[0]) {
    snprintf(testCommon.szTag, sizeof testCommon.szTag,
             "<NLS mod=%s id=%s %s />", module ? module : "", tag ? tag : "",
             filled);
  } else {
    snprintf(testCommon.szTag, sizeof testCommon.szTag, "<NLS mod=%s id=%s />",
             module ? module : "", tag ? tag : "");
  }
  return testCommon.szTag;
}

/* Dapi2_NlsTagToToken(): this module's tag. */
const char* Dapi2_NlsTagToToken(const char* tag) {
  return buildTag(moduleName(), tag, NULL);
}

/* Dapi2_NlsTagToTokenMod(): another module's tag. */
const char* Dapi2_NlsTagToTokenMod(const char* module, const char* tag) {
  return buildTag(module, tag, NULL);
}

/* Dapi2_NlsTagToTokenVar(): this module's tag with variables. */
const char* Dapi2_NlsTagToTokenVar(const char* tag, const char* variables,
                                   ...) {
  char szFilled[TC_TAG_SIZE / 2];
  va_list args;
  va_start(args, variables);
  fillVariables(szFilled, sizeof szFilled, variables, args);
  va_end(args);
  return buildTag(moduleName(), tag, szFilled);
}

/* Dapi2_NlsTagToTokenVarMod(): another module's tag with variables. */
const char* Dapi2_NlsTagToTokenVarMod(const char* module, const char* tag,
                                      const char* variables, ...) {
  char szFilled[TC_TAG_SIZE / 2];
  va_list args;
  va_start(args, variables);
  fillVariables(szFilled, sizeof szFilled, variables, args);
  va_end(args);
  return buildTag(module, tag, szFilled);
}

/* CheckDeviceHandle(): warns and sets the result for a failed open. */
int CheckDeviceHandle(int32_t handle, int32_t* result) {
  if (handle != -1) return 1;
  int code = errno;
  int32_t eventCode = 152;
  const char* pTag = "szWarnGeneric";
  int32_t testResult = 1;
  if (code == EBUSY) {
    eventCode = 150;
    pTag = "szWarnDeviceBusy";
    testResult = 3;
  } else if (code == EACCES || code == EPERM) {
    eventCode = 151;
    pTag = "szWarnPrivilege";
    testResult = 4;
  }
  Dapi2_Warning(eventCode, "%s", Dapi2_NlsTagToToken(pTag));
  if (result) *result = testResult;
  return 0;
}

/* ---- The engine's device list -----------------------------------------------
 */

/* elementSpan(): the content of the first <name>...</name> in [from, end):
 * *start and *stop bound it. 1 when found. */
static int elementSpan(const char* from, const char* end, const char* name,
                       const char** start, const char** stop) {
  char szOpen[48];
  char szClose[48];
  snprintf(szOpen, sizeof szOpen, "<%s>", name);
  snprintf(szClose, sizeof szClose, "</%s>", name);
  size_t nOpen = strlen(szOpen);
  size_t nClose = strlen(szClose);
  for (const char* p = from; p + nOpen <= end; p++) {
    if (memcmp(p, szOpen, nOpen) != 0) continue;
    const char* pContent = p + nOpen;
    for (const char* q = pContent; q + nClose <= end; q++) {
      if (memcmp(q, szClose, nClose) == 0) {
        *start = pContent;
        *stop = q;
        return 1;
      }
    }
    return 0;
  }
  return 0;
}

/* copySpan(): a heap copy of [start, stop); the process ends when memory
 * runs out. */
static char* copySpan(const char* start, const char* stop) {
  size_t n = (size_t)(stop - start);
  char* pCopy = (char*)cGenAllocCalls.pfnMalloc(n + 1);
  // Deliberate: a module without its device list cannot go on.
  if (!pCopy) Zorv_I_VerifyFailed(__LINE__, kSourcePath);
  memcpy(pCopy, start, n);
  pCopy[n] = '\0';
  return pCopy;
}

/* elementText(): a copy of the element's content, "" when missing. */
static char* elementText(const char* from, const char* end, const char* name) {
  const char* pStart;
  const char* pStop;
  if (!elementSpan(from, end, name, &pStart, &pStop)) {
    return copySpan(from, from);
  }
  return copySpan(pStart, pStop);
}

/* hasElement(): the element occurs in [from, end). */
static int hasElement(const char* from, const char* end, const char* name) {
  const char* pStart;
  const char* pStop;
  return elementSpan(from, end, name, &pStart, &pStop);
}

/* parseFru(): the FRU record of one device, or null without FRU elements. */
static Dapi2FruInfo* parseFru(const char* from, const char* end) {
  static const char* const kFruNames[6] = {
      "FRU_MANUFACTURER", "FRU_MODELNUMBER",  "FRU_SERIALNUMBER",
      "FRU_FIRMWAREREV",  "FRU_FIRMWAREDATE", "FRU_PHYSADDRESS"};
  int bAny = 0;
  for (int i = 0; i < 6; i++) bAny |= hasElement(from, end, kFruNames[i]);
  if (!bAny) return NULL;
  char* pText[6];
  for (int i = 0; i < 6; i++) pText[i] = elementText(from, end, kFruNames[i]);
  Dapi2FruInfo* pFru = Dapi2_I_CreateFruInfo(pText[0], pText[1], pText[2],
                                             pText[3], pText[4], pText[5]);
  for (int i = 0; i < 6; i++) cGenAllocCalls.pfnFree(pText[i]);
  if (!pFru) Zorv_I_VerifyFailed(__LINE__, kSourcePath);
  const char* p = from;
  const char* pStart;
  const char* pStop;
  while (elementSpan(p, end, "FRU_ADDINFO_FIELD", &pStart, &pStop)) {
    const char* pNext = pStop;
    char* pField = copySpan(pStart, pStop);
    char* pDesc = elementText(pNext, end, "FRU_ADDINFO_DESC");
    char* pValue = elementText(pNext, end, "FRU_ADDINFO_VALUE");
    int rc = Dapi2_AddFruAdditionalInfoToFru(pFru, pField, pDesc, pValue);
    cGenAllocCalls.pfnFree(pField);
    cGenAllocCalls.pfnFree(pDesc);
    cGenAllocCalls.pfnFree(pValue);
    if (rc == DAPI2_OUT_OF_MEMORY) Zorv_I_VerifyFailed(__LINE__, kSourcePath);
    p = pNext;
  }
  return pFru;
}

/* ZorvParseModuleDeviceList(): one record per DEVICE element. */
int ZorvParseModuleDeviceList(CGenList* list, const char* text) {
  ZORV_TRACE_AT(ZORV_TRC_DE, "ZorvDiagGetDeviceList:parsing\n");
  int nAdded = 0;
  if (!list || !text) {
    ZORV_TRACE_AT(ZORV_TRC_DE, "ZorvDiagGetDeviceList:done parsing\n");
    return 0;
  }
  const char* pEnd = text + strlen(text);
  const char* p = text;
  const char* pStart;
  const char* pStop;
  while (elementSpan(p, pEnd, "DEVICE", &pStart, &pStop)) {
    Dapi2Device* pDevice =
        (Dapi2Device*)cGenAllocCalls.pfnMalloc(sizeof(Dapi2Device));
    if (!pDevice) Zorv_I_VerifyFailed(__LINE__, kSourcePath);
    memset(pDevice, 0, sizeof *pDevice);
    char* pId = elementText(pStart, pStop, "DID");
    pDevice->id = (uint32_t)strtoul(pId, NULL, 10);
    cGenAllocCalls.pfnFree(pId);
    pDevice->name = elementText(pStart, pStop, "NAME");
    pDevice->description = elementText(pStart, pStop, "DESCRIPTION");
    pDevice->osLocator = elementText(pStart, pStop, "OSLOCATOR");
    pDevice->hwLocator = elementText(pStart, pStop, "HWLOCATOR");
    pDevice->devType = elementText(pStart, pStop, "DEVTYPE");
    pDevice->busType = elementText(pStart, pStop, "BUSTYPE");
    pDevice->testsSupported = elementText(pStart, pStop, "TESTS_SUPPORTED");
    pDevice->fruInfo = parseFru(pStart, pStop);
    if (!CGenListPushBack(list, pDevice)) {
      Zorv_I_VerifyFailed(__LINE__, kSourcePath);
    }
    nAdded++;
    ZORV_TRACE_AT(ZORV_TRC_DE,
                  "ZorvDiagGetDeviceList-Add: %i=%s / %i / %s / %s / %s / %s\n",
                  (int)pDevice->id, pDevice->name, nAdded, pDevice->hwLocator,
                  pDevice->osLocator, pDevice->devType, pDevice->busType);
    ZORV_TRACE_AT(ZORV_TRC_DE, "ZorvDiagGetDeviceList:Added: %d\n",
                  (int)pDevice->id);
    p = pStop + strlen("</DEVICE>");
  }
  ZORV_TRACE_AT(ZORV_TRC_DE, "ZorvDiagGetDeviceList:done parsing\n");
  return nAdded;
}

/* requestEngine(): sends `command` to the engine as a transaction and puts
 * the reply into `reply`. 0, 2 out of memory, 3 command, 4 no reply. */
static int requestEngine(const char* command, CGenStr* reply) {
  CGenStr message;
  if (!CGenStrInit(&message)) return 2;
  if (ZorvClientCreateDiagnosticEngineCommandStr(command, NULL, &message) !=
      0) {
    CGenStrDelete(&message);
    return 3;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Requesting devices command %s\n", command);
  int rc = ZorvClientSendTransactionStr(CGenStrC_Str(&message), reply,
                                        TC_REQUEST_TIMEOUT_MS, 0);
  CGenStrDelete(&message);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "RequestDeList:No response.\n");
    return 4;
  }
  return 0;
}

/* replyData(): the reply's DATA into `data`; 1 when present. */
static int replyData(const CGenStr* reply, CGenStr* data) {
  return ZorvXmlGetFieldStr(CGenStrC_Str(reply), "MSG/DATA", 0, data) == 0;
}

/* Dapi2_I_GetDeviceList(): the module's devices from the engine. */
int Dapi2_I_GetDeviceList(int sysinfo) {
  char szCommand[TC_NAME_SIZE + 32];
  snprintf(szCommand, sizeof szCommand,
           sysinfo ? "LIST_SYSINFO_DEVICES:%s" : "LIST_DEVICES:%s",
           moduleName());
  CGenStr reply;
  if (!CGenStrInit(&reply)) return 2;
  int rc = requestEngine(szCommand, &reply);
  if (rc == 0) {
    CGenStr data;
    if (!CGenStrInit(&data)) {
      CGenStrDelete(&reply);
      return 2;
    }
    CGenList* pList = Dapi2_I_DeviceList();
    if (replyData(&reply, &data)) {
      ZorvParseModuleDeviceList(pList, CGenStrC_Str(&data));
    }
    CGenStrDelete(&data);
  }
  CGenStrDelete(&reply);
  return rc;
}

/* Dapi2_I_GetAllDevicesList(): every module's devices into `list`. */
int Dapi2_I_GetAllDevicesList(CGenList* list) {
  if (!list) return 1;
  CGenStr reply;
  if (!CGenStrInit(&reply)) return 2;
  int rc = requestEngine("LIST_DEVICES", &reply);
  if (rc == 0) {
    CGenStr data;
    if (!CGenStrInit(&data)) {
      CGenStrDelete(&reply);
      return 2;
    }
    replyData(&reply, &data);
    printf("\n%s\n\n", CGenStrC_Str(&data));
    ZorvParseModuleDeviceList(list, CGenStrC_Str(&data));
    CGenStrDelete(&data);
  }
  CGenStrDelete(&reply);
  return rc;
}

/* Dapi2_I_GetXMLDeviceList(): the raw reply to "LIST_DEVICES". */
int Dapi2_I_GetXMLDeviceList(CGenStr* text) {
  if (!text || !CGenStrIsInit(text)) return 1;
  return requestEngine("LIST_DEVICES", text);
}

/* Dapi2_I_GetSysInfo(): the engine's system information of the devices. */
int Dapi2_I_GetSysInfo(CGenStr* component, CGenStr* device) {
  if (!component || !device) return 1;
  CGenStr command;
  if (!CGenStrInitFromCStr(&command, "SYSINFO:<DEVICELIST>")) return 2;
  for (Dapi2Device* p = Dapi2_GetFirstDevice(0); p; p = Dapi2_GetNextDevice()) {
    CGenStrCatf(&command, "<DEVICE>%s:%s</DEVICE>",
                p->hwLocator ? p->hwLocator : "", p->name ? p->name : "");
  }
  if (!CGenStrCatChar(&command, "</DEVICELIST>")) {
    CGenStrDelete(&command);
    return 2;
  }
  CGenStr reply;
  if (!CGenStrInit(&reply)) {
    CGenStrDelete(&command);
    return 2;
  }
  int rc = requestEngine(CGenStrC_Str(&command), &reply);
  if (rc == 0) {
    ZorvXmlGetFieldStr(CGenStrC_Str(&reply), "MSG/DATA/COMPONENT", 0,
                       component);
    ZorvXmlGetFieldStr(CGenStrC_Str(&reply), "MSG/DATA/DEVICE", 0, device);
  }
  CGenStrDelete(&reply);
  CGenStrDelete(&command);
  return rc;
}

/* nextDevice(): the device at the walk position, moving past it. */
static Dapi2Device* nextDevice(const CGenList* list) {
  if (!testCommon.current || CGenListIterAtEnd(testCommon.current)) return NULL;
  (void)list;
  Dapi2Device* pDevice = (Dapi2Device*)CGenListIterGetData(testCommon.current);
  CGenListIterAdv(&testCommon.current);
  return pDevice;
}

/* Dapi2_GetFirstDevice(): fetches the list once, then walks it. */
Dapi2Device* Dapi2_GetFirstDevice(int sysinfo) {
  CGenList* pList = Dapi2_I_DeviceList();
  if (!testCommon.bListFetched && CGenListGetCount(pList) == 0) {
    testCommon.bListFetched = 1;
    Dapi2_I_GetDeviceList(sysinfo);
    pList = Dapi2_I_DeviceList();
  }
  if (CGenListGetCount(pList) == 0) {
    testCommon.current = NULL;
    return NULL;
  }
  CGenListIterInit(&testCommon.current, pList);
  return nextDevice(pList);
}

/* Dapi2_GetNextDevice(): continues the walk. */
Dapi2Device* Dapi2_GetNextDevice(void) { return nextDevice(NULL); }
