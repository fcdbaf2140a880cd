/*
 * client-messaging-engine_p.h: internals of the client's message table.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. The table's filling, counting, trace walk and taking out
 * (exported: the framework's servers link them), the heap call of the unit
 * as a seam, and the deadline arithmetic of the waits as a pure function.
 */
#ifndef ZORV_GLOBAL_CLIENT_MESSAGING_ENGINE_P_H
#define ZORV_GLOBAL_CLIENT_MESSAGING_ENGINE_P_H

#include <stddef.h>
#include <stdint.h>

#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/zorv-api.h"

/* Heap call of the unit: the text copy and the record of each arriving
 * message. Memory from it is released with free(). Unguarded: tests replace
 * it only while no other thread runs, and put it back. */
struct ZorvClientAllocCalls {
  void* (*pfnMalloc)(size_t size);
};
extern struct ZorvClientAllocCalls zorvClientAllocCalls;

/* Times of the waits, in milliseconds. */
enum {
  /* the last millisecond of a day, and where a clamped deadline lies */
  ZORV_CLIENT_DAY_LAST_MS = 86399999,
  ZORV_CLIENT_DAY_CLAMP_MS = 86399000,
  /* longest single wait for new data inside a transaction or a wait for a
   * type, so a message another thread moved into the table is seen soon */
  ZORV_CLIENT_WAIT_SLICE_MS = 100,
  /* one step of ZorvClientWaitForEnumCompleteMessage */
  ZORV_CLIENT_ENUM_STEP_MS = 500
};

#ifdef __cplusplus
extern "C" {
#endif

/* Results of ZorvClient_I_MoveMessagesToTable(). */
enum ZorvMoveStatus {
  ZORV_MOVE_OK = 0,
  ZORV_MOVE_NO_RECORD = 1, /* the record could not be allocated */
  ZORV_MOVE_NO_TEXT = 2    /* the text could not be copied */
};

/* ZorvClient_I_MoveMessagesToTable(): appends a copy of `text` (one message
 * without its "\r\n") to the table; the callback ZorvClientWaitForMessages()
 * hands to ZorvClientProcessMessages(). Returns a ZorvMoveStatus. */
ZORV_API int ZorvClient_I_MoveMessagesToTable(const char* text);
/* ZorvClient_I_GetWaitingMessageCount(): records in the table. */
ZORV_API int32_t ZorvClient_I_GetWaitingMessageCount(void);
/* ZorvClient_I_PrintMessages(): one trace line per record (category 10);
 * returns the count. */
ZORV_API int32_t ZorvClient_I_PrintMessages(void);
/* ZorvClient_I_GetNextMessage(): `record` (the first for null) if it is in
 * the table, taken out unless `peek` is set; null otherwise. */
ZORV_API ZorvClientMessage* ZorvClient_I_GetNextMessage(
    ZorvClientMessage* record, int peek);

#ifdef __cplusplus
}
#endif

/* ---- Hidden helpers for tests
 * ------------------------------------------------ */

/* ZorvClient_I_WaitStart(): the start of a wait of `timeoutMs` begun at
 * `now` (milliseconds after midnight UTC): `now`, or 86399000 - timeoutMs
 * (modulo 2^32) when now + timeoutMs would pass 86399999. */
uint32_t ZorvClient_I_WaitStart(uint32_t now, uint32_t timeoutMs);

#endif /* ZORV_GLOBAL_CLIENT_MESSAGING_ENGINE_P_H */
