/*
 * nls-strings.h: the NLS engine's string files. A string file is an INI
 * file in the string-file directory with one section per language code and
 * one key per string id:
 *
 *   [EN]
 *   MSG_DISK_FULL=Disk {drive} is full
 *   [DE]
 *   MSG_DISK_FULL=Laufwerk {drive} ist voll
 *
 * It is read with the library's INI reader (one file cached at a time), so
 * its limits apply: under 64 KiB per file, lines of at most 511 bytes,
 * section and key names compared ignoring letter case.
 */
#ifndef ZORV_SERVERS_NLSENGINE_NLS_STRINGS_H
#define ZORV_SERVERS_NLSENGINE_NLS_STRINGS_H

#include <stdint.h>

#include "zorv2000/genstr.h"

/* Language codes known to the framework: "EN" and 142 more. */
enum { ZORV_NLS_LANGUAGE_COUNT = 143 };
/* Largest string file read: the INI reader's counters are 16 bits. */
enum { ZORV_NLS_MAX_FILE_SIZE = 65535 };
/* Registrations kept (process id and file); entries of ended processes
 * make room when it is full. */
enum { ZORV_NLS_MAX_REGISTRATIONS = 256 };
/* Longest file name, longest path, and the most candidate files for one
 * tag. */
enum {
  ZORV_NLS_NAME_SIZE = 256,
  ZORV_NLS_PATH_SIZE = 4096,
  ZORV_NLS_MAX_CANDIDATES = 8
};
/* The file of strings without a module. */
#define ZORV_NLS_COMMON_FILE "zorv2000.nls"

/* ZorvNls_I_InitStrings(): the string-file directory (copied). */
void ZorvNls_I_InitStrings(const char* directory);
/* ZorvNls_I_EndStrings(): frees the cached file and the registrations. */
void ZorvNls_I_EndStrings(void);

/* ZorvNls_I_LanguageCodeAt(): code number `index` (0 is "EN"), null
 * outside 0 to 142. */
const char* ZorvNls_I_LanguageCodeAt(int index);
/* ZorvNls_I_IsLanguageCode(): one of the 143 codes, upper case exactly. */
int ZorvNls_I_IsLanguageCode(const char* code);

/* ZorvNls_I_IsSafeFileName(): a plain name for the string-file directory:
 * a good identifier (no blank, no "/"), not starting with ".", shorter
 * than ZORV_NLS_NAME_SIZE. */
int ZorvNls_I_IsSafeFileName(const char* name);

/* Results of ZorvNls_I_Register(). */
enum ZorvNlsRegisterResult {
  ZORV_NLS_REG_OK = 0,
  ZORV_NLS_REG_BAD_NAME = 1,
  ZORV_NLS_REG_NO_FILE = 2,   /* not a regular file in the directory */
  ZORV_NLS_REG_TOO_LARGE = 3, /* 64 KiB or more */
  ZORV_NLS_REG_FULL = 4
};
/* ZorvNls_I_Register(): registers string file `name` of the directory for
 * process `pid`. A file registered again moves to the front. */
int ZorvNls_I_Register(uint32_t pid, const char* name);

/* ZorvNls_I_CandidateFiles(): the files to look a tag up in, in order,
 * into `paths` (`max` rows of `size` bytes); returns their number. With a
 * module: the file of that name, registered files with the same name before
 * the first ".", then "<name before the first .>.nls". Without: the files
 * `requester` registered, newest first, then the common file. Only
 * readable regular files under 64 KiB are listed. */
int ZorvNls_I_CandidateFiles(uint32_t requester, const char* module,
                             char (*paths)[ZORV_NLS_PATH_SIZE], int max);

/* ZorvNls_I_ReadString(): the text of `id` in section `language` of the
 * file `path` into `out` (replaced). 1 when the key is there. */
int ZorvNls_I_ReadString(const char* path, const char* language, const char* id,
                         CGenStr* out);

/* ZorvNls_I_ListLanguages(): the codes, in table order and joined by ":",
 * that have a section in a string file of the directory ("*.nls") or in a
 * registered file, into `out` (replaced). 1, or 0 when out of memory. */
int ZorvNls_I_ListLanguages(CGenStr* out);

#endif /* ZORV_SERVERS_NLSENGINE_NLS_STRINGS_H */
