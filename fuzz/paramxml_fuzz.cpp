// libFuzzer target for reading validation replies back. The first byte
// picks the parameter type; the rest is a reply text. Its content is read
// as one PARAMETER element, and each PARAMETER element of a results
// element is read too; whatever is assigned is written out again.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "zorv2000/dapi2.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/param-valid.h"

namespace {

// Reads `element` into a fresh parameter of `type` and writes it back.
void readBack(const char* element, int32_t type) {
  Dapi2Parameter param;
  Dapi2_InitParameter(&param);
  Dapi2_SetParameterType(&param, type);
  int assigned = -1;
  int rc = Dapi2_AssignParameterFromXML(&param, element, &assigned);
  if (rc != 0 && rc != 1) abort();
  if (assigned != 0 && assigned != 1) abort();
  if (assigned && (rc != 1 || !Dapi2_GetParameterId(&param))) abort();
  CGenStr xml;
  if (!CGenStrInit(&xml)) abort();
  if (!AppendValidateParmsXMLResultsForParameter(&param, &xml)) abort();
  CGenStrDelete(&xml);
  Dapi2_DestructParameter(&param);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  int32_t type = (int32_t)(data[0] % 7) - 1;  // -1 to 5
  std::string text((const char*)data + 1, size - 1);
  text = text.substr(0, text.find('\0'));
  readBack(text.c_str(), type);

  CGenStr element;
  if (!CGenStrInit(&element)) abort();
  for (int32_t i = 0; i < 32; ++i) {
    if (ZorvXmlGetFieldStr(text.c_str(), "PARAM_VALIDATION_RESULTS/PARAMETER",
                           i, &element) != 0) {
      break;
    }
    readBack(CGenStrC_Str(&element), type);
  }
  CGenStrDelete(&element);
  return 0;
}
