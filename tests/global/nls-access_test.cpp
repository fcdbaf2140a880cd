// Tests of NLS access: language ids, the local default language, lookups
// and message translation against the scripted test peer playing the NLS
// engine, tags from ids, variables, and registration of NLS files. Each
// TEST runs in its own process with a fresh pipe directory (ZORV_TMP, also
// the working directory).
#include "zorv2000/nls-access.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "global/genstr_p.h"
#include "global/nls-access_p.h"
#include "support/test_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"

namespace {

using zorvtest::PeerReply;
using zorvtest::PeerRule;
using zorvtest::PeerScript;
using zorvtest::PeerSession;
using zorvtest::TestPeer;

// A rule of the NLS engine: a lookup whose data begins with `prefix` is
// answered with `data`.
PeerRule engineRule(const std::string& prefix, const std::string& data) {
  PeerReply reply;
  reply.type = "NLS_RESPONSE";
  reply.data = data;
  return PeerRule{"NLS_COMMAND", prefix, {reply}};
}

// A rule that leaves lookups with `prefix` unanswered.
PeerRule silentRule(const std::string& prefix) {
  return PeerRule{"NLS_COMMAND", prefix, {}};
}

// The peer as NLS engine with `rules`, and an open connection to it.
struct Engine {
  explicit Engine(const std::vector<PeerRule>& rules)
      : session(script(rules)) {}
  static PeerScript script(const std::vector<PeerRule>& rules) {
    PeerScript s;
    s.rules = rules;
    return s;
  }
  bool open() {
    return session.Begin() &&
           ZorvClientOpenConnectionEx("nlstest", "API", "", NULL) == 0;
  }
  // Messages the engine got after the start-up message.
  long requests() { return session.peer().ReceivedCount(5000) - 1; }
  PeerSession session;
};

// A text in a growable string, freed at the end of the scope.
struct Str {
  Str() { EXPECT_TRUE(CGenStrInit(&s)); }
  ~Str() { CGenStrDelete(&s); }
  std::string text() const { return s.buffer ? s.buffer : "(deleted)"; }
  CGenStr s;
};

const char kHello[] = "<NLS id=X><EN>Hello</EN><DE>Hallo</DE></NLS>";

// Fails the Nth allocation of the NLS unit (1-based).
int gAllocCalls;
int gFailAllocAt;
void* failingMalloc(size_t size) {
  if (++gAllocCalls == gFailAllocAt) return NULL;
  return malloc(size);
}

// Fails the Nth allocation of CGenStr (1-based).
int gGenCalls;
int gFailGenAt;
void* genMalloc(size_t size) {
  return ++gGenCalls == gFailGenAt ? NULL : malloc(size);
}
void* genCalloc(size_t count, size_t size) {
  return ++gGenCalls == gFailGenAt ? NULL : calloc(count, size);
}

// ---- Language ids
// -----------------------------------------------------------------

// "E" and "ENG" are false, "DE" is true.
TEST(IsValidLangId, AcceptsExactlyTwoCharacters) {
  const struct {
    const char* text;
    int valid;
  } rows[] = {{"E", 0},  {"ENG", 0}, {"DE", 1}, {"", 0},
              {NULL, 0}, {"  ", 1},  {"TK", 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text ? row.text : "(null)");
    EXPECT_EQ(row.valid, IsValidLangId(row.text) ? 1 : 0);
  }
}

// Null and "" are blank; a space is not.
TEST(IsNullOrBlankString, IsTrueForNullAndEmptyOnly) {
  EXPECT_TRUE(IsNullOrBlankString(NULL));
  EXPECT_TRUE(IsNullOrBlankString(""));
  EXPECT_FALSE(IsNullOrBlankString(" "));
}

// "EN" at start; two characters kept; null empties.
TEST(ZorvSetLocalDefaultLanguage, KeepsTwoCharactersAndEmptiesForNull) {
  EXPECT_STREQ("EN", ZorvGetLocalDefaultLanguage());
  ZorvSetLocalDefaultLanguage("FRA");
  EXPECT_STREQ("FR", ZorvGetLocalDefaultLanguage());
  ZorvSetLocalDefaultLanguage("E");
  EXPECT_STREQ("E", ZorvGetLocalDefaultLanguage());
  ZorvSetLocalDefaultLanguage(NULL);
  ASSERT_NE(nullptr, ZorvGetLocalDefaultLanguage());
  EXPECT_STREQ("", ZorvGetLocalDefaultLanguage());
}

// ---- One tag
// --------------------------------------------------------------------------

// The tag in the requested language.
TEST(ZorvGetNlsStringWithXmlTag, TranslatesIntoRequestedLanguage) {
  Engine engine({engineRule("NLS_GETSTRING:DE:<NLS id=X/>", kHello)});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3] = "??";
  EXPECT_EQ(1,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "DE", lang, &result.s));
  EXPECT_EQ("Hallo", result.text());
  EXPECT_STREQ("DE", lang);
}

// "<EN>" but no "<FR>": the English text and "EN".
TEST(ZorvGetNlsStringWithXmlTag, FallsBackToEnglish) {
  Engine engine({engineRule("NLS_GETSTRING:FR:", kHello)});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3] = "??";
  EXPECT_EQ(1,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "FR", lang, &result.s));
  EXPECT_EQ("Hello", result.text());
  EXPECT_STREQ("EN", lang);
}

// No language element at all: the tag itself and "TK".
TEST(ZorvGetNlsStringWithXmlTag, ReturnsTagItselfAndTKWithoutLanguage) {
  Engine engine({engineRule("NLS_GETSTRING:", "<NLS id=X></NLS>")});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3] = "??";
  EXPECT_EQ(1,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "FR", lang, &result.s));
  EXPECT_EQ("<NLS id=X/>", result.text());
  EXPECT_STREQ("TK", lang);
}

// "Disk@20full" becomes "Disk full"; the request is byte for byte.
TEST(ZorvGetNlsStringWithXmlTag, UnescapesTranslation) {
  Engine engine({engineRule(
      "NLS_GETSTRING:EN:<NLS mod=mymod id=MSG_DISK_FULL/>",
      "<NLS mod=mymod id=MSG_DISK_FULL><EN>Disk@20full@21</EN></NLS>")});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3];
  EXPECT_EQ(1, ZorvGetNlsStringWithXmlTag("<NLS mod=mymod id=MSG_DISK_FULL/>",
                                          "EN", lang, &result.s));
  EXPECT_EQ("Disk full!", result.text());
  ASSERT_TRUE(engine.session.peer().WaitForReceived(2, 5000));
  EXPECT_NE(std::string::npos, engine.session.peer().Received()[1].find(
                                   "<TYPE>NLS_COMMAND</TYPE>"));
  EXPECT_NE(std::string::npos,
            engine.session.peer().Received()[1].find(
                "<DATA>NLS_GETSTRING:EN:<NLS mod=mymod id=MSG_DISK_FULL/>"
                "</DATA>"));
}

// Bad arguments fail at once without asking the engine.
TEST(ZorvGetNlsStringWithXmlTag, RejectsBadArgumentsWithoutAsking) {
  Engine engine({engineRule("NLS_GETSTRING:", kHello)});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3];
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "EN", NULL, &result.s));
  EXPECT_EQ(0, ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "EN", lang, NULL));
  EXPECT_EQ(0, ZorvGetNlsStringWithXmlTag(NULL, "EN", lang, &result.s));
  EXPECT_EQ(0, ZorvGetNlsStringWithXmlTag("", "EN", lang, &result.s));
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLX id=X/>", "EN", lang, &result.s));
  EXPECT_EQ(0, ZorvGetNlsStringWithXmlTag("<NLSid=X/>", "EN", lang, &result.s));
  EXPECT_EQ(0, ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "E", lang, &result.s));
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "ENG", lang, &result.s));
  ZorvSetLocalDefaultLanguage("E");
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", NULL, lang, &result.s));
  EXPECT_EQ(0, engine.requests());
}

// A null language means the local default.
TEST(ZorvGetNlsStringWithXmlTag, UsesDefaultLanguageForNull) {
  Engine engine({engineRule("NLS_GETSTRING:DE:", kHello)});
  ASSERT_TRUE(engine.open());
  ZorvSetLocalDefaultLanguage("DE");
  Str result;
  char lang[3];
  EXPECT_EQ(1,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", NULL, lang, &result.s));
  EXPECT_EQ("Hallo", result.text());
}

// Replies without "<NLS ", or too long for the 8192-byte buffer, fail the
// lookup.
TEST(ZorvGetNlsStringWithXmlTag, FailsForBadReplies) {
  Engine engine(
      {engineRule("NLS_GETSTRING:EN:<NLS id=A/>", "no element"),
       engineRule("NLS_GETSTRING:EN:<NLS id=C/>",
                  "<NLS id=C><EN>" + std::string(9000, 'c') + "</EN></NLS>")});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3];
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=A/>", "EN", lang, &result.s));
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=C/>", "EN", lang, &result.s));
}

// An engine that does not answer: 0 after the 5000 ms of the lookup.
TEST(ZorvGetNlsStringWithXmlTag, FailsWhenEngineDoesNotAnswer) {
  Engine engine({silentRule("NLS_GETSTRING:")});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3];
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=X/>", "EN", lang, &result.s));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 4900u);
  EXPECT_LT(elapsed, 8000u);
}

// The reply's NLS element cut before its ">" fails; one whose text runs to
// the end of the envelope ends at the next "<".
TEST(ZorvGetNlsStringWithXmlTag, HandlesCutReplies) {
  PeerReply cut;
  cut.raw = "<MSG><HDR><RE>{ID}</RE></HDR><DATA><NLS id=B\r\n";
  PeerReply open;
  open.raw = "<MSG><HDR><RE>{ID}</RE></HDR><DATA><NLS id=D><EN>Tail\r\n";
  Engine engine(
      {PeerRule{"NLS_COMMAND", "NLS_GETSTRING:EN:<NLS id=B/>", {cut}},
       PeerRule{"NLS_COMMAND", "NLS_GETSTRING:EN:<NLS id=D/>", {open}}});
  ASSERT_TRUE(engine.open());
  Str result;
  char lang[3];
  EXPECT_EQ(0,
            ZorvGetNlsStringWithXmlTag("<NLS id=B/>", "EN", lang, &result.s));
  EXPECT_EQ(1,
            ZorvGetNlsStringWithXmlTag("<NLS id=D/>", "EN", lang, &result.s));
  EXPECT_EQ("Tail", result.text());
}

// Replies of every shape, picked apart without the engine.
TEST(ZorvNlsIPickTranslation, PicksLanguageFallbackOrToken) {
  const struct {
    const char* name;
    const char* reply;
    const char* lang;
    int rc;
    const char* returned;
    const char* text;
  } rows[] = {
      {"requested", "<NLS id=X><EN>a</EN><DE>b</DE></NLS>", "DE", 1, "DE", "b"},
      {"english", "<NLS id=X><EN>a</EN></NLS>", "FR", 1, "EN", "a"},
      {"token", "<NLS id=X></NLS>", "FR", 1, "TK", "<NLS id=X/>"},
      {"escaped", "<NLS id=X><EN>Disk@20full</EN>", "EN", 1, "EN", "Disk full"},
      {"bad escape at end", "<NLS id=X><EN>x@2", "EN", 1, "EN", "x "},
      {"text to the end", "<NLS id=X><EN>tail", "EN", 1, "EN", "tail"},
      {"empty text", "<NLS id=X><EN></EN>", "EN", 1, "EN", ""},
      {"before the tag", "<EN>no</EN><NLS id=X></NLS>", "EN", 1, "TK",
       "<NLS id=X/>"},
      {"no NLS element", "<EN>a</EN>", "EN", 0, "", ""},
      {"no closing >", "<NLS id=X", "EN", 0, "", ""},
      {"bad language", "<NLS id=X><EN>a</EN>", "E", 0, "", ""},
      {"empty reply", "", "EN", 0, "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<char> reply(row.reply, row.reply + strlen(row.reply) + 1);
    Str result;
    char returned[3] = "";
    EXPECT_EQ(row.rc, ZorvNls_I_PickTranslation(reply.data(), "<NLS id=X/>",
                                                row.lang, returned, &result.s));
    if (row.rc) {
      EXPECT_STREQ(row.returned, returned);
      EXPECT_EQ(row.text, result.text());
    }
  }
}

// ---- A whole message
// ------------------------------------------------------------------------

// Several tags, one failing: the failing one stays, the text between them
// passes unchanged.
TEST(ZorvGetNlsMessageWithXmlMessage, TranslatesEveryTagKeepingFailures) {
  Engine engine({engineRule("NLS_GETSTRING:DE:<NLS id=X/>", kHello),
                 engineRule("NLS_GETSTRING:DE:<NLS id=Y/>", "broken"),
                 engineRule("NLS_GETSTRING:DE:<NLS mod=m id=Z n=1@202/>",
                            "<NLS mod=m id=Z n=1@202><EN>Zed</EN></NLS>")});
  ASSERT_TRUE(engine.open());
  Str result;
  EXPECT_EQ(1, ZorvGetNlsMessageWithXmlMessage(
                   "<MSG><DATA>A <NLS id=X/> B <NLS id=Y/> C "
                   "<NLS mod=m id=Z n=1@202/>!</DATA></MSG>\r\n",
                   "DE", &result.s));
  EXPECT_EQ("<MSG><DATA>A Hallo B <NLS id=Y/> C Zed!</DATA></MSG>\r\n",
            result.text());
  EXPECT_EQ(3, engine.requests());
}

// "A <NLS id=X/> B" with a failing engine translates to itself.
TEST(ZorvGetNlsMessageWithXmlMessage, KeepsMessageWhenEngineFails) {
  Engine engine({engineRule("NLS_GETSTRING:", "nothing here")});
  ASSERT_TRUE(engine.open());
  Str result;
  EXPECT_EQ(
      1, ZorvGetNlsMessageWithXmlMessage("A <NLS id=X/> B", "EN", &result.s));
  EXPECT_EQ("A <NLS id=X/> B", result.text());
}

// A tag that never closes: the rest is text, the engine is not asked.
TEST(ZorvGetNlsMessageWithXmlMessage, CopiesUnclosedTagAsText) {
  Str result;
  EXPECT_EQ(1,
            ZorvGetNlsMessageWithXmlMessage("A <NLS id=X> B", "EN", &result.s));
  EXPECT_EQ("A <NLS id=X> B", result.text());
  EXPECT_EQ(1, ZorvGetNlsMessageWithXmlMessage("no tags", "EN", &result.s));
  EXPECT_EQ("no tags", result.text());
}

// Null or empty message, or no usable language: 0.
TEST(ZorvGetNlsMessageWithXmlMessage, FailsWithoutMessageOrLanguage) {
  Str result;
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage(NULL, "EN", &result.s));
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage("", "EN", &result.s));
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage("x", "EN", NULL));
  EXPECT_EQ(1, ZorvGetNlsMessageWithXmlMessage("x", "ENG", &result.s));
  ZorvSetLocalDefaultLanguage("E");
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage("x", "ENG", &result.s));
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage("x", NULL, &result.s));
}

// An invalid language falls back to the local default, traced.
TEST(ZorvGetNlsMessageWithXmlMessage, UsesDefaultForInvalidLanguage) {
  std::vector<PeerRule> rules = {engineRule("NLS_GETSTRING:DE:", kHello)};
  Engine engine(rules);
  ASSERT_TRUE(engine.session.StartPeer());
  std::string path = std::string(ZorvGetPipeDirectory()) + "/trace.txt";
  setenv("ZORV_TRACE", "diag", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  engine.session.StartPipes();
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("nlstest", "API", "", NULL));
  ZorvSetLocalDefaultLanguage("DE");
  Str result;
  EXPECT_EQ(1, ZorvGetNlsMessageWithXmlMessage("<NLS id=X/>", "X", &result.s));
  EXPECT_EQ("Hallo", result.text());
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos,
            trace.find("ZorvGetNlsMessageWithXmlMessage: no input lang to "
                       "translate to - trying default lang\n"));
  EXPECT_NE(std::string::npos, trace.find("Lang ID DE0\n"));
  EXPECT_NE(std::string::npos, trace.find("To Trans <NLS id=X/>\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvGetNlsString: found lang tag \"<DE>\"\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvGetNlsString: returning \"Hallo\"\n"));
}

// The copy of the message cannot be made: 0.
TEST(ZorvGetNlsMessageWithXmlMessage, FailsWhenCopyCannotBeMade) {
  Str result;
  gAllocCalls = 0;
  gFailAllocAt = 1;
  zorvNlsAllocCalls.pfnMalloc = failingMalloc;
  EXPECT_EQ(0, ZorvGetNlsMessageWithXmlMessage("x", "EN", &result.s));
  zorvNlsAllocCalls.pfnMalloc = malloc;
}

// ---- Tags from ids
// ---------------------------------------------------------------------------

// The tag "<NLS mod=mymod id=MSG_A/>" is looked up and copied.
TEST(ZorvGetNlsStringWithIdEx, BuildsTagFromModuleAndId) {
  Engine engine(
      {engineRule("NLS_GETSTRING:DE:<NLS mod=mymod id=MSG_A/>",
                  "<NLS mod=mymod id=MSG_A><DE>Guten@20Tag</DE></NLS>"),
       engineRule("NLS_GETSTRING:DE:<NLS id=MSG_A/>",
                  "<NLS id=MSG_A><DE>Ohne</DE></NLS>")});
  ASSERT_TRUE(engine.open());
  char buffer[64];
  EXPECT_EQ(buffer, ZorvGetNlsStringWithIdEx("mymod", "MSG_A", "DE", buffer,
                                             sizeof buffer));
  EXPECT_STREQ("Guten Tag", buffer);
  EXPECT_EQ(buffer, ZorvGetNlsStringWithIdEx(NULL, "MSG_A", "DE", buffer,
                                             sizeof buffer));
  EXPECT_STREQ("Ohne", buffer);
}

// A translation that does not fit: null, the buffer holds the cut marker.
TEST(ZorvGetNlsStringWithIdEx, ReturnsNullWhenTranslationDoesNotFit) {
  Engine engine({engineRule("NLS_GETSTRING:DE:", kHello)});
  ASSERT_TRUE(engine.open());
  char buffer[5];
  EXPECT_EQ(nullptr,
            ZorvGetNlsStringWithIdEx(NULL, "X", "DE", buffer, sizeof buffer));
  EXPECT_STREQ("!!!O", buffer);
  char exact[6];
  EXPECT_EQ(exact,
            ZorvGetNlsStringWithIdEx(NULL, "X", "DE", exact, sizeof exact));
  EXPECT_STREQ("Hallo", exact);
}

// "bad id" (or a bad module) -> null without contacting the engine; the
// buffer is emptied first; no buffer -> null.
TEST(ZorvGetNlsStringWithIdEx, RejectsBadIdWithoutContactingEngine) {
  Engine engine({engineRule("NLS_GETSTRING:", kHello)});
  ASSERT_TRUE(engine.open());
  char buffer[64] = "old";
  EXPECT_EQ(nullptr, ZorvGetNlsStringWithIdEx(NULL, "bad id", "EN", buffer,
                                              sizeof buffer));
  EXPECT_STREQ("", buffer);
  EXPECT_EQ(nullptr, ZorvGetNlsStringWithIdEx("bad mod", "X", "EN", buffer,
                                              sizeof buffer));
  EXPECT_EQ(nullptr,
            ZorvGetNlsStringWithIdEx("m", "x<y", "EN", buffer, sizeof buffer));
  EXPECT_EQ(nullptr,
            ZorvGetNlsStringWithIdEx("m", NULL, "EN", buffer, sizeof buffer));
  EXPECT_EQ(nullptr, ZorvGetNlsStringWithIdEx("m", "X", "EN", NULL, 64));
  buffer[0] = 'z';
  EXPECT_EQ(nullptr, ZorvGetNlsStringWithIdEx("m", "X", "EN", buffer, 0));
  EXPECT_EQ('z', buffer[0]);
  EXPECT_EQ(0, engine.requests());
}

// No module, the local default language.
TEST(ZorvGetNlsStringWithId, UsesDefaultLanguageWithoutModule) {
  Engine engine({engineRule("NLS_GETSTRING:DE:<NLS id=X/>", kHello)});
  ASSERT_TRUE(engine.open());
  ZorvSetLocalDefaultLanguage("DE");
  char buffer[64];
  EXPECT_EQ(buffer, ZorvGetNlsStringWithId("X", buffer, sizeof buffer));
  EXPECT_STREQ("Hallo", buffer);
}

// Deliberate: the allocating form returns null and asks nobody.
TEST(ZorvAllocAndGetNlsStringWithId, ReturnsNull) {
  Engine engine({engineRule("NLS_GETSTRING:", kHello)});
  ASSERT_TRUE(engine.open());
  EXPECT_EQ(nullptr, ZorvAllocAndGetNlsStringWithId("X"));
  EXPECT_EQ(nullptr, ZorvAllocAndGetNlsStringWithId(NULL));
  EXPECT_EQ(0, engine.requests());
}

// ---- Registration
// ---------------------------------------------------------------------------

// Registered by file name: "NLS_REGMOD:<pid>:mymod.nls".
TEST(ZorvNlsRegisterModuleNlsFile, RegistersFileNameWithEngine) {
  PeerReply reply;
  reply.data = "REGISTERED";
  Engine engine({PeerRule{"NLS_COMMAND", "NLS_REGMOD:", {reply}}});
  ASSERT_TRUE(engine.open());
  EXPECT_EQ(0, ZorvNlsRegisterModuleNlsFile("/opt/zorv/nls/mymod.nls"));
  EXPECT_EQ(0, ZorvNlsRegisterModuleNlsFile("plain.nls"));
  ASSERT_TRUE(engine.session.peer().WaitForReceived(3, 5000));
  std::string pid = std::to_string((unsigned long)ZorvGetClientPid());
  EXPECT_NE(std::string::npos,
            engine.session.peer().Received()[1].find("<DATA>NLS_REGMOD:" + pid +
                                                     ":mymod.nls</DATA>"));
  EXPECT_NE(std::string::npos,
            engine.session.peer().Received()[2].find("<DATA>NLS_REGMOD:" + pid +
                                                     ":plain.nls</DATA>"));
}

// A bad file name -> 1, a name too long for the 1024-byte command -> 3,
// neither sent.
TEST(ZorvNlsRegisterModuleNlsFile, ReturnsOneAndThreeWithoutSending) {
  Engine engine({});
  ASSERT_TRUE(engine.open());
  EXPECT_EQ(1, ZorvNlsRegisterModuleNlsFile("/opt/my mod.nls"));
  EXPECT_EQ(1, ZorvNlsRegisterModuleNlsFile(NULL));
  EXPECT_EQ(1, ZorvNlsRegisterModuleNlsFile("a<b.nls"));
  EXPECT_EQ(3, ZorvNlsRegisterModuleNlsFile(
                   ("/opt/" + std::string(1000, 'n') + ".nls").c_str()));
  EXPECT_EQ(0, engine.requests());
}

// No buffer -> 2.
TEST(ZorvNlsRegisterModuleNlsFile, ReturnsTwoWithoutBuffer) {
  gAllocCalls = 0;
  gFailAllocAt = 1;
  zorvNlsAllocCalls.pfnMalloc = failingMalloc;
  EXPECT_EQ(2, ZorvNlsRegisterModuleNlsFile("mymod.nls"));
  zorvNlsAllocCalls.pfnMalloc = malloc;
}

// No reply within 5000 ms -> 4.
TEST(ZorvNlsRegisterModuleNlsFile, ReturnsFourWithoutResponse) {
  Engine engine({silentRule("NLS_REGMOD:")});
  ASSERT_TRUE(engine.open());
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(4, ZorvNlsRegisterModuleNlsFile("mymod.nls"));
  EXPECT_GE(ZorvMilliSeconds() - start, 4900u);
}

// Without any connection the request cannot be sent -> 4 at once.
TEST(ZorvNlsRegisterModuleNlsFile, ReturnsFourWhenNotConnected) {
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(4, ZorvNlsRegisterModuleNlsFile("mymod.nls"));
  EXPECT_LT(ZorvMilliSeconds() - start, 1000u);
}

// ---- Variables
// ----------------------------------------------------------------------------------

// "<NLS id=X/>" + n = "a b" -> "<NLS id=X n=a@20b/>".
TEST(ZorvNlsAddVariableToTagStr, AddsEscapedVariable) {
  Str tag;
  ASSERT_TRUE(CGenStrAssignChar(&tag.s, "<NLS id=X/>"));
  EXPECT_EQ(0, ZorvNlsAddVariableToTagStr(&tag.s, "n", "a b"));
  EXPECT_EQ("<NLS id=X n=a@20b/>", tag.text());
  EXPECT_EQ(0, ZorvNlsAddVariableToTagStr(&tag.s, "path", "/x=<1>@%"));
  EXPECT_EQ("<NLS id=X n=a@20b path=@2Fx@3D@3C1@3E@40@25/>", tag.text());
  EXPECT_EQ(0, ZorvNlsAddVariableToTagStr(&tag.s, "e", ""));
  EXPECT_EQ("<NLS id=X n=a@20b path=@2Fx@3D@3C1@3E@40@25 e=/>", tag.text());
}

// Every byte value: kept when it is an identifier character, else "@hh";
// unescaping gives the byte back. A value never holds a space, "<", ">" or
// "=".
TEST(ZorvNlsAddVariableToTagStr, EscapesEveryByteReversibly) {
  for (int byte = 1; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    Str tag;
    ASSERT_TRUE(CGenStrAssignChar(&tag.s, "<NLS id=X/>"));
    char value[2] = {(char)byte, 0};
    ASSERT_EQ(0, ZorvNlsAddVariableToTagStr(&tag.s, "v", value));
    std::string text = tag.text();
    std::string escaped = text.substr(strlen("<NLS id=X v="));
    escaped.resize(escaped.size() - 2);
    EXPECT_EQ(std::string::npos, escaped.find_first_of(" <>=/"));
    if (IsBadXmlIdentifier(value) == 0) {
      EXPECT_EQ(std::string(value), escaped);
    } else {
      EXPECT_EQ(3u, escaped.size());
    }
    std::vector<char> back(escaped.begin(), escaped.end());
    back.push_back('\0');
    ZorvXmlConvertFromXmlToText(back.data());
    EXPECT_EQ(std::string(value), back.data());
  }
}

// Each refusal code in turn.
TEST(ZorvNlsAddVariableToTagStr, ReturnsCodeForEachRefusal) {
  const struct {
    const char* name;
    const char* tag;  // null: no tag
    const char* variable;
    const char* value;
    int expected;
  } rows[] = {
      {"bad name", "<NLS id=X/>", "a b", "v", 1},
      {"null name", "<NLS id=X/>", NULL, "v", 1},
      {"null tag", NULL, "n", "v", 2},
      {"null value", "<NLS id=X/>", "n", NULL, 4},
      {"not NLS", "<NLX id=X/>", "n", "v", 5},
      {"empty tag", "", "n", "v", 5},
      {"not closed", "<NLS id=X>", "n", "v", 6},
      {"closed early", "<NLS id=X/> ", "n", "v", 6},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Str tag;
    if (row.tag) {
      ASSERT_TRUE(CGenStrAssignChar(&tag.s, row.tag));
    }
    EXPECT_EQ(row.expected,
              ZorvNlsAddVariableToTagStr(row.tag ? &tag.s : NULL, row.variable,
                                         row.value));
    if (row.tag) {
      EXPECT_EQ(row.tag, tag.text());
    }
  }
}

// The escaped value cannot be made -> 7, the tag unchanged.
TEST(ZorvNlsAddVariableToTagStr, ReturnsSevenWhenValueCannotBeEscaped) {
  Str tag;
  ASSERT_TRUE(CGenStrAssignChar(&tag.s, "<NLS id=X/>"));
  gAllocCalls = 0;
  gFailAllocAt = 1;
  zorvNlsAllocCalls.pfnMalloc = failingMalloc;
  EXPECT_EQ(7, ZorvNlsAddVariableToTagStr(&tag.s, "n", "v"));
  zorvNlsAllocCalls.pfnMalloc = malloc;
  EXPECT_EQ("<NLS id=X/>", tag.text());
}

// The string allocations fail one after the other: cutting fails with 9,
// appending with 10, until the call goes through. Reallocations are left
// alone: a CGenStr drops (and loses) its buffer when one fails.
TEST(ZorvNlsAddVariableToTagStr, ReturnsNineAndTenWhenStringsCannotGrow) {
  bool bSeen9 = false, bSeen10 = false;
  CGenAllocCalls saved = cGenAllocCalls;
  for (int n = 1; n < 50; ++n) {
    SCOPED_TRACE(n);
    Str tag;
    ASSERT_TRUE(CGenStrAssignChar(&tag.s, "<NLS id=X/>"));
    gGenCalls = 0;
    gFailGenAt = n;
    cGenAllocCalls.pfnMalloc = genMalloc;
    cGenAllocCalls.pfnCalloc = genCalloc;
    int rc = ZorvNlsAddVariableToTagStr(&tag.s, "n", "a b");
    cGenAllocCalls = saved;
    if (rc == 0) {
      EXPECT_EQ("<NLS id=X n=a@20b/>", tag.text());
      break;
    }
    if (rc == 9) bSeen9 = true;
    if (rc == 10) bSeen10 = true;
    EXPECT_TRUE(rc == 9 || rc == 10) << rc;
    if (rc == 9) {
      EXPECT_EQ("<NLS id=X/>", tag.text());
    }
  }
  EXPECT_TRUE(bSeen9);
  EXPECT_TRUE(bSeen10);
}

// A tag in a fixed buffer that cannot grow -> 10.
TEST(ZorvNlsAddVariableToTagStr, ReturnsTenForFixedBufferTag) {
  char room[16] = "<NLS id=X/>";
  CGenStr tag;
  CGenStrInitBuff(&tag, room, (uint32_t)strlen(room), sizeof room);
  EXPECT_EQ(10, ZorvNlsAddVariableToTagStr(&tag, "name", "value"));
}

// The buffer form on a roomy buffer.
TEST(ZorvNlsAddVariableToTag, AddsVariableInBuffer) {
  char buffer[64] = "<NLS id=X/>";
  EXPECT_EQ(0, ZorvNlsAddVariableToTag(buffer, sizeof buffer, "n", "a b"));
  EXPECT_STREQ("<NLS id=X n=a@20b/>", buffer);
}

// Null buffer -> 2; size not above the text -> 3; too long a result -> 3
// with the buffer unchanged; refusals of the string form pass through.
TEST(ZorvNlsAddVariableToTag, ReturnsTwoAndThree) {
  char buffer[32] = "<NLS id=X/>";
  EXPECT_EQ(2, ZorvNlsAddVariableToTag(NULL, 32, "n", "v"));
  EXPECT_EQ(3, ZorvNlsAddVariableToTag(buffer, 11, "n", "v"));
  EXPECT_EQ(3, ZorvNlsAddVariableToTag(buffer, 14, "n", "v"));
  EXPECT_STREQ("<NLS id=X/>", buffer);
  EXPECT_EQ(1, ZorvNlsAddVariableToTag(buffer, 32, "a b", "v"));
  EXPECT_EQ(4, ZorvNlsAddVariableToTag(buffer, 32, "n", NULL));
}

// Deliberate: a result of exactly `size` characters is copied, its
// terminator landing one byte past `size`.
TEST(ZorvNlsAddVariableToTag, CopiesResultOfExactlySizeCharacters) {
  char buffer[32];
  memset(buffer, '#', sizeof buffer);
  strcpy(buffer, "<NLS id=X/>");  // 11 characters; + " n=v" = 15
  EXPECT_EQ(0, ZorvNlsAddVariableToTag(buffer, 15, "n", "v"));
  EXPECT_STREQ("<NLS id=X n=v/>", buffer);
  EXPECT_EQ('\0', buffer[15]);
  EXPECT_EQ('#', buffer[16]);
}

// A variable added and then looked up: the engine sees the escaped value.
TEST(ZorvNlsAddVariableToTag, SendsEscapedVariableToEngine) {
  Engine engine({engineRule("NLS_GETSTRING:EN:<NLS id=X n=a@20b/>",
                            "<NLS id=X n=a@20b><EN>Value@20a@20b</EN></NLS>")});
  ASSERT_TRUE(engine.open());
  char tag[64] = "<NLS id=X/>";
  ASSERT_EQ(0, ZorvNlsAddVariableToTag(tag, sizeof tag, "n", "a b"));
  Str result;
  char lang[3];
  EXPECT_EQ(1, ZorvGetNlsStringWithXmlTag(tag, "EN", lang, &result.s));
  EXPECT_EQ("Value a b", result.text());
}

}  // namespace
