// Benchmarks of the client connection against the scripted test peer in a
// child process: a transaction's round trip (the peer answers at once),
// with median and 99th percentile, and one-way sends per second until the
// peer has read them all. Compare the round trip with the raw FIFO
// ping-pong of pipe-lowlevel_bench (BM_RoundTrip300).
//
// The peer is compiled in from the test tree: it depends on nothing but the
// library, and benchmark programs link the library alone.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "tests/support/test_peer.cpp"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"

namespace {

// One peer and one connection for the whole program: the pipe layer is set
// up once per process.
zorvtest::PeerSession* connectOnce() {
  static zorvtest::PeerSession* pSession = [] {
    zorvtest::PeerScript script;
    script.record = false;
    zorvtest::PeerReply reply;
    reply.data = "PONG";
    script.rules.push_back(zorvtest::PeerRule{"DE_COMMAND", "PING", {reply}});
    auto* p = new zorvtest::PeerSession(script);
    if (!p->Begin() ||
        ZorvClientOpenConnectionEx("bench", "API", "", NULL) != 0) {
      fprintf(stderr, "client_bench: cannot connect to the peer\n");
      exit(1);
    }
    return p;
  }();
  return pSession;
}

// Request, reply and table: one transaction with a prompt peer.
void BM_TransactionRoundTrip(benchmark::State& state) {
  connectOnce();
  char request[512];
  char reply[2048];
  std::vector<double> micros;
  micros.reserve(200000);
  for (auto _ : state) {
    ZorvClientCreateDiagnosticEngineCommand("PING", NULL, request,
                                            sizeof request);
    auto t0 = std::chrono::steady_clock::now();
    int rc = ZorvClientSendTransaction(request, reply, sizeof reply, 5000, 0);
    auto t1 = std::chrono::steady_clock::now();
    if (rc != 0) {
      state.SkipWithError("transaction failed");
      break;
    }
    micros.push_back(
        std::chrono::duration<double, std::micro>(t1 - t0).count());
  }
  if (!micros.empty()) {
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  }
}
BENCHMARK(BM_TransactionRoundTrip)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// One-way sends of a 200-byte event, 1000 per iteration, until the peer has
// read every one.
void BM_OneWaySend(benchmark::State& state) {
  zorvtest::PeerSession* pSession = connectOnce();
  std::string event = zorvtest::TestPeer::Envelope(
      1, "DIAGENGINE", 1, "", "DE_EVENT", std::string(80, 'e'));
  const int kBatch = 1000;
  long sent = pSession->peer().ReceivedCount(5000);
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i)
      if (ZorvClientSendMessage(event.c_str()) != 0) {
        state.SkipWithError("send failed");
        return;
      }
    sent += kBatch;
    while (pSession->peer().ReceivedCount(5000) < sent) usleep(200);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  state.counters["bytes_per_message"] = (double)event.size();
}
BENCHMARK(BM_OneWaySend)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
