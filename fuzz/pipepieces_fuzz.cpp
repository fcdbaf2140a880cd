// Fuzz target for the reader of the pipe layer: a byte stream, as hostile
// writers could put it into a FIFO, cut into reads and taken through the
// same chunk parser the drain uses, then handed out as ZorvPipeRead does.
// The first byte picks the read size, so cuts fall everywhere.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "global/pipe-lowlevel_p.h"
#include "zorv2000/primitives.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// A descriptor that is never open: ZorvPipeRead's own read() fails at once
// and only what the harness took in is handed out.
const int32_t kDescriptor = 1 << 20;

// Carried bytes followed by one read, as in the drain.
char gWork[2 * ZORV_PIPE_READ_CHUNK];

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool bReady = (ZorvInitPipes(), true);
  (void)bReady;
  if (size < 1) return 0;
  size_t readSize =
      1 + (static_cast<size_t>(data[0]) * 17u) % ZORV_PIPE_READ_CHUNK;
  const char* stream = reinterpret_cast<const char*>(data + 1);
  size_t left = size - 1;
  uint32_t nCarried = 0;
  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_PIPE_READ, 1);
  ZorvPipeTake take = {0, 0, NULL};
  while (left > 0) {
    size_t n = left < readSize ? left : readSize;
    memcpy(gWork + nCarried, stream, n);
    stream += n;
    left -= n;
    uint32_t nHave = nCarried + static_cast<uint32_t>(n);
    uint32_t nDone = ZorvPipe_I_TakeChunk(kDescriptor, gWork, nHave, &take);
    // The parser never claims more than it got and never leaves a whole
    // read's worth behind.
    if (nDone > nHave || nHave - nDone >= ZORV_PIPE_READ_CHUNK) abort();
    nCarried = nHave - nDone;
    memmove(gWork, gWork + nDone, nCarried);
  }
  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_PIPE_READ, 0);

  char* buffer = NULL;
  int32_t nOut = ZorvPipeRead(kDescriptor, &buffer);
  if (nOut < 0 || (nOut == 0) != (buffer == NULL)) abort();
  if (buffer && buffer[nOut] != '\0') abort();
  free(buffer);

  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_PIPE_READ, 1);
  ZorvPipe_I_DiscardReadQue(kDescriptor);
  ZorvGrabMutex(__FILE__, __LINE__, __func__, ZORV_MUTEX_PIPE_READ, 0);
  return 0;
}
