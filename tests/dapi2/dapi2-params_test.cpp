// Tests of the module's parameter records: field accessors, the value
// texts and their strict conversions, default and bounds, parameter lists
// and their walks, the module's own list and percentage, and reading a
// validation reply element back.
#include <float.h>
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/param-valid.h"

namespace {

// Heap calls of the records that fail the Nth allocation.
int gCalls = 0;
int gFailAt = 0;

void* countingMalloc(size_t size) {
  return ++gCalls == gFailAt ? nullptr : malloc(size);
}
void* countingCalloc(size_t n, size_t size) {
  return ++gCalls == gFailAt ? nullptr : calloc(n, size);
}

class ScopedAllocFailure {
 public:
  explicit ScopedAllocFailure(int nFailAt) : saved_(cGenAllocCalls) {
    gCalls = 0;
    gFailAt = nFailAt;
    cGenAllocCalls.pfnMalloc = countingMalloc;
    cGenAllocCalls.pfnCalloc = countingCalloc;
  }
  ~ScopedAllocFailure() { cGenAllocCalls = saved_; }

 private:
  CGenAllocCalls saved_;
};

// A parameter on the stack, destructed at the end of the scope.
class Param {
 public:
  Param() { Dapi2_InitParameter(&p_); }
  ~Param() { Dapi2_DestructParameter(&p_); }
  Dapi2Parameter* get() { return &p_; }

 private:
  Dapi2Parameter p_;
};

// A malloc'ed parameter with an id, for lists.
Dapi2Parameter* newParam(const char* id) {
  Dapi2Parameter* p = (Dapi2Parameter*)malloc(sizeof *p);
  Dapi2_InitParameter(p);
  Dapi2_SetParameterId(p, id);
  return p;
}

std::vector<std::string> ids(Dapi2ParamList* list) {
  std::vector<std::string> out;
  for (Dapi2Parameter* p = Dapi2_I_GetFirstParameter(list); p;
       p = Dapi2_I_GetNextParameter(list))
    out.push_back(Dapi2_GetParameterId(p));
  return out;
}

std::string str(const char* text) { return text ? text : "<null>"; }

}  // namespace

// ---- Record
// ------------------------------------------------------------------

TEST(Dapi2InitParameter, StartsEmptyWithTypeString) {
  Param param;
  Dapi2Parameter* p = param.get();
  EXPECT_EQ(nullptr, Dapi2_GetParameterId(p));
  EXPECT_EQ(4, Dapi2_GetParameterType(p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterDescription(p));
  EXPECT_EQ(0, Dapi2_GetParameterMustBeSet(p));
  EXPECT_EQ(0, Dapi2_GetParameterRecommendValidate(p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterMask(p));
  EXPECT_EQ(0, Dapi2_GetParameterValidFlag(p));
  EXPECT_EQ(nullptr, Dapi2_GetParameterValAsStr(p));
  EXPECT_EQ(0, Dapi2_GetParameterHasDefaultValue(p));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(p));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(p));
  EXPECT_EQ(0, Dapi2_InitParameter(nullptr));
  Dapi2_DestructParameter(nullptr);
}

TEST(Dapi2SetParameterId, CopiesTextsOfEveryTextField) {
  Param param;
  Dapi2Parameter* p = param.get();
  char text[] = "first";
  EXPECT_EQ(1, Dapi2_SetParameterId(p, text));
  EXPECT_EQ(1, Dapi2_SetParameterName(p, text));
  EXPECT_EQ(1, Dapi2_SetParameterDescription(p, text));
  EXPECT_EQ(1, Dapi2_SetParameterMask(p, text));
  strcpy(text, "other");
  EXPECT_STREQ("first", Dapi2_GetParameterId(p));
  EXPECT_STREQ("first", Dapi2_GetParameterName(p));
  EXPECT_STREQ("first", Dapi2_GetParameterDescription(p));
  EXPECT_STREQ("first", Dapi2_GetParameterMask(p));
  EXPECT_EQ(1, Dapi2_SetParameterId(p, "second"));
  EXPECT_STREQ("second", Dapi2_GetParameterId(p));
  EXPECT_EQ(1, Dapi2_SetParameterName(p, ""));
  EXPECT_STREQ("", Dapi2_GetParameterName(p));
}

TEST(Dapi2SetParameterId, RefusesNullsAndKeepsOldTextWhenOutOfMemory) {
  Param param;
  Dapi2Parameter* p = param.get();
  EXPECT_EQ(0, Dapi2_SetParameterId(nullptr, "x"));
  EXPECT_EQ(0, Dapi2_SetParameterId(p, nullptr));
  EXPECT_EQ(0, Dapi2_SetParameterName(p, nullptr));
  EXPECT_EQ(0, Dapi2_SetParameterDescription(nullptr, "x"));
  EXPECT_EQ(0, Dapi2_SetParameterMask(p, nullptr));
  EXPECT_EQ(0, Dapi2_SetParameterValFromStr(p, nullptr));
  ASSERT_EQ(1, Dapi2_SetParameterId(p, "kept"));
  ASSERT_EQ(1, Dapi2_SetParameterValFromStr(p, "kept value"));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(0, Dapi2_SetParameterId(p, "new"));
  }
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(0, Dapi2_SetParameterValFromInt32(p, 5));
  }
  EXPECT_STREQ("kept", Dapi2_GetParameterId(p));
  EXPECT_STREQ("kept value", Dapi2_GetParameterValAsStr(p));
}

TEST(Dapi2SetParameterType, StoresAnyNumberOfTypeFlagAndBooleans) {
  Param param;
  Dapi2Parameter* p = param.get();
  EXPECT_EQ(1, Dapi2_SetParameterType(p, 0));
  EXPECT_EQ(0, Dapi2_GetParameterType(p));
  EXPECT_EQ(1, Dapi2_SetParameterType(p, 17));
  EXPECT_EQ(17, Dapi2_GetParameterType(p));
  EXPECT_EQ(1, Dapi2_SetParameterValidFlag(p, 3));
  EXPECT_EQ(3, Dapi2_GetParameterValidFlag(p));
  EXPECT_EQ(1, Dapi2_SetParameterValidFlag(p, 9));
  EXPECT_EQ(9, Dapi2_GetParameterValidFlag(p));
  EXPECT_EQ(1, Dapi2_SetParameterMustBeSet(p, 1));
  EXPECT_EQ(1, Dapi2_GetParameterMustBeSet(p));
  EXPECT_EQ(1, Dapi2_SetParameterRecommendValidate(p, 1));
  EXPECT_EQ(1, Dapi2_GetParameterRecommendValidate(p));
  EXPECT_EQ(0, Dapi2_SetParameterType(nullptr, 1));
  EXPECT_EQ(0, Dapi2_SetParameterValidFlag(nullptr, 1));
  EXPECT_EQ(0, Dapi2_SetParameterMustBeSet(nullptr, 1));
  EXPECT_EQ(0, Dapi2_SetParameterRecommendValidate(nullptr, 1));
}

TEST(Dapi2GetParameterId, GivesNullZeroOrMinusOneForNullParameter) {
  EXPECT_EQ(nullptr, Dapi2_GetParameterId(nullptr));
  EXPECT_EQ(-1, Dapi2_GetParameterType(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterName(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterDescription(nullptr));
  EXPECT_EQ(0, Dapi2_GetParameterMustBeSet(nullptr));
  EXPECT_EQ(0, Dapi2_GetParameterRecommendValidate(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterMask(nullptr));
  EXPECT_EQ(-1, Dapi2_GetParameterValidFlag(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterValAsStr(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterDefaultValAsStr(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterMinValAsStr(nullptr));
  EXPECT_EQ(nullptr, Dapi2_GetParameterMaxValAsStr(nullptr));
  EXPECT_EQ(0, Dapi2_GetParameterHasDefaultValue(nullptr));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(nullptr));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(nullptr));
  int32_t i = 7;
  EXPECT_EQ(0, Dapi2_GetParameterValAsInt32(nullptr, &i));
  EXPECT_EQ(0, i);
}

// ---- Conversions -----------------------------------------------------------

// int32: optional sign and digits only, within 32 bits.
TEST(Dapi2GetParameterValAsInt32, ConvertsOnlyWholeDecimalTextsInRange) {
  struct Ok {
    const char* text;
    int32_t value;
  } oks[] = {{"0", 0},
             {"-0", 0},
             {"+12", 12},
             {"007", 7},
             {"-42", -42},
             {"2147483647", 2147483647},
             {"-2147483648", (int32_t)-2147483647 - 1}};
  for (const Ok& row : oks) {
    SCOPED_TRACE(row.text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), row.text));
    int32_t value = 99;
    EXPECT_EQ(1, Dapi2_GetParameterValAsInt32(param.get(), &value));
    EXPECT_EQ(row.value, value);
  }
  const char* bad[] = {"",           "12abc",
                       " 12",        "12 ",
                       "2147483648", "-2147483649",
                       "1.5",        "+",
                       "-",          "0x10",
                       "1e3",        "--1",
                       "+-1",        "99999999999999999999999999",
                       "\x01",       "\xff\xfe",
                       "１２"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text));
    int32_t value = 99;
    EXPECT_EQ(0, Dapi2_GetParameterValAsInt32(param.get(), &value));
    EXPECT_EQ(0, value);
  }
}

// "12abc" is not 12 for any representation.
TEST(Dapi2GetParameterValAsInt32, RefusesTrailingGarbage) {
  Param param;
  ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), "12abc"));
  int32_t i = 1;
  uint32_t u = 1;
  float f = 1;
  int b = 1;
  EXPECT_EQ(0, Dapi2_GetParameterValAsInt32(param.get(), &i));
  EXPECT_EQ(0, Dapi2_GetParameterValAsUInt32(param.get(), &u));
  EXPECT_EQ(0, Dapi2_GetParameterValAsFloat(param.get(), &f));
  EXPECT_EQ(0, Dapi2_GetParameterValAsBool(param.get(), &b));
  EXPECT_STREQ("12abc", Dapi2_GetParameterValAsStr(param.get()));
}

TEST(Dapi2GetParameterValAsUInt32, ConvertsOnlyUnsignedDecimalTexts) {
  struct Ok {
    const char* text;
    uint32_t value;
  } oks[] = {{"0", 0}, {"+5", 5}, {"4294967295", 4294967295u}, {"0010", 10}};
  for (const Ok& row : oks) {
    SCOPED_TRACE(row.text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), row.text));
    uint32_t value = 99;
    EXPECT_EQ(1, Dapi2_GetParameterValAsUInt32(param.get(), &value));
    EXPECT_EQ(row.value, value);
  }
  for (const char* text : {"-1", "-0", "4294967296", "", "1.0", "5x", " 5",
                           "18446744073709551616"}) {
    SCOPED_TRACE(text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text));
    uint32_t value = 99;
    EXPECT_EQ(0, Dapi2_GetParameterValAsUInt32(param.get(), &value));
    EXPECT_EQ(0u, value);
  }
}

// "0", "1", "true", "false" in any letter case; nothing else.
TEST(Dapi2GetParameterValAsBool, AcceptsZeroOneTrueFalseInAnyCase) {
  struct Ok {
    const char* text;
    int value;
  } oks[] = {{"0", 0},    {"1", 1},     {"true", 1},  {"TRUE", 1},
             {"tRuE", 1}, {"false", 0}, {"FALSE", 0}, {"False", 0}};
  for (const Ok& row : oks) {
    SCOPED_TRACE(row.text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), row.text));
    int value = 99;
    EXPECT_EQ(1, Dapi2_GetParameterValAsBool(param.get(), &value));
    EXPECT_EQ(row.value, value);
  }
  for (const char* text :
       {"", "2", "01", "yes", "no", "t", "f", "on", " 1", "true ", "truex"}) {
    SCOPED_TRACE(text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text));
    int value = 99;
    EXPECT_EQ(0, Dapi2_GetParameterValAsBool(param.get(), &value));
    EXPECT_EQ(0, value);
  }
}

TEST(Dapi2GetParameterValAsFloat, ConvertsDecimalTextsThatAreFiniteFloats) {
  struct Ok {
    const char* text;
    float value;
  } oks[] = {{"1", 1.0f},       {"-1.5", -1.5f},           {"+.5", 0.5f},
             {"5.", 5.0f},      {"1e3", 1000.0f},          {"1E-3", 0.001f},
             {"100.5", 100.5f}, {"3.4028235e38", FLT_MAX}, {"1e-50", 0.0f},
             {"0", 0.0f},       {"00012.2500", 12.25f}};
  for (const Ok& row : oks) {
    SCOPED_TRACE(row.text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), row.text));
    float value = 99;
    EXPECT_EQ(1, Dapi2_GetParameterValAsFloat(param.get(), &value));
    EXPECT_EQ(row.value, value);
  }
  for (const char* text : {"", ".", "e5", "1e", "1e+", "inf", "-inf", "nan",
                           "NAN", "0x1p3", "1,5", " 1", "1 ", "3.5e38", "1e39",
                           "--1", "1.5.2", "1e5e2", "1e99999999999999999999"}) {
    SCOPED_TRACE(text);
    Param param;
    ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text));
    float value = 99;
    EXPECT_EQ(0, Dapi2_GetParameterValAsFloat(param.get(), &value));
    EXPECT_EQ(0.0f, value);
  }
}

// A thousand digits still convert (the decimal syntax has no length
// limit); a value past the float range does not.
TEST(Dapi2GetParameterValAsFloat, ReadsVeryLongDigitRuns) {
  Param param;
  std::string text = "0." + std::string(1000, '0') + "1";
  ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text.c_str()));
  float value = 1;
  EXPECT_EQ(1, Dapi2_GetParameterValAsFloat(param.get(), &value));
  EXPECT_EQ(0.0f, value);
  text = std::string(1000, '9');
  ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), text.c_str()));
  EXPECT_EQ(0, Dapi2_GetParameterValAsFloat(param.get(), &value));
}

TEST(Dapi2GetParameterValAsInt32, GivesZeroForUnsetValueAndNullOut) {
  Param param;
  int32_t i = 5;
  uint32_t u = 5;
  int b = 5;
  float f = 5;
  EXPECT_EQ(0, Dapi2_GetParameterValAsInt32(param.get(), &i));
  EXPECT_EQ(0, Dapi2_GetParameterValAsUInt32(param.get(), &u));
  EXPECT_EQ(0, Dapi2_GetParameterValAsBool(param.get(), &b));
  EXPECT_EQ(0, Dapi2_GetParameterValAsFloat(param.get(), &f));
  EXPECT_EQ(0, i);
  EXPECT_EQ(0u, u);
  EXPECT_EQ(0, b);
  EXPECT_EQ(0.0f, f);
  ASSERT_EQ(1, Dapi2_SetParameterValFromStr(param.get(), "1"));
  EXPECT_EQ(0, Dapi2_GetParameterValAsInt32(param.get(), nullptr));
}

// The setters store the plain text of the number.
TEST(Dapi2SetParameterValFromInt32, StoresPlainNumberTexts) {
  Param param;
  Dapi2Parameter* p = param.get();
  ASSERT_EQ(1, Dapi2_SetParameterValFromInt32(p, -5));
  EXPECT_STREQ("-5", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromInt32(p, INT32_MIN));
  EXPECT_STREQ("-2147483648", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromUInt32(p, 4294967295u));
  EXPECT_STREQ("4294967295", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromBool(p, 7));
  EXPECT_STREQ("1", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromBool(p, 0));
  EXPECT_STREQ("0", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 0.1f));
  EXPECT_STREQ("0.1", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 100.0f));
  EXPECT_STREQ("100", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 100.5f));
  EXPECT_STREQ("100.5", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 1e30f));
  EXPECT_STREQ("1e+30", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, FLT_MAX));
  EXPECT_STREQ("3.4028235e+38", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 123456789.0f));
  EXPECT_STREQ("123456792", Dapi2_GetParameterValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(p, 1e-5f));
  EXPECT_STREQ("1e-05", Dapi2_GetParameterValAsStr(p));
}

TEST(Dapi2SetParameterValFromFloat, RefusesInfinityAndNan) {
  Param param;
  ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(param.get(), 2.5f));
  EXPECT_EQ(0, Dapi2_SetParameterValFromFloat(param.get(), INFINITY));
  EXPECT_EQ(0, Dapi2_SetParameterValFromFloat(param.get(), -INFINITY));
  EXPECT_EQ(0, Dapi2_SetParameterValFromFloat(param.get(), NAN));
  EXPECT_STREQ("2.5", Dapi2_GetParameterValAsStr(param.get()));
  EXPECT_EQ(0, Dapi2_SetParameterValFromFloat(nullptr, 1.0f));
}

// Every finite float written by the setter reads back as the same float
// (random bit patterns plus the edges).
TEST(Dapi2SetParameterValFromFloat, WritesTextsThatReadBackExactly) {
  std::mt19937 random(12345);
  std::vector<float> values = {0.0f,   -0.0f, FLT_MIN,  -FLT_MIN,    FLT_MAX,
                               1e-45f, 0.1f,  1.0f / 3, 123456789.0f};
  while (values.size() < 20000) {
    uint32_t bits = random();
    float f;
    memcpy(&f, &bits, sizeof f);
    if (isfinite(f)) values.push_back(f);
  }
  Param param;
  for (float value : values) {
    ASSERT_EQ(1, Dapi2_SetParameterValFromFloat(param.get(), value)) << value;
    float back = 1;
    ASSERT_EQ(1, Dapi2_GetParameterValAsFloat(param.get(), &back))
        << Dapi2_GetParameterValAsStr(param.get());
    ASSERT_EQ(value, back) << Dapi2_GetParameterValAsStr(param.get());
    ASSERT_LE(strlen(Dapi2_GetParameterValAsStr(param.get())), 15u);
  }
}

// Int32 and UInt32 limits round trip.
TEST(Dapi2SetParameterValFromInt32, WritesTextsThatReadBackExactly) {
  Param param;
  for (int32_t v : {INT32_MIN, -1, 0, 1, INT32_MAX}) {
    ASSERT_EQ(1, Dapi2_SetParameterValFromInt32(param.get(), v));
    int32_t back = 7;
    EXPECT_EQ(1, Dapi2_GetParameterValAsInt32(param.get(), &back));
    EXPECT_EQ(v, back);
  }
  for (uint32_t v : {0u, 1u, 2147483648u, 4294967295u}) {
    ASSERT_EQ(1, Dapi2_SetParameterValFromUInt32(param.get(), v));
    uint32_t back = 7;
    EXPECT_EQ(1, Dapi2_GetParameterValAsUInt32(param.get(), &back));
    EXPECT_EQ(v, back);
  }
}

// ---- Default and bounds
// ------------------------------------------------------

TEST(Dapi2SetParameterDefaultValFromInt32, SetsHasDefaultAndReadsBack) {
  Param param;
  Dapi2Parameter* p = param.get();
  int32_t i = 0;
  uint32_t u = 0;
  int b = 0;
  float f = 0;
  EXPECT_EQ(0, Dapi2_GetParameterDefaultValAsInt32(p, &i));
  ASSERT_EQ(1, Dapi2_SetParameterDefaultValFromInt32(p, -3));
  EXPECT_EQ(1, Dapi2_GetParameterHasDefaultValue(p));
  EXPECT_EQ(1, Dapi2_GetParameterDefaultValAsInt32(p, &i));
  EXPECT_EQ(-3, i);
  EXPECT_EQ(0, Dapi2_GetParameterDefaultValAsUInt32(p, &u));
  EXPECT_EQ(1, Dapi2_GetParameterDefaultValAsFloat(p, &f));
  EXPECT_EQ(-3.0f, f);
  ASSERT_EQ(1, Dapi2_SetParameterDefaultValFromUInt32(p, 8));
  EXPECT_EQ(1, Dapi2_GetParameterDefaultValAsUInt32(p, &u));
  EXPECT_EQ(8u, u);
  ASSERT_EQ(1, Dapi2_SetParameterDefaultValFromBool(p, 1));
  EXPECT_EQ(1, Dapi2_GetParameterDefaultValAsBool(p, &b));
  EXPECT_EQ(1, b);
  ASSERT_EQ(1, Dapi2_SetParameterDefaultValFromFloat(p, 2.5f));
  EXPECT_EQ(1, Dapi2_GetParameterDefaultValAsFloat(p, &f));
  EXPECT_EQ(2.5f, f);
  ASSERT_EQ(1, Dapi2_SetParameterDefaultValFromStr(p, "text"));
  EXPECT_STREQ("text", Dapi2_GetParameterDefaultValAsStr(p));
  // The current value is a separate slot.
  EXPECT_EQ(nullptr, Dapi2_GetParameterValAsStr(p));
}

TEST(Dapi2SetParameterMinValFromInt32, SetsHasMinAndHasMaxSeparately) {
  Param param;
  Dapi2Parameter* p = param.get();
  ASSERT_EQ(1, Dapi2_SetParameterMinValFromInt32(p, -10));
  EXPECT_EQ(1, Dapi2_GetParameterHasMinVal(p));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(p));
  ASSERT_EQ(1, Dapi2_SetParameterMaxValFromUInt32(p, 10));
  EXPECT_EQ(1, Dapi2_GetParameterHasMaxVal(p));
  int32_t i = 0;
  uint32_t u = 0;
  float f = 0;
  EXPECT_EQ(1, Dapi2_GetParameterMinValAsInt32(p, &i));
  EXPECT_EQ(-10, i);
  EXPECT_EQ(0, Dapi2_GetParameterMinValAsUInt32(p, &u));
  EXPECT_EQ(1, Dapi2_GetParameterMinValAsFloat(p, &f));
  EXPECT_EQ(-10.0f, f);
  EXPECT_STREQ("-10", Dapi2_GetParameterMinValAsStr(p));
  EXPECT_EQ(1, Dapi2_GetParameterMaxValAsUInt32(p, &u));
  EXPECT_EQ(10u, u);
  EXPECT_EQ(1, Dapi2_GetParameterMaxValAsInt32(p, &i));
  EXPECT_EQ(10, i);
  ASSERT_EQ(1, Dapi2_SetParameterMinValFromUInt32(p, 3));
  EXPECT_STREQ("3", Dapi2_GetParameterMinValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterMinValFromFloat(p, 0.5f));
  EXPECT_STREQ("0.5", Dapi2_GetParameterMinValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterMinValFromStr(p, "low"));
  EXPECT_STREQ("low", Dapi2_GetParameterMinValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterMaxValFromInt32(p, -1));
  EXPECT_STREQ("-1", Dapi2_GetParameterMaxValAsStr(p));
  ASSERT_EQ(1, Dapi2_SetParameterMaxValFromFloat(p, 99.5f));
  EXPECT_EQ(1, Dapi2_GetParameterMaxValAsFloat(p, &f));
  EXPECT_EQ(99.5f, f);
  ASSERT_EQ(1, Dapi2_SetParameterMaxValFromStr(p, "high"));
  EXPECT_STREQ("high", Dapi2_GetParameterMaxValAsStr(p));
  EXPECT_EQ(0, Dapi2_SetParameterMaxValFromStr(p, nullptr));
  EXPECT_EQ(0, Dapi2_SetParameterMinValFromFloat(p, NAN));
}

// Converting by type stores the plain form, or refuses and leaves the slot.
TEST(Dapi2ISetSlotByType, ConvertsByTypeOrRefuses) {
  struct Row {
    int32_t type;
    const char* text;
    const char* stored;  // null: refused
  } rows[] = {
      {0, "+12", "12"},      {0, "12abc", nullptr},
      {1, "007", "7"},       {1, "-1", nullptr},
      {2, "TRUE", "1"},      {2, "False", "0"},
      {2, "yes", nullptr},   {3, "1.50", "1.5"},
      {3, "1e2", "100"},     {3, "inf", nullptr},
      {4, " any ", " any "}, {9, "kept as is", "kept as is"},
      {-1, "x", "x"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.type) + " " + row.text);
    Param param;
    Dapi2_SetParameterType(param.get(), row.type);
    int rc = Dapi2_I_SetSlotByType(param.get(), DAPI2_SLOT_DEFAULT, row.text);
    EXPECT_EQ(row.stored ? 1 : 0, rc);
    EXPECT_EQ(str(row.stored),
              str(Dapi2_GetParameterDefaultValAsStr(param.get())));
    EXPECT_EQ(row.stored ? 1 : 0,
              Dapi2_GetParameterHasDefaultValue(param.get()));
  }
}

// ---- Lists ------------------------------------------------------------------

TEST(Dapi2ParamListConstruct, AddsWalksAndDestructs) {
  Dapi2ParamList list;
  ASSERT_EQ(1, Dapi2_ParamListConstruct(&list));
  EXPECT_EQ(nullptr, Dapi2_I_GetFirstParameter(&list));
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameter(&list));
  ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam("A")));
  ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam("B")));
  ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam("C")));
  EXPECT_EQ((std::vector<std::string>{"A", "B", "C"}), ids(&list));
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameter(&list));
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameter(&list));
  CGenListIter pos;
  std::vector<std::string> seen;
  for (const Dapi2Parameter* p = Dapi2_I_GetFirstParameterConst(&list, &pos); p;
       p = Dapi2_I_GetNextParameterConst(&list, &pos))
    seen.push_back(p->id);
  EXPECT_EQ((std::vector<std::string>{"A", "B", "C"}), seen);
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameterConst(&list, &pos));
  Dapi2_ParamListDestruct(&list);
  EXPECT_EQ(nullptr, Dapi2_I_GetFirstParameter(&list));
  Dapi2_ParamListDestruct(&list);
}

TEST(Dapi2ParamListConstruct, RefusesNullArguments) {
  Dapi2ParamList list;
  EXPECT_EQ(0, Dapi2_ParamListConstruct(nullptr));
  ASSERT_EQ(1, Dapi2_ParamListConstruct(&list));
  EXPECT_EQ(0, Dapi2_AddParameter(&list, nullptr));
  Dapi2Parameter* p = newParam("A");
  EXPECT_EQ(0, Dapi2_AddParameter(nullptr, p));
  {
    ScopedAllocFailure failure(1);
    EXPECT_EQ(0, Dapi2_AddParameter(&list, p));
  }
  EXPECT_EQ(nullptr, Dapi2_I_GetFirstParameter(&list));
  Dapi2_DestructParameter(p);
  free(p);
  EXPECT_EQ(nullptr, Dapi2_I_GetFirstParameter(nullptr));
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameter(nullptr));
  EXPECT_EQ(nullptr, Dapi2_I_GetFirstParameterConst(nullptr, nullptr));
  EXPECT_EQ(nullptr, Dapi2_I_GetNextParameterConst(&list, nullptr));
  Dapi2_ParamListDestruct(nullptr);
  Dapi2_ParamListDestruct(&list);
}

// Deleting the current parameter moves back one, so the walk goes on with
// the parameter that followed.
TEST(Dapi2DeleteCurrentParameter, WalkContinuesWithFollowingParameter) {
  Dapi2ParamList list;
  ASSERT_EQ(1, Dapi2_ParamListConstruct(&list));
  EXPECT_EQ(0, Dapi2_DeleteCurrentParameter(&list));
  for (const char* id : {"A", "B", "C", "D"})
    ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam(id)));
  std::vector<std::string> kept;
  for (Dapi2Parameter* p = Dapi2_I_GetFirstParameter(&list); p;
       p = Dapi2_I_GetNextParameter(&list)) {
    std::string id = p->id;
    if (id == "A" || id == "C" || id == "D") {
      EXPECT_EQ(1, Dapi2_DeleteCurrentParameter(&list));
      // After the first one the position is before the list.
      if (id == "A") {
        EXPECT_EQ(0, Dapi2_DeleteCurrentParameter(&list));
      }
    } else {
      kept.push_back(id);
    }
  }
  EXPECT_EQ((std::vector<std::string>{"B"}), kept);
  EXPECT_EQ((std::vector<std::string>{"B"}), ids(&list));
  EXPECT_EQ(0, Dapi2_DeleteCurrentParameter(&list));  // at the end
  EXPECT_EQ(0, Dapi2_DeleteCurrentParameter(nullptr));
  Dapi2_ParamListDestruct(&list);
}

TEST(Dapi2GetFirstParameter, WalksModulesOwnList) {
  EXPECT_EQ(nullptr, Dapi2_GetFirstParameter());
  EXPECT_EQ(nullptr, Dapi2_GetNextParameter());
  Dapi2ParamList list;
  ASSERT_EQ(1, Dapi2_ParamListConstruct(&list));
  ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam("LOOPS")));
  ASSERT_EQ(1, Dapi2_AddParameter(&list, newParam("SPEED")));
  Dapi2_I_SetModuleParamList(&list);
  EXPECT_EQ(&list, Dapi2_I_GetModuleParamList());
  Dapi2Parameter* p = Dapi2_GetFirstParameter();
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("LOOPS", Dapi2_GetParameterId(p));
  p = Dapi2_GetNextParameter();
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("SPEED", Dapi2_GetParameterId(p));
  EXPECT_EQ(nullptr, Dapi2_GetNextParameter());
  Dapi2_I_SetModuleParamList(nullptr);
  Dapi2_ParamListDestruct(&list);
}

// ---- Percentage
// ---------------------------------------------------------------

TEST(Dapi2GetFloatPercentageToTest, IsHundredUntilSetAndTruncatesTowardZero) {
  EXPECT_EQ(100.0f, Dapi2_GetFloatPercentageToTest());
  EXPECT_EQ(100, Dapi2_GetPercentageToTest());
  Dapi2_I_SetPercentageToTest(49.9f);
  EXPECT_EQ(49.9f, Dapi2_GetFloatPercentageToTest());
  EXPECT_EQ(49, Dapi2_GetPercentageToTest());
  Dapi2_I_SetPercentageToTest(0.5f);
  EXPECT_EQ(0, Dapi2_GetPercentageToTest());
}

// ---- Reading a reply element back -------------------------------------------

TEST(Dapi2AssignParameterFromXML, ReadsIdFlagAndBounds) {
  Param param;
  Dapi2_SetParameterType(param.get(), 0);
  int assigned = 7;
  EXPECT_EQ(1, Dapi2_AssignParameterFromXML(
                   param.get(),
                   "<ID>LOOPS</ID><VALID_FLAG>value too big</VALID_FLAG>"
                   "<MIN_VALUE>+1</MIN_VALUE><MAX_VALUE>1000</MAX_VALUE>",
                   &assigned));
  EXPECT_EQ(1, assigned);
  EXPECT_STREQ("LOOPS", Dapi2_GetParameterId(param.get()));
  EXPECT_EQ(2, Dapi2_GetParameterValidFlag(param.get()));
  EXPECT_EQ(1, Dapi2_GetParameterHasMinVal(param.get()));
  EXPECT_STREQ("1", Dapi2_GetParameterMinValAsStr(param.get()));
  EXPECT_STREQ("1000", Dapi2_GetParameterMaxValAsStr(param.get()));
}

// ID or VALID_FLAG missing -> 1 with assigned 0, the parameter untouched.
TEST(Dapi2AssignParameterFromXML, NeedsIdAndValidFlag) {
  const char* elements[] = {
      "<VALID_FLAG>valid</VALID_FLAG><MIN_VALUE>1</MIN_VALUE>",
      "<ID>A</ID><MIN_VALUE>1</MIN_VALUE>",
      "",
      "<ID>A</ID><VALID_FLAG>valid",
      "ID>A</ID><VALID_FLAG>valid</VALID_FLAG>",
  };
  for (const char* element : elements) {
    SCOPED_TRACE(element);
    Param param;
    int assigned = 7;
    EXPECT_EQ(1, Dapi2_AssignParameterFromXML(param.get(), element, &assigned));
    EXPECT_EQ(0, assigned);
    EXPECT_EQ(nullptr, Dapi2_GetParameterId(param.get()));
    EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(param.get()));
  }
}

// Bounds that do not convert by the parameter's type -> 0; bounds missing
// leave has-min and has-max alone.
TEST(Dapi2AssignParameterFromXML, FailsOnBoundThatDoesNotConvert) {
  Param param;
  Dapi2_SetParameterType(param.get(), 1);
  int assigned = 7;
  EXPECT_EQ(
      0, Dapi2_AssignParameterFromXML(param.get(),
                                      "<ID>A</ID><VALID_FLAG>valid</VALID_FLAG>"
                                      "<MIN_VALUE>-1</MIN_VALUE>",
                                      &assigned));
  EXPECT_EQ(0, assigned);
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(param.get()));
  EXPECT_EQ(
      0, Dapi2_AssignParameterFromXML(param.get(),
                                      "<ID>A</ID><VALID_FLAG>valid</VALID_FLAG>"
                                      "<MAX_VALUE>ten</MAX_VALUE>",
                                      &assigned));
  Param text;
  EXPECT_EQ(1, Dapi2_AssignParameterFromXML(
                   text.get(), "<ID>B</ID><VALID_FLAG>VALID</VALID_FLAG>",
                   &assigned));
  EXPECT_EQ(1, assigned);
  EXPECT_EQ(0, Dapi2_GetParameterValidFlag(text.get()));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(text.get()));
  EXPECT_EQ(0, Dapi2_GetParameterHasMaxVal(text.get()));
}

// An unknown flag word is stored as -1 (written back as "valid flag
// invalid").
TEST(Dapi2AssignParameterFromXML, StoresMinusOneForUnknownFlagWord) {
  Param param;
  int assigned = 0;
  EXPECT_EQ(1, Dapi2_AssignParameterFromXML(
                   param.get(),
                   "<ID>A</ID><VALID_FLAG>valid flag invalid</VALID_FLAG>",
                   &assigned));
  EXPECT_EQ(1, assigned);
  EXPECT_EQ(-1, Dapi2_GetParameterValidFlag(param.get()));
}

// A field of 4096 bytes or more does not fit its buffer and counts as
// missing; 4095 bytes fit.
TEST(Dapi2AssignParameterFromXML, TreatsFieldsOfBufferSizeAsMissing) {
  std::string longId(4096, 'i');
  std::string element = "<ID>" + longId + "</ID><VALID_FLAG>valid</VALID_FLAG>";
  Param param;
  int assigned = 7;
  EXPECT_EQ(
      1, Dapi2_AssignParameterFromXML(param.get(), element.c_str(), &assigned));
  EXPECT_EQ(0, assigned);
  std::string fits(4095, 'i');
  element = "<ID>" + fits + "</ID><VALID_FLAG>valid</VALID_FLAG><MIN_VALUE>" +
            longId + "</MIN_VALUE>";
  EXPECT_EQ(
      1, Dapi2_AssignParameterFromXML(param.get(), element.c_str(), &assigned));
  EXPECT_EQ(1, assigned);
  EXPECT_EQ(fits, Dapi2_GetParameterId(param.get()));
  EXPECT_EQ(0, Dapi2_GetParameterHasMinVal(param.get()));
}

TEST(Dapi2AssignParameterFromXML, RefusesNullArgumentsAndOutOfMemory) {
  Param param;
  int assigned = 7;
  EXPECT_EQ(0, Dapi2_AssignParameterFromXML(nullptr, "<ID>A</ID>", &assigned));
  EXPECT_EQ(0, assigned);
  EXPECT_EQ(0, Dapi2_AssignParameterFromXML(param.get(), nullptr, &assigned));
  EXPECT_EQ(0,
            Dapi2_AssignParameterFromXML(param.get(), "<ID>A</ID>", nullptr));
  ScopedAllocFailure failure(1);
  EXPECT_EQ(0, Dapi2_AssignParameterFromXML(
                   param.get(), "<ID>A</ID><VALID_FLAG>valid</VALID_FLAG>",
                   &assigned));
  EXPECT_EQ(0, assigned);
}
