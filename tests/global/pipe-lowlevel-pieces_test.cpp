// Tests of the piece framing of the FIFO pipe layer: the header builder,
// finder and parser, and the reader's handling of cut, interleaved, damaged
// and hostile input. Reads come from a scripted read() in the system-call
// table, so every cut of a stream can be tried without FIFOs.
#include <errno.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "global/pipe-lowlevel_p.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"

namespace {

using zorvtest::Framed;
using zorvtest::ReadFile;
using zorvtest::ScopedPipeSyscalls;
using zorvtest::WireFor;
using zorvtest::WireMessage;

const std::string kStart("|\x01\x01\x01", 4);
const std::string kEnd("\x01\x01\x01|", 4);

// ---- Scripted reads ---------------------------------------------------------

// Parts that the fake read() hands out one per call (at most `size` bytes
// of a part; the rest stays for the next call); EAGAIN when none is left.
std::deque<std::string> gScript;
ssize_t scriptedRead(int, void* buffer, size_t size) {
  if (gScript.empty()) {
    errno = EAGAIN;
    return -1;
  }
  std::string& part = gScript.front();
  size_t n = part.size() < size ? part.size() : size;
  memcpy(buffer, part.data(), n);
  part.erase(0, n);
  if (part.empty()) gScript.pop_front();
  return static_cast<ssize_t>(n);
}

// Feeds `parts` to the reader of descriptor `fd` and returns what
// ZorvPipeRead hands out.
std::string readThrough(int32_t fd, std::vector<std::string> parts) {
  gScript.assign(parts.begin(), parts.end());
  char* buffer = nullptr;
  int32_t n = ZorvPipeRead(fd, &buffer);
  std::string out = n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  free(buffer);
  return out;
}

// Read-queue elements, copied under lock 3.
struct ReadCopy {
  ZorvPipeQueElement element;
  std::string data;
};
std::vector<ReadCopy> readQueCopy() {
  std::vector<ReadCopy> out;
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 1);
  const CGenList* pList = ZorvPipe_I_ReadQue();
  CGenListIter it;
  for (CGenListIterInit(&it, pList); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    auto* p = static_cast<ZorvPipeQueElement*>(CGenListIterGetData(it));
    out.push_back({*p, std::string(p->pData, p->nData)});
  }
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 0);
  return out;
}

// Takes one chunk under lock 3; returns the bytes done with.
uint32_t takeChunk(int32_t fd, const std::string& chunk, ZorvPipeTake* take) {
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 1);
  uint32_t done = ZorvPipe_I_TakeChunk(
      fd, chunk.data(), static_cast<uint32_t>(chunk.size()), take);
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 0);
  return done;
}

// Bytes of a pattern that shows misplaced data.
std::string patterned(size_t length, char salt = 0) {
  std::string s(length, ' ');
  for (size_t i = 0; i < length; ++i)
    s[i] = static_cast<char>('a' + (i * 11 + static_cast<size_t>(salt)) % 26);
  return s;
}

// Initialises the layer and scripts read() while in scope.
class ScriptedReader {
 public:
  ScriptedReader() {
    ZorvInitPipes();
    gScript.clear();
    zorvPipeSyscalls.pfnRead = scriptedRead;
  }

 private:
  ScopedPipeSyscalls scoped_;
};

}  // namespace

// ---- MakeDelimiterStr -------------------------------------------------------

// second and last piece, 980 bytes, message 12 (5000 bytes) of process 4711
// -> "|" 1 1 1 "H:12:4711:2:2:980:5000:" 1 1 1 "|"
TEST(MakeDelimiterStr, BuildsExampleHeaderByteForByte) {
  char buffer[ZORV_PIPE_HEADER_BUFFER];
  int32_t n =
      MakeDelimiterStr(buffer, sizeof buffer, 0, 12, 4711, 2, 2, 980, 5000);
  std::string expected = std::string("|\x01\x01\x01") +
                         "H:12:4711:2:2:980:5000:" + "\x01\x01\x01|";
  ASSERT_EQ(static_cast<int32_t>(expected.size()), n);
  EXPECT_EQ(expected, std::string(buffer, static_cast<size_t>(n)));
  EXPECT_EQ('\0', buffer[n]);
}

// kind 1 -> "F"; kinds 2 and -1 -> no letter
TEST(MakeDelimiterStr, WritesKindLetterOnlyForZeroAndOne) {
  struct Row {
    const char* name;
    int32_t kind;
    const char* body;
  };
  const Row rows[] = {{"kind 0", 0, "H:1:2:1:1:3:3:"},
                      {"kind 1", 1, "F:1:2:1:1:3:3:"},
                      {"kind 2", 2, ":1:2:1:1:3:3:"},
                      {"kind -1", -1, ":1:2:1:1:3:3:"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char buffer[ZORV_PIPE_HEADER_BUFFER];
    int32_t n =
        MakeDelimiterStr(buffer, sizeof buffer, row.kind, 1, 2, 1, 1, 3, 3);
    EXPECT_EQ(Framed(row.body), std::string(buffer, static_cast<size_t>(n)));
  }
}

// largest numbers -> still fits the 96-byte buffer; a 20-byte one -> 0
TEST(MakeDelimiterStr, ReportsHeaderThatDoesNotFit) {
  char buffer[ZORV_PIPE_HEADER_BUFFER];
  int32_t n = MakeDelimiterStr(buffer, sizeof buffer, 0, 4294967295u,
                               -2147483647 - 1, -2147483647 - 1,
                               -2147483647 - 1, 4294967295u, 4294967295u);
  EXPECT_GT(n, 0);
  char small[20];
  EXPECT_EQ(
      0, MakeDelimiterStr(small, sizeof small, 0, 12, 4711, 2, 2, 980, 5000));
  EXPECT_EQ('\0', small[0]);
}

// edge and random numbers -> the same bytes as "%lu:%i:%i:%i:%lu:%lu:"
TEST(MakeDelimiterStr, WritesNumbersAsPrintfDoes) {
  std::vector<uint32_t> values = {0u,          1u,         9u,     10u,
                                  99u,         4020u,      65535u, 2147483647u,
                                  2147483648u, 4294967295u};
  std::mt19937 random(7u);
  for (int i = 0; i < 2000; ++i) values.push_back(random());
  for (size_t i = 0; i < values.size(); ++i) {
    uint32_t u = values[i];
    uint32_t v = values[(i * 7 + 3) % values.size()];
    int32_t asSigned = static_cast<int32_t>(u);
    int32_t other = static_cast<int32_t>(v);
    int32_t negated = static_cast<int32_t>(0u - u);
    char expected[160];
    snprintf(expected, sizeof expected, "%s%s:%lu:%i:%i:%i:%lu:%lu:%s",
             "|\x01\x01\x01", "H", static_cast<unsigned long>(u), asSigned,
             other, negated, static_cast<unsigned long>(v),
             static_cast<unsigned long>(u), "\x01\x01\x01|");
    char buffer[ZORV_PIPE_HEADER_BUFFER];
    int32_t n = MakeDelimiterStr(buffer, sizeof buffer, 0, u, asSigned, other,
                                 negated, v, u);
    ASSERT_EQ(std::string(expected), std::string(buffer, n > 0 ? n : 0))
        << u << " " << v;
  }
}

// ---- FindDelimiter ----------------------------------------------------------

// marks in various places -> found, none, no end within 64, cut
TEST(FindDelimiter, LocatesHeaderWithinSixtyFourBytes) {
  struct Row {
    const char* name;
    std::string text;
    int32_t result;
    uint32_t start;
    uint32_t end;
  };
  std::string body55(55, 'x');
  std::string body56(56, 'x');
  const Row rows[] = {
      {"plain header", Framed("H:1:2:1:1:3:3:") + "abc", 0, 0, 22},
      {"after garbage", "zz" + Framed("H:1:2:1:1:3:3:"), 0, 2, 24},
      {"no start mark", "no marks here", 1, 0, 0},
      {"end mark only", kEnd + "abc", 1, 0, 0},
      {"end mark before start mark counts not",
       kEnd + kStart + "H:1:2:1:1:3:3:" + std::string(60, 'y'), 2, 4, 0},
      {"header of 63 bytes", Framed(body55) + "d", 0, 0, 63},
      {"header of 64 bytes", Framed(body56) + "d", 2, 0, 0},
      {"start mark near the end", "ab" + kStart + "H:1:2", 3, 2, 0},
      {"start mark alone", kStart, 3, 0, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    uint32_t start = 999;
    uint32_t end = 999;
    int32_t rc = FindDelimiter(
        row.text.data(), static_cast<uint32_t>(row.text.size()), &start, &end);
    EXPECT_EQ(row.result, rc);
    if (rc != 1) {
      EXPECT_EQ(row.start, start);
    }
    if (rc == 0) {
      EXPECT_EQ(row.end, end);
    }
  }
}

// ---- ParseDelimStr ----------------------------------------------------------

// well-formed and broken headers -> 1 with the numbers, or 0
TEST(ParseDelimStr, ReadsKindAndSixNumbers) {
  struct Row {
    const char* name;
    std::string header;
    int32_t ok;
    char kind;
    uint32_t numbers[6];
  };
  const Row rows[] = {
      {"example",
       Framed("H:12:4711:2:2:980:5000:"),
       1,
       'H',
       {12, 4711, 2, 2, 980, 5000}},
      {"kind F", Framed("F:1:2:1:1:3:3:"), 1, 'F', {1, 2, 1, 1, 3, 3}},
      {"letter at the sixth byte",
       Framed("xH:1:2:1:1:3:3:"),
       1,
       'H',
       {1, 2, 1, 1, 3, 3}},
      {"letter at the seventh byte",
       Framed("xyH:1:2:1:1:3:3:"),
       1,
       'H',
       {1, 2, 1, 1, 3, 3}},
      {"letter at the eighth byte", Framed("xyzH:1:2:1:1:3:3:"), 0, 0, {}},
      {"no letter", Framed(":1:2:1:1:3:3:"), 0, 0, {}},
      {"other letter", Framed("G:1:2:1:1:3:3:"), 0, 0, {}},
      {"largest numbers",
       Framed("H:4294967295:4294967295:1:1:1:1:"),
       1,
       'H',
       {4294967295u, 4294967295u, 1, 1, 1, 1}},
      {"number above 32 bits", Framed("H:4294967296:2:1:1:3:3:"), 0, 0, {}},
      {"eleven digits", Framed("H:00000000001:2:1:1:3:3:"), 0, 0, {}},
      {"ten digits with zeros",
       Framed("H:0000000001:2:1:1:3:3:"),
       1,
       'H',
       {1, 2, 1, 1, 3, 3}},
      {"negative number", Framed("H:1:-2:1:1:3:3:"), 0, 0, {}},
      {"five numbers", Framed("H:1:2:1:1:3:"), 0, 0, {}},
      {"seven numbers", Framed("H:1:2:1:1:3:3:4:"), 0, 0, {}},
      {"empty number", Framed("H:1::1:1:3:3:"), 0, 0, {}},
      {"no colon after letter", Framed("H1:2:1:1:3:3:"), 0, 0, {}},
      {"other separator", Framed("H:1;2:1:1:3:3:"), 0, 0, {}},
      {"last colon missing", Framed("H:1:2:1:1:3:3"), 0, 0, {}},
      {"no end mark", kStart + "H:1:2:1:1:3:3:", 0, 0, {}},
      {"marks only", kStart + kEnd, 0, 0, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ZorvPipePieceHeader header;
    memset(&header, 0, sizeof header);
    int32_t ok = ParseDelimStr(
        row.header.data(), static_cast<uint32_t>(row.header.size()), &header);
    EXPECT_EQ(row.ok, ok);
    if (ok != 1) continue;
    EXPECT_EQ(row.kind, header.kind);
    uint32_t got[6] = {header.messageSerial, header.senderPid,
                       header.pieceNumber,   header.pieceCount,
                       header.pieceLength,   header.totalLength};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(row.numbers[i], got[i]) << i;
  }
}

// ---- Handling of pieces -----------------------------------------------------

// a hostile or broken piece between good ones -> refused, traced, its
// message dropped, the next valid message still comes out
TEST(ZorvPipeReadQue, RefusesBadPiecesAndGoesOnWithNextValidOne) {
  ScriptedReader scripted;
  struct Row {
    const char* name;
    std::string bad;
    std::string trace;
  };
  std::string big(4020, 'b');
  const Row rows[] = {
      {"piece longer than 4020", WireFor(1, 100, 1, 2, 8041, big + "x"),
       "is too long: refused"},
      {"total above 16 MiB", WireFor(1, 100, 1, 4175, 16777217, big),
       "is too large: refused"},
      {"piece number 0", WireFor(1, 100, 0, 1, 2, "ab"),
       "piece 0 of 1 does not exist: refused"},
      {"piece number above count", WireFor(1, 100, 2, 1, 2, "ab"),
       "piece 2 of 1 does not exist: refused"},
      {"count not matching total", WireFor(1, 100, 1, 2, 5, "abcde"),
       "2 pieces do not make 5 bytes: refused"},
      {"total of 0", WireFor(1, 100, 1, 1, 0, ""),
       "1 pieces do not make 0 bytes: refused"},
      {"length not matching piece", WireFor(1, 100, 1, 2, 4021, "abc"),
       "piece 1 has 3 bytes, not 4020: refused"},
      {"number overflowing 32 bits", Framed("H:1:100:1:1:2:4294967298:") + "ab",
       "unreadable piece header skipped"},
      {"number of 30 digits",
       Framed("H:1:100:1:1:2:" + std::string(30, '9') + ":") + "ab",
       "unreadable piece header skipped"},
      {"header without end mark within 64 bytes",
       kStart + "H:1:100:1:1:2:2:" + std::string(60, 'x') + kEnd + "ab",
       "piece header without end mark skipped"},
      {"piece of unknown message", WireFor(7, 100, 2, 2, 4021, "z"),
       "piece 2 of unknown message 7 of process 100: dropped"},
      {"garbage", "garbage that is no piece at all",
       "bytes without a piece header skipped"},
      {"end mark without start mark", kEnd + "abc",
       "bytes without a piece header skipped"},
      {"no kind letter", Framed(":1:100:1:1:2:2:") + "ab",
       "unreadable piece header skipped"},
  };
  int32_t fd = 1000;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ++fd;
    std::string good = WireMessage(2, 100, "valid");
    EXPECT_EQ("valid", readThrough(fd, {row.bad + good}));
    EXPECT_EQ(0u, ZorvPipe_I_CarriedBytes(fd));
  }
  EXPECT_TRUE(readQueCopy().empty());
}

// bad pieces with the trace on -> the reason of each refusal is traced
TEST(ZorvPipeReadQue, TracesWhyPiecesAreRefused) {
  std::string tracePath = zorvtest::TracePipeToFile();
  ScriptedReader scripted;
  struct Row {
    const char* name;
    std::string bad;
    const char* trace;
  };
  std::string big(4020, 'b');
  const Row rows[] = {
      {"too long", WireFor(1, 100, 1, 2, 8041, big + "x"),
       "ZorvPipeReadQue() piece of 4021 bytes is too long: refused\n"},
      {"too large", WireFor(1, 100, 1, 4175, 16777217, big),
       "ZorvPipeReadQue() message of 16777217 bytes is too large: refused\n"},
      {"bad number", WireFor(1, 100, 3, 2, 8000, "ab"),
       "ZorvPipeReadQue() piece 3 of 2 does not exist: refused\n"},
      {"bad count", WireFor(1, 100, 1, 3, 5, "abcde"),
       "ZorvPipeReadQue() 3 pieces do not make 5 bytes: refused\n"},
      {"bad length", WireFor(1, 100, 1, 2, 4021, "abc"),
       "ZorvPipeReadQue() piece 1 has 3 bytes, not 4020: refused\n"},
      {"overflow", Framed("H:1:100:1:1:2:4294967298:") + "ab",
       "ZorvPipeReadQue() unreadable piece header skipped\n"},
      {"no end mark", kStart + "H:1:100:1:1:2:2:" + std::string(60, 'x') + kEnd,
       "ZorvPipeReadQue() piece header without end mark skipped\n"},
      {"unknown message", WireFor(7, 100, 2, 2, 4021, "z"),
       "ZorvPipeReadQue() piece 2 of unknown message 7 of process 100: "
       "dropped\n"},
      {"garbage", "garbage",
       "ZorvPipeReadQue() 7 bytes without a piece header skipped\n"},
  };
  int32_t fd = 2000;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    zorvtest::WriteFile(tracePath, "");
    EXPECT_EQ("ok", readThrough(++fd, {row.bad + WireMessage(2, 100, "ok")}));
    std::string text = ReadFile(tracePath);
    EXPECT_NE(std::string::npos, text.find(row.trace)) << text;
  }
}

// piece 1 of 2 fine, piece 2 refused -> the message is dropped and its
// later piece counts as one of an unknown message
TEST(ZorvPipeReadQue, DropsMessageWhosePieceIsRefused) {
  ScriptedReader scripted;
  std::string a = patterned(4021);
  std::string stream = WireFor(1, 100, 1, 2, 4021, a.substr(0, 4020)) +
                       WireFor(1, 100, 2, 2, 4021, "zz") +  // 2 bytes, not 1
                       WireFor(1, 100, 2, 2, 4021, a.substr(4020)) +
                       WireMessage(2, 100, "after");
  EXPECT_EQ("after", readThrough(50, {stream}));
  EXPECT_TRUE(readQueCopy().empty());
}

// pieces 1 and 3 of 3 -> the message is dropped, nothing handed out
TEST(ZorvPipeReadQue, DropsMessageWithMissingPiece) {
  ScriptedReader scripted;
  std::string a = patterned(9000);
  std::string stream = WireFor(1, 100, 1, 3, 9000, a.substr(0, 4020)) +
                       WireFor(1, 100, 3, 3, 9000, a.substr(8040));
  EXPECT_EQ("", readThrough(51, {stream}));
  EXPECT_TRUE(readQueCopy().empty());
}

// the first piece of a message twice -> the message starts over
TEST(ZorvPipeReadQue, RestartsMessageWhenFirstPieceComesAgain) {
  ScriptedReader scripted;
  std::string x = patterned(4021, 1);
  std::string y = patterned(4021, 2);
  std::string stream = WireFor(1, 100, 1, 2, 4021, x.substr(0, 4020)) +
                       WireFor(1, 100, 1, 2, 4021, y.substr(0, 4020)) +
                       WireFor(1, 100, 2, 2, 4021, y.substr(4020));
  EXPECT_EQ(y, readThrough(52, {stream}));
  EXPECT_TRUE(readQueCopy().empty());
}

// a piece of kind "F" -> accepted like "H"
TEST(ZorvPipeReadQue, AcceptsKindF) {
  ScriptedReader scripted;
  EXPECT_EQ("ab", readThrough(53, {Framed("F:1:100:1:1:2:2:") + "ab"}));
}

// garbage between the pieces of a message -> skipped, message whole
TEST(ZorvPipeReadQue, SkipsGarbageBetweenPieces) {
  ScriptedReader scripted;
  std::string a = patterned(4021);
  std::string stream = "junk" + WireFor(1, 100, 1, 2, 4021, a.substr(0, 4020)) +
                       "more junk|" +
                       WireFor(1, 100, 2, 2, 4021, a.substr(4020));
  EXPECT_EQ(a, readThrough(54, {stream}));
}

// a start mark left without its header by a broken writer, right before
// another writer's piece -> that piece still arrives
TEST(ZorvPipeReadQue, StrayStartMarkDoesNotSwallowNextPiece) {
  ScriptedReader scripted;
  EXPECT_EQ("hello", readThrough(55, {kStart + WireMessage(1, 100, "hello")}));
  EXPECT_EQ("hello",
            readThrough(56, {kStart + "H:1:" + WireMessage(1, 100, "hello")}));
}

// the first of two pieces of A, then B whole; A's writer never sends the
// rest -> B waits behind A; once A has had no piece for 10 s it is given
// up (traced) and B comes out
TEST(ZorvPipeRead, GivesUpMessageWhoseRestNeverComes) {
  setenv("ZORV_TRACE", "pipe", 1);  // read at the first trace call
  zorvtest::ScopedFakeClock clock(1000000, 0);
  ScriptedReader scripted;
  std::string a = patterned(4021, 1);
  std::string stream =
      WireFor(1, 100, 1, 2, 4021, a.substr(0, 4020)) + WireMessage(1, 200, "B");
  EXPECT_EQ("", readThrough(57, {stream}));
  zorvtest::ScopedFakeClock::Set(1000009, 0);  // 9 s later: still waiting
  EXPECT_EQ("", readThrough(57, {}));
  zorvtest::FdCapture capture(2);
  capture.Start();
  zorvtest::ScopedFakeClock::Set(1000010, 0);  // 10 s: given up
  EXPECT_EQ("B", readThrough(57, {}));
  std::string trace = capture.Stop();
  EXPECT_NE(std::string::npos,
            trace.find("ZorvPipeRead() message 1 of process 100 incomplete "
                       "for 10000 ms: dropped\n"))
      << trace;
  EXPECT_TRUE(readQueCopy().empty());
}

// a message whose pieces keep coming is never given up, however long it
// takes as a whole
TEST(ZorvPipeRead, KeepsMessageWhosePiecesKeepComing) {
  zorvtest::ScopedFakeClock clock(1000000, 0);
  ScriptedReader scripted;
  std::string a = patterned(12060, 3);
  EXPECT_EQ("",
            readThrough(58, {WireFor(1, 100, 1, 3, 12060, a.substr(0, 4020))}));
  zorvtest::ScopedFakeClock::Set(1000008, 0);
  EXPECT_EQ("", readThrough(
                    58, {WireFor(1, 100, 2, 3, 12060, a.substr(4020, 4020))}));
  zorvtest::ScopedFakeClock::Set(1000016, 0);
  EXPECT_EQ(a, readThrough(58, {WireFor(1, 100, 3, 3, 12060, a.substr(8040))}));
}

// piece 2 of an unknown message then a whole message in one drain -> the
// message is taken in, but the count of bytes taken stops at the orphan
TEST(ZorvPipeReadQue, StopsCountingAfterPieceOfUnknownMessage) {
  ScriptedReader scripted;
  std::string stream =
      WireFor(9, 100, 2, 2, 4021, "q") + WireMessage(1, 100, "counted?");
  ZorvPipeTake take = {0, 0, nullptr};
  EXPECT_EQ(stream.size(), takeChunk(55, stream, &take));
  EXPECT_EQ(0u, take.nTaken);
  EXPECT_EQ(1, take.bCountStopped);
  std::vector<ReadCopy> queue = readQueCopy();
  ASSERT_EQ(1u, queue.size());
  EXPECT_EQ("counted?", queue[0].data);
  // and before the orphan the count runs
  ZorvPipeTake take2 = {0, 0, nullptr};
  std::string before =
      WireMessage(2, 100, "12345") + WireFor(9, 100, 2, 2, 4021, "q");
  takeChunk(56, before, &take2);
  EXPECT_EQ(5u, take2.nTaken);
}

// a read-side element after piece 2 of 3 -> numbers as put together so far
TEST(ZorvPipeReadQue, FillsReadElementWithProgress) {
  ScriptedReader scripted;
  std::string a = patterned(9000);
  std::string stream = WireFor(4, 321, 1, 3, 9000, a.substr(0, 4020)) +
                       WireFor(4, 321, 2, 3, 9000, a.substr(4020, 4020));
  EXPECT_EQ("", readThrough(57, {stream}));
  std::vector<ReadCopy> queue = readQueCopy();
  ASSERT_EQ(1u, queue.size());
  const ZorvPipeQueElement& e = queue[0].element;
  EXPECT_EQ(4u, e.messageSerial);
  EXPECT_EQ(321u, e.senderPid);
  EXPECT_EQ(2u, e.pieceNumber);
  EXPECT_EQ(3u, e.pieceCount);
  EXPECT_EQ(8040u, e.pieceLength);
  EXPECT_EQ(9000u, e.totalLength);
  EXPECT_EQ(57, e.descriptor);
  EXPECT_EQ(8040u, e.nData);
  EXPECT_EQ(a.substr(0, 8040), queue[0].data);
}

// a first piece claiming 16 MiB -> the buffer holds what came, not 16 MiB
TEST(ZorvPipeReadQue, DoesNotReserveClaimedTotalUpFront) {
  ScriptedReader scripted;
  uint32_t total = 16u * 1024u * 1024u;
  uint32_t count = (total + 4019) / 4020;
  EXPECT_EQ("", readThrough(58, {WireFor(1, 100, 1, count, total,
                                         std::string(4020, 'c'))}));
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 1);
  CGenListIter it;
  CGenListIterInit(&it, ZorvPipe_I_ReadQue());
  ASSERT_FALSE(CGenListIterAtEnd(it));
  auto* p = static_cast<ZorvPipeQueElement*>(CGenListIterGetData(it));
  size_t reserved = malloc_usable_size(p->pData);
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 0);
  EXPECT_LT(reserved, 1024u * 1024u);
}

// ---- Cut reads --------------------------------------------------------------

// a stream of three messages (one of two pieces) cut at every byte, the
// two parts read by two separate drains -> all three whole, in order
TEST(ZorvPipeReadQue, ReassemblesStreamCutAtEveryByte) {
  ScriptedReader scripted;
  std::string a = patterned(4021, 1);
  std::string b = "short";
  std::string c = patterned(50, 3);
  std::string stream =
      WireMessage(1, 100, a) + WireMessage(2, 100, b) + WireMessage(1, 200, c);
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    std::string out = readThrough(60, {stream.substr(0, cut)});
    out += readThrough(60, {stream.substr(cut)});
    ASSERT_EQ(a + b + c, out);
    ASSERT_EQ(0u, ZorvPipe_I_CarriedBytes(60));
  }
  EXPECT_TRUE(readQueCopy().empty());
}

// one drain of a stream longer than a read: the 4096-byte read boundary
// falls at every offset of the pieces (shifted by a garbage prefix) -> the
// piece cut by it is completed by the next read of the same drain
TEST(ZorvPipeReadQue, ReassemblesPieceCutByReadBoundaryWithinOneDrain) {
  ScriptedReader scripted;
  std::string a = patterned(4021, 1);
  std::string stream = WireMessage(1, 100, a) + WireMessage(2, 100, "end");
  for (size_t prefix = 0; prefix < stream.size(); ++prefix) {
    SCOPED_TRACE(prefix);
    ASSERT_EQ(a + "end", readThrough(61, {std::string(prefix, '#') + stream}));
    ASSERT_EQ(0u, ZorvPipe_I_CarriedBytes(61));
  }
}

// a read shorter than 4096 bytes -> the drain stops there: the FIFO was
// empty; what came after is taken by the next drain
TEST(ZorvPipeReadQue, StopsDrainAfterShortRead) {
  ScriptedReader scripted;
  std::string first = WireMessage(1, 100, "one");
  std::string second = WireMessage(2, 100, "two");
  EXPECT_EQ("one", readThrough(63, {first, second}));
  EXPECT_EQ(1u, gScript.size());
  EXPECT_EQ("two", readThrough(63, {second}));
}

// a start mark cut after 1, 2 and 3 bytes -> kept and completed
TEST(ZorvPipeReadQue, KeepsPartialStartMarkForNextRead) {
  ScriptedReader scripted;
  std::string stream = "xx" + WireMessage(1, 100, "marked");
  for (size_t cut = 3; cut <= 5; ++cut) {
    SCOPED_TRACE(cut);
    EXPECT_EQ("", readThrough(62, {stream.substr(0, cut)}));
    EXPECT_EQ(cut - 2, ZorvPipe_I_CarriedBytes(62));
    EXPECT_EQ("marked", readThrough(62, {stream.substr(cut)}));
  }
}

// random streams: valid messages of random sizes from three senders with
// random garbage between pieces, cut into random reads -> every message
// whole and in order
TEST(ZorvPipeReadQue, SurvivesRandomCutsAndGarbage) {
  ScriptedReader scripted;
  std::mt19937 random(20240611u);
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    std::string stream;
    std::string expected;
    for (int m = 0; m < 6; ++m) {
      size_t length = 1 + random() % 9000;
      std::string message = patterned(length, static_cast<char>(m + round));
      expected += message;
      std::string wire =
          WireMessage(static_cast<unsigned long>(m + 1), 100 + m % 3, message);
      // garbage without 0x01 bytes cannot form a mark
      std::string junk(random() % 20, '#');
      for (char& ch : junk) ch = static_cast<char>(0x20 + random() % 0x5f);
      stream += junk + wire;
    }
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos < stream.size()) {
      size_t n = 1 + random() % 6000;
      parts.push_back(stream.substr(pos, n));
      pos += n;
    }
    std::string out;
    for (const std::string& part : parts) out += readThrough(70, {part});
    ASSERT_EQ(expected, out);
  }
}
