// Tests of the module's device registry: the creators with their keywords,
// locators and bus words, the pending and device lists, FRU data, system
// information, standard names, and the enumeration and system-information
// messages (captured through the send seam, and once through the test
// peer). Each TEST runs in its own process, so the lists start empty.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "support/dapi2_seams.h"
#include "support/test_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/genlist.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"

namespace {

// ---- Seams ----------------------------------------------------------------

std::vector<std::string>& gSent = zorvtest::SentMessages();
int& gSendResult = zorvtest::SendResult();
using ScopedCapture = zorvtest::ScopedSendCapture;
using zorvtest::ScopedAllocFailure;

// Switches on the program's trace category into a file of the test's
// directory; call before anything traces. Returns its path.
std::string traceToFile() {
  std::string path = std::string(ZorvGetPipeDirectory()) + "/trace.txt";
  setenv("ZORV_TRACE", "diag,pv", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  return path;
}

// ---- Helpers
// ------------------------------------------------------------------

int countOf(const CGenList* list) { return CGenListGetCount(list); }

// Device at position `i` of a list.
Dapi2Device* deviceAt(CGenList* list, int i) {
  CGenListIter it;
  CGenListIterInit(&it, list);
  for (; i > 0 && !CGenListIterAtEnd(it); --i) CGenListIterAdv(&it);
  return CGenListIterAtEnd(it) ? nullptr
                               : (Dapi2Device*)CGenListIterGetData(it);
}

std::string str(const char* text) { return text ? text : "<null>"; }

std::string enumData() {
  CGenStr data;
  EXPECT_EQ(1, CGenStrInit(&data));
  EXPECT_EQ(0, Dapi2_I_BuildEnumData(&data));
  std::string text = CGenStrC_Str(&data);
  CGenStrDelete(&data);
  return text;
}

// The three devices of the enumeration example: a CD drive with FRU data
// and two additional infos, a serial port with system information, and
// memory with nothing more.
void addThreeDevices() {
  Dapi2Device* cd = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceSCSI("CD", 1, "cd", "/dev/sr0",
                                      "DVD-ROM drive", 0, 0, 3, 0, &cd));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(cd));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(cd, "Acme", "CDX-52", "SN123", "1.02",
                                    "2003-04-15", "Bay 2"));
  ASSERT_EQ(
      0, Dapi2_AddFruAdditionalInfoToDevice(cd, "Speed", "Read speed", "52x"));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(cd, "Buffer", "Buffer size",
                                                  "2048 KB"));
  ASSERT_EQ(0, Dapi2_AddTestsToDevice(cd, "1,2,3"));
  ASSERT_EQ(0, Dapi2_AddDevice(cd));

  Dapi2Device* com = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDevicePort("COM", 2, "com", "/dev/ttyS0",
                                      "Serial port", 1, 0x3f8, &com));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(com));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(com, "Interrupt", "IRQ", "4"));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(com, "Base address", "IO", "0x3F8"));
  ASSERT_EQ(0, Dapi2_AddDevice(com));

  Dapi2Device* mem = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceMemory("MEMORY", 3, "memory", "/dev/mem",
                                        "System memory", 0, &mem));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(mem));
  ASSERT_EQ(0, Dapi2_AddDevice(mem));
}

std::string golden(const char* name) {
  std::string text = zorvtest::ReadFile(zorvtest::DataPath(name));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.pop_back();
  return text;
}

// "<MSG>" header "<DATA>..." "</MSG>\r\n" as the module sends it.
std::string envelope(const std::string& header, const std::string& data) {
  return "<MSG>" + header + data + "</MSG>\r\n";
}

std::string header(const std::string& id, const std::string& re,
                   const std::string& type, const std::string& time) {
  std::string h = "<HDR><FROM>" + std::to_string(ZorvGetClientPid()) +
                  "</FROM><TO>DIAGENGINE</TO><ID>" + id + "</ID>";
  if (!re.empty()) h += "<RE>" + re + "</RE>";
  return h + "<TYPE>" + type + "</TYPE><TIME>" + time + "</TIME></HDR>";
}

// 2003-04-15 12:24:56 UTC.
const int64_t kFakeSeconds = 1050409496;
const char kFakeTime[] = "20030415122456000";

}  // namespace

// ---- Creators -------------------------------------------------------------

// Every creator with an accepted keyword: locator, bus word, the texts as
// given, tests "*", and the device on the pending list only.
TEST(Dapi2CreateDevice, BuildsLocatorAndBusForEveryCreator) {
  using Create = std::function<int(Dapi2Device**)>;
  struct Row {
    const char* name;
    const char* type;
    Create create;
    const char* locator;
    const char* bus;
  } rows[] = {
      {"Bus PCI", "PCI",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceBus("PCI", 5, "n", "os", "de", 2, d);
       },
       "PCI:2", "SYSTEM_BUS"},
      {"Bus 1394", "1394",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceBus("1394", 5, "n", "os", "de", 3, d);
       },
       "1394:3", "SYSTEM_BUS"},
      {"Bus PCMCIA", "PCMCIA",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceBus("PCMCIA", 5, "n", "os", "de", 4, d);
       },
       "PCMCIA:4", "SYSTEM_BUS"},
      {"Modem", "MODEM",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceModem("MODEM", 5, "n", "os", "de", 2, d);
       },
       "MODEM:2", "COM_BUS"},
      {"FD", "FD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceFD("FD", 5, "n", "os", "de", 0, d);
       },
       "FD:0", "SYSTEM_BUS"},
      {"SCSI", "CD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSCSI("CD", 5, "n", "os", "de", 1, 2, 3, 4, d);
       },
       "SCSI:1:2:3:4", "SCSI_BUS"},
      {"1394", "HD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevice1394("HD", 5, "n", "os", "de", 7, 8, 9, d);
       },
       "1394:7:8:9", "SYSTEM_BUS"},
      {"IDE", "HD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceIDE("HD", 5, "n", "os", "de", 1, 0, d);
       },
       "IDE:1:0", "IDE_BUS"},
      {"USB", "HUB",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceUSB("HUB", 5, "n", "os", "de", 3, d);
       },
       "USB:3", "USB_BUS"},
      {"Net", "NET",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceNet("NET", 5, "n", "os", "de", 0x00, 0x0a,
                                      0xb5, 0xff, 0x10, 0x01, d);
       },
       "NET:00:0A:B5:FF:10:01", "SYSTEM_BUS"},
      {"Port COM", "COM",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePort("COM", 5, "n", "os", "de", 1, 0x3f8, d);
       },
       "COM:1:03f8", "SYSTEM_BUS"},
      {"Port LPT", "LPT",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePort("LPT", 5, "n", "os", "de", 1, 0x378, d);
       },
       "LPT:1:0378", "SYSTEM_BUS"},
      {"Port IR", "IR",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePort("IR", 5, "n", "os", "de", 2, 0x2f8, d);
       },
       "IR:2:02f8", "SYSTEM_BUS"},
      {"Printer", "PRINTER",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePrinter("PRINTER", 5, "n", "os", "de", 1, d);
       },
       "PRINT:1", "SYSTEM_BUS"},
      {"CPU", "CPU",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceCPU("CPU", 5, "n", "os", "de", 0, d);
       },
       "CPU:0", "SYSTEM_BUS"},
      {"Sys RTC", "RTC",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSys("RTC", 5, "n", "os", "de", d);
       },
       "RTC", "SYSTEM_BUS"},
      {"Sys CMOS", "CMOS",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSys("CMOS", 5, "n", "os", "de", d);
       },
       "CMOS", "SYSTEM_BUS"},
      {"Sys KBD", "KBD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSys("KBD", 5, "n", "os", "de", d);
       },
       "KBD", "SYSTEM_BUS"},
      {"Sys MOUSE", "MOUSE",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSys("MOUSE", 5, "n", "os", "de", d);
       },
       "MOUSE", "SYSTEM_BUS"},
      {"Sys SYSTEM", "SYSTEM",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceSys("SYSTEM", 5, "n", "os", "de", d);
       },
       "SYSTEM", "SYSTEM_BUS"},
      {"Memory", "MEMORY",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMemory("MEMORY", 5, "n", "os", "de", 0, d);
       },
       "MEM:0", "SYSTEM_BUS"},
      {"PCI", "VIDEOCONTROLLER",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePCI("VIDEOCONTROLLER", 5, "n", "os", "de", 1,
                                      2, 3, d);
       },
       "PCI:1:2:3", "PCI_BUS"},
      {"AGP", "VIDEOCONTROLLER",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceAGP("VIDEOCONTROLLER", 5, "n", "os", "de", 1,
                                      0, 0, d);
       },
       "AGP:1:0:0", "AGP_BUS"},
      {"PS2 KBD", "KBD",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePS2("KBD", 5, "n", "os", "de", d);
       },
       "PS2KB", "PS2_BUS"},
      {"PS2 MOUSE", "MOUSE",
       [](Dapi2Device** d) {
         return Dapi2_CreateDevicePS2("MOUSE", 5, "n", "os", "de", d);
       },
       "PS2MOUSE", "PS2_BUS"},
      {"COM", "COM",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceCOM("COM", 5, "n", "os", "de", 2, 0x2f8, d);
       },
       "COM:2:02f8", "COM_BUS"},
      {"Monitor", "DISPLAY",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMonitor("DISPLAY", 5, "n", "os", "de", 1, d);
       },
       "MON:1", "SYSTEM_BUS"},
      {"MM GAMEINPUT", "GAMEINPUT",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMM("GAMEINPUT", 5, "n", "os", "de", 1, d);
       },
       "JOY:1", "SYSTEM_BUS"},
      {"MM MICROPHONE", "MICROPHONE",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMM("MICROPHONE", 5, "n", "os", "de", 2, d);
       },
       "MIC:2", "SYSTEM_BUS"},
      {"MM CAMERA", "CAMERA",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMM("CAMERA", 5, "n", "os", "de", 3, d);
       },
       "CAMERA:3", "SYSTEM_BUS"},
      {"MM SCANNER", "SCANNER",
       [](Dapi2Device** d) {
         return Dapi2_CreateDeviceMM("SCANNER", 5, "n", "os", "de", 4, d);
       },
       "SCAN:4", "SYSTEM_BUS"},
  };
  int nPending = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Dapi2Device* device = nullptr;
    ASSERT_EQ(0, row.create(&device));
    ASSERT_NE(nullptr, device);
    ++nPending;
    EXPECT_EQ(5u, Dapi2_GetDeviceId(device));
    EXPECT_STREQ(row.type, Dapi2_GetDeviceDevType(device));
    EXPECT_STREQ("n", Dapi2_GetDeviceName(device));
    EXPECT_STREQ("os", Dapi2_GetDeviceOsLocator(device));
    EXPECT_STREQ("de", Dapi2_GetDeviceDescription(device));
    EXPECT_STREQ(row.locator, Dapi2_GetDeviceHwLocator(device));
    EXPECT_STREQ(row.bus, Dapi2_GetDeviceBusType(device));
    EXPECT_STREQ("*", Dapi2_GetDeviceTestsSupported(device));
    EXPECT_EQ(nullptr, Dapi2_GetDeviceFruInfo(device));
    EXPECT_EQ(nullptr, Dapi2_GetDeviceSysInfo(device));
    EXPECT_EQ(nPending, countOf(Dapi2_I_PendingList()));
    EXPECT_EQ(device, deviceAt(Dapi2_I_PendingList(), nPending - 1));
  }
  EXPECT_EQ(0, countOf(Dapi2_I_DeviceList()));
  Dapi2_KillDeviceList();
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
}

// Restricted keywords: another word, another letter case or null -> 22,
// nothing created, the handle left alone.
TEST(Dapi2CreateDevice, RejectsKeywordsOutsideItsList) {
  using Create = std::function<int(const char*, Dapi2Device**)>;
  struct Row {
    const char* name;
    Create create;
    std::vector<const char*> rejected;
  } rows[] = {
      {"Bus",
       [](const char* t, Dapi2Device** d) {
         return Dapi2_CreateDeviceBus(t, 1, "n", "o", "d", 0, d);
       },
       {"ISA", "pci", "USB", ""}},
      {"Port",
       [](const char* t, Dapi2Device** d) {
         return Dapi2_CreateDevicePort(t, 1, "n", "o", "d", 1, 0x3f8, d);
       },
       {"USB", "com", "MODEM", ""}},
      {"Sys",
       [](const char* t, Dapi2Device** d) {
         return Dapi2_CreateDeviceSys(t, 1, "n", "o", "d", d);
       },
       {"PCI", "rtc", "KEYBOARD", ""}},
      {"PS2",
       [](const char* t, Dapi2Device** d) {
         return Dapi2_CreateDevicePS2(t, 1, "n", "o", "d", d);
       },
       {"COM", "kbd", "SYSTEM", ""}},
      {"MM",
       [](const char* t, Dapi2Device** d) {
         return Dapi2_CreateDeviceMM(t, 1, "n", "o", "d", 1, d);
       },
       {"JOY", "camera", "MIC", ""}},
  };
  Dapi2Device sentinel;
  for (const Row& row : rows) {
    for (const char* type : row.rejected) {
      SCOPED_TRACE(std::string(row.name) + " " + type);
      Dapi2Device* device = &sentinel;
      EXPECT_EQ(22, row.create(type, &device));
      EXPECT_EQ(&sentinel, device);
    }
    SCOPED_TRACE(std::string(row.name) + " null");
    EXPECT_EQ(22, row.create(nullptr, nullptr));
  }
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
}

// Bus "ISA" -> 22.
TEST(Dapi2CreateDeviceBus, RejectsIsaKeyword) {
  Dapi2Device* device = nullptr;
  EXPECT_EQ(22, Dapi2_CreateDeviceBus("ISA", 1, "n", "o", "d", 0, &device));
  EXPECT_EQ(nullptr, device);
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
}

// Port 0 -> 22 and nothing created; port 1 is fine.
TEST(Dapi2CreateDeviceModem, RejectsPortZeroAndCreatesNothing) {
  Dapi2Device* device = nullptr;
  EXPECT_EQ(22, Dapi2_CreateDeviceModem("MODEM", 1, "n", "/dev/ttyS0", "d", 0,
                                        &device));
  EXPECT_EQ(nullptr, device);
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(0, Dapi2_CreateDeviceModem("MODEM", 1, "n", "/dev/ttyS0", "d", 1,
                                       &device));
  EXPECT_EQ(1, countOf(Dapi2_I_PendingList()));
  Dapi2_KillDeviceList();
}

TEST(Dapi2CreateDevice, AcceptsAnyKeywordWhereUnrestricted) {
  Dapi2Device* device = nullptr;
  EXPECT_EQ(
      0, Dapi2_CreateDeviceUSB("whatever it is", 1, "n", "o", "d", 1, &device));
  EXPECT_STREQ("whatever it is", Dapi2_GetDeviceDevType(device));
  EXPECT_EQ(0, Dapi2_CreateDeviceCPU(nullptr, 2, nullptr, nullptr, nullptr, 0,
                                     &device));
  EXPECT_STREQ("", Dapi2_GetDeviceDevType(device));
  EXPECT_STREQ("", Dapi2_GetDeviceName(device));
  EXPECT_STREQ("", Dapi2_GetDeviceOsLocator(device));
  EXPECT_STREQ("", Dapi2_GetDeviceDescription(device));
  Dapi2_KillDeviceList();
}

// ISA and Generic create nothing and return 0.
TEST(Dapi2CreateDeviceISA, CreatesNothingAndReturnsZero) {
  Dapi2Device sentinel;
  Dapi2Device* device = &sentinel;
  EXPECT_EQ(0, Dapi2_CreateDeviceISA("ISA", 1, "n", "o", "d", &device));
  EXPECT_EQ(nullptr, device);
  device = &sentinel;
  EXPECT_EQ(0, Dapi2_CreateDeviceGeneric("X", 1, "n", "o", "d", &device));
  EXPECT_EQ(nullptr, device);
  EXPECT_EQ(0, Dapi2_CreateDeviceISA("ISA", 1, "n", "o", "d", nullptr));
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
}

// Type "VIDEOCONTROLLER", id 3, PCI 1:0:0 -> PCI:1:0:0, PCI_BUS, and the
// name Video Card PCI:1:0:0.
TEST(Dapi2CreateDevicePCI, VideoControllerGetsLocatorBusAndStandardName) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDevicePCI("VIDEOCONTROLLER", 3, "vga", "/dev/fb0",
                                     "Graphics", 1, 0, 0, &device));
  EXPECT_STREQ("PCI:1:0:0", Dapi2_GetDeviceHwLocator(device));
  EXPECT_STREQ("PCI_BUS", Dapi2_GetDeviceBusType(device));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(device));
  EXPECT_STREQ("Video Card PCI:1:0:0", Dapi2_GetDeviceName(device));
  Dapi2_KillDeviceList();
}

TEST(Dapi2CreateDevice, CreatesWithoutHandle) {
  EXPECT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "n", "o", "d", 0, nullptr));
  EXPECT_EQ(1, countOf(Dapi2_I_PendingList()));
  Dapi2_KillDeviceList();
}

// Locator numbers at their 32-bit limit fit the 64-byte buffer whole.
TEST(Dapi2CreateDevice, FormatsLargestNumbersWhole) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceSCSI("HD", 4294967295u, "n", "o", "d",
                                      4294967295u, 4294967295u, 4294967295u,
                                      4294967295u, &device));
  EXPECT_STREQ("SCSI:4294967295:4294967295:4294967295:4294967295",
               Dapi2_GetDeviceHwLocator(device));
  EXPECT_EQ(4294967295u, Dapi2_GetDeviceId(device));
  ASSERT_EQ(0, Dapi2_CreateDevicePort("LPT", 1, "n", "o", "d", 4294967295u,
                                      0xffffffffUL, &device));
  EXPECT_STREQ("LPT:4294967295:ffffffff", Dapi2_GetDeviceHwLocator(device));
  Dapi2_KillDeviceList();
}

// "PCI:%u" style formats: one "%u" replaced; "%%" is "%"; a "%s" from a
// caller is kept as text; the result is cut at 63 characters.
TEST(Dapi2ICreateDeviceOneParam, ReplacesOnlyTheNumberAndCutsAtBuffer) {
  struct Row {
    const char* name;
    const char* format;
    std::string locator;
  } rows[] = {
      {"plain", "X:%u", "X:42"},
      {"percent", "%%:%u", "%:42"},
      {"second number stays", "%u:%u", "42:%u"},
      {"string conversion stays", "%s:%u:%n", "%s:42:%n"},
      {"no conversion", "FIXED", "FIXED"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Dapi2Device* device = nullptr;
    ASSERT_EQ(0, Dapi2_I_CreateDeviceOneParam("T", 1, "n", "o", "d", row.format,
                                              42, "B", &device));
    EXPECT_EQ(row.locator, Dapi2_GetDeviceHwLocator(device));
  }
  std::string longFormat(100, 'L');
  longFormat += "%u";
  Dapi2Device* device = nullptr;
  ASSERT_EQ(
      0, Dapi2_I_CreateDeviceOneParam("T", 1, "n", "o", "d", longFormat.c_str(),
                                      42, "B", &device));
  EXPECT_EQ(std::string(63, 'L'), Dapi2_GetDeviceHwLocator(device));
  EXPECT_EQ(22, Dapi2_I_CreateDeviceOneParam("T", 1, "n", "o", "d", nullptr, 42,
                                             "B", &device));
  Dapi2_KillDeviceList();
}

// The worker takes the description before the OS locator.
TEST(Dapi2ICreateDeviceWorker, TakesDescriptionBeforeOsLocator) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_I_CreateDeviceWorker(8, "name", "description", "os", "hw",
                                          "type", "bus", &device));
  EXPECT_STREQ("description", Dapi2_GetDeviceDescription(device));
  EXPECT_STREQ("os", Dapi2_GetDeviceOsLocator(device));
  EXPECT_STREQ("hw", Dapi2_GetDeviceHwLocator(device));
  EXPECT_STREQ("type", Dapi2_GetDeviceDevType(device));
  EXPECT_STREQ("bus", Dapi2_GetDeviceBusType(device));
  Dapi2Device* zero = nullptr;
  ASSERT_EQ(0, Dapi2_I_CreateDeviceZeroParam(
                   "type", 9, "name", "os", "description", "hw", "bus", &zero));
  EXPECT_STREQ("description", Dapi2_GetDeviceDescription(zero));
  EXPECT_STREQ("os", Dapi2_GetDeviceOsLocator(zero));
  Dapi2_KillDeviceList();
}

// Every allocation of a creation failing in turn -> 27, nothing pending,
// nothing leaked; then it succeeds.
TEST(Dapi2ICreateDeviceWorker, ReturnsOutOfMemoryForEachFailedAllocation) {
  int rc = -1;
  int nFailAt = 1;
  for (; nFailAt < 100 && rc != 0; ++nFailAt) {
    SCOPED_TRACE(nFailAt);
    ScopedAllocFailure failure(nFailAt);
    Dapi2Device* device = nullptr;
    rc = Dapi2_CreateDeviceSCSI("CD", 1, "n", "o", "d", 0, 0, 0, 0, &device);
    if (rc != 0) {
      EXPECT_EQ(27, rc);
      EXPECT_EQ(nullptr, device);
      EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
    }
  }
  EXPECT_EQ(0, rc);
  EXPECT_GT(nFailAt, 9);  // the record, eight texts and the list node
  Dapi2_KillDeviceList();
}

TEST(Dapi2CreateDevice, TracesAddedDevice) {
  std::string path = traceToFile();
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "n", "o", "d", 0, &device));
  char expected[64];
  snprintf(expected, sizeof expected, "Added device %p\n", (void*)device);
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos, trace.find(expected)) << trace;
  EXPECT_NE(std::string::npos, trace.find("dapi2.cpp:")) << trace;
  Dapi2_KillDeviceList();
}

// ---- Lists ------------------------------------------------------------------

TEST(Dapi2AddDevice, MovesDeviceFromPendingToDeviceList) {
  Dapi2Device* a = nullptr;
  Dapi2Device* b = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &a));
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 2, "b", "o", "d", 1, &b));
  EXPECT_EQ(2, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(0, Dapi2_AddDevice(b));
  EXPECT_EQ(1, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(a, deviceAt(Dapi2_I_PendingList(), 0));
  EXPECT_EQ(1, countOf(Dapi2_I_DeviceList()));
  EXPECT_EQ(b, deviceAt(Dapi2_I_DeviceList(), 0));
  EXPECT_EQ(0, Dapi2_AddDevice(a));
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(a, deviceAt(Dapi2_I_DeviceList(), 1));
  Dapi2_KillDeviceList();
  EXPECT_EQ(0, countOf(Dapi2_I_DeviceList()));
}

TEST(Dapi2AddDevice, ReturnsBadArgumentForNull) {
  EXPECT_EQ(22, Dapi2_AddDevice(nullptr));
}

// A second add of the same device keeps one entry (no double free).
TEST(Dapi2AddDevice, AddsDeviceOnlyOnce) {
  Dapi2Device* a = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &a));
  EXPECT_EQ(0, Dapi2_AddDevice(a));
  EXPECT_EQ(0, Dapi2_AddDevice(a));
  EXPECT_EQ(1, countOf(Dapi2_I_DeviceList()));
  Dapi2_KillDeviceList();
}

TEST(Dapi2AddDevice, KeepsDevicePendingWhenListNodeCannotBeAllocated) {
  Dapi2Device* a = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &a));
  Dapi2_I_DeviceList();
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(27, Dapi2_AddDevice(a));
  }
  EXPECT_EQ(1, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(0, countOf(Dapi2_I_DeviceList()));
  Dapi2_KillDeviceList();
}

// A device created but never added is not sent and is released by
// Dapi2_KillDeviceList (the leak checker of the sanitizer build proves it).
TEST(Dapi2KillDeviceList, ReleasesPendingDevicesNotInEnumeration) {
  Dapi2Device* kept = nullptr;
  Dapi2Device* dropped = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceCPU("CPU", 1, "kept", "o", "d", 0, &kept));
  ASSERT_EQ(0,
            Dapi2_CreateDeviceCPU("CPU", 2, "dropped", "o", "d", 1, &dropped));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(dropped, "m", "m", "s", "f", "d", "p"));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(dropped, "f", "d", "v"));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(dropped, "d", "k", "v"));
  ASSERT_EQ(0, Dapi2_AddDevice(kept));
  std::string data = enumData();
  EXPECT_NE(std::string::npos, data.find("<NAME>kept</NAME>"));
  EXPECT_EQ(std::string::npos, data.find("dropped"));
  Dapi2_KillDeviceList();
  EXPECT_EQ(0, countOf(Dapi2_I_PendingList()));
  EXPECT_EQ(0, countOf(Dapi2_I_DeviceList()));
  EXPECT_EQ("<DATA></DATA>", enumData());
}

TEST(Dapi2KillDeviceList, IsHarmlessOnEmptyAndUnconstructedLists) {
  Dapi2_KillDeviceList();
  Dapi2_KillDeviceList();
  EXPECT_EQ(0, countOf(Dapi2_I_DeviceList()));
}

TEST(Dapi2IKillDevice, ReleasesEverythingAndIgnoresNull) {
  Dapi2_I_KillDevice(nullptr);
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(device, "m", "m", "s", "f", "d", "p"));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(device, "d", "k", "v"));
  ASSERT_EQ(0, Dapi2_AddDevice(device));
  Dapi2_I_KillDevice(device);
  EXPECT_EQ(nullptr, Dapi2_GetDeviceName(device));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceFruInfo(device));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceSysInfo(device));
  Dapi2_KillDeviceList();
}

// ---- Getters --------------------------------------------------------------

TEST(Dapi2GetDeviceId, GivesMinusOneAndNullsForNullDevice) {
  EXPECT_EQ((uint32_t)-1, Dapi2_GetDeviceId(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceName(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceDescription(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceOsLocator(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceHwLocator(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceDevType(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceBusType(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceTestsSupported(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetTestsSupported(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceFruInfo(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetDeviceSysInfo(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruManufacturerName(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruModelNumber(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruSerialNumber(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruFirmwareRevision(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruFirmwareDate(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruPhysicalAddress(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruAdditionalInfoField(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruAdditionalInfoDescription(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFruAdditionalInfoValue(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetFirstFruAdditionalInfo(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetNextFruAdditionalInfo(nullptr));
}

// ---- Tests supported --------------------------------------------------------

TEST(Dapi2AddTestsToDevice, ReplacesSupportedTests) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  EXPECT_EQ(0, Dapi2_AddTestsToDevice(device, "1,4"));
  EXPECT_STREQ("1,4", Dapi2_GetDeviceTestsSupported(device));
  EXPECT_STREQ("1,4", Dapi2_GetTestsSupported(device));
  EXPECT_EQ(0, Dapi2_AddTestsToDevice(device, "2"));
  EXPECT_STREQ("2", Dapi2_GetTestsSupported(device));
  Dapi2_KillDeviceList();
}

TEST(Dapi2AddTestsToDevice, RejectsNullDeviceAndEmptyText) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  EXPECT_EQ(22, Dapi2_AddTestsToDevice(nullptr, "1"));
  EXPECT_EQ(22, Dapi2_AddTestsToDevice(device, ""));
  EXPECT_EQ(22, Dapi2_AddTestsToDevice(device, nullptr));
  EXPECT_STREQ("*", Dapi2_GetTestsSupported(device));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(27, Dapi2_AddTestsToDevice(device, "3"));
  }
  EXPECT_STREQ("*", Dapi2_GetTestsSupported(device));
  Dapi2_KillDeviceList();
}

// ---- FRU data
// ----------------------------------------------------------------

TEST(Dapi2AddFruToDevice, SetsSixTextsAndReplacesPreviousRecord) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(device, "f", "d", "v"));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(device, "Maker", "Model", "Serial", "Rev",
                                    "Date", "Slot"));
  Dapi2FruInfo* fru = Dapi2_GetDeviceFruInfo(device);
  ASSERT_NE(nullptr, fru);
  EXPECT_STREQ("Maker", Dapi2_GetFruManufacturerName(fru));
  EXPECT_STREQ("Model", Dapi2_GetFruModelNumber(fru));
  EXPECT_STREQ("Serial", Dapi2_GetFruSerialNumber(fru));
  EXPECT_STREQ("Rev", Dapi2_GetFruFirmwareRevision(fru));
  EXPECT_STREQ("Date", Dapi2_GetFruFirmwareDate(fru));
  EXPECT_STREQ("Slot", Dapi2_GetFruPhysicalAddress(fru));
  // The earlier record went with its additional information.
  EXPECT_EQ(nullptr, Dapi2_GetFirstFruAdditionalInfo(fru));
  EXPECT_EQ(22, Dapi2_AddFruToDevice(nullptr, "a", "b", "c", "d", "e", "f"));
  Dapi2_KillDeviceList();
}

// Deliberate: the size word is 36 on every build.
TEST(Dapi2ICreateFruInfo, SizeWordIs36OnEveryBuild) {
  Dapi2FruInfo* fru = Dapi2_I_CreateFruInfo("a", nullptr, "c", "d", "e", "f");
  ASSERT_NE(nullptr, fru);
  EXPECT_EQ(36u, fru->size);
  EXPECT_STREQ("", Dapi2_GetFruModelNumber(fru));
  if (sizeof(void*) == 4) {
    EXPECT_EQ(36u, sizeof(Dapi2FruInfo));
  }
  Dapi2_FreeFruInfo(fru);
  Dapi2_FreeFruInfo(nullptr);
}

TEST(Dapi2AddFruToDevice, KeepsOldRecordWhenOutOfMemory) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(device, "Old", "", "", "", "", ""));
  for (int n = 1; n <= 7; ++n) {
    SCOPED_TRACE(n);
    ScopedAllocFailure failure(n);
    EXPECT_EQ(27, Dapi2_AddFruToDevice(device, "New", "b", "c", "d", "e", "f"));
    EXPECT_STREQ("Old",
                 Dapi2_GetFruManufacturerName(Dapi2_GetDeviceFruInfo(device)));
  }
  Dapi2_KillDeviceList();
}

// A device without FRU data gets a record of six empty texts for its first
// additional info; entries keep their call order.
TEST(Dapi2AddFruAdditionalInfoToDevice, CreatesEmptyRecordAndKeepsOrder) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(device, "F1", "D1", "V1"));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(device, "F2", "D2", "V2"));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(device, "F3", nullptr, ""));
  Dapi2FruInfo* fru = Dapi2_GetDeviceFruInfo(device);
  ASSERT_NE(nullptr, fru);
  EXPECT_EQ(36u, fru->size);
  EXPECT_STREQ("", Dapi2_GetFruManufacturerName(fru));
  EXPECT_STREQ("", Dapi2_GetFruModelNumber(fru));
  EXPECT_STREQ("", Dapi2_GetFruSerialNumber(fru));
  EXPECT_STREQ("", Dapi2_GetFruFirmwareRevision(fru));
  EXPECT_STREQ("", Dapi2_GetFruFirmwareDate(fru));
  EXPECT_STREQ("", Dapi2_GetFruPhysicalAddress(fru));
  std::vector<std::string> seen;
  for (Dapi2FruAdditionalInfo* info = Dapi2_GetFirstFruAdditionalInfo(fru);
       info; info = Dapi2_GetNextFruAdditionalInfo(fru)) {
    seen.push_back(str(Dapi2_GetFruAdditionalInfoField(info)) + "/" +
                   str(Dapi2_GetFruAdditionalInfoDescription(info)) + "/" +
                   str(Dapi2_GetFruAdditionalInfoValue(info)));
  }
  EXPECT_EQ((std::vector<std::string>{"F1/D1/V1", "F2/D2/V2", "F3//"}), seen);
  // The walk stays at its end, and starts over from First.
  EXPECT_EQ(nullptr, Dapi2_GetNextFruAdditionalInfo(fru));
  ASSERT_NE(nullptr, Dapi2_GetFirstFruAdditionalInfo(fru));
  EXPECT_STREQ("F1", Dapi2_GetFirstFruAdditionalInfo(fru)->field);
  EXPECT_EQ(22, Dapi2_AddFruAdditionalInfoToDevice(nullptr, "f", "d", "v"));
  Dapi2_KillDeviceList();
}

TEST(Dapi2AddFruAdditionalInfoToFru, AppendsToGivenRecord) {
  Dapi2FruInfo* fru = Dapi2_I_CreateFruInfo("m", "m", "s", "f", "d", "p");
  ASSERT_NE(nullptr, fru);
  EXPECT_EQ(nullptr, Dapi2_GetFirstFruAdditionalInfo(fru));
  EXPECT_EQ(nullptr, Dapi2_GetNextFruAdditionalInfo(fru));
  EXPECT_EQ(0, Dapi2_AddFruAdditionalInfoToFru(fru, "a", "b", "c"));
  EXPECT_EQ(22, Dapi2_AddFruAdditionalInfoToFru(nullptr, "a", "b", "c"));
  Dapi2FruAdditionalInfo* info = Dapi2_GetFirstFruAdditionalInfo(fru);
  ASSERT_NE(nullptr, info);
  EXPECT_STREQ("c", Dapi2_GetFruAdditionalInfoValue(info));
  Dapi2_FreeFruInfo(fru);
}

TEST(Dapi2AddFruAdditionalInfoToDevice, LeavesNoRecordWhenOutOfMemory) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  int rc = -1;
  for (int n = 1; n < 50 && rc != 0; ++n) {
    SCOPED_TRACE(n);
    ScopedAllocFailure failure(n);
    rc = Dapi2_AddFruAdditionalInfoToDevice(device, "f", "d", "v");
    if (rc != 0) {
      EXPECT_EQ(27, rc);
      EXPECT_EQ(nullptr, Dapi2_GetDeviceFruInfo(device));
    }
  }
  EXPECT_EQ(0, rc);
  Dapi2_KillDeviceList();
}

TEST(Dapi2CreateFruAdditionalInfo, CopiesTextsAndFreesCleanly) {
  Dapi2FruAdditionalInfo* info =
      Dapi2_CreateFruAdditionalInfo("f", nullptr, "v");
  ASSERT_NE(nullptr, info);
  EXPECT_STREQ("f", info->field);
  EXPECT_STREQ("", info->description);
  Dapi2_DestructFruAdditionalInfo(info);
  EXPECT_EQ(nullptr, info->field);
  free(info);
  Dapi2_FreeFruAdditionalInfo(nullptr);
  Dapi2_DestructFruAdditionalInfo(nullptr);
  Dapi2_FruAdditionalInfoListDestruct(nullptr);
  for (int n = 1; n <= 4; ++n) {
    ScopedAllocFailure failure(n);
    EXPECT_EQ(nullptr, Dapi2_CreateFruAdditionalInfo("f", "d", "v"));
  }
}

// ---- System information
// -------------------------------------------------------

TEST(Dapi2AddSysInfoToDevice, AppendsAtEndOfChain) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(device, "D1", "K1", "V1"));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(device, "D2", "K2", "V2"));
  ASSERT_EQ(0, Dapi2_AddSysInfoToDevice(device, nullptr, "K3", nullptr));
  std::vector<std::string> seen;
  for (Dapi2SysInfo* info = Dapi2_GetDeviceSysInfo(device); info;
       info = info->next) {
    seen.push_back(std::string(info->description) + "/" + info->key + "/" +
                   info->value);
  }
  EXPECT_EQ((std::vector<std::string>{"D1/K1/V1", "D2/K2/V2", "/K3/"}), seen);
  EXPECT_EQ(22, Dapi2_AddSysInfoToDevice(nullptr, "d", "k", "v"));
  for (int n = 1; n <= 4; ++n) {
    SCOPED_TRACE(n);
    ScopedAllocFailure failure(n);
    EXPECT_EQ(27, Dapi2_AddSysInfoToDevice(device, "d", "k", "v"));
  }
  int nEntries = 0;
  for (Dapi2SysInfo* info = Dapi2_GetDeviceSysInfo(device); info;
       info = info->next)
    ++nEntries;
  EXPECT_EQ(3, nEntries);
  Dapi2_KillDeviceList();
}

// ---- Standard names -------------------------------------------------------

// Every row of the name table, with id 9, hardware locator HW:1 and OS
// locator /dev/ttyS1.
TEST(Dapi2IGenerateDeviceName, NamesEveryTypeOfTable) {
  struct Row {
    const char* type;
    const char* name;
  } rows[] = {
      {"VIDEOCONTROLLER", "Video Card HW:1"},
      {"1394", "IEEE1394 Controller 9"},
      {"AGP", "AGP Bus HW:1"},
      {"CABLEMODEM", "Cable Modem HW:1"},
      {"CAMERA", "Camera 9"},
      {"CD", "CD-ROM Drive HW:1"},
      {"CDR", "CDR Drive HW:1"},
      {"CDRW", "CDRW Drive HW:1"},
      {"CHASSIS", "Chassis HW:1"},
      {"CMOS", "CMOS"},
      {"COM", "Serial Port 9"},
      {"CPU", "CPU 9"},
      {"CPU64", "CPU64 9"},
      {"DISPLAY", "Monitor 9"},
      {"DSL", "DSL Adapter HW:1"},
      {"DVD", "DVD Drive HW:1"},
      {"DVDPLUSRW", "DVD+RW Drive HW:1"},
      {"DVDMINUSRW", "DVD-RW Drive HW:1"},
      {"FD", "FD 9"},
      {"GAMEINPUT", "Game Input Device 9"},
      {"GPS", "GPS Receiver HW:1"},
      {"HD", "Hard Drive HW:1"},
      {"HUB", "USB Bus 9"},
      {"IDE", "IDE HW:1"},
      {"IR", "Infared Port 9"},
      {"ISDN", "ISDN Adapter HW:1"},
      {"KBD", "Keyboard 9"},
      {"LPT", "Parallel Port 9"},
      {"LS120", "LS Drive HW:1"},
      {"MEMORY", "RAM"},
      {"MICROPHONE", "Microphone HW:1"},
      {"MIDI", "MIDI Adapter HW:1"},
      {"MODEM", "Modem Serial:1"},
      {"MOUSE", "Mouse 9"},
      {"NET", "Network Card HW:1"},
      {"OPTICAL", "Optical Drive HW:1"},
      {"PCI", "PCI Bus 9"},
      {"PCMCIA", "PCMCIA Controller 9"},
      {"PRINTER", "Printer 9"},
      {"PS", "Power Supply HW:1"},
      {"REMSTORAGE", "Removable Storage Device 9"},
      {"RTC", "Real Time Clock HW:1"},
      {"SCANNER", "Scanner 9"},
      {"SCSI", "SCSIHW:1"},
      {"SMBUS", "SMBUS HW:1"},
      {"SPEAKER", "Speaker HW:1"},
      {"SYSTEM", "System "},
      {"TAPE", "Tape Drive HW:1"},
      {"TEMP", "Temperature Sensor HW:1"},
      {"USB CONT", "USB Controller 9"},
      {"VOLT", "Voltage Sensor HW:1"},
      {"WAV", "WAV Adapter HW:1"},
      {"ZIP", "Zip Drive 9"},
      {"OTHER", "module's own"},
      {"cd", "Unknown 9"},
      {"UNLISTED", "Unknown 9"},
      {"", "Unknown 9"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.type);
    Dapi2Device* device = nullptr;
    ASSERT_EQ(0, Dapi2_I_CreateDeviceZeroParam(row.type, 9, "module's own",
                                               "/dev/ttyS1", "d", "HW:1", "B",
                                               &device));
    ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(device));
    EXPECT_STREQ(row.name, Dapi2_GetDeviceName(device));
  }
  Dapi2_KillDeviceList();
}

// Deliberate: "IR" is named "Infared Port", misspelt.
TEST(Dapi2IGenerateDeviceName, SpellsInfraredPortAsInfared) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0,
            Dapi2_CreateDevicePort("IR", 4, "n", "o", "d", 1, 0x2e8, &device));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(device));
  EXPECT_STREQ("Infared Port 4", Dapi2_GetDeviceName(device));
  Dapi2_KillDeviceList();
}

// Deliberate: "System " keeps its trailing space.
TEST(Dapi2IGenerateDeviceName, KeepsTrailingSpaceOfSystemName) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceSys("SYSTEM", 4, "n", "o", "d", &device));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(device));
  EXPECT_STREQ("System ", Dapi2_GetDeviceName(device));
  Dapi2_KillDeviceList();
}

// A "KBD" device with id 7 -> Keyboard 7; an unlisted type with id 2 ->
// Unknown 2.
TEST(Dapi2IGenerateDeviceName, NamesKeyboardAndUnknownById) {
  Dapi2Device* kbd = nullptr;
  Dapi2Device* other = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDevicePS2("KBD", 7, "n", "o", "d", &kbd));
  ASSERT_EQ(0, Dapi2_CreateDeviceUSB("GADGET", 2, "n", "o", "d", 1, &other));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(kbd));
  ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(other));
  EXPECT_STREQ("Keyboard 7", Dapi2_GetDeviceName(kbd));
  EXPECT_STREQ("Unknown 2", Dapi2_GetDeviceName(other));
  Dapi2_KillDeviceList();
}

// /dev/ttyS1 -> Modem Serial:1; the text after the FIRST "S" is taken; a
// locator without "S" gives no suffix.
TEST(Dapi2IGenerateDeviceName, NamesModemFromTextAfterFirstS) {
  struct Row {
    const char* os;
    const char* name;
  } rows[] = {
      {"/dev/ttyS1", "Modem Serial:1"},   {"/dev/ttyS12", "Modem Serial:12"},
      {"/dev/ttySS3", "Modem Serial:S3"}, {"/dev/ttyS", "Modem Serial:"},
      {"/dev/modem", "Modem Serial:"},    {"", "Modem Serial:"},
      {nullptr, "Modem Serial:"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.os ? row.os : "null");
    Dapi2Device* device = nullptr;
    ASSERT_EQ(
        0, Dapi2_CreateDeviceModem("MODEM", 1, "n", row.os, "d", 1, &device));
    ASSERT_EQ(0, Dapi2_I_GenerateDeviceName(device));
    EXPECT_STREQ(row.name, Dapi2_GetDeviceName(device));
  }
  Dapi2_KillDeviceList();
}

TEST(Dapi2IGenerateDeviceName, KeepsOldNameWhenOutOfMemoryAndRejectsNull) {
  EXPECT_EQ(22, Dapi2_I_GenerateDeviceName(nullptr));
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "floppy", "o", "d", 0, &device));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(27, Dapi2_I_GenerateDeviceName(device));
  }
  EXPECT_STREQ("floppy", Dapi2_GetDeviceName(device));
  Dapi2_KillDeviceList();
}

// ---- Enumeration data -----------------------------------------------------

// Three devices: FRU data with two additional infos, system information
// (not part of the enumeration), and a plain one; byte for byte.
TEST(Dapi2SendEnumInfo, BuildsDataOfThreeDevicesByteForByte) {
  addThreeDevices();
  EXPECT_EQ(golden("dapi2/enum-three-devices.txt"), enumData());
  Dapi2_KillDeviceList();
}

TEST(Dapi2SendEnumInfo, SendsEmptyDataElementWithoutDevices) {
  EXPECT_EQ("<DATA></DATA>", enumData());
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  ScopedCapture capture;
  EXPECT_EQ(0, Dapi2_SendEnumInfo());
  ASSERT_EQ(1u, gSent.size());
  EXPECT_EQ(
      envelope(header("1", "", "DE_ENUMDATA", kFakeTime), "<DATA></DATA>"),
      gSent[0]);
}

// The FRU text does not carry over to a following device without FRU data.
TEST(Dapi2SendEnumInfo, SendsNoFruElementsForDeviceAfterFruDevice) {
  Dapi2Device* withFru = nullptr;
  Dapi2Device* without = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &withFru));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(withFru, "M", "N", "S", "R", "D", "P"));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(withFru, "F", "D", "V"));
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 2, "b", "o", "d", 1, &without));
  ASSERT_EQ(0, Dapi2_AddDevice(withFru));
  ASSERT_EQ(0, Dapi2_AddDevice(without));
  std::string data = enumData();
  size_t second = data.find("<DEVICE><DID>2</DID>");
  ASSERT_NE(std::string::npos, second);
  EXPECT_EQ(std::string::npos, data.find("FRU_", second));
  EXPECT_EQ(
      "<DEVICE><DID>2</DID><NAME>b</NAME><DESCRIPTION>d</DESCRIPTION>"
      "<OSLOCATOR>o</OSLOCATOR><HWLOCATOR>FD:1</HWLOCATOR><DEVTYPE>FD</DEVTYPE>"
      "<BUSTYPE>SYSTEM_BUS</BUSTYPE><TESTS_SUPPORTED>*</TESTS_SUPPORTED>"
      "</DEVICE></DATA>",
      data.substr(second));
  Dapi2_KillDeviceList();
}

// A FRU record without additional information ends with the physical
// address; texts go in unescaped.
TEST(Dapi2SendEnumInfo, InsertsTextsUnescaped) {
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("F<D", 1, "a&b", "o", "d\"e", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruToDevice(device, "M@", "", "", "", "", "P"));
  ASSERT_EQ(0, Dapi2_AddDevice(device));
  EXPECT_EQ(
      "<DATA><DEVICE><DID>1</DID><NAME>a&b</NAME><DESCRIPTION>d\"e"
      "</DESCRIPTION><OSLOCATOR>o</OSLOCATOR><HWLOCATOR>FD:0</HWLOCATOR>"
      "<DEVTYPE>F<D</DEVTYPE><BUSTYPE>SYSTEM_BUS</BUSTYPE>"
      "<FRU_MANUFACTURER>M@</FRU_MANUFACTURER><FRU_MODELNUMBER>"
      "</FRU_MODELNUMBER><FRU_SERIALNUMBER></FRU_SERIALNUMBER>"
      "<FRU_FIRMWAREREV></FRU_FIRMWAREREV><FRU_FIRMWAREDATE>"
      "</FRU_FIRMWAREDATE><FRU_PHYSADDRESS>P</FRU_PHYSADDRESS>"
      "<TESTS_SUPPORTED>*</TESTS_SUPPORTED></DEVICE></DATA>",
      enumData());
  Dapi2_KillDeviceList();
}

// The whole message: header to DIAGENGINE of type DE_ENUMDATA around the
// data, traced.
TEST(Dapi2SendEnumInfo, SendsMessageOfTypeEnumDataToEngine) {
  std::string path = traceToFile();
  addThreeDevices();
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  ScopedCapture capture;
  EXPECT_EQ(0, Dapi2_SendEnumInfo());
  ASSERT_EQ(1u, gSent.size());
  std::string expected = envelope(header("1", "", "DE_ENUMDATA", kFakeTime),
                                  golden("dapi2/enum-three-devices.txt"));
  EXPECT_EQ(expected, gSent[0]);
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos, trace.find("SendEnumInfo: " + expected + "\n"));
  Dapi2_KillDeviceList();
}

// Through the client connection to the scripted peer: the peer reads the
// same bytes.
TEST(Dapi2SendEnumInfo, PeerReceivesEnumerationMessage) {
  zorvtest::PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("cdrom", "DIAGMODULE", "", NULL));
  addThreeDevices();
  EXPECT_EQ(0, Dapi2_SendEnumInfo());
  ASSERT_TRUE(session.peer().WaitForReceived(2, 10000));
  std::string received = session.peer().Received()[1];
  char time[64];
  ASSERT_EQ(0, ZorvXmlGetField(received.c_str(), "MSG/HDR/TIME", 0, time,
                               sizeof time));
  EXPECT_EQ(17u, strlen(time));
  char id[32];
  ASSERT_EQ(0,
            ZorvXmlGetField(received.c_str(), "MSG/HDR/ID", 0, id, sizeof id));
  EXPECT_EQ(envelope(header(id, "", "DE_ENUMDATA", time),
                     golden("dapi2/enum-three-devices.txt")),
            received);
  char type[32];
  ASSERT_EQ(0, ZorvXmlGetField(received.c_str(), "MSG/HDR/TYPE", 0, type,
                               sizeof type));
  EXPECT_STREQ("DE_ENUMDATA", type);
  Dapi2_KillDeviceList();
}

TEST(Dapi2SendEnumInfo, ReturnsSendFailedWithoutConnection) {
  addThreeDevices();
  EXPECT_EQ(24, Dapi2_SendEnumInfo());
  ScopedCapture capture;
  gSendResult = 1;
  EXPECT_EQ(24, Dapi2_SendEnumInfo());
  EXPECT_EQ(1u, gSent.size());
  Dapi2_KillDeviceList();
}

TEST(Dapi2SendEnumInfo, ReturnsHeaderFailedAndTracesIt) {
  std::string path = traceToFile();
  addThreeDevices();
  ScopedCapture capture(true);
  EXPECT_EQ(26, Dapi2_SendEnumInfo());
  EXPECT_TRUE(gSent.empty());
  EXPECT_NE(std::string::npos, zorvtest::ReadFile(path).find(
                                   "Dapi2_SendEnumInfo:createheader failed\n"));
  Dapi2_KillDeviceList();
}

// Failing each allocation in turn gives 27 (building the data) or 25
// (building the message), each with its trace line, until it succeeds and
// sends the whole message.
TEST(Dapi2SendEnumInfo, ReturnsOutOfMemoryOrMessageFailedForEachAllocation) {
  std::string path = traceToFile();
  addThreeDevices();
  ScopedCapture capture;
  int rc = -1;
  int n27 = 0;
  int n25 = 0;
  int nFailAt = 1;
  for (; nFailAt < 500 && rc != 0; ++nFailAt) {
    SCOPED_TRACE(nFailAt);
    ScopedAllocFailure failure(nFailAt);
    rc = Dapi2_SendEnumInfo();
    if (rc == 27) ++n27;
    if (rc == 25) ++n25;
    if (rc != 0) {
      EXPECT_TRUE(rc == 27 || rc == 25) << rc;
    }
  }
  ASSERT_EQ(0, rc);
  EXPECT_GT(n27, 0);
  EXPECT_GT(n25, 0);
  ASSERT_EQ(1u, gSent.size());
  EXPECT_NE(std::string::npos,
            gSent[0].find(golden("dapi2/enum-three-devices.txt")));
  std::string trace = zorvtest::ReadFile(path);
  for (const char* line :
       {"Dapi2_SendEnumInfo:outofmem1\n", "Dapi2_SendEnumIno:outofmem2\n",
        "Dapi2_SendEnumInfo:outofmem3\n", "Dapi2_SendEnumInfo:outofmem4\n",
        "Dapi2_SendEnumInfo:createmessage failed\n"}) {
    EXPECT_NE(std::string::npos, trace.find(line)) << line;
  }
  Dapi2_KillDeviceList();
}

// Deliberate: the second out-of-memory trace line reads "SendEnumIno".
TEST(Dapi2SendEnumInfo, TracesMisspeltSecondOutOfMemoryLine) {
  std::string path = traceToFile();
  Dapi2Device* device = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceFD("FD", 1, "a", "o", "d", 0, &device));
  ASSERT_EQ(0, Dapi2_AddFruAdditionalInfoToDevice(device, "F", "D", "V"));
  ASSERT_EQ(0, Dapi2_AddDevice(device));
  CGenStr data;
  ASSERT_EQ(1, CGenStrInit(&data));
  ASSERT_EQ(1, CGenStrAssignChar(&data, "<DATA>"));
  int rc = -1;
  for (int n = 1; n < 50 && rc != 0; ++n) {
    ScopedAllocFailure failure(n);
    rc = Dapi2_I_BuildEnumData(&data);
  }
  CGenStrDelete(&data);
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos, trace.find("Dapi2_SendEnumIno:outofmem2\n"));
  EXPECT_EQ(std::string::npos, trace.find("Dapi2_SendEnumInfo:outofmem2"));
  Dapi2_KillDeviceList();
}

// ---- System information reply ----------------------------------------------

TEST(Dapi2SendSysInfo, SendsMatchingDeviceWithItsEntriesByteForByte) {
  addThreeDevices();
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  ScopedCapture capture;
  EXPECT_EQ(0, Dapi2_SendSysInfo("4711", "serial.vtq", "77", "COM:1:03f8"));
  ASSERT_EQ(1u, gSent.size());
  EXPECT_EQ(envelope(header("1", "77", "SYSINFO_RETURNED", kFakeTime),
                     golden("dapi2/sysinfo-com-port.txt")),
            gSent[0]);
  Dapi2_KillDeviceList();
}

// A reported device is marked "**PROCESSED**" and not reported again.
TEST(Dapi2SendSysInfo, ReportsDeviceOnlyOnce) {
  addThreeDevices();
  ScopedCapture capture;
  EXPECT_EQ(0, Dapi2_SendSysInfo("1", "m", "5", "COM:1:03f8"));
  EXPECT_EQ(0, Dapi2_SendSysInfo("1", "m", "6", "COM:1:03f8"));
  ASSERT_EQ(2u, gSent.size());
  EXPECT_NE(std::string::npos, gSent[0].find("<DID>2</DID>"));
  EXPECT_NE(std::string::npos, gSent[1].find("<DATA></DATA>"));
  EXPECT_STREQ("**PROCESSED**",
               Dapi2_GetDeviceHwLocator(deviceAt(Dapi2_I_DeviceList(), 1)));
  Dapi2_KillDeviceList();
}

// Exact, case-sensitive locator comparison; every device with that locator
// is reported, in list order; a device without entries has an empty body.
TEST(Dapi2SendSysInfo, MatchesHardwareLocatorExactly) {
  Dapi2Device* a = nullptr;
  Dapi2Device* b = nullptr;
  Dapi2Device* c = nullptr;
  ASSERT_EQ(0, Dapi2_CreateDeviceUSB("HUB", 1, "a", "o", "d", 1, &a));
  ASSERT_EQ(0, Dapi2_CreateDeviceUSB("HUB", 2, "b", "o", "d", 1, &b));
  ASSERT_EQ(0, Dapi2_CreateDeviceUSB("HUB", 3, "c", "o", "d", 11, &c));
  ASSERT_EQ(0, Dapi2_AddDevice(a));
  ASSERT_EQ(0, Dapi2_AddDevice(b));
  ASSERT_EQ(0, Dapi2_AddDevice(c));
  ScopedCapture capture;
  for (const char* locator : {"usb:1", "USB:", "USB:1 ", "", "**PROCESSED**"}) {
    SCOPED_TRACE(locator);
    gSent.clear();
    EXPECT_EQ(0, Dapi2_SendSysInfo("t", "m", "1", locator));
    ASSERT_EQ(1u, gSent.size());
    EXPECT_NE(std::string::npos, gSent[0].find("<DATA></DATA>"));
  }
  gSent.clear();
  EXPECT_EQ(0, Dapi2_SendSysInfo("t", "m", nullptr, nullptr));
  ASSERT_EQ(1u, gSent.size());
  EXPECT_NE(std::string::npos, gSent[0].find("<DATA></DATA>"));
  EXPECT_EQ(std::string::npos, gSent[0].find("<RE>"));
  gSent.clear();
  EXPECT_EQ(0, Dapi2_SendSysInfo(nullptr, nullptr, "1", "USB:1"));
  ASSERT_EQ(1u, gSent.size());
  EXPECT_NE(
      std::string::npos,
      gSent[0].find("<DATA><DEVICE><TO></TO><MODULE_NAME></MODULE_NAME>"
                    "<DID>1</DID><NAME>a</NAME><DESCRIPTION>d</DESCRIPTION>"
                    "<OSLOCATOR>o</OSLOCATOR><HWLOCATOR>USB:1</HWLOCATOR>"
                    "<DEVTYPE>HUB</DEVTYPE><BUSTYPE>USB_BUS</BUSTYPE></DEVICE>"
                    "<DEVICE><TO></TO><MODULE_NAME></MODULE_NAME><DID>2</DID>"))
      << gSent[0];
  EXPECT_EQ(std::string::npos, gSent[0].find("<DID>3</DID>"));
  EXPECT_STREQ("USB:11", Dapi2_GetDeviceHwLocator(c));
  Dapi2_KillDeviceList();
}

TEST(Dapi2SendSysInfo, ReturnsHeaderAndSendFailures) {
  addThreeDevices();
  {
    ScopedCapture capture(true);
    EXPECT_EQ(26, Dapi2_SendSysInfo("t", "m", "1", "MEM:0"));
    EXPECT_TRUE(gSent.empty());
  }
  {
    ScopedCapture capture;
    gSendResult = 1;
    EXPECT_EQ(24, Dapi2_SendSysInfo("t", "m", "1", "MEM:0"));
  }
  EXPECT_EQ(24, Dapi2_SendSysInfo("t", "m", "1", "MEM:0"));
  Dapi2_KillDeviceList();
}

// A reply field too long for the 150-byte header -> 26.
TEST(Dapi2SendSysInfo, ReturnsHeaderFailedForOverlongTransaction) {
  ScopedCapture capture;
  std::string transaction(200, '7');
  EXPECT_EQ(26, Dapi2_SendSysInfo("t", "m", transaction.c_str(), "MEM:0"));
  EXPECT_TRUE(gSent.empty());
}

// Running out of memory while building the reply ends the process with
// the verify message naming this unit.
TEST(Dapi2SendSysInfo, ExitsWithVerifyMessageWhenOutOfMemory) {
  addThreeDevices();
  for (int n : {1, 2, 3, 5, 8}) {
    SCOPED_TRACE(n);
    EXPECT_EXIT(
        {
          ScopedCapture capture;
          ScopedAllocFailure failure(n);
          Dapi2_SendSysInfo("t", "m", "1", "COM:1:03f8");
          exit(0);
        },
        testing::ExitedWithCode(1),
        "Zorv2000 Verify Failed: Line:[0-9]+ File:dapi2/dapi2.cpp Possibly "
        "Out of Memory.");
  }
  Dapi2_KillDeviceList();
}
