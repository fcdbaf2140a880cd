/*
 * param-valid.cpp: test parameters from text: "param=" tokens, parameter
 * lists and request texts (kept here because their trace lines name this
 * file), definitions-file parameters, the percentage parameter and the
 * validation reply. No locks; the reply goes out through the client link.
 */
#include "zorv2000/param-valid.h"

#include <float.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dapi2/dapi2_p.h"
#include "global/genstr_p.h"
#include "zorv2000/ini-profile.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Section of the definitions file that holds the parameter keys. */
static const char kModuleSection[] = "Module";
/* Buffer of one definitions-file value. */
enum { PARAM_INI_VALUE_SIZE = 2048 };
/* Buffer of one definitions-file key name. */
enum { PARAM_INI_KEY_SIZE = 256 };
/* Buffers of the validation response: the requester's id, the reply
 * field, the header and the whole message. */
enum {
  RESPONSE_PID_SIZE = 40,
  RESPONSE_RE_SIZE = 24,
  RESPONSE_HEADER_SIZE = 150,
  RESPONSE_MESSAGE_SIZE = 4096
};
/* Tag length used to size the DATA wrapping ("DATA") and its spare bytes. */
enum { RESPONSE_DATA_TAG = 4, RESPONSE_DATA_SPARE = 10 };

/* ---- Words ------------------------------------------------------------- */

static const char* const kTypeWords[] = {"int32", "uint32", "bool", "float",
                                         "string"};
static const char* const kValidFlagWords[] = {"valid", "id not recognized",
                                              "value too big",
                                              "value too small", "value bad"};
enum { TYPE_WORD_COUNT = 5, VALID_FLAG_WORD_COUNT = 5 };

/* ParameterTypeToStr(): the word, "invalid" outside 0 to 4. */
const char* ParameterTypeToStr(int32_t type) {
  if (type < 0 || type >= TYPE_WORD_COUNT) return "invalid";
  return kTypeWords[type];
}

/* ParameterTypeStrToType(): the number of a word, -1 for none. */
int32_t ParameterTypeStrToType(const char* word) {
  if (!word) return -1;
  for (int32_t i = 0; i < TYPE_WORD_COUNT; ++i) {
    if (ZorvStrCaseCmp(word, kTypeWords[i]) == 0) return i;
  }
  return -1;
}

/* ParameterValidFlagToStr(): the word, "valid flag invalid" outside 0 to
 * 4. */
const char* ParameterValidFlagToStr(int32_t flag) {
  if (flag < 0 || flag >= VALID_FLAG_WORD_COUNT) return "valid flag invalid";
  return kValidFlagWords[flag];
}

/* ParameterValidFlagStrToType(): the number of a word, -1 for none. */
int32_t ParameterValidFlagStrToType(const char* word) {
  if (!word) return -1;
  for (int32_t i = 0; i < VALID_FLAG_WORD_COUNT; ++i) {
    if (ZorvStrCaseCmp(word, kValidFlagWords[i]) == 0) return i;
  }
  return -1;
}

/* ---- The predefined parameter ------------------------------------------ */

/* IsPredefinedParameter(): the id is exactly the percentage parameter's. */
int IsPredefinedParameter(const Dapi2Parameter* param) {
  const char* id = Dapi2_GetParameterId(param);
  return id && strcmp(id, ZORV_DAPI2_PERCENT_TO_TEST) == 0;
}

/* ProcessPredefinedParameters(): the percentage from its parameter. */
int ProcessPredefinedParameters(Dapi2ParamList* list, int* percentOk) {
  if (!list || !percentOk) return 0;
  Dapi2_I_SetPercentageToTest(100.0f);
  *percentOk = 1;
  for (Dapi2Parameter* pParam = Dapi2_I_GetFirstParameter(list); pParam;
       pParam = Dapi2_I_GetNextParameter(list)) {
    if (!IsPredefinedParameter(pParam)) continue;
    if (!Dapi2_SetParameterMinValFromFloat(pParam, 0.0f) ||
        !Dapi2_SetParameterMaxValFromFloat(pParam, 100.0f)) {
      return 0;
    }
    float value;
    if (!Dapi2_GetParameterValAsFloat(pParam, &value)) {
      Dapi2_SetParameterValidFlag(pParam, DAPI2_VALUE_BAD);
      *percentOk = 0;
    } else if (value > 100.0f) {
      Dapi2_SetParameterValidFlag(pParam, DAPI2_VALUE_TOO_BIG);
      *percentOk = 0;
    } else if (value <= 0.0f) {
      Dapi2_SetParameterValidFlag(pParam, DAPI2_VALUE_TOO_SMALL);
      *percentOk = 0;
    } else {
      Dapi2_I_SetPercentageToTest(value);
    }
  }
  return 1;
}

/* ---- The definitions file ---------------------------------------------- */

/* Dapi2GetParamPrivateProfileString(): one indexed key. */
int Dapi2GetParamPrivateProfileString(const char* defFile, const char* section,
                                      const char* keyBase, int32_t test,
                                      int32_t index, const char* def,
                                      char* buffer, uint32_t size, int* found) {
  if (found) *found = 0;
  if (!buffer || size == 0) return 0;
  buffer[0] = '\0';
  int nStored = 0;
  char key[PARAM_INI_KEY_SIZE];
  int nKey = keyBase ? snprintf(key, sizeof key, "%s[%u][%u]", keyBase,
                                (unsigned)test, (unsigned)index)
                     : -1;
  if (defFile && section && nKey >= 0 && (size_t)nKey < sizeof key) {
    nStored =
        ZorvGetPrivateProfileString(section, key, "", buffer, size, defFile);
  }
  if (nStored > 0) {
    if (found) *found = 1;
    return nStored;
  }
  int32_t nRoom = size > INT32_MAX ? INT32_MAX : (int32_t)size;
  ZorvSafeStrNCpy(buffer, def ? def : "", nRoom);
  return (int)strlen(buffer);
}

/* readKey(): one key of the Module section into `buffer`; 1 when found. */
static int readKey(const char* defFile, const char* keyBase, int32_t test,
                   int32_t index, char* buffer) {
  int bFound = 0;
  Dapi2GetParamPrivateProfileString(defFile, kModuleSection, keyBase, test,
                                    index, "", buffer, PARAM_INI_VALUE_SIZE,
                                    &bFound);
  return bFound;
}

/* GetParamIndex(): the first index whose id key equals `id`. */
int GetParamIndex(const char* defFile, int32_t test, const char* id,
                  int32_t* index) {
  if (!index) return 0;
  *index = -1;
  if (!id) return 0;
  char value[PARAM_INI_VALUE_SIZE];
  for (int32_t i = 0; i < INT32_MAX; ++i) {
    if (!readKey(defFile, "szParameterId", test, i, value)) return 1;
    if (strcmp(value, id) == 0) {
      *index = i;
      return 1;
    }
  }
  return 1;
}

/* readBoolKey(): an "i" key that is present must be a boolean text. 1 when
 * missing or converted (the field then set), 0 when it does not convert. */
static int readBoolKey(const char* defFile, const char* keyBase, int32_t test,
                       int32_t index, char* buffer, int32_t* field) {
  if (!readKey(defFile, keyBase, test, index, buffer)) return 1;
  int value;
  if (!Dapi2_I_TextToBool(buffer, &value)) return 0;
  *field = value;
  return 1;
}

/* AssignParameterFieldsFromIniFileByIndex(): the definition at `index`,
 * read in order; a missing type, name or maximum ends the reading. */
int AssignParameterFieldsFromIniFileByIndex(const char* defFile, int32_t test,
                                            int32_t index,
                                            Dapi2Parameter* param) {
  if (!param) return 0;
  if (index < 0) return 1;
  char value[PARAM_INI_VALUE_SIZE];
  if (!readKey(defFile, "szParameterType", test, index, value)) return 1;
  int32_t type = ParameterTypeStrToType(value);
  if (type < 0) return 0;
  Dapi2_SetParameterType(param, type);
  if (!readKey(defFile, "szParameterName", test, index, value)) return 1;
  if (!Dapi2_SetParameterName(param, value)) return 0;
  if (readKey(defFile, "szParameterDescription", test, index, value) &&
      !Dapi2_SetParameterDescription(param, value)) {
    return 0;
  }
  if (!readBoolKey(defFile, "iParameterMustBeSet", test, index, value,
                   &param->mustBeSet) ||
      !readBoolKey(defFile, "iParameterRecommendValidate", test, index, value,
                   &param->recommendValidate)) {
    return 0;
  }
  if (readKey(defFile, "szParameterMask", test, index, value) &&
      !Dapi2_SetParameterMask(param, value)) {
    return 0;
  }
  if (readKey(defFile, "szParameterDefaultValue", test, index, value) &&
      !Dapi2_I_SetSlotByType(param, DAPI2_SLOT_DEFAULT, value)) {
    return 0;
  }
  if (readKey(defFile, "iParameterMinValue", test, index, value) &&
      !Dapi2_I_SetSlotByType(param, DAPI2_SLOT_MIN, value)) {
    return 0;
  }
  if (!readKey(defFile, "iParameterMaxValue", test, index, value)) return 1;
  return Dapi2_I_SetSlotByType(param, DAPI2_SLOT_MAX, value);
}

/* AssignParameterFieldsFromIniFile(): index by id, then the definition. */
int AssignParameterFieldsFromIniFile(const char* defFile, int32_t test,
                                     Dapi2Parameter* param) {
  ZORV_TRACE_AT(ZORV_TRC_PV,
                "AssignTestPropertyFromIniFile: top of function\n");
  if (!param) return 0;
  const char* id = Dapi2_GetParameterId(param);
  if (!id) return 1;
  int32_t index = -1;
  GetParamIndex(defFile, test, id, &index);
  if (index < 0) return 1;
  return AssignParameterFieldsFromIniFileByIndex(defFile, test, index, param);
}

/* GetParamIniInfo(): every parameter of the list completed. */
int GetParamIniInfo(const char* defFile, int32_t test, Dapi2ParamList* list) {
  if (!list) return 0;
  for (Dapi2Parameter* pParam = Dapi2_I_GetFirstParameter(list); pParam;
       pParam = Dapi2_I_GetNextParameter(list)) {
    if (!AssignParameterFieldsFromIniFile(defFile, test, pParam)) return 0;
  }
  return 1;
}

/* ---- The validation reply ------------------------------------------------ */

/* AppendValidateParmsXMLResultsForParameter(): one PARAMETER element. */
int AppendValidateParmsXMLResultsForParameter(const Dapi2Parameter* param,
                                              CGenStr* text) {
  ZORV_TRACE_AT(ZORV_TRC_PV,
                "AppendValidateParmsXMLResultsForParameter: top of function\n");
  if (!param || !text) return 0;
  const char* id = Dapi2_GetParameterId(param);
  if (!CGenStrCatf(
          text, "<PARAMETER><ID>%s</ID><VALID_FLAG>%s</VALID_FLAG>",
          id ? id : "",
          ParameterValidFlagToStr(Dapi2_GetParameterValidFlag(param)))) {
    return 0;
  }
  ZORV_TRACE_AT(ZORV_TRC_PV,
                "AppendValidateParmsXMLResultsForParameter: checkpoint\n");
  if (Dapi2_GetParameterHasMinVal(param)) {
    const char* min = Dapi2_GetParameterMinValAsStr(param);
    if (!CGenStrCatf(text, "<MIN_VALUE>%s</MIN_VALUE>", min ? min : "")) {
      return 0;
    }
  }
  ZORV_TRACE_AT(ZORV_TRC_PV, "checking if param has max val\n");
  if (Dapi2_GetParameterHasMaxVal(param)) {
    ZORV_TRACE_AT(ZORV_TRC_PV, "param has max val\n");
    const char* max = Dapi2_GetParameterMaxValAsStr(param);
    if (!CGenStrCatf(text, "<MAX_VALUE>%s</MAX_VALUE>", max ? max : "")) {
      return 0;
    }
  }
  return CGenStrCatChar(text, "</PARAMETER>");
}

/* AppendValidateParmsXMLResults(): the whole results element. */
int AppendValidateParmsXMLResults(const Dapi2ParamList* list, CGenStr* text) {
  if (!list || !text) return 0;
  if (!CGenStrCatChar(text, "<PARAM_VALIDATION_RESULTS>")) return 0;
  ZORV_TRACE_AT(ZORV_TRC_PV, "AppendValidateParmsXMLResults: checkpoint\n");
  CGenListIter pos;
  for (const Dapi2Parameter* pParam =
           Dapi2_I_GetFirstParameterConst(list, &pos);
       pParam; pParam = Dapi2_I_GetNextParameterConst(list, &pos)) {
    if (!AppendValidateParmsXMLResultsForParameter(pParam, text)) return 0;
  }
  return CGenStrCatChar(text, "</PARAM_VALIDATION_RESULTS>");
}

/* ZorvClientCreateResponse(): header, DATA element, MSG element. */
int ZorvClientCreateResponse(uint32_t pid, uint32_t transactionId,
                             const char* dataText, char* messageBuffer,
                             uint32_t messageSize) {
  char to[RESPONSE_PID_SIZE];
  ZorvGetProcessIdString(pid, to, sizeof to);
  char re[RESPONSE_RE_SIZE];
  snprintf(re, sizeof re, "%lu", (unsigned long)transactionId);
  char header[RESPONSE_HEADER_SIZE];
  header[0] = '\0';
  if (dapi2MessageCalls.pfnCreateMessageHeader(
          header, sizeof header, to, re, "TRANSACTION_RESPONSE", NULL) != 0) {
    return ZORV_RESPONSE_HEADER;
  }
  if (!dataText) return ZORV_RESPONSE_DATA;
  size_t nText = strlen(dataText);
  size_t nSpare = 2 * RESPONSE_DATA_TAG + RESPONSE_DATA_SPARE;
  if (nText > UINT32_MAX - nSpare) return ZORV_RESPONSE_NO_MEMORY;
  uint32_t nData = (uint32_t)(nText + nSpare);
  char* pData = (char*)cGenAllocCalls.pfnMalloc(nData);
  if (!pData) return ZORV_RESPONSE_NO_MEMORY;
  if (ZorvCreateMessage(pData, nData, "DATA", dataText, (const char*)NULL) !=
      0) {
    cGenAllocCalls.pfnFree(pData);
    return ZORV_RESPONSE_DATA;
  }
  int rc = ZorvCreateMessage(messageBuffer, messageSize, "MSG", header, pData,
                             (const char*)NULL);
  cGenAllocCalls.pfnFree(pData);
  return rc == 0 ? ZORV_RESPONSE_OK : ZORV_RESPONSE_MESSAGE;
}

/* SendValidateParmsResults(): build, wrap, send. */
int SendValidateParmsResults(uint32_t senderPid, uint32_t transactionId,
                             const Dapi2ParamList* list) {
  CGenStr xml;
  if (!CGenStrInit(&xml)) return 0;
  if (!AppendValidateParmsXMLResults(list, &xml)) {
    CGenStrDelete(&xml);
    return 0;
  }
  ZORV_TRACE_AT(ZORV_TRC_PV, "SendValidateParmsResults: checkpoint\n");
  char message[RESPONSE_MESSAGE_SIZE];
  int rc = ZorvClientCreateResponse(
      senderPid, transactionId, CGenStrC_Str(&xml), message, sizeof message);
  CGenStrDelete(&xml);
  if (rc != ZORV_RESPONSE_OK) return 0;
  return dapi2MessageCalls.pfnSendMessage(message) == 0;
}

/* ---- Tokens -------------------------------------------------------------- */

/* ParseParamValidToken(): "param=" ID "," VALUE. */
int ParseParamValidToken(const CGenStr* token, int* isParam, CGenStr* id,
                         CGenStr* value) {
  ZORV_TRACE_AT(ZORV_TRC_PV, "ParseParamValidToken: top of function\n");
  if (isParam) *isParam = 0;
  if (!token || !isParam || !id || !value) return 0;
  const char* text = CGenStrC_Str(token);
  ZORV_TRACE_AT(ZORV_TRC_PV, "token is \"%s\"\n", text ? text : "");
  CGenStrClear(id);
  CGenStrClear(value);
  if (!text || CGenStrFindChar(token, '=') < 0) return 1;

  CGenStr head;
  if (!CGenStrInit(&head)) return 0;
  uint32_t pos = 0;
  int bFound = 0;
  if (!CGenStrGetToken(token, '=', &pos, &bFound, &head)) {
    CGenStrDelete(&head);
    return 0;
  }
  int bParam = CGenStrCmpCStrI(&head, "param") == 0;
  CGenStrDelete(&head);
  if (!bParam) return 1;

  uint32_t size = CGenStrSize(token);
  uint32_t idStart = pos;
  if (!CGenStrGetToken(token, ',', &pos, &bFound, id)) return 0;
  /* The token stops at a "," or at the end; only a "," right before the
   * new position says the comma was there. */
  int bComma = pos > idStart && pos <= size && text[pos - 1] == ',';
  if (!bComma || CGenStrIsEmpty(id) || pos >= size) {
    CGenStrClear(id);
    return 1;
  }
  if (!CGenStrSubstr(token, pos, -1, value)) return 0;
  *isParam = 1;
  return 1;
}

/* AddParamToParamListFromTokenStrings(): a new parameter with id and
 * value text. */
int AddParamToParamListFromTokenStrings(Dapi2ParamList* list, const CGenStr* id,
                                        const CGenStr* value) {
  if (!list || !id || !value) return 0;
  Dapi2Parameter* pParam =
      (Dapi2Parameter*)cGenAllocCalls.pfnMalloc(sizeof *pParam);
  if (!pParam) return 0;
  Dapi2_InitParameter(pParam);
  if (!Dapi2_SetParameterId(pParam, CGenStrC_Str(id)) ||
      !Dapi2_SetParameterValFromStr(pParam, CGenStrC_Str(value)) ||
      !Dapi2_AddParameter(list, pParam)) {
    Dapi2_DestructParameter(pParam);
    cGenAllocCalls.pfnFree(pParam);
    return 0;
  }
  return 1;
}

/* AddParamToParamListFromToken(): the parameter of one token, if any. */
int AddParamToParamListFromToken(Dapi2ParamList* list, const CGenStr* token) {
  const char* text = token ? CGenStrC_Str(token) : NULL;
  ZORV_TRACE_AT(ZORV_TRC_PV, "cmd line arg is \"%s\"\n", text ? text : "");
  if (!list || !token) return 0;
  CGenStr id;
  CGenStr value;
  if (!CGenStrInit(&id)) return 0;
  if (!CGenStrInit(&value)) {
    CGenStrDelete(&id);
    return 0;
  }
  int bParam = 0;
  int bDone = ParseParamValidToken(token, &bParam, &id, &value);
  if (bDone && bParam) {
    ZORV_TRACE_AT(ZORV_TRC_PV, "adding a parameter to list\n");
    bDone = AddParamToParamListFromTokenStrings(list, &id, &value);
  }
  CGenStrDelete(&id);
  CGenStrDelete(&value);
  return bDone;
}

/* AddParamToParamListFromTokenC_Str(): the same from a C text. */
int AddParamToParamListFromTokenC_Str(Dapi2ParamList* list, const char* token) {
  if (!list || !token) return 0;
  CGenStr text;
  if (!CGenStrInitFromCStr(&text, token)) return 0;
  int bDone = AddParamToParamListFromToken(list, &text);
  CGenStrDelete(&text);
  return bDone;
}

/* AssignParamListFromStr(): every ":"-separated token. */
int AssignParamListFromStr(Dapi2ParamList* list, const CGenStr* text) {
  const char* str = text ? CGenStrC_Str(text) : NULL;
  ZORV_TRACE_AT(ZORV_TRC_PV, "params str is \"%s\"\n", str ? str : "");
  if (!list || !text) return 0;
  CGenStr token;
  if (!CGenStrInit(&token)) return 0;
  uint32_t pos = 0;
  int bDone = 1;
  for (;;) {
    int bFound = 0;
    if (!CGenStrGetToken(text, ':', &pos, &bFound, &token)) {
      bDone = 0;
      break;
    }
    if (!bFound) break;
    ZORV_TRACE_AT(ZORV_TRC_PV, "processing token \"%s\"\n",
                  CGenStrC_Str(&token));
    if (!AddParamToParamListFromToken(list, &token)) {
      bDone = 0;
      break;
    }
  }
  CGenStrDelete(&token);
  return bDone;
}

/* AssignParamListFromC_Str(): the same from a C text. */
int AssignParamListFromC_Str(Dapi2ParamList* list, const char* text) {
  if (!list || !text) return 0;
  CGenStr str;
  if (!CGenStrInitFromCStr(&str, text)) return 0;
  int bDone = AssignParamListFromStr(list, &str);
  CGenStrDelete(&str);
  return bDone;
}

/* ---- Test execution requests ------------------------------------------- */

/* TestExecRequestConstruct(): zeroes, then a new empty parameter list. */
int TestExecRequestConstruct(TestExecRequest* req) {
  if (!req) return 0;
  req->moduleName = NULL;
  req->test = 0;
  req->device = 0;
  req->percent = 0.0f;
  req->paramList =
      (Dapi2ParamList*)cGenAllocCalls.pfnMalloc(sizeof *req->paramList);
  if (!req->paramList) return 0;
  if (!Dapi2_ParamListConstruct(req->paramList)) {
    cGenAllocCalls.pfnFree(req->paramList);
    req->paramList = NULL;
    return 0;
  }
  return 1;
}

/* TestExecRequestDestruct(): name and list released. */
void TestExecRequestDestruct(TestExecRequest* req) {
  if (!req) return;
  cGenAllocCalls.pfnFree(req->moduleName);
  req->moduleName = NULL;
  if (req->paramList) {
    Dapi2_ParamListDestruct(req->paramList);
    cGenAllocCalls.pfnFree(req->paramList);
    req->paramList = NULL;
  }
}

/* Accessors. */
const char* TestExecRequestGetModuleName(const TestExecRequest* req) {
  return req ? req->moduleName : NULL;
}

int TestExecRequestSetModuleName(TestExecRequest* req, const char* name) {
  if (!req || !name) return 0;
  size_t nName = strlen(name);
  char* pCopy = (char*)cGenAllocCalls.pfnMalloc(nName + 1);
  if (!pCopy) return 0;
  memcpy(pCopy, name, nName + 1);
  cGenAllocCalls.pfnFree(req->moduleName);
  req->moduleName = pCopy;
  return 1;
}

int32_t TestExecRequestGetTest(const TestExecRequest* req) {
  return req ? req->test : 0;
}

void TestExecRequestSetTest(TestExecRequest* req, int32_t test) {
  if (req) req->test = test;
}

int32_t TestExecRequestGetDevice(const TestExecRequest* req) {
  return req ? req->device : 0;
}

void TestExecRequestSetDevice(TestExecRequest* req, int32_t device) {
  if (req) req->device = device;
}

float TestExecRequestGetPercent(const TestExecRequest* req) {
  return req ? req->percent : 0.0f;
}

void TestExecRequestSetPercent(TestExecRequest* req, float percent) {
  if (req) req->percent = percent;
}

Dapi2ParamList* TestExecRequestGetParamList(TestExecRequest* req) {
  return req ? req->paramList : NULL;
}

const Dapi2ParamList* TestExecRequestGetParamListConst(
    const TestExecRequest* req) {
  return req ? req->paramList : NULL;
}

/* leadingInt32(): the optional sign and leading decimal digits of `text`,
 * 0 when there are none, held at the 32-bit limits. */
static int32_t leadingInt32(const char* text) {
  const char* p = text;
  int bNegative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  int64_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > (int64_t)INT32_MAX + 1) value = (int64_t)INT32_MAX + 1;
  }
  if (bNegative) return (int32_t)(-value);
  return value > INT32_MAX ? INT32_MAX : (int32_t)value;
}

/* leadingFraction(): the optional sign, digits, "." and digits at the start
 * of `token` from byte `start`, read as a decimal number (0 when there are
 * none), held at the float limits. Only that prefix is handed to strtod(),
 * so exponents, "inf" and hexadecimal forms are not read. 1, or 0 when out
 * of memory. */
static int leadingFraction(const CGenStr* token, uint32_t start, float* out) {
  const char* text = CGenStrC_Str(token) + start;
  const char* p = text;
  if (*p == '-' || *p == '+') ++p;
  while (*p >= '0' && *p <= '9') ++p;
  if (*p == '.') {
    ++p;
    while (*p >= '0' && *p <= '9') ++p;
  }
  *out = 0.0f;
  if (p == text) return 1;
  CGenStr prefix;
  if (!CGenStrInit(&prefix)) return 0;
  if (!CGenStrSubstr(token, start, (int32_t)(p - text), &prefix)) {
    CGenStrDelete(&prefix);
    return 0;
  }
  double value = strtod(CGenStrC_Str(&prefix), NULL);
  CGenStrDelete(&prefix);
  if (value > FLT_MAX) value = FLT_MAX;
  if (value < -FLT_MAX) value = -FLT_MAX;
  *out = (float)value;
  return 1;
}

/* nextField(): the next ":" field into `field`; 1 when one was taken, 0 at
 * the end; -1 when out of memory. */
static int nextField(const CGenStr* text, uint32_t* pos, CGenStr* field) {
  int bFound = 0;
  if (!CGenStrGetToken(text, ':', pos, &bFound, field)) return -1;
  return bFound ? 1 : 0;
}

/* assignRequest(): AssignTestExecRequestFromStr() with a working string. */
static int assignRequest(TestExecRequest* req, const CGenStr* text,
                         CGenStr* field) {
  uint32_t pos = 0;
  /* MODULE */
  int rc = nextField(text, &pos, field);
  if (rc <= 0) return rc == 0;
  if (!TestExecRequestSetModuleName(req, CGenStrC_Str(field))) return 0;
  ZORV_TRACE_AT(ZORV_TRC_PV, "checkpoint - module name is %s\n",
                CGenStrC_Str(field));

  /* TEST */
  uint32_t remembered = pos;
  rc = nextField(text, &pos, field);
  if (rc < 0) return 0;
  if (rc == 0) {
    /* Deliberate: the percentage is left as it is, 0.0 for a fresh
     * request; a caller that sends only a module name sets it itself. */
    req->test = -1;
    req->device = -1;
    return 1;
  }
  ZORV_TRACE_AT(ZORV_TRC_PV, "checkpoint - test str is %s\n",
                CGenStrC_Str(field));
  if (CGenStrIsEmpty(field)) {
    req->test = -1;
  } else if (CGenStrC_Str(field)[0] == '%') {
    req->test = -1;
    pos = remembered; /* the percent field: read again below */
  } else {
    req->test = leadingInt32(CGenStrC_Str(field));
  }

  /* DEVICE */
  remembered = pos;
  rc = nextField(text, &pos, field);
  if (rc < 0) return 0;
  if (rc == 0) {
    req->device = -1;
    return 1;
  }
  ZORV_TRACE_AT(ZORV_TRC_PV, "checkpoint - device str is %s\n",
                CGenStrC_Str(field));
  const char* device = CGenStrC_Str(field);
  /* Deliberate: only a lower-case "p" marks the first parameter token
   * here; "PARAM=..." in this place is read as device number 0, as
   * requests have always been read. */
  if (CGenStrIsEmpty(field) || device[0] == '%' || device[0] == 'p') {
    req->device = -1;
    pos = remembered;
  } else {
    req->device = leadingInt32(device);
  }

  /* PERCENT */
  rc = nextField(text, &pos, field);
  if (rc < 0) return 0;
  if (rc == 0) return 1;
  ZORV_TRACE_AT(ZORV_TRC_PV, "checkpoint - percent str is %s\n",
                CGenStrC_Str(field));
  if (CGenStrIsEmpty(field) || CGenStrC_Str(field)[0] != '%') {
    req->percent = 100.0f;
    /* Deliberate: back to the DEVICE field, not to this one: reading the
     * device number again as a parameter token is harmless, a number is
     * none. */
    pos = remembered;
  } else if (!leadingFraction(field, 1, &req->percent)) {
    return 0;
  }

  /* Parameters */
  if (!req->paramList) {
    ZORV_TRACE_AT(ZORV_TRC_PV, "param list pointer is NULL\n");
    return 0;
  }
  if (pos < CGenStrSize(text)) {
    ZORV_TRACE_AT(ZORV_TRC_PV, "checkpoint - cmd line has parameters\n");
    if (!CGenStrSubstr(text, pos, -1, field)) return 0;
    if (!AssignParamListFromStr(req->paramList, field)) return 0;
  }
  return 1;
}

/* AssignTestExecRequestFromStr(): MODULE:TEST:DEVICE:%PERCENT:params. */
int AssignTestExecRequestFromStr(TestExecRequest* req, const CGenStr* text) {
  if (!req || !text) return 0;
  CGenStr field;
  if (!CGenStrInit(&field)) return 0;
  int bDone = assignRequest(req, text, &field);
  CGenStrDelete(&field);
  return bDone;
}
