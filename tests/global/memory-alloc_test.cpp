// Tests of the tracked allocator: arena layout, worst-fit search, the split
// rule, merging and arena release, re-allocation rules, string copies, the
// bookkeeping reports with tracing on, and a randomized run against a model.
#include "zorv2000/memory-alloc.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "global/memory-alloc_p.h"
#include "support/test_support.h"

namespace {

struct Block {
  int32_t size;
  uint32_t flags;
};

// Blocks of arena `index` as (size, flags) pairs.
std::vector<Block> blocksOf(int32_t index) {
  std::vector<Block> out;
  void* arena = ZorvMem_I_ArenaAt(index);
  for (int32_t i = 0; i < ZorvMem_I_BlockCount(arena); ++i) {
    Block b{};
    ZorvMem_I_BlockAt(arena, i, &b.size, &b.flags, nullptr);
    out.push_back(b);
  }
  return out;
}

std::string describe(const std::vector<Block>& blocks) {
  std::string s;
  for (const Block& b : blocks) {
    s += std::to_string(b.size) + ((b.flags & 1) ? "u" : "f") +
         ((b.flags & 2) ? "L" : "") + " ";
  }
  return s;
}

std::string layout(int32_t index) { return describe(blocksOf(index)); }

// Whether `p` is the data of a block marked in use in any arena.
bool inUse(const void* p) {
  for (int32_t a = 0; a < ZorvMem_I_ArenaCount(); ++a) {
    void* arena = ZorvMem_I_ArenaAt(a);
    for (int32_t i = 0; i < ZorvMem_I_BlockCount(arena); ++i) {
      uint32_t flags = 0;
      void* data = nullptr;
      ZorvMem_I_BlockAt(arena, i, nullptr, &flags, &data);
      if (data == p) return (flags & 1) != 0;
    }
  }
  return false;
}

void* alloc(uint32_t n) { return TracingZorvAlloc(1, n, "t.cpp", 1); }
void release(void* p) { TracingZorvFree(p, "t.cpp", 2); }

// Allocation seams: the Nth malloc/calloc fails (0: none), calloc sizes are
// recorded.
struct AllocLog {
  int nCalls = 0;
  int nFailAt = 0;
  bool bFailAll = false;
  std::vector<size_t> callocSizes;
};
AllocLog gLog;

void* failingMalloc(size_t size) {
  ++gLog.nCalls;
  if (gLog.bFailAll || gLog.nCalls == gLog.nFailAt) return nullptr;
  return malloc(size);
}

void* failingCalloc(size_t count, size_t size) {
  ++gLog.nCalls;
  gLog.callocSizes.push_back(count * size);
  if (gLog.bFailAll || gLog.nCalls == gLog.nFailAt) return nullptr;
  return calloc(count, size);
}

class ScopedAllocSeam {
 public:
  explicit ScopedAllocSeam(bool bFailAll, int nFailAt = 0)
      : saved_(zorvMemAllocCalls) {
    gLog = AllocLog();
    gLog.bFailAll = bFailAll;
    gLog.nFailAt = nFailAt;
    zorvMemAllocCalls.pfnMalloc = failingMalloc;
    zorvMemAllocCalls.pfnCalloc = failingCalloc;
  }
  ~ScopedAllocSeam() { zorvMemAllocCalls = saved_; }

 private:
  ZorvMemAllocCalls saved_;
};

// Runs `body` with the "mem" category on and returns standard error.
// Tracing reads its switches once per process; each test is its own
// process.
template <typename Body>
std::string traced(Body body) {
  setenv("ZORV_TRACE", "mem", 1);
  zorvtest::FdCapture capture(2);
  capture.Start();
  body();
  return capture.Stop();
}

std::string pointerText(const void* p) {
  char buffer[64];
  snprintf(buffer, sizeof buffer, "%p", p);
  return buffer;
}

// The trace prefix of a line written by `function` of the allocator.
std::string prefix(const char* function) {
  return std::string("memory-alloc_te(PID):") + function +
         "():memory-alloc.cpp:LINE ";
}

std::string blockInfo(const void* p, const char* size, const char* file,
                      const char* line) {
  return prefix("traceBlockInfo") +
         "\nMEM BLOCK INFO\nAddress: " + pointerText(p) + "\nSize: " + size +
         "\nAllocated at file: " + file + "\nLine: " + line + "\n";
}

}  // namespace

// ---- edge cases of the arena layout ------------------------------------

// 10 bytes -> one arena of 65536: a 24-byte block in use, 65504 free, last.
TEST(TracingZorvAlloc, FirstTenBytesSplitNewArenaIntoTwentyFourAndRest) {
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
  void* p = alloc(10);
  ASSERT_NE(nullptr, p);
  ASSERT_EQ(1, ZorvMem_I_ArenaCount());
  void* arena = ZorvMem_I_ArenaAt(0);
  EXPECT_EQ(65536, ZorvMem_I_ArenaSize(arena));
  EXPECT_EQ("24u 65504fL ", layout(0));
  // The data starts after the arena's 8 bytes and the block's 8 bytes.
  EXPECT_EQ((char*)arena + 16, (char*)p);
  EXPECT_EQ(16, GetMemSize(p));
}

// Deliberate: freeing it leaves one free block of 65528; the sole arena is
// kept.
TEST(TracingZorvFree, KeepsSoleArenaAsOneFreeBlock) {
  void* p = alloc(10);
  release(p);
  ASSERT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ("65528fL ", layout(0));
  EXPECT_FALSE(inUse(p));
  // The data address is still a block's (now free and merged): its size.
  EXPECT_EQ(65520, GetMemSize(p));
}

// 100000 bytes -> an arena of 100016 bytes.
TEST(TracingZorvAlloc, LargeRequestAddsArenaOfRequestPlusSixteen) {
  void* small = alloc(10);
  void* big = alloc(100000);
  ASSERT_NE(nullptr, big);
  ASSERT_EQ(2, ZorvMem_I_ArenaCount());
  EXPECT_EQ(100016, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(1)));
  EXPECT_EQ("100008uL ", layout(1));
  EXPECT_EQ(100000, GetMemSize(big));
  release(big);
  release(small);
}

// The first request may itself be large: the root arena is then 100016.
TEST(TracingZorvAlloc, FirstLargeRequestMakesRootArenaOfRequestPlusSixteen) {
  void* big = alloc(100000);
  ASSERT_NE(nullptr, big);
  ASSERT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ(100016, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(0)));
}

// A request below the minimum still gets an arena of 65536.
TEST(AllocNewArena, NeverSmallerThanMinimum) {
  EXPECT_EQ(0, AddNewArena(100));
  EXPECT_EQ(65536, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(0)));
  EXPECT_EQ("65528fL ", layout(0));
}

// Deliberate: ReAlloc(null, 10) -> null, and nothing is allocated.
TEST(TracingZorvReAlloc, NullPointerReturnsNullWithoutAllocating) {
  EXPECT_EQ(nullptr, TracingZorvReAlloc(nullptr, 10, "t.cpp", 3));
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
}

// A 24-byte block (16 usable) asked for 10 or 15 -> the same pointer.
TEST(TracingZorvReAlloc, SmallerThanUsableSizeReturnsSamePointer) {
  void* p = alloc(10);
  EXPECT_EQ(p, TracingZorvReAlloc(p, 10, "t.cpp", 3));
  EXPECT_EQ(p, TracingZorvReAlloc(p, 15, "t.cpp", 3));
  EXPECT_EQ("24u 65504fL ", layout(0));
}

// Tracing off: an unknown pointer changes nothing and nothing is written.
TEST(TracingZorvFree, UnknownPointerWithTracingOffDoesNothingSilently) {
  void* p = alloc(10);
  std::string before = layout(0);
  char local[32];
  zorvtest::FdCapture err(2);
  zorvtest::FdCapture out(1);
  err.Start();
  out.Start();
  release(local);
  release((char*)p + 1);
  release(nullptr);
  EXPECT_EQ("", out.Stop());
  EXPECT_EQ("", err.Stop());
  EXPECT_EQ(before, layout(0));
  EXPECT_EQ(0, DoMemoryBlockTracing());
}

// ---- search and split ----------------------------------------------------

// Deliberate worst fit: a later, larger free block wins over an earlier one
// that also fits.
TEST(LookForMemory, ChoosesBlockLeavingLargestRemainder) {
  void* a = alloc(3000);  // 3016 bytes at the front
  void* b = alloc(50000);
  ASSERT_NE(nullptr, b);
  release(a);
  // Free: 3016 at the front, 12496 at the end; 100 goes to the end.
  EXPECT_EQ("3016f 50016u 12496fL ", layout(0));
  void* c = alloc(100);
  EXPECT_GT((char*)c, (char*)b);
  EXPECT_EQ("3016f 50016u 112u 12384fL ", layout(0));
}

// Two free blocks of 1008 bytes and no other room: the first one wins.
TEST(LookForMemory, FirstOfEqualBlocksWinsTie) {
  void* s0 = alloc(10);   // 24
  void* a = alloc(1000);  // 1008
  void* s1 = alloc(10);   // 32
  void* b = alloc(1000);  // 1008
  int32_t tail = 65528 - 24 - 1008 - 32 - 1008;
  void* rest = alloc((uint32_t)(tail - 8));
  ASSERT_EQ("24u 1008u 32u 1008u " + std::to_string(tail) + "uL ", layout(0));
  release(a);
  release(b);
  EXPECT_EQ(a, alloc(10));
  release(s0);
  release(s1);
  release(rest);
}

// Deliberate: remainders of 8 to 15 bytes stay with the block; 16 and more
// are split off in multiples of 16.
TEST(LookForMemory, SplitsOnlyRemaindersOfAtLeastSixteenAfterRounding) {
  struct Row {
    const char* name;
    uint32_t request;
    const char* expected;
  } rows[] = {
      {"remainder 0", 65520, "65528uL "},
      {"remainder 8", 65512, "65528uL "},
      {"remainder 9", 65511, "65528uL "},
      {"remainder 15", 65505, "65528uL "},
      {"remainder 16", 65504, "65512u 16fL "},
      {"remainder 31", 65489, "65512u 16fL "},
      {"remainder 32", 65488, "65496u 32fL "},
  };
  ASSERT_EQ(0, AddNewArena(65536));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    void* p = alloc(row.request);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(row.expected, layout(0));
    EXPECT_EQ(1, ZorvMem_I_ArenaCount());
    release(p);
    EXPECT_EQ("65528fL ", layout(0));
  }
}

// Blocks are handed out zeroed, even where a freed block held data.
TEST(TracingZorvAlloc, ReturnsZeroedBytes) {
  unsigned char* p = (unsigned char*)alloc(200);
  memset(p, 0xAB, 200);
  release(p);
  unsigned char* q = (unsigned char*)alloc(200);
  ASSERT_EQ(p, q);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(0, q[i]) << i;
}

// count x size bytes are allocated (4 x 10 -> 40 usable at least).
TEST(TracingZorvAlloc, AllocatesCountTimesSize) {
  void* p = TracingZorvAlloc(4, 10, "t.cpp", 1);
  EXPECT_GE(GetMemSize(p), 40);
  EXPECT_EQ("56u 65472fL ", layout(0));
}

// A product that does not fit in 31 bits is refused.
TEST(TracingZorvAlloc, RefusesOverlongProduct) {
  EXPECT_EQ(nullptr, TracingZorvAlloc(0x10000, 0x10000, "t.cpp", 1));
  EXPECT_EQ(nullptr, TracingZorvAlloc(1, 0xFFFFFFFFu, "t.cpp", 1));
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
}

// No system memory: null, no arena.
TEST(TracingZorvAlloc, ReturnsNullWhenSystemGivesNoMemory) {
  ScopedAllocSeam seam(true);
  EXPECT_EQ(nullptr, alloc(10));
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
  EXPECT_EQ(1, AddNewArena(10));
}

// A zero-byte request is a bare 8-byte header with no usable bytes.
TEST(TracingZorvAlloc, ZeroBytesGiveBareHeader) {
  void* p = alloc(0);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ("8u 65520fL ", layout(0));
  EXPECT_EQ(0, GetMemSize(p));
  release(p);
  EXPECT_EQ("65528fL ", layout(0));
}

// ---- free, merge and arena release -----------------------------------------

// A B C in use; free A, C, B: one free block again, marked last.
TEST(FreeMemory, MergesWithPreviousAndNextFreeBlocks) {
  void* a = alloc(100);
  void* b = alloc(100);
  void* c = alloc(100);
  void* d = alloc(100);
  EXPECT_EQ("120u 112u 112u 112u 65072fL ", layout(0));
  release(a);
  EXPECT_EQ("120f 112u 112u 112u 65072fL ", layout(0));
  release(c);
  EXPECT_EQ("120f 112u 112f 112u 65072fL ", layout(0));
  release(b);  // merges into a, then takes c
  EXPECT_EQ("344f 112u 65072fL ", layout(0));
  release(d);  // merges into the front and takes the last mark
  EXPECT_EQ("65528fL ", layout(0));
}

// The freed last block merges into its free predecessor, which becomes last.
TEST(FreeMemory, PreviousBlockInheritsLastMark) {
  void* a = alloc(100);
  void* b = alloc(65528 - 120 - 8);
  EXPECT_EQ("120u 65408uL ", layout(0));
  release(a);
  release(b);
  EXPECT_EQ("65528fL ", layout(0));
  EXPECT_EQ(1, ZorvMem_I_ArenaCount());
}

// A second arena that becomes wholly free goes back to the system.
TEST(FreeMemory, ReturnsWhollyFreeSecondArena) {
  void* small = alloc(10);
  void* big = alloc(100000);
  ASSERT_EQ(2, ZorvMem_I_ArenaCount());
  release(big);
  EXPECT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ("24u 65504fL ", layout(0));
  release(small);
}

// The root arena is returned when another arena exists.
TEST(FreeMemory, ReturnsRootArenaWhenAnotherExists) {
  void* small = alloc(10);
  void* big = alloc(100000);
  void* bigArena = ZorvMem_I_ArenaAt(1);
  release(small);
  ASSERT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ(bigArena, ZorvMem_I_ArenaAt(0));
  release(big);
  // Now the only arena: kept.
  EXPECT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ("100008fL ", layout(0));
}

// An arena in the middle of three is unlinked; the others stay in order.
TEST(FreeArena, UnlinksMiddleArena) {
  void* a = alloc(70000);
  void* b = alloc(80000);
  void* c = alloc(90000);
  ASSERT_EQ(3, ZorvMem_I_ArenaCount());
  release(b);
  ASSERT_EQ(2, ZorvMem_I_ArenaCount());
  EXPECT_EQ(70016, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(0)));
  EXPECT_EQ(90016, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(1)));
  // The freed slot is used again by the next arena, which goes last.
  void* d = alloc(85000);
  ASSERT_EQ(3, ZorvMem_I_ArenaCount());
  EXPECT_EQ(85016, ZorvMem_I_ArenaSize(ZorvMem_I_ArenaAt(2)));
  release(a);
  release(c);
  release(d);
}

// An arena that is not in the list -> 1.
TEST(FreeArena, ReturnsOneForArenaNotInList) {
  void* p = alloc(10);
  char other[64];
  EXPECT_EQ(1, FreeArena(other));
  EXPECT_EQ(1, FreeArena(p));
  EXPECT_EQ(1, ZorvMem_I_ArenaCount());
}

namespace {
int gAtExitCalls = 0;
int countingAtExit(void (*function)(void)) {
  ++gAtExitCalls;
  return function == FreeArenasAtExit ? 0 : -1;
}
}  // namespace

// Deliberate: every new arena registers FreeArenasAtExit() again; three
// arenas, three registrations; none for a block carved from an arena.
TEST(AddNewArena, RegistersExitReleaseForEveryArena) {
  ZorvMemAllocCalls saved = zorvMemAllocCalls;
  zorvMemAllocCalls.pfnAtExit = countingAtExit;
  void* a = alloc(10);
  void* b = alloc(20);
  void* c = alloc(70000);
  void* d = alloc(80000);
  zorvMemAllocCalls = saved;
  EXPECT_EQ(3, gAtExitCalls);
  EXPECT_EQ(3, ZorvMem_I_ArenaCount());
  release(a);
  release(b);
  release(c);
  release(d);
}

// Deliberate: a block whose size word is below the header's 8 bytes
// answers 8.
TEST(GetMemSize, AnswersEightForBlockSmallerThanHeader) {
  unsigned char* p = (unsigned char*)alloc(10);
  int32_t tiny = 4;
  memcpy(p - 8, &tiny, sizeof tiny);
  EXPECT_EQ(8, GetMemSize(p));
  int32_t size = 24;
  memcpy(p - 8, &size, sizeof size);
  EXPECT_EQ(16, GetMemSize(p));
}

// FreeArenasAtExit() empties the list; allocation starts over afterwards.
TEST(FreeArenasAtExit, ReturnsEveryArena) {
  alloc(70000);
  alloc(80000);
  ASSERT_EQ(2, ZorvMem_I_ArenaCount());
  FreeArenasAtExit();
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
  FreeArenasAtExit();
  EXPECT_NE(nullptr, alloc(10));
  EXPECT_EQ("24u 65504fL ", layout(0));
}

// GetMemSize: size - 8 for a block's data, 0 for anything else.
TEST(GetMemSize, ZeroForPointersThatAreNotBlockData) {
  char* p = (char*)alloc(100);
  EXPECT_EQ(112, GetMemSize(p));
  EXPECT_EQ(0, GetMemSize(p + 1));
  EXPECT_EQ(0, GetMemSize(p - 8));
  EXPECT_EQ(0, GetMemSize(nullptr));
  int local = 0;
  EXPECT_EQ(0, GetMemSize(&local));
}

// ---- re-allocation -------------------------------------------------------

// Size 0 frees the block and returns null.
TEST(TracingZorvReAlloc, SizeZeroFreesAndReturnsNull) {
  void* p = alloc(10);
  EXPECT_EQ(nullptr, TracingZorvReAlloc(p, 0, "t.cpp", 3));
  EXPECT_EQ("65528fL ", layout(0));
}

// "Greater than", not "at least": a size equal to the usable size gets a
// new block.
TEST(TracingZorvReAlloc, SizeEqualToUsableSizeGetsNewBlock) {
  char* p = (char*)alloc(10);  // 16 usable
  memcpy(p, "0123456789abcdef", 16);
  char* q = (char*)TracingZorvReAlloc(p, 16, "t.cpp", 3);
  ASSERT_NE(nullptr, q);
  EXPECT_NE(p, q);
  EXPECT_EQ(0, memcmp(q, "0123456789abcdef", 16));
  EXPECT_FALSE(inUse(p));
  EXPECT_TRUE(inUse(q));
}

// Growing copies the old usable size and zero-fills the rest.
TEST(TracingZorvReAlloc, GrowingCopiesUsableSizeAndFreesOld) {
  char* p = (char*)alloc(10);
  memset(p, 'x', 16);
  char* q = (char*)TracingZorvReAlloc(p, 1000, "t.cpp", 3);
  ASSERT_NE(nullptr, q);
  for (int i = 0; i < 16; ++i) EXPECT_EQ('x', q[i]) << i;
  for (int i = 16; i < 1000; ++i) ASSERT_EQ(0, q[i]) << i;
  EXPECT_FALSE(inUse(p));
  EXPECT_EQ(1000, GetMemSize(q));
}

// Deliberate: a pointer in no arena is copied for all `size` bytes.
TEST(TracingZorvReAlloc, PointerOutsideArenasIsCopiedForWholeSize) {
  std::vector<char> outside(64);
  for (int i = 0; i < 64; ++i) outside[i] = (char)('A' + i % 26);
  char* q = (char*)TracingZorvReAlloc(outside.data(), 64, "t.cpp", 3);
  ASSERT_NE(nullptr, q);
  EXPECT_EQ(0, memcmp(q, outside.data(), 64));
  release(q);
}

// A zero-byte block has nothing to copy: the new block is all zeros, and
// the bytes after the old block's header are not read as its data.
TEST(TracingZorvReAlloc, ZeroByteBlockCopiesNothing) {
  char* empty = (char*)alloc(0);
  char* next = (char*)alloc(8);
  memset(next, 'n', 8);
  char* q = (char*)TracingZorvReAlloc(empty, 32, "t.cpp", 3);
  ASSERT_NE(nullptr, q);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(0, q[i]) << i;
  EXPECT_FALSE(inUse(empty));
  EXPECT_EQ(std::string(8, 'n'), std::string(next, 8));
}

// When the new block cannot be had: null, and the old block stays in use.
TEST(TracingZorvReAlloc, FailureKeepsOldBlock) {
  char* p = (char*)alloc(10);
  memcpy(p, "keep", 5);
  {
    ScopedAllocSeam seam(true);
    EXPECT_EQ(nullptr, TracingZorvReAlloc(p, 200000, "t.cpp", 3));
  }
  EXPECT_STREQ("keep", p);
  EXPECT_EQ("24u 65504fL ", layout(0));
}

// ---- string copies ---------------------------------------------------------

// "abc" -> a copy in a zeroed system buffer of 3 + 4 bytes.
TEST(TracingZorvAllocString, CopiesIntoBufferOfLengthPlusFour) {
  ScopedAllocSeam seam(false);
  char* copy = TracingZorvAllocString("abc");
  ASSERT_NE(nullptr, copy);
  EXPECT_STREQ("abc", copy);
  ASSERT_EQ(1u, gLog.callocSizes.size());
  EXPECT_EQ(7u, gLog.callocSizes[0]);
  for (int i = 3; i < 7; ++i) EXPECT_EQ(0, copy[i]);
  EXPECT_EQ(0, ZorvMem_I_ArenaCount());
  free(copy);
}

TEST(TracingZorvAllocString, NullTextAndNoMemoryGiveNull) {
  EXPECT_EQ(nullptr, TracingZorvAllocString(nullptr));
  ScopedAllocSeam seam(true);
  EXPECT_EQ(nullptr, TracingZorvAllocString("abc"));
}

TEST(ZorvAllocStringEx, CopiesWithoutLockAndNullForNull) {
  EXPECT_EQ(nullptr, ZorvAllocStringEx(nullptr));
  {
    ScopedAllocSeam seam(false);
    char* copy = ZorvAllocStringEx("");
    ASSERT_NE(nullptr, copy);
    EXPECT_STREQ("", copy);
    EXPECT_EQ(4u, gLog.callocSizes.at(0));
    free(copy);
  }
  ScopedAllocSeam failing(true);
  EXPECT_EQ(nullptr, ZorvAllocStringEx("x"));
}

// ---- lock failure ----------------------------------------------------------

namespace {
int failingGrab(const char*, int, const char*, uint32_t, int) { return 22; }
}  // namespace

// A mutex that cannot be taken ends the process with status 1.
TEST(TracingZorvAlloc, MutexFailureExitsWithVerifyFailed) {
  EXPECT_EXIT(
      {
        zorvMemAllocCalls.pfnGrabMutex = failingGrab;
        alloc(10);
      },
      testing::ExitedWithCode(1),
      "Zorv2000 Verify Failed: Line:[0-9]+ File:global/memory-alloc.cpp "
      "Possibly Out of Memory.");
}

TEST(TracingZorvFree, MutexFailureExitsWithVerifyFailed) {
  EXPECT_EXIT(
      {
        zorvMemAllocCalls.pfnGrabMutex = failingGrab;
        release(nullptr);
      },
      testing::ExitedWithCode(1), "Zorv2000 Verify Failed: Line:[0-9]+");
}

// ---- bookkeeping with tracing on ----------------------------------------

TEST(DoMemoryBlockTracing, FollowsMemCategory) {
  setenv("ZORV_TRACE", "mem", 1);
  EXPECT_NE(0, DoMemoryBlockTracing());
}

TEST(DoMemoryBlockTracing, OffWhenOtherCategoriesAreOn) {
  setenv("ZORV_TRACE", "pipe,diag", 1);
  EXPECT_EQ(0, DoMemoryBlockTracing());
  void* p = alloc(10);
  EXPECT_EQ(0, ZorvMem_I_RecordCount());
  release(p);
}

// Deliberate: 4 x 10 bytes are recorded with size 10, the second argument.
TEST(LogMemoryBlockAlloc, RecordsSizeArgumentNotProduct) {
  std::string text = traced([] {
    void* p = TracingZorvAlloc(4, 10, "caller.cpp", 77);
    const CMemBlockInfo* info = ZorvMem_I_FindRecord(p);
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(10u, info->size);
    EXPECT_STREQ("caller.cpp", info->file);
    EXPECT_EQ(77, info->line);
    EXPECT_EQ(1, ZorvMem_I_RecordCount());
    TracingZorvFree(p, "caller.cpp", 78);
    EXPECT_EQ(0, ZorvMem_I_RecordCount());
  });
  EXPECT_EQ("", text);
}

// Deliberate: the report prints "%ul": size 10 shows as "10l".
TEST(ListBlocksStillInUse, ReportsEachRecordWithSizeFollowedByLetterL) {
  void* a = nullptr;
  void* b = nullptr;
  std::string text = traced([&] {
    a = TracingZorvAlloc(1, 10, "first.cpp", 11);
    b = TracingZorvAlloc(3, 200, "second.cpp", 22);
    ListBlocksStillInUse();
  });
  std::string expected =
      prefix("ListBlocksStillInUse") +
      "\nMEMORY ERROR - some memory blocks have not been released\nLIST OF "
      "BLOCKS STILL ALLOCATED\n" +
      blockInfo(a, "10l", "first.cpp", "11") +
      blockInfo(b, "200l", "second.cpp", "22");
  EXPECT_EQ(expected, zorvtest::NormalizeTrace(text));
}

TEST(ListBlocksStillInUse, SilentWhenNothingRemains) {
  std::string text = traced([] {
    ListBlocksStillInUse();
    release(alloc(10));
    ListBlocksStillInUse();
  });
  EXPECT_EQ("", text);
}

// Finish lists what remains and drops the records.
TEST(FinishMemoryBlockTracing, ListsRemainingBlocksAndDropsRecords) {
  void* a = nullptr;
  std::string text = traced([&] {
    a = TracingZorvAlloc(1, 5, "f.cpp", 5);
    FinishMemoryBlockTracing();
    EXPECT_EQ(0, ZorvMem_I_RecordCount());
    FinishMemoryBlockTracing();
  });
  std::string expected =
      prefix("ListBlocksStillInUse") +
      "\nMEMORY ERROR - some memory blocks have not been released\nLIST OF "
      "BLOCKS STILL ALLOCATED\n" +
      blockInfo(a, "5l", "f.cpp", "5");
  EXPECT_EQ(expected, zorvtest::NormalizeTrace(text));
}

// With tracing off, Finish writes nothing and keeps the records as they are.
TEST(FinishMemoryBlockTracing, DoesNothingWithTracingOff) {
  zorvtest::FdCapture err(2);
  err.Start();
  LogMemoryBlockAlloc((void*)0x1000, 4, "x.cpp", 1);
  FinishMemoryBlockTracing();
  EXPECT_EQ("", err.Stop());
  EXPECT_EQ(1, ZorvMem_I_RecordCount());
}

// Freeing a pointer without a record: the two report texts.
TEST(LogMemoryBlockFree, ReportsNonexistingBlockWithLocation) {
  char local[16];
  std::string text = traced([&] { TracingZorvFree(local, "gone.cpp", 42); });
  std::string expected =
      prefix("LogMemoryBlockFree") +
      "\nMEMORY ERROR - Attempting to free nonexisting memory block\nThis may "
      "be caused by freeing a block twice, freeing a block\nwhich was "
      "allocated with malloc() instead of ZorvAlloc(),\nfreeing a block which "
      "was not dynamically allocated, or an\nerror in the ZORV memory logging "
      "functions\n" +
      prefix("LogMemoryBlockFree") +
      "\nLOCATION\nAddress: " + pointerText(local) +
      "\nFile: gone.cpp\nLine: 42\n";
  EXPECT_EQ(expected, zorvtest::NormalizeTrace(text));
}

// A block freed twice is reported the second time.
TEST(LogMemoryBlockFree, ReportsSecondFreeOfSameBlock) {
  std::string text = traced([] {
    void* p = alloc(10);
    release(p);
    release(p);
  });
  EXPECT_NE(std::string::npos,
            text.find("Attempting to free nonexisting memory block"));
  EXPECT_EQ(0u, text.find("memory-alloc_te("));
}

// A block freed behind the tracker's back and handed out again: the clash
// is reported with the old record, which stays.
TEST(LogMemoryBlockAlloc, ReportsNewBlockAtAddressOfExistingRecord) {
  void* p = nullptr;
  void* q = nullptr;
  std::string text = traced([&] {
    p = TracingZorvAlloc(1, 10, "old.cpp", 1);
    FreeMemory(p);  // as if released without the bookkeeping
    q = TracingZorvAlloc(1, 12, "new.cpp", 2);
  });
  ASSERT_EQ(p, q);
  std::string expected =
      prefix("LogMemoryBlockAlloc") +
      "\nMEMORY ERROR - New mem block has same address as an existing "
      "block.\nThis may be due to freeing a memory block by calling free() "
      "directly\ninstead of calling ZorvFree() or it may be due to an error "
      "in the\nZORV memory logging functions\n" +
      blockInfo(p, "10l", "old.cpp", "1");
  EXPECT_EQ(expected, zorvtest::NormalizeTrace(text));
  EXPECT_EQ(1, ZorvMem_I_RecordCount());
  EXPECT_EQ(10u, ZorvMem_I_FindRecord(p)->size);
}

// Inside the recorded bytes -> 1; one past the end -> 0 with the report.
TEST(TracingIsPointerValid, ChecksAgainstRecordedRange) {
  char* p = nullptr;
  int rcFirst = -1, rcLast = -1, rcPast = -1, rcBefore = -1;
  std::string text = traced([&] {
    p = (char*)TracingZorvAlloc(1, 10, "v.cpp", 9);
    rcFirst = TracingIsPointerValid(p, "chk.cpp", 1);
    rcLast = TracingIsPointerValid(p + 9, "chk.cpp", 2);
    rcPast = TracingIsPointerValid(p + 10, "chk.cpp", 3);
    rcBefore = TracingIsPointerValid(p - 1, "chk.cpp", 4);
  });
  EXPECT_EQ(1, rcFirst);
  EXPECT_EQ(1, rcLast);
  EXPECT_EQ(0, rcPast);
  EXPECT_EQ(0, rcBefore);
  std::string expected = prefix("TracingIsPointerValid") +
                         "\nMEMORY ERROR - invalid pointer\nAddress " +
                         pointerText(p + 10) + "\nFile: chk.cpp\nLine: 3\n" +
                         prefix("TracingIsPointerValid") +
                         "\nMEMORY ERROR - invalid pointer\nAddress " +
                         pointerText(p - 1) + "\nFile: chk.cpp\nLine: 4\n";
  EXPECT_EQ(expected, zorvtest::NormalizeTrace(text));
}

// Tracing off: every pointer is valid, nothing is written.
TEST(TracingIsPointerValid, AlwaysOneWithTracingOff) {
  zorvtest::FdCapture err(2);
  err.Start();
  EXPECT_EQ(1, TracingIsPointerValid(nullptr, "x.cpp", 1));
  EXPECT_EQ(1, TracingIsPointerValid((void*)0x10, "x.cpp", 1));
  EXPECT_EQ("", err.Stop());
}

// Re-allocation with tracing: the old record goes, the new one has `size`.
TEST(TracingZorvReAlloc, MovesRecordToNewBlock) {
  std::string text = traced([] {
    void* p = TracingZorvAlloc(1, 10, "r.cpp", 1);
    void* q = TracingZorvReAlloc(p, 300, "r.cpp", 2);
    ASSERT_NE(p, q);
    EXPECT_EQ(nullptr, ZorvMem_I_FindRecord(p));
    ASSERT_NE(nullptr, ZorvMem_I_FindRecord(q));
    EXPECT_EQ(300u, ZorvMem_I_FindRecord(q)->size);
    EXPECT_EQ(2, ZorvMem_I_FindRecord(q)->line);
    EXPECT_EQ(1, ZorvMem_I_RecordCount());
  });
  EXPECT_EQ("", text);
}

// A file name longer than 256 characters is cut in the record.
TEST(CMemBlockInfoInit, CutsFileNameAt256Characters) {
  CMemBlockInfo info;
  std::string longName(300, 'f');
  CMemBlockInfoInit(&info, &info, 3, longName.c_str(), 4);
  EXPECT_EQ(256u, strlen(info.file));
  CMemBlockInfoInit(&info, &info, 3, nullptr, 4);
  EXPECT_STREQ("", info.file);
}

// The comparison functions used with the list.
TEST(PointerIsInMemBlock, MatchesAddressesInsideRecordOnly) {
  char bytes[8];
  CMemBlockInfo info;
  CMemBlockInfoInit(&info, bytes, 8, "p.cpp", 1);
  EXPECT_EQ(0, PointerIsInMemBlock(&info, bytes));
  EXPECT_EQ(0, PointerIsInMemBlock(&info, bytes + 7));
  EXPECT_NE(0, PointerIsInMemBlock(&info, bytes + 8));
  EXPECT_EQ(0, IsSameMemBlock(&info, bytes));
  EXPECT_NE(0, IsSameMemBlock(&info, bytes + 1));
  info.size = 0;
  EXPECT_NE(0, PointerIsInMemBlock(&info, bytes));
}

// ---- randomized run against a model -----------------------------------

namespace {

struct Live {
  uint32_t size;
  unsigned char fill;
};

// Checks every arena's tiling and the merge rule, and every live block's
// size and (with bContent) content. Returns an empty string when all holds.
std::string checkInvariants(const std::map<char*, Live>& live, bool bContent) {
  int32_t nArenas = ZorvMem_I_ArenaCount();
  size_t nInUse = 0;
  for (int32_t a = 0; a < nArenas; ++a) {
    void* arena = ZorvMem_I_ArenaAt(a);
    int32_t total = 8;
    bool prevFree = false;
    int32_t n = ZorvMem_I_BlockCount(arena);
    for (int32_t i = 0; i < n; ++i) {
      int32_t size;
      uint32_t flags;
      void* data;
      ZorvMem_I_BlockAt(arena, i, &size, &flags, &data);
      bool isLast = (flags & 2) != 0;
      if (isLast != (i == n - 1)) return "last mark misplaced";
      bool isFree = (flags & 1) == 0;
      if (isFree && prevFree) return "two free neighbours";
      prevFree = isFree;
      total += size;
      if (!isFree) {
        ++nInUse;
        auto it = live.find((char*)data);
        if (it == live.end()) return "block in use that the model lacks";
      }
    }
    if (total != ZorvMem_I_ArenaSize(arena)) return "blocks do not tile";
    if (n == 1 && !(blocksOf(a)[0].flags & 1) && nArenas > 1) {
      return "wholly free arena kept beside others";
    }
  }
  if (nInUse != live.size()) return "model has blocks the arenas lack";
  for (const auto& kv : live) {
    if (GetMemSize(kv.first) < (int32_t)kv.second.size) return "block short";
    if (!bContent) continue;
    for (uint32_t i = 0; i < kv.second.size; ++i) {
      if ((unsigned char)kv.first[i] != kv.second.fill) {
        return "content lost at byte " + std::to_string(i) + " of " +
               std::to_string(kv.second.size) + " usable " +
               std::to_string(GetMemSize(kv.first));
      }
    }
  }
  return "";
}

}  // namespace

// 3000 random allocations, frees and re-allocations of 0 to 100000 bytes.
TEST(TracingZorvAlloc, RandomSequenceMatchesModel) {
  std::mt19937 rng(20240607);
  std::map<char*, Live> live;
  std::vector<char*> order;
  auto randomSize = [&]() -> uint32_t {
    uint32_t pick = rng() % 100;
    if (pick < 70) return rng() % 300;
    if (pick < 95) return rng() % 20000;
    return 60000 + rng() % 40000;
  };
  for (int step = 0; step < 3000; ++step) {
    uint32_t op = rng() % 10;
    if (op < 5 || live.empty()) {
      uint32_t n = randomSize();
      char* p = (char*)alloc(n);
      ASSERT_NE(nullptr, p) << step;
      ASSERT_EQ(0u, live.count(p)) << step;
      for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(0, p[i]) << step;
      unsigned char fill = (unsigned char)(1 + rng() % 255);
      memset(p, fill, n);
      live[p] = Live{n, fill};
      order.push_back(p);
    } else {
      size_t idx = rng() % order.size();
      char* p = order[idx];
      if (op < 8) {
        release(p);
        live.erase(p);
        order.erase(order.begin() + (long)idx);
      } else {
        uint32_t n = randomSize();
        Live old = live[p];
        int32_t usable = GetMemSize(p);
        char* q = (char*)TracingZorvReAlloc(p, n, "t.cpp", 4);
        live.erase(p);
        order.erase(order.begin() + (long)idx);
        if (n == 0) {
          ASSERT_EQ(nullptr, q) << step;
          continue;
        }
        ASSERT_NE(nullptr, q) << step;
        if (usable > (int32_t)n) {
          ASSERT_EQ(p, q) << step;
        } else {
          ASSERT_NE(p, q) << step;
        }
        // Either way the bytes the caller had written are still there;
        // beyond them the same block holds whatever it held.
        uint32_t kept = old.size < n ? old.size : n;
        for (uint32_t i = 0; i < kept; ++i) {
          ASSERT_EQ(old.fill, (unsigned char)q[i]) << step;
        }
        memset(q, old.fill, n);
        live[q] = Live{n, old.fill};
        order.push_back(q);
      }
    }
    // Layout after every step; every byte of every block now and then.
    std::string problem = checkInvariants(live, step % 50 == 49);
    ASSERT_EQ("", problem) << "step " << step;
  }
  ASSERT_EQ("", checkInvariants(live, true));
  for (char* p : order) release(p);
  EXPECT_EQ(1, ZorvMem_I_ArenaCount());
  EXPECT_EQ(1, ZorvMem_I_BlockCount(ZorvMem_I_ArenaAt(0)));
}
