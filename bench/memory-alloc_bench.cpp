// Benchmarks of the tracked allocator: one block allocated and freed (the
// sole arena kept), many live blocks (the worst-fit walk grows with the
// blocks of the arena), the system allocator for comparison, and the
// bookkeeping switch that every allocation asks.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "zorv2000/memory-alloc.h"

namespace {

// Allocates and frees one block of range(0) bytes.
void BM_TracingZorvAllocFree(benchmark::State& state) {
  const uint32_t nBytes = (uint32_t)state.range(0);
  for (auto _ : state) {
    void* p = TracingZorvAlloc(1, nBytes, __FILE__, __LINE__);
    benchmark::DoNotOptimize(p);
    TracingZorvFree(p, __FILE__, __LINE__);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TracingZorvAllocFree)->Arg(16)->Arg(1024)->Arg(100000);

// The same with malloc()/free().
void BM_MallocFree(benchmark::State& state) {
  const size_t nBytes = (size_t)state.range(0);
  for (auto _ : state) {
    void* p = malloc(nBytes);
    benchmark::DoNotOptimize(p);
    free(p);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MallocFree)->Arg(16)->Arg(1024)->Arg(100000);

// range(0) blocks of 64 bytes allocated, then freed in allocation order.
void BM_TracingZorvAllocMany(benchmark::State& state) {
  const int64_t nBlocks = state.range(0);
  std::vector<void*> blocks((size_t)nBlocks);
  for (auto _ : state) {
    for (int64_t i = 0; i < nBlocks; ++i) {
      blocks[(size_t)i] = TracingZorvAlloc(1, 64, __FILE__, __LINE__);
    }
    for (int64_t i = 0; i < nBlocks; ++i) {
      TracingZorvFree(blocks[(size_t)i], __FILE__, __LINE__);
    }
  }
  state.SetItemsProcessed(state.iterations() * nBlocks);
}
BENCHMARK(BM_TracingZorvAllocMany)->Arg(16)->Arg(256)->Arg(2048);

// Growing a block by re-allocation, 64 bytes at a time to 4096.
void BM_TracingZorvReAllocGrow(benchmark::State& state) {
  for (auto _ : state) {
    void* p = TracingZorvAlloc(1, 64, __FILE__, __LINE__);
    for (uint32_t n = 128; n <= 4096; n += 64) {
      p = TracingZorvReAlloc(p, n, __FILE__, __LINE__);
    }
    TracingZorvFree(p, __FILE__, __LINE__);
  }
}
BENCHMARK(BM_TracingZorvReAllocGrow);

// The switch asked by every allocation and free, with tracing off.
void BM_DoMemoryBlockTracingOff(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(DoMemoryBlockTracing());
}
BENCHMARK(BM_DoMemoryBlockTracingOff);

}  // namespace
