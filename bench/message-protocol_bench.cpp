// Hot paths of the message envelope: building a command, finding header
// and payload fields in a typical and in a 64 KiB message, and escaping a
// 1 KiB text.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"

namespace {

const char kTypical[] =
    "<MSG><HDR><FROM>4321</FROM><TO>1234</TO><ID>12</ID><RE>7</RE>"
    "<TYPE>DE_COMMAND</TYPE><TIME>20030415123457000</TIME></HDR>"
    "<DATA><TESTSTATUS><STATE>RUNNING</STATE><PERCENT>40</PERCENT>"
    "<PROGRESS>Reading@20block@2012</PROGRESS></TESTSTATUS></DATA>"
    "</MSG>\r\n";

// A reply whose payload holds test log items up to 64 KiB.
std::string largeMessage() {
  std::string text =
      "<MSG><HDR><FROM>4321</FROM><TO>1234</TO><ID>12</ID><RE>7</RE>"
      "<TYPE>DE_COMMAND</TYPE><TIME>20030415123457000</TIME></HDR><DATA>";
  while (text.size() < 64 * 1024 - 64) {
    text += "<ITEM><SEV>2</SEV><TEXT>Block@2012@20read@20again</TEXT></ITEM>";
  }
  text += "</DATA></MSG>\r\n";
  return text;
}

// Finds `path` in `text` once per iteration into a reused string.
void findField(benchmark::State& state, const char* text, const char* path) {
  CGenStr out;
  if (!CGenStrInit(&out)) abort();
  for (auto _ : state) {
    int rc = ZorvXmlGetFieldStr(text, path, 0, &out);
    benchmark::DoNotOptimize(rc);
    if (rc != 0) state.SkipWithError("field not found");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(strlen(text)));
  CGenStrDelete(&out);
}

void BM_BuildNlsCommand(benchmark::State& state) {
  CGenStr out;
  if (!CGenStrInit(&out)) abort();
  for (auto _ : state) {
    int rc =
        ZorvClientCreateNlsEngineCommandStr("NLS_REGMOD:1234:mymod.nls", &out);
    benchmark::DoNotOptimize(rc);
  }
  CGenStrDelete(&out);
}
BENCHMARK(BM_BuildNlsCommand);

void BM_FindTypeTypical(benchmark::State& state) {
  findField(state, kTypical, "MSG/HDR/TYPE");
}
BENCHMARK(BM_FindTypeTypical);

void BM_FindDataTypical(benchmark::State& state) {
  findField(state, kTypical, "MSG/DATA");
}
BENCHMARK(BM_FindDataTypical);

void BM_FindType64KiB(benchmark::State& state) {
  static const std::string text = largeMessage();
  findField(state, text.c_str(), "MSG/HDR/TYPE");
}
BENCHMARK(BM_FindType64KiB);

void BM_FindData64KiB(benchmark::State& state) {
  static const std::string text = largeMessage();
  findField(state, text.c_str(), "MSG/DATA");
}
BENCHMARK(BM_FindData64KiB);

void BM_Escape1KiB(benchmark::State& state) {
  std::string text;
  while (text.size() < 1024) text += "Drive 0: <sense> 70/05 & \"retry\"; ";
  text.resize(1024);
  for (auto _ : state) {
    char* escaped = ZorvXmlAllocStringAndConvertToXml(&text[0]);
    benchmark::DoNotOptimize(escaped);
    if (escaped != &text[0]) free(escaped);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 1024);
}
BENCHMARK(BM_Escape1KiB);

}  // namespace
