/*
 * nlsreply_fuzz.cpp: hostile NLS engine replies for the translation picker,
 * and hostile messages for the tag scanner of message translation and for
 * adding variables. Input: two bytes of language, then the reply. Every
 * text is a heap block of its exact size, so a read past it is caught.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "global/nls-access_p.h"
#include "zorv2000/genstr.h"
#include "zorv2000/nls-access.h"

/* copyText(): `size` bytes of `data` as a zero-terminated heap text. */
static char* copyText(const uint8_t* data, size_t size) {
  char* text = (char*)malloc(size + 1);
  if (!text) abort();
  memcpy(text, data, size);
  text[size] = '\0';
  return text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  char language[3] = {(char)data[0], (char)data[1], '\0'};
  char* reply = copyText(data + 2, size - 2);
  CGenStr result;
  if (!CGenStrInit(&result)) abort();
  char returned[3] = {'?', '?', '?'};
  static const char kTag[] = "<NLS id=X/>";
  if (ZorvNls_I_PickTranslation(reply, kTag, language, returned, &result)) {
    /* Either the tag itself, or a text of the reply, never longer. */
    if (returned[2] != '\0') __builtin_trap();
    if (strcmp(result.buffer, kTag) != 0 && strlen(result.buffer) > size) {
      __builtin_trap();
    }
  }
  free(reply);

  /* The same bytes as a message whose tags are translated. Without a
   * connection every lookup fails at once and the tags stay as they are,
   * so the result must equal the message. */
  char* message = copyText(data, size);
  if (ZorvGetNlsMessageWithXmlMessage(message, "EN", &result) &&
      strcmp(result.buffer, message) != 0) {
    __builtin_trap();
  }
  free(message);

  /* The bytes as a variable's value (and, split, as its name). */
  char* value = copyText(data, size);
  if (!CGenStrAssignChar(&result, "<NLS id=X/>")) abort();
  int rc = ZorvNlsAddVariableToTagStr(&result, "v", value);
  if (rc == 0 &&
      (strncmp(result.buffer, "<NLS id=X v=", 12) != 0 ||
       strchr(result.buffer + 12, ' ') || strchr(result.buffer + 12, '='))) {
    __builtin_trap();
  }
  rc = ZorvNlsAddVariableToTagStr(&result, value, "1");
  (void)rc;
  free(value);
  CGenStrDelete(&result);
  return 0;
}
