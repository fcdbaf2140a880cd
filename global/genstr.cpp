/*
 * genstr.cpp: CGenStr, the growable NUL-terminated byte string of the flat
 * interface, and the allocation table shared with the list unit.
 * No locks and no output: a failure is only ever a 0 (or -1) result.
 */
#include "zorv2000/genstr.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "global/genstr_p.h"

/* The heap calls of both containers and the INI reader. Every entry is
 * unguarded: tests replace one only while no other thread runs. */
struct CGenAllocCalls cGenAllocCalls = {
    malloc,  /* pfnMalloc: memory tracer's list nodes, INI file and values */
    calloc,  /* pfnCalloc: first buffers and zero-filled nodes */
    realloc, /* pfnRealloc: growing buffers */
    free,    /* pfnFree: buffers, nodes and owned data */
};

/* usedBytes(): bytes in use, NUL included; a deleted record (length 0)
 * counts as an empty text, so appending to it never writes before buffer. */
static uint32_t usedBytes(const CGenStr* s) {
  return s->length ? s->length : 1;
}

/* textSize(): text length that never wraps, for bounding indexes. */
static uint32_t textSize(const CGenStr* s) {
  return s->length > 1 ? s->length - 1 : 0;
}

/* isInsideBuffer(): whether p points into the string's own storage, which a
 * reallocation would move. */
static int isInsideBuffer(const CGenStr* s, const char* p) {
  uintptr_t start = (uintptr_t)s->buffer;
  uintptr_t at = (uintptr_t)p;
  return s->buffer && at >= start && at < start + s->capacity;
}

/* appendBytes(): appends n bytes from p (which may lie inside the string
 * itself) and terminates the text. 1, or 0 when growing fails. */
static int appendBytes(CGenStr* s, const char* p, size_t n) {
  uint32_t used = usedBytes(s);
  if (n > (size_t)(UINT32_MAX - used)) return 0;
  uint32_t needed = used + (uint32_t)n;
  if (needed > s->capacity) {
    int bAliased = isInsideBuffer(s, p);
    size_t offAlias = bAliased ? (size_t)(p - s->buffer) : 0;
    if (!_CGenStrGrowIt(s, needed)) return 0;
    if (bAliased) p = s->buffer + offAlias;
  }
  memmove(s->buffer + used - 1, p, n);
  s->buffer[needed - 1] = '\0';
  s->length = needed;
  return 1;
}

/* _CGenStrGrowIt(): room for `needed` bytes; see genstr_p.h. */
int _CGenStrGrowIt(CGenStr* s, uint32_t needed) {
  if (!s->growable) return 0;
  if (!s->buffer) {
    /* Deliberate: a first buffer gets exactly the bytes asked for, no spare
     * room; only reallocations add GROWTH(). */
    char* pNew = (char*)cGenAllocCalls.pfnCalloc(needed ? needed : 1, 1);
    if (!pNew) return 0;
    s->buffer = pNew;
    s->capacity = needed ? needed : 1;
    return 1;
  }
  uint32_t growth = GROWTH(needed);
  if (needed > UINT32_MAX - growth) return 0;
  uint32_t size = needed + growth;
  /* Deliberate: on failure the old buffer is dropped, not kept. Callers
   * test buffer for null after a failed append and give the string up. */
  s->buffer = (char*)cGenAllocCalls.pfnRealloc(s->buffer, size);
  if (!s->buffer) {
    s->length = 0;
    s->capacity = 0;
    return 0;
  }
  s->capacity = size;
  return 1;
}

/* vformatFromStart(): the formatting step of CGenStrSprintf(): formats from
 * byte 0, grows once when the text does not fit and formats again. Returns
 * the text length, or -1 (empty text) when growing fails. */
static int vformatFromStart(CGenStr* s, const char* format, va_list args)
    ZORV_PRINTF(2, 0);
static int vformatFromStart(CGenStr* s, const char* format, va_list args) {
  va_list argsTry;
  va_copy(argsTry, args);
  int n = vsnprintf(s->buffer, s->buffer ? s->capacity : 0, format, argsTry);
  va_end(argsTry);
  if (n < 0) {
    if (s->buffer) {
      s->buffer[0] = '\0';
      s->length = 1;
    }
    return -1;
  }
  if ((uint32_t)n < s->capacity) {
    s->length = (uint32_t)n + 1;
    return n;
  }
  if (s->buffer) {
    s->buffer[0] = '\0';
    s->length = 1;
  }
  if ((uint32_t)n == UINT32_MAX || !_CGenStrGrowIt(s, (uint32_t)n + 1)) {
    return -1;
  }
  va_copy(argsTry, args);
  n = vsnprintf(s->buffer, s->capacity, format, argsTry);
  va_end(argsTry);
  if (n < 0) {
    s->buffer[0] = '\0';
    s->length = 1;
    return -1;
  }
  /* An argument that points into this very buffer can change the length
   * between the two passes; never let length pass the storage. */
  if ((uint32_t)n >= s->capacity) n = (int)(s->capacity - 1);
  s->length = (uint32_t)n + 1;
  return n;
}

/* CGenStrInit(): empty growable string over a 1-byte zeroed buffer. */
int CGenStrInit(CGenStr* s) {
  s->growable = 1;
  s->buffer = (char*)cGenAllocCalls.pfnCalloc(1, 1);
  if (!s->buffer) {
    s->length = 0;
    s->capacity = 0;
    return 0;
  }
  s->length = 1;
  s->capacity = 1;
  return 1;
}

/* CGenStrInitFromCStr(): a new string holding `text`. */
int CGenStrInitFromCStr(CGenStr* s, const char* text) {
  if (!CGenStrInit(s)) return 0;
  if (!CGenStrCatChar(s, text)) {
    CGenStrDelete(s);
    return 0;
  }
  return 1;
}

/* CGenStrInitBuff(): wraps a caller's fixed buffer. */
int CGenStrInitBuff(CGenStr* s, char* buf, uint32_t textLen, uint32_t bufSize) {
  s->buffer = buf;
  /* Deliberate: "< 2", not "== 0": a one-character text counts as empty
   * here, and callers that wrap a one-letter buffer rely on getting "". */
  if (textLen < 2) {
    buf[0] = '\0';
    s->length = 1;
  } else {
    s->length = textLen + 1;
  }
  s->capacity = bufSize - 1;
  s->growable = 0;
  return 1;
}

/* CGenStrIsInit(): set up and not deleted. */
int CGenStrIsInit(const CGenStr* s) {
  return s->capacity != 0 && s->length != 0;
}

/* CGenStrReserve(): storage of exactly n + 1 bytes, or a fresh 1-byte one
 * for n = 0. */
int CGenStrReserve(CGenStr* s, uint32_t n) {
  if (n == 0) {
    cGenAllocCalls.pfnFree(s->buffer);
    s->buffer = (char*)cGenAllocCalls.pfnCalloc(1, 1);
    if (!s->buffer) {
      s->length = 0;
      s->capacity = 0;
      return 0;
    }
    s->length = 1;
    s->capacity = 1;
    return 1;
  }
  if (n == UINT32_MAX) return 0;
  char* pNew;
  if (s->buffer) {
    pNew = (char*)cGenAllocCalls.pfnRealloc(s->buffer, (size_t)n + 1);
  } else {
    pNew = (char*)cGenAllocCalls.pfnCalloc((size_t)n + 1, 1);
  }
  if (!pNew) return 0;
  s->buffer = pNew;
  if (s->length == 0) s->length = 1; /* a fresh zeroed buffer holds "" */
  if (n + 1 < s->length) {
    s->buffer[n] = '\0';
    s->length = n + 1;
  }
  s->capacity = n + 1;
  return 1;
}

/* CGenStrSize(): length - 1 as it stands (wraps for a deleted record). */
uint32_t CGenStrSize(const CGenStr* s) { return s->length - 1; }

/* CGenStrIsEmpty(): no text. */
int CGenStrIsEmpty(const CGenStr* s) { return s->length < 2; }

/* CGenStrCapacity(): capacity - 1. */
uint32_t CGenStrCapacity(const CGenStr* s) { return s->capacity - 1; }

/* CGenStrDelete(): frees the buffer and zeroes the record. */
void CGenStrDelete(CGenStr* s) {
  cGenAllocCalls.pfnFree(s->buffer);
  s->buffer = NULL;
  s->length = 0;
  s->capacity = 0;
}

/* CGenStrDeleteKeepBuffer(): zeroes the record, hands the buffer over. */
char* CGenStrDeleteKeepBuffer(CGenStr* s) {
  char* pOld = s->buffer;
  s->buffer = NULL;
  s->length = 0;
  s->capacity = 0;
  return pOld;
}

/* CGenStrCatChar(): appends a text. */
int CGenStrCatChar(CGenStr* s, const char* text) {
  if (!text) return 1;
  return appendBytes(s, text, strlen(text));
}

/* CGenStrCatC(): appends one byte. */
int CGenStrCatC(CGenStr* s, char ch) { return appendBytes(s, &ch, 1); }

/* CGenStrCatStr(): appends the text of another string. */
int CGenStrCatStr(CGenStr* s, const CGenStr* other) {
  return CGenStrCatChar(s, other->buffer);
}

/* CGenStrCatf(): formats into a temporary string and appends it. */
int CGenStrCatf(CGenStr* s, const char* format, ...) {
  CGenStr temp;
  if (!CGenStrInit(&temp)) return 0;
  va_list args;
  va_start(args, format);
  int n = vformatFromStart(&temp, format, args);
  va_end(args);
  int rc = n >= 0 && CGenStrCatStr(s, &temp);
  CGenStrDelete(&temp);
  return rc;
}

/* CGenStrAssignChar(): replaces the text; a null text counts as "". */
int CGenStrAssignChar(CGenStr* s, const char* text) {
  if (!text) text = "";
  size_t nText = strlen(text);
  if (nText >= UINT32_MAX) return 0;
  uint32_t needed = (uint32_t)nText + 1;
  if (needed > s->capacity) {
    int bAliased = isInsideBuffer(s, text);
    size_t offAlias = bAliased ? (size_t)(text - s->buffer) : 0;
    if (!_CGenStrGrowIt(s, needed)) return 0;
    if (bAliased) text = s->buffer + offAlias;
  }
  memmove(s->buffer, text, needed);
  s->buffer[needed - 1] = '\0';
  s->length = needed;
  return 1;
}

/* CGenStrAssignStr(): replaces the text by that of src. */
int CGenStrAssignStr(CGenStr* dst, const CGenStr* src) {
  if (dst == src) return 1;
  return CGenStrAssignChar(dst, src->buffer);
}

/* CGenStrSprintf(): formats from byte 0. */
int CGenStrSprintf(CGenStr* s, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vformatFromStart(s, format, args);
  va_end(args);
  return n;
}

/* CGenStrSprintfI(): formats from byte `offset`, growing until it fits. */
int CGenStrSprintfI(CGenStr* s, uint32_t offset, const char* format, ...) {
  va_list args;
  va_start(args, format);
  for (;;) {
    uint32_t room =
        (s->buffer && offset < s->capacity) ? s->capacity - offset : 0;
    va_list argsTry;
    va_copy(argsTry, args);
    int n = vsnprintf(room ? s->buffer + offset : NULL, room, format, argsTry);
    va_end(argsTry);
    if (n < 0) {
      va_end(args);
      return n;
    }
    if ((uint32_t)n < room) {
      s->length = offset + (uint32_t)n + 1;
      va_end(args);
      return n;
    }
    if (room) s->buffer[offset] = '\0';
    /* Deliberate: the growth result is not checked. A fixed buffer that is
     * too small retries without end; callers size fixed buffers for what
     * they format and never pass one that can overflow here. */
    _CGenStrGrowIt(s, offset + (uint32_t)n + 1);
  }
}

/* CGenStrClear(): empty text, storage kept. */
void CGenStrClear(CGenStr* s) {
  if (!s->buffer) return;
  s->buffer[0] = '\0';
  s->length = 1;
}

/* CGenStrC_Str(): the buffer. */
char* CGenStrC_Str(const CGenStr* s) { return s->buffer; }

/* CGenStrTail(): pointer to byte i, unchecked. */
char* CGenStrTail(const CGenStr* s, uint32_t i) { return s->buffer + i; }

/* CGenStrGet(): byte i, unchecked. */
signed char CGenStrGet(const CGenStr* s, uint32_t i) {
  return (signed char)s->buffer[i];
}

/* CGenStrSet(): stores byte i, unchecked; length is left alone. */
void CGenStrSet(CGenStr* s, uint32_t i, char ch) { s->buffer[i] = ch; }

/* CGenStrLast(): pointer to the terminating NUL. */
char* CGenStrLast(const CGenStr* s) {
  /* Deliberate: length - 1 is the terminating NUL, not the last character;
   * callers write the next byte through this pointer. */
  return CGenStrTail(s, s->length - 1);
}

/* CGenStrLastI(): the text length, 0 for an empty or deleted string. */
uint32_t CGenStrLastI(const CGenStr* s) {
  return s->length <= 1 ? 0 : s->length - 1;
}

/* CGenStrGetSuffix(): out = the text from byte i on. */
int CGenStrGetSuffix(const CGenStr* s, uint32_t i, CGenStr* out) {
  CGenStrClear(out);
  if (i >= textSize(s)) return 0;
  return appendBytes(out, s->buffer + i, strlen(s->buffer + i));
}

/* CGenStrGetToken(): next token up to `delim` or the end of the text. */
int CGenStrGetToken(const CGenStr* s, char delim, uint32_t* pos, int* found,
                    CGenStr* out) {
  *found = 0;
  CGenStrClear(out);
  uint32_t size = textSize(s);
  if (*pos >= size) return 1;
  for (;;) {
    if (*pos >= size) {
      *found = 1;
      return 1;
    }
    char ch = s->buffer[*pos];
    (*pos)++;
    if (ch == delim) {
      *found = 1;
      return 1;
    }
    if (!CGenStrCatC(out, ch)) return 0;
  }
}

/* CGenStrSubstr(): out = up to `count` bytes from `start`. */
int CGenStrSubstr(const CGenStr* s, uint32_t start, int32_t count,
                  CGenStr* out) {
  CGenStrClear(out);
  uint32_t size = textSize(s);
  if (start >= size) return 0;
  uint32_t nWanted;
  if (count == -1) {
    nWanted = size - start;
  } else if (count <= 0) {
    return 1;
  } else {
    nWanted = (uint32_t)count;
  }
  if (nWanted > size - start) nWanted = size - start;
  return appendBytes(out, s->buffer + start, nWanted);
}

/* CGenStrCmpCStrI(): strcasecmp() of the text; null counts as "". */
int CGenStrCmpCStrI(const CGenStr* s, const char* text) {
  return strcasecmp(s->buffer ? s->buffer : "", text ? text : "");
}

/* CGenStrFindChar(): index of the first `ch` in the text, else -1. */
int32_t CGenStrFindChar(const CGenStr* s, char ch) {
  uint32_t size = textSize(s);
  for (uint32_t i = 0; i < size; i++) {
    if (s->buffer[i] == ch) return (int32_t)i;
  }
  return -1;
}

/* isPosixAlpha(): letter in the POSIX locale, whatever locale is set. */
static int isPosixAlpha(unsigned char ch) {
  return (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

/* CGenStrIsAlpha(): letters only (true for ""). */
int CGenStrIsAlpha(const CGenStr* s) {
  uint32_t size = textSize(s);
  for (uint32_t i = 0; i < size; i++) {
    if (!isPosixAlpha((unsigned char)s->buffer[i])) return 0;
  }
  return 1;
}

/* CGenStrIsAlnum(): letters and digits only (true for ""). */
int CGenStrIsAlnum(const CGenStr* s) {
  uint32_t size = textSize(s);
  for (uint32_t i = 0; i < size; i++) {
    unsigned char ch = (unsigned char)s->buffer[i];
    if (!isPosixAlpha(ch) && !(ch >= '0' && ch <= '9')) return 0;
  }
  return 1;
}

/* CGenStr_I_CopyText(): a heap copy of `text`, "" for null. */
char* CGenStr_I_CopyText(const char* text) {
  if (!text) text = "";
  size_t nText = strlen(text);
  char* pCopy = (char*)cGenAllocCalls.pfnMalloc(nText + 1);
  if (pCopy) memcpy(pCopy, text, nText + 1);
  return pCopy;
}
