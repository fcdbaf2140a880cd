// Tests of the tracing unit: category switches read from the environment,
// the trace line and where it goes, process names, the module trace file
// name and the debugger launch. The switches are read once per process, so
// tests that need several settings run each in a forked child.
#include "zorv2000/tracing.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "global/tracing_p.h"
#include "support/test_support.h"
#include "zorv2000/fifo-names.h"

namespace {

// Bit mask with every category 0 to 10 set.
const int kAllCategories = (1 << 11) - 1;

// Sets or clears the two trace variables before the first trace call.
void setSwitches(const char* trace, const char* file) {
  if (trace)
    setenv("ZORV_TRACE", trace, 1);
  else
    unsetenv("ZORV_TRACE");
  if (file)
    setenv("ZORV_TRACE_FILE", file, 1);
  else
    unsetenv("ZORV_TRACE_FILE");
}

// Runs `body` in a forked child and returns its exit status; -1 when no
// child ran, -2 when it did not exit normally (a crash).
template <typename Body>
int exitCodeOfChild(Body body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (!WIFEXITED(status)) return -2;
  return WEXITSTATUS(status);
}

// In a forked child with ZORV_TRACE = `value` (unset for null): the mask of
// categories 0 to 10 for which TracingTypeEnabled() is 1; -1 on failure.
int enabledMaskInChild(const std::string* value) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    setSwitches(value ? value->c_str() : nullptr, nullptr);
    int mask = 0;
    for (int category = 0; category < ZORV_TRC_COUNT; ++category)
      if (TracingTypeEnabled(category)) mask |= 1 << category;
    _exit(write(fds[1], &mask, sizeof mask) == sizeof mask ? 0 : 1);
  }
  close(fds[1]);
  int mask = -1;
  ssize_t nRead = pid > 0 ? read(fds[0], &mask, sizeof mask) : -1;
  close(fds[0]);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  if (nRead != sizeof mask || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return -1;
  return mask;
}

// The pipe directory of this test process (also its working directory).
std::string testDir() {
  const char* dir = getenv("ZORV_TMP");
  return dir ? dir : ".";
}

// This process's name as the kernel keeps it, without the newline.
std::string ownCommName() {
  std::string comm = zorvtest::ReadFile("/proc/self/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

// "./" repeated so that the path `tail` ends up `length` characters long.
std::string dottedPath(size_t length, const std::string& tail) {
  std::string path;
  while (path.size() + tail.size() < length) path += "./";
  return path + tail;
}

// Milliseconds of the wall clock, for a generous lower bound.
int64_t nowMs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

}  // namespace

// ---- TracingTypeStrToType ----------------------------------------------

// "PIPE2" -> 1; every keyword in any letter case -> its category
TEST(TracingTypeStrToType, MapsEveryKeywordIgnoringCase) {
  struct Row {
    const char* name;
    int category;
  };
  const Row rows[] = {{"pipe", 0}, {"PIPE", 0}, {"pipe2", 1}, {"PIPE2", 1},
                      {"mem", 2},  {"Mem", 2},  {"diag", 4},  {"DiAg", 4},
                      {"mb", 5},   {"MB", 5},   {"de", 6},    {"dE", 6},
                      {"nls", 7},  {"NLS", 7},  {"cli", 8},   {"Cli", 8},
                      {"pv", 9},   {"PV", 9},   {"dll", 10},  {"DLL", 10}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.category, TracingTypeStrToType(row.name));
  }
}

// "x" -> -1; no keyword for category 3, no trimming, no prefixes
TEST(TracingTypeStrToType, ReturnsMinusOneForAnyOtherText) {
  const char* const rows[] = {"x",       "",    "pipe ", " pipe", "pip",
                              "pipe3",   "all", "ALL",   "3",     "program",
                              "diag,mb", "mbx", "\xff"};
  for (const char* row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(-1, TracingTypeStrToType(row));
  }
  EXPECT_EQ(-1, TracingTypeStrToType(nullptr));
}

// ---- ProcNameToTracingType -----------------------------------------------

// "zorv2000" -> 5, "diagengine" -> 6, "nlsengine" -> 7, "zorvcli" -> 8
TEST(ProcNameToTracingType, MapsFrameworkProgramsIgnoringCase) {
  struct Row {
    const char* name;
    int category;
  };
  const Row rows[] = {{"zorv2000", 5},   {"ZORV2000", 5},  {"diagengine", 6},
                      {"DiagEngine", 6}, {"nlsengine", 7}, {"NLSENGINE", 7},
                      {"zorvcli", 8},    {"ZorvCli", 8}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.category, ProcNameToTracingType(row.name));
  }
}

// "mymodule" -> 4, and so is every other name
TEST(ProcNameToTracingType, MapsAnyOtherNameToDiag) {
  const char* const rows[] = {"mymodule", "",           "zorv2000x",
                              "zorv",     "nlsengine ", "tracing_test"};
  for (const char* row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(4, ProcNameToTracingType(row));
  }
  EXPECT_EQ(4, ProcNameToTracingType(nullptr));
}

// ---- TracingTypeEnabled and the ZORV_TRACE switch ------------------------

// nothing set -> every category off
TEST(TracingTypeEnabled, IsOffForEveryCategoryByDefault) {
  setSwitches(nullptr, nullptr);
  for (int category = -2; category <= 12; ++category) {
    SCOPED_TRACE(category);
    EXPECT_EQ(0, TracingTypeEnabled(category));
  }
  EXPECT_EQ(0, ProgramTracingEnabled());
}

// TracingTypeEnabled(11) -> 0 even with "all"
TEST(TracingTypeEnabled, ReturnsZeroForCategoryEleven) {
  setSwitches("all", nullptr);
  EXPECT_EQ(1, TracingTypeEnabled(10));
  EXPECT_EQ(0, TracingTypeEnabled(11));
}

// categories outside 0..10 -> 0 even with "all"
TEST(TracingTypeEnabled, ReturnsZeroOutsideZeroToTen) {
  setSwitches("all", nullptr);
  const int rows[] = {-1, 11, 12, 100, INT_MAX, INT_MIN};
  for (int row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(0, TracingTypeEnabled(row));
  }
  for (int category = 0; category <= 10; ++category) {
    SCOPED_TRACE(category);
    EXPECT_EQ(1, TracingTypeEnabled(category));
  }
}

// ZORV_TRACE values, friendly and hostile -> the categories switched on.
// This program's name maps to "diag", so bit 3 follows bit 4.
TEST(TracingTypeEnabled, FollowsZorvTraceKeywords) {
  struct Row {
    const char* name;
    const std::string* value;
    int mask;
  };
  const std::string empty = "";
  const std::string commas = ",,,";
  const std::string single = "pipe";
  const std::string padded = "  Pipe2 ,\tMEM\t, dll ";
  const std::string emptyItems = ",,nls,,";
  const std::string all = "all";
  const std::string allPadded = "  ALL ";
  const std::string allAmong = "x,all";
  const std::string diag = "diag";
  const std::string unknown = "pipe3,memory,foo,program,3,0,10";
  const std::string semicolons = "pipe;mem";
  const std::string innerSpace = "pi pe,m b";
  const std::string longGarbage(100000, 'x');
  const std::string longItemThenMb = std::string(5000, 'm') + ",mb";
  const std::string keywordLongPadding =
      "pipe" + std::string(5000, ' ') + ",de";
  const std::string highBytes = "\xff\xfe,\x80pipe,pipe\x80";
  const std::string repeated = "mb,mb,MB";
  const std::string onlySpaces = "   ,  \t ,";
  const std::string every = "pipe,pipe2,mem,diag,mb,de,nls,cli,pv,dll";
  const Row rows[] = {
      {"unset", nullptr, 0},
      {"empty", &empty, 0},
      {"onlyCommas", &commas, 0},
      {"single", &single, 1 << 0},
      {"mixedCaseWithSpacesAndTabs", &padded, (1 << 1) | (1 << 2) | (1 << 10)},
      {"emptyItemsAndTrailingComma", &emptyItems, 1 << 7},
      {"all", &all, kAllCategories},
      {"allUpperCasePadded", &allPadded, kAllCategories},
      {"allAmongUnknownWords", &allAmong, kAllCategories},
      {"diagAlsoOpensProgramCategory", &diag, (1 << 3) | (1 << 4)},
      {"unknownWordsAndNumbers", &unknown, 0},
      {"semicolonIsNoSeparator", &semicolons, 0},
      {"innerSpaceKeepsItemUnknown", &innerSpace, 0},
      {"longGarbage", &longGarbage, 0},
      {"longItemThenKeyword", &longItemThenMb, 1 << 5},
      {"keywordWithLongPadding", &keywordLongPadding, (1 << 0) | (1 << 6)},
      {"highBytes", &highBytes, 0},
      {"repeatedKeyword", &repeated, 1 << 5},
      {"onlySpaces", &onlySpaces, 0},
      {"everyKeyword", &every, kAllCategories},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.mask, enabledMaskInChild(row.value));
  }
}

// ZORV_TRACE changed after the first call -> the switches stay as read
TEST(TracingTypeEnabled, IgnoresChangesOfZorvTraceAfterFirstCall) {
  setSwitches("pipe", nullptr);
  EXPECT_EQ(1, TracingTypeEnabled(0));
  setSwitches("mem", nullptr);
  EXPECT_EQ(1, TracingTypeEnabled(0));
  EXPECT_EQ(0, TracingTypeEnabled(2));
  setSwitches(nullptr, nullptr);
  EXPECT_EQ(1, TracingTypeEnabled(0));
}

// ---- ProgramTracingEnabled -------------------------------------------------

// a process renamed "zorv2000" follows "mb", "nlsengine" "nls", others "diag"
TEST(ProgramTracingEnabled, FollowsSwitchOfRenamedProcess) {
  struct Row {
    const char* procName;
    const char* trace;
    int enabled;
  };
  const Row rows[] = {
      {"zorv2000", "mb", 1},     {"zorv2000", "nls", 0},
      {"zorv2000", "diag", 0},   {"nlsengine", "nls", 1},
      {"nlsengine", "mb", 0},    {"mymodule", "diag", 1},
      {"mymodule", "mb,nls", 0}, {"diagengine", "de", 1},
      {"zorvcli", "cli", 1},     {"zorvcli", "diag", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.procName) + " with " + row.trace);
    int code = exitCodeOfChild([&row]() {
      if (prctl(PR_SET_NAME, row.procName, 0, 0, 0) != 0) return 10;
      setSwitches(row.trace, nullptr);
      if (ProgramTracingEnabled() != row.enabled) return 1;
      if (TracingTypeEnabled(3) != row.enabled) return 2;
      if (strcmp(Tracing_I_ProcName(), row.procName) != 0) return 3;
      return 0;
    });
    EXPECT_EQ(0, code);
  }
}

// a process whose /proc name is "zorv2000" is 5, "nlsengine" 7, "mymodule" 4
TEST(ProgramTracingEnabled, ResolvesCategoryOfRenamedProcess) {
  struct Row {
    const char* procName;
    int category;
  };
  const Row rows[] = {{"zorv2000", 5}, {"nlsengine", 7}, {"mymodule", 4}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.procName);
    int code = exitCodeOfChild([&row]() {
      if (prctl(PR_SET_NAME, row.procName, 0, 0, 0) != 0) return 10;
      const char* name = PidToProcName(static_cast<int32_t>(getpid()));
      if (strcmp(name, row.procName) != 0) return 1;
      return ProcNameToTracingType(name) == row.category ? 0 : 2;
    });
    EXPECT_EQ(0, code);
  }
}

// ---- TPRINTF and TPRINTF_NH ----------------------------------------------

// all switches off -> nothing written anywhere, every call returns 0
TEST(TPRINTF, WritesNothingAndReturnsZeroWithAllSwitchesOff) {
  setSwitches(nullptr, nullptr);
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  int nonZero = 0;
  for (int category = -1; category <= 12; ++category) {
    if (TPRINTF(category, __FILE__, __LINE__, "TestBody", "line %d\n",
                category) != 0)
      ++nonZero;
    if (TPRINTF_NH(category, __FILE__, __LINE__, "line %d\n", category) != 0)
      ++nonZero;
  }
  std::string outText = out.Stop();
  std::string errText = err.Stop();
  EXPECT_EQ(0, nonZero);
  EXPECT_EQ("", errText);
  EXPECT_EQ("", outText);
}

// a disabled line is never formatted: a wild "%s" argument is not touched
TEST(TPRINTF, DoesNotFormatWhenDisabled) {
  int code = exitCodeOfChild([]() {
    setSwitches("pipe", nullptr);
    const char* wild = reinterpret_cast<const char*>(static_cast<uintptr_t>(8));
    int rc = TPRINTF(2, __FILE__, __LINE__, "TestBody", "%s\n", wild);
    rc += TPRINTF_NH(2, __FILE__, __LINE__, "%s\n", wild);
    return rc == 0 ? 0 : 1;
  });
  EXPECT_EQ(0, code);
}

// enabled lines on standard error, prefixed; category 3 follows "diag"
TEST(TPRINTF, WritesPrefixedLinesToStandardErrorAsGolden) {
  setSwitches("pipe, DIAG,dll", nullptr);
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  int total = 0;
  total += TPRINTF(0, "global/pipe-lowlevel.cpp", 120, "ZorvPipe_I_Thread",
                   "piece of %d bytes\n", 4020);
  total += TPRINTF(2, "global/memory-alloc.cpp", 77, "ZorvMalloc",
                   "not shown: mem is off\n");
  total += TPRINTF(3, __FILE__, __LINE__, "TestBody", "program category %s\n",
                   "diag");
  total += TPRINTF(5, "servers/broker.cpp", 9, "main", "not shown: mb\n");
  total += TPRINTF(10, "dll/TestRunImp.cpp", 300, "CTestRun::CTestRun",
                   "CTestRun::CTestRun\n");
  total +=
      TPRINTF(4, "plain.cpp", 1, "f", "%5.2f|%-4s|%x\n", 3.14159, "ab", 255u);
  std::string outText = out.Stop();
  std::string errText = err.Stop();
  EXPECT_EQ("", outText);
  EXPECT_EQ(static_cast<int>(errText.size()), total);
  EXPECT_EQ(zorvtest::ReadFile(zorvtest::DataPath("golden/tracing_prefix.txt")),
            zorvtest::NormalizeTrace(errText));
}

// the prefix carries the real pid and line: "name(pid):f():a.cpp:42 "
TEST(TPRINTF, PrefixCarriesProcessIdAndLine) {
  setSwitches("diag", nullptr);
  zorvtest::FdCapture err(2);
  err.Start();
  int rc = TPRINTF(4, "/abs/dir/a.cpp", 42, "f", "x=%d\n", 7);
  std::string text = err.Stop();
  std::string expected =
      ownCommName() + "(" + std::to_string(getpid()) + "):f():a.cpp:42 x=7\n";
  EXPECT_EQ(expected, text);
  EXPECT_EQ(static_cast<int>(expected.size()), rc);
}

// a 1000-character source path -> only its last part in the prefix
TEST(TPRINTF, StripsDirectoryFromOverlongSourcePath) {
  setSwitches("diag", nullptr);
  std::string path;
  while (path.size() < 1000) path += "directory/";
  path += "deep.cpp";
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, path.c_str(), 5, "g", "deep\n");
  std::string text = err.Stop();
  EXPECT_EQ(ownCommName() + "(PID):g():deep.cpp:LINE deep\n",
            zorvtest::NormalizeTrace(text));
}

// null file and function -> empty fields, no crash
TEST(TPRINTF, ToleratesNullFileAndFunction) {
  setSwitches("diag", nullptr);
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, nullptr, 3, nullptr, "bare\n");
  std::string text = err.Stop();
  EXPECT_EQ(ownCommName() + "(" + std::to_string(getpid()) + "):()::3 bare\n",
            text);
}

// the first trace call sets the process name
TEST(TPRINTF, FirstTraceCallSetsProcessName) {
  setSwitches(nullptr, nullptr);
  EXPECT_STREQ("", Tracing_I_ProcName());
  EXPECT_EQ(0, TPRINTF(4, __FILE__, __LINE__, "TestBody", "off\n"));
  EXPECT_EQ(ownCommName(), Tracing_I_ProcName());
}

// ZORV_TRACE_FILE -> lines appended to the file, none on the console
TEST(TPRINTF, AppendsLinesToTraceFileAsGolden) {
  std::string path = testDir() + "/trace.txt";
  ASSERT_TRUE(zorvtest::WriteFile(path, "earlier line\n"));
  setSwitches("mem,diag", path.c_str());
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  int total = 0;
  total += TPRINTF(2, "global/memory-alloc.cpp", 10, "ZorvMalloc",
                   "block of %d bytes\n", 64);
  total += TPRINTF_NH(4, "x.cpp", 11, "  headerless %s\n", "row");
  total += TPRINTF(7, "global/nls-access.cpp", 12, "ZorvNls", "not shown\n");
  total += TPRINTF(3, __FILE__, __LINE__, "TestBody", "program line\n");
  std::string outText = out.Stop();
  std::string errText = err.Stop();
  EXPECT_EQ("", errText);
  EXPECT_EQ("", outText);
  std::string written = zorvtest::ReadFile(path);
  EXPECT_EQ(static_cast<int>(written.size() - strlen("earlier line\n")), total);
  EXPECT_EQ(zorvtest::ReadFile(zorvtest::DataPath("golden/tracing_file.txt")),
            zorvtest::NormalizeTrace(written));
}

// the file is closed after each line: removing it makes the next line start
// a new file, and no descriptor stays open
TEST(TPRINTF, ReopensTraceFileForEveryLine) {
  std::string path = testDir() + "/trace.txt";
  setSwitches("diag", path.c_str());
  int before = zorvtest::CountOpenDescriptors();
  EXPECT_LT(0, TPRINTF(4, "a.cpp", 1, "f", "first\n"));
  EXPECT_EQ(before, zorvtest::CountOpenDescriptors());
  ASSERT_EQ(0, unlink(path.c_str()));
  EXPECT_LT(0, TPRINTF(4, "a.cpp", 2, "f", "second\n"));
  EXPECT_EQ(before, zorvtest::CountOpenDescriptors());
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE second\n",
            zorvtest::NormalizeTrace(zorvtest::ReadFile(path)));
}

// a trace file that cannot be opened -> nothing anywhere, returns 0
TEST(TPRINTF, WritesNothingWhenTraceFileCannotBeOpened) {
  setSwitches("diag", "/nonexistent-zorv-directory/trace.txt");
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  int rc = TPRINTF(4, "a.cpp", 1, "f", "lost\n");
  int rcNh = TPRINTF_NH(4, "a.cpp", 1, "lost\n");
  std::string outText = out.Stop();
  std::string errText = err.Stop();
  EXPECT_EQ(0, rc);
  EXPECT_EQ(0, rcNh);
  EXPECT_EQ("", errText);
  EXPECT_EQ("", outText);
}

// a 255-character trace file name is used as it is
TEST(TPRINTF, AcceptsTraceFileNameOf255Characters) {
  std::string path = dottedPath(255, "ok7.trc");
  ASSERT_EQ(255u, path.size());
  setSwitches("diag", path.c_str());
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, "a.cpp", 1, "f", "kept\n");
  std::string errText = err.Stop();
  EXPECT_EQ("", errText);
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE kept\n",
            zorvtest::NormalizeTrace(zorvtest::ReadFile("ok7.trc")));
}

// a trace file name of 256 characters or more is ignored, never cut: lines
// stay on standard error and neither the cut nor the full name is written
TEST(TPRINTF, IgnoresOverlongTraceFileName) {
  struct Row {
    const char* name;
    size_t length;
    const char* cutFile;
    const char* fullFile;
  };
  const Row rows[] = {
      {"256", 256, "ok8.trc", "ok8.trcx"},
      {"260", 260, "cut.trc", "cut.trc-tail"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string full = dottedPath(row.length, row.fullFile);
    ASSERT_EQ(row.length, full.size());
    int code = exitCodeOfChild([&full]() {
      int devNull = open("/dev/null", O_WRONLY);
      if (devNull < 0 || dup2(devNull, 2) != 2) return 10;
      setSwitches("diag", full.c_str());
      return TPRINTF(4, "a.cpp", 1, "f", "on stderr\n") > 0 ? 0 : 1;
    });
    EXPECT_EQ(0, code);
    EXPECT_NE(0, access(row.cutFile, F_OK));
    EXPECT_NE(0, access(row.fullFile, F_OK));
  }
  setSwitches("diag", dottedPath(260, "cut.trc-tail").c_str());
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, "a.cpp", 1, "f", "on stderr\n");
  std::string errText = err.Stop();
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE on stderr\n",
            zorvtest::NormalizeTrace(errText));
  EXPECT_NE(0, access("cut.trc", F_OK));
}

// ZORV_TRACE_FILE set to "" -> standard error
TEST(TPRINTF, TreatsEmptyTraceFileNameAsUnset) {
  setSwitches("diag", "");
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, "a.cpp", 1, "f", "console\n");
  std::string errText = err.Stop();
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE console\n",
            zorvtest::NormalizeTrace(errText));
}

// ZORV_TRACE_FILE set after the first call -> still standard error
TEST(TPRINTF, IgnoresChangesOfZorvTraceFileAfterFirstCall) {
  setSwitches("diag", nullptr);
  EXPECT_EQ(1, TracingTypeEnabled(4));
  std::string path = testDir() + "/late.txt";
  setSwitches("diag", path.c_str());
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, "a.cpp", 1, "f", "console\n");
  std::string errText = err.Stop();
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE console\n",
            zorvtest::NormalizeTrace(errText));
  EXPECT_NE(0, access(path.c_str(), F_OK));
}

// headerless lines go to standard output, not standard error
TEST(TPRINTFNH, WritesToStandardOutputNotStandardError) {
  setSwitches("nls,pv", nullptr);
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  int total = 0;
  total += TPRINTF_NH(7, "x.cpp", 1, "%-10s|%5d\n", "name", 42);
  total += TPRINTF_NH(9, "x.cpp", 2, "second line\n");
  total += TPRINTF_NH(10, "x.cpp", 3, "not shown: dll is off\n");
  total += TPRINTF_NH(3, "x.cpp", 4, "not shown: diag is off\n");
  std::string outText = out.Stop();
  std::string errText = err.Stop();
  EXPECT_EQ("", errText);
  EXPECT_EQ(static_cast<int>(outText.size()), total);
  EXPECT_EQ(zorvtest::ReadFile(zorvtest::DataPath("golden/tracing_nh.txt")),
            outText);
}

// ---- TracingString
// -----------------------------------------------------------

// empty at start -> null
TEST(TracingString, ReturnsNullWhileEmpty) {
  EXPECT_EQ(nullptr, TracingString());
}

// a set text is returned; emptied again -> null
TEST(TracingString, ReturnsTextOnceSet) {
  Tracing_I_SetTracingString("pipe,mem");
  ASSERT_NE(nullptr, TracingString());
  EXPECT_STREQ("pipe,mem", TracingString());
  Tracing_I_SetTracingString("");
  EXPECT_EQ(nullptr, TracingString());
  Tracing_I_SetTracingString(std::string(600, 'a').c_str());
  ASSERT_NE(nullptr, TracingString());
  EXPECT_STREQ("!!!OVERFLOW!!!", TracingString());
}

// ---- PidToProcName ---------------------------------------------------------

// this process -> the kernel's name for it
TEST(PidToProcName, ReadsOwnProcessName) {
  EXPECT_EQ(ownCommName(), PidToProcName(static_cast<int32_t>(getpid())));
}

// a process renamed "a.b" -> "a.b"
TEST(PidToProcName, KeepsDotOfRenamedProcess) {
  int code = exitCodeOfChild([]() {
    if (prctl(PR_SET_NAME, "a.b", 0, 0, 0) != 0) return 10;
    return strcmp(PidToProcName(static_cast<int32_t>(getpid())), "a.b") == 0
               ? 0
               : 1;
  });
  EXPECT_EQ(0, code);
}

// no such process -> "????"
TEST(PidToProcName, ReturnsQuestionMarksForMissingProcess) {
  EXPECT_STREQ("????", PidToProcName(INT32_MAX));
  EXPECT_STREQ("????", PidToProcName(-1));
}

// one static buffer for every result
TEST(PidToProcName, ReturnsOneStaticBuffer) {
  const char* first = PidToProcName(static_cast<int32_t>(getpid()));
  const char* second = PidToProcName(INT32_MAX);
  EXPECT_EQ(first, second);
  EXPECT_STREQ("????", first);
}

// prepared stat files, friendly and hostile -> the name or "????"
TEST(PidToProcName, ParsesOnlyFirst64BytesOfStatFile) {
  struct Row {
    const char* name;
    std::string content;
    std::string expected;
  };
  const Row rows[] = {
      {"plain", "123 (mymodule) S 1 2 3", "mymodule"},
      {"empty", "", "????"},
      {"noBrackets", "123 mymodule S 1", "????"},
      {"onlyOpening", "123 (mymodule S 1", "????"},
      {"onlyClosing", "123 mymodule) S 1", "????"},
      {"closingBeforeOpening", "1 )x( y", "????"},
      {"spaceInName", "1 (a b) S", "a b"},
      {"firstClosingWins", "1 (x)y) S", "x"},
      {"nestedOpening", "1 ((in)) S", "(in"},
      {"emptyName", "1 () S", ""},
      {"closingAtByte64", "1 (" + std::string(60, 'n') + ") S",
       std::string(60, 'n')},
      {"closingAtByte65", "1 (" + std::string(61, 'n') + ") S", "????"},
      {"zeroBytesBeforeName", std::string("\0\0 (ok) S", 9), "ok"},
      {"megabyteOfOpenings", std::string(1 << 20, '('), "????"},
      {"dottedName", "7 (a.b) S", "a.b"},
  };
  std::string dir = zorvtest::MakeTempDir("zorvproc");
  Zorv_I_pszProcDirectory = dir.c_str();
  int pid = 1;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string pidDir = dir + "/" + std::to_string(pid);
    ASSERT_EQ(0, mkdir(pidDir.c_str(), 0700));
    ASSERT_TRUE(zorvtest::WriteFile(pidDir + "/stat", row.content));
    EXPECT_EQ(row.expected, PidToProcName(pid));
    ++pid;
  }
  // a directory without a stat file -> "????"
  EXPECT_STREQ("????", PidToProcName(pid));
  Zorv_I_pszProcDirectory = "/proc";
  zorvtest::RemoveTree(dir);
}

// ---- InitProcName
// ------------------------------------------------------------

// a process named "a.b" -> process name "a"
TEST(InitProcName, KeepsNamePartOfDottedName) {
  int code = exitCodeOfChild([]() {
    if (prctl(PR_SET_NAME, "a.b", 0, 0, 0) != 0) return 10;
    if (strcmp(PidToProcName(static_cast<int32_t>(getpid())), "a.b") != 0)
      return 1;
    InitProcName();
    return strcmp(Tracing_I_ProcName(), "a") == 0 ? 0 : 2;
  });
  EXPECT_EQ(0, code);
}

// renamed after the first use -> the first name stays
TEST(InitProcName, SetsNameOnlyOnce) {
  int code = exitCodeOfChild([]() {
    if (strcmp(Tracing_I_ProcName(), "") != 0) return 1;
    if (prctl(PR_SET_NAME, "first", 0, 0, 0) != 0) return 10;
    InitProcName();
    if (prctl(PR_SET_NAME, "second", 0, 0, 0) != 0) return 11;
    InitProcName();
    if (TracingTypeEnabled(0) != 0) return 2;
    return strcmp(Tracing_I_ProcName(), "first") == 0 ? 0 : 3;
  });
  EXPECT_EQ(0, code);
}

// ---- ProcessTracingArgs and SetTraceFilenameForModule --------------------

// an argument containing "trace" -> "mymodule4711_trace"
TEST(ProcessTracingArgs, ComputesModuleTraceFileWhenAnArgumentContainsTrace) {
  zorvtest::ScopedFakePid fakePid(4711);
  char arg0[] = "/opt/zorv/modules/mymodule";
  char arg1[] = "run";
  char arg2[] = "-xtracey";
  char* argv[] = {arg0, arg1, arg2, nullptr};
  ProcessTracingArgs(3, argv);
  EXPECT_STREQ("mymodule4711_trace", Tracing_I_ModuleTraceFilename());
}

// no argument contains "trace" -> nothing computed
TEST(ProcessTracingArgs, ComputesNothingWithoutTraceArgument) {
  zorvtest::ScopedFakePid fakePid(4711);
  char arg0[] = "/opt/zorv/modules/mymodule";
  char arg1[] = "run";
  char arg2[] = "Trace";
  char* argv[] = {arg0, arg1, arg2, nullptr};
  ProcessTracingArgs(3, argv);
  EXPECT_STREQ("", Tracing_I_ModuleTraceFilename());
}

// the program path itself is no argument: "/x/tracer" alone -> nothing
TEST(ProcessTracingArgs, IgnoresTraceInProgramPath) {
  char arg0[] = "/x/tracer";
  char* argv[] = {arg0, nullptr};
  ProcessTracingArgs(1, argv);
  EXPECT_STREQ("", Tracing_I_ModuleTraceFilename());
}

// null argv, null entries -> no crash; a later "trace" still counts
TEST(ProcessTracingArgs, ToleratesNullArguments) {
  zorvtest::ScopedFakePid fakePid(12);
  ProcessTracingArgs(3, nullptr);
  EXPECT_STREQ("", Tracing_I_ModuleTraceFilename());
  char arg2[] = "trace";
  char* argv[] = {nullptr, nullptr, arg2, nullptr};
  ProcessTracingArgs(3, argv);
  EXPECT_STREQ("12_trace", Tracing_I_ModuleTraceFilename());
}

// "%s%ld_trace" of the name part and the pid
TEST(SetTraceFilenameForModule, FormatsNamePartAndProcessId) {
  struct Row {
    const char* path;
    const char* expected;
  };
  const Row rows[] = {
      {"/usr/lib/zorv/mymodule", "mymodule4711_trace"},
      {"mymodule", "mymodule4711_trace"},
      {"./bin/mymodule.bin", "mymodule4711_trace"},
      {"/dir.d/cd.tar.gz", "cd4711_trace"},
      {"/only/dir/", "4711_trace"},
      {"", "4711_trace"},
  };
  zorvtest::ScopedFakePid fakePid(4711);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    SetTraceFilenameForModule(row.path);
    EXPECT_STREQ(row.expected, Tracing_I_ModuleTraceFilename());
  }
  SetTraceFilenameForModule(nullptr);
  EXPECT_STREQ("4711_trace", Tracing_I_ModuleTraceFilename());
}

// a name too long for 256 bytes -> the overflow marker, no crash
TEST(SetTraceFilenameForModule, MarksOverlongNameAsOverflow) {
  zorvtest::ScopedFakePid fakePid(4711);
  std::string path = "/d/" + std::string(1000, 'm');
  SetTraceFilenameForModule(path.c_str());
  EXPECT_STREQ("!!!OVERFLOW!!!", Tracing_I_ModuleTraceFilename());
}

// the computed name is dropped: lines stay on standard error, no file
TEST(SetTraceFilenameForComponent, KeepsNothingSoLinesStayOnStandardError) {
  setSwitches("diag", nullptr);
  SetTraceFilenameForModule("./mymodule");
  std::string computed = "mymodule" + std::to_string(getpid()) + "_trace";
  EXPECT_EQ(computed, Tracing_I_ModuleTraceFilename());
  SetTraceFilenameForComponent("direct_trace");
  zorvtest::FdCapture err(2);
  err.Start();
  TPRINTF(4, "a.cpp", 1, "f", "still here\n");
  std::string errText = err.Stop();
  EXPECT_EQ(ownCommName() + "(PID):f():a.cpp:LINE still here\n",
            zorvtest::NormalizeTrace(errText));
  EXPECT_NE(0, access(computed.c_str(), F_OK));
  EXPECT_NE(0, access("direct_trace", F_OK));
}

// ---- GetLastErrnoError -----------------------------------------------------

// a failed open() -> code 2 and its system text
TEST(GetLastErrnoError, ReturnsCodeAndTextOfLastError) {
  errno = 0;
  ASSERT_EQ(-1, open("/nonexistent-zorv-directory/x", O_RDONLY));
  int code = -1;
  std::string text = GetLastErrnoError(&code);
  EXPECT_EQ(2, code);
  EXPECT_EQ(std::string(strerror(2)), text);
}

// a null code pointer is allowed
TEST(GetLastErrnoError, AcceptsNullCode) {
  errno = 13;
  std::string text = GetLastErrnoError(nullptr);
  EXPECT_EQ(std::string(strerror(13)), text);
}

// ---- StartGdb --------------------------------------------------------------

// the terminal gets the whole debugger command line
TEST(StartGdb, PassesDebuggerCommandLineToTerminal) {
  std::string bin = zorvtest::MakeTempDir("zorvbin");
  std::string framework = bin + "/zorv2000";
  ASSERT_TRUE(zorvtest::WriteFile(framework, "#!/bin/sh\n"));
  ASSERT_EQ(0, chmod(framework.c_str(), 0755));
  ASSERT_EQ(0, ZorvSetBinDirectory(bin.c_str()));
  std::string binDir = ZorvGetBinDirectory();
  std::string terminal = zorvtest::HelperPath("argdump");
  std::string dump = testDir() + "/argv.txt";
  setenv("ZORV_ARGDUMP_FILE", dump.c_str(), 1);
  Zorv_I_pszTerminalProgram = terminal.c_str();
  int64_t start = nowMs();
  StartGdb("mymodule", "gdb.cmd");
  int64_t elapsed = nowMs() - start;
  int status = -1;
  pid_t child = waitpid(-1, &status, 0);
  EXPECT_LT(0, child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  std::string expected = "argc=10\n[" + terminal +
                         "]\n"
                         "[-T]\n[gdb_mymodule]\n[-e]\n[/usr/bin/gdb]\n[-c]\n[" +
                         std::to_string(getpid()) + "]\n[--symbols=" + binDir +
                         "/mymodule]\n[--readnow]\n[--command=" + binDir +
                         "/gdb.cmd]\n";
  EXPECT_EQ(expected, zorvtest::ReadFile(dump));
  // it sleeps about a second for the debugger to attach
  EXPECT_GE(elapsed, 900);
  Zorv_I_pszTerminalProgram = "/usr/X11R6/bin/xterm";
  zorvtest::RemoveTree(bin);
}

// no bin directory set -> "--symbols=/<program>", "--command=/<file>"
TEST(StartGdb, UsesEmptyBinDirectoryAsItIs) {
  std::string terminal = zorvtest::HelperPath("argdump");
  std::string dump = testDir() + "/argv.txt";
  setenv("ZORV_ARGDUMP_FILE", dump.c_str(), 1);
  Zorv_I_pszTerminalProgram = terminal.c_str();
  ASSERT_STREQ("", ZorvGetBinDirectory());
  StartGdb("prog", "cmds");
  int status = -1;
  EXPECT_LT(0, waitpid(-1, &status, 0));
  std::string text = zorvtest::ReadFile(dump);
  EXPECT_NE(std::string::npos, text.find("[--symbols=/prog]\n"));
  EXPECT_NE(std::string::npos, text.find("[--command=/cmds]\n"));
  Zorv_I_pszTerminalProgram = "/usr/X11R6/bin/xterm";
}

// missing terminal -> the child prints "Exec Failedn\n\n\n" and exits 0
TEST(StartGdb, PrintsExecFailedWithStrayNWhenTerminalIsMissing) {
  Zorv_I_pszTerminalProgram = "/nonexistent-zorv-directory/xterm";
  zorvtest::FdCapture out(1);
  out.Start();
  StartGdb("mymodule", "gdb.cmd");
  int status = -1;
  pid_t child = waitpid(-1, &status, 0);
  std::string text = out.Stop();
  EXPECT_LT(0, child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ("Exec Failedn\n\n\n", text);
  Zorv_I_pszTerminalProgram = "/usr/X11R6/bin/xterm";
}
