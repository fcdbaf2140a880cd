// Tests of the primitives unit: the mutex table, clocks, pids, starting and
// reaping children, the safe copies and the thin wrappers.
#include "zorv2000/primitives.h"

#include <ctype.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "global/primitives_p.h"
#include "support/test_support.h"

namespace {

// Milliseconds of the monotonic clock, for checking pauses.
int64_t monotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Blocks SIGCHLD while in scope so that a test can reap its own child with
// waitpid() before CheckForZombiesHandler gets a chance to.
class ScopedBlockChild {
 public:
  ScopedBlockChild() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, &old_);
  }
  ~ScopedBlockChild() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

 private:
  sigset_t old_;
};

// Starts the argdump helper through ZorvExec with `commandLine`, waits for
// it and returns what it wrote ("argc=N" and one "[arg]" line each).
std::string runArgDump(const char* commandLine, int* pExitStatus = nullptr) {
  char cwd[4096];
  std::string out =
      std::string(getcwd(cwd, sizeof cwd) ? cwd : ".") + "/args.txt";
  unlink(out.c_str());
  setenv("ZORV_ARGDUMP_FILE", out.c_str(), 1);
  std::string helper = zorvtest::HelperPath("argdump");
  ScopedBlockChild block;
  int32_t pid = ZorvExec(helper.c_str(), commandLine);
  EXPECT_GT(pid, 0);
  int status = -1;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  if (pExitStatus) *pExitStatus = status;
  return zorvtest::ReadFile(out);
}

// Forks a child that exits at once with `code` and waits until it is a
// zombie, without reaping it.
pid_t makeZombie(int code) {
  pid_t pid = fork();
  if (pid == 0) _exit(code);
  siginfo_t info;
  memset(&info, 0, sizeof info);
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  return pid;
}

// Counts zombies of this process by reaping them all.
int reapAll() {
  int n = 0;
  while (waitpid(-1, nullptr, WNOHANG) > 0) ++n;
  return n;
}

// A waitpid() stand-in that records its calls and answers from a script.
struct FakeWait {
  int nCalls = 0;
  pid_t lastPid = 0;
  int lastOptions = 0;
  std::vector<pid_t> answers;  // answer of call i; the last repeats
  int64_t advanceUs = 0;       // moves the fake clock on each call
};
FakeWait gFakeWait;
int64_t gClockSeconds;
int64_t gClockMicros;

pid_t fakeWaitPid(pid_t pid, int* status, int options) {
  FakeWait& w = gFakeWait;
  w.lastPid = pid;
  w.lastOptions = options;
  if (status) *status = 0;
  pid_t answer = w.answers.empty() ? 0
                 : static_cast<size_t>(w.nCalls) < w.answers.size()
                     ? w.answers[static_cast<size_t>(w.nCalls)]
                     : w.answers.back();
  ++w.nCalls;
  if (w.advanceUs) {
    gClockMicros += w.advanceUs;
    gClockSeconds += gClockMicros / 1000000;
    gClockMicros %= 1000000;
    zorvtest::ScopedFakeClock::Set(gClockSeconds, gClockMicros);
  }
  return answer;
}

// Puts the real waitpid() back when leaving scope.
class ScopedFakeWait {
 public:
  ScopedFakeWait() {
    gFakeWait = FakeWait();
    zorvSyscalls.pfnWaitPid = fakeWaitPid;
  }
  ~ScopedFakeWait() { zorvSyscalls.pfnWaitPid = Zorv_I_RealWaitPid; }
};

}  // namespace

// ---- ZorvGrabMutex ----------------------------------------------------------

// index 12 -> -1, and every entry of the table is still free afterwards
TEST(ZorvGrabMutex, ReturnsMinusOneForIndexTwelveAndLocksNothing) {
  EXPECT_EQ(-1, ZorvGrabMutex(__FILE__, __LINE__, "test", 12, 1));
  EXPECT_EQ(-1, ZorvGrabMutex(__FILE__, __LINE__, "test", 12, 0));
  EXPECT_EQ(-1, ZorvGrabMutex(__FILE__, __LINE__, "test", 0xFFFFFFFFu, 1));
  for (uint32_t i = 0; i < 12; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(0, Zorv_I_MutexHeldCount(i));
    EXPECT_EQ(0, ZorvTryMutex(__FILE__, __LINE__, "test", i));
    EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", i, 0));
  }
}

TEST(ZorvGrabMutex, CountsGrabAndRecordsPidThenClearsOnRelease) {
  for (uint32_t i = 0; i < 12; ++i) {
    SCOPED_TRACE(i);
    ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", i, 1));
    EXPECT_EQ(1, Zorv_I_MutexHeldCount(i));
    EXPECT_EQ(static_cast<int32_t>(getpid()), Zorv_I_MutexOwnerPid(i));
    ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", i, 0));
    EXPECT_EQ(0, Zorv_I_MutexHeldCount(i));
    EXPECT_EQ(0, Zorv_I_MutexOwnerPid(i));
  }
}

TEST(ZorvGrabMutex, RecordsThePidSeenThroughTheSeam) {
  zorvtest::ScopedFakePid fake(4711);
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 3, 1));
  EXPECT_EQ(4711, Zorv_I_MutexOwnerPid(3));
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 3, 0));
}

TEST(ZorvGrabMutex, BlocksAnotherThreadUntilReleased) {
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 10, 1));
  std::atomic<bool> bGot(false);
  std::thread other([&] {
    EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "other", 10, 1));
    bGot = true;
    EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "other", 10, 0));
  });
  ZorvSleep(100);
  EXPECT_FALSE(bGot.load());
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 10, 0));
  other.join();
  EXPECT_TRUE(bGot.load());
  EXPECT_EQ(0, Zorv_I_MutexHeldCount(10));
}

TEST(ZorvGrabMutex, KeepsTheLastGrabSiteAfterRelease) {
  EXPECT_EQ(0, Zorv_I_MutexGrabSite(4, nullptr, nullptr, nullptr));
  ASSERT_EQ(0, ZorvGrabMutex("global/pipe.cpp", 77, "ZorvPipeWrite", 4, 1));
  ASSERT_EQ(0, ZorvGrabMutex("global/other.cpp", 99, "Release", 4, 0));
  const char* file = nullptr;
  const char* function = nullptr;
  int line = 0;
  ASSERT_EQ(1, Zorv_I_MutexGrabSite(4, &file, &line, &function));
  EXPECT_STREQ("global/pipe.cpp", file);
  EXPECT_EQ(77, line);
  EXPECT_STREQ("ZorvPipeWrite", function);
  EXPECT_EQ(0, Zorv_I_MutexGrabSite(12, &file, &line, &function));
}

TEST(ZorvGrabMutex, DiagnosticsOfABadIndexAreZero) {
  EXPECT_EQ(0, Zorv_I_MutexHeldCount(12));
  EXPECT_EQ(0, Zorv_I_MutexOwnerPid(12));
}

// ---- ZorvTryMutex
// -------------------------------------------------------------

TEST(ZorvTryMutex, ReturnsMinusOneForIndexTwelve) {
  EXPECT_EQ(-1, ZorvTryMutex(__FILE__, __LINE__, "test", 12));
  EXPECT_EQ(0, Zorv_I_MutexHeldCount(12));
}

TEST(ZorvTryMutex, CountsASuccessLikeAGrab) {
  ASSERT_EQ(0, ZorvTryMutex(__FILE__, __LINE__, "test", 5));
  EXPECT_EQ(1, Zorv_I_MutexHeldCount(5));
  EXPECT_EQ(static_cast<int32_t>(getpid()), Zorv_I_MutexOwnerPid(5));
  ASSERT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 5, 0));
  EXPECT_EQ(0, Zorv_I_MutexHeldCount(5));
}

// held by another thread -> EBUSY, counters as the holder left them
TEST(ZorvTryMutex, ReturnsBusyWhileAnotherThreadHolds) {
  std::atomic<int> stage(0);
  std::thread holder([&] {
    EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "holder", 3, 1));
    stage = 1;
    while (stage.load() != 2) ZorvSleep(1);
    EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "holder", 3, 0));
  });
  while (stage.load() != 1) ZorvSleep(1);
  EXPECT_EQ(EBUSY, ZorvTryMutex(__FILE__, __LINE__, "test", 3));
  EXPECT_EQ(1, Zorv_I_MutexHeldCount(3));
  stage = 2;
  holder.join();
  EXPECT_EQ(0, ZorvTryMutex(__FILE__, __LINE__, "test", 3));
  EXPECT_EQ(0, ZorvGrabMutex(__FILE__, __LINE__, "test", 3, 0));
}

// ---- ZorvWait, ZorvSleep, ZorvUserInputPending
// --------------------------------

TEST(ZorvWait, PausesForTheGivenMilliseconds) {
  int64_t start = monotonicMs();
  EXPECT_EQ(0, ZorvWait(60));
  int64_t elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 55);
  EXPECT_LT(elapsed, 5000);
}

// 1020 ms -> 1 s plus 20 000 us: the seconds part is used
TEST(ZorvWait, SplitsIntoSecondsAndMicroseconds) {
  int64_t start = monotonicMs();
  EXPECT_EQ(0, ZorvWait(1020));
  int64_t elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 1000);
  EXPECT_LT(elapsed, 6000);
}

TEST(ZorvSleep, PausesForTheGivenMilliseconds) {
  int64_t start = monotonicMs();
  EXPECT_EQ(0, ZorvSleep(60));
  int64_t elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 55);
  EXPECT_LT(elapsed, 5000);
}

// 1020 ms -> 1 s plus 20 000 000 ns
TEST(ZorvSleep, SplitsIntoSecondsAndNanoseconds) {
  int64_t start = monotonicMs();
  EXPECT_EQ(0, ZorvSleep(1020));
  int64_t elapsed = monotonicMs() - start;
  EXPECT_GE(elapsed, 1000);
  EXPECT_LT(elapsed, 6000);
}

TEST(ZorvUserInputPending, ReportsReadableStandardInput) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  int saved = dup(0);
  ASSERT_EQ(0, dup2(fds[0], 0));
  EXPECT_EQ(0, ZorvUserInputPending());
  ASSERT_EQ(1, write(fds[1], "x", 1));
  EXPECT_EQ(1, ZorvUserInputPending());
  dup2(saved, 0);
  close(saved);
  close(fds[0]);
  close(fds[1]);
}

// closed standard input: select() fails -> 0
TEST(ZorvUserInputPending, ReturnsZeroOnError) {
  int saved = dup(0);
  close(0);
  EXPECT_EQ(0, ZorvUserInputPending());
  dup2(saved, 0);
  close(saved);
}

// ---- Clocks
// ---------------------------------------------------------------------

// day 5 + 01:00:01.5 UTC -> 3 601 500
TEST(ZorvGetTimeOfDay, CountsMillisecondsSinceUtcMidnight) {
  zorvtest::ScopedFakeClock clock(86400 * 5 + 3601, 500999);
  EXPECT_EQ(3601500u, ZorvGetTimeOfDay());
}

TEST(ZorvGetTimeOfDay, WrapsAtMidnight) {
  zorvtest::ScopedFakeClock clock(86400 * 9 + 86399, 999999);
  EXPECT_EQ(86399999u, ZorvGetTimeOfDay());
  zorvtest::ScopedFakeClock::Set(86400 * 10, 0);
  EXPECT_EQ(0u, ZorvGetTimeOfDay());
}

TEST(ZorvGetTimeOfDay, FollowsTheRealClock) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  uint32_t expected = static_cast<uint32_t>(tv.tv_sec % 86400) * 1000u +
                      static_cast<uint32_t>(tv.tv_usec / 1000);
  uint32_t got = ZorvGetTimeOfDay();
  // Generous, and tolerant of a midnight between the two readings.
  EXPECT_TRUE(got - expected < 5000u || expected - got < 5000u)
      << got << " vs " << expected;
}

// 1000 s + 2500 us -> 1 000 002
TEST(ZorvMilliSeconds, CombinesSecondsAndMicroseconds) {
  zorvtest::ScopedFakeClock clock(1000, 2500);
  EXPECT_EQ(1000002u, ZorvMilliSeconds());
}

// 4 294 968 s -> 4 294 968 000 mod 2^32 = 704
TEST(ZorvMilliSeconds, WrapsAtThirtyTwoBits) {
  zorvtest::ScopedFakeClock clock(4294968, 0);
  EXPECT_EQ(704u, ZorvMilliSeconds());
}

TEST(ZorvTimeStamp, StoresAndReturnsTheClock) {
  zorvtest::ScopedFakeClock clock(50, 0);
  EXPECT_EQ(50000u, ZorvTimeStamp());
  zorvtest::ScopedFakeClock::Set(51, 250000);
  EXPECT_EQ(1250u, ZorvTimeDiff());
  EXPECT_EQ(51250u, ZorvTimeStamp());
  EXPECT_EQ(0u, ZorvTimeDiff());
}

// stamp just below the 32-bit wrap, clock just above it -> 1000
TEST(ZorvTimeDiff, SurvivesTheThirtyTwoBitWrap) {
  zorvtest::ScopedFakeClock clock(4294966, 796000);  // 4294966796 ms
  EXPECT_EQ(4294966796u, ZorvTimeStamp());
  zorvtest::ScopedFakeClock::Set(4294967, 796000);  // wraps to 500
  EXPECT_EQ(500u, ZorvMilliSeconds());
  EXPECT_EQ(1000u, ZorvTimeDiff());
}

// 1614834367 s + 0.9 s -> 2021-03-04 05:06:07, milliseconds 0
TEST(ZorvGetUtcTime, FillsTheRecordInUtcWithZeroMilliseconds) {
  zorvtest::ScopedFakeClock clock(1614834367, 900000);
  ZorvDateTime record;
  memset(&record, 0xAB, sizeof record);
  EXPECT_EQ(0, ZorvGetUtcTime(&record));
  EXPECT_EQ(2021u, record.year);
  EXPECT_EQ(3u, record.month);
  EXPECT_EQ(4u, record.day);
  EXPECT_EQ(5u, record.hour);
  EXPECT_EQ(6u, record.minute);
  EXPECT_EQ(7u, record.second);
  EXPECT_EQ(0u, record.milliseconds);
}

TEST(ZorvGetUtcTime, ReturnsOneForANullRecord) {
  EXPECT_EQ(1, ZorvGetUtcTime(nullptr));
}

// TZ two hours east of UTC: 05:06:07 UTC -> 07:06:07 local
TEST(ZorvGetLocalTime, FillsTheRecordInLocalTime) {
  setenv("TZ", "ZZZ-2", 1);
  tzset();
  zorvtest::ScopedFakeClock clock(1614834367, 0);
  ZorvDateTime record;
  memset(&record, 0xAB, sizeof record);
  EXPECT_EQ(0, ZorvGetLocalTime(&record));
  EXPECT_EQ(2021u, record.year);
  EXPECT_EQ(3u, record.month);
  EXPECT_EQ(4u, record.day);
  EXPECT_EQ(7u, record.hour);
  EXPECT_EQ(6u, record.minute);
  EXPECT_EQ(7u, record.second);
  EXPECT_EQ(0u, record.milliseconds);
}

// ---- Process ids
// -------------------------------------------------------------------

TEST(ZorvGetPid, ReturnsTheProcessId) {
  EXPECT_EQ(static_cast<int32_t>(getpid()), ZorvGetPid());
  zorvtest::ScopedFakePid fake(4711);
  EXPECT_EQ(4711, ZorvGetPid());
}

TEST(ZorvGetClientPid, CachesTheFirstAnswerAndNeverRefreshes) {
  {
    zorvtest::ScopedFakePid fake(4711);
    EXPECT_EQ(4711, ZorvGetClientPid());
  }
  EXPECT_EQ(static_cast<int32_t>(getpid()), ZorvGetPid());
  EXPECT_EQ(4711, ZorvGetClientPid());
  zorvtest::ScopedFakePid other(999);
  EXPECT_EQ(4711, ZorvGetClientPid());
}

// a forked child keeps the parent's cached id
TEST(ZorvGetClientPid, IsNotRefreshedInAForkedChild) {
  int32_t parent = ZorvGetClientPid();
  ASSERT_EQ(static_cast<int32_t>(getpid()), parent);
  pid_t child = fork();
  if (child == 0) _exit(ZorvGetClientPid() == parent ? 0 : 1);
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

// the pid is kept per process, but a forked child sees its own id, also
// when the parent asked for it before forking
TEST(ZorvGetPid, GivesAForkedChildItsOwnId) {
  ASSERT_EQ(static_cast<int32_t>(getpid()), ZorvGetPid());
  pid_t child = fork();
  if (child == 0) _exit(ZorvGetPid() == getpid() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(ZorvWaitPid, PassesItsArgumentsThrough) {
  ScopedFakeWait fake;
  gFakeWait.answers = {1234};
  int status = -1;
  EXPECT_EQ(1234, ZorvWaitPid(77, &status, WNOHANG));
  EXPECT_EQ(1, gFakeWait.nCalls);
  EXPECT_EQ(77, gFakeWait.lastPid);
  EXPECT_EQ(WNOHANG, gFakeWait.lastOptions);
}

TEST(ZorvWaitPid, ReapsARealChild) {
  pid_t child = fork();
  if (child == 0) _exit(7);
  int status = -1;
  EXPECT_EQ(static_cast<int32_t>(child), ZorvWaitPid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(7, WEXITSTATUS(status));
}

// ---- ZorvExec
// -------------------------------------------------------------------------

// "a  b" -> "<path>", "a", "", "b"
TEST(ZorvExec, SplitsAtSingleSpacesSoTwoSpacesGiveAnEmptyArgument) {
  std::string helper = zorvtest::HelperPath("argdump");
  EXPECT_EQ("argc=4\n[" + helper + "]\n[a]\n[]\n[b]\n", runArgDump("a  b"));
}

TEST(ZorvExec, SplitsCommandLines) {
  struct Row {
    const char* name;
    const char* commandLine;
    const char* expectedAfterPath;  // "argc=N\n" is checked separately
    int argc;
  };
  // clang-format off
  const Row rows[] = {
      {"empty line",          "",            "",                      1},
      {"only spaces",         "   ",         "",                      1},
      {"one argument",        "x",           "[x]\n",                 2},
      {"leading spaces",      "   x y",      "[x]\n[y]\n",            3},
      {"trailing space",      "x ",          "[x]\n",                 2},
      {"two trailing spaces", "x  ",         "[x]\n[]\n",             3},
      {"three spaces",        "a   b",       "[a]\n[]\n[]\n[b]\n",    5},
      {"tab is no separator", "a\tb c",      "[a\tb]\n[c]\n",         3},
      {"options",             "-run -d 3",   "[-run]\n[-d]\n[3]\n",   4},
  };
  // clang-format on
  std::string helper = zorvtest::HelperPath("argdump");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string expected = "argc=" + std::to_string(row.argc) + "\n[" + helper +
                           "]\n" + row.expectedAfterPath;
    EXPECT_EQ(expected, runArgDump(row.commandLine));
  }
}

TEST(ZorvExec, NullCommandLinePassesOnlyThePath) {
  std::string helper = zorvtest::HelperPath("argdump");
  EXPECT_EQ("argc=1\n[" + helper + "]\n", runArgDump(nullptr));
}

// "1 2 ... 25" -> path and "1" to "19", the rest dropped
TEST(ZorvExec, DropsArgumentsPastTheNineteenth) {
  std::string line;
  for (int i = 1; i <= 25; ++i) line += (i > 1 ? " " : "") + std::to_string(i);
  std::string helper = zorvtest::HelperPath("argdump");
  std::string expected = "argc=20\n[" + helper + "]\n";
  for (int i = 1; i <= 19; ++i) expected += "[" + std::to_string(i) + "]\n";
  EXPECT_EQ(expected, runArgDump(line.c_str()));
}

// exactly 19 arguments all arrive
TEST(ZorvExec, PassesExactlyNineteenArguments) {
  std::string line;
  for (int i = 1; i <= 19; ++i) line += (i > 1 ? " " : "") + std::to_string(i);
  std::string dump = runArgDump(line.c_str());
  EXPECT_EQ(0u, dump.find("argc=20\n"));
  EXPECT_NE(std::string::npos, dump.find("[19]\n"));
}

TEST(ZorvExec, DoesNotChangeTheCallersCommandLine) {
  char line[] = "a b  c";
  runArgDump(line);
  EXPECT_STREQ("a b  c", line);
}

TEST(ZorvExec, ReturnsTheChildsProcessId) {
  std::string helper = zorvtest::HelperPath("argdump");
  setenv("ZORV_ARGDUMP_FILE", "args.txt", 1);
  ScopedBlockChild block;
  int32_t pid = ZorvExec(helper.c_str(), "x");
  ASSERT_GT(pid, 0);
  EXPECT_NE(static_cast<int32_t>(getpid()), pid);
  int status = -1;
  EXPECT_EQ(static_cast<pid_t>(pid), waitpid(-1, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

// a path that cannot be executed -> a child that exits with 0
TEST(ZorvExec, ChildOfAnUnrunnableProgramExitsWithZero) {
  ScopedBlockChild block;
  int32_t pid = ZorvExec("/nonexistent/zorv/program", "a b");
  ASSERT_GT(pid, 0);
  int status = -1;
  ASSERT_EQ(static_cast<pid_t>(pid), waitpid(pid, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST(ZorvExec, InstallsTheZombieHandlerOnTheFirstCallOnly) {
  struct sigaction before;
  sigaction(SIGCHLD, nullptr, &before);
  ASSERT_EQ(SIG_DFL, before.sa_handler);

  ScopedBlockChild block;
  int32_t pid = ZorvExec("/nonexistent/zorv/program", "");
  ASSERT_GT(pid, 0);
  waitpid(pid, nullptr, 0);
  struct sigaction now;
  sigaction(SIGCHLD, nullptr, &now);
  EXPECT_EQ(&CheckForZombiesHandler, now.sa_handler);
  EXPECT_NE(0, now.sa_flags & SA_NOCLDSTOP);
  EXPECT_EQ(0, now.sa_flags & SA_SIGINFO);
  for (int sig = 1; sig < 32; ++sig) {
    SCOPED_TRACE(sig);
    EXPECT_EQ(0, sigismember(&now.sa_mask, sig));
  }

  // Put the default back: a second call must not install the handler again.
  signal(SIGCHLD, SIG_DFL);
  pid = ZorvExec("/nonexistent/zorv/program", "");
  ASSERT_GT(pid, 0);
  waitpid(pid, nullptr, 0);
  sigaction(SIGCHLD, nullptr, &now);
  EXPECT_EQ(SIG_DFL, now.sa_handler);
}

// with the handler installed and SIGCHLD open, a finished child is reaped
// by the handler: its /proc entry (kept while it is a zombie) disappears
TEST(ZorvExec, LeavesNoZombieOnceTheHandlerRuns) {
  int32_t pid = ZorvExec("/nonexistent/zorv/program", "");
  ASSERT_GT(pid, 0);
  std::string proc = "/proc/" + std::to_string(pid);
  int64_t start = monotonicMs();
  while (access(proc.c_str(), F_OK) == 0 && monotonicMs() - start < 10000)
    ZorvSleep(5);
  EXPECT_NE(0, access(proc.c_str(), F_OK));
  errno = 0;
  EXPECT_EQ(-1, waitpid(pid, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

// ---- ZorvClearExitStatusForChildProcesses
// --------------------------------------------

TEST(ZorvClearExitStatusForChildProcesses, MakesExactlyOneReapingCallForZero) {
  ScopedFakeWait fake;
  gFakeWait.answers = {0};
  ZorvClearExitStatusForChildProcesses(0);
  EXPECT_EQ(1, gFakeWait.nCalls);
  EXPECT_EQ(-1, gFakeWait.lastPid);
  EXPECT_EQ(WNOHANG | WUNTRACED, gFakeWait.lastOptions);
}

// a child reaped, ms 0 -> still one call
TEST(ZorvClearExitStatusForChildProcesses,
     StopsAfterOneCallForZeroEvenWhenReaping) {
  ScopedFakeWait fake;
  gFakeWait.answers = {4242};
  ZorvClearExitStatusForChildProcesses(0);
  EXPECT_EQ(1, gFakeWait.nCalls);
}

// waitpid -1 (no children) -> stop at once although 10 s are allowed
TEST(ZorvClearExitStatusForChildProcesses, StopsWhenNoChildrenAreLeft) {
  ScopedFakeWait fake;
  gFakeWait.answers = {-1};
  int64_t start = monotonicMs();
  ZorvClearExitStatusForChildProcesses(10000);
  EXPECT_EQ(1, gFakeWait.nCalls);
  EXPECT_LT(monotonicMs() - start, 5000);
}

// three children finished, then none left -> four calls
TEST(ZorvClearExitStatusForChildProcesses, KeepsReapingWhileChildrenFinish) {
  ScopedFakeWait fake;
  gFakeWait.answers = {101, 102, 103, -1};
  ZorvClearExitStatusForChildProcesses(10000);
  EXPECT_EQ(4, gFakeWait.nCalls);
}

// none finished, each call 10 ms later, 50 ms allowed -> five calls
TEST(ZorvClearExitStatusForChildProcesses, PollsUntilTheIntervalEnds) {
  gClockSeconds = 86400 * 3 + 100;
  gClockMicros = 0;
  zorvtest::ScopedFakeClock clock(gClockSeconds, gClockMicros);
  ScopedFakeWait fake;
  gFakeWait.answers = {0};
  gFakeWait.advanceUs = 10000;
  ZorvClearExitStatusForChildProcesses(50);
  EXPECT_EQ(5, gFakeWait.nCalls);
}

// start 23:59:59.990, 5 ms per call, 1000 ms allowed -> the time of day
// falls to 0 on the second call, which leaves the interval
TEST(ZorvClearExitStatusForChildProcesses,
     StopsWhenTheTimeOfDayWrapsAtMidnight) {
  gClockSeconds = 86400 * 3 + 86399;
  gClockMicros = 990000;
  zorvtest::ScopedFakeClock clock(gClockSeconds, gClockMicros);
  ScopedFakeWait fake;
  gFakeWait.answers = {0};
  gFakeWait.advanceUs = 5000;
  ZorvClearExitStatusForChildProcesses(1000);
  EXPECT_EQ(2, gFakeWait.nCalls);
}

TEST(ZorvClearExitStatusForChildProcesses, ReapsRealFinishedChildren) {
  makeZombie(1);
  makeZombie(2);
  makeZombie(3);
  ZorvClearExitStatusForChildProcesses(5000);
  errno = 0;
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST(ZorvClearExitStatusForChildProcesses, ReapsOneRealChildForZero) {
  makeZombie(1);
  makeZombie(2);
  ZorvClearExitStatusForChildProcesses(0);
  EXPECT_EQ(1, reapAll());
}

// ---- CheckForZombiesHandler
// ---------------------------------------------------------

TEST(CheckForZombiesHandler, ReapsOneFinishedChild) {
  makeZombie(1);
  makeZombie(2);
  CheckForZombiesHandler(SIGCHLD);
  EXPECT_EQ(1, reapAll());
}

// a running child: the handler returns at once and leaves errno alone
TEST(CheckForZombiesHandler, DoesNotBlockAndKeepsErrno) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  if (child == 0) {
    char c;
    close(fds[1]);
    ssize_t n = read(fds[0], &c, 1);
    _exit(n < 0 ? 1 : 0);
  }
  close(fds[0]);
  errno = EAGAIN;
  int64_t start = monotonicMs();
  CheckForZombiesHandler(SIGCHLD);
  EXPECT_LT(monotonicMs() - start, 2000);
  EXPECT_EQ(EAGAIN, errno);
  close(fds[1]);
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
}

TEST(CheckForZombiesHandler, UsesTheWaitSeamWithoutBlocking) {
  ScopedFakeWait fake;
  CheckForZombiesHandler(SIGCHLD);
  EXPECT_EQ(1, gFakeWait.nCalls);
  EXPECT_EQ(-1, gFakeWait.lastPid);
  EXPECT_NE(0, gFakeWait.lastOptions & WNOHANG);
}

// ---- ZorvSafeStrCpy, ZorvSafeStrNCpy, ZorvSafeStrCat
// -------------------------------

namespace {
struct CopyRow {
  const char* name;
  const char* src;
  int32_t size;
  const char* expected;
  int rc;
};
}  // namespace

TEST(ZorvSafeStrCpy, CopiesOrMarksOverflow) {
  // clang-format off
  const CopyRow rows[] = {
      {"abcdef into 4 bytes",  "abcdef", 4,  "!!!",            0},
      {"abcdef into 20 bytes", "abcdef", 20, "abcdef",         1},
      {"abcdef into 7 bytes",  "abcdef", 7,  "abcdef",         1},
      {"abcdef into 6 bytes",  "abcdef", 6,  "!!!OV",          0},
      {"abcdef into 1 byte",   "abcdef", 1,  "",               0},
      {"marker fits whole",    "a234567890123456", 15, "!!!OVERFLOW!!!", 0},
      {"marker cut",           "a234567890123456", 10, "!!!OVERFL", 0},
      {"empty source",         "",       4,  "",               1},
      {"empty into 1 byte",    "",       1,  "",               1},
      {"one char into 2",      "x",      2,  "x",              1},
      {"one char into 1",      "x",      1,  "",               0},
  };
  // clang-format on
  for (const CopyRow& row : rows) {
    SCOPED_TRACE(row.name);
    char buffer[32];
    memset(buffer, 'Z', sizeof buffer);
    EXPECT_EQ(row.rc, ZorvSafeStrCpy(buffer, row.src, row.size));
    EXPECT_STREQ(row.expected, buffer);
    for (size_t i = static_cast<size_t>(row.size); i < sizeof buffer; ++i)
      ASSERT_EQ('Z', buffer[i]) << "byte " << i << " written";
  }
}

// "abcdef" into 4 bytes -> "!!!", returns 0
TEST(ZorvSafeStrCpy, ReplacesOverlongSourceWithCutMarker) {
  char buffer[4];
  EXPECT_EQ(0, ZorvSafeStrCpy(buffer, "abcdef", 4));
  EXPECT_STREQ("!!!", buffer);
}

TEST(ZorvSafeStrCpy, RejectsNullDestinationAndSizeBelowOne) {
  EXPECT_EQ(0, ZorvSafeStrCpy(nullptr, "abc", 10));
  char buffer[4] = {'Z', 'Z', 'Z', 'Z'};
  EXPECT_EQ(0, ZorvSafeStrCpy(buffer, "abc", 0));
  EXPECT_EQ(0, ZorvSafeStrCpy(buffer, "abc", -5));
  EXPECT_EQ('Z', buffer[0]);
}

// null source -> destination emptied, 0
TEST(ZorvSafeStrCpy, EmptiesDestinationForNullSource) {
  char buffer[8] = "keep";
  EXPECT_EQ(0, ZorvSafeStrCpy(buffer, nullptr, 8));
  EXPECT_STREQ("", buffer);
}

// every source length 0..20 into every size 1..20, against a model
TEST(ZorvSafeStrCpy, MatchesTheRuleForAllSmallLengthsAndSizes) {
  const std::string marker = "!!!OVERFLOW!!!";
  for (int len = 0; len <= 20; ++len) {
    std::string src(static_cast<size_t>(len), 'q');
    for (int32_t size = 1; size <= 20; ++size) {
      char buffer[24];
      memset(buffer, 'Z', sizeof buffer);
      int rc = ZorvSafeStrCpy(buffer, src.c_str(), size);
      bool bFits = len <= size - 1;
      std::string expected =
          bFits ? src : marker.substr(0, static_cast<size_t>(size - 1));
      ASSERT_EQ(bFits ? 1 : 0, rc) << len << " into " << size;
      ASSERT_EQ(expected, std::string(buffer)) << len << " into " << size;
      ASSERT_EQ('Z', buffer[size]) << len << " into " << size;
    }
  }
}

// "abcdef" into 4 bytes -> "abc", returns 1
TEST(ZorvSafeStrNCpy, CutsOverlongSourceQuietly) {
  char buffer[4];
  EXPECT_EQ(1, ZorvSafeStrNCpy(buffer, "abcdef", 4));
  EXPECT_STREQ("abc", buffer);
}

TEST(ZorvSafeStrNCpy, FollowsTheSameRulesForNullAndEmpty) {
  char buffer[8] = "keep";
  EXPECT_EQ(0, ZorvSafeStrNCpy(nullptr, "abc", 8));
  EXPECT_EQ(0, ZorvSafeStrNCpy(buffer, "abc", 0));
  EXPECT_STREQ("keep", buffer);
  EXPECT_EQ(0, ZorvSafeStrNCpy(buffer, nullptr, 8));
  EXPECT_STREQ("", buffer);
  strcpy(buffer, "keep");
  EXPECT_EQ(1, ZorvSafeStrNCpy(buffer, "", 8));
  EXPECT_STREQ("", buffer);
}

TEST(ZorvSafeStrNCpy, MatchesTheRuleForAllSmallLengthsAndSizes) {
  for (int len = 0; len <= 20; ++len) {
    std::string src;
    for (int i = 0; i < len; ++i) src += static_cast<char>('a' + i);
    for (int32_t size = 1; size <= 20; ++size) {
      char buffer[24];
      memset(buffer, 'Z', sizeof buffer);
      ASSERT_EQ(1, ZorvSafeStrNCpy(buffer, src.c_str(), size));
      ASSERT_EQ(src.substr(0, static_cast<size_t>(size - 1)),
                std::string(buffer));
      ASSERT_EQ('Z', buffer[size]);
    }
  }
}

TEST(ZorvSafeStrCat, AppendsWhenThereIsRoom) {
  char buffer[10] = "ab";
  EXPECT_EQ(1, ZorvSafeStrCat(buffer, "cd", 10));
  EXPECT_STREQ("abcd", buffer);
  EXPECT_EQ(1, ZorvSafeStrCat(buffer, "efghi", 10));
  EXPECT_STREQ("abcdefghi", buffer);
}

// "ab" + "cdef" in 5 bytes -> "ab!!", returns 0
TEST(ZorvSafeStrCat, ReplacesTheAppendedPartWithTheCutMarker) {
  char buffer[5] = "ab";
  EXPECT_EQ(0, ZorvSafeStrCat(buffer, "cdef", 5));
  EXPECT_STREQ("ab!!", buffer);
}

// full buffer: nothing fits, the text stays
TEST(ZorvSafeStrCat, LeavesAFullBufferAlone) {
  char buffer[5] = "abcd";
  EXPECT_EQ(0, ZorvSafeStrCat(buffer, "x", 5));
  EXPECT_STREQ("abcd", buffer);
  EXPECT_EQ(1, ZorvSafeStrCat(buffer, "", 5));
  EXPECT_STREQ("abcd", buffer);
}

TEST(ZorvSafeStrCat, RejectsNullAndUnterminatedDestinations) {
  EXPECT_EQ(0, ZorvSafeStrCat(nullptr, "x", 5));
  char full[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(0, ZorvSafeStrCat(full, "x", 4));
  EXPECT_EQ(0, memcmp(full, "abcd", 4));
  char buffer[8] = "ab";
  EXPECT_EQ(0, ZorvSafeStrCat(buffer, "x", 0));
  EXPECT_EQ(0, ZorvSafeStrCat(buffer, nullptr, 8));
  EXPECT_STREQ("ab", buffer);
}

// ---- ZorvStrNCpy, ZorvStrCpy, CopyStrToPointer
// --------------------------------------

// "abc" with n = 3 -> "abc" and the fourth byte untouched (no terminator)
TEST(ZorvStrNCpy, LeavesTheFourthByteUntouchedForNEqualToLength) {
  char buffer[6] = {'X', 'X', 'X', 'X', 'X', '\0'};
  EXPECT_EQ(buffer, ZorvStrNCpy(buffer, "abc", 3));
  EXPECT_EQ(0, memcmp(buffer, "abcXX", 6));
}

// "ab" with n = 5 -> "ab" and a terminator, no zero filling after it
TEST(ZorvStrNCpy, TerminatesAShorterSourceWithoutZeroFilling) {
  char buffer[6] = {'X', 'X', 'X', 'X', 'X', '\0'};
  ZorvStrNCpy(buffer, "ab", 5);
  EXPECT_EQ(0, memcmp(buffer, "ab\0XX", 6));
}

TEST(ZorvStrNCpy, CopiesAtMostNCharacters) {
  char buffer[6] = {'X', 'X', 'X', 'X', 'X', '\0'};
  ZorvStrNCpy(buffer, "abcdef", 2);
  EXPECT_EQ(0, memcmp(buffer, "abXXX", 6));
  ZorvStrNCpy(buffer, "abcdef", 0);
  EXPECT_EQ(0, memcmp(buffer, "abXXX", 6));
}

TEST(ZorvStrNCpy, DoesNothingForANullPointer) {
  char buffer[4] = "xyz";
  EXPECT_EQ(buffer, ZorvStrNCpy(buffer, nullptr, 3));
  EXPECT_STREQ("xyz", buffer);
  EXPECT_EQ(nullptr, ZorvStrNCpy(nullptr, "abc", 3));
}

TEST(ZorvStrCpy, CopiesWithTerminatorAndIgnoresNull) {
  char buffer[8];
  memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(buffer, ZorvStrCpy(buffer, "abc"));
  EXPECT_EQ(0, memcmp(buffer, "abc\0XXXX", 8));
  EXPECT_EQ(buffer, ZorvStrCpy(buffer, nullptr));
  EXPECT_STREQ("abc", buffer);
  EXPECT_EQ(nullptr, ZorvStrCpy(nullptr, "abc"));
}

TEST(CopyStrToPointer, StoresACopyAndFreesTheOldValue) {
  char* p = nullptr;
  EXPECT_EQ(1, CopyStrToPointer(&p, "first"));
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("first", p);
  char* first = p;
  EXPECT_EQ(1, CopyStrToPointer(&p, "second value"));
  EXPECT_NE(nullptr, p);
  EXPECT_STREQ("second value", p);
  (void)first;  // freed by the call; AddressSanitizer checks there is no leak
  const char text[] = "shared";
  EXPECT_EQ(1, CopyStrToPointer(&p, text));
  EXPECT_NE(text, p);
  free(p);
}

TEST(CopyStrToPointer, CopiesNullAsEmptyAndRejectsANullPointer) {
  char* p = nullptr;
  EXPECT_EQ(1, CopyStrToPointer(&p, nullptr));
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("", p);
  free(p);
  EXPECT_EQ(0, CopyStrToPointer(nullptr, "x"));
}

// ---- StrToBool, BoolToStr
// -----------------------------------------------------------

TEST(StrToBool, IsFalseOnlyForZeroFAndFalse) {
  struct Row {
    const char* text;
    int expected;
  };
  // clang-format off
  const Row rows[] = {
      {"0", 0}, {"f", 0}, {"F", 0}, {"false", 0}, {"FALSE", 0}, {"FaLsE", 0},
      {"no", 1}, {"", 1}, {"1", 1}, {"true", 1}, {"00", 1}, {"fa", 1},
      {"false ", 1}, {" 0", 1}, {"off", 1}, {"n", 1}, {"-0", 1},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.expected, StrToBool(row.text));
  }
}

// "FALSE" -> false, "no" -> true
TEST(StrToBool, ReadsFalseInCapitalsAsFalseAndNoAsTrue) {
  EXPECT_EQ(0, StrToBool("FALSE"));
  EXPECT_EQ(1, StrToBool("no"));
}

TEST(StrToBool, TreatsTheEmptyTextAsTrueAndNullAsFalse) {
  EXPECT_EQ(1, StrToBool(""));
  EXPECT_EQ(0, StrToBool(nullptr));
}

TEST(BoolToStr, NamesTheValue) {
  EXPECT_STREQ("true", BoolToStr(1));
  EXPECT_STREQ("true", BoolToStr(-7));
  EXPECT_STREQ("false", BoolToStr(0));
}

// ---- SplitFilename, GetPathFilename
// -----------------------------------------------

TEST(SplitFilename, SplitsIntoDirectoryNameAndExtension) {
  struct Row {
    const char* path;
    const char* directory;
    const char* name;
    const char* extension;
  };
  // clang-format off
  const Row rows[] = {
      {"/a/b/c.tar.gz", "/a/b/",  "c",     ".tar.gz"},
      {"name",          "",       "name",  ""},
      {"",              "",       "",      ""},
      {"/",             "/",      "",      ""},
      {"dir/",          "dir/",   "",      ""},
      {".bashrc",       "",       "",      ".bashrc"},
      {"a.b/c",         "a.b/",   "c",     ""},
      {"/x/y.",         "/x/",    "y",     "."},
      {"file.txt",      "",       "file",  ".txt"},
      {"//srv//f.c",    "//srv//", "f",    ".c"},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    char directory[32], name[32], extension[32];
    memset(directory, 'Z', sizeof directory);
    memset(name, 'Z', sizeof name);
    memset(extension, 'Z', sizeof extension);
    SplitFilename(row.path, directory, name, extension);
    EXPECT_STREQ(row.directory, directory);
    EXPECT_STREQ(row.name, name);
    EXPECT_STREQ(row.extension, extension);
  }
}

// "/a/b/c.tar.gz" -> "/a/b/", "c", ".tar.gz"
TEST(SplitFilename, TakesTheExtensionFromTheFirstDot) {
  char directory[32], name[32], extension[32];
  SplitFilename("/a/b/c.tar.gz", directory, name, extension);
  EXPECT_STREQ("/a/b/", directory);
  EXPECT_STREQ("c", name);
  EXPECT_STREQ(".tar.gz", extension);
}

// "name" -> "", "name", ""
TEST(SplitFilename, GivesOnlyANameWithoutSlashOrDot) {
  char directory[32] = "old", name[32] = "old", extension[32] = "old";
  SplitFilename("name", directory, name, extension);
  EXPECT_STREQ("", directory);
  EXPECT_STREQ("name", name);
  EXPECT_STREQ("", extension);
}

TEST(SplitFilename, AcceptsNullOutputsAndEmptiesTheOthersForNullPath) {
  char name[32] = "old";
  SplitFilename("/a/b/c.d", nullptr, name, nullptr);
  EXPECT_STREQ("c", name);
  char directory[32] = "old", extension[32] = "old";
  strcpy(name, "old");
  SplitFilename(nullptr, directory, name, extension);
  EXPECT_STREQ("", directory);
  EXPECT_STREQ("", name);
  EXPECT_STREQ("", extension);
  SplitFilename("x", nullptr, nullptr, nullptr);
}

TEST(GetPathFilename, DropsTheDirectory) {
  struct Row {
    const char* path;
    const char* expected;
  };
  const Row rows[] = {{"/a/b/c.tar.gz", "c.tar.gz"},
                      {"name", "name"},
                      {"", ""},
                      {"dir/", ""},
                      {"/x/.rc", ".rc"},
                      {"a.b/c", "c"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    char out[32] = "old";
    GetPathFilename(row.path, out);
    EXPECT_STREQ(row.expected, out);
  }
}

TEST(GetPathFilename, WorksInPlaceAndForNullPath) {
  char path[32] = "/usr/lib/libx.so.1";
  GetPathFilename(path, path);
  EXPECT_STREQ("libx.so.1", path);
  char out[8] = "old";
  GetPathFilename(nullptr, out);
  EXPECT_STREQ("", out);
  GetPathFilename("x", nullptr);
}

// ---- Thin wrappers
// ------------------------------------------------------------------

TEST(ZorvGetCwd, ReturnsTheWorkingDirectory) {
  char expected[4096], got[4096];
  ASSERT_NE(nullptr, getcwd(expected, sizeof expected));
  EXPECT_EQ(got, ZorvGetCwd(got, sizeof got));
  EXPECT_STREQ(expected, got);
  char tiny[2];
  EXPECT_EQ(nullptr, ZorvGetCwd(tiny, sizeof tiny));
}

TEST(ZorvChDir, ChangesTheWorkingDirectory) {
  ASSERT_EQ(0, mkdir("sub", 0700));
  char before[4096], after[4096];
  ASSERT_NE(nullptr, getcwd(before, sizeof before));
  EXPECT_EQ(0, ZorvChDir("sub"));
  ASSERT_NE(nullptr, getcwd(after, sizeof after));
  EXPECT_EQ(std::string(before) + "/sub", after);
  EXPECT_EQ(-1, ZorvChDir("/nonexistent/zorv"));
  EXPECT_EQ(0, ZorvChDir(before));
}

TEST(ZorvGetStdInFileNo, IsZero) { EXPECT_EQ(0, ZorvGetStdInFileNo()); }

TEST(ZorvMemSet, FillsAndReturnsDestination) {
  char buffer[6] = "abcde";
  EXPECT_EQ(buffer + 1, ZorvMemSet(buffer + 1, '-', 3));
  EXPECT_STREQ("a---e", buffer);
}

TEST(ZorvMemMove, HandlesOverlap) {
  char buffer[8] = "abcdef";
  EXPECT_EQ(buffer + 2, ZorvMemMove(buffer + 2, buffer, 4));
  EXPECT_STREQ("ababcd", buffer);
}

TEST(ZorvStrLen, CountsCharacters) {
  EXPECT_EQ(0u, ZorvStrLen(""));
  EXPECT_EQ(5u, ZorvStrLen("hello"));
}

TEST(ZorvStrCmp, ComparesLikeStrcmp) {
  EXPECT_EQ(0, ZorvStrCmp("abc", "abc"));
  EXPECT_LT(ZorvStrCmp("abc", "abd"), 0);
  EXPECT_GT(ZorvStrCmp("b", "a"), 0);
  EXPECT_NE(0, ZorvStrCmp("ABC", "abc"));
}

TEST(ZorvStrNCmp, ComparesAtMostN) {
  EXPECT_EQ(0, ZorvStrNCmp("abcX", "abcY", 3));
  EXPECT_LT(ZorvStrNCmp("abcX", "abcY", 4), 0);
  EXPECT_EQ(0, ZorvStrNCmp("x", "y", 0));
}

TEST(ZorvStrCaseCmp, IgnoresLetterCase) {
  EXPECT_EQ(0, ZorvStrCaseCmp("MsG/Hdr", "msg/HDR"));
  EXPECT_LT(ZorvStrCaseCmp("abc", "ABD"), 0);
}

TEST(ZorvStrStr, FindsASubstring) {
  const char* text = "<MSG><HDR>";
  EXPECT_EQ(text + 5, ZorvStrStr(text, "<HDR>"));
  EXPECT_EQ(nullptr, ZorvStrStr(text, "<DATA>"));
  EXPECT_EQ(text, ZorvStrStr(text, ""));
}

TEST(ZorvStrChr, FindsACharacterAndTheTerminator) {
  const char* text = "a:b:c";
  EXPECT_EQ(text + 1, ZorvStrChr(text, ':'));
  EXPECT_EQ(nullptr, ZorvStrChr(text, '/'));
  EXPECT_EQ(text + 5, ZorvStrChr(text, '\0'));
}

TEST(ZorvStrCSpn, CountsUpToTheFirstOfASet) {
  EXPECT_EQ(3u, ZorvStrCSpn("abc:def/g", ":/"));
  EXPECT_EQ(3u, ZorvStrCSpn("abc", ":/"));
}

TEST(ZorvStrCat, AppendsAndReturnsDestination) {
  char buffer[16] = "ab";
  EXPECT_EQ(buffer, ZorvStrCat(buffer, "cd"));
  EXPECT_STREQ("abcd", buffer);
}

TEST(ZorvStrToL, ConvertsWithBaseAndEnd) {
  char* end = nullptr;
  const char* text = "0x1fZ";
  EXPECT_EQ(31, ZorvStrToL(text, &end, 16));
  EXPECT_EQ(text + 4, end);
  EXPECT_EQ(-42, ZorvStrToL("-42", nullptr, 10));
  EXPECT_EQ(8, ZorvStrToL("010", nullptr, 0));
}

TEST(ZorvAToI, ConvertsSignedDecimal) {
  EXPECT_EQ(-17, ZorvAToI("  -17abc"));
  EXPECT_EQ(0, ZorvAToI("x"));
  EXPECT_EQ(2147483647, ZorvAToI("2147483647"));
}

TEST(ZorvAToL, ConvertsSignedDecimal) {
  EXPECT_EQ(-2147483647L, ZorvAToL("-2147483647"));
  EXPECT_EQ(12L, ZorvAToL("12.9"));
}

// "0.1" -> the float nearest 0.1, not the double
TEST(ZorvAToF, NarrowsToSinglePrecision) {
  float value = ZorvAToF("0.1");
  EXPECT_EQ(0.1f, value);
  EXPECT_NE(0.1, static_cast<double>(value));
  EXPECT_EQ(2.5f, ZorvAToF("2.5e0"));
  EXPECT_EQ(0.0f, ZorvAToF("abc"));
}

TEST(atoul, ConvertsUnsignedDecimal) {
  EXPECT_EQ(4294967295ul, atoul("4294967295"));
  EXPECT_EQ(0ul, atoul("zz"));
  EXPECT_EQ(10ul, atoul("010"));  // decimal, not octal
}

// every value a char can hold, and EOF, against the C library
TEST(ZorvIsAlpha, MatchesTheDefaultLocaleClass) {
  EXPECT_NE(0, ZorvIsAlpha('q'));
  EXPECT_EQ(0, ZorvIsAlpha('5'));
  for (int c = -1; c <= 255; ++c)
    ASSERT_EQ(isalpha(c) != 0, ZorvIsAlpha(c) != 0) << c;
}

TEST(ZorvIsDigit, MatchesTheDefaultLocaleClass) {
  EXPECT_NE(0, ZorvIsDigit('5'));
  EXPECT_EQ(0, ZorvIsDigit('a'));
  for (int c = -1; c <= 255; ++c)
    ASSERT_EQ(isdigit(c) != 0, ZorvIsDigit(c) != 0) << c;
}

TEST(ZorvIsAlNum, MatchesTheDefaultLocaleClass) {
  EXPECT_NE(0, ZorvIsAlNum('Z'));
  EXPECT_NE(0, ZorvIsAlNum('0'));
  EXPECT_EQ(0, ZorvIsAlNum('_'));
  for (int c = -1; c <= 255; ++c)
    ASSERT_EQ(isalnum(c) != 0, ZorvIsAlNum(c) != 0) << c;
}

TEST(ZorvToLower, LowersLettersInRange) {
  EXPECT_EQ('a', ZorvToLower('A'));
  EXPECT_EQ('z', ZorvToLower('Z'));
  EXPECT_EQ('a', ZorvToLower('a'));
  EXPECT_EQ('1', ZorvToLower('1'));
  EXPECT_EQ(-1, ZorvToLower(-1));
  for (int c = 0; c <= 255; ++c) {
    int expected = (c >= 'A' && c <= 'Z') ? c + 32 : c;
    ASSERT_EQ(expected, ZorvToLower(c)) << c;
  }
  // Signed char values get whatever the C library's table holds for them
  // (EOF stays -1).
  for (int c = -128; c < 0; ++c) ASSERT_EQ(tolower(c), ZorvToLower(c)) << c;
}

TEST(ZorvToLower, ReturnsValuesOutsideTheRangeUnchanged) {
  const int values[] = {-129, 256, 'A' + 256, 1000, INT_MIN, INT_MAX};
  for (int v : values) {
    SCOPED_TRACE(v);
    EXPECT_EQ(v, ZorvToLower(v));
  }
}

TEST(ZorvSprintf, FormatsIntoTheBuffer) {
  char buffer[32];
  EXPECT_EQ(6, ZorvSprintf(buffer, "%s-%04d", "x", 42));
  EXPECT_STREQ("x-0042", buffer);
}

TEST(ZorvPrintf, WritesToStandardOutput) {
  zorvtest::FdCapture capture(1);
  capture.Start();
  int rc = ZorvPrintf("pid %i of %s\n", 12, "zorv");
  EXPECT_EQ("pid 12 of zorv\n", capture.Stop());
  EXPECT_EQ(15, rc);
}

TEST(ZorvSScanf, ScansFormattedText) {
  int number = 0;
  char word[8] = "";
  EXPECT_EQ(2, ZorvSScanf("12 ab", "%d %7s", &number, word));
  EXPECT_EQ(12, number);
  EXPECT_STREQ("ab", word);
  EXPECT_EQ(0, ZorvSScanf("x", "%d", &number));
}

// ---- Out-of-memory exit
// -------------------------------------------------------------

TEST(ZorvIVerifyFailed, PrintsTheMessageAndExitsWithOne) {
  EXPECT_EXIT(Zorv_I_VerifyFailed(12, "global/x.cpp"),
              testing::ExitedWithCode(1),
              "^Zorv2000 Verify Failed: Line:12 File:global/x\\.cpp Possibly "
              "Out of Memory\\.\n$");
}

TEST(ZorvIVerifyFailed, IsWhatTheVerifyMacroCalls) {
  EXPECT_EXIT(
      ZORV_VERIFY(1 == 2), testing::ExitedWithCode(1),
      "Zorv2000 Verify Failed: Line:[0-9]+ File:.*primitives_test\\.cpp "
      "Possibly Out of Memory\\.");
  ZORV_VERIFY(1 == 1);
}
