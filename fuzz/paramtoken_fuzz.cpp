// libFuzzer target for the parameter token parser. The input is one token;
// a token taken as a parameter must put back together to the input, and
// adding it to a list must give that parameter.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>

#include "zorv2000/dapi2.h"
#include "zorv2000/genstr.h"
#include "zorv2000/param-valid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A token from a command line holds no NUL byte.
  std::string input((const char*)data, size);
  input = input.substr(0, input.find('\0'));
  CGenStr token;
  CGenStr id;
  CGenStr value;
  if (!CGenStrInitFromCStr(&token, input.c_str()) || !CGenStrInit(&id) ||
      !CGenStrInit(&value)) {
    abort();
  }
  int isParam = -1;
  if (ParseParamValidToken(&token, &isParam, &id, &value) != 1) abort();
  if (isParam != 0 && isParam != 1) abort();
  if (isParam) {
    std::string idText = CGenStrC_Str(&id);
    std::string valueText = CGenStrC_Str(&value);
    if (idText.empty() || valueText.empty()) abort();
    if (idText.find(',') != std::string::npos) abort();
    if (strncasecmp(input.c_str(), "param=", 6) != 0) abort();
    if (input.substr(6) != idText + "," + valueText) abort();
  }

  Dapi2ParamList list;
  if (!Dapi2_ParamListConstruct(&list)) abort();
  if (AddParamToParamListFromToken(&list, &token) != 1) abort();
  Dapi2Parameter* first = Dapi2_I_GetFirstParameter(&list);
  if ((first != NULL) != (isParam == 1)) abort();
  if (first && strcmp(Dapi2_GetParameterId(first), CGenStrC_Str(&id)) != 0) {
    abort();
  }
  if (first) {
    // Every reader survives whatever the value holds.
    int32_t i;
    uint32_t u;
    int b;
    float f;
    (void)Dapi2_GetParameterValAsInt32(first, &i);
    (void)Dapi2_GetParameterValAsUInt32(first, &u);
    (void)Dapi2_GetParameterValAsBool(first, &b);
    (void)Dapi2_GetParameterValAsFloat(first, &f);
  }
  Dapi2_ParamListDestruct(&list);
  CGenStrDelete(&token);
  CGenStrDelete(&id);
  CGenStrDelete(&value);
  return 0;
}
