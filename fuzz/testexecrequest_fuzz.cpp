// libFuzzer target for the request-text parser. The input, NUL bytes
// included, is one request text; the request is filled, checked against
// what the syntax allows, turned into a validation reply and released.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zorv2000/dapi2.h"
#include "zorv2000/genstr.h"
#include "zorv2000/param-valid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CGenStr text;
  if (!CGenStrInit(&text)) abort();
  for (size_t i = 0; i < size; ++i) {
    if (!CGenStrCatC(&text, (char)data[i])) abort();
  }
  TestExecRequest req;
  if (!TestExecRequestConstruct(&req)) abort();
  if (AssignTestExecRequestFromStr(&req, &text) != 1) abort();

  // The module name is the text before the first ":" (as a C text).
  const char* name = TestExecRequestGetModuleName(&req);
  const char* whole = CGenStrC_Str(&text);
  if (size > 0 && !name) abort();
  if (name && strncmp(name, whole, strlen(name)) != 0) abort();
  // Every parameter came from a well-formed token: a non-empty id and
  // value, neither holding the field separator.
  Dapi2ParamList* list = TestExecRequestGetParamList(&req);
  for (Dapi2Parameter* p = Dapi2_I_GetFirstParameter(list); p;
       p = Dapi2_I_GetNextParameter(list)) {
    const char* id = Dapi2_GetParameterId(p);
    const char* value = Dapi2_GetParameterValAsStr(p);
    if (!id || !value) abort();
    if (strchr(id, ':') || strchr(value, ':') || strchr(id, ',')) abort();
  }
  int percentOk = 0;
  if (!ProcessPredefinedParameters(list, &percentOk)) abort();
  CGenStr xml;
  if (!CGenStrInit(&xml)) abort();
  if (!AppendValidateParmsXMLResults(list, &xml)) abort();
  CGenStrDelete(&xml);
  TestExecRequestDestruct(&req);
  CGenStrDelete(&text);
  return 0;
}
