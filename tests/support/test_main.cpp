// Entry point of every test executable.
//
// CTest runs each test in its own process; this main gives that process a
// fresh pipe directory in ZORV_TMP (and its working directory, so relative
// files land there too) and removes it afterwards.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "support/test_support.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::string dir = zorvtest::MakeTempDir("zorvtest");
  setenv("ZORV_TMP", dir.c_str(), 1);
  char cwd[4096];
  std::string oldCwd = getcwd(cwd, sizeof cwd) ? cwd : "/";
  if (chdir(dir.c_str()) != 0) return 2;
  int rc = RUN_ALL_TESTS();
  if (chdir(oldCwd.c_str()) != 0) rc = rc ? rc : 2;
  zorvtest::RemoveTree(dir);
  return rc;
}
