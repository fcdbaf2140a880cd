/*
 * envelope_demo: the smallest user of the flat interface, in C.
 *
 * Builds a command for the diagnostic engine around a payload with free
 * text, prints the message, reads its fields back and decodes the text.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zorv2000/zorv2000.h>

int main(void) {
  char note[] = "Disk full: 98% used <sda>";
  char payload[256];
  char field[256];
  CGenStr message;
  char* escaped;
  uint32_t id = 0;
  int32_t from = 0;
  int rc;

  /* Free text travels escaped: "@" and two hex digits per special byte. */
  escaped = ZorvXmlAllocStringAndConvertToXml(note);
  snprintf(payload, sizeof payload, "LOG_NOTE:%s", escaped);
  printf("text     : %s\nescaped  : %s\n", note, escaped);
  if (escaped != note) free(escaped);

  if (!CGenStrInit(&message)) return 1;
  rc = ZorvClientCreateDiagnosticEngineCommandStr(payload, "EN", &message);
  if (rc != 0) {
    fprintf(stderr, "building the command failed: %d\n", rc);
    return 1;
  }
  printf("message  : %s", CGenStrC_Str(&message));

  ZorvMessageGetSender(CGenStrC_Str(&message), &from);
  ZorvMessageGetMessageId(CGenStrC_Str(&message), &id);
  printf("FROM     : %ld (this process)\nID       : %lu\n", (long)from,
         (unsigned long)id);
  ZorvXmlGetField(CGenStrC_Str(&message), "MSG/HDR/TYPE", 0, field,
                  sizeof field);
  printf("TYPE     : %s\n", field);
  ZorvXmlGetField(CGenStrC_Str(&message), "MSG/HDR/LANG", 0, field,
                  sizeof field);
  printf("LANG     : %s\n", field);
  ZorvXmlGetField(CGenStrC_Str(&message), "MSG/DATA", 0, field, sizeof field);
  printf("DATA     : %s\n", field);
  ZorvXmlConvertFromXmlToText(field);
  printf("decoded  : %s\n", field);
  rc = ZorvXmlGetField(CGenStrC_Str(&message), "MSG/HDR/RE", 0, field,
                       sizeof field);
  printf("RE       : not present (status %d)\n", rc);

  CGenStrDelete(&message);
  return 0;
}
