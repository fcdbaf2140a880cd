// Helpers for tests of the FIFO pipe layer: FIFO paths in the test's pipe
// directory, child processes with a time limit, raw reads of a FIFO, a
// test-side reader of the piece framing, checksummed test messages, scripted
// system calls and the pipe trace in a file.
#ifndef ZORV_TESTS_SUPPORT_PIPE_PEER_H
#define ZORV_TESTS_SUPPORT_PIPE_PEER_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "global/pipe-lowlevel_p.h"

namespace zorvtest {

// <ZORV_TMP>/<name> (the working directory when ZORV_TMP is unset).
std::string FifoPath(const std::string& name);

// Creates a FIFO (mode 0660, umask cleared) and returns its path.
std::string MakeTestFifo(const std::string& name);

// Opens `path` raw (outside the layer), non-blocking; -1 on failure.
int OpenRaw(const std::string& path, bool forWrite);

// Everything a non-blocking descriptor holds right now.
std::string ReadAvailable(int fd);

// Reads `fd` until `count` bytes came or `timeoutMs` passed.
std::string ReadAtLeast(int fd, size_t count, int timeoutMs);

// Writes all of `bytes` to `fd`, retrying on EAGAIN; true on success.
bool WriteAll(int fd, const std::string& bytes);

// Milliseconds of a monotonic clock.
int64_t MonotonicMs();
// Microseconds of a monotonic clock.
int64_t MonotonicUs();

// Runs `body` in a forked child, which exits with body's result.
pid_t ForkChild(const std::function<int()>& body);
// Waits for a child up to `timeoutMs`; its exit status, 128 + signal for a
// child killed by a signal, or -1 after killing it at the time limit.
int WaitChild(pid_t pid, int timeoutMs);

// One piece as a test-side reader of the wire sees it.
struct WirePiece {
  std::string header;  // from the start mark to the end of the end mark
  char kind = 0;
  unsigned long serial = 0;
  long pid = 0;
  long number = 0;
  long count = 0;
  unsigned long length = 0;
  unsigned long total = 0;
  std::string data;
};
// Splits a byte stream written by the layer into pieces, independently of
// the library's parser. False (with *error set) when the stream is not a
// clean sequence of pieces.
bool SplitWire(const std::string& stream, std::vector<WirePiece>* pieces,
               std::string* error);

// "|" 0x01 0x01 0x01 + body + 0x01 0x01 0x01 "|".
std::string Framed(const std::string& body);
// A framed header with the given numbers (kind "H") followed by `data`.
std::string WireFor(unsigned long serial, long pid, long number, long count,
                    unsigned long total, const std::string& data);
// The wire bytes of a whole message as the layer cuts it into pieces.
std::string WireMessage(unsigned long serial, long pid,
                        const std::string& message);

// A test message that checks itself: "M<sender>,<seq>,<length>,<sum>;"
// followed by `length` payload letters drawn from `seed`.
std::string MakeTestMessage(int sender, int seq, size_t length, uint32_t seed);
// Cuts the concatenation of test messages at *pos: fills sender and seq and
// advances *pos; false for a malformed or damaged message.
bool TakeTestMessage(const std::string& stream, size_t* pos, int* sender,
                     int* seq, std::string* error);

// Puts zorvPipeSyscalls back as it was when constructed.
class ScopedPipeSyscalls {
 public:
  ScopedPipeSyscalls();
  ~ScopedPipeSyscalls();
  // The table as it was, for fakes that call through.
  static const ZorvPipeSyscalls& Saved();

 private:
  ZorvPipeSyscalls saved_;
};

// Switches on the pipe trace categories into a file in the working
// directory; call before anything in the process traces. Returns the path.
std::string TracePipeToFile();

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_PIPE_PEER_H
