/*
 * dapi2.h: the diagnostic module interface, device and parameter records.
 *
 * A module's enumeration callback creates device records (Dapi2_CreateDevice*),
 * gives them FRU data, system information and supported tests, and adds them
 * to the module's device list; Dapi2_SendEnumInfo() then reports the whole
 * list to the diagnostic engine. In run and validate modes the module reads
 * its test parameters (Dapi2Parameter) from the module's parameter list.
 *
 * Status codes are the small integers of Dapi2Status. Every text of a record
 * is a heap copy owned by the record; a null text given to a creator or
 * setter is stored as "". Process-wide lists, unguarded: call these
 * functions from the module's main thread only. Plain C.
 */
#ifndef ZORV2000_DAPI2_H
#define ZORV2000_DAPI2_H

#include <stdint.h>

#include "zorv2000/genlist.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes of the module interface. Callers compare the numbers. */
enum Dapi2Status {
  DAPI2_OK = 0,
  DAPI2_BAD_ARGUMENT = 22,   /* null record, rejected keyword or value;
                              * also an unknown notification kind */
  DAPI2_STARTUP_FAILED = 23, /* start-up notification not sent */
  DAPI2_SEND_FAILED = 24,    /* no connection, or a send failed */
  DAPI2_MESSAGE_FAILED = 25, /* the message could not be built */
  DAPI2_HEADER_FAILED = 26,  /* the message header could not be built */
  DAPI2_OUT_OF_MEMORY = 27,
  DAPI2_NO_REGISTRATION = 28, /* no registration structure, bad argument */
  DAPI2_NO_COMMUNICATIONS = 29,
  DAPI2_UNKNOWN_MODE = 30,
  DAPI2_PARAMETERS_FAILED = 31
};

/* ---- Records --------------------------------------------------------- */

/* One entry of a device's system information; entries form a chain in the
 * order they were added. */
typedef struct Dapi2SysInfo {
  char* description;
  char* key;
  char* value;
  struct Dapi2SysInfo* next; /* null at the end */
} Dapi2SysInfo;

/* One additional FRU information entry. */
typedef struct Dapi2FruAdditionalInfo {
  char* field;
  char* description;
  char* value;
} Dapi2FruAdditionalInfo;

/* Size word of every FRU record: the record's size on 32-bit x86. */
#define DAPI2_FRU_RECORD_SIZE 36

/* Field-replaceable-unit data of a device. */
typedef struct Dapi2FruInfo {
  uint32_t size; /* DAPI2_FRU_RECORD_SIZE */
  char* manufacturer;
  char* modelNumber;
  char* serialNumber;
  char* firmwareRevision;
  char* firmwareDate;
  char* physicalAddress;
  /* Dapi2FruAdditionalInfo entries in the order added; null until the first
   * one is added. Owns its entries. */
  CGenList* additionalInfo;
  /* Position of Dapi2_GetFirstFruAdditionalInfo()/..Next..(). */
  CGenListIter current;
} Dapi2FruInfo;

/* A device as the module reports it. */
typedef struct Dapi2Device {
  uint32_t id; /* device id (DID), chosen by the module */
  char* name;
  char* description;
  char* osLocator;       /* the operating system's name for it, e.g. /dev/sr0 */
  char* hwLocator;       /* "PCI:1:0:0", "SCSI:0:0:3:0", ... */
  char* devType;         /* type keyword: "CD", "HD", "MODEM", ... */
  char* busType;         /* "PCI_BUS", "SYSTEM_BUS", ... */
  char* testsSupported;  /* "*" (all tests) when created */
  Dapi2FruInfo* fruInfo; /* null when the device has no FRU data */
  Dapi2SysInfo* sysInfo; /* first entry, or null */
} Dapi2Device;

/* ---- Creating devices ------------------------------------------------- */

/* Every creator takes the type keyword, the id, name, OS locator and
 * description, then its locator parameters, then `handle`, which receives
 * the new device when not null. It builds the hardware locator, sets the bus
 * word and testsSupported "*", and puts the device on the pending list, from
 * which Dapi2_AddDevice() moves it to the device list. Returns 0, 22 for a
 * rejected keyword or parameter (nothing created), 27 when out of memory.
 * Keywords are compared exactly (letter case matters). */

/* "PCI", "1394" or "PCMCIA"; locator "PCI:%u" etc.; bus "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceBus(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t bus,
                                   Dapi2Device** handle);
/* Any type; port 0 is rejected; "MODEM:%u"; "COM_BUS". */
ZORV_API int Dapi2_CreateDeviceModem(const char* type, uint32_t id,
                                     const char* name, const char* osLocator,
                                     const char* description, uint32_t port,
                                     Dapi2Device** handle);
/* Any type; "FD:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceFD(const char* type, uint32_t id,
                                  const char* name, const char* osLocator,
                                  const char* description, uint32_t drive,
                                  Dapi2Device** handle);
/* Any type; "SCSI:%u:%u:%u:%u"; "SCSI_BUS". */
ZORV_API int Dapi2_CreateDeviceSCSI(const char* type, uint32_t id,
                                    const char* name, const char* osLocator,
                                    const char* description, uint32_t host,
                                    uint32_t channel, uint32_t scsiId,
                                    uint32_t lun, Dapi2Device** handle);
/* Any type; "1394:%u:%u:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDevice1394(const char* type, uint32_t id,
                                    const char* name, const char* osLocator,
                                    const char* description, uint32_t first,
                                    uint32_t second, uint32_t third,
                                    Dapi2Device** handle);
/* Any type; "IDE:%u:%u"; "IDE_BUS". */
ZORV_API int Dapi2_CreateDeviceIDE(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t controller,
                                   uint32_t drive, Dapi2Device** handle);
/* Any type; "USB:%u"; "USB_BUS". */
ZORV_API int Dapi2_CreateDeviceUSB(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t number,
                                   Dapi2Device** handle);
/* Any type; "NET:%02X:%02X:%02X:%02X:%02X:%02X" of the six address bytes;
 * "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceNet(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint8_t mac0,
                                   uint8_t mac1, uint8_t mac2, uint8_t mac3,
                                   uint8_t mac4, uint8_t mac5,
                                   Dapi2Device** handle);
/* "COM", "LPT" or "IR"; "COM:%u:%04lx" etc. (port, I/O address);
 * "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDevicePort(const char* type, uint32_t id,
                                    const char* name, const char* osLocator,
                                    const char* description, uint32_t port,
                                    unsigned long ioAddress,
                                    Dapi2Device** handle);
/* Any type; "PRINT:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDevicePrinter(const char* type, uint32_t id,
                                       const char* name, const char* osLocator,
                                       const char* description, uint32_t number,
                                       Dapi2Device** handle);
/* Any type; "CPU:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceCPU(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t number,
                                   Dapi2Device** handle);
/* "RTC", "CMOS", "KBD", "MOUSE" or "SYSTEM"; the locator is the keyword;
 * "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceSys(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description,
                                   Dapi2Device** handle);
/* Any type; "MEM:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceMemory(const char* type, uint32_t id,
                                      const char* name, const char* osLocator,
                                      const char* description, uint32_t number,
                                      Dapi2Device** handle);
/* Any type; "PCI:%u:%u:%u" (bus, device, function); "PCI_BUS". */
ZORV_API int Dapi2_CreateDevicePCI(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t bus,
                                   uint32_t device, uint32_t function,
                                   Dapi2Device** handle);
/* Any type; "AGP:%u:%u:%u"; "AGP_BUS". */
ZORV_API int Dapi2_CreateDeviceAGP(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t bus,
                                   uint32_t device, uint32_t function,
                                   Dapi2Device** handle);
/* "KBD" or "MOUSE"; locator "PS2KB" or "PS2MOUSE"; "PS2_BUS". */
ZORV_API int Dapi2_CreateDevicePS2(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description,
                                   Dapi2Device** handle);
/* Any type; "COM:%u:%04lx" (port, I/O address); "COM_BUS". */
ZORV_API int Dapi2_CreateDeviceCOM(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description, uint32_t port,
                                   unsigned long ioAddress,
                                   Dapi2Device** handle);
/* Any type; "MON:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceMonitor(const char* type, uint32_t id,
                                       const char* name, const char* osLocator,
                                       const char* description, uint32_t number,
                                       Dapi2Device** handle);
/* "GAMEINPUT", "MICROPHONE", "CAMERA" or "SCANNER"; "JOY:%u", "MIC:%u",
 * "CAMERA:%u", "SCAN:%u"; "SYSTEM_BUS". */
ZORV_API int Dapi2_CreateDeviceMM(const char* type, uint32_t id,
                                  const char* name, const char* osLocator,
                                  const char* description, uint32_t number,
                                  Dapi2Device** handle);
/* Create nothing and return 0; *handle (when given) becomes null. */
ZORV_API int Dapi2_CreateDeviceISA(const char* type, uint32_t id,
                                   const char* name, const char* osLocator,
                                   const char* description,
                                   Dapi2Device** handle);
ZORV_API int Dapi2_CreateDeviceGeneric(const char* type, uint32_t id,
                                       const char* name, const char* osLocator,
                                       const char* description,
                                       Dapi2Device** handle);

/* Dapi2_I_CreateDeviceWorker(): the worker behind every creator: copies the
 * texts, sets testsSupported "*", puts the device on the pending list.
 * 0, or 27 when out of memory (nothing left allocated). Note the order:
 * description before OS locator. */
ZORV_API int Dapi2_I_CreateDeviceWorker(uint32_t id, const char* name,
                                        const char* description,
                                        const char* osLocator,
                                        const char* hwLocator, const char* type,
                                        const char* bus, Dapi2Device** handle);
/* Dapi2_I_CreateDeviceZeroParam(): a device whose locator text is given. */
ZORV_API int Dapi2_I_CreateDeviceZeroParam(
    const char* type, uint32_t id, const char* name, const char* osLocator,
    const char* description, const char* hwLocator, const char* bus,
    Dapi2Device** handle);
/* Dapi2_I_CreateDeviceOneParam(): a device whose locator is `format` with
 * its one "%u" replaced by `number`, cut to 63 characters. No other
 * conversion is interpreted: "%%" gives "%", any other "%" stays as it is.
 * 22 for a null format. */
ZORV_API int Dapi2_I_CreateDeviceOneParam(
    const char* type, uint32_t id, const char* name, const char* osLocator,
    const char* description, const char* format, uint32_t number,
    const char* bus, Dapi2Device** handle);

/* ---- The device list ---------------------------------------------------- */

/* Dapi2_AddDevice(): moves a created device from the pending list to the
 * device list, which owns it from then on. 22 for null, 27 when out of
 * memory (the device stays pending), else 0; adding a device that is in the
 * list already changes nothing and returns 0. */
ZORV_API int Dapi2_AddDevice(Dapi2Device* device);
/* Dapi2_KillDeviceList(): destroys every device of the device list and
 * every device still pending; both lists are empty afterwards. */
ZORV_API void Dapi2_KillDeviceList(void);
/* Dapi2_I_KillDevice(): frees the texts, FRU record and system information
 * of `device`, not the record itself (the list that owns it does). */
ZORV_API void Dapi2_I_KillDevice(Dapi2Device* device);
/* Dapi2_I_GenerateDeviceName(): replaces the name by the standard name for
 * the device's type ("Keyboard 7", "CD-ROM Drive SCSI:0:0:3:0", ...; the
 * rules are in docs/module-data.md). 0, 22 for null, 27 when out of memory
 * (the old name stays). */
ZORV_API int Dapi2_I_GenerateDeviceName(Dapi2Device* device);

/* Getters: the field, or null for a null device. Dapi2_GetDeviceId() gives
 * (uint32_t)-1 for a null device. Dapi2_GetTestsSupported() is
 * Dapi2_GetDeviceTestsSupported(). */
ZORV_API uint32_t Dapi2_GetDeviceId(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceName(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceDescription(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceOsLocator(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceHwLocator(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceDevType(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceBusType(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetDeviceTestsSupported(const Dapi2Device* device);
ZORV_API const char* Dapi2_GetTestsSupported(const Dapi2Device* device);
ZORV_API Dapi2FruInfo* Dapi2_GetDeviceFruInfo(const Dapi2Device* device);
ZORV_API Dapi2SysInfo* Dapi2_GetDeviceSysInfo(const Dapi2Device* device);

/* Dapi2_AddTestsToDevice(): replaces testsSupported by a copy of `text`.
 * 22 for a null device or a null or empty text, 27 out of memory, else 0. */
ZORV_API int Dapi2_AddTestsToDevice(Dapi2Device* device, const char* text);

/* ---- FRU data ---------------------------------------------------------- */

/* Dapi2_AddFruToDevice(): gives the device a new FRU record with copies of
 * the six texts, replacing (and freeing) any previous record together with
 * its additional information. 22 for a null device, 27 out of memory (the
 * old record stays), else 0. */
ZORV_API int Dapi2_AddFruToDevice(Dapi2Device* device, const char* manufacturer,
                                  const char* model, const char* serial,
                                  const char* firmwareRev,
                                  const char* firmwareDate,
                                  const char* physAddress);
/* Dapi2_I_CreateFruInfo(): a new FRU record with copies of the six texts
 * and no additional information, or null when out of memory. Free it with
 * Dapi2_FreeFruInfo(). */
ZORV_API Dapi2FruInfo* Dapi2_I_CreateFruInfo(
    const char* manufacturer, const char* model, const char* serial,
    const char* firmwareRev, const char* firmwareDate, const char* physAddress);
/* Dapi2_CreateFruAdditionalInfo(): a new entry with copies of the texts, or
 * null when out of memory. Free it with Dapi2_FreeFruAdditionalInfo(). */
ZORV_API Dapi2FruAdditionalInfo* Dapi2_CreateFruAdditionalInfo(
    const char* field, const char* description, const char* value);
/* Dapi2_AddFruAdditionalInfoToFru(): appends a new entry. 22 for a null
 * record, 27 out of memory, else 0. */
ZORV_API int Dapi2_AddFruAdditionalInfoToFru(Dapi2FruInfo* fru,
                                             const char* field,
                                             const char* description,
                                             const char* value);
/* Dapi2_AddFruAdditionalInfoToDevice(): the same on the device's FRU
 * record, which is created with six empty texts when the device has none.
 * 22 for a null device. */
ZORV_API int Dapi2_AddFruAdditionalInfoToDevice(Dapi2Device* device,
                                                const char* field,
                                                const char* description,
                                                const char* value);
/* Releasing: Dapi2_DestructFruAdditionalInfo() frees an entry's texts,
 * Dapi2_FreeFruAdditionalInfo() its texts and the entry;
 * Dapi2_FruAdditionalInfoListDestruct() destroys every entry of a record's
 * list and frees the list; Dapi2_FreeFruInfo() frees a whole FRU record.
 * Null is ignored by each. */
ZORV_API void Dapi2_DestructFruAdditionalInfo(Dapi2FruAdditionalInfo* info);
ZORV_API void Dapi2_FreeFruAdditionalInfo(Dapi2FruAdditionalInfo* info);
ZORV_API void Dapi2_FruAdditionalInfoListDestruct(CGenList* list);
ZORV_API void Dapi2_FreeFruInfo(Dapi2FruInfo* fru);

/* FRU getters: the text, or null for a null record. */
ZORV_API const char* Dapi2_GetFruManufacturerName(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruModelNumber(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruSerialNumber(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruFirmwareRevision(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruFirmwareDate(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruPhysicalAddress(const Dapi2FruInfo* fru);
ZORV_API const char* Dapi2_GetFruAdditionalInfoField(
    const Dapi2FruAdditionalInfo* info);
ZORV_API const char* Dapi2_GetFruAdditionalInfoDescription(
    const Dapi2FruAdditionalInfo* info);
ZORV_API const char* Dapi2_GetFruAdditionalInfoValue(
    const Dapi2FruAdditionalInfo* info);
/* Walk of a record's additional information, in the order added; null at
 * the end, for a null record or a record without entries:
 *   for (i = Dapi2_GetFirstFruAdditionalInfo(f); i;
 *        i = Dapi2_GetNextFruAdditionalInfo(f)) ... */
ZORV_API Dapi2FruAdditionalInfo* Dapi2_GetFirstFruAdditionalInfo(
    Dapi2FruInfo* fru);
ZORV_API Dapi2FruAdditionalInfo* Dapi2_GetNextFruAdditionalInfo(
    Dapi2FruInfo* fru);

/* ---- System information ------------------------------------------------ */

/* Dapi2_AddSysInfoToDevice(): appends an entry to the device's chain. 22
 * for a null device, 27 out of memory, else 0. */
ZORV_API int Dapi2_AddSysInfoToDevice(Dapi2Device* device,
                                      const char* description, const char* key,
                                      const char* value);
/* Dapi2_FreeSysInfo(): frees `info` and every entry after it. */
ZORV_API void Dapi2_FreeSysInfo(Dapi2SysInfo* info);

/* ---- Reports to the diagnostic engine ------------------------------------ */

/* Dapi2_SendEnumInfo(): sends every device of the device list, in list
 * order, to "DIAGENGINE" as one "DE_ENUMDATA" message (format in
 * docs/module-data.md). 0, 27 out of memory, 26 header, 25 message, 24 not
 * sent (no connection). Texts go in unescaped. */
ZORV_API int Dapi2_SendEnumInfo(void);
/* Dapi2_SendSysInfo(): sends the system information of the devices of the
 * device list whose hardware locator equals `hwLocator` exactly and that
 * were not reported before, as "SYSINFO_RETURNED" to "DIAGENGINE" with
 * `transaction` as the reply field. `to` and `moduleName` go into each
 * DEVICE element. A reported device's hardware locator becomes
 * "**PROCESSED**", so it is not reported twice; a null locator or
 * "**PROCESSED**" matches nothing. 0, 26, 25 or 24 as above; running out
 * of memory ends the process (status 1). */
ZORV_API int Dapi2_SendSysInfo(const char* to, const char* moduleName,
                               const char* transaction, const char* hwLocator);

/* ---- Test parameters ------------------------------------------------------
 */

/* Parameter types. */
enum Dapi2ParameterType {
  DAPI2_PARAM_INT32 = 0,
  DAPI2_PARAM_UINT32 = 1,
  DAPI2_PARAM_BOOL = 2,
  DAPI2_PARAM_FLOAT = 3,
  DAPI2_PARAM_STRING = 4
};

/* Verdicts on a parameter's value. */
enum Dapi2ValidFlag {
  DAPI2_VALID = 0,
  DAPI2_ID_NOT_RECOGNIZED = 1,
  DAPI2_VALUE_TOO_BIG = 2,
  DAPI2_VALUE_TOO_SMALL = 3,
  DAPI2_VALUE_BAD = 4
};

/* One test parameter. Values (the current value, the default and the
 * bounds) are kept as text, null while unset; the As/From accessors convert
 * with strict rules:
 *   int32   optional "+" or "-", then decimal digits only, within 32 bits;
 *   uint32  optional "+", then decimal digits only, at most 4294967295;
 *   bool    "0", "1", "true", "false" in any letter case;
 *   float   decimal digits with an optional "." and fraction and an
 *           optional exponent ("e-3"), optional sign; finite as a float
 *           ("inf", "nan" and hexadecimal forms are refused);
 *   string  any text.
 * No spaces, no trailing characters: "12abc", " 12" and "" do not convert.
 * Numbers are stored in their plain form: From* writes "%d", "%u", "1"/"0",
 * and for floats the shortest "%g" form that reads back exactly (no
 * exponent from 1 to 1e9); the float setters refuse infinities and NaN.
 * The C numeric locale ("." as decimal point) is assumed. */
typedef struct Dapi2Parameter {
  char* id;     /* identifier (the text after "param=") */
  int32_t type; /* Dapi2ParameterType; DAPI2_PARAM_STRING
                 * when initialised */
  char* name;
  char* description;
  int32_t mustBeSet;         /* boolean */
  int32_t recommendValidate; /* boolean */
  char* mask;
  int32_t validFlag; /* Dapi2ValidFlag */
  char* value;
  int32_t hasDefault;
  char* defaultValue;
  int32_t hasMin;
  char* minValue;
  int32_t hasMax;
  char* maxValue;
} Dapi2Parameter;

/* A list of parameters and a current position. */
typedef struct Dapi2ParamList {
  CGenList list;        /* owns its Dapi2Parameter records */
  CGenListIter current; /* position of the First/Next walk */
} Dapi2ParamList;

/* Dapi2_InitParameter(): an empty parameter: no texts, type string, flags
 * 0, nothing set. 1, or 0 for null. */
ZORV_API int Dapi2_InitParameter(Dapi2Parameter* param);
/* Dapi2_DestructParameter(): frees the texts; the record can be
 * initialised again. */
ZORV_API void Dapi2_DestructParameter(Dapi2Parameter* param);

/* Dapi2_ParamListConstruct(): an empty list in caller storage (which must
 * not move afterwards). 1, or 0 for null. */
ZORV_API int Dapi2_ParamListConstruct(Dapi2ParamList* list);
/* Dapi2_ParamListDestruct(): destructs and frees every parameter. */
ZORV_API void Dapi2_ParamListDestruct(Dapi2ParamList* list);
/* Dapi2_AddParameter(): appends `param`, which must come from malloc() and
 * belongs to the list afterwards. 1, or 0 for a null argument or when out
 * of memory (the parameter then stays the caller's). */
ZORV_API int Dapi2_AddParameter(Dapi2ParamList* list, Dapi2Parameter* param);
/* Dapi2_DeleteCurrentParameter(): destroys the parameter at the current
 * position and moves the position back to the one before, so the next
 * ..GetNextParameter() gives the parameter that followed. 1, or 0 when no
 * parameter is current. */
ZORV_API int Dapi2_DeleteCurrentParameter(Dapi2ParamList* list);

/* Walks of a list: First sets the position to the first parameter, Next
 * advances; both return null at the end or for a null list. The Const forms
 * keep their position in *pos and leave the list alone. */
ZORV_API Dapi2Parameter* Dapi2_I_GetFirstParameter(Dapi2ParamList* list);
ZORV_API Dapi2Parameter* Dapi2_I_GetNextParameter(Dapi2ParamList* list);
ZORV_API const Dapi2Parameter* Dapi2_I_GetFirstParameterConst(
    const Dapi2ParamList* list, CGenListIter* pos);
ZORV_API const Dapi2Parameter* Dapi2_I_GetNextParameterConst(
    const Dapi2ParamList* list, CGenListIter* pos);
/* The same walk over the running module's parameter list (null when the
 * module has none). */
ZORV_API Dapi2Parameter* Dapi2_GetFirstParameter(void);
ZORV_API Dapi2Parameter* Dapi2_GetNextParameter(void);

/* Field accessors. Getters of a null parameter give null, 0, or -1 for the
 * type and the valid flag. Text setters copy the text: 1, or 0 for a null
 * parameter or text or when out of memory (the old text stays). Other
 * setters: 1, or 0 for a null parameter; any number is stored. */
ZORV_API const char* Dapi2_GetParameterId(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterId(Dapi2Parameter* param, const char* text);
ZORV_API int32_t Dapi2_GetParameterType(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterType(Dapi2Parameter* param, int32_t type);
ZORV_API const char* Dapi2_GetParameterName(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterName(Dapi2Parameter* param, const char* text);
ZORV_API const char* Dapi2_GetParameterDescription(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterDescription(Dapi2Parameter* param,
                                           const char* text);
ZORV_API int Dapi2_GetParameterMustBeSet(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterMustBeSet(Dapi2Parameter* param, int value);
ZORV_API int Dapi2_GetParameterRecommendValidate(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterRecommendValidate(Dapi2Parameter* param,
                                                 int value);
ZORV_API const char* Dapi2_GetParameterMask(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterMask(Dapi2Parameter* param, const char* text);
ZORV_API int32_t Dapi2_GetParameterValidFlag(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterValidFlag(Dapi2Parameter* param, int32_t flag);

/* Value getters: As* store the converted value in *out and return 1; they
 * return 0 (and store 0, false or 0.0) when the parameter or out is null,
 * the value is unset, or its text does not convert. AsStr gives the text,
 * null while unset. Setters: 1, or 0 for a null parameter (or text) or when
 * out of memory. */
ZORV_API int Dapi2_GetParameterValAsInt32(const Dapi2Parameter* param,
                                          int32_t* out);
ZORV_API int Dapi2_GetParameterValAsUInt32(const Dapi2Parameter* param,
                                           uint32_t* out);
ZORV_API int Dapi2_GetParameterValAsBool(const Dapi2Parameter* param, int* out);
ZORV_API int Dapi2_GetParameterValAsFloat(const Dapi2Parameter* param,
                                          float* out);
ZORV_API const char* Dapi2_GetParameterValAsStr(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterValFromInt32(Dapi2Parameter* param,
                                            int32_t value);
ZORV_API int Dapi2_SetParameterValFromUInt32(Dapi2Parameter* param,
                                             uint32_t value);
ZORV_API int Dapi2_SetParameterValFromBool(Dapi2Parameter* param, int value);
ZORV_API int Dapi2_SetParameterValFromFloat(Dapi2Parameter* param, float value);
ZORV_API int Dapi2_SetParameterValFromStr(Dapi2Parameter* param,
                                          const char* text);

/* The default value: the same representations; a setter also sets
 * hasDefault. */
ZORV_API int Dapi2_GetParameterHasDefaultValue(const Dapi2Parameter* param);
ZORV_API int Dapi2_GetParameterDefaultValAsInt32(const Dapi2Parameter* param,
                                                 int32_t* out);
ZORV_API int Dapi2_GetParameterDefaultValAsUInt32(const Dapi2Parameter* param,
                                                  uint32_t* out);
ZORV_API int Dapi2_GetParameterDefaultValAsBool(const Dapi2Parameter* param,
                                                int* out);
ZORV_API int Dapi2_GetParameterDefaultValAsFloat(const Dapi2Parameter* param,
                                                 float* out);
ZORV_API const char* Dapi2_GetParameterDefaultValAsStr(
    const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterDefaultValFromInt32(Dapi2Parameter* param,
                                                   int32_t value);
ZORV_API int Dapi2_SetParameterDefaultValFromUInt32(Dapi2Parameter* param,
                                                    uint32_t value);
ZORV_API int Dapi2_SetParameterDefaultValFromBool(Dapi2Parameter* param,
                                                  int value);
ZORV_API int Dapi2_SetParameterDefaultValFromFloat(Dapi2Parameter* param,
                                                   float value);
ZORV_API int Dapi2_SetParameterDefaultValFromStr(Dapi2Parameter* param,
                                                 const char* text);

/* The bounds: Int32, UInt32, Float and Str; a setter also sets hasMin or
 * hasMax. */
ZORV_API int Dapi2_GetParameterHasMinVal(const Dapi2Parameter* param);
ZORV_API int Dapi2_GetParameterHasMaxVal(const Dapi2Parameter* param);
ZORV_API int Dapi2_GetParameterMinValAsInt32(const Dapi2Parameter* param,
                                             int32_t* out);
ZORV_API int Dapi2_GetParameterMinValAsUInt32(const Dapi2Parameter* param,
                                              uint32_t* out);
ZORV_API int Dapi2_GetParameterMinValAsFloat(const Dapi2Parameter* param,
                                             float* out);
ZORV_API const char* Dapi2_GetParameterMinValAsStr(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterMinValFromInt32(Dapi2Parameter* param,
                                               int32_t value);
ZORV_API int Dapi2_SetParameterMinValFromUInt32(Dapi2Parameter* param,
                                                uint32_t value);
ZORV_API int Dapi2_SetParameterMinValFromFloat(Dapi2Parameter* param,
                                               float value);
ZORV_API int Dapi2_SetParameterMinValFromStr(Dapi2Parameter* param,
                                             const char* text);
ZORV_API int Dapi2_GetParameterMaxValAsInt32(const Dapi2Parameter* param,
                                             int32_t* out);
ZORV_API int Dapi2_GetParameterMaxValAsUInt32(const Dapi2Parameter* param,
                                              uint32_t* out);
ZORV_API int Dapi2_GetParameterMaxValAsFloat(const Dapi2Parameter* param,
                                             float* out);
ZORV_API const char* Dapi2_GetParameterMaxValAsStr(const Dapi2Parameter* param);
ZORV_API int Dapi2_SetParameterMaxValFromInt32(Dapi2Parameter* param,
                                               int32_t value);
ZORV_API int Dapi2_SetParameterMaxValFromUInt32(Dapi2Parameter* param,
                                                uint32_t value);
ZORV_API int Dapi2_SetParameterMaxValFromFloat(Dapi2Parameter* param,
                                               float value);
ZORV_API int Dapi2_SetParameterMaxValFromStr(Dapi2Parameter* param,
                                             const char* text);

/* Dapi2_AssignParameterFromXML(): reads one parameter of a validation reply
 * back. `element` is the content of one PARAMETER element
 * ("<ID>A</ID><VALID_FLAG>valid</VALID_FLAG><MIN_VALUE>0</MIN_VALUE>").
 * ID and VALID_FLAG are required: when either is missing (or longer than
 * 4095 bytes) the parameter is left alone, *assigned is 0 and 1 returned.
 * Otherwise sets the id, the flag (-1 for an unknown word) and, when
 * present, the bounds, each converted by the parameter's type; then
 * *assigned is 1. Returns 1, or 0 for a null argument, a bound that does
 * not convert, or out of memory (*assigned 0; fields set so far stay). */
ZORV_API int Dapi2_AssignParameterFromXML(Dapi2Parameter* param,
                                          const char* element, int* assigned);

/* The percentage of the test to run, set by ProcessPredefinedParameters()
 * (param-valid.h); 100 until then. The integer form truncates toward 0. */
ZORV_API float Dapi2_GetFloatPercentageToTest(void);
ZORV_API int Dapi2_GetPercentageToTest(void);

/* ---- Module main and modes ----------------------------------------------- */

/* A callback slot. Store a function with a cast; the library calls it with
 * the slot's own signature:
 *   slot 1  (enumerate) int enumerate(void)                 result ignored
 *   slot 2  (validate)  int validate(int32_t test, Dapi2Device* device)
 *   slot 3  (run)       int run(int32_t test, Dapi2Device* device)  result
 *   slot 12 (sysinfo)   int sysinfo(Dapi2Device* device, const char* text)
 * The device is null when no device with the id of the command line is
 * known. Slots 4 to 11 may be filled; they are never called. */
typedef void (*Dapi2Callback)(void);
typedef int (*Dapi2EnumerateCallback)(void);
typedef int (*Dapi2TestCallback)(int32_t test, Dapi2Device* device);
typedef int (*Dapi2SysInfoCallback)(Dapi2Device* device, const char* text);

/* Size of the registration structure on 32-bit x86: 13 32-bit words. */
#define DAPI2_REGISTRATION_SIZE_32 52
/* Highest callback slot. */
#define DAPI2_CALLBACK_SLOTS 12

/* The registration structure. Deliberately pointer-sized words: word 0
 * holds sizeof(Dapi2RegistrationStructure) (52 on 32-bit x86, 104 on
 * 64-bit builds), words 1 to 12 the callback slots. A structure whose size
 * word is below that size is refused, as on 32-bit x86. */
typedef struct Dapi2RegistrationStructure {
  uintptr_t size;
  Dapi2Callback slot[DAPI2_CALLBACK_SLOTS]; /* slot[0] is slot 1 */
} Dapi2RegistrationStructure;

/* Modes selected by the command line. */
enum Dapi2Mode {
  DAPI2_MODE_NONE = 0,
  DAPI2_MODE_VALIDATE = 1,
  DAPI2_MODE_ENUMERATE = 2,
  DAPI2_MODE_RUN = 3,
  DAPI2_MODE_SYSINFO = 4
};

/* Test results reported by a run callback. Codes above 11 are sent as
 * "SETUPERROR". */
enum Dapi2TestResult {
  DAPI2_RESULT_PASS = 0,
  DAPI2_RESULT_SETUPERROR = 1,
  DAPI2_RESULT_FAIL = 2,
  DAPI2_RESULT_BUSY = 3,
  DAPI2_RESULT_PRIVILEGEERROR = 4,
  DAPI2_RESULT_NOTAPPLICABLE = 5,
  DAPI2_RESULT_BADPARAMS = 6,
  DAPI2_RESULT_NOMEDIA = 7,
  DAPI2_RESULT_DISCONTINUED = 8
};

/* Notification kinds of Dapi2_SendNotification(). */
enum Dapi2NotificationKind {
  DAPI2_NOTIFY_STARTUP = 0,
  DAPI2_NOTIFY_SHUTDOWN = 1,
  DAPI2_NOTIFY_TESTRESULT = 2
};

/* Dapi2_CreateRegistrationStructure(): a zero-filled structure with its
 * size word set, or null when out of memory. */
ZORV_API Dapi2RegistrationStructure* Dapi2_CreateRegistrationStructure(void);
/* Dapi2_FreeRegistrationStructure(): 28 for null, else 0. */
ZORV_API int Dapi2_FreeRegistrationStructure(Dapi2RegistrationStructure* reg);
/* Dapi2_AddRegistrationStructureCallback(): stores `function` in slot 1 to
 * 12. 28 for a null structure, a size word below the structure's size, or
 * a slot outside 1 to 12; else 0. */
ZORV_API int Dapi2_AddRegistrationStructureCallback(
    Dapi2RegistrationStructure* reg, int32_t slot, Dapi2Callback function);
/* Dapi2_Version(): the version announced at start-up; call it before
 * Dapi2_Main(). -1024 each until then. */
ZORV_API void Dapi2_Version(int32_t major, int32_t minor, int32_t revision);
/* Dapi2_I_IsValidModuleVersion(): reads "2.1.0" as three decimal numbers
 * (the first, the one after the first ".", the one after the last ".");
 * 0 only when all three are -1024, else 1 (also for null). */
ZORV_API int Dapi2_I_IsValidModuleVersion(const char* text);

/* Dapi2_Main(): the module's entry point: reads the command line, runs the
 * selected mode and returns its status (0 success, Dapi2Status codes). */
ZORV_API int Dapi2_Main(int argc, char** argv, Dapi2RegistrationStructure* reg);
/* Dapi2_ParseCommandLine(): fills the outputs from every argument
 * (argv[0] included): "validate", "enumerate", "run", "sysinfo" set *mode;
 * "ref=", "deffile=", "device=", "test=", "percent=" (<= 0 or > 100 gives
 * 100), "errlimit=" (negative gives 10000), "process=" and "sfifo=" their
 * values. Outputs whose key is absent keep their values. Null outputs are
 * skipped. Always 0. */
ZORV_API int Dapi2_ParseCommandLine(int argc, char** argv, int32_t* mode,
                                    char* ref, uint32_t refSize, char* defFile,
                                    uint32_t defFileSize, int32_t* device,
                                    int32_t* test, float* percent,
                                    int32_t* errorLimit);
/* Dapi2_StartCommunications(): pipes, pipe thread, connection to the broker
 * as the definitions file's module, then the start-up notification with
 * `ref` as its type. 0, 24 no connection, 23 start-up not sent. */
ZORV_API int Dapi2_StartCommunications(const char* ref);
/* Dapi2_StopCommunications(): device list destroyed, write queue flushed
 * (1500 ms at most), shut-down notification, connection closed, pipe thread
 * stopped, pipes cleaned up. 0. */
ZORV_API int Dapi2_StopCommunications(void);
/* Dapi2_SendNotification(): kind 0 start-up (value unused), 1 shut-down,
 * 2 test result (value = result code). 0, 22 unknown kind, 26 header, 25
 * message, 24 not sent. */
ZORV_API int Dapi2_SendNotification(int32_t kind, int32_t value);
/* The modes, as Dapi2_Main() runs them. */
ZORV_API int Dapi2_PerformEnumerate(const char* ref);
ZORV_API int Dapi2_PerformRunDiag(const char* ref, int32_t device, int32_t test,
                                  int argc, char** argv);
ZORV_API int Dapi2_PerformParamValidate(const char* ref, int32_t test,
                                        int32_t device, int argc, char** argv);
ZORV_API int Dapi2_PerformSysInfo(int argc, char** argv);
/* Dapi2_GetErrorLimit(): "errlimit=", 5 when absent. */
ZORV_API int32_t Dapi2_GetErrorLimit(void);

/* ---- Events, time-outs and stop -------------------------------------------
 */

/* Every event goes to "DIAGENGINE" as "DE_EVENT" with the test process id
 * of "process=". The formatted text is cut at 8191 bytes; a message longer
 * than 2048 bytes is not sent. Returns 0, or 27 when the text buffer cannot
 * be allocated; a failed send is not reported. */
ZORV_API int Dapi2_SetProgressInformation(const char* format, ...)
    ZORV_PRINTF(1, 2);
/* Dapi2_SetProgressInformationTimed(): the same, sent only when more than
 * intervalMs passed since the last timed progress (time of day, UTC). */
ZORV_API int Dapi2_SetProgressInformationTimed(uint32_t intervalMs,
                                               const char* format, ...)
    ZORV_PRINTF(2, 3);
/* Dapi2_SetPercentDone(): sent only when it differs from the last one. */
ZORV_API int Dapi2_SetPercentDone(int32_t percent);
/* Dapi2_Informative(): an INFO event, event code -1. */
ZORV_API int Dapi2_Informative(const char* format, ...) ZORV_PRINTF(1, 2);
ZORV_API int Dapi2_Warning(int32_t code, const char* format, ...)
    ZORV_PRINTF(2, 3);
ZORV_API int Dapi2_Error(int32_t code, const char* format, ...)
    ZORV_PRINTF(2, 3);
ZORV_API int Dapi2_SetTimeOut(int32_t value);
/* Dapi2_GetTimeOut(): asks the engine and waits up to 2000 ms for its
 * "SENDINGTIMEOUT" command. 0 with *out set; 24 for null or no answer
 * (*out then 0). */
ZORV_API int Dapi2_GetTimeOut(int32_t* out);
ZORV_API int Dapi2_ClearTimeOutCount(void);
/* Dapi2_I_SendEvent(): a DATA text as a "DE_EVENT" message. 0, 27, 26, 25
 * or 24. */
ZORV_API int Dapi2_I_SendEvent(const char* dataText);
/* Dapi2_CheckForIncomingMessages(): takes every waiting message and obeys
 * "DAPI_COMMAND"s ("STOPTESTING", "SENDINGTIMEOUT"); others are dropped. */
ZORV_API void Dapi2_CheckForIncomingMessages(void);
/* Dapi2_CheckForStop(): 1 once a "STOPTESTING" came, for good; else 0. */
ZORV_API int Dapi2_CheckForStop(void);

/* Language pass-throughs (nls-access.h). */
ZORV_API int Dapi2_NlsAddVariableToTag(char* buffer, uint32_t size,
                                       const char* name, const char* value);
ZORV_API char* Dapi2_NlsGetStringWithId(const char* id, char* buffer,
                                        int32_t size);
ZORV_API char* Dapi2_NlsGetStringWithIdEx(const char* module, const char* id,
                                          const char* lang, char* buffer,
                                          int32_t size);
/* Dapi2_NlsGetStringWithXmlTag(): the translation of the tag `handle` into
 * `buffer` (emptied first; filled only for a two-letter language and a
 * translation that fits). The buffer, or null for a null buffer or size
 * <= 0. */
ZORV_API char* Dapi2_NlsGetStringWithXmlTag(const char* handle,
                                            const char* language, char* buffer,
                                            int32_t size);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_DAPI2_H */
