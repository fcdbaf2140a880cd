/*
 * dapi2.cpp: the diagnostic module interface: device records and the
 * module's device list, FRU data, system information, the enumeration and
 * system-information messages, and test parameter records and lists.
 * No locks: the module's lists are process-wide and used from its main
 * thread only. Messages go out through the client connection.
 */
#include "zorv2000/dapi2.h"

#include <float.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "global/primitives_p.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/param-valid.h"
#include "zorv2000/tracing.h"

/* Buffer of a hardware locator built by the creators. */
enum { DAPI2_LOCATOR_SIZE = 64 };
/* Header buffers of the enumeration and system-information messages. */
enum { DAPI2_HEADER_SIZE = 150 };
/* Field buffers of Dapi2_AssignParameterFromXML(). */
enum { DAPI2_XML_FIELD_SIZE = 4096 };
/* Room for a number written by a value setter ("%.9g" of a float needs
 * at most 16 bytes). */
enum { DAPI2_NUMBER_SIZE = 32 };

/* The mark that keeps a device from being reported twice by
 * Dapi2_SendSysInfo(). */
static const char kProcessedMark[] = "**PROCESSED**";

struct Dapi2MessageCalls dapi2MessageCalls = {ZorvCreateMessageHeader,
                                              ZorvClientSendMessage};

/* The module's process-wide state. */
static struct {
  /* unguarded: module main thread only; devices created and not yet added,
   * not owned */
  CGenList pendingList;
  /* unguarded: as above; the device list, owns its devices */
  CGenList deviceList;
  /* unguarded: as above; the running module's parameter list, not owned */
  Dapi2ParamList* pParamList;
  /* unguarded: as above; percentage of the test to run */
  float percentToTest;
} dapi2 = {CGenList(), CGenList(), NULL, 100.0f};

/* ---- Texts ---------------------------------------------------------------
 */

/* orEmpty(): the text, or "" for a record field already released. */
static const char* orEmpty(const char* text) { return text ? text : ""; }

/* freeText(): releases a text of a record. */
static void freeText(char* text) { cGenAllocCalls.pfnFree(text); }

/* replaceText(): puts a copy of `text` in *slot, freeing the old one; 1, or
 * 0 with *slot unchanged when out of memory. */
static int replaceText(char** slot, const char* text) {
  char* pCopy = CGenStr_I_CopyText(text);
  if (!pCopy) return 0;
  freeText(*slot);
  *slot = pCopy;
  return 1;
}

/* ---- Lists ---------------------------------------------------------------
 */

/* Dapi2_I_KillDeviceData(): the destroy function of the device list. */
void Dapi2_I_KillDeviceData(void* data) {
  Dapi2_I_KillDevice((Dapi2Device*)data);
}

/* Dapi2_I_PendingList(): constructed when its count is 0. */
CGenList* Dapi2_I_PendingList(void) {
  if (CGenListGetCount(&dapi2.pendingList) == 0) {
    CGenListConstruct(&dapi2.pendingList, 0, NULL);
  }
  return &dapi2.pendingList;
}

/* Dapi2_I_DeviceList(): constructed when its count is 0. */
CGenList* Dapi2_I_DeviceList(void) {
  if (CGenListGetCount(&dapi2.deviceList) == 0) {
    CGenListConstruct(&dapi2.deviceList, 1, Dapi2_I_KillDeviceData);
  }
  return &dapi2.deviceList;
}

/* findNode(): the node of `list` holding `data`, or null. */
static CGenListIter findNode(const CGenList* list, const void* data) {
  if (!list->head) return NULL;
  CGenListIter it;
  for (CGenListIterInit(&it, list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    if (CGenListIterGetData(it) == data) return it;
  }
  return NULL;
}

/* ---- Creating devices ----------------------------------------------------
 */

/* Dapi2_I_CreateDeviceWorker(): allocates, copies, puts on the pending
 * list. */
int Dapi2_I_CreateDeviceWorker(uint32_t id, const char* name,
                               const char* description, const char* osLocator,
                               const char* hwLocator, const char* type,
                               const char* bus, Dapi2Device** handle) {
  Dapi2Device* pDevice =
      (Dapi2Device*)cGenAllocCalls.pfnCalloc(1, sizeof *pDevice);
  if (!pDevice) return DAPI2_OUT_OF_MEMORY;
  pDevice->id = id;
  pDevice->name = CGenStr_I_CopyText(name);
  pDevice->description = CGenStr_I_CopyText(description);
  pDevice->osLocator = CGenStr_I_CopyText(osLocator);
  pDevice->hwLocator = CGenStr_I_CopyText(hwLocator);
  pDevice->devType = CGenStr_I_CopyText(type);
  pDevice->busType = CGenStr_I_CopyText(bus);
  pDevice->testsSupported = CGenStr_I_CopyText("*");
  if (!pDevice->name || !pDevice->description || !pDevice->osLocator ||
      !pDevice->hwLocator || !pDevice->devType || !pDevice->busType ||
      !pDevice->testsSupported ||
      !CGenListPushBack(Dapi2_I_PendingList(), pDevice)) {
    Dapi2_I_KillDevice(pDevice);
    cGenAllocCalls.pfnFree(pDevice);
    return DAPI2_OUT_OF_MEMORY;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Added device %p\n", (void*)pDevice);
  if (handle) *handle = pDevice;
  return DAPI2_OK;
}

/* Dapi2_I_CreateDeviceZeroParam(): the locator text is given. */
int Dapi2_I_CreateDeviceZeroParam(const char* type, uint32_t id,
                                  const char* name, const char* osLocator,
                                  const char* description,
                                  const char* hwLocator, const char* bus,
                                  Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceWorker(id, name, description, osLocator, hwLocator,
                                    type, bus, handle);
}

/* formatOneNumber(): `format` with its first "%u" replaced by `number`
 * into `buffer` (DAPI2_LOCATOR_SIZE bytes, cut when longer). Formats are
 * not handed to printf: a "%s" from a caller must not read an argument that
 * is not there. */
static void formatOneNumber(char* buffer, const char* format, uint32_t number) {
  char digits[16];
  snprintf(digits, sizeof digits, "%u", (unsigned)number);
  size_t nOut = 0;
  int bNumberDone = 0;
  for (const char* p = format; *p && nOut + 1 < DAPI2_LOCATOR_SIZE; ++p) {
    if (p[0] == '%' && p[1] == 'u' && !bNumberDone) {
      for (const char* d = digits; *d && nOut + 1 < DAPI2_LOCATOR_SIZE; ++d) {
        buffer[nOut++] = *d;
      }
      bNumberDone = 1;
      ++p;
    } else if (p[0] == '%' && p[1] == '%') {
      buffer[nOut++] = '%';
      ++p;
    } else {
      buffer[nOut++] = *p;
    }
  }
  buffer[nOut] = '\0';
}

/* Dapi2_I_CreateDeviceOneParam(): the locator is a format and one number. */
int Dapi2_I_CreateDeviceOneParam(const char* type, uint32_t id,
                                 const char* name, const char* osLocator,
                                 const char* description, const char* format,
                                 uint32_t number, const char* bus,
                                 Dapi2Device** handle) {
  if (!format) return DAPI2_BAD_ARGUMENT;
  char locator[DAPI2_LOCATOR_SIZE];
  formatOneNumber(locator, format, number);
  return Dapi2_I_CreateDeviceWorker(id, name, description, osLocator, locator,
                                    type, bus, handle);
}

/* keywordIs(): type equals the keyword exactly; false for null. */
static int keywordIs(const char* type, const char* keyword) {
  return type && strcmp(type, keyword) == 0;
}

/* Dapi2_CreateDeviceBus(): "PCI", "1394" or "PCMCIA" and a bus number. */
int Dapi2_CreateDeviceBus(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t bus, Dapi2Device** handle) {
  const char* format;
  if (keywordIs(type, "PCI")) {
    format = "PCI:%u";
  } else if (keywordIs(type, "1394")) {
    format = "1394:%u";
  } else if (keywordIs(type, "PCMCIA")) {
    format = "PCMCIA:%u";
  } else {
    return DAPI2_BAD_ARGUMENT;
  }
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      format, bus, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceModem(): any type; port 0 is refused. */
int Dapi2_CreateDeviceModem(const char* type, uint32_t id, const char* name,
                            const char* osLocator, const char* description,
                            uint32_t port, Dapi2Device** handle) {
  if (port == 0) return DAPI2_BAD_ARGUMENT;
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "MODEM:%u", port, "COM_BUS", handle);
}

/* Dapi2_CreateDeviceFD(): any type, a drive number. */
int Dapi2_CreateDeviceFD(const char* type, uint32_t id, const char* name,
                         const char* osLocator, const char* description,
                         uint32_t drive, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "FD:%u", drive, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceSCSI(): any type, host, channel, id and lun. */
int Dapi2_CreateDeviceSCSI(const char* type, uint32_t id, const char* name,
                           const char* osLocator, const char* description,
                           uint32_t host, uint32_t channel, uint32_t scsiId,
                           uint32_t lun, Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "SCSI:%u:%u:%u:%u", (unsigned)host,
           (unsigned)channel, (unsigned)scsiId, (unsigned)lun);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "SCSI_BUS", handle);
}

/* Dapi2_CreateDevice1394(): any type, three numbers. */
int Dapi2_CreateDevice1394(const char* type, uint32_t id, const char* name,
                           const char* osLocator, const char* description,
                           uint32_t first, uint32_t second, uint32_t third,
                           Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "1394:%u:%u:%u", (unsigned)first,
           (unsigned)second, (unsigned)third);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceIDE(): any type, controller and drive. */
int Dapi2_CreateDeviceIDE(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t controller, uint32_t drive,
                          Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "IDE:%u:%u", (unsigned)controller,
           (unsigned)drive);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "IDE_BUS", handle);
}

/* Dapi2_CreateDeviceUSB(): any type, a number. */
int Dapi2_CreateDeviceUSB(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t number, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "USB:%u", number, "USB_BUS", handle);
}

/* Dapi2_CreateDeviceNet(): any type, six address bytes. */
int Dapi2_CreateDeviceNet(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint8_t mac0, uint8_t mac1, uint8_t mac2,
                          uint8_t mac3, uint8_t mac4, uint8_t mac5,
                          Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "NET:%02X:%02X:%02X:%02X:%02X:%02X",
           (unsigned)mac0, (unsigned)mac1, (unsigned)mac2, (unsigned)mac3,
           (unsigned)mac4, (unsigned)mac5);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDevicePort(): "COM", "LPT" or "IR", port and I/O address. */
int Dapi2_CreateDevicePort(const char* type, uint32_t id, const char* name,
                           const char* osLocator, const char* description,
                           uint32_t port, unsigned long ioAddress,
                           Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  if (keywordIs(type, "COM")) {
    snprintf(locator, sizeof locator, "COM:%u:%04lx", (unsigned)port,
             ioAddress);
  } else if (keywordIs(type, "LPT")) {
    snprintf(locator, sizeof locator, "LPT:%u:%04lx", (unsigned)port,
             ioAddress);
  } else if (keywordIs(type, "IR")) {
    snprintf(locator, sizeof locator, "IR:%u:%04lx", (unsigned)port, ioAddress);
  } else {
    return DAPI2_BAD_ARGUMENT;
  }
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDevicePrinter(): any type, a number. */
int Dapi2_CreateDevicePrinter(const char* type, uint32_t id, const char* name,
                              const char* osLocator, const char* description,
                              uint32_t number, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "PRINT:%u", number, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceCPU(): any type, a number. */
int Dapi2_CreateDeviceCPU(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t number, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "CPU:%u", number, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceSys(): the keyword is the locator. */
int Dapi2_CreateDeviceSys(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          Dapi2Device** handle) {
  if (!keywordIs(type, "RTC") && !keywordIs(type, "CMOS") &&
      !keywordIs(type, "KBD") && !keywordIs(type, "MOUSE") &&
      !keywordIs(type, "SYSTEM")) {
    return DAPI2_BAD_ARGUMENT;
  }
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       type, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceMemory(): any type, a number. */
int Dapi2_CreateDeviceMemory(const char* type, uint32_t id, const char* name,
                             const char* osLocator, const char* description,
                             uint32_t number, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "MEM:%u", number, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDevicePCI(): any type, bus, device and function. */
int Dapi2_CreateDevicePCI(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t bus, uint32_t device, uint32_t function,
                          Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "PCI:%u:%u:%u", (unsigned)bus,
           (unsigned)device, (unsigned)function);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "PCI_BUS", handle);
}

/* Dapi2_CreateDeviceAGP(): any type, bus, device and function. */
int Dapi2_CreateDeviceAGP(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t bus, uint32_t device, uint32_t function,
                          Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "AGP:%u:%u:%u", (unsigned)bus,
           (unsigned)device, (unsigned)function);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "AGP_BUS", handle);
}

/* Dapi2_CreateDevicePS2(): "KBD" or "MOUSE". */
int Dapi2_CreateDevicePS2(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          Dapi2Device** handle) {
  const char* locator;
  if (keywordIs(type, "KBD")) {
    locator = "PS2KB";
  } else if (keywordIs(type, "MOUSE")) {
    locator = "PS2MOUSE";
  } else {
    return DAPI2_BAD_ARGUMENT;
  }
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "PS2_BUS", handle);
}

/* Dapi2_CreateDeviceCOM(): any type, port and I/O address. */
int Dapi2_CreateDeviceCOM(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          uint32_t port, unsigned long ioAddress,
                          Dapi2Device** handle) {
  char locator[DAPI2_LOCATOR_SIZE];
  snprintf(locator, sizeof locator, "COM:%u:%04lx", (unsigned)port, ioAddress);
  return Dapi2_I_CreateDeviceZeroParam(type, id, name, osLocator, description,
                                       locator, "COM_BUS", handle);
}

/* Dapi2_CreateDeviceMonitor(): any type, a number. */
int Dapi2_CreateDeviceMonitor(const char* type, uint32_t id, const char* name,
                              const char* osLocator, const char* description,
                              uint32_t number, Dapi2Device** handle) {
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      "MON:%u", number, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceMM(): the four multimedia keywords and a number. */
int Dapi2_CreateDeviceMM(const char* type, uint32_t id, const char* name,
                         const char* osLocator, const char* description,
                         uint32_t number, Dapi2Device** handle) {
  const char* format;
  if (keywordIs(type, "GAMEINPUT")) {
    format = "JOY:%u";
  } else if (keywordIs(type, "MICROPHONE")) {
    format = "MIC:%u";
  } else if (keywordIs(type, "CAMERA")) {
    format = "CAMERA:%u";
  } else if (keywordIs(type, "SCANNER")) {
    format = "SCAN:%u";
  } else {
    return DAPI2_BAD_ARGUMENT;
  }
  return Dapi2_I_CreateDeviceOneParam(type, id, name, osLocator, description,
                                      format, number, "SYSTEM_BUS", handle);
}

/* Dapi2_CreateDeviceISA(): creates nothing. */
int Dapi2_CreateDeviceISA(const char* type, uint32_t id, const char* name,
                          const char* osLocator, const char* description,
                          Dapi2Device** handle) {
  (void)type, (void)id, (void)name, (void)osLocator, (void)description;
  if (handle) *handle = NULL;
  return DAPI2_OK;
}

/* Dapi2_CreateDeviceGeneric(): creates nothing. */
int Dapi2_CreateDeviceGeneric(const char* type, uint32_t id, const char* name,
                              const char* osLocator, const char* description,
                              Dapi2Device** handle) {
  (void)type, (void)id, (void)name, (void)osLocator, (void)description;
  if (handle) *handle = NULL;
  return DAPI2_OK;
}

/* ---- The device list -------------------------------------------------------
 */

/* Dapi2_AddDevice(): pending list to device list. */
int Dapi2_AddDevice(Dapi2Device* device) {
  if (!device) return DAPI2_BAD_ARGUMENT;
  CGenList* pDevices = Dapi2_I_DeviceList();
  if (findNode(pDevices, device)) return DAPI2_OK;
  if (!CGenListPushBack(pDevices, device)) return DAPI2_OUT_OF_MEMORY;
  CGenList* pPending = Dapi2_I_PendingList();
  CGenListIter pNode = findNode(pPending, device);
  if (pNode) {
    CGenListIter pAfter;
    CGenListErase(&pAfter, pPending, pNode);
  }
  return DAPI2_OK;
}

/* Dapi2_KillDeviceList(): both lists emptied, every device released. */
void Dapi2_KillDeviceList(void) {
  if (dapi2.deviceList.head) CGenListClear(&dapi2.deviceList);
  if (dapi2.pendingList.head) {
    CGenListIter it;
    for (CGenListIterInit(&it, &dapi2.pendingList); !CGenListIterAtEnd(it);
         CGenListIterAdv(&it)) {
      Dapi2Device* pDevice = (Dapi2Device*)CGenListIterGetData(it);
      Dapi2_I_KillDevice(pDevice);
      cGenAllocCalls.pfnFree(pDevice);
    }
    CGenListClear(&dapi2.pendingList);
  }
}

/* Dapi2_I_KillDevice(): everything the record owns. */
void Dapi2_I_KillDevice(Dapi2Device* device) {
  if (!device) return;
  freeText(device->name);
  freeText(device->description);
  freeText(device->osLocator);
  freeText(device->hwLocator);
  Dapi2_FreeFruInfo(device->fruInfo);
  Dapi2_FreeSysInfo(device->sysInfo);
  freeText(device->devType);
  freeText(device->busType);
  freeText(device->testsSupported);
  device->name = device->description = device->osLocator = NULL;
  device->hwLocator = device->devType = device->busType = NULL;
  device->testsSupported = NULL;
  device->fruInfo = NULL;
  device->sysInfo = NULL;
}

/* ---- Standard device names ----------------------------------------------- */

/* How a standard name is made from the description word. */
enum NameRule {
  NAME_LOCATOR, /* word + hardware locator */
  NAME_ID,      /* word + decimal device id */
  NAME_FIXED,   /* the word alone */
  NAME_MODEM,   /* word + OS locator after its first "S" */
  NAME_KEEP     /* the module's own name stays */
};

struct NameRow {
  const char* type;
  const char* word;
  NameRule rule;
};

/* Standard names by exact type keyword. */
// clang-format off
static const NameRow kNameRows[] = {
    {"VIDEOCONTROLLER", "Video Card ",               NAME_LOCATOR},
    {"1394",            "IEEE1394 Controller ",      NAME_ID},
    {"AGP",             "AGP Bus ",                  NAME_LOCATOR},
    {"CABLEMODEM",      "Cable Modem ",              NAME_LOCATOR},
    {"CAMERA",          "Camera ",                   NAME_ID},
    {"CD",              "CD-ROM Drive ",             NAME_LOCATOR},
    {"CDR",             "CDR Drive ",                NAME_LOCATOR},
    {"CDRW",            "CDRW Drive ",               NAME_LOCATOR},
    {"CHASSIS",         "Chassis ",                  NAME_LOCATOR},
    {"CMOS",            "CMOS",                      NAME_FIXED},
    {"COM",             "Serial Port ",              NAME_ID},
    {"CPU",             "CPU ",                      NAME_ID},
    {"CPU64",           "CPU64 ",                    NAME_ID},
    {"DISPLAY",         "Monitor ",                  NAME_ID},
    {"DSL",             "DSL Adapter ",              NAME_LOCATOR},
    {"DVD",             "DVD Drive ",                NAME_LOCATOR},
    {"DVDPLUSRW",       "DVD+RW Drive ",             NAME_LOCATOR},
    {"DVDMINUSRW",      "DVD-RW Drive ",             NAME_LOCATOR},
    {"FD",              "FD ",                       NAME_ID},
    {"GAMEINPUT",       "Game Input Device ",        NAME_ID},
    {"GPS",             "GPS Receiver ",             NAME_LOCATOR},
    {"HD",              "Hard Drive ",               NAME_LOCATOR},
    {"HUB",             "USB Bus ",                  NAME_ID},
    {"IDE",             "IDE ",                      NAME_LOCATOR},
    /* Deliberate: "Infared", as the engine's device names have always been
     * spelt; controllers match names by text. */
    {"IR",              "Infared Port ",             NAME_ID},
    {"ISDN",            "ISDN Adapter ",             NAME_LOCATOR},
    {"KBD",             "Keyboard ",                 NAME_ID},
    {"LPT",             "Parallel Port ",            NAME_ID},
    {"LS120",           "LS Drive ",                 NAME_LOCATOR},
    {"MEMORY",          "RAM",                       NAME_FIXED},
    {"MICROPHONE",      "Microphone ",               NAME_LOCATOR},
    {"MIDI",            "MIDI Adapter ",             NAME_LOCATOR},
    {"MODEM",           "Modem Serial:",             NAME_MODEM},
    {"MOUSE",           "Mouse ",                    NAME_ID},
    {"NET",             "Network Card ",             NAME_LOCATOR},
    {"OPTICAL",         "Optical Drive ",            NAME_LOCATOR},
    {"PCI",             "PCI Bus ",                  NAME_ID},
    {"PCMCIA",          "PCMCIA Controller ",        NAME_ID},
    {"PRINTER",         "Printer ",                  NAME_ID},
    {"PS",              "Power Supply ",             NAME_LOCATOR},
    {"REMSTORAGE",      "Removable Storage Device ", NAME_ID},
    {"RTC",             "Real Time Clock ",          NAME_LOCATOR},
    {"SCANNER",         "Scanner ",                  NAME_ID},
    {"SCSI",            "SCSI",                      NAME_LOCATOR},
    {"SMBUS",           "SMBUS ",                    NAME_LOCATOR},
    {"SPEAKER",         "Speaker ",                  NAME_LOCATOR},
    /* Deliberate: the trailing space stays; it is the name as reported. */
    {"SYSTEM",          "System ",                   NAME_FIXED},
    {"TAPE",            "Tape Drive ",               NAME_LOCATOR},
    {"TEMP",            "Temperature Sensor ",       NAME_LOCATOR},
    {"USB CONT",        "USB Controller ",           NAME_ID},
    {"VOLT",            "Voltage Sensor ",           NAME_LOCATOR},
    {"WAV",             "WAV Adapter ",              NAME_LOCATOR},
    {"ZIP",             "Zip Drive ",                NAME_ID},
    {"OTHER",           "",                          NAME_KEEP},
};
// clang-format on

/* Dapi2_I_GenerateDeviceName(): the standard name from the table above;
 * any other type is "Unknown " and the id. */
int Dapi2_I_GenerateDeviceName(Dapi2Device* device) {
  if (!device) return DAPI2_BAD_ARGUMENT;
  const char* word = "Unknown ";
  NameRule rule = NAME_ID;
  for (const NameRow& row : kNameRows) {
    if (device->devType && strcmp(device->devType, row.type) == 0) {
      word = row.word;
      rule = row.rule;
      break;
    }
  }
  if (rule == NAME_KEEP) return DAPI2_OK;

  char idText[DAPI2_NUMBER_SIZE];
  snprintf(idText, sizeof idText, "%u", (unsigned)device->id);
  const char* tail = "";
  if (rule == NAME_LOCATOR) {
    tail = device->hwLocator ? device->hwLocator : "";
  } else if (rule == NAME_ID) {
    tail = idText;
  } else if (rule == NAME_MODEM) {
    /* The port number follows the first "S" of /dev/ttyS1. A locator
     * without "S" gives no suffix. */
    const char* pS = device->osLocator ? strchr(device->osLocator, 'S') : NULL;
    tail = pS ? pS + 1 : "";
  }
  size_t nWord = strlen(word);
  size_t nTail = strlen(tail);
  char* pName = (char*)cGenAllocCalls.pfnMalloc(nWord + nTail + 1);
  if (!pName) return DAPI2_OUT_OF_MEMORY;
  memcpy(pName, word, nWord);
  memcpy(pName + nWord, tail, nTail + 1);
  freeText(device->name);
  device->name = pName;
  return DAPI2_OK;
}

/* ---- Getters ------------------------------------------------------------- */

/* Dapi2_GetDeviceId(): the id; (uint32_t)-1 for null. */
uint32_t Dapi2_GetDeviceId(const Dapi2Device* device) {
  return device ? device->id : (uint32_t)-1;
}

/* Dapi2_GetDeviceName(): the name. */
const char* Dapi2_GetDeviceName(const Dapi2Device* device) {
  return device ? device->name : NULL;
}

/* Dapi2_GetDeviceDescription(): the description. */
const char* Dapi2_GetDeviceDescription(const Dapi2Device* device) {
  return device ? device->description : NULL;
}

/* Dapi2_GetDeviceOsLocator(): the OS locator. */
const char* Dapi2_GetDeviceOsLocator(const Dapi2Device* device) {
  return device ? device->osLocator : NULL;
}

/* Dapi2_GetDeviceHwLocator(): the hardware locator. */
const char* Dapi2_GetDeviceHwLocator(const Dapi2Device* device) {
  return device ? device->hwLocator : NULL;
}

/* Dapi2_GetDeviceDevType(): the type keyword. */
const char* Dapi2_GetDeviceDevType(const Dapi2Device* device) {
  return device ? device->devType : NULL;
}

/* Dapi2_GetDeviceBusType(): the bus word. */
const char* Dapi2_GetDeviceBusType(const Dapi2Device* device) {
  return device ? device->busType : NULL;
}

/* Dapi2_GetDeviceTestsSupported(): the supported tests. */
const char* Dapi2_GetDeviceTestsSupported(const Dapi2Device* device) {
  return device ? device->testsSupported : NULL;
}

/* Dapi2_GetTestsSupported(): the same. */
const char* Dapi2_GetTestsSupported(const Dapi2Device* device) {
  return Dapi2_GetDeviceTestsSupported(device);
}

/* Dapi2_GetDeviceFruInfo(): the FRU record. */
Dapi2FruInfo* Dapi2_GetDeviceFruInfo(const Dapi2Device* device) {
  return device ? device->fruInfo : NULL;
}

/* Dapi2_GetDeviceSysInfo(): the first system-information entry. */
Dapi2SysInfo* Dapi2_GetDeviceSysInfo(const Dapi2Device* device) {
  return device ? device->sysInfo : NULL;
}

/* Dapi2_AddTestsToDevice(): replaces the supported tests. */
int Dapi2_AddTestsToDevice(Dapi2Device* device, const char* text) {
  if (!device || !text || !text[0]) return DAPI2_BAD_ARGUMENT;
  if (!replaceText(&device->testsSupported, text)) return DAPI2_OUT_OF_MEMORY;
  return DAPI2_OK;
}

/* ---- FRU data ------------------------------------------------------------ */

/* Dapi2_I_CreateFruInfo(): a record with copies of the six texts. */
Dapi2FruInfo* Dapi2_I_CreateFruInfo(const char* manufacturer, const char* model,
                                    const char* serial, const char* firmwareRev,
                                    const char* firmwareDate,
                                    const char* physAddress) {
  Dapi2FruInfo* pFru = (Dapi2FruInfo*)cGenAllocCalls.pfnCalloc(1, sizeof *pFru);
  if (!pFru) return NULL;
  /* Deliberate: the size word is 36 on every build, the record's size on
   * 32-bit x86, which is what readers of the word compare with. */
  pFru->size = DAPI2_FRU_RECORD_SIZE;
  pFru->manufacturer = CGenStr_I_CopyText(manufacturer);
  pFru->modelNumber = CGenStr_I_CopyText(model);
  pFru->serialNumber = CGenStr_I_CopyText(serial);
  pFru->firmwareRevision = CGenStr_I_CopyText(firmwareRev);
  pFru->firmwareDate = CGenStr_I_CopyText(firmwareDate);
  pFru->physicalAddress = CGenStr_I_CopyText(physAddress);
  if (!pFru->manufacturer || !pFru->modelNumber || !pFru->serialNumber ||
      !pFru->firmwareRevision || !pFru->firmwareDate ||
      !pFru->physicalAddress) {
    Dapi2_FreeFruInfo(pFru);
    return NULL;
  }
  return pFru;
}

/* Dapi2_AddFruToDevice(): a new record replaces the old one. */
int Dapi2_AddFruToDevice(Dapi2Device* device, const char* manufacturer,
                         const char* model, const char* serial,
                         const char* firmwareRev, const char* firmwareDate,
                         const char* physAddress) {
  if (!device) return DAPI2_BAD_ARGUMENT;
  Dapi2FruInfo* pFru = Dapi2_I_CreateFruInfo(
      manufacturer, model, serial, firmwareRev, firmwareDate, physAddress);
  if (!pFru) return DAPI2_OUT_OF_MEMORY;
  Dapi2_FreeFruInfo(device->fruInfo);
  device->fruInfo = pFru;
  return DAPI2_OK;
}

/* Dapi2_CreateFruAdditionalInfo(): an entry with copies of the texts. */
Dapi2FruAdditionalInfo* Dapi2_CreateFruAdditionalInfo(const char* field,
                                                      const char* description,
                                                      const char* value) {
  Dapi2FruAdditionalInfo* pInfo =
      (Dapi2FruAdditionalInfo*)cGenAllocCalls.pfnCalloc(1, sizeof *pInfo);
  if (!pInfo) return NULL;
  pInfo->field = CGenStr_I_CopyText(field);
  pInfo->description = CGenStr_I_CopyText(description);
  pInfo->value = CGenStr_I_CopyText(value);
  if (!pInfo->field || !pInfo->description || !pInfo->value) {
    Dapi2_FreeFruAdditionalInfo(pInfo);
    return NULL;
  }
  return pInfo;
}

/* destructInfoData(): the destroy function of an additional-info list. */
static void destructInfoData(void* data) {
  Dapi2_DestructFruAdditionalInfo((Dapi2FruAdditionalInfo*)data);
}

/* Dapi2_AddFruAdditionalInfoToFru(): appends; creates the list first. */
int Dapi2_AddFruAdditionalInfoToFru(Dapi2FruInfo* fru, const char* field,
                                    const char* description,
                                    const char* value) {
  if (!fru) return DAPI2_BAD_ARGUMENT;
  Dapi2FruAdditionalInfo* pInfo =
      Dapi2_CreateFruAdditionalInfo(field, description, value);
  if (!pInfo) return DAPI2_OUT_OF_MEMORY;
  if (!fru->additionalInfo) {
    CGenList* pList = (CGenList*)cGenAllocCalls.pfnCalloc(1, sizeof *pList);
    if (!pList) {
      Dapi2_FreeFruAdditionalInfo(pInfo);
      return DAPI2_OUT_OF_MEMORY;
    }
    CGenListConstruct(pList, 1, destructInfoData);
    fru->additionalInfo = pList;
    fru->current = NULL;
  }
  if (!CGenListPushBack(fru->additionalInfo, pInfo)) {
    Dapi2_FreeFruAdditionalInfo(pInfo);
    return DAPI2_OUT_OF_MEMORY;
  }
  return DAPI2_OK;
}

/* Dapi2_AddFruAdditionalInfoToDevice(): on the device's record, made with
 * six empty texts when missing. */
int Dapi2_AddFruAdditionalInfoToDevice(Dapi2Device* device, const char* field,
                                       const char* description,
                                       const char* value) {
  if (!device) return DAPI2_BAD_ARGUMENT;
  int bCreated = 0;
  if (!device->fruInfo) {
    device->fruInfo = Dapi2_I_CreateFruInfo("", "", "", "", "", "");
    if (!device->fruInfo) return DAPI2_OUT_OF_MEMORY;
    bCreated = 1;
  }
  int rc = Dapi2_AddFruAdditionalInfoToFru(device->fruInfo, field, description,
                                           value);
  if (rc != DAPI2_OK && bCreated) {
    Dapi2_FreeFruInfo(device->fruInfo);
    device->fruInfo = NULL;
  }
  return rc;
}

/* Dapi2_DestructFruAdditionalInfo(): the entry's texts. */
void Dapi2_DestructFruAdditionalInfo(Dapi2FruAdditionalInfo* info) {
  if (!info) return;
  freeText(info->field);
  freeText(info->description);
  freeText(info->value);
  info->field = info->description = info->value = NULL;
}

/* Dapi2_FreeFruAdditionalInfo(): texts and entry. */
void Dapi2_FreeFruAdditionalInfo(Dapi2FruAdditionalInfo* info) {
  if (!info) return;
  Dapi2_DestructFruAdditionalInfo(info);
  cGenAllocCalls.pfnFree(info);
}

/* Dapi2_FruAdditionalInfoListDestruct(): every entry, then the list. */
void Dapi2_FruAdditionalInfoListDestruct(CGenList* list) {
  if (!list) return;
  CGenListDestruct(list);
  cGenAllocCalls.pfnFree(list);
}

/* Dapi2_FreeFruInfo(): texts, additional information and record. */
void Dapi2_FreeFruInfo(Dapi2FruInfo* fru) {
  if (!fru) return;
  freeText(fru->manufacturer);
  freeText(fru->modelNumber);
  freeText(fru->serialNumber);
  freeText(fru->firmwareRevision);
  freeText(fru->firmwareDate);
  freeText(fru->physicalAddress);
  Dapi2_FruAdditionalInfoListDestruct(fru->additionalInfo);
  cGenAllocCalls.pfnFree(fru);
}

/* FRU getters. */
const char* Dapi2_GetFruManufacturerName(const Dapi2FruInfo* fru) {
  return fru ? fru->manufacturer : NULL;
}

const char* Dapi2_GetFruModelNumber(const Dapi2FruInfo* fru) {
  return fru ? fru->modelNumber : NULL;
}

const char* Dapi2_GetFruSerialNumber(const Dapi2FruInfo* fru) {
  return fru ? fru->serialNumber : NULL;
}

const char* Dapi2_GetFruFirmwareRevision(const Dapi2FruInfo* fru) {
  return fru ? fru->firmwareRevision : NULL;
}

const char* Dapi2_GetFruFirmwareDate(const Dapi2FruInfo* fru) {
  return fru ? fru->firmwareDate : NULL;
}

const char* Dapi2_GetFruPhysicalAddress(const Dapi2FruInfo* fru) {
  return fru ? fru->physicalAddress : NULL;
}

/* Additional-info getters. */
const char* Dapi2_GetFruAdditionalInfoField(
    const Dapi2FruAdditionalInfo* info) {
  return info ? info->field : NULL;
}

const char* Dapi2_GetFruAdditionalInfoDescription(
    const Dapi2FruAdditionalInfo* info) {
  return info ? info->description : NULL;
}

const char* Dapi2_GetFruAdditionalInfoValue(
    const Dapi2FruAdditionalInfo* info) {
  return info ? info->value : NULL;
}

/* Dapi2_GetFirstFruAdditionalInfo(): the position at the first entry. */
Dapi2FruAdditionalInfo* Dapi2_GetFirstFruAdditionalInfo(Dapi2FruInfo* fru) {
  if (!fru || !fru->additionalInfo) return NULL;
  CGenListIterInit(&fru->current, fru->additionalInfo);
  if (CGenListIterAtEnd(fru->current)) return NULL;
  return (Dapi2FruAdditionalInfo*)CGenListIterGetData(fru->current);
}

/* Dapi2_GetNextFruAdditionalInfo(): one on; stays at the end. */
Dapi2FruAdditionalInfo* Dapi2_GetNextFruAdditionalInfo(Dapi2FruInfo* fru) {
  if (!fru || !fru->additionalInfo || !fru->current) return NULL;
  if (CGenListIterAtEnd(fru->current)) return NULL;
  CGenListIterAdv(&fru->current);
  if (CGenListIterAtEnd(fru->current)) return NULL;
  return (Dapi2FruAdditionalInfo*)CGenListIterGetData(fru->current);
}

/* ---- System information ---------------------------------------------------
 */

/* Dapi2_AddSysInfoToDevice(): appends at the end of the chain. */
int Dapi2_AddSysInfoToDevice(Dapi2Device* device, const char* description,
                             const char* key, const char* value) {
  if (!device) return DAPI2_BAD_ARGUMENT;
  Dapi2SysInfo* pInfo =
      (Dapi2SysInfo*)cGenAllocCalls.pfnCalloc(1, sizeof *pInfo);
  if (!pInfo) return DAPI2_OUT_OF_MEMORY;
  pInfo->description = CGenStr_I_CopyText(description);
  pInfo->key = CGenStr_I_CopyText(key);
  pInfo->value = CGenStr_I_CopyText(value);
  if (!pInfo->description || !pInfo->key || !pInfo->value) {
    Dapi2_FreeSysInfo(pInfo);
    return DAPI2_OUT_OF_MEMORY;
  }
  Dapi2SysInfo** ppEnd = &device->sysInfo;
  while (*ppEnd) ppEnd = &(*ppEnd)->next;
  *ppEnd = pInfo;
  return DAPI2_OK;
}

/* Dapi2_FreeSysInfo(): the entry and the rest of its chain. */
void Dapi2_FreeSysInfo(Dapi2SysInfo* info) {
  while (info) {
    Dapi2SysInfo* pNext = info->next;
    freeText(info->description);
    freeText(info->key);
    freeText(info->value);
    cGenAllocCalls.pfnFree(info);
    info = pNext;
  }
}

/* ---- Reports --------------------------------------------------------------
 */

/* appendFruText(): the FRU elements of `fru` (additional information last)
 * onto `out`. 0, or 27 after tracing which step ran out of memory. */
static int appendFruText(Dapi2FruInfo* fru, CGenStr* out) {
  CGenStr addInfos;
  if (!CGenStrInit(&addInfos)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumIno:outofmem2\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  if (fru->additionalInfo) {
    CGenListIter it;
    for (CGenListIterInit(&it, fru->additionalInfo); !CGenListIterAtEnd(it);
         CGenListIterAdv(&it)) {
      const Dapi2FruAdditionalInfo* pInfo =
          (const Dapi2FruAdditionalInfo*)CGenListIterGetData(it);
      if (!CGenStrCatf(&addInfos,
                       "<FRU_ADDINFO_FIELD>%s</FRU_ADDINFO_FIELD>"
                       "<FRU_ADDINFO_DESC>%s</FRU_ADDINFO_DESC>"
                       "<FRU_ADDINFO_VALUE>%s</FRU_ADDINFO_VALUE>",
                       orEmpty(pInfo->field), orEmpty(pInfo->description),
                       orEmpty(pInfo->value))) {
        /* Deliberate: "Ino", as this trace line has always read; trace
         * readers search for it letter for letter. */
        ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumIno:outofmem2\n");
        CGenStrDelete(&addInfos);
        return DAPI2_OUT_OF_MEMORY;
      }
    }
  }
  int bDone =
      CGenStrCatf(out,
                  "<FRU_MANUFACTURER>%s</FRU_MANUFACTURER>"
                  "<FRU_MODELNUMBER>%s</FRU_MODELNUMBER>"
                  "<FRU_SERIALNUMBER>%s</FRU_SERIALNUMBER>"
                  "<FRU_FIRMWAREREV>%s</FRU_FIRMWAREREV>"
                  "<FRU_FIRMWAREDATE>%s</FRU_FIRMWAREDATE>"
                  "<FRU_PHYSADDRESS>%s</FRU_PHYSADDRESS>%s",
                  orEmpty(fru->manufacturer), orEmpty(fru->modelNumber),
                  orEmpty(fru->serialNumber), orEmpty(fru->firmwareRevision),
                  orEmpty(fru->firmwareDate), orEmpty(fru->physicalAddress),
                  CGenStrC_Str(&addInfos));
  CGenStrDelete(&addInfos);
  if (!bDone) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem3\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  return DAPI2_OK;
}

/* Dapi2_I_BuildEnumData(): "<DATA>", one DEVICE element per device of the
 * device list, "</DATA>". */
int Dapi2_I_BuildEnumData(CGenStr* out) {
  if (!CGenStrAssignChar(out, "<DATA>")) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem1\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  CGenList* pDevices = Dapi2_I_DeviceList();
  CGenListIter it;
  for (CGenListIterInit(&it, pDevices); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const Dapi2Device* pDevice = (const Dapi2Device*)CGenListIterGetData(it);
    /* A fresh FRU text per device: a device without FRU data never carries
     * the elements of the one before it. */
    CGenStr fruText;
    if (!CGenStrInit(&fruText)) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem3\n");
      return DAPI2_OUT_OF_MEMORY;
    }
    if (pDevice->fruInfo) {
      int rc = appendFruText(pDevice->fruInfo, &fruText);
      if (rc != DAPI2_OK) {
        CGenStrDelete(&fruText);
        return rc;
      }
    }
    int bDone = CGenStrCatf(
        out,
        "<DEVICE><DID>%u</DID><NAME>%s</NAME>"
        "<DESCRIPTION>%s</DESCRIPTION><OSLOCATOR>%s</OSLOCATOR>"
        "<HWLOCATOR>%s</HWLOCATOR><DEVTYPE>%s</DEVTYPE>"
        "<BUSTYPE>%s</BUSTYPE>%s<TESTS_SUPPORTED>%s</TESTS_SUPPORTED>"
        "</DEVICE>",
        (unsigned)pDevice->id, orEmpty(pDevice->name),
        orEmpty(pDevice->description), orEmpty(pDevice->osLocator),
        orEmpty(pDevice->hwLocator), orEmpty(pDevice->devType),
        orEmpty(pDevice->busType), CGenStrC_Str(&fruText),
        orEmpty(pDevice->testsSupported));
    CGenStrDelete(&fruText);
    if (!bDone) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem4\n");
      return DAPI2_OUT_OF_MEMORY;
    }
  }
  if (!CGenStrCatChar(out, "</DATA>")) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem4\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  return DAPI2_OK;
}

/* wrapMessage(): "<MSG>" header data "</MSG>\r\n" into `message`
 * (initialised by the caller). 1 when the whole message went in. */
static int wrapMessage(CGenStr* message, const char* header, const char* data) {
  ZorvCreateMessageStr(message, "MSG", header, data, (const char*)NULL);
  /* The builder does not report a string that could not grow; the length
   * tells. */
  size_t nWanted =
      strlen("<MSG>") + strlen(header) + strlen(data) + strlen("</MSG>\r\n");
  return message->buffer && CGenStrSize(message) == nWanted;
}

/* Dapi2_SendEnumInfo(): builds and sends the enumeration message. */
int Dapi2_SendEnumInfo(void) {
  CGenStr data;
  if (!CGenStrInit(&data)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:outofmem1\n");
    return DAPI2_OUT_OF_MEMORY;
  }
  int rc = Dapi2_I_BuildEnumData(&data);
  if (rc != DAPI2_OK) {
    CGenStrDelete(&data);
    return rc;
  }
  char header[DAPI2_HEADER_SIZE];
  header[0] = '\0';
  int rcHeader = dapi2MessageCalls.pfnCreateMessageHeader(
      header, sizeof header, "DIAGENGINE", NULL, "DE_ENUMDATA", NULL);
  if (rcHeader != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Dapi2_SendEnumInfo:createheader failed\n");
    CGenStrDelete(&data);
    return DAPI2_HEADER_FAILED;
  }
  CGenStr message;
  if (!CGenStrInit(&message) ||
      !wrapMessage(&message, header, CGenStrC_Str(&data))) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Dapi2_SendEnumInfo:createmessage failed\n");
    CGenStrDelete(&message);
    CGenStrDelete(&data);
    return DAPI2_MESSAGE_FAILED;
  }
  CGenStrDelete(&data);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "SendEnumInfo: %s\n", CGenStrC_Str(&message));
  rc = dapi2MessageCalls.pfnSendMessage(CGenStrC_Str(&message)) == 0
           ? DAPI2_OK
           : DAPI2_SEND_FAILED;
  CGenStrDelete(&message);
  return rc;
}

/* verifyAppend(): a step of the system-information reply; running out of
 * memory there ends the process. */
#define verifyAppend(condition) \
  ((condition) ? (void)0 : Zorv_I_VerifyFailed(__LINE__, __FILE__))

/* Dapi2_SendSysInfo(): the DEVICE elements of the matching devices, each
 * marked as reported. */
int Dapi2_SendSysInfo(const char* to, const char* moduleName,
                      const char* transaction, const char* hwLocator) {
  if (!to) to = "";
  if (!moduleName) moduleName = "";
  CGenStr data;
  verifyAppend(CGenStrInitFromCStr(&data, "<DATA>"));
  CGenStr inner;
  verifyAppend(CGenStrInit(&inner));
  int bMatchable = hwLocator && strcmp(hwLocator, kProcessedMark) != 0;
  CGenList* pDevices = Dapi2_I_DeviceList();
  CGenListIter it;
  for (CGenListIterInit(&it, pDevices); bMatchable && !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    Dapi2Device* pDevice = (Dapi2Device*)CGenListIterGetData(it);
    if (!pDevice->hwLocator || strcmp(pDevice->hwLocator, hwLocator) != 0) {
      continue;
    }
    CGenStrClear(&inner);
    for (const Dapi2SysInfo* pInfo = pDevice->sysInfo; pInfo;
         pInfo = pInfo->next) {
      verifyAppend(
          CGenStrCatf(&inner,
                      "<SYSINFO><SYSINFO_DESCRIPTION>%s</SYSINFO_DESCRIPTION>"
                      "<SYSINFO_KEY>%s</SYSINFO_KEY>",
                      orEmpty(pInfo->description), orEmpty(pInfo->key)));
      verifyAppend(CGenStrCatf(&inner, "<SYSINFO_VALUE>%s</SYSINFO_VALUE>",
                               orEmpty(pInfo->value)));
      verifyAppend(CGenStrCatChar(&inner, "</SYSINFO>"));
    }
    verifyAppend(CGenStrCatf(
        &data,
        "<DEVICE><TO>%s</TO><MODULE_NAME>%s</MODULE_NAME><DID>%u</DID>"
        "<NAME>%s</NAME><DESCRIPTION>%s</DESCRIPTION>"
        "<OSLOCATOR>%s</OSLOCATOR><HWLOCATOR>%s</HWLOCATOR>"
        "<DEVTYPE>%s</DEVTYPE><BUSTYPE>%s</BUSTYPE>%s</DEVICE>",
        to, moduleName, (unsigned)pDevice->id, orEmpty(pDevice->name),
        orEmpty(pDevice->description), orEmpty(pDevice->osLocator),
        orEmpty(pDevice->hwLocator), orEmpty(pDevice->devType),
        orEmpty(pDevice->busType), CGenStrC_Str(&inner)));
    verifyAppend(replaceText(&pDevice->hwLocator, kProcessedMark));
  }
  CGenStrDelete(&inner);
  verifyAppend(CGenStrCatChar(&data, "</DATA>"));

  char header[DAPI2_HEADER_SIZE];
  header[0] = '\0';
  if (dapi2MessageCalls.pfnCreateMessageHeader(header, sizeof header,
                                               "DIAGENGINE", transaction,
                                               "SYSINFO_RETURNED", NULL) != 0) {
    CGenStrDelete(&data);
    return DAPI2_HEADER_FAILED;
  }
  CGenStr message;
  verifyAppend(CGenStrInit(&message));
  verifyAppend(wrapMessage(&message, header, CGenStrC_Str(&data)));
  CGenStrDelete(&data);
  int rc = dapi2MessageCalls.pfnSendMessage(CGenStrC_Str(&message)) == 0
               ? DAPI2_OK
               : DAPI2_SEND_FAILED;
  CGenStrDelete(&message);
  return rc;
}

/* ---- Value texts ------------------------------------------------------------
 */

/* isDigit(): a decimal digit, in any locale. */
static int isDigit(char ch) { return ch >= '0' && ch <= '9'; }

/* parseDigits(): a non-empty run of digits that is the whole text and not
 * above `limit`. */
static int parseDigits(const char* p, uint64_t limit, uint64_t* out) {
  if (!*p) return 0;
  uint64_t value = 0;
  for (; *p; ++p) {
    if (!isDigit(*p)) return 0;
    value = value * 10 + (uint64_t)(*p - '0');
    if (value > limit) return 0;
  }
  *out = value;
  return 1;
}

/* Dapi2_I_TextToInt32(): optional sign and digits, within 32 bits. */
int Dapi2_I_TextToInt32(const char* text, int32_t* out) {
  if (!text) return 0;
  int bNegative = text[0] == '-';
  const char* p = (text[0] == '-' || text[0] == '+') ? text + 1 : text;
  uint64_t value;
  if (!parseDigits(p, bNegative ? 2147483648u : 2147483647u, &value)) {
    return 0;
  }
  *out = bNegative ? (int32_t)(-(int64_t)value) : (int32_t)value;
  return 1;
}

/* Dapi2_I_TextToUInt32(): optional "+" and digits, within 32 bits. */
int Dapi2_I_TextToUInt32(const char* text, uint32_t* out) {
  if (!text) return 0;
  const char* p = text[0] == '+' ? text + 1 : text;
  uint64_t value;
  if (!parseDigits(p, 4294967295u, &value)) return 0;
  *out = (uint32_t)value;
  return 1;
}

/* Dapi2_I_TextToBool(): "0", "1", "true", "false" in any letter case. */
int Dapi2_I_TextToBool(const char* text, int* out) {
  if (!text) return 0;
  if (strcmp(text, "1") == 0 || ZorvStrCaseCmp(text, "true") == 0) {
    *out = 1;
    return 1;
  }
  if (strcmp(text, "0") == 0 || ZorvStrCaseCmp(text, "false") == 0) {
    *out = 0;
    return 1;
  }
  return 0;
}

/* Dapi2_I_TextToFloat(): the decimal syntax checked here, the value from
 * strtod(), refused when it does not round to a finite float. */
int Dapi2_I_TextToFloat(const char* text, float* out) {
  if (!text) return 0;
  const char* p = text;
  if (*p == '+' || *p == '-') ++p;
  size_t nDigits = 0;
  while (isDigit(*p)) ++p, ++nDigits;
  if (*p == '.') {
    ++p;
    while (isDigit(*p)) ++p, ++nDigits;
  }
  if (nDigits == 0) return 0;
  if (*p == 'e' || *p == 'E') {
    ++p;
    if (*p == '+' || *p == '-') ++p;
    size_t nExponent = 0;
    while (isDigit(*p)) ++p, ++nExponent;
    if (nExponent == 0) return 0;
  }
  if (*p) return 0;
  char* pEnd = NULL;
  double value = strtod(text, &pEnd);
  /* A decimal point other than "." (a foreign numeric locale) stops
   * strtod() early: refuse rather than read a different number. */
  if (pEnd != p) return 0;
  /* Values from FLT_MAX plus half a step on round to infinity. */
  if (!(fabs(value) < (double)FLT_MAX + ldexp(1.0, 103))) return 0;
  *out = (float)value;
  return 1;
}

/* formatFloat(): the shortest "%g" form of `value` that reads back as the
 * same float, written without exponent for magnitudes from 1 up to 1e9
 * ("100", not "1e+02"). */
static void formatFloat(float value, char* buffer, size_t size) {
  int nDigits = 1;
  for (; nDigits < 9; ++nDigits) {
    snprintf(buffer, size, "%.*g", nDigits, (double)value);
    float back;
    if (Dapi2_I_TextToFloat(buffer, &back) && back == value) break;
  }
  snprintf(buffer, size, "%.*g", nDigits, (double)value);
  double magnitude = fabs((double)value);
  if (magnitude < 1.0 || magnitude >= 1e9) return;
  int nWhole = (int)floor(log10(magnitude)) + 1;
  if (nWhole <= nDigits) return;
  char plain[DAPI2_NUMBER_SIZE];
  snprintf(plain, sizeof plain, "%.*g", nWhole, (double)value);
  float back;
  if (Dapi2_I_TextToFloat(plain, &back) && back == value) {
    snprintf(buffer, size, "%s", plain);
  }
}

/* slotText(): where a value slot keeps its text. */
static char** slotText(Dapi2Parameter* param, int slot) {
  switch (slot) {
    case DAPI2_SLOT_DEFAULT:
      return &param->defaultValue;
    case DAPI2_SLOT_MIN:
      return &param->minValue;
    case DAPI2_SLOT_MAX:
      return &param->maxValue;
    default:
      return &param->value;
  }
}

/* storeSlot(): a copy of `text` into the slot, and its has-flag set. */
static int storeSlot(Dapi2Parameter* param, int slot, const char* text) {
  if (!param || !text) return 0;
  if (!replaceText(slotText(param, slot), text)) return 0;
  if (slot == DAPI2_SLOT_DEFAULT) param->hasDefault = 1;
  if (slot == DAPI2_SLOT_MIN) param->hasMin = 1;
  if (slot == DAPI2_SLOT_MAX) param->hasMax = 1;
  return 1;
}

/* storeInt32(), storeUInt32(), storeBool(), storeFloat(): the plain text
 * of a number into a slot. */
static int storeInt32(Dapi2Parameter* param, int slot, int32_t value) {
  char text[DAPI2_NUMBER_SIZE];
  snprintf(text, sizeof text, "%ld", (long)value);
  return storeSlot(param, slot, text);
}

static int storeUInt32(Dapi2Parameter* param, int slot, uint32_t value) {
  char text[DAPI2_NUMBER_SIZE];
  snprintf(text, sizeof text, "%lu", (unsigned long)value);
  return storeSlot(param, slot, text);
}

static int storeBool(Dapi2Parameter* param, int slot, int value) {
  return storeSlot(param, slot, value ? "1" : "0");
}

static int storeFloat(Dapi2Parameter* param, int slot, float value) {
  if (!isfinite(value)) return 0;
  char text[DAPI2_NUMBER_SIZE];
  formatFloat(value, text, sizeof text);
  return storeSlot(param, slot, text);
}

/* Dapi2_I_SetSlotByType(): convert by type, store the plain form. */
int Dapi2_I_SetSlotByType(Dapi2Parameter* param, int slot, const char* text) {
  if (!param || !text) return 0;
  switch (param->type) {
    case DAPI2_PARAM_INT32: {
      int32_t value;
      return Dapi2_I_TextToInt32(text, &value) &&
             storeInt32(param, slot, value);
    }
    case DAPI2_PARAM_UINT32: {
      uint32_t value;
      return Dapi2_I_TextToUInt32(text, &value) &&
             storeUInt32(param, slot, value);
    }
    case DAPI2_PARAM_BOOL: {
      int value;
      return Dapi2_I_TextToBool(text, &value) && storeBool(param, slot, value);
    }
    case DAPI2_PARAM_FLOAT: {
      float value;
      return Dapi2_I_TextToFloat(text, &value) &&
             storeFloat(param, slot, value);
    }
    default:
      return storeSlot(param, slot, text);
  }
}

/* readInt32(), readUInt32(), readBool(), readFloat(): a slot's text
 * converted; 0 stored on failure. */
static int readInt32(const char* text, int32_t* out) {
  if (!out) return 0;
  *out = 0;
  return Dapi2_I_TextToInt32(text, out);
}

static int readUInt32(const char* text, uint32_t* out) {
  if (!out) return 0;
  *out = 0;
  return Dapi2_I_TextToUInt32(text, out);
}

static int readBool(const char* text, int* out) {
  if (!out) return 0;
  *out = 0;
  return Dapi2_I_TextToBool(text, out);
}

static int readFloat(const char* text, float* out) {
  if (!out) return 0;
  *out = 0.0f;
  return Dapi2_I_TextToFloat(text, out);
}

/* ---- Parameter records ------------------------------------------------------
 */

/* Dapi2_InitParameter(): everything empty, type string. */
int Dapi2_InitParameter(Dapi2Parameter* param) {
  if (!param) return 0;
  memset(param, 0, sizeof *param);
  param->type = DAPI2_PARAM_STRING;
  param->validFlag = DAPI2_VALID;
  return 1;
}

/* Dapi2_DestructParameter(): frees every text. */
void Dapi2_DestructParameter(Dapi2Parameter* param) {
  if (!param) return;
  freeText(param->id);
  freeText(param->name);
  freeText(param->description);
  freeText(param->mask);
  freeText(param->value);
  freeText(param->defaultValue);
  freeText(param->minValue);
  freeText(param->maxValue);
  Dapi2_InitParameter(param);
}

/* destructParameterData(): the destroy function of a parameter list. */
static void destructParameterData(void* data) {
  Dapi2_DestructParameter((Dapi2Parameter*)data);
}

/* Dapi2_ParamListConstruct(): an empty owning list. */
int Dapi2_ParamListConstruct(Dapi2ParamList* list) {
  if (!list) return 0;
  CGenListConstruct(&list->list, 1, destructParameterData);
  list->current = list->list.tail;
  return 1;
}

/* Dapi2_ParamListDestruct(): every parameter released. */
void Dapi2_ParamListDestruct(Dapi2ParamList* list) {
  if (!list || !list->list.head) return;
  CGenListDestruct(&list->list);
  list->current = list->list.tail;
}

/* Dapi2_AddParameter(): appends; the list owns it. */
int Dapi2_AddParameter(Dapi2ParamList* list, Dapi2Parameter* param) {
  if (!list || !param || !list->list.head) return 0;
  return CGenListPushBack(&list->list, param);
}

/* isDataNode(): `it` is a parameter of `list`, not a sentinel. */
static int isDataNode(const Dapi2ParamList* list, CGenListIter it) {
  return it && it != list->list.head && it != list->list.tail;
}

/* Dapi2_DeleteCurrentParameter(): erase, position back one. */
int Dapi2_DeleteCurrentParameter(Dapi2ParamList* list) {
  if (!list || !list->list.head || !isDataNode(list, list->current)) return 0;
  CGenListIter pBefore = list->current->prev;
  CGenListIter pAfter;
  CGenListErase(&pAfter, &list->list, list->current);
  list->current = pBefore;
  return 1;
}

/* Dapi2_I_GetFirstParameter(): position at the first parameter. */
Dapi2Parameter* Dapi2_I_GetFirstParameter(Dapi2ParamList* list) {
  if (!list || !list->list.head) return NULL;
  CGenListIterInit(&list->current, &list->list);
  if (CGenListIterAtEnd(list->current)) return NULL;
  return (Dapi2Parameter*)CGenListIterGetData(list->current);
}

/* Dapi2_I_GetNextParameter(): one on; stays at the end. */
Dapi2Parameter* Dapi2_I_GetNextParameter(Dapi2ParamList* list) {
  if (!list || !list->list.head || !list->current) return NULL;
  if (CGenListIterAtEnd(list->current)) return NULL;
  CGenListIterAdv(&list->current);
  if (CGenListIterAtEnd(list->current)) return NULL;
  return (Dapi2Parameter*)CGenListIterGetData(list->current);
}

/* Dapi2_I_GetFirstParameterConst(): the walk with the caller's position. */
const Dapi2Parameter* Dapi2_I_GetFirstParameterConst(const Dapi2ParamList* list,
                                                     CGenListIter* pos) {
  if (!list || !pos || !list->list.head) return NULL;
  CGenListIterInit(pos, &list->list);
  if (CGenListIterAtEnd(*pos)) return NULL;
  return (const Dapi2Parameter*)CGenListIterGetData(*pos);
}

/* Dapi2_I_GetNextParameterConst(): one on; stays at the end. */
const Dapi2Parameter* Dapi2_I_GetNextParameterConst(const Dapi2ParamList* list,
                                                    CGenListIter* pos) {
  if (!list || !pos || !*pos || !list->list.head) return NULL;
  if (CGenListIterAtEnd(*pos)) return NULL;
  CGenListIterAdv(pos);
  if (CGenListIterAtEnd(*pos)) return NULL;
  return (const Dapi2Parameter*)CGenListIterGetData(*pos);
}

/* Dapi2_I_SetModuleParamList(), Dapi2_I_GetModuleParamList(): the running
 * module's list. */
void Dapi2_I_SetModuleParamList(Dapi2ParamList* list) {
  dapi2.pParamList = list;
}

Dapi2ParamList* Dapi2_I_GetModuleParamList(void) { return dapi2.pParamList; }

/* Dapi2_GetFirstParameter(), Dapi2_GetNextParameter(): over the module's
 * list. */
Dapi2Parameter* Dapi2_GetFirstParameter(void) {
  return Dapi2_I_GetFirstParameter(dapi2.pParamList);
}

Dapi2Parameter* Dapi2_GetNextParameter(void) {
  return Dapi2_I_GetNextParameter(dapi2.pParamList);
}

/* Field accessors. */
const char* Dapi2_GetParameterId(const Dapi2Parameter* param) {
  return param ? param->id : NULL;
}

int Dapi2_SetParameterId(Dapi2Parameter* param, const char* text) {
  return param && text && replaceText(&param->id, text);
}

int32_t Dapi2_GetParameterType(const Dapi2Parameter* param) {
  return param ? param->type : -1;
}

int Dapi2_SetParameterType(Dapi2Parameter* param, int32_t type) {
  if (!param) return 0;
  param->type = type;
  return 1;
}

const char* Dapi2_GetParameterName(const Dapi2Parameter* param) {
  return param ? param->name : NULL;
}

int Dapi2_SetParameterName(Dapi2Parameter* param, const char* text) {
  return param && text && replaceText(&param->name, text);
}

const char* Dapi2_GetParameterDescription(const Dapi2Parameter* param) {
  return param ? param->description : NULL;
}

int Dapi2_SetParameterDescription(Dapi2Parameter* param, const char* text) {
  return param && text && replaceText(&param->description, text);
}

int Dapi2_GetParameterMustBeSet(const Dapi2Parameter* param) {
  return param ? param->mustBeSet : 0;
}

int Dapi2_SetParameterMustBeSet(Dapi2Parameter* param, int value) {
  if (!param) return 0;
  param->mustBeSet = value;
  return 1;
}

int Dapi2_GetParameterRecommendValidate(const Dapi2Parameter* param) {
  return param ? param->recommendValidate : 0;
}

int Dapi2_SetParameterRecommendValidate(Dapi2Parameter* param, int value) {
  if (!param) return 0;
  param->recommendValidate = value;
  return 1;
}

const char* Dapi2_GetParameterMask(const Dapi2Parameter* param) {
  return param ? param->mask : NULL;
}

int Dapi2_SetParameterMask(Dapi2Parameter* param, const char* text) {
  return param && text && replaceText(&param->mask, text);
}

int32_t Dapi2_GetParameterValidFlag(const Dapi2Parameter* param) {
  return param ? param->validFlag : -1;
}

int Dapi2_SetParameterValidFlag(Dapi2Parameter* param, int32_t flag) {
  if (!param) return 0;
  param->validFlag = flag;
  return 1;
}

/* The current value. */
int Dapi2_GetParameterValAsInt32(const Dapi2Parameter* param, int32_t* out) {
  return readInt32(param ? param->value : NULL, out);
}

int Dapi2_GetParameterValAsUInt32(const Dapi2Parameter* param, uint32_t* out) {
  return readUInt32(param ? param->value : NULL, out);
}

int Dapi2_GetParameterValAsBool(const Dapi2Parameter* param, int* out) {
  return readBool(param ? param->value : NULL, out);
}

int Dapi2_GetParameterValAsFloat(const Dapi2Parameter* param, float* out) {
  return readFloat(param ? param->value : NULL, out);
}

const char* Dapi2_GetParameterValAsStr(const Dapi2Parameter* param) {
  return param ? param->value : NULL;
}

int Dapi2_SetParameterValFromInt32(Dapi2Parameter* param, int32_t value) {
  return storeInt32(param, DAPI2_SLOT_VALUE, value);
}

int Dapi2_SetParameterValFromUInt32(Dapi2Parameter* param, uint32_t value) {
  return storeUInt32(param, DAPI2_SLOT_VALUE, value);
}

int Dapi2_SetParameterValFromBool(Dapi2Parameter* param, int value) {
  return storeBool(param, DAPI2_SLOT_VALUE, value);
}

int Dapi2_SetParameterValFromFloat(Dapi2Parameter* param, float value) {
  return storeFloat(param, DAPI2_SLOT_VALUE, value);
}

int Dapi2_SetParameterValFromStr(Dapi2Parameter* param, const char* text) {
  return storeSlot(param, DAPI2_SLOT_VALUE, text);
}

/* The default value. */
int Dapi2_GetParameterHasDefaultValue(const Dapi2Parameter* param) {
  return param ? param->hasDefault : 0;
}

int Dapi2_GetParameterDefaultValAsInt32(const Dapi2Parameter* param,
                                        int32_t* out) {
  return readInt32(param ? param->defaultValue : NULL, out);
}

int Dapi2_GetParameterDefaultValAsUInt32(const Dapi2Parameter* param,
                                         uint32_t* out) {
  return readUInt32(param ? param->defaultValue : NULL, out);
}

int Dapi2_GetParameterDefaultValAsBool(const Dapi2Parameter* param, int* out) {
  return readBool(param ? param->defaultValue : NULL, out);
}

int Dapi2_GetParameterDefaultValAsFloat(const Dapi2Parameter* param,
                                        float* out) {
  return readFloat(param ? param->defaultValue : NULL, out);
}

const char* Dapi2_GetParameterDefaultValAsStr(const Dapi2Parameter* param) {
  return param ? param->defaultValue : NULL;
}

int Dapi2_SetParameterDefaultValFromInt32(Dapi2Parameter* param,
                                          int32_t value) {
  return storeInt32(param, DAPI2_SLOT_DEFAULT, value);
}

int Dapi2_SetParameterDefaultValFromUInt32(Dapi2Parameter* param,
                                           uint32_t value) {
  return storeUInt32(param, DAPI2_SLOT_DEFAULT, value);
}

int Dapi2_SetParameterDefaultValFromBool(Dapi2Parameter* param, int value) {
  return storeBool(param, DAPI2_SLOT_DEFAULT, value);
}

int Dapi2_SetParameterDefaultValFromFloat(Dapi2Parameter* param, float value) {
  return storeFloat(param, DAPI2_SLOT_DEFAULT, value);
}

int Dapi2_SetParameterDefaultValFromStr(Dapi2Parameter* param,
                                        const char* text) {
  return storeSlot(param, DAPI2_SLOT_DEFAULT, text);
}

/* The bounds. */
int Dapi2_GetParameterHasMinVal(const Dapi2Parameter* param) {
  return param ? param->hasMin : 0;
}

int Dapi2_GetParameterHasMaxVal(const Dapi2Parameter* param) {
  return param ? param->hasMax : 0;
}

int Dapi2_GetParameterMinValAsInt32(const Dapi2Parameter* param, int32_t* out) {
  return readInt32(param ? param->minValue : NULL, out);
}

int Dapi2_GetParameterMinValAsUInt32(const Dapi2Parameter* param,
                                     uint32_t* out) {
  return readUInt32(param ? param->minValue : NULL, out);
}

int Dapi2_GetParameterMinValAsFloat(const Dapi2Parameter* param, float* out) {
  return readFloat(param ? param->minValue : NULL, out);
}

const char* Dapi2_GetParameterMinValAsStr(const Dapi2Parameter* param) {
  return param ? param->minValue : NULL;
}

int Dapi2_SetParameterMinValFromInt32(Dapi2Parameter* param, int32_t value) {
  return storeInt32(param, DAPI2_SLOT_MIN, value);
}

int Dapi2_SetParameterMinValFromUInt32(Dapi2Parameter* param, uint32_t value) {
  return storeUInt32(param, DAPI2_SLOT_MIN, value);
}

int Dapi2_SetParameterMinValFromFloat(Dapi2Parameter* param, float value) {
  return storeFloat(param, DAPI2_SLOT_MIN, value);
}

int Dapi2_SetParameterMinValFromStr(Dapi2Parameter* param, const char* text) {
  return storeSlot(param, DAPI2_SLOT_MIN, text);
}

int Dapi2_GetParameterMaxValAsInt32(const Dapi2Parameter* param, int32_t* out) {
  return readInt32(param ? param->maxValue : NULL, out);
}

int Dapi2_GetParameterMaxValAsUInt32(const Dapi2Parameter* param,
                                     uint32_t* out) {
  return readUInt32(param ? param->maxValue : NULL, out);
}

int Dapi2_GetParameterMaxValAsFloat(const Dapi2Parameter* param, float* out) {
  return readFloat(param ? param->maxValue : NULL, out);
}

const char* Dapi2_GetParameterMaxValAsStr(const Dapi2Parameter* param) {
  return param ? param->maxValue : NULL;
}

int Dapi2_SetParameterMaxValFromInt32(Dapi2Parameter* param, int32_t value) {
  return storeInt32(param, DAPI2_SLOT_MAX, value);
}

int Dapi2_SetParameterMaxValFromUInt32(Dapi2Parameter* param, uint32_t value) {
  return storeUInt32(param, DAPI2_SLOT_MAX, value);
}

int Dapi2_SetParameterMaxValFromFloat(Dapi2Parameter* param, float value) {
  return storeFloat(param, DAPI2_SLOT_MAX, value);
}

int Dapi2_SetParameterMaxValFromStr(Dapi2Parameter* param, const char* text) {
  return storeSlot(param, DAPI2_SLOT_MAX, text);
}

/* Dapi2_AssignParameterFromXML(): ID and VALID_FLAG required, bounds
 * converted by type. */
int Dapi2_AssignParameterFromXML(Dapi2Parameter* param, const char* element,
                                 int* assigned) {
  if (assigned) *assigned = 0;
  if (!param || !element || !assigned) return 0;
  char field[DAPI2_XML_FIELD_SIZE];
  char flag[DAPI2_XML_FIELD_SIZE];
  if (ZorvXmlGetField(element, "ID", 0, field, sizeof field) != 0 ||
      ZorvXmlGetField(element, "VALID_FLAG", 0, flag, sizeof flag) != 0) {
    return 1;
  }
  if (!Dapi2_SetParameterId(param, field)) return 0;
  param->validFlag = ParameterValidFlagStrToType(flag);
  if (ZorvXmlGetField(element, "MIN_VALUE", 0, field, sizeof field) == 0 &&
      !Dapi2_I_SetSlotByType(param, DAPI2_SLOT_MIN, field)) {
    return 0;
  }
  if (ZorvXmlGetField(element, "MAX_VALUE", 0, field, sizeof field) == 0 &&
      !Dapi2_I_SetSlotByType(param, DAPI2_SLOT_MAX, field)) {
    return 0;
  }
  *assigned = 1;
  return 1;
}

/* ---- Percentage ---------------------------------------------------------- */

/* Dapi2_I_SetPercentageToTest(): set by the predefined parameter. */
void Dapi2_I_SetPercentageToTest(float percent) {
  dapi2.percentToTest = percent;
}

/* Dapi2_GetFloatPercentageToTest(): the percentage. */
float Dapi2_GetFloatPercentageToTest(void) { return dapi2.percentToTest; }

/* Dapi2_GetPercentageToTest(): truncated toward zero. */
int Dapi2_GetPercentageToTest(void) { return (int)dapi2.percentToTest; }
