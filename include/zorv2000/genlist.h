/*
 * genlist.h: CGenList, a doubly linked list of untyped data pointers with
 * head and tail sentinels stored in the list record.
 *
 * An iterator is a node pointer; the tail sentinel is the end position.
 * With `ownsData` set, erasing a node calls `destroyData(data)` (when set)
 * and then free(data). Functions that can fail return 1 for success and 0
 * for failure. No locking. Plain C.
 *
 * Typical walk:
 *   CGenListIter it;
 *   for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
 *        CGenListIterAdv(&it))
 *     use(CGenListIterGetData(it));
 */
#ifndef ZORV2000_GENLIST_H
#define ZORV2000_GENLIST_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CGenListNode {
  struct CGenListNode* prev;
  struct CGenListNode* next;
  void* data;
} CGenListNode;

typedef CGenListNode* CGenListIter;

typedef void (*CGenListDestroyFn)(void* data);
/* Returns 0 when `data` matches `key`. */
typedef int (*CGenListCompareFn)(const void* data, const void* key);

typedef struct CGenList {
  CGenListNode headNode;         /* head sentinel: prev null */
  CGenListNode tailNode;         /* tail sentinel: next null */
  CGenListNode* head;            /* &headNode once constructed, null before */
  CGenListNode* tail;            /* &tailNode once constructed */
  int32_t zeroFillNodes;         /* 1: nodes from calloc; 0: from malloc */
  int32_t count;                 /* data nodes */
  int32_t ownsData;              /* erase releases the data */
  CGenListDestroyFn destroyData; /* called before free(data), optional */
} CGenList;

/* CGenListConstruct(): empty list, zero-filled nodes. Returns 1. */
ZORV_API int CGenListConstruct(CGenList* list, int ownsData,
                               CGenListDestroyFn destroyData);
/* CGenListConstructForMemTracing(): the same with malloc'ed nodes, for the
 * memory tracer, which must not use what it traces. Returns 1. */
ZORV_API int CGenListConstructForMemTracing(CGenList* list, int ownsData,
                                            CGenListDestroyFn destroyData);
/* CGenListPushBack(): appends `data`; 0 (list unchanged) when no node can be
 * allocated. */
ZORV_API int CGenListPushBack(CGenList* list, void* data);
/* CGenListErase(): removes the node at `iterator` and stores the position
 * after it in *result. Erasing at the end is a no-op that returns the end.
 */
ZORV_API void CGenListErase(CGenListIter* result, CGenList* list,
                            CGenListIter iterator);
/* CGenListClear(): erases every node. CGenListDestruct(): the same. */
ZORV_API void CGenListClear(CGenList* list);
ZORV_API void CGenListDestruct(CGenList* list);
/* CGenListGetCount(): number of data nodes; 0 for a never-constructed
 * (zeroed) record. */
ZORV_API int32_t CGenListGetCount(const CGenList* list);
/* CGenListFind(): first node whose compare(data, key) is 0, or the end. */
ZORV_API void CGenListFind(CGenListIter* result, const CGenList* list,
                           CGenListCompareFn compare, const void* key);
ZORV_API void CGenListIterInit(CGenListIter* iter, const CGenList* list);
ZORV_API int CGenListIterAtEnd(CGenListIter iter);
ZORV_API void* CGenListIterGetData(CGenListIter iter);
/* CGenListIterAdv(): next node; stays at the end. */
ZORV_API void CGenListIterAdv(CGenListIter* iter);
ZORV_API void CGenListNodeInit(CGenListNode* node, CGenListNode* prev,
                               CGenListNode* next, void* data);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_GENLIST_H */
