// Unit tests of the module main's pieces without a broker: registration,
// the command line, notifications and events (sent through the message
// seam of dapi2_p.h and recorded here), time-outs and the stop flag.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "dapi2/dapi2_p.h"
#include "support/test_support.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"

namespace {

std::vector<std::string> g_sent;
std::vector<std::string> g_types;

// Records the message instead of sending it.
int recordSend(const char* text) {
  g_sent.push_back(text ? text : "");
  return 0;
}

// Records the type and builds a plain header.
int recordHeader(char* buffer, uint32_t size, const char* to, const char* re,
                 const char* type, const char* lang) {
  g_types.push_back(type ? type : "(null)");
  return ZorvCreateMessageHeader(buffer, size, to, re, type, lang);
}

// DATA of a recorded message.
std::string dataOf(const std::string& message) {
  char buffer[8192];
  if (ZorvXmlGetField(message.c_str(), "MSG/DATA", 0, buffer, sizeof buffer))
    return "(none)";
  return buffer;
}

// Installs the recording seam for one test.
class Dapi2Events : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = dapi2MessageCalls;
    dapi2MessageCalls.pfnSendMessage = recordSend;
    dapi2MessageCalls.pfnCreateMessageHeader = recordHeader;
    g_sent.clear();
    g_types.clear();
  }
  void TearDown() override { dapi2MessageCalls = saved_; }
  Dapi2MessageCalls saved_;
};

int dummyCallback(void) { return 0; }

// slot 13 -> 28; slots 1 and 12 -> 0
TEST(Dapi2AddRegistrationStructureCallback, RefusesSlotThirteen) {
  Dapi2RegistrationStructure* reg = Dapi2_CreateRegistrationStructure();
  ASSERT_NE(nullptr, reg);
  EXPECT_EQ(28, Dapi2_AddRegistrationStructureCallback(
                    reg, 13, (Dapi2Callback)dummyCallback));
  EXPECT_EQ(28, Dapi2_AddRegistrationStructureCallback(
                    reg, 0, (Dapi2Callback)dummyCallback));
  EXPECT_EQ(0, Dapi2_AddRegistrationStructureCallback(
                   reg, 1, (Dapi2Callback)dummyCallback));
  EXPECT_EQ(0, Dapi2_AddRegistrationStructureCallback(
                   reg, 12, (Dapi2Callback)dummyCallback));
  EXPECT_EQ((Dapi2Callback)dummyCallback, reg->slot[11]);
  EXPECT_EQ(0, Dapi2_FreeRegistrationStructure(reg));
}

// a size word below the structure's size -> 28; null -> 28
TEST(Dapi2AddRegistrationStructureCallback, RefusesSmallSizeWordAndNull) {
  Dapi2RegistrationStructure* reg = Dapi2_CreateRegistrationStructure();
  ASSERT_NE(nullptr, reg);
  EXPECT_EQ(sizeof(Dapi2RegistrationStructure), reg->size);
  if (sizeof(void*) == 4) {
    EXPECT_EQ(52u, reg->size);
  }
  reg->size = sizeof(Dapi2RegistrationStructure) - 1;
  EXPECT_EQ(28, Dapi2_AddRegistrationStructureCallback(
                    reg, 1, (Dapi2Callback)dummyCallback));
  EXPECT_EQ(28, Dapi2_AddRegistrationStructureCallback(
                    nullptr, 1, (Dapi2Callback)dummyCallback));
  EXPECT_EQ(0, Dapi2_FreeRegistrationStructure(reg));
  EXPECT_EQ(28, Dapi2_FreeRegistrationStructure(nullptr));
}

// "-1024.-1024.-1024" -> false; anything else -> true
TEST(Dapi2IIsValidModuleVersion, FalseOnlyForUnsetTriple) {
  EXPECT_EQ(0, Dapi2_I_IsValidModuleVersion("-1024.-1024.-1024"));
  EXPECT_EQ(1, Dapi2_I_IsValidModuleVersion("2.1.0"));
  EXPECT_EQ(1, Dapi2_I_IsValidModuleVersion("-1024.-1024.0"));
  EXPECT_EQ(1, Dapi2_I_IsValidModuleVersion("-5.-5.-5"));
  // the middle number is read after the first ".", the last after the last
  EXPECT_EQ(0, Dapi2_I_IsValidModuleVersion("-1024.-1024.7.-1024"));
}

struct ParseRow {
  const char* name;
  std::vector<std::string> args;
  int32_t mode;
  const char* ref;
  const char* defFile;
  int32_t device, test;
  float percent;
  int32_t errorLimit;
};

// every key of the command line, table-driven
TEST(Dapi2ParseCommandLine, ReadsEveryKey) {
  const ParseRow rows[] = {
      {"nothing", {"mod"}, 0, "", "", -1, -1, 100.0f, 5},
      {"validate", {"mod", "validate"}, 1, "", "", -1, -1, 100.0f, 5},
      {"enumerate", {"mod", "enumerate"}, 2, "", "", -1, -1, 100.0f, 5},
      {"run", {"mod", "run"}, 3, "", "", -1, -1, 100.0f, 5},
      {"sysinfo", {"mod", "sysinfo"}, 4, "", "", -1, -1, 100.0f, 5},
      {"argv0 counts", {"run"}, 3, "", "", -1, -1, 100.0f, 5},
      {"case matters", {"mod", "RUN", "Ref=x"}, 0, "", "", -1, -1, 100.0f, 5},
      {"keys",
       {"mod", "ref=abc", "deffile=/x/y.ini", "device=12", "test=4",
        "percent=25.5", "errlimit=9"},
       0,
       "abc",
       "/x/y.ini",
       12,
       4,
       25.5f,
       9},
      {"percent 0", {"mod", "percent=0"}, 0, "", "", -1, -1, 100.0f, 5},
      {"percent 150", {"mod", "percent=150"}, 0, "", "", -1, -1, 100.0f, 5},
      {"percent 100", {"mod", "percent=100"}, 0, "", "", -1, -1, 100.0f, 5},
      {"errlimit -1", {"mod", "errlimit=-1"}, 0, "", "", -1, -1, 100.0f, 10000},
      {"errlimit 0", {"mod", "errlimit=0"}, 0, "", "", -1, -1, 100.0f, 0},
      {"unknown ignored",
       {"mod", "bogus=1", "param=A,1"},
       0,
       "",
       "",
       -1,
       -1,
       100.0f,
       5},
  };
  for (const ParseRow& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> args = row.args;
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    int32_t mode = 0, device = -1, test = -1, errorLimit = 5;
    float percent = 100.0f;
    char ref[80] = "", defFile[256] = "";
    EXPECT_EQ(
        0, Dapi2_ParseCommandLine((int)argv.size(), argv.data(), &mode, ref,
                                  sizeof ref, defFile, sizeof defFile, &device,
                                  &test, &percent, &errorLimit));
    EXPECT_EQ(row.mode, mode);
    EXPECT_STREQ(row.ref, ref);
    EXPECT_STREQ(row.defFile, defFile);
    EXPECT_EQ(row.device, device);
    EXPECT_EQ(row.test, test);
    EXPECT_FLOAT_EQ(row.percent, percent);
    EXPECT_EQ(row.errorLimit, errorLimit);
  }
}

// an over-long ref= is cut to the buffer
TEST(Dapi2ParseCommandLine, CutsOverlongReference) {
  std::string arg = "ref=" + std::string(200, 'r');
  char* argv[] = {const_cast<char*>("mod"), &arg[0]};
  char ref[80];
  Dapi2_ParseCommandLine(2, argv, nullptr, ref, sizeof ref, nullptr, 0, nullptr,
                         nullptr, nullptr, nullptr);
  EXPECT_EQ(79u, strlen(ref));
}

// without "errlimit=" the limit stays 5
TEST(Dapi2GetErrorLimit, StaysFiveWithoutKey) {
  EXPECT_EQ(5, Dapi2_GetErrorLimit());
}

// null registration structure -> 28
TEST(Dapi2MainUnit, NullRegistrationGives28) {
  char* argv[] = {const_cast<char*>("mod"), const_cast<char*>("run")};
  EXPECT_EQ(28, Dapi2_Main(2, argv, nullptr));
}

// no mode -> 30; validate without slot 2 -> 30
TEST(Dapi2MainUnit, UnknownModeAndValidateWithoutCallbackGive30) {
  Dapi2RegistrationStructure* reg = Dapi2_CreateRegistrationStructure();
  char* argv[] = {const_cast<char*>("mod"), const_cast<char*>("ref=x")};
  EXPECT_EQ(30, Dapi2_Main(2, argv, reg));
  char* argv2[] = {const_cast<char*>("mod"), const_cast<char*>("validate")};
  EXPECT_EQ(30, Dapi2_Main(2, argv2, reg));
  Dapi2_FreeRegistrationStructure(reg);
}

// kind 5 -> 22 and nothing sent
TEST_F(Dapi2Events, SendNotificationRefusesUnknownKind) {
  EXPECT_EQ(22, Dapi2_SendNotification(5, 0));
  EXPECT_TRUE(g_sent.empty());
}

// result codes -> words; 42 -> SETUPERROR, 9 -> empty
TEST_F(Dapi2Events, SendNotificationResultWords) {
  struct {
    int32_t code;
    const char* word;
  } rows[] = {{0, "PASS"},
              {1, "SETUPERROR"},
              {2, "FAIL"},
              {3, "BUSY"},
              {4, "PRIVILEGEERROR"},
              {5, "NOTAPPLICABLE"},
              {6, "BADPARAMS"},
              {7, "NOMEDIA"},
              {8, "DISCONTINUED"},
              {9, ""},
              {11, ""},
              {12, "SETUPERROR"},
              {42, "SETUPERROR"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    g_sent.clear();
    EXPECT_EQ(0, Dapi2_SendNotification(2, row.code));
    ASSERT_EQ(1u, g_sent.size());
    EXPECT_EQ(std::string("<TESTRESULT>") + row.word +
                  "</TESTRESULT><TESTPROCESSID></TESTPROCESSID>",
              dataOf(g_sent[0]));
  }
  EXPECT_EQ("DE_NOTIFY", g_types.back());
}

// start-up: type is the reference text (empty here), version -1024 each
TEST_F(Dapi2Events, StartupNotificationTypeIsReferenceText) {
  Dapi2_Version(3, 4, 5);
  EXPECT_EQ(0, Dapi2_SendNotification(0, 0));
  ASSERT_EQ(1u, g_sent.size());
  EXPECT_EQ("<STARTUP></STARTUP><VERSION>3.4.5</VERSION>", dataOf(g_sent[0]));
  EXPECT_EQ("", g_types[0]);
  EXPECT_EQ(0, Dapi2_SendNotification(1, 0));
  EXPECT_EQ("SHUTDOWN", dataOf(g_sent[1]));
}

// 10 twice -> one event; then 20 -> a second
TEST_F(Dapi2Events, SetPercentDoneSendsOnlyChanges) {
  EXPECT_EQ(0, Dapi2_SetPercentDone(10));
  EXPECT_EQ(0, Dapi2_SetPercentDone(10));
  EXPECT_EQ(1u, g_sent.size());
  EXPECT_EQ(0, Dapi2_SetPercentDone(20));
  ASSERT_EQ(2u, g_sent.size());
  EXPECT_EQ(
      "<EVENT><TYPE>PERCENTDONE</TYPE><TESTPROCESSID></TESTPROCESSID><TEXT>20"
      "</TEXT></EVENT>",
      dataOf(g_sent[1]));
  EXPECT_EQ("DE_EVENT", g_types[1]);
}

// the first call always sends, 0 included (the last value starts at -1)
TEST_F(Dapi2Events, SetPercentDoneFirstCallAlwaysSends) {
  EXPECT_EQ(0, Dapi2_SetPercentDone(0));
  EXPECT_EQ(1u, g_sent.size());
}

// Dapi2_Informative always carries code -1
TEST_F(Dapi2Events, InformativeCarriesEventCodeMinusOne) {
  EXPECT_EQ(0, Dapi2_Informative("x=%d", 5));
  ASSERT_EQ(1u, g_sent.size());
  EXPECT_EQ(
      "<EVENT><TYPE>INFO</TYPE><TESTPROCESSID></TESTPROCESSID><TEXT>x=5</TEXT>"
      "<EVENTCODE>-1</EVENTCODE></EVENT>",
      dataOf(g_sent[0]));
}

// every remaining event text, byte for byte
TEST_F(Dapi2Events, EventTextsByteForByte) {
  Dapi2_SetProgressInformation("p %s", "q");
  Dapi2_Warning(5, "w");
  Dapi2_Error(-7, "e");
  Dapi2_SetTimeOut(300);
  Dapi2_ClearTimeOutCount();
  ASSERT_EQ(5u, g_sent.size());
  EXPECT_EQ(
      "<EVENT><TYPE>PROGRESS</TYPE><TESTPROCESSID></TESTPROCESSID><TEXT>p q"
      "</TEXT></EVENT>",
      dataOf(g_sent[0]));
  EXPECT_EQ(
      "<EVENT><TYPE>WARN</TYPE><TESTPROCESSID></TESTPROCESSID><TEXT>w</TEXT>"
      "<EVENTCODE>5</EVENTCODE></EVENT>",
      dataOf(g_sent[1]));
  EXPECT_EQ(
      "<EVENT><TYPE>ERROR</TYPE><TESTPROCESSID></TESTPROCESSID><TEXT>e</TEXT>"
      "<EVENTCODE>-7</EVENTCODE></EVENT>",
      dataOf(g_sent[2]));
  EXPECT_EQ(
      "<EVENT><TYPE>SET_TIMEOUT</TYPE><TESTPROCESSID></TESTPROCESSID>"
      "<TIMEOUT_VALUE>300</TIMEOUT_VALUE></EVENT>",
      dataOf(g_sent[3]));
  EXPECT_EQ(
      "<EVENT><TYPE>CLEAR_TIMEOUT</TYPE><TESTPROCESSID></TESTPROCESSID></"
      "EVENT>",
      dataOf(g_sent[4]));
}

// a text longer than the buffers: no crash, not sent (message too long)
TEST_F(Dapi2Events, OverlongEventTextIsNotSentAndDoesNotCrash) {
  std::string big(20000, 'x');
  EXPECT_EQ(0, Dapi2_Informative("%s", big.c_str()));
  EXPECT_TRUE(g_sent.empty());
}

// a failed send is reported by Dapi2_I_SendEvent as 24
TEST_F(Dapi2Events, SendEventReportsFailedSendAs24) {
  dapi2MessageCalls.pfnSendMessage = [](const char*) { return 1; };
  EXPECT_EQ(24, Dapi2_I_SendEvent("<DATA></DATA>"));
  // ...but the event functions do not report it
  EXPECT_EQ(0, Dapi2_Informative("x"));
}

// timed progress every 100 ms with interval 1000 -> one event per second
TEST_F(Dapi2Events, TimedProgressSendsAboutOnePerInterval) {
  const int64_t base = 1700000000 - 1700000000 % 86400 + 3600;
  for (int i = 0; i < 30; i++) {
    zorvtest::ScopedFakeClock clock(base + i / 10, (i % 10) * 100000);
    Dapi2_SetProgressInformationTimed(1000, "tick %d", i);
  }
  // at 0 ms, then strictly after 1000 ms: 1100, 2200
  EXPECT_EQ(3u, g_sent.size());
}

// Deliberate: after midnight UTC timed progress stays silent until the new
// time of day passes the old stamp plus the interval
TEST_F(Dapi2Events, TimedProgressStaysSilentAfterMidnight) {
  const int64_t midnight = 1700000000 - 1700000000 % 86400 + 86400;
  {
    zorvtest::ScopedFakeClock clock(midnight - 10, 0);
    Dapi2_SetProgressInformationTimed(1000, "before");
  }
  EXPECT_EQ(1u, g_sent.size());
  {
    zorvtest::ScopedFakeClock clock(midnight + 5, 0);
    Dapi2_SetProgressInformationTimed(1000, "after");
  }
  EXPECT_EQ(1u, g_sent.size());
  // untimed progress always sends
  Dapi2_SetProgressInformation("untimed");
  EXPECT_EQ(2u, g_sent.size());
}

// null out -> 24
TEST(Dapi2GetTimeOut, NullOutGives24) {
  EXPECT_EQ(24, Dapi2_GetTimeOut(nullptr));
}

// no reply -> 24 after about 2 s, *out 0
TEST_F(Dapi2Events, GetTimeOutWithoutReplyGives24AfterTwoSeconds) {
  int32_t out = 77;
  uint32_t t0 = ZorvMilliSeconds();
  EXPECT_EQ(24, Dapi2_GetTimeOut(&out));
  uint32_t waited = ZorvMilliSeconds() - t0;
  EXPECT_EQ(0, out);
  EXPECT_GE(waited, 1900u);
  EXPECT_LE(waited, 10000u);
  ASSERT_EQ(1u, g_sent.size());
  EXPECT_EQ(
      "<EVENT><TYPE>GET_TIMEOUT</TYPE><TESTPROCESSID></TESTPROCESSID></EVENT>",
      dataOf(g_sent[0]));
}

// no command came -> not stopped
TEST(Dapi2CheckForStop, FalseWithoutCommand) {
  EXPECT_EQ(0, Dapi2_CheckForStop());
}

// null buffer or size 0 -> null; a language of three letters -> empty
TEST(Dapi2NlsGetStringWithXmlTag, NeedsBufferAndTwoLetterLanguage) {
  char buffer[16] = "junk";
  EXPECT_EQ(nullptr,
            Dapi2_NlsGetStringWithXmlTag("<NLS id=a/>", "en", nullptr, 5));
  EXPECT_EQ(nullptr,
            Dapi2_NlsGetStringWithXmlTag("<NLS id=a/>", "en", buffer, 0));
  EXPECT_EQ(buffer, Dapi2_NlsGetStringWithXmlTag("<NLS id=a/>", "eng", buffer,
                                                 sizeof buffer));
  EXPECT_STREQ("", buffer);
}

}  // namespace
