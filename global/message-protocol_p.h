/*
 * message-protocol_p.h: internals of the message envelope unit.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the heap calls of the unit, so tests can make an
 * allocation fail and reach the out-of-memory results.
 */
#ifndef ZORV_GLOBAL_MESSAGE_PROTOCOL_P_H
#define ZORV_GLOBAL_MESSAGE_PROTOCOL_P_H

#include <stddef.h>

#include "zorv2000/message-protocol.h"

/* Heap calls of the envelope unit: the command scratch buffer, the type
 * copy, the payload buffer, the escaped copy and the field finder's element
 * stack. Memory from either entry is released with free(). Unguarded:
 * tests replace entries only while no other thread runs, and put them back.
 */
struct ZorvProtocolAllocCalls {
  void* (*pfnMalloc)(size_t size);
  void* (*pfnCalloc)(size_t count, size_t size);
};
extern struct ZorvProtocolAllocCalls zorvProtocolAllocCalls;

#endif /* ZORV_GLOBAL_MESSAGE_PROTOCOL_P_H */
