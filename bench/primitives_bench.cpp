// Hot paths of the primitives unit: the safe copy that every name and field
// goes through, and the millisecond clock that every wait polls.
#include <benchmark/benchmark.h>

#include "zorv2000/primitives.h"

namespace {

// A field that fits: the everyday case.
void BM_ZorvSafeStrCpyFits(benchmark::State& state) {
  char buffer[256];
  const char* src = "/var/zorv/pipes/ZORV_4711";
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZorvSafeStrCpy(buffer, src, sizeof buffer));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ZorvSafeStrCpyFits);

// A source that does not fit: copy, then the marker.
void BM_ZorvSafeStrCpyOverflow(benchmark::State& state) {
  char buffer[16];
  const char* src = "a source that is far too long for the buffer";
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZorvSafeStrCpy(buffer, src, sizeof buffer));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ZorvSafeStrCpyOverflow);

void BM_ZorvMilliSeconds(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(ZorvMilliSeconds());
}
BENCHMARK(BM_ZorvMilliSeconds);

}  // namespace
