// Tests of parameters from text: the word tables, the predefined
// percentage parameter, the definitions file, the validation reply and its
// response envelope, parameter tokens, parameter-list texts and test
// execution requests, with hostile input and failed allocations.
#include "zorv2000/param-valid.h"

#include <float.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "support/dapi2_seams.h"
#include "support/test_peer.h"
#include "support/test_support.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"

namespace {

// ---- Seams ----------------------------------------------------------------

std::vector<std::string>& gSent = zorvtest::SentMessages();
int& gSendResult = zorvtest::SendResult();
using ScopedCapture = zorvtest::ScopedSendCapture;
using zorvtest::ScopedAllocFailure;

std::string traceToFile() {
  std::string path = std::string(ZorvGetPipeDirectory()) + "/trace.txt";
  setenv("ZORV_TRACE", "pv", 1);
  setenv("ZORV_TRACE_FILE", path.c_str(), 1);
  return path;
}

// ---- Helpers
// ------------------------------------------------------------------

// A constructed parameter list, destructed at the end of the scope.
class List {
 public:
  List() { Dapi2_ParamListConstruct(&list_); }
  ~List() { Dapi2_ParamListDestruct(&list_); }
  Dapi2ParamList* get() { return &list_; }
  Dapi2Parameter* add(const char* id, const char* value) {
    Dapi2Parameter* p = (Dapi2Parameter*)malloc(sizeof *p);
    Dapi2_InitParameter(p);
    Dapi2_SetParameterId(p, id);
    if (value) Dapi2_SetParameterValFromStr(p, value);
    Dapi2_AddParameter(&list_, p);
    return p;
  }
  Dapi2Parameter* find(const char* id) {
    for (Dapi2Parameter* p = Dapi2_I_GetFirstParameter(&list_); p;
         p = Dapi2_I_GetNextParameter(&list_))
      if (strcmp(p->id, id) == 0) return p;
    return nullptr;
  }

 private:
  Dapi2ParamList list_;
};

// "id=value" of every parameter of a list.
std::vector<std::string> pairs(Dapi2ParamList* list) {
  std::vector<std::string> out;
  for (Dapi2Parameter* p = Dapi2_I_GetFirstParameter(list); p;
       p = Dapi2_I_GetNextParameter(list))
    out.push_back(std::string(p->id) + "=" + (p->value ? p->value : "<null>"));
  return out;
}

std::string str(const char* text) { return text ? text : "<null>"; }

// A growable string holding `text`, deleted at the end of the scope.
class Str {
 public:
  explicit Str(const std::string& text = "") {
    CGenStrInit(&s_);
    for (char c : text) CGenStrCatC(&s_, c);
  }
  ~Str() { CGenStrDelete(&s_); }
  CGenStr* get() { return &s_; }
  std::string text() const { return s_.buffer ? s_.buffer : ""; }

 private:
  CGenStr s_;
};

std::string xmlOf(Dapi2ParamList* list) {
  Str xml;
  EXPECT_EQ(1, AppendValidateParmsXMLResults(list, xml.get()));
  return xml.text();
}

std::string paramsIni() { return zorvtest::DataPath("dapi2/params.ini"); }

// 2003-04-15 12:24:56 UTC.
const int64_t kFakeSeconds = 1050409496;
const char kFakeTime[] = "20030415122456000";

std::string responseOf(const std::string& to, const std::string& re,
                       const std::string& time, const std::string& data,
                       const std::string& id = "1") {
  return "<MSG><HDR><FROM>" + std::to_string(ZorvGetClientPid()) +
         "</FROM><TO>" + to + "</TO><ID>" + id + "</ID><RE>" + re +
         "</RE><TYPE>TRANSACTION_RESPONSE</TYPE><TIME>" + time +
         "</TIME></HDR><DATA>" + data + "</DATA></MSG>\r\n";
}

// A request constructed and destructed with the scope.
class Request {
 public:
  Request() { ok_ = TestExecRequestConstruct(&req_); }
  ~Request() { TestExecRequestDestruct(&req_); }
  TestExecRequest* get() { return &req_; }
  bool ok() const { return ok_ == 1; }
  int assign(const std::string& text) {
    Str s(text);
    return AssignTestExecRequestFromStr(&req_, s.get());
  }

 private:
  TestExecRequest req_;
  int ok_;
};

}  // namespace

// ---- Words ------------------------------------------------------------------

TEST(ParameterTypeToStr, NamesFiveTypesAndInvalidOtherwise) {
  const char* words[] = {"int32", "uint32", "bool", "float", "string"};
  for (int32_t t = -3; t < 9; ++t) {
    SCOPED_TRACE(t);
    if (t >= 0 && t < 5) {
      EXPECT_STREQ(words[t], ParameterTypeToStr(t));
      EXPECT_EQ(t, ParameterTypeStrToType(words[t]));
    } else {
      EXPECT_STREQ("invalid", ParameterTypeToStr(t));
    }
  }
  EXPECT_STREQ("invalid", ParameterTypeToStr(INT32_MAX));
  EXPECT_STREQ("invalid", ParameterTypeToStr(INT32_MIN));
}

TEST(ParameterTypeStrToType, IgnoresCaseAndGivesMinusOneForOtherWords) {
  EXPECT_EQ(0, ParameterTypeStrToType("INT32"));
  EXPECT_EQ(1, ParameterTypeStrToType("UInt32"));
  EXPECT_EQ(2, ParameterTypeStrToType("Bool"));
  EXPECT_EQ(3, ParameterTypeStrToType("FLOAT"));
  EXPECT_EQ(4, ParameterTypeStrToType("sTrInG"));
  for (const char* word : {"invalid", "", "int", "int32 ", "double", "str"}) {
    SCOPED_TRACE(word);
    EXPECT_EQ(-1, ParameterTypeStrToType(word));
  }
  EXPECT_EQ(-1, ParameterTypeStrToType(nullptr));
}

// An unknown flag number is written "valid flag invalid".
TEST(ParameterValidFlagToStr, NamesFiveFlagsAndValidFlagInvalidOtherwise) {
  const char* words[] = {"valid", "id not recognized", "value too big",
                         "value too small", "value bad"};
  for (int32_t f = -3; f < 9; ++f) {
    SCOPED_TRACE(f);
    if (f >= 0 && f < 5) {
      EXPECT_STREQ(words[f], ParameterValidFlagToStr(f));
      EXPECT_EQ(f, ParameterValidFlagStrToType(words[f]));
    } else {
      EXPECT_STREQ("valid flag invalid", ParameterValidFlagToStr(f));
    }
  }
}

TEST(ParameterValidFlagStrToType, IgnoresCaseAndGivesMinusOneForOtherWords) {
  EXPECT_EQ(2, ParameterValidFlagStrToType("VALUE TOO BIG"));
  EXPECT_EQ(1, ParameterValidFlagStrToType("Id Not Recognized"));
  for (const char* word :
       {"valid flag invalid", "", "value  bad", "invalid", "too big"}) {
    SCOPED_TRACE(word);
    EXPECT_EQ(-1, ParameterValidFlagStrToType(word));
  }
  EXPECT_EQ(-1, ParameterValidFlagStrToType(nullptr));
}

// ---- Predefined parameter
// -----------------------------------------------------

TEST(IsPredefinedParameter, MatchesExactPercentId) {
  List list;
  EXPECT_EQ(1,
            IsPredefinedParameter(list.add("ZORV_DAPI2_PERCENT_TO_TEST", "5")));
  EXPECT_EQ(0,
            IsPredefinedParameter(list.add("zorv_dapi2_percent_to_test", "5")));
  EXPECT_EQ(
      0, IsPredefinedParameter(list.add("ZORV_DAPI2_PERCENT_TO_TEST ", "5")));
  EXPECT_EQ(0, IsPredefinedParameter(list.add("ZORV_DAPI2_PERCENT", "5")));
  EXPECT_EQ(0, IsPredefinedParameter(nullptr));
  Dapi2Parameter noId;
  Dapi2_InitParameter(&noId);
  EXPECT_EQ(0, IsPredefinedParameter(&noId));
}

// 100 accepted; 100.5 too big; 0 too small; and the other cases.
TEST(ProcessPredefinedParameters, JudgesPercentValue) {
  struct Row {
    const char* value;  // null: unset
    int ok;
    int32_t flag;
    float percent;
  } rows[] = {
      {"100", 1, 0, 100.0f},  {"100.5", 0, 2, 100.0f},
      {"0", 0, 3, 100.0f},    {"-5", 0, 3, 100.0f},
      {"50", 1, 0, 50.0f},    {"0.5", 1, 0, 0.5f},
      {"1e2", 1, 0, 100.0f},  {"abc", 0, 4, 100.0f},
      {"50%", 0, 4, 100.0f},  {nullptr, 0, 4, 100.0f},
      {"1e39", 0, 4, 100.0f}, {"100.00001", 0, 2, 100.0f},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(str(row.value));
    Dapi2_I_SetPercentageToTest(7.0f);
    List list;
    list.add("OTHER", "1000");
    Dapi2Parameter* p = list.add("ZORV_DAPI2_PERCENT_TO_TEST", row.value);
    int ok = 9;
    EXPECT_EQ(1, ProcessPredefinedParameters(list.get(), &ok));
    EXPECT_EQ(row.ok, ok);
    EXPECT_EQ(row.flag, Dapi2_GetParameterValidFlag(p));
    EXPECT_EQ(row.percent, Dapi2_GetFloatPercentageToTest());
    EXPECT_STREQ("0", Dapi2_GetParameterMinValAsStr(p));
    EXPECT_STREQ("100", Dapi2_GetParameterMaxValAsStr(p));
    EXPECT_EQ(0, Dapi2_GetParameterValidFlag(list.find("OTHER")));
    EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(list.find("OTHER")));
  }
}

TEST(ProcessPredefinedParameters, ResetsPercentToHundredWithoutParameter) {
  Dapi2_I_SetPercentageToTest(25.0f);
  List list;
  list.add("LOOPS", "3");
  int ok = 0;
  EXPECT_EQ(1, ProcessPredefinedParameters(list.get(), &ok));
  EXPECT_EQ(1, ok);
  EXPECT_EQ(100.0f, Dapi2_GetFloatPercentageToTest());
  EXPECT_EQ(0, ProcessPredefinedParameters(nullptr, &ok));
  EXPECT_EQ(0, ProcessPredefinedParameters(list.get(), nullptr));
}

// A rejected percentage still gives a reply naming the verdict and the
// bounds (validate mode replies; run mode stops on percentOk 0).
TEST(ProcessPredefinedParameters, TooBigPercentStillHasValidationReply) {
  List list;
  list.add("ZORV_DAPI2_PERCENT_TO_TEST", "100.5");
  int ok = 1;
  ASSERT_EQ(1, ProcessPredefinedParameters(list.get(), &ok));
  EXPECT_EQ(0, ok);
  EXPECT_EQ(
      "<PARAM_VALIDATION_RESULTS><PARAMETER><ID>ZORV_DAPI2_PERCENT_TO_TEST"
      "</ID><VALID_FLAG>value too big</VALID_FLAG><MIN_VALUE>0</MIN_VALUE>"
      "<MAX_VALUE>100</MAX_VALUE></PARAMETER></PARAM_VALIDATION_RESULTS>",
      xmlOf(list.get()));
}

TEST(ProcessPredefinedParameters, FailsWhenBoundsCannotBeStored) {
  List list;
  list.add("ZORV_DAPI2_PERCENT_TO_TEST", "10");
  int ok = 0;
  ScopedAllocFailure failure(1);
  EXPECT_EQ(0, ProcessPredefinedParameters(list.get(), &ok));
}

// ---- Definitions file
// ------------------------------------------------------------

// Key "%s[%u][%u]": szParameterId[1][0] is LOOPS.
TEST(Dapi2GetParamPrivateProfileString, ReadsIndexedKey) {
  char buffer[64];
  int found = 0;
  EXPECT_EQ(5, Dapi2GetParamPrivateProfileString(
                   paramsIni().c_str(), "Module", "szParameterId", 1, 0, "dflt",
                   buffer, sizeof buffer, &found));
  EXPECT_EQ(1, found);
  EXPECT_STREQ("LOOPS", buffer);
  EXPECT_EQ(6, Dapi2GetParamPrivateProfileString(
                   paramsIni().c_str(), "module", "SZPARAMETERID", 2, 2, "",
                   buffer, sizeof buffer, &found));
  EXPECT_STREQ("HIDDEN", buffer);
  EXPECT_EQ(1, found);
}

// A missing key, an empty value, another section, no file, a key name
// too long for its buffer: the default, found 0.
TEST(Dapi2GetParamPrivateProfileString, GivesDefaultWhenKeyMissingOrEmpty) {
  std::string longBase(300, 'k');
  std::string ini = paramsIni();
  struct Row {
    const char* name;
    const char* file;
    const char* section;
    const char* keyBase;
    int32_t test;
    int32_t index;
  } rows[] = {
      {"missing index", ini.c_str(), "Module", "szParameterId", 1, 7},
      {"empty value", ini.c_str(), "Module", "szParameterId", 1, 6},
      {"other section", ini.c_str(), "Other", "szParameterId", 1, 0},
      {"no file", "/nonexistent/defs.ini", "Module", "szParameterId", 1, 0},
      {"null file", nullptr, "Module", "szParameterId", 1, 0},
      {"null section", ini.c_str(), nullptr, "szParameterId", 1, 0},
      {"null key", ini.c_str(), "Module", nullptr, 1, 0},
      {"long key", ini.c_str(), "Module", longBase.c_str(), 1, 0},
      {"negative test", ini.c_str(), "Module", "szParameterId", -1, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char buffer[64];
    int found = 7;
    EXPECT_EQ(4, Dapi2GetParamPrivateProfileString(
                     row.file, row.section, row.keyBase, row.test, row.index,
                     "dflt", buffer, sizeof buffer, &found));
    EXPECT_EQ(0, found);
    EXPECT_STREQ("dflt", buffer);
  }
  char buffer[4] = "xyz";
  int found = 7;
  EXPECT_EQ(0, Dapi2GetParamPrivateProfileString(
                   paramsIni().c_str(), "Module", "szParameterId", 1, 9,
                   nullptr, buffer, sizeof buffer, &found));
  EXPECT_STREQ("", buffer);
  EXPECT_EQ(0, Dapi2GetParamPrivateProfileString(paramsIni().c_str(), "Module",
                                                 "szParameterId", 1, 0, "",
                                                 nullptr, 8, &found));
  EXPECT_EQ(0, found);
}

// A value longer than the buffer is cut and still counts as present.
TEST(Dapi2GetParamPrivateProfileString, CutsValueToBuffer) {
  char buffer[4];
  int found = 0;
  EXPECT_EQ(3, Dapi2GetParamPrivateProfileString(
                   paramsIni().c_str(), "Module", "szParameterName", 1, 0, "",
                   buffer, sizeof buffer, &found));
  EXPECT_STREQ("Loo", buffer);
  EXPECT_EQ(1, found);
}

TEST(GetParamIndex, FindsFirstIndexWithExactIdUntilFirstGap) {
  struct Row {
    int32_t test;
    const char* id;
    int32_t index;
  } rows[] = {
      {1, "LOOPS", 0},     {1, "SPEED", 1},   {1, "VERBOSE", 5},
      {1, "NOMAX", 4},     {2, "LOOPS", 0},   {1, "loops", -1},
      {1, "UNLISTED", -1}, {2, "HIDDEN", -1}, {3, "LOOPS", -1},
      {1, "", -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.test) + " " + row.id);
    int32_t index = 99;
    EXPECT_EQ(1, GetParamIndex(paramsIni().c_str(), row.test, row.id, &index));
    EXPECT_EQ(row.index, index);
  }
  int32_t index = 99;
  EXPECT_EQ(0, GetParamIndex(paramsIni().c_str(), 1, nullptr, &index));
  EXPECT_EQ(-1, index);
  EXPECT_EQ(0, GetParamIndex(paramsIni().c_str(), 1, "LOOPS", nullptr));
}

// Two tests, several parameters: every field read in its order, each
// missing key ending or skipping as its place says, and a parameter the
// file does not list left with its id and value.
TEST(GetParamIniInfo, CompletesParametersOfTestOne) {
  List list;
  Dapi2Parameter* loops = list.add("LOOPS", "10");
  Dapi2Parameter* speed = list.add("SPEED", "2");
  Dapi2Parameter* noType = list.add("NOTYPE", "a");
  Dapi2Parameter* noName = list.add("NONAME", "b");
  Dapi2Parameter* noMax = list.add("NOMAX", "-1");
  Dapi2Parameter* verbose = list.add("VERBOSE", "true");
  Dapi2Parameter* unlisted = list.add("UNLISTED", "x");
  ASSERT_EQ(1, GetParamIniInfo(paramsIni().c_str(), 1, list.get()));

  EXPECT_EQ(1, Dapi2_GetParameterType(loops));
  EXPECT_STREQ("Loops", Dapi2_GetParameterName(loops));
  EXPECT_STREQ("How many passes", Dapi2_GetParameterDescription(loops));
  EXPECT_EQ(1, Dapi2_GetParameterMustBeSet(loops));
  EXPECT_EQ(0, Dapi2_GetParameterRecommendValidate(loops));
  EXPECT_STREQ("9999", Dapi2_GetParameterMask(loops));
  EXPECT_STREQ("10", Dapi2_GetParameterDefaultValAsStr(loops));  // "+10"
  EXPECT_STREQ("1", Dapi2_GetParameterMinValAsStr(loops));
  EXPECT_STREQ("1000", Dapi2_GetParameterMaxValAsStr(loops));
  EXPECT_STREQ("10", Dapi2_GetParameterValAsStr(loops));

  // No description, flags or mask in the file: those stay unset.
  EXPECT_EQ(3, Dapi2_GetParameterType(speed));
  EXPECT_STREQ("Speed", Dapi2_GetParameterName(speed));
  EXPECT_EQ(nullptr, Dapi2_GetParameterDescription(speed));
  EXPECT_EQ(0, Dapi2_GetParameterMustBeSet(speed));
  EXPECT_EQ(nullptr, Dapi2_GetParameterMask(speed));
  EXPECT_STREQ("1.5", Dapi2_GetParameterDefaultValAsStr(speed));
  EXPECT_STREQ("0.5", Dapi2_GetParameterMinValAsStr(speed));
  EXPECT_STREQ("52", Dapi2_GetParameterMaxValAsStr(speed));

  // No type: nothing more is read (name and maximum exist but stay unread).
  EXPECT_EQ(4, Dapi2_GetParameterType(noType));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(noType));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(noType));

  // No name: the type is read, the description after it is not.
  EXPECT_EQ(4, Dapi2_GetParameterType(noName));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(noName));
  EXPECT_EQ(nullptr, Dapi2_GetParameterDescription(noName));

  // No maximum: everything before it, and no maximum.
  EXPECT_EQ(0, Dapi2_GetParameterType(noMax));
  EXPECT_STREQ("No maximum", Dapi2_GetParameterName(noMax));
  EXPECT_EQ(1, Dapi2_GetParameterRecommendValidate(noMax));
  EXPECT_STREQ("-5", Dapi2_GetParameterMinValAsStr(noMax));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(noMax));
  EXPECT_EQ(0, Dapi2_GetParameterHasDefaultValue(noMax));

  // Bool with default "TRUE" and only a maximum.
  EXPECT_EQ(2, Dapi2_GetParameterType(verbose));
  EXPECT_STREQ("1", Dapi2_GetParameterDefaultValAsStr(verbose));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(verbose));
  EXPECT_STREQ("1", Dapi2_GetParameterMaxValAsStr(verbose));

  // Not in the file: only id and value.
  EXPECT_EQ(4, Dapi2_GetParameterType(unlisted));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(unlisted));
  EXPECT_STREQ("x", Dapi2_GetParameterValAsStr(unlisted));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(unlisted));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(unlisted));
}

TEST(GetParamIniInfo, ReadsDefinitionsOfTestTwo) {
  List list;
  Dapi2Parameter* loops = list.add("LOOPS", "2");
  Dapi2Parameter* hidden = list.add("HIDDEN", "h");
  ASSERT_EQ(1, GetParamIniInfo(paramsIni().c_str(), 2, list.get()));
  EXPECT_EQ(0, Dapi2_GetParameterType(loops));
  EXPECT_STREQ("Loops of test 2", Dapi2_GetParameterName(loops));
  EXPECT_STREQ("-3", Dapi2_GetParameterMinValAsStr(loops));
  EXPECT_STREQ("3", Dapi2_GetParameterMaxValAsStr(loops));
  // Index 1 is missing, so index 2 is never reached.
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(hidden));
}

// The unlisted parameter's reply element carries no bounds.
TEST(GetParamIniInfo, UnlistedParameterHasNoBoundsInReply) {
  List list;
  list.add("UNLISTED", "x");
  ASSERT_EQ(1, GetParamIniInfo(paramsIni().c_str(), 1, list.get()));
  EXPECT_EQ(
      "<PARAM_VALIDATION_RESULTS><PARAMETER><ID>UNLISTED</ID>"
      "<VALID_FLAG>valid</VALID_FLAG></PARAMETER>"
      "</PARAM_VALIDATION_RESULTS>",
      xmlOf(list.get()));
}

TEST(GetParamIniInfo, LeavesParametersAloneWithoutFile) {
  List list;
  Dapi2Parameter* loops = list.add("LOOPS", "2");
  EXPECT_EQ(1, GetParamIniInfo("/nonexistent/x.ini", 1, list.get()));
  EXPECT_EQ(1, GetParamIniInfo(nullptr, 1, list.get()));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(loops));
  EXPECT_EQ(0, GetParamIniInfo(paramsIni().c_str(), 1, nullptr));
}

// A value that does not convert fails the whole processing.
TEST(GetParamIniInfo, FailsOnValuesThatDoNotConvert) {
  struct Row {
    const char* name;
    const char* lines;
  } rows[] = {
      {"type word", "szParameterType[1][0]=integer\n"},
      {"must be set",
       "szParameterType[1][0]=int32\n"
       "szParameterName[1][0]=n\n"
       "iParameterMustBeSet[1][0]=yes\n"},
      {"recommend validate",
       "szParameterType[1][0]=int32\n"
       "szParameterName[1][0]=n\n"
       "iParameterRecommendValidate[1][0]=2\n"},
      {"default",
       "szParameterType[1][0]=int32\n"
       "szParameterName[1][0]=n\n"
       "szParameterDefaultValue[1][0]=12abc\n"},
      {"minimum",
       "szParameterType[1][0]=uint32\n"
       "szParameterName[1][0]=n\n"
       "iParameterMinValue[1][0]=-1\n"},
      {"maximum",
       "szParameterType[1][0]=float\n"
       "szParameterName[1][0]=n\n"
       "iParameterMaxValue[1][0]=inf\n"},
      {"bool default",
       "szParameterType[1][0]=bool\n"
       "szParameterName[1][0]=n\n"
       "szParameterDefaultValue[1][0]=maybe\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string path = std::string(ZorvGetPipeDirectory()) + "/bad.ini";
    ASSERT_TRUE(zorvtest::WriteFile(
        path, std::string("[Module]\nszParameterId[1][0]=P\n") + row.lines));
    List list;
    list.add("P", "1");
    EXPECT_EQ(0, GetParamIniInfo(path.c_str(), 1, list.get()));
    EXPECT_EQ(
        0, AssignParameterFieldsFromIniFile(path.c_str(), 1, list.find("P")));
  }
}

// Hostile definitions files: binary bytes, a huge value, many indices.
TEST(GetParamIniInfo, SurvivesHostileFiles) {
  std::string path = std::string(ZorvGetPipeDirectory()) + "/hostile.ini";
  std::string content = "[Module]\n";
  for (int i = 0; i < 300; ++i)
    content += "szParameterId[1][" + std::to_string(i) + "]=ID" +
               std::to_string(i) + "\n";
  content += "szParameterType[1][299]=string\n";
  content += "szParameterName[1][299]=" + std::string(5000, 'n') + "\n";
  content += "szParameterDescription[1][299]=\x01\x02\xff\xfe=\n";
  content += "iParameterMaxValue[1][299]=" + std::string(3000, '9') + "\n";
  ASSERT_TRUE(zorvtest::WriteFile(path, content));
  List list;
  Dapi2Parameter* p = list.add("ID299", "v");
  ASSERT_EQ(1, GetParamIniInfo(path.c_str(), 1, list.get()));
  EXPECT_EQ(4, Dapi2_GetParameterType(p));
  // Lines are cut at 511 bytes by the reader; the rest is another line.
  EXPECT_EQ(std::string(511 - strlen("szParameterName[1][299]="), 'n'),
            Dapi2_GetParameterName(p));
  ASSERT_NE(nullptr, Dapi2_GetParameterMaxValAsStr(p));
}

TEST(AssignParameterFieldsFromIniFileByIndex, ReadsGivenIndexDirectly) {
  Dapi2Parameter p;
  Dapi2_InitParameter(&p);
  EXPECT_EQ(1, AssignParameterFieldsFromIniFileByIndex(paramsIni().c_str(), 1,
                                                       1, &p));
  EXPECT_STREQ("Speed", Dapi2_GetParameterName(&p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterId(&p));
  EXPECT_EQ(1, AssignParameterFieldsFromIniFileByIndex(paramsIni().c_str(), 1,
                                                       -1, &p));
  EXPECT_EQ(0, AssignParameterFieldsFromIniFileByIndex(paramsIni().c_str(), 1,
                                                       0, nullptr));
  Dapi2_DestructParameter(&p);
  EXPECT_EQ(0,
            AssignParameterFieldsFromIniFile(paramsIni().c_str(), 1, nullptr));
  Dapi2_InitParameter(&p);
  EXPECT_EQ(1, AssignParameterFieldsFromIniFile(paramsIni().c_str(), 1, &p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(&p));
}

// Each allocation failing in turn: a failed read of the file counts as a
// missing key (success, fields left), a failed copy fails the processing;
// never a crash or a leak.
TEST(GetParamIniInfo, FailsCleanlyWhenOutOfMemory) {
  int nAllocations = 0;
  {
    List list;
    list.add("LOOPS", "1");
    list.add("SPEED", "1");
    ScopedAllocFailure counting(-1);
    ASSERT_EQ(1, GetParamIniInfo(paramsIni().c_str(), 1, list.get()));
    nAllocations = ScopedAllocFailure::Calls();
  }
  ASSERT_GT(nAllocations, 5);
  int nFailed = 0;
  for (int n = 1; n <= nAllocations; ++n) {
    SCOPED_TRACE(n);
    List list;
    list.add("LOOPS", "1");
    list.add("SPEED", "1");
    ScopedAllocFailure failure(n);
    int rc = GetParamIniInfo(paramsIni().c_str(), 1, list.get());
    EXPECT_TRUE(rc == 0 || rc == 1);
    if (rc == 0) ++nFailed;
  }
  EXPECT_GT(nFailed, 0);
}

// ---- Validation reply
// -------------------------------------------------------------

// An empty list: the results element with nothing inside.
TEST(AppendValidateParmsXMLResults, EmptyListGivesEmptyResultsElement) {
  List list;
  EXPECT_EQ("<PARAM_VALIDATION_RESULTS></PARAM_VALIDATION_RESULTS>",
            xmlOf(list.get()));
  Str xml;
  EXPECT_EQ(0, AppendValidateParmsXMLResults(nullptr, xml.get()));
  EXPECT_EQ(0, AppendValidateParmsXMLResults(list.get(), nullptr));
}

// Bounds only where set; an unknown flag number as "valid flag invalid".
TEST(AppendValidateParmsXMLResults, WritesBoundsAndFlagWords) {
  List list;
  Dapi2Parameter* both = list.add("LOOPS", "10");
  Dapi2_SetParameterMinValFromInt32(both, 1);
  Dapi2_SetParameterMaxValFromInt32(both, 1000);
  Dapi2_SetParameterValidFlag(both, 3);
  Dapi2Parameter* maxOnly = list.add("SPEED", "2");
  Dapi2_SetParameterMaxValFromFloat(maxOnly, 52.5f);
  Dapi2_SetParameterValidFlag(maxOnly, 4);
  Dapi2Parameter* unknown = list.add("ODD", "o");
  Dapi2_SetParameterValidFlag(unknown, 7);
  Dapi2Parameter* minOnly = list.add("NAME", "n");
  Dapi2_SetParameterMinValFromStr(minOnly, "a");
  Dapi2_SetParameterValidFlag(minOnly, 1);
  EXPECT_EQ(
      "<PARAM_VALIDATION_RESULTS>"
      "<PARAMETER><ID>LOOPS</ID><VALID_FLAG>value too small</VALID_FLAG>"
      "<MIN_VALUE>1</MIN_VALUE><MAX_VALUE>1000</MAX_VALUE></PARAMETER>"
      "<PARAMETER><ID>SPEED</ID><VALID_FLAG>value bad</VALID_FLAG>"
      "<MAX_VALUE>52.5</MAX_VALUE></PARAMETER>"
      "<PARAMETER><ID>ODD</ID><VALID_FLAG>valid flag invalid</VALID_FLAG>"
      "</PARAMETER>"
      "<PARAMETER><ID>NAME</ID><VALID_FLAG>id not recognized</VALID_FLAG>"
      "<MIN_VALUE>a</MIN_VALUE></PARAMETER>"
      "</PARAM_VALIDATION_RESULTS>",
      xmlOf(list.get()));
}

// Each PARAMETER element of a reply read back into a fresh parameter
// gives the same element again.
TEST(AppendValidateParmsXMLResults, ReadsBackThroughAssignParameterFromXML) {
  List list;
  Dapi2Parameter* a = list.add("LOOPS", "10");
  Dapi2_SetParameterType(a, 0);
  Dapi2_SetParameterMinValFromInt32(a, -4);
  Dapi2_SetParameterMaxValFromInt32(a, 1000);
  Dapi2_SetParameterValidFlag(a, 2);
  Dapi2Parameter* b = list.add("ODD", "o");
  Dapi2_SetParameterValidFlag(b, 11);
  list.add("PLAIN", "p");
  std::string xml = xmlOf(list.get());
  List back;
  int nRead = 0;
  for (int32_t i = 0;; ++i) {
    Str element;
    if (ZorvXmlGetFieldStr(xml.c_str(), "PARAM_VALIDATION_RESULTS/PARAMETER", i,
                           element.get()) != 0)
      break;
    Dapi2Parameter* p = back.add("placeholder", nullptr);
    Dapi2_SetParameterType(p, i == 0 ? 0 : 4);
    int assigned = 0;
    ASSERT_EQ(
        1, Dapi2_AssignParameterFromXML(p, element.text().c_str(), &assigned));
    EXPECT_EQ(1, assigned);
    ++nRead;
  }
  EXPECT_EQ(3, nRead);
  EXPECT_EQ(-1, Dapi2_GetParameterValidFlag(back.find("ODD")));
  EXPECT_EQ(xml, xmlOf(back.get()));
}

TEST(AppendValidateParmsXMLResultsForParameter, WritesEmptyIdForUnsetId) {
  Dapi2Parameter p;
  Dapi2_InitParameter(&p);
  Str xml;
  EXPECT_EQ(1, AppendValidateParmsXMLResultsForParameter(&p, xml.get()));
  EXPECT_EQ("<PARAMETER><ID></ID><VALID_FLAG>valid</VALID_FLAG></PARAMETER>",
            xml.text());
  EXPECT_EQ(0, AppendValidateParmsXMLResultsForParameter(nullptr, xml.get()));
  EXPECT_EQ(0, AppendValidateParmsXMLResultsForParameter(&p, nullptr));
}

TEST(AppendValidateParmsXMLResults, TracesItsCheckpoints) {
  std::string path = traceToFile();
  List list;
  Dapi2Parameter* p = list.add("A", "1");
  Dapi2_SetParameterMaxValFromInt32(p, 5);
  {
    ScopedCapture capture;
    EXPECT_EQ(1, SendValidateParmsResults(4711, 3, list.get()));
  }
  std::string trace = zorvtest::ReadFile(path);
  size_t at = 0;
  for (const char* line :
       {"AppendValidateParmsXMLResults: checkpoint\n",
        "AppendValidateParmsXMLResultsForParameter: top of function\n",
        "AppendValidateParmsXMLResultsForParameter: checkpoint\n",
        "checking if param has max val\n", "param has max val\n",
        "SendValidateParmsResults: checkpoint\n"}) {
    SCOPED_TRACE(line);
    size_t next = trace.find(line, at);
    ASSERT_NE(std::string::npos, next) << trace;
    at = next;
  }
  EXPECT_NE(std::string::npos, trace.find("param-valid.cpp:"));
}

TEST(AssignParameterFieldsFromIniFile, TracesTopOfFunction) {
  std::string path = traceToFile();
  Dapi2Parameter p;
  Dapi2_InitParameter(&p);
  Dapi2_SetParameterId(&p, "LOOPS");
  EXPECT_EQ(1, AssignParameterFieldsFromIniFile(paramsIni().c_str(), 1, &p));
  Dapi2_DestructParameter(&p);
  EXPECT_NE(std::string::npos,
            zorvtest::ReadFile(path).find(
                "AssignTestPropertyFromIniFile: top of function\n"));
}

// ---- Response envelope
// ---------------------------------------------------------

TEST(ZorvClientCreateResponse, BuildsTransactionResponseToRequester) {
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  char message[4096];
  EXPECT_EQ(0, ZorvClientCreateResponse(4711, 4294967295u, "<X>y</X>", message,
                                        sizeof message));
  EXPECT_EQ(responseOf("4711", "4294967295", kFakeTime, "<X>y</X>"), message);
}

TEST(ZorvClientCreateResponse, ReturnsEveryFailureCode) {
  char message[4096];
  {
    ScopedCapture capture(true);
    EXPECT_EQ(1, ZorvClientCreateResponse(1, 2, "d", message, sizeof message));
  }
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(2, ZorvClientCreateResponse(1, 2, "d", message, sizeof message));
  }
  EXPECT_EQ(3,
            ZorvClientCreateResponse(1, 2, nullptr, message, sizeof message));
  EXPECT_EQ(4, ZorvClientCreateResponse(1, 2, "d", message, 40));
  EXPECT_EQ(4, ZorvClientCreateResponse(1, 2, "d", nullptr, 4096));
  EXPECT_EQ(4, ZorvClientCreateResponse(1, 2, "d", message, 0));
}

// A message that just fits (with its terminator) is built; one byte less
// is not.
TEST(ZorvClientCreateResponse, NeedsRoomForMessageAndTerminator) {
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  char message[4096];
  ASSERT_EQ(0, ZorvClientCreateResponse(1, 2, "abc", message, sizeof message));
  uint32_t nNeeded = (uint32_t)strlen(message) + 1;
  EXPECT_EQ(0, ZorvClientCreateResponse(1, 2, "abc", message, nNeeded));
  EXPECT_EQ(4, ZorvClientCreateResponse(1, 2, "abc", message, nNeeded - 1));
}

TEST(SendValidateParmsResults, SendsResponseWithResults) {
  zorvtest::ScopedFakeClock clock(kFakeSeconds, 0);
  ScopedCapture capture;
  List list;
  EXPECT_EQ(1, SendValidateParmsResults(4711, 42, list.get()));
  ASSERT_EQ(1u, gSent.size());
  EXPECT_EQ(responseOf("4711", "42", kFakeTime,
                       "<PARAM_VALIDATION_RESULTS></PARAM_VALIDATION_RESULTS>"),
            gSent[0]);
}

TEST(SendValidateParmsResults, FailsWhenTooLongOrNotSent) {
  ScopedCapture capture;
  List list;
  list.add(std::string(4100, 'i').c_str(), "v");
  EXPECT_EQ(0, SendValidateParmsResults(4711, 42, list.get()));
  EXPECT_TRUE(gSent.empty());
  List small;
  gSendResult = 1;
  EXPECT_EQ(0, SendValidateParmsResults(4711, 42, small.get()));
  EXPECT_EQ(1u, gSent.size());
  EXPECT_EQ(0, SendValidateParmsResults(4711, 42, nullptr));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(0, SendValidateParmsResults(4711, 42, small.get()));
  }
}

// Without a connection the send fails.
TEST(SendValidateParmsResults, FailsWithoutConnection) {
  List list;
  EXPECT_EQ(0, SendValidateParmsResults(4711, 42, list.get()));
}

// Through the client connection: the peer receives the reply as built.
TEST(SendValidateParmsResults, PeerReceivesValidationReply) {
  zorvtest::PeerSession session;
  ASSERT_TRUE(session.Begin());
  ASSERT_EQ(0, ZorvClientOpenConnectionEx("cdrom", "DIAGMODULE", "", NULL));
  List list;
  Dapi2Parameter* p = list.add("ZORV_DAPI2_PERCENT_TO_TEST", "0");
  int ok = 1;
  ASSERT_EQ(1, ProcessPredefinedParameters(list.get(), &ok));
  EXPECT_EQ(0, ok);
  EXPECT_EQ(3, Dapi2_GetParameterValidFlag(p));
  EXPECT_EQ(1, SendValidateParmsResults(31337, 9, list.get()));
  ASSERT_TRUE(session.peer().WaitForReceived(2, 10000));
  std::string received = session.peer().Received()[1];
  char time[64];
  ASSERT_EQ(0, ZorvXmlGetField(received.c_str(), "MSG/HDR/TIME", 0, time,
                               sizeof time));
  char id[32];
  ASSERT_EQ(0,
            ZorvXmlGetField(received.c_str(), "MSG/HDR/ID", 0, id, sizeof id));
  EXPECT_EQ(responseOf("31337", "9", time,
                       "<PARAM_VALIDATION_RESULTS><PARAMETER><ID>"
                       "ZORV_DAPI2_PERCENT_TO_TEST</ID><VALID_FLAG>value too "
                       "small</VALID_FLAG><MIN_VALUE>0</MIN_VALUE><MAX_VALUE>"
                       "100</MAX_VALUE></PARAMETER></PARAM_VALIDATION_RESULTS>",
                       id),
            received);
}

// ---- Parameter tokens
// ------------------------------------------------------------

// param=LOOPS,10 -> LOOPS and 10; the head in any letter case; the value
// keeps further commas; malformed tokens are not parameters.
TEST(ParseParamValidToken, SplitsIdAndValueOfParamTokens) {
  struct Row {
    std::string token;
    int isParam;
    std::string id;
    std::string value;
  } rows[] = {
      {"param=LOOPS,10", 1, "LOOPS", "10"},
      {"PARAM=LOOPS,10", 1, "LOOPS", "10"},
      {"PaRaM=LOOPS,10", 1, "LOOPS", "10"},
      {"param=NAME,a,b", 1, "NAME", "a,b"},
      {"param=A,=", 1, "A", "="},
      {"param==x,1", 1, "=x", "1"},
      {"param= A ,1 ", 1, " A ", "1 "},
      {"param=A,,", 1, "A", ","},
      {"param=\x01\xff,\x02\x7f", 1, "\x01\xff", "\x02\x7f"},
      {"param=LOOPS", 0, "", ""},
      {"param=,10", 0, "", ""},
      {"param=LOOPS,", 0, "", ""},
      {"param=", 0, "", ""},
      {"param=,", 0, "", ""},
      {"param", 0, "", ""},
      {"params=A,1", 0, "", ""},
      {"param =A,1", 0, "", ""},
      {"=A,1", 0, "", ""},
      {"", 0, "", ""},
      {"device=3", 0, "", ""},
      {"LOOPS,10", 0, "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.token);
    Str token(row.token);
    Str id("old");
    Str value("old");
    int isParam = 7;
    EXPECT_EQ(
        1, ParseParamValidToken(token.get(), &isParam, id.get(), value.get()));
    EXPECT_EQ(row.isParam, isParam);
    if (row.isParam) {
      EXPECT_EQ(row.id, id.text());
      EXPECT_EQ(row.value, value.text());
    }
  }
}

TEST(ParseParamValidToken, KeepsVeryLongIdAndValue) {
  std::string id(70000, 'I');
  std::string value(100000, 'v');
  Str token("param=" + id + "," + value);
  Str outId;
  Str outValue;
  int isParam = 0;
  ASSERT_EQ(1, ParseParamValidToken(token.get(), &isParam, outId.get(),
                                    outValue.get()));
  EXPECT_EQ(1, isParam);
  EXPECT_EQ(id, outId.text());
  EXPECT_EQ(value, outValue.text());
}

// 0 only when out of memory (or for null arguments).
TEST(ParseParamValidToken, ReturnsZeroOnlyWhenOutOfMemory) {
  Str token("param=LOOPS,10");
  Str id;
  Str value;
  int isParam = 0;
  int rc = 0;
  int n = 1;
  for (; n < 50 && rc != 1; ++n) {
    ScopedAllocFailure failure(n);
    rc = ParseParamValidToken(token.get(), &isParam, id.get(), value.get());
    if (rc == 0) {
      EXPECT_EQ(0, isParam);
    }
  }
  EXPECT_EQ(1, rc);
  EXPECT_GT(n, 2);
  EXPECT_EQ(0, ParseParamValidToken(nullptr, &isParam, id.get(), value.get()));
  EXPECT_EQ(0,
            ParseParamValidToken(token.get(), nullptr, id.get(), value.get()));
  EXPECT_EQ(0,
            ParseParamValidToken(token.get(), &isParam, nullptr, value.get()));
  // A fixed buffer too small for the id cannot grow: reported as 0.
  char small[4];
  CGenStr fixed;
  CGenStrInitBuff(&fixed, small, 0, sizeof small);
  EXPECT_EQ(0,
            ParseParamValidToken(token.get(), &isParam, &fixed, value.get()));
}

TEST(ParseParamValidToken, TracesTopOfFunctionAndToken) {
  std::string path = traceToFile();
  Str token("param=A,1");
  Str id;
  Str value;
  int isParam = 0;
  ASSERT_EQ(1,
            ParseParamValidToken(token.get(), &isParam, id.get(), value.get()));
  std::string trace = zorvtest::ReadFile(path);
  size_t top = trace.find("ParseParamValidToken: top of function\n");
  ASSERT_NE(std::string::npos, top);
  EXPECT_NE(std::string::npos, trace.find("token is \"param=A,1\"\n", top));
}

// ---- Parameter lists
// --------------------------------------------------------------

TEST(AddParamToParamListFromToken, AddsParameterTokensAndSkipsOthers) {
  List list;
  EXPECT_EQ(1, AddParamToParamListFromTokenC_Str(list.get(), "param=A,1"));
  EXPECT_EQ(1, AddParamToParamListFromTokenC_Str(list.get(), "device=3"));
  EXPECT_EQ(1, AddParamToParamListFromTokenC_Str(list.get(), "param=B,"));
  Str token("PARAM=C,x,y");
  EXPECT_EQ(1, AddParamToParamListFromToken(list.get(), token.get()));
  EXPECT_EQ((std::vector<std::string>{"A=1", "C=x,y"}), pairs(list.get()));
  EXPECT_EQ(4, Dapi2_GetParameterType(list.find("A")));
  EXPECT_EQ(0, AddParamToParamListFromTokenC_Str(nullptr, "param=A,1"));
  EXPECT_EQ(0, AddParamToParamListFromTokenC_Str(list.get(), nullptr));
  EXPECT_EQ(0, AddParamToParamListFromToken(list.get(), nullptr));
}

// Every allocation failing in turn: 0 and the list unchanged, until it
// works; no half-made parameter is left (the leak checker sees to it).
TEST(AddParamToParamListFromTokenStrings, LeavesListUnchangedWhenOutOfMemory) {
  Str id("LOOPS");
  Str value("10");
  int rc = 0;
  int n = 1;
  List list;
  for (; n < 50 && rc != 1; ++n) {
    SCOPED_TRACE(n);
    ScopedAllocFailure failure(n);
    rc = AddParamToParamListFromTokenStrings(list.get(), id.get(), value.get());
    if (rc == 0) {
      EXPECT_TRUE(pairs(list.get()).empty());
    }
  }
  EXPECT_EQ(1, rc);
  EXPECT_EQ(6, n);  // four allocations failed in turn: record, id, value, node
  EXPECT_EQ((std::vector<std::string>{"LOOPS=10"}), pairs(list.get()));
  EXPECT_EQ(
      0, AddParamToParamListFromTokenStrings(nullptr, id.get(), value.get()));
}

TEST(AssignParamListFromStr, AddsEveryParameterTokenInOrder) {
  List list;
  EXPECT_EQ(1, AssignParamListFromC_Str(
                   list.get(),
                   "param=A,1:junk:PARAM=B,2::param=C,:param=D,x:y:param=E,"
                   "a,b:"));
  EXPECT_EQ((std::vector<std::string>{"A=1", "B=2", "D=x", "E=a,b"}),
            pairs(list.get()));
  List empty;
  EXPECT_EQ(1, AssignParamListFromC_Str(empty.get(), ""));
  EXPECT_EQ(1, AssignParamListFromC_Str(empty.get(), ":::"));
  EXPECT_TRUE(pairs(empty.get()).empty());
  EXPECT_EQ(0, AssignParamListFromC_Str(nullptr, "param=A,1"));
  EXPECT_EQ(0, AssignParamListFromC_Str(empty.get(), nullptr));
  EXPECT_EQ(0, AssignParamListFromStr(empty.get(), nullptr));
}

TEST(AssignParamListFromStr, HandlesThousandsOfTokensAndBinaryBytes) {
  std::string text;
  for (int i = 0; i < 5000; ++i)
    text += "param=P" + std::to_string(i) + "," + std::to_string(i) + ":";
  text += "\x01\x02,\xff=:param=\x80,\x81";
  List list;
  ASSERT_EQ(1, AssignParamListFromC_Str(list.get(), text.c_str()));
  std::vector<std::string> got = pairs(list.get());
  ASSERT_EQ(5001u, got.size());
  EXPECT_EQ("P4999=4999", got[4999]);
  EXPECT_EQ("\x80=\x81", got[5000]);
}

TEST(AssignParamListFromStr, TracesTextAndEachToken) {
  std::string path = traceToFile();
  List list;
  ASSERT_EQ(1, AssignParamListFromC_Str(list.get(), "param=A,1:x"));
  std::string trace = zorvtest::ReadFile(path);
  size_t at = 0;
  for (const char* line :
       {"params str is \"param=A,1:x\"\n", "processing token \"param=A,1\"\n",
        "cmd line arg is \"param=A,1\"\n", "adding a parameter to list\n",
        "processing token \"x\"\n", "cmd line arg is \"x\"\n"}) {
    SCOPED_TRACE(line);
    size_t next = trace.find(line, at);
    ASSERT_NE(std::string::npos, next) << trace;
    at = next;
  }
}

TEST(AssignParamListFromStr, FailsCleanlyWhenOutOfMemory) {
  int rc = 0;
  int n = 1;
  for (; n < 100 && rc != 1; ++n) {
    SCOPED_TRACE(n);
    List list;
    ScopedAllocFailure failure(n);
    rc = AssignParamListFromC_Str(list.get(), "param=A,1:param=B,2");
  }
  EXPECT_EQ(1, rc);
}

// ---- Requests
// ------------------------------------------------------------------

TEST(TestExecRequestConstruct, ZeroesFieldsAndMakesEmptyList) {
  TestExecRequest req;
  memset(&req, 0x5a, sizeof req);
  ASSERT_EQ(1, TestExecRequestConstruct(&req));
  EXPECT_EQ(nullptr, TestExecRequestGetModuleName(&req));
  EXPECT_EQ(0, TestExecRequestGetTest(&req));
  EXPECT_EQ(0, TestExecRequestGetDevice(&req));
  EXPECT_EQ(0.0f, TestExecRequestGetPercent(&req));
  ASSERT_NE(nullptr, TestExecRequestGetParamList(&req));
  EXPECT_EQ(TestExecRequestGetParamList(&req),
            TestExecRequestGetParamListConst(&req));
  EXPECT_EQ(nullptr,
            Dapi2_I_GetFirstParameter(TestExecRequestGetParamList(&req)));
  TestExecRequestDestruct(&req);
  EXPECT_EQ(nullptr, TestExecRequestGetParamList(&req));
  TestExecRequestDestruct(&req);
  EXPECT_EQ(0, TestExecRequestConstruct(nullptr));
  TestExecRequestDestruct(nullptr);
}

TEST(TestExecRequestConstruct, ReturnsZeroWithNothingAllocatedWhenOutOfMemory) {
  TestExecRequest req;
  ScopedAllocFailure failure(1);
  EXPECT_EQ(0, TestExecRequestConstruct(&req));
  EXPECT_EQ(nullptr, req.paramList);
}

TEST(TestExecRequestSetModuleName, CopiesAndReplacesName) {
  Request req;
  ASSERT_TRUE(req.ok());
  char name[] = "cdrom";
  EXPECT_EQ(1, TestExecRequestSetModuleName(req.get(), name));
  strcpy(name, "tape!");
  EXPECT_STREQ("cdrom", TestExecRequestGetModuleName(req.get()));
  EXPECT_EQ(1, TestExecRequestSetModuleName(req.get(), "memory"));
  EXPECT_STREQ("memory", TestExecRequestGetModuleName(req.get()));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(0, TestExecRequestSetModuleName(req.get(), "x"));
  }
  EXPECT_STREQ("memory", TestExecRequestGetModuleName(req.get()));
  EXPECT_EQ(0, TestExecRequestSetModuleName(req.get(), nullptr));
  EXPECT_EQ(0, TestExecRequestSetModuleName(nullptr, "x"));
  TestExecRequestSetTest(req.get(), 4);
  TestExecRequestSetDevice(req.get(), -1);
  TestExecRequestSetPercent(req.get(), 12.5f);
  EXPECT_EQ(4, TestExecRequestGetTest(req.get()));
  EXPECT_EQ(-1, TestExecRequestGetDevice(req.get()));
  EXPECT_EQ(12.5f, TestExecRequestGetPercent(req.get()));
  EXPECT_EQ(nullptr, TestExecRequestGetModuleName(nullptr));
  EXPECT_EQ(0, TestExecRequestGetTest(nullptr));
  EXPECT_EQ(0, TestExecRequestGetDevice(nullptr));
  EXPECT_EQ(0.0f, TestExecRequestGetPercent(nullptr));
  EXPECT_EQ(nullptr, TestExecRequestGetParamList(nullptr));
  EXPECT_EQ(nullptr, TestExecRequestGetParamListConst(nullptr));
  TestExecRequestSetTest(nullptr, 1);
  TestExecRequestSetDevice(nullptr, 1);
  TestExecRequestSetPercent(nullptr, 1);
}

// The request texts of the syntax and the re-reading cases.
TEST(AssignTestExecRequestFromStr, ReadsFieldsAndRereadsMisplacedOnes) {
  struct Row {
    const char* text;
    int32_t test;
    int32_t device;
    float percent;  // -2: left at its value (42 before the call)
    std::vector<std::string> params;
  } rows[] = {
      {"mod", -1, -1, -2, {}},
      {"mod:3:7:%50:param=A,1", 3, 7, 50, {"A=1"}},
      {"mod:%50", -1, -1, 50, {}},
      {"mod:3:param=A,1", 3, -1, 100, {"A=1"}},
      {"mod:3:7:", 3, 7, -2, {}},
      {"mod:3:7", 3, 7, -2, {}},
      {"mod:3:7::param=A,1", 3, 7, 100, {"A=1"}},
      {"mod:3", 3, -1, -2, {}},
      {"mod::7", -1, 7, -2, {}},
      {"mod:3:%25", 3, -1, 25, {}},
      {"mod:3:%25:param=A,1", 3, -1, 25, {"A=1"}},
      {"mod:%50:param=A,1", -1, -1, 50, {"A=1"}},
      {"mod:3:7:50:param=A,1", 3, 7, 100, {"A=1"}},
      {"mod:3::%50", 3, -1, 100, {}},
      {"mod:3:7:%50:param=A,1:param=B,x:y", 3, 7, 50, {"A=1", "B=x"}},
      {"mod:3:7:%50:junk:param=,1:param=C,3", 3, 7, 50, {"C=3"}},
      {"mod:12abc:7x:%33.5abc", 12, 7, 33.5f, {}},
      {"mod:-2:+4:%-5", -2, 4, -5, {}},
      {"mod:x:y:%", 0, 0, 0, {}},
      {"mod:3:7:%1e2", 3, 7, 1, {}},
      {"mod:3:7:%inf", 3, 7, 0, {}},
      {"mod:3:7:%0x10", 3, 7, 0, {}},
      {"mod:99999999999:-99999999999:%1",
       2147483647,
       (int32_t)INT32_MIN,
       1,
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    Request req;
    ASSERT_TRUE(req.ok());
    TestExecRequestSetPercent(req.get(), 42.0f);
    EXPECT_EQ(1, req.assign(row.text));
    EXPECT_STREQ("mod", TestExecRequestGetModuleName(req.get()));
    EXPECT_EQ(row.test, TestExecRequestGetTest(req.get()));
    EXPECT_EQ(row.device, TestExecRequestGetDevice(req.get()));
    EXPECT_EQ(row.percent == -2 ? 42.0f : row.percent,
              TestExecRequestGetPercent(req.get()));
    EXPECT_EQ(row.params, pairs(TestExecRequestGetParamList(req.get())));
  }
}

// Deliberate: a module name alone leaves the percentage of a fresh request
// at 0.0.
TEST(AssignTestExecRequestFromStr, LeavesPercentUntouchedForModuleOnly) {
  Request req;
  ASSERT_EQ(1, req.assign("mod"));
  EXPECT_EQ(0.0f, TestExecRequestGetPercent(req.get()));
  EXPECT_EQ(-1, TestExecRequestGetTest(req.get()));
  EXPECT_EQ(-1, TestExecRequestGetDevice(req.get()));
}

// Deliberate: only a lower-case "p" marks a parameter in the DEVICE place.
TEST(AssignTestExecRequestFromStr, ReadsUpperCaseParamInDevicePlaceAsNumber) {
  Request req;
  ASSERT_EQ(1, req.assign("mod:3:PARAM=A,1"));
  EXPECT_EQ(0, TestExecRequestGetDevice(req.get()));
  EXPECT_TRUE(pairs(TestExecRequestGetParamList(req.get())).empty());
  Request lower;
  ASSERT_EQ(1, lower.assign("mod:3:pARAM=A,1"));
  EXPECT_EQ(-1, TestExecRequestGetDevice(lower.get()));
  EXPECT_EQ((std::vector<std::string>{"A=1"}),
            pairs(TestExecRequestGetParamList(lower.get())));
}

// Deliberate: the field after the DEVICE field is read again when it is
// no percentage: the device number itself is harmless there.
TEST(AssignTestExecRequestFromStr, RereadsDeviceFieldAsParameterText) {
  Request req;
  ASSERT_EQ(1, req.assign("mod:3:7:param=A,1"));
  EXPECT_EQ(7, TestExecRequestGetDevice(req.get()));
  EXPECT_EQ(100.0f, TestExecRequestGetPercent(req.get()));
  EXPECT_EQ((std::vector<std::string>{"A=1"}),
            pairs(TestExecRequestGetParamList(req.get())));
}

TEST(AssignTestExecRequestFromStr, EmptyTextSetsNothing) {
  Request req;
  TestExecRequestSetPercent(req.get(), 9.0f);
  EXPECT_EQ(1, req.assign(""));
  EXPECT_EQ(nullptr, TestExecRequestGetModuleName(req.get()));
  EXPECT_EQ(0, TestExecRequestGetTest(req.get()));
  EXPECT_EQ(0, TestExecRequestGetDevice(req.get()));
  EXPECT_EQ(9.0f, TestExecRequestGetPercent(req.get()));
}

TEST(AssignTestExecRequestFromStr, EmptyModuleFieldIsEmptyName) {
  Request req;
  EXPECT_EQ(1, req.assign(":3:7:%10"));
  EXPECT_STREQ("", TestExecRequestGetModuleName(req.get()));
  EXPECT_EQ(3, TestExecRequestGetTest(req.get()));
  EXPECT_EQ(10.0f, TestExecRequestGetPercent(req.get()));
}

// A request without parameter list fails once the percentage is read;
// shorter texts never need it.
TEST(AssignTestExecRequestFromStr, FailsWithoutParameterList) {
  std::string path = traceToFile();
  Request req;
  Dapi2ParamList* saved = req.get()->paramList;
  req.get()->paramList = nullptr;
  EXPECT_EQ(1, req.assign("mod:3:7"));
  EXPECT_EQ(0, req.assign("mod:3:7:%50"));
  EXPECT_EQ(50.0f, TestExecRequestGetPercent(req.get()));
  req.get()->paramList = saved;
  EXPECT_NE(std::string::npos,
            zorvtest::ReadFile(path).find("param list pointer is NULL\n"));
  EXPECT_EQ(0, AssignTestExecRequestFromStr(nullptr, nullptr));
  EXPECT_EQ(0, AssignTestExecRequestFromStr(req.get(), nullptr));
}

// Huge digit runs, thousands of fields, binary bytes and an over-long
// module name give the documented result.
TEST(AssignTestExecRequestFromStr, SurvivesHostileTexts) {
  Request req;
  std::string digits(5000, '9');
  ASSERT_EQ(1, req.assign("mod:" + digits + ":" + digits + ":%" + digits));
  EXPECT_EQ(2147483647, TestExecRequestGetTest(req.get()));
  EXPECT_EQ(2147483647, TestExecRequestGetDevice(req.get()));
  EXPECT_EQ(FLT_MAX, TestExecRequestGetPercent(req.get()));
  Request neg;
  ASSERT_EQ(1, neg.assign("m:1:2:%-" + digits));
  EXPECT_EQ(-FLT_MAX, TestExecRequestGetPercent(neg.get()));
  Request name;
  std::string longName(100000, 'm');
  ASSERT_EQ(1, name.assign(longName));
  EXPECT_EQ(longName, TestExecRequestGetModuleName(name.get()));
  Request binary;
  ASSERT_EQ(1, binary.assign(std::string("\x01\xff:\x80:\x7f:%\x01:param=\xfe,"
                                         "\xfd")));
  EXPECT_EQ(0, TestExecRequestGetTest(binary.get()));
  EXPECT_EQ(0, TestExecRequestGetDevice(binary.get()));
  EXPECT_EQ(0.0f, TestExecRequestGetPercent(binary.get()));
  EXPECT_EQ((std::vector<std::string>{"\xfe=\xfd"}),
            pairs(TestExecRequestGetParamList(binary.get())));
  Request many;
  std::string text = "m:1:2:%3";
  for (int i = 0; i < 20000; ++i) text += ":";
  text += ":param=LAST,1";
  ASSERT_EQ(1, many.assign(text));
  EXPECT_EQ((std::vector<std::string>{"LAST=1"}),
            pairs(TestExecRequestGetParamList(many.get())));
}

// Each allocation failing in turn gives 0 until the call works; nothing
// is left half-made (the leak checker sees to it).
TEST(AssignTestExecRequestFromStr, FailsCleanlyWhenOutOfMemory) {
  int rc = 0;
  int n = 1;
  for (; n < 300 && rc != 1; ++n) {
    SCOPED_TRACE(n);
    Request req;
    Str text("module:3:7:%50:param=A,1:param=B,2");
    ScopedAllocFailure failure(n);
    rc = AssignTestExecRequestFromStr(req.get(), text.get());
  }
  EXPECT_EQ(1, rc);
  EXPECT_GT(n, 10);
}

TEST(AssignTestExecRequestFromStr, TracesEachCheckpoint) {
  std::string path = traceToFile();
  Request req;
  ASSERT_EQ(1, req.assign("mod:3:7:%50:param=A,1"));
  std::string trace = zorvtest::ReadFile(path);
  size_t at = 0;
  for (const char* line :
       {"checkpoint - module name is mod\n", "checkpoint - test str is 3\n",
        "checkpoint - device str is 7\n", "checkpoint - percent str is %50\n",
        "checkpoint - cmd line has parameters\n",
        "params str is \"param=A,1\"\n"}) {
    SCOPED_TRACE(line);
    size_t next = trace.find(line, at);
    ASSERT_NE(std::string::npos, next) << trace;
    at = next;
  }
  EXPECT_NE(std::string::npos, trace.find("param-valid.cpp:"));
}
