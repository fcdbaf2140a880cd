/*
 * nls-access.h: language ids and translated strings from the NLS engine.
 *
 * Texts are written as NLS tags, empty elements such as
 *   <NLS mod=mymod id=MSG_DISK_FULL/>
 * naming a string by module and id, optionally followed by variables
 * (" name=value", the value escaped). Each lookup is a transaction on the
 * client's connection (client-messaging-engine.h) with a time-out of 5000 ms;
 * English is the fallback of every lookup, and the pseudo-language "TK"
 * means "keep the tag". The local default language is unguarded process
 * state: set it before other threads look up strings. Plain C.
 */
#ifndef ZORV2000_NLS_ACCESS_H
#define ZORV2000_NLS_ACCESS_H

#include <stdint.h>

#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Language ids ---------------------------------------------------------
 */

/* ZorvSetLocalDefaultLanguage(): keeps the first two characters of `lang`
 * (fewer when it is shorter); null empties it. "EN" at start. */
ZORV_API void ZorvSetLocalDefaultLanguage(const char* lang);
/* ZorvGetLocalDefaultLanguage(): the kept text; never null, may be empty. */
ZORV_API const char* ZorvGetLocalDefaultLanguage(void);
/* IsNullOrBlankString(): 1 for null or "", else 0. */
ZORV_API int IsNullOrBlankString(const char* text);
/* IsValidLangId(): 1 for a text of exactly two characters, else 0. */
ZORV_API int IsValidLangId(const char* text);

/* ---- Lookups --------------------------------------------------------------
 */

/* ZorvGetNlsStringWithXmlTag(): asks the NLS engine for `tag` (which must
 * begin with "<NLS ") in `lang` (null: the local default), falling back to
 * English. On success `result` holds the unescaped translation and
 * `returnedLang` (3 bytes) the language delivered; when the engine knows
 * neither language, `result` is the tag itself and `returnedLang` "TK".
 * Returns 1 on success, 0 on failure (bad arguments, no reply within
 * 5000 ms, a reply without its "<NLS ...>" element). */
ZORV_API int ZorvGetNlsStringWithXmlTag(const char* tag, const char* lang,
                                        char* returnedLang, CGenStr* result);

/* ZorvGetNlsMessageWithXmlMessage(): copies `message` into `result` with
 * every NLS tag replaced by its translation into `lang` (an invalid `lang`
 * means the local default); a tag that cannot be translated stays as it is,
 * and a tag without its closing "/>" is copied as text with the rest of the
 * message. `result` is replaced (initialised first when it is not). Returns
 * 1, or 0 for a null or empty message, no usable language, or no memory. */
ZORV_API int ZorvGetNlsMessageWithXmlMessage(const char* message,
                                             const char* lang, CGenStr* result);

/* ZorvGetNlsStringWithIdEx(): the translation of "<NLS mod=module id=id/>"
 * ("<NLS id=id/>" for a null module) into `buffer` of `size` bytes; returns
 * `buffer`, or null: for a null buffer or a size below 1, for a bad
 * identifier (IsBadXmlIdentifier(); the engine is not asked), when the
 * lookup fails, or when the translation does not fit (the buffer then holds
 * the overflow marker). The buffer is emptied first. */
ZORV_API char* ZorvGetNlsStringWithIdEx(const char* module, const char* id,
                                        const char* lang, char* buffer,
                                        int32_t size);
/* ZorvGetNlsStringWithId(): the same without module, in the local default
 * language. */
ZORV_API char* ZorvGetNlsStringWithId(const char* id, char* buffer,
                                      int32_t size);
/* ZorvAllocAndGetNlsStringWithId(): always null; use the buffer forms. */
ZORV_API char* ZorvAllocAndGetNlsStringWithId(const char* id);

/* ---- Registration -----------------------------------------------------------
 */

/* Results of ZorvNlsRegisterModuleNlsFile(). */
enum ZorvNlsRegisterStatus {
  ZORV_NLSREG_OK = 0,
  ZORV_NLSREG_BAD_NAME = 1,
  ZORV_NLSREG_NO_BUFFER = 2,
  ZORV_NLSREG_NO_COMMAND = 3, /* the command does not fit 1024 bytes */
  ZORV_NLSREG_NO_RESPONSE = 4 /* no reply within 5000 ms */
};

/* ZorvNlsRegisterModuleNlsFile(): registers the NLS file `path` with the NLS
 * engine by its file name (the part after the last "/", which must be a good
 * identifier: "mymod.nls" is). Returns a ZorvNlsRegisterStatus. */
ZORV_API int ZorvNlsRegisterModuleNlsFile(const char* path);

/* ---- Variables -------------------------------------------------------------
 */

/* Results of the two ZorvNlsAddVariableToTag functions. */
enum ZorvNlsVariableStatus {
  ZORV_NLSVAR_OK = 0,
  ZORV_NLSVAR_BAD_NAME = 1,
  ZORV_NLSVAR_NULL_TAG = 2,
  ZORV_NLSVAR_NO_ROOM = 3, /* buffer form only */
  ZORV_NLSVAR_NULL_VALUE = 4,
  ZORV_NLSVAR_NOT_NLS = 5,    /* the tag does not begin with "<NLS " */
  ZORV_NLSVAR_NOT_CLOSED = 6, /* the tag does not end with "/>" */
  ZORV_NLSVAR_NO_ESCAPE = 7,
  ZORV_NLSVAR_NO_CUT = 9,
  ZORV_NLSVAR_NO_APPEND = 10
};

/* ZorvNlsAddVariableToTagStr(): replaces the final "/>" of `tag` by
 * " name=value/>", the value escaped ("a b" becomes "a@20b"). Returns a
 * ZorvNlsVariableStatus. Codes up to 9 leave the tag unchanged; after 10
 * a growable tag may have lost its text, as a CGenStr does when it cannot
 * grow. */
ZORV_API int ZorvNlsAddVariableToTagStr(CGenStr* tag, const char* name,
                                        const char* value);
/* ZorvNlsAddVariableToTag(): the same on the text in `buffer` of `size`
 * bytes. 2 for a null buffer; 3 when `size` is not larger than the text, or
 * when the new text is longer than `size`. Note: a new text of exactly
 * `size` characters is copied with its terminator at buffer[size]. */
ZORV_API int ZorvNlsAddVariableToTag(char* buffer, uint32_t size,
                                     const char* name, const char* value);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_NLS_ACCESS_H */
