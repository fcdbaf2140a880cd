/*
 * gettag_fuzz.cpp: hostile input for the tag reader, with name buffers from
 * none to large. The text and every name buffer are heap blocks of their
 * exact size, so a read or write past them is caught.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zorv2000/message-protocol.h"

/* checkTag(): the result lies inside the text at ">" or at the "/" of
 * "/>", and the name fits its buffer. */
static void checkTag(const char* text, uint32_t nameSize) {
  char* name = nameSize ? (char*)malloc(nameSize) : NULL;
  if (nameSize && !name) abort();
  if (name) memset(name, 'Z', nameSize);
  const char* pEnd = ZorvXmlGetTag(text, name, nameSize);
  if (pEnd) {
    if (pEnd < text || pEnd >= text + strlen(text)) __builtin_trap();
    if (*pEnd != '>' && !(*pEnd == '/' && pEnd[1] == '>')) __builtin_trap();
    if (*pEnd == '>' && name && !memchr(name, '\0', nameSize)) {
      __builtin_trap();
    }
  }
  free(name);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* text = (char*)malloc(size + 1);
  if (!text) abort();
  memcpy(text, data, size);
  text[size] = '\0';
  static const uint32_t kSizes[] = {0, 1, 2, 4, 40, 4096};
  for (size_t i = 0; i < sizeof kSizes / sizeof kSizes[0]; ++i) {
    checkTag(text, kSizes[i]);
  }
  free(text);
  return 0;
}
