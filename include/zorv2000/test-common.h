/*
 * test-common.h: small shared pieces of the module side: log-item severities
 * and records, the reaction to a device that cannot be opened, the module's
 * name, language tags, and the device list kept by the diagnostic engine.
 * Process-wide buffers, unguarded: call from the module's main thread. C.
 */
#ifndef ZORV2000_TEST_COMMON_H
#define ZORV2000_TEST_COMMON_H

#include <stdint.h>

#include "zorv2000/dapi2.h"
#include "zorv2000/genlist.h"
#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Severities of test log items. */
enum ZorvSeverity {
  ZORV_SEVERITY_INFO = 0,
  ZORV_SEVERITY_WARN = 1,
  ZORV_SEVERITY_ERROR = 2
};

/* SeverityCodeToStr(): "INFO", "WARN", "ERROR", else "INVALID SEVERITY
 * TYPE". SeverityStrToCode(): the exact word's code, else -1. */
ZORV_API const char* SeverityCodeToStr(int32_t code);
ZORV_API int32_t SeverityStrToCode(const char* word);

/* A plain test log item. */
typedef struct CZORVTestLogItem {
  int32_t severity;  /* 0 when constructed */
  int32_t timeStamp; /* 0 when constructed */
  int32_t eventCode; /* -1 when constructed */
  char* message;     /* owned; "" when constructed */
} CZORVTestLogItem;

/* CZORVTestLogItemConstruct(): 1, or 0 for null or out of memory. */
ZORV_API int CZORVTestLogItemConstruct(CZORVTestLogItem* item);
ZORV_API void CZORVTestLogItemDestruct(CZORVTestLogItem* item);
/* CZORVTestLogItemSetMessage(): a copy replaces the message; 1, or 0 for a
 * null argument or out of memory (the old message stays). */
ZORV_API int CZORVTestLogItemSetMessage(CZORVTestLogItem* item,
                                        const char* message);

/* CheckDeviceHandle(): 1 when `handle` is not -1. Otherwise a WARN event by
 * errno: EBUSY code 150 "szWarnDeviceBusy" result 3; EACCES or EPERM 151
 * "szWarnPrivilege" result 4; else 152 "szWarnGeneric" result 1; *result
 * (when not null) gets the result; returns 0. */
ZORV_API int CheckDeviceHandle(int32_t handle, int32_t* result);

/* pidToProcName(): the module name of process `pid` from its command line:
 * "/opt/x/cdrom.linux" gives "cdrom.vtq"; null without ".linux". The text
 * lives in a process-wide buffer. */
ZORV_API const char* pidToProcName(int32_t pid);

/* Language tags "<NLS mod=%s id=%s />" for this module (or `module`). The
 * Var forms fill the "%s" markers of `variables` with the further texts
 * (each cut at 64 bytes) and put the result before "/>":
 * "<NLS mod=m id=t a=x />". Process-wide buffers. */
ZORV_API const char* Dapi2_NlsTagToToken(const char* tag);
ZORV_API const char* Dapi2_NlsTagToTokenMod(const char* module,
                                            const char* tag);
ZORV_API const char* Dapi2_NlsTagToTokenVar(const char* tag,
                                            const char* variables, ...);
ZORV_API const char* Dapi2_NlsTagToTokenVarMod(const char* module,
                                               const char* tag,
                                               const char* variables, ...);

/* Dapi2_GetFirstDevice(): the first device of the module's device list,
 * fetched from the diagnostic engine on the first call when the list is
 * empty ("LIST_SYSINFO_DEVICES" when `sysinfo` is set). Null at the end. */
ZORV_API Dapi2Device* Dapi2_GetFirstDevice(int sysinfo);
ZORV_API Dapi2Device* Dapi2_GetNextDevice(void);

/* Requests to the diagnostic engine. Dapi2_I_GetDeviceList(): 0, 2 out of
 * memory, 3 command not built, 4 no reply. Dapi2_I_GetAllDevicesList(): the
 * devices of all modules into `list` (same codes). Dapi2_I_GetXMLDeviceList():
 * the raw reply into `text` (1 bad argument, 3, 4, 0). Dapi2_I_GetSysInfo():
 * sends "SYSINFO:<DEVICELIST>...</DEVICELIST>" built from the device list
 * ("%s:%s" of hardware locator and name per device) and copies the reply's
 * COMPONENT and DEVICE into the two strings (same codes). */
ZORV_API int Dapi2_I_GetDeviceList(int sysinfo);
ZORV_API int Dapi2_I_GetAllDevicesList(CGenList* list);
ZORV_API int Dapi2_I_GetXMLDeviceList(CGenStr* text);
ZORV_API int Dapi2_I_GetSysInfo(CGenStr* component, CGenStr* device);

/* ZorvParseModuleDeviceList(): appends a device record for every DEVICE
 * element of `text`, in order (missing elements give ""). Returns the
 * number added. Running out of memory ends the process (status 1). */
ZORV_API int ZorvParseModuleDeviceList(CGenList* list, const char* text);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_TEST_COMMON_H */
