/*
 * client-messaging-engine.h: the client's message table, waits and
 * transactions.
 *
 * Every message that arrives on the connection (client-connection-manager.h)
 * is kept in a process-wide table in arrival order until a caller takes it
 * out: the reply to a request it sent (matched by RE), the next message of a
 * type, or of a type from a sender. Messages nobody takes stay. The table is
 * guarded by mutex 10; several threads may wait for their own replies at the
 * same time. All time-outs are in milliseconds. Plain C.
 */
#ifndef ZORV2000_CLIENT_MESSAGING_ENGINE_H
#define ZORV2000_CLIENT_MESSAGING_ENGINE_H

#include <stdint.h>

#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One received message. Owned by the table until taken out, then by the
 * caller, who releases it with ZorvClientFreeMessage(). The header fields are
 * read from the text on the first search that needs them. Fields in this
 * order and width. */
typedef struct ZorvClientMessage {
  char* pData; /* the envelope without its "\r\n", zero-terminated */
  struct ZorvClientMessage* pNext; /* null at the end of the table */
  int32_t re;    /* RE: 0 not looked up yet, -1 none, else the value */
  char* pType;   /* TYPE: null until looked up (owned by the record) */
  uint32_t from; /* FROM: 0 not looked up yet, or none */
} ZorvClientMessage;

/* ---- Filling the table -------------------------------------------------- */

/* ZorvClientWaitForMessages(): moves what arrives within `timeoutMs` into the
 * table and returns the number of messages in it, old and new. */
ZORV_API int32_t ZorvClientWaitForMessages(uint32_t timeoutMs, int watchInput);
/* ZorvClientCheckForMessages(): the same without waiting. */
ZORV_API int32_t ZorvClientCheckForMessages(void);

/* ---- Taking and looking ------------------------------------------------- */

/* ZorvClientGetNextMessage(): takes `record` out of the table and returns it;
 * a null `record` means the first. Null when the table is empty or `record`
 * is not in it. */
ZORV_API ZorvClientMessage* ZorvClientGetNextMessage(ZorvClientMessage* record);
/* ZorvClientPeekMessage(): the same, leaving the record in the table. Walk
 * the table as: peek null for the first, then peek the current's pNext. */
ZORV_API ZorvClientMessage* ZorvClientPeekMessage(ZorvClientMessage* record);
/* ZorvClientFindMessageWithReField(): the first record whose RE is `re`, or
 * null. The record stays in the table. */
ZORV_API ZorvClientMessage* ZorvClientFindMessageWithReField(int32_t re);
/* ZorvClientFindMessageWithTypeField(): the first record whose TYPE equals
 * `type` exactly, or null (also for a null type). Stays in the table. */
ZORV_API ZorvClientMessage* ZorvClientFindMessageWithTypeField(
    const char* type);
/* ZorvClientFindMessageWithTypeFieldAndFromPid(): the first record of that
 * type whose FROM is `pid`, or null. Stays in the table. */
ZORV_API ZorvClientMessage* ZorvClientFindMessageWithTypeFieldAndFromPid(
    uint32_t pid, const char* type);
/* ZorvClientFreeMessage(): frees a record taken out of the table. Returns 1
 * for a null record, else 0. */
ZORV_API int ZorvClientFreeMessage(ZorvClientMessage* record);

/* ---- Transactions and waits --------------------------------------------- */

/* Results of ZorvClientSendTransaction(). */
enum ZorvTransactionStatus {
  ZORV_TRANS_OK = 0,
  ZORV_TRANS_NO_ROOM = 1, /* reply stays in the table */
  ZORV_TRANS_TIMEOUT = 2,
  ZORV_TRANS_NO_ID = 100, /* plus the field finder's code: 102 missing */
  ZORV_TRANS_SEND_FAILED = 201
};

/* ZorvClientSendTransaction(): sends `message` (a whole envelope with an
 * ID) and waits up to `timeoutMs` for the message whose RE is that ID, which
 * is copied into `reply` (replySize bytes) and taken out of the table.
 * `reply` may be the buffer that holds `message`. Returns a
 * ZorvTransactionStatus; 1 when the reply's length + 1 is not smaller than
 * `replySize` (the reply then stays in the table for a call with a larger
 * buffer). A wait that would pass the end of the day (UTC) ends at
 * 86399000 ms after midnight at the latest. */
ZORV_API int ZorvClientSendTransaction(const char* message, char* reply,
                                       uint32_t replySize, uint32_t timeoutMs,
                                       int watchInput);
/* ZorvClientSendTransactionStr(): the same with the reply assigned to
 * `replyString`; 1 when the assignment fails (or the string is null). */
ZORV_API int ZorvClientSendTransactionStr(const char* message,
                                          CGenStr* replyString,
                                          uint32_t timeoutMs, int watchInput);

/* Results of ZorvClientWaitForMessage(). */
enum ZorvWaitStatus {
  ZORV_WAIT_OK = 0,
  ZORV_WAIT_NO_ROOM = 1, /* the message stays in the table */
  ZORV_WAIT_TIMEOUT = 2,
  ZORV_WAIT_NO_TYPE = 3 /* `type` null: returned once any message waits */
};

/* ZorvClientWaitForMessage(): waits up to `timeoutMs` for the oldest message
 * of `type` (from `fromPid` when that is non-zero), copies it into `buffer`
 * of `size` bytes and takes it out of the table. Returns a ZorvWaitStatus;
 * 1 when the message and its terminator do not fit. */
ZORV_API int ZorvClientWaitForMessage(char* buffer, uint32_t size,
                                      uint32_t timeoutMs, const char* type,
                                      uint32_t fromPid);
/* ZorvClientWaitForMessageStr(): the same into `string`; 1 also when the
 * string is null or not initialised, or the assignment fails. */
ZORV_API int ZorvClientWaitForMessageStr(CGenStr* string, uint32_t timeoutMs,
                                         const char* type, uint32_t fromPid);

/* ZorvClientWaitForEnumCompleteMessage(): takes messages out of the table
 * until one of type "DE_ENUM_NOTIFY" with data "ENUM_COMPLETE" comes (0).
 * Every other message met is discarded. With the table empty it waits in
 * steps of 500 ms; when those steps add up to more than `timeoutMs` it
 * returns 1. */
ZORV_API int ZorvClientWaitForEnumCompleteMessage(uint32_t timeoutMs);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_CLIENT_MESSAGING_ENGINE_H */
