/*
 * fieldfinder_fuzz.cpp: hostile input for the field finder and the packet
 * readers. The first byte picks the occurrence index, the bytes up to the
 * first newline are the path, the rest is the message text. Both texts sit
 * in heap blocks of their exact size, so any read past them is caught.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"

/* copyText(): n bytes from p as a NUL-terminated heap block of n + 1. */
static char* copyText(const uint8_t* p, size_t n) {
  char* text = (char*)malloc(n + 1);
  if (!text) abort();
  memcpy(text, p, n);
  text[n] = '\0';
  return text;
}

/* checkFound(): the element's positions lie inside the text, in order, and
 * the content sits between them. */
static void checkFound(const char* text, const char* pStart, const char* pEnd,
                       const CGenStr* content) {
  size_t nText = strlen(text);
  if (!pStart || !pEnd) __builtin_trap();
  if (pStart < text || pEnd > text + nText || pStart >= pEnd) {
    __builtin_trap();
  }
  if (*pStart != '<' || pEnd[-1] != '>') __builtin_trap();
  size_t nContent = strlen(content->buffer);
  if (nContent > (size_t)(pEnd - pStart)) __builtin_trap();
  if (!strstr(pStart, content->buffer)) __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  int32_t index = (int8_t)data[0] % 4;
  const uint8_t* rest = data + 1;
  size_t nRest = size - 1;
  const uint8_t* newline = (const uint8_t*)memchr(rest, '\n', nRest);
  size_t nPath = newline ? (size_t)(newline - rest) : 0;
  const uint8_t* body = newline ? newline + 1 : rest;
  size_t nBody = nRest - (size_t)(body - rest);
  char* path = copyText(rest, nPath);
  char* text = copyText(body, nBody);

  CGenStr content;
  if (!CGenStrInit(&content)) abort();
  const char* pStart = NULL;
  const char* pEnd = NULL;
  int rc = ZorvXmlGetFieldStrAndTagStartEnd(text, &pStart, &pEnd, path, index,
                                            &content);
  if (rc < 0 || rc > 2) __builtin_trap();
  if (rc == 0) checkFound(text, pStart, pEnd, &content);
  CGenStrDelete(&content);

  /* A small fixed buffer of its exact size. */
  char* small = (char*)malloc(16);
  if (!small) abort();
  rc = ZorvXmlGetField(text, path, index, small, 16);
  if (rc < 0 || rc > 2) __builtin_trap();
  if (memchr(small, '\0', 16) == NULL) __builtin_trap();
  free(small);

  static const char* const kTable[] = {"START", "STOP", "NLS_COMMAND", NULL};
  int position = ZorvParsePacketType(text, kTable);
  if (position < 0 || position > 3) __builtin_trap();
  char payload[32];
  position = ZorvParsePacketHeaderAndData(text, NULL, NULL, kTable, payload,
                                          sizeof payload);
  if (position < -1 || position > 3) __builtin_trap();
  char* type = NULL;
  if (ZorvMessageGetMessageType(text, &type) == 0) free(type);

  free(text);
  free(path);
  return 0;
}
