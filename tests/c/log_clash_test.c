/*
 * A C program that links the shared library before the math library and
 * calls log(2.0): it must get the natural logarithm. The library's debug
 * log (a text appender with C++ linkage) must not stand in for it, and no
 * "debugout.txt" may appear.
 */
#include <math.h>
#include <stdio.h>
#include <unistd.h>
#include <zorv2000/zorv2000.h>

int main(void) {
  volatile double two = 2.0;
  double value;
  unlink("debugout.txt");
  value = log(two);
  /* A call into the library keeps it among the program's dependencies. */
  if (DoMemoryBlockTracing() != 0) {
    printf("FAILED: tracing is on\n");
    return 1;
  }
  if (fabs(value - 0.69314718055994530942) > 1e-12) {
    printf("FAILED: log(2.0) = %.17g\n", value);
    return 1;
  }
  if (access("debugout.txt", F_OK) == 0) {
    printf("FAILED: log(2.0) wrote debugout.txt\n");
    return 1;
  }
  return 0;
}
