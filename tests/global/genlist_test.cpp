// Tests of CGenList: sentinels, push, erase, clear with owned data, find and
// iteration, and node allocation through the table of genstr_p.h.
#include "zorv2000/genlist.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "global/genstr_p.h"

namespace {

// Allocation table that records which call was made and fails the Nth
// allocation (1-based; 0 never fails). Frees are recorded too.
struct AllocLog {
  int nFailAt = 0;
  int nAllocs = 0;
  int nMalloc = 0;
  int nCalloc = 0;
  std::vector<std::string> events;  // "free:<tag>" for tagged blocks
  std::vector<void*> tagged;        // data blocks watched by name
  std::vector<std::string> tags;
};
AllocLog gLog;

bool shouldFail() { return ++gLog.nAllocs == gLog.nFailAt; }

void* logMalloc(size_t size) {
  gLog.nMalloc++;
  if (shouldFail()) return nullptr;
  void* p = malloc(size);
  memset(p, 0xA5, size);  // show that malloc'ed nodes are not zeroed
  return p;
}

void* logCalloc(size_t count, size_t size) {
  gLog.nCalloc++;
  return shouldFail() ? nullptr : calloc(count, size);
}

void logFree(void* p) {
  for (size_t i = 0; i < gLog.tagged.size(); i++) {
    if (gLog.tagged[i] == p) gLog.events.push_back("free:" + gLog.tags[i]);
  }
  free(p);
}

class ScopedAllocLog {
 public:
  explicit ScopedAllocLog(int nFailAt = 0) : saved_(cGenAllocCalls) {
    gLog = AllocLog();
    gLog.nFailAt = nFailAt;
    cGenAllocCalls.pfnMalloc = logMalloc;
    cGenAllocCalls.pfnCalloc = logCalloc;
    cGenAllocCalls.pfnFree = logFree;
  }
  ~ScopedAllocLog() { cGenAllocCalls = saved_; }

 private:
  CGenAllocCalls saved_;
};

// A heap copy of `tag` that the log names when it is freed.
char* taggedData(const char* tag) {
  char* p = strdup(tag);
  gLog.tagged.push_back(p);
  gLog.tags.push_back(tag);
  return p;
}

void destroyLogged(void* data) {
  gLog.events.push_back(std::string("destroy:") + (const char*)data);
}

int compareText(const void* data, const void* key) {
  return strcmp((const char*)data, (const char*)key);
}

std::vector<std::string> textsOf(const CGenList& list) {
  std::vector<std::string> texts;
  CGenListIter it;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    texts.push_back((const char*)CGenListIterGetData(it));
  }
  return texts;
}

char kA[] = "a";
char kB[] = "b";
char kC[] = "c";

}  // namespace

TEST(CGenListConstruct, LinksSentinelsToEachOther) {
  CGenList list;
  memset(&list, 0x77, sizeof list);
  EXPECT_EQ(1, CGenListConstruct(&list, 0, nullptr));
  EXPECT_EQ(&list.headNode, list.head);
  EXPECT_EQ(&list.tailNode, list.tail);
  EXPECT_EQ(nullptr, list.head->prev);
  EXPECT_EQ(list.tail, list.head->next);
  EXPECT_EQ(nullptr, list.tail->next);
  EXPECT_EQ(list.head, list.tail->prev);
  EXPECT_EQ(1, list.zeroFillNodes);
  EXPECT_EQ(0, list.count);
  EXPECT_EQ(0, list.ownsData);
  EXPECT_EQ(nullptr, list.destroyData);
  EXPECT_EQ(0, CGenListGetCount(&list));
}

TEST(CGenListConstruct, NodesComeZeroFilledFromCalloc) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  ScopedAllocLog log;
  ASSERT_EQ(1, CGenListPushBack(&list, kA));
  EXPECT_EQ(1, gLog.nCalloc);
  EXPECT_EQ(0, gLog.nMalloc);
  CGenListClear(&list);
}

TEST(CGenListConstructForMemTracing, NodesComeFromMalloc) {
  CGenList list;
  EXPECT_EQ(1, CGenListConstructForMemTracing(&list, 1, destroyLogged));
  EXPECT_EQ(0, list.zeroFillNodes);
  EXPECT_EQ(1, list.ownsData);
  EXPECT_EQ(destroyLogged, list.destroyData);
  ScopedAllocLog log;
  ASSERT_EQ(1, CGenListPushBack(&list, taggedData("m")));
  EXPECT_EQ(1, gLog.nMalloc);
  EXPECT_EQ(0, gLog.nCalloc);
  EXPECT_EQ(std::vector<std::string>{"m"}, textsOf(list));
  CGenListClear(&list);
}

TEST(CGenListPushBack, AppendsInOrderBeforeTail) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  ASSERT_EQ(1, CGenListPushBack(&list, kA));
  ASSERT_EQ(1, CGenListPushBack(&list, kB));
  ASSERT_EQ(1, CGenListPushBack(&list, kC));
  EXPECT_EQ(3, CGenListGetCount(&list));
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), textsOf(list));
  // Links both ways.
  EXPECT_EQ(kC, list.tail->prev->data);
  EXPECT_EQ(kB, list.tail->prev->prev->data);
  EXPECT_EQ(list.head, list.head->next->prev);
  CGenListClear(&list);
}

TEST(CGenListPushBack, FailedAllocationLeavesListUnchanged) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  ASSERT_EQ(1, CGenListPushBack(&list, kA));
  {
    ScopedAllocLog log(1);
    EXPECT_EQ(0, CGenListPushBack(&list, kB));
  }
  EXPECT_EQ(1, CGenListGetCount(&list));
  EXPECT_EQ(std::vector<std::string>{"a"}, textsOf(list));
  EXPECT_EQ(list.head->next, list.tail->prev);
  CGenListClear(&list);
}

// a, b, c: erase b -> result points at c; count 2.
TEST(CGenListErase, StoresPositionAfterErasedNode) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  CGenListPushBack(&list, kA);
  CGenListPushBack(&list, kB);
  CGenListPushBack(&list, kC);
  CGenListIter it;
  CGenListIterInit(&it, &list);
  CGenListIterAdv(&it);
  CGenListIter after = nullptr;
  CGenListErase(&after, &list, it);
  EXPECT_EQ(kC, CGenListIterGetData(after));
  EXPECT_EQ(2, CGenListGetCount(&list));
  EXPECT_EQ((std::vector<std::string>{"a", "c"}), textsOf(list));
  // Erasing the last node gives the end.
  CGenListErase(&after, &list, after);
  EXPECT_EQ(list.tail, after);
  EXPECT_TRUE(CGenListIterAtEnd(after));
  EXPECT_EQ(1, CGenListGetCount(&list));
  CGenListClear(&list);
}

TEST(CGenListErase, ErasingAtEndIsNoOpReturningEnd) {
  CGenList list;
  CGenListConstruct(&list, 1, destroyLogged);
  ScopedAllocLog log;
  CGenListPushBack(&list, taggedData("x"));
  CGenListIter after = nullptr;
  CGenListErase(&after, &list, list.tail);
  EXPECT_EQ(list.tail, after);
  EXPECT_EQ(1, CGenListGetCount(&list));
  EXPECT_TRUE(gLog.events.empty());
  CGenListClear(&list);
}

TEST(CGenListErase, OwnedDataIsDestroyedThenFreed) {
  CGenList list;
  CGenListConstruct(&list, 1, destroyLogged);
  ScopedAllocLog log;
  CGenListPushBack(&list, taggedData("only"));
  CGenListIter after;
  CGenListErase(&after, &list, list.head->next);
  EXPECT_EQ((std::vector<std::string>{"destroy:only", "free:only"}),
            gLog.events);
  EXPECT_EQ(0, CGenListGetCount(&list));
  EXPECT_EQ(list.tail, list.head->next);
  EXPECT_EQ(list.head, list.tail->prev);
}

TEST(CGenListErase, OwnedDataWithoutDestroyFunctionIsFreed) {
  CGenList list;
  CGenListConstruct(&list, 1, nullptr);
  ScopedAllocLog log;
  CGenListPushBack(&list, taggedData("plain"));
  CGenListIter after;
  CGenListErase(&after, &list, list.head->next);
  EXPECT_EQ(std::vector<std::string>{"free:plain"}, gLog.events);
}

TEST(CGenListErase, DataNotOwnedIsLeftAlone) {
  CGenList list;
  CGenListConstruct(&list, 0, destroyLogged);
  ScopedAllocLog log;
  char* pData = taggedData("mine");
  CGenListPushBack(&list, pData);
  CGenListIter after;
  CGenListErase(&after, &list, list.head->next);
  EXPECT_TRUE(gLog.events.empty());
  EXPECT_STREQ("mine", pData);
  free(pData);
}

// Clearing an owning list: destroy then free for each element, in list order.
TEST(CGenListClear, CallsDestroyOncePerElementInListOrder) {
  CGenList list;
  CGenListConstruct(&list, 1, destroyLogged);
  ScopedAllocLog log;
  CGenListPushBack(&list, taggedData("1"));
  CGenListPushBack(&list, taggedData("2"));
  CGenListPushBack(&list, taggedData("3"));
  CGenListClear(&list);
  EXPECT_EQ((std::vector<std::string>{"destroy:1", "free:1", "destroy:2",
                                      "free:2", "destroy:3", "free:3"}),
            gLog.events);
  EXPECT_EQ(0, CGenListGetCount(&list));
  EXPECT_EQ(list.tail, list.head->next);
  // The list stays usable.
  ASSERT_EQ(1, CGenListPushBack(&list, taggedData("4")));
  EXPECT_EQ(1, CGenListGetCount(&list));
  CGenListClear(&list);
}

TEST(CGenListDestruct, ClearsLikeClear) {
  CGenList list;
  CGenListConstruct(&list, 1, destroyLogged);
  ScopedAllocLog log;
  CGenListPushBack(&list, taggedData("p"));
  CGenListPushBack(&list, taggedData("q"));
  CGenListDestruct(&list);
  EXPECT_EQ(
      (std::vector<std::string>{"destroy:p", "free:p", "destroy:q", "free:q"}),
      gLog.events);
  EXPECT_EQ(0, CGenListGetCount(&list));
}

TEST(CGenListClear, NeverConstructedRecordIsLeftAlone) {
  CGenList list;
  memset(&list, 0, sizeof list);
  CGenListClear(&list);
  EXPECT_EQ(0, CGenListGetCount(&list));
}

// A zeroed, never-constructed record counts 0 even with a stray count.
TEST(CGenListGetCount, ZeroForNeverConstructedRecord) {
  CGenList list;
  memset(&list, 0, sizeof list);
  EXPECT_EQ(0, CGenListGetCount(&list));
  list.count = 5;
  EXPECT_EQ(0, CGenListGetCount(&list));
}

TEST(CGenListFind, EmptyListReturnsEndPosition) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  CGenListIter found = nullptr;
  CGenListFind(&found, &list, compareText, "a");
  EXPECT_EQ(list.tail, found);
  EXPECT_TRUE(CGenListIterAtEnd(found));
}

TEST(CGenListFind, StopsAtFirstMatchOrReturnsEnd) {
  char a2[] = "a";
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  CGenListPushBack(&list, kB);
  CGenListPushBack(&list, kA);
  CGenListPushBack(&list, a2);
  CGenListIter found = nullptr;
  CGenListFind(&found, &list, compareText, "a");
  EXPECT_EQ(kA, CGenListIterGetData(found));  // the first "a", not a2
  CGenListFind(&found, &list, compareText, "b");
  EXPECT_EQ(list.head->next, found);
  CGenListFind(&found, &list, compareText, "zz");
  EXPECT_EQ(list.tail, found);
  CGenListClear(&list);
}

TEST(CGenListIterInit, EmptyListStartsAtEnd) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  CGenListIter it = nullptr;
  CGenListIterInit(&it, &list);
  EXPECT_EQ(list.tail, it);
  EXPECT_TRUE(CGenListIterAtEnd(it));
}

TEST(CGenListIterAdv, AdvancingAtEndStaysAtEnd) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  CGenListPushBack(&list, kA);
  CGenListIter it;
  CGenListIterInit(&it, &list);
  EXPECT_FALSE(CGenListIterAtEnd(it));
  EXPECT_EQ(kA, CGenListIterGetData(it));
  CGenListIterAdv(&it);
  EXPECT_TRUE(CGenListIterAtEnd(it));
  CGenListIterAdv(&it);
  CGenListIterAdv(&it);
  EXPECT_EQ(list.tail, it);
  CGenListClear(&list);
}

TEST(CGenListNodeInit, SetsTheThreeFields) {
  CGenListNode a, b, n;
  CGenListNodeInit(&n, &a, &b, kC);
  EXPECT_EQ(&a, n.prev);
  EXPECT_EQ(&b, n.next);
  EXPECT_EQ(kC, n.data);
}

// Erasing every other element while walking, through the returned position.
TEST(CGenListErase, WalkWithEraseKeepsRemainingOrder) {
  CGenList list;
  CGenListConstruct(&list, 0, nullptr);
  static char items[10][2];
  for (int i = 0; i < 10; i++) {
    items[i][0] = (char)('0' + i);
    items[i][1] = '\0';
    ASSERT_EQ(1, CGenListPushBack(&list, items[i]));
  }
  CGenListIter it;
  CGenListIterInit(&it, &list);
  int i = 0;
  while (!CGenListIterAtEnd(it)) {
    if (i++ % 2 == 0) {
      CGenListErase(&it, &list, it);
    } else {
      CGenListIterAdv(&it);
    }
  }
  EXPECT_EQ((std::vector<std::string>{"1", "3", "5", "7", "9"}), textsOf(list));
  EXPECT_EQ(5, CGenListGetCount(&list));
  CGenListClear(&list);
}
