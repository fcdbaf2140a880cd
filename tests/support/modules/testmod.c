/*
 * testmod.c: a diagnostic module for the tests, in plain C (it proves the C
 * interface). Its behaviour is chosen by environment variables, so one
 * executable serves every mode test: TESTMOD_NOVERSION, TESTMOD_NORUN,
 * TESTMOD_RESULT=<code>, TESTMOD_SCRIPT=events|stop|timeout|busy|none.
 */
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zorv2000/zorv2000.h"

/* enumerate(): two devices, the second with FRU data. */
static int enumerate(void) {
  Dapi2Device* pDevice = NULL;
  Dapi2_CreateDeviceSCSI("CD", 7, "Test Drive", "/dev/sr0", "a test drive", 0,
                         0, 3, 0, &pDevice);
  Dapi2_AddDevice(pDevice);
  Dapi2_CreateDeviceUSB("HD", 9, "Stick", "/dev/sdb", "a stick", 2, &pDevice);
  Dapi2_AddFruToDevice(pDevice, "Maker", "M1", "S1", "F1", "2020", "P1");
  Dapi2_AddDevice(pDevice);
  return 0;
}

/* paramText(): the value of parameter `id` of the running test, or "-". */
static const char* paramText(const char* id) {
  Dapi2Parameter* p;
  for (p = Dapi2_GetFirstParameter(); p; p = Dapi2_GetNextParameter()) {
    const char* pId = Dapi2_GetParameterId(p);
    if (pId && strcmp(pId, id) == 0) {
      const char* pValue = Dapi2_GetParameterValAsStr(p);
      if (!pValue) pValue = Dapi2_GetParameterDefaultValAsStr(p);
      return pValue ? pValue : "-";
    }
  }
  return "-";
}

/* runTest(): reports what it sees, then follows TESTMOD_SCRIPT. */
static int runTest(int32_t test, Dapi2Device* device) {
  const char* pScript = getenv("TESTMOD_SCRIPT");
  const char* pResult = getenv("TESTMOD_RESULT");
  int result = pResult ? atoi(pResult) : 0;
  if (!pScript) pScript = "none";
  Dapi2_SetProgressInformation("test %d device %d name %s LOOPS %s MODE %s",
                               (int)test,
                               device ? (int)Dapi2_GetDeviceId(device) : -1,
                               device ? Dapi2_GetDeviceName(device) : "(none)",
                               paramText("LOOPS"), paramText("MODE"));
  if (strcmp(pScript, "events") == 0) {
    Dapi2_SetPercentDone(10);
    Dapi2_SetPercentDone(10);
    Dapi2_SetPercentDone(20);
    Dapi2_Informative("info %d", 1);
    Dapi2_Warning(77, "warn %s", "w");
    Dapi2_Error(88, "error %s", "e");
  } else if (strcmp(pScript, "stop") == 0) {
    int i;
    Dapi2_Informative("waiting for stop");
    for (i = 0; i < 1000 && !Dapi2_CheckForStop(); i++) usleep(10 * 1000);
    if (Dapi2_CheckForStop() && Dapi2_CheckForStop()) {
      Dapi2_Informative("stopped");
      return DAPI2_RESULT_DISCONTINUED;
    }
  } else if (strcmp(pScript, "timeout") == 0) {
    int32_t value = 12345;
    int rc = Dapi2_GetTimeOut(&value);
    Dapi2_Informative("timeout rc %d value %d", rc, (int)value);
  } else if (strcmp(pScript, "busy") == 0) {
    int32_t busy = 0;
    errno = EBUSY;
    if (!CheckDeviceHandle(-1, &busy)) return busy;
  }
  return result;
}

/* validate(): marks every parameter valid except BAD. */
static int validate(int32_t test, Dapi2Device* device) {
  Dapi2Parameter* p;
  (void)test;
  (void)device;
  for (p = Dapi2_GetFirstParameter(); p; p = Dapi2_GetNextParameter()) {
    const char* pId = Dapi2_GetParameterId(p);
    Dapi2_SetParameterValidFlag(
        p, pId && strcmp(pId, "BAD") == 0 ? DAPI2_VALUE_BAD : DAPI2_VALID);
  }
  return 0;
}

/* sysinfo(): adds an entry to the device it was given. */
static int sysinfo(Dapi2Device* device, const char* text) {
  if (device) Dapi2_AddSysInfoToDevice(device, text, "KEY", "VALUE");
  return 0;
}

int main(int argc, char** argv) {
  Dapi2RegistrationStructure* pReg = Dapi2_CreateRegistrationStructure();
  int rc;
  if (!getenv("TESTMOD_NOVERSION")) Dapi2_Version(2, 1, 7);
  Dapi2_AddRegistrationStructureCallback(pReg, 1, (Dapi2Callback)enumerate);
  Dapi2_AddRegistrationStructureCallback(pReg, 2, (Dapi2Callback)validate);
  if (!getenv("TESTMOD_NORUN")) {
    Dapi2_AddRegistrationStructureCallback(pReg, 3, (Dapi2Callback)runTest);
  }
  Dapi2_AddRegistrationStructureCallback(pReg, 12, (Dapi2Callback)sysinfo);
  rc = Dapi2_Main(argc, argv, pReg);
  Dapi2_FreeRegistrationStructure(pReg);
  return rc;
}
