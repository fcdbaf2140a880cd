/*
 * server-common.cpp: clock, own directory, command line, decimal checks and
 * envelope replies shared by the servers. No state and no locks; nothing
 * here reads or writes a FIFO.
 */
#include "servers/common/server-common.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "zorv2000/message-protocol.h"

/* Header buffer of a reply: FROM, TO, ID, RE, TYPE and TIME of a server
 * message stay far below this. */
enum { SERVER_HEADER_SIZE = 512 };

/* ZorvServerNowMs(): CLOCK_MONOTONIC in milliseconds. */
uint64_t ZorvServerNowMs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

/* ZorvServerOwnDirectory(): the directory part of /proc/self/exe. */
int ZorvServerOwnDirectory(char* buffer, uint32_t size) {
  char szExe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", szExe, sizeof szExe - 1);
  if (n <= 0) return 0;
  szExe[n] = '\0';
  char* pSlash = strrchr(szExe, '/');
  if (!pSlash) return 0;
  /* An executable in "/" keeps its "/" as the directory. */
  if (pSlash == szExe)
    pSlash[1] = '\0';
  else
    *pSlash = '\0';
  if (strlen(szExe) + 1 > size) return 0;
  memcpy(buffer, szExe, strlen(szExe) + 1);
  return 1;
}

/* ZorvServerTakeArguments(): "trace", empty arguments, anything else. */
int ZorvServerTakeArguments(const char* program, int argc, char** argv) {
  int bTrace = 0;
  for (int i = 1; i < argc; ++i) {
    if (!argv[i] || !argv[i][0]) continue;
    if (strcmp(argv[i], "trace") == 0) {
      bTrace = 1;
      continue;
    }
    fprintf(stderr, "%s: unknown argument \"%s\" ignored\n", program, argv[i]);
  }
  /* The switch is read once, at the first trace line; the programs this
   * one starts inherit it. An explicit ZORV_TRACE wins. */
  if (bTrace) setenv("ZORV_TRACE", ZORV_SERVER_TRACE_KEYWORDS, 0);
  return bTrace;
}

/* ZorvServerParseDecimal(): digits only, bounded. */
int ZorvServerParseDecimal(const char* text, uint32_t max, uint32_t* value) {
  if (!text || !text[0]) return 0;
  uint64_t v = 0;
  size_t i = 0;
  for (; text[i]; ++i) {
    if (i >= 10 || text[i] < '0' || text[i] > '9') return 0;
    v = v * 10u + (uint64_t)(text[i] - '0');
  }
  if (v > max) return 0;
  *value = (uint32_t)v;
  return 1;
}

/* ZorvServerBuildMessage(): header, DATA, MSG. */
int ZorvServerBuildMessage(CGenStr* out, const char* to, const char* re,
                           const char* type, const char* data) {
  char szHeader[SERVER_HEADER_SIZE];
  if (ZorvCreateMessageHeader(szHeader, sizeof szHeader, to, re, type, NULL) !=
      0)
    return 0;
  ZorvCreateMessageStr(out, "MSG", szHeader, "<DATA>", data ? data : "",
                       "</DATA>", NULL);
  /* The builder does not report a failure to grow; a complete envelope
   * ends in "</MSG>\r\n". */
  uint32_t n = CGenStrSize(out);
  return n >= 8 && memcmp(CGenStrC_Str(out) + n - 8, "</MSG>\r\n", 8) == 0;
}

/* ZorvServerCatEscaped(): escapes through the library's own table. */
int ZorvServerCatEscaped(CGenStr* out, const char* text) {
  if (!text) return 1;
  char* pCopy = strdup(text);
  if (!pCopy) return 0;
  char* pEscaped = ZorvXmlAllocStringAndConvertToXml(pCopy);
  int ok = CGenStrCatChar(out, pEscaped);
  if (pEscaped != pCopy) free(pEscaped);
  free(pCopy);
  return ok;
}

/* ZorvServerCatElement(): one element with escaped content. */
int ZorvServerCatElement(CGenStr* out, const char* tag, const char* text) {
  return CGenStrCatf(out, "<%s>", tag) && ZorvServerCatEscaped(out, text) &&
         CGenStrCatf(out, "</%s>", tag);
}
