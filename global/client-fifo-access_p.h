/*
 * client-fifo-access_p.h: internals of the client's FIFO pair.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. The steps that open, hide and close the write FIFO to the
 * server and the client's own read FIFO, the raw send and receive, and the
 * accessors of the connection's descriptors, names, send time and error
 * counts. The _I_ functions are exported: the framework's servers link them.
 */
#ifndef ZORV_GLOBAL_CLIENT_FIFO_ACCESS_P_H
#define ZORV_GLOBAL_CLIENT_FIFO_ACCESS_P_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of ZorvClient_I_OpenFifoConnection() and of its steps. */
enum ZorvFifoOpenStatus {
  ZORV_FIFO_OPEN_OK = 0,
  ZORV_FIFO_OPEN_WRITE = 1, /* the server FIFO could not be opened */
  ZORV_FIFO_OPEN_READ = 2,  /* the own FIFO could not be made or opened */
  ZORV_FIFO_OPEN_DUMMY = 3  /* the own FIFO's dummy writer failed */
};

/* ZorvClient_I_OpenFifoConnection(): ignores SIGPIPE, opens the server FIFO
 * for writing, then makes and opens the own FIFO (reader and dummy writer).
 * On a failure of the own FIFO the write FIFO is closed again. Returns a
 * ZorvFifoOpenStatus. */
ZORV_API int ZorvClient_I_OpenFifoConnection(void);
/* ZorvClient_I_OpenWriteFifo(): copies the server FIFO name and opens it for
 * writing. 0, or 1 when nobody reads it (nothing stays open). */
ZORV_API int ZorvClient_I_OpenWriteFifo(void);
/* ZorvClient_I_CreateAndOpenReadFifo(): copies the client FIFO name, sets
 * the umask to 0, makes the FIFO (0660), opens it for reading and again for
 * writing (the dummy writer, so the reader never sees end-of-file before the
 * server opens it). 0, 2 (nothing of it stays) or 3 (reader closed, FIFO
 * removed). */
ZORV_API int ZorvClient_I_CreateAndOpenReadFifo(void);
/* ZorvClient_I_CloseWriteFifo(): closes the server FIFO; descriptor 0. */
ZORV_API void ZorvClient_I_CloseWriteFifo(void);
/* ZorvClient_I_CloseReadFifo(): closes the dummy writer and the reader of
 * the own FIFO; descriptors 0. */
ZORV_API void ZorvClient_I_CloseReadFifo(void);
/* ZorvClient_I_HideFifo(): removes the own FIFO's name from the pipe
 * directory; both ends stay open, so it lives on unseen. unlink()'s result,
 * or -1 when no name is set. */
ZORV_API int ZorvClient_I_HideFifo(void);
/* ZorvClient_I_CloseFifoConnection(): closes all three descriptors, removes
 * the own FIFO's name if one is set and empties it. */
ZORV_API void ZorvClient_I_CloseFifoConnection(void);

/* ZorvClient_I_WriteFifo(): records the send time and writes the text to the
 * server FIFO. 0, or 1 (write error count raised) when fewer bytes than the
 * text's length were taken; a null text is a failed send. */
ZORV_API int ZorvClient_I_WriteFifo(const char* text);
/* ZorvClient_I_ReadFifo(): every complete message received on the own FIFO,
 * concatenated, zero-terminated and malloc'ed for the caller, with its
 * length in *length (when not null); null when nothing came. */
ZORV_API char* ZorvClient_I_ReadFifo(int32_t* length);
/* ZorvClient_I_WaitForFifoData(): waits up to `timeoutMs` for a complete
 * message on the own FIFO and then ZorvClient_I_ReadFifo(); null when none
 * came. With no own FIFO open it pauses for the time-out and returns null. */
ZORV_API char* ZorvClient_I_WaitForFifoData(int32_t* length, uint32_t timeoutMs,
                                            int watchInput);

/* Accessors. The handles are 0 when closed. */
ZORV_API int32_t ZorvClient_I_GetReadErrorCount(void);
ZORV_API int32_t ZorvClient_I_GetWriteErrorCount(void);
ZORV_API int32_t ZorvClient_I_GetReadFifoHandle(void);
ZORV_API int32_t ZorvClient_I_GetWriteFifoHandle(void);
/* ZorvClient_I_GetLastAccessTime(): ZorvGetTimeOfDay() of the last send. */
ZORV_API uint32_t ZorvClient_I_GetLastAccessTime(void);
/* ZorvClient_I_GetReadPipeName(): copies the own FIFO's name with
 * ZorvStrNCpy(buffer, name, size), so a name of `size` characters or more
 * is left unterminated. Always 0. */
ZORV_API int ZorvClient_I_GetReadPipeName(char* buffer, uint32_t size);

#ifdef __cplusplus
}
#endif

/* ---- Hidden views for tests -------------------------------------------------
 */

/* ZorvClient_I_GetDummyWriterHandle(): the dummy writer's descriptor. */
int32_t ZorvClient_I_GetDummyWriterHandle(void);
/* ZorvClient_I_GetMainFifoName(): the server FIFO path in use. */
const char* ZorvClient_I_GetMainFifoName(void);

#endif /* ZORV_GLOBAL_CLIENT_FIFO_ACCESS_P_H */
