// Benchmarks of the trace call. Every unit of the library calls it on its hot
// paths, so a disabled line must stay at a pthread_once check and an array
// load; an enabled line is measured against /dev/null through the trace file.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include "zorv2000/tracing.h"

namespace {

// Switches "dll" on and points the trace file at /dev/null before main(),
// so that the first trace call reads them; "mem" stays off.
struct TraceSwitches {
  TraceSwitches() {
    setenv("ZORV_TRACE", "dll", 1);
    setenv("ZORV_TRACE_FILE", "/dev/null", 1);
  }
} traceSwitches;

// A line of a switched-off category: no formatting, no output.
void BM_TprintfDisabled(benchmark::State& state) {
  int nBytes = 0;
  for (auto _ : state) {
    nBytes += TPRINTF(ZORV_TRC_MEM, __FILE__, __LINE__, __func__,
                      "block %d of arena %s\n", nBytes, "main");
    benchmark::DoNotOptimize(nBytes);
  }
  if (nBytes != 0) state.SkipWithError("a disabled line was written");
}
BENCHMARK(BM_TprintfDisabled);

// The category test alone, as callers use it to skip building a message.
void BM_TracingTypeEnabledOff(benchmark::State& state) {
  int nOn = 0;
  for (auto _ : state) {
    nOn += TracingTypeEnabled(ZORV_TRC_PIPE);
    benchmark::DoNotOptimize(nOn);
  }
  if (nOn != 0) state.SkipWithError("pipe tracing is on");
}
BENCHMARK(BM_TracingTypeEnabledOff);

// A whole enabled line: open, prefix, message, close.
void BM_TprintfEnabledToDevNull(benchmark::State& state) {
  int64_t nBytes = 0;
  for (auto _ : state) {
    int n = TPRINTF(ZORV_TRC_DLL, __FILE__, __LINE__, __func__,
                    "CTestRun::GetState state %d\n", 3);
    if (n <= 0) {
      state.SkipWithError("the enabled line was not written");
      break;
    }
    nBytes += n;
  }
  state.SetBytesProcessed(nBytes);
}
BENCHMARK(BM_TprintfEnabledToDevNull);

}  // namespace
