// Integration tests of zorv2000, the message broker: the real program with
// the NLS engine it starts, library clients in this process and in forked
// children, raw writers of the server FIFO. Each test has its own pipe
// directory; the broker and everything it started are killed in TearDown.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "servers/server_harness.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"

namespace {

using zorvtest::ChildConnect;
using zorvtest::ChildDisconnect;
using zorvtest::ChildProcess;
using zorvtest::ClientSession;
using zorvtest::LineChannel;
using zorvtest::ServerProcess;

// The broker of one test, and this process as a client of it.
class Zorv2000 : public testing::Test {
 protected:
  void TearDown() override {
    session_.End();
    broker_.Kill();
  }

  // Starts the broker with `args`; false when it does not come up.
  bool startBroker(const std::vector<std::string>& args = {}) {
    return zorvtest::StartBroker(&broker_, args);
  }

  ServerProcess broker_;
  ClientSession session_;
};

// Sends an envelope one way; true when the library took it.
bool sendOneWay(const std::string& to, const std::string& type,
                const std::string& data) {
  std::string text = zorvtest::Envelope(to, type, data);
  return !text.empty() && ZorvClientSendMessage(text.c_str()) == 0;
}

// Waits in a child for a message of `type` from anyone; its text or "".
std::string waitForType(const char* type, int timeoutMs) {
  CGenStr text;
  if (!CGenStrInit(&text)) return "";
  std::string out;
  if (ZorvClientWaitForMessageStr(&text, static_cast<uint32_t>(timeoutMs), type,
                                  0) == 0)
    out = CGenStrC_Str(&text);
  CGenStrDelete(&text);
  return out;
}

// A child that connects as `name` of `clientClass`, reports "<result>
// <pid>", and disconnects when told "quit" (or after a minute).
int connectAndStay(LineChannel& channel, const char* name,
                   const char* clientClass) {
  int rc = ChildConnect(name, clientClass);
  channel.Send(std::to_string(rc) + " " + std::to_string(getpid()));
  std::string line;
  channel.Read(&line, 60000);
  if (rc == 0 || rc == 40) ChildDisconnect();
  return 0;
}

// Reads "<result> <pid>" from a child.
bool readOpenReport(ChildProcess& child, int* rc, long* pid) {
  std::string line;
  if (!child.Read(&line, 20000)) return false;
  return sscanf(line.c_str(), "%d %ld", rc, pid) == 2;
}

// An envelope start with NUL bytes inside.
const char kWithNul[] = "<MSG><HDR>\0\0\0</HDR></MSG>\r\n";

// A raw writer of the server FIFO, outside the library.
int openServerFifoRaw() {
  return zorvtest::OpenRaw(zorvtest::ServerFifo(), true);
}

// ---- Start-up ---------------------------------------------------------------

// a client's start-up -> "<ACK></ACK>" (open result 0), its FIFO hidden
TEST_F(Zorv2000, AcknowledgesStartupWithPlainAck) {
  ASSERT_TRUE(startBroker());
  EXPECT_EQ(0, session_.Open("tester", "API"));
  std::string own = "ZORV_" + std::to_string(getpid());
  for (const std::string& name : zorvtest::FifosInPipeDirectory())
    EXPECT_NE(own, name);
  // The engine hides its FIFO once it has read its own acknowledgement.
  EXPECT_TRUE(zorvtest::WaitUntil(
      [] {
        return zorvtest::FifosInPipeDirectory() ==
               std::vector<std::string>{"ZORVFIFO"};
      },
      5000));
}

// "GET_CLIENTS" -> pid, name and class of this client and the NLS engine
TEST_F(Zorv2000, ListsConnectedClientsWithNameAndClass) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  std::vector<zorvtest::ClientInfo> clients = zorvtest::ListClients();
  ASSERT_EQ(2u, clients.size());
  bool bSelf = false;
  bool bEngine = false;
  for (const zorvtest::ClientInfo& info : clients) {
    if (info.pid == getpid() && info.name == "tester" &&
        info.clientClass == "API")
      bSelf = true;
    if (info.name == "nlsengine" && info.clientClass == "NLSENGINE" &&
        zorvtest::ProcessAlive(static_cast<pid_t>(info.pid)))
      bEngine = true;
  }
  EXPECT_TRUE(bSelf);
  EXPECT_TRUE(bEngine);
}

// an unknown broker command -> "ERROR:unknown command"
TEST_F(Zorv2000, AnswersUnknownBrokerCommandWithError) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  EXPECT_EQ("ERROR:unknown command", zorvtest::BrokerCommand("NO_SUCH"));
}

// 50 clients open at the same moment -> 50 acknowledgements
TEST_F(Zorv2000, AcknowledgesFiftyClientsConnectingAtOnce) {
  ASSERT_TRUE(startBroker());
  const int kClients = 50;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < kClients; ++i) {
    children.emplace_back(new ChildProcess);
    ASSERT_TRUE(children.back()->Start([i](LineChannel& channel) {
      std::string line;
      if (!channel.Read(&line, 60000)) return 1;
      std::string name = "client" + std::to_string(i);
      return connectAndStay(channel, name.c_str(), "NORMAL");
    }));
  }
  for (auto& child : children) ASSERT_TRUE(child->Send("go"));
  for (auto& child : children) {
    int rc = -1;
    long pid = 0;
    ASSERT_TRUE(readOpenReport(*child, &rc, &pid));
    EXPECT_EQ(0, rc);
  }
  ASSERT_EQ(0, session_.Open("tester", "API"));
  EXPECT_EQ(static_cast<size_t>(kClients + 2), zorvtest::ListClients().size());
  for (auto& child : children) child->Send("quit");
  for (auto& child : children) EXPECT_EQ(0, child->Wait(20000));
}

// a second client of class NLSENGINE -> "<NACK>...", open result 31
TEST_F(Zorv2000, RefusesSecondEngineOfTheSameClass) {
  ASSERT_TRUE(startBroker());
  ChildProcess fake;
  ASSERT_TRUE(fake.Start([](LineChannel& channel) {
    std::string line;
    channel.Read(&line, 30000);
    return connectAndStay(channel, "fake", "NLSENGINE");
  }));
  // This start-up passes the gate once the real engine is connected.
  ASSERT_EQ(0, session_.Open("tester", "API"));
  ASSERT_TRUE(fake.Send("go"));
  int rc = -1;
  long pid = 0;
  ASSERT_TRUE(readOpenReport(fake, &rc, &pid));
  EXPECT_EQ(31, rc);
  fake.Send("quit");
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  EXPECT_NE(pid, engine);
  EXPECT_EQ("EN", zorvtest::NlsCommand("NLS_GET_DEFAULT_LANG"));
}

// a second broker on the same pipe directory -> status 3 and a message; the
// first one serves on
TEST_F(Zorv2000, RefusesSecondBrokerOnTheSamePipeDirectory) {
  ASSERT_TRUE(startBroker());
  ServerProcess second;
  std::string errors = zorvtest::FifoPath("second.err");
  ASSERT_TRUE(second.Start(zorvtest::ServerPath("zorv2000"), {}, errors));
  EXPECT_EQ(3, second.WaitExit(10000));
  EXPECT_NE(std::string::npos,
            zorvtest::ReadFile(errors).find(
                "another message broker already serves the pipe directory"));
  EXPECT_EQ(0, session_.Open("tester", "API"));
}

// ---- Routing ----------------------------------------------------------------

// client to client by pid: a one-way message each way and a transaction
TEST_F(Zorv2000, RoutesMessagesAndTransactionsBetweenTwoClients) {
  ASSERT_TRUE(startBroker());
  ChildProcess peer;
  ASSERT_TRUE(peer.Start([](LineChannel& channel) {
    int rc = ChildConnect("peer", "NORMAL");
    channel.Send(std::to_string(rc) + " " + std::to_string(getpid()));
    if (rc != 0) return 1;
    std::string note = waitForType("NOTE", 10000);
    channel.Send("note " + zorvtest::Field(note, "MSG/DATA"));
    std::string request = waitForType("PING_REQUEST", 10000);
    CGenStr reply;
    CGenStrInit(&reply);
    std::string from = zorvtest::Field(request, "MSG/HDR/FROM");
    std::string id = zorvtest::Field(request, "MSG/HDR/ID");
    char header[256];
    ZorvCreateMessageHeader(header, sizeof header, from.c_str(), id.c_str(),
                            "PING_REPLY", nullptr);
    std::string data =
        "<DATA>PONG:" + zorvtest::Field(request, "MSG/DATA") + "</DATA>";
    ZorvCreateMessageStr(&reply, "MSG", header, data.c_str(), nullptr);
    ZorvClientSendMessage(CGenStrC_Str(&reply));
    CGenStrDelete(&reply);
    std::string line;
    channel.Read(&line, 10000);  // "sendto <pid>"
    sendOneWay(line.substr(7), "NOTE", "from the peer");
    channel.Read(&line, 10000);  // "quit"
    ChildDisconnect();
    return 0;
  }));
  int rc = -1;
  long peerPid = 0;
  ASSERT_TRUE(readOpenReport(peer, &rc, &peerPid));
  ASSERT_EQ(0, rc);
  ASSERT_EQ(0, session_.Open("tester", "API"));
  std::string to = std::to_string(peerPid);

  ASSERT_TRUE(sendOneWay(to, "NOTE", "hello"));
  std::string line;
  ASSERT_TRUE(peer.Read(&line, 10000));
  EXPECT_EQ("note hello", line);

  std::string reply;
  ASSERT_EQ(0, zorvtest::Transaction(to, "PING_REQUEST", "x", &reply, 5000));
  EXPECT_EQ("PING_REPLY", zorvtest::Field(reply, "MSG/HDR/TYPE"));
  EXPECT_EQ("PONG:x", zorvtest::Field(reply, "MSG/DATA"));
  EXPECT_EQ(to, zorvtest::Field(reply, "MSG/HDR/FROM"));

  ASSERT_TRUE(peer.Send("sendto " + std::to_string(getpid())));
  CGenStr note;
  ASSERT_TRUE(CGenStrInit(&note));
  EXPECT_EQ(0, ZorvClientWaitForMessageStr(&note, 10000, "NOTE",
                                           static_cast<uint32_t>(peerPid)));
  EXPECT_EQ("from the peer", zorvtest::Field(CGenStrC_Str(&note), "MSG/DATA"));
  CGenStrDelete(&note);
  peer.Send("quit");
  EXPECT_EQ(0, peer.Wait(10000));
}

// a DE_COMMAND while no diagnostic engine is connected -> answered at once
// with "MB_UNDELIVERABLE", RE the request's ID
TEST_F(Zorv2000, AnswersCommandForMissingEngineAtOnce) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  int64_t start = zorvtest::MonotonicMs();
  std::string reply;
  ASSERT_EQ(0, zorvtest::Transaction("DIAGENGINE", "DE_COMMAND",
                                     "LIST_DEVICES_AND_TESTS", &reply, 20000));
  EXPECT_LT(zorvtest::MonotonicMs() - start, 5000);
  EXPECT_EQ("MB_UNDELIVERABLE", zorvtest::Field(reply, "MSG/HDR/TYPE"));
  EXPECT_EQ("NO_RECIPIENT:DIAGENGINE", zorvtest::Field(reply, "MSG/DATA"));
}

// a request of another type to a pid nobody has -> dropped; the sender's
// transaction ends by its own time-out (2), and the broker serves on
TEST_F(Zorv2000, DropsMessageForNobodyAndSenderSeesItsOwnTimeOut) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  int64_t start = zorvtest::MonotonicMs();
  EXPECT_EQ(2, zorvtest::Transaction("2147483646", "CUSTOM_REQUEST", "x",
                                     nullptr, 700));
  int64_t elapsed = zorvtest::MonotonicMs() - start;
  EXPECT_GE(elapsed, 600);
  EXPECT_LT(elapsed, 5000);
  EXPECT_EQ(
      2, zorvtest::Transaction("NOBODY", "CUSTOM_REQUEST", "x", nullptr, 300));
  EXPECT_EQ(2u, zorvtest::ListClients().size());
}

// an MBCMD "SHUTDOWN" from a client to the NLS engine -> not passed on
TEST_F(Zorv2000, DropsBrokerCommandAddressedToAnEngine) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  ASSERT_GT(engine, 0);
  ASSERT_TRUE(sendOneWay("NLSENGINE", "MBCMD", "SHUTDOWN"));
  ASSERT_TRUE(sendOneWay(std::to_string(engine), "MBCMD", "SHUTDOWN"));
  EXPECT_EQ("EN", zorvtest::NlsCommand("NLS_GET_DEFAULT_LANG"));
  usleep(300 * 1000);
  EXPECT_TRUE(zorvtest::ProcessAlive(static_cast<pid_t>(engine)));
  EXPECT_EQ(engine, zorvtest::ClientPidOfClass("NLSENGINE"));
}

// ---- Enumeration ------------------------------------------------------------

// "DE_ENUM_NOTIFY" / "ENUM_COMPLETE" from the diagnostic engine -> passed to
// connected controllers; later ones get "<ACK>ENUM_COMPLETE</ACK>" (40) and
// the notice; once the engine is gone, the plain acknowledgement again
TEST_F(Zorv2000, AcknowledgesEnumCompleteOnceDiagEngineReportedIt) {
  ASSERT_TRUE(startBroker());
  ChildProcess engine;
  ASSERT_TRUE(engine.Start([](LineChannel& channel) {
    std::string line;
    channel.Read(&line, 30000);
    int rc = ChildConnect("fakede", "DIAGENGINE");
    channel.Send(std::to_string(rc));
    if (rc != 0) return 1;
    sendOneWay("MESSAGEBROKER", "DE_ENUM_NOTIFY", "ENUM_COMPLETE");
    ZorvFlushWriteFIFO(1000);
    channel.Send("sent");
    channel.Read(&line, 30000);
    ChildDisconnect();
    return 0;
  }));
  // A controller that connects after the notice, then checks for it.
  auto lateController = [](LineChannel& channel) {
    std::string line;
    channel.Read(&line, 30000);
    int rc = ChildConnect("late", "API");
    int waited = ZorvClientWaitForEnumCompleteMessage(1000);
    channel.Send(std::to_string(rc) + " " + std::to_string(waited));
    channel.Read(&line, 30000);
    if (rc == 0 || rc == 40) ChildDisconnect();
    return 0;
  };
  ChildProcess late;
  ASSERT_TRUE(late.Start(lateController));
  ChildProcess after;
  ASSERT_TRUE(after.Start(lateController));

  ASSERT_EQ(0, session_.Open("early", "API"));
  std::string line;
  ASSERT_TRUE(engine.Send("go"));
  ASSERT_TRUE(engine.Read(&line, 20000));
  ASSERT_EQ("0", line);
  ASSERT_TRUE(engine.Read(&line, 20000));
  EXPECT_EQ(0, ZorvClientWaitForEnumCompleteMessage(5000));

  ASSERT_TRUE(late.Send("go"));
  ASSERT_TRUE(late.Read(&line, 20000));
  EXPECT_EQ("40 0", line);
  late.Send("quit");

  engine.Send("quit");
  EXPECT_EQ(0, engine.Wait(10000));
  ASSERT_TRUE(zorvtest::WaitUntil(
      [] { return zorvtest::ClientPidOfClass("DIAGENGINE") == 0; }, 5000));
  ASSERT_TRUE(after.Send("go"));
  ASSERT_TRUE(after.Read(&line, 20000));
  EXPECT_EQ("0 1", line);
  after.Send("quit");
}

// ---- Clients that go
// ----------------------------------------------------------

// a client that closes its connection ("STOP") -> no longer listed
TEST_F(Zorv2000, RemovesClientThatSendsStop) {
  ASSERT_TRUE(startBroker());
  ChildProcess child;
  ASSERT_TRUE(child.Start([](LineChannel& channel) {
    return connectAndStay(channel, "leaver", "NORMAL");
  }));
  int rc = -1;
  long pid = 0;
  ASSERT_TRUE(readOpenReport(child, &rc, &pid));
  ASSERT_EQ(0, rc);
  ASSERT_EQ(0, session_.Open("tester", "API"));
  EXPECT_TRUE(zorvtest::IsClientListed(pid));
  child.Send("quit");
  EXPECT_EQ(0, child.Wait(10000));
  EXPECT_TRUE(zorvtest::WaitUntil(
      [pid] { return !zorvtest::IsClientListed(pid); }, 5000));
}

// a client killed with SIGKILL (no "STOP") -> removed; the broker serves on
TEST_F(Zorv2000, RemovesClientKilledWithSigkill) {
  ASSERT_TRUE(startBroker());
  ChildProcess child;
  ASSERT_TRUE(child.Start([](LineChannel& channel) {
    return connectAndStay(channel, "victim", "NORMAL");
  }));
  int rc = -1;
  long pid = 0;
  ASSERT_TRUE(readOpenReport(child, &rc, &pid));
  ASSERT_EQ(0, rc);
  ASSERT_EQ(0, session_.Open("tester", "API"));
  ASSERT_TRUE(zorvtest::IsClientListed(pid));
  child.Kill();
  EXPECT_TRUE(zorvtest::WaitUntil(
      [pid] { return !zorvtest::IsClientListed(pid); }, 5000));
  EXPECT_TRUE(sendOneWay(std::to_string(pid), "NOTE", "to the dead"));
  EXPECT_EQ("EN", zorvtest::NlsCommand("NLS_GET_DEFAULT_LANG"));
}

// a client that stops reading its FIFO (SIGSTOP) while messages come for
// it -> removed after the stall limit (1000 ms here)
TEST_F(Zorv2000, RemovesClientThatStopsReadingItsFifo) {
  setenv("ZORV_MB_STALL_MS", "1000", 1);
  ASSERT_TRUE(startBroker());
  ChildProcess child;
  ASSERT_TRUE(child.Start([](LineChannel& channel) {
    return connectAndStay(channel, "sleeper", "NORMAL");
  }));
  int rc = -1;
  long pid = 0;
  ASSERT_TRUE(readOpenReport(child, &rc, &pid));
  ASSERT_EQ(0, rc);
  ASSERT_EQ(0, session_.Open("tester", "API"));
  ASSERT_EQ(0, kill(static_cast<pid_t>(pid), SIGSTOP));
  std::string payload(1000, 'x');
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(sendOneWay(std::to_string(pid), "NOTE", payload));
  EXPECT_TRUE(zorvtest::WaitUntil(
      [pid] { return !zorvtest::IsClientListed(pid); }, 10000));
  child.Kill();
}

// ---- Hostile input
// ------------------------------------------------------------

// junk of every kind written into the server FIFO beside 200 transactions
// -> every transaction answered, nothing written into a file named as a
// client FIFO, the NLS engine still there
TEST_F(Zorv2000, GarbageInServerFifoDoesNotDisturbTransactions) {
  ASSERT_TRUE(startBroker());
  std::string victim = zorvtest::FifoPath("victim");
  ASSERT_TRUE(zorvtest::WriteFile(victim, ""));
  ASSERT_EQ(0, symlink(victim.c_str(), zorvtest::FifoPath("link").c_str()));
  ChildProcess vandal;
  ASSERT_TRUE(vandal.Start([victim](LineChannel& channel) {
    int fd = openServerFifoRaw();
    if (fd < 0) return 1;
    std::string random;
    uint32_t seed = 12345;
    for (int i = 0; i < 1500; ++i) {
      seed = seed * 1103515245u + 12345u;
      char ch = static_cast<char>((seed >> 16) & 0xff);
      random += ch == '|' ? 'x' : ch;
    }
    auto startup = [](const std::string& read, const char* pid) {
      return "<STARTUP><READ>" + read + "</READ><PID>" + pid +
             "</PID><NAME>x</NAME><NLSDATA></NLSDATA><CLASS>NORMAL</CLASS>"
             "<EXE_FILENAME></EXE_FILENAME></STARTUP>\r\n";
    };
    auto envelope = [](const char* from, const char* to, const char* type,
                       const char* data) {
      return std::string("<MSG><HDR><FROM>") + from + "</FROM><TO>" + to +
             "</TO><ID>9</ID><TYPE>" + type + "</TYPE></HDR><DATA>" + data +
             "</DATA></MSG>\r\n";
    };
    std::vector<std::string> junk = {
        random,
        zorvtest::Framed("H:x:1:1:1:5:5:") + "hello",
        zorvtest::Framed("H:7:4242:1:1:3:99999999:") + "abc",
        zorvtest::Framed("H:7:4242:0:1:3:3:") + "abc",
        "junk outside any piece\r\n",
    };
    std::vector<std::string> messages = {
        "junk without line end",
        "<MSG><HDR>broken",
        "<MSG><HDR></HDR></MSG>\r\n",
        envelope("4242", "2147483000", "NOTE", "to nobody"),
        envelope("4242", "DIAGENGINE", "DE_COMMAND", "LIST"),
        envelope("4242", "NLSENGINE", "MBCMD", "SHUTDOWN"),
        envelope("-5", "NLSENGINE", "NLS_COMMAND", "NLS_GETLANGS"),
        envelope("4242", "MESSAGEBROKER", "DE_ENUM_NOTIFY", "ENUM_COMPLETE"),
        startup(victim, "4243"),
        startup(zorvtest::FifoPath("link"), "4244"),
        startup("/etc/passwd", "4245"),
        startup("relative/path", "4246"),
        startup(std::string(400, 'a'), "4247"),
        "<STOP><PID>4248</PID></STOP>\r\n",
        "<STOP><PID>x</PID></STOP>\r\n",
        std::string(kWithNul, sizeof kWithNul - 1),
    };
    unsigned long serial = 1;
    int64_t deadline = zorvtest::MonotonicMs() + 4000;
    while (zorvtest::MonotonicMs() < deadline) {
      for (const std::string& bytes : junk) {
        zorvtest::WriteAll(fd, bytes);
        usleep(300);
      }
      for (const std::string& text : messages) {
        zorvtest::WriteAll(fd, zorvtest::WireMessage(serial++, 4242, text));
        usleep(300);
      }
    }
    close(fd);
    channel.Send("done");
    return 0;
  }));
  ASSERT_EQ(0, session_.Open("tester", "API"));
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  int nAnswered = 0;
  for (int i = 0; i < 200; ++i) {
    std::string reply;
    int rc = zorvtest::Transaction("NLSENGINE", "NLS_COMMAND",
                                   "NLS_GET_DEFAULT_LANG", &reply, 5000);
    if (rc == 0 && zorvtest::Field(reply, "MSG/DATA") == "EN") ++nAnswered;
  }
  EXPECT_EQ(200, nAnswered);
  std::string line;
  EXPECT_TRUE(vandal.Read(&line, 20000));
  EXPECT_EQ(0, vandal.Wait(10000));
  EXPECT_EQ("", zorvtest::ReadFile(victim));
  EXPECT_EQ(engine, zorvtest::ClientPidOfClass("NLSENGINE"));
  for (long fake : {4243L, 4244L, 4245L, 4246L, 4247L})
    EXPECT_FALSE(zorvtest::IsClientListed(fake));
}

// start-ups naming a regular file, a symbolic link to a FIFO, and a FIFO
// outside the pipe directory -> nothing written anywhere; a FIFO in the
// pipe directory -> acknowledged
TEST_F(Zorv2000, OpensOnlyFifosInThePipeDirectoryForClients) {
  ASSERT_TRUE(startBroker());
  std::string file = zorvtest::FifoPath("plainfile");
  ASSERT_TRUE(zorvtest::WriteFile(file, ""));
  std::string target = zorvtest::MakeTestFifo("target");
  int targetReader = zorvtest::OpenRaw(target, false);
  ASSERT_GE(targetReader, 0);
  std::string link = zorvtest::FifoPath("linked");
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
  std::string elsewhereDir = zorvtest::MakeTempDir("zorvelsewhere");
  std::string elsewhere = elsewhereDir + "/ZORV_1";
  ASSERT_EQ(0, mkfifo(elsewhere.c_str(), 0660));
  int elsewhereReader = zorvtest::OpenRaw(elsewhere, false);
  ASSERT_GE(elsewhereReader, 0);
  std::string good = zorvtest::MakeTestFifo("good");
  int goodReader = zorvtest::OpenRaw(good, false);
  ASSERT_GE(goodReader, 0);

  int fd = openServerFifoRaw();
  ASSERT_GE(fd, 0);
  unsigned long serial = 1;
  long pid = 30001;
  for (const std::string& read : {file, link, elsewhere, good}) {
    std::string text = "<STARTUP><READ>" + read + "</READ><PID>" +
                       std::to_string(pid++) +
                       "</PID><NAME>n</NAME><NLSDATA></NLSDATA><CLASS>NORMAL"
                       "</CLASS><EXE_FILENAME></EXE_FILENAME></STARTUP>\r\n";
    ASSERT_TRUE(
        zorvtest::WriteAll(fd, zorvtest::WireMessage(serial++, 777, text)));
  }
  close(fd);
  std::string acknowledged = zorvtest::ReadAtLeast(goodReader, 13, 5000);
  EXPECT_NE(std::string::npos, acknowledged.find("<ACK></ACK>\r\n"));
  EXPECT_EQ("", zorvtest::ReadFile(file));
  EXPECT_EQ("", zorvtest::ReadAvailable(targetReader));
  EXPECT_EQ("", zorvtest::ReadAvailable(elsewhereReader));
  close(targetReader);
  close(elsewhereReader);
  close(goodReader);
  zorvtest::RemoveTree(elsewhereDir);
}

// a junk pipe message without line end and a request in the same read ->
// the junk is cut off and the request is answered
TEST_F(Zorv2000, RoutesMessageGluedBehindJunkWithoutLineEnd) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  std::string request =
      zorvtest::Envelope("NLSENGINE", "NLS_COMMAND", "NLS_GET_DEFAULT_LANG");
  std::string id = zorvtest::Field(request, "MSG/HDR/ID");
  int fd = openServerFifoRaw();
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(zorvtest::WriteAll(
      fd, zorvtest::WireMessage(1, 4242, "junk <MSG><HDR>without line end") +
              zorvtest::WireMessage(2, 4242, request)));
  close(fd);
  CGenStr reply;
  ASSERT_TRUE(CGenStrInit(&reply));
  EXPECT_EQ(
      0, ZorvClientWaitForMessageStr(&reply, 5000, "TRANSACTION_RESPONSE", 0));
  EXPECT_EQ(id, zorvtest::Field(CGenStrC_Str(&reply), "MSG/HDR/RE"));
  EXPECT_EQ("EN", zorvtest::Field(CGenStrC_Str(&reply), "MSG/DATA"));
  CGenStrDelete(&reply);
}

// Tries an NLS transaction every `timeoutMs` until one is answered or
// `limitMs` passed; true when one was.
bool nlsAnsweredWithin(int timeoutMs, int limitMs) {
  return zorvtest::WaitUntil(
      [timeoutMs] {
        std::string reply;
        return zorvtest::Transaction("NLSENGINE", "NLS_COMMAND",
                                     "NLS_GET_DEFAULT_LANG", &reply,
                                     timeoutMs) == 0;
      },
      limitMs);
}

// a sender that dies between the two pieces of a message -> the messages
// queued behind it wait until the pipe layer gives the half message up
// (10 s without a piece), then routing goes on
TEST_F(Zorv2000, ResumesRoutingAfterSenderDiesInsideAMessage) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  ASSERT_EQ("EN", zorvtest::NlsCommand("NLS_GET_DEFAULT_LANG"));
  int fd = openServerFifoRaw();
  ASSERT_GE(fd, 0);
  std::string half =
      zorvtest::WireFor(1, 4242, 1, 2, 8040, std::string(4020, 'h'));
  ASSERT_TRUE(zorvtest::WriteAll(fd, half));
  close(fd);
  EXPECT_TRUE(nlsAnsweredWithin(1500, 30000));
}

// ---- Stop
// ---------------------------------------------------------------------

// Checks that the broker ended with 0, its NLS engine `engine` ended, and
// no FIFO stands in the pipe directory.
void expectOrderlyEnd(ServerProcess& broker, long engine) {
  EXPECT_EQ(0, broker.WaitExit(20000));
  EXPECT_TRUE(zorvtest::WaitUntil(
      [engine] { return !zorvtest::ProcessAlive(static_cast<pid_t>(engine)); },
      5000));
  EXPECT_EQ(std::vector<std::string>{}, zorvtest::FifosInPipeDirectory());
}

// "STOP_MESSAGE_BROKER" -> the NLS engine and the broker end, no FIFO left
TEST_F(Zorv2000, StopMessageBrokerEndsBrokerAndEnginesLeavingNoFifo) {
  ASSERT_TRUE(startBroker());
  ASSERT_EQ(0, session_.Open("tester", "API"));
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  ASSERT_GT(engine, 0);
  char command[500];
  ASSERT_EQ(0, ZorvClientCreateMessageBrokerCommand("STOP_MESSAGE_BROKER",
                                                    command, sizeof command));
  ASSERT_EQ(0, ZorvClientSendMessage(command));
  expectOrderlyEnd(broker_, engine);
}

// SIGTERM to a broker started with "trace" -> the same orderly end, told
// in the trace file
TEST_F(Zorv2000, StopsInOrderOnSigterm) {
  std::string trace = zorvtest::FifoPath("trace.txt");
  setenv("ZORV_TRACE_FILE", trace.c_str(), 1);
  ASSERT_TRUE(startBroker({"trace"}));
  ASSERT_EQ(0, session_.Open("tester", "API"));
  long engine = zorvtest::ClientPidOfClass("NLSENGINE");
  ASSERT_GT(engine, 0);
  ASSERT_EQ(0, kill(broker_.Pid(), SIGTERM));
  expectOrderlyEnd(broker_, engine);
  std::string text = zorvtest::ReadFile(trace);
  EXPECT_NE(std::string::npos, text.find("stopping the framework\n"));
  EXPECT_NE(std::string::npos, text.find("SHUTDOWN from the broker\n"));
  // The engine ended by itself, cleanly (a sanitizer build reports leaks
  // through this status).
  EXPECT_NE(std::string::npos,
            text.find("nlsengine (pid " + std::to_string(engine) +
                      ") ended with status 0\n"));
}

// an empty argument (a controller's start line without "trace") and an
// unknown one -> ignored, the broker serves
TEST_F(Zorv2000, IgnoresEmptyAndUnknownArguments) {
  ASSERT_TRUE(startBroker({"", "bogus"}));
  EXPECT_EQ(0, session_.Open("tester", "API"));
}

}  // namespace
