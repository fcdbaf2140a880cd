// Tests of the FIFO pipe layer between processes: long messages and many
// writers into one FIFO, each side with its own read/write thread, read
// with ZorvPipeSelect and ZorvPipeRead. Children are forked before the
// parent starts any thread.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "global/pipe-lowlevel_p.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"
#include "zorv2000/pipe-lowlevel.h"

namespace {

using zorvtest::MakeTestMessage;
using zorvtest::MonotonicMs;
using zorvtest::TakeTestMessage;

// A child that waits for the go byte on `syncFd`, then writes `messages`
// into the FIFO at `path` through the layer with its own thread, waits
// until its queue is empty and stops. Exit status 0 when all went well.
int writerChild(int syncFd, const std::string& path,
                const std::vector<std::string>& messages) {
  char go = 0;
  if (read(syncFd, &go, 1) != 1) return 20;
  ZorvPipeSignalHandle();
  ZorvInitPipes();
  if (ZorvInitReadWriteThread() != 0) return 21;
  int32_t fd = ZorvPipeOpen(path.c_str(), 1);
  if (fd < 0) return 22;
  for (const std::string& message : messages) {
    int32_t n = ZorvPipeWrite(fd, message.data(),
                              static_cast<uint32_t>(message.size()));
    if (n != static_cast<int32_t>(message.size())) return 23;
  }
  int64_t deadline = MonotonicMs() + 90000;
  while (ZorvFlushWritePipe(fd, 0) > 0) {
    if (MonotonicMs() > deadline) return 24;
    usleep(1000);
  }
  if (ZorvStopReadWriteThread() != 0) return 25;
  ZorvPipeClose(fd);
  ZorvCleanupPipes();
  return 0;
}

// Reads with select and read until `bytes` arrived or `timeoutMs` passed.
std::string readUntil(int32_t fd, size_t bytes, int timeoutMs) {
  std::string out;
  int64_t deadline = MonotonicMs() + timeoutMs;
  while (out.size() < bytes && MonotonicMs() < deadline) {
    if (ZorvPipeSelect(fd, -1, 1000) <= 0) continue;
    char* buffer = nullptr;
    int32_t n = ZorvPipeRead(fd, &buffer);
    if (n > 0) out.append(buffer, static_cast<size_t>(n));
    free(buffer);
  }
  return out;
}

// Starts `writers` children writing their message lists into one FIFO and
// returns everything read; exit statuses in *statuses.
std::string transfer(const std::vector<std::vector<std::string>>& writers,
                     size_t totalBytes, std::vector<int>* statuses) {
  std::string path = zorvtest::MakeTestFifo("transfer");
  int sync[2];
  if (pipe(sync) != 0) return "";
  std::vector<pid_t> children;
  for (const auto& messages : writers) {
    children.push_back(zorvtest::ForkChild([&]() {
      close(sync[1]);
      return writerChild(sync[0], path, messages);
    }));
  }
  close(sync[0]);
  ZorvInitPipes();
  int32_t fd = ZorvPipeOpen(path.c_str(), 0);
  int dummyWriter = zorvtest::OpenRaw(path, true);  // no end of file
  ZorvInitReadWriteThread();
  std::string go(writers.size(), 'g');
  if (write(sync[1], go.data(), go.size()) != static_cast<ssize_t>(go.size()))
    return "";
  std::string out = readUntil(fd, totalBytes, 100000);
  for (pid_t child : children)
    statuses->push_back(zorvtest::WaitChild(child, 30000));
  ZorvStopReadWriteThread();
  close(dummyWriter);
  close(sync[1]);
  return out;
}

// A message of `length` bytes that shows misplaced bytes.
std::string patterned(size_t length) {
  std::string s(length, ' ');
  for (size_t i = 0; i < length; ++i)
    s[i] = static_cast<char>('a' + (i * 13 + i / 4020) % 26);
  return s;
}

}  // namespace

// 1 MiB from another process -> arrives whole
TEST(ZorvPipeWrite, TransfersOneMebibyteMessageIntact) {
  std::string message = patterned(1024 * 1024);
  std::vector<int> statuses;
  std::string out = transfer({{message}}, message.size(), &statuses);
  EXPECT_EQ(std::vector<int>{0}, statuses);
  ASSERT_EQ(message.size(), out.size());
  EXPECT_TRUE(message == out);
}

// 4021 bytes (pieces of 4020 and 1) from another process -> whole
TEST(ZorvPipeWrite, Transfers4021ByteMessageIntact) {
  std::string message = patterned(4021);
  std::vector<int> statuses;
  std::string out = transfer({{message}}, message.size(), &statuses);
  EXPECT_EQ(std::vector<int>{0}, statuses);
  EXPECT_EQ(message, out);
}

// 16 writer processes x 200 messages of 1 to 20000 payload bytes (seeded)
// into one FIFO -> every message whole (checksum), in order per sender,
// none lost, none twice
TEST(ZorvPipeRead, ReceivesManyWritersIntactAndInOrder) {
  const int kWriters = 16;
  const int kMessages = 200;
  std::mt19937 random(4711u);
  std::vector<std::vector<std::string>> writers(kWriters);
  size_t totalBytes = 0;
  for (int w = 0; w < kWriters; ++w) {
    for (int seq = 0; seq < kMessages; ++seq) {
      std::string message;
      // A write pass of exactly 32 bytes reads as a broken pipe; messages
      // whose last piece is 32 bytes or shorter could make one, so the
      // sizes leave them out.
      do {
        size_t payload = 1 + random() % 20000;
        message = MakeTestMessage(w, seq, payload, 99u);
      } while (message.size() % 4020 != 0 && message.size() % 4020 <= 32);
      totalBytes += message.size();
      writers[static_cast<size_t>(w)].push_back(message);
    }
  }
  std::vector<int> statuses;
  std::string out = transfer(writers, totalBytes, &statuses);
  EXPECT_EQ(std::vector<int>(kWriters, 0), statuses);
  std::vector<int> next(kWriters, 0);
  size_t pos = 0;
  int received = 0;
  while (pos < out.size()) {
    int sender = -1;
    int seq = -1;
    std::string error;
    ASSERT_TRUE(TakeTestMessage(out, &pos, &sender, &seq, &error)) << error;
    ASSERT_GE(sender, 0);
    ASSERT_LT(sender, kWriters);
    ASSERT_EQ(next[static_cast<size_t>(sender)], seq)
        << "sender " << sender << " out of order or repeated";
    ++next[static_cast<size_t>(sender)];
    ++received;
  }
  EXPECT_EQ(kWriters * kMessages, received);
  EXPECT_EQ(totalBytes, out.size());
}
