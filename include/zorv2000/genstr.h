/*
 * genstr.h: CGenStr, the growable NUL-terminated byte string of the flat
 * interface.
 *
 * `length` counts the terminating NUL (an empty string has length 1);
 * `capacity` is the number of bytes allocated. A string made with
 * CGenStrInitBuff() wraps a caller's fixed buffer and never grows.
 * Functions that can fail return 1 for success and 0 for failure (out of
 * memory, or a fixed buffer that would have to grow). No locking: callers
 * that share a string serialise access themselves. Plain C.
 */
#ifndef ZORV2000_GENSTR_H
#define ZORV2000_GENSTR_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CGenStr {
  char* buffer;      /* NUL-terminated once initialised */
  uint32_t length;   /* used bytes, the terminating NUL included */
  uint32_t capacity; /* bytes allocated for buffer */
  int32_t growable;  /* 1: owns a heap buffer; 0: wraps a caller's buffer */
} CGenStr;

/* CGenStrInit(): empty growable string with a 1-byte buffer. 1, or 0 with
 * length and capacity 0 when the allocation fails. */
ZORV_API int CGenStrInit(CGenStr* s);
/* CGenStrInitFromCStr(): CGenStrInit() and append `text`; on failure the
 * string is deleted and 0 returned. */
ZORV_API int CGenStrInitFromCStr(CGenStr* s, const char* text);
/* CGenStrInitBuff(): wraps `buf` (bufSize bytes) holding a text of textLen
 * characters. Deliberately a text shorter than 2 characters counts as empty
 * and buf[0] is cleared. capacity becomes bufSize - 1. Returns 1. */
ZORV_API int CGenStrInitBuff(CGenStr* s, char* buf, uint32_t textLen,
                             uint32_t bufSize);
/* CGenStrIsInit(): capacity and length both non-zero. */
ZORV_API int CGenStrIsInit(const CGenStr* s);
/* CGenStrReserve(): n > 0 sets the buffer to exactly n + 1 bytes (cutting a
 * longer text); n = 0 replaces it by a fresh empty 1-byte buffer. Ignores
 * `growable`. 1, or 0 when the allocation fails. */
ZORV_API int CGenStrReserve(CGenStr* s, uint32_t n);
/* CGenStrSize(): text length (length - 1). */
ZORV_API uint32_t CGenStrSize(const CGenStr* s);
/* CGenStrIsEmpty(): length < 2. */
ZORV_API int CGenStrIsEmpty(const CGenStr* s);
/* CGenStrCapacity(): capacity - 1. */
ZORV_API uint32_t CGenStrCapacity(const CGenStr* s);
/* CGenStrDelete(): frees buffer and zeroes buffer, length and capacity. */
ZORV_API void CGenStrDelete(CGenStr* s);
/* CGenStrDeleteKeepBuffer(): zeroes the record and hands the buffer to the
 * caller, who frees it with free(). */
ZORV_API char* CGenStrDeleteKeepBuffer(CGenStr* s);
/* CGenStrCatChar(): appends a text (not a character, despite the name); a
 * null text is a successful no-op. */
ZORV_API int CGenStrCatChar(CGenStr* s, const char* text);
/* CGenStrCatC(): appends one byte. */
ZORV_API int CGenStrCatC(CGenStr* s, char ch);
/* CGenStrCatStr(): appends the text of `other`. */
ZORV_API int CGenStrCatStr(CGenStr* s, const CGenStr* other);
/* CGenStrCatf(): appends formatted text. */
ZORV_API int CGenStrCatf(CGenStr* s, const char* format, ...) ZORV_PRINTF(2, 3);
/* CGenStrAssignChar(): replaces the text by `text`. */
ZORV_API int CGenStrAssignChar(CGenStr* s, const char* text);
/* CGenStrAssignStr(): replaces the text of dst by that of src (no-op when
 * both are the same record). */
ZORV_API int CGenStrAssignStr(CGenStr* dst, const CGenStr* src);
/* CGenStrSprintf(): formats from the start of the buffer, growing as
 * needed. Returns the formatted length, or -1 when growing fails (the text
 * is then empty). */
ZORV_API int CGenStrSprintf(CGenStr* s, const char* format, ...)
    ZORV_PRINTF(2, 3);
/* CGenStrSprintfI(): formats from byte `offset`, keeping the bytes before
 * it; returns the formatted length. Deliberately unguarded: on a fixed
 * buffer that is too small it retries without end. */
ZORV_API int CGenStrSprintfI(CGenStr* s, uint32_t offset, const char* format,
                             ...) ZORV_PRINTF(3, 4);
/* CGenStrClear(): empty text, capacity kept. */
ZORV_API void CGenStrClear(CGenStr* s);
/* CGenStrC_Str(): the buffer pointer. */
ZORV_API char* CGenStrC_Str(const CGenStr* s);
/* CGenStrTail(), CGenStrGet(), CGenStrSet(): pointer to, value of, and
 * store into byte i. No bounds checks; CGenStrSet() leaves length alone. */
ZORV_API char* CGenStrTail(const CGenStr* s, uint32_t i);
ZORV_API signed char CGenStrGet(const CGenStr* s, uint32_t i);
ZORV_API void CGenStrSet(CGenStr* s, uint32_t i, char ch);
/* CGenStrLast(): deliberately the terminating NUL, not the last character.
 */
ZORV_API char* CGenStrLast(const CGenStr* s);
/* CGenStrLastI(): 0 when length <= 1, else the text length. */
ZORV_API uint32_t CGenStrLastI(const CGenStr* s);
/* CGenStrGetSuffix(): out = text from byte i on; 0 when i >= size. */
ZORV_API int CGenStrGetSuffix(const CGenStr* s, uint32_t i, CGenStr* out);
/* CGenStrGetToken(): next token from byte *pos up to `delim` (not copied)
 * or the end. *found is 1 when a token was taken, 0 when *pos was already
 * at the end. Empty tokens are kept ("a,,b" -> "a", "", "b"); a trailing
 * delimiter yields no extra empty token. 0 only when an append fails. */
ZORV_API int CGenStrGetToken(const CGenStr* s, char delim, uint32_t* pos,
                             int* found, CGenStr* out);
/* CGenStrSubstr(): out = up to `count` bytes from `start` (-1: to the end).
 * 0 when start >= size; 1 with an empty out for count <= 0. */
ZORV_API int CGenStrSubstr(const CGenStr* s, uint32_t start, int32_t count,
                           CGenStr* out);
/* CGenStrCmpCStrI(): strcasecmp() of the text and `text`. */
ZORV_API int CGenStrCmpCStrI(const CGenStr* s, const char* text);
/* CGenStrFindChar(): index of the first `ch` in the text, else -1. */
ZORV_API int32_t CGenStrFindChar(const CGenStr* s, char ch);
/* CGenStrIsAlpha(), CGenStrIsAlnum(): every byte alphabetic /
 * alphanumeric in the POSIX locale; true for an empty text. */
ZORV_API int CGenStrIsAlpha(const CGenStr* s);
ZORV_API int CGenStrIsAlnum(const CGenStr* s);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_GENSTR_H */
