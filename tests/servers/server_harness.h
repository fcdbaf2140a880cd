// Integration-test support for the server programs: the broker started as
// the leader of its own process group (so it and the engines it starts are
// killed together whatever happens), forked child processes that act as
// library clients and talk to the test over a line channel, the test
// process's own client session, and requests to the broker and the NLS
// engine.
//
// Fork every child before this process starts its own pipe layer: a child
// forked from a process with running threads may inherit a held lock.
#ifndef ZORV_TESTS_SERVERS_SERVER_HARNESS_H
#define ZORV_TESTS_SERVERS_SERVER_HARNESS_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "global/client-connection-manager_p.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"

namespace zorvtest {

// Full path of a program in the build's server directory.
inline std::string ServerPath(const char* program) {
  return std::string(ZORV_SERVER_BIN_DIR) + "/" + program;
}

// The server FIFO of the test's pipe directory.
inline std::string ServerFifo() { return FifoPath("ZORVFIFO"); }

// True once `condition` holds, checking every 10 ms up to `timeoutMs`.
inline bool WaitUntil(const std::function<bool()>& condition, int timeoutMs) {
  int64_t deadline = MonotonicMs() + timeoutMs;
  for (;;) {
    if (condition()) return true;
    if (MonotonicMs() > deadline) return false;
    usleep(10 * 1000);
  }
}

// The process exists and has not ended (a zombie counts as ended).
inline bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() &&
         stat[close + 2] != 'Z';
}

// Somebody reads the server FIFO.
inline bool ServerFifoHasReader() {
  int fd = open(ServerFifo().c_str(), O_WRONLY | O_NONBLOCK);
  if (fd < 0) return false;
  close(fd);
  return true;
}

// The names of the FIFOs standing in the test's pipe directory.
inline std::vector<std::string> FifosInPipeDirectory() {
  std::vector<std::string> names;
  std::string dir = FifoPath("");
  DIR* pDir = opendir(dir.c_str());
  if (!pDir) return names;
  while (struct dirent* pEntry = readdir(pDir)) {
    struct stat st;
    if (lstat((dir + pEntry->d_name).c_str(), &st) == 0 && S_ISFIFO(st.st_mode))
      names.push_back(pEntry->d_name);
  }
  closedir(pDir);
  return names;
}

// A server program run as the leader of its own process group.
class ServerProcess {
 public:
  ServerProcess() = default;
  ~ServerProcess() { Kill(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Starts `path` with `args`; its standard error goes to `stderrPath` when
  // one is given.
  bool Start(const std::string& path, const std::vector<std::string>& args,
             const std::string& stderrPath = "") {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
      setpgid(0, 0);
      if (!stderrPath.empty()) {
        int fd = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) dup2(fd, 2);
      }
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(path.c_str()));
      for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(path.c_str(), argv.data());
      _exit(127);
    }
    // Both sides set the group, so it is set before either goes on.
    setpgid(pid, pid);
    // Engines whose broker ended become this process's children, so they
    // are reaped here and none is left behind.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    pid_ = pid;
    reaped_ = false;
    return true;
  }

  pid_t Pid() const { return pid_; }

  // The exit status after a normal end, 128 + signal after a killing
  // signal, -1 when it still runs at the limit (it is left running).
  int WaitExit(int timeoutMs) {
    if (pid_ <= 0) return -1;
    if (reaped_) return status_;
    int64_t deadline = MonotonicMs() + timeoutMs;
    for (;;) {
      int status = 0;
      pid_t got = waitpid(pid_, &status, WNOHANG);
      if (got == pid_) {
        reaped_ = true;
        status_ =
            WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return status_;
      }
      if (got < 0 || MonotonicMs() > deadline) return -1;
      usleep(5 * 1000);
    }
  }

  // SIGKILL to the whole group (the engines included), then every member
  // reaped: the broker here, its engines once they fall to this process.
  void Kill() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    int status = 0;
    if (!reaped_) {
      waitpid(pid_, &status, 0);
      reaped_ = true;
      status_ = 128 + SIGKILL;
    }
    while (waitpid(-pid_, &status, 0) > 0) {
    }
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = -1;
};

// Starts the broker with `args` and waits until it reads its FIFO.
inline bool StartBroker(ServerProcess* broker,
                        const std::vector<std::string>& args = {},
                        const std::string& stderrPath = "") {
  if (!broker->Start(ServerPath("zorv2000"), args, stderrPath)) return false;
  return WaitUntil(ServerFifoHasReader, 10000);
}

// A line channel over a socket.
class LineChannel {
 public:
  explicit LineChannel(int fd = -1) : fd_(fd) {}
  int fd() const { return fd_; }

  bool Send(const std::string& line) {
    std::string data = line + "\n";
    size_t done = 0;
    while (done < data.size()) {
      ssize_t n =
          send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  // Next line without its "\n"; false at the time limit or when the other
  // side is gone.
  bool Read(std::string* line, int timeoutMs) {
    int64_t deadline = MonotonicMs() + timeoutMs;
    for (;;) {
      size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        *line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return true;
      }
      int64_t left = deadline - MonotonicMs();
      if (left <= 0) return false;
      struct pollfd pfd = {fd_, POLLIN, 0};
      int rc = poll(&pfd, 1, static_cast<int>(left));
      if (rc < 0 && errno == EINTR) continue;
      if (rc <= 0) return false;
      char bytes[4096];
      ssize_t n = recv(fd_, bytes, sizeof bytes, 0);
      if (n <= 0) return false;
      buffer_.append(bytes, static_cast<size_t>(n));
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

// A forked child running `body` with its end of a line channel; it exits
// with body's result. Killed and reaped by the destructor if still there.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Start(const std::function<int(LineChannel&)>& body) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return false;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
      close(fds[0]);
      LineChannel channel(fds[1]);
      int rc = body(channel);
      _exit(rc);
    }
    close(fds[1]);
    channel_ = LineChannel(fds[0]);
    pid_ = pid;
    return true;
  }

  pid_t Pid() const { return pid_; }
  LineChannel& channel() { return channel_; }
  bool Send(const std::string& line) { return channel_.Send(line); }
  bool Read(std::string* line, int timeoutMs) {
    return channel_.Read(line, timeoutMs);
  }

  // Exit status, 128 + signal, or -1 after killing it at the limit.
  int Wait(int timeoutMs) {
    int rc = WaitChild(pid_, timeoutMs);
    pid_ = -1;
    return rc;
  }

  void Kill() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      int status = 0;
      waitpid(pid_, &status, 0);
      pid_ = -1;
    }
    if (channel_.fd() >= 0) {
      close(channel_.fd());
      channel_ = LineChannel();
    }
  }

 private:
  pid_t pid_ = -1;
  LineChannel channel_;
};

// This process as a library client: pipe layer, thread, connection. The
// destructor closes what was opened.
class ClientSession {
 public:
  ClientSession() = default;
  ~ClientSession() { End(); }
  ClientSession(const ClientSession&) = delete;
  ClientSession& operator=(const ClientSession&) = delete;

  // ZorvClient_I_OpenConnectionEx()'s result: 0, 40 after an
  // "ENUM_COMPLETE" acknowledgement, or a failure code.
  int Open(const char* name, const char* clientClass) {
    if (!bPipes_) {
      ZorvInitPipes();
      ZorvPipeSignalHandle();
      ZorvInitReadWriteThread();
      bPipes_ = true;
    }
    int rc = ZorvClient_I_OpenConnectionEx(0, name, clientClass, "", nullptr);
    if (rc == 0 || rc == 40) bOpen_ = true;
    return rc;
  }

  void End() {
    if (bOpen_) {
      ZorvFlushWriteFIFO(500);
      ZorvClientCloseConnection();
      bOpen_ = false;
    }
    if (bPipes_) {
      ZorvStopReadWriteThread();
      ZorvCleanupPipes();
      bPipes_ = false;
    }
  }

 private:
  bool bPipes_ = false;
  bool bOpen_ = false;
};

// A field of a message, empty when missing.
inline std::string Field(const std::string& text, const char* path) {
  CGenStr value;
  if (!CGenStrInit(&value)) return "";
  std::string out;
  if (ZorvXmlGetFieldStr(text.c_str(), path, 0, &value) == 0)
    out = CGenStrC_Str(&value);
  CGenStrDelete(&value);
  return out;
}

// An envelope from this process to `to` with `type` and `data`, "\r\n"
// included.
inline std::string Envelope(const std::string& to, const std::string& type,
                            const std::string& data) {
  CGenStr text;
  std::string out;
  if (!CGenStrInit(&text)) return out;
  if (ZorvClientCreateEngineCommand(to.c_str(), nullptr, type.c_str(),
                                    data.c_str(), &text) == 0)
    out = CGenStrC_Str(&text);
  CGenStrDelete(&text);
  return out;
}

// Sends an envelope as a transaction; the result of
// ZorvClientSendTransactionStr() and the reply.
inline int Transaction(const std::string& to, const std::string& type,
                       const std::string& data, std::string* reply,
                       int timeoutMs) {
  std::string request = Envelope(to, type, data);
  CGenStr answer;
  if (request.empty() || !CGenStrInit(&answer)) return -1;
  int rc = ZorvClientSendTransactionStr(request.c_str(), &answer,
                                        static_cast<uint32_t>(timeoutMs), 0);
  if (reply) *reply = rc == 0 ? CGenStrC_Str(&answer) : "";
  CGenStrDelete(&answer);
  return rc;
}

// A command to the broker, answered within `timeoutMs`: the reply's DATA,
// or "(no reply)".
inline std::string BrokerCommand(const std::string& command,
                                 int timeoutMs = 5000) {
  std::string reply;
  if (Transaction("MESSAGEBROKER", "MBCMD", command, &reply, timeoutMs) != 0)
    return "(no reply)";
  return Field(reply, "MSG/DATA");
}

// A command to the NLS engine: the reply's DATA, or "(no reply)".
inline std::string NlsCommand(const std::string& command,
                              int timeoutMs = 5000) {
  std::string reply;
  if (Transaction("NLSENGINE", "NLS_COMMAND", command, &reply, timeoutMs) != 0)
    return "(no reply)";
  return Field(reply, "MSG/DATA");
}

// One connected client as "GET_CLIENTS" reports it.
struct ClientInfo {
  long pid = 0;
  std::string name;
  std::string clientClass;
};

// The broker's client list; empty when it does not answer.
inline std::vector<ClientInfo> ListClients() {
  std::vector<ClientInfo> clients;
  std::string data = BrokerCommand("GET_CLIENTS");
  size_t pos = 0;
  for (;;) {
    size_t start = data.find("<CLIENT>", pos);
    if (start == std::string::npos) break;
    size_t end = data.find("</CLIENT>", start);
    if (end == std::string::npos) break;
    std::string one =
        "<CLIENT>" + data.substr(start + 8, end - start - 8) + "</CLIENT>";
    ClientInfo info;
    info.pid = atol(Field(one, "CLIENT/PID").c_str());
    info.name = Field(one, "CLIENT/NAME");
    info.clientClass = Field(one, "CLIENT/CLASS");
    clients.push_back(info);
    pos = end;
  }
  return clients;
}

// The pid of the connected client of `clientClass`, 0 when none.
inline long ClientPidOfClass(const std::string& clientClass) {
  for (const ClientInfo& info : ListClients())
    if (info.clientClass == clientClass) return info.pid;
  return 0;
}

// Whether a client of that pid is connected.
inline bool IsClientListed(long pid) {
  for (const ClientInfo& info : ListClients())
    if (info.pid == pid) return true;
  return false;
}

// In a child: connects as a library client; the open result.
inline int ChildConnect(const char* name, const char* clientClass) {
  ZorvInitPipes();
  ZorvPipeSignalHandle();
  ZorvInitReadWriteThread();
  return ZorvClient_I_OpenConnectionEx(0, name, clientClass, "", nullptr);
}

// In a child: closes the connection and the pipe layer.
inline void ChildDisconnect() {
  ZorvFlushWriteFIFO(500);
  ZorvClientCloseConnection();
  ZorvStopReadWriteThread();
  ZorvCleanupPipes();
}

}  // namespace zorvtest

#endif  // ZORV_TESTS_SERVERS_SERVER_HARNESS_H
