// Helpers for tests of the FIFO pipe layer; see pipe_peer.h.
#include "support/pipe_peer.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

namespace zorvtest {

namespace {

ZorvPipeSyscalls gSavedSyscalls;

const char kStart[] = "|\x01\x01\x01";
const char kEnd[] = "\x01\x01\x01|";

// Reads an unsigned decimal number followed by ':' at *pos.
bool readField(const std::string& s, size_t* pos, unsigned long* value) {
  size_t start = *pos;
  unsigned long v = 0;
  while (*pos < s.size() && s[*pos] >= '0' && s[*pos] <= '9') {
    v = v * 10 + static_cast<unsigned long>(s[*pos] - '0');
    ++*pos;
  }
  if (*pos == start || *pos >= s.size() || s[*pos] != ':') return false;
  ++*pos;
  *value = v;
  return true;
}

// A small checksum of the payload.
uint32_t checksum(const char* p, size_t n) {
  uint32_t sum = 2166136261u;
  for (size_t i = 0; i < n; ++i) {
    sum ^= static_cast<unsigned char>(p[i]);
    sum *= 16777619u;
  }
  return sum;
}

}  // namespace

std::string FifoPath(const std::string& name) {
  const char* dir = getenv("ZORV_TMP");
  if (!dir || !*dir) {
    char cwd[4096];
    return std::string(getcwd(cwd, sizeof cwd) ? cwd : ".") + "/" + name;
  }
  return std::string(dir) + "/" + name;
}

std::string MakeTestFifo(const std::string& name) {
  std::string path = FifoPath(name);
  mode_t old = umask(0);
  mkfifo(path.c_str(), 0660);
  umask(old);
  return path;
}

int OpenRaw(const std::string& path, bool forWrite) {
  return open(path.c_str(), (forWrite ? O_WRONLY : O_RDONLY) | O_NONBLOCK);
}

std::string ReadAvailable(int fd) {
  std::string out;
  char buffer[8192];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  return out;
}

std::string ReadAtLeast(int fd, size_t count, int timeoutMs) {
  std::string out;
  int64_t deadline = MonotonicMs() + timeoutMs;
  while (out.size() < count && MonotonicMs() < deadline) {
    std::string more = ReadAvailable(fd);
    if (more.empty()) {
      usleep(200);
      continue;
    }
    out += more;
  }
  return out;
}

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  int64_t deadline = MonotonicMs() + 10000;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno != EAGAIN) {
      return false;
    } else {
      if (MonotonicMs() > deadline) return false;
      usleep(200);
    }
  }
  return true;
}

int64_t MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t MonotonicUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

pid_t ForkChild(const std::function<int()>& body) {
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    int rc = body();
    _exit(rc);
  }
  return pid;
}

int WaitChild(pid_t pid, int timeoutMs) {
  if (pid <= 0) return -1;
  int64_t deadline = MonotonicMs() + timeoutMs;
  for (;;) {
    int status = 0;
    pid_t got = waitpid(pid, &status, WNOHANG);
    if (got == pid) {
      if (WIFEXITED(status)) return WEXITSTATUS(status);
      if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
      return -1;
    }
    if (got < 0) return -1;
    if (MonotonicMs() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(1000);
  }
}

bool SplitWire(const std::string& stream, std::vector<WirePiece>* pieces,
               std::string* error) {
  size_t pos = 0;
  while (pos < stream.size()) {
    if (stream.compare(pos, 4, kStart, 4) != 0) {
      *error = "no start mark at offset " + std::to_string(pos);
      return false;
    }
    size_t end = stream.find(std::string(kEnd, 4), pos + 4);
    if (end == std::string::npos) {
      *error = "no end mark after offset " + std::to_string(pos);
      return false;
    }
    WirePiece piece;
    piece.header = stream.substr(pos, end + 4 - pos);
    size_t p = pos + 4;
    piece.kind = stream[p++];
    if (p >= end || stream[p++] != ':') {
      *error = "no separator after the kind letter";
      return false;
    }
    unsigned long v[6];
    for (int i = 0; i < 6; ++i) {
      if (!readField(stream, &p, &v[i]) || p > end) {
        *error = "bad number " + std::to_string(i) + " in a header";
        return false;
      }
    }
    if (p != end) {
      *error = "junk after the numbers of a header";
      return false;
    }
    piece.serial = v[0];
    piece.pid = static_cast<long>(v[1]);
    piece.number = static_cast<long>(v[2]);
    piece.count = static_cast<long>(v[3]);
    piece.length = v[4];
    piece.total = v[5];
    size_t dataPos = end + 4;
    if (stream.size() - dataPos < piece.length) {
      *error = "piece data cut short";
      return false;
    }
    piece.data = stream.substr(dataPos, piece.length);
    pos = dataPos + piece.length;
    pieces->push_back(piece);
  }
  return true;
}

std::string Framed(const std::string& body) {
  return std::string(kStart, 4) + body + std::string(kEnd, 4);
}

std::string WireFor(unsigned long serial, long pid, long number, long count,
                    unsigned long total, const std::string& data) {
  char body[160];
  snprintf(body, sizeof body, "H:%lu:%ld:%ld:%ld:%lu:%lu:", serial, pid, number,
           count, static_cast<unsigned long>(data.size()), total);
  return Framed(body) + data;
}

std::string WireMessage(unsigned long serial, long pid,
                        const std::string& message) {
  size_t count = message.size() <= 4020 ? 1 : (message.size() + 4019) / 4020;
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    std::string part = message.substr(i * 4020, 4020);
    out += WireFor(serial, pid, static_cast<long>(i + 1),
                   static_cast<long>(count), message.size(), part);
  }
  return out;
}

std::string MakeTestMessage(int sender, int seq, size_t length, uint32_t seed) {
  std::string payload(length, 'a');
  uint32_t x = seed * 2654435761u + static_cast<uint32_t>(seq) * 40503u +
               static_cast<uint32_t>(sender) + 1u;
  for (size_t i = 0; i < length; ++i) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    payload[i] = static_cast<char>('a' + x % 26);
  }
  char head[96];
  snprintf(head, sizeof head, "M%d,%d,%lu,%lu;", sender, seq,
           static_cast<unsigned long>(length),
           static_cast<unsigned long>(checksum(payload.data(), length)));
  return head + payload;
}

bool TakeTestMessage(const std::string& stream, size_t* pos, int* sender,
                     int* seq, std::string* error) {
  int s = 0;
  int q = 0;
  unsigned long length = 0;
  unsigned long sum = 0;
  int consumed = 0;
  if (*pos >= stream.size() || stream[*pos] != 'M' ||
      sscanf(stream.c_str() + *pos, "M%d,%d,%lu,%lu;%n", &s, &q, &length, &sum,
             &consumed) != 4 ||
      consumed <= 0) {
    *error = "no message head at offset " + std::to_string(*pos);
    return false;
  }
  size_t payload = *pos + static_cast<size_t>(consumed);
  if (stream.size() - payload < length) {
    *error = "message cut short at offset " + std::to_string(*pos);
    return false;
  }
  if (checksum(stream.data() + payload, length) != sum) {
    *error = "checksum mismatch in message " + std::to_string(s) + "/" +
             std::to_string(q);
    return false;
  }
  *sender = s;
  *seq = q;
  *pos = payload + length;
  return true;
}

ScopedPipeSyscalls::ScopedPipeSyscalls() : saved_(zorvPipeSyscalls) {
  gSavedSyscalls = saved_;
}

ScopedPipeSyscalls::~ScopedPipeSyscalls() { zorvPipeSyscalls = saved_; }

const ZorvPipeSyscalls& ScopedPipeSyscalls::Saved() { return gSavedSyscalls; }

std::string TracePipeToFile() {
  char cwd[4096];
  std::string path =
      std::string(getcwd(cwd, sizeof cwd) ? cwd : ".") + "/pipe-trace.txt";
  unlink(path.c_str());
  setenv("ZORV_TRACE", "pipe,pipe2", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  return path;
}

}  // namespace zorvtest
