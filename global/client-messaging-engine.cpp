/*
 * client-messaging-engine.cpp: the client's message table (a singly linked
 * list in arrival order), the searches by RE, TYPE and FROM, and the waits
 * and transactions built on them. Holds: every ZorvClient table, wait and
 * transaction call. Mutex 10 guards the list and every record in it; a
 * record's cached header fields are filled under it too.
 */
#include "zorv2000/client-messaging-engine.h"

#include <stdlib.h>
#include <string.h>

#include "global/client-messaging-engine_p.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Lock and unlock the table, naming the caller for the mutex diagnostics. */
#define TABLE_GRAB() \
  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_MSG_TABLE, 1)
#define TABLE_RELEASE() \
  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_MSG_TABLE, 0)

/* Bytes allocated beyond a message's length for its copy. */
enum { ZORV_CLIENT_TEXT_SPARE = 5 };
/* Buffers of the end-of-enumeration test. */
enum { ZORV_CLIENT_ENUM_FIELD_SIZE = 256 };

/* Process-wide state of the unit. */
static struct {
  /* lock 10: first and last record, null when empty */
  ZorvClientMessage* pRoot;
  ZorvClientMessage* pTail;
  /* lock 10: records appended since the process started; a wait searches
   * again only when this moved */
  uint32_t nArrived;
} state;

struct ZorvClientAllocCalls zorvClientAllocCalls = {malloc};

/* What a wait looks for. */
enum WantKind { WANT_RE, WANT_TYPE, WANT_TYPE_FROM };
typedef struct Wanted {
  int kind;
  int32_t re;
  const char* type;
  uint32_t from;
} Wanted;

/* Where a found message goes and who asks. */
typedef struct Delivery {
  char* buffer; /* fixed buffer, or null when `string` is used */
  uint32_t size;
  CGenStr* string;
  int bTransaction; /* the transaction's room rule and traces */
  uint32_t start;   /* start of the wait, for the elapsed-time trace */
} Delivery;

/* A wait's memory of the table: searched at all, and at which arrival. */
typedef struct Search {
  int bDone;
  uint32_t nArrivedSeen;
} Search;

/* ---- Record fields, looked up on first need (caller holds lock 10) ------- */

/* reOf(): the record's RE, -1 when it has none. */
static int32_t reOf(ZorvClientMessage* pRecord) {
  if (pRecord->re == 0) {
    uint32_t value = 0;
    pRecord->re = ZorvMessageGetMessageRe(pRecord->pData, &value) == 0
                      ? (int32_t)value
                      : -1;
  }
  return pRecord->re;
}

/* typeOf(): the record's TYPE, null when it has none. */
static const char* typeOf(ZorvClientMessage* pRecord) {
  if (!pRecord->pType) {
    char* pType = NULL;
    if (ZorvMessageGetMessageType(pRecord->pData, &pType) == 0)
      pRecord->pType = pType;
  }
  return pRecord->pType;
}

/* fromOf(): the record's FROM, 0 when it has none. */
static uint32_t fromOf(ZorvClientMessage* pRecord) {
  if (pRecord->from == 0) {
    int32_t value = 0;
    if (ZorvMessageGetSender(pRecord->pData, &value) == 0)
      pRecord->from = (uint32_t)value;
  }
  return pRecord->from;
}

/* ---- The list (caller holds lock 10) ----------------------------------------
 */

/* countLocked(): records in the table. */
static int32_t countLocked(void) {
  int32_t nRecords = 0;
  for (ZorvClientMessage* p = state.pRoot; p; p = p->pNext) ++nRecords;
  return nRecords;
}

/* unlinkLocked(): takes `pRecord` out of the table; 1 when it was in it. */
static int unlinkLocked(ZorvClientMessage* pRecord) {
  ZorvClientMessage* pPrevious = NULL;
  ZorvClientMessage* p = state.pRoot;
  while (p && p != pRecord) {
    pPrevious = p;
    p = p->pNext;
  }
  if (!p) return 0;
  if (pPrevious)
    pPrevious->pNext = p->pNext;
  else
    state.pRoot = p->pNext;
  if (state.pTail == p) state.pTail = pPrevious;
  p->pNext = NULL;
  return 1;
}

/* findReLocked(): the first record whose RE is `re`. */
static ZorvClientMessage* findReLocked(int32_t re) {
  for (ZorvClientMessage* p = state.pRoot; p; p = p->pNext)
    if (reOf(p) == re) return p;
  return NULL;
}

/* findTypeLocked(): the first record of `type`, from `from` when bFrom. */
static ZorvClientMessage* findTypeLocked(const char* type, int bFrom,
                                         uint32_t from) {
  if (!bFrom)
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClientFindMessageWithTypeField:looking for type %s\n",
                  type ? type : "(null)");
  ZorvClientMessage* pFound = NULL;
  if (type) {
    for (ZorvClientMessage* p = state.pRoot; p && !pFound; p = p->pNext) {
      const char* pType = typeOf(p);
      /* A record without a type never matches. */
      if (!pType || strcmp(pType, type) != 0) continue;
      if (bFrom && fromOf(p) != from) continue;
      pFound = p;
    }
  }
  if (!bFrom) {
    if (pFound)
      ZORV_TRACE_AT(
          ZORV_TRC_PROGRAM,
          "ZorvClientFindMessageWithTypeField:found pClient[%p][%p]=>>%s<<\n",
          (void*)pFound, (void*)pFound->pData, pFound->pData);
    else
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "ZorvClientFindMessageWithTypeField:Not found\n");
  }
  return pFound;
}

/* findLocked(): the record a wait looks for. */
static ZorvClientMessage* findLocked(const Wanted* pWanted) {
  if (pWanted->kind == WANT_RE) return findReLocked(pWanted->re);
  return findTypeLocked(pWanted->type, pWanted->kind == WANT_TYPE_FROM,
                        pWanted->from);
}

/* ---- Filling the table
 * ---------------------------------------------------------- */

/* ZorvClient_I_MoveMessagesToTable(): appends a copy of one message. */
int ZorvClient_I_MoveMessagesToTable(const char* text) {
  if (!text) text = "";
  size_t nText = strlen(text);
  char* pText =
      (char*)zorvClientAllocCalls.pfnMalloc(nText + ZORV_CLIENT_TEXT_SPARE);
  if (!pText) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_MoveMessagesToTable:error alloc 1\n");
    return ZORV_MOVE_NO_TEXT;
  }
  memcpy(pText, text, nText);
  memset(pText + nText, 0, ZORV_CLIENT_TEXT_SPARE);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "ZorvClient_I_MoveMessagesToTable:pNewMessagedata[%p]=%s\n",
                (void*)pText, pText);
  ZorvClientMessage* pRecord =
      (ZorvClientMessage*)zorvClientAllocCalls.pfnMalloc(sizeof *pRecord);
  if (!pRecord) {
    free(pText);
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_MoveMessagesToTable:error alloc 2\n");
    return ZORV_MOVE_NO_RECORD;
  }
  pRecord->pData = pText;
  pRecord->pNext = NULL;
  pRecord->re = 0;
  pRecord->pType = NULL;
  pRecord->from = 0;

  TABLE_GRAB();
  if (!state.pRoot) {
    state.pRoot = pRecord;
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClient_I_MoveMessagesToTable:message %p added to root\n",
                  (void*)pRecord);
  } else {
    ZorvClientMessage* pLast = state.pTail;
    pLast->pNext = pRecord;
    ZORV_TRACE_AT(
        ZORV_TRC_PROGRAM,
        "ZorvClient_I_MoveMessagesToTable:message %p added to message %p\n",
        (void*)pRecord, (void*)pLast);
  }
  state.pTail = pRecord;
  ++state.nArrived;
  TABLE_RELEASE();
  return ZORV_MOVE_OK;
}

/* ZorvClient_I_GetWaitingMessageCount(): records in the table. */
int32_t ZorvClient_I_GetWaitingMessageCount(void) {
  TABLE_GRAB();
  int32_t nRecords = countLocked();
  TABLE_RELEASE();
  return nRecords;
}

/* ZorvClient_I_PrintMessages(): one trace line per record. */
int32_t ZorvClient_I_PrintMessages(void) {
  int32_t nRecords = 0;
  TABLE_GRAB();
  for (ZorvClientMessage* p = state.pRoot; p; p = p->pNext) {
    TPRINTF(ZORV_TRC_DLL, __FILE__, __LINE__, __func__,
            "RE:%ld TYPE:%s FROM:%ld NEXT:%p, %s\n", (long)p->re,
            p->pType ? p->pType : "(null)", (long)p->from, (void*)p->pNext,
            p->pData);
    ++nRecords;
  }
  TABLE_RELEASE();
  return nRecords;
}

/* ZorvClientWaitForMessages(): moves what arrives into the table. */
int32_t ZorvClientWaitForMessages(uint32_t timeoutMs, int watchInput) {
  ZorvClientProcessMessages(ZorvClient_I_MoveMessagesToTable, timeoutMs,
                            watchInput);
  return ZorvClient_I_GetWaitingMessageCount();
}

/* ZorvClientCheckForMessages(): the same without waiting. */
int32_t ZorvClientCheckForMessages(void) {
  return ZorvClientWaitForMessages(0, 0);
}

/* ---- Taking and looking
 * --------------------------------------------------------- */

/* ZorvClient_I_GetNextMessage(): a record of the table, taken or peeked. */
ZorvClientMessage* ZorvClient_I_GetNextMessage(ZorvClientMessage* record,
                                               int peek) {
  ZorvClientMessage* pFound = NULL;
  TABLE_GRAB();
  if (state.pRoot) {
    if (!record || record == state.pRoot) {
      pFound = state.pRoot;
    } else {
      for (ZorvClientMessage* p = state.pRoot->pNext; p && !pFound;
           p = p->pNext)
        if (p == record) pFound = p;
    }
    if (pFound && !peek) unlinkLocked(pFound);
  }
  TABLE_RELEASE();
  return pFound;
}

/* ZorvClientGetNextMessage(): takes a record out. */
ZorvClientMessage* ZorvClientGetNextMessage(ZorvClientMessage* record) {
  return ZorvClient_I_GetNextMessage(record, 0);
}

/* ZorvClientPeekMessage(): looks at a record. */
ZorvClientMessage* ZorvClientPeekMessage(ZorvClientMessage* record) {
  return ZorvClient_I_GetNextMessage(record, 1);
}

/* ZorvClientFindMessageWithReField(): the first record with that RE. */
ZorvClientMessage* ZorvClientFindMessageWithReField(int32_t re) {
  TABLE_GRAB();
  ZorvClientMessage* pFound = findReLocked(re);
  TABLE_RELEASE();
  return pFound;
}

/* ZorvClientFindMessageWithTypeField(): the first record of that type. */
ZorvClientMessage* ZorvClientFindMessageWithTypeField(const char* type) {
  TABLE_GRAB();
  ZorvClientMessage* pFound = findTypeLocked(type, 0, 0);
  TABLE_RELEASE();
  return pFound;
}

/* ZorvClientFindMessageWithTypeFieldAndFromPid(): type and sender. */
ZorvClientMessage* ZorvClientFindMessageWithTypeFieldAndFromPid(
    uint32_t pid, const char* type) {
  TABLE_GRAB();
  ZorvClientMessage* pFound = findTypeLocked(type, 1, pid);
  TABLE_RELEASE();
  return pFound;
}

/* ZorvClientFreeMessage(): frees a record taken out of the table. */
int ZorvClientFreeMessage(ZorvClientMessage* record) {
  if (!record) return 1;
  free(record->pData);
  free(record->pType);
  free(record);
  return 0;
}

/* ---- Deadlines
 * ------------------------------------------------------------------ */

/* ZorvClient_I_WaitStart(): the start of a wait, clamped into the day. */
uint32_t ZorvClient_I_WaitStart(uint32_t now, uint32_t timeoutMs) {
  /* Deliberate: the time of day restarts at 0 after midnight, so a deadline
   * past 86399999 would never come; the start moves back instead, and a
   * wait begun shortly before midnight ends at 86399000 at the latest,
   * possibly early. Unsigned arithmetic keeps start + time-out at 86399000
   * even for time-outs longer than that. */
  if ((uint64_t)now + timeoutMs > ZORV_CLIENT_DAY_LAST_MS)
    return (uint32_t)ZORV_CLIENT_DAY_CLAMP_MS - timeoutMs;
  return now;
}

/* remainingOf(): milliseconds left of a wait; 0 once the deadline passed
 * (also when the clock went back, as it does at midnight). */
static uint32_t remainingOf(uint32_t start, uint32_t timeoutMs) {
  uint32_t elapsed = ZorvGetTimeOfDay() - start;
  return elapsed >= timeoutMs ? 0 : timeoutMs - elapsed;
}

/* waitPass(): waits for new data for the time left, at most one slice, so
 * a message that another thread's wait moved into the table is looked at
 * soon; returns the records in the table. */
static int32_t waitPass(uint32_t start, uint32_t timeoutMs, int watchInput) {
  uint32_t wait = remainingOf(start, timeoutMs);
  if (wait > ZORV_CLIENT_WAIT_SLICE_MS) wait = ZORV_CLIENT_WAIT_SLICE_MS;
  return ZorvClientWaitForMessages(wait, watchInput);
}

/* ---- Delivering a found record
 * ---------------------------------------------------- */

/* deliverLocked(): copies `pRecord` to where the caller wants it and takes
 * it out of the table. Returns 0, or 1 (record stays) when it does not fit
 * or the string cannot take it. Caller holds lock 10. */
static int deliverLocked(ZorvClientMessage* pRecord,
                         const Delivery* pDelivery) {
  size_t nText = strlen(pRecord->pData);
  if (pDelivery->bTransaction) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClientSendTransaction Found our message\n");
  } else {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvClientWaitForMessage:found message [%p]=%s\n",
                  (void*)pRecord, pRecord->pData);
  }
  if (pDelivery->string) {
    if (!CGenStrAssignChar(pDelivery->string, pRecord->pData)) return 1;
  } else {
    /* Deliberate: a transaction's reply needs one byte more than the text
     * and its terminator (length + 1 must be smaller than the size), a
     * waited-for message only the two. Callers size reply buffers with room
     * to spare. */
    int bNoRoom = pDelivery->bTransaction ? nText + 1 >= pDelivery->size
                                          : nText + 1 > pDelivery->size;
    if (!pDelivery->buffer || bNoRoom) {
      if (!pDelivery->bTransaction)
        ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                      "ZorvClientWaitForMessage:not enough space\n");
      return 1;
    }
    memmove(pDelivery->buffer, pRecord->pData, nText + 1);
  }
  unlinkLocked(pRecord);
  if (!pDelivery->bTransaction) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvClientWaitForMessage:found it\n");
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Elapsed Time %lu\n",
                  (unsigned long)(ZorvGetTimeOfDay() - pDelivery->start));
  }
  return 0;
}

/* takeIfArrived(): when the table got new records since the last look,
 * searches it and delivers what it finds. Returns 0 or 1 as
 * deliverLocked() when found, -1 when not. */
static int takeIfArrived(const Wanted* pWanted, const Delivery* pDelivery,
                         Search* pSearch) {
  int rc = -1;
  ZorvClientMessage* pTaken = NULL;
  TABLE_GRAB();
  if (state.pRoot &&
      (!pSearch->bDone || pSearch->nArrivedSeen != state.nArrived)) {
    pSearch->bDone = 1;
    pSearch->nArrivedSeen = state.nArrived;
    if (!pDelivery->bTransaction) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "ZorvClientWaitForMessage:ZorvClientWaitForMessages found "
                    "messages\n");
      if (pWanted->kind == WANT_TYPE)
        ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                      "ZorvClientWaitForMessage:Checking "
                      "ZorvClientFindMessageWithTypeField\n");
    }
    ZorvClientMessage* pFound = findLocked(pWanted);
    if (pFound) {
      rc = deliverLocked(pFound, pDelivery);
      if (rc == 0) pTaken = pFound;
    }
  }
  TABLE_RELEASE();
  ZorvClientFreeMessage(pTaken);
  return rc;
}

/* ---- Transactions
 * ------------------------------------------------------------------ */

/* sendTransaction(): sends a request and waits for the record whose RE is
 * the request's ID. */
static int sendTransaction(const char* message, Delivery* pDelivery,
                           uint32_t timeoutMs, int watchInput) {
  uint32_t id = 0;
  int rc = ZorvMessageGetMessageId(message, &id);
  if (rc != 0) return ZORV_TRANS_NO_ID + rc;
  if (ZorvClientSendMessage(message) != 0) return ZORV_TRANS_SEND_FAILED;
  uint32_t start = ZorvClient_I_WaitStart(ZorvGetTimeOfDay(), timeoutMs);
  pDelivery->start = start;
  Wanted wanted = {WANT_RE, (int32_t)id, NULL, 0};
  Search search = {0, 0};
  int bWaited = 0;
  for (;;) {
    rc = takeIfArrived(&wanted, pDelivery, &search);
    if (rc >= 0) return rc;
    if (bWaited && remainingOf(start, timeoutMs) == 0)
      return ZORV_TRANS_TIMEOUT;
    uint32_t passStart = ZorvMilliSeconds();
    int32_t nWaiting = waitPass(start, timeoutMs, watchInput);
    bWaited = 1;
    if (nWaiting > 0)
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "ZorvClientSendTransaction elapsed time %lu\n",
                    (unsigned long)(ZorvMilliSeconds() - passStart));
  }
}

/* ZorvClientSendTransaction(): request and reply into a fixed buffer. */
int ZorvClientSendTransaction(const char* message, char* reply,
                              uint32_t replySize, uint32_t timeoutMs,
                              int watchInput) {
  Delivery delivery = {reply, replySize, NULL, 1, 0};
  return sendTransaction(message, &delivery, timeoutMs, watchInput);
}

/* ZorvClientSendTransactionStr(): request and reply into a string. */
int ZorvClientSendTransactionStr(const char* message, CGenStr* replyString,
                                 uint32_t timeoutMs, int watchInput) {
  if (!replyString) return ZORV_TRANS_NO_ROOM;
  Delivery delivery = {NULL, 0, replyString, 1, 0};
  return sendTransaction(message, &delivery, timeoutMs, watchInput);
}

/* ---- Waits
 * ------------------------------------------------------------------------- */

/* waitForMessage(): waits for the oldest record of a type (and sender). */
static int waitForMessage(Delivery* pDelivery, uint32_t timeoutMs,
                          const char* type, uint32_t fromPid) {
  uint32_t start = ZorvClient_I_WaitStart(ZorvGetTimeOfDay(), timeoutMs);
  pDelivery->start = start;
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Start Time %lu,Time Out %d \n",
                (unsigned long)start, (int)timeoutMs);
  Wanted wanted = {fromPid ? WANT_TYPE_FROM : WANT_TYPE, 0, type, fromPid};
  Search search = {0, 0};
  int bWaited = 0;
  for (;;) {
    if (!type) {
      if (ZorvClient_I_GetWaitingMessageCount() > 0) {
        ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                      "ZorvClientWaitForMessage:ZorvClientWaitForMessages "
                      "found messages\n");
        return ZORV_WAIT_NO_TYPE;
      }
    } else {
      int rc = takeIfArrived(&wanted, pDelivery, &search);
      if (rc >= 0) return rc;
    }
    if (bWaited && remainingOf(start, timeoutMs) == 0) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvClientWaitForMessage:timeout\n");
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Elapsed Time %lu\n",
                    (unsigned long)(ZorvGetTimeOfDay() - start));
      return ZORV_WAIT_TIMEOUT;
    }
    waitPass(start, timeoutMs, 0);
    bWaited = 1;
  }
}

/* ZorvClientWaitForMessage(): the oldest message of a type into a buffer. */
int ZorvClientWaitForMessage(char* buffer, uint32_t size, uint32_t timeoutMs,
                             const char* type, uint32_t fromPid) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "ZorvClientWaitForMessage: wait %i ms for %s or %lu (buffer "
                "size %i)\n",
                (int)timeoutMs, type ? type : "(null)", (unsigned long)fromPid,
                (int)size);
  Delivery delivery = {buffer, size, NULL, 0, 0};
  return waitForMessage(&delivery, timeoutMs, type, fromPid);
}

/* ZorvClientWaitForMessageStr(): the same into a string. */
int ZorvClientWaitForMessageStr(CGenStr* string, uint32_t timeoutMs,
                                const char* type, uint32_t fromPid) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "ZorvClientWaitForMessage: wait %i ms for %s or %lu \n",
                (int)timeoutMs, type ? type : "(null)", (unsigned long)fromPid);
  if (!string || !CGenStrIsInit(string)) return ZORV_WAIT_NO_ROOM;
  Delivery delivery = {NULL, 0, string, 0, 0};
  return waitForMessage(&delivery, timeoutMs, type, fromPid);
}

/* isEnumComplete(): the diagnostic engine's end-of-enumeration notice. */
static int isEnumComplete(const char* text) {
  char szType[ZORV_CLIENT_ENUM_FIELD_SIZE];
  char szData[ZORV_CLIENT_ENUM_FIELD_SIZE];
  if (ZorvXmlGetField(text, "MSG/HDR/TYPE", 0, szType, sizeof szType) != 0 ||
      strcmp(szType, "DE_ENUM_NOTIFY") != 0)
    return 0;
  return ZorvXmlGetField(text, "MSG/DATA", 0, szData, sizeof szData) == 0 &&
         strcmp(szData, "ENUM_COMPLETE") == 0;
}

/* ZorvClientWaitForEnumCompleteMessage(): consumes the table until the
 * end-of-enumeration notice comes. */
int ZorvClientWaitForEnumCompleteMessage(uint32_t timeoutMs) {
  uint64_t nWaited = 0;
  for (;;) {
    ZorvClientMessage* pRecord = ZorvClientGetNextMessage(NULL);
    if (pRecord) {
      int bDone = isEnumComplete(pRecord->pData);
      if (!bDone)
        ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                      "ZorvClientWaitForEnumCompleteMessage discarding %s\n",
                      pRecord->pData);
      /* Deliberate: every other message met here is thrown away, replies and
       * notices alike; a controller waits for the enumeration before it asks
       * anything, so nothing it needs can be among them. */
      ZorvClientFreeMessage(pRecord);
      if (bDone) return 0;
      continue;
    }
    /* Deliberate: only these waits count toward the time-out; the time
     * spent taking messages out does not. */
    ZorvClientWaitForMessages(ZORV_CLIENT_ENUM_STEP_MS, 0);
    nWaited += ZORV_CLIENT_ENUM_STEP_MS;
    if (nWaited > timeoutMs) return 1;
  }
}
