// Seams of the module interface shared by its tests; see dapi2_seams.h.
#include "support/dapi2_seams.h"

#include <stdlib.h>

namespace zorvtest {

namespace {

int gCalls = 0;
int gFailAt = 0;

int captureSend(const char* text) {
  SentMessages().push_back(text ? text : "<null>");
  return SendResult();
}

int failingHeader(char* buffer, uint32_t size, const char*, const char*,
                  const char*, const char*) {
  if (buffer && size) buffer[0] = '\0';
  return 7;  // the TYPE step; callers map any failure to their own code
}

bool failNow() { return ++gCalls == gFailAt; }

void* countingMalloc(size_t size) { return failNow() ? nullptr : malloc(size); }

void* countingCalloc(size_t n, size_t size) {
  return failNow() ? nullptr : calloc(n, size);
}

// A failed growth of a growable string drops its old buffer on purpose
// (the string unit's rule); the block is freed here so the leak checker
// reports the module interface's own leaks only.
void* countingRealloc(void* p, size_t size) {
  if (failNow()) {
    free(p);
    return nullptr;
  }
  return realloc(p, size);
}

}  // namespace

std::vector<std::string>& SentMessages() {
  static std::vector<std::string> sent;
  return sent;
}

int& SendResult() {
  static int result = 0;
  return result;
}

ScopedSendCapture::ScopedSendCapture(bool failHeader)
    : saved_(dapi2MessageCalls) {
  SentMessages().clear();
  SendResult() = 0;
  dapi2MessageCalls.pfnSendMessage = captureSend;
  if (failHeader) dapi2MessageCalls.pfnCreateMessageHeader = failingHeader;
}

ScopedSendCapture::~ScopedSendCapture() { dapi2MessageCalls = saved_; }

ScopedAllocFailure::ScopedAllocFailure(int nFailAt) : saved_(cGenAllocCalls) {
  gCalls = 0;
  gFailAt = nFailAt;
  cGenAllocCalls.pfnMalloc = countingMalloc;
  cGenAllocCalls.pfnCalloc = countingCalloc;
  cGenAllocCalls.pfnRealloc = countingRealloc;
}

ScopedAllocFailure::~ScopedAllocFailure() { cGenAllocCalls = saved_; }

int ScopedAllocFailure::Calls() { return gCalls; }

}  // namespace zorvtest
