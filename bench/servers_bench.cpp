// Benchmarks of the server programs against a raw FIFO relay, measured in
// the same run on the same CPU placement: every process pinned to one core
// (pinned:1), and free to run anywhere (pinned:0).
//
//   BM_RawRelayPingPong     client -> relay -> server -> relay -> client over
//                           four FIFOs, every process waiting in poll() and
//                           read(): the floor for four hops.
//   BM_NlsRoundTrip         a library client's NLS transaction through the
//                           real broker and NLS engine: client -> zorv2000 ->
//                           nlsengine -> zorv2000 -> client; command:0 looks
//                           a string up, command:1 asks the default language.
//   BM_RawRelayStream       one-way messages client -> relay -> receiver.
//   BM_ClientToClientStream one-way messages between two library clients
//                           through the broker, until the receiver has all.
//
// The round trips report the median and 99th percentile of single trips
// (p50_us, p99_us); the streams report messages per second (msgs_per_s).
// Each measurement runs in forked processes that start from a clean slate
// (the pipe layer is set up once per process); the broker is started for
// each placement in a pipe directory of its own. The programs are found in
// ../bin beside this one, or in ZORV_SERVER_BIN_DIR.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"

namespace {

// Round trips measured, after the warm-up ones.
constexpr int kTrips = 5000;
constexpr int kWarmUp = 300;
// Messages of a stream, and their size (about an envelope's).
constexpr int kStreamMessages = 20000;
constexpr size_t kMessageSize = 160;

// Microseconds of the monotonic clock.
double nowUs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e6 +
         static_cast<double>(ts.tv_nsec) / 1e3;
}

// The directory of the server programs.
std::string serverDirectory() {
  const char* env = getenv("ZORV_SERVER_BIN_DIR");
  if (env && *env) return env;
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return "bin";
  exe[n] = '\0';
  std::string path(exe);
  path.erase(path.rfind('/'));  // bench
  path.erase(path.rfind('/'));  // the build tree
  return path + "/bin";
}

// Pins this process (and what it starts from now on) to the first CPU it
// may use, or lets it run on all it may use.
bool placeOnCpus(bool pinned) {
  static cpu_set_t original;
  static bool saved = false;
  if (!saved) {
    if (sched_getaffinity(0, sizeof original, &original) != 0) return false;
    saved = true;
  }
  cpu_set_t set = original;
  if (pinned) {
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &original)) {
        CPU_SET(cpu, &set);
        break;
      }
    }
  }
  return sched_setaffinity(0, sizeof set, &set) == 0;
}

// Runs `body` in a forked child and returns what it measured (empty when
// it failed).
std::vector<double> measureInChild(
    const std::function<std::vector<double>()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::vector<double> values = body();
    uint32_t count = static_cast<uint32_t>(values.size());
    bool ok = write(fds[1], &count, sizeof count) == sizeof count;
    const char* p = reinterpret_cast<const char*>(values.data());
    size_t left = values.size() * sizeof(double);
    while (ok && left > 0) {
      ssize_t n = write(fds[1], p, left);
      if (n <= 0) break;
      p += n;
      left -= static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::vector<double> values;
  uint32_t count = 0;
  if (read(fds[0], &count, sizeof count) == sizeof count) {
    values.resize(count);
    char* p = reinterpret_cast<char*>(values.data());
    size_t left = count * sizeof(double);
    while (left > 0) {
      ssize_t n = read(fds[0], p, left);
      if (n <= 0) break;
      p += n;
      left -= static_cast<size_t>(n);
    }
    if (left > 0) values.clear();
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return values;
}

// A child that runs `body` until killed.
pid_t startHelper(const std::function<void()>& body) {
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

void stopHelper(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
}

// Reads exactly `n` bytes, waiting in poll(); false on error.
bool readExactly(int fd, char* buffer, size_t n) {
  size_t done = 0;
  while (done < n) {
    struct pollfd pfd = {fd, POLLIN, 0};
    if (poll(&pfd, 1, -1) < 0 && errno != EINTR) return false;
    ssize_t got = read(fd, buffer + done, n - done);
    if (got > 0)
      done += static_cast<size_t>(got);
    else if (got < 0 && errno != EAGAIN && errno != EINTR)
      return false;
  }
  return true;
}

bool writeAll(int fd, const char* buffer, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t put = write(fd, buffer + done, n - done);
    if (put > 0) {
      done += static_cast<size_t>(put);
    } else if (put < 0 && errno == EAGAIN) {
      struct pollfd pfd = {fd, POLLOUT, 0};
      poll(&pfd, 1, -1);
    } else if (put < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

// A scratch directory, removed with its FIFOs.
struct ScratchDir {
  std::string path;
  ScratchDir() {
    char pattern[] = "/tmp/zorvbenchXXXXXX";
    path = mkdtemp(pattern) ? pattern : "";
  }
  ~ScratchDir() {
    if (path.empty()) return;
    std::string command = "rm -rf '" + path + "'";
    if (system(command.c_str()) != 0)
      fprintf(stderr, "cannot remove %s\n", path.c_str());
  }
  std::string fifo(const char* name) const {
    std::string p = path + "/" + name;
    mkfifo(p.c_str(), 0600);
    return p;
  }
};

// Reports samples (microseconds) to the benchmark loop, with median and
// 99th percentile.
void report(benchmark::State& state, std::vector<double> samples) {
  if (samples.empty()) {
    state.SkipWithError("the measurement failed");
    for (auto _ : state) {
    }
    return;
  }
  size_t i = 0;
  for (auto _ : state) {
    state.SetIterationTime(samples[i % samples.size()] / 1e6);
    ++i;
  }
  std::sort(samples.begin(), samples.end());
  state.counters["p50_us"] = samples[samples.size() / 2];
  state.counters["p99_us"] = samples[samples.size() * 99 / 100];
}

// Reports one stream run: its duration and the messages per second.
void reportStream(benchmark::State& state, const std::vector<double>& run) {
  if (run.size() != 1 || run[0] <= 0) {
    state.SkipWithError("the measurement failed");
    for (auto _ : state) {
    }
    return;
  }
  for (auto _ : state) state.SetIterationTime(run[0] / 1e6);
  state.counters["msgs_per_s"] = kStreamMessages / (run[0] / 1e6);
}

// ---- The raw relay ----------------------------------------------------------

// Forwards whole messages from `in` to `out` for each of two directions.
void relayLoop(int inA, int outA, int inB, int outB) {
  char buffer[kMessageSize];
  for (;;) {
    struct pollfd pfds[2] = {{inA, POLLIN, 0}, {inB, POLLIN, 0}};
    if (poll(pfds, 2, -1) < 0) continue;
    if (pfds[0].revents & POLLIN) {
      if (readExactly(inA, buffer, sizeof buffer))
        writeAll(outA, buffer, sizeof buffer);
    }
    if (pfds[1].revents & POLLIN) {
      if (readExactly(inB, buffer, sizeof buffer))
        writeAll(outB, buffer, sizeof buffer);
    }
  }
}

void BM_RawRelayPingPong(benchmark::State& state) {
  if (!placeOnCpus(state.range(0) != 0)) {
    state.SkipWithError("cannot set the CPU placement");
    return;
  }
  ScratchDir dir;
  // O_RDWR never blocks on a FIFO's open, whatever the order of opens.
  int c2r = open(dir.fifo("c2r").c_str(), O_RDWR);
  int r2s = open(dir.fifo("r2s").c_str(), O_RDWR);
  int s2r = open(dir.fifo("s2r").c_str(), O_RDWR);
  int r2c = open(dir.fifo("r2c").c_str(), O_RDWR);
  pid_t relay = startHelper([=] { relayLoop(c2r, r2s, s2r, r2c); });
  pid_t server = startHelper([=] {
    char buffer[kMessageSize];
    for (;;) {
      if (readExactly(r2s, buffer, sizeof buffer))
        writeAll(s2r, buffer, sizeof buffer);
    }
  });
  std::vector<double> samples = measureInChild([=] {
    std::vector<double> out;
    char message[kMessageSize];
    memset(message, 'm', sizeof message);
    char reply[kMessageSize];
    for (int i = 0; i < kWarmUp + kTrips; ++i) {
      double t0 = nowUs();
      if (!writeAll(c2r, message, sizeof message) ||
          !readExactly(r2c, reply, sizeof reply))
        return std::vector<double>();
      if (i >= kWarmUp) out.push_back(nowUs() - t0);
    }
    return out;
  });
  stopHelper(relay);
  stopHelper(server);
  close(c2r);
  close(r2s);
  close(s2r);
  close(r2c);
  report(state, samples);
}

void BM_RawRelayStream(benchmark::State& state) {
  if (!placeOnCpus(state.range(0) != 0)) {
    state.SkipWithError("cannot set the CPU placement");
    return;
  }
  ScratchDir dir;
  int c2r = open(dir.fifo("c2r").c_str(), O_RDWR);
  int r2d = open(dir.fifo("r2d").c_str(), O_RDWR);
  int done = open(dir.fifo("done").c_str(), O_RDWR);
  pid_t relay = startHelper([=] {
    char buffer[kMessageSize];
    for (;;) {
      if (readExactly(c2r, buffer, sizeof buffer))
        writeAll(r2d, buffer, sizeof buffer);
    }
  });
  pid_t receiver = startHelper([=] {
    char buffer[kMessageSize];
    for (;;) {
      for (int i = 0; i < kStreamMessages; ++i)
        readExactly(r2d, buffer, sizeof buffer);
      writeAll(done, "d", 1);
    }
  });
  std::vector<double> run = measureInChild([=] {
    char message[kMessageSize];
    memset(message, 's', sizeof message);
    char ack;
    double t0 = nowUs();
    for (int i = 0; i < kStreamMessages; ++i)
      if (!writeAll(c2r, message, sizeof message)) return std::vector<double>();
    if (!readExactly(done, &ack, 1)) return std::vector<double>();
    return std::vector<double>{nowUs() - t0};
  });
  stopHelper(relay);
  stopHelper(receiver);
  close(c2r);
  close(r2d);
  close(done);
  reportStream(state, run);
}

// ---- The broker
// ---------------------------------------------------------------

// zorv2000 (and the NLS engine it starts) in a pipe directory of its own.
class Broker {
 public:
  bool Start() {
    if (dir_.path.empty()) return false;
    setenv("ZORV_TMP", dir_.path.c_str(), 1);
    std::string bin = serverDirectory();
    std::string program = bin + "/zorv2000";
    fflush(stdout);
    fflush(stderr);
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    setpgid(pid_, pid_);
    std::string fifo = dir_.path + "/ZORVFIFO";
    for (int i = 0; i < 1000; ++i) {
      int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
      if (fd >= 0) {
        close(fd);
        return true;
      }
      usleep(10 * 1000);
    }
    fprintf(stderr, "servers_bench: %s does not serve %s\n", program.c_str(),
            dir_.path.c_str());
    return false;
  }
  ~Broker() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
  }

 private:
  ScratchDir dir_;
  pid_t pid_ = -1;
};

// In a measuring child: the library's pipe layer and a connection.
bool connectClient(const char* name) {
  ZorvInitPipes();
  ZorvPipeSignalHandle();
  ZorvInitReadWriteThread();
  return ZorvClientOpenConnectionEx(name, "API", "", nullptr) == 0;
}

void BM_NlsRoundTrip(benchmark::State& state) {
  if (!placeOnCpus(state.range(0) != 0)) {
    state.SkipWithError("cannot set the CPU placement");
    return;
  }
  Broker broker;
  if (!broker.Start()) {
    state.SkipWithError("the broker did not start");
    return;
  }
  // Command 0: a string lookup in the example file; 1: the default
  // language, the least work the engine does.
  const char* command =
      state.range(1) == 0
          ? "NLS_GETSTRING:DE:<NLS mod=example id=MSG_DISK_FULL drive=C/>"
          : "NLS_GET_DEFAULT_LANG";
  std::vector<double> samples = measureInChild([command] {
    std::vector<double> out;
    if (!connectClient("bench")) {
      fprintf(stderr, "servers_bench: no connection to the broker\n");
      return out;
    }
    char request[1024];
    char reply[8192];
    for (int i = 0; i < kWarmUp + kTrips; ++i) {
      ZorvClientCreateNlsEngineCommand(command, request, sizeof request);
      double t0 = nowUs();
      int rc = ZorvClientSendTransaction(request, reply, sizeof reply, 5000, 0);
      if (rc != 0) {
        fprintf(stderr, "servers_bench: transaction %d failed (%d)\n", i, rc);
        return std::vector<double>();
      }
      if (i >= kWarmUp) out.push_back(nowUs() - t0);
    }
    ZorvClientCloseConnection();
    return out;
  });
  report(state, samples);
}

// The receiver of a stream: counts messages of type "BENCH" and answers
// "BENCH_DONE" to the sender after kStreamMessages.
int gReceived = 0;
int countMessage(const char* text) {
  (void)text;
  ++gReceived;
  return 0;
}

void BM_ClientToClientStream(benchmark::State& state) {
  if (!placeOnCpus(state.range(0) != 0)) {
    state.SkipWithError("cannot set the CPU placement");
    return;
  }
  Broker broker;
  if (!broker.Start()) {
    state.SkipWithError("the broker did not start");
    return;
  }
  int pidPipe[2];
  if (pipe(pidPipe) != 0) return;
  pid_t receiver = startHelper([&] {
    if (!connectClient("receiver")) return;
    long own = getpid();
    if (write(pidPipe[1], &own, sizeof own) != sizeof own) return;
    // Learn the sender from the first message, then count.
    char senderText[32] = "";
    for (;;) {
      gReceived = 0;
      CGenStr first;
      CGenStrInit(&first);
      while (ZorvClientWaitForMessageStr(&first, 60000, "BENCH", 0) != 0) {
      }
      CGenStr from;
      CGenStrInit(&from);
      ZorvXmlGetFieldStr(CGenStrC_Str(&first), "MSG/HDR/FROM", 0, &from);
      snprintf(senderText, sizeof senderText, "%s", CGenStrC_Str(&from));
      CGenStrDelete(&from);
      CGenStrDelete(&first);
      gReceived = 1 + ZorvClientCheckForMessages();
      while (gReceived < kStreamMessages)
        ZorvClientProcessMessages(countMessage, 1000, 0);
      CGenStr done;
      CGenStrInit(&done);
      ZorvClientCreateEngineCommand(senderText, nullptr, "BENCH_DONE", "",
                                    &done);
      ZorvClientSendMessage(CGenStrC_Str(&done));
      CGenStrDelete(&done);
    }
  });
  long receiverPid = 0;
  if (read(pidPipe[0], &receiverPid, sizeof receiverPid) !=
      sizeof receiverPid) {
    stopHelper(receiver);
    state.SkipWithError("the receiver did not connect");
    return;
  }
  std::vector<double> run = measureInChild([receiverPid] {
    if (!connectClient("sender")) return std::vector<double>();
    std::string to = std::to_string(receiverPid);
    std::string data(kMessageSize - 130, 'p');
    CGenStr message;
    CGenStrInit(&message);
    double t0 = nowUs();
    for (int i = 0; i < kStreamMessages; ++i) {
      ZorvClientCreateEngineCommand(to.c_str(), nullptr, "BENCH", data.c_str(),
                                    &message);
      if (ZorvClientSendMessage(CGenStrC_Str(&message)) != 0)
        return std::vector<double>();
    }
    CGenStrDelete(&message);
    CGenStr done;
    CGenStrInit(&done);
    int rc = ZorvClientWaitForMessageStr(&done, 60000, "BENCH_DONE", 0);
    double elapsed = nowUs() - t0;
    CGenStrDelete(&done);
    ZorvClientCloseConnection();
    return rc == 0 ? std::vector<double>{elapsed} : std::vector<double>();
  });
  stopHelper(receiver);
  close(pidPipe[0]);
  close(pidPipe[1]);
  reportStream(state, run);
}

BENCHMARK(BM_RawRelayPingPong)
    ->ArgName("pinned")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(kTrips)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NlsRoundTrip)
    ->ArgNames({"pinned", "command"})
    ->Args({1, 0})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Args({0, 1})
    ->Iterations(kTrips)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawRelayStream)
    ->ArgName("pinned")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ClientToClientStream)
    ->ArgName("pinned")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
