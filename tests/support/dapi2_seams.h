// Seams of the module interface shared by its tests: capture of what the
// module sends (with an optional failing header builder), and allocation
// failure of the containers and records.
#ifndef ZORV_TESTS_SUPPORT_DAPI2_SEAMS_H
#define ZORV_TESTS_SUPPORT_DAPI2_SEAMS_H

#include <string>
#include <vector>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"

namespace zorvtest {

// Messages handed to the module's send while a ScopedSendCapture is in
// scope, and the result the send gives (0 unless a test sets it).
std::vector<std::string>& SentMessages();
int& SendResult();

// Replaces the module's send (and, with `failHeader`, its header builder,
// which then reports a failure) while in scope.
class ScopedSendCapture {
 public:
  explicit ScopedSendCapture(bool failHeader = false);
  ~ScopedSendCapture();

 private:
  Dapi2MessageCalls saved_;
};

// Fails the Nth heap call (malloc, calloc and realloc counted together) of
// the containers and records while in scope; 0 fails none.
class ScopedAllocFailure {
 public:
  explicit ScopedAllocFailure(int nFailAt);
  ~ScopedAllocFailure();
  // Heap calls counted so far.
  static int Calls();

 private:
  CGenAllocCalls saved_;
};

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_DAPI2_SEAMS_H
