// Tests of CGenStr: growth rule, appends, formatting, tokens and substrings,
// and the failure paths through the allocation table of genstr_p.h.
#include "zorv2000/genstr.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "global/genstr_p.h"

namespace {

// Allocation table that fails the Nth call (1-based; 0 never fails) and
// counts calls. A failing realloc frees the old block itself (unless told
// not to), so the buffer that a failed growth drops does not show up as a
// leak under LeakSanitizer.
struct FaultState {
  int nCalls = 0;
  int nFailAt = 0;
  size_t lastSize = 0;
  bool bFreeOnFailedRealloc = true;
};
FaultState gFault;

bool shouldFail() { return ++gFault.nCalls == gFault.nFailAt; }

void* fakeMalloc(size_t size) {
  gFault.lastSize = size;
  return shouldFail() ? nullptr : malloc(size);
}

void* fakeCalloc(size_t count, size_t size) {
  gFault.lastSize = count * size;
  return shouldFail() ? nullptr : calloc(count, size);
}

void* fakeRealloc(void* pOld, size_t size) {
  gFault.lastSize = size;
  if (shouldFail()) {
    if (gFault.bFreeOnFailedRealloc) free(pOld);
    return nullptr;
  }
  return realloc(pOld, size);
}

class ScopedFaultyAlloc {
 public:
  explicit ScopedFaultyAlloc(int nFailAt) : saved_(cGenAllocCalls) {
    gFault = FaultState();
    gFault.nFailAt = nFailAt;
    cGenAllocCalls.pfnMalloc = fakeMalloc;
    cGenAllocCalls.pfnCalloc = fakeCalloc;
    cGenAllocCalls.pfnRealloc = fakeRealloc;
  }
  ~ScopedFaultyAlloc() { cGenAllocCalls = saved_; }

 private:
  CGenAllocCalls saved_;
};

std::string textOf(const CGenStr& s) {
  return std::string(s.buffer, s.length ? s.length - 1 : 0);
}

// The growth rule written independently of GROWTH(): integer halving equals
// truncating n * 0.5 for every unsigned n.
uint32_t referenceGrowth(uint32_t n) {
  if (n <= 128) return 64;
  if (n > 2047) return 2048;
  return n / 2;
}

}  // namespace

// ---- GROWTH and _CGenStrGrowIt ----------------------------------------

// Needed 128 -> +64, 129 -> +64, 200 -> +100, 2047 -> +1023, 2048 -> +2048.
TEST(GROWTH, GivesSpareRoomAtEveryBoundary) {
  struct Row {
    const char* name;
    uint32_t needed;
    uint32_t growth;
  } rows[] = {
      {"one", 1, 64},
      {"128", 128, 64},
      {"129 truncates", 129, 64},
      {"130", 130, 65},
      {"200", 200, 100},
      {"2047", 2047, 1023},
      {"2048", 2048, 2048},
      {"huge", 1u << 30, 2048},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.growth, GROWTH(row.needed));
  }
}

TEST(GROWTH, MatchesReferenceFormulaForEveryNeededSizeUpTo5000) {
  for (uint32_t n = 0; n <= 5000; n++) {
    ASSERT_EQ(referenceGrowth(n), GROWTH(n)) << "n=" << n;
  }
}

// Reallocation sizes through the grow step itself, needed 1..3000.
TEST(CGenStrGrowIt, ReallocatesToNeededPlusGrowthForEveryNeededSize) {
  for (uint32_t needed = 1; needed <= 3000; needed++) {
    CGenStr s;
    ASSERT_EQ(1, CGenStrInit(&s));
    ASSERT_EQ(1, _CGenStrGrowIt(&s, needed));
    ASSERT_EQ(needed + referenceGrowth(needed), s.capacity) << needed;
    EXPECT_EQ(1u, s.length);
    EXPECT_STREQ("", s.buffer);
    CGenStrDelete(&s);
  }
}

TEST(CGenStrGrowIt, BoundaryTable) {
  struct Row {
    const char* name;
    uint32_t needed;
    uint32_t capacity;
  } rows[] = {
      {"128 -> +64", 128, 192},      {"129 -> +64", 129, 193},
      {"200 -> +100", 200, 300},     {"2047 -> +1023", 2047, 3070},
      {"2048 -> +2048", 2048, 4096},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CGenStr s;
    ASSERT_EQ(1, CGenStrInit(&s));
    EXPECT_EQ(1, _CGenStrGrowIt(&s, row.needed));
    EXPECT_EQ(row.capacity, s.capacity);
    CGenStrDelete(&s);
  }
}

TEST(CGenStrGrowIt, FailsWithoutTouchingFixedBufferString) {
  char buf[8] = "abc";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 3, sizeof buf);
  EXPECT_EQ(0, _CGenStrGrowIt(&s, 100));
  EXPECT_EQ(buf, s.buffer);
  EXPECT_EQ(4u, s.length);
  EXPECT_EQ(7u, s.capacity);
  EXPECT_STREQ("abc", buf);
}

// No buffer yet: exactly `needed` zero-filled bytes, no spare room.
TEST(CGenStrGrowIt, AllocatesExactlyNeededZeroFilledBytesWhenNoBuffer) {
  CGenStr s = {nullptr, 0, 0, 1};
  {
    ScopedFaultyAlloc counting(0);
    ASSERT_EQ(1, _CGenStrGrowIt(&s, 300));
    EXPECT_EQ(300u, gFault.lastSize);
  }
  EXPECT_EQ(300u, s.capacity);
  for (uint32_t i = 0; i < 300; i++) ASSERT_EQ(0, s.buffer[i]) << i;
  CGenStrDelete(&s);
}

// Deliberate: a failed reallocation drops the old buffer (the fake realloc
// frees it, as a real one does not).
TEST(CGenStrGrowIt, FailedReallocationLeavesBufferNull) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "hello"));
  ScopedFaultyAlloc failing(1);
  EXPECT_EQ(0, _CGenStrGrowIt(&s, 50));
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_EQ(0, CGenStrIsInit(&s));
}

TEST(CGenStrGrowIt, FailedFirstAllocationKeepsRecord) {
  CGenStr s = {nullptr, 0, 0, 1};
  ScopedFaultyAlloc failing(1);
  EXPECT_EQ(0, _CGenStrGrowIt(&s, 10));
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_EQ(0u, s.capacity);
}

// ---- set-up and tear-down ------------------------------------------------

// Fresh string: size 0, capacity 0 (capacity field 1), empty.
TEST(CGenStrInit, FreshStringHasSizeZeroCapacityZeroAndIsEmpty) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(0u, CGenStrSize(&s));
  EXPECT_EQ(0u, CGenStrCapacity(&s));
  EXPECT_EQ(1u, s.capacity);
  EXPECT_EQ(1u, s.length);
  EXPECT_EQ(1, s.growable);
  EXPECT_TRUE(CGenStrIsEmpty(&s));
  EXPECT_TRUE(CGenStrIsInit(&s));
  EXPECT_STREQ("", CGenStrC_Str(&s));
  CGenStrDelete(&s);
}

TEST(CGenStrInit, FailedAllocationLeavesLengthAndCapacityZero) {
  CGenStr s;
  memset(&s, 0x5A, sizeof s);
  ScopedFaultyAlloc failing(1);
  EXPECT_EQ(0, CGenStrInit(&s));
  EXPECT_EQ(0u, s.length);
  EXPECT_EQ(0u, s.capacity);
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_FALSE(CGenStrIsInit(&s));
}

TEST(CGenStrInitFromCStr, HoldsTheText) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "hello world"));
  EXPECT_EQ("hello world", textOf(s));
  EXPECT_EQ(12u, s.length);
  CGenStrDelete(&s);
}

TEST(CGenStrInitFromCStr, NullTextGivesEmptyString) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, nullptr));
  EXPECT_TRUE(CGenStrIsEmpty(&s));
  CGenStrDelete(&s);
}

// Fails the 1st, then the 2nd allocation; the 3rd run succeeds. A failed
// append deletes the string.
TEST(CGenStrInitFromCStr, DeletesStringWhenAnyAllocationFails) {
  int nFailAt = 1;
  for (;; nFailAt++) {
    SCOPED_TRACE(nFailAt);
    CGenStr s;
    int rc;
    {
      ScopedFaultyAlloc failing(nFailAt);
      rc = CGenStrInitFromCStr(&s, "text");
    }
    if (rc == 1) {
      EXPECT_EQ("text", textOf(s));
      CGenStrDelete(&s);
      break;
    }
    EXPECT_EQ(0, rc);
    EXPECT_EQ(nullptr, s.buffer);
    EXPECT_EQ(0u, s.length);
    EXPECT_EQ(0u, s.capacity);
    ASSERT_LT(nFailAt, 10);
  }
  EXPECT_EQ(3, nFailAt);
}

// Deliberate: "x" (text length 1) in an 8-byte buffer -> "", length 1.
TEST(CGenStrInitBuff, KeepsOneCharacterBufferTextEmpty) {
  char buf[8] = "x";
  CGenStr s;
  EXPECT_EQ(1, CGenStrInitBuff(&s, buf, 1, sizeof buf));
  EXPECT_EQ(1u, s.length);
  EXPECT_EQ('\0', buf[0]);
  EXPECT_TRUE(CGenStrIsEmpty(&s));
}

TEST(CGenStrInitBuff, WrapsCallerBufferAsFixed) {
  struct Row {
    const char* name;
    const char* text;
    uint32_t textLen;
    uint32_t length;
    const char* after;
  } rows[] = {
      {"empty", "", 0, 1, ""},
      {"one character", "x", 1, 1, ""},
      {"two characters", "xy", 2, 3, "xy"},
      {"five characters", "hello", 5, 6, "hello"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char buf[16];
    strcpy(buf, row.text);
    CGenStr s;
    EXPECT_EQ(1, CGenStrInitBuff(&s, buf, row.textLen, sizeof buf));
    EXPECT_EQ(buf, s.buffer);
    EXPECT_EQ(row.length, s.length);
    EXPECT_EQ(15u, s.capacity);
    EXPECT_EQ(0, s.growable);
    EXPECT_STREQ(row.after, buf);
  }
}

// 8-byte buffer, capacity 7: "abcd" + "ef" fits (7 bytes), + "g" does not.
TEST(CGenStrInitBuff, FixedBufferRefusesToGrowAndKeepsText) {
  char buf[8] = "abcd";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 4, sizeof buf);
  EXPECT_EQ(1, CGenStrCatChar(&s, "ef"));
  EXPECT_STREQ("abcdef", buf);
  EXPECT_EQ(0, CGenStrCatChar(&s, "g"));
  EXPECT_EQ(0, CGenStrCatC(&s, 'g'));
  EXPECT_STREQ("abcdef", buf);
  EXPECT_EQ(7u, s.length);
  EXPECT_EQ(buf, s.buffer);
}

TEST(CGenStrIsInit, TrueOnlyWithCapacityAndLength) {
  CGenStr zeroed = {nullptr, 0, 0, 0};
  EXPECT_FALSE(CGenStrIsInit(&zeroed));
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_TRUE(CGenStrIsInit(&s));
  CGenStrDelete(&s);
  EXPECT_FALSE(CGenStrIsInit(&s));
}

TEST(CGenStrDelete, FreesAndZeroesButKeepsGrowable) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  CGenStrDelete(&s);
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_EQ(0u, s.length);
  EXPECT_EQ(0u, s.capacity);
  EXPECT_EQ(1, s.growable);
}

TEST(CGenStrDeleteKeepBuffer, HandsBufferToCaller) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "kept"));
  char* pKept = CGenStrDeleteKeepBuffer(&s);
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_EQ(0u, s.length);
  EXPECT_EQ(0u, s.capacity);
  EXPECT_STREQ("kept", pKept);
  free(pKept);
}

// ---- reserve ---------------------------------------------------------------

// "abcdefghij" reserve 3 -> "abc", length 4, capacity 4.
TEST(CGenStrReserve, CutsTenCharacterTextToThree) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdefghij"));
  EXPECT_EQ(1, CGenStrReserve(&s, 3));
  EXPECT_STREQ("abc", s.buffer);
  EXPECT_EQ(4u, s.length);
  EXPECT_EQ(4u, s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrReserve, SetsExactCapacityAndKeepsShorterText) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  EXPECT_EQ(1, CGenStrReserve(&s, 500));
  EXPECT_EQ(501u, s.capacity);
  EXPECT_EQ("abc", textOf(s));
  // 3 characters need 4 bytes: reserve 3 keeps the whole text.
  EXPECT_EQ(1, CGenStrReserve(&s, 3));
  EXPECT_EQ("abc", textOf(s));
  EXPECT_EQ(4u, s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrReserve, ZeroReplacesBufferByFreshEmptyOne) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdef"));
  EXPECT_EQ(1, CGenStrReserve(&s, 0));
  EXPECT_EQ(1u, s.length);
  EXPECT_EQ(1u, s.capacity);
  EXPECT_STREQ("", s.buffer);
  CGenStrDelete(&s);
}

TEST(CGenStrReserve, AllocatesZeroedBufferWhenNone) {
  CGenStr s = {nullptr, 0, 0, 1};
  EXPECT_EQ(1, CGenStrReserve(&s, 9));
  ASSERT_NE(nullptr, s.buffer);
  EXPECT_EQ(10u, s.capacity);
  for (int i = 0; i < 10; i++) EXPECT_EQ(0, s.buffer[i]);
  EXPECT_EQ(1, CGenStrCatChar(&s, "123456789"));
  EXPECT_EQ("123456789", textOf(s));
  EXPECT_EQ(10u, s.capacity);
  CGenStrDelete(&s);
}

// Reserve does not look at `growable`: a wrapped heap buffer is resized.
TEST(CGenStrReserve, IgnoresGrowableFlag) {
  char* buf = (char*)malloc(4);
  strcpy(buf, "abc");
  CGenStr s;
  CGenStrInitBuff(&s, buf, 3, 4);
  EXPECT_EQ(1, CGenStrReserve(&s, 40));
  EXPECT_EQ(41u, s.capacity);
  EXPECT_EQ(0, s.growable);
  EXPECT_EQ("abc", textOf(s));
  free(CGenStrDeleteKeepBuffer(&s));
}

TEST(CGenStrReserve, FailedReallocationReturnsZeroAndKeepsText) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  char* pBefore = s.buffer;
  uint32_t capacity = s.capacity;
  {
    ScopedFaultyAlloc failing(1);
    gFault.bFreeOnFailedRealloc = false;  // a real realloc keeps the block
    EXPECT_EQ(0, CGenStrReserve(&s, 100000));
  }
  EXPECT_EQ(pBefore, s.buffer);
  EXPECT_EQ(capacity, s.capacity);
  EXPECT_EQ("abc", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrReserve, ZeroWithFailedAllocationLeavesRecordEmpty) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  {
    ScopedFaultyAlloc failing(1);
    EXPECT_EQ(0, CGenStrReserve(&s, 0));
  }
  EXPECT_EQ(nullptr, s.buffer);
  EXPECT_EQ(0u, s.length);
  EXPECT_EQ(0u, s.capacity);
}

// ---- sizes ---------------------------------------------------------------

TEST(CGenStrSize, IsLengthMinusOne) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "12345"));
  EXPECT_EQ(5u, CGenStrSize(&s));
  EXPECT_FALSE(CGenStrIsEmpty(&s));
  EXPECT_EQ(s.capacity - 1, CGenStrCapacity(&s));
  CGenStrDelete(&s);
}

TEST(CGenStrIsEmpty, TrueBelowLengthTwo) {
  CGenStr s = {nullptr, 0, 0, 0};
  EXPECT_TRUE(CGenStrIsEmpty(&s));
  s.length = 1;
  EXPECT_TRUE(CGenStrIsEmpty(&s));
  s.length = 2;
  EXPECT_FALSE(CGenStrIsEmpty(&s));
}

// ---- appending -------------------------------------------------------------

// Fresh string + "x" -> needs 2 bytes, reallocated to 2 + 64 = 66.
TEST(CGenStrCatChar, FirstAppendToFreshStringGrowsToSixtySixBytes) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(1, CGenStrCatChar(&s, "x"));
  EXPECT_EQ(66u, s.capacity);
  EXPECT_EQ(2u, s.length);
  EXPECT_EQ("x", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrCatC, FirstAppendToFreshStringGrowsToSixtySixBytes) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(1, CGenStrCatC(&s, 'y'));
  EXPECT_EQ(66u, s.capacity);
  EXPECT_EQ("y", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrCatChar, AppendsTextsAndGrowsOnlyWhenNeededExceedsCapacity) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  std::string expected;
  uint32_t capacityBefore = s.capacity;
  for (int i = 0; i < 400; i++) {
    std::string piece(i % 7 + 1, (char)('a' + i % 26));
    uint32_t needed = s.length + (uint32_t)piece.size();
    ASSERT_EQ(1, CGenStrCatChar(&s, piece.c_str()));
    expected += piece;
    if (needed > capacityBefore) {
      ASSERT_EQ(needed + referenceGrowth(needed), s.capacity) << i;
    } else {
      ASSERT_EQ(capacityBefore, s.capacity) << i;
    }
    capacityBefore = s.capacity;
  }
  EXPECT_EQ(expected, textOf(s));
  EXPECT_EQ(expected.size() + 1, s.length);
  CGenStrDelete(&s);
}

TEST(CGenStrCatChar, NullTextIsSuccessfulNoOp) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  EXPECT_EQ(1, CGenStrCatChar(&s, nullptr));
  EXPECT_EQ("abc", textOf(s));
  CGenStrDelete(&s);
}

// Appending the string to itself, across a reallocation: "abcabc".
TEST(CGenStrCatStr, AppendsItsOwnTextAcrossReallocation) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  ASSERT_EQ(1, CGenStrReserve(&s, 3));  // full: the append must grow
  EXPECT_EQ(1, CGenStrCatStr(&s, &s));
  EXPECT_EQ("abcabc", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrCatStr, AppendsOtherString) {
  CGenStr s, t;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "left-"));
  ASSERT_EQ(1, CGenStrInitFromCStr(&t, "right"));
  EXPECT_EQ(1, CGenStrCatStr(&s, &t));
  EXPECT_EQ("left-right", textOf(s));
  CGenStrDelete(&s);
  CGenStrDelete(&t);
}

// Deliberate: the record reads as deleted after the failed growth.
TEST(CGenStrCatChar, FailedReallocationLeavesBufferNull) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  ScopedFaultyAlloc failing(1);
  EXPECT_EQ(0, CGenStrCatChar(&s, std::string(200, 'z').c_str()));
  EXPECT_EQ(nullptr, s.buffer);
}

// Deliberate: after Delete (buffer null, growable kept) an append allocates
// exactly length + text bytes: "abc" -> capacity 4, no spare room.
TEST(CGenStrCatChar, AppendToDeletedStringAllocatesExactlyNeeded) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  CGenStrDelete(&s);
  EXPECT_EQ(1, CGenStrCatChar(&s, "abc"));
  EXPECT_EQ(4u, s.capacity);
  EXPECT_EQ(4u, s.length);
  EXPECT_EQ("abc", textOf(s));
  // The next growth takes the reallocation path with spare room.
  EXPECT_EQ(1, CGenStrCatC(&s, 'd'));
  EXPECT_EQ(5u + 64u, s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrCatC, AppendsOneByteAndNeedsLengthPlusOne) {
  char buf[4] = "";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 0, sizeof buf);  // capacity 3
  EXPECT_EQ(1, CGenStrCatC(&s, 'a'));
  EXPECT_EQ(1, CGenStrCatC(&s, 'b'));
  EXPECT_EQ(0, CGenStrCatC(&s, 'c'));  // needs 4 > 3
  EXPECT_STREQ("ab", buf);
  EXPECT_EQ(3u, s.length);
}

// "n=%d %s" with 42, "x" appended to "pre:" -> "pre:n=42 x".
TEST(CGenStrCatf, AppendsFormattedText) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "pre:"));
  EXPECT_EQ(1, CGenStrCatf(&s, "n=%d %s", 42, "x"));
  EXPECT_EQ("pre:n=42 x", textOf(s));
  std::string longText(5000, 'q');
  EXPECT_EQ(1, CGenStrCatf(&s, "[%s]", longText.c_str()));
  EXPECT_EQ("pre:n=42 x[" + longText + "]", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrCatf, ReturnsZeroWhenAnyAllocationFails) {
  std::string longText(300, 'w');
  int nFailAt = 1;
  for (;; nFailAt++) {
    SCOPED_TRACE(nFailAt);
    CGenStr s;
    ASSERT_EQ(1, CGenStrInitFromCStr(&s, "start"));
    int rc;
    {
      ScopedFaultyAlloc failing(nFailAt);
      rc = CGenStrCatf(&s, "%s", longText.c_str());
    }
    if (rc == 1) {
      EXPECT_EQ("start" + longText, textOf(s));
      CGenStrDelete(&s);
      break;
    }
    EXPECT_EQ(0, rc);
    if (s.buffer) {
      EXPECT_EQ("start", textOf(s));
    }
    CGenStrDelete(&s);
    ASSERT_LT(nFailAt, 10);
  }
  EXPECT_GT(nFailAt, 1);
}

// ---- assigning -------------------------------------------------------------

TEST(CGenStrAssignChar, ReplacesTextGrowingWhenNeeded) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "old text"));
  EXPECT_EQ(1, CGenStrAssignChar(&s, "new"));
  EXPECT_EQ("new", textOf(s));
  EXPECT_EQ(4u, s.length);
  std::string longText(1000, 'L');
  EXPECT_EQ(1, CGenStrAssignChar(&s, longText.c_str()));
  EXPECT_EQ(longText, textOf(s));
  EXPECT_EQ(1001u + referenceGrowth(1001), s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrAssignChar, AssignsPartOfItsOwnText) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdef"));
  EXPECT_EQ(1, CGenStrAssignChar(&s, s.buffer + 2));
  EXPECT_EQ("cdef", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrAssignChar, FixedBufferTooSmallKeepsText) {
  char buf[4] = "ab";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 2, sizeof buf);
  EXPECT_EQ(0, CGenStrAssignChar(&s, "abcd"));
  EXPECT_STREQ("ab", buf);
  EXPECT_EQ(1, CGenStrAssignChar(&s, "xy"));
  EXPECT_STREQ("xy", buf);
}

TEST(CGenStrAssignStr, SameRecordIsNoOp) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "same"));
  char* pBefore = s.buffer;
  EXPECT_EQ(1, CGenStrAssignStr(&s, &s));
  EXPECT_EQ(pBefore, s.buffer);
  EXPECT_EQ("same", textOf(s));
  CGenStrDelete(&s);
}

TEST(CGenStrAssignStr, CopiesOtherText) {
  CGenStr s, t;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "destination"));
  ASSERT_EQ(1, CGenStrInitFromCStr(&t, "src"));
  EXPECT_EQ(1, CGenStrAssignStr(&s, &t));
  EXPECT_EQ("src", textOf(s));
  CGenStrDelete(&s);
  CGenStrDelete(&t);
}

// ---- formatting ------------------------------------------------------------

// "%d-%s" with 7, "ab" over "previous" -> "7-ab", returns 4.
TEST(CGenStrSprintf, FormatsFromStartOfBuffer) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "previous"));
  EXPECT_EQ(4, CGenStrSprintf(&s, "%d-%s", 7, "ab"));
  EXPECT_EQ("7-ab", textOf(s));
  EXPECT_EQ(5u, s.length);
  CGenStrDelete(&s);
}

// A fresh string (capacity 1) formatting 10 characters grows to 11 + 64.
TEST(CGenStrSprintf, GrowsToFormattedLengthPlusOneAndFormatsAgain) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(10, CGenStrSprintf(&s, "%s", "0123456789"));
  EXPECT_EQ("0123456789", textOf(s));
  EXPECT_EQ(11u, s.length);
  EXPECT_EQ(11u + 64u, s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrSprintf, ExactFitNeedsRoomForNul) {
  char buf[6] = "";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 0, sizeof buf);  // capacity 5
  EXPECT_EQ(4, CGenStrSprintf(&s, "%s", "abcd"));
  EXPECT_STREQ("abcd", buf);
  EXPECT_EQ(-1, CGenStrSprintf(&s, "%s", "abcde"));  // 5 is not < 5
  EXPECT_STREQ("", buf);
  EXPECT_EQ(1u, s.length);
}

TEST(CGenStrSprintf, ReturnsMinusOneWhenGrowthFails) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  ScopedFaultyAlloc failing(1);
  EXPECT_EQ(-1, CGenStrSprintf(&s, "%s", "longer than one byte"));
  EXPECT_EQ(nullptr, s.buffer);
}

// "pre" + formatted "%d" 12345 at offset 3 -> "pre12345", returns 5.
TEST(CGenStrSprintfI, FormatsAfterOffsetKeepingBytesBefore) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "pre-old"));
  EXPECT_EQ(5, CGenStrSprintfI(&s, 3, "%d", 12345));
  EXPECT_EQ("pre12345", textOf(s));
  EXPECT_EQ(9u, s.length);
  CGenStrDelete(&s);
}

TEST(CGenStrSprintfI, GrowsToOffsetPlusLengthPlusOneAndRetries) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "ab"));
  ASSERT_EQ(1, CGenStrReserve(&s, 2));
  std::string longText(150, 'k');
  EXPECT_EQ(150, CGenStrSprintfI(&s, 2, "%s", longText.c_str()));
  EXPECT_EQ("ab" + longText, textOf(s));
  EXPECT_EQ(153u + referenceGrowth(153), s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrSprintfI, FitsFixedBufferThatIsLargeEnough) {
  char buf[16] = "key=";
  CGenStr s;
  CGenStrInitBuff(&s, buf, 4, sizeof buf);
  EXPECT_EQ(3, CGenStrSprintfI(&s, 4, "%03d", 7));
  EXPECT_STREQ("key=007", buf);
  EXPECT_EQ(8u, s.length);
}

// Deliberate: the growth result is not checked. The first growth fails
// (the buffer is dropped), the retry allocates a fresh buffer and succeeds;
// the bytes before the offset are gone (zero).
TEST(CGenStrSprintfI, RetriesAfterFailedGrowthWithoutCheckingIt) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "ab"));
  ASSERT_EQ(1, CGenStrReserve(&s, 2));
  int n;
  {
    ScopedFaultyAlloc failing(1);
    n = CGenStrSprintfI(&s, 2, "%s", "0123456789");
    EXPECT_EQ(2, gFault.nCalls);  // failed realloc, then calloc
  }
  EXPECT_EQ(10, n);
  ASSERT_NE(nullptr, s.buffer);
  EXPECT_EQ(13u, s.length);
  EXPECT_EQ(13u, s.capacity);  // first-buffer path: exactly what is needed
  EXPECT_EQ(0, s.buffer[0]);
  EXPECT_EQ(0, s.buffer[1]);
  EXPECT_STREQ("0123456789", s.buffer + 2);
  CGenStrDelete(&s);
}

// ---- access
// ------------------------------------------------------------------

TEST(CGenStrClear, EmptiesTextAndKeepsCapacity) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "some text"));
  uint32_t capacity = s.capacity;
  CGenStrClear(&s);
  EXPECT_EQ(1u, s.length);
  EXPECT_STREQ("", s.buffer);
  EXPECT_EQ(capacity, s.capacity);
  CGenStrDelete(&s);
}

TEST(CGenStrSet, StoresByteWithoutChangingLength) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  CGenStrSet(&s, 1, 'X');
  EXPECT_STREQ("aXc", s.buffer);
  CGenStrSet(&s, 1, '\0');
  EXPECT_EQ(4u, s.length);
  EXPECT_EQ('c', CGenStrGet(&s, 2));
  CGenStrDelete(&s);
}

// Byte 0xFF reads as -1.
TEST(CGenStrGet, ReturnsSignedByte) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "a\xff"));
  EXPECT_EQ('a', CGenStrGet(&s, 0));
  EXPECT_EQ(-1, CGenStrGet(&s, 1));
  EXPECT_EQ(0, CGenStrGet(&s, 2));
  CGenStrDelete(&s);
}

TEST(CGenStrTail, PointsAtByteI) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "hello"));
  EXPECT_EQ(s.buffer + 3, CGenStrTail(&s, 3));
  EXPECT_STREQ("lo", CGenStrTail(&s, 3));
  EXPECT_EQ(s.buffer, CGenStrC_Str(&s));
  CGenStrDelete(&s);
}

// Deliberate: "abc" -> pointer to the NUL at index 3, not to 'c'.
TEST(CGenStrLast, PointsAtTerminatingNulNotLastCharacter) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  EXPECT_EQ(s.buffer + 3, CGenStrLast(&s));
  EXPECT_EQ('\0', *CGenStrLast(&s));
  CGenStrDelete(&s);
}

TEST(CGenStrLastI, IsZeroWhenEmptyElseTextLength) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(0u, CGenStrLastI(&s));
  ASSERT_EQ(1, CGenStrCatChar(&s, "abcd"));
  EXPECT_EQ(4u, CGenStrLastI(&s));
  CGenStrDelete(&s);
  EXPECT_EQ(0u, CGenStrLastI(&s));  // length 0
}

// ---- pieces
// ------------------------------------------------------------------

TEST(CGenStrGetSuffix, CopiesTextFromIndex) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "prefix:rest"));
  ASSERT_EQ(1, CGenStrInitFromCStr(&out, "stale"));
  EXPECT_EQ(1, CGenStrGetSuffix(&s, 7, &out));
  EXPECT_EQ("rest", textOf(out));
  EXPECT_EQ(1, CGenStrGetSuffix(&s, 0, &out));
  EXPECT_EQ("prefix:rest", textOf(out));
  CGenStrDelete(&s);
  CGenStrDelete(&out);
}

// Index at or past the size -> 0, out cleared.
TEST(CGenStrGetSuffix, IndexAtOrPastSizeReturnsZeroWithOutCleared) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc"));
  ASSERT_EQ(1, CGenStrInitFromCStr(&out, "stale"));
  EXPECT_EQ(0, CGenStrGetSuffix(&s, 3, &out));
  EXPECT_TRUE(CGenStrIsEmpty(&out));
  ASSERT_EQ(1, CGenStrAssignChar(&out, "stale"));
  EXPECT_EQ(0, CGenStrGetSuffix(&s, 1000, &out));
  EXPECT_TRUE(CGenStrIsEmpty(&out));
  CGenStrDelete(&s);
  CGenStrDelete(&out);
}

namespace {
// All tokens of `text` split at `delim`, by repeated CGenStrGetToken calls.
std::vector<std::string> tokensOf(const char* text, char delim) {
  std::vector<std::string> tokens;
  CGenStr s, out;
  if (!CGenStrInitFromCStr(&s, text) || !CGenStrInit(&out)) abort();
  uint32_t pos = 0;
  for (int guard = 0; guard < 1000; guard++) {
    int found = -1;
    if (CGenStrGetToken(&s, delim, &pos, &found, &out) != 1) abort();
    if (!found) {
      EXPECT_TRUE(CGenStrIsEmpty(&out));
      break;
    }
    tokens.push_back(textOf(out));
  }
  CGenStrDelete(&s);
  CGenStrDelete(&out);
  return tokens;
}
}  // namespace

// "a,,b" -> "a", "", "b"; "a," -> "a" only.
TEST(CGenStrGetToken, KeepsEmptyTokensButNoTrailingOne) {
  struct Row {
    const char* name;
    const char* text;
    std::vector<std::string> tokens;
  } rows[] = {
      {"empty tokens kept", "a,,b", {"a", "", "b"}},
      {"trailing delimiter", "a,", {"a"}},
      {"two trailing delimiters", "a,,", {"a", ""}},
      {"leading delimiter", ",a", {"", "a"}},
      {"only delimiter", ",", {""}},
      {"no delimiter", "abc", {"abc"}},
      {"empty text", "", {}},
      {"words", "one,two,three", {"one", "two", "three"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.tokens, tokensOf(row.text, ','));
  }
}

TEST(CGenStrGetToken, AdvancesPositionPastDelimiter) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "ab:cd"));
  ASSERT_EQ(1, CGenStrInit(&out));
  uint32_t pos = 0;
  int found = 0;
  EXPECT_EQ(1, CGenStrGetToken(&s, ':', &pos, &found, &out));
  EXPECT_EQ(1, found);
  EXPECT_EQ(3u, pos);
  EXPECT_EQ("ab", textOf(out));
  EXPECT_EQ(1, CGenStrGetToken(&s, ':', &pos, &found, &out));
  EXPECT_EQ(5u, pos);
  EXPECT_EQ("cd", textOf(out));
  pos = 99;  // past the end
  EXPECT_EQ(1, CGenStrGetToken(&s, ':', &pos, &found, &out));
  EXPECT_EQ(0, found);
  EXPECT_EQ(99u, pos);
  CGenStrDelete(&s);
  CGenStrDelete(&out);
}

TEST(CGenStrGetToken, ReturnsZeroWhenAppendFails) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdef"));
  char buf[3] = "";
  CGenStrInitBuff(&out, buf, 0, sizeof buf);  // room for one character
  uint32_t pos = 0;
  int found = 7;
  EXPECT_EQ(0, CGenStrGetToken(&s, ',', &pos, &found, &out));
  EXPECT_EQ(0, found);
  EXPECT_STREQ("a", buf);
  CGenStrDelete(&s);
}

// Start equal to the size -> 0; count 0 -> 1 and "".
TEST(CGenStrSubstr, StartAtSizeReturnsZeroAndCountZeroReturnsEmpty) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdef"));
  ASSERT_EQ(1, CGenStrInitFromCStr(&out, "stale"));
  EXPECT_EQ(0, CGenStrSubstr(&s, 6, 2, &out));
  EXPECT_TRUE(CGenStrIsEmpty(&out));
  ASSERT_EQ(1, CGenStrAssignChar(&out, "stale"));
  EXPECT_EQ(1, CGenStrSubstr(&s, 2, 0, &out));
  EXPECT_TRUE(CGenStrIsEmpty(&out));
  EXPECT_EQ(1, CGenStrSubstr(&s, 2, -5, &out));
  EXPECT_TRUE(CGenStrIsEmpty(&out));
  CGenStrDelete(&s);
  CGenStrDelete(&out);
}

// Every start 0..8 and count -2..8 over "abcdef" against std::string.
TEST(CGenStrSubstr, MatchesReferenceForEveryStartAndCount) {
  const std::string text = "abcdef";
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, text.c_str()));
  ASSERT_EQ(1, CGenStrInit(&out));
  for (uint32_t start = 0; start <= 8; start++) {
    for (int32_t count = -2; count <= 8; count++) {
      SCOPED_TRACE(std::to_string(start) + "," + std::to_string(count));
      int rc = CGenStrSubstr(&s, start, count, &out);
      if (start >= text.size()) {
        EXPECT_EQ(0, rc);
        EXPECT_EQ("", textOf(out));
      } else if (count == -1) {
        EXPECT_EQ(1, rc);
        EXPECT_EQ(text.substr(start), textOf(out));
      } else if (count <= 0) {
        EXPECT_EQ(1, rc);
        EXPECT_EQ("", textOf(out));
      } else {
        EXPECT_EQ(1, rc);
        EXPECT_EQ(text.substr(start, (size_t)count), textOf(out));
      }
    }
  }
  CGenStrDelete(&s);
  CGenStrDelete(&out);
}

TEST(CGenStrSubstr, ReturnsZeroWhenAppendFails) {
  CGenStr s, out;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abcdef"));
  char buf[3] = "";
  CGenStrInitBuff(&out, buf, 0, sizeof buf);
  EXPECT_EQ(0, CGenStrSubstr(&s, 0, 4, &out));
  EXPECT_EQ(1, CGenStrSubstr(&s, 0, 1, &out));
  EXPECT_STREQ("a", buf);
  CGenStrDelete(&s);
}

// ---- comparing and classifying ---------------------------------------------

TEST(CGenStrCmpCStrI, ComparesIgnoringCase) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "Hello"));
  EXPECT_EQ(0, CGenStrCmpCStrI(&s, "hELLO"));
  EXPECT_LT(CGenStrCmpCStrI(&s, "help"), 0);
  EXPECT_GT(CGenStrCmpCStrI(&s, "HELL"), 0);
  EXPECT_EQ(strcasecmp("Hello", "abc"), CGenStrCmpCStrI(&s, "abc"));
  CGenStrDelete(&s);
}

TEST(CGenStrFindChar, ReturnsFirstIndexOrMinusOne) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_EQ(-1, CGenStrFindChar(&s, 'a'));
  EXPECT_EQ(-1, CGenStrFindChar(&s, '\0'));
  ASSERT_EQ(1, CGenStrCatChar(&s, "banana"));
  EXPECT_EQ(1, CGenStrFindChar(&s, 'a'));
  EXPECT_EQ(0, CGenStrFindChar(&s, 'b'));
  EXPECT_EQ(-1, CGenStrFindChar(&s, 'z'));
  EXPECT_EQ(-1, CGenStrFindChar(&s, '\0'));  // the NUL is not text
  CGenStrDelete(&s);
}

// Every byte value 1..255 as a one-character text, against the POSIX-locale
// classes; the empty text is true for both.
TEST(CGenStrIsAlpha, ClassifiesEveryByteValueAsPosixLocale) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInit(&s));
  EXPECT_TRUE(CGenStrIsAlpha(&s));
  EXPECT_TRUE(CGenStrIsAlnum(&s));
  for (int ch = 1; ch < 256; ch++) {
    CGenStrClear(&s);
    ASSERT_EQ(1, CGenStrCatC(&s, (char)ch));
    bool alpha = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
    bool digit = ch >= '0' && ch <= '9';
    EXPECT_EQ(alpha, CGenStrIsAlpha(&s) != 0) << ch;
    EXPECT_EQ(alpha || digit, CGenStrIsAlnum(&s) != 0) << ch;
  }
  CGenStrDelete(&s);
}

TEST(CGenStrIsAlnum, FalseWhenAnyByteIsNotAlphanumeric) {
  CGenStr s;
  ASSERT_EQ(1, CGenStrInitFromCStr(&s, "abc123"));
  EXPECT_TRUE(CGenStrIsAlnum(&s));
  EXPECT_FALSE(CGenStrIsAlpha(&s));
  ASSERT_EQ(1, CGenStrCatC(&s, '_'));
  EXPECT_FALSE(CGenStrIsAlnum(&s));
  CGenStrDelete(&s);
}

// ---- CGenStr_I_CopyText ---------------------------------------------------

// "abc" -> a separate copy "abc"; null -> ""
TEST(CGenStrICopyText, CopiesTextAndGivesEmptyTextForNull) {
  const char text[] = "abc";
  char* pCopy = CGenStr_I_CopyText(text);
  ASSERT_NE(nullptr, pCopy);
  EXPECT_NE(text, pCopy);
  EXPECT_STREQ("abc", pCopy);
  free(pCopy);
  pCopy = CGenStr_I_CopyText(nullptr);
  ASSERT_NE(nullptr, pCopy);
  EXPECT_STREQ("", pCopy);
  free(pCopy);
}

// the copy goes through the allocation table: exactly length + 1 bytes,
// and null when that allocation fails
TEST(CGenStrICopyText, AllocatesThroughTableAndReturnsNullWhenItFails) {
  {
    ScopedFaultyAlloc faulty(0);
    char* pCopy = CGenStr_I_CopyText("hello");
    EXPECT_EQ(1, gFault.nCalls);
    EXPECT_EQ(6u, gFault.lastSize);
    free(pCopy);
  }
  ScopedFaultyAlloc faulty(1);
  EXPECT_EQ(nullptr, CGenStr_I_CopyText("hello"));
}
