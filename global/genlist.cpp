/*
 * genlist.cpp: CGenList, a doubly linked list of data pointers whose head
 * and tail sentinels live inside the list record.
 * No locks. Nodes come from the allocation table of genstr_p.h; the memory
 * tracer's lists take them from malloc so it never sees its own nodes.
 */
#include "zorv2000/genlist.h"

#include <stddef.h>

#include "global/genstr_p.h"

/* constructList(): links the two sentinels to each other and sets the
 * fields shared by both constructors. */
static void constructList(CGenList* list, int ownsData,
                          CGenListDestroyFn destroyData, int zeroFill) {
  CGenListNodeInit(&list->headNode, NULL, &list->tailNode, NULL);
  CGenListNodeInit(&list->tailNode, &list->headNode, NULL, NULL);
  list->head = &list->headNode;
  list->tail = &list->tailNode;
  list->zeroFillNodes = zeroFill;
  list->count = 0;
  list->ownsData = ownsData;
  list->destroyData = destroyData;
}

/* CGenListConstruct(): empty list with zero-filled nodes; returns 1. */
int CGenListConstruct(CGenList* list, int ownsData,
                      CGenListDestroyFn destroyData) {
  constructList(list, ownsData, destroyData, 1);
  return 1;
}

/* CGenListConstructForMemTracing(): empty list whose nodes come from
 * malloc; returns 1. */
int CGenListConstructForMemTracing(CGenList* list, int ownsData,
                                   CGenListDestroyFn destroyData) {
  constructList(list, ownsData, destroyData, 0);
  return 1;
}

/* CGenListPushBack(): links a new node before the tail sentinel. */
int CGenListPushBack(CGenList* list, void* data) {
  CGenListNode* pNode;
  if (list->zeroFillNodes) {
    pNode = (CGenListNode*)cGenAllocCalls.pfnCalloc(1, sizeof *pNode);
  } else {
    pNode = (CGenListNode*)cGenAllocCalls.pfnMalloc(sizeof *pNode);
  }
  if (!pNode) return 0;
  CGenListNode* pLast = list->tail->prev;
  CGenListNodeInit(pNode, pLast, list->tail, data);
  pLast->next = pNode;
  list->tail->prev = pNode;
  list->count++;
  return 1;
}

/* CGenListErase(): unlinks and frees the node at `iterator` (releasing its
 * data when the list owns it) and stores the following position. */
void CGenListErase(CGenListIter* result, CGenList* list,
                   CGenListIter iterator) {
  if (!iterator || iterator == list->tail) {
    *result = list->tail;
    return;
  }
  CGenListNode* pNext = iterator->next;
  /* The head sentinel is no data node either: erasing it would unhook the
   * list, so it only moves the position on, like erasing at the end. */
  if (iterator == list->head) {
    *result = pNext;
    return;
  }
  iterator->prev->next = iterator->next;
  iterator->next->prev = iterator->prev;
  if (list->ownsData) {
    if (list->destroyData) list->destroyData(iterator->data);
    cGenAllocCalls.pfnFree(iterator->data);
  }
  cGenAllocCalls.pfnFree(iterator);
  list->count--;
  *result = pNext;
}

/* CGenListClear(): erases from the first node until none is left. */
void CGenListClear(CGenList* list) {
  if (!list->head) return;
  while (list->count > 0 && list->head->next != list->tail) {
    CGenListIter pAfter;
    CGenListErase(&pAfter, list, list->head->next);
  }
}

/* CGenListDestruct(): the same as CGenListClear(). */
void CGenListDestruct(CGenList* list) { CGenListClear(list); }

/* CGenListGetCount(): data nodes, 0 before construction. */
int32_t CGenListGetCount(const CGenList* list) {
  return list->head ? list->count : 0;
}

/* CGenListFind(): first node whose data compares equal to key, else end. */
void CGenListFind(CGenListIter* result, const CGenList* list,
                  CGenListCompareFn compare, const void* key) {
  CGenListNode* pNode = list->head->next;
  while (pNode->next && compare(pNode->data, key) != 0) pNode = pNode->next;
  *result = pNode;
}

/* CGenListIterInit(): the first node, or the end of an empty list. */
void CGenListIterInit(CGenListIter* iter, const CGenList* list) {
  *iter = list->head->next;
}

/* CGenListIterAtEnd(): the tail sentinel is the only node without next. */
int CGenListIterAtEnd(CGenListIter iter) { return iter->next == NULL; }

/* CGenListIterGetData(): the data pointer of the node. */
void* CGenListIterGetData(CGenListIter iter) { return iter->data; }

/* CGenListIterAdv(): one node on; stays put at the end. */
void CGenListIterAdv(CGenListIter* iter) {
  if ((*iter)->next) *iter = (*iter)->next;
}

/* CGenListNodeInit(): sets the three fields of a node. */
void CGenListNodeInit(CGenListNode* node, CGenListNode* prev,
                      CGenListNode* next, void* data) {
  node->prev = prev;
  node->next = next;
  node->data = data;
}
