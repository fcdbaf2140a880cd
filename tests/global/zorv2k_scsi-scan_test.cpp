// Tests of the SCSI device scan: the two name sequences, pairing by
// address, INQUIRY typing and its refinements, the USB floppy test on
// /proc fixtures and hostile files, the printed listing, the generic-node
// lookup of block devices, and the debug log beside the math library's
// log().
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "global/zorv2k_scsi_p.h"
#include "support/fake_sg.h"
#include "support/test_support.h"
#include "zorv2000/genlist.h"
#include "zorv2000/zorv2k_scsi.h"

using zorvtest::FakeSgDevice;
using zorvtest::FakeSgReply;
using zorvtest::MakeInquiry;
using zorvtest::MakeSense;
using zorvtest::ScopedFakeSg;

namespace {

// Every name from "" until the sequence ends, through a buffer of exactly
// `size` bytes (ASan catches a write past it).
template <typename Next>
std::vector<std::string> walk(Next next, size_t size) {
  std::vector<std::string> names;
  std::unique_ptr<char[]> buffer(new char[size]);
  buffer[0] = '\0';
  for (;;) {
    next(buffer.get());
    if (buffer[0] == '\0') break;
    names.push_back(buffer.get());
    if (names.size() > 1000) break;
  }
  return names;
}

std::vector<std::string> sgNames() {
  return walk(ScanDevice_I_GetNextSGName, SCAN_SG_NAME_SIZE);
}

std::vector<std::string> nodeNames() {
  return walk(ScanDevice_I_GetNextSD_ST_SR_SCDName, SCAN_NODE_NAME_SIZE);
}

std::string nextOf(void (*next)(char*), const char* name, size_t size) {
  std::vector<char> buffer(size, '\0');
  strncpy(buffer.data(), name, size - 1);
  next(buffer.data());
  return buffer.data();
}

// The records of a scan list, in order.
std::vector<ScanDevice> records(const CGenList& list) {
  std::vector<ScanDevice> out;
  CGenListIter it;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    out.push_back(*(const ScanDevice*)CGenListIterGetData(it));
  }
  return out;
}

// Points the /proc directory of the USB floppy test elsewhere in scope.
class ScopedProcDirectory {
 public:
  explicit ScopedProcDirectory(const std::string& dir)
      : saved_(ZorvScsi_I_pszProcDirectory), dir_(dir) {
    ZorvScsi_I_pszProcDirectory = dir_.c_str();
  }
  ~ScopedProcDirectory() { ZorvScsi_I_pszProcDirectory = saved_; }

 private:
  const char* saved_;
  std::string dir_;
};

// A /proc tree of the test's own: an empty directory by default.
std::string emptyProc() {
  std::string dir = zorvtest::MakeTempDir("proc");
  return dir;
}

template <typename Body>
std::string traced(const char* categories, Body body) {
  setenv("ZORV_TRACE", categories, 1);
  zorvtest::FdCapture capture(2);
  capture.Start();
  body();
  return capture.Stop();
}

}  // namespace

// ---- name sequences ---------------------------------------------------------

// "" -> "/dev/sg0" ... "/dev/sg255", "/dev/sga" ... "/dev/sgz", then "".
TEST(ScanDeviceGetNextSGName, WalksDecimalThenLettersThenEnds) {
  std::vector<std::string> names = sgNames();
  ASSERT_EQ(282u, names.size());
  for (int i = 0; i <= 255; ++i) {
    ASSERT_EQ("/dev/sg" + std::to_string(i), names[i]);
  }
  for (int i = 0; i < 26; ++i) {
    ASSERT_EQ(std::string("/dev/sg") + (char)('a' + i), names[256 + i]);
  }
}

// Deliberate: after "/dev/sg255" comes "/dev/sga"; /dev/sg256 never.
TEST(ScanDeviceGetNextSGName, NeverTriesSg256) {
  EXPECT_EQ("/dev/sga", nextOf(ScanDevice_I_GetNextSGName, "/dev/sg255", 11));
  std::vector<std::string> names = sgNames();
  EXPECT_EQ(names.end(), std::find(names.begin(), names.end(), "/dev/sg256"));
}

// Texts outside the sequence end it.
TEST(ScanDeviceGetNextSGName, TurnsForeignTextIntoEnd) {
  for (const char* text : {"/dev/hda", "/dev/sg", "/dev/sgA", "/dev/sg-1",
                           "/dev/sgaa", "/dev/sg1x", "sg0", "/dev/sd0"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ("", nextOf(ScanDevice_I_GetNextSGName, text, 11));
  }
  EXPECT_EQ("", nextOf(ScanDevice_I_GetNextSGName, "/dev/sgz", 11));
  EXPECT_EQ("/dev/sg10", nextOf(ScanDevice_I_GetNextSGName, "/dev/sg9", 11));
  EXPECT_EQ("/dev/sg100", nextOf(ScanDevice_I_GetNextSGName, "/dev/sg99", 11));
  // Unterminated within its 11 bytes: the end, nothing read beyond.
  char full[11];
  memset(full, 'x', sizeof full);
  ScanDevice_I_GetNextSGName(full);
  EXPECT_EQ('\0', full[0]);
  ScanDevice_I_GetNextSGName(nullptr);
}

// sd0-9, sda-z, then st, sr and scd alike; "" after "/dev/scdz".
TEST(ScanDeviceGetNextSDSTSRSCDName, WalksFourFamiliesOfThirtySix) {
  std::vector<std::string> names = nodeNames();
  ASSERT_EQ(144u, names.size());
  const char* families[] = {"/dev/sd", "/dev/st", "/dev/sr", "/dev/scd"};
  const std::string digitsAndLetters = "0123456789abcdefghijklmnopqrstuvwxyz";
  size_t i = 0;
  for (const char* family : families) {
    for (char c : digitsAndLetters) {
      ASSERT_EQ(std::string(family) + c, names[i]) << i;
      ++i;
    }
  }
  EXPECT_EQ("", nextOf(ScanDevice_I_GetNextSD_ST_SR_SCDName, "/dev/scdz", 10));
}

TEST(ScanDeviceGetNextSDSTSRSCDName, TurnsForeignTextIntoEnd) {
  for (const char* text : {"/dev/sg0", "/dev/sd", "/dev/sdaa", "/dev/sdA",
                           "/dev/nst0", "/dev/scd", "/dev/s0"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ("", nextOf(ScanDevice_I_GetNextSD_ST_SR_SCDName, text, 10));
  }
  EXPECT_EQ("/dev/st0",
            nextOf(ScanDevice_I_GetNextSD_ST_SR_SCDName, "/dev/sdz", 10));
  EXPECT_EQ("/dev/scd0",
            nextOf(ScanDevice_I_GetNextSD_ST_SR_SCDName, "/dev/srz", 10));
  char full[10];
  memset(full, 'x', sizeof full);
  ScanDevice_I_GetNextSD_ST_SR_SCDName(full);
  EXPECT_EQ('\0', full[0]);
}

// ---- the scan -------------------------------------------------------------

// No generic device: every name is tried once, the list is empty, 0.
TEST(ScanScsiDevices, EmptyListWithoutGenericDevices) {
  ScopedFakeSg fake;
  CGenList list;
  EXPECT_EQ(0, ScanScsiDevices(&list));
  EXPECT_EQ(0, CGenListGetCount(&list));
  EXPECT_EQ(sgNames(), fake.Attempts());
  CGenListDestruct(&list);
  EXPECT_EQ(0, ScanScsiDevices(nullptr));
}

// A device whose block node is /dev/sdb: sd0-sd9 and sda are tried first.
TEST(ScanScsiDevices, PairsSdbOnlyAfterSdZeroToNineAndSda) {
  ScopedFakeSg fake;
  FakeSgDevice sg(0, 0, 2, 3);
  sg.inquiry = MakeInquiry(0, "QEMU", "VIRTIO DISK L3", "2.5+");
  FakeSgDevice sda(0, 0, 0, 0);
  FakeSgDevice sdb(0, 0, 2, 3);
  fake.Register("/dev/sg0", &sg);
  fake.Register("/dev/sda", &sda);
  fake.Register("/dev/sdb", &sdb);
  CGenList list;
  ASSERT_EQ(0, ScanScsiDevices(&list));
  std::vector<std::string> attempts = fake.Attempts();
  std::vector<std::string> expected = {"/dev/sg0"};
  for (int i = 0; i < 10; ++i)
    expected.push_back("/dev/sd" + std::to_string(i));
  expected.push_back("/dev/sda");
  expected.push_back("/dev/sdb");
  expected.push_back("/dev/sg1");
  ASSERT_GE(attempts.size(), expected.size());
  EXPECT_EQ(expected,
            std::vector<std::string>(attempts.begin(),
                                     attempts.begin() + (long)expected.size()));
  std::vector<ScanDevice> found = records(list);
  ASSERT_EQ(1u, found.size());
  EXPECT_STREQ("/dev/sdb", found[0].name);
  EXPECT_STREQ("/dev/sg0", found[0].sgName);
  EXPECT_EQ(0, fake.OpenCount());
  CGenListDestruct(&list);
}

// After "/dev/sg255" the scan goes on with "/dev/sga".
TEST(ScanScsiDevices, GoesFromSg255ToSga) {
  ScopedFakeSg fake;
  CGenList list;
  ScanScsiDevices(&list);
  std::vector<std::string> attempts = fake.Attempts();
  auto it = std::find(attempts.begin(), attempts.end(), "/dev/sg255");
  ASSERT_NE(attempts.end(), it);
  ASSERT_NE(attempts.end(), it + 1);
  EXPECT_EQ("/dev/sga", *(it + 1));
  EXPECT_EQ(attempts.end(),
            std::find(attempts.begin(), attempts.end(), "/dev/sg256"));
  CGenListDestruct(&list);
}

// Every kind of device, in name order, with address, pairing, description
// and type.
TEST(ScanScsiDevices, BuildsRecordForEachGenericDevice) {
  ScopedProcDirectory proc(emptyProc());
  ScopedFakeSg fake;
  struct Row {
    const char* sgName;
    int host, bus, id, lun;
    std::vector<unsigned char> inquiry;
    const char* node;  // registered paired node, or null
  };
  std::vector<unsigned char> qualifierSet = MakeInquiry(0x7F, "", "", "");
  std::vector<unsigned char> notConnected = MakeInquiry(0x20, "Q", "P", "R");
  std::vector<Row> rows = {
      {"/dev/sg0", 0, 0, 0, 0, MakeInquiry(0, "QEMU", "VIRTIO DISK 0", "2.5+"),
       "/dev/sda"},
      {"/dev/sg1", 0, 0, 1, 0, MakeInquiry(5, "QEMU", "VIRTIO CD-ROM", "2.5+"),
       "/dev/sr0"},
      {"/dev/sg2", 2, 0, 0, 0, MakeInquiry(1, "Linux", "scsi_debug", "0191"),
       "/dev/st0"},
      {"/dev/sg3", 1, 0, 4, 0, MakeInquiry(7, "MO", "OPTICAL MEM", "1"),
       nullptr},
      {"/dev/sg4", 1, 0, 6, 0, MakeInquiry(3, "HP", "PROCESSOR", "1"), nullptr},
      {"/dev/sg5", 1, 0, 7, 0, MakeInquiry(0, "MKE", "LS-120 COSM", "1.0"),
       nullptr},
      {"/dev/sg6", 1, 0, 8, 0, MakeInquiry(0, "IOMEGA", "ZIP 100", "E.08"),
       nullptr},
      {"/dev/sg7", 1, 0, 9, 0, MakeInquiry(0, "IOMEGA", "Zip 250", "E.08"),
       nullptr},
      {"/dev/sg8", 1, 0, 10, 0, MakeInquiry(0, "X", "INQUIRY FAILS", "1"),
       nullptr},
      {"/dev/sg9", 1, 0, 11, 0, qualifierSet, nullptr},
      {"/dev/sg10", 1, 0, 12, 0, notConnected, nullptr},
      {"/dev/sg11", 1, 0, 13, 0, MakeInquiry(0, "NO", "ADDRESS", "1"), nullptr},
      {"/dev/sga", 3, 0, 0, 0, MakeInquiry(0, "QEMU", "USB DISK", "2.5+"),
       "/dev/scd0"},
      {"/dev/sgz", 4, 1, 2, 3, MakeInquiry(0, "LS-240", "zip", "zip"),
       "/dev/sr3"},
  };
  std::vector<std::unique_ptr<FakeSgDevice>> devices;
  std::map<std::string, FakeSgDevice*> bySgName;
  for (const Row& row : rows) {
    devices.emplace_back(new FakeSgDevice(row.host, row.bus, row.id, row.lun));
    devices.back()->inquiry = row.inquiry;
    fake.Register(row.sgName, devices.back().get());
    bySgName[row.sgName] = devices.back().get();
    if (row.node) {
      devices.emplace_back(
          new FakeSgDevice(row.host, row.bus, row.id, row.lun));
      fake.Register(row.node, devices.back().get());
    }
  }
  // sg8's INQUIRY fails; sg11 cannot be addressed.
  FakeSgReply refused;
  refused.targetStatus = 1;
  refused.sense = MakeSense(0x70, 5, 0x24, 0);
  bySgName["/dev/sg8"]->QueueReply(refused);
  bySgName["/dev/sg11"]->failingIoctls = {0x5382};
  // A node with another address is opened and closed, not paired.
  FakeSgDevice stranger(9, 9, 9, 9);
  fake.Register("/dev/sdc", &stranger);

  CGenList list;
  ASSERT_EQ(0, ScanScsiDevices(&list));
  struct Expected {
    const char* name;
    const char* sgName;
    const char* description;
    const char* type;
    int host, bus, id, lun;
  } expected[] = {
      {"/dev/sda", "/dev/sg0", "QEMU     VIRTIO DISK 0   2.5+", "HD", 0, 0, 0,
       0},
      {"/dev/sr0", "/dev/sg1", "QEMU     VIRTIO CD-ROM   2.5+", "OPTICAL", 0, 0,
       1, 0},
      {"/dev/st0", "/dev/sg2", "Linux    scsi_debug      0191", "TAPE", 2, 0, 0,
       0},
      {"", "/dev/sg3", "MO       OPTICAL MEM     1   ", "OPTICAL", 1, 0, 4, 0},
      {"", "/dev/sg4", "HP       PROCESSOR       1   ", "OTHER", 1, 0, 6, 0},
      {"", "/dev/sg5", "MKE      LS-120 COSM     1.0 ", "LSDRIVE", 1, 0, 7, 0},
      {"", "/dev/sg6", "IOMEGA   ZIP 100         E.08", "ZIP", 1, 0, 8, 0},
      {"", "/dev/sg7", "IOMEGA   Zip 250         E.08", "ZIP", 1, 0, 9, 0},
      {"", "/dev/sg8", "", "OTHER", 1, 0, 10, 0},
      {"", "/dev/sg9", "                             ", "", 1, 0, 11, 0},
      {"", "/dev/sg10", "Q        P               R   ", "", 1, 0, 12, 0},
      {"/dev/scd0", "/dev/sga", "QEMU     USB DISK        2.5+", "HD", 3, 0, 0,
       0},
      {"/dev/sr3", "/dev/sgz", "LS-240   zip             zip ", "LSDRIVE", 4, 1,
       2, 3},
  };
  std::vector<ScanDevice> found = records(list);
  ASSERT_EQ(sizeof expected / sizeof expected[0], found.size());
  for (size_t i = 0; i < found.size(); ++i) {
    SCOPED_TRACE(expected[i].sgName);
    EXPECT_STREQ(expected[i].name, found[i].name);
    EXPECT_STREQ(expected[i].sgName, found[i].sgName);
    EXPECT_STREQ(expected[i].description, found[i].description);
    EXPECT_STREQ(expected[i].type, found[i].type);
    EXPECT_EQ(expected[i].host, found[i].host);
    EXPECT_EQ(expected[i].bus, found[i].bus);
    EXPECT_EQ(expected[i].id, found[i].id);
    EXPECT_EQ(expected[i].lun, found[i].lun);
  }
  EXPECT_EQ(0, fake.OpenCount());
  CGenListDestruct(&list);
}

// Deliberate: INQUIRY byte 0 above 31 (a peripheral qualifier set) leaves
// the type empty, whatever the device type bits say; 31 itself is "OTHER".
TEST(ScanScsiDevices, LeavesTypeEmptyWhenPeripheralQualifierIsSet) {
  ScopedProcDirectory proc(emptyProc());
  ScopedFakeSg fake;
  struct Row {
    unsigned char byte0;
    const char* type;
  } rows[] = {{0x00, "HD"}, {0x1F, "OTHER"}, {0x20, ""},
              {0x25, ""},   {0x60, ""},      {0x7F, ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.byte0);
    FakeSgDevice sg(0, 0, 0, 0);
    sg.inquiry = MakeInquiry(row.byte0, "V", "P", "R");
    fake.Register("/dev/sg0", &sg);
    CGenList list;
    ScanScsiDevices(&list);
    std::vector<ScanDevice> found = records(list);
    ASSERT_EQ(1u, found.size());
    EXPECT_STREQ(row.type, found[0].type);
    CGenListDestruct(&list);
  }
}

namespace {
struct OpenRecord {
  std::string path;
  int flags;
};
std::vector<OpenRecord> gOpens;
int (*gInnerOpen)(const char*, int, mode_t);
int recordingOpen(const char* path, int flags, mode_t mode) {
  gOpens.push_back({path, flags});
  return gInnerOpen(path, flags, mode);
}
}  // namespace

// The generic node opens read-write and non-blocking, its pair read-only
// and non-blocking; commands then wait for their reply (a reply 100 ms late
// still arrives).
TEST(ScanScsiDevices, SendsInquiryOnBlockingDescriptor) {
  ScopedProcDirectory proc(emptyProc());
  ScopedFakeSg fake;
  gInnerOpen = zorvScsiSyscalls.pfnOpen;
  zorvScsiSyscalls.pfnOpen = recordingOpen;
  FakeSgDevice sg(0, 0, 0, 0);
  FakeSgDevice sda(0, 0, 0, 0);
  fake.Register("/dev/sg0", &sg);
  fake.Register("/dev/sda", &sda);
  FakeSgReply late;
  late.data = MakeInquiry(0, "QEMU", "SLOW DISK", "1");
  late.delayMs = 100;
  sg.QueueReply(late);
  CGenList list;
  ScanScsiDevices(&list);
  std::vector<ScanDevice> found = records(list);
  ASSERT_EQ(1u, found.size());
  EXPECT_STREQ("HD", found[0].type);
  EXPECT_STREQ("QEMU     SLOW DISK       1   ", found[0].description);
  ASSERT_GE(gOpens.size(), 2u);
  EXPECT_EQ("/dev/sg0", gOpens[0].path);
  EXPECT_EQ(O_RDWR | O_NONBLOCK, gOpens[0].flags);
  EXPECT_EQ("/dev/sd0", gOpens[1].path);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, gOpens[1].flags);
  // The INQUIRY asked for 36 bytes.
  EXPECT_EQ("12 00 00 00 24 00", [&] {
    std::vector<unsigned char> cdb = sg.LastRequest().Cdb(6);
    char b[32];
    snprintf(b, sizeof b, "%02x %02x %02x %02x %02x %02x", cdb[0], cdb[1],
             cdb[2], cdb[3], cdb[4], cdb[5]);
    return std::string(b);
  }());
  CGenListDestruct(&list);
}

// The pairing traces every node it opened, the match and the closes.
TEST(ScanScsiDevices, TracesOpenedMatchAndClosedNodes) {
  ScopedProcDirectory proc(emptyProc());
  ScopedFakeSg fake;
  FakeSgDevice sg(0, 0, 1, 0);
  FakeSgDevice sda(0, 0, 0, 0);
  FakeSgDevice sr0(0, 0, 1, 0);
  fake.Register("/dev/sg0", &sg);
  fake.Register("/dev/sda", &sda);
  fake.Register("/dev/sr0", &sr0);
  CGenList list;
  std::string text = traced("diag", [&] { ScanScsiDevices(&list); });
  std::string plain = zorvtest::NormalizeTrace(text);
  EXPECT_NE(std::string::npos,
            plain.find(":findPairedNode():zorv2k_scsi.cpp:LINE Opened "
                       "/dev/sda\n"))
      << plain;
  EXPECT_NE(std::string::npos, plain.find(":LINE Closed /dev/sda\n"));
  EXPECT_NE(std::string::npos, plain.find(":LINE Opened /dev/sr0\n"));
  size_t at = plain.find(":LINE Match /dev/sr0 == ");
  ASSERT_NE(std::string::npos, at) << plain;
  EXPECT_EQ(" \n", plain.substr(plain.find('\n', at) - 1, 2));
  EXPECT_EQ(std::string::npos, plain.find("Closed /dev/sr0"));
  CGenListDestruct(&list);
}

// A USB disk whose usb-storage entry and USB list describe a UFI floppy
// becomes "FD"; the same disk on a modern system stays "HD".
TEST(ScanScsiDevices, TypesUsbFloppyFromProcFiles) {
  ScopedFakeSg fake;
  FakeSgDevice sg(3, 0, 0, 0);
  sg.inquiry = MakeInquiry(0, "TEAC", "FD-05PUB", "3000");
  fake.Register("/dev/sg0", &sg);
  {
    ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-floppy"));
    CGenList list;
    ScanScsiDevices(&list);
    ASSERT_EQ(1, CGenListGetCount(&list));
    EXPECT_STREQ("FD", records(list)[0].type);
    CGenListDestruct(&list);
  }
  {
    ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-harddisk"));
    CGenList list;
    ScanScsiDevices(&list);
    EXPECT_STREQ("HD", records(list)[0].type);
    CGenListDestruct(&list);
  }
  {
    ScopedProcDirectory proc(emptyProc());
    CGenList list;
    ScanScsiDevices(&list);
    EXPECT_STREQ("HD", records(list)[0].type);
    CGenListDestruct(&list);
  }
}

// The LS and ZIP names win over the USB floppy test.
TEST(ScanScsiDevices, LsAndZipNamesComeBeforeUsbFloppyTest) {
  ScopedFakeSg fake;
  ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-floppy"));
  FakeSgDevice ls(3, 0, 0, 0);
  ls.inquiry = MakeInquiry(0, "TEAC", "LS-240", "1");
  FakeSgDevice zip(3, 0, 1, 0);
  zip.inquiry = MakeInquiry(0, "TEAC", "zip", "1");
  fake.Register("/dev/sg0", &ls);
  fake.Register("/dev/sg1", &zip);
  CGenList list;
  ScanScsiDevices(&list);
  std::vector<ScanDevice> found = records(list);
  ASSERT_EQ(2u, found.size());
  EXPECT_STREQ("LSDRIVE", found[0].type);
  EXPECT_STREQ("ZIP", found[1].type);
  CGenListDestruct(&list);
}

// ---- the USB floppy test --------------------------------------------------

TEST(ZorvScsiIsUsbFloppy, FindsUfiFloppyWithMatchingStrings) {
  ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-floppy"));
  EXPECT_EQ(1, ZorvScsi_I_IsUsbFloppy(3));
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(2));  // no entry for host 2
}

// The kernel's own text for a USB hard disk: subclass 06, no floppy.
TEST(ZorvScsiIsUsbFloppy, HardDiskSubclassSixIsNoFloppy) {
  ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-harddisk"));
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(3));
}

TEST(ZorvScsiIsUsbFloppy, DifferentProductIsNoFloppy) {
  ScopedProcDirectory proc(zorvtest::DataPath("scsi/proc-mismatch"));
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(3));
}

// A modern kernel has neither /proc/scsi nor /proc/bus/usb.
TEST(ZorvScsiIsUsbFloppy, NothingOnSystemWithoutProcEntries) {
  ScopedProcDirectory proc(emptyProc());
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(0));
  ScopedProcDirectory missing("/nonexistent/proc");
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(0));
}

namespace {
// A /proc tree with one usb-storage entry and a USB device list.
std::string procTree(const std::string& entry, const std::string& devices,
                     const char* storageDir = "usb-storage-0", int host = 0) {
  std::string dir = zorvtest::MakeTempDir("proc");
  std::string storage = dir + "/scsi/" + storageDir;
  mkdir((dir + "/scsi").c_str(), 0755);
  mkdir(storage.c_str(), 0755);
  mkdir((dir + "/bus").c_str(), 0755);
  mkdir((dir + "/bus/usb").c_str(), 0755);
  zorvtest::WriteFile(storage + "/" + std::to_string(host), entry);
  zorvtest::WriteFile(dir + "/bus/usb/devices", devices);
  return dir;
}

const char kFloppyEntry[] = "       Vendor: TEAC\n      Product: UF\n";
const char kFloppyList[] =
    "S:  Manufacturer=TEAC\nS:  Product=UF\n"
    "I:* If#= 0 Alt= 0 #EPs= 3 Cls=08(stor.) Sub=04 Prot=00\n";
}  // namespace

// The smallest matching pair of files, and what each missing piece does.
TEST(ZorvScsiIsUsbFloppy, NeedsAllFourTextsClassAndSubclass) {
  struct Row {
    const char* name;
    std::string entry;
    std::string list;
    int expected;
  } rows[] = {
      {"match", kFloppyEntry, kFloppyList, 1},
      {"no vendor", "      Product: UF\n", kFloppyList, 0},
      {"no product", "       Vendor: TEAC\n", kFloppyList, 0},
      {"no manufacturer", kFloppyEntry, "S:  Product=UF\nI: Cls=08 Sub=04\n",
       0},
      {"no usb product", kFloppyEntry,
       "S:  Manufacturer=TEAC\nI: Cls=08 Sub=04\n", 0},
      {"class 9", kFloppyEntry,
       "S:  Manufacturer=TEAC\nS:  Product=UF\nI: Cls=09 Sub=04\n", 0},
      {"subclass 6", kFloppyEntry,
       "S:  Manufacturer=TEAC\nS:  Product=UF\nI: Cls=08 Sub=06\n", 0},
      {"no subclass", kFloppyEntry,
       "S:  Manufacturer=TEAC\nS:  Product=UF\nI: Cls=08\n", 0},
      {"interface before strings", kFloppyEntry,
       "I: Cls=08 Sub=04\nS:  Manufacturer=TEAC\nS:  Product=UF\n", 0},
      {"lines without newline at the end",
       "       Vendor: TEAC\n      "
       "Product: UF",
       "S:  Manufacturer=TEAC\nS:  Product=UF\nI: Cls=08 "
       "Sub=04",
       1},
      {"CRLF lines", "Vendor: TEAC\r\nProduct: UF\r\n",
       "S:  Manufacturer=TEAC\r\nS:  Product=UF\r\nI: Cls=08 Sub=04\r\n", 1},
      {"lower-case s line is no string line", kFloppyEntry,
       "s:  Manufacturer=TEAC\ns:  Product=UF\nI: Cls=08 Sub=04\n", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ScopedProcDirectory proc(procTree(row.entry, row.list));
    EXPECT_EQ(row.expected, ZorvScsi_I_IsUsbFloppy(0));
  }
}

// Files that end inside a key, overlong lines, NUL bytes and noise: no
// crash, no read past a line, no floppy.
TEST(ZorvScsiIsUsbFloppy, SurvivesHostileFiles) {
  std::string longLine(5000, 'V');
  std::string nul("Vendor:\0TEAC\nProduct:\0UF\n", 25);
  struct Row {
    const char* name;
    std::string entry;
    std::string list;
  } rows[] = {
      {"keys at end of file", "Vendor:", "S:Manufacturer="},
      {"product key at end of file", "Product:", "S:Product="},
      {"keys at end of line", "Vendor:\nProduct:\n",
       "S:Manufacturer=\nS:Product=\nI:Cls=\nI:Cls=08 Sub=\n"},
      {"overlong lines", longLine + "Vendor: TEAC\n" + longLine,
       "S:" + longLine + "Manufacturer=TEAC\nI:" + longLine + "Cls=08\n"},
      {"NUL bytes", nul, std::string("S:\0Manufacturer=TEAC\n", 21)},
      {"binary noise", std::string(3000, '\xff'), std::string(3000, '\x01')},
      {"empty files", "", ""},
      {"huge numbers", kFloppyEntry,
       "S:  Manufacturer=TEAC\nS:  Product=UF\nI: Cls=99999999999999999999 "
       "Sub=-4\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ScopedProcDirectory proc(procTree(row.entry, row.list));
    EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(0));
  }
}

// Several usb-storage directories: each is read for the host's entry.
TEST(ZorvScsiIsUsbFloppy, ReadsEveryUsbStorageDirectory) {
  std::string dir = procTree("", kFloppyList, "usb-storage-0", 5);
  mkdir((dir + "/scsi/usb-storage-1").c_str(), 0755);
  zorvtest::WriteFile(dir + "/scsi/usb-storage-1/5", kFloppyEntry);
  ScopedProcDirectory proc(dir);
  EXPECT_EQ(1, ZorvScsi_I_IsUsbFloppy(5));
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(4));
}

// The directory of a modern kernel ("usb-storage", no number) is not
// matched.
TEST(ZorvScsiIsUsbFloppy, IgnoresUnnumberedUsbStorageDirectory) {
  ScopedProcDirectory proc(
      procTree(kFloppyEntry, kFloppyList, "usb-storage", 0));
  EXPECT_EQ(0, ZorvScsi_I_IsUsbFloppy(0));
}

// ---- records and listing --------------------------------------------------

// The destroy function frees the strings; the list frees the record.
TEST(ScanDeviceDeviceDestructorFun, FreesStringsOfRecord) {
  ScanDevice* pDevice = (ScanDevice*)calloc(1, sizeof(ScanDevice));
  pDevice->name = strdup("/dev/sda");
  pDevice->sgName = strdup("/dev/sg0");
  pDevice->description = strdup("d");
  pDevice->type = strdup("HD");
  ScanDevice_I_DeviceDestructorFun(pDevice);
  EXPECT_EQ(nullptr, pDevice->name);
  EXPECT_EQ(nullptr, pDevice->type);
  free(pDevice);
  ScanDevice_I_DeviceDestructorFun(nullptr);
  CGenList list;
  CGenListConstruct(&list, 1, ScanDevice_I_DeviceDestructorFun);
  ScanDevice* pOwned = (ScanDevice*)calloc(1, sizeof(ScanDevice));
  pOwned->name = strdup("x");
  CGenListPushBack(&list, pOwned);
  CGenListDestruct(&list);  // ASan reports a leak or a double free
  EXPECT_EQ(0, CGenListGetCount(&list));
}

// The listing on standard output, letter for letter.
TEST(TestScanScanScsi, PrintsEveryRecord) {
  ScopedProcDirectory proc(emptyProc());
  ScopedFakeSg fake;
  FakeSgDevice sg0(0, 0, 0, 0);
  sg0.inquiry = MakeInquiry(0, "QEMU", "VIRTIO DISK 0", "2.5+");
  FakeSgDevice sda(0, 0, 0, 0);
  FakeSgDevice sg1(1, 0, 5, 0);
  sg1.inquiry = MakeInquiry(5, "QEMU", "LSI CD-ROM 5", "2.5+");
  fake.Register("/dev/sg0", &sg0);
  fake.Register("/dev/sda", &sda);
  fake.Register("/dev/sg1", &sg1);
  zorvtest::FdCapture out(1);
  out.Start();
  TestScanScanScsi();
  EXPECT_EQ(
      "TestScanScanScsi() - 1\n"
      "TestScanScanScsi() - 2\n"
      "Name   :/dev/sda\n"
      "SGName :/dev/sg0\n"
      "Desc   :QEMU     VIRTIO DISK 0   2.5+\n"
      "Host   :0\n"
      "Bus    :0\n"
      "Id     :0\n"
      "Lun    :0\n"
      "Name   :\n"
      "SGName :/dev/sg1\n"
      "Desc   :QEMU     LSI CD-ROM 5    2.5+\n"
      "Host   :1\n"
      "Bus    :0\n"
      "Id     :5\n"
      "Lun    :0\n",
      out.Stop());
  EXPECT_EQ(0, fake.OpenCount());
}

// Device nodes open under the device directory; records keep "/dev".
TEST(ScanScsiDevices, OpensUnderDeviceDirectory) {
  std::string dir = zorvtest::MakeTempDir("dev");
  zorvtest::WriteFile(dir + "/sg0", "not a device");
  const char* saved = ZorvScsi_I_pszDevDirectory;
  ZorvScsi_I_pszDevDirectory = dir.c_str();
  CGenList list;
  ScanScsiDevices(&list);
  ZorvScsi_I_pszDevDirectory = saved;
  // A plain file opens but answers no address request: left out.
  EXPECT_EQ(0, CGenListGetCount(&list));
  CGenListDestruct(&list);
  zorvtest::RemoveTree(dir);
}

// ---- generic node of a block device --------------------------------------

// Deliberate: the host is not compared; /dev/sgb on host 7 with the same
// channel, id and lun matches a block device on host 0.
TEST(GetCorrespondingSGDevice, MatchesChannelIdAndLunButNotHost) {
  ScopedFakeSg fake;
  FakeSgDevice block(0, 0, 2, 3);
  FakeSgDevice sga(0, 0, 1, 0);
  FakeSgDevice sgb(7, 0, 2, 3);
  FakeSgDevice sgc(0, 0, 2, 3);
  fake.Register("/dev/sga", &sga);
  fake.Register("/dev/sgb", &sgb);
  fake.Register("/dev/sgc", &sgc);
  int sgFd = -5;
  EXPECT_EQ(0, GetCorrespondingSGDevice(block.Fd(), &sgFd));
  ASSERT_GE(sgFd, 0);
  int32_t host = -1;
  GetHostBusIdLunIOCTL(sgFd, &host, nullptr, nullptr, nullptr);
  EXPECT_EQ(7, host);
  EXPECT_EQ(1, fake.OpenCount());  // only the one handed out
  zorvScsiSyscalls.pfnClose(sgFd);
  std::vector<std::string> attempts = fake.Attempts();
  EXPECT_EQ((std::vector<std::string>{"/dev/sga", "/dev/sgb"}), attempts);
}

// No match, or no address for fd: 1 and -1.
TEST(GetCorrespondingSGDevice, ReturnsOneWhenNothingMatches) {
  ScopedFakeSg fake;
  FakeSgDevice block(0, 0, 2, 3);
  FakeSgDevice sga(0, 0, 1, 0);
  fake.Register("/dev/sga", &sga);
  int sgFd = 5;
  EXPECT_EQ(1, GetCorrespondingSGDevice(block.Fd(), &sgFd));
  EXPECT_EQ(-1, sgFd);
  EXPECT_EQ(26u, fake.Attempts().size());
  EXPECT_EQ(0, fake.OpenCount());
  block.failingIoctls = {0x5382};
  EXPECT_EQ(1, GetCorrespondingSGDevice(block.Fd(), &sgFd));
  EXPECT_EQ(26u, fake.Attempts().size());
  FakeSgDevice other(1, 0, 1, 0);
  EXPECT_EQ(0, GetCorrespondingSGDevice(other.Fd(), nullptr));
  EXPECT_EQ(0, fake.OpenCount());
}

// ---- log() beside the math library ---------------------------------------

// Two texts -> "debugout.txt" in the current directory holds both.
TEST(Log, AppendsToDebugoutInCurrentDirectory) {
  EXPECT_EQ(0, log("first line\n"));
  EXPECT_EQ(0, log("second"));
  EXPECT_EQ("first line\nsecond", zorvtest::ReadFile("debugout.txt"));
  EXPECT_EQ(-1, log(nullptr));
}

// The math library's log() is untouched: log(2.0) is ln 2, and the symbol
// "log" that the dynamic linker finds is the math function.
TEST(Log, MathLogStillComputesLogarithm) {
  volatile double two = 2.0;
  EXPECT_NEAR(0.69314718055994530942, ::log((double)two), 1e-15);
  EXPECT_NEAR(2.30258509299404568402, ::log(10.0), 1e-15);
  typedef double (*MathLog)(double);
  MathLog pfn = (MathLog)dlsym(RTLD_DEFAULT, "log");
  ASSERT_NE(nullptr, pfn);
  EXPECT_NEAR(0.69314718055994530942, pfn(two), 1e-15);
  EXPECT_NE(0, access("debugout.txt", F_OK));
  EXPECT_EQ(0, log("text"));
  EXPECT_EQ(0, access("debugout.txt", F_OK));
}

// Deliberate: an open that yields descriptor 0 counts as failure.
TEST(Log, DescriptorZeroCountsAsFailure) {
  int savedStdin = dup(0);
  ASSERT_GE(savedStdin, 0);
  close(0);
  int rc = log("lost");
  int zeroStillFree = fcntl(0, F_GETFD) < 0;
  dup2(savedStdin, 0);
  close(savedStdin);
  EXPECT_EQ(-1, rc);
  EXPECT_TRUE(zeroStillFree);
  EXPECT_EQ("", zorvtest::ReadFile("debugout.txt"));
}

// A "debugout.txt" that cannot be opened for writing: -1.
TEST(Log, UnopenableFileGivesMinusOne) {
  ASSERT_EQ(0, mkdir("debugout.txt", 0755));
  EXPECT_EQ(-1, log("x"));
}
