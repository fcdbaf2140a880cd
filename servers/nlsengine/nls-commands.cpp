/*
 * nls-commands.cpp: reads the NLS engine's commands and builds the DATA of
 * their answers: string lookups with the tag's variables filled in,
 * registrations, the language list and the default language. Runs on the
 * engine's one thread; no locks. Command texts come from any client and are
 * parsed within their own length; nothing in them reaches a path unchecked.
 */
#include "servers/nlsengine/nls-commands.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "servers/common/server-common.h"
#include "servers/nlsengine/nls-strings.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/tracing.h"

/* Longest attribute name of a tag. */
enum { NLS_VAR_NAME_SIZE = 64 };

/* A tag taken apart: a copy of its body cut into NUL-terminated names and
 * values (variable values unescaped), pointed into by the fields. */
typedef struct NlsTag {
  char* pCopy;       /* malloc'ed; freed by freeTag() */
  const char* pBody; /* between "<NLS " and "/>", trailing blanks cut */
  size_t nBody;
  const char* pModule; /* null without "mod=" */
  const char* pId;
  int nVariables;
  const char* apNames[ZORV_NLS_MAX_VARIABLES];
  const char* apValues[ZORV_NLS_MAX_VARIABLES];
} NlsTag;

/* Process-wide state of the unit. */
static struct {
  /* unguarded: the engine's one thread only; two letters and terminator */
  char szDefaultLanguage[3];
} commands = {"EN"};

/* ---- Tags ---------------------------------------------------------------- */

/* isName(): a variable or attribute name: identifier characters only. */
static int isName(const char* text, size_t length) {
  if (length == 0 || length >= NLS_VAR_NAME_SIZE) return 0;
  for (size_t i = 0; i < length; ++i)
    if (!text[i] || !ZorvIsValidIdentifierChar((unsigned char)text[i]))
      return 0;
  return 1;
}

/* takeAttribute(): one "name=value" token of the copy (zero-terminated)
 * into the tag. 0 when it does not read. */
static int takeAttribute(char* pToken, NlsTag* pTag) {
  char* pEquals = strchr(pToken, '=');
  if (!pEquals || !isName(pToken, (size_t)(pEquals - pToken))) return 0;
  *pEquals = '\0';
  char* pValue = pEquals + 1;
  if (strcmp(pToken, "mod") == 0 || strcmp(pToken, "id") == 0) {
    /* Both name a file or a key: a plain name, shorter than a file name. */
    if (strlen(pValue) >= ZORV_NLS_NAME_SIZE) return 0;
    if (pToken[0] == 'm')
      pTag->pModule = pValue;
    else
      pTag->pId = pValue;
    return 1;
  }
  /* Variables beyond the limit are left out, the tag still reads. */
  if (pTag->nVariables >= ZORV_NLS_MAX_VARIABLES) return 1;
  ZorvXmlConvertFromXmlToText(pValue);
  pTag->apNames[pTag->nVariables] = pToken;
  pTag->apValues[pTag->nVariables] = pValue;
  ++pTag->nVariables;
  return 1;
}

/* freeTag(): the copy; the tag is empty afterwards. */
static void freeTag(NlsTag* pTag) {
  free(pTag->pCopy);
  memset(pTag, 0, sizeof *pTag);
}

/* parseTag(): "<NLS name=value ... />" into `pTag` (free it with
 * freeTag()). 1 when it reads and names an id; 0 for anything else, also
 * when out of memory. */
static int parseTag(const char* tag, NlsTag* pTag) {
  memset(pTag, 0, sizeof *pTag);
  size_t n = strlen(tag);
  if (n < 7 || strncmp(tag, "<NLS ", 5) != 0 || strcmp(tag + n - 2, "/>") != 0)
    return 0;
  const char* pBody = tag + 5;
  size_t nBody = n - 7;
  while (nBody > 0 && pBody[nBody - 1] == ' ') --nBody;
  /* The body goes back into the answer as an element's tag. */
  if (memchr(pBody, '<', nBody) || memchr(pBody, '>', nBody)) return 0;
  pTag->pBody = pBody;
  pTag->nBody = nBody;
  pTag->pCopy = (char*)malloc(nBody + 1);
  if (!pTag->pCopy) return 0;
  memcpy(pTag->pCopy, pBody, nBody);
  pTag->pCopy[nBody] = '\0';
  char* p = pTag->pCopy;
  while (*p) {
    if (*p == ' ') {
      ++p;
      continue;
    }
    char* pEnd = strchr(p, ' ');
    char* pNext = pEnd ? pEnd + 1 : p + strlen(p);
    if (pEnd) *pEnd = '\0';
    if (!takeAttribute(p, pTag)) {
      freeTag(pTag);
      return 0;
    }
    p = pNext;
  }
  if (!pTag->pId || !pTag->pId[0]) {
    freeTag(pTag);
    return 0;
  }
  return 1;
}

/* fillVariables(): placeholders of `text` from the parsed tag. */
static int fillVariables(const char* text, const NlsTag* pTag, CGenStr* out) {
  CGenStrClear(out);
  const char* p = text;
  while (*p) {
    if (p[0] == '{' && p[1] == '{') {
      if (!CGenStrCatC(out, '{')) return 0;
      p += 2;
      continue;
    }
    if (p[0] == '{') {
      const char* pClose = strchr(p + 1, '}');
      size_t nName = pClose ? (size_t)(pClose - p - 1) : 0;
      const char* pFound = NULL;
      for (int i = 0; pClose && isName(p + 1, nName) && i < pTag->nVariables;
           ++i) {
        if (strlen(pTag->apNames[i]) == nName &&
            memcmp(pTag->apNames[i], p + 1, nName) == 0) {
          pFound = pTag->apValues[i];
          break;
        }
      }
      if (pFound) {
        if (!CGenStrCatChar(out, pFound)) return 0;
        p = pClose + 1;
        continue;
      }
    }
    if (!CGenStrCatC(out, *p)) return 0;
    ++p;
  }
  return 1;
}

/* ZorvNls_I_FillVariables(): the public form over a tag text. */
int ZorvNls_I_FillVariables(const char* text, const char* tag, CGenStr* out) {
  NlsTag parsed;
  parseTag(tag, &parsed);
  int ok = fillVariables(text, &parsed, out);
  freeTag(&parsed);
  return ok;
}

/* ---- Commands ------------------------------------------------------------ */

/* catLanguage(): "<LL>" + the escaped, filled text + "</LL>". */
static int catLanguage(CGenStr* reply, const char* language, const char* text,
                       const NlsTag* pTag) {
  CGenStr filled;
  if (!CGenStrInit(&filled)) return 0;
  int ok = fillVariables(text, pTag, &filled) &&
           CGenStrCatf(reply, "<%s>", language) &&
           ZorvServerCatEscaped(reply, CGenStrC_Str(&filled)) &&
           CGenStrCatf(reply, "</%s>", language);
  CGenStrDelete(&filled);
  return ok;
}

/* isLanguageWord(): two letters. */
static int isLanguageWord(const char* text) {
  return isalpha((unsigned char)text[0]) && isalpha((unsigned char)text[1]) &&
         text[2] == '\0';
}

/* getString(): "<lang>:<tag>" after "NLS_GETSTRING:". The answer holds the
 * tag as an element with the requested language and English, each when the
 * file has it; neither, and the client keeps the tag. "TK" asks for the tag
 * itself. */
static int getString(uint32_t requester, const char* arguments,
                     CGenStr* reply) {
  const char* pColon = strchr(arguments, ':');
  char szLanguage[3] = {0};
  if (!pColon || pColon - arguments != 2) {
    return CGenStrAssignChar(reply, "ERROR:bad language");
  }
  memcpy(szLanguage, arguments, 2);
  if (!isLanguageWord(szLanguage))
    return CGenStrAssignChar(reply, "ERROR:bad language");
  NlsTag tag;
  if (!parseTag(pColon + 1, &tag))
    return CGenStrAssignChar(reply, "ERROR:bad tag");
  CGenStr requested;
  CGenStr english;
  int ok = CGenStrInit(&requested) && CGenStrInit(&english) &&
           CGenStrAssignChar(reply, "<NLS ") &&
           CGenStrCatf(reply, "%.*s>", (int)tag.nBody, tag.pBody);
  int bRequested = 0;
  int bEnglish = 0;
  if (ok && strcmp(szLanguage, "TK") != 0) {
    char aPaths[ZORV_NLS_MAX_CANDIDATES][ZORV_NLS_PATH_SIZE];
    int nPaths = ZorvNls_I_CandidateFiles(requester, tag.pModule, aPaths,
                                          ZORV_NLS_MAX_CANDIDATES);
    int bAskEnglish = strcmp(szLanguage, "EN") != 0;
    for (int i = 0; i < nPaths && !bRequested && !bEnglish; ++i) {
      bRequested =
          ZorvNls_I_ReadString(aPaths[i], szLanguage, tag.pId, &requested);
      if (bAskEnglish)
        bEnglish = ZorvNls_I_ReadString(aPaths[i], "EN", tag.pId, &english);
    }
  }
  if (ok && bRequested)
    ok = catLanguage(reply, szLanguage, CGenStrC_Str(&requested), &tag);
  if (ok && bEnglish)
    ok = catLanguage(reply, "EN", CGenStrC_Str(&english), &tag);
  if (ok) ok = CGenStrCatChar(reply, "</NLS>");
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s %s: %s%s\n", szLanguage, tag.pId,
                bRequested ? "found" : "not found",
                bEnglish ? ", English found" : "");
  CGenStrDelete(&requested);
  CGenStrDelete(&english);
  freeTag(&tag);
  return ok;
}

/* registerModule(): "<pid>:<file>" after "NLS_REGMOD:". */
static int registerModule(const char* arguments, CGenStr* reply) {
  const char* pColon = strchr(arguments, ':');
  char szPid[16];
  uint32_t pid = 0;
  size_t nPid = pColon ? (size_t)(pColon - arguments) : 0;
  if (!pColon || nPid == 0 || nPid >= sizeof szPid)
    return CGenStrAssignChar(reply, "ERROR:bad process id");
  memcpy(szPid, arguments, nPid);
  szPid[nPid] = '\0';
  if (!ZorvServerParseDecimal(szPid, 0x7fffffffu, &pid))
    return CGenStrAssignChar(reply, "ERROR:bad process id");
  switch (ZorvNls_I_Register(pid, pColon + 1)) {
    case ZORV_NLS_REG_OK:
      return CGenStrAssignChar(reply, "SUCCESS");
    case ZORV_NLS_REG_BAD_NAME:
      return CGenStrAssignChar(reply, "ERROR:bad file name");
    case ZORV_NLS_REG_NO_FILE:
      return CGenStrAssignChar(reply, "ERROR:no such string file");
    case ZORV_NLS_REG_TOO_LARGE:
      return CGenStrAssignChar(reply, "ERROR:string file too large");
    default:
      return CGenStrAssignChar(reply, "ERROR:too many registrations");
  }
}

/* setDefaultLanguage(): one of the 143 codes. */
static int setDefaultLanguage(const char* code, CGenStr* reply) {
  if (!ZorvNls_I_IsLanguageCode(code))
    return CGenStrAssignChar(reply, "ERROR:unknown language");
  memcpy(commands.szDefaultLanguage, code, 3);
  return CGenStrAssignChar(reply, "SUCCESS");
}

/* afterPrefix(): the text after `prefix`, or null when it does not begin
 * with it. */
static const char* afterPrefix(const char* text, const char* prefix) {
  size_t n = strlen(prefix);
  return strncmp(text, prefix, n) == 0 ? text + n : NULL;
}

/* ZorvNls_I_HandleCommand(): by command word. */
int ZorvNls_I_HandleCommand(uint32_t requester, const char* command,
                            CGenStr* reply) {
  const char* pArguments;
  if ((pArguments = afterPrefix(command, "NLS_GETSTRING:")) != NULL)
    return getString(requester, pArguments, reply);
  if ((pArguments = afterPrefix(command, "NLS_REGMOD:")) != NULL)
    return registerModule(pArguments, reply);
  if (strcmp(command, "NLS_GETLANGS") == 0)
    return ZorvNls_I_ListLanguages(reply);
  if ((pArguments = afterPrefix(command, "NLS_SET_DEFAULT_LANG:")) != NULL)
    return setDefaultLanguage(pArguments, reply);
  if (strcmp(command, "NLS_GET_DEFAULT_LANG") == 0)
    return CGenStrAssignChar(reply, commands.szDefaultLanguage);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "unknown command from %lu\n",
                (unsigned long)requester);
  return CGenStrAssignChar(reply, "ERROR:unknown command");
}
