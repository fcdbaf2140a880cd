/*
 * mb-router.h: what the broker does with the data read from its FIFO:
 * cutting it into messages, start-up and stop messages, routing envelopes
 * by "MSG/HDR/TO", the broker's own commands and the diagnostic engine's
 * enumeration notice.
 */
#ifndef ZORV_SERVERS_ZORV2000_MB_ROUTER_H
#define ZORV_SERVERS_ZORV2000_MB_ROUTER_H

#include <stdint.h>

/* ZorvMb_I_HandleBatch(): `length` bytes as ZorvPipeRead() handed them out
 * (whole pipe messages one after the other). Each line up to "\r\n" (and a
 * last line without one) is one message; it starts at the last message
 * start in the line ("<MSG><HDR>", "<STARTUP><READ>", "<STOP><PID>"), bytes
 * before it are dropped. `data` is changed in place. */
void ZorvMb_I_HandleBatch(char* data, int32_t length);

/* ZorvMb_I_FindMessageStart(): offset of the last message start in the
 * `length` bytes at `line`, or -1 when there is none. */
int32_t ZorvMb_I_FindMessageStart(const char* line, uint32_t length);

/* ZorvMb_I_StopRequested(): 1 once "STOP_MESSAGE_BROKER" came. */
int ZorvMb_I_StopRequested(void);

#endif /* ZORV_SERVERS_ZORV2000_MB_ROUTER_H */
