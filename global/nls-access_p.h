/*
 * nls-access_p.h: internals of the NLS access unit.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. The sizes and time-out of the NLS engine's commands, and
 * the heap call of the unit as a seam, so tests can make an allocation fail.
 */
#ifndef ZORV_GLOBAL_NLS_ACCESS_P_H
#define ZORV_GLOBAL_NLS_ACCESS_P_H

#include <stddef.h>

#include "zorv2000/genstr.h"
#include "zorv2000/nls-access.h"

/* Buffers and wait of the engine's commands. */
enum {
  ZORV_NLS_GETSTRING_BUFFER = 8192, /* request, then reply, of a lookup */
  ZORV_NLS_REGMOD_BUFFER = 1024,    /* request, then reply, of a registration */
  ZORV_NLS_PID_TEXT = 40,
  ZORV_NLS_TIMEOUT_MS = 5000
};

/* Heap call of the unit: the lookup and registration buffers, the copy of a
 * message being translated and the escaped value of a variable. Memory from
 * it is released with free(). Unguarded: tests replace it only while no
 * other thread runs, and put it back. */
struct ZorvNlsAllocCalls {
  void* (*pfnMalloc)(size_t size);
};
extern struct ZorvNlsAllocCalls zorvNlsAllocCalls;

/* ---- Hidden helpers for tests and fuzzing ----------------------------------
 */

/* ZorvNls_I_PickTranslation(): finds, behind the first "<NLS ...>" of a
 * reply, the element "<lang>" (else "<EN>") and puts its text up to the next
 * "<", unescaped, into `result` and the two letters into `returnedLang`
 * (3 bytes); without either element the result is `tag` and the language
 * "TK". Changes the reply. 1 on success, 0 for a reply without "<NLS " or
 * without the ">" of that tag, or a failed assignment. */
int ZorvNls_I_PickTranslation(char* reply, const char* tag,
                              const char* language, char* returnedLang,
                              CGenStr* result);

#endif /* ZORV_GLOBAL_NLS_ACCESS_P_H */
