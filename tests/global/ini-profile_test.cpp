// Tests of the INI profile reader: lookup rules, line splitting, the speed
// cache and its 16-bit counters, hostile files, and the conveniences.
#include "zorv2000/ini-profile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "global/genstr_p.h"
#include "global/ini-profile_p.h"
#include "support/test_support.h"

namespace {

std::string basicIni() { return zorvtest::DataPath("ini/basic.ini"); }

// Looks `key` up through the caller-buffer call; returns the stored text
// and puts the result in *rc.
std::string lookup(const std::string& path, const char* section,
                   const char* key, const char* def = "<default>",
                   uint32_t size = 1024, int* rc = nullptr) {
  std::vector<char> buffer(size ? size : 1, '#');
  int n = ZorvGetPrivateProfileString(section, key, def, buffer.data(), size,
                                      path.c_str());
  if (rc) *rc = n;
  if (size == 0) return std::string();
  EXPECT_EQ('\0', buffer[size - 1]);
  return std::string(buffer.data());
}

// Writes `content` to a file of the test's own directory; returns its path.
std::string writeIni(const char* name, const std::string& content) {
  EXPECT_TRUE(zorvtest::WriteFile(name, content));
  return name;
}

// Allocation table whose malloc fails the Nth call and records sizes.
struct MallocLog {
  int nCalls = 0;
  int nFailAt = 0;
  std::vector<size_t> sizes;
};
MallocLog gMalloc;

void* logMalloc(size_t size) {
  gMalloc.sizes.push_back(size);
  return ++gMalloc.nCalls == gMalloc.nFailAt ? nullptr : malloc(size);
}

class ScopedMallocLog {
 public:
  explicit ScopedMallocLog(int nFailAt) : saved_(cGenAllocCalls) {
    gMalloc = MallocLog();
    gMalloc.nFailAt = nFailAt;
    cGenAllocCalls.pfnMalloc = logMalloc;
  }
  ~ScopedMallocLog() { cGenAllocCalls = saved_; }

 private:
  CGenAllocCalls saved_;
};

}  // namespace

// ---- lookup rules
// ------------------------------------------------------------

// Section "general" and key "NAME" find "[General]" / "Name=...".
TEST(ZorvGetPrivateProfileString, MatchesSectionAndKeyIgnoringCase) {
  struct Row {
    const char* name;
    const char* section;
    const char* key;
  } rows[] = {
      {"as written", "General", "Name"},
      {"lower", "general", "name"},
      {"upper", "GENERAL", "NAME"},
      {"mixed", "gEnErAl", "nAmE"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int rc = 0;
    EXPECT_EQ("Optical Drive Module",
              lookup(basicIni(), row.section, row.key, "", 1024, &rc));
    EXPECT_EQ(20, rc);
  }
}

TEST(ZorvGetPrivateProfileString, ValuesKeepCaseAndInnerAndLeadingSpaces) {
  EXPECT_EQ("KeepMe", lookup(basicIni(), "General", "mixedcase"));
  EXPECT_EQ("  keeps  inner and leading  ",
            lookup(basicIni(), "General", "Spaced"));
}

// "key = value" -> key "key" finds " value" with its leading space.
TEST(ZorvGetPrivateProfileString, SpacesAroundEqualsGiveValueWithLeadingSpace) {
  int rc = 0;
  EXPECT_EQ(" value", lookup(basicIni(), "General", "key", "", 1024, &rc));
  EXPECT_EQ(6, rc);
  EXPECT_EQ("<default>", lookup(basicIni(), "General", "key "));
}

TEST(ZorvGetPrivateProfileString, LeadingSpacesOfLinesAreSkipped) {
  EXPECT_EQ("leading spaces skipped",
            lookup(basicIni(), "General", "Indented"));
  EXPECT_EQ("yes", lookup(basicIni(), "Indented Section", "Inside"));
}

// Deliberate: ";Comment=not special" is an ordinary key line.
TEST(ZorvGetPrivateProfileString, CommentLineWithEqualsIsOrdinaryKeyLine) {
  EXPECT_EQ("not special", lookup(basicIni(), "General", ";Comment"));
}

TEST(ZorvGetPrivateProfileString, FirstKeyMatchWins) {
  EXPECT_EQ("first", lookup(basicIni(), "General", "Dup"));
}

TEST(ZorvGetPrivateProfileString, ValueRunsFromFirstEqualsSign) {
  EXPECT_EQ("b=c", lookup(basicIni(), "General", "a"));
}

TEST(ZorvGetPrivateProfileString, KeysBeforeFirstSectionBelongToNone) {
  EXPECT_EQ(" value", lookup(basicIni(), "General", "key"));
  EXPECT_EQ("<default>", lookup(basicIni(), "", "key"));
}

// "Count" lives in [Numbers]: not found when [General] is searched.
TEST(ZorvGetPrivateProfileString, SearchEndsAtNextSectionHeader) {
  EXPECT_EQ("<default>", lookup(basicIni(), "General", "Count"));
  EXPECT_EQ("42", lookup(basicIni(), "Numbers", "Count"));
}

// "[Unclosed" inside [Indented Section] neither ends it nor opens a section.
TEST(ZorvGetPrivateProfileString, HeaderWithoutClosingBracketIsIgnored) {
  EXPECT_EQ("yes", lookup(basicIni(), "Indented Section", "StillInside"));
  EXPECT_EQ("<default>", lookup(basicIni(), "Unclosed", "StillInside"));
}

TEST(ZorvGetPrivateProfileString, MissingKeyGivesDefaultAndItsLength) {
  int rc = 0;
  EXPECT_EQ("fallback",
            lookup(basicIni(), "General", "Nope", "fallback", 1024, &rc));
  EXPECT_EQ(8, rc);
  EXPECT_EQ("fallback", lookup(basicIni(), "NoSection", "Name", "fallback"));
}

TEST(ZorvGetPrivateProfileString, NullDefaultGivesEmptyText) {
  int rc = 7;
  EXPECT_EQ("", lookup(basicIni(), "General", "Nope", nullptr, 64, &rc));
  EXPECT_EQ(0, rc);
}

TEST(ZorvGetPrivateProfileString, NullKeyReportsWhetherSectionExists) {
  char buffer[8] = "keep";
  EXPECT_EQ(1, ZorvGetPrivateProfileString("numbers", nullptr, "d", buffer,
                                           sizeof buffer, basicIni().c_str()));
  EXPECT_EQ(0, ZorvGetPrivateProfileString("Missing", nullptr, "d", buffer,
                                           sizeof buffer, basicIni().c_str()));
  EXPECT_STREQ("keep", buffer);
}

TEST(ZorvGetPrivateProfileString, NullSectionMatchesNoSection) {
  EXPECT_EQ("<default>", lookup(basicIni(), nullptr, "Name"));
}

// "Optical Drive Module" into 8 bytes -> "Optical", returns 7.
TEST(ZorvGetPrivateProfileString, CutsValueToBufferWithNulInLastByte) {
  struct Row {
    const char* name;
    uint32_t size;
    std::string text;
  } rows[] = {
      {"one byte", 1, ""},
      {"two bytes", 2, "O"},
      {"eight bytes", 8, "Optical"},
      {"exact fit", 21, "Optical Drive Module"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int rc = -1;
    EXPECT_EQ(row.text,
              lookup(basicIni(), "General", "Name", "", row.size, &rc));
    EXPECT_EQ((int)row.text.size(), rc);
  }
  int rc = -1;
  EXPECT_EQ("<def", lookup(basicIni(), "General", "Nope", "<default>", 5, &rc));
  EXPECT_EQ(4, rc);
}

TEST(ZorvGetPrivateProfileString, ZeroSizeBufferStoresNothing) {
  char buffer[4] = "abc";
  EXPECT_EQ(0, ZorvGetPrivateProfileString("General", "Name", "", buffer, 0,
                                           basicIni().c_str()));
  EXPECT_STREQ("abc", buffer);
}

TEST(ZorvGetPrivateProfileString, MissingFileReturnsDefault) {
  int rc = 0;
  EXPECT_EQ("dflt",
            lookup("no/such/file.ini", "General", "Name", "dflt", 64, &rc));
  EXPECT_EQ(4, rc);
  char buffer[8] = "x";
  EXPECT_EQ(0, ZorvGetPrivateProfileString("General", nullptr, "", buffer,
                                           sizeof buffer, "no/such/file"));
}

TEST(ZorvGetPrivateProfileString, ZeroByteFileReturnsDefault) {
  std::string path = writeIni("empty.ini", "");
  EXPECT_EQ("<default>", lookup(path, "General", "Name"));
  char buffer[8];
  EXPECT_EQ(0, ZorvGetPrivateProfileString("General", nullptr, "", buffer,
                                           sizeof buffer, path.c_str()));
}

TEST(ZorvGetPrivateProfileString, LastLineWithoutLineEndIsRead) {
  EXPECT_EQ("no line end", lookup(basicIni(), "Last", "final"));
  std::string path = writeIni("noeol.ini", "[s]\nk=v");
  EXPECT_EQ("v", lookup(path, "s", "k"));
}

TEST(ZorvGetPrivateProfileString, CarriageReturnLineEndsWork) {
  std::string path = zorvtest::DataPath("ini/crlf.ini");
  EXPECT_EQ("crlf value", lookup(path, "Section", "Key"));
  EXPECT_EQ("2", lookup(path, "Section", "Other"));
}

// Deliberate: a tab (below 32) ends the line: "key\t=1" is "key" then "=1".
TEST(ZorvGetPrivateProfileString, TabEndsLine) {
  std::string path = writeIni("tab.ini", "[s]\nkey\t=1\nnext=2\n");
  EXPECT_EQ("<default>", lookup(path, "s", "key"));
  EXPECT_EQ("2", lookup(path, "s", "next"));
  // The "=1" part is a key line with an empty key.
  EXPECT_EQ("1", lookup(path, "s", ""));
}

// Deliberate: a 600-character line is read as 511 characters, then 89.
TEST(ZorvGetPrivateProfileString, SplitsSixHundredCharacterLineAt511) {
  std::string first = "long=" + std::string(506, 'a');  // 511 characters
  std::string rest = "next=" + std::string(84, 'b');    // 89 characters
  ASSERT_EQ(600u, (first + rest).size());
  std::string path = writeIni("long.ini", "[s]\n" + first + rest + "\n");
  int rc = 0;
  EXPECT_EQ(std::string(506, 'a'), lookup(path, "s", "long", "", 1024, &rc));
  EXPECT_EQ(506, rc);
  EXPECT_EQ(std::string(84, 'b'), lookup(path, "s", "next"));
}

TEST(ZorvGetPrivateProfileString, LineOfExactly511CharactersIsOneLine) {
  std::string line = "k=" + std::string(509, 'v');
  std::string path = writeIni("exact.ini", "[s]\n" + line + "\nz=1\n");
  EXPECT_EQ(std::string(509, 'v'), lookup(path, "s", "k"));
  EXPECT_EQ("1", lookup(path, "s", "z"));
}

// Every byte value 0..255 before a real section; bytes 128..255 are text.
TEST(ZorvGetPrivateProfileString, SurvivesBinaryFileWithAllByteValues) {
  std::string content;
  for (int round = 0; round < 4; round++) {
    for (int ch = 0; ch < 256; ch++) content += (char)ch;
  }
  content += "\n[s]\nk=v\xe9\xff\n";
  for (int ch = 255; ch >= 0; ch--) content += (char)ch;
  std::string path = writeIni("binary.ini", content);
  EXPECT_EQ("v\xe9\xff", lookup(path, "s", "k"));
  EXPECT_EQ("<default>", lookup(path, "s", "missing"));
  EXPECT_EQ("<default>", lookup(path, "\x01", "k"));
}

// A file with nothing but brackets, equals signs and control bytes.
TEST(ZorvGetPrivateProfileString, SurvivesOnlyPunctuation) {
  std::string path = writeIni("punct.ini", "[[]]]\n[\n]\n=\n==\n[]\n=x\n");
  EXPECT_EQ(1, ZorvGetPrivateProfileString("[", nullptr, "", nullptr, 0,
                                           path.c_str()));
  EXPECT_EQ("x", lookup(path, "", ""));
}

// ---- the speed cache
// -----------------------------------------------------------

TEST(ZorvSpeedIniAccess, CachesFileAndReturnsCloseResult) {
  EXPECT_EQ(0, ZorvSpeedIniAccess(basicIni().c_str()));
  EXPECT_TRUE(Zorv_I_SpeedIniCached());
  EXPECT_EQ(zorvtest::ReadFile(basicIni()).size(), Zorv_I_SpeedIniSize());
  EXPECT_EQ(0, Zorv_I_SpeedIniPtr());
  EXPECT_EQ("42", lookup("ignored", "Numbers", "Count"));
  ZorvEndSpeedIniAccess();
  EXPECT_FALSE(Zorv_I_SpeedIniCached());
}

TEST(ZorvSpeedIniAccess, ReturnsMinusOneForMissingFile) {
  EXPECT_EQ(-1, ZorvSpeedIniAccess("no/such/file.ini"));
  EXPECT_FALSE(Zorv_I_SpeedIniCached());
  EXPECT_EQ(-1, ZorvSpeedIniAccess(nullptr));
}

TEST(ZorvSpeedIniAccess, ReturnsZeroWithoutCacheWhenAllocationFails) {
  int nOpen = zorvtest::CountOpenDescriptors();
  {
    ScopedMallocLog failing(1);
    EXPECT_EQ(0, ZorvSpeedIniAccess(basicIni().c_str()));
    ASSERT_EQ(1u, gMalloc.sizes.size());
    EXPECT_EQ(zorvtest::ReadFile(basicIni()).size() + 10, gMalloc.sizes[0]);
  }
  EXPECT_FALSE(Zorv_I_SpeedIniCached());
  EXPECT_EQ(nOpen, zorvtest::CountOpenDescriptors());
}

// Deliberate: after caching A, a lookup naming B still reads A.
TEST(ZorvSpeedIniAccess, LookupNamingOtherFileReadsCachedFile) {
  std::string a = zorvtest::DataPath("ini/a.ini");
  std::string b = zorvtest::DataPath("ini/b.ini");
  EXPECT_EQ("B", lookup(b, "A", "which"));
  ASSERT_EQ(0, ZorvSpeedIniAccess(a.c_str()));
  EXPECT_EQ("A", lookup(b, "A", "which"));
  EXPECT_EQ("A", lookup("no/such/file.ini", "A", "which"));
  ZorvEndSpeedIniAccess();
  EXPECT_EQ("B", lookup(b, "A", "which"));
}

TEST(ZorvSpeedIniAccess, EveryLookupRewindsToStart) {
  ASSERT_EQ(0, ZorvSpeedIniAccess(basicIni().c_str()));
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ("first", lookup("", "General", "Dup"));
    EXPECT_EQ("no line end", lookup("", "Last", "final"));
    EXPECT_EQ("Optical Drive Module", lookup("", "General", "Name"));
  }
  ZorvEndSpeedIniAccess();
}

TEST(ZorvSpeedIniAccess, ReplacesPreviouslyCachedFile) {
  ASSERT_EQ(0, ZorvSpeedIniAccess(zorvtest::DataPath("ini/a.ini").c_str()));
  ASSERT_EQ(0, ZorvSpeedIniAccess(zorvtest::DataPath("ini/b.ini").c_str()));
  EXPECT_EQ("B", lookup("", "A", "which"));
  EXPECT_EQ(-1, ZorvSpeedIniAccess("no/such/file.ini"));
  EXPECT_FALSE(Zorv_I_SpeedIniCached());
  EXPECT_EQ("A", lookup(zorvtest::DataPath("ini/a.ini"), "A", "which"));
}

// Deliberate: 70000 bytes are recorded as 70000 - 65536 = 4464. A key in
// the first 4464 bytes is found; keys at 10000 and beyond 65535 are not.
TEST(ZorvSpeedIniAccess, ReadsLargeFileOnlyUpToSizeModulo65536) {
  std::string content = "[s]\nearly=1\n";
  auto padTo = [&content](size_t at) {
    while (content.size() < at) {
      size_t n = at - content.size();
      content += n > 1 ? std::string(n - 1 > 80 ? 80 : n - 1, 'p') + "\n"
                       : std::string("\n");
    }
  };
  padTo(10000);
  content += "middle=2\n";
  padTo(66000);
  content += "late=3\n";
  padTo(70000);
  ASSERT_EQ(70000u, content.size());
  std::string path = writeIni("big.ini", content);

  ASSERT_EQ(0, ZorvSpeedIniAccess(path.c_str()));
  EXPECT_EQ(4464, Zorv_I_SpeedIniSize());
  EXPECT_EQ("1", lookup("", "s", "early"));
  EXPECT_EQ("<default>", lookup("", "s", "middle"));
  EXPECT_EQ("<default>", lookup("", "s", "late"));
  EXPECT_LE(Zorv_I_SpeedIniPtr(), 4464);
  ZorvEndSpeedIniAccess();
  // Without speed access the same cut applies.
  EXPECT_EQ("1", lookup(path, "s", "early"));
  EXPECT_EQ("<default>", lookup(path, "s", "late"));
}

// 65535 bytes fit the 16-bit size: a key at the very end is found and the
// position stops at 65535 without wrapping.
TEST(ZorvSpeedIniAccess, ReadsFileOf65535BytesWhole) {
  std::string content = "[s]\n";
  while (content.size() < 65535 - 100) content += std::string(79, 'p') + "\n";
  std::string tail = "end=";
  content += tail + std::string(65535 - content.size() - tail.size(), 'e');
  ASSERT_EQ(65535u, content.size());
  std::string path = writeIni("max.ini", content);
  ASSERT_EQ(0, ZorvSpeedIniAccess(path.c_str()));
  EXPECT_EQ(65535, Zorv_I_SpeedIniSize());
  std::string value = lookup("", "s", "end");
  EXPECT_FALSE(value.empty());
  EXPECT_EQ(std::string(value.size(), 'e'), value);
  EXPECT_EQ("<default>", lookup("", "s", "absent"));
  EXPECT_EQ(65535, Zorv_I_SpeedIniPtr());
  ZorvEndSpeedIniAccess();
}

// 65536 bytes are recorded as 0: nothing is found.
TEST(ZorvSpeedIniAccess, FileOf65536BytesReadsAsEmpty) {
  std::string content = "[s]\nk=1\n";
  content += std::string(65536 - content.size(), 'x');
  std::string path = writeIni("wrap.ini", content);
  ASSERT_EQ(0, ZorvSpeedIniAccess(path.c_str()));
  EXPECT_EQ(0, Zorv_I_SpeedIniSize());
  EXPECT_EQ("<default>", lookup("", "s", "k"));
  ZorvEndSpeedIniAccess();
}

TEST(ZorvEndSpeedIniAccess, IsHarmlessWithoutCache) {
  ZorvEndSpeedIniAccess();
  ZorvEndSpeedIniAccess();
  EXPECT_FALSE(Zorv_I_SpeedIniCached());
}

// ---- filelength
// ----------------------------------------------------------------

TEST(filelength, ReturnsLengthAndKeepsPosition) {
  std::string path = writeIni("len.ini", std::string(1234, 'l'));
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(100, lseek(fd, 100, SEEK_SET));
  EXPECT_EQ(1234, filelength(fd));
  EXPECT_EQ(100, lseek(fd, 0, SEEK_CUR));
  close(fd);
}

// ---- the worker and the conveniences
// -----------------------------------------

// Null buffer: value "KeepMe" comes back in a malloc'ed block of 6 + 4.
TEST(ZorvIGetPrivateProfileString, AllocatesValueLengthPlusFour) {
  char* pValue = nullptr;
  int rc;
  {
    ScopedMallocLog logging(0);
    rc = Zorv_I_GetPrivateProfileString("General", "MixedCase", "d", nullptr, 0,
                                        basicIni().c_str(), &pValue);
    ASSERT_EQ(2u, gMalloc.sizes.size());  // the file, then the value
    EXPECT_EQ(10u, gMalloc.sizes[1]);
  }
  EXPECT_EQ(6, rc);
  ASSERT_NE(nullptr, pValue);
  EXPECT_STREQ("KeepMe", pValue);
  free(pValue);
}

TEST(ZorvIGetPrivateProfileString, MissingKeyWithNullBufferReturnsZero) {
  char* pValue = (char*)"stale";
  EXPECT_EQ(
      0, Zorv_I_GetPrivateProfileString("General", "Nope", "default", nullptr,
                                        0, basicIni().c_str(), &pValue));
  EXPECT_EQ(nullptr, pValue);
  pValue = (char*)"stale";
  EXPECT_EQ(
      0, Zorv_I_GetPrivateProfileString("General", "Name", "default", nullptr,
                                        0, "no/such/file", &pValue));
  EXPECT_EQ(nullptr, pValue);
}

TEST(ZorvIGetPrivateProfileString, EmptyValueAllocatesEmptyText) {
  char* pValue = nullptr;
  EXPECT_EQ(0, Zorv_I_GetPrivateProfileString("General", "Empty", "d", nullptr,
                                              0, basicIni().c_str(), &pValue));
  ASSERT_NE(nullptr, pValue);
  EXPECT_STREQ("", pValue);
  free(pValue);
}

TEST(ZorvIGetPrivateProfileString, FailedValueAllocationReturnsZero) {
  char* pValue = (char*)"stale";
  {
    ScopedMallocLog failing(2);
    EXPECT_EQ(0,
              Zorv_I_GetPrivateProfileString("General", "Name", "d", nullptr, 0,
                                             basicIni().c_str(), &pValue));
  }
  EXPECT_EQ(nullptr, pValue);
}

TEST(ZorvIGetPrivateProfileString, NullBufferAndNullOutputGiveOnlyLength) {
  EXPECT_EQ(20, Zorv_I_GetPrivateProfileString("General", "Name", "d", nullptr,
                                               0, basicIni().c_str(), nullptr));
}

TEST(ZorvGetIniString, ReturnsCopyOwnedByCaller) {
  char* pValue = ZorvGetIniString(basicIni().c_str(), "General", "Version");
  ASSERT_NE(nullptr, pValue);
  EXPECT_STREQ("2", pValue);
  free(pValue);
}

TEST(ZorvGetIniString, EmptyValueReturnsNull) {
  EXPECT_EQ(nullptr, ZorvGetIniString(basicIni().c_str(), "General", "Empty"));
}

TEST(ZorvGetIniString, MissingKeyOrFileReturnsNull) {
  EXPECT_EQ(nullptr, ZorvGetIniString(basicIni().c_str(), "General", "Nope"));
  EXPECT_EQ(nullptr, ZorvGetIniString("no/such/file", "General", "Name"));
  EXPECT_EQ(nullptr, ZorvGetIniString(basicIni().c_str(), "General", nullptr));
}

TEST(ZorvGetIniInt, ReadsDecimalValue) {
  EXPECT_EQ(42, ZorvGetIniInt(basicIni().c_str(), "Numbers", 5, "Count"));
  EXPECT_EQ(-17, ZorvGetIniInt(basicIni().c_str(), "Numbers", 5, "Negative"));
  EXPECT_EQ(0, ZorvGetIniInt(basicIni().c_str(), "Numbers", 5, "NotHex"));
}

TEST(ZorvGetIniInt, EmptyValueReturnsMinusOne) {
  EXPECT_EQ(-1, ZorvGetIniInt(basicIni().c_str(), "Numbers", 5, "EmptyNumber"));
}

TEST(ZorvGetIniInt, MissingKeyOrFileReturnsDefault) {
  EXPECT_EQ(77, ZorvGetIniInt(basicIni().c_str(), "Numbers", 77, "Nope"));
  EXPECT_EQ(-5, ZorvGetIniInt("no/such/file", "Numbers", -5, "Count"));
  EXPECT_EQ(-2147483647 - 1,
            ZorvGetIniInt("no/such/file", "N", -2147483647 - 1, "C"));
}

// "1F" -> 0x1F; "0x20" -> 0x20; "12345" -> 0x2345 (16 bits).
TEST(GetIniWord, ReadsHexadecimalValue) {
  EXPECT_EQ(0x1F, GetIniWord(basicIni().c_str(), "Numbers", 7, "Word"));
  EXPECT_EQ(0x20, GetIniWord(basicIni().c_str(), "Numbers", 7, "WordPrefixed"));
  EXPECT_EQ(0x2345, GetIniWord(basicIni().c_str(), "Numbers", 7, "WordBig"));
  EXPECT_EQ(0x42, GetIniWord(basicIni().c_str(), "Numbers", 7, "Count"));
}

TEST(GetIniWord, FailingScanReturnsDefault) {
  EXPECT_EQ(0xBEEF,
            GetIniWord(basicIni().c_str(), "Numbers", 0xBEEF, "NotHex"));
  EXPECT_EQ(0xBEEF,
            GetIniWord(basicIni().c_str(), "Numbers", 0xBEEF, "EmptyNumber"));
}

TEST(GetIniWord, MissingKeyOrFileReturnsDefault) {
  EXPECT_EQ(0xFFFF, GetIniWord(basicIni().c_str(), "Numbers", 0xFFFF, "No"));
  EXPECT_EQ(0xA5, GetIniWord("no/such/file", "Numbers", 0xA5, "Word"));
  EXPECT_EQ(0, GetIniWord("no/such/file", "Numbers", 0, "Word"));
}

// ---- trace lines for what the reader could not use -----------------------

namespace {

// Runs `body` with every trace category on and returns what was traced on
// standard error. Tracing reads its switches once per process, and each
// test is its own process.
template <typename Body>
std::string traced(Body body) {
  setenv("ZORV_TRACE", "all", 1);
  zorvtest::FdCapture capture(2);
  capture.Start();
  body();
  return capture.Stop();
}

}  // namespace

// A missing file is traced with its path and still gives the default.
TEST(ZorvSpeedIniAccess, TracesFileThatCannotBeOpened) {
  std::string text = traced(
      [] { EXPECT_EQ(-1, ZorvSpeedIniAccess("/nonexistent/zorv.ini")); });
  EXPECT_NE(
      std::string::npos,
      text.find("ZorvSpeedIniAccess(): cannot open /nonexistent/zorv.ini\n"))
      << text;
}

// 70000 bytes: the trace says how much of the file is read.
TEST(ZorvSpeedIniAccess, TracesFileLongerThanSixteenBitSize) {
  std::string path = writeIni("big.ini", std::string(70000, 'x'));
  std::string text = traced([&] {
    EXPECT_EQ(0, ZorvSpeedIniAccess(path.c_str()));
    ZorvEndSpeedIniAccess();
  });
  EXPECT_NE(std::string::npos,
            text.find("ZorvSpeedIniAccess(): big.ini has 70000 bytes, only "
                      "4464 are read\n"))
      << text;
}

// A 600-character line is traced when it is split.
TEST(ZorvGetPrivateProfileString, TracesLongLineSplit) {
  std::string path =
      writeIni("long.ini", "[s]\n" + std::string(600, 'k') + "=v\n");
  std::string text = traced([&] { lookup(path, "s", "k"); });
  EXPECT_NE(std::string::npos,
            text.find("ZorvGetPrivateProfileString(): long line split\n"))
      << text;
}
