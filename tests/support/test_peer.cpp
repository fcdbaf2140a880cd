// The scripted test peer; see test_peer.h.
//
// Parent and child talk over a socket pair in frames of one kind byte, a
// 32-bit length and the payload. To the child: 'S' send a text to the
// client, 'C' report the count, 'Q' quit. To the parent: 'Y' ready, 'M' a
// message received, 's' send done ("1" or "0"), 'c' the count, 'E' an error.
#include "tests/support/test_peer.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <map>

#include "global/client-connection-manager_p.h"
#include "global/pipe-lowlevel_p.h"
#include "global/primitives_p.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"

namespace zorvtest {

namespace {

// The pipe layer's system calls as the program started with them; a test
// may have replaced entries by the time it forks the peer.
const ZorvPipeSyscalls kRealPipeSyscalls = zorvPipeSyscalls;

// Milliseconds of a monotonic clock.
int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Writes one frame; false when the other side is gone.
bool writeFrame(int fd, char kind, const std::string& payload) {
  std::string frame(1, kind);
  uint32_t length = (uint32_t)payload.size();
  frame.append(reinterpret_cast<const char*>(&length), sizeof length);
  frame += payload;
  size_t done = 0;
  while (done < frame.size()) {
    ssize_t n =
        send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += (size_t)n;
  }
  return true;
}

// Takes one whole frame off the front of `buffer`.
bool takeFrame(std::string* buffer, char* kind, std::string* payload) {
  if (buffer->size() < 5) return false;
  uint32_t length;
  memcpy(&length, buffer->data() + 1, sizeof length);
  if (buffer->size() < 5 + (size_t)length) return false;
  *kind = (*buffer)[0];
  payload->assign(*buffer, 5, length);
  buffer->erase(0, 5 + (size_t)length);
  return true;
}

// A field of a message as text, empty when missing.
std::string field(const std::string& text, const char* path) {
  CGenStr value;
  if (!CGenStrInit(&value)) return "";
  std::string out;
  if (ZorvXmlGetFieldStr(text.c_str(), path, 0, &value) == 0)
    out = CGenStrC_Str(&value);
  CGenStrDelete(&value);
  return out;
}

// `text` with every "{ID}" replaced by `id`.
std::string withId(std::string text, const std::string& id) {
  for (size_t at = text.find("{ID}"); at != std::string::npos;
       at = text.find("{ID}", at + id.size()))
    text.replace(at, 4, id);
  return text;
}

// A request that waits for its answer (rules that gather).
struct HeldRequest {
  std::string from;
  std::string id;
};

// The child's side: the broker and engine stand-in.
class PeerChild {
 public:
  PeerChild(const PeerScript& script, int channel)
      : script_(script), channel_(channel), held_(script.rules.size()) {}

  int run() {
    // The child keeps nothing of the test's fakes.
    zorvSyscalls.pfnGetTimeOfDay = Zorv_I_RealGetTimeOfDay;
    zorvSyscalls.pfnGetPid = Zorv_I_RealGetPid;
    zorvSyscalls.pfnWaitPid = Zorv_I_RealWaitPid;
    zorvPipeSyscalls = kRealPipeSyscalls;
    ZorvInitPipes();
    ZorvPipeSignalHandle();
    ZorvPipeUMask(0);
    unlink(script_.serverFifo.c_str());
    if (ZorvPipeMkFifo(script_.serverFifo.c_str()) != 0) {
      writeFrame(channel_, 'E', "cannot make " + script_.serverFifo);
      return 1;
    }
    serverFd_ = ZorvPipeOpen(script_.serverFifo.c_str(), 0);
    // A writer of our own, outside the layer, so the FIFO never reads as
    // ended between clients.
    int keepFd = open(script_.serverFifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (serverFd_ < 0 || keepFd < 0) {
      writeFrame(channel_, 'E', "cannot open " + script_.serverFifo);
      return 1;
    }
    ZorvInitReadWriteThread();
    writeFrame(channel_, 'Y', "");
    bool bRunning = true;
    while (bRunning) {
      bRunning = serveCommands();
      if (!bRunning) break;
      int rc = ZorvPipeSelect(serverFd_, -1, 5);
      if (rc > 0 && (rc & 1)) readMessages();
    }
    for (auto& client : clients_) ZorvPipeClose(client.second);
    ZorvPipeClose(serverFd_);
    close(keepFd);
    unlink(script_.serverFifo.c_str());
    ZorvStopReadWriteThread();
    return 0;
  }

 private:
  // Handles what the parent asked; false when it said quit or went away.
  bool serveCommands() {
    struct pollfd pfd = {channel_, POLLIN, 0};
    while (poll(&pfd, 1, 0) > 0) {
      char bytes[4096];
      ssize_t n = recv(channel_, bytes, sizeof bytes, 0);
      if (n <= 0) return false;
      inbox_.append(bytes, (size_t)n);
      char kind;
      std::string payload;
      while (takeFrame(&inbox_, &kind, &payload)) {
        if (kind == 'Q') return false;
        if (kind == 'S')
          writeFrame(channel_, 's', sendTo(lastClient_, payload) ? "1" : "0");
        if (kind == 'C') writeFrame(channel_, 'c', std::to_string(count_));
      }
    }
    return true;
  }

  // Writes one pipe message to a client's FIFO.
  bool sendTo(int32_t fd, const std::string& text) {
    if (fd < 0) return false;
    return ZorvPipeWrite(fd, text.data(), (uint32_t)text.size()) ==
           (int32_t)text.size();
  }

  // Takes every whole message the server FIFO has.
  void readMessages() {
    char* data = nullptr;
    int32_t n = ZorvPipeRead(serverFd_, &data);
    if (n <= 0) return;
    std::string all(data, (size_t)n);
    free(data);
    size_t start = 0;
    while (start < all.size()) {
      size_t end = all.find("\r\n", start);
      std::string message = end == std::string::npos
                                ? all.substr(start)
                                : all.substr(start, end + 2 - start);
      start = end == std::string::npos ? all.size() : end + 2;
      ++count_;
      if (script_.record) writeFrame(channel_, 'M', message);
      handle(message);
    }
  }

  // Answers one message.
  void handle(const std::string& message) {
    if (message.compare(0, 9, "<STARTUP>") == 0) return startup(message);
    if (message.compare(0, 6, "<STOP>") == 0) {
      auto it = clients_.find(field(message, "STOP/PID"));
      if (it != clients_.end()) {
        ZorvPipeClose(it->second);
        if (lastClient_ == it->second) lastClient_ = -1;
        clients_.erase(it);
      }
      return;
    }
    if (message.compare(0, 5, "<MSG>") != 0) return;
    std::string type = field(message, "MSG/HDR/TYPE");
    std::string data = field(message, "MSG/DATA");
    HeldRequest request = {field(message, "MSG/HDR/FROM"),
                           field(message, "MSG/HDR/ID")};
    for (size_t i = 0; i < script_.rules.size(); ++i) {
      PeerRule& rule = script_.rules[i];
      if (rule.times == 0) continue;
      if (!rule.type.empty() && rule.type != type) continue;
      if (data.compare(0, rule.dataPrefix.size(), rule.dataPrefix) != 0)
        continue;
      if (rule.times > 0) --rule.times;
      held_[i].push_back(request);
      if ((int)held_[i].size() < rule.gather) return;
      for (auto it = held_[i].rbegin(); it != held_[i].rend(); ++it)
        answer(rule, *it);
      held_[i].clear();
      return;
    }
  }

  // The start-up message: note the client's FIFO, answer as scripted.
  void startup(const std::string& message) {
    std::string path = field(message, "STARTUP/READ");
    std::string pid = field(message, "STARTUP/PID");
    int32_t fd = ZorvPipeOpen(path.c_str(), 1);
    if (fd < 0) {
      ZorvPipeClose(fd);
      writeFrame(channel_, 'E', "cannot open client FIFO " + path);
      return;
    }
    auto old = clients_.find(pid);
    if (old != clients_.end()) ZorvPipeClose(old->second);
    clients_[pid] = fd;
    lastClient_ = fd;
    std::string ack;
    switch (script_.startup) {
      case StartupAnswer::kAck:
        ack = "<ACK></ACK>\r\n";
        break;
      case StartupAnswer::kAckEnumComplete:
        ack = "<ACK>ENUM_COMPLETE</ACK>\r\n";
        break;
      case StartupAnswer::kNone:
        break;
      case StartupAnswer::kText:
        ack = script_.startupText;
        break;
    }
    if (script_.startup != StartupAnswer::kNone)
      sendTo(fd, ack + script_.afterAck);
    for (const std::string& text : script_.afterStartup) sendTo(fd, text);
  }

  // Sends a rule's replies to one request.
  void answer(const PeerRule& rule, const HeldRequest& request) {
    auto it = clients_.find(request.from);
    int32_t fd = it != clients_.end() ? it->second : lastClient_;
    for (const PeerReply& reply : rule.replies) {
      if (reply.delayMs > 0) usleep((useconds_t)reply.delayMs * 1000);
      std::string text;
      if (!reply.raw.empty()) {
        text = withId(reply.raw, request.id);
      } else {
        std::string re = reply.re == "{ID}" ? request.id : reply.re;
        text = TestPeer::Envelope((long)getpid(), request.from, ++nextId_, re,
                                  reply.type, reply.data);
      }
      sendTo(fd, text);
    }
  }

  PeerScript script_;
  int channel_;
  int32_t serverFd_ = -1;
  int32_t lastClient_ = -1;
  std::map<std::string, int32_t> clients_;      // by PID text
  std::vector<std::vector<HeldRequest>> held_;  // per rule
  std::string inbox_;
  long count_ = 0;
  unsigned long nextId_ = 1000;
};

}  // namespace

TestPeer::TestPeer(const PeerScript& script) : script_(script) {}

TestPeer::~TestPeer() { Stop(); }

bool TestPeer::Start() {
  if (pid_ > 0) return true;
  // A forked child would inherit this process's pipe layer half set up.
  if (ZorvPipe_I_ReadFifoList() != nullptr) {
    fprintf(stderr, "TestPeer: start the peer before ZorvInitPipes()\n");
    return false;
  }
  if (script_.serverFifo.empty()) script_.serverFifo = ZorvGetServerFifoName();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return false;
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    close(pair[0]);
    close(pair[1]);
    return false;
  }
  if (pid == 0) {
    close(pair[0]);
    int rc = PeerChild(script_, pair[1]).run();
    _exit(rc);
  }
  close(pair[1]);
  pid_ = pid;
  channel_ = pair[0];
  std::string payload;
  if (!readFrames(10000, 'Y', &payload)) {
    Stop();
    return false;
  }
  return true;
}

void TestPeer::Stop() {
  if (pid_ <= 0) return;
  sendCommand('Q', "");
  int64_t deadline = nowMs() + 5000;
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(pid_, &status, WNOHANG)) == 0 && nowMs() < deadline)
    usleep(2000);
  if (done == 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  readFrames(0, 0, nullptr);
  close(channel_);
  channel_ = -1;
  pid_ = -1;
  unlink(script_.serverFifo.c_str());
}

bool TestPeer::sendCommand(char kind, const std::string& payload) {
  return channel_ >= 0 && writeFrame(channel_, kind, payload);
}

bool TestPeer::readFrames(int timeoutMs, char wantKind, std::string* pPayload) {
  int64_t deadline = nowMs() + timeoutMs;
  for (;;) {
    char kind;
    std::string payload;
    while (takeFrame(&inbox_, &kind, &payload)) {
      if (kind == 'M') {
        received_.push_back(payload);
      } else if (kind == 'E') {
        fprintf(stderr, "TestPeer: %s\n", payload.c_str());
      } else if (wantKind && kind == wantKind) {
        if (pPayload) *pPayload = payload;
        return true;
      }
    }
    if (channel_ < 0) return false;
    int64_t left = deadline - nowMs();
    struct pollfd pfd = {channel_, POLLIN, 0};
    int rc = poll(&pfd, 1, left > 0 ? (int)left : 0);
    if (rc <= 0) return !wantKind;
    char bytes[65536];
    ssize_t n = recv(channel_, bytes, sizeof bytes, 0);
    if (n <= 0) return !wantKind && n == 0;
    inbox_.append(bytes, (size_t)n);
  }
}

bool TestPeer::Send(const std::string& text) {
  std::string done;
  return sendCommand('S', text) && readFrames(10000, 's', &done) && done == "1";
}

std::vector<std::string> TestPeer::Received() {
  readFrames(0, 0, nullptr);
  return received_;
}

bool TestPeer::WaitForReceived(size_t count, int timeoutMs) {
  int64_t deadline = nowMs() + timeoutMs;
  for (;;) {
    readFrames(0, 0, nullptr);
    if (received_.size() >= count) return true;
    int64_t left = deadline - nowMs();
    if (left <= 0) return false;
    // Wait for the next frame (or the time limit) without busy looping.
    struct pollfd pfd = {channel_, POLLIN, 0};
    poll(&pfd, 1, (int)(left < 50 ? left : 50));
  }
}

long TestPeer::ReceivedCount(int timeoutMs) {
  std::string count;
  if (!sendCommand('C', "") || !readFrames(timeoutMs, 'c', &count)) return -1;
  return atol(count.c_str());
}

std::string TestPeer::Envelope(long from, const std::string& to,
                               unsigned long id, const std::string& re,
                               const std::string& type,
                               const std::string& data) {
  std::string text = "<MSG><HDR><FROM>" + std::to_string(from) + "</FROM><TO>" +
                     to + "</TO><ID>" + std::to_string(id) + "</ID>";
  if (!re.empty()) text += "<RE>" + re + "</RE>";
  text += "<TYPE>" + type +
          "</TYPE><TIME>20240101000000000</TIME></HDR><DATA>" + data +
          "</DATA></MSG>\r\n";
  return text;
}

PeerSession::PeerSession(const PeerScript& script) : peer_(script) {}

PeerSession::~PeerSession() {
  if (bPipes_) {
    while (ZorvClient_I_GetConnectionCount() > 0) ZorvClientCloseConnection();
    ZorvStopReadWriteThread();
    ZorvCleanupPipes();
  }
  peer_.Stop();
}

bool PeerSession::StartPeer() { return peer_.Start(); }

void PeerSession::StartPipes() {
  ZorvInitPipes();
  ZorvInitReadWriteThread();
  bPipes_ = true;
}

bool PeerSession::Begin() {
  if (!StartPeer()) return false;
  StartPipes();
  return true;
}

}  // namespace zorvtest
