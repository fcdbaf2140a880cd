// Tests of the FIFO-names unit: the pipe and bin directories and the names of
// the server FIFO and of the client's own FIFO. The test main puts a fresh
// directory into ZORV_TMP and makes it the working directory; each TEST runs
// in its own process, so every name starts undecided.
#include "zorv2000/fifo-names.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "global/primitives_p.h"
#include "support/test_support.h"

namespace {

// Removes the directories a test made outside its pipe directory when the
// test process ends (not in forked children).
struct DirCleanup {
  pid_t owner = getpid();
  std::vector<std::string> dirs;
  ~DirCleanup() {
    if (getpid() != owner) return;
    for (const std::string& dir : dirs) zorvtest::RemoveTree(dir);
  }
};
DirCleanup gCleanup;

// A new temporary directory, removed when the test process ends.
std::string tempDir(const char* prefix) {
  std::string dir = zorvtest::MakeTempDir(prefix);
  gCleanup.dirs.push_back(dir);
  return dir;
}

const char kBanner[] = "*****************\n";
const char kFooter[] = "****************\n";

std::string workingDirectory() {
  char buffer[4096];
  return getcwd(buffer, sizeof buffer) ? buffer : "";
}

// A fresh directory that becomes the working directory.
std::string enterFreshDirectory(const char* prefix) {
  std::string dir = tempDir(prefix);
  EXPECT_EQ(0, chdir(dir.c_str()));
  return workingDirectory();
}

// A directory whose absolute path is about `length` characters long.
std::string makeLongDirectory(size_t length) {
  std::string dir = tempDir("zorvlong");
  while (dir.size() + 41 <= length) {
    dir += "/" + std::string(40, 'd');
    EXPECT_EQ(0, mkdir(dir.c_str(), 0700));
  }
  size_t rest = length - dir.size();
  if (rest > 1) {
    dir += "/" + std::string(rest - 1, 'e');
    EXPECT_EQ(0, mkdir(dir.c_str(), 0700));
  }
  return dir;
}

}  // namespace

// ---- ZorvGetPipeDirectory
// ---------------------------------------------------------

TEST(ZorvGetPipeDirectory, UsesTheWorkingDirectoryWhenZorvTmpIsUnset) {
  unsetenv("ZORV_TMP");
  std::string cwd = enterFreshDirectory("zorvcwd");
  zorvtest::FdCapture err(2);
  err.Start();
  std::string got = ZorvGetPipeDirectory();
  EXPECT_EQ("", err.Stop());
  EXPECT_EQ(cwd, got);
}

TEST(ZorvGetPipeDirectory, UsesZorvTmpWhenSearchable) {
  std::string dir = tempDir("zorvpipes");
  setenv("ZORV_TMP", dir.c_str(), 1);
  EXPECT_STREQ(dir.c_str(), ZorvGetPipeDirectory());
}

// ZORV_TMP=/nonexistent/zorv/pipes -> "Cannot Acces ..." once, then cwd
TEST(ZorvGetPipeDirectory, PrintsCannotAccesOnceForMissingZorvTmpAndUsesCwd) {
  setenv("ZORV_TMP", "/nonexistent/zorv/pipes", 1);
  std::string cwd = enterFreshDirectory("zorvcwd");
  zorvtest::FdCapture err(2);
  err.Start();
  std::string first = ZorvGetPipeDirectory();
  std::string second = ZorvGetPipeDirectory();
  EXPECT_EQ(
      "*****************\nCannot Acces /nonexistent/zorv/pipes\n"
      "****************\n",
      err.Stop());
  EXPECT_EQ(cwd, first);
  EXPECT_EQ(cwd, second);
}

// a plain file is not searchable, not even for root
TEST(ZorvGetPipeDirectory, RejectsZorvTmpNamingAPlainFile) {
  std::string file = tempDir("zorvfile") + "/plain";
  ASSERT_TRUE(zorvtest::WriteFile(file, "x"));
  setenv("ZORV_TMP", file.c_str(), 1);
  std::string cwd = workingDirectory();
  zorvtest::FdCapture err(2);
  err.Start();
  std::string got = ZorvGetPipeDirectory();
  EXPECT_EQ(std::string(kBanner) + "Cannot Acces " + file + "\n" + kFooter,
            err.Stop());
  EXPECT_EQ(cwd, got);
}

// ZORV_TMP of 300 characters -> copied as the marker, reported, cwd used
TEST(ZorvGetPipeDirectory, ReportsAnOverlongZorvTmpAsTheOverflowMarker) {
  std::string longPath = "/" + std::string(299, 'p');
  setenv("ZORV_TMP", longPath.c_str(), 1);
  std::string cwd = workingDirectory();
  zorvtest::FdCapture err(2);
  err.Start();
  std::string got = ZorvGetPipeDirectory();
  EXPECT_EQ(std::string(kBanner) + "Cannot Acces !!!OVERFLOW!!!\n" + kFooter,
            err.Stop());
  EXPECT_EQ(cwd, got);
}

// ZORV_TMP set but empty -> reported with an empty name, cwd used
TEST(ZorvGetPipeDirectory, ReportsAnEmptyZorvTmpAndUsesCwd) {
  setenv("ZORV_TMP", "", 1);
  std::string cwd = workingDirectory();
  zorvtest::FdCapture err(2);
  err.Start();
  std::string got = ZorvGetPipeDirectory();
  EXPECT_EQ(std::string(kBanner) + "Cannot Acces \n" + kFooter, err.Stop());
  EXPECT_EQ(cwd, got);
}

TEST(ZorvGetPipeDirectory, KeepsTheFirstDecision) {
  std::string first = ZorvGetPipeDirectory();
  setenv("ZORV_TMP", tempDir("zorvother").c_str(), 1);
  enterFreshDirectory("zorvcwd");
  EXPECT_EQ(first, ZorvGetPipeDirectory());
}

// ---- ZorvSetPipeDirectory
// -----------------------------------------------------------

// "." -> the working directory itself
TEST(ZorvSetPipeDirectory, DotGivesTheWorkingDirectoryItself) {
  std::string cwd = enterFreshDirectory("zorvcwd");
  EXPECT_EQ(0, ZorvSetPipeDirectory("."));
  EXPECT_EQ(cwd, ZorvGetPipeDirectory());
}

// "./pipes" -> <cwd>/pipes
TEST(ZorvSetPipeDirectory, DotSlashNameIsRelativeToTheWorkingDirectory) {
  std::string cwd = enterFreshDirectory("zorvcwd");
  ASSERT_EQ(0, mkdir("pipes", 0700));
  EXPECT_EQ(0, ZorvSetPipeDirectory("./pipes"));
  EXPECT_EQ(cwd + "/pipes", ZorvGetPipeDirectory());
}

// ".x" in <parent>/d -> <parent>/dx: only the dot is dropped
TEST(ZorvSetPipeDirectory, DropsOnlyTheFirstCharacterOfADotPath) {
  std::string parent = tempDir("zorvparent");
  ASSERT_EQ(0, mkdir((parent + "/d").c_str(), 0700));
  ASSERT_EQ(0, mkdir((parent + "/dx").c_str(), 0700));
  ASSERT_EQ(0, chdir((parent + "/d").c_str()));
  EXPECT_EQ(0, ZorvSetPipeDirectory(".x"));
  EXPECT_EQ(parent + "/dx", ZorvGetPipeDirectory());
}

TEST(ZorvSetPipeDirectory, TakesAnyOtherPathAsItIs) {
  std::string dir = tempDir("zorvpipes");
  EXPECT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  EXPECT_EQ(dir, ZorvGetPipeDirectory());
  // A relative path without the dot stays relative.
  ASSERT_EQ(0, mkdir("rel", 0700));
  EXPECT_EQ(0, ZorvSetPipeDirectory("rel"));
  EXPECT_STREQ("rel", ZorvGetPipeDirectory());
}

// missing directory -> "Cannot Access ...", emptied, decided again on get
TEST(ZorvSetPipeDirectory, PrintsCannotAccessAndDecidesAgainOnTheNextGet) {
  std::string zorvTmp = getenv("ZORV_TMP");
  zorvtest::FdCapture err(2);
  err.Start();
  int rc = ZorvSetPipeDirectory("/nonexistent/zorv/pipes");
  EXPECT_EQ(
      "*****************\nCannot Access /nonexistent/zorv/pipes\n"
      "****************\n",
      err.Stop());
  EXPECT_EQ(-1, rc);
  EXPECT_EQ(zorvTmp, ZorvGetPipeDirectory());
}

TEST(ZorvSetPipeDirectory, FailureForgetsAnEarlierGoodDirectory) {
  std::string dir = tempDir("zorvpipes");
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  unsetenv("ZORV_TMP");
  std::string cwd = enterFreshDirectory("zorvcwd");
  zorvtest::FdCapture err(2);
  err.Start();
  EXPECT_EQ(-1, ZorvSetPipeDirectory("./missing"));
  EXPECT_EQ(
      std::string(kBanner) + "Cannot Access " + cwd + "/missing\n" + kFooter,
      err.Stop());
  EXPECT_EQ(cwd, ZorvGetPipeDirectory());
}

// the getter says "Acces", the setter "Access", each byte for byte
TEST(ZorvSetPipeDirectory, SpellsItsMessageDifferentlyFromTheGetter) {
  setenv("ZORV_TMP", "/nonexistent/a", 1);
  zorvtest::FdCapture err(2);
  err.Start();
  ZorvGetPipeDirectory();
  std::string fromGet = err.Stop();
  err.Start();
  ZorvSetPipeDirectory("/nonexistent/a");
  std::string fromSet = err.Stop();
  EXPECT_EQ(
      "*****************\nCannot Acces /nonexistent/a\n****************\n",
      fromGet);
  EXPECT_EQ(
      "*****************\nCannot Access /nonexistent/a\n****************\n",
      fromSet);
}

TEST(ZorvSetPipeDirectory, RejectsANullPath) {
  std::string before = ZorvGetPipeDirectory();
  EXPECT_EQ(-1, ZorvSetPipeDirectory(nullptr));
  EXPECT_EQ(before, ZorvGetPipeDirectory());
}

// ---- ZorvGetBinDirectory, ZorvSetBinDirectory
// ---------------------------------------

TEST(ZorvGetBinDirectory, IsEmptyUntilSet) {
  EXPECT_STREQ("", ZorvGetBinDirectory());
}

TEST(ZorvSetBinDirectory, AcceptsADirectoryThatContainsZorv2000) {
  std::string dir = tempDir("zorvbin");
  ASSERT_EQ(0, mkdir((dir + "/zorv2000").c_str(), 0700));
  zorvtest::FdCapture err(2);
  err.Start();
  EXPECT_EQ(0, ZorvSetBinDirectory(dir.c_str()));
  EXPECT_EQ("", err.Stop());
  EXPECT_EQ(dir, ZorvGetBinDirectory());
}

// no zorv2000 inside -> "Cannot Acces zorv2000 in ...", emptied
TEST(ZorvSetBinDirectory, PrintsCannotAccesZorv2000AndEmptiesWhenMissing) {
  std::string good = tempDir("zorvbin");
  ASSERT_EQ(0, mkdir((good + "/zorv2000").c_str(), 0700));
  ASSERT_EQ(0, ZorvSetBinDirectory(good.c_str()));
  std::string bad = tempDir("zorvbin");
  zorvtest::FdCapture err(2);
  err.Start();
  int rc = ZorvSetBinDirectory(bad.c_str());
  EXPECT_EQ("*****************\nCannot Acces zorv2000 in " + bad +
                "\n****************\n",
            err.Stop());
  EXPECT_EQ(-1, rc);
  EXPECT_STREQ("", ZorvGetBinDirectory());
}

// "./bin" -> <cwd>/bin, "." -> <cwd>
TEST(ZorvSetBinDirectory, TakesDotPathsRelativeToTheWorkingDirectory) {
  std::string cwd = enterFreshDirectory("zorvcwd");
  ASSERT_EQ(0, mkdir("bin", 0700));
  ASSERT_EQ(0, mkdir("bin/zorv2000", 0700));
  ASSERT_EQ(0, mkdir("zorv2000", 0700));
  EXPECT_EQ(0, ZorvSetBinDirectory("./bin"));
  EXPECT_EQ(cwd + "/bin", ZorvGetBinDirectory());
  EXPECT_EQ(0, ZorvSetBinDirectory("."));
  EXPECT_EQ(cwd, ZorvGetBinDirectory());
}

// a file named zorv2000 is not a framework directory
TEST(ZorvSetBinDirectory, RejectsAPlainFileNamedZorv2000) {
  std::string dir = tempDir("zorvbin");
  ASSERT_TRUE(zorvtest::WriteFile(dir + "/zorv2000", "x"));
  zorvtest::FdCapture err(2);
  err.Start();
  EXPECT_NE(0, ZorvSetBinDirectory(dir.c_str()));
  err.Stop();
  EXPECT_STREQ("", ZorvGetBinDirectory());
}

TEST(ZorvSetBinDirectory, RejectsANullPath) {
  EXPECT_EQ(-1, ZorvSetBinDirectory(nullptr));
  EXPECT_STREQ("", ZorvGetBinDirectory());
}

// ---- ZorvGetClientFifoName
// ------------------------------------------------------------

// pipe directory <dir>, pid 4711 -> "<dir>/ZORV_4711" and "<dir>/ZORVFIFO"
TEST(ZorvGetClientFifoName, ComposesPipeDirectoryAndCachedPid) {
  zorvtest::ScopedFakePid fake(4711);
  std::string dir = tempDir("zorvpipes");
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  EXPECT_EQ(4711, ZorvGetClientPid());
  EXPECT_EQ(dir + "/ZORV_4711", ZorvGetClientFifoName());
  EXPECT_EQ(dir + "/ZORVFIFO", ZorvGetServerFifoName());
}

// cached pid 4711, current pid 99 -> the name carries 4711
TEST(ZorvGetClientFifoName, UsesTheCachedPidNotTheCurrentOne) {
  {
    zorvtest::ScopedFakePid fake(4711);
    ZorvGetClientPid();
  }
  zorvtest::ScopedFakePid other(99);
  std::string name = ZorvGetClientFifoName();
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORV_4711", name);
}

TEST(ZorvGetClientFifoName, UsesTheRealPidByDefault) {
  EXPECT_EQ(
      std::string(getenv("ZORV_TMP")) + "/ZORV_" + std::to_string(getpid()),
      ZorvGetClientFifoName());
}

TEST(ZorvGetClientFifoName, KeepsTheNameWhenThePipeDirectoryChanges) {
  std::string first = ZorvGetClientFifoName();
  std::string dir = tempDir("zorvpipes");
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  EXPECT_EQ(first, ZorvGetClientFifoName());
}

// pipe directory of 250 characters -> the appended part becomes the marker
TEST(ZorvGetClientFifoName, EndsInTheOverflowMarkerWhenTooLong) {
  zorvtest::ScopedFakePid fake(4711);
  std::string dir = makeLongDirectory(250);
  ASSERT_EQ(250u, dir.size());
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  // 256 - 250 = 6 bytes left: 5 characters of the marker.
  EXPECT_EQ(dir + "!!!OV", ZorvGetClientFifoName());
}

// ---- ZorvGetServerFifoName, ZorvSetServerFifoName(Ex)
// -------------------------------

TEST(ZorvGetServerFifoName, DefaultsToPipeDirectoryAndZorvfifo) {
  EXPECT_EQ(std::string(getenv("ZORV_TMP")) + "/ZORVFIFO",
            ZorvGetServerFifoName());
}

TEST(ZorvGetServerFifoName, KeepsTheNameWhenThePipeDirectoryChanges) {
  std::string first = ZorvGetServerFifoName();
  std::string dir = tempDir("zorvpipes");
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  EXPECT_EQ(first, ZorvGetServerFifoName());
}

// 1234 -> <pipe dir>/ZORVFIFO_1234, the same buffer as the getter
TEST(ZorvSetServerFifoName, AppendsTheGivenPid) {
  std::string dir = getenv("ZORV_TMP");
  const char* name = ZorvSetServerFifoName(1234);
  EXPECT_EQ(dir + "/ZORVFIFO_1234", name);
  EXPECT_EQ(name, ZorvGetServerFifoName());
}

// 0 -> this process's id through ZorvGetPid, not the cached client pid
TEST(ZorvSetServerFifoName, ZeroMeansThisProcess) {
  {
    zorvtest::ScopedFakePid fake(4711);
    ZorvGetClientPid();
  }
  zorvtest::ScopedFakePid now(5000);
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO_5000",
            ZorvSetServerFifoName(0));
}

TEST(ZorvSetServerFifoName, PrintsANegativePidSigned) {
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO_-5",
            ZorvSetServerFifoName(-5));
}

TEST(ZorvSetServerFifoName, ComposesFromTheCurrentPipeDirectory) {
  ZorvGetServerFifoName();
  std::string dir = tempDir("zorvpipes");
  ASSERT_EQ(0, ZorvSetPipeDirectory(dir.c_str()));
  EXPECT_EQ(dir + "/ZORVFIFO_7", ZorvSetServerFifoName(7));
}

// "" -> <pipe dir>/ZORVFIFO
TEST(ZorvSetServerFifoNameEx, EmptyNameGivesTheDefault) {
  ZorvSetServerFifoName(42);
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO",
            ZorvSetServerFifoNameEx(""));
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO",
            ZorvGetServerFifoName());
}

TEST(ZorvSetServerFifoNameEx, NullNameGivesTheDefault) {
  ZorvSetServerFifoName(42);
  EXPECT_EQ(std::string(ZorvGetPipeDirectory()) + "/ZORVFIFO",
            ZorvSetServerFifoNameEx(nullptr));
}

TEST(ZorvSetServerFifoNameEx, TakesANonEmptyNameAsTheFullPath) {
  EXPECT_STREQ("/srv/zorv/BROKER", ZorvSetServerFifoNameEx("/srv/zorv/BROKER"));
  EXPECT_STREQ("/srv/zorv/BROKER", ZorvGetServerFifoName());
  EXPECT_STREQ("relative", ZorvSetServerFifoNameEx("relative"));
}

// 300 characters -> "!!!OVERFLOW!!!", never a cut path
TEST(ZorvSetServerFifoNameEx, ReplacesAnOverlongNameWithTheMarker) {
  std::string longName = "/" + std::string(299, 'n');
  EXPECT_STREQ("!!!OVERFLOW!!!", ZorvSetServerFifoNameEx(longName.c_str()));
  std::string fits = "/" + std::string(254, 'n');
  EXPECT_EQ(fits, ZorvSetServerFifoNameEx(fits.c_str()));
}
