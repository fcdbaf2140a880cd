/*
 * message-protocol.h: the message envelope of the whole system.
 *
 * Builds headers, messages and server commands, finds fields by slash
 * paths, classifies received packets and escapes free text. A message:
 *
 *   <MSG><HDR><FROM>1234</FROM><TO>NLSENGINE</TO><ID>7</ID>
 *   <TYPE>NLS_COMMAND</TYPE><TIME>20030415123456000</TIME></HDR>
 *   <DATA>...</DATA></MSG>\r\n          (one line; RE and LANG optional)
 *
 * No input or output here: the pipe layer sends what this builds. The
 * message-id counter and the escaping table are process-wide and unguarded;
 * build messages on one thread at a time. Plain C.
 */
#ifndef ZORV2000_MESSAGE_PROTOCOL_H
#define ZORV2000_MESSAGE_PROTOCOL_H

#include <stdint.h>

#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Ids ------------------------------------------------------------------
 */

/* ZorvGetLocallyUniqueMessageId(): the next message id; the first of a
 * process is 1. */
ZORV_API uint32_t ZorvGetLocallyUniqueMessageId(void);
/* ZorvGetLocalProcessId(): the id written as FROM (the cached process id). */
ZORV_API int32_t ZorvGetLocalProcessId(void);
/* ZorvGetProcessIdString(): "%lu" of pid into buffer when size > 9, else an
 * empty text. */
ZORV_API void ZorvGetProcessIdString(uint32_t pid, char* buffer, uint32_t size);
ZORV_API void ZorvGetLocalProcessIdString(char* buffer, uint32_t size);
/* ZorvGetProcessIdFromString(): -1 for null, else the decimal value. */
ZORV_API int32_t ZorvGetProcessIdFromString(const char* text);

/* ---- Test flags (one accessor per bit of the flag byte; 1 or 0) --------- */

ZORV_API int ZorvGetFlagInteractive(uint8_t flags);               /* 0x01 */
ZORV_API int ZorvGetFlagFixtureNeeded(uint8_t flags);             /* 0x02 */
ZORV_API int ZorvGetFlagShowFixturePromptEveryRun(uint8_t flags); /* 0x04 */
ZORV_API int ZorvGetFlagIsRisky(uint8_t flags);                   /* 0x08 */
ZORV_API int ZorvGetFlagIsDestructive(uint8_t flags);             /* 0x10 */
ZORV_API int ZorvGetFlagIsSoftwareDiag(uint8_t flags);            /* 0x20 */
ZORV_API int ZorvGetFlagSelfFixPossible(uint8_t flags);           /* 0x40 */
ZORV_API int ZorvGetFlagSelfHelp(uint8_t flags);                  /* 0x80 */

/* ---- Building -------------------------------------------------------------
 */

/* ZorvXmlAddField(): appends "<tag>value</tag>" to the text in buffer.
 * Returns 0, or 1 without writing when size is less than the current length
 * + 2 x tag length + value length + 6. */
ZORV_API int ZorvXmlAddField(char* buffer, uint32_t size, const char* tag,
                             const char* value);

/* Results of ZorvCreateMessageHeader(). Deliberately LANG is 10 and the
 * closing tag 9: callers compare against these numbers. */
enum ZorvHeaderStatus {
  ZORV_HDR_OK = 0,
  ZORV_HDR_NULL_ARGUMENT = 1,    /* buffer, to or type null */
  ZORV_HDR_BUFFER_TOO_SMALL = 2, /* size < 6 */
  ZORV_HDR_FROM = 3,
  ZORV_HDR_TO = 4,
  ZORV_HDR_ID = 5,
  ZORV_HDR_RE = 6,
  ZORV_HDR_TYPE = 7,
  ZORV_HDR_TIME = 8,
  ZORV_HDR_CLOSE = 9,
  ZORV_HDR_LANG = 10
};

/* ZorvCreateMessageHeader(): builds "<HDR>...</HDR>" into buffer (its old
 * content replaced). `re` and `lang` may be null (element left out). Each
 * call takes a new message id. Returns a ZorvHeaderStatus. */
ZORV_API int ZorvCreateMessageHeader(char* buffer, uint32_t size,
                                     const char* to, const char* re,
                                     const char* type, const char* lang);

/* ZorvCreateMessage(): "<tag>" + each part + "</tag>", plus "\r\n" when the
 * tag is MSG, STOP, ACK or STARTUP. A leading "<" on tag is skipped. The
 * list of parts ends with a null pointer. Returns 0, or 2 when the result
 * and its terminator exceed size (the text is then cut). */
ZORV_API int ZorvCreateMessage(char* buffer, uint32_t size, const char* tag,
                               ...) ZORV_SENTINEL;
/* ZorvCreateMessageStr(): the same into a growable string (content
 * replaced). Always returns 0: a failure to grow is not reported. */
ZORV_API int ZorvCreateMessageStr(CGenStr* string, const char* tag,
                                  ...) ZORV_SENTINEL;

/* Results of ZorvClientCreateEngineCommand(). */
enum ZorvCommandStatus {
  ZORV_CMD_OK = 0,
  ZORV_CMD_HEADER = 1,   /* the header did not build */
  ZORV_CMD_DATA = 2,     /* the DATA element did not build; also a null data
                          * or string */
  ZORV_CMD_MESSAGE = 3,  /* reserved: the MSG builder never fails */
  ZORV_CMD_NO_MEMORY = 4 /* no scratch buffer */
};

/* ZorvClientCreateEngineCommand(): a whole message to `to` with `type`,
 * optional `lang` and payload `data` (put in as it stands: escape free text
 * first) into `string`. Returns a ZorvCommandStatus. */
ZORV_API int ZorvClientCreateEngineCommand(const char* to, const char* lang,
                                           const char* type, const char* data,
                                           CGenStr* string);
/* Commands to the three servers. The fixed-buffer forms return 2 when the
 * message and its terminator exceed size, else the builder's result. The
 * diagnostic engine's fixed-buffer form accepts `lang` but does not put it
 * in. */
ZORV_API int ZorvClientCreateMessageBrokerCommand(const char* data,
                                                  char* buffer, uint32_t size);
ZORV_API int ZorvClientCreateDiagnosticEngineCommand(const char* data,
                                                     const char* lang,
                                                     char* buffer,
                                                     uint32_t size);
ZORV_API int ZorvClientCreateNlsEngineCommand(const char* data, char* buffer,
                                              uint32_t size);
ZORV_API int ZorvClientCreateMessageBrokerCommandStr(const char* data,
                                                     CGenStr* string);
ZORV_API int ZorvClientCreateDiagnosticEngineCommandStr(const char* data,
                                                        const char* lang,
                                                        CGenStr* string);
ZORV_API int ZorvClientCreateNlsEngineCommandStr(const char* data,
                                                 CGenStr* string);

/* ---- Reading --------------------------------------------------------------
 */

/* ZorvXmlGetTag(): `text` must point at "<" (else null). Copies the tag name
 * (identifier characters, at most size - 1) into `name` and returns a
 * pointer to the closing ">"; for an empty-element tag ("<X/>") returns a
 * pointer to its "/" and copies nothing; null when there is no ">". */
ZORV_API const char* ZorvXmlGetTag(const char* text, char* name, uint32_t size);

/* Results of the field finder. */
enum ZorvFieldStatus {
  ZORV_FIELD_FOUND = 0,
  ZORV_FIELD_EMPTY_PATH = 1,
  /* not found, empty text, content not stored, or a path with more than 15
   * components or a component of 40 characters or more, or elements nested
   * deeper than ZORV_FIELD_MAX_DEPTH before the field ends */
  ZORV_FIELD_NOT_FOUND = 2
};
/* Limits of a field path, and the deepest nesting the finder follows. */
#define ZORV_FIELD_MAX_COMPONENTS 15
#define ZORV_FIELD_MAX_NAME 40
#define ZORV_FIELD_MAX_DEPTH 1024

/* ZorvXmlGetFieldStrAndTagStartEnd(): finds occurrence `index` (0 = first)
 * of the element at the absolute slash path `path` ("MSG/HDR/TYPE") and
 * puts its raw content (nested elements included, nothing unescaped) into
 * `string`. *tagStart is set to its opening "<", *tagEnd just after its
 * closing ">" (either may be null). Returns a ZorvFieldStatus. */
ZORV_API int ZorvXmlGetFieldStrAndTagStartEnd(const char* text,
                                              const char** tagStart,
                                              const char** tagEnd,
                                              const char* path, int32_t index,
                                              CGenStr* string);
ZORV_API int ZorvXmlGetFieldStr(const char* text, const char* path,
                                int32_t index, CGenStr* string);
/* ZorvXmlGetField(): into a fixed buffer; 2 also when the content and its
 * terminator exceed size. */
ZORV_API int ZorvXmlGetField(const char* text, const char* path, int32_t index,
                             char* buffer, uint32_t size);

/* Header readers: 0, or the field finder's status when the field is
 * missing. The type is malloc'ed for the caller (10 when that fails). */
ZORV_API int ZorvMessageGetSender(const char* msg, int32_t* pid);
ZORV_API int ZorvMessageGetMessageId(const char* msg, uint32_t* id);
ZORV_API int ZorvMessageGetMessageRe(const char* msg, uint32_t* re);
ZORV_API int ZorvMessageGetMessageType(const char* msg, char** type);

/* ZorvParsePacketType(): 1-based position in the null-terminated `table` of
 * the message's TYPE (exact match, at most 100 entries), 0 for none or an
 * empty table. Deliberately 1 also when TYPE cannot be read: check that the
 * field exists first or accept the ambiguity. */
ZORV_API int ZorvParsePacketType(const char* msg, const char* const* table);
/* ZorvParsePacketHeaderAndData(): reads sender, id and payload (copied into
 * data with ZorvStrNCpy(), so a payload of dataSize bytes or more is left
 * unterminated). Returns -1 on any failure, else the 1-based position of the
 * first table entry that is a prefix of the payload, 0 for none. */
ZORV_API int ZorvParsePacketHeaderAndData(const char* msg, int32_t* from,
                                          uint32_t* id,
                                          const char* const* table, char* data,
                                          uint32_t dataSize);

/* ---- Escaping ---------------------------------------------------------------
 */

/* ZorvXmlAllocStringAndConvertToXml(): `text` itself when nothing needs
 * escaping (or when memory runs out), else a malloc'ed copy in which every
 * character outside letters, digits, space and $-_.+!*'(),{}|\^~[]` is
 * "@" and two upper-case hex digits. Free the result only if it differs
 * from text. */
ZORV_API char* ZorvXmlAllocStringAndConvertToXml(char* text);
/* ZorvXmlConvertFromXmlToText(): decodes "@hh" in place; a "@" not followed
 * by two hex digits becomes a space (and never reads past the terminator).
 * Returns 0. */
ZORV_API int ZorvXmlConvertFromXmlToText(char* text);
/* IsBadXmlIdentifier(): 1 for null, 2 when a character is outside the
 * escaping set or is a space, 0 otherwise (the empty text included). */
ZORV_API int IsBadXmlIdentifier(const char* text);
/* ZorvIsValidIdentifierChar(): letter, digit, "_" or the terminating 0. */
ZORV_API int ZorvIsValidIdentifierChar(int ch);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_MESSAGE_PROTOCOL_H */
