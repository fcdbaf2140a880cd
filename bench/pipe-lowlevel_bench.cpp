// Benchmarks of the FIFO pipe layer, each side in its own forked process
// (the layer starts once per process and its thread is never restarted):
//  - round trip of a 300-byte message through ZorvPipeWrite, ZorvPipeSelect
//    and ZorvPipeRead, beside a raw write/read FIFO ping-pong, both pinned
//    to one core and spread over two; median and p99 in microseconds;
//  - moving a 1 MiB message, beside its design limit of one piece per
//    thread period (261 pieces);
//  - CPU used in 5 s by an idle process with the read/write thread and one
//    read FIFO, beside a bare thread that sleeps 1 ms and reads once, both
//    running at the same time; three rounds, median ratio.
#include <benchmark/benchmark.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "global/pipe-lowlevel_p.h"
#include "zorv2000/pipe-lowlevel.h"

namespace {

const int kRoundTrips = 4000;
const int kWarmUp = 200;
const size_t kMessageSize = 300;
const size_t kBigSize = 1024 * 1024;

int64_t nowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// A fresh directory with two FIFOs "a" and "b".
std::string makeFifos() {
  char dir[] = "/tmp/zorvbenchXXXXXX";
  if (!mkdtemp(dir)) abort();
  std::string base(dir);
  mkfifo((base + "/a").c_str(), 0660);
  mkfifo((base + "/b").c_str(), 0660);
  return base;
}

void removeFifos(const std::string& base) {
  unlink((base + "/a").c_str());
  unlink((base + "/b").c_str());
  rmdir(base.c_str());
}

void pinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

// Opens `path` for writing through the layer once a reader is there.
int32_t openWriterWhenReady(const std::string& path) {
  for (int i = 0; i < 20000; ++i) {
    int probe = open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (probe >= 0) {
      close(probe);
      return ZorvPipeOpen(path.c_str(), 1);
    }
    usleep(500);
  }
  return -1;
}

// Waits for a whole message on `fd` through the layer.
std::string layerReceive(int32_t fd) {
  for (;;) {
    ZorvPipeSelect(fd, -1, 1000);
    char* buffer = nullptr;
    int32_t n = ZorvPipeRead(fd, &buffer);
    if (n > 0) {
      std::string out(buffer, static_cast<size_t>(n));
      free(buffer);
      return out;
    }
  }
}

// Echo side of the layer round trip: reads from a, answers on b.
int layerEcho(const std::string& base, int cpu) {
  pinTo(cpu);
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  ZorvInitReadWriteThread();
  int32_t in = ZorvPipeOpen((base + "/a").c_str(), 0);
  int keep = open((base + "/a").c_str(), O_WRONLY | O_NONBLOCK);
  int32_t out = openWriterWhenReady(base + "/b");
  if (in < 0 || keep < 0 || out < 0) return 1;
  for (;;) {
    std::string message = layerReceive(in);
    if (message == "QUIT") break;
    ZorvPipeWrite(out, message.data(), static_cast<uint32_t>(message.size()));
  }
  ZorvStopReadWriteThread();
  return 0;
}

// Client side of the layer round trip; samples in ns to `report`.
int layerClient(const std::string& base, int cpu, int report) {
  pinTo(cpu);
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  ZorvInitReadWriteThread();
  int32_t in = ZorvPipeOpen((base + "/b").c_str(), 0);
  int keep = open((base + "/b").c_str(), O_WRONLY | O_NONBLOCK);
  int32_t out = openWriterWhenReady(base + "/a");
  if (in < 0 || keep < 0 || out < 0) return 1;
  std::string message(kMessageSize, 'm');
  std::vector<int64_t> samples;
  for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
    int64_t t0 = nowNs();
    ZorvPipeWrite(out, message.data(), static_cast<uint32_t>(message.size()));
    std::string reply = layerReceive(in);
    int64_t t1 = nowNs();
    if (reply.size() != kMessageSize) return 2;
    if (i >= kWarmUp) samples.push_back(t1 - t0);
  }
  ZorvPipeWrite(out, "QUIT", 4);
  ZorvFlushWritePipe(out, 1000);
  ZorvStopReadWriteThread();
  size_t bytes = samples.size() * sizeof(int64_t);
  return write(report, samples.data(), bytes) == static_cast<ssize_t>(bytes)
             ? 0
             : 3;
}

// Reads exactly n bytes from a blocking descriptor.
bool readExactly(int fd, char* buffer, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t got = read(fd, buffer + done, n - done);
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

// Echo side of the raw ping-pong.
int rawEcho(const std::string& base, int cpu) {
  pinTo(cpu);
  int in = open((base + "/a").c_str(), O_RDWR);
  int out = open((base + "/b").c_str(), O_RDWR);
  char buffer[kMessageSize];
  for (;;) {
    if (!readExactly(in, buffer, kMessageSize)) return 1;
    if (buffer[0] == 'Q') break;
    if (write(out, buffer, kMessageSize) != static_cast<ssize_t>(kMessageSize))
      return 1;
  }
  return 0;
}

// Client side of the raw ping-pong.
int rawClient(const std::string& base, int cpu, int report) {
  pinTo(cpu);
  int out = open((base + "/a").c_str(), O_RDWR);
  int in = open((base + "/b").c_str(), O_RDWR);
  char message[kMessageSize];
  memset(message, 'm', sizeof message);
  char buffer[kMessageSize];
  std::vector<int64_t> samples;
  for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
    int64_t t0 = nowNs();
    if (write(out, message, kMessageSize) != static_cast<ssize_t>(kMessageSize))
      return 1;
    if (!readExactly(in, buffer, kMessageSize)) return 2;
    int64_t t1 = nowNs();
    if (i >= kWarmUp) samples.push_back(t1 - t0);
  }
  message[0] = 'Q';
  if (write(out, message, kMessageSize) < 0) return 1;
  size_t bytes = samples.size() * sizeof(int64_t);
  return write(report, samples.data(), bytes) == static_cast<ssize_t>(bytes)
             ? 0
             : 3;
}

// Runs a child; returns its exit status (or -1).
template <typename Fn>
pid_t spawn(Fn body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int reap(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads `count` samples from a report pipe.
std::vector<int64_t> readSamples(int fd, size_t count) {
  std::vector<int64_t> samples(count);
  if (!readExactly(fd, reinterpret_cast<char*>(samples.data()),
                   count * sizeof(int64_t)))
    samples.clear();
  return samples;
}

double percentileUs(std::vector<int64_t> samples, double fraction) {
  if (samples.empty()) return -1;
  std::sort(samples.begin(), samples.end());
  size_t index = static_cast<size_t>(fraction * (samples.size() - 1));
  return static_cast<double>(samples[index]) / 1000.0;
}

// args: 0 layer, 1 raw; 0 both on cpu 0, 1 client cpu 0 and echo cpu 1.
void BM_RoundTrip300(benchmark::State& state) {
  bool raw = state.range(0) == 1;
  int echoCpu = state.range(1) == 1 ? 1 : 0;
  if (echoCpu == 1 && std::thread::hardware_concurrency() < 2) {
    state.SkipWithError("one core only");
    return;
  }
  std::vector<int64_t> samples;
  for (auto _ : state) {
    std::string base = makeFifos();
    int report[2];
    if (pipe(report) != 0) abort();
    pid_t echo = spawn([&]() {
      return raw ? rawEcho(base, echoCpu) : layerEcho(base, echoCpu);
    });
    pid_t client = spawn([&]() {
      return raw ? rawClient(base, 0, report[1])
                 : layerClient(base, 0, report[1]);
    });
    close(report[1]);
    samples = readSamples(report[0], kRoundTrips);
    close(report[0]);
    int rcClient = reap(client);
    int rcEcho = reap(echo);
    removeFifos(base);
    if (rcClient != 0 || rcEcho != 0 || samples.empty()) {
      state.SkipWithError("a side failed");
      return;
    }
    int64_t total = 0;
    for (int64_t s : samples) total += s;
    state.SetIterationTime(static_cast<double>(total) / 1e9);
  }
  state.counters["median_us"] = percentileUs(samples, 0.5);
  state.counters["p99_us"] = percentileUs(samples, 0.99);
  state.counters["trips"] = static_cast<double>(samples.size());
}
BENCHMARK(BM_RoundTrip300)
    ->ArgNames({"raw", "spread"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Sender of the 1 MiB message: writes and waits for its queue to empty.
int bigSender(const std::string& base) {
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  ZorvInitReadWriteThread();
  int32_t out = openWriterWhenReady(base + "/a");
  if (out < 0) return 1;
  std::string message(kBigSize, 'x');
  for (size_t i = 0; i < message.size(); ++i)
    message[i] = static_cast<char>('a' + i % 26);
  ZorvPipeWrite(out, message.data(), static_cast<uint32_t>(message.size()));
  while (ZorvFlushWritePipe(out, 0) > 0) usleep(1000);
  usleep(50 * 1000);
  ZorvStopReadWriteThread();
  return 0;
}

// Receiver of the 1 MiB message: reports the ns from the arrival of its
// first piece to the whole message in hand.
int bigReceiver(const std::string& base, int report) {
  ZorvInitPipes();
  ZorvInitReadWriteThread();
  int32_t in = ZorvPipeOpen((base + "/a").c_str(), 0);
  int keep = open((base + "/a").c_str(), O_WRONLY | O_NONBLOCK);
  if (in < 0 || keep < 0) return 1;
  // The clock starts when the first piece is in the FIFO.
  struct pollfd pfd = {in, POLLIN, 0};
  if (poll(&pfd, 1, 20000) != 1) return 4;
  int64_t start = nowNs();
  std::string out;
  while (out.size() < kBigSize) {
    ZorvPipeSelect(in, -1, 1000);
    char* buffer = nullptr;
    int32_t n = ZorvPipeRead(in, &buffer);
    if (n > 0) out.append(buffer, static_cast<size_t>(n));
    free(buffer);
  }
  int64_t elapsed = nowNs() - start;
  ZorvStopReadWriteThread();
  for (size_t i = 0; i < out.size(); ++i)
    if (out[i] != static_cast<char>('a' + i % 26)) return 2;
  return write(report, &elapsed, sizeof elapsed) == sizeof elapsed ? 0 : 3;
}

// Mean period of usleep(1000), in ns, over `n` sleeps.
double threadPeriodNs(int n) {
  int64_t t0 = nowNs();
  for (int i = 0; i < n; ++i) usleep(1000);
  return static_cast<double>(nowNs() - t0) / n;
}

void BM_MoveOneMebibyte(benchmark::State& state) {
  std::vector<int64_t> times;
  for (auto _ : state) {
    std::string base = makeFifos();
    int report[2];
    if (pipe(report) != 0) abort();
    pid_t receiver = spawn([&]() { return bigReceiver(base, report[1]); });
    pid_t sender = spawn([&]() { return bigSender(base); });
    close(report[1]);
    std::vector<int64_t> got = readSamples(report[0], 1);
    close(report[0]);
    int rcSender = reap(sender);
    int rcReceiver = reap(receiver);
    removeFifos(base);
    if (rcSender != 0 || rcReceiver != 0 || got.empty()) {
      state.SkipWithError("a side failed");
      return;
    }
    times.push_back(got[0]);
    state.SetIterationTime(static_cast<double>(got[0]) / 1e9);
  }
  const double pieces = 261;  // ceil(1048576 / 4020)
  double periodNs = threadPeriodNs(300);
  std::sort(times.begin(), times.end());
  double medianMs = static_cast<double>(times[times.size() / 2]) / 1e6;
  state.counters["median_ms"] = medianMs;
  state.counters["limit_1ms_ms"] = pieces * 1.0;
  state.counters["limit_period_ms"] = pieces * periodNs / 1e6;
  state.counters["ratio_to_1ms"] = medianMs / pieces;
  state.counters["ratio_to_period"] = medianMs / (pieces * periodNs / 1e6);
}
BENCHMARK(BM_MoveOneMebibyte)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

const int kIdleSeconds = 5;

double cpuMsOfSelf() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec * 1000.0 + usage.ru_utime.tv_usec / 1000.0 +
         usage.ru_stime.tv_sec * 1000.0 + usage.ru_stime.tv_usec / 1000.0;
}

// Idle process with the layer's thread and one open read FIFO.
int idleLayer(const std::string& base, int report) {
  ZorvInitPipes();
  int32_t in = ZorvPipeOpen((base + "/a").c_str(), 0);
  int keep = open((base + "/a").c_str(), O_WRONLY | O_NONBLOCK);
  if (in < 0 || keep < 0) return 1;
  double before = cpuMsOfSelf();
  ZorvInitReadWriteThread();
  sleep(kIdleSeconds);
  ZorvStopReadWriteThread();
  double used = cpuMsOfSelf() - before;
  return write(report, &used, sizeof used) == sizeof used ? 0 : 3;
}

// The bare tick: a thread that sleeps 1 ms and makes one non-blocking read.
int idleBare(const std::string& base, int report) {
  int in = open((base + "/a").c_str(), O_RDONLY | O_NONBLOCK);
  int keep = open((base + "/a").c_str(), O_WRONLY | O_NONBLOCK);
  if (in < 0 || keep < 0) return 1;
  std::atomic<bool> bRun(true);
  double before = cpuMsOfSelf();
  std::thread tick([&]() {
    char buffer[4096];
    while (bRun.load(std::memory_order_relaxed)) {
      usleep(1000);
      if (read(in, buffer, sizeof buffer) < 0 && errno != EAGAIN) break;
    }
  });
  sleep(kIdleSeconds);
  bRun.store(false);
  tick.join();
  double used = cpuMsOfSelf() - before;
  return write(report, &used, sizeof used) == sizeof used ? 0 : 3;
}

// Runs the idle layer process and the bare tick side by side over the same
// 5 s, so both see the same load on the machine; their CPU ms.
bool runIdlePair(double* pLayerMs, double* pBareMs) {
  std::string base = makeFifos();
  std::string bareBase = makeFifos();
  int reportLayer[2];
  int reportBare[2];
  if (pipe(reportLayer) != 0 || pipe(reportBare) != 0) abort();
  pid_t layer = spawn([&]() { return idleLayer(base, reportLayer[1]); });
  pid_t bare = spawn([&]() { return idleBare(bareBase, reportBare[1]); });
  close(reportLayer[1]);
  close(reportBare[1]);
  bool ok = readExactly(reportLayer[0], reinterpret_cast<char*>(pLayerMs),
                        sizeof *pLayerMs) &&
            readExactly(reportBare[0], reinterpret_cast<char*>(pBareMs),
                        sizeof *pBareMs);
  close(reportLayer[0]);
  close(reportBare[0]);
  ok = reap(layer) == 0 && reap(bare) == 0 && ok;
  removeFifos(base);
  removeFifos(bareBase);
  return ok;
}

void BM_IdleCpuFiveSeconds(benchmark::State& state) {
  std::vector<double> layerMs;
  std::vector<double> bareMs;
  std::vector<double> ratios;
  for (auto _ : state) {
    double layer = 0;
    double bare = 0;
    if (!runIdlePair(&layer, &bare) || bare <= 0) {
      state.SkipWithError("a side failed");
      return;
    }
    layerMs.push_back(layer);
    bareMs.push_back(bare);
    ratios.push_back(layer / bare);
    state.SetIterationTime(kIdleSeconds);
  }
  std::sort(layerMs.begin(), layerMs.end());
  std::sort(bareMs.begin(), bareMs.end());
  std::sort(ratios.begin(), ratios.end());
  state.counters["layer_cpu_ms"] = layerMs[layerMs.size() / 2];
  state.counters["bare_cpu_ms"] = bareMs[bareMs.size() / 2];
  state.counters["ratio_median"] = ratios[ratios.size() / 2];
  state.counters["ratio_max"] = ratios.back();
}
BENCHMARK(BM_IdleCpuFiveSeconds)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
