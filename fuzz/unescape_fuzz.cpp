/*
 * unescape_fuzz.cpp: hostile input for decoding, and the round trip of
 * escaping then decoding. Texts sit in heap blocks of their exact size, so
 * any read past the terminator is caught.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zorv2000/message-protocol.h"

/* copyText(): n bytes from p as a NUL-terminated heap block of n + 1. */
static char* copyText(const uint8_t* p, size_t n) {
  char* text = (char*)malloc(n + 1);
  if (!text) abort();
  memcpy(text, p, n);
  text[n] = '\0';
  return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  /* Decoding never lengthens a text. */
  char* text = copyText(data, size);
  size_t nBefore = strlen(text);
  if (ZorvXmlConvertFromXmlToText(text) != 0) __builtin_trap();
  if (strlen(text) > nBefore) __builtin_trap();
  free(text);

  /* Escaping then decoding gives back a text without NUL bytes. */
  if (memchr(data, '\0', size) != NULL) return 0;
  char* original = copyText(data, size);
  char* escaped = ZorvXmlAllocStringAndConvertToXml(original);
  if (!escaped) __builtin_trap();
  size_t nEscaped = strlen(escaped);
  char* decoded = copyText((const uint8_t*)escaped, nEscaped);
  if (escaped != original) {
    if (strchr(escaped, '<') || strchr(escaped, '>') || strchr(escaped, '&')) {
      __builtin_trap();
    }
    free(escaped);
  }
  ZorvXmlConvertFromXmlToText(decoded);
  if (strlen(decoded) != size || memcmp(decoded, data, size) != 0) {
    __builtin_trap();
  }
  free(decoded);
  free(original);
  return 0;
}
