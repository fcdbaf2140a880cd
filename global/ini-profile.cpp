/*
 * ini-profile.cpp: single values from INI files, with a one-file cache
 * (speed access) for reading many keys of one file.
 * No locks: the cache is process-wide and unguarded. No output. Every index
 * into the file's bytes is bounded by what was read, whatever the file holds.
 */
#include "zorv2000/ini-profile.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "global/genstr_p.h"
#include "global/ini-profile_p.h"
#include "zorv2000/tracing.h"

/* Bytes kept of one line; the rest of a longer line is the next line. */
enum { INI_LINE_MAX = 511 };
/* Spare bytes allocated after a cached file: room for the closing line
 * feed. */
enum { INI_CACHE_SPARE = 10 };
/* Text buffers of the integer and word readers. */
enum { INI_NUMBER_BUFFER = 20 };
/* Extra bytes allocated after a value handed out by the worker. */
enum { INI_VALUE_SPARE = 4 };

/* The speed cache; the whole unit's process-wide state. */
static struct {
  /* unguarded: callers never read INI files on two threads at once; the
   * file's bytes plus INI_CACHE_SPARE, or null when nothing is cached */
  char* lpSpeedINIHandleMem;
  /* unguarded: as above; bytes read, deliberately 16 bits (see below) */
  uint16_t wSpeedINIHandleSize;
  /* unguarded: as above; read position, 16 bits like the size */
  uint16_t wSpeedINIHandlePtr;
} speedIni;

/* readFileWhole(): reads up to `len` bytes of `fd` into `mem`; returns the
 * number read (short at end of file or on an error). */
static long readFileWhole(int fd, char* mem, long len) {
  long nDone = 0;
  while (nDone < len) {
    ssize_t n = read(fd, mem + nDone, (size_t)(len - nDone));
    if (n <= 0) break;
    nDone += (long)n;
  }
  return nDone;
}

/* filelength(): seeks to the end and back to where the file stood. */
long filelength(int fd) {
  off_t posNow = lseek(fd, 0, SEEK_CUR);
  off_t posEnd = lseek(fd, 0, SEEK_END);
  lseek(fd, posNow, SEEK_SET);
  return (long)posEnd;
}

/* ZorvEndSpeedIniAccess(): frees the cached file, if any. */
void ZorvEndSpeedIniAccess(void) {
  cGenAllocCalls.pfnFree(speedIni.lpSpeedINIHandleMem);
  speedIni.lpSpeedINIHandleMem = NULL;
  speedIni.wSpeedINIHandleSize = 0;
  speedIni.wSpeedINIHandlePtr = 0;
}

/* ZorvSpeedIniAccess(): caches `path` in place of any cached file. */
int ZorvSpeedIniAccess(const char* path) {
  ZorvEndSpeedIniAccess();
  if (!path) return -1;
  int fd = open(path, O_RDONLY);
  if (fd < 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvSpeedIniAccess(): cannot open %s\n",
                  path);
    return -1;
  }
  long len = filelength(fd);
  if (len < 0) len = 0;
  char* pMem = NULL;
  if ((unsigned long)len <= (unsigned long)SIZE_MAX - INI_CACHE_SPARE) {
    pMem = (char*)cGenAllocCalls.pfnMalloc((size_t)len + INI_CACHE_SPARE);
  }
  if (!pMem) {
    close(fd);
    return 0;
  }
  long nRead = readFileWhole(fd, pMem, len);
  /* The line feed after the data ends a last line that has none; nRead is
   * at most len, so it stays inside the spare bytes. */
  pMem[nRead] = '\n';
  speedIni.lpSpeedINIHandleMem = pMem;
  /* Deliberate: the size is kept in 16 bits, so a file of 65536 bytes or
   * more is seen only up to its length modulo 65536. Definitions files are
   * small, and readers of large ones have always seen this cut. */
  speedIni.wSpeedINIHandleSize = (uint16_t)nRead;
  speedIni.wSpeedINIHandlePtr = 0;
  if (nRead > UINT16_MAX) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "ZorvSpeedIniAccess(): %s has %ld bytes, only %u are read\n",
                  path, nRead, (unsigned)speedIni.wSpeedINIHandleSize);
  }
  return close(fd);
}

/* readCachedLine(): the next line of the cached file into `line` (at most
 * INI_LINE_MAX bytes, NUL-terminated). A byte below 32 ends the line and is
 * skipped; a line that reaches INI_LINE_MAX bytes ends there and the rest is
 * the next line. Returns 0 at the end of the data, else 1. */
static int readCachedLine(char* line) {
  uint32_t nLine = 0;
  int bAny = 0;
  /* The position never passes the 16-bit size, so it never wraps and every
   * index stays inside what was read. */
  while (speedIni.wSpeedINIHandlePtr < speedIni.wSpeedINIHandleSize) {
    const char* pMem = speedIni.lpSpeedINIHandleMem;
    unsigned char ch = (unsigned char)pMem[speedIni.wSpeedINIHandlePtr];
    speedIni.wSpeedINIHandlePtr++;
    bAny = 1;
    /* Deliberate: every byte below 32 ends a line, a tab included, so
     * "key\t=1" is two lines; files written by the framework's tools use
     * spaces only. */
    if (ch < 32) break;
    line[nLine++] = (char)ch;
    /* Deliberate: an over-long line is not skipped but read on as the next
     * line, so a value that long can surface as a key line of its own. */
    if (nLine == INI_LINE_MAX) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                    "ZorvGetPrivateProfileString(): long line split\n");
      break;
    }
  }
  line[nLine] = '\0';
  return bAny;
}

/* storeText(): copies `text` into `buffer` of `size` bytes, cut to fit, the
 * last byte forced to NUL; returns the length stored. */
static int storeText(char* buffer, uint32_t size, const char* text) {
  if (size == 0) return 0;
  size_t n = strlen(text);
  if (n > size - 1) n = size - 1;
  memcpy(buffer, text, n);
  buffer[n] = '\0';
  buffer[size - 1] = '\0';
  return (int)n;
}

/* matchesKeyLine(): whether `line` (leading spaces already skipped) is a
 * key line for `key`: the text before the first "=", trailing spaces
 * removed, equal to key ignoring case. Sets *value to the text after "=". */
static int matchesKeyLine(char* line, const char* key, const char** value) {
  char* pEq = strchr(line, '=');
  if (!pEq) return 0;
  char* pKeyEnd = pEq;
  while (pKeyEnd > line && pKeyEnd[-1] == ' ') pKeyEnd--;
  char saved = *pKeyEnd;
  *pKeyEnd = '\0';
  int bMatch = strcasecmp(line, key) == 0;
  *pKeyEnd = saved;
  *value = pEq + 1;
  return bMatch;
}

/* Zorv_I_GetPrivateProfileString(): see ini-profile_p.h. */
int Zorv_I_GetPrivateProfileString(const char* section, const char* key,
                                   const char* def, char* buffer, uint32_t size,
                                   const char* path, char** allocated) {
  if (allocated) *allocated = NULL;
  int bLoaded = 0;
  /* Deliberate: the cache is not keyed by file name; while one is set every
   * lookup reads it, whatever `path` says. Modules cache their definitions
   * file once and then pass any path, and ending speed access before
   * reading another file is the caller's job. */
  if (speedIni.lpSpeedINIHandleMem) {
    speedIni.wSpeedINIHandlePtr = 0;
  } else {
    ZorvSpeedIniAccess(path);
    bLoaded = 1;
  }
  int bSectionFound = 0;
  int rc = -1;
  char line[INI_LINE_MAX + 1];
  while (rc < 0 && speedIni.lpSpeedINIHandleMem && readCachedLine(line)) {
    char* pLine = line;
    while (*pLine == ' ') pLine++;
    if (*pLine == '[') {
      char* pClose = strchr(pLine, ']');
      if (!pClose) continue;
      if (bSectionFound) break;
      *pClose = '\0';
      if (section && strcasecmp(pLine + 1, section) == 0) {
        bSectionFound = 1;
        if (!key) break;
      }
      continue;
    }
    /* Deliberate: there is no comment syntax. ";x=1" is an ordinary key line
     * named ";x", and definitions files rely on that to carry such keys. */
    const char* pValue;
    if (!bSectionFound || !key || !matchesKeyLine(pLine, key, &pValue)) {
      continue;
    }
    size_t nValue = strlen(pValue);
    if (buffer) {
      rc = storeText(buffer, size, pValue);
    } else if (allocated) {
      char* pCopy = (char*)cGenAllocCalls.pfnMalloc(nValue + INI_VALUE_SPARE);
      if (pCopy) {
        rc = storeText(pCopy, (uint32_t)nValue + INI_VALUE_SPARE, pValue);
        *allocated = pCopy;
      } else {
        rc = 0;
      }
    } else {
      rc = (int)nValue; /* nowhere to store it: only the length */
    }
  }
  if (bLoaded) ZorvEndSpeedIniAccess();
  if (rc >= 0) return rc;
  if (!key) return bSectionFound ? 1 : 0;
  if (!buffer) return 0;
  return storeText(buffer, size, def ? def : "");
}

/* ZorvGetPrivateProfileString(): the worker with the caller's buffer. */
int ZorvGetPrivateProfileString(const char* section, const char* key,
                                const char* def, char* buffer, uint32_t size,
                                const char* path) {
  return Zorv_I_GetPrivateProfileString(section, key, def, buffer, size, path,
                                        NULL);
}

/* ZorvGetIniString(): the value in a malloc'ed text, null when empty. */
char* ZorvGetIniString(const char* path, const char* section, const char* key) {
  char* pValue = NULL;
  Zorv_I_GetPrivateProfileString(section, key, NULL, NULL, 0, path, &pValue);
  if (pValue && pValue[0] == '\0') {
    cGenAllocCalls.pfnFree(pValue);
    pValue = NULL;
  }
  return pValue;
}

/* ZorvGetIniInt(): the decimal value; -1 for an empty value. */
int ZorvGetIniInt(const char* path, const char* section, int def,
                  const char* key) {
  char defText[INI_NUMBER_BUFFER];
  char text[INI_NUMBER_BUFFER];
  snprintf(defText, sizeof defText, "%i", def);
  text[0] = '\0';
  Zorv_I_GetPrivateProfileString(section, key, defText, text, sizeof text, path,
                                 NULL);
  if (text[0] == '\0') return -1;
  return (int)strtol(text, NULL, 10);
}

/* GetIniWord(): the hexadecimal value; the default when it does not scan. */
uint16_t GetIniWord(const char* path, const char* section, uint16_t def,
                    const char* key) {
  char defText[INI_NUMBER_BUFFER];
  char text[INI_NUMBER_BUFFER];
  snprintf(defText, sizeof defText, "%X", (unsigned)def);
  text[0] = '\0';
  Zorv_I_GetPrivateProfileString(section, key, defText, text, sizeof text, path,
                                 NULL);
  unsigned value = 0;
  if (sscanf(text, "%X", &value) != 1) return def;
  return (uint16_t)value;
}

/* Zorv_I_SpeedIniCached(): whether a file is cached. */
int Zorv_I_SpeedIniCached(void) { return speedIni.lpSpeedINIHandleMem != NULL; }

/* Zorv_I_SpeedIniSize(): the cache's 16-bit byte count. */
uint16_t Zorv_I_SpeedIniSize(void) { return speedIni.wSpeedINIHandleSize; }

/* Zorv_I_SpeedIniPtr(): the cache's 16-bit read position. */
uint16_t Zorv_I_SpeedIniPtr(void) { return speedIni.wSpeedINIHandlePtr; }
