// Unit tests of test-common: severities, test log items, the module name,
// language tags and the parsing of the engine's device list.
#include "zorv2000/test-common.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "dapi2/dapi2_p.h"
#include "support/test_support.h"
#include "zorv2000/dapi2.h"

namespace {

// 5 -> "INVALID SEVERITY TYPE"; 0..2 -> the words
TEST(SeverityCodeToStr, NamesCodesAndRejectsOthers) {
  EXPECT_STREQ("INFO", SeverityCodeToStr(0));
  EXPECT_STREQ("WARN", SeverityCodeToStr(1));
  EXPECT_STREQ("ERROR", SeverityCodeToStr(2));
  EXPECT_STREQ("INVALID SEVERITY TYPE", SeverityCodeToStr(5));
  EXPECT_STREQ("INVALID SEVERITY TYPE", SeverityCodeToStr(-1));
}

// "info" -> -1 (case matters)
TEST(SeverityStrToCode, ComparesExactly) {
  EXPECT_EQ(0, SeverityStrToCode("INFO"));
  EXPECT_EQ(1, SeverityStrToCode("WARN"));
  EXPECT_EQ(2, SeverityStrToCode("ERROR"));
  EXPECT_EQ(-1, SeverityStrToCode("info"));
  EXPECT_EQ(-1, SeverityStrToCode("INFO "));
  EXPECT_EQ(-1, SeverityStrToCode(nullptr));
}

// constructed: 0, 0, -1, ""; the message is replaced by a copy
TEST(CZORVTestLogItem, ConstructsAndReplacesMessage) {
  CZORVTestLogItem item;
  ASSERT_EQ(1, CZORVTestLogItemConstruct(&item));
  EXPECT_EQ(0, item.severity);
  EXPECT_EQ(0, item.timeStamp);
  EXPECT_EQ(-1, item.eventCode);
  EXPECT_STREQ("", item.message);
  char text[] = "hello";
  EXPECT_EQ(1, CZORVTestLogItemSetMessage(&item, text));
  text[0] = 'j';
  EXPECT_STREQ("hello", item.message);
  EXPECT_EQ(0, CZORVTestLogItemSetMessage(&item, nullptr));
  CZORVTestLogItemDestruct(&item);
  EXPECT_EQ(0, CZORVTestLogItemConstruct(nullptr));
}

// a process started as "/opt/x/cdrom.linux" -> "cdrom.vtq"
TEST(PidToProcName, DerivesModuleNameFromLinuxProgram) {
  pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sleep", "/opt/x/cdrom.linux", "10", (char*)nullptr);
    _exit(127);
  }
  ASSERT_GT(pid, 0);
  // wait for the exec to show in /proc
  std::string name;
  for (int i = 0; i < 500; i++) {
    const char* p = pidToProcName(pid);
    if (p) {
      name = p;
      break;
    }
    usleep(2000);
  }
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ("cdrom.vtq", name);
}

// a command line without ".linux" -> null
TEST(PidToProcName, NullWithoutLinuxSuffix) {
  EXPECT_EQ(nullptr, pidToProcName((int32_t)getpid()));
  EXPECT_EQ(nullptr, pidToProcName(-5));
}

// module and tag -> "<NLS mod=m id=t />"
TEST(Dapi2NlsTagToToken, BuildsTags) {
  EXPECT_STREQ("<NLS mod=cdrom.vtq id=szX />",
               Dapi2_NlsTagToTokenMod("cdrom.vtq", "szX"));
  // this test program has no ".linux" name
  EXPECT_STREQ("<NLS mod= id=szY />", Dapi2_NlsTagToToken("szY"));
  EXPECT_STREQ("<NLS mod=m id=t a=1 b=two />",
               Dapi2_NlsTagToTokenVarMod("m", "t", "a=%s b=%s", "1", "two"));
  std::string longValue(100, 'v');
  std::string tag =
      Dapi2_NlsTagToTokenVarMod("m", "t", "a=%s", longValue.c_str());
  EXPECT_EQ("<NLS mod=m id=t a=" + std::string(64, 'v') + " />", tag);
  EXPECT_STREQ("<NLS mod= id=t a=% />", Dapi2_NlsTagToTokenVar("t", "a=%%"));
}

// a valid handle -> 1 and nothing else
TEST(CheckDeviceHandle, ValidHandleReturnsOne) {
  int32_t result = 42;
  EXPECT_EQ(1, CheckDeviceHandle(3, &result));
  EXPECT_EQ(42, result);
}

// EACCES -> result 4; another error -> result 1
TEST(CheckDeviceHandle, FailedOpenSetsResultByErrno) {
  int32_t result = 0;
  errno = EACCES;
  EXPECT_EQ(0, CheckDeviceHandle(-1, &result));
  EXPECT_EQ(4, result);
  errno = ENOENT;
  EXPECT_EQ(0, CheckDeviceHandle(-1, &result));
  EXPECT_EQ(1, result);
  errno = EBUSY;
  EXPECT_EQ(0, CheckDeviceHandle(-1, &result));
  EXPECT_EQ(3, result);
}

// two DEVICE elements with every field, FRU and two additional entries
TEST(ZorvParseModuleDeviceList, ParsesDevicesInOrder) {
  CGenList list;
  CGenListConstruct(&list, 1, Dapi2_I_KillDeviceData);
  const char* text =
      "<DEVICE><DID>7</DID><NAME>Drive</NAME><DESCRIPTION>d</DESCRIPTION>"
      "<OSLOCATOR>/dev/sr0</OSLOCATOR><HWLOCATOR>SCSI:0:0:3:0</HWLOCATOR>"
      "<DEVTYPE>CD</DEVTYPE><BUSTYPE>SCSI_BUS</BUSTYPE>"
      "<FRU_MANUFACTURER>M</FRU_MANUFACTURER><FRU_MODELNUMBER>N</"
      "FRU_MODELNUMBER>"
      "<FRU_SERIALNUMBER>S</FRU_SERIALNUMBER><FRU_FIRMWAREREV>F</"
      "FRU_FIRMWAREREV>"
      "<FRU_FIRMWAREDATE>D</FRU_FIRMWAREDATE><FRU_PHYSADDRESS>P</"
      "FRU_PHYSADDRESS>"
      "<FRU_ADDINFO_FIELD>f1</FRU_ADDINFO_FIELD><FRU_ADDINFO_DESC>d1"
      "</FRU_ADDINFO_DESC><FRU_ADDINFO_VALUE>v1</FRU_ADDINFO_VALUE>"
      "<FRU_ADDINFO_FIELD>f2</FRU_ADDINFO_FIELD><FRU_ADDINFO_DESC>d2"
      "</FRU_ADDINFO_DESC><FRU_ADDINFO_VALUE>v2</FRU_ADDINFO_VALUE>"
      "<TESTS_SUPPORTED>1,2</TESTS_SUPPORTED></DEVICE>"
      "<DEVICE><DID>9</DID><NAME>Stick</NAME></DEVICE>";
  EXPECT_EQ(2, ZorvParseModuleDeviceList(&list, text));
  ASSERT_EQ(2, CGenListGetCount(&list));
  CGenListIter it;
  CGenListIterInit(&it, &list);
  Dapi2Device* d = (Dapi2Device*)CGenListIterGetData(it);
  EXPECT_EQ(7u, d->id);
  EXPECT_STREQ("Drive", d->name);
  EXPECT_STREQ("d", d->description);
  EXPECT_STREQ("/dev/sr0", d->osLocator);
  EXPECT_STREQ("SCSI:0:0:3:0", d->hwLocator);
  EXPECT_STREQ("CD", d->devType);
  EXPECT_STREQ("SCSI_BUS", d->busType);
  EXPECT_STREQ("1,2", d->testsSupported);
  ASSERT_NE(nullptr, d->fruInfo);
  EXPECT_STREQ("M", d->fruInfo->manufacturer);
  EXPECT_STREQ("P", d->fruInfo->physicalAddress);
  Dapi2FruAdditionalInfo* a = Dapi2_GetFirstFruAdditionalInfo(d->fruInfo);
  ASSERT_NE(nullptr, a);
  EXPECT_STREQ("f1", a->field);
  EXPECT_STREQ("v1", a->value);
  a = Dapi2_GetNextFruAdditionalInfo(d->fruInfo);
  ASSERT_NE(nullptr, a);
  EXPECT_STREQ("d2", a->description);
  CGenListIterAdv(&it);
  d = (Dapi2Device*)CGenListIterGetData(it);
  EXPECT_EQ(9u, d->id);
  // missing elements are stored as ""
  EXPECT_STREQ("", d->hwLocator);
  EXPECT_STREQ("", d->testsSupported);
  EXPECT_EQ(nullptr, d->fruInfo);
  CGenListDestruct(&list);
}

// no DEVICE element -> empty list
TEST(ZorvParseModuleDeviceList, NoDeviceElementLeavesListEmpty) {
  CGenList list;
  CGenListConstruct(&list, 1, Dapi2_I_KillDeviceData);
  EXPECT_EQ(0, ZorvParseModuleDeviceList(&list, "<DEVICES></DEVICES>"));
  EXPECT_EQ(0, ZorvParseModuleDeviceList(&list, ""));
  EXPECT_EQ(0, ZorvParseModuleDeviceList(&list, nullptr));
  EXPECT_EQ(0, CGenListGetCount(&list));
  CGenListDestruct(&list);
}

// hostile input: unclosed elements, nesting, truncation -> no crash
TEST(ZorvParseModuleDeviceList, SurvivesHostileInput) {
  const char* rows[] = {
      "<DEVICE>",
      "<DEVICE><DID>1</DID>",
      "<DEVICE><NAME>x</DEVICE>",
      "<DEVICE><DID>99999999999999999999</DID></DEVICE>",
      "<DEVICE></DEVICE><DEVICE>",
      "</DEVICE><DEVICE><FRU_ADDINFO_FIELD>a</DEVICE>",
      "<DEVICE><FRU_ADDINFO_FIELD>a</FRU_ADDINFO_FIELD></DEVICE>",
      "<<<<DEVICE>>>></DEVICE>",
  };
  for (const char* row : rows) {
    SCOPED_TRACE(row);
    CGenList list;
    CGenListConstruct(&list, 1, Dapi2_I_KillDeviceData);
    int n = ZorvParseModuleDeviceList(&list, row);
    EXPECT_EQ(n, CGenListGetCount(&list));
    CGenListDestruct(&list);
  }
}

// no engine connection and no devices -> Dapi2_GetFirstDevice null
TEST(Dapi2GetFirstDevice, NullWithoutDevices) {
  EXPECT_EQ(nullptr, Dapi2_GetFirstDevice(0));
  EXPECT_EQ(nullptr, Dapi2_GetNextDevice());
}

}  // namespace
