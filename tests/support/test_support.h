// Fixtures shared by the tests: temporary directories and files, capture of
// what the library writes to a descriptor, and scoped replacement of the
// system-call seams.
#ifndef ZORV_TESTS_SUPPORT_TEST_SUPPORT_H
#define ZORV_TESTS_SUPPORT_TEST_SUPPORT_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace zorvtest {

// A new directory under $TMPDIR (or /tmp), named after `prefix`.
std::string MakeTempDir(const char* prefix);
// Removes a directory tree (rm -rf).
void RemoveTree(const std::string& path);
// Writes `content` to `path` (binary, truncating); returns success.
bool WriteFile(const std::string& path, const std::string& content);
// Whole content of `path`, empty when missing.
std::string ReadFile(const std::string& path);
// Full path of a file under tests/data.
std::string DataPath(const std::string& name);
// Full path of a helper program built from tests/support/helpers.
std::string HelperPath(const std::string& name);
// Number of open descriptors of this process.
int CountOpenDescriptors();

// Captures what is written to descriptor `fd` (1 or 2) between Start() and
// Stop(), through a temporary file. Stop() returns the bytes.
class FdCapture {
 public:
  explicit FdCapture(int fd);
  ~FdCapture();
  void Start();
  std::string Stop();

 private:
  int fd_;
  int saved_ = -1;
  std::string path_;
};

// Makes the library see a fixed wall clock (seconds since the epoch and
// microseconds) while in scope.
class ScopedFakeClock {
 public:
  ScopedFakeClock(int64_t seconds, int64_t microseconds);
  ~ScopedFakeClock();
  static void Set(int64_t seconds, int64_t microseconds);
};

// Makes the library see `pid` as this process's id while in scope (the
// cached client pid is taken from it if not cached yet).
class ScopedFakePid {
 public:
  explicit ScopedFakePid(pid_t pid);
  ~ScopedFakePid();
};

// Removes what varies between runs from trace text: the process id in
// "name(pid):" and the line number after the file name, for comparison with
// golden files.
std::string NormalizeTrace(const std::string& text);

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_TEST_SUPPORT_H
