/*
 * fifo-names.h: the pipe directory, the bin directory and the FIFO names.
 *
 * Each name is composed once into a process-wide 256-byte buffer and kept;
 * later changes of the pipe directory do not alter names already composed,
 * except through the setters. Composition uses the safe copies, so an
 * over-long path becomes "!!!OVERFLOW!!!" rather than a cut path. The pipe
 * directory comes from ZORV_TMP, else the working directory at first use.
 * Not thread-safe before the first call. Plain C.
 */
#ifndef ZORV2000_FIFO_NAMES_H
#define ZORV2000_FIFO_NAMES_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of each name buffer, terminator included. */
#define ZORV_PATH_SIZE 256

/* ZorvGetPipeDirectory(): the pipe directory, decided on first call. */
ZORV_API const char* ZorvGetPipeDirectory(void);
/* ZorvSetPipeDirectory(): a path starting with "." is the working directory
 * followed by the path without its first character ("./x" -> <cwd>/x).
 * Returns 0, or the non-zero result of access() (the directory is then
 * emptied and decided again on the next get). A null path returns -1 and
 * changes nothing. */
ZORV_API int ZorvSetPipeDirectory(const char* path);
/* ZorvGetBinDirectory(): the bin directory as set, possibly empty. */
ZORV_API const char* ZorvGetBinDirectory(void);
/* ZorvSetBinDirectory(): like ZorvSetPipeDirectory(); the directory must
 * contain a searchable "zorv2000", else it is emptied. */
ZORV_API int ZorvSetBinDirectory(const char* path);
/* ZorvGetServerFifoName(): the server FIFO, default <pipe dir>/ZORVFIFO. */
ZORV_API const char* ZorvGetServerFifoName(void);
/* ZorvSetServerFifoName(): <pipe dir>/ZORVFIFO_<pid>; pid 0 means this
 * process. Returns the name. */
ZORV_API const char* ZorvSetServerFifoName(int32_t pid);
/* ZorvSetServerFifoNameEx(): a full path, or the default for null or "". */
ZORV_API const char* ZorvSetServerFifoNameEx(const char* name);
/* ZorvGetClientFifoName(): <pipe dir>/ZORV_<cached pid>. */
ZORV_API const char* ZorvGetClientFifoName(void);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_FIFO_NAMES_H */
