/*
 * pipe-lowlevel.h: named pipes (FIFOs) as the transport under every message.
 *
 * FIFOs are opened non-blocking. A message written is cut into pieces of at
 * most 4020 bytes, each framed by a short text header, and queued; pieces
 * read are put together again into whole messages on a read queue. One
 * background thread moves bytes between the queues and the FIFOs every
 * millisecond. The layer carries byte strings and knows nothing of the
 * envelope. Every function is thread-safe once ZorvInitPipes() has run.
 * Plain C.
 *
 * Start and stop of a program:
 *   ZorvInitPipes(); ZorvInitReadWriteThread();
 *   ... ZorvPipeOpen / ZorvPipeWrite / ZorvPipeSelect / ZorvPipeRead ...
 *   ZorvStopReadWriteThread(); ZorvCleanupPipes();
 */
#ifndef ZORV2000_PIPE_LOWLEVEL_H
#define ZORV2000_PIPE_LOWLEVEL_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- FIFO files ---------------------------------------------------------- */

/* ZorvPipeMkFifo(): creates a FIFO at `path` with mode 0660 (the caller sets
 * the umask to 0 first). Returns 0 on success and also when a FIFO already
 * exists at `path`; otherwise mkfifo()'s result (-1). */
ZORV_API int ZorvPipeMkFifo(const char* path);

/* ZorvPipeUMask(): umask(); returns the previous mask. */
ZORV_API uint32_t ZorvPipeUMask(uint32_t mask);

/* ZorvPipeUnLink(): unlink(); returns its result. */
ZORV_API int ZorvPipeUnLink(const char* path);

/* ---- Descriptors --------------------------------------------------------- */

/* ZorvPipeOpen(): opens `path` non-blocking, write-only when `forWrite` is
 * non-zero, else read-only, and registers it with the layer (the first 64
 * characters of the path are kept). Returns the descriptor, or -1 when
 * open() failed; a record is registered even then. Opening for writing drops
 * the pieces still queued for an earlier record of the same descriptor.
 * Returns -1 without opening anything before ZorvInitPipes(). A FIFO without
 * a reader cannot be opened for writing (open() fails). */
ZORV_API int32_t ZorvPipeOpen(const char* path, int forWrite);

/* ZorvPipeClose(): unregisters and closes a descriptor of the layer: a read
 * FIFO (messages already received stay readable), else a write FIFO together
 * with its queued pieces. Returns close()'s result, or 0 without closing
 * anything for a descriptor the layer does not know. */
ZORV_API int ZorvPipeClose(int32_t descriptor);

/* ---- Messages ------------------------------------------------------------ */

/* ZorvPipeWrite(): queues the `length` bytes at `data` for a write FIFO and
 * writes at once as many pieces as the FIFO has room for; the background
 * thread writes the rest. Returns `length` when the message is queued,
 * whether or not all of it went out yet; -1 when `descriptor` is not open for
 * writing; 0 for a `length` of 0 or above 16 MiB (nothing queued); 0 when the
 * reader has gone (broken pipe), the FIFO then being closed. Note: a message
 * of exactly 32 bytes, and a write pass that happens to write exactly 32
 * data bytes, are reported as a broken pipe too (0, FIFO closed). Call
 * ZorvPipeSignalHandle() once first, so a broken pipe does not end the process.
 */
ZORV_API int32_t ZorvPipeWrite(int32_t descriptor, const char* data,
                               uint32_t length);

/* ZorvPipeRead(): hands out every complete message received on a read FIFO,
 * in arrival order, stopping at the first that is not complete yet (one that
 * has had no new piece for 10 s is dropped instead: its writer is taken for
 * dead). Returns
 * the number of bytes and sets *buffer to a malloc'ed, zero-terminated
 * buffer holding the messages one after the other (the caller frees it), or
 * returns 0 and sets *buffer to null. A null `buffer` returns 0. */
ZORV_API int32_t ZorvPipeRead(int32_t descriptor, char** buffer);

/* ZorvPipeSelect(): waits up to `timeoutMs` until a complete message of a
 * read FIFO is queued; also writes queued pieces of every write FIFO when it
 * can do so without waiting. Returns a positive, odd value when one is
 * there, 0 on time-out, -1 when select() failed. A message that was already
 * queued before the call is reported after a pause of about 1 ms; one that
 * the call itself takes from the FIFO at once. Any complete message counts,
 * also one queued behind an incomplete message: ZorvPipeRead() then hands
 * out nothing yet and the caller waits again. When data arrived but the
 * message is still incomplete at the time-out, the result of the last
 * select() (1) is returned and ZorvPipeRead() finds nothing.
 * `inputDescriptor` is accepted and ignored. */
ZORV_API int ZorvPipeSelect(int32_t descriptor, int32_t inputDescriptor,
                            uint32_t timeoutMs);

/* ZorvGetBytesInQue(): the byte counter of a read FIFO: it starts at 0 and
 * goes down by the bytes each ZorvPipeRead() hands out, so it is 0 or
 * negative. -1 when `descriptor` is not open for reading. */
ZORV_API int32_t ZorvGetBytesInQue(int32_t descriptor);

/* ZorvFlushWritePipe(): keeps writing the queued pieces of `descriptor` for
 * up to `timeoutMs`, one attempt every 350 ms, while any piece of any FIFO is
 * queued. Returns the number of pieces (of all FIFOs) still queued. */
ZORV_API int32_t ZorvFlushWritePipe(int32_t descriptor, uint32_t timeoutMs);

/* ---- Set-up, the thread, signals ----------------------------------------- */

/* ZorvInitPipes(): on its first call in the process only, creates the
 * queues and FIFO lists; later calls, also after ZorvCleanupPipes(), do
 * nothing more than trace. */
ZORV_API void ZorvInitPipes(void);

/* ZorvInitReadWriteThread(): starts the read/write thread. Returns
 * pthread_create()'s result. After ZorvStopReadWriteThread() a new thread
 * runs one cycle only and ends: stopping is final for the process. */
ZORV_API int ZorvInitReadWriteThread(void);

/* ZorvStopReadWriteThread(): tells the thread to stop and joins it. Returns
 * pthread_join()'s result, or ESRCH when no thread was started. */
ZORV_API int ZorvStopReadWriteThread(void);

/* ZorvCleanupPipes(): empties and destroys the queues and FIFO lists; the
 * descriptors stay open. */
ZORV_API void ZorvCleanupPipes(void);

/* ZorvServicePipes(): one cycle of the read/write thread: drains every read
 * FIFO and writes queued pieces, skipping a side whose lock is held. */
ZORV_API void ZorvServicePipes(void);

/* ZorvPipeSignalHandle(): ignores SIGPIPE in the process, so that a write to
 * a FIFO without reader fails instead of ending the process. */
ZORV_API void ZorvPipeSignalHandle(void);

/* ZorvSIGPIPEHandler(): a SIGPIPE handler that only traces; not installed
 * by the library. */
ZORV_API void ZorvSIGPIPEHandler(int signalNumber);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_PIPE_LOWLEVEL_H */
