// Tests of the FIFO pipe layer: FIFO files, opening and closing, writing
// with its piece framing and room rule, reading, waiting, flushing, the
// read/write thread and its cycle. Real FIFOs in the test's pipe directory;
// failures of system calls through zorvPipeSyscalls.
#include "zorv2000/pipe-lowlevel.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "global/pipe-lowlevel_p.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/primitives.h"

namespace {

using zorvtest::Framed;
using zorvtest::MakeTestFifo;
using zorvtest::MonotonicMs;
using zorvtest::MonotonicUs;
using zorvtest::OpenRaw;
using zorvtest::ReadAtLeast;
using zorvtest::ReadAvailable;
using zorvtest::ReadFile;
using zorvtest::ScopedPipeSyscalls;
using zorvtest::SplitWire;
using zorvtest::WireFor;
using zorvtest::WireMessage;
using zorvtest::WirePiece;
using zorvtest::WriteAll;

// Entries of one of the layer's lists, read under the lock of its side;
// -1 when the lists do not exist.
int32_t countOf(uint32_t lock, const CGenList* (*view)(void)) {
  ZorvGrabMutex(__FILE__, __LINE__, __func__, lock, 1);
  const CGenList* pList = view();
  int32_t n = pList ? CGenListGetCount(pList) : -1;
  ZorvGrabMutex(__FILE__, __LINE__, __func__, lock, 0);
  return n;
}
int32_t readQueCount() { return countOf(3, ZorvPipe_I_ReadQue); }
int32_t writeQueCount() { return countOf(4, ZorvPipe_I_WriteQue); }
int32_t readFifoCount() { return countOf(3, ZorvPipe_I_ReadFifoList); }
int32_t writeFifoCount() { return countOf(4, ZorvPipe_I_WriteFifoList); }

// Copies of the FIFO records of a list, under its lock.
std::vector<ZorvPipeFifo> fifoRecords(uint32_t lock,
                                      const CGenList* (*view)(void)) {
  std::vector<ZorvPipeFifo> out;
  ZorvGrabMutex(__FILE__, __LINE__, __func__, lock, 1);
  const CGenList* pList = view();
  if (pList) {
    CGenListIter it;
    for (CGenListIterInit(&it, pList); !CGenListIterAtEnd(it);
         CGenListIterAdv(&it))
      out.push_back(*static_cast<ZorvPipeFifo*>(CGenListIterGetData(it)));
  }
  ZorvGrabMutex(__FILE__, __LINE__, __func__, lock, 0);
  return out;
}

// Copies of the write-queue elements (data as a string), under lock 4.
struct QueCopy {
  ZorvPipeQueElement element;
  std::string data;
};
std::vector<QueCopy> writeQueCopy() {
  std::vector<QueCopy> out;
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 4, 1);
  const CGenList* pList = ZorvPipe_I_WriteQue();
  if (pList) {
    CGenListIter it;
    for (CGenListIterInit(&it, pList); !CGenListIterAtEnd(it);
         CGenListIterAdv(&it)) {
      auto* p = static_cast<ZorvPipeQueElement*>(CGenListIterGetData(it));
      out.push_back({*p, std::string(p->pData, p->nData)});
    }
  }
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 4, 0);
  return out;
}

// A FIFO that the layer reads, with a raw writer for the test.
struct ReadSide {
  std::string path;
  int32_t fd = -1;
  int rawWriter = -1;
};
ReadSide openReadSide(const std::string& name) {
  ReadSide side;
  side.path = MakeTestFifo(name);
  side.fd = ZorvPipeOpen(side.path.c_str(), 0);
  side.rawWriter = OpenRaw(side.path, true);
  return side;
}

// A FIFO that the layer writes, with a raw reader for the test.
struct WriteSide {
  std::string path;
  int rawReader = -1;
  int32_t fd = -1;
};
WriteSide openWriteSide(const std::string& name) {
  WriteSide side;
  side.path = MakeTestFifo(name);
  side.rawReader = OpenRaw(side.path, false);
  side.fd = ZorvPipeOpen(side.path.c_str(), 1);
  return side;
}

// Bytes waiting in a FIFO.
int bytesInFifo(int fd) {
  int n = -1;
  ioctl(fd, FIONREAD, &n);
  return n;
}

// A message of `length` bytes with a pattern that shows misplaced bytes.
std::string patterned(size_t length, char salt = 0) {
  std::string s(length, ' ');
  for (size_t i = 0; i < length; ++i)
    s[i] = static_cast<char>('A' + (i * 7 + static_cast<size_t>(salt)) % 26);
  return s;
}

// Runs thread cycles and collects what the FIFO receives until the write
// queue is empty (or 10 s passed); returns the raw stream.
std::string pumpWrites(int rawReader) {
  std::string stream;
  int64_t deadline = MonotonicMs() + 10000;
  for (;;) {
    stream += ReadAvailable(rawReader);
    if (writeQueCount() == 0 || MonotonicMs() > deadline) break;
    ZorvServicePipes();
  }
  stream += ReadAvailable(rawReader);
  return stream;
}

// The read queue holds `n` elements within 5 s.
bool waitForReadQue(int32_t n) {
  int64_t deadline = MonotonicMs() + 5000;
  while (readQueCount() != n) {
    if (MonotonicMs() > deadline) return false;
    usleep(1000);
  }
  return true;
}

// True when `fd` is an open descriptor.
bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// ---- Fakes for the system-call table ---------------------------------------

int gFakeInPipe = 0;
int fakeIoctlFull(int, unsigned long, int* pValue) {
  *pValue = gFakeInPipe;
  return 0;
}

int fakeFstatFails(int, struct stat*) {
  errno = EBADF;
  return -1;
}

ssize_t fakeWriteEagain(int, const void*, size_t) {
  errno = EAGAIN;
  return -1;
}

ssize_t fakeWriteEpipe(int, const void*, size_t) {
  errno = EPIPE;
  return -1;
}

int gShortWrites = 0;
ssize_t fakeWriteHalfOnce(int fd, const void* buffer, size_t size) {
  if (gShortWrites == 0) {
    ++gShortWrites;
    return ScopedPipeSyscalls::Saved().pfnWrite(fd, buffer, size / 2);
  }
  return ScopedPipeSyscalls::Saved().pfnWrite(fd, buffer, size);
}

}  // namespace

// ---- ZorvPipeMkFifo, ZorvPipeUMask, ZorvPipeUnLink --------------------------

// new path -> a FIFO with mode 0660 (umask 0), returns 0
TEST(ZorvPipeMkFifo, CreatesFifoWithMode0660) {
  uint32_t old = ZorvPipeUMask(0);
  std::string path = zorvtest::FifoPath("made");
  EXPECT_EQ(0, ZorvPipeMkFifo(path.c_str()));
  ZorvPipeUMask(old);
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(0660u, st.st_mode & 0777u);
}

// existing FIFO -> 0
TEST(ZorvPipeMkFifo, ReturnsZeroWhenFifoExists) {
  std::string path = MakeTestFifo("there");
  EXPECT_EQ(0, ZorvPipeMkFifo(path.c_str()));
}

// existing regular file -> -1
TEST(ZorvPipeMkFifo, ReturnsMinusOneWhenOtherFileExists) {
  std::string path = zorvtest::FifoPath("plain");
  ASSERT_TRUE(zorvtest::WriteFile(path, "x"));
  EXPECT_EQ(-1, ZorvPipeMkFifo(path.c_str()));
}

// missing directory -> -1
TEST(ZorvPipeMkFifo, ReturnsMinusOneForMissingDirectory) {
  std::string path = zorvtest::FifoPath("no/such/dir/fifo");
  EXPECT_EQ(-1, ZorvPipeMkFifo(path.c_str()));
}

// umask 027 then 0 -> the second call returns 027
TEST(ZorvPipeUMask, ReturnsPreviousMask) {
  uint32_t original = ZorvPipeUMask(027);
  EXPECT_EQ(027u, ZorvPipeUMask(0));
  ZorvPipeUMask(original);
}

// existing FIFO -> removed, 0; missing -> -1
TEST(ZorvPipeUnLink, RemovesFileAndReportsMissingOne) {
  std::string path = MakeTestFifo("gone");
  EXPECT_EQ(0, ZorvPipeUnLink(path.c_str()));
  EXPECT_NE(0, access(path.c_str(), F_OK));
  EXPECT_EQ(-1, ZorvPipeUnLink(path.c_str()));
}

// ---- ZorvInitPipes, ZorvCleanupPipes ----------------------------------------

// before: no lists; after: four empty lists
TEST(ZorvInitPipes, CreatesFourEmptyLists) {
  EXPECT_EQ(nullptr, ZorvPipe_I_ReadQue());
  ZorvInitPipes();
  EXPECT_EQ(0, readFifoCount());
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_EQ(0, readQueCount());
  EXPECT_EQ(0, writeQueCount());
}

// second call -> the open FIFO stays registered
TEST(ZorvInitPipes, SecondCallKeepsContents) {
  ZorvInitPipes();
  ReadSide side = openReadSide("keep");
  ASSERT_GE(side.fd, 0);
  ZorvInitPipes();
  EXPECT_EQ(1, readFifoCount());
}

// init, cleanup, init -> still no lists: stopping is final
TEST(ZorvInitPipes, DoesNotRecreateListsAfterCleanup) {
  ZorvInitPipes();
  ZorvCleanupPipes();
  ZorvInitPipes();
  EXPECT_EQ(nullptr, ZorvPipe_I_ReadQue());
  EXPECT_EQ(-1, ZorvPipeOpen(MakeTestFifo("late").c_str(), 0));
}

// two calls -> two "ZorvInitPipes()" lines
TEST(ZorvInitPipes, TracesEveryCall) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ZorvInitPipes();
  std::string text = ReadFile(trace);
  size_t first = text.find("ZorvInitPipes()\n");
  ASSERT_NE(std::string::npos, first);
  EXPECT_NE(std::string::npos, text.find("ZorvInitPipes()\n", first + 1));
}

// cleanup -> lists gone, descriptors still open, calls refused
TEST(ZorvCleanupPipes, DestroysListsAndKeepsDescriptorsOpen) {
  ZorvInitPipes();
  ReadSide reader = openReadSide("cr");
  WriteSide writer = openWriteSide("cw");
  ASSERT_TRUE(WriteAll(reader.rawWriter, WireMessage(1, 5, "queued")));
  ZorvServicePipes();
  ASSERT_EQ(1, readQueCount());
  ZorvCleanupPipes();
  EXPECT_EQ(nullptr, ZorvPipe_I_ReadFifoList());
  EXPECT_EQ(nullptr, ZorvPipe_I_WriteQue());
  EXPECT_TRUE(isOpen(reader.fd));
  EXPECT_TRUE(isOpen(writer.fd));
  EXPECT_EQ(-1, ZorvPipeWrite(writer.fd, "x", 1));
  char* buffer = reinterpret_cast<char*>(1);
  EXPECT_EQ(0, ZorvPipeRead(reader.fd, &buffer));
  EXPECT_EQ(nullptr, buffer);
}

// ---- ZorvPipeOpen, ZorvPipeClose --------------------------------------------

// read open -> non-blocking descriptor, record with path and counter 0
TEST(ZorvPipeOpen, RegistersNonBlockingReadFifo) {
  ZorvInitPipes();
  std::string path = MakeTestFifo("r");
  int32_t fd = ZorvPipeOpen(path.c_str(), 0);
  ASSERT_GE(fd, 0);
  EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(O_RDONLY, fcntl(fd, F_GETFL) & O_ACCMODE);
  std::vector<ZorvPipeFifo> records = fifoRecords(3, ZorvPipe_I_ReadFifoList);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(fd, records[0].descriptor);
  EXPECT_EQ(0, records[0].byteCount);
  EXPECT_EQ(path, records[0].szPath);
  EXPECT_EQ(0, writeFifoCount());
}

// write open with a reader present -> write-only record in the write list
TEST(ZorvPipeOpen, RegistersWriteFifo) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("w");
  ASSERT_GE(side.fd, 0);
  EXPECT_EQ(O_WRONLY, fcntl(side.fd, F_GETFL) & O_ACCMODE);
  EXPECT_EQ(1, writeFifoCount());
  EXPECT_EQ(0, readFifoCount());
}

// missing path -> -1, and a record with descriptor -1 all the same
TEST(ZorvPipeOpen, RegistersRecordWhenOpenFails) {
  ZorvInitPipes();
  std::string path = zorvtest::FifoPath("missing");
  EXPECT_EQ(-1, ZorvPipeOpen(path.c_str(), 0));
  std::vector<ZorvPipeFifo> records = fifoRecords(3, ZorvPipe_I_ReadFifoList);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(-1, records[0].descriptor);
}

// write open of a FIFO without reader -> -1 (open fails), record -1
TEST(ZorvPipeOpen, FailsForWriteWithoutReader) {
  ZorvInitPipes();
  std::string path = MakeTestFifo("lonely");
  EXPECT_EQ(-1, ZorvPipeOpen(path.c_str(), 1));
  std::vector<ZorvPipeFifo> records = fifoRecords(4, ZorvPipe_I_WriteFifoList);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(-1, records[0].descriptor);
}

// a path of 100 characters -> its first 64 kept
TEST(ZorvPipeOpen, KeepsFirst64CharactersOfPath) {
  ZorvInitPipes();
  std::string path = "/nonexistent/" + std::string(100 - 13, 'p');
  ASSERT_EQ(100u, path.size());
  ZorvPipeOpen(path.c_str(), 0);
  std::vector<ZorvPipeFifo> records = fifoRecords(3, ZorvPipe_I_ReadFifoList);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(path.substr(0, 64), records[0].szPath);
}

// before ZorvInitPipes -> -1, nothing opened
TEST(ZorvPipeOpen, ReturnsMinusOneBeforeInit) {
  std::string path = MakeTestFifo("early");
  int before = zorvtest::CountOpenDescriptors();
  EXPECT_EQ(-1, ZorvPipeOpen(path.c_str(), 0));
  EXPECT_EQ(before, zorvtest::CountOpenDescriptors());
}

// the descriptor of a write record comes back from open() -> the old record
// and its queued pieces are dropped first
TEST(ZorvPipeOpen, ReopenedDescriptorDropsOldRecordAndPieces) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("again");
  ASSERT_GE(side.fd, 0);
  ASSERT_TRUE(WriteAll(OpenRaw(side.path, true), std::string(200, 'f')));
  ASSERT_EQ(4000, ZorvPipeWrite(side.fd, patterned(4000).c_str(), 4000));
  ASSERT_EQ(1, writeQueCount());
  close(side.fd);  // behind the layer's back
  int32_t again = ZorvPipeOpen(side.path.c_str(), 1);
  ASSERT_EQ(side.fd, again);
  EXPECT_EQ(0, writeQueCount());
  EXPECT_EQ(1, writeFifoCount());
}

// read FIFO with a message queued -> closed, unregistered, message kept
TEST(ZorvPipeClose, ClosesReadFifoAndKeepsItsMessages) {
  ZorvInitPipes();
  ReadSide side = openReadSide("rc");
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 9, "kept")));
  ZorvServicePipes();
  ASSERT_EQ(1, readQueCount());
  EXPECT_EQ(0, ZorvPipeClose(side.fd));
  EXPECT_FALSE(isOpen(side.fd));
  EXPECT_EQ(0, readFifoCount());
  EXPECT_EQ(1, readQueCount());
}

// write FIFO with a queued piece -> closed, unregistered, piece dropped
TEST(ZorvPipeClose, ClosesWriteFifoAndDropsQueuedPieces) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("wc");
  ASSERT_TRUE(WriteAll(OpenRaw(side.path, true), std::string(200, 'f')));
  ASSERT_EQ(4000, ZorvPipeWrite(side.fd, patterned(4000).c_str(), 4000));
  ASSERT_EQ(1, writeQueCount());
  EXPECT_EQ(0, ZorvPipeClose(side.fd));
  EXPECT_FALSE(isOpen(side.fd));
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_EQ(0, writeQueCount());
}

// descriptor the layer does not know -> 0, left open
TEST(ZorvPipeClose, LeavesUnknownDescriptorOpen) {
  ZorvInitPipes();
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  EXPECT_EQ(0, ZorvPipeClose(fds[0]));
  EXPECT_TRUE(isOpen(fds[0]));
  close(fds[0]);
  close(fds[1]);
}

// ---- ZorvPipeWrite ----------------------------------------------------------

// descriptor never opened for writing (unknown, or open for reading) -> -1
TEST(ZorvPipeWrite, ReturnsMinusOneForDescriptorNotOpenForWriting) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ReadSide reader = openReadSide("notw");
  EXPECT_EQ(-1, ZorvPipeWrite(reader.fd, "abc", 3));
  EXPECT_EQ(-1, ZorvPipeWrite(99, "abc", 3));
  EXPECT_EQ(0, writeQueCount());
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find("ZorvPipeWrite() PIPE NOT OPEN\n"));
}

// length 0 -> 0, nothing queued or written
TEST(ZorvPipeWrite, ReturnsZeroForEmptyMessage) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("empty");
  EXPECT_EQ(0, ZorvPipeWrite(side.fd, "abc", 0));
  EXPECT_EQ(0, writeQueCount());
  EXPECT_EQ(0, bytesInFifo(side.rawReader));
}

// 16 MiB + 1 bytes -> 0, nothing queued
TEST(ZorvPipeWrite, RefusesMessageAbove16MiB) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("huge");
  std::vector<char> big(16u * 1024u * 1024u + 1u, 'h');
  EXPECT_EQ(
      0, ZorvPipeWrite(side.fd, big.data(), static_cast<uint32_t>(big.size())));
  EXPECT_EQ(0, writeQueCount());
  EXPECT_EQ(1, writeFifoCount());
}

// "hello" from process 4711 -> exactly "|" 1 1 1 "H:1:4711:1:1:5:5:" 1 1 1
// "|hello" in the FIFO at once, returns 5
TEST(ZorvPipeWrite, WritesFramedPieceAtOnceByteForByte) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("exact");
  zorvtest::ScopedFakePid fakePid(4711);
  EXPECT_EQ(5, ZorvPipeWrite(side.fd, "hello", 5));
  EXPECT_EQ(0, writeQueCount());
  std::string expected = std::string("|\x01\x01\x01") +
                         "H:1:4711:1:1:5:5:" + "\x01\x01\x01|" + "hello";
  EXPECT_EQ(expected, ReadAvailable(side.rawReader));
}

// two messages -> serials 1 and 2
TEST(ZorvPipeWrite, NumbersMessagesFromOne) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("serial");
  ASSERT_EQ(3, ZorvPipeWrite(side.fd, "one", 3));
  ASSERT_EQ(3, ZorvPipeWrite(side.fd, "two", 3));
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(ReadAvailable(side.rawReader), &pieces, &error))
      << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(1ul, pieces[0].serial);
  EXPECT_EQ(2ul, pieces[1].serial);
  EXPECT_EQ(static_cast<long>(getpid()), pieces[0].pid);
  EXPECT_EQ(2u, ZorvPipe_I_MessageSerial());
}

// 4020 -> one piece; 4021 -> 4020 + 1; 8040 -> 4020 + 4020; and others
TEST(ZorvPipeWrite, DividesMessagesIntoPiecesOf4020) {
  struct Row {
    const char* name;
    size_t length;
    std::vector<unsigned long> pieces;
  };
  const Row rows[] = {
      {"1 byte", 1, {1}},
      {"4019 bytes", 4019, {4019}},
      {"4020 bytes", 4020, {4020}},
      {"4021 bytes", 4021, {4020, 1}},
      {"8040 bytes", 8040, {4020, 4020}},
      {"8041 bytes", 8041, {4020, 4020, 1}},
      {"12100 bytes", 12100, {4020, 4020, 4020, 40}},
  };
  ZorvInitPipes();
  int iRow = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    WriteSide side = openWriteSide("div" + std::to_string(iRow++));
    std::string message = patterned(row.length, static_cast<char>(iRow));
    ASSERT_EQ(static_cast<int32_t>(row.length),
              ZorvPipeWrite(side.fd, message.data(),
                            static_cast<uint32_t>(message.size())));
    std::string stream = pumpWrites(side.rawReader);
    std::vector<WirePiece> pieces;
    std::string error;
    ASSERT_TRUE(SplitWire(stream, &pieces, &error)) << error;
    ASSERT_EQ(row.pieces.size(), pieces.size());
    std::string joined;
    for (size_t i = 0; i < pieces.size(); ++i) {
      EXPECT_EQ('H', pieces[i].kind);
      EXPECT_EQ(row.pieces[i], pieces[i].length);
      EXPECT_EQ(static_cast<long>(i + 1), pieces[i].number);
      EXPECT_EQ(static_cast<long>(row.pieces.size()), pieces[i].count);
      EXPECT_EQ(row.length, pieces[i].total);
      EXPECT_EQ(pieces[0].serial, pieces[i].serial);
      EXPECT_LT(pieces[i].header.size(), 64u);
      joined += pieces[i].data;
    }
    EXPECT_EQ(message, joined);
    ZorvPipeClose(side.fd);
    close(side.rawReader);
  }
}

// 8040 bytes into an empty FIFO -> first piece written at once, the second
// waits until the reader has taken the first
TEST(ZorvPipeWrite, WritesNextPieceOnlyWhenFifoHasRoom) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("room");
  std::string message = patterned(8040);
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, message.data(), 8040));
  EXPECT_EQ(1, writeQueCount());
  int inFifo = bytesInFifo(side.rawReader);
  EXPECT_GT(inFifo, 4020);
  EXPECT_LT(inFifo, 4020 + 64);
  ZorvServicePipes();  // no room yet
  EXPECT_EQ(1, writeQueCount());
  EXPECT_EQ(inFifo, bytesInFifo(side.rawReader));
  std::string stream = ReadAvailable(side.rawReader);
  ZorvServicePipes();
  EXPECT_EQ(0, writeQueCount());
  stream += ReadAvailable(side.rawReader);
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(stream, &pieces, &error)) << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(message, pieces[0].data + pieces[1].data);
}

// 100 bytes already in the FIFO (its status says size 0) and 4000 to write
// -> queued, length returned; written once the FIFO is read
TEST(ZorvPipeWrite, CountsBytesAlreadyInFifoForRoom) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("fill");
  ASSERT_TRUE(WriteAll(OpenRaw(side.path, true), std::string(100, 'f')));
  std::string message = patterned(4000);
  EXPECT_EQ(4000, ZorvPipeWrite(side.fd, message.data(), 4000));
  EXPECT_EQ(1, writeQueCount());
  EXPECT_EQ(std::string(100, 'f'), ReadAvailable(side.rawReader));
  ZorvServicePipes();
  EXPECT_EQ(0, writeQueCount());
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(ReadAvailable(side.rawReader), &pieces, &error))
      << error;
  ASSERT_EQ(1u, pieces.size());
  EXPECT_EQ(message, pieces[0].data);
}

// bytes in the FIFO reported as 4090 -> the room trace with need and fill
TEST(ZorvPipeWrite, TracesMissingRoom) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  WriteSide side = openWriteSide("notroom");
  zorvtest::ScopedFakePid fakePid(4711);
  ScopedPipeSyscalls scoped;
  gFakeInPipe = 4090;
  zorvPipeSyscalls.pfnIoctl = fakeIoctlFull;
  EXPECT_EQ(10, ZorvPipeWrite(side.fd, "0123456789", 10));
  EXPECT_EQ(1, writeQueCount());
  size_t need = Framed("H:1:4711:1:1:10:10:").size() + 10;
  std::string line =
      "ZorvPipeWrite: Write_Failed Not enough room in pipe need " +
      std::to_string(need) + ", pipe has 4090 in it RETURNING\n";
  std::string text = ReadFile(trace);
  EXPECT_NE(std::string::npos, text.find(line)) << text;
  EXPECT_NE(std::string::npos,
            text.find("ZorvPipeServiceWriteQue() Couldn't Write RETURN\n"));
}

// fstat fails -> traced, piece stays queued, length returned; sent later
TEST(ZorvPipeWrite, KeepsPieceQueuedWhenFifoStatusFails) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  WriteSide side = openWriteSide("nostat");
  {
    ScopedPipeSyscalls scoped;
    zorvPipeSyscalls.pfnFstat = fakeFstatFails;
    EXPECT_EQ(4, ZorvPipeWrite(side.fd, "stat", 4));
    EXPECT_EQ(1, writeQueCount());
  }
  EXPECT_NE(
      std::string::npos,
      ReadFile(trace).find("ZorvPipeWritePipe could not get stats for pipe\n"));
  EXPECT_EQ(0, bytesInFifo(side.rawReader));
  ZorvServicePipes();
  EXPECT_EQ(0, writeQueCount());
  EXPECT_GT(bytesInFifo(side.rawReader), 4);
}

// write() fails with EAGAIN -> piece stays queued, length returned
TEST(ZorvPipeWrite, KeepsPieceQueuedOnEagain) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("again");
  {
    ScopedPipeSyscalls scoped;
    zorvPipeSyscalls.pfnWrite = fakeWriteEagain;
    EXPECT_EQ(5, ZorvPipeWrite(side.fd, "later", 5));
    EXPECT_EQ(1, writeQueCount());
    EXPECT_EQ(1, writeFifoCount());
  }
  ZorvServicePipes();
  EXPECT_EQ(0, writeQueCount());
}

// write() comes back short -> the rest of that piece goes out first next
// time; the reader sees one whole piece
TEST(ZorvPipeWrite, FinishesShortWrittenPieceBeforeAnythingElse) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("short");
  std::string first = patterned(300, 1);
  std::string second = patterned(200, 2);
  {
    ScopedPipeSyscalls scoped;
    gShortWrites = 0;
    zorvPipeSyscalls.pfnWrite = fakeWriteHalfOnce;
    ASSERT_EQ(300, ZorvPipeWrite(side.fd, first.data(), 300));
    EXPECT_EQ(1, writeQueCount());
    ASSERT_EQ(200, ZorvPipeWrite(side.fd, second.data(), 200));
  }
  EXPECT_EQ(0, writeQueCount());
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(ReadAvailable(side.rawReader), &pieces, &error))
      << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(first, pieces[0].data);
  EXPECT_EQ(second, pieces[1].data);
}

// reader gone, SIGPIPE ignored -> 0, FIFO closed and out of the write list;
// the next write returns -1
TEST(ZorvPipeWrite, ReturnsZeroAndClosesFifoWhenReaderHasGone) {
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  WriteSide side = openWriteSide("gone");
  close(side.rawReader);
  EXPECT_EQ(0, ZorvPipeWrite(side.fd, "anyone?", 7));
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_EQ(0, writeQueCount());
  EXPECT_FALSE(isOpen(side.fd));
  EXPECT_EQ(-1, ZorvPipeWrite(side.fd, "anyone?", 7));
}

// write() fails with EPIPE -> traced, 0, FIFO closed
TEST(ZorvPipeWrite, TracesBrokenPipe) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  WriteSide side = openWriteSide("epipe");
  {
    ScopedPipeSyscalls scoped;
    zorvPipeSyscalls.pfnWrite = fakeWriteEpipe;
    EXPECT_EQ(0, ZorvPipeWrite(side.fd, "x", 1));
  }
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find(
                "ZorvPipeServiceWriteQue() Broken Pipe RETURNING\n"));
}

// a 32-byte message -> written whole, yet the pass reads as a broken pipe:
// 0 returned and the FIFO closed
TEST(ZorvPipeWrite, TreatsPassWritingExactly32BytesAsBrokenPipe) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("c32");
  std::string message = patterned(32);
  EXPECT_EQ(0, ZorvPipeWrite(side.fd, message.data(), 32));
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_FALSE(isOpen(side.fd));
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(ReadAvailable(side.rawReader), &pieces, &error))
      << error;
  ASSERT_EQ(1u, pieces.size());
  EXPECT_EQ(message, pieces[0].data);
}

// a 32-byte message into a full FIFO -> not written, yet 0 returned and the
// FIFO closed with the piece
TEST(ZorvPipeWrite, TreatsMessageOf32BytesAsBrokenPipeEvenWhenQueued) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("q32");
  ASSERT_TRUE(WriteAll(OpenRaw(side.path, true), std::string(4090, 'f')));
  EXPECT_EQ(0, ZorvPipeWrite(side.fd, patterned(32).c_str(), 32));
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_EQ(0, writeQueCount());
  EXPECT_FALSE(isOpen(side.fd));
  EXPECT_EQ(std::string(4090, 'f'), ReadAvailable(side.rawReader));
}

// pieces of FIFO A wait while B's go out; A's come out in order later
TEST(ZorvPipeWrite, KeepsOrderPerFifoAndStepsOverOtherFifos) {
  ZorvInitPipes();
  WriteSide a = openWriteSide("a");
  WriteSide b = openWriteSide("b");
  ASSERT_TRUE(WriteAll(OpenRaw(a.path, true), std::string(100, 'f')));
  std::string a1 = patterned(4000, 1);
  std::string a2 = patterned(50, 2);
  std::string b1 = patterned(70, 3);
  ASSERT_EQ(4000, ZorvPipeWrite(a.fd, a1.data(), 4000));
  ASSERT_EQ(50, ZorvPipeWrite(a.fd, a2.data(), 50));
  ASSERT_EQ(70, ZorvPipeWrite(b.fd, b1.data(), 70));
  EXPECT_EQ(2, writeQueCount());
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(ReadAvailable(b.rawReader), &pieces, &error)) << error;
  ASSERT_EQ(1u, pieces.size());
  EXPECT_EQ(b1, pieces[0].data);
  ASSERT_EQ(std::string(100, 'f'), ReadAvailable(a.rawReader));
  std::string stream = pumpWrites(a.rawReader);
  pieces.clear();
  ASSERT_TRUE(SplitWire(stream, &pieces, &error)) << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(a1, pieces[0].data);
  EXPECT_EQ(a2, pieces[1].data);
}

// queued pieces carry the numbers of the header in field order
TEST(ZorvPipeWrite, FillsQueueElementFields) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("fields");
  ASSERT_TRUE(WriteAll(OpenRaw(side.path, true), std::string(4090, 'f')));
  zorvtest::ScopedFakePid fakePid(4711);
  std::string message = patterned(5000);
  ASSERT_EQ(5000, ZorvPipeWrite(side.fd, message.data(), 5000));
  std::vector<QueCopy> queue = writeQueCopy();
  ASSERT_EQ(2u, queue.size());
  EXPECT_EQ(1u, queue[0].element.messageSerial);
  EXPECT_EQ(4711u, queue[0].element.senderPid);
  EXPECT_EQ(1u, queue[0].element.pieceNumber);
  EXPECT_EQ(2u, queue[1].element.pieceNumber);
  EXPECT_EQ(2u, queue[1].element.pieceCount);
  EXPECT_EQ(4020u, queue[0].element.pieceLength);
  EXPECT_EQ(980u, queue[1].element.pieceLength);
  EXPECT_EQ(5000u, queue[1].element.totalLength);
  EXPECT_EQ(side.fd, queue[1].element.descriptor);
  EXPECT_EQ(980u, queue[1].element.nData);
  EXPECT_EQ(message.substr(4020), queue[1].data);
}

// ---- ZorvPipeRead, ZorvGetBytesInQue ----------------------------------------

// nothing arrived -> 0 and a null buffer; null buffer pointer -> 0
TEST(ZorvPipeRead, ReturnsZeroAndNullWhenNothingComplete) {
  ZorvInitPipes();
  ReadSide side = openReadSide("none");
  char* buffer = reinterpret_cast<char*>(1);
  EXPECT_EQ(0, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(0, ZorvPipeRead(side.fd, nullptr));
}

// one message -> its bytes, zero-terminated, removed from the queue
TEST(ZorvPipeRead, HandsOutMessageZeroTerminated) {
  ZorvInitPipes();
  ReadSide side = openReadSide("one");
  ASSERT_TRUE(
      WriteAll(side.rawWriter, WireMessage(1, 77, "<MSG>hi</MSG>\r\n")));
  char* buffer = nullptr;
  ASSERT_EQ(15, ZorvPipeRead(side.fd, &buffer));
  ASSERT_NE(nullptr, buffer);
  EXPECT_STREQ("<MSG>hi</MSG>\r\n", buffer);
  free(buffer);
  EXPECT_EQ(0, readQueCount());
}

// two complete messages -> both, concatenated in one buffer
TEST(ZorvPipeRead, ReturnsTwoCompleteMessagesConcatenated) {
  ZorvInitPipes();
  ReadSide side = openReadSide("two");
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 77, "first\r\n") +
                                           WireMessage(2, 77, "second\r\n")));
  char* buffer = nullptr;
  ASSERT_EQ(15, ZorvPipeRead(side.fd, &buffer));
  EXPECT_STREQ("first\r\nsecond\r\n", buffer);
  free(buffer);
}

// a message of 3000 bytes and one of 4000 -> result grown past 2048 bytes
TEST(ZorvPipeRead, GrowsResultForLongMessages) {
  ZorvInitPipes();
  ReadSide side = openReadSide("grow");
  std::string m1 = patterned(3000, 1);
  std::string m2 = patterned(4000, 2);
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 7, m1)));
  ZorvServicePipes();
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(2, 7, m2)));
  char* buffer = nullptr;
  ASSERT_EQ(7000, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(m1 + m2, std::string(buffer, 7000));
  EXPECT_EQ('\0', buffer[7000]);
  free(buffer);
}

// complete message of sender B behind the first half of A's -> nothing;
// after A's second piece: A then B
TEST(ZorvPipeRead, WithholdsMessageQueuedBehindIncompleteOne) {
  ZorvInitPipes();
  ReadSide side = openReadSide("behind");
  std::string a = patterned(4021, 1);
  std::string wireA = WireMessage(1, 100, a);
  size_t secondPiece = wireA.find("|\x01\x01\x01", 1);
  ASSERT_NE(std::string::npos, secondPiece);
  ASSERT_TRUE(WriteAll(side.rawWriter, wireA.substr(0, secondPiece) +
                                           WireMessage(1, 200, "B-done")));
  char* buffer = nullptr;
  EXPECT_EQ(0, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(2, readQueCount());
  ASSERT_TRUE(WriteAll(side.rawWriter, wireA.substr(secondPiece)));
  ASSERT_EQ(4027, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(a + "B-done", std::string(buffer, 4027));
  free(buffer);
}

// A1 B1 A2 B2 from two senders with the same serial -> A and B whole
TEST(ZorvPipeRead, ReassemblesInterleavedPiecesOfTwoSenders) {
  ZorvInitPipes();
  ReadSide side = openReadSide("inter");
  std::string a = patterned(5000, 1);
  std::string b = patterned(6000, 2);
  std::string wire = WireFor(3, 100, 1, 2, 5000, a.substr(0, 4020)) +
                     WireFor(3, 200, 1, 2, 6000, b.substr(0, 4020)) +
                     WireFor(3, 100, 2, 2, 5000, a.substr(4020)) +
                     WireFor(3, 200, 2, 2, 6000, b.substr(4020));
  ASSERT_TRUE(WriteAll(side.rawWriter, wire));
  std::string out;
  int64_t deadline = MonotonicMs() + 5000;
  while (out.size() < 11000 && MonotonicMs() < deadline) {
    char* buffer = nullptr;
    int32_t n = ZorvPipeRead(side.fd, &buffer);
    if (n > 0) out.append(buffer, static_cast<size_t>(n));
    free(buffer);
  }
  EXPECT_EQ(a + b, out);
}

// messages of another FIFO -> not handed out here
TEST(ZorvPipeRead, HandsOutOnlyMessagesOfItsFifo) {
  ZorvInitPipes();
  ReadSide one = openReadSide("one");
  ReadSide two = openReadSide("two");
  ASSERT_TRUE(WriteAll(two.rawWriter, WireMessage(1, 5, "for two")));
  ZorvServicePipes();
  char* buffer = nullptr;
  EXPECT_EQ(0, ZorvPipeRead(one.fd, &buffer));
  ASSERT_EQ(7, ZorvPipeRead(two.fd, &buffer));
  EXPECT_STREQ("for two", buffer);
  free(buffer);
}

// 5 bytes then 3 handed out -> counter -5, then -8; unknown or write -> -1
TEST(ZorvGetBytesInQue, CountsDownBytesHandedOut) {
  ZorvInitPipes();
  ReadSide side = openReadSide("count");
  WriteSide writer = openWriteSide("countw");
  EXPECT_EQ(0, ZorvGetBytesInQue(side.fd));
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 5, "hello")));
  ZorvServicePipes();
  EXPECT_EQ(0, ZorvGetBytesInQue(side.fd));  // arrival adds nothing
  char* buffer = nullptr;
  ASSERT_EQ(5, ZorvPipeRead(side.fd, &buffer));
  free(buffer);
  EXPECT_EQ(-5, ZorvGetBytesInQue(side.fd));
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(2, 5, "abc")));
  ASSERT_EQ(3, ZorvPipeRead(side.fd, &buffer));
  free(buffer);
  EXPECT_EQ(-8, ZorvGetBytesInQue(side.fd));
  EXPECT_EQ(-1, ZorvGetBytesInQue(writer.fd));
  EXPECT_EQ(-1, ZorvGetBytesInQue(12345));
}

// ---- ZorvPipeSelect ---------------------------------------------------------

// complete message queued before the call -> odd result after about 1 ms
TEST(ZorvPipeSelect, ReturnsAtLeastOneAfterAboutOneMsWhenMessageQueued) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ReadSide side = openReadSide("queued");
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 5, "ready")));
  ZorvServicePipes();
  ASSERT_EQ(1, readQueCount());
  int64_t start = MonotonicUs();
  int rc = ZorvPipeSelect(side.fd, -1, 5000);
  int64_t elapsed = MonotonicUs() - start;
  EXPECT_GE(rc, 1);
  EXPECT_EQ(1, rc & 1);
  EXPECT_GE(elapsed, 900);
  EXPECT_LT(elapsed, 1000000);
  std::string text = ReadFile(trace);
  EXPECT_NE(std::string::npos, text.find("ZorvPipeSelect() DATA in READ Q\n"));
  EXPECT_NE(std::string::npos,
            text.find("ZorvPipeSelect 1 Element in READ Que\n"));
}

namespace {

int gSelectCount = 0;
int countingSelect(int nfds, fd_set* pRead, fd_set* pWrite, fd_set* pError,
                   struct timeval* pTimeout) {
  ++gSelectCount;
  return ScopedPipeSyscalls::Saved().pfnSelect(nfds, pRead, pWrite, pError,
                                               pTimeout);
}

}  // namespace

// message in the FIFO, not yet taken in -> 1 at once: no select, no pause
TEST(ZorvPipeSelect, ReturnsAtOnceForMessageItTakesInItself) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ReadSide side = openReadSide("fresh");
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 5, "fresh")));
  ScopedPipeSyscalls scoped;
  gSelectCount = 0;
  zorvPipeSyscalls.pfnSelect = countingSelect;
  EXPECT_EQ(1, ZorvPipeSelect(side.fd, -1, 5000));
  EXPECT_EQ(0, gSelectCount);
  EXPECT_EQ(std::string::npos,
            ReadFile(trace).find("ZorvPipeSelect() DATA in READ Q\n"));
  char* buffer = nullptr;
  ASSERT_EQ(5, ZorvPipeRead(side.fd, &buffer));
  EXPECT_STREQ("fresh", buffer);
  free(buffer);
}

// nothing arrives -> 0 after the time-out
TEST(ZorvPipeSelect, ReturnsZeroAfterTimeout) {
  ZorvInitPipes();
  ReadSide side = openReadSide("quiet");
  int64_t start = MonotonicMs();
  EXPECT_EQ(0, ZorvPipeSelect(side.fd, -1, 300));
  int64_t elapsed = MonotonicMs() - start;
  EXPECT_GE(elapsed, 250);
  EXPECT_LT(elapsed, 5000);
}

// a readable input descriptor -> ignored, still 0 after the time-out
TEST(ZorvPipeSelect, IgnoresInputDescriptor) {
  ZorvInitPipes();
  ReadSide side = openReadSide("input");
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  ASSERT_EQ(1, write(fds[1], "k", 1));
  int64_t start = MonotonicMs();
  EXPECT_EQ(0, ZorvPipeSelect(side.fd, fds[0], 200));
  EXPECT_GE(MonotonicMs() - start, 150);
  close(fds[0]);
  close(fds[1]);
}

// a message written by another process 200 ms into the wait -> 1, early
TEST(ZorvPipeSelect, WakesWhenMessageArrives) {
  std::string path = MakeTestFifo("wake");
  pid_t child = zorvtest::ForkChild([&]() {
    usleep(200 * 1000);
    int fd = OpenRaw(path, true);
    if (fd < 0) return 1;
    return WriteAll(fd, WireMessage(1, 42, "wake up")) ? 0 : 2;
  });
  ZorvInitPipes();
  int32_t fd = ZorvPipeOpen(path.c_str(), 0);
  int dummyWriter = OpenRaw(path, true);
  ASSERT_GE(dummyWriter, 0);
  int64_t start = MonotonicMs();
  int rc = ZorvPipeSelect(fd, -1, 20000);
  int64_t elapsed = MonotonicMs() - start;
  EXPECT_EQ(1, rc);
  EXPECT_LT(elapsed, 10000);
  char* buffer = nullptr;
  ASSERT_EQ(7, ZorvPipeRead(fd, &buffer));
  EXPECT_STREQ("wake up", buffer);
  free(buffer);
  EXPECT_EQ(0, zorvtest::WaitChild(child, 10000));
}

// only the first half of a two-piece message arrives during the wait ->
// "Incomplet Message", a second select with the time left, 0 at the end
TEST(ZorvPipeSelect, WaitsFullTimeoutOnIncompleteMessage) {
  std::string trace = zorvtest::TracePipeToFile();
  std::string path = MakeTestFifo("half");
  std::string wire = WireMessage(1, 42, patterned(4021));
  std::string firstPiece = wire.substr(0, wire.find("|\x01\x01\x01", 1));
  pid_t child = zorvtest::ForkChild([&]() {
    usleep(100 * 1000);
    int fd = OpenRaw(path, true);
    if (fd < 0) return 1;
    if (!WriteAll(fd, firstPiece)) return 2;
    usleep(1500 * 1000);  // keep the FIFO open past the wait
    return 0;
  });
  ZorvInitPipes();
  int32_t fd = ZorvPipeOpen(path.c_str(), 0);
  int dummyWriter = OpenRaw(path, true);
  ASSERT_GE(dummyWriter, 0);
  int64_t start = MonotonicMs();
  int rc = ZorvPipeSelect(fd, -1, 900);
  int64_t elapsed = MonotonicMs() - start;
  EXPECT_EQ(0, rc);
  EXPECT_GE(elapsed, 800);
  EXPECT_LT(elapsed, 10000);
  std::string text = ReadFile(trace);
  EXPECT_NE(std::string::npos, text.find("ZorvPipeSelect Incomplet Message\n"));
  EXPECT_NE(std::string::npos,
            text.find("ZorvPipeSelect Select again time remaning "));
  char* buffer = nullptr;
  EXPECT_EQ(0, ZorvPipeRead(fd, &buffer));
  EXPECT_EQ(0, zorvtest::WaitChild(child, 10000));
}

namespace {

// A select() that writes a first half into the FIFO, reports it readable
// and moves the fake clock on by gAdvanceMs; later calls report a time-out.
int gSelectCalls = 0;
uint32_t gAdvanceMs = 0;
int gHalfWriter = -1;
std::string gHalf;
int fakeSelectAdvancing(int, fd_set*, fd_set*, fd_set*, struct timeval*) {
  if (gSelectCalls++ == 0) {
    WriteAll(gHalfWriter, gHalf);
    zorvtest::ScopedFakeClock::Set(1000 + gAdvanceMs / 1000,
                                   (gAdvanceMs % 1000) * 1000);
    return 1;
  }
  return 0;
}

int fakeSelectFails(int, fd_set*, fd_set*, fd_set*, struct timeval*) {
  errno = EBADF;
  return -1;
}

}  // namespace

// time left after an incomplete message: 10 and 50 ms -> "Time is Up", the
// readable result 1; 51 -> selects again and ends with its 0; past the
// time-out (unsigned wrap) -> time up
TEST(ZorvPipeSelect, EndsWaitWhenFiftyMsOrLessRemain) {
  struct Row {
    const char* name;
    uint32_t advanceMs;
    int calls;
    int result;
    const char* trace;
  };
  const Row rows[] = {
      {"10 ms left", 990, 1, 1, "ZorvPipeSelect Time is Up\n"},
      {"50 ms left", 950, 1, 1, "ZorvPipeSelect Time is Up\n"},
      {"51 ms left", 949, 2, 0,
       "ZorvPipeSelect Select again time remaning 51\n"},
      {"past the time-out", 6000, 1, 1, "ZorvPipeSelect Time is Up\n"},
  };
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  std::string wire = WireMessage(1, 42, patterned(4021));
  gHalf = wire.substr(0, wire.find("|\x01\x01\x01", 1));
  int iRow = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ReadSide side = openReadSide("up" + std::to_string(iRow++));
    zorvtest::ScopedFakeClock clock(1000, 0);
    ScopedPipeSyscalls scoped;
    gSelectCalls = 0;
    gAdvanceMs = row.advanceMs;
    gHalfWriter = side.rawWriter;
    zorvPipeSyscalls.pfnSelect = fakeSelectAdvancing;
    zorvtest::WriteFile(trace, "");
    EXPECT_EQ(row.result, ZorvPipeSelect(side.fd, -1, 1000));
    EXPECT_EQ(row.calls, gSelectCalls);
    std::string text = ReadFile(trace);
    EXPECT_NE(std::string::npos,
              text.find("ZorvPipeSelect Incomplet Message\n"));
    EXPECT_NE(std::string::npos, text.find(row.trace)) << text;
  }
}

// select() fails -> -1
TEST(ZorvPipeSelect, ReturnsMinusOneWhenSelectFails) {
  ZorvInitPipes();
  ReadSide side = openReadSide("fail");
  ScopedPipeSyscalls scoped;
  zorvPipeSyscalls.pfnSelect = fakeSelectFails;
  EXPECT_EQ(-1, ZorvPipeSelect(side.fd, -1, 1000));
}

// descriptor -1 (nothing a select could watch) -> -1 at once
TEST(ZorvPipeSelect, ReturnsMinusOneForDescriptorItCannotWatch) {
  ZorvInitPipes();
  int64_t start = MonotonicMs();
  EXPECT_EQ(-1, ZorvPipeSelect(-1, -1, 3000));
  EXPECT_LT(MonotonicMs() - start, 2000);
}

// a queued piece of a write FIFO -> written by the wait
TEST(ZorvPipeSelect, WritesQueuedPiecesOfEveryWriteFifo) {
  ZorvInitPipes();
  ReadSide reader = openReadSide("sr");
  WriteSide writer = openWriteSide("sw");
  ASSERT_TRUE(WriteAll(OpenRaw(writer.path, true), std::string(100, 'f')));
  ASSERT_EQ(4000, ZorvPipeWrite(writer.fd, patterned(4000).c_str(), 4000));
  ASSERT_EQ(1, writeQueCount());
  ReadAvailable(writer.rawReader);
  EXPECT_EQ(0, ZorvPipeSelect(reader.fd, -1, 10));
  EXPECT_EQ(0, writeQueCount());
  EXPECT_GT(bytesInFifo(writer.rawReader), 4000);
}

// a queued piece for a FIFO whose reader has gone -> that FIFO closed
TEST(ZorvPipeSelect, ClosesWriteFifoWhoseReaderHasGone) {
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  ReadSide reader = openReadSide("sr");
  WriteSide writer = openWriteSide("sw");
  ASSERT_TRUE(WriteAll(OpenRaw(writer.path, true), std::string(100, 'f')));
  ASSERT_EQ(4000, ZorvPipeWrite(writer.fd, patterned(4000).c_str(), 4000));
  ReadAvailable(writer.rawReader);
  close(writer.rawReader);
  ZorvPipeSelect(reader.fd, -1, 10);
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_FALSE(isOpen(writer.fd));
}

// complete message of B queued behind the first half of A's -> select
// reports it after the 1 ms pause, read hands out nothing; once A's second
// piece arrives, select -> 1 and read gives A then B
TEST(ZorvPipeSelect, ReportsCompleteMessageQueuedBehindIncompleteOne) {
  ZorvInitPipes();
  ReadSide side = openReadSide("ahead");
  std::string a = patterned(4021, 1);
  std::string wireA = WireMessage(1, 100, a);
  size_t secondPiece = wireA.find("|\x01\x01\x01", 1);
  ASSERT_TRUE(WriteAll(
      side.rawWriter, wireA.substr(0, secondPiece) + WireMessage(1, 200, "B")));
  ZorvServicePipes();
  ASSERT_EQ(2, readQueCount());
  int64_t start = MonotonicMs();
  EXPECT_GE(ZorvPipeSelect(side.fd, -1, 10000), 1);
  EXPECT_LT(MonotonicMs() - start, 5000);
  char* buffer = nullptr;
  EXPECT_EQ(0, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(nullptr, buffer);
  ASSERT_TRUE(WriteAll(side.rawWriter, wireA.substr(secondPiece)));
  EXPECT_GE(ZorvPipeSelect(side.fd, -1, 10000), 1);
  ASSERT_EQ(4022, ZorvPipeRead(side.fd, &buffer));
  EXPECT_EQ(a + "B", std::string(buffer, 4022));
  free(buffer);
}

// ---- ZorvFlushWritePipe -----------------------------------------------------

// second piece waiting, reader takes the first after 100 ms -> 0 left
TEST(ZorvFlushWritePipe, ReturnsZeroOnceQueueIsWritten) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("flush");
  std::string message = patterned(8040);
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, message.data(), 8040));
  ASSERT_EQ(1, writeQueCount());
  std::string stream;
  std::thread reader([&]() {
    usleep(100 * 1000);
    stream = ReadAtLeast(side.rawReader, 8040 + 2 * 30, 8000);
  });
  EXPECT_EQ(0, ZorvFlushWritePipe(side.fd, 5000));
  reader.join();
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(stream, &pieces, &error)) << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(message, pieces[0].data + pieces[1].data);
}

// FIFO never read -> the piece left after about the time-out, traced
TEST(ZorvFlushWritePipe, ReturnsPiecesLeftAfterTimeout) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  WriteSide side = openWriteSide("stuck");
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, patterned(8040).c_str(), 8040));
  int64_t start = MonotonicMs();
  EXPECT_EQ(1, ZorvFlushWritePipe(side.fd, 700));
  int64_t elapsed = MonotonicMs() - start;
  EXPECT_GE(elapsed, 600);
  EXPECT_LT(elapsed, 5000);
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find("ZorvFlushWritePipe() 1 Elements in Que\n"));
}

// pieces queued for two FIFOs, time-out 0 -> both counted
TEST(ZorvFlushWritePipe, CountsPiecesOfEveryFifo) {
  ZorvInitPipes();
  WriteSide a = openWriteSide("fa");
  WriteSide b = openWriteSide("fb");
  ASSERT_EQ(8040, ZorvPipeWrite(a.fd, patterned(8040).c_str(), 8040));
  ASSERT_EQ(8040, ZorvPipeWrite(b.fd, patterned(8040).c_str(), 8040));
  EXPECT_EQ(2, ZorvFlushWritePipe(a.fd, 0));
}

// nothing queued -> 0 at once
TEST(ZorvFlushWritePipe, ReturnsZeroAtOnceWhenNothingQueued) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("idle");
  int64_t start = MonotonicMs();
  EXPECT_EQ(0, ZorvFlushWritePipe(side.fd, 5000));
  EXPECT_LT(MonotonicMs() - start, 300);
}

// queued piece, reader gone -> FIFO closed
TEST(ZorvFlushWritePipe, ClosesFifoWhoseReaderHasGone) {
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  WriteSide side = openWriteSide("fgone");
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, patterned(8040).c_str(), 8040));
  ReadAvailable(side.rawReader);
  close(side.rawReader);
  ZorvFlushWritePipe(side.fd, 1000);
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_EQ(0, writeQueCount());
  EXPECT_FALSE(isOpen(side.fd));
}

// ---- ZorvServicePipes -------------------------------------------------------

// one message in each of two read FIFOs -> both queued after one cycle
TEST(ZorvServicePipes, DrainsEveryReadFifo) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ReadSide a = openReadSide("da");
  ReadSide b = openReadSide("db");
  ASSERT_TRUE(WriteAll(a.rawWriter, WireMessage(1, 5, "to a")));
  ASSERT_TRUE(WriteAll(b.rawWriter, WireMessage(1, 6, "to b")));
  ZorvServicePipes();
  EXPECT_EQ(2, readQueCount());
  EXPECT_EQ(0, bytesInFifo(a.rawWriter));
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find("ZorvServicePipes: ***READING***\n"));
}

// read lock held elsewhere -> the cycle skips reading and does not block
TEST(ZorvServicePipes, SkipsReadSideWhileItsLockIsHeld) {
  ZorvInitPipes();
  ReadSide side = openReadSide("held");
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 5, "wait")));
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 1));
  std::thread cycle([]() { ZorvServicePipes(); });
  cycle.join();
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 3, 0);
  EXPECT_EQ(0, readQueCount());
  EXPECT_GT(bytesInFifo(side.rawWriter), 0);
}

// write lock held elsewhere -> the cycle skips writing and does not block
TEST(ZorvServicePipes, SkipsWriteSideWhileItsLockIsHeld) {
  ZorvInitPipes();
  WriteSide side = openWriteSide("wheld");
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, patterned(8040).c_str(), 8040));
  ReadAvailable(side.rawReader);
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, __func__, 4, 1));
  std::thread cycle([]() { ZorvServicePipes(); });
  cycle.join();
  ZorvGrabMutex(__FILE__, __LINE__, __func__, 4, 0);
  EXPECT_EQ(1, writeQueCount());
  ZorvServicePipes();
  EXPECT_EQ(0, writeQueCount());
}

// queued piece, reader gone -> the cycle closes the FIFO
TEST(ZorvServicePipes, ClosesBrokenWriteFifo) {
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  WriteSide side = openWriteSide("sgone");
  ASSERT_EQ(8040, ZorvPipeWrite(side.fd, patterned(8040).c_str(), 8040));
  ReadAvailable(side.rawReader);
  close(side.rawReader);
  ZorvServicePipes();
  EXPECT_EQ(0, writeFifoCount());
  EXPECT_FALSE(isOpen(side.fd));
}

// after a stop -> a cycle still reads but leaves queued pieces alone
TEST(ZorvServicePipes, ReadsButDoesNotWriteAfterStop) {
  ZorvInitPipes();
  ReadSide reader = openReadSide("sr");
  WriteSide writer = openWriteSide("sw");
  ASSERT_EQ(8040, ZorvPipeWrite(writer.fd, patterned(8040).c_str(), 8040));
  ReadAvailable(writer.rawReader);
  EXPECT_EQ(3, ZorvStopReadWriteThread());  // none started: ESRCH
  ASSERT_TRUE(WriteAll(reader.rawWriter, WireMessage(1, 5, "in")));
  ZorvServicePipes();
  EXPECT_EQ(1, readQueCount());
  EXPECT_EQ(1, writeQueCount());
}

// ---- The read/write thread --------------------------------------------------

// thread running -> reads a read FIFO and writes queued pieces unaided
TEST(ZorvInitReadWriteThread, MovesBytesWithoutCallerHelp) {
  ZorvInitPipes();
  ReadSide reader = openReadSide("tr");
  WriteSide writer = openWriteSide("tw");
  std::string message = patterned(8040);
  ASSERT_EQ(8040, ZorvPipeWrite(writer.fd, message.data(), 8040));
  ASSERT_EQ(0, ZorvInitReadWriteThread());
  ASSERT_TRUE(WriteAll(reader.rawWriter, WireMessage(1, 5, "thread")));
  EXPECT_TRUE(waitForReadQue(1));
  std::string stream = ReadAtLeast(writer.rawReader, 8040 + 2 * 30, 5000);
  EXPECT_EQ(0, ZorvStopReadWriteThread());
  std::vector<WirePiece> pieces;
  std::string error;
  ASSERT_TRUE(SplitWire(stream, &pieces, &error)) << error;
  ASSERT_EQ(2u, pieces.size());
  EXPECT_EQ(message, pieces[0].data + pieces[1].data);
}

// start and stop -> the trace lines of both, the join result 0
TEST(ZorvInitReadWriteThread, TracesStartAndStop) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ASSERT_EQ(0, ZorvInitReadWriteThread());
  usleep(20 * 1000);
  EXPECT_EQ(0, ZorvStopReadWriteThread());
  std::string text = ReadFile(trace);
  const char* lines[] = {"creating read/write thread\n",
                         "ZorvStopReadWriteThread: top of function\n",
                         "thread_id is ",
                         "pthread_join() returned 0\n",
                         "ZorvReadWriteThread: EXITING\n",
                         "read-write thread exiting\n"};
  for (const char* line : lines) {
    SCOPED_TRACE(line);
    EXPECT_NE(std::string::npos, text.find(line));
  }
}

// each cycle -> "ZorvReadWriteThread: Time %l" as written, no number
TEST(ZorvInitReadWriteThread, TracesTimeLineWithPercentLAsWritten) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvInitPipes();
  ASSERT_EQ(0, ZorvInitReadWriteThread());
  usleep(20 * 1000);
  ZorvStopReadWriteThread();
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find("ZorvReadWriteThread: Time %l\n"));
}

// stop, then start -> the new thread does one cycle and ends
TEST(ZorvInitReadWriteThread, RunsSingleCycleWhenStartedAfterStop) {
  ZorvInitPipes();
  ReadSide side = openReadSide("once");
  ASSERT_EQ(0, ZorvInitReadWriteThread());
  EXPECT_EQ(0, ZorvStopReadWriteThread());
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(1, 5, "first")));
  ASSERT_EQ(0, ZorvInitReadWriteThread());
  EXPECT_TRUE(waitForReadQue(1));  // its one cycle
  ASSERT_TRUE(WriteAll(side.rawWriter, WireMessage(2, 5, "second")));
  usleep(100 * 1000);
  EXPECT_EQ(1, readQueCount());
  EXPECT_GT(bytesInFifo(side.rawWriter), 0);
  EXPECT_EQ(0, ZorvStopReadWriteThread());
}

// no thread started -> ESRCH (3), traced
TEST(ZorvStopReadWriteThread, ReturnsEsrchWithoutThread) {
  std::string trace = zorvtest::TracePipeToFile();
  EXPECT_EQ(3, ZorvStopReadWriteThread());
  EXPECT_NE(std::string::npos,
            ReadFile(trace).find("pthread_join() returned 3\n"));
}

// ---- Signals ----------------------------------------------------------------

// -> SIGPIPE ignored, not ZorvSIGPIPEHandler
TEST(ZorvPipeSignalHandle, IgnoresSigpipe) {
  ZorvPipeSignalHandle();
  struct sigaction action;
  ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &action));
  EXPECT_EQ(SIG_IGN, action.sa_handler);
  ASSERT_EQ(0, raise(SIGPIPE));  // survives
}

// called -> one trace line, nothing else
TEST(ZorvSIGPIPEHandler, OnlyTraces) {
  std::string trace = zorvtest::TracePipeToFile();
  ZorvSIGPIPEHandler(SIGPIPE);
  EXPECT_NE(std::string::npos, ReadFile(trace).find("ZorvSIGPIPEHandler\n"));
  struct sigaction action;
  ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &action));
  EXPECT_TRUE(action.sa_handler != ZorvSIGPIPEHandler);
}
