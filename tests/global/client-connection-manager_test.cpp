// Tests of the client connection: opening against the scripted test peer
// (every result code), the start-up and close messages byte for byte, the
// clean-up after each failure, hiding the own FIFO, messages that come with
// the acknowledgement, sends (plain and translated), the error counts and
// the splitting of received data. Each TEST runs in its own process with a
// fresh pipe directory (ZORV_TMP, also the working directory).
#include "zorv2000/client-connection-manager.h"

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "global/client-connection-manager_p.h"
#include "global/client-fifo-access_p.h"
#include "global/client-messaging-engine_p.h"
#include "global/pipe-lowlevel_p.h"
#include "support/test_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/primitives.h"

namespace {

using zorvtest::PeerReply;
using zorvtest::PeerRule;
using zorvtest::PeerScript;
using zorvtest::PeerSession;
using zorvtest::StartupAnswer;
using zorvtest::TestPeer;

// Names in the pipe directory.
std::vector<std::string> pipeDirectoryEntries() {
  std::vector<std::string> names;
  DIR* dir = opendir(ZorvGetPipeDirectory());
  if (!dir) return names;
  while (struct dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

// True when the client's own FIFO stands in the pipe directory.
bool ownFifoStands() {
  struct stat st;
  return stat(ZorvGetClientFifoName(), &st) == 0;
}

std::string pidText() {
  return std::to_string((unsigned long)ZorvGetClientPid());
}

// Switches on the program's trace category into a file of the pipe
// directory; call before anything in the process traces. Returns its path.
std::string traceToFile() {
  std::string path = std::string(ZorvGetPipeDirectory()) + "/trace.txt";
  setenv("ZORV_TRACE", "diag,dll", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  return path;
}

// The start-up message the client must send.
std::string startupMessage(const std::string& name, const std::string& nlsData,
                           const std::string& clientClass,
                           const std::string& exe) {
  return "<STARTUP><READ>" + std::string(ZorvGetClientFifoName()) +
         "</READ><PID>" + pidText() + "</PID><NAME>" + name +
         "</NAME><NLSDATA>" + nlsData + "</NLSDATA><CLASS>" + clientClass +
         "</CLASS><EXE_FILENAME>" + exe + "</EXE_FILENAME></STARTUP>\r\n";
}

// A rule that answers NLS file registrations.
PeerRule registrationRule() {
  PeerReply reply;
  reply.data = "OK";
  return PeerRule{"NLS_COMMAND", "NLS_REGMOD:", {reply}};
}

// A message of the diagnostic engine.
std::string engineMessage(const std::string& type, const std::string& data) {
  return TestPeer::Envelope(4711, pidText(), 77, "", type, data);
}

// Puts the pipe layer's system calls back when it goes out of scope.
ZorvPipeSyscalls gRealPipeCalls = zorvPipeSyscalls;
struct PipeCallsRestorer {
  ~PipeCallsRestorer() { zorvPipeSyscalls = gRealPipeCalls; }
};

// Replaces write() of the pipe layer with a broken pipe.
ssize_t brokenWrite(int, const void*, size_t) {
  errno = EPIPE;
  return -1;
}

// Fails mkfifo() of the pipe layer.
int failingMkFifo(const char*, mode_t) {
  errno = EACCES;
  return -1;
}

// Fails the Nth open() of the pipe layer from now (1-based).
int gOpenCalls;
int gFailOpenAt;
int countingOpen(const char* path, int flags) {
  if (++gOpenCalls == gFailOpenAt) {
    errno = ENOENT;
    return -1;
  }
  return gRealPipeCalls.pfnOpen(path, flags);
}

// ---- Opening: results -------------------------------------------------------

// An ordinary acknowledgement -> 0, one connection counted.
TEST(ZorvClientOpenConnectionEx, ReturnsZeroForOrdinaryAcknowledgement) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(0, ZorvClientOpenConnectionEx("TestEnvironment", "API", "", NULL));
  EXPECT_EQ(1, ZorvClient_I_GetConnectionCount());
  EXPECT_GT(ZorvClient_I_GetReadFifoHandle(), 0);
  EXPECT_GT(ZorvClient_I_GetWriteFifoHandle(), 0);
}

// "<ACK>ENUM_COMPLETE</ACK>" -> the internal call says 40.
TEST(ZorvClientIOpenConnectionEx, ReturnsFortyForEnumCompleteAcknowledgement) {
  PeerScript script;
  script.startup = StartupAnswer::kAckEnumComplete;
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(
      40, ZorvClient_I_OpenConnectionEx(0, "TestEnvironment", "API", "", NULL));
  EXPECT_EQ(1, ZorvClient_I_GetConnectionCount());
}

// The same acknowledgement through the public call -> 0.
TEST(ZorvClientOpenConnectionEx, TurnsEnumCompleteAcknowledgementIntoZero) {
  PeerScript script;
  script.startup = StartupAnswer::kAckEnumComplete;
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(0, ZorvClientOpenConnectionEx("TestEnvironment", "API", "", NULL));
  EXPECT_EQ(1, ZorvClient_I_GetConnectionCount());
}

// Two connections counted: a third open -> 1, nothing sent, traced.
TEST(ZorvClientOpenConnectionEx, ThirdOpenReturnsOneAndSendsNothing) {
  PeerSession session;
  ASSERT_TRUE(session.StartPeer());
  std::string traceFile = traceToFile();
  session.StartPipes();
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("first", "NORMAL", "", NULL));
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("second", "NORMAL", "", NULL));
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  EXPECT_EQ(1, ZorvClientOpenConnectionEx("third", "NORMAL", "", NULL));
  EXPECT_EQ(2, ZorvClient_I_GetConnectionCount());
  EXPECT_NE(std::string::npos,
            zorvtest::ReadFile(traceFile).find(
                "ZorvClientOpenConnection - conncection already open\n"));
  usleep(200 * 1000);
  EXPECT_EQ(2u, session.peer().Received().size());
  EXPECT_EQ(2, session.peer().ReceivedCount(5000));
}

// No reader on the server FIFO: 11 at once, nothing left behind.
TEST(ZorvClientOpenConnectionEx, ReturnsElevenWithoutServerAtOnce) {
  ZorvInitPipes();
  std::string server = ZorvGetServerFifoName();
  ZorvPipeUMask(0);
  ASSERT_EQ(0, ZorvPipeMkFifo(server.c_str()));  // a FIFO nobody reads
  int nFds = zorvtest::CountOpenDescriptors();
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(11, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_LT(ZorvMilliSeconds() - start, 1000u);
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(ownFifoStands());
  EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
  EXPECT_EQ(0u, CGenListGetCount(ZorvPipe_I_WriteFifoList()));
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  ZorvCleanupPipes();
}

// No server FIFO at all -> 11 as well.
TEST(ZorvClientOpenConnectionEx, ReturnsElevenWhenServerFifoIsMissing) {
  ZorvInitPipes();
  int nFds = zorvtest::CountOpenDescriptors();
  EXPECT_EQ(11, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(ownFifoStands());
  ZorvCleanupPipes();
}

// Each way the own FIFO can fail -> 12, the server FIFO closed again, no
// FIFO of ours left, no descriptor leaked, nothing sent.
TEST(ZorvClientOpenConnectionEx, ReturnsTwelveWhenOwnFifoFails) {
  struct Row {
    const char* name;
    bool failMkFifo;
    int failOpenAt;  // 1 server FIFO, 2 own reader, 3 dummy writer
  };
  const Row rows[] = {
      {"mkfifo fails", true, 0},
      {"reader cannot open", false, 2},
      {"dummy writer cannot open", false, 3},
  };
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int nFds = zorvtest::CountOpenDescriptors();
    {
      PipeCallsRestorer restorer;
      if (row.failMkFifo) zorvPipeSyscalls.pfnMkFifo = failingMkFifo;
      gOpenCalls = 0;
      gFailOpenAt = row.failOpenAt;
      zorvPipeSyscalls.pfnOpen = countingOpen;
      EXPECT_EQ(12, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
    }
    EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
    EXPECT_FALSE(ownFifoStands());
    EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetDummyWriterHandle());
    EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  }
  EXPECT_EQ(0, session.peer().ReceivedCount(5000));
}

// Every start-up element too long for its buffer -> its own code, after the
// FIFOs were opened; they are closed again and the own FIFO removed.
TEST(ZorvClientOpenConnectionEx, ReturnsElementCodesAndCleansUp) {
  struct Row {
    const char* name;
    int expected;
    std::string clientName, clientClass, nlsData, exe;
    uint32_t readSize, pidSize;
  };
  const std::string longExe = "/usr/bin/" + std::string(410, 'e');
  const Row rows[] = {
      {"READ", 21, "n", "NORMAL", "", "", 12, ZORV_STARTUP_PID_SIZE},
      {"PID", 22, "n", "NORMAL", "", "", ZORV_STARTUP_READ_SIZE, 6},
      {"NAME of 80", 23, std::string(80, 'n'), "NORMAL", "", "",
       ZORV_STARTUP_READ_SIZE, ZORV_STARTUP_PID_SIZE},
      {"NAME of 67", 23, std::string(67, 'n'), "NORMAL", "", "",
       ZORV_STARTUP_READ_SIZE, ZORV_STARTUP_PID_SIZE},
      {"NLSDATA", 24, "n", "NORMAL", std::string(300, 'd'), "",
       ZORV_STARTUP_READ_SIZE, ZORV_STARTUP_PID_SIZE},
      {"CLASS", 25, "n", std::string(80, 'c'), "", "", ZORV_STARTUP_READ_SIZE,
       ZORV_STARTUP_PID_SIZE},
      {"EXE_FILENAME", 26, "n", "NORMAL", "", longExe, ZORV_STARTUP_READ_SIZE,
       ZORV_STARTUP_PID_SIZE},
      {"whole STARTUP", 26, "n", "NORMAL", std::string(280, 'd'),
       "/bin/" + std::string(390, 'e'), ZORV_STARTUP_READ_SIZE,
       ZORV_STARTUP_PID_SIZE},
  };
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int nFds = zorvtest::CountOpenDescriptors();
    ZorvClientElementSizes saved = zorvClientElementSizes;
    zorvClientElementSizes.read = row.readSize;
    zorvClientElementSizes.pid = row.pidSize;
    EXPECT_EQ(row.expected, ZorvClientOpenConnectionEx(
                                row.clientName.c_str(), row.clientClass.c_str(),
                                row.nlsData.c_str(),
                                row.exe.empty() ? NULL : row.exe.c_str()));
    zorvClientElementSizes = saved;
    EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
    EXPECT_FALSE(ownFifoStands());
    EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  }
  EXPECT_EQ(0, session.peer().ReceivedCount(5000));
}

// Deliberate: an over-long EXE_FILENAME and an over-long whole message share
// 26 (both rows above); a name of 66 characters still fits its 80 bytes.
TEST(ZorvClientOpenConnectionEx, SharesCodeTwentySixAndTakesNameOfSixtySix) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(
      26, ZorvClientOpenConnectionEx("n", "NORMAL", "",
                                     ("/x/" + std::string(403, 'e')).c_str()));
  EXPECT_EQ(0, ZorvClientOpenConnectionEx(std::string(66, 'n').c_str(),
                                          "NORMAL", "", NULL));
}

// The start-up message cannot be sent -> 27, everything closed.
TEST(ZorvClientOpenConnectionEx, ReturnsTwentySevenWhenStartupCannotBeSent) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  int nFds = zorvtest::CountOpenDescriptors();
  {
    PipeCallsRestorer restorer;
    zorvPipeSyscalls.pfnWrite = brokenWrite;
    EXPECT_EQ(27, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  }
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(ownFifoStands());
  EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
  EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
  EXPECT_EQ(1, ZorvClientGetWriteErrorCount());
}

// A server that never answers -> 30 after 10000 ms, everything closed.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyAfterTenSecondsWithoutAnswer) {
  PeerScript script;
  script.startup = StartupAnswer::kNone;
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  int nFds = zorvtest::CountOpenDescriptors();
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(30, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 9900u);
  EXPECT_LT(elapsed, 15000u);
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(ownFifoStands());
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  EXPECT_EQ(1, session.peer().ReceivedCount(5000));
}

// Opens against a peer that answers `answer`; expects 31 and a clean
// state afterwards.
void expectThirtyOne(const std::string& answer) {
  PeerScript script;
  script.startup = StartupAnswer::kText;
  script.startupText = answer;
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  int nFds = zorvtest::CountOpenDescriptors();
  EXPECT_EQ(31, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(ownFifoStands());
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
}

// "<NAK></NAK>" -> 31.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyOneForOtherElement) {
  expectThirtyOne("<NAK></NAK>\r\n");
}

// Garbage -> 31.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyOneForGarbage) {
  expectThirtyOne("garbage\x01\xff\r\n");
}

// "<ACK>ENUM</ACK>" is neither acknowledgement -> 31.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyOneForUnknownAckContent) {
  expectThirtyOne("<ACK>ENUM</ACK>\r\n");
}

// A leading space -> 31: the answer must begin with the acknowledgement.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyOneForLeadingSpace) {
  expectThirtyOne(" <ACK></ACK>\r\n");
}

// A cut acknowledgement -> 31.
TEST(ZorvClientOpenConnectionEx, ReturnsThirtyOneForCutAcknowledgement) {
  expectThirtyOne("<ACK></AC");
}

// An answer without its line end still counts by its beginning.
TEST(ZorvClientOpenConnectionEx, AcceptsAcknowledgementWithoutLineEnd) {
  PeerScript script;
  script.startup = StartupAnswer::kText;
  script.startupText = "<ACK></ACK>";
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_EQ(0, ZorvClient_I_GetWaitingMessageCount());
}

// ---- Opening: what goes over the wire ---------------------------------------

// A controller's start-up message, byte for byte.
TEST(ZorvClientOpenConnectionEx, SendsControllerStartupByteForByte) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("TestEnvironment", "API", "", NULL));
  ASSERT_TRUE(session.peer().WaitForReceived(1, 5000));
  std::vector<std::string> got = session.peer().Received();
  EXPECT_EQ(startupMessage("TestEnvironment", "", "API", ""), got[0]);
  EXPECT_EQ(1u, got.size());
}

// A module's start-up message (name, class, definitions file, executable
// name), byte for byte, then the registration of its NLS file.
TEST(ZorvClientOpenConnectionEx, SendsModuleStartupByteForByteAndRegisters) {
  PeerScript script;
  script.rules.push_back(registrationRule());
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0,
            ZorvClientOpenConnectionEx("mymod", "NORMAL", "/opt/zorv/mymod.nls",
                                       "/opt/zorv/bin/mymod.exe"));
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  std::vector<std::string> got = session.peer().Received();
  EXPECT_EQ(
      startupMessage("mymod", "/opt/zorv/mymod.nls", "NORMAL", "mymod.exe"),
      got[0]);
  EXPECT_NE(std::string::npos, got[1].find("<TYPE>NLS_COMMAND</TYPE>"));
  EXPECT_NE(std::string::npos,
            got[1].find("<DATA>NLS_REGMOD:" + pidText() + ":mymod.nls</DATA>"));
}

// ZorvClientOpenConnection(): "Name Here", "NORMAL", no NLS data.
TEST(ZorvClientOpenConnection, AnnouncesNameHereOfClassNormal) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnection());
  ASSERT_TRUE(session.peer().WaitForReceived(1, 5000));
  EXPECT_EQ(startupMessage("Name Here", "", "NORMAL", ""),
            session.peer().Received()[0]);
}

// A null class is announced as "NORMAL", a null name and NLS data as empty.
TEST(ZorvClientOpenConnectionEx, AnnouncesNullsAsDefaults) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx(NULL, NULL, NULL, ""));
  ASSERT_TRUE(session.peer().WaitForReceived(1, 5000));
  EXPECT_EQ(startupMessage("", "", "NORMAL", ""), session.peer().Received()[0]);
}

// After a successful open the own FIFO is gone from the directory, yet
// both of its ends are open and work.
TEST(ZorvClientOpenConnectionEx, HidesOwnFifoAfterAcknowledgement) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_FALSE(ownFifoStands());
  for (const std::string& name : pipeDirectoryEntries())
    EXPECT_EQ(std::string::npos, name.find("ZORV_")) << name;
  EXPECT_GT(ZorvClient_I_GetDummyWriterHandle(), 0);
  ASSERT_TRUE(session.peer().Send(engineMessage("DE_NOTIFY", "hello")));
  EXPECT_EQ(1, ZorvClientWaitForMessages(5000, 0));
}

// Nothing lost: the engine's notice written behind the acknowledgement,
// in the same buffer, lands in the message table.
TEST(ZorvClientOpenConnectionEx, KeepsMessagesThatFollowAcknowledgement) {
  PeerScript script;
  script.afterAck = engineMessage("DE_ENUM_NOTIFY", "ENUM_COMPLETE") +
                    engineMessage("DE_NOTIFY", "second");
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("TestEnvironment", "API", "", NULL));
  EXPECT_EQ(2, ZorvClient_I_GetWaitingMessageCount());
  ZorvClientMessage* pFirst = ZorvClientPeekMessage(NULL);
  ASSERT_NE(nullptr, pFirst);
  std::string expected = engineMessage("DE_ENUM_NOTIFY", "ENUM_COMPLETE");
  EXPECT_EQ(expected.substr(0, expected.size() - 2), pFirst->pData);
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(0, ZorvClientWaitForEnumCompleteMessage(240000));
  EXPECT_LT(ZorvMilliSeconds() - start, 1000u);
}

// The same when the notice follows in a pipe message of its own.
TEST(ZorvClientOpenConnectionEx, KeepsNoticeSentRightAfterAcknowledgement) {
  PeerScript script;
  script.afterStartup.push_back(
      engineMessage("DE_ENUM_NOTIFY", "ENUM_COMPLETE"));
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("TestEnvironment", "API", "", NULL));
  EXPECT_EQ(0, ZorvClientWaitForEnumCompleteMessage(5000));
}

// A server chosen by process id: <pipe dir>/ZORVFIFO_<pid>.
TEST(ZorvClientIOpenConnectionEx, OpensServerFifoOfGivenProcess) {
  PeerScript script;
  script.serverFifo = std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO_4711";
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(0, ZorvClient_I_OpenConnectionEx(4711, "x", "NORMAL", "", NULL));
  EXPECT_STREQ(script.serverFifo.c_str(), ZorvClient_I_GetMainFifoName());
}

// ---- Closing
// ------------------------------------------------------------------

// "STOP" byte for byte; FIFOs closed, count back to 0.
TEST(ZorvClientCloseConnection, SendsStopByteForByteAndClosesAll) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  int nFds = zorvtest::CountOpenDescriptors();
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  EXPECT_EQ(0, ZorvClientCloseConnection());
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  EXPECT_EQ("<STOP><PID>" + pidText() + "</PID></STOP>\r\n",
            session.peer().Received()[1]);
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
  EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
  EXPECT_EQ(0, ZorvClient_I_GetDummyWriterHandle());
  char name[ZORV_PATH_SIZE] = "x";
  ZorvClient_I_GetReadPipeName(name, sizeof name);
  EXPECT_STREQ("", name);
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
}

// No connection open: still 0, the count stays 0.
TEST(ZorvClientCloseConnection, ReturnsZeroWithNoConnection) {
  ZorvInitPipes();
  EXPECT_EQ(0, ZorvClientCloseConnection());
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  EXPECT_EQ(0, ZorvClientCloseConnection());
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
  ZorvCleanupPipes();
}

// Two opens, two closes: the count goes 2, 1, 0.
TEST(ZorvClientCloseConnection, LowersCountOnePerClose) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("a", "NORMAL", "", NULL));
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("b", "NORMAL", "", NULL));
  EXPECT_EQ(2, ZorvClient_I_GetConnectionCount());
  ZorvClientCloseConnection();
  EXPECT_EQ(1, ZorvClient_I_GetConnectionCount());
  ZorvClientCloseConnection();
  EXPECT_EQ(0, ZorvClient_I_GetConnectionCount());
}

// ---- Sending
// --------------------------------------------------------------------

// A good send -> 0 and the peer gets the bytes; a failed one -> 1 and the
// write error count rises until a good one resets it.
TEST(ZorvClientSendMessage, CountsConsecutiveFailuresAndResets) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  EXPECT_EQ(1, ZorvClientSendMessage("<MSG></MSG>\r\n"));  // not open yet
  EXPECT_EQ(1, ZorvClientSendMessage(NULL));
  EXPECT_EQ(2, ZorvClientGetWriteErrorCount());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  std::string text = engineMessage("DE_COMMAND", "PING");
  EXPECT_EQ(0, ZorvClientSendMessage(text.c_str()));
  EXPECT_EQ(0, ZorvClientGetWriteErrorCount());
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  EXPECT_EQ(text, session.peer().Received()[1]);
  EXPECT_EQ(0, ZorvFlushWriteFIFO(1000));
}

// The send time is the time of day of the last send.
TEST(ZorvClientSendMessage, RecordsTimeOfDayOfSend) {
  zorvtest::ScopedFakeClock clock(86400 * 3 + 3600, 250000);  // 01:00:00.250
  EXPECT_EQ(1, ZorvClientSendMessage("x\r\n"));
  EXPECT_EQ(3600250u, ZorvClient_I_GetLastAccessTime());
}

// Language "TK" sends the text unchanged, without asking the NLS engine.
TEST(ZorvClientSendMessageTranslated, SendsTextUnchangedForTK) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  std::string text = engineMessage("DE_EVENT", "<NLS id=MSG_X/>");
  char language[3] = "TK";
  EXPECT_EQ(0, ZorvClientSendMessageTranslated(text.c_str(), language));
  ASSERT_TRUE(session.peer().WaitForReceived(2, 5000));
  usleep(100 * 1000);
  std::vector<std::string> got = session.peer().Received();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(text, got[1]);
}

// Deliberate: an empty language becomes "EN" in the caller's buffer (two
// letters, no terminator written) and the text goes out in English.
TEST(ZorvClientSendMessageTranslated, WritesENIntoEmptyLanguage) {
  PeerScript script;
  PeerReply reply;
  reply.data = "<NLS id=MSG_X><EN>Disk@20full</EN></NLS>";
  script.rules.push_back(
      {"NLS_COMMAND", "NLS_GETSTRING:EN:<NLS id=MSG_X/>", {reply}});
  PeerSession session(script);
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  std::string text = engineMessage("DE_EVENT", "A <NLS id=MSG_X/> B");
  char language[4] = {0, 0, 0, 'z'};
  EXPECT_EQ(0, ZorvClientSendMessageTranslated(text.c_str(), language));
  EXPECT_EQ('E', language[0]);
  EXPECT_EQ('N', language[1]);
  EXPECT_EQ(0, language[2]);
  EXPECT_EQ('z', language[3]);
  ASSERT_TRUE(session.peer().WaitForReceived(3, 5000));
  std::vector<std::string> got = session.peer().Received();
  EXPECT_NE(std::string::npos,
            got[1].find("<DATA>NLS_GETSTRING:EN:<NLS id=MSG_X/></DATA>"));
  EXPECT_EQ(engineMessage("DE_EVENT", "A Disk full B"), got[2]);
}

// A translation that fails (null text) -> 2, nothing sent.
TEST(ZorvClientSendMessageTranslated, ReturnsTwoWhenTranslationFails) {
  char language[3] = "DE";
  EXPECT_EQ(2, ZorvClientSendMessageTranslated(NULL, language));
  EXPECT_EQ(2, ZorvClientSendMessageTranslated("", language));
  EXPECT_EQ(0, ZorvClientGetWriteErrorCount());
}

// Without a connection the translated text fails to send -> 1.
TEST(ZorvClientSendMessageTranslated, ReturnsSendResultOfTranslation) {
  char language[3] = "DE";
  EXPECT_EQ(1, ZorvClientSendMessageTranslated("no tags\r\n", language));
  EXPECT_EQ(1, ZorvClientGetWriteErrorCount());
  EXPECT_EQ(1, ZorvClientSendMessageTranslated("no tags\r\n", NULL));
}

// The message language keeps two letters; null empties it.
TEST(ZorvClientSendMessageSetLanguage, KeepsTwoLettersAndEmptiesForNull) {
  EXPECT_EQ(nullptr, ZorvClientSendMessageGetLanguage());
  ZorvClientSendMessageSetLanguage("FRA");
  EXPECT_STREQ("FR", ZorvClientSendMessageGetLanguage());
  ZorvClientSendMessageSetLanguage("D");
  EXPECT_STREQ("D", ZorvClientSendMessageGetLanguage());
  ZorvClientSendMessageSetLanguage(NULL);
  EXPECT_EQ(nullptr, ZorvClientSendMessageGetLanguage());
  ZorvClientSendMessageSetLanguage("");
  EXPECT_EQ(nullptr, ZorvClientSendMessageGetLanguage());
}

// ---- Receiving
// ------------------------------------------------------------------

std::vector<std::string> gSeen;
int collect(const char* text) {
  gSeen.push_back(text);
  return 0;
}

// Three messages in one buffer, the last without "\r\n": two handed out
// without their line ends, the rest dropped.
TEST(ZorvClientProcessMessages, HandsOutEachWholeMessageAndDropsTail) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  ASSERT_TRUE(session.peer().Send("one\r\n\r\ntwo\r\nthree"));
  gSeen.clear();
  EXPECT_EQ(3, ZorvClientProcessMessages(collect, 5000, 0));
  ASSERT_EQ(3u, gSeen.size());
  EXPECT_EQ("one", gSeen[0]);
  EXPECT_EQ("", gSeen[1]);
  EXPECT_EQ("two", gSeen[2]);
  EXPECT_EQ(0, ZorvClientGetReadErrorCount());
}

// Data cut at each "\r\n": a table of shapes.
TEST(ZorvClientISplitMessages, CutsAtEachLineEnd) {
  const struct {
    const char* name;
    std::string data;
    std::vector<std::string> messages;
  } rows[] = {
      {"empty", "", {}},
      {"no line end", "abc", {}},
      {"one", "abc\r\n", {"abc"}},
      {"tail dropped", "a\r\nb", {"a"}},
      {"empty message", "\r\n\r\n", {"", ""}},
      {"lone CR and LF", "a\rb\nc\r\n", {"a\rb\nc"}},
      {"CR at the end", "a\r\nb\r", {"a"}},
      {"zero byte inside", std::string("a\0b\r\nc\r\n", 8), {"a", "c"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<char> data(row.data.begin(), row.data.end());
    data.push_back('\0');
    gSeen.clear();
    EXPECT_EQ((int32_t)row.messages.size(),
              ZorvClient_I_SplitMessages(data.data(), (int32_t)row.data.size(),
                                         collect));
    EXPECT_EQ(row.messages, gSeen);
  }
}

// Nothing arrives -> 0 after the time-out; a null callback only counts.
TEST(ZorvClientProcessMessages, ReturnsZeroWhenNothingArrives) {
  PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("x", "NORMAL", "", NULL));
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(0, ZorvClientProcessMessages(collect, 300, 1));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 250u);
  EXPECT_LT(elapsed, 3000u);
  ASSERT_TRUE(session.peer().Send("a\r\nb\r\n"));
  EXPECT_EQ(2, ZorvClientProcessMessages(NULL, 5000, 0));
}

// Without a connection: the wait pauses for its time-out, returns 0.
TEST(ZorvClientProcessMessages, PausesWithoutConnection) {
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(0, ZorvClientProcessMessages(collect, 200, 0));
  EXPECT_GE(ZorvMilliSeconds() - start, 150u);
}

}  // namespace
