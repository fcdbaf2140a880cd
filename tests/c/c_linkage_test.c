/*
 * A C99 program that includes the whole flat interface and calls one
 * function of each family through the shared library. Exits 0 when every
 * call gives the documented answer.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zorv2000/zorv2000.h>

static int failures;

static void check(int ok, const char* what) {
  if (!ok) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

int main(void) {
  char buffer[512];
  CGenStr text;
  CGenList list;
  char* escaped;
  char plain[] = "a<b";
  int item = 7;

  /* primitives */
  check(ZorvSafeStrCpy(buffer, "abcdef", 4) == 0, "ZorvSafeStrCpy");
  check(strcmp(buffer, "!!!") == 0, "overflow marker");
  check(ZorvGrabMutex(__FILE__, __LINE__, "main", 12, 1) == -1,
        "ZorvGrabMutex index 12");
  /* tracing */
  check(TracingTypeStrToType("PIPE2") == 1, "TracingTypeStrToType");
  /* containers */
  check(CGenStrInit(&text) == 1, "CGenStrInit");
  check(CGenListConstruct(&list, 0, NULL) == 1, "CGenListConstruct");
  check(CGenListPushBack(&list, &item) == 1, "CGenListPushBack");
  check(CGenListGetCount(&list) == 1, "CGenListGetCount");
  CGenListDestruct(&list);
  /* envelope */
  check(ZorvClientCreateNlsEngineCommandStr("NLS_REGMOD:1:m.nls", &text) == 0,
        "ZorvClientCreateNlsEngineCommandStr");
  check(ZorvXmlGetField(CGenStrC_Str(&text), "MSG/HDR/TYPE", 0, buffer,
                        sizeof buffer) == 0 &&
            strcmp(buffer, "NLS_COMMAND") == 0,
        "ZorvXmlGetField");
  CGenStrDelete(&text);
  escaped = ZorvXmlAllocStringAndConvertToXml(plain);
  check(escaped != plain && strcmp(escaped, "a@3Cb") == 0, "escaping");
  if (escaped != plain) free(escaped);
  /* INI reader: a missing file gives the default */
  check(ZorvGetPrivateProfileString("s", "k", "dflt", buffer, sizeof buffer,
                                    "/nonexistent/zorv.ini") == 4 &&
            strcmp(buffer, "dflt") == 0,
        "ZorvGetPrivateProfileString");
  /* module interface: a device created, listed and destroyed */
  {
    Dapi2Device* device = NULL;
    check(Dapi2_CreateDeviceBus("PCI", 1, "bus", "/dev/x", "a bus", 0,
                                &device) == 0 &&
              device != NULL,
          "Dapi2_CreateDeviceBus");
    check(Dapi2_AddDevice(device) == 0, "Dapi2_AddDevice");
    Dapi2_KillDeviceList();
  }
  /* FIFO names */
  check(ZorvGetPipeDirectory()[0] == '/', "ZorvGetPipeDirectory");

  printf("%s\n", failures ? "C linkage: failures" : "C linkage: ok");
  return failures ? 1 : 0;
}
