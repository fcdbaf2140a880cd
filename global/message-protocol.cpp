/*
 * message-protocol.cpp: the message envelope. Builds headers, messages and
 * server commands, finds fields by slash paths, classifies received packets
 * and escapes free text. No locks and no input or output here: the pipe
 * layer sends what this builds. Traces go to category 3.
 */
#include "zorv2000/message-protocol.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "global/message-protocol_p.h"
#include "zorv2000/genstr.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* The heap calls of the unit; tests swap an entry to fail an allocation. */
struct ZorvProtocolAllocCalls zorvProtocolAllocCalls = {
    malloc, /* pfnMalloc: payload buffer, element stack */
    calloc, /* pfnCalloc: command scratch, type copy, escaped copy */
};

/* Room for one element name on the finder's stack: 39 characters and 0. */
typedef char ZorvElementName[ZORV_FIELD_MAX_NAME];

/* Process-wide state of the unit. */
static struct {
  /* unguarded: headers are built on one sending thread at a time; starts
   * at 1 and is never reset */
  uint32_t nextMessageId;
  /* unguarded: set once, after permitted[] is filled; two first callers
   * racing would only fill the table twice with the same values */
  int bTableBuilt;
  /* unguarded: filled once before bTableBuilt; 1 = sent as it is */
  unsigned char permitted[128];
} protocolState = {1, 0, {0}};

/* Everything besides the letters that travels unescaped: the space, the
 * digits and twenty punctuation characters, in the order the table is
 * built from. IsBadXmlIdentifier() uses the same set without the space. */
static const char kPermittedChars[] = " 0123456789$-_.+!*'(),{}|\\^~[]`";

/* The four root tags whose messages end in "\r\n". */
static const char* const kTopLevelTags[] = {"MSG", "STOP", "ACK", "STARTUP"};

/* Most entries of a packet table that are looked at. */
enum { ZORV_PACKET_TABLE_MAX = 100 };

/* Scratch and field buffer sizes of the builders and header readers. */
enum {
  ZORV_HEADER_BUFFER = 200,
  ZORV_NUMBER_FIELD = 80,
  ZORV_TYPE_FIELD = 100
};

/* ---- Small helpers ------------------------------------------------------- */

/* isAsciiLetter(): "a" to "z" or "A" to "Z", whatever the locale. */
static int isAsciiLetter(int ch) {
  return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
}

/* isAsciiDigit(): "0" to "9". */
static int isAsciiDigit(int ch) { return ch >= '0' && ch <= '9'; }

/* hexValue(): value of one hexadecimal digit of either case, else -1. */
static int hexValue(char ch) {
  if (ch >= '0' && ch <= '9') return ch - '0';
  if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
  if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
  return -1;
}

/* layStringOverBuffer(): a fixed CGenStr over the caller's `size` bytes,
 * holding an empty text. The capacity counts every byte, so a text of
 * size - 1 characters still fits with its terminator. size must be > 0. */
static void layStringOverBuffer(CGenStr* s, char* buffer, uint32_t size) {
  buffer[0] = '\0';
  s->buffer = buffer;
  s->length = 1;
  s->capacity = size;
  s->growable = 0;
}

/* appendPiece(): appends `text`. When a fixed string has no room for all of
 * it, the room left is filled with its first characters, so a cut message
 * is the longest prefix that fits. 1 when all of it went in, else 0. */
static int appendPiece(CGenStr* s, const char* text) {
  if (CGenStrCatChar(s, text)) return 1;
  if (!s->growable && s->buffer) {
    while (*text && CGenStrCatC(s, *text)) ++text;
  }
  return 0;
}

/* isTopLevelTag(): whether `tag` is one of the four root tags. */
static int isTopLevelTag(const char* tag) {
  for (size_t i = 0; i < sizeof kTopLevelTags / sizeof kTopLevelTags[0]; ++i) {
    if (strcmp(tag, kTopLevelTags[i]) == 0) return 1;
  }
  return 0;
}

/* buildMessageV(): replaces the text of `s` by "<tag>", the parts up to the
 * null one, "</tag>" and, for a root tag, "\r\n". Stops at the first piece
 * that does not go in (a failed growth may have dropped the buffer). 1 when
 * the whole message went in, else 0. */
static int buildMessageV(CGenStr* s, const char* tag, va_list parts) {
  /* A record whose growth failed has no buffer and counts as empty. */
  if (s->buffer) CGenStrClear(s);
  if (!tag) return 0;
  if (tag[0] == '<') ++tag;
  if (!appendPiece(s, "<") || !appendPiece(s, tag) || !appendPiece(s, ">")) {
    return 0;
  }
  for (const char* part = va_arg(parts, const char*); part;
       part = va_arg(parts, const char*)) {
    if (!appendPiece(s, part)) return 0;
  }
  if (!appendPiece(s, "</") || !appendPiece(s, tag) || !appendPiece(s, ">")) {
    return 0;
  }
  if (isTopLevelTag(tag) && !appendPiece(s, "\r\n")) return 0;
  return 1;
}

/* buildMessage(): buildMessageV() with the parts as arguments. */
static int buildMessage(CGenStr* s, const char* tag, ...) {
  va_list parts;
  va_start(parts, tag);
  int bWhole = buildMessageV(s, tag, parts);
  va_end(parts);
  return bWhole;
}

/* ---- Ids ----------------------------------------------------------------- */

/* ZorvGetLocallyUniqueMessageId(): hands out the counter and advances it. */
uint32_t ZorvGetLocallyUniqueMessageId(void) {
  return protocolState.nextMessageId++;
}

/* ZorvGetLocalProcessId(): the cached client pid. */
int32_t ZorvGetLocalProcessId(void) { return ZorvGetClientPid(); }

/* ZorvGetProcessIdString(): "%lu" of pid, or an empty text. */
void ZorvGetProcessIdString(uint32_t pid, char* buffer, uint32_t size) {
  if (!buffer || size == 0) return;
  buffer[0] = '\0';
  /* Deliberate: a buffer of 9 bytes or less stays empty even when the pid
   * would fit; an empty id is easier to notice than a cut one. */
  if (size > 9) snprintf(buffer, size, "%lu", (unsigned long)pid);
}

/* ZorvGetLocalProcessIdString(): the same for the cached client pid. */
void ZorvGetLocalProcessIdString(char* buffer, uint32_t size) {
  ZorvGetProcessIdString((uint32_t)ZorvGetLocalProcessId(), buffer, size);
}

/* ZorvGetProcessIdFromString(): decimal value, -1 for null. */
int32_t ZorvGetProcessIdFromString(const char* text) {
  if (!text) return -1;
  return (int32_t)ZorvAToL(text);
}

/* ---- Test flags ---------------------------------------------------------- */

/* Bits of the test flag byte. */
enum {
  ZORV_FLAG_INTERACTIVE = 0x01,
  ZORV_FLAG_FIXTURE_NEEDED = 0x02,
  ZORV_FLAG_FIXTURE_PROMPT_EVERY_RUN = 0x04,
  ZORV_FLAG_RISKY = 0x08,
  ZORV_FLAG_DESTRUCTIVE = 0x10,
  ZORV_FLAG_SOFTWARE_DIAG = 0x20,
  ZORV_FLAG_SELF_FIX_POSSIBLE = 0x40,
  ZORV_FLAG_SELF_HELP = 0x80
};

/* ZorvGetFlagInteractive(): bit 0x01. */
int ZorvGetFlagInteractive(uint8_t flags) {
  return (flags & ZORV_FLAG_INTERACTIVE) ? 1 : 0;
}

/* ZorvGetFlagFixtureNeeded(): bit 0x02. */
int ZorvGetFlagFixtureNeeded(uint8_t flags) {
  return (flags & ZORV_FLAG_FIXTURE_NEEDED) ? 1 : 0;
}

/* ZorvGetFlagShowFixturePromptEveryRun(): bit 0x04. */
int ZorvGetFlagShowFixturePromptEveryRun(uint8_t flags) {
  return (flags & ZORV_FLAG_FIXTURE_PROMPT_EVERY_RUN) ? 1 : 0;
}

/* ZorvGetFlagIsRisky(): bit 0x08. */
int ZorvGetFlagIsRisky(uint8_t flags) {
  return (flags & ZORV_FLAG_RISKY) ? 1 : 0;
}

/* ZorvGetFlagIsDestructive(): bit 0x10. */
int ZorvGetFlagIsDestructive(uint8_t flags) {
  return (flags & ZORV_FLAG_DESTRUCTIVE) ? 1 : 0;
}

/* ZorvGetFlagIsSoftwareDiag(): bit 0x20. */
int ZorvGetFlagIsSoftwareDiag(uint8_t flags) {
  return (flags & ZORV_FLAG_SOFTWARE_DIAG) ? 1 : 0;
}

/* ZorvGetFlagSelfFixPossible(): bit 0x40. */
int ZorvGetFlagSelfFixPossible(uint8_t flags) {
  return (flags & ZORV_FLAG_SELF_FIX_POSSIBLE) ? 1 : 0;
}

/* ZorvGetFlagSelfHelp(): bit 0x80. */
int ZorvGetFlagSelfHelp(uint8_t flags) {
  return (flags & ZORV_FLAG_SELF_HELP) ? 1 : 0;
}

/* ---- Building ------------------------------------------------------------ */

/* ZorvXmlAddField(): appends "<tag>value</tag>"; 1 without writing when it
 * does not fit, or when buffer, tag or value is null or the buffer holds no
 * terminated text within size. */
int ZorvXmlAddField(char* buffer, uint32_t size, const char* tag,
                    const char* value) {
  if (!buffer || !tag || !value) return 1;
  size_t nUsed = strnlen(buffer, size);
  if (nUsed == size) return 1;
  size_t nTag = strlen(tag);
  size_t nValue = strlen(value);
  uint64_t needed = (uint64_t)nUsed + 2 * (uint64_t)nTag + nValue + 6;
  if ((uint64_t)size < needed) return 1;
  char* p = buffer + nUsed;
  *p++ = '<';
  memcpy(p, tag, nTag);
  p += nTag;
  *p++ = '>';
  memcpy(p, value, nValue);
  p += nValue;
  *p++ = '<';
  *p++ = '/';
  memcpy(p, tag, nTag);
  p += nTag;
  *p++ = '>';
  *p = '\0';
  return 0;
}

/* ZorvCreateMessageHeader(): "<HDR>" FROM TO ID [RE] TYPE TIME [LANG]
 * "</HDR>"; a ZorvHeaderStatus. */
int ZorvCreateMessageHeader(char* buffer, uint32_t size, const char* to,
                            const char* re, const char* type,
                            const char* lang) {
  if (!buffer || !to || !type) return ZORV_HDR_NULL_ARGUMENT;
  if (size < 6) return ZORV_HDR_BUFFER_TOO_SMALL;
  memcpy(buffer, "<HDR>", 6);

  char value[ZORV_NUMBER_FIELD];
  ZorvGetLocalProcessIdString(value, sizeof value);
  if (ZorvXmlAddField(buffer, size, "FROM", value)) return ZORV_HDR_FROM;
  if (ZorvXmlAddField(buffer, size, "TO", to)) return ZORV_HDR_TO;
  snprintf(value, sizeof value, "%lu",
           (unsigned long)ZorvGetLocallyUniqueMessageId());
  if (ZorvXmlAddField(buffer, size, "ID", value)) return ZORV_HDR_ID;
  if (re && ZorvXmlAddField(buffer, size, "RE", re)) return ZORV_HDR_RE;
  if (ZorvXmlAddField(buffer, size, "TYPE", type)) return ZORV_HDR_TYPE;

  ZorvDateTime now;
  memset(&now, 0, sizeof now);
  ZorvGetUtcTime(&now);
  char date[ZORV_NUMBER_FIELD];
  snprintf(date, sizeof date, "%04u%02u%02u%02lu%02lu%02lu", now.year,
           now.month, now.day, (unsigned long)now.hour,
           (unsigned long)now.minute, (unsigned long)now.second);
  char stamp[ZORV_NUMBER_FIELD + 24];
  snprintf(stamp, sizeof stamp, "%s%03lu", date,
           (unsigned long)now.milliseconds);
  if (ZorvXmlAddField(buffer, size, "TIME", stamp)) return ZORV_HDR_TIME;

  /* Deliberate: LANG reports 10 and the closing tag 9, out of element
   * order: callers compare against these numbers. */
  if (lang && ZorvXmlAddField(buffer, size, "LANG", lang)) {
    return ZORV_HDR_LANG;
  }
  size_t nUsed = strlen(buffer);
  if ((uint64_t)size < (uint64_t)nUsed + 3 + 4) return ZORV_HDR_CLOSE;
  memcpy(buffer + nUsed, "</HDR>", 7);
  return ZORV_HDR_OK;
}

/* ZorvCreateMessage(): "<tag>" parts "</tag>" into a fixed buffer; 0, or 2
 * when it does not fit whole (the buffer then holds the longest prefix that
 * fits). A null buffer, a zero size or a null tag also give 2. */
int ZorvCreateMessage(char* buffer, uint32_t size, const char* tag, ...) {
  if (!buffer || size == 0) return 2;
  CGenStr s;
  layStringOverBuffer(&s, buffer, size);
  va_list parts;
  va_start(parts, tag);
  int bWhole = buildMessageV(&s, tag, parts);
  va_end(parts);
  return bWhole ? 0 : 2;
}

/* ZorvCreateMessageStr(): the same into `string`, content replaced. A null
 * string or tag builds nothing. Returns 0. */
int ZorvCreateMessageStr(CGenStr* string, const char* tag, ...) {
  if (!string) return 0;
  va_list parts;
  va_start(parts, tag);
  /* Deliberate: a string that cannot grow is not reported; the text stops
   * at the last piece that went in and the result is still 0, which the
   * command builders pass on as success. */
  (void)buildMessageV(string, tag, parts);
  va_end(parts);
  return 0;
}

/* createEngineCommand(): ZorvClientCreateEngineCommand(); *pbWhole tells
 * whether the MSG element went into `string` whole, which the fixed-buffer
 * forms need because the builder itself does not say. */
static int createEngineCommand(const char* to, const char* lang,
                               const char* type, const char* data,
                               CGenStr* string, int* pbWhole) {
  *pbWhole = 0;
  if (!string) return ZORV_CMD_DATA;
  size_t nData = data ? strlen(data) : 0;
  size_t nDataTag = sizeof "DATA" - 1;
  if (nData > UINT32_MAX - 2 * nDataTag - 10) return ZORV_CMD_NO_MEMORY;
  size_t nScratch = nData + 2 * nDataTag + 10;
  char* scratch = (char*)zorvProtocolAllocCalls.pfnCalloc(nScratch, 1);
  if (!scratch) return ZORV_CMD_NO_MEMORY;

  char header[ZORV_HEADER_BUFFER];
  header[0] = '\0';
  if (ZorvCreateMessageHeader(header, sizeof header, to, NULL, type, lang) !=
      ZORV_HDR_OK) {
    free(scratch);
    return ZORV_CMD_HEADER;
  }
  if (!data || ZorvCreateMessage(scratch, (uint32_t)nScratch, "DATA", data,
                                 (const char*)NULL) != 0) {
    free(scratch);
    return ZORV_CMD_DATA;
  }
  *pbWhole = buildMessage(string, "MSG", header, scratch, (const char*)NULL);
  free(scratch);
  /* Deliberate: ZORV_CMD_MESSAGE is never returned: the MSG builder does
   * not report a string that could not grow, so neither does this. */
  return ZORV_CMD_OK;
}

/* ZorvClientCreateEngineCommand(): a whole command message into `string`;
 * a ZorvCommandStatus. A null data or string gives 2. */
int ZorvClientCreateEngineCommand(const char* to, const char* lang,
                                  const char* type, const char* data,
                                  CGenStr* string) {
  int bWhole;
  return createEngineCommand(to, lang, type, data, string, &bWhole);
}

/* createCommandInBuffer(): a command without LANG into a fixed buffer; the
 * builder's failure code, else 2 when the message and its terminator do not
 * fit (the buffer then holds the longest prefix that fits), else 0. */
static int createCommandInBuffer(const char* to, const char* type,
                                 const char* data, char* buffer,
                                 uint32_t size) {
  if (!buffer || size == 0) return 2;
  CGenStr s;
  layStringOverBuffer(&s, buffer, size);
  int bWhole;
  int rc = createEngineCommand(to, NULL, type, data, &s, &bWhole);
  if (rc != ZORV_CMD_OK) return rc;
  return bWhole ? 0 : 2;
}

/* ZorvClientCreateMessageBrokerCommand(): "MBCMD" to "MESSAGEBROKER". */
int ZorvClientCreateMessageBrokerCommand(const char* data, char* buffer,
                                         uint32_t size) {
  return createCommandInBuffer("MESSAGEBROKER", "MBCMD", data, buffer, size);
}

/* ZorvClientCreateDiagnosticEngineCommand(): "DE_COMMAND" to
 * "DIAGENGINE". */
int ZorvClientCreateDiagnosticEngineCommand(const char* data, const char* lang,
                                            char* buffer, uint32_t size) {
  /* Deliberate: lang is accepted and left out, unlike the CGenStr form:
   * callers of this form get the header without LANG they always got. */
  (void)lang;
  return createCommandInBuffer("DIAGENGINE", "DE_COMMAND", data, buffer, size);
}

/* ZorvClientCreateNlsEngineCommand(): "NLS_COMMAND" to "NLSENGINE". */
int ZorvClientCreateNlsEngineCommand(const char* data, char* buffer,
                                     uint32_t size) {
  return createCommandInBuffer("NLSENGINE", "NLS_COMMAND", data, buffer, size);
}

/* ZorvClientCreateMessageBrokerCommandStr(): "MBCMD" to "MESSAGEBROKER". */
int ZorvClientCreateMessageBrokerCommandStr(const char* data, CGenStr* string) {
  return ZorvClientCreateEngineCommand("MESSAGEBROKER", NULL, "MBCMD", data,
                                       string);
}

/* ZorvClientCreateDiagnosticEngineCommandStr(): "DE_COMMAND" to
 * "DIAGENGINE", with LANG when lang is not null. */
int ZorvClientCreateDiagnosticEngineCommandStr(const char* data,
                                               const char* lang,
                                               CGenStr* string) {
  return ZorvClientCreateEngineCommand("DIAGENGINE", lang, "DE_COMMAND", data,
                                       string);
}

/* ZorvClientCreateNlsEngineCommandStr(): "NLS_COMMAND" to "NLSENGINE". */
int ZorvClientCreateNlsEngineCommandStr(const char* data, CGenStr* string) {
  return ZorvClientCreateEngineCommand("NLSENGINE", NULL, "NLS_COMMAND", data,
                                       string);
}

/* ---- Reading ------------------------------------------------------------- */

/* ZorvXmlGetTag(): name of the tag at `text`; pointer to its ">" (or to the
 * "/" of an empty-element tag), null when text is not at "<" or no ">"
 * follows. Never copies more than size - 1 characters. */
const char* ZorvXmlGetTag(const char* text, char* name, uint32_t size) {
  if (!text || text[0] != '<') return NULL;
  const char* pName = text + 1;
  if (*pName == '/') ++pName;
  const char* pClose = strchr(pName, '>');
  if (!pClose) return NULL;
  if (pClose[-1] == '/') return pClose - 1;
  if (name && size > 0) {
    uint32_t nName = 0;
    while (pName + nName < pClose && nName < size - 1 &&
           ZorvIsValidIdentifierChar((unsigned char)pName[nName])) {
      ++nName;
    }
    memcpy(name, pName, nName);
    name[nName] = '\0';
  }
  return pClose;
}

/* Names of the open elements, innermost last. Lives in the finder's frame
 * and moves to the heap past its inline room. */
struct ZorvFieldStack {
  ZorvElementName* pNames;
  uint32_t nDepth;
  uint32_t nRoom;
  ZorvElementName inlineNames[16];
};

/* initStack(): an empty stack over the inline room. */
static void initStack(ZorvFieldStack* stack) {
  stack->pNames = stack->inlineNames;
  stack->nDepth = 0;
  stack->nRoom = sizeof stack->inlineNames / sizeof stack->inlineNames[0];
}

/* releaseStack(): frees the heap room, if any. */
static void releaseStack(ZorvFieldStack* stack) {
  if (stack->pNames != stack->inlineNames) free(stack->pNames);
  initStack(stack);
}

/* pushName(): opens an element. 0 past ZORV_FIELD_MAX_DEPTH or when the
 * room cannot grow, else 1. */
static int pushName(ZorvFieldStack* stack, const char* name) {
  if (stack->nDepth == stack->nRoom) {
    if (stack->nRoom >= ZORV_FIELD_MAX_DEPTH) return 0;
    uint32_t nRoom = stack->nRoom * 2;
    if (nRoom > ZORV_FIELD_MAX_DEPTH) nRoom = ZORV_FIELD_MAX_DEPTH;
    ZorvElementName* pNames =
        (ZorvElementName*)zorvProtocolAllocCalls.pfnMalloc(
            nRoom * sizeof(ZorvElementName));
    if (!pNames) return 0;
    memcpy(pNames, stack->pNames, stack->nDepth * sizeof(ZorvElementName));
    if (stack->pNames != stack->inlineNames) free(stack->pNames);
    stack->pNames = pNames;
    stack->nRoom = nRoom;
  }
  size_t nName = strnlen(name, sizeof(ZorvElementName) - 1);
  memcpy(stack->pNames[stack->nDepth], name, nName);
  stack->pNames[stack->nDepth][nName] = '\0';
  ++stack->nDepth;
  return 1;
}

/* splitPath(): the components of `path` into `components`. Empty
 * components (a leading, trailing or doubled "/") are skipped. Returns the
 * count, 0 for a null or empty path, -1 for more than
 * ZORV_FIELD_MAX_COMPONENTS components or one of ZORV_FIELD_MAX_NAME
 * characters or more. */
static int splitPath(const char* path,
                     ZorvElementName components[ZORV_FIELD_MAX_COMPONENTS]) {
  if (!path) return 0;
  int nComponents = 0;
  const char* p = path;
  while (*p) {
    if (*p == '/') {
      ++p;
      continue;
    }
    size_t nName = strcspn(p, "/");
    if (nComponents == ZORV_FIELD_MAX_COMPONENTS) return -1;
    if (nName >= ZORV_FIELD_MAX_NAME) return -1;
    memcpy(components[nComponents], p, nName);
    components[nComponents][nName] = '\0';
    ++nComponents;
    p += nName;
  }
  return nComponents;
}

/* matchesPath(): whether the open elements are exactly the path. */
static int matchesPath(const ZorvFieldStack* stack,
                       ZorvElementName components[], int nComponents) {
  if (stack->nDepth != (uint32_t)nComponents) return 0;
  for (int i = 0; i < nComponents; ++i) {
    if (strcmp(stack->pNames[i], components[i]) != 0) return 0;
  }
  return 1;
}

/* appendSpan(): appends n bytes from p, which hold no NUL. Goes through a
 * small terminated chunk at a time; a chunk that does not fit goes in
 * character by character, so a fixed string ends up as full as it can be.
 * 1 when everything went in, else 0. */
static int appendSpan(CGenStr* s, const char* p, size_t n) {
  char chunk[256];
  while (n > 0) {
    size_t nChunk = n < sizeof chunk - 1 ? n : sizeof chunk - 1;
    memcpy(chunk, p, nChunk);
    chunk[nChunk] = '\0';
    if (!CGenStrCatChar(s, chunk)) {
      if (s->growable || !s->buffer) return 0;
      for (size_t i = 0; i < nChunk; ++i) {
        if (!CGenStrCatC(s, chunk[i])) return 0;
      }
    }
    p += nChunk;
    n -= nChunk;
  }
  return 1;
}

/* afterTag(): the character after a tag whose end ZorvXmlGetTag() gave. */
static const char* afterTag(const char* pEnd) {
  return *pEnd == '/' ? pEnd + 2 : pEnd + 1;
}

/* ZorvXmlGetFieldStrAndTagStartEnd(): the field finder; a ZorvFieldStatus.
 * A negative index or a null string gives 2. tagStart and tagEnd are set to
 * null unless the field is found. */
int ZorvXmlGetFieldStrAndTagStartEnd(const char* text, const char** tagStart,
                                     const char** tagEnd, const char* path,
                                     int32_t index, CGenStr* string) {
  if (tagStart) *tagStart = NULL;
  if (tagEnd) *tagEnd = NULL;
  if (string && string->buffer) CGenStrClear(string);
  ZorvElementName components[ZORV_FIELD_MAX_COMPONENTS];
  int nComponents = splitPath(path, components);
  if (nComponents == 0) return ZORV_FIELD_EMPTY_PATH;
  if (nComponents < 0) return ZORV_FIELD_NOT_FOUND;
  if (!text || !text[0] || !string || index < 0) return ZORV_FIELD_NOT_FOUND;

  ZorvFieldStack stack;
  initStack(&stack);
  ZorvElementName name;
  const char* pOpen = NULL;     /* "<" of the wanted element */
  const char* pContent = NULL;  /* just after its ">" */
  const char* pCloseTag = NULL; /* "<" of its closing tag */
  const char* pCloseEnd = NULL; /* ">" of its closing tag */
  const char* p = text;
  while (*p) {
    if (*p != '<') {
      ++p;
      continue;
    }
    /* Deliberate: "<!" and "<?" step one character only, so what a comment
     * or declaration holds is scanned like any other text. */
    if (p[1] == '!' || p[1] == '?') {
      ++p;
      continue;
    }
    if (p[1] != '/') {
      name[0] = '\0';
      const char* pEnd = ZorvXmlGetTag(p, name, sizeof name);
      if (!pEnd) break; /* no ">" left: nothing further can be read */
      if (*pEnd == '/') {
        p = afterTag(pEnd);
        continue;
      }
      if (!pushName(&stack, name)) break;
      if (!pOpen && matchesPath(&stack, components, nComponents)) {
        if (index == 0) {
          pOpen = p;
          pContent = pEnd + 1;
        } else {
          --index;
        }
      }
      p = pEnd + 1;
      continue;
    }
    if (stack.nDepth == 0) {
      ++p; /* a closing tag with nothing open is ignored */
      continue;
    }
    name[0] = '\0';
    const char* pEnd = ZorvXmlGetTag(p, name, sizeof name);
    if (!pEnd) break;
    const char* pTop = stack.pNames[stack.nDepth - 1];
    if (strcmp(name, pTop) == 0) {
      if (pOpen && stack.nDepth == (uint32_t)nComponents) {
        pCloseTag = p;
        pCloseEnd = pEnd;
        break;
      }
      --stack.nDepth;
    } else {
      /* Deliberate: a stray closing tag neither closes the open element nor
       * ends the search; hand-written payloads carry them and the field
       * around them is still wanted. */
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvXmlGetField(), unmatched tag, %s\n",
                    pTop);
    }
    p = afterTag(pEnd);
  }
  releaseStack(&stack);
  if (!pCloseTag) return ZORV_FIELD_NOT_FOUND;

  if (!appendSpan(string, pContent, (size_t)(pCloseTag - pContent))) {
    return ZORV_FIELD_NOT_FOUND;
  }
  if (tagStart) *tagStart = pOpen;
  if (tagEnd) *tagEnd = afterTag(pCloseEnd);
  return ZORV_FIELD_FOUND;
}

/* ZorvXmlGetFieldStr(): the field finder without positions. */
int ZorvXmlGetFieldStr(const char* text, const char* path, int32_t index,
                       CGenStr* string) {
  return ZorvXmlGetFieldStrAndTagStartEnd(text, NULL, NULL, path, index,
                                          string);
}

/* ZorvXmlGetField(): the field finder into a fixed buffer; 2 also for a
 * null buffer or a zero size. */
int ZorvXmlGetField(const char* text, const char* path, int32_t index,
                    char* buffer, uint32_t size) {
  if (!buffer || size == 0) return ZORV_FIELD_NOT_FOUND;
  CGenStr s;
  layStringOverBuffer(&s, buffer, size);
  return ZorvXmlGetFieldStrAndTagStartEnd(text, NULL, NULL, path, index, &s);
}

/* ZorvMessageGetSender(): FROM as a number. */
int ZorvMessageGetSender(const char* msg, int32_t* pid) {
  char value[ZORV_NUMBER_FIELD];
  int rc = ZorvXmlGetField(msg, "MSG/HDR/FROM", 0, value, sizeof value);
  if (rc != ZORV_FIELD_FOUND) return rc;
  if (pid) *pid = (int32_t)ZorvStrToL(value, NULL, 10);
  return 0;
}

/* ZorvMessageGetMessageId(): ID as a number. */
int ZorvMessageGetMessageId(const char* msg, uint32_t* id) {
  char value[ZORV_NUMBER_FIELD];
  int rc = ZorvXmlGetField(msg, "MSG/HDR/ID", 0, value, sizeof value);
  if (rc != ZORV_FIELD_FOUND) return rc;
  if (id) *id = (uint32_t)atoul(value);
  return 0;
}

/* ZorvMessageGetMessageRe(): RE as a number. */
int ZorvMessageGetMessageRe(const char* msg, uint32_t* re) {
  char value[ZORV_NUMBER_FIELD];
  int rc = ZorvXmlGetField(msg, "MSG/HDR/RE", 0, value, sizeof value);
  if (rc != ZORV_FIELD_FOUND) return rc;
  if (re) *re = (uint32_t)atoul(value);
  return 0;
}

/* Result of ZorvMessageGetMessageType() when the copy cannot be made. */
enum { ZORV_TYPE_NO_MEMORY = 10 };

/* ZorvMessageGetMessageType(): TYPE as a malloc'ed copy for the caller. */
int ZorvMessageGetMessageType(const char* msg, char** type) {
  char value[ZORV_TYPE_FIELD];
  int rc = ZorvXmlGetField(msg, "MSG/HDR/TYPE", 0, value, sizeof value);
  if (rc != ZORV_FIELD_FOUND) return rc;
  if (!type) return 0;
  size_t nValue = strlen(value);
  char* copy = (char*)zorvProtocolAllocCalls.pfnCalloc(nValue + 4, 1);
  if (!copy) return ZORV_TYPE_NO_MEMORY;
  memcpy(copy, value, nValue);
  *type = copy;
  return 0;
}

/* ZorvParsePacketType(): position of TYPE in the table, 0 for none. */
int ZorvParsePacketType(const char* msg, const char* const* table) {
  char type[ZORV_NUMBER_FIELD];
  if (ZorvXmlGetField(msg, "MSG/HDR/TYPE", 0, type, sizeof type) !=
      ZORV_FIELD_FOUND) {
    /* Deliberate: an unreadable TYPE answers 1, the same as the first
     * entry; callers check that the field exists or accept the
     * ambiguity. */
    return 1;
  }
  if (!table) return 0;
  for (int i = 0; i < ZORV_PACKET_TABLE_MAX && table[i]; ++i) {
    if (strcmp(table[i], type) == 0) return i + 1;
  }
  return 0;
}

/* ZorvParsePacketHeaderAndData(): sender, id and payload; -1 on failure,
 * else the position of the first table entry that starts the payload, 0
 * for none. */
int ZorvParsePacketHeaderAndData(const char* msg, int32_t* from, uint32_t* id,
                                 const char* const* table, char* data,
                                 uint32_t dataSize) {
  if (data && dataSize > 0) data[0] = '\0';
  if (!msg) return -1;
  size_t nMsg = strlen(msg);
  if (nMsg > UINT32_MAX - 100) return -1;
  uint32_t nPayload = (uint32_t)nMsg + 100;
  char* payload = (char*)zorvProtocolAllocCalls.pfnMalloc(nPayload);
  if (!payload) return -1;
  if (ZorvXmlGetField(msg, "MSG/DATA", 0, payload, nPayload) !=
          ZORV_FIELD_FOUND ||
      ZorvMessageGetSender(msg, from) != 0 ||
      ZorvMessageGetMessageId(msg, id) != 0) {
    free(payload);
    return -1;
  }
  /* Deliberate: a plain bounded copy; a payload of dataSize bytes or more
   * fills data without a terminator, and callers size data to the largest
   * payload they expect. */
  if (data) ZorvStrNCpy(data, payload, dataSize);
  int position = 0;
  if (table) {
    for (int i = 0; i < ZORV_PACKET_TABLE_MAX && table[i]; ++i) {
      if (strncmp(payload, table[i], strlen(table[i])) == 0) {
        position = i + 1;
        break;
      }
    }
  }
  free(payload);
  return position;
}

/* ---- Escaping ------------------------------------------------------------ */

/* fillEscapeTable(): marks the letters and kPermittedChars as permitted. */
static void fillEscapeTable(void) {
  memset(protocolState.permitted, 0, sizeof protocolState.permitted);
  for (int ch = 'a'; ch <= 'z'; ++ch) protocolState.permitted[ch] = 1;
  for (int ch = 'A'; ch <= 'Z'; ++ch) protocolState.permitted[ch] = 1;
  for (const char* p = kPermittedChars; *p; ++p) {
    protocolState.permitted[(unsigned char)*p] = 1;
  }
  protocolState.bTableBuilt = 1;
}

/* needsEscape(): every byte of 128 and above, and those not in the table. */
static int needsEscape(unsigned char ch) {
  return ch >= sizeof protocolState.permitted || !protocolState.permitted[ch];
}

/* ZorvXmlAllocStringAndConvertToXml(): text, or an escaped malloc'ed copy. */
char* ZorvXmlAllocStringAndConvertToXml(char* text) {
  if (!text) return text;
  if (!protocolState.bTableBuilt) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvXmlAllocStringAndConvertToXml:Initializing array\n");
    fillEscapeTable();
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "ZorvXmlAllocStringAndConvertToXml:Replacing string\n");
  size_t nText = 0;
  size_t nEscaped = 0;
  for (; text[nText]; ++nText) {
    if (needsEscape((unsigned char)text[nText])) ++nEscaped;
  }
  if (nEscaped == 0) {
    ZORV_TRACE_AT(
        ZORV_TRC_PROGRAM,
        "ZorvXmlAllocStringAndConvertToXml:No translated characters\n");
    return text;
  }
  if (nEscaped > (SIZE_MAX - nText - 1) / 2) return text;
  char* copy =
      (char*)zorvProtocolAllocCalls.pfnCalloc(nText + 2 * nEscaped + 1, 1);
  if (!copy) return text;
  static const char kHexDigits[] = "0123456789ABCDEF";
  char* out = copy;
  for (const char* p = text; *p; ++p) {
    unsigned char ch = (unsigned char)*p;
    if (needsEscape(ch)) {
      *out++ = '@';
      *out++ = kHexDigits[ch >> 4];
      *out++ = kHexDigits[ch & 0x0F];
    } else {
      *out++ = (char)ch;
    }
  }
  return copy;
}

/* ZorvXmlConvertFromXmlToText(): decodes "@hh" in place. Returns 0. */
int ZorvXmlConvertFromXmlToText(char* text) {
  if (!text) return 0;
  const char* in = text;
  char* out = text;
  while (*in) {
    if (*in != '@') {
      *out++ = *in++;
      continue;
    }
    /* A "@" within the last two characters becomes a space and the text
     * ends there: nothing past the terminator is read. */
    if (!in[1] || !in[2]) {
      *out++ = ' ';
      break;
    }
    int high = hexValue(in[1]);
    int low = hexValue(in[2]);
    /* Deliberate: a "@" without two hex digits still takes three
     * characters and leaves one space, so a damaged escape never shifts
     * the rest of the text. */
    *out++ = (high < 0 || low < 0) ? ' ' : (char)(high * 16 + low);
    in += 3;
  }
  *out = '\0';
  return 0;
}

/* IsBadXmlIdentifier(): 1 null, 2 a character outside the set, else 0. */
int IsBadXmlIdentifier(const char* text) {
  if (!text) return 1;
  for (; *text; ++text) {
    unsigned char ch = (unsigned char)*text;
    /* Deliberate: a space makes a bad identifier although escaping lets it
     * through: identifiers are single words in colon-separated commands. */
    if (ch == ' ') return 2;
    if (!isAsciiLetter(ch) && !isAsciiDigit(ch) &&
        !strchr(kPermittedChars, ch)) {
      return 2;
    }
  }
  return 0;
}

/* ZorvIsValidIdentifierChar(): letter, digit, "_" or 0. */
int ZorvIsValidIdentifierChar(int ch) {
  /* Deliberate: the terminating zero counts as valid, as it always has for
   * callers that test a name up to and including its terminator. */
  if (ch == 0) return 1;
  return isAsciiLetter(ch) || isAsciiDigit(ch) || ch == '_';
}
