// Integration tests of the module main: real module executables started as
// the diagnostic engine would start them, against the real broker and the
// scripted engine of tests/support (this process). Every process is killed
// by pid in TearDown.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "servers/server_harness.h"
#include "support/fake_diagengine.h"
#include "support/pipe_peer.h"
#include "support/test_support.h"

extern char** environ;

namespace {

using zorvtest::FakeDiagEngine;
using zorvtest::ServerProcess;

const char kDevicesXml[] =
    "<DEVICE><DID>7</DID><NAME>Test Drive</NAME><DESCRIPTION>a test drive"
    "</DESCRIPTION><OSLOCATOR>/dev/sr0</OSLOCATOR><HWLOCATOR>SCSI:0:0:3:0"
    "</HWLOCATOR><DEVTYPE>CD</DEVTYPE><BUSTYPE>SCSI_BUS</BUSTYPE>"
    "<TESTS_SUPPORTED>*</TESTS_SUPPORTED></DEVICE>"
    "<DEVICE><DID>9</DID><NAME>Stick</NAME><DESCRIPTION>a stick</DESCRIPTION>"
    "<OSLOCATOR>/dev/sdb</OSLOCATOR><HWLOCATOR>USB:2</HWLOCATOR><DEVTYPE>HD"
    "</DEVTYPE><BUSTYPE>USB_BUS</BUSTYPE><TESTS_SUPPORTED>*</TESTS_SUPPORTED>"
    "</DEVICE>";

const char kDefFile[] =
    "[Module]\n"
    "szModuleName=testmod\n"
    "szType=DIAG\n"
    "szParameterId[3][0]=LOOPS\n"
    "szParameterType[3][0]=int32\n"
    "szParameterName[3][0]=Loops\n"
    "szParameterDefaultValue[3][0]=5\n"
    "iParameterMinValue[3][0]=1\n"
    "iParameterMaxValue[3][0]=100\n";

// A module process with its output in files.
struct Module {
  pid_t pid = -1;
  std::string out;
  std::string err;
};

// Milliseconds of a monotonic clock.
using zorvtest::MonotonicMs;

class Dapi2Main : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = zorvtest::MakeTempDir("dapi2main");
    defFile_ = dir_ + "/testmod.ini";
    zorvtest::WriteFile(defFile_, kDefFile);
    engine_.devicesXml = kDevicesXml;
    engine_.sysinfoDevicesXml = kDevicesXml;
  }
  void TearDown() override {
    for (Module& m : modules_) {
      if (m.pid > 0) {
        kill(m.pid, SIGKILL);
        int status = 0;
        waitpid(m.pid, &status, 0);
      }
    }
    engine_.Close();
    broker_.Kill();
  }

  // Broker up and this process connected as the engine.
  void startFramework() {
    ASSERT_TRUE(zorvtest::StartBroker(&broker_));
    ASSERT_EQ(0, engine_.Open());
  }

  // Starts `program` with `args` and extra environment entries.
  Module* start(const std::string& program,
                const std::vector<std::string>& args,
                const std::vector<std::string>& env = {}) {
    Module m;
    int n = (int)modules_.size();
    m.out = dir_ + "/out" + std::to_string(n);
    m.err = dir_ + "/err" + std::to_string(n);
    std::vector<std::string> all = {program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    std::vector<std::string> envText;
    for (char** e = environ; *e; e++) envText.push_back(*e);
    envText.insert(envText.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (std::string& e : envText) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    int fdOut = open(m.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int fdErr = open(m.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(fdOut, 1);
      dup2(fdErr, 2);
      execve(program.c_str(), argv.data(), envp.data());
      _exit(127);
    }
    close(fdOut);
    close(fdErr);
    m.pid = pid;
    modules_.push_back(m);
    return &modules_.back();
  }

  // The module's exit status, or -1 at the limit; the engine is pumped
  // meanwhile.
  int waitExit(Module* m, int timeoutMs) {
    int64_t deadline = MonotonicMs() + timeoutMs;
    for (;;) {
      int status = 0;
      if (waitpid(m->pid, &status, WNOHANG) == m->pid) {
        m->pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      if (MonotonicMs() > deadline) return -1;
      engine_.Pump(5);
    }
  }

  std::string testmod() const {
    return std::string(ZORV_TEST_MODULE_DIR) + "/testmod.linux";
  }

  std::string dir_;
  std::string defFile_;
  ServerProcess broker_;
  FakeDiagEngine engine_;
  std::vector<Module> modules_;
};

// The messages of one process, as "TYPE|DATA".
std::vector<std::string> typesAndData(const FakeDiagEngine& engine) {
  return engine.TypesAndData();
}

// enumerate -> start-up (type = ref, version), DE_ENUMDATA, shut-down
TEST_F(Dapi2Main, EnumerateSendsStartupEnumDataShutdownInOrder) {
  startFramework();
  Module* m =
      start(testmod(), {"enumerate", "ref=REF17", "deffile=" + defFile_});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  std::vector<std::string> got = typesAndData(engine_);
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ("REF17|<STARTUP>REF17</STARTUP><VERSION>2.1.7</VERSION>", got[0]);
  EXPECT_EQ(
      "DE_ENUMDATA|<DEVICE><DID>7</DID><NAME>Test Drive</NAME><DESCRIPTION>a "
      "test drive</DESCRIPTION><OSLOCATOR>/dev/sr0</OSLOCATOR><HWLOCATOR>"
      "SCSI:0:0:3:0</HWLOCATOR><DEVTYPE>CD</DEVTYPE><BUSTYPE>SCSI_BUS</BUSTYPE>"
      "<TESTS_SUPPORTED>*</TESTS_SUPPORTED></DEVICE>",
      got[1].substr(0, got[1].find("<DEVICE><DID>9")));
  EXPECT_NE(std::string::npos, got[1].find("<FRU_MANUFACTURER>Maker"));
  EXPECT_EQ("DE_NOTIFY|SHUTDOWN", got[2]);
  EXPECT_NE(std::string::npos, zorvtest::ReadFile(m->out).find(
                                   "\nDAPI2 Diagnostic Module: TESTMOD\n"));
  EXPECT_TRUE(engine_.Requests().empty());
}

// run -> start-up, progress, percent 10 and 20 once each, info (-1), warn,
// error, PASS with the process id, shut-down; device 7 found via the engine
TEST_F(Dapi2Main, RunSendsEventsInOrderAndFindsDeviceFromEngine) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R1", "device=7", "test=3", "process=P42",
                     "deffile=" + defFile_, "param=LOOPS,10"},
                    {"TESTMOD_SCRIPT=events"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  std::vector<std::string> want = {
      "R1|<STARTUP>R1</STARTUP><VERSION>2.1.7</VERSION>",
      "DE_EVENT|<EVENT><TYPE>PROGRESS</TYPE><TESTPROCESSID>P42</TESTPROCESSID>"
      "<TEXT>test 3 device 7 name Test Drive LOOPS 10 MODE -</TEXT></EVENT>",
      "DE_EVENT|<EVENT><TYPE>PERCENTDONE</TYPE><TESTPROCESSID>P42"
      "</TESTPROCESSID><TEXT>10</TEXT></EVENT>",
      "DE_EVENT|<EVENT><TYPE>PERCENTDONE</TYPE><TESTPROCESSID>P42"
      "</TESTPROCESSID><TEXT>20</TEXT></EVENT>",
      "DE_EVENT|<EVENT><TYPE>INFO</TYPE><TESTPROCESSID>P42</TESTPROCESSID>"
      "<TEXT>info 1</TEXT><EVENTCODE>-1</EVENTCODE></EVENT>",
      "DE_EVENT|<EVENT><TYPE>WARN</TYPE><TESTPROCESSID>P42</TESTPROCESSID>"
      "<TEXT>warn w</TEXT><EVENTCODE>77</EVENTCODE></EVENT>",
      "DE_EVENT|<EVENT><TYPE>ERROR</TYPE><TESTPROCESSID>P42</TESTPROCESSID>"
      "<TEXT>error e</TEXT><EVENTCODE>88</EVENTCODE></EVENT>",
      "DE_NOTIFY|<TESTRESULT>PASS</TESTRESULT><TESTPROCESSID>P42"
      "</TESTPROCESSID>",
      "DE_NOTIFY|SHUTDOWN"};
  EXPECT_EQ(want, typesAndData(engine_));
  ASSERT_EQ(1u, engine_.Requests().size());
  EXPECT_EQ("LIST_DEVICES:testmod.vtq", engine_.Requests()[0]);
}

// run without a slot-3 callback -> "BADPARAMS"
TEST_F(Dapi2Main, RunWithoutRunCallbackReportsBadParams) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R2", "device=7", "test=3", "process=P1",
                     "deffile=" + defFile_},
                    {"TESTMOD_NORUN=1"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  std::vector<std::string> got = typesAndData(engine_);
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ(
      "DE_NOTIFY|<TESTRESULT>BADPARAMS</TESTRESULT><TESTPROCESSID>P1"
      "</TESTPROCESSID>",
      got[1]);
}

// a run callback returning 42 -> "SETUPERROR"
TEST_F(Dapi2Main, RunResultAboveElevenIsSentAsSetupError) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R3", "device=99", "test=3", "process=P3",
                     "deffile=" + defFile_},
                    {"TESTMOD_RESULT=42"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SETUPERROR", 5000));
  std::vector<std::string> got = typesAndData(engine_);
  // device 99 is not in the engine's list: the callback sees none
  EXPECT_NE(std::string::npos, got[1].find("device -1 name (none)"));
}

// an invalid ZORV_DAPI2_PERCENT_TO_TEST -> 31 before any connection
TEST_F(Dapi2Main, RunWithInvalidPercentEndsWith31BeforeConnecting) {
  startFramework();
  Module* m = start(testmod(), {"run", "ref=R4", "device=7", "test=3",
                                "process=P4", "deffile=" + defFile_,
                                "param=ZORV_DAPI2_PERCENT_TO_TEST,150"});
  EXPECT_EQ(31, waitExit(m, 20000));
  engine_.Pump(200);
  EXPECT_TRUE(engine_.Received().empty());
}

// "STOPTESTING" -> Dapi2_CheckForStop true from then on -> DISCONTINUED
TEST_F(Dapi2Main, StopCommandMakesCheckForStopTrueForGood) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R5", "device=7", "test=3", "process=P5",
                     "deffile=" + defFile_},
                    {"TESTMOD_SCRIPT=stop"});
  pid_t pid = m->pid;
  ASSERT_TRUE(engine_.WaitFor("DE_EVENT", "waiting for stop", 20000));
  ASSERT_TRUE(engine_.SendTo(pid, "DAPI_COMMAND",
                             "<DAPICOMMANDTYPE>STOPTESTING</DAPICOMMANDTYPE>"));
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  std::vector<std::string> got = typesAndData(engine_);
  ASSERT_GE(got.size(), 4u);
  EXPECT_NE(std::string::npos, got[got.size() - 3].find("stopped"));
  EXPECT_EQ(
      "DE_NOTIFY|<TESTRESULT>DISCONTINUED</TESTRESULT><TESTPROCESSID>P5"
      "</TESTPROCESSID>",
      got[got.size() - 2]);
}

// "SENDINGTIMEOUT" with 4321 answers Dapi2_GetTimeOut
TEST_F(Dapi2Main, SendingTimeOutCommandAnswersGetTimeOut) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R6", "device=7", "test=3", "process=P6",
                     "deffile=" + defFile_},
                    {"TESTMOD_SCRIPT=timeout"});
  pid_t pid = m->pid;
  ASSERT_TRUE(engine_.WaitFor("DE_EVENT", "GET_TIMEOUT", 20000));
  EXPECT_TRUE(engine_.SendTo(pid, "DAPI_COMMAND",
                             "<DAPICOMMANDTYPE>SENDINGTIMEOUT</DAPICOMMANDTYPE>"
                             "<TIMEOUT_VALUE>4321</TIMEOUT_VALUE>"));
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_EVENT", "timeout rc", 5000));
  bool found = false;
  for (const std::string& s : typesAndData(engine_))
    found |=
        s.find("<TEXT>timeout rc 0 value 4321</TEXT>") != std::string::npos;
  EXPECT_TRUE(found);
}

// no answer to GET_TIMEOUT -> 24 after about 2 s, value 0
TEST_F(Dapi2Main, GetTimeOutWithoutAnswerGives24AfterAboutTwoSeconds) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R7", "device=7", "test=3", "process=P7",
                     "deffile=" + defFile_},
                    {"TESTMOD_SCRIPT=timeout"});
  ASSERT_TRUE(engine_.WaitFor("DE_EVENT", "GET_TIMEOUT", 20000));
  int64_t asked = MonotonicMs();
  ASSERT_TRUE(engine_.WaitFor("DE_EVENT", "timeout rc", 20000));
  int64_t waited = MonotonicMs() - asked;
  EXPECT_EQ(0, waitExit(m, 20000));
  EXPECT_GE(waited, 1500);
  EXPECT_LE(waited, 6000);
  bool found = false;
  for (const std::string& s : typesAndData(engine_))
    found |= s.find("<TEXT>timeout rc 24 value 0</TEXT>") != std::string::npos;
  EXPECT_TRUE(found);
}

// validate -> the reply goes to senderpid with RE = reid
TEST_F(Dapi2Main, ValidateRepliesToRequesterWithReid) {
  startFramework();
  std::string self = std::to_string(getpid());
  Module* m = start(testmod(), {"validate", "ref=V1", "device=7", "test=3",
                                "deffile=" + defFile_, "senderpid=" + self,
                                "reid=99", "param=LOOPS,10", "param=BAD,1"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  const std::vector<std::string>& got = engine_.Received();
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ("V1", FakeDiagEngine::Field(got[0], "MSG/HDR/TYPE"));
  EXPECT_EQ("TRANSACTION_RESPONSE",
            FakeDiagEngine::Field(got[1], "MSG/HDR/TYPE"));
  EXPECT_EQ(self, FakeDiagEngine::Field(got[1], "MSG/HDR/TO"));
  EXPECT_EQ("99", FakeDiagEngine::Field(got[1], "MSG/HDR/RE"));
  std::string data = FakeDiagEngine::Field(got[1], "MSG/DATA");
  EXPECT_NE(
      std::string::npos,
      data.find("<PARAMETER><ID>LOOPS</ID><VALID_FLAG>valid</VALID_FLAG>"));
  EXPECT_NE(std::string::npos, data.find("<ID>BAD</ID><VALID_FLAG>value bad"));
}

// sysinfo: positional arguments -> "SYSINFO_RETURNED" for the locator's
// device with the callback's entry
TEST_F(Dapi2Main, SysInfoUsesPositionalArgumentsAndReplies) {
  startFramework();
  Module* m = start(testmod(), {"sysinfo", "MODNAME", "55", "SCSI:0:0:3:0",
                                defFile_, "TOVALUE"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  const std::vector<std::string>& got = engine_.Received();
  ASSERT_EQ(3u, got.size());
  EXPECT_EQ("SYSINFO", FakeDiagEngine::Field(got[0], "MSG/HDR/TYPE"));
  EXPECT_EQ("SYSINFO_RETURNED", FakeDiagEngine::Field(got[1], "MSG/HDR/TYPE"));
  EXPECT_EQ("55", FakeDiagEngine::Field(got[1], "MSG/HDR/RE"));
  EXPECT_NE(std::string::npos,
            got[1].find("Parameters Can Go Here Eventually"));
  ASSERT_EQ(1u, engine_.Requests().size());
  EXPECT_EQ("LIST_SYSINFO_DEVICES:testmod.vtq", engine_.Requests()[0]);
}

// a busy device -> WARN 150 with the busy tag, result BUSY
TEST_F(Dapi2Main, BusyDeviceHandleSendsWarning150AndResultBusy) {
  startFramework();
  Module* m = start(testmod(),
                    {"run", "ref=R8", "device=7", "test=3", "process=P8",
                     "deffile=" + defFile_},
                    {"TESTMOD_SCRIPT=busy"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000));
  std::vector<std::string> got = typesAndData(engine_);
  ASSERT_EQ(5u, got.size());
  EXPECT_EQ(
      "DE_EVENT|<EVENT><TYPE>WARN</TYPE><TESTPROCESSID>P8</TESTPROCESSID>"
      "<TEXT><NLS mod=testmod.vtq id=szWarnDeviceBusy /></TEXT><EVENTCODE>150"
      "</EVENTCODE></EVENT>",
      got[2]);
  EXPECT_NE(std::string::npos, got[3].find("<TESTRESULT>BUSY</TESTRESULT>"));
}

// no command-line mode -> 30 and nothing sent
TEST_F(Dapi2Main, NoModeGives30AndSendsNothing) {
  startFramework();
  Module* m = start(testmod(), {"ref=R9", "deffile=" + defFile_});
  EXPECT_EQ(30, waitExit(m, 20000));
  engine_.Pump(200);
  EXPECT_TRUE(engine_.Received().empty());
}

// the example module: enumerates its device and runs its test to PASS;
// prints the median time from exec to the shut-down message of 20 runs
TEST_F(Dapi2Main, ExampleModuleEnumeratesAndRunsItsTest) {
  startFramework();
  std::string example = std::string(ZORV_EXAMPLE_DIR) + "/example.linux";
  std::string ini =
      "deffile=" + std::string(ZORV_EXAMPLE_SOURCE_DIR) + "/example.ini";
  engine_.devicesXml =
      "<DEVICE><DID>1</DID><NAME>Example Memory</NAME><HWLOCATOR>MEM:0"
      "</HWLOCATOR><TESTS_SUPPORTED>1</TESTS_SUPPORTED></DEVICE>";
  std::vector<int64_t> times;
  for (int i = 0; i < 20; i++) {
    size_t before = engine_.Received().size();
    int64_t t0 = MonotonicMs();
    Module* m = start(example, {"enumerate", "ref=EX", ini});
    ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 20000, before));
    times.push_back(MonotonicMs() - t0);
    ASSERT_EQ(0, waitExit(m, 20000));
    ASSERT_EQ(before + 3, engine_.Received().size());
    EXPECT_NE(std::string::npos, engine_.Received()[before + 1].find(
                                     "<NAME>Example Memory</NAME>"));
  }
  std::sort(times.begin(), times.end());
  printf(
      "module run, exec to shut-down message: median %lld ms of 20 "
      "(min %lld, max %lld)\n",
      (long long)(times[9] + times[10]) / 2, (long long)times[0],
      (long long)times[19]);
  size_t before = engine_.Received().size();
  Module* m = start(example, {"run", "ref=EXR", "device=1", "test=1",
                              "process=PX", ini, "param=LOOPS,4"});
  ASSERT_EQ(0, waitExit(m, 20000));
  ASSERT_TRUE(engine_.WaitFor("DE_NOTIFY", "SHUTDOWN", 5000, before));
  std::vector<std::string> got = typesAndData(engine_);
  got.erase(got.begin(), got.begin() + (long)before);
  ASSERT_EQ(11u, got.size());
  EXPECT_NE(std::string::npos, got[1].find("pass 1 of 4 on Example Memory"));
  EXPECT_NE(std::string::npos, got[8].find("<TEXT>100</TEXT>"));
  EXPECT_EQ(
      "DE_NOTIFY|<TESTRESULT>PASS</TESTRESULT><TESTPROCESSID>PX"
      "</TESTPROCESSID>",
      got[9]);
}

// no arguments -> "testmod 2.1.7" on standard error, 0
TEST(Dapi2MainNoArguments, PrintsNameAndVersionOnStandardError) {
  std::string out = zorvtest::MakeTempDir("noargs") + "/err";
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    std::string path = std::string(ZORV_TEST_MODULE_DIR) + "/testmod.linux";
    execl(path.c_str(), path.c_str(), (char*)nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ("testmod 2.1.7\n", zorvtest::ReadFile(out));
}

// no arguments and no Dapi2_Version -> -1024 each
TEST(Dapi2MainNoArguments, PrintsMinus1024WithoutVersionCall) {
  std::string out = zorvtest::MakeTempDir("noargs") + "/err";
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    setenv("TESTMOD_NOVERSION", "1", 1);
    std::string path = std::string(ZORV_TEST_MODULE_DIR) + "/testmod.linux";
    execl(path.c_str(), path.c_str(), (char*)nullptr);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(0, WEXITSTATUS(status));
  EXPECT_EQ("testmod -1024.-1024.-1024\n", zorvtest::ReadFile(out));
}

}  // namespace
