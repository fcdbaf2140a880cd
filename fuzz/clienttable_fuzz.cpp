/*
 * clienttable_fuzz.cpp: hostile data as the client receives it: cut into
 * messages at each "\r\n", moved into the message table, searched by RE,
 * TYPE and FROM, waited for, printed and taken out again. The data is a
 * heap block of its exact size, so a read past it is caught; the table
 * must be empty at the end.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "global/client-connection-manager_p.h"
#include "global/client-messaging-engine_p.h"
#include "zorv2000/client-messaging-engine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1u << 20) return 0;
  char* text = (char*)malloc(size ? size : 1);
  if (!text) abort();
  memcpy(text, data, size);
  int32_t nSplit = ZorvClient_I_SplitMessages(text, (int32_t)size,
                                              ZorvClient_I_MoveMessagesToTable);
  free(text);
  if (ZorvClient_I_GetWaitingMessageCount() != nSplit) __builtin_trap();

  ZorvClientMessage* pRe = ZorvClientFindMessageWithReField(1);
  if (pRe && pRe->re != 1) __builtin_trap();
  ZorvClientFindMessageWithReField(-1);
  ZorvClientMessage* pType = ZorvClientFindMessageWithTypeField("DE_EVENT");
  if (pType && strcmp(pType->pType, "DE_EVENT") != 0) __builtin_trap();
  ZorvClientFindMessageWithTypeFieldAndFromPid(1, "A");
  ZorvClient_I_PrintMessages();

  /* Without a connection a wait of 0 ms only looks at the table. */
  char buffer[64];
  int rc = ZorvClientWaitForMessage(buffer, sizeof buffer, 0, "A", 0);
  if (rc == 0 && !memchr(buffer, '\0', sizeof buffer)) __builtin_trap();

  for (ZorvClientMessage* p = ZorvClientPeekMessage(NULL); p;
       p = p->pNext ? ZorvClientPeekMessage(p->pNext) : NULL) {
  }
  while (ZorvClientMessage* p = ZorvClientGetNextMessage(NULL))
    ZorvClientFreeMessage(p);
  if (ZorvClient_I_GetWaitingMessageCount() != 0) __builtin_trap();
  return 0;
}
