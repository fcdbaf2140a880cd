/*
 * example_module.c: a complete diagnostic module in plain C. It enumerates
 * one device, offers one test with one parameter (LOOPS, from the command
 * line or the definitions file example.ini), reports progress and percent
 * done, and ends early when the engine asks it to stop.
 */
#include <stdint.h>
#include <unistd.h>

#include "zorv2000/zorv2000.h"

/* enumerate(): the one device this module knows. */
static int enumerate(void) {
  Dapi2Device* pDevice = NULL;
  if (Dapi2_CreateDeviceMemory("MEM", 1, "Example Memory", "/dev/mem",
                               "an example device", 0, &pDevice) == 0) {
    Dapi2_AddTestsToDevice(pDevice, "1");
    Dapi2_AddDevice(pDevice);
  }
  return 0;
}

/* loops(): the LOOPS parameter, 3 when it is not there. */
static int32_t loops(void) {
  Dapi2Parameter* p;
  int32_t value = 3;
  for (p = Dapi2_GetFirstParameter(); p; p = Dapi2_GetNextParameter()) {
    const char* pId = Dapi2_GetParameterId(p);
    if (pId && pId[0] == 'L' && !Dapi2_GetParameterValAsInt32(p, &value)) {
      Dapi2_GetParameterDefaultValAsInt32(p, &value);
    }
  }
  return value;
}

/* runTest(): test 1: LOOPS passes of 10 ms each. */
static int runTest(int32_t test, Dapi2Device* device) {
  int32_t n = loops();
  int32_t i;
  if (test != 1 || !device) return DAPI2_RESULT_NOTAPPLICABLE;
  for (i = 0; i < n; i++) {
    if (Dapi2_CheckForStop()) return DAPI2_RESULT_DISCONTINUED;
    Dapi2_SetProgressInformation("pass %d of %d on %s", (int)(i + 1), (int)n,
                                 Dapi2_GetDeviceName(device));
    Dapi2_SetPercentDone((i + 1) * 100 / n);
    usleep(10 * 1000);
  }
  return DAPI2_RESULT_PASS;
}

int main(int argc, char** argv) {
  Dapi2RegistrationStructure* pReg = Dapi2_CreateRegistrationStructure();
  int rc;
  Dapi2_Version(1, 0, 0);
  Dapi2_AddRegistrationStructureCallback(pReg, 1, (Dapi2Callback)enumerate);
  Dapi2_AddRegistrationStructureCallback(pReg, 3, (Dapi2Callback)runTest);
  rc = Dapi2_Main(argc, argv, pReg);
  Dapi2_FreeRegistrationStructure(pReg);
  return rc;
}
