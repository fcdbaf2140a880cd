// Tests of the client's message table, waits and transactions: the table
// fed directly through its callback, and transactions and waits against
// the scripted test peer. Each TEST runs in its own process with a fresh
// pipe directory (ZORV_TMP, also the working directory).
#include "zorv2000/client-messaging-engine.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "global/client-fifo-access_p.h"
#include "global/client-messaging-engine_p.h"
#include "global/primitives_p.h"
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

// An envelope as the table keeps it (no "\r\n"); RE left out when empty.
std::string stored(unsigned long id, const std::string& re,
                   const std::string& type, long from = 4711,
                   const std::string& data = "x") {
  std::string text = TestPeer::Envelope(from, "1", id, re, type, data);
  return text.substr(0, text.size() - 2);
}

// Puts a message into the table as if it had arrived.
void arrive(const std::string& text) {
  ASSERT_EQ(0, ZorvClient_I_MoveMessagesToTable(text.c_str()));
}

// Texts of the table, oldest first, by peeking.
std::vector<std::string> tableTexts() {
  std::vector<std::string> texts;
  for (ZorvClientMessage* p = ZorvClientPeekMessage(NULL); p;
       p = p->pNext ? ZorvClientPeekMessage(p->pNext) : NULL)
    texts.push_back(p->pData);
  return texts;
}

// Switches on the program's and the object model's trace categories into a
// file of the pipe directory; call before anything traces. Returns its path.
std::string traceToFile() {
  std::string path = std::string(ZorvGetPipeDirectory()) + "/trace.txt";
  setenv("ZORV_TRACE", "diag,dll", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  return path;
}

// Lines of `text` that contain `needle`.
int countLines(const std::string& text, const std::string& needle) {
  int count = 0;
  for (size_t at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + 1))
    ++count;
  return count;
}

// A reply of the peer.
PeerReply reply(const std::string& type, const std::string& data,
                const std::string& re = "{ID}") {
  PeerReply r;
  r.type = type;
  r.data = data;
  r.re = re;
  return r;
}

// A request to the diagnostic engine with a fresh ID.
std::string request(const char* data) {
  char buffer[512];
  EXPECT_EQ(0, ZorvClientCreateDiagnosticEngineCommand(data, NULL, buffer,
                                                       sizeof buffer));
  return buffer;
}

std::string idOf(const std::string& message) {
  char id[32] = "";
  ZorvXmlGetField(message.c_str(), "MSG/HDR/ID", 0, id, sizeof id);
  return id;
}

// Milliseconds of a monotonic clock.
int64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// A wall clock that starts at a chosen time of day and runs on in real
// time, for the library through its clock seam.
std::atomic<int64_t> gClockStartMs;
std::atomic<int64_t> gClockBaseMs;
int runningClock(struct timeval* tv) {
  int64_t ms = gClockBaseMs.load() + (monotonicMs() - gClockStartMs.load());
  tv->tv_sec = (time_t)(ms / 1000);
  tv->tv_usec = (suseconds_t)((ms % 1000) * 1000);
  return 0;
}
struct RunningClock {
  explicit RunningClock(uint32_t timeOfDayMs) {
    gClockBaseMs = (int64_t)20000 * 86400000 + timeOfDayMs;
    gClockStartMs = monotonicMs();
    zorvSyscalls.pfnGetTimeOfDay = runningClock;
  }
  ~RunningClock() { zorvSyscalls.pfnGetTimeOfDay = Zorv_I_RealGetTimeOfDay; }
};

// Fails the Nth allocation of the unit from now (1-based).
int gAllocCalls;
int gFailAllocAt;
void* failingMalloc(size_t size) {
  if (++gAllocCalls == gFailAllocAt) return NULL;
  return malloc(size);
}

// ---- Filling the table
// -----------------------------------------------------------

// Three messages -> kept in arrival order, header fields not looked up.
TEST(ZorvClientIMoveMessagesToTable, AppendsInArrivalOrder) {
  arrive(stored(1, "", "A"));
  arrive(stored(2, "", "B"));
  arrive(stored(3, "", "C"));
  EXPECT_EQ(3, ZorvClient_I_GetWaitingMessageCount());
  std::vector<std::string> texts = tableTexts();
  ASSERT_EQ(3u, texts.size());
  EXPECT_EQ(stored(1, "", "A"), texts[0]);
  EXPECT_EQ(stored(3, "", "C"), texts[2]);
  ZorvClientMessage* p = ZorvClientPeekMessage(NULL);
  EXPECT_EQ(0, p->re);
  EXPECT_EQ(nullptr, p->pType);
  EXPECT_EQ(0u, p->from);
}

// The text copy cannot be made -> 2; the record cannot be made -> 1; the
// table stays as it was.
TEST(ZorvClientIMoveMessagesToTable, ReturnsTwoAndOneWhenAllocationFails) {
  arrive(stored(1, "", "A"));
  const struct {
    const char* name;
    int failAt;
    int expected;
  } rows[] = {{"text", 1, 2}, {"record", 2, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    gAllocCalls = 0;
    gFailAllocAt = row.failAt;
    zorvClientAllocCalls.pfnMalloc = failingMalloc;
    EXPECT_EQ(row.expected, ZorvClient_I_MoveMessagesToTable("new"));
    zorvClientAllocCalls.pfnMalloc = malloc;
    EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
  }
}

// The appends and their failures are traced.
TEST(ZorvClientIMoveMessagesToTable, TracesRootAndFollowingAppends) {
  std::string path = traceToFile();
  arrive("first");
  arrive("second");
  zorvClientAllocCalls.pfnMalloc = failingMalloc;
  gAllocCalls = 0;
  gFailAllocAt = 1;
  ZorvClient_I_MoveMessagesToTable("x");
  gAllocCalls = 0;
  gFailAllocAt = 2;
  ZorvClient_I_MoveMessagesToTable("x");
  zorvClientAllocCalls.pfnMalloc = malloc;
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos, trace.find("]=first\n"));
  EXPECT_EQ(2, countLines(trace, "ZorvClient_I_MoveMessagesToTable:message "));
  EXPECT_NE(std::string::npos, trace.find(" added to root\n"));
  EXPECT_NE(std::string::npos, trace.find(" added to message 0x"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvClient_I_MoveMessagesToTable:error alloc 1\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvClient_I_MoveMessagesToTable:error alloc 2\n"));
}

// One trace line per record, advancing through the table.
TEST(ZorvClientIPrintMessages, TracesOneLinePerRecord) {
  std::string path = traceToFile();
  arrive(stored(1, "5", "A"));
  arrive(stored(2, "", "B"));
  arrive(stored(3, "", "C"));
  ASSERT_NE(nullptr, ZorvClientFindMessageWithReField(5));
  EXPECT_EQ(3, ZorvClient_I_PrintMessages());
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_EQ(3, countLines(trace, "RE:"));
  EXPECT_NE(std::string::npos, trace.find("RE:5 TYPE:(null) FROM:0 NEXT:0x"));
  EXPECT_NE(std::string::npos,
            trace.find("NEXT:(nil), " + stored(3, "", "C") + "\n"));
}

// ---- Taking and looking
// -------------------------------------------------------------

// A record that is not in the table -> null; an empty table -> null.
TEST(ZorvClientGetNextMessage, ReturnsNullForRecordNotInTable) {
  EXPECT_EQ(nullptr, ZorvClientGetNextMessage(NULL));
  arrive(stored(1, "", "A"));
  arrive(stored(2, "", "B"));
  ZorvClientMessage* pTaken = ZorvClientGetNextMessage(NULL);
  ASSERT_NE(nullptr, pTaken);
  EXPECT_EQ(nullptr, ZorvClientGetNextMessage(pTaken));
  EXPECT_EQ(nullptr, ZorvClientPeekMessage(pTaken));
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
  EXPECT_EQ(0, ZorvClientFreeMessage(pTaken));
}

// Taking the first, a middle and the last record keeps the rest linked.
TEST(ZorvClientGetNextMessage, TakesRecordsFromAnyPlace) {
  for (unsigned long id = 1; id <= 4; ++id) arrive(stored(id, "", "T"));
  ZorvClientMessage* p2 = ZorvClientPeekMessage(NULL)->pNext;
  ZorvClientMessage* p4 = p2->pNext->pNext;
  ZorvClientMessage* pTaken = ZorvClientGetNextMessage(p2);
  ASSERT_EQ(p2, pTaken);
  EXPECT_EQ(nullptr, pTaken->pNext);
  ZorvClientFreeMessage(pTaken);
  pTaken = ZorvClientGetNextMessage(p4);
  ASSERT_EQ(p4, pTaken);
  ZorvClientFreeMessage(pTaken);
  arrive(stored(5, "", "T"));  // appended after the new last record
  std::vector<std::string> texts = tableTexts();
  ASSERT_EQ(3u, texts.size());
  EXPECT_EQ(stored(1, "", "T"), texts[0]);
  EXPECT_EQ(stored(3, "", "T"), texts[1]);
  EXPECT_EQ(stored(5, "", "T"), texts[2]);
  pTaken = ZorvClientGetNextMessage(NULL);
  EXPECT_EQ(stored(1, "", "T"), pTaken->pData);
  ZorvClientFreeMessage(pTaken);
}

// Peeking leaves the record where it is.
TEST(ZorvClientPeekMessage, LeavesRecordInTable) {
  arrive(stored(1, "", "A"));
  ZorvClientMessage* p = ZorvClientPeekMessage(NULL);
  EXPECT_EQ(p, ZorvClientPeekMessage(p));
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
}

// Null -> 1; a record -> 0.
TEST(ZorvClientFreeMessage, ReturnsOneForNullAndZeroOtherwise) {
  EXPECT_EQ(1, ZorvClientFreeMessage(NULL));
  arrive(stored(1, "", "A"));
  ZorvClientMessage* p = ZorvClientGetNextMessage(NULL);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0, ZorvClientFreeMessage(p));
}

// The reply is found by RE before, between and after unrelated messages.
TEST(ZorvClientFindMessageWithReField, FindsReplyRegardlessOfPosition) {
  const struct {
    const char* name;
    int position;
  } rows[] = {{"first", 0}, {"middle", 1}, {"last", 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    while (ZorvClientMessage* p = ZorvClientGetNextMessage(NULL))
      ZorvClientFreeMessage(p);
    std::vector<std::string> texts = {stored(10, "", "NOTICE"),
                                      stored(11, "6", "REPLY")};
    texts.insert(texts.begin() + row.position, stored(12, "7", "REPLY"));
    for (const std::string& text : texts) arrive(text);
    ZorvClientMessage* p = ZorvClientFindMessageWithReField(7);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(stored(12, "7", "REPLY"), p->pData);
    EXPECT_EQ(7, p->re);
    EXPECT_EQ(3, ZorvClient_I_GetWaitingMessageCount());
  }
}

// Records without RE are marked -1; a malformed RE is no match.
TEST(ZorvClientFindMessageWithReField, MarksMissingReAndSkipsMalformed) {
  arrive(stored(1, "", "A"));
  arrive(stored(2, "abc", "B"));
  arrive(stored(3, "<X/>", "C"));
  EXPECT_EQ(nullptr, ZorvClientFindMessageWithReField(7));
  EXPECT_EQ(-1, ZorvClientPeekMessage(NULL)->re);
  arrive("no envelope at all");
  arrive("<MSG><HDR><RE>7");  // cut short
  EXPECT_EQ(nullptr, ZorvClientFindMessageWithReField(7));
}

// Two messages of one type -> the oldest first.
TEST(ZorvClientFindMessageWithTypeField, ReturnsOldestOfTwo) {
  arrive(stored(1, "", "OTHER"));
  arrive(stored(2, "", "DE_EVENT"));
  arrive(stored(3, "", "DE_EVENT"));
  ZorvClientMessage* p = ZorvClientFindMessageWithTypeField("DE_EVENT");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(stored(2, "", "DE_EVENT"), p->pData);
  EXPECT_STREQ("DE_EVENT", p->pType);
  EXPECT_EQ(nullptr, ZorvClientFindMessageWithTypeField("DE_EVEN"));
  EXPECT_EQ(nullptr, ZorvClientFindMessageWithTypeField(NULL));
}

// A record without TYPE never matches, not even the empty type.
TEST(ZorvClientFindMessageWithTypeField, NeverMatchesRecordWithoutType) {
  arrive("<MSG><HDR><ID>1</ID></HDR><DATA></DATA></MSG>");
  EXPECT_EQ(nullptr, ZorvClientFindMessageWithTypeField(""));
  arrive(stored(2, "", ""));
  EXPECT_NE(nullptr, ZorvClientFindMessageWithTypeField(""));
}

// Type and sender must both match; FROM is cached.
TEST(ZorvClientFindMessageWithTypeFieldAndFromPid, MatchesTypeAndSender) {
  arrive(stored(1, "", "DE_EVENT", 100));
  arrive(stored(2, "", "DE_NOTIFY", 200));
  arrive(stored(3, "", "DE_EVENT", 200));
  ZorvClientMessage* p =
      ZorvClientFindMessageWithTypeFieldAndFromPid(200, "DE_EVENT");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(stored(3, "", "DE_EVENT", 200), p->pData);
  EXPECT_EQ(200u, p->from);
  EXPECT_EQ(nullptr,
            ZorvClientFindMessageWithTypeFieldAndFromPid(300, "DE_EVENT"));
}

// ---- Waits on the table
// ------------------------------------------------------------------

// A buffer one byte shorter than message plus terminator -> 1, the message
// still counted; the exact size -> 0 and it is taken out.
TEST(ZorvClientWaitForMessage, ReturnsOneForBufferOneByteShort) {
  std::string text = stored(1, "", "DE_EVENT");
  arrive(text);
  std::vector<char> buffer(text.size() + 1, '#');
  EXPECT_EQ(1, ZorvClientWaitForMessage(buffer.data(), (uint32_t)text.size(),
                                        100, "DE_EVENT", 0));
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
  EXPECT_EQ(
      0, ZorvClientWaitForMessage(buffer.data(), (uint32_t)text.size() + 1, 100,
                                  "DE_EVENT", 0));
  EXPECT_EQ(text, buffer.data());
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
}

// Two of one type -> oldest first, then the next.
TEST(ZorvClientWaitForMessage, ReturnsTwoMessagesOfOneTypeOldestFirst) {
  arrive(stored(1, "", "DE_EVENT"));
  arrive(stored(2, "", "OTHER"));
  arrive(stored(3, "", "DE_EVENT"));
  char buffer[512];
  ASSERT_EQ(
      0, ZorvClientWaitForMessage(buffer, sizeof buffer, 100, "DE_EVENT", 0));
  EXPECT_EQ(stored(1, "", "DE_EVENT"), buffer);
  ASSERT_EQ(
      0, ZorvClientWaitForMessage(buffer, sizeof buffer, 100, "DE_EVENT", 0));
  EXPECT_EQ(stored(3, "", "DE_EVENT"), buffer);
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
}

// With a sender: only its message of that type.
TEST(ZorvClientWaitForMessage, WaitsForTypeFromSender) {
  arrive(stored(1, "", "DE_EVENT", 100));
  arrive(stored(2, "", "DE_EVENT", 200));
  char buffer[512];
  ASSERT_EQ(
      0, ZorvClientWaitForMessage(buffer, sizeof buffer, 100, "DE_EVENT", 200));
  EXPECT_EQ(stored(2, "", "DE_EVENT", 200), buffer);
  EXPECT_EQ(
      2, ZorvClientWaitForMessage(buffer, sizeof buffer, 100, "DE_EVENT", 300));
}

// A null type -> 3 as soon as any message waits; 2 when none comes.
TEST(ZorvClientWaitForMessage, ReturnsThreeForNullTypeOnceAnyWaits) {
  char buffer[64];
  EXPECT_EQ(2, ZorvClientWaitForMessage(buffer, sizeof buffer, 150, NULL, 0));
  arrive(stored(1, "", "A"));
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(3, ZorvClientWaitForMessage(buffer, sizeof buffer, 5000, NULL, 0));
  EXPECT_LT(ZorvMilliSeconds() - start, 1000u);
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
}

// Nothing of the type comes -> 2 after about the time-out, traced.
TEST(ZorvClientWaitForMessage, ReturnsTwoAfterTimeout) {
  std::string path = traceToFile();
  arrive(stored(1, "", "OTHER"));
  char buffer[512];
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(
      2, ZorvClientWaitForMessage(buffer, sizeof buffer, 400, "DE_EVENT", 0));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 380u);
  EXPECT_LT(elapsed, 3000u);
  std::string trace = zorvtest::ReadFile(path);
  EXPECT_NE(std::string::npos,
            trace.find("ZorvClientWaitForMessage: wait 400 ms for DE_EVENT or "
                       "0 (buffer size 512)\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvClientWaitForMessage:timeout\n"));
  EXPECT_NE(std::string::npos,
            trace.find("ZorvClientFindMessageWithTypeField:Not found\n"));
}

// The string form: an uninitialised or null string -> 1 at once; else the
// message is assigned.
TEST(ZorvClientWaitForMessageStr, ReturnsOneForUninitialisedString) {
  arrive(stored(1, "", "DE_EVENT"));
  CGenStr string;
  memset(&string, 0, sizeof string);
  EXPECT_EQ(1, ZorvClientWaitForMessageStr(&string, 100, "DE_EVENT", 0));
  EXPECT_EQ(1, ZorvClientWaitForMessageStr(NULL, 100, "DE_EVENT", 0));
  ASSERT_TRUE(CGenStrInit(&string));
  EXPECT_EQ(0, ZorvClientWaitForMessageStr(&string, 100, "DE_EVENT", 0));
  EXPECT_EQ(stored(1, "", "DE_EVENT"), CGenStrC_Str(&string));
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
  CGenStrDelete(&string);
}

// A string that cannot take the message -> 1, the message stays.
TEST(ZorvClientWaitForMessageStr, ReturnsOneWhenAssignmentFails) {
  arrive(stored(1, "", "DE_EVENT"));
  char small[8];
  CGenStr fixed;
  CGenStrInitBuff(&fixed, small, 0, sizeof small);
  EXPECT_EQ(1, ZorvClientWaitForMessageStr(&fixed, 100, "DE_EVENT", 0));
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
}

// ---- Deadlines
// ------------------------------------------------------------------------------

// Starts of waits near midnight (exhaustive around the boundary).
TEST(ZorvClientIWaitStart, MovesStartBackWhenDeadlineWouldPassMidnight) {
  const struct {
    const char* name;
    uint32_t now, timeout, start;
  } rows[] = {
      {"1000 at 86399500", 86399500, 1000, 86398000},
      {"ends at last ms", 86398999, 1000, 86398999},
      {"one ms over", 86399000, 1000, 86398000},
      {"zero time-out", 86399999, 0, 86399999},
      {"noon", 43200000, 240000, 43200000},
      {"longer than a day", 5000, 90000000u, (uint32_t)(86399000u - 90000000u)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    uint32_t start = ZorvClient_I_WaitStart(row.now, row.timeout);
    EXPECT_EQ(row.start, start);
    if (start != row.now) {
      EXPECT_EQ(86399000u, start + row.timeout);
    }
  }
  for (uint32_t now = 86397000; now <= 86399999; ++now) {
    uint32_t start = ZorvClient_I_WaitStart(now, 2000);
    EXPECT_LE((uint64_t)start + 2000, 86399999u);
  }
}

// Deliberate: a wait of 1000 ms begun at 86399500 has its start moved to
// 86398000 and ends at once, its deadline 86399000 being past.
TEST(ZorvClientWaitForMessage, ClampsWaitBegunBeforeMidnight) {
  std::string path = traceToFile();
  RunningClock clock(86399500);
  char buffer[64];
  int64_t start = monotonicMs();
  EXPECT_EQ(2, ZorvClientWaitForMessage(buffer, sizeof buffer, 1000, "X", 0));
  EXPECT_LT(monotonicMs() - start, 500);
  EXPECT_NE(std::string::npos, zorvtest::ReadFile(path).find(
                                   "Start Time 86398000,Time Out 1000 \n"));
}

// A clamped wait ends at 86399000: begun at 86398900 with 1500 ms it lasts
// about 100 ms; an unclamped one of 1000 ms at 86398500 lasts the second.
TEST(ZorvClientWaitForMessage, EndsClampedWaitAtDeadline) {
  char buffer[64];
  {
    RunningClock clock(86398900);
    int64_t start = monotonicMs();
    EXPECT_EQ(2, ZorvClientWaitForMessage(buffer, sizeof buffer, 1500, "X", 0));
    int64_t elapsed = monotonicMs() - start;
    EXPECT_GE(elapsed, 80);
    EXPECT_LT(elapsed, 700);
    EXPECT_LT(ZorvGetTimeOfDay(), 86399700u);
  }
  {
    RunningClock clock(86398500);
    int64_t start = monotonicMs();
    EXPECT_EQ(2, ZorvClientWaitForMessage(buffer, sizeof buffer, 1000, "X", 0));
    int64_t elapsed = monotonicMs() - start;
    EXPECT_GE(elapsed, 950);
    EXPECT_LT(elapsed, 3000);
  }
}

// ---- End of enumeration
// --------------------------------------------------------------------

// A waiting "DE_COMMAND" reply before the notice is discarded; what comes
// after the notice stays.
TEST(ZorvClientWaitForEnumCompleteMessage, DiscardsWaitingReplyBeforeNotice) {
  arrive(stored(1, "9", "DE_COMMAND", 4711, "<RESULT>OK</RESULT>"));
  arrive(stored(2, "", "DE_ENUM_NOTIFY", 4711, "ENUM_STARTED"));
  arrive(stored(3, "", "DE_ENUM_NOTIFY", 4711, "ENUM_COMPLETE"));
  arrive(stored(4, "", "DE_EVENT"));
  EXPECT_EQ(0, ZorvClientWaitForEnumCompleteMessage(1000));
  std::vector<std::string> texts = tableTexts();
  ASSERT_EQ(1u, texts.size());
  EXPECT_EQ(stored(4, "", "DE_EVENT"), texts[0]);
}

// Deliberate: every message met is consumed; a near miss is no notice.
TEST(ZorvClientWaitForEnumCompleteMessage, ConsumesEveryOtherMessage) {
  arrive(stored(1, "", "DE_ENUM_NOTIFY", 4711, "ENUM_COMPLETE "));
  arrive(stored(2, "", "DE_NOTIFY", 4711, "ENUM_COMPLETE"));
  arrive("garbage");
  EXPECT_EQ(1, ZorvClientWaitForEnumCompleteMessage(0));
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
}

// Deliberate: only the 500 ms steps count: 600 ms -> two steps, 1 after
// about 1000 ms; 0 ms -> one step.
TEST(ZorvClientWaitForEnumCompleteMessage, CountsOnlyWaitStepsTowardTimeout) {
  int64_t start = monotonicMs();
  EXPECT_EQ(1, ZorvClientWaitForEnumCompleteMessage(600));
  int64_t elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 950);
  EXPECT_LT(elapsed, 3000);
  start = monotonicMs();
  EXPECT_EQ(1, ZorvClientWaitForEnumCompleteMessage(0));
  elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 450);
  EXPECT_LT(elapsed, 2000);
}

// ---- Against the peer
// ---------------------------------------------------------------------------

// Opens a connection against the session's peer.
void connect(PeerSession* session) {
  ASSERT_TRUE(session->Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("client", "API", "", NULL));
}

// The reply arrives behind two unrelated messages (one with another RE)
// and is found by its RE; the others stay in the table.
TEST(ZorvClientSendTransaction, FindsReplyBehindUnrelatedMessages) {
  PeerScript script;
  script.rules.push_back({"DE_COMMAND",
                          "PING",
                          {reply("DE_NOTIFY", "noise", ""),
                           reply("TRANSACTION_RESPONSE", "other", "999999"),
                           reply("TRANSACTION_RESPONSE", "PONG")}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char buffer[2048];
  EXPECT_EQ(0, ZorvClientSendTransaction(message.c_str(), buffer, sizeof buffer,
                                         5000, 0));
  std::string expected = TestPeer::Envelope(
      session.peer().Pid(), std::to_string(ZorvGetClientPid()), 1003,
      idOf(message), "TRANSACTION_RESPONSE", "PONG");
  EXPECT_EQ(expected.substr(0, expected.size() - 2), buffer);
  EXPECT_EQ(2, ZorvClient_I_GetWaitingMessageCount());
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  EXPECT_EQ(message, session.peer().Received()[1]);
}

// Deliberate: a reply needs length + 2 bytes; with length + 1 it stays in
// the table and a second call with a larger buffer finds it at once.
TEST(ZorvClientSendTransaction, KeepsTooLargeReplyAndNeedsOneSpareByte) {
  PeerScript script;
  script.rules.push_back(
      {"DE_COMMAND", "PING", {reply("TRANSACTION_RESPONSE", "PONG")}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char tiny[8];
  EXPECT_EQ(1, ZorvClientSendTransaction(message.c_str(), tiny, sizeof tiny,
                                         5000, 0));
  ASSERT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
  std::string reply = ZorvClientPeekMessage(NULL)->pData;
  std::vector<char> buffer(reply.size() + 2, '#');
  EXPECT_EQ(1, ZorvClientSendTransaction(message.c_str(), buffer.data(),
                                         (uint32_t)reply.size() + 1, 5000, 0));
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(0, ZorvClientSendTransaction(message.c_str(), buffer.data(),
                                         (uint32_t)reply.size() + 2, 5000, 0));
  EXPECT_LT(ZorvMilliSeconds() - start, 1000u);
  EXPECT_EQ(reply, buffer.data());
}

// No reply -> 2 within the time-out.
TEST(ZorvClientSendTransaction, ReturnsTwoWhenNoReplyComes) {
  PeerScript script;
  script.rules.push_back({"DE_COMMAND", "", {}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char buffer[512];
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(2, ZorvClientSendTransaction(message.c_str(), buffer, sizeof buffer,
                                         500, 0));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 480u);
  EXPECT_LT(elapsed, 2500u);
}

// A request without ID -> 102, nothing sent.
TEST(ZorvClientSendTransaction, ReturnsOneHundredTwoWithoutIdAndSendsNothing) {
  PeerSession session;
  connect(&session);
  ASSERT_TRUE(session.peer().WaitForReceived(1, 5000));
  char buffer[512];
  const char* noId =
      "<MSG><HDR><FROM>1</FROM><TO>DIAGENGINE</TO><TYPE>DE_COMMAND</TYPE>"
      "</HDR><DATA>PING</DATA></MSG>\r\n";
  EXPECT_EQ(102,
            ZorvClientSendTransaction(noId, buffer, sizeof buffer, 500, 0));
  EXPECT_EQ(102,
            ZorvClientSendTransaction(NULL, buffer, sizeof buffer, 500, 0));
  EXPECT_EQ(102, ZorvClientSendTransaction("", buffer, sizeof buffer, 500, 0));
  EXPECT_EQ(1, session.peer().ReceivedCount(5000));
  EXPECT_EQ(0, ZorvClientGetWriteErrorCount());
}

// The request cannot be sent -> 201.
TEST(ZorvClientSendTransaction, ReturnsTwoHundredOneWhenSendFails) {
  std::string message = request("PING");
  char buffer[512];
  EXPECT_EQ(201, ZorvClientSendTransaction(message.c_str(), buffer,
                                           sizeof buffer, 500, 0));
  EXPECT_EQ(1, ZorvClientGetWriteErrorCount());
}

// Replies that lack RE, carry a malformed or wrong one, or are no envelope
// at all: each time 2 within the time-out, nothing taken out.
TEST(ZorvClientSendTransaction, TimesOutOnBadReplies) {
  PeerReply garbage;
  garbage.raw = "\x01garbage<RE>{ID}";  // no line end: never a message
  PeerReply noLineEnd;
  noLineEnd.raw = "<MSG><HDR><RE>{ID}</RE></HDR></MSG>";
  PeerScript script;
  script.rules.push_back(
      {"DE_COMMAND",
       "",
       {reply("TRANSACTION_RESPONSE", "a", ""),
        reply("TRANSACTION_RESPONSE", "b", "abc"),
        reply("TRANSACTION_RESPONSE", "c", "-1"),
        reply("TRANSACTION_RESPONSE", "d", "{ID}0"), garbage, noLineEnd}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char buffer[512];
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(2, ZorvClientSendTransaction(message.c_str(), buffer, sizeof buffer,
                                         600, 0));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 580u);
  EXPECT_LT(elapsed, 2500u);
  EXPECT_EQ(4, ZorvClient_I_GetWaitingMessageCount());
}

// A reply longer than any fixed buffer: 1, kept; the string form takes it.
TEST(ZorvClientSendTransactionStr, TakesReplyLongerThanAnyBuffer) {
  std::string big(100000, 'z');
  PeerScript script;
  script.rules.push_back(
      {"DE_COMMAND", "PING", {reply("TRANSACTION_RESPONSE", big)}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char buffer[8192];
  EXPECT_EQ(1, ZorvClientSendTransaction(message.c_str(), buffer, sizeof buffer,
                                         5000, 0));
  EXPECT_EQ(1, ZorvClient_I_GetWaitingMessageCount());
  CGenStr string;
  ASSERT_TRUE(CGenStrInit(&string));
  EXPECT_EQ(0, ZorvClientSendTransactionStr(message.c_str(), &string, 5000, 0));
  EXPECT_NE(
      std::string::npos,
      std::string(CGenStrC_Str(&string)).find("<DATA>" + big + "</DATA>"));
  EXPECT_EQ(1, ZorvClientSendTransactionStr(message.c_str(), NULL, 5000, 0));
  CGenStrDelete(&string);
}

// Two threads each wait for their own reply at once; the peer answers the
// later request first. Both get the right one.
TEST(ZorvClientSendTransaction, FindsEachThreadsReplyWhenTwoWait) {
  PeerScript script;
  PeerRule rule = {"DE_COMMAND", "ASK", {reply("TRANSACTION_RESPONSE", "A")}};
  rule.gather = 2;
  script.rules.push_back(rule);
  PeerSession session(script);
  connect(&session);
  std::string requests[2] = {request("ASK:1"), request("ASK:2")};
  std::string replies[2];
  int results[2] = {-1, -1};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i)
    threads.emplace_back([&, i] {
      char buffer[1024] = "";
      results[i] = ZorvClientSendTransaction(requests[i].c_str(), buffer,
                                             sizeof buffer, 10000, 0);
      replies[i] = buffer;
    });
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(0, results[i]);
    EXPECT_NE(std::string::npos,
              replies[i].find("<RE>" + idOf(requests[i]) + "</RE>"));
  }
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
}

// An unsolicited message from the peer is waited for by type and sender.
TEST(ZorvClientWaitForMessage, ReceivesUnsolicitedMessageFromPeer) {
  PeerSession session;
  connect(&session);
  std::string text = TestPeer::Envelope(session.peer().Pid(), "client", 5, "",
                                        "DE_EVENT", "hello");
  ASSERT_TRUE(session.peer().Send(text));
  char buffer[512];
  EXPECT_EQ(0, ZorvClientWaitForMessage(buffer, sizeof buffer, 5000, "DE_EVENT",
                                        (uint32_t)session.peer().Pid()));
  EXPECT_EQ(text.substr(0, text.size() - 2), buffer);
}

// Waiting counts old and new messages; checking does not wait.
TEST(ZorvClientWaitForMessages, CountsOldAndNewMessages) {
  PeerSession session;
  connect(&session);
  arrive(stored(1, "", "OLD"));
  ASSERT_TRUE(session.peer().Send(stored(2, "", "NEW") + "\r\n" +
                                  stored(3, "", "NEW") + "\r\n"));
  EXPECT_EQ(3, ZorvClientWaitForMessages(5000, 0));
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(3, ZorvClientCheckForMessages());
  EXPECT_LT(ZorvMilliSeconds() - start, 500u);
}

// A transaction begun at 86399500 with 1000 ms ends at once (clamped).
TEST(ZorvClientSendTransaction, ClampsDeadlineBeforeMidnight) {
  PeerScript script;
  script.rules.push_back({"DE_COMMAND", "", {}});
  PeerSession session(script);
  connect(&session);
  std::string message = request("PING");
  char buffer[512];
  RunningClock clock(86399500);
  int64_t start = monotonicMs();
  EXPECT_EQ(2, ZorvClientSendTransaction(message.c_str(), buffer, sizeof buffer,
                                         1000, 0));
  EXPECT_LT(monotonicMs() - start, 500);
}

}  // namespace
