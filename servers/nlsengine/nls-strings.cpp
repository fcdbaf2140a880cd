/*
 * nls-strings.cpp: string files, registrations and language codes of the
 * NLS engine. Files are read through the library's INI reader with its
 * one-file cache, which this unit keeps pointed at the right file. Runs on
 * the engine's one thread; no locks. Only plain names inside the
 * string-file directory are ever opened.
 */
#include "servers/nlsengine/nls-strings.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "zorv2000/ini-profile.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/tracing.h"

/* The 143 language codes; the index is the language id controllers use. */
static const char* const kLanguageCodes[ZORV_NLS_LANGUAGE_COUNT] = {
    "EN", "AA", "AB", "AF", "AM", "AR", "AS", "AY", "AZ", "BA", "BE", "BG",
    "BH", "BI", "BN", "BO", "BR", "CA", "CO", "CS", "CY", "DA", "DE", "DZ",
    "EL", "EO", "ES", "ET", "EU", "FA", "FI", "FJ", "FO", "FR", "FY", "GA",
    "GD", "GL", "GN", "GU", "GV", "HA", "HE", "HI", "HR", "HU", "HY", "IA",
    "ID", "IE", "IK", "IS", "IT", "IU", "JA", "JW", "KA", "KK", "KL", "KM",
    "KN", "KO", "KS", "KU", "KW", "KY", "LA", "LB", "LN", "LO", "LT", "LV",
    "MG", "MI", "MK", "ML", "MN", "MO", "MR", "MS", "MT", "MY", "NA", "NE",
    "NL", "NO", "OC", "OM", "OR", "PA", "PL", "PS", "PT", "QU", "RM", "RN",
    "RO", "RU", "RW", "SA", "SD", "SE", "SG", "SH", "SI", "SK", "SL", "SM",
    "SN", "SO", "SQ", "SR", "SS", "ST", "SU", "SV", "SW", "TA", "TE", "TG",
    "TH", "TI", "TK", "TL", "TN", "TO", "TR", "TS", "TT", "TW", "UG", "UK",
    "UR", "UZ", "VI", "VO", "WO", "XH", "YI", "YO", "ZA", "ZH", "ZU"};

/* A value of a string file is one line: it never holds a control byte, so
 * this default marks a missing key. */
static const char kMissing[] = "\x01";
/* Bytes of one value: a line has at most 511. */
enum { NLS_VALUE_SIZE = 1024 };

/* One registration. */
typedef struct NlsRegistration {
  uint32_t pid;
  char szName[ZORV_NLS_NAME_SIZE];
} NlsRegistration;

/* Process-wide state of the unit. */
static struct {
  /* unguarded: the engine's one thread only */
  char szDirectory[ZORV_NLS_PATH_SIZE];
  /* unguarded: as above; oldest first */
  NlsRegistration aRegistrations[ZORV_NLS_MAX_REGISTRATIONS];
  int nRegistrations;
  /* unguarded: as above; the file the INI reader has cached, as it stood
   * when read (a changed file is read again) */
  char szCachedPath[ZORV_NLS_PATH_SIZE];
  struct stat cachedStat;
  /* unguarded: as above; each list of candidates starts a new lookup, and
   * the cached file found unchanged in it is not examined again */
  uint32_t lookup;
  uint32_t verifiedLookup;
} strings;

/* ZorvNls_I_InitStrings(): the directory. */
void ZorvNls_I_InitStrings(const char* directory) {
  snprintf(strings.szDirectory, sizeof strings.szDirectory, "%s", directory);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "string files in %s\n", strings.szDirectory);
}

/* ZorvNls_I_EndStrings(): cache and registrations. */
void ZorvNls_I_EndStrings(void) {
  ZorvEndSpeedIniAccess();
  strings.szCachedPath[0] = '\0';
  strings.nRegistrations = 0;
}

/* ZorvNls_I_LanguageCodeAt(): the table's code, null outside it. */
const char* ZorvNls_I_LanguageCodeAt(int index) {
  if (index < 0 || index >= ZORV_NLS_LANGUAGE_COUNT) return NULL;
  return kLanguageCodes[index];
}

/* ZorvNls_I_IsLanguageCode(): exact comparison with each code. */
int ZorvNls_I_IsLanguageCode(const char* code) {
  if (!code) return 0;
  for (int i = 0; i < ZORV_NLS_LANGUAGE_COUNT; ++i)
    if (strcmp(code, kLanguageCodes[i]) == 0) return 1;
  return 0;
}

/* ZorvNls_I_IsSafeFileName(): nothing that leaves the directory. */
int ZorvNls_I_IsSafeFileName(const char* name) {
  return name && name[0] && name[0] != '.' &&
         strlen(name) < ZORV_NLS_NAME_SIZE && IsBadXmlIdentifier(name) == 0 &&
         !strchr(name, '/');
}

/* usableFile(): `path` is a regular file that the INI reader reads whole. */
static int usableFile(const char* path, struct stat* pStat) {
  struct stat st;
  if (!pStat) pStat = &st;
  return stat(path, pStat) == 0 && S_ISREG(pStat->st_mode) &&
         pStat->st_size <= ZORV_NLS_MAX_FILE_SIZE;
}

/* pathOf(): <directory>/<name>; 0 when it does not fit. */
static int pathOf(const char* name, char* path, size_t size) {
  int n = snprintf(path, size, "%s/%s", strings.szDirectory, name);
  return n > 0 && (size_t)n < size;
}

/* ---- Registrations ------------------------------------------------------- */

/* processGone(): no process of that id exists any more. */
static int processGone(uint32_t pid) {
  return kill((pid_t)pid, 0) != 0 && errno == ESRCH;
}

/* removeRegistration(): drops entry `index`. */
static void removeRegistration(int index) {
  memmove(&strings.aRegistrations[index], &strings.aRegistrations[index + 1],
          (size_t)(strings.nRegistrations - index - 1) *
              sizeof strings.aRegistrations[0]);
  --strings.nRegistrations;
}

/* ZorvNls_I_Register(): check the file, then keep (pid, name). */
int ZorvNls_I_Register(uint32_t pid, const char* name) {
  if (!ZorvNls_I_IsSafeFileName(name)) return ZORV_NLS_REG_BAD_NAME;
  char szPath[ZORV_NLS_PATH_SIZE];
  struct stat st;
  if (!pathOf(name, szPath, sizeof szPath) || stat(szPath, &st) != 0 ||
      !S_ISREG(st.st_mode))
    return ZORV_NLS_REG_NO_FILE;
  if (st.st_size > ZORV_NLS_MAX_FILE_SIZE) return ZORV_NLS_REG_TOO_LARGE;
  for (int i = 0; i < strings.nRegistrations; ++i) {
    const NlsRegistration* pEntry = &strings.aRegistrations[i];
    if (pEntry->pid == pid && strcmp(pEntry->szName, name) == 0) {
      removeRegistration(i);
      break;
    }
  }
  if (strings.nRegistrations >= ZORV_NLS_MAX_REGISTRATIONS) {
    for (int i = strings.nRegistrations - 1; i >= 0; --i)
      if (processGone(strings.aRegistrations[i].pid)) removeRegistration(i);
  }
  if (strings.nRegistrations >= ZORV_NLS_MAX_REGISTRATIONS)
    return ZORV_NLS_REG_FULL;
  NlsRegistration* pNew = &strings.aRegistrations[strings.nRegistrations++];
  pNew->pid = pid;
  snprintf(pNew->szName, sizeof pNew->szName, "%s", name);
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "registered %s for %lu\n", name,
                (unsigned long)pid);
  return ZORV_NLS_REG_OK;
}

/* ---- Candidate files ----------------------------------------------------- */

/* stemLength(): characters before the first ".". */
static size_t stemLength(const char* name) { return strcspn(name, "."); }

/* sameFile(): two states of a file that show no change. */
static int sameFile(const struct stat* pA, const struct stat* pB) {
  return pA->st_dev == pB->st_dev && pA->st_ino == pB->st_ino &&
         pA->st_size == pB->st_size &&
         pA->st_mtim.tv_sec == pB->st_mtim.tv_sec &&
         pA->st_mtim.tv_nsec == pB->st_mtim.tv_nsec;
}

/* addCandidate(): appends the file of `name` when usable and new. */
static void addCandidate(const char* name, char (*paths)[ZORV_NLS_PATH_SIZE],
                         int max, int* pCount) {
  if (*pCount >= max || !ZorvNls_I_IsSafeFileName(name)) return;
  char szPath[ZORV_NLS_PATH_SIZE];
  struct stat st;
  if (!pathOf(name, szPath, sizeof szPath) || !usableFile(szPath, &st)) return;
  if (strcmp(szPath, strings.szCachedPath) == 0 &&
      sameFile(&st, &strings.cachedStat))
    strings.verifiedLookup = strings.lookup;
  for (int i = 0; i < *pCount; ++i)
    if (strcmp(paths[i], szPath) == 0) return;
  memcpy(paths[*pCount], szPath, strlen(szPath) + 1);
  ++*pCount;
}

/* ZorvNls_I_CandidateFiles(): by module, or by the requester's files. */
int ZorvNls_I_CandidateFiles(uint32_t requester, const char* module,
                             char (*paths)[ZORV_NLS_PATH_SIZE], int max) {
  int count = 0;
  ++strings.lookup;
  if (module) {
    if (!ZorvNls_I_IsSafeFileName(module)) return 0;
    addCandidate(module, paths, max, &count);
    size_t nStem = stemLength(module);
    for (int i = strings.nRegistrations - 1; i >= 0; --i) {
      const char* pName = strings.aRegistrations[i].szName;
      if (stemLength(pName) == nStem && strncmp(pName, module, nStem) == 0)
        addCandidate(pName, paths, max, &count);
    }
    char szNls[ZORV_NLS_NAME_SIZE];
    int n = snprintf(szNls, sizeof szNls, "%.*s.nls", (int)nStem, module);
    if (n > 0 && (size_t)n < sizeof szNls)
      addCandidate(szNls, paths, max, &count);
    return count;
  }
  for (int i = strings.nRegistrations - 1; i >= 0; --i)
    if (strings.aRegistrations[i].pid == requester)
      addCandidate(strings.aRegistrations[i].szName, paths, max, &count);
  addCandidate(ZORV_NLS_COMMON_FILE, paths, max, &count);
  return count;
}

/* ---- Reading ------------------------------------------------------------- */

/* cacheFile(): the INI reader's cache holds `path` as it stands now. */
static int cacheFile(const char* path) {
  int bCached = strcmp(strings.szCachedPath, path) == 0;
  if (bCached && strings.verifiedLookup == strings.lookup) return 1;
  struct stat st;
  if (!usableFile(path, &st)) return 0;
  if (bCached && sameFile(&st, &strings.cachedStat)) {
    strings.verifiedLookup = strings.lookup;
    return 1;
  }
  strings.szCachedPath[0] = '\0';
  if (ZorvSpeedIniAccess(path) < 0) return 0;
  snprintf(strings.szCachedPath, sizeof strings.szCachedPath, "%s", path);
  strings.cachedStat = st;
  strings.verifiedLookup = strings.lookup;
  return 1;
}

/* ZorvNls_I_ReadString(): one key of one section. */
int ZorvNls_I_ReadString(const char* path, const char* language, const char* id,
                         CGenStr* out) {
  if (!cacheFile(path)) return 0;
  char szValue[NLS_VALUE_SIZE];
  ZorvGetPrivateProfileString(language, id, kMissing, szValue, sizeof szValue,
                              path);
  if (strcmp(szValue, kMissing) == 0) return 0;
  return CGenStrAssignChar(out, szValue);
}

/* markLanguages(): sets abHave[i] for every code with a section in the
 * file. */
static void markLanguages(const char* path, int* abHave) {
  if (!cacheFile(path)) return;
  char szUnused[4];
  for (int i = 0; i < ZORV_NLS_LANGUAGE_COUNT; ++i)
    if (!abHave[i] &&
        ZorvGetPrivateProfileString(kLanguageCodes[i], NULL, "", szUnused,
                                    sizeof szUnused, path) == 1)
      abHave[i] = 1;
}

/* hasNlsExtension(): the name ends in ".nls". */
static int hasNlsExtension(const char* name) {
  size_t n = strlen(name);
  return n > 4 && strcmp(name + n - 4, ".nls") == 0;
}

/* ZorvNls_I_ListLanguages(): the union over the known files. */
int ZorvNls_I_ListLanguages(CGenStr* out) {
  ++strings.lookup;
  int abHave[ZORV_NLS_LANGUAGE_COUNT] = {0};
  char szPath[ZORV_NLS_PATH_SIZE];
  DIR* pDir = opendir(strings.szDirectory);
  if (pDir) {
    struct dirent* pEntry;
    while ((pEntry = readdir(pDir)) != NULL) {
      if (!hasNlsExtension(pEntry->d_name) ||
          !ZorvNls_I_IsSafeFileName(pEntry->d_name) ||
          !pathOf(pEntry->d_name, szPath, sizeof szPath))
        continue;
      markLanguages(szPath, abHave);
    }
    closedir(pDir);
  }
  for (int i = 0; i < strings.nRegistrations; ++i)
    if (pathOf(strings.aRegistrations[i].szName, szPath, sizeof szPath))
      markLanguages(szPath, abHave);
  CGenStrClear(out);
  int bFirst = 1;
  for (int i = 0; i < ZORV_NLS_LANGUAGE_COUNT; ++i) {
    if (!abHave[i]) continue;
    if (!CGenStrCatf(out, "%s%s", bFirst ? "" : ":", kLanguageCodes[i]))
      return 0;
    bFirst = 0;
  }
  return 1;
}
