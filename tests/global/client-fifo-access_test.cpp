// Tests of the client's FIFO pair without a peer: the server FIFO is one the
// test makes and reads itself, and messages to the client come in through
// its own dummy writer (a loopback). Each TEST runs in its own process with
// a fresh pipe directory (ZORV_TMP, also the working directory).
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "global/client-fifo-access_p.h"
#include "global/pipe-lowlevel_p.h"
#include "support/test_support.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"

namespace {

// The pipe layer's system calls as the program started.
ZorvPipeSyscalls gRealPipeCalls = zorvPipeSyscalls;
struct PipeCallsRestorer {
  ~PipeCallsRestorer() { zorvPipeSyscalls = gRealPipeCalls; }
};

int gOpenCalls;
int gFailOpenAt;
// Fails the Nth open() of the pipe layer (1-based).
int countingOpen(const char* path, int flags) {
  if (++gOpenCalls == gFailOpenAt) {
    errno = ENOENT;
    return -1;
  }
  return gRealPipeCalls.pfnOpen(path, flags);
}

// A server FIFO read by the test through the pipe layer; the pipe layer is
// set up (no thread) and cleaned up with it.
struct LoopbackServer {
  LoopbackServer() {
    ZorvInitPipes();
    path = std::string(ZorvGetPipeDirectory()) + "/server";
    ZorvPipeUMask(0);
    ZorvPipeMkFifo(path.c_str());
    ZorvSetServerFifoNameEx(path.c_str());
    fd = ZorvPipeOpen(path.c_str(), 0);
  }
  ~LoopbackServer() {
    ZorvClient_I_CloseFifoConnection();
    ZorvPipeClose(fd);
    unlink(path.c_str());
    ZorvCleanupPipes();
  }
  // The next complete data on the server FIFO. No read/write thread runs:
  // each short select also writes the pieces still queued.
  std::string take(uint32_t timeoutMs) {
    uint32_t start = ZorvMilliSeconds();
    for (;;) {
      ZorvPipeSelect(fd, -1, 20);
      char* data = nullptr;
      int32_t n = ZorvPipeRead(fd, &data);
      if (n > 0) {
        std::string out(data, (size_t)n);
        free(data);
        return out;
      }
      if (ZorvMilliSeconds() - start > timeoutMs) return "";
    }
  }
  std::string path;
  int32_t fd;
};

// Descriptors of this process that lead to `path`.
int descriptorsTo(const std::string& path) {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[64];
    char target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    if (std::string(target).find(path) == 0) ++count;
  }
  return count;
}

bool stands(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

// ---- Opening
// -------------------------------------------------------------------

// Server FIFO, own reader and dummy writer open; the own FIFO stands
// (mode 0660) until it is hidden.
TEST(ZorvClientIOpenFifoConnection, OpensWriterReaderAndDummyWriter) {
  LoopbackServer server;
  ASSERT_GE(server.fd, 0);
  EXPECT_EQ(0, ZorvClient_I_OpenFifoConnection());
  EXPECT_GT(ZorvClient_I_GetWriteFifoHandle(), 0);
  EXPECT_GT(ZorvClient_I_GetReadFifoHandle(), 0);
  EXPECT_GT(ZorvClient_I_GetDummyWriterHandle(), 0);
  EXPECT_STREQ(server.path.c_str(), ZorvClient_I_GetMainFifoName());
  struct stat st;
  ASSERT_EQ(0, stat(ZorvGetClientFifoName(), &st));
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(0660u, st.st_mode & 0777u);
  EXPECT_EQ(2, descriptorsTo(ZorvGetClientFifoName()));
}

// Nobody reads the server FIFO -> 1, nothing open, nothing registered.
TEST(ZorvClientIOpenFifoConnection, ReturnsOneWithoutReader) {
  ZorvInitPipes();
  std::string path = std::string(ZorvGetPipeDirectory()) + "/server";
  ZorvPipeUMask(0);
  ASSERT_EQ(0, ZorvPipeMkFifo(path.c_str()));
  ZorvSetServerFifoNameEx(path.c_str());
  int nFds = zorvtest::CountOpenDescriptors();
  EXPECT_EQ(1, ZorvClient_I_OpenFifoConnection());
  EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
  EXPECT_EQ(0u, CGenListGetCount(ZorvPipe_I_WriteFifoList()));
  EXPECT_EQ(0u, CGenListGetCount(ZorvPipe_I_ReadFifoList()));
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(stands(ZorvGetClientFifoName()));
  ZorvCleanupPipes();
}

// Own reader fails -> 2; dummy writer fails -> 3; each time the server
// FIFO is closed again and no FIFO of ours is left.
TEST(ZorvClientIOpenFifoConnection, ReturnsTwoAndThreeAndUndoesAll) {
  LoopbackServer server;
  const struct {
    const char* name;
    int failOpenAt;
    int expected;
  } rows[] = {{"reader", 2, 2}, {"dummy writer", 3, 3}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    int nFds = zorvtest::CountOpenDescriptors();
    {
      PipeCallsRestorer restorer;
      gOpenCalls = 0;
      gFailOpenAt = row.failOpenAt;
      zorvPipeSyscalls.pfnOpen = countingOpen;
      EXPECT_EQ(row.expected, ZorvClient_I_OpenFifoConnection());
    }
    EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
    EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
    EXPECT_EQ(0, ZorvClient_I_GetDummyWriterHandle());
    EXPECT_FALSE(stands(ZorvGetClientFifoName()));
    EXPECT_EQ(1u, CGenListGetCount(ZorvPipe_I_ReadFifoList()));  // server
    EXPECT_EQ(0u, CGenListGetCount(ZorvPipe_I_WriteFifoList()));
  }
}

// Something that is not a FIFO stands at the own name -> 2, and it is left
// alone.
TEST(ZorvClientICreateAndOpenReadFifo, LeavesForeignFileAlone) {
  ZorvInitPipes();
  ASSERT_TRUE(zorvtest::WriteFile(ZorvGetClientFifoName(), "not ours"));
  EXPECT_EQ(2, ZorvClient_I_CreateAndOpenReadFifo());
  EXPECT_EQ("not ours", zorvtest::ReadFile(ZorvGetClientFifoName()));
  char name[ZORV_PATH_SIZE] = "x";
  ZorvClient_I_GetReadPipeName(name, sizeof name);
  EXPECT_STREQ("", name);
  ZorvCleanupPipes();
}

// ---- Hiding and closing
// ----------------------------------------------------------

// Hidden: the name is gone, messages still come through.
TEST(ZorvClientIHideFifo, RemovesNameButKeepsFifoWorking) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  EXPECT_EQ(0, ZorvClient_I_HideFifo());
  EXPECT_FALSE(stands(ZorvGetClientFifoName()));
  ASSERT_EQ(5,
            ZorvPipeWrite(ZorvClient_I_GetDummyWriterHandle(), "abc\r\n", 5));
  int32_t length = -1;
  char* data = ZorvClient_I_WaitForFifoData(&length, 2000, 0);
  ASSERT_NE(nullptr, data);
  EXPECT_STREQ("abc\r\n", data);
  EXPECT_EQ(5, length);
  free(data);
}

// No name set -> -1.
TEST(ZorvClientIHideFifo, ReturnsMinusOneWithoutName) {
  EXPECT_EQ(-1, ZorvClient_I_HideFifo());
}

// Closing gives every descriptor back and removes the name.
TEST(ZorvClientICloseFifoConnection, ClosesAllAndRemovesName) {
  LoopbackServer server;
  int nFds = zorvtest::CountOpenDescriptors();
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  ZorvClient_I_CloseFifoConnection();
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
  EXPECT_FALSE(stands(ZorvGetClientFifoName()));
  EXPECT_EQ(0, ZorvClient_I_GetWriteFifoHandle());
  EXPECT_EQ(0, ZorvClient_I_GetReadFifoHandle());
  EXPECT_EQ(0, ZorvClient_I_GetDummyWriterHandle());
  ZorvClient_I_CloseFifoConnection();  // twice is harmless
  EXPECT_EQ(nFds, zorvtest::CountOpenDescriptors());
}

// ---- Writing
// ---------------------------------------------------------------------

// The text arrives whole at the server FIFO; the send time is recorded.
TEST(ZorvClientIWriteFifo, WritesWholeTextAndRecordsTime) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  {
    zorvtest::ScopedFakeClock clock(86400 * 10 + 7, 5000);  // 00:00:07.005
    EXPECT_EQ(0, ZorvClient_I_WriteFifo("<MSG>x</MSG>\r\n"));
    EXPECT_EQ(7005u, ZorvClient_I_GetLastAccessTime());
  }
  EXPECT_EQ("<MSG>x</MSG>\r\n", server.take(2000));
  std::string big(9000, 'b');
  EXPECT_EQ(0, ZorvClient_I_WriteFifo(big.c_str()));
  EXPECT_TRUE(big == server.take(2000));
  EXPECT_EQ(0, ZorvClient_I_WriteFifo(""));
}

// Failed sends count up; one good send resets the count.
TEST(ZorvClientIWriteFifo, CountsFailuresUntilGoodSend) {
  LoopbackServer server;
  EXPECT_EQ(1, ZorvClient_I_WriteFifo("a\r\n"));
  EXPECT_EQ(1, ZorvClient_I_WriteFifo(NULL));
  EXPECT_EQ(1, ZorvClient_I_WriteFifo("b\r\n"));
  EXPECT_EQ(3, ZorvClient_I_GetWriteErrorCount());
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  EXPECT_EQ(0, ZorvClient_I_WriteFifo("c\r\n"));
  EXPECT_EQ(0, ZorvClient_I_GetWriteErrorCount());
}

// A server that went away: the send fails and the write FIFO is dropped by
// the pipe layer; later sends keep failing.
TEST(ZorvClientIWriteFifo, FailsAfterServerWentAway) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  ZorvPipeClose(server.fd);
  server.fd = -1;
  EXPECT_EQ(1, ZorvClient_I_WriteFifo("gone\r\n"));
  EXPECT_EQ(1, ZorvClient_I_WriteFifo("gone\r\n"));
  EXPECT_EQ(2, ZorvClient_I_GetWriteErrorCount());
}

// ---- Reading
// -----------------------------------------------------------------------

// Two messages in the FIFO come out together; nothing -> null, length 0.
TEST(ZorvClientIReadFifo, ReturnsEverythingReceivedOrNull) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  int32_t length = -1;
  EXPECT_EQ(nullptr, ZorvClient_I_ReadFifo(&length));
  EXPECT_EQ(0, length);
  int32_t dummy = ZorvClient_I_GetDummyWriterHandle();
  ASSERT_EQ(3, ZorvPipeWrite(dummy, "a\r\n", 3));
  ASSERT_EQ(3, ZorvPipeWrite(dummy, "b\r\n", 3));
  char* data = ZorvClient_I_ReadFifo(&length);
  ASSERT_NE(nullptr, data);
  EXPECT_STREQ("a\r\nb\r\n", data);
  EXPECT_EQ(6, length);
  free(data);
  EXPECT_EQ(0, ZorvClient_I_GetReadErrorCount());
  data = ZorvClient_I_ReadFifo(NULL);
  EXPECT_EQ(nullptr, data);
}

// Nothing arrives: null after about the time-out.
TEST(ZorvClientIWaitForFifoData, ReturnsNullAfterTimeout) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  int32_t length = -1;
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(nullptr, ZorvClient_I_WaitForFifoData(&length, 300, 1));
  uint32_t elapsed = ZorvMilliSeconds() - start;
  EXPECT_GE(elapsed, 250u);
  EXPECT_LT(elapsed, 3000u);
  EXPECT_EQ(0, length);
}

// No own FIFO: descriptor 0 (standard input) is never waited on; the call
// pauses for its time-out instead.
TEST(ZorvClientIWaitForFifoData, PausesWithoutOwnFifo) {
  ZorvInitPipes();
  uint32_t start = ZorvMilliSeconds();
  EXPECT_EQ(nullptr, ZorvClient_I_WaitForFifoData(NULL, 200, 1));
  EXPECT_GE(ZorvMilliSeconds() - start, 150u);
  ZorvCleanupPipes();
}

// ---- Accessors
// ------------------------------------------------------------------------

// The whole name into a large buffer.
TEST(ZorvClientIGetReadPipeName, CopiesOwnFifoName) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  char name[ZORV_PATH_SIZE];
  EXPECT_EQ(0, ZorvClient_I_GetReadPipeName(name, sizeof name));
  EXPECT_STREQ(ZorvGetClientFifoName(), name);
}

// Deliberate: a buffer smaller than the name gets its first `size`
// characters without terminator; the byte behind stays untouched.
TEST(ZorvClientIGetReadPipeName, LeavesShortBufferUnterminated) {
  LoopbackServer server;
  ASSERT_EQ(0, ZorvClient_I_OpenFifoConnection());
  char name[8];
  memset(name, '#', sizeof name);
  EXPECT_EQ(0, ZorvClient_I_GetReadPipeName(name, 4));
  EXPECT_EQ(0, memcmp(name, ZorvGetClientFifoName(), 4));
  EXPECT_EQ('#', name[4]);
}

}  // namespace
