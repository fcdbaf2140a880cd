// Tests of the message envelope: ids, flags, header and message builders,
// server commands, the field finder, packet classification and escaping.
#include "zorv2000/message-protocol.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include "global/genstr_p.h"
#include "global/message-protocol_p.h"
#include "support/test_support.h"
#include "zorv2000/genstr.h"
#include "zorv2000/primitives.h"

namespace {

// 2003-04-15 12:34:56 UTC.
const int64_t kExampleSeconds = 1050410096;

const char kWorkedExample[] =
    "<MSG><HDR><FROM>1234</FROM><TO>NLSENGINE</TO><ID>7</ID>"
    "<TYPE>NLS_COMMAND</TYPE><TIME>20030415123456000</TIME></HDR>"
    "<DATA>NLS_REGMOD:1234:mymod.nls</DATA></MSG>\r\n";

// A growable string that is released at the end of the scope.
struct GrowableStr {
  CGenStr s;
  GrowableStr() {
    memset(&s, 0, sizeof s);
    if (!CGenStrInit(&s)) abort();
  }
  ~GrowableStr() { CGenStrDelete(&s); }
  std::string text() const { return s.buffer ? s.buffer : ""; }
};

void* failMalloc(size_t) { return nullptr; }
void* failCalloc(size_t, size_t) { return nullptr; }
void* failRealloc(void*, size_t) { return nullptr; }

// Makes this unit's malloc or calloc entry fail while in scope.
struct ScopedFailingProtocolAlloc {
  ScopedFailingProtocolAlloc(bool bMalloc, bool bCalloc) {
    if (bMalloc) zorvProtocolAllocCalls.pfnMalloc = failMalloc;
    if (bCalloc) zorvProtocolAllocCalls.pfnCalloc = failCalloc;
  }
  ~ScopedFailingProtocolAlloc() {
    zorvProtocolAllocCalls.pfnMalloc = malloc;
    zorvProtocolAllocCalls.pfnCalloc = calloc;
  }
};

// Makes the string unit's reallocation fail while in scope.
struct ScopedFailingRealloc {
  ScopedFailingRealloc() { cGenAllocCalls.pfnRealloc = failRealloc; }
  ~ScopedFailingRealloc() { cGenAllocCalls.pfnRealloc = realloc; }
};

// The field at `path` of `text`, with the finder's status in *rc.
std::string field(const char* text, const char* path, int32_t index, int* rc) {
  GrowableStr out;
  *rc = ZorvXmlGetFieldStr(text, path, index, &out.s);
  return out.text();
}

// Switches every trace category on; call before the first trace line.
void enableAllTracing() {
  unsetenv("ZORV_TRACE_FILE");
  setenv("ZORV_TRACE", "all", 1);
}

// Number of times `needle` occurs in `text`.
size_t countOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

// "<tag>value</tag>".
std::string element(const std::string& tag, const std::string& value) {
  return "<" + tag + ">" + value + "</" + tag + ">";
}

// Characters sent unescaped, listed independently of the library: letters,
// digits, space and twenty punctuation characters.
bool expectPermitted(int ch) {
  static const int kPunctuation[] = {'$',  '-', '_', '.', '+', '!', '*',
                                     '\'', '(', ')', ',', '{', '}', '|',
                                     '\\', '^', '~', '[', ']', '`'};
  if (ch >= 'a' && ch <= 'z') return true;
  if (ch >= 'A' && ch <= 'Z') return true;
  if (ch >= '0' && ch <= '9') return true;
  if (ch == ' ') return true;
  for (int p : kPunctuation) {
    if (p == ch) return true;
  }
  return false;
}

// `depth` nested "<a>" elements around "x".
std::string nestedA(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<a>";
  text += "x";
  for (int i = 0; i < depth; ++i) text += "</a>";
  return text;
}

}  // namespace

// ---- Ids --------------------------------------------------------------------

// first three calls -> 1, 2, 3
TEST(ZorvGetLocallyUniqueMessageId, StartsAtOneAndCountsUp) {
  EXPECT_EQ(1u, ZorvGetLocallyUniqueMessageId());
  EXPECT_EQ(2u, ZorvGetLocallyUniqueMessageId());
  EXPECT_EQ(3u, ZorvGetLocallyUniqueMessageId());
}

TEST(ZorvGetLocalProcessId, ReturnsCachedClientPid) {
  zorvtest::ScopedFakePid pid(4321);
  EXPECT_EQ(4321, ZorvGetLocalProcessId());
  EXPECT_EQ(ZorvGetClientPid(), ZorvGetLocalProcessId());
}

// 1234 into 9 bytes -> ""
TEST(ZorvGetProcessIdString, LeavesNineByteBufferEmpty) {
  char buffer[16];
  memset(buffer, 'x', sizeof buffer);
  ZorvGetProcessIdString(1234, buffer, 9);
  EXPECT_STREQ("", buffer);
  EXPECT_EQ('x', buffer[1]);
}

// every size from 0 to 12: "" below 10, "1234" from 10 on, 0 untouched
TEST(ZorvGetProcessIdString, WritesPidFromTenBytesOn) {
  for (uint32_t size = 0; size <= 12; ++size) {
    SCOPED_TRACE(size);
    char buffer[16];
    memset(buffer, 'x', sizeof buffer);
    ZorvGetProcessIdString(1234, buffer, size);
    if (size == 0) {
      EXPECT_EQ('x', buffer[0]);
    } else if (size <= 9) {
      EXPECT_STREQ("", buffer);
    } else {
      EXPECT_STREQ("1234", buffer);
    }
  }
}

// 4294967295 into 11 bytes -> "4294967295"
TEST(ZorvGetProcessIdString, WritesLargestPidUnsigned) {
  char buffer[11];
  ZorvGetProcessIdString(4294967295u, buffer, sizeof buffer);
  EXPECT_STREQ("4294967295", buffer);
}

TEST(ZorvGetProcessIdString, IgnoresNullBuffer) {
  ZorvGetProcessIdString(1234, nullptr, 20);
  SUCCEED();
}

TEST(ZorvGetLocalProcessIdString, WritesCachedPid) {
  zorvtest::ScopedFakePid pid(1234);
  char buffer[20];
  ZorvGetLocalProcessIdString(buffer, sizeof buffer);
  EXPECT_STREQ("1234", buffer);
}

TEST(ZorvGetProcessIdFromString, ReturnsMinusOneForNull) {
  EXPECT_EQ(-1, ZorvGetProcessIdFromString(nullptr));
}

TEST(ZorvGetProcessIdFromString, ReadsDecimalValue) {
  EXPECT_EQ(1234, ZorvGetProcessIdFromString("1234"));
  EXPECT_EQ(12, ZorvGetProcessIdFromString("12ab"));
  EXPECT_EQ(0, ZorvGetProcessIdFromString(""));
}

// ---- Test flags -------------------------------------------------------------

namespace {
// Every byte value: the accessor gives 1 exactly when `bit` is set.
void checkFlagAccessor(int (*accessor)(uint8_t), unsigned bit) {
  for (unsigned value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    EXPECT_EQ((value & bit) ? 1 : 0, accessor(static_cast<uint8_t>(value)));
  }
}
}  // namespace

TEST(ZorvGetFlagInteractive, ReadsBit01OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagInteractive, 0x01);
}
TEST(ZorvGetFlagFixtureNeeded, ReadsBit02OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagFixtureNeeded, 0x02);
}
TEST(ZorvGetFlagShowFixturePromptEveryRun, ReadsBit04OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagShowFixturePromptEveryRun, 0x04);
}
TEST(ZorvGetFlagIsRisky, ReadsBit08OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagIsRisky, 0x08);
}
TEST(ZorvGetFlagIsDestructive, ReadsBit10OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagIsDestructive, 0x10);
}
TEST(ZorvGetFlagIsSoftwareDiag, ReadsBit20OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagIsSoftwareDiag, 0x20);
}
TEST(ZorvGetFlagSelfFixPossible, ReadsBit40OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagSelfFixPossible, 0x40);
}
TEST(ZorvGetFlagSelfHelp, ReadsBit80OfEveryByte) {
  checkFlagAccessor(ZorvGetFlagSelfHelp, 0x80);
}

// ---- ZorvXmlAddField --------------------------------------------------------

// "<HDR>" + TO "X" -> "<HDR><TO>X</TO>", returns 0
TEST(ZorvXmlAddField, AppendsFieldToText) {
  char buffer[64] = "<HDR>";
  EXPECT_EQ(0, ZorvXmlAddField(buffer, sizeof buffer, "TO", "X"));
  EXPECT_STREQ("<HDR><TO>X</TO>", buffer);
}

// "<HDR>" + TO "X": 16 bytes fit exactly, 15 -> 1 and nothing written
TEST(ZorvXmlAddField, NeedsLengthPlusTwiceTagPlusValuePlusSix) {
  char buffer[64] = "<HDR>";
  EXPECT_EQ(1, ZorvXmlAddField(buffer, 5 + 2 * 2 + 1 + 6 - 1, "TO", "X"));
  EXPECT_STREQ("<HDR>", buffer);
  EXPECT_EQ(0, ZorvXmlAddField(buffer, 5 + 2 * 2 + 1 + 6, "TO", "X"));
  EXPECT_STREQ("<HDR><TO>X</TO>", buffer);
}

TEST(ZorvXmlAddField, ReturnsOneForNullArguments) {
  char buffer[64] = "";
  EXPECT_EQ(1, ZorvXmlAddField(nullptr, 64, "TO", "X"));
  EXPECT_EQ(1, ZorvXmlAddField(buffer, sizeof buffer, nullptr, "X"));
  EXPECT_EQ(1, ZorvXmlAddField(buffer, sizeof buffer, "TO", nullptr));
  EXPECT_STREQ("", buffer);
}

// a buffer without terminator within size -> 1, nothing read past size
TEST(ZorvXmlAddField, ReturnsOneForUnterminatedBuffer) {
  char* buffer = static_cast<char*>(malloc(8));
  memset(buffer, 'a', 8);
  EXPECT_EQ(1, ZorvXmlAddField(buffer, 8, "T", ""));
  free(buffer);
}

// ---- ZorvCreateMessageHeader ------------------------------------------------

TEST(ZorvCreateMessageHeader, CarriesIdOneThenTwo) {
  char buffer[200];
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "NLSENGINE",
                                       nullptr, "T", nullptr));
  EXPECT_NE(nullptr, strstr(buffer, "<ID>1</ID>"));
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "NLSENGINE",
                                       nullptr, "T", nullptr));
  EXPECT_NE(nullptr, strstr(buffer, "<ID>2</ID>"));
}

// pid 1234, fixed clock, no RE and LANG -> FROM TO ID TYPE TIME in order
TEST(ZorvCreateMessageHeader, HasFiveElementsInOrderWithoutReAndLang) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  char buffer[200];
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "NLSENGINE",
                                       nullptr, "NLS_COMMAND", nullptr));
  EXPECT_STREQ(
      "<HDR><FROM>1234</FROM><TO>NLSENGINE</TO><ID>1</ID>"
      "<TYPE>NLS_COMMAND</TYPE><TIME>20030415123456000</TIME></HDR>",
      buffer);
}

// the real clock: TIME holds 17 digits ending in "000"
TEST(ZorvCreateMessageHeader, StampsTimeWithSeventeenDigitsEndingInZeros) {
  char buffer[200];
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "1", nullptr, "T",
                                       nullptr));
  const char* pTime = strstr(buffer, "<TIME>");
  ASSERT_NE(nullptr, pTime);
  std::string stamp(pTime + 6);
  stamp = stamp.substr(0, stamp.find('<'));
  ASSERT_EQ(17u, stamp.size());
  EXPECT_EQ(std::string::npos, stamp.find_first_not_of("0123456789"));
  EXPECT_EQ("000", stamp.substr(14));
  EXPECT_EQ('2', stamp[0]);
}

// 999999 microseconds past the second -> milliseconds still "000"
TEST(ZorvCreateMessageHeader, WritesZeroMillisecondsWhateverTheClock) {
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 999999);
  char buffer[200];
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "1", nullptr, "T",
                                       nullptr));
  EXPECT_NE(nullptr, strstr(buffer, "<TIME>20030415123456000</TIME>"));
}

// RE between ID and TYPE, LANG after TIME
TEST(ZorvCreateMessageHeader, PutsReAfterIdAndLangAfterTime) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  char buffer[200];
  ASSERT_EQ(0, ZorvCreateMessageHeader(buffer, sizeof buffer, "4321", "7",
                                       "DE_COMMAND", "EN"));
  EXPECT_STREQ(
      "<HDR><FROM>1234</FROM><TO>4321</TO><ID>1</ID><RE>7</RE>"
      "<TYPE>DE_COMMAND</TYPE><TIME>20030415123456000</TIME>"
      "<LANG>EN</LANG></HDR>",
      buffer);
}

TEST(ZorvCreateMessageHeader, ReturnsOneForNullBufferToOrType) {
  char buffer[200];
  EXPECT_EQ(1,
            ZorvCreateMessageHeader(nullptr, 200, "A", nullptr, "T", nullptr));
  EXPECT_EQ(1, ZorvCreateMessageHeader(buffer, sizeof buffer, nullptr, nullptr,
                                       "T", nullptr));
  EXPECT_EQ(1, ZorvCreateMessageHeader(buffer, sizeof buffer, "A", nullptr,
                                       nullptr, nullptr));
}

// sizes 0 to 5 -> 2; 6 holds "<HDR>" but not FROM -> 3
TEST(ZorvCreateMessageHeader, ReturnsTwoBelowSixBytes) {
  char buffer[200];
  for (uint32_t size = 0; size < 6; ++size) {
    SCOPED_TRACE(size);
    EXPECT_EQ(
        2, ZorvCreateMessageHeader(buffer, size, "A", nullptr, "T", nullptr));
  }
  EXPECT_EQ(3, ZorvCreateMessageHeader(buffer, 6, "A", nullptr, "T", nullptr));
  EXPECT_STREQ("<HDR>", buffer);
}

// pid 1234, to "NLSENGINE", type "T", lang "EN", no RE:
// "<HDR>" 5, FROM -> 22, TO -> 40, ID -> 50, TYPE -> 64, TIME -> 94,
// LANG -> 109, "</HDR>" -> 115 and the terminator 116.
TEST(ZorvCreateMessageHeader, NumbersLangTenAndClosingTagNine) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  char buffer[200];
  // LANG needs 94 + 2 x 4 + 2 + 6 = 110 bytes
  EXPECT_EQ(10, ZorvCreateMessageHeader(buffer, 109, "NLSENGINE", nullptr, "T",
                                        "EN"));
  EXPECT_EQ(std::string::npos, std::string(buffer).find("LANG"));
  // LANG fits; the closing tag needs 109 + 3 + 4 = 116 bytes
  EXPECT_EQ(
      9, ZorvCreateMessageHeader(buffer, 115, "NLSENGINE", nullptr, "T", "EN"));
  EXPECT_NE(std::string::npos, std::string(buffer).find("<LANG>EN</LANG>"));
  EXPECT_EQ(std::string::npos, std::string(buffer).find("</HDR>"));
  EXPECT_EQ(
      0, ZorvCreateMessageHeader(buffer, 116, "NLSENGINE", nullptr, "T", "EN"));
  EXPECT_EQ(115u, strlen(buffer));
}

TEST(ZorvCreateMessageHeader, TakesNoIdWhenFailingBeforeId) {
  zorvtest::ScopedFakePid pid(1234);
  char buffer[200];
  EXPECT_EQ(3, ZorvCreateMessageHeader(buffer, 20, "A", nullptr, "T", nullptr));
  EXPECT_EQ(4, ZorvCreateMessageHeader(buffer, 25, "A", nullptr, "T", nullptr));
  EXPECT_EQ(1u, ZorvGetLocallyUniqueMessageId());
}

namespace {
struct HeaderStep {
  const char* tag;
  std::string value;
  int code;
};

// Expected status and buffer text of a header of `size` bytes built from
// `steps` (the id step is the one tagged "ID"); *pbTookId says whether the
// call reached the id.
int modelHeader(uint32_t size, const std::vector<HeaderStep>& steps,
                std::string* text, bool* pbTookId) {
  *pbTookId = false;
  if (size < 6) return 2;
  *text = "<HDR>";
  for (const HeaderStep& step : steps) {
    if (strcmp(step.tag, "ID") == 0) *pbTookId = true;
    size_t needed = text->size() + 2 * strlen(step.tag) + step.value.size() + 6;
    if (size < needed) return step.code;
    *text += element(step.tag, step.value);
  }
  if (size < text->size() + 7) return 9;
  *text += "</HDR>";
  return 0;
}
}  // namespace

// every size from 0 to the whole header + 2: status and partial text
// match a model of the steps; every code from 2 to 10 shows up
TEST(ZorvCreateMessageHeader, ReportsEachFailingStepAtEverySize) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  uint32_t nextId = 1;
  std::set<int> seen;
  for (uint32_t size = 0; size < 140; ++size) {
    SCOPED_TRACE(size);
    std::vector<HeaderStep> steps = {
        {"FROM", "1234", 3},
        {"TO", "NLSENGINE", 4},
        {"ID", std::to_string(nextId), 5},
        {"RE", "77", 6},
        {"TYPE", "NLS_COMMAND", 7},
        {"TIME", "20030415123456000", 8},
        {"LANG", "EN", 10},
    };
    std::string expectedText;
    bool bTookId = false;
    int expected = modelHeader(size, steps, &expectedText, &bTookId);
    char buffer[300];
    strcpy(buffer, "untouched");
    int rc = ZorvCreateMessageHeader(buffer, size, "NLSENGINE", "77",
                                     "NLS_COMMAND", "EN");
    EXPECT_EQ(expected, rc);
    if (size >= 6) {
      EXPECT_EQ(expectedText, std::string(buffer));
    }
    if (bTookId) ++nextId;
    seen.insert(rc);
  }
  EXPECT_EQ((std::set<int>{0, 2, 3, 4, 5, 6, 7, 8, 9, 10}), seen);
}

// ---- ZorvCreateMessage ------------------------------------------------------

// "DATA" no line end; "MSG", "<MSG", "ACK", "STOP", "STARTUP" end in "\r\n"
TEST(ZorvCreateMessage, EndsOnlyTopLevelTagsWithLineEnd) {
  struct Row {
    const char* name;
    const char* tag;
    const char* expected;
  };
  const Row rows[] = {
      {"DATA", "DATA", "<DATA>ab</DATA>"},
      {"MSG", "MSG", "<MSG>ab</MSG>\r\n"},
      {"<MSG", "<MSG", "<MSG>ab</MSG>\r\n"},
      {"ACK", "ACK", "<ACK>ab</ACK>\r\n"},
      {"STOP", "STOP", "<STOP>ab</STOP>\r\n"},
      {"STARTUP", "STARTUP", "<STARTUP>ab</STARTUP>\r\n"},
      {"<DATA", "<DATA", "<DATA>ab</DATA>"},
      {"lower-case msg", "msg", "<msg>ab</msg>"},
      {"HDR", "HDR", "<HDR>ab</HDR>"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char buffer[64];
    EXPECT_EQ(0, ZorvCreateMessage(buffer, sizeof buffer, row.tag, "a", "b",
                                   (const char*)nullptr));
    EXPECT_STREQ(row.expected, buffer);
  }
}

// no parts -> "<ACK></ACK>\r\n"
TEST(ZorvCreateMessage, BuildsEmptyElementWithoutParts) {
  char buffer[64];
  EXPECT_EQ(
      0, ZorvCreateMessage(buffer, sizeof buffer, "ACK", (const char*)nullptr));
  EXPECT_STREQ("<ACK></ACK>\r\n", buffer);
}

// "<MSG>abc</MSG>\r\n" is 16 bytes + terminator: every smaller size gives
// 2 and the longest prefix that fits
TEST(ZorvCreateMessage, ReturnsTwoAndCutsWhenTooSmall) {
  const std::string whole = "<MSG>abc</MSG>\r\n";
  for (uint32_t size = 1; size <= whole.size() + 2; ++size) {
    SCOPED_TRACE(size);
    char buffer[64];
    memset(buffer, 'x', sizeof buffer);
    int rc =
        ZorvCreateMessage(buffer, size, "MSG", "a", "bc", (const char*)nullptr);
    if (size > whole.size()) {
      EXPECT_EQ(0, rc);
      EXPECT_EQ(whole, std::string(buffer));
    } else {
      EXPECT_EQ(2, rc);
      EXPECT_EQ(whole.substr(0, size - 1), std::string(buffer));
      EXPECT_EQ('x', buffer[size]);
    }
  }
}

TEST(ZorvCreateMessage, ReturnsTwoForNullBufferZeroSizeOrNullTag) {
  char buffer[8] = "x";
  EXPECT_EQ(2, ZorvCreateMessage(nullptr, 8, "MSG", (const char*)nullptr));
  EXPECT_EQ(2, ZorvCreateMessage(buffer, 0, "MSG", (const char*)nullptr));
  EXPECT_STREQ("x", buffer);
  EXPECT_EQ(2, ZorvCreateMessage(buffer, sizeof buffer, nullptr,
                                 (const char*)nullptr));
  EXPECT_STREQ("", buffer);
}

// ---- ZorvCreateMessageStr ---------------------------------------------------

TEST(ZorvCreateMessageStr, ReplacesPreviousContent) {
  GrowableStr out;
  ASSERT_EQ(1, CGenStrAssignChar(&out.s, "old text"));
  EXPECT_EQ(
      0, ZorvCreateMessageStr(&out.s, "<STOP", "1234", (const char*)nullptr));
  EXPECT_EQ("<STOP>1234</STOP>\r\n", out.text());
}

// a fixed 10-byte string that cannot hold the message -> still 0
TEST(ZorvCreateMessageStr, ReturnsZeroWhenFixedStringCannotGrow) {
  char buffer[10];
  CGenStr fixed;
  CGenStrInitBuff(&fixed, buffer, 0, sizeof buffer);
  EXPECT_EQ(0, ZorvCreateMessageStr(&fixed, "MSG", "0123456789",
                                    (const char*)nullptr));
  EXPECT_LT(strlen(buffer), sizeof buffer);
  EXPECT_EQ(0u, std::string("<MSG>0123456789</MSG>\r\n").find(buffer));
}

// growth of a heap string fails -> still 0
TEST(ZorvCreateMessageStr, ReturnsZeroWhenGrowthFails) {
  GrowableStr out;
  // a failed reallocation leaves the old block behind; free it here
  char* pOld = out.s.buffer;
  int rc;
  {
    ScopedFailingRealloc failing;
    rc = ZorvCreateMessageStr(&out.s, "MSG", "payload", (const char*)nullptr);
  }
  EXPECT_EQ(0, rc);
  EXPECT_EQ(nullptr, out.s.buffer);
  free(pOld);
}

TEST(ZorvCreateMessageStr, IgnoresNullString) {
  EXPECT_EQ(0, ZorvCreateMessageStr(nullptr, "MSG", (const char*)nullptr));
}

// ---- ZorvClientCreateEngineCommand ------------------------------------------

TEST(ZorvClientCreateEngineCommand, BuildsWholeMessageWithLang) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  GrowableStr out;
  EXPECT_EQ(0, ZorvClientCreateEngineCommand("DIAGENGINE", "EN", "DE_COMMAND",
                                             "SYSINFO", &out.s));
  EXPECT_EQ(
      "<MSG><HDR><FROM>1234</FROM><TO>DIAGENGINE</TO><ID>1</ID>"
      "<TYPE>DE_COMMAND</TYPE><TIME>20030415123456000</TIME>"
      "<LANG>EN</LANG></HDR><DATA>SYSINFO</DATA></MSG>\r\n",
      out.text());
}

// "a<b>&c" goes in unescaped
TEST(ZorvClientCreateEngineCommand, PutsDataInAsItStands) {
  GrowableStr out;
  EXPECT_EQ(0,
            ZorvClientCreateEngineCommand("X", nullptr, "T", "a<b>&c", &out.s));
  EXPECT_NE(std::string::npos, out.text().find("<DATA>a<b>&c</DATA>"));
}

// null to, or a to of 200 characters (no room in 200 bytes) -> 1
TEST(ZorvClientCreateEngineCommand, ReturnsOneWhenHeaderDoesNotBuild) {
  GrowableStr out;
  EXPECT_EQ(1,
            ZorvClientCreateEngineCommand(nullptr, nullptr, "T", "d", &out.s));
  std::string longTo(200, 'A');
  EXPECT_EQ(1, ZorvClientCreateEngineCommand(longTo.c_str(), nullptr, "T", "d",
                                             &out.s));
  EXPECT_EQ("", out.text());
}

TEST(ZorvClientCreateEngineCommand, ReturnsTwoForNullDataOrString) {
  GrowableStr out;
  EXPECT_EQ(2,
            ZorvClientCreateEngineCommand("X", nullptr, "T", nullptr, &out.s));
  EXPECT_EQ(2, ZorvClientCreateEngineCommand("X", nullptr, "T", "d", nullptr));
}

// no scratch buffer -> 4, the string left as it was
TEST(ZorvClientCreateEngineCommand, ReturnsFourWhenScratchAllocationFails) {
  GrowableStr out;
  ASSERT_EQ(1, CGenStrAssignChar(&out.s, "before"));
  int rc;
  {
    ScopedFailingProtocolAlloc failing(false, true);
    rc = ZorvClientCreateEngineCommand("X", nullptr, "T", "d", &out.s);
  }
  EXPECT_EQ(4, rc);
  EXPECT_EQ("before", out.text());
}

// a fixed string too small for the message, and a heap string whose
// growth fails: both still 0 (3 is never returned)
TEST(ZorvClientCreateEngineCommand, ReturnsZeroWhenTargetStringCannotGrow) {
  zorvtest::ScopedFakePid pid(1234);
  char buffer[20];
  CGenStr fixed;
  CGenStrInitBuff(&fixed, buffer, 0, sizeof buffer);
  EXPECT_EQ(0,
            ZorvClientCreateEngineCommand("X", nullptr, "T", "data", &fixed));
  // the wrapped buffer's capacity is 19: 18 characters and the terminator
  EXPECT_STREQ("<MSG><HDR><FROM>12", buffer);

  GrowableStr out;
  char* pOld = out.s.buffer;
  int rc;
  {
    ScopedFailingRealloc failing;
    rc = ZorvClientCreateEngineCommand("X", nullptr, "T", "data", &out.s);
  }
  EXPECT_EQ(0, rc);
  EXPECT_EQ(nullptr, out.s.buffer);
  free(pOld);
}

// ---- Server commands --------------------------------------------------------

TEST(ZorvClientCreateNlsEngineCommandStr, MatchesWorkedExampleByteForByte) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  for (uint32_t id = 1; id <= 6; ++id) {
    ASSERT_EQ(id, ZorvGetLocallyUniqueMessageId());
  }
  GrowableStr out;
  ASSERT_EQ(0, ZorvClientCreateNlsEngineCommandStr("NLS_REGMOD:1234:mymod.nls",
                                                   &out.s));
  EXPECT_EQ(std::string(kWorkedExample), out.text());
  EXPECT_EQ(
      zorvtest::ReadFile(zorvtest::DataPath("messages/nls-regmod-request.msg")),
      out.text());

  int rc;
  EXPECT_EQ("7", field(out.s.buffer, "MSG/HDR/ID", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("NLS_COMMAND", field(out.s.buffer, "MSG/HDR/TYPE", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("NLS_REGMOD:1234:mymod.nls",
            field(out.s.buffer, "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("", field(out.s.buffer, "MSG/HDR/RE", 0, &rc));
  EXPECT_EQ(2, rc);
}

TEST(ZorvClientCreateNlsEngineCommand, BuildsIntoFixedBuffer) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  for (int i = 0; i < 6; ++i) ZorvGetLocallyUniqueMessageId();
  char buffer[512];
  EXPECT_EQ(0, ZorvClientCreateNlsEngineCommand("NLS_REGMOD:1234:mymod.nls",
                                                buffer, sizeof buffer));
  EXPECT_STREQ(kWorkedExample, buffer);
}

// the worked example is 161 bytes: 162 fit, 161 -> 2 and a cut prefix
TEST(ZorvClientCreateNlsEngineCommand,
     ReturnsTwoWhenMessageAndTerminatorExceedSize) {
  zorvtest::ScopedFakePid pid(1234);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  for (int i = 0; i < 6; ++i) ZorvGetLocallyUniqueMessageId();
  const std::string whole = kWorkedExample;
  ASSERT_EQ(161u, whole.size());
  char buffer[512];
  EXPECT_EQ(0, ZorvClientCreateNlsEngineCommand("NLS_REGMOD:1234:mymod.nls",
                                                buffer, 162));
  EXPECT_EQ(whole, std::string(buffer));
  // the next message carries id 8 and is the same length
  std::string next = whole;
  next.replace(next.find("<ID>7</ID>"), 10, "<ID>8</ID>");
  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(2, ZorvClientCreateNlsEngineCommand("NLS_REGMOD:1234:mymod.nls",
                                                buffer, 161));
  EXPECT_EQ(next.substr(0, 160), std::string(buffer));
  EXPECT_EQ('x', buffer[161]);
}

TEST(ZorvClientCreateNlsEngineCommand, ReturnsTwoForNullBufferOrZeroSize) {
  char buffer[4] = "x";
  EXPECT_EQ(2, ZorvClientCreateNlsEngineCommand("A", nullptr, 100));
  EXPECT_EQ(2, ZorvClientCreateNlsEngineCommand("A", buffer, 0));
  EXPECT_STREQ("x", buffer);
}

// no scratch buffer -> the builder's 4 passes through
TEST(ZorvClientCreateNlsEngineCommand, PassesBuilderFailureThrough) {
  char buffer[512] = "x";
  ScopedFailingProtocolAlloc failing(false, true);
  EXPECT_EQ(4, ZorvClientCreateNlsEngineCommand("A", buffer, sizeof buffer));
  EXPECT_STREQ("", buffer);
}

TEST(ZorvClientCreateMessageBrokerCommand, SendsMbcmdToMessageBroker) {
  zorvtest::ScopedFakePid pid(55);
  zorvtest::ScopedFakeClock clock(kExampleSeconds, 0);
  char buffer[512];
  EXPECT_EQ(0, ZorvClientCreateMessageBrokerCommand("STOP_MESSAGE_BROKER",
                                                    buffer, sizeof buffer));
  EXPECT_STREQ(
      "<MSG><HDR><FROM>55</FROM><TO>MESSAGEBROKER</TO><ID>1</ID>"
      "<TYPE>MBCMD</TYPE><TIME>20030415123456000</TIME></HDR>"
      "<DATA>STOP_MESSAGE_BROKER</DATA></MSG>\r\n",
      buffer);
}

TEST(ZorvClientCreateMessageBrokerCommandStr, SendsMbcmdToMessageBroker) {
  GrowableStr out;
  EXPECT_EQ(0, ZorvClientCreateMessageBrokerCommandStr("X", &out.s));
  EXPECT_NE(std::string::npos, out.text().find("<TO>MESSAGEBROKER</TO>"));
  EXPECT_NE(std::string::npos, out.text().find("<TYPE>MBCMD</TYPE>"));
  EXPECT_EQ(std::string::npos, out.text().find("LANG"));
}

// lang "EN" is accepted and left out
TEST(ZorvClientCreateDiagnosticEngineCommand, LeavesOutLangInFixedBuffer) {
  char buffer[512];
  EXPECT_EQ(0, ZorvClientCreateDiagnosticEngineCommand("SYSINFO", "EN", buffer,
                                                       sizeof buffer));
  std::string text = buffer;
  EXPECT_NE(std::string::npos, text.find("<TO>DIAGENGINE</TO>"));
  EXPECT_NE(std::string::npos, text.find("<TYPE>DE_COMMAND</TYPE>"));
  EXPECT_EQ(std::string::npos, text.find("LANG"));
}

TEST(ZorvClientCreateDiagnosticEngineCommandStr, PutsLangInWhenGiven) {
  GrowableStr out;
  EXPECT_EQ(
      0, ZorvClientCreateDiagnosticEngineCommandStr("SYSINFO", "EN", &out.s));
  EXPECT_NE(std::string::npos, out.text().find("</TIME><LANG>EN</LANG></HDR>"));
  EXPECT_NE(std::string::npos, out.text().find("<TO>DIAGENGINE</TO>"));
  EXPECT_EQ(0, ZorvClientCreateDiagnosticEngineCommandStr("SYSINFO", nullptr,
                                                          &out.s));
  EXPECT_EQ(std::string::npos, out.text().find("LANG"));
}

TEST(ZorvClientCreateNlsEngineCommandStr, LeavesOutLang) {
  GrowableStr out;
  EXPECT_EQ(0, ZorvClientCreateNlsEngineCommandStr("X", &out.s));
  EXPECT_NE(std::string::npos, out.text().find("<TO>NLSENGINE</TO>"));
  EXPECT_EQ(std::string::npos, out.text().find("LANG"));
}

// ---- ZorvXmlGetTag ----------------------------------------------------------

TEST(ZorvXmlGetTag, ReadsNamesAndFindsEnd) {
  struct Row {
    const char* name;
    const char* text;
    long endOffset;  // -1: null expected
    char endChar;
    const char* expectedName;  // null: name left untouched
  };
  const Row rows[] = {
      {"open tag", "<MSG>rest", 4, '>', "MSG"},
      {"closing tag", "</MSG>", 5, '>', "MSG"},
      {"empty element", "<X/>", 2, '/', nullptr},
      {"attributes ignored", "<NLS mod=\"a\">", 12, '>', "NLS"},
      {"digits and underscore", "<A_1b>", 5, '>', "A_1b"},
      {"empty name", "<>", 1, '>', ""},
      {"one slash skipped only", "<//X>", 4, '>', ""},
      {"slash alone", "</>", 1, '/', nullptr},
      {"not at <", "MSG>", -1, 0, nullptr},
      {"no >", "<MSG", -1, 0, nullptr},
      {"< at end", "<", -1, 0, nullptr},
      {"</ at end", "</", -1, 0, nullptr},
      {"empty text", "", -1, 0, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char name[40] = "untouched";
    const char* pEnd = ZorvXmlGetTag(row.text, name, sizeof name);
    if (row.endOffset < 0) {
      EXPECT_EQ(nullptr, pEnd);
    } else {
      ASSERT_NE(nullptr, pEnd);
      EXPECT_EQ(row.endOffset, pEnd - row.text);
      EXPECT_EQ(row.endChar, *pEnd);
    }
    EXPECT_STREQ(row.expectedName ? row.expectedName : "untouched", name);
  }
}

TEST(ZorvXmlGetTag, ReturnsNullForNullText) {
  char name[8];
  EXPECT_EQ(nullptr, ZorvXmlGetTag(nullptr, name, sizeof name));
}

// "<ABCDEFGH>" into 4 bytes -> "ABC"; 1 byte -> ""; 0 bytes -> untouched
TEST(ZorvXmlGetTag, CopiesAtMostSizeMinusOneCharacters) {
  const char* text = "<ABCDEFGH>";
  char name[16];
  memset(name, 'x', sizeof name);
  EXPECT_EQ(text + 9, ZorvXmlGetTag(text, name, 4));
  EXPECT_STREQ("ABC", name);
  EXPECT_EQ('x', name[4]);
  EXPECT_EQ(text + 9, ZorvXmlGetTag(text, name, 1));
  EXPECT_STREQ("", name);
  name[0] = 'q';
  EXPECT_EQ(text + 9, ZorvXmlGetTag(text, name, 0));
  EXPECT_EQ('q', name[0]);
  EXPECT_EQ(text + 9, ZorvXmlGetTag(text, nullptr, 40));
}

// a 300-character name into an exact 40-byte heap buffer -> 39 characters
TEST(ZorvXmlGetTag, BoundsLongNameByBufferSize) {
  std::string text = "<" + std::string(300, 'N') + ">";
  char* name = static_cast<char*>(malloc(40));
  const char* pEnd = ZorvXmlGetTag(text.c_str(), name, 40);
  ASSERT_NE(nullptr, pEnd);
  EXPECT_EQ('>', *pEnd);
  EXPECT_EQ(std::string(39, 'N'), std::string(name));
  free(name);
}

// ---- Field finder -----------------------------------------------------------

TEST(ZorvXmlGetFieldStrAndTagStartEnd, SkipsEmptyElementTag) {
  int rc;
  EXPECT_EQ("A", field("<MSG><HDR><X/><TYPE>A</TYPE></HDR></MSG>",
                       "MSG/HDR/TYPE", 0, &rc));
  EXPECT_EQ(0, rc);
}

// index 1 -> "b", index 2 -> 2
TEST(ZorvXmlGetFieldStrAndTagStartEnd, FindsOccurrenceByIndex) {
  const char* text = "<MSG><DATA>a</DATA><DATA>b</DATA></MSG>";
  int rc;
  EXPECT_EQ("a", field(text, "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("b", field(text, "MSG/DATA", 1, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("", field(text, "MSG/DATA", 2, &rc));
  EXPECT_EQ(2, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoForNegativeIndex) {
  int rc;
  field("<MSG><DATA>a</DATA></MSG>", "MSG/DATA", -1, &rc);
  EXPECT_EQ(2, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsNestedElementsAsRawText) {
  int rc;
  EXPECT_EQ("<TESTSTATUS><STATE>@3C</STATE></TESTSTATUS>",
            field("<MSG><DATA><TESTSTATUS><STATE>@3C</STATE></TESTSTATUS>"
                  "</DATA></MSG>",
                  "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoWhenClosingTagMissing) {
  int rc;
  field("<MSG><DATA>abc</MSG>", "MSG/DATA", 0, &rc);
  EXPECT_EQ(2, rc);
  field("<MSG><DATA>abc", "MSG/DATA", 0, &rc);
  EXPECT_EQ(2, rc);
}

// "<MSG><DATA>a</X>b</DATA></MSG>" -> "a</X>b" and one trace line
TEST(ZorvXmlGetFieldStrAndTagStartEnd, SkipsStrayClosingTagWithTrace) {
  enableAllTracing();
  zorvtest::FdCapture err(2);
  err.Start();
  int rc;
  std::string content =
      field("<MSG><DATA>a</X>b</DATA></MSG>", "MSG/DATA", 0, &rc);
  std::string trace = zorvtest::NormalizeTrace(err.Stop());
  EXPECT_EQ(0, rc);
  EXPECT_EQ("a</X>b", content);
  EXPECT_EQ(1u, countOf(trace, "ZorvXmlGetField(), unmatched tag, DATA\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvXmlGetFieldStrAndTagStartEnd():message-protocol."
                       "cpp:LINE ZorvXmlGetField(), unmatched tag, DATA\n"));
  EXPECT_EQ(1u, countOf(trace, "\n"));
}

// "</X>" before anything is open -> ignored without trace
TEST(ZorvXmlGetFieldStrAndTagStartEnd, IgnoresClosingTagWithNothingOpen) {
  enableAllTracing();
  zorvtest::FdCapture err(2);
  err.Start();
  int rc;
  std::string content =
      field("</X><MSG><DATA>y</DATA></MSG>", "MSG/DATA", 0, &rc);
  std::string trace = err.Stop();
  EXPECT_EQ(0, rc);
  EXPECT_EQ("y", content);
  EXPECT_EQ(std::string::npos, trace.find("unmatched"));
}

// "<!--<DATA>x</DATA>-->" inside MSG: the comment's content is found
TEST(ZorvXmlGetFieldStrAndTagStartEnd, ScansCommentContentAsText) {
  int rc;
  EXPECT_EQ("x", field("<?xml version=\"1.0\"?><MSG><!--<DATA>x</DATA>-->"
                       "</MSG>",
                       "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, SetsTagStartAndTagEnd) {
  const char* text = "<MSG><HDR><ID>7</ID></HDR></MSG>";
  const char* pStart = nullptr;
  const char* pEnd = nullptr;
  GrowableStr out;
  EXPECT_EQ(0, ZorvXmlGetFieldStrAndTagStartEnd(text, &pStart, &pEnd,
                                                "MSG/HDR/ID", 0, &out.s));
  EXPECT_EQ(text + 10, pStart);
  EXPECT_EQ(text + 20, pEnd);
  EXPECT_EQ("<ID>7</ID>", std::string(pStart, pEnd));
  // either pointer may be null
  EXPECT_EQ(0, ZorvXmlGetFieldStrAndTagStartEnd(text, nullptr, &pEnd, "MSG/HDR",
                                                0, &out.s));
  EXPECT_EQ(text + 26, pEnd);
  EXPECT_EQ(0, ZorvXmlGetFieldStrAndTagStartEnd(text, &pStart, nullptr, "MSG",
                                                0, &out.s));
  EXPECT_EQ(text, pStart);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ClearsPositionsAndStringWhenNotFound) {
  const char* text = "<MSG></MSG>";
  const char* pStart = text;
  const char* pEnd = text;
  GrowableStr out;
  ASSERT_EQ(1, CGenStrAssignChar(&out.s, "old"));
  EXPECT_EQ(2, ZorvXmlGetFieldStrAndTagStartEnd(text, &pStart, &pEnd,
                                                "MSG/DATA", 0, &out.s));
  EXPECT_EQ(nullptr, pStart);
  EXPECT_EQ(nullptr, pEnd);
  EXPECT_EQ("", out.text());
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsOneForEmptyPath) {
  struct Row {
    const char* name;
    const char* path;
  };
  const Row rows[] = {{"null", nullptr}, {"empty", ""}, {"slashes", "//"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int rc;
    field("<MSG></MSG>", row.path, 0, &rc);
    EXPECT_EQ(1, rc);
  }
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoForEmptyOrNullText) {
  int rc;
  field("", "MSG", 0, &rc);
  EXPECT_EQ(2, rc);
  field(nullptr, "MSG", 0, &rc);
  EXPECT_EQ(2, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoForNullString) {
  EXPECT_EQ(2, ZorvXmlGetFieldStrAndTagStartEnd("<MSG></MSG>", nullptr, nullptr,
                                                "MSG", 0, nullptr));
}

// "/MSG//DATA/" reads like "MSG/DATA"
TEST(ZorvXmlGetFieldStrAndTagStartEnd, SkipsEmptyPathComponents) {
  int rc;
  EXPECT_EQ("d", field("<MSG><DATA>d</DATA></MSG>", "/MSG//DATA/", 0, &rc));
  EXPECT_EQ(0, rc);
}

// "HDR/TYPE" does not start at the root; "msg/hdr/type" has the wrong case
TEST(ZorvXmlGetFieldStrAndTagStartEnd, MatchesAbsoluteCaseSensitivePath) {
  const char* text = "<MSG><HDR><TYPE>A</TYPE></HDR></MSG>";
  int rc;
  field(text, "HDR/TYPE", 0, &rc);
  EXPECT_EQ(2, rc);
  field(text, "msg/hdr/type", 0, &rc);
  EXPECT_EQ(2, rc);
  field(text, "MSG/HDR/TYPE/X", 0, &rc);
  EXPECT_EQ(2, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, IgnoresAttributes) {
  int rc;
  EXPECT_EQ("v", field("<MSG><NLS mod=\"x\">v</NLS></MSG>", "MSG/NLS", 0, &rc));
  EXPECT_EQ(0, rc);
}

// the field ends before the rest of the text: no </MSG> needed
TEST(ZorvXmlGetFieldStrAndTagStartEnd, StopsAtClosingTagOfField) {
  int rc;
  EXPECT_EQ("x", field("<MSG><DATA>x</DATA>", "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
}

// 15 components nested 15 deep -> found; 16 -> 2
TEST(ZorvXmlGetFieldStrAndTagStartEnd, RejectsMoreThanFifteenComponents) {
  std::string path15;
  for (int i = 0; i < 15; ++i) path15 += (i ? "/a" : "a");
  std::string path16 = path15 + "/a";
  std::string text = nestedA(16);
  int rc;
  EXPECT_EQ("<a>x</a>", field(text.c_str(), path15.c_str(), 0, &rc));
  EXPECT_EQ(0, rc);
  field(text.c_str(), path16.c_str(), 0, &rc);
  EXPECT_EQ(2, rc);
}

// a component of 39 characters works; 40 -> 2
TEST(ZorvXmlGetFieldStrAndTagStartEnd, RejectsComponentOfFortyCharacters) {
  std::string name39(39, 'N');
  std::string name40(40, 'N');
  int rc;
  std::string text39 = "<MSG>" + element(name39, "v") + "</MSG>";
  EXPECT_EQ("v", field(text39.c_str(), ("MSG/" + name39).c_str(), 0, &rc));
  EXPECT_EQ(0, rc);
  std::string text40 = "<MSG>" + element(name40, "v") + "</MSG>";
  field(text40.c_str(), ("MSG/" + name40).c_str(), 0, &rc);
  EXPECT_EQ(2, rc);
}

// a 300-character tag in the text is kept as its first 39 characters
TEST(ZorvXmlGetFieldStrAndTagStartEnd, BoundsLongTagNameInText) {
  std::string longName(300, 'L');
  std::string text = "<MSG>" + element(longName, "v") + "</MSG>";
  int rc;
  EXPECT_EQ("v", field(text.c_str(), ("MSG/" + std::string(39, 'L')).c_str(), 0,
                       &rc));
  EXPECT_EQ(0, rc);
}

TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoForUnterminatedTags) {
  struct Row {
    const char* name;
    const char* text;
  };
  const Row rows[] = {
      {"open tag without >", "<MSG"},
      {"inner tag without >", "<MSG><DATA"},
      {"closing tag without >", "<MSG><DATA>x</DATA"},
      {"< at the very end", "<MSG><DATA>x<"},
      {"</ at the very end", "<MSG><DATA>x</"},
      {"</ at the end, nothing open", "</"},
      {"lone <", "<"},
      {"text only", "no tags at all"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    // an exact-size heap copy, so a read past the end would be caught
    size_t n = strlen(row.text) + 1;
    char* text = static_cast<char*>(malloc(n));
    memcpy(text, row.text, n);
    int rc;
    field(text, "MSG/DATA", 0, &rc);
    EXPECT_EQ(2, rc);
    free(text);
  }
}

// 1024 levels are followed; 1025 -> 2
TEST(ZorvXmlGetFieldStrAndTagStartEnd, FollowsNestingUpToDepthBound) {
  ASSERT_EQ(1024, ZORV_FIELD_MAX_DEPTH);
  int rc;
  std::string deepest = nestedA(1024);
  std::string content = field(deepest.c_str(), "a", 0, &rc);
  EXPECT_EQ(0, rc);
  EXPECT_EQ(deepest.substr(3, deepest.size() - 7), content);
  std::string tooDeep = nestedA(1025);
  field(tooDeep.c_str(), "a", 0, &rc);
  EXPECT_EQ(2, rc);
}

// nesting of 5000 after the field has ended does not matter
TEST(ZorvXmlGetFieldStrAndTagStartEnd, IgnoresDepthAfterFieldEnds) {
  std::string text = "<MSG><DATA>d</DATA>" + nestedA(5000) + "</MSG>";
  int rc;
  EXPECT_EQ("d", field(text.c_str(), "MSG/DATA", 0, &rc));
  EXPECT_EQ(0, rc);
}

// 16 levels fit the finder's own room; deeper needs the heap, which fails
TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoWhenStackCannotGrow) {
  std::string shallow = nestedA(16);
  std::string deep = nestedA(17);
  ScopedFailingProtocolAlloc failing(true, false);
  int rc;
  field(shallow.c_str(), "a", 0, &rc);
  EXPECT_EQ(0, rc);
  field(deep.c_str(), "a", 0, &rc);
  EXPECT_EQ(2, rc);
}

// a fixed string too small for the content -> 2
TEST(ZorvXmlGetFieldStrAndTagStartEnd, ReturnsTwoWhenContentCannotBeStored) {
  char buffer[4];
  CGenStr fixed;
  CGenStrInitBuff(&fixed, buffer, 0, sizeof buffer);
  EXPECT_EQ(2, ZorvXmlGetFieldStrAndTagStartEnd("<A>abcdef</A>", nullptr,
                                                nullptr, "A", 0, &fixed));
}

TEST(ZorvXmlGetFieldStr, ReadsRecordedReplyWithNestedStatus) {
  std::string text =
      zorvtest::ReadFile(zorvtest::DataPath("messages/test-status-reply.msg"));
  ASSERT_FALSE(text.empty());
  int rc;
  EXPECT_EQ("RUNNING",
            field(text.c_str(), "MSG/DATA/TESTSTATUS/STATE", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("40", field(text.c_str(), "MSG/DATA/TESTSTATUS/PERCENT", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ("7", field(text.c_str(), "MSG/HDR/RE", 0, &rc));
  EXPECT_EQ(0, rc);
}

// content "abcd": 5 bytes fit, 4 -> 2
TEST(ZorvXmlGetField, ReturnsTwoWhenContentAndTerminatorExceedSize) {
  const char* text = "<MSG><DATA>abcd</DATA></MSG>";
  for (uint32_t size = 1; size <= 7; ++size) {
    SCOPED_TRACE(size);
    char buffer[8];
    memset(buffer, 'x', sizeof buffer);
    int rc = ZorvXmlGetField(text, "MSG/DATA", 0, buffer, size);
    if (size >= 5) {
      EXPECT_EQ(0, rc);
      EXPECT_STREQ("abcd", buffer);
    } else {
      EXPECT_EQ(2, rc);
      EXPECT_EQ(std::string("abcd").substr(0, size - 1), std::string(buffer));
      EXPECT_EQ('x', buffer[size]);
    }
  }
}

// 1000 characters of content into 600 bytes -> 2, the first 599 kept; into
// 1001 bytes -> all of it
TEST(ZorvXmlGetField, FillsBufferWithContentPrefixWhenTooLong) {
  std::string content;
  for (int i = 0; i < 1000; ++i) content += static_cast<char>('a' + i % 26);
  std::string text = "<MSG>" + element("DATA", content) + "</MSG>";
  std::vector<char> buffer(1001, 'x');
  EXPECT_EQ(2,
            ZorvXmlGetField(text.c_str(), "MSG/DATA", 0, buffer.data(), 600));
  EXPECT_EQ(content.substr(0, 599), std::string(buffer.data()));
  EXPECT_EQ(0,
            ZorvXmlGetField(text.c_str(), "MSG/DATA", 0, buffer.data(), 1001));
  EXPECT_EQ(content, std::string(buffer.data()));
}

TEST(ZorvXmlGetField, ReturnsTwoForNullBufferOrZeroSize) {
  char buffer[4] = "x";
  EXPECT_EQ(2, ZorvXmlGetField("<A>b</A>", "A", 0, nullptr, 10));
  EXPECT_EQ(2, ZorvXmlGetField("<A>b</A>", "A", 0, buffer, 0));
  EXPECT_STREQ("x", buffer);
}

TEST(ZorvXmlGetField, ClearsBufferWhenNotFound) {
  char buffer[16] = "old";
  EXPECT_EQ(2, ZorvXmlGetField("<A>b</A>", "B", 0, buffer, sizeof buffer));
  EXPECT_STREQ("", buffer);
  EXPECT_EQ(1, ZorvXmlGetField("<A>b</A>", "", 0, buffer, sizeof buffer));
}

// ---- Header readers ---------------------------------------------------------

TEST(ZorvMessageGetSender, ReadsFrom) {
  int32_t pid = 0;
  EXPECT_EQ(0, ZorvMessageGetSender(kWorkedExample, &pid));
  EXPECT_EQ(1234, pid);
}

TEST(ZorvMessageGetSender, ReturnsFinderStatusWhenMissing) {
  int32_t pid = 99;
  EXPECT_EQ(2, ZorvMessageGetSender("<MSG><HDR></HDR></MSG>", &pid));
  EXPECT_EQ(99, pid);
}

TEST(ZorvMessageGetMessageId, ReadsId) {
  uint32_t id = 0;
  EXPECT_EQ(0, ZorvMessageGetMessageId(kWorkedExample, &id));
  EXPECT_EQ(7u, id);
}

// "4294967295" -> the largest id, on every word size
TEST(ZorvMessageGetMessageId, ReadsLargestId) {
  uint32_t id = 0;
  EXPECT_EQ(0, ZorvMessageGetMessageId(
                   "<MSG><HDR><ID>4294967295</ID></HDR></MSG>", &id));
  EXPECT_EQ(4294967295u, id);
}

TEST(ZorvMessageGetMessageId, ReturnsFinderStatusWhenMissing) {
  uint32_t id = 0;
  EXPECT_EQ(2, ZorvMessageGetMessageId("<MSG></MSG>", &id));
}

TEST(ZorvMessageGetMessageRe, ReadsReOfReply) {
  std::string text =
      zorvtest::ReadFile(zorvtest::DataPath("messages/test-status-reply.msg"));
  uint32_t re = 0;
  EXPECT_EQ(0, ZorvMessageGetMessageRe(text.c_str(), &re));
  EXPECT_EQ(7u, re);
}

TEST(ZorvMessageGetMessageRe, ReturnsTwoForRequestWithoutRe) {
  uint32_t re = 5;
  EXPECT_EQ(2, ZorvMessageGetMessageRe(kWorkedExample, &re));
  EXPECT_EQ(5u, re);
}

TEST(ZorvMessageGetMessageType, ReturnsMallocedCopy) {
  char* type = nullptr;
  EXPECT_EQ(0, ZorvMessageGetMessageType(kWorkedExample, &type));
  ASSERT_NE(nullptr, type);
  EXPECT_STREQ("NLS_COMMAND", type);
  free(type);
}

TEST(ZorvMessageGetMessageType, ReturnsTenWhenCopyCannotBeAllocated) {
  char* type = nullptr;
  ScopedFailingProtocolAlloc failing(false, true);
  EXPECT_EQ(10, ZorvMessageGetMessageType(kWorkedExample, &type));
  EXPECT_EQ(nullptr, type);
}

// a TYPE of 100 characters does not fit the 100-byte buffer -> 2
TEST(ZorvMessageGetMessageType, ReturnsTwoForTypeOfHundredCharacters) {
  std::string text =
      "<MSG><HDR>" + element("TYPE", std::string(100, 'T')) + "</HDR></MSG>";
  char* type = nullptr;
  EXPECT_EQ(2, ZorvMessageGetMessageType(text.c_str(), &type));
  std::string text99 =
      "<MSG><HDR>" + element("TYPE", std::string(99, 'T')) + "</HDR></MSG>";
  EXPECT_EQ(0, ZorvMessageGetMessageType(text99.c_str(), &type));
  EXPECT_EQ(std::string(99, 'T'), std::string(type));
  free(type);
}

// ---- ZorvParsePacketType ----------------------------------------------------

TEST(ZorvParsePacketType, ReturnsOneWhenTypeIsMissing) {
  const char* const table[] = {"A", "B", nullptr};
  EXPECT_EQ(1, ZorvParsePacketType("<MSG><HDR></HDR></MSG>", table));
  EXPECT_EQ(1, ZorvParsePacketType(nullptr, table));
}

TEST(ZorvParsePacketType, ReturnsPositionOfExactMatch) {
  const char* const table[] = {"DE_COMMAND", "MBCMD", "NLS_COMMAND", nullptr};
  EXPECT_EQ(3, ZorvParsePacketType(kWorkedExample, table));
  const char* const prefixOnly[] = {"NLS", "NLS_COMMAND_X", nullptr};
  EXPECT_EQ(0, ZorvParsePacketType(kWorkedExample, prefixOnly));
}

TEST(ZorvParsePacketType, ReturnsZeroForNullOrEmptyTable) {
  const char* const empty[] = {nullptr};
  EXPECT_EQ(0, ZorvParsePacketType(kWorkedExample, nullptr));
  EXPECT_EQ(0, ZorvParsePacketType(kWorkedExample, empty));
}

// 150 entries: a match at 100 counts, at 101 and 120 it does not
TEST(ZorvParsePacketType, LooksAtNoMoreThanHundredEntries) {
  struct Row {
    const char* name;
    int position;
    int expected;
  };
  const Row rows[] = {
      {"at 1", 1, 1},
      {"at 100", 100, 100},
      {"at 101", 101, 0},
      {"at 120", 120, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> names;
    for (int i = 1; i <= 150; ++i) names.push_back("TYPE" + std::to_string(i));
    names[row.position - 1] = "NLS_COMMAND";
    std::vector<const char*> table;
    for (const std::string& name : names) table.push_back(name.c_str());
    table.push_back(nullptr);
    EXPECT_EQ(row.expected, ZorvParsePacketType(kWorkedExample, table.data()));
  }
}

// each recorded envelope under tests/data/messages -> its TYPE's position
TEST(ZorvParsePacketType, ClassifiesRecordedEnvelopes) {
  const char* const table[] = {"DE_COMMAND", "MBCMD", "NLS_COMMAND",
                               "DE_ENUM_NOTIFY", nullptr};
  struct Row {
    const char* file;
    int expected;
  };
  const Row rows[] = {
      {"messages/nls-regmod-request.msg", 3},
      {"messages/test-status-reply.msg", 1},
      {"messages/enum-notify.msg", 4},
      {"messages/de-command-lang.msg", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    std::string text = zorvtest::ReadFile(zorvtest::DataPath(row.file));
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(row.expected, ZorvParsePacketType(text.c_str(), table));
  }
  // the acknowledgement has no header: TYPE cannot be read
  std::string ack = zorvtest::ReadFile(zorvtest::DataPath("messages/ack.msg"));
  int rc;
  EXPECT_EQ("ENUM_COMPLETE", field(ack.c_str(), "ACK", 0, &rc));
  EXPECT_EQ(0, rc);
  EXPECT_EQ(1, ZorvParsePacketType(ack.c_str(), table));
}

// ---- ZorvParsePacketHeaderAndData -------------------------------------------

namespace {
const char kStopTest[] =
    "<MSG><HDR><FROM>4321</FROM><TO>1234</TO><ID>12</ID>"
    "<TYPE>DE_COMMAND</TYPE><TIME>20030415123456000</TIME></HDR>"
    "<DATA>STOP_TEST:5</DATA></MSG>\r\n";
}  // namespace

// ("START", "STOP") on "STOP_TEST:5" -> 2
TEST(ZorvParsePacketHeaderAndData, MatchesTableEntryAsPrefix) {
  const char* const table[] = {"START", "STOP", nullptr};
  int32_t from = 0;
  uint32_t id = 0;
  char data[64];
  EXPECT_EQ(2, ZorvParsePacketHeaderAndData(kStopTest, &from, &id, table, data,
                                            sizeof data));
  EXPECT_EQ(4321, from);
  EXPECT_EQ(12u, id);
  EXPECT_STREQ("STOP_TEST:5", data);
}

TEST(ZorvParsePacketHeaderAndData, ReturnsZeroWithoutMatchingEntry) {
  const char* const none[] = {"START", "FREE", nullptr};
  const char* const empty[] = {nullptr};
  int32_t from = 0;
  uint32_t id = 0;
  char data[64];
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, &from, &id, none, data,
                                            sizeof data));
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, &from, &id, empty, data,
                                            sizeof data));
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, &from, &id, nullptr,
                                            data, sizeof data));
  EXPECT_STREQ("STOP_TEST:5", data);
}

// a match at entry 101 of 150 is not looked at
TEST(ZorvParsePacketHeaderAndData, LooksAtNoMoreThanHundredEntries) {
  std::vector<std::string> names(150, "NOPE");
  names[100] = "STOP";
  std::vector<const char*> table;
  for (const std::string& name : names) table.push_back(name.c_str());
  table.push_back(nullptr);
  char data[64];
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr,
                                            table.data(), data, sizeof data));
  names[99] = "STOP";
  table[99] = names[99].c_str();
  EXPECT_EQ(100, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr,
                                              table.data(), data, sizeof data));
}

TEST(ZorvParsePacketHeaderAndData, ReturnsMinusOneOnAnyFailure) {
  struct Row {
    const char* name;
    const char* msg;
  };
  const Row rows[] = {
      {"null message", nullptr},
      {"no DATA", "<MSG><HDR><FROM>1</FROM><ID>2</ID></HDR></MSG>"},
      {"no FROM", "<MSG><HDR><ID>2</ID></HDR><DATA>x</DATA></MSG>"},
      {"no ID", "<MSG><HDR><FROM>1</FROM></HDR><DATA>x</DATA></MSG>"},
      {"empty", ""},
  };
  const char* const table[] = {"x", nullptr};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char data[16] = "old";
    int32_t from = 0;
    uint32_t id = 0;
    EXPECT_EQ(-1, ZorvParsePacketHeaderAndData(row.msg, &from, &id, table, data,
                                               sizeof data));
    EXPECT_STREQ("", data);
  }
}

TEST(ZorvParsePacketHeaderAndData, ReturnsMinusOneWhenPayloadAllocationFails) {
  ScopedFailingProtocolAlloc failing(true, false);
  char data[16];
  EXPECT_EQ(-1, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr,
                                             nullptr, data, sizeof data));
}

// payload "STOP_TEST:5" (11 bytes) into 11 bytes -> no terminator; into 12
// -> terminated
TEST(ZorvParsePacketHeaderAndData, LeavesPayloadOfDataSizeUnterminated) {
  char data[16];
  memset(data, 'x', sizeof data);
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr,
                                            nullptr, data, 11));
  EXPECT_EQ(0, memcmp(data, "STOP_TEST:5x", 12));
  memset(data, 'x', sizeof data);
  EXPECT_EQ(0, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr,
                                            nullptr, data, 12));
  EXPECT_STREQ("STOP_TEST:5", data);
}

TEST(ZorvParsePacketHeaderAndData, AcceptsNullData) {
  const char* const table[] = {"STOP", nullptr};
  EXPECT_EQ(1, ZorvParsePacketHeaderAndData(kStopTest, nullptr, nullptr, table,
                                            nullptr, 0));
}

// ---- Escaping ---------------------------------------------------------------

TEST(ZorvXmlAllocStringAndConvertToXml, ReturnsSamePointerWhenNothingToEscape) {
  char text[] = "a b";
  EXPECT_EQ(text, ZorvXmlAllocStringAndConvertToXml(text));
  EXPECT_STREQ("a b", text);
}

// "a<b" -> new "a@3Cb"
TEST(ZorvXmlAllocStringAndConvertToXml, EscapesIntoNewCopy) {
  char text[] = "a<b";
  char* escaped = ZorvXmlAllocStringAndConvertToXml(text);
  ASSERT_NE(text, escaped);
  EXPECT_STREQ("a@3Cb", escaped);
  EXPECT_STREQ("a<b", text);
  free(escaped);
}

TEST(ZorvXmlAllocStringAndConvertToXml, ReturnsNullForNull) {
  EXPECT_EQ(nullptr, ZorvXmlAllocStringAndConvertToXml(nullptr));
}

TEST(ZorvXmlAllocStringAndConvertToXml, ReturnsTextWhenAllocationFails) {
  char text[] = "a<b";
  ScopedFailingProtocolAlloc failing(false, true);
  EXPECT_EQ(text, ZorvXmlAllocStringAndConvertToXml(text));
}

// every byte 1..255 alone: kept exactly when in the independent list,
// else "@" and two upper-case hex digits
TEST(ZorvXmlAllocStringAndConvertToXml, DecidesEveryByteAgainstList) {
  int nKept = 0;
  for (int ch = 1; ch < 256; ++ch) {
    SCOPED_TRACE(ch);
    char text[2] = {static_cast<char>(ch), '\0'};
    char* escaped = ZorvXmlAllocStringAndConvertToXml(text);
    if (expectPermitted(ch)) {
      ++nKept;
      EXPECT_EQ(text, escaped);
    } else {
      char expected[4];
      snprintf(expected, sizeof expected, "@%02X", ch);
      ASSERT_NE(text, escaped);
      EXPECT_STREQ(expected, escaped);
      free(escaped);
    }
  }
  EXPECT_EQ(26 + 26 + 10 + 1 + 20, nKept);
}

// bytes 1..255 in one text: escaped then decoded -> the same bytes
TEST(ZorvXmlAllocStringAndConvertToXml, RoundTripsEveryByteValue) {
  char text[256];
  for (int ch = 1; ch < 256; ++ch) text[ch - 1] = static_cast<char>(ch);
  text[255] = '\0';
  char* escaped = ZorvXmlAllocStringAndConvertToXml(text);
  ASSERT_NE(text, escaped);
  size_t nEscaped = strlen(escaped);
  EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(escaped));
  EXPECT_EQ(0, memcmp(text, escaped, 256));
  // 83 characters kept, 172 escaped into three each
  EXPECT_EQ(83u + 3u * 172u, nEscaped);
  free(escaped);
  // and one byte at a time
  for (int ch = 1; ch < 256; ++ch) {
    SCOPED_TRACE(ch);
    char one[2] = {static_cast<char>(ch), '\0'};
    char* pOut = ZorvXmlAllocStringAndConvertToXml(one);
    std::string copy = pOut;
    if (pOut != one) free(pOut);
    std::vector<char> buffer(copy.begin(), copy.end());
    buffer.push_back('\0');
    ZorvXmlConvertFromXmlToText(buffer.data());
    EXPECT_EQ(std::string(1, static_cast<char>(ch)),
              std::string(buffer.data()));
  }
}

// first call traces the table building, then each call "Replacing string";
// a text without escapes also "No translated characters"
TEST(ZorvXmlAllocStringAndConvertToXml, TracesTableBuildingOnce) {
  enableAllTracing();
  zorvtest::FdCapture err(2);
  err.Start();
  char escaping[] = "a<b";
  char plain[] = "ab";
  char* escaped = ZorvXmlAllocStringAndConvertToXml(escaping);
  ZorvXmlAllocStringAndConvertToXml(plain);
  std::string trace = err.Stop();
  free(escaped);
  const char kInit[] = "ZorvXmlAllocStringAndConvertToXml:Initializing array\n";
  const char kReplace[] =
      "ZorvXmlAllocStringAndConvertToXml:Replacing string\n";
  const char kNone[] =
      "ZorvXmlAllocStringAndConvertToXml:No translated characters\n";
  EXPECT_EQ(1u, countOf(trace, kInit));
  EXPECT_EQ(2u, countOf(trace, kReplace));
  EXPECT_EQ(1u, countOf(trace, kNone));
  size_t atInit = trace.find(kInit);
  size_t atReplace = trace.find(kReplace);
  size_t atNone = trace.find(kNone);
  EXPECT_LT(atInit, atReplace);
  EXPECT_LT(trace.find(kReplace, atReplace + 1), atNone);
  EXPECT_EQ(4u, countOf(trace, "\n"));
}

// "a@3cb" -> "a<b"; "a@3Cb" -> "a<b"
TEST(ZorvXmlConvertFromXmlToText, DecodesEitherCaseOfHex) {
  char lower[] = "a@3cb";
  EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(lower));
  EXPECT_STREQ("a<b", lower);
  char upper[] = "a@3Cb@7e";
  EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(upper));
  EXPECT_STREQ("a<b~", upper);
}

// "@ZZ" -> " "; "@3Zx" -> " x" (three characters taken)
TEST(ZorvXmlConvertFromXmlToText, TurnsBadEscapeIntoOneSpace) {
  struct Row {
    const char* name;
    const char* text;
    const char* expected;
  };
  const Row rows[] = {
      {"two non-hex", "@ZZ", " "},
      {"second not hex", "@3Zx", " x"},
      {"first not hex", "a@G1b", "a b"},
      {"@ after @", "@@41", " 1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<char> buffer(row.text, row.text + strlen(row.text) + 1);
    EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(buffer.data()));
    EXPECT_STREQ(row.expected, buffer.data());
  }
}

// "a@" -> "a ", "a@4" -> "a ", "@" -> " ", nothing read past the end
TEST(ZorvXmlConvertFromXmlToText, StopsAtTerminatorForShortEscape) {
  struct Row {
    const char* text;
    const char* expected;
  };
  const Row rows[] = {
      {"a@", "a "}, {"a@4", "a "}, {"@", " "}, {"@4", " "}, {"ab@41@", "abA "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    size_t n = strlen(row.text) + 1;
    char* text = static_cast<char*>(malloc(n));
    memcpy(text, row.text, n);
    EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(text));
    EXPECT_STREQ(row.expected, text);
    free(text);
  }
}

TEST(ZorvXmlConvertFromXmlToText, KeepsOtherCharactersAndAcceptsNull) {
  char text[] = "plain <text> & more";
  EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(text));
  EXPECT_STREQ("plain <text> & more", text);
  EXPECT_EQ(0, ZorvXmlConvertFromXmlToText(nullptr));
}

// ---- Identifiers ------------------------------------------------------------

TEST(IsBadXmlIdentifier, ReturnsOneForNullAndZeroForEmpty) {
  EXPECT_EQ(1, IsBadXmlIdentifier(nullptr));
  EXPECT_EQ(0, IsBadXmlIdentifier(""));
}

// "a b" -> 2 although escaping keeps the space
TEST(IsBadXmlIdentifier, RejectsSpaceUnlikeEscaping) {
  EXPECT_EQ(2, IsBadXmlIdentifier("a b"));
  EXPECT_EQ(2, IsBadXmlIdentifier(" "));
  char text[] = "a b";
  EXPECT_EQ(text, ZorvXmlAllocStringAndConvertToXml(text));
}

// every byte 1..255 alone: 0 exactly for the escaping list without space
TEST(IsBadXmlIdentifier, DecidesEveryByteAgainstList) {
  for (int ch = 1; ch < 256; ++ch) {
    SCOPED_TRACE(ch);
    char text[4] = {'a', static_cast<char>(ch), 'b', '\0'};
    EXPECT_EQ(expectPermitted(ch) && ch != ' ' ? 0 : 2,
              IsBadXmlIdentifier(text));
  }
  EXPECT_EQ(0, IsBadXmlIdentifier("Mod_1.x$-+!*'(),{}|\\^~[]`"));
}

TEST(ZorvIsValidIdentifierChar, AcceptsTerminatingZero) {
  EXPECT_NE(0, ZorvIsValidIdentifierChar(0));
}

// -128..255: letters, digits, "_" (and 0) only
TEST(ZorvIsValidIdentifierChar, AcceptsLettersDigitsAndUnderscoreOnly) {
  for (int ch = -128; ch < 256; ++ch) {
    SCOPED_TRACE(ch);
    bool expected = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                    (ch >= '0' && ch <= '9') || ch == '_' || ch == 0;
    EXPECT_EQ(expected, ZorvIsValidIdentifierChar(ch) != 0);
  }
}
