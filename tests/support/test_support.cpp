// Fixtures shared by the tests; see test_support.h.
#include "support/test_support.h"

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "global/primitives_p.h"

namespace zorvtest {

std::string MakeTempDir(const char* prefix) {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
  char* made = mkdtemp(&pattern[0]);
  if (!made) abort();
  return pattern;
}

void RemoveTree(const std::string& path) {
  DIR* dir = opendir(path.c_str());
  if (dir) {
    while (struct dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      std::string child = path + "/" + name;
      struct stat st;
      if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        RemoveTree(child);
      else
        unlink(child.c_str());
    }
    closedir(dir);
  }
  rmdir(path.c_str());
}

bool WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

std::string DataPath(const std::string& name) {
  return std::string(ZORV_TEST_DATA_DIR) + "/" + name;
}

std::string HelperPath(const std::string& name) {
  return std::string(ZORV_TEST_BINARY_DIR) + "/helpers/" + name;
}

int CountOpenDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (struct dirent* entry = readdir(dir))
    if (entry->d_name[0] != '.') ++count;
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

FdCapture::FdCapture(int fd) : fd_(fd) {}

FdCapture::~FdCapture() {
  if (saved_ >= 0) Stop();
}

void FdCapture::Start() {
  char name[] = "/tmp/zorvcapture.XXXXXX";
  int tmp = mkstemp(name);
  if (tmp < 0) abort();
  path_ = name;
  fflush(nullptr);
  saved_ = dup(fd_);
  dup2(tmp, fd_);
  close(tmp);
}

std::string FdCapture::Stop() {
  fflush(nullptr);
  dup2(saved_, fd_);
  close(saved_);
  saved_ = -1;
  std::string text = ReadFile(path_);
  unlink(path_.c_str());
  return text;
}

namespace {
int64_t gFakeSeconds;
int64_t gFakeMicroseconds;
pid_t gFakePid;

int fakeGetTimeOfDay(struct timeval* tv) {
  tv->tv_sec = static_cast<time_t>(gFakeSeconds);
  tv->tv_usec = static_cast<suseconds_t>(gFakeMicroseconds);
  return 0;
}

pid_t fakeGetPid() { return gFakePid; }
}  // namespace

ScopedFakeClock::ScopedFakeClock(int64_t seconds, int64_t microseconds) {
  Set(seconds, microseconds);
  zorvSyscalls.pfnGetTimeOfDay = fakeGetTimeOfDay;
}

ScopedFakeClock::~ScopedFakeClock() {
  zorvSyscalls.pfnGetTimeOfDay = Zorv_I_RealGetTimeOfDay;
}

void ScopedFakeClock::Set(int64_t seconds, int64_t microseconds) {
  gFakeSeconds = seconds;
  gFakeMicroseconds = microseconds;
}

ScopedFakePid::ScopedFakePid(pid_t pid) {
  gFakePid = pid;
  zorvSyscalls.pfnGetPid = fakeGetPid;
}

ScopedFakePid::~ScopedFakePid() { zorvSyscalls.pfnGetPid = Zorv_I_RealGetPid; }

std::string NormalizeTrace(const std::string& text) {
  // Hand-written rather than std::regex: g++'s regex trips
  // -Wmaybe-uninitialized in sanitizer builds.
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    char c = text[i];
    // "(digits):" -> "(PID):"
    if (c == '(') {
      size_t j = i + 1;
      while (j < text.size() && isdigit(static_cast<unsigned char>(text[j])))
        ++j;
      if (j > i + 1 && j + 1 < text.size() && text[j] == ')' &&
          text[j + 1] == ':') {
        out += "(PID):";
        i = j + 2;
        continue;
      }
    }
    // ".ext:digits " -> ".ext:LINE "
    if (c == '.') {
      size_t j = i + 1;
      while (j < text.size() && isalpha(static_cast<unsigned char>(text[j])))
        ++j;
      if (j > i + 1 && j < text.size() && text[j] == ':') {
        size_t k = j + 1;
        while (k < text.size() && isdigit(static_cast<unsigned char>(text[k])))
          ++k;
        if (k > j + 1 && k < text.size() && text[k] == ' ') {
          out.append(text, i, j + 1 - i);
          out += "LINE ";
          i = k + 1;
          continue;
        }
      }
    }
    out += c;
    ++i;
  }
  return out;
}

}  // namespace zorvtest
