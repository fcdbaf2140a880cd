/*
 * nls-access.cpp: language ids, the local default language, lookups of NLS
 * tags at the NLS engine (one transaction each, 5000 ms), translation of
 * every tag inside a message, tags built from ids, variables added to tags,
 * and registration of a module's NLS file. No lock of its own: the message
 * table's lock 10 is taken inside the transactions.
 */
#include "zorv2000/nls-access.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "global/nls-access_p.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Prefix of every NLS tag, and the end of an empty one. */
static const char kNlsOpen[] = "<NLS ";
static const char kNlsClose[] = "/>";

/* Process-wide state of the unit. */
static struct {
  /* unguarded: set at start-up before lookups run; two letters and
   * terminator */
  char szDefaultLanguage[3];
} state = {{'E', 'N', '\0'}};

struct ZorvNlsAllocCalls zorvNlsAllocCalls = {malloc};

/* allocZeroed(): `size` zeroed bytes through the unit's heap call. */
static char* allocZeroed(size_t size) {
  char* p = (char*)zorvNlsAllocCalls.pfnMalloc(size);
  if (p) memset(p, 0, size);
  return p;
}

/* beginsWith(): `text` starts with `prefix`. */
static int beginsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

/* ---- Language ids
 * ------------------------------------------------------------ */

/* ZorvSetLocalDefaultLanguage(): keeps two characters; null empties. */
void ZorvSetLocalDefaultLanguage(const char* lang) {
  state.szDefaultLanguage[0] = '\0';
  if (!lang) return;
  ZorvSafeStrNCpy(state.szDefaultLanguage, lang,
                  (int32_t)sizeof state.szDefaultLanguage);
}

/* ZorvGetLocalDefaultLanguage(): the kept language, possibly empty. */
const char* ZorvGetLocalDefaultLanguage(void) {
  return state.szDefaultLanguage;
}

/* IsNullOrBlankString(): null or "". */
int IsNullOrBlankString(const char* text) { return !text || !text[0]; }

/* IsValidLangId(): exactly two characters. */
int IsValidLangId(const char* text) {
  return !IsNullOrBlankString(text) && strlen(text) == 2;
}

/* ---- One tag
 * ------------------------------------------------------------------- */

/* askEngine(): sends "NLS_GETSTRING:<lang>:<tag>" and leaves the reply in
 * `buffer` (8192 bytes). 1 when a reply came. */
static int askEngine(const char* tag, const char* language, char* buffer) {
  CGenStr command;
  if (!CGenStrInit(&command)) return 0;
  int bBuilt =
      CGenStrSprintf(&command, "NLS_GETSTRING:%s:%s", language, tag) >= 0 &&
      ZorvClientCreateNlsEngineCommand(CGenStrC_Str(&command), buffer,
                                       ZORV_NLS_GETSTRING_BUFFER) == 0;
  CGenStrDelete(&command);
  if (!bBuilt) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString:command create failed.\n");
    return 0;
  }
  if (ZorvClientSendTransaction(buffer, buffer, ZORV_NLS_GETSTRING_BUFFER,
                                ZORV_NLS_TIMEOUT_MS, 0) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString:No response.\n");
    return 0;
  }
  return 1;
}

/* ZorvNls_I_PickTranslation(): the translation out of a reply. */
int ZorvNls_I_PickTranslation(char* reply, const char* tag,
                              const char* language, char* returnedLang,
                              CGenStr* result) {
  /* The language element is "<" + two letters + ">": four characters. */
  if (!IsValidLangId(language)) return 0;
  char* pNls = strstr(reply, kNlsOpen);
  char* pTagEnd = pNls ? strchr(pNls, '>') : NULL;
  if (!pTagEnd) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString: no NLS element in reply\n");
    return 0;
  }
  char* pTemp = pTagEnd + 1;
  ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString: pszTemp points to \"%s\"\n",
                pTemp);
  char szWanted[8];
  snprintf(szWanted, sizeof szWanted, "<%s>", language);
  ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString: looking for \"%s\"\n",
                szWanted);
  char* pLang = strstr(pTemp, szWanted);
  if (!pLang) {
    snprintf(szWanted, sizeof szWanted, "%s", "<EN>");
    pLang = strstr(pTemp, szWanted);
  }
  if (!pLang) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvGetNlsString: didn't find lang, returning token\n");
    memcpy(returnedLang, "TK", 3);
    return CGenStrAssignChar(result, tag);
  }
  ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString: found lang tag \"%s\"\n",
                szWanted);
  returnedLang[0] = pLang[1];
  returnedLang[1] = pLang[2];
  returnedLang[2] = '\0';
  ZORV_TRACE_AT(ZORV_TRC_DIAG,
                "ZorvGetNlsString: szReturnedStringLangId set to \"%s\"\n",
                returnedLang);
  char* pStartOfNls = pLang + strlen(szWanted);
  ZORV_TRACE_AT(ZORV_TRC_DIAG,
                "ZorvGetNlsString: pszStartOfNls set to \"%s\"\n", pStartOfNls);
  /* The translation ends at the next element; a reply cut short ends it at
   * its own end. */
  char* pEnd = strchr(pStartOfNls, '<');
  if (pEnd) *pEnd = '\0';
  ZORV_TRACE_AT(ZORV_TRC_DIAG,
                "ZorvGetNlsString: before ZorvXmlConvertFromXmlToText "
                "pszStartOfNls points to \"%s\"\n",
                pStartOfNls);
  ZorvXmlConvertFromXmlToText(pStartOfNls);
  if (!CGenStrAssignChar(result, pStartOfNls)) return 0;
  ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString: returning \"%s\"\n",
                pStartOfNls);
  return 1;
}

/* ZorvGetNlsStringWithXmlTag(): the translation of one tag. */
int ZorvGetNlsStringWithXmlTag(const char* tag, const char* lang,
                               char* returnedLang, CGenStr* result) {
  if (!returnedLang || !result) return 0;
  if (IsNullOrBlankString(tag) || !beginsWith(tag, kNlsOpen)) return 0;
  const char* language = lang ? lang : state.szDefaultLanguage;
  if (!IsValidLangId(language)) return 0;
  char* pBuffer = allocZeroed(ZORV_NLS_GETSTRING_BUFFER);
  if (!pBuffer) return 0;
  int bDone = 0;
  if (askEngine(tag, language, pBuffer)) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvGetNlsString:Returned data: = %s\n",
                  pBuffer);
    bDone =
        ZorvNls_I_PickTranslation(pBuffer, tag, language, returnedLang, result);
  }
  free(pBuffer);
  return bDone;
}

/* ---- A whole message
 * ----------------------------------------------------------- */

/* ZorvGetNlsMessageWithXmlMessage(): every tag of a message translated. */
int ZorvGetNlsMessageWithXmlMessage(const char* message, const char* lang,
                                    CGenStr* result) {
  if (IsNullOrBlankString(message)) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvGetNlsMessageWithXmlMessage: Null message\n");
    return 0;
  }
  if (!result) return 0;
  const char* language = lang;
  if (!IsValidLangId(language)) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvGetNlsMessageWithXmlMessage: no input lang to translate "
                  "to - trying default lang\n");
    language = state.szDefaultLanguage;
    if (!IsValidLangId(language)) {
      ZORV_TRACE_AT(ZORV_TRC_DIAG,
                    "ZorvGetNlsMessageWithXmlMessage: could not get language "
                    "id to translate to\n");
      return 0;
    }
  }
  ZORV_TRACE_AT(ZORV_TRC_DIAG, "Lang ID %c%c%d\n", language[0], language[1],
                (int)language[2]);
  if (!CGenStrIsInit(result) && !CGenStrInit(result)) return 0;
  size_t nMessage = strlen(message);
  char* pCopy = allocZeroed(nMessage + 1);
  if (!pCopy) return 0;
  memcpy(pCopy, message, nMessage);

  CGenStr translation;
  int bOk = CGenStrAssignChar(result, "") && CGenStrInit(&translation);
  if (!bOk) {
    free(pCopy);
    return 0;
  }
  char* pRest = pCopy;
  while (bOk) {
    char* pTag = strstr(pRest, kNlsOpen);
    char* pClose = pTag ? strstr(pTag, kNlsClose) : NULL;
    if (!pClose) {
      /* No further tag, or one that never closes: the rest is text. */
      bOk = CGenStrCatChar(result, pRest);
      break;
    }
    *pTag = '\0';
    bOk = CGenStrCatChar(result, pRest);
    *pTag = kNlsOpen[0];
    if (!bOk) break;
    char* pAfter = pClose + sizeof kNlsClose - 1;
    char saved = *pAfter;
    *pAfter = '\0';
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "To Trans %s\n", pTag);
    char szReturnedLang[3] = {0};
    if (ZorvGetNlsStringWithXmlTag(pTag, language, szReturnedLang,
                                   &translation))
      bOk = CGenStrCatStr(result, &translation);
    else
      bOk = CGenStrCatChar(result, pTag);
    *pAfter = saved;
    pRest = pAfter;
  }
  CGenStrDelete(&translation);
  free(pCopy);
  return bOk;
}

/* ---- Tags from ids
 * ---------------------------------------------------------------- */

/* ZorvGetNlsStringWithIdEx(): the translation of a tag built from ids. */
char* ZorvGetNlsStringWithIdEx(const char* module, const char* id,
                               const char* lang, char* buffer, int32_t size) {
  if (!buffer || size < 1) return NULL;
  buffer[0] = '\0';
  if (IsBadXmlIdentifier(id) != 0) return NULL;
  if (module && IsBadXmlIdentifier(module) != 0) return NULL;
  CGenStr tag;
  CGenStr translation;
  if (!CGenStrInit(&tag)) return NULL;
  if (!CGenStrInit(&translation)) {
    CGenStrDelete(&tag);
    return NULL;
  }
  int bBuilt = module ? CGenStrSprintf(&tag, "<NLS mod=%s id=%s/>", module, id)
                      : CGenStrSprintf(&tag, "<NLS id=%s/>", id);
  char szReturnedLang[3] = {0};
  char* pResult = NULL;
  if (bBuilt >= 0 &&
      ZorvGetNlsStringWithXmlTag(CGenStrC_Str(&tag), lang, szReturnedLang,
                                 &translation) &&
      ZorvSafeStrCpy(buffer, CGenStrC_Str(&translation), size))
    pResult = buffer;
  CGenStrDelete(&translation);
  CGenStrDelete(&tag);
  return pResult;
}

/* ZorvGetNlsStringWithId(): no module, the default language. */
char* ZorvGetNlsStringWithId(const char* id, char* buffer, int32_t size) {
  return ZorvGetNlsStringWithIdEx(NULL, id, NULL, buffer, size);
}

/* ZorvAllocAndGetNlsStringWithId(): always null. */
char* ZorvAllocAndGetNlsStringWithId(const char* id) {
  /* Deliberate: the allocating form hands no buffer on and so always gets
   * null; it allocates nothing. Callers use the buffer forms. */
  return ZorvGetNlsStringWithId(id, NULL, 0);
}

/* ---- Registration
 * ---------------------------------------------------------------- */

/* ZorvNlsRegisterModuleNlsFile(): tells the engine about an NLS file. */
int ZorvNlsRegisterModuleNlsFile(const char* path) {
  const char* pName = path;
  if (path && strrchr(path, '/')) pName = strrchr(path, '/') + 1;
  if (IsBadXmlIdentifier(pName) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvNlsRegisterModuleNlsFile:Bad module name (%s).\n",
                  pName ? pName : "(null)");
    return ZORV_NLSREG_BAD_NAME;
  }
  char* pBuffer = allocZeroed(ZORV_NLS_REGMOD_BUFFER);
  if (!pBuffer) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvNlsRegisterModuleNlsFile:Buffer alloc failed.\n");
    return ZORV_NLSREG_NO_BUFFER;
  }
  char szPid[ZORV_NLS_PID_TEXT];
  ZorvGetLocalProcessIdString(szPid, sizeof szPid);
  CGenStr command;
  int bBuilt = CGenStrInit(&command);
  bBuilt = bBuilt &&
           CGenStrSprintf(&command, "NLS_REGMOD:%s:%s", szPid, pName) >= 0 &&
           ZorvClientCreateNlsEngineCommand(CGenStrC_Str(&command), pBuffer,
                                            ZORV_NLS_REGMOD_BUFFER) == 0;
  CGenStrDelete(&command);
  if (!bBuilt) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG,
                  "ZorvNlsRegisterModuleNlsFile:NLS command create failed.\n");
    free(pBuffer);
    return ZORV_NLSREG_NO_COMMAND;
  }
  if (ZorvClientSendTransaction(pBuffer, pBuffer, ZORV_NLS_REGMOD_BUFFER,
                                ZORV_NLS_TIMEOUT_MS, 0) != 0) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "ZorvNlsRegisterModuleNlsFile:No response.\n");
    free(pBuffer);
    return ZORV_NLSREG_NO_RESPONSE;
  }
  ZORV_TRACE_AT(ZORV_TRC_DIAG,
                "ZorvNlsRegisterModuleNlsFile:Returned data: = %s\n", pBuffer);
  free(pBuffer);
  return ZORV_NLSREG_OK;
}

/* ---- Variables
 * -------------------------------------------------------------------- */

/* needsEscape(): whether a value's byte must be written as "@hh": what the
 * envelope escapes in free text, and a space as well, because a space
 * separates a tag's attributes. A byte is fine exactly when it is a good
 * identifier on its own. */
static int needsEscape(char ch) {
  char szOne[2] = {ch, '\0'};
  return IsBadXmlIdentifier(szOne) != 0;
}

/* escapeValue(): a malloc'ed copy of `value` with every byte that needs it
 * written as "@" and two upper-case hex digits; null without memory. */
static char* escapeValue(const char* value) {
  static const char kHex[] = "0123456789ABCDEF";
  size_t nValue = strlen(value);
  char* pOut = allocZeroed(nValue * 3 + 1);
  if (!pOut) return NULL;
  char* pWrite = pOut;
  for (const char* p = value; *p; ++p) {
    if (needsEscape(*p)) {
      unsigned char byte = (unsigned char)*p;
      *pWrite++ = '@';
      *pWrite++ = kHex[byte >> 4];
      *pWrite++ = kHex[byte & 0x0F];
    } else {
      *pWrite++ = *p;
    }
  }
  return pOut;
}

/* ZorvNlsAddVariableToTagStr(): " name=value/>" in place of the "/>". */
int ZorvNlsAddVariableToTagStr(CGenStr* tag, const char* name,
                               const char* value) {
  if (IsBadXmlIdentifier(name) != 0) return ZORV_NLSVAR_BAD_NAME;
  if (!tag) return ZORV_NLSVAR_NULL_TAG;
  if (!value) return ZORV_NLSVAR_NULL_VALUE;
  const char* pText = CGenStrC_Str(tag);
  if (!pText || !beginsWith(pText, kNlsOpen)) return ZORV_NLSVAR_NOT_NLS;
  uint32_t nText = (uint32_t)strlen(pText);
  uint32_t nClose = (uint32_t)(sizeof kNlsClose - 1);
  if (nText < nClose || strcmp(pText + nText - nClose, kNlsClose) != 0)
    return ZORV_NLSVAR_NOT_CLOSED;
  char* pEscaped = escapeValue(value);
  if (!pEscaped) return ZORV_NLSVAR_NO_ESCAPE;
  CGenStr cut;
  int rc = ZORV_NLSVAR_OK;
  if (!CGenStrInit(&cut) ||
      !CGenStrSubstr(tag, 0, (int32_t)(nText - nClose), &cut)) {
    rc = ZORV_NLSVAR_NO_CUT;
  } else if (!CGenStrCatf(&cut, " %s=%s/>", name, pEscaped) ||
             !CGenStrAssignStr(tag, &cut)) {
    rc = ZORV_NLSVAR_NO_APPEND;
  }
  CGenStrDelete(&cut);
  free(pEscaped);
  return rc;
}

/* ZorvNlsAddVariableToTag(): the same on a caller's buffer. */
int ZorvNlsAddVariableToTag(char* buffer, uint32_t size, const char* name,
                            const char* value) {
  if (!buffer) return ZORV_NLSVAR_NULL_TAG;
  size_t nText = strlen(buffer);
  if (size <= nText) return ZORV_NLSVAR_NO_ROOM;
  CGenStr tag;
  if (!CGenStrInitFromCStr(&tag, buffer)) return ZORV_NLSVAR_NO_APPEND;
  int rc = ZorvNlsAddVariableToTagStr(&tag, name, value);
  if (rc == ZORV_NLSVAR_OK) {
    size_t nNew = CGenStrSize(&tag);
    /* Deliberate: a new text of exactly `size` characters is still copied,
     * its terminator landing at buffer[size]; callers pass the size of the
     * text room and keep one byte more behind it. */
    if (nNew <= size)
      memcpy(buffer, CGenStrC_Str(&tag), nNew + 1);
    else
      rc = ZORV_NLSVAR_NO_ROOM;
  }
  CGenStrDelete(&tag);
  return rc;
}
