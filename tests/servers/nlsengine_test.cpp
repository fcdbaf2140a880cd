// Integration tests of nlsengine, the NLS engine, started by the real
// broker: lookups through the library's NLS access in this process, raw
// NLS commands, registration, languages, the default language, and the
// engine's end with its broker. Each test has its own pipe directory and
// string-file directory.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "servers/server_harness.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/genstr.h"
#include "zorv2000/nls-access.h"

namespace {

using zorvtest::ClientSession;
using zorvtest::NlsCommand;
using zorvtest::ServerProcess;

// The string files of the tests.
const char kDiskFile[] =
    "[EN]\n"
    "MSG_DISK_FULL=Disk {drive} is full\n"
    "ONLY_EN=English only\n"
    "BRACES=Use {{x} and {unknown} and {drive}\n"
    "MARKUP=a<b> & c=d: 100%\n"
    "[DE]\n"
    "MSG_DISK_FULL=Laufwerk {drive} ist voll\n"
    "[FR]\n"
    "MSG_DISK_FULL=Le disque {drive} est plein\n";
const char kCommonFile[] =
    "[EN]\n"
    "COMMON=Common text\n";
const char kRegisteredFile[] =
    "[Module]\n"
    "szModuleName=mod\n"
    "[EN]\n"
    "REG_ONLY=From the registered file\n"
    "[DE]\n"
    "REG_ONLY=Aus der registrierten Datei\n";

// The broker and its NLS engine, with a string-file directory of its own,
// and this process as a client.
class NlsEngine : public testing::Test {
 protected:
  void SetUp() override {
    strings_ = zorvtest::FifoPath("strings");
    ASSERT_EQ(0, mkdir(strings_.c_str(), 0755));
    ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/disk.nls", kDiskFile));
    ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/zorv2000.nls", kCommonFile));
    ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/mod.ini", kRegisteredFile));
    setenv("ZORV_NLS_DIR", strings_.c_str(), 1);
  }

  void TearDown() override {
    session_.End();
    broker_.Kill();
  }

  // Starts the broker (which starts the engine) and connects.
  bool begin() {
    return zorvtest::StartBroker(&broker_) &&
           session_.Open("tester", "API") == 0;
  }

  std::string strings_;
  ServerProcess broker_;
  ClientSession session_;
};

// One lookup through the library: the text, and the language in *lang.
std::string lookUp(const char* tag, const char* language, std::string* lang) {
  CGenStr result;
  if (!CGenStrInit(&result)) return "(no memory)";
  char returned[3] = {0};
  std::string out = "(failed)";
  if (ZorvGetNlsStringWithXmlTag(tag, language, returned, &result) == 1)
    out = CGenStrC_Str(&result);
  if (lang) *lang = returned;
  CGenStrDelete(&result);
  return out;
}

// Tag "MSG_DISK_FULL" of disk in DE, FR and IT -> German, French, and the
// English fallback
TEST_F(NlsEngine, TranslatesTagInTwoLanguagesAndFallsBackToEnglish) {
  ASSERT_TRUE(begin());
  const char* tag = "<NLS mod=disk id=MSG_DISK_FULL drive=C/>";
  std::string lang;
  EXPECT_EQ("Laufwerk C ist voll", lookUp(tag, "DE", &lang));
  EXPECT_EQ("DE", lang);
  EXPECT_EQ("Le disque C est plein", lookUp(tag, "FR", &lang));
  EXPECT_EQ("FR", lang);
  EXPECT_EQ("Disk C is full", lookUp(tag, "IT", &lang));
  EXPECT_EQ("EN", lang);
  EXPECT_EQ("English only", lookUp("<NLS mod=disk id=ONLY_EN />", "DE", &lang));
  EXPECT_EQ("EN", lang);
}

// an id no file has -> the tag itself and "TK"
TEST_F(NlsEngine, UnknownTagYieldsTheTagAsToken) {
  ASSERT_TRUE(begin());
  std::string lang;
  const char* tag = "<NLS mod=disk id=NO_SUCH_STRING/>";
  EXPECT_EQ(tag, lookUp(tag, "DE", &lang));
  EXPECT_EQ("TK", lang);
  const char* other = "<NLS mod=nosuchmodule id=MSG_DISK_FULL/>";
  EXPECT_EQ(other, lookUp(other, "EN", &lang));
  EXPECT_EQ("TK", lang);
}

// language "TK" -> the tag, untranslated
TEST_F(NlsEngine, KeepsTheTokenForLanguageTK) {
  ASSERT_TRUE(begin());
  std::string lang;
  const char* tag = "<NLS mod=disk id=MSG_DISK_FULL drive=C/>";
  EXPECT_EQ(tag, lookUp(tag, "TK", &lang));
  EXPECT_EQ("TK", lang);
}

// variable value "a@20b" (escaped "a b") -> "Disk a b is full"
TEST_F(NlsEngine, FillsTheUnescapedVariableValue) {
  ASSERT_TRUE(begin());
  CGenStr tag;
  ASSERT_TRUE(CGenStrInitFromCStr(&tag, "<NLS mod=disk id=MSG_DISK_FULL/>"));
  ASSERT_EQ(0, ZorvNlsAddVariableToTagStr(&tag, "drive", "a b"));
  EXPECT_STREQ("<NLS mod=disk id=MSG_DISK_FULL drive=a@20b/>",
               CGenStrC_Str(&tag));
  EXPECT_EQ("Disk a b is full", lookUp(CGenStrC_Str(&tag), "EN", nullptr));
  CGenStrDelete(&tag);
}

// "Use {{x} and {unknown} and {drive}" -> "{{" gives "{", a placeholder
// without a variable stays
TEST_F(NlsEngine, LeavesUnfilledPlaceholderAndTurnsDoubleBraceIntoOne) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("Use {x} and {unknown} and D",
            lookUp("<NLS mod=disk id=BRACES drive=D/>", "EN", nullptr));
}

// a text with "<", ">", "&", "=", ":" and "%" -> escaped on the wire,
// unescaped by the client
TEST_F(NlsEngine, CarriesMarkupCharactersEscaped) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("a<b> & c=d: 100%",
            lookUp("<NLS mod=disk id=MARKUP/>", "EN", nullptr));
  std::string data = NlsCommand("NLS_GETSTRING:EN:<NLS mod=disk id=MARKUP/>");
  EXPECT_EQ(
      "<NLS mod=disk id=MARKUP><EN>a@3Cb@3E @26 c@3Dd@3A 100@25</EN>"
      "</NLS>",
      data);
}

// the reply holds the tag as an element with the requested language and
// English
TEST_F(NlsEngine, AnswersTagAsElementWithRequestedLanguageAndEnglish) {
  ASSERT_TRUE(begin());
  EXPECT_EQ(
      "<NLS mod=disk id=MSG_DISK_FULL drive=C><DE>Laufwerk C ist voll"
      "</DE><EN>Disk C is full</EN></NLS>",
      NlsCommand("NLS_GETSTRING:DE:<NLS mod=disk id=MSG_DISK_FULL "
                 "drive=C/>"));
  EXPECT_EQ("<NLS mod=disk id=NONE></NLS>",
            NlsCommand("NLS_GETSTRING:DE:<NLS mod=disk id=NONE />"));
}

// mod=disk.vtq (a module name) -> the string file disk.nls
TEST_F(NlsEngine, FindsStringFileByTheModuleNameBeforeItsDot) {
  ASSERT_TRUE(begin());
  EXPECT_EQ(
      "Laufwerk E ist voll",
      lookUp("<NLS mod=disk.vtq id=MSG_DISK_FULL drive=E/>", "DE", nullptr));
}

// a tag without module -> the requester's registered file, else the
// common file zorv2000.nls
TEST_F(NlsEngine, RegistersModuleFileAndUsesItForTagsWithoutModule) {
  ASSERT_TRUE(begin());
  char buffer[256];
  EXPECT_STREQ("<NLS id=REG_ONLY/>",
               ZorvGetNlsStringWithIdEx(nullptr, "REG_ONLY", "DE", buffer,
                                        sizeof buffer));
  EXPECT_STREQ("Common text", ZorvGetNlsStringWithIdEx(nullptr, "COMMON", "DE",
                                                       buffer, sizeof buffer));
  EXPECT_EQ(0, ZorvNlsRegisterModuleNlsFile("/opt/anywhere/mod.ini"));
  EXPECT_STREQ("Aus der registrierten Datei",
               ZorvGetNlsStringWithIdEx(nullptr, "REG_ONLY", "DE", buffer,
                                        sizeof buffer));
  EXPECT_STREQ("Common text", ZorvGetNlsStringWithIdEx(nullptr, "COMMON", "EN",
                                                       buffer, sizeof buffer));
  // By module name too, through the registration (mod.ini for mod.vtq).
  EXPECT_STREQ("From the registered file",
               ZorvGetNlsStringWithIdEx("mod.vtq", "REG_ONLY", "EN", buffer,
                                        sizeof buffer));
}

// registrations that cannot be made -> an error text each
TEST_F(NlsEngine, AnswersRegistrationFailuresWithErrorText) {
  ASSERT_TRUE(begin());
  std::string pid = std::to_string(getpid());
  EXPECT_EQ("SUCCESS", NlsCommand("NLS_REGMOD:" + pid + ":disk.nls"));
  EXPECT_EQ("ERROR:no such string file",
            NlsCommand("NLS_REGMOD:" + pid + ":nosuch.nls"));
  EXPECT_EQ("ERROR:bad file name",
            NlsCommand("NLS_REGMOD:" + pid + ":../etc/passwd"));
  EXPECT_EQ("ERROR:bad file name",
            NlsCommand("NLS_REGMOD:" + pid + ":.hidden"));
  EXPECT_EQ("ERROR:bad file name", NlsCommand("NLS_REGMOD:" + pid + ":"));
  EXPECT_EQ("ERROR:bad process id", NlsCommand("NLS_REGMOD:abc:disk.nls"));
  EXPECT_EQ("ERROR:bad process id", NlsCommand("NLS_REGMOD:disk.nls"));
  ASSERT_EQ(0, mkdir((strings_ + "/dir.nls").c_str(), 0755));
  EXPECT_EQ("ERROR:no such string file",
            NlsCommand("NLS_REGMOD:" + pid + ":dir.nls"));
}

// a string file of 64 KiB or more -> refused (the INI reader would see it
// cut), its tags untranslated
TEST_F(NlsEngine, RefusesStringFileOf64KiBOrMore) {
  std::string big = "[EN]\nBIG=big\n" + std::string(70000, '#');
  ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/big.nls", big));
  ASSERT_TRUE(begin());
  EXPECT_EQ("ERROR:string file too large",
            NlsCommand("NLS_REGMOD:" + std::to_string(getpid()) + ":big.nls"));
  std::string lang;
  EXPECT_EQ("<NLS mod=big id=BIG/>",
            lookUp("<NLS mod=big id=BIG/>", "EN", &lang));
  EXPECT_EQ("TK", lang);
}

// "NLS_GETLANGS" -> the codes of all string files in table order; a
// registered file adds its own
TEST_F(NlsEngine, ListsTheLanguagesOfTheStringFiles) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("EN:DE:FR", NlsCommand("NLS_GETLANGS"));
  ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/extra.ini",
                                  "[IT]\nX=x\n[AA]\nX=x\n[ZU]\nX=x\n"));
  EXPECT_EQ("EN:DE:FR", NlsCommand("NLS_GETLANGS"));
  EXPECT_EQ("SUCCESS", NlsCommand("NLS_REGMOD:" + std::to_string(getpid()) +
                                  ":extra.ini"));
  EXPECT_EQ("EN:AA:DE:FR:IT:ZU", NlsCommand("NLS_GETLANGS"));
}

// "NLS_SET_DEFAULT_LANG" with a known code -> kept; unknown or lower case
// -> refused
TEST_F(NlsEngine, SetsAndReportsTheDefaultLanguage) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("EN", NlsCommand("NLS_GET_DEFAULT_LANG"));
  EXPECT_EQ("SUCCESS", NlsCommand("NLS_SET_DEFAULT_LANG:DE"));
  EXPECT_EQ("DE", NlsCommand("NLS_GET_DEFAULT_LANG"));
  EXPECT_EQ("ERROR:unknown language", NlsCommand("NLS_SET_DEFAULT_LANG:XX"));
  EXPECT_EQ("ERROR:unknown language", NlsCommand("NLS_SET_DEFAULT_LANG:fr"));
  EXPECT_EQ("ERROR:unknown language", NlsCommand("NLS_SET_DEFAULT_LANG:"));
  EXPECT_EQ("DE", NlsCommand("NLS_GET_DEFAULT_LANG"));
}

// malformed commands -> an error text, never silence
TEST_F(NlsEngine, AnswersMalformedCommandsWithErrorText) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("ERROR:unknown command", NlsCommand("NLS_NO_SUCH"));
  EXPECT_EQ("ERROR:unknown command", NlsCommand(""));
  EXPECT_EQ("ERROR:bad language", NlsCommand("NLS_GETSTRING:D:<NLS id=X/>"));
  EXPECT_EQ("ERROR:bad language", NlsCommand("NLS_GETSTRING:12:<NLS id=X/>"));
  EXPECT_EQ("ERROR:bad language", NlsCommand("NLS_GETSTRING:DE"));
  EXPECT_EQ("ERROR:bad tag", NlsCommand("NLS_GETSTRING:DE:garbage"));
  EXPECT_EQ("ERROR:bad tag", NlsCommand("NLS_GETSTRING:DE:<NLS mod=disk/>"));
  EXPECT_EQ("ERROR:bad tag", NlsCommand("NLS_GETSTRING:DE:<NLS id=X />x"));
  // Markup that breaks the envelope: DATA does not read.
  EXPECT_EQ("ERROR:unreadable command",
            NlsCommand("NLS_GETSTRING:DE:<NLS id=X"));
  EXPECT_EQ(
      "ERROR:bad tag",
      NlsCommand("NLS_GETSTRING:DE:<NLS id=" + std::string(300, 'x') + "/>"));
  EXPECT_EQ("<NLS mod=..@2Fx id=X></NLS>",
            NlsCommand("NLS_GETSTRING:EN:<NLS mod=..@2Fx id=X/>"));
}

// a whole message -> every tag replaced; an unknown one kept as it is
TEST_F(NlsEngine, TranslatesEveryTagOfAMessage) {
  ASSERT_TRUE(begin());
  CGenStr out;
  ASSERT_TRUE(CGenStrInit(&out));
  ASSERT_EQ(1, ZorvGetNlsMessageWithXmlMessage(
                   "A <NLS mod=disk id=MSG_DISK_FULL drive=D/> B "
                   "<NLS mod=disk id=NONE/> C",
                   "DE", &out));
  EXPECT_STREQ("A Laufwerk D ist voll B <NLS mod=disk id=NONE/> C",
               CGenStrC_Str(&out));
  CGenStrDelete(&out);
}

// a string file changed while the engine runs -> the new text
TEST_F(NlsEngine, ReadsAChangedStringFileAgain) {
  ASSERT_TRUE(begin());
  EXPECT_EQ("English only",
            lookUp("<NLS mod=disk id=ONLY_EN/>", "EN", nullptr));
  std::string changed = kDiskFile;
  changed.replace(changed.find("English only"), 12, "Changed text, longer");
  ASSERT_TRUE(zorvtest::WriteFile(strings_ + "/disk.nls", changed));
  EXPECT_EQ("Changed text, longer",
            lookUp("<NLS mod=disk id=ONLY_EN/>", "EN", nullptr));
}

// the example string files beside the program (ZORV_NLS_DIR unset)
TEST_F(NlsEngine, TranslatesWithTheExampleStringFiles) {
  unsetenv("ZORV_NLS_DIR");
  ASSERT_TRUE(begin());
  EXPECT_EQ("3 defekte Sektoren auf Laufwerk C",
            lookUp("<NLS mod=example id=MSG_BAD_SECTORS count=3 drive=C/>",
                   "DE", nullptr));
  EXPECT_EQ("Test réussi", lookUp("<NLS id=TEST_PASSED/>", "FR", nullptr));
  EXPECT_EQ("Disk C passed the surface scan",
            lookUp("<NLS mod=example id=MSG_DISK_OK drive=C/>", "FR", nullptr));
}

// the broker killed with SIGKILL -> the engine it started ends too
TEST_F(NlsEngine, EndsWhenItsBrokerIsKilled) {
  ASSERT_TRUE(begin());
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  ASSERT_GT(engine, 0);
  ASSERT_EQ(0, kill(broker_.Pid(), SIGKILL));
  EXPECT_EQ(128 + SIGKILL, broker_.WaitExit(5000));
  EXPECT_TRUE(zorvtest::WaitUntil(
      [engine] { return !zorvtest::ProcessAlive(static_cast<pid_t>(engine)); },
      5000));
}

// started by hand without a broker -> status 2 and a message
TEST_F(NlsEngine, RefusesToRunWithoutBroker) {
  ServerProcess engine;
  std::string errors = zorvtest::FifoPath("engine.err");
  unsetenv("ZORV_MB_PID");
  ASSERT_TRUE(engine.Start(zorvtest::ServerPath("nlsengine"), {}, errors));
  EXPECT_EQ(2, engine.WaitExit(15000));
  EXPECT_NE(std::string::npos, zorvtest::ReadFile(errors).find(
                                   "cannot connect to the message broker"));
}

}  // namespace
