// Benchmarks of CGenStr's hot paths: appending (the growth rule at work),
// formatting into a reused string, and walking a long text token by token.
#include <benchmark/benchmark.h>
#include <stdint.h>

#include "zorv2000/genstr.h"

namespace {

// Appends `range(0)` short texts to a fresh string.
void BM_CGenStrCatChar(benchmark::State& state) {
  const int64_t nAppends = state.range(0);
  for (auto _ : state) {
    CGenStr s;
    if (!CGenStrInit(&s)) {
      state.SkipWithError("out of memory");
      break;
    }
    for (int64_t i = 0; i < nAppends; i++) CGenStrCatChar(&s, "field;");
    benchmark::DoNotOptimize(s.buffer);
    CGenStrDelete(&s);
  }
  state.SetItemsProcessed(state.iterations() * nAppends);
}
BENCHMARK(BM_CGenStrCatChar)->Arg(16)->Arg(1024)->Arg(65536);

// Formats a message-sized text into one reused string.
void BM_CGenStrSprintf(benchmark::State& state) {
  CGenStr s;
  if (!CGenStrInit(&s)) {
    state.SkipWithError("out of memory");
    return;
  }
  int i = 0;
  for (auto _ : state) {
    int n = CGenStrSprintf(&s, "START_TEST:%s:%i:%i%s", "module", i, i * 7,
                           ":PARAM=value");
    benchmark::DoNotOptimize(n);
    i++;
  }
  CGenStrDelete(&s);
}
BENCHMARK(BM_CGenStrSprintf);

// Splits a text of range(0) comma-separated tokens.
void BM_CGenStrGetToken(benchmark::State& state) {
  CGenStr text, token;
  if (!CGenStrInit(&text) || !CGenStrInit(&token)) {
    state.SkipWithError("out of memory");
    return;
  }
  for (int64_t i = 0; i < state.range(0); i++) {
    CGenStrCatf(&text, "token%lld,", (long long)i);
  }
  for (auto _ : state) {
    uint32_t pos = 0;
    int found = 1;
    int64_t nTokens = 0;
    while (CGenStrGetToken(&text, ',', &pos, &found, &token) && found) {
      nTokens++;
    }
    benchmark::DoNotOptimize(nTokens);
  }
  state.SetBytesProcessed(state.iterations() * CGenStrSize(&text));
  CGenStrDelete(&text);
  CGenStrDelete(&token);
}
BENCHMARK(BM_CGenStrGetToken)->Arg(100)->Arg(10000);

}  // namespace
