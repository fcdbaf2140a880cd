// The scripted test peer: a stand-in for the message broker and the NLS
// engine in a forked child process. It makes the server FIFO in the test's
// pipe directory and reads it with the library's own pipe layer, answers a
// client's start-up message as a broker would (or not, or wrongly), answers
// requests by rule with replies whose RE is the request's ID, sends
// unsolicited messages on command, and reports every message it received,
// in order and byte for byte, to the test.
//
// Start the peer before this process initialises the pipe layer or starts
// any thread: the child is forked and runs its own pipe layer.
//
//   zorvtest::PeerScript script;
//   script.rules.push_back({"NLS_COMMAND", "NLS_GETSTRING:", {reply}});
//   zorvtest::TestPeer peer(script);
//   ASSERT_TRUE(peer.Start());
//   ZorvInitPipes(); ZorvInitReadWriteThread();
//   ZorvClientOpenConnectionEx(...);
//   ... peer.Received() ...
//
// Self-contained (the C library and the zorv2000 library only, no test
// framework), so benchmark programs can use it too.
#ifndef ZORV_TESTS_SUPPORT_TEST_PEER_H
#define ZORV_TESTS_SUPPORT_TEST_PEER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace zorvtest {

// What the peer answers to a client's start-up message.
enum class StartupAnswer {
  kAck,              // "<ACK></ACK>\r\n"
  kAckEnumComplete,  // "<ACK>ENUM_COMPLETE</ACK>\r\n"
  kNone,             // nothing
  kText              // PeerScript::startupText as it stands
};

// One message the peer sends in answer to a request.
struct PeerReply {
  // Built as an envelope from FROM (the peer's pid), TO (the request's
  // FROM), ID (the peer's own counter), RE, TYPE, TIME and DATA.
  std::string type = "TRANSACTION_RESPONSE";
  std::string data;
  // RE: "{ID}" becomes the request's ID; any other text is put in as it
  // stands (a malformed RE, a wrong one); empty leaves RE out.
  std::string re = "{ID}";
  // When not empty, sent instead of an envelope, as it stands (with "{ID}"
  // replaced by the request's ID): garbage, a message without "\r\n", ...
  std::string raw;
  // Pause before sending.
  int delayMs = 0;
};

// Answers to requests that match. The first matching rule wins.
struct PeerRule {
  std::string type;                // TYPE to equal exactly; empty matches any
  std::string dataPrefix;          // DATA must begin with it; empty matches any
  std::vector<PeerReply> replies;  // sent in order; none: no answer
  // Requests matching this rule are held until this many came, then all
  // are answered, the newest first.
  int gather = 1;
  // How often the rule applies; -1 for always.
  int times = -1;
};

struct PeerScript {
  // Path of the server FIFO; empty: ZorvGetServerFifoName() at Start().
  std::string serverFifo;
  StartupAnswer startup = StartupAnswer::kAck;
  std::string startupText;  // for StartupAnswer::kText
  // Written right behind the acknowledgement, in the same pipe message, so
  // the client reads both in one buffer.
  std::string afterAck;
  // Messages sent one by one (separate pipe messages) after the answer to
  // the start-up message.
  std::vector<std::string> afterStartup;
  std::vector<PeerRule> rules;
  // Report each received message to the test (off for benchmarks; the
  // count is kept either way).
  bool record = true;
};

class TestPeer {
 public:
  explicit TestPeer(const PeerScript& script);
  ~TestPeer();
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;

  // Forks the peer; returns once the server FIFO exists and is open for
  // reading. False when the pipe layer of this process is already set up,
  // or the child failed.
  bool Start();
  // Ends the peer (it removes the server FIFO) and waits for it.
  void Stop();
  // The peer's process id (the FROM of its messages).
  pid_t Pid() const { return pid_; }
  const std::string& ServerFifo() const { return script_.serverFifo; }

  // Sends `text` as one pipe message to the client that announced itself
  // last; returns once it was handed to the peer's pipe layer. False when
  // no client is known or the peer does not answer.
  bool Send(const std::string& text);
  // Every message received so far, each with its "\r\n", in order.
  std::vector<std::string> Received();
  // Waits until at least `count` messages were received.
  bool WaitForReceived(size_t count, int timeoutMs);
  // Number of messages the peer has read (also with record off); -1 when
  // the peer does not answer.
  long ReceivedCount(int timeoutMs);

  // An envelope as the servers write it, with "\r\n"; RE left out when
  // empty.
  static std::string Envelope(long from, const std::string& to,
                              unsigned long id, const std::string& re,
                              const std::string& type, const std::string& data);

 private:
  bool readFrames(int timeoutMs, char wantKind, std::string* pPayload);
  bool sendCommand(char kind, const std::string& payload);

  PeerScript script_;
  pid_t pid_ = -1;
  int channel_ = -1;   // socket to the child: commands out, reports in
  std::string inbox_;  // bytes read from the channel, not yet framed
  std::vector<std::string> received_;
};

// A peer and this process's client side for one test. StartPeer() forks
// the peer; StartPipes() then runs ZorvInitPipes() and starts the
// read/write thread (set trace switches between the two, so the peer does
// not trace). Begin() does both. The destructor closes the client
// connections still counted, stops the thread, cleans up the pipe layer and
// ends the peer.
class PeerSession {
 public:
  explicit PeerSession(const PeerScript& script = PeerScript());
  ~PeerSession();
  PeerSession(const PeerSession&) = delete;
  PeerSession& operator=(const PeerSession&) = delete;

  bool StartPeer();
  void StartPipes();
  bool Begin();
  TestPeer& peer() { return peer_; }

 private:
  TestPeer peer_;
  bool bPipes_ = false;
};

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_TEST_PEER_H
