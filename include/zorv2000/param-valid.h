/*
 * param-valid.h: test parameters from text: "param=" tokens and request
 * texts, the parameter definitions of a module's definitions file, and the
 * parameter validation reply.
 *
 * A parameter token is "param=ID,VALUE"; a parameter-list text joins tokens
 * with ":"; a request text is MODULE:TEST:DEVICE:%PERCENT followed by
 * parameter tokens ("cdrom:3:7:%50:param=LOOPS,10"). Parameter records and
 * lists are those of dapi2.h. Functions that can fail return 1 for success
 * and 0 for failure unless stated. No locks; no output except the
 * validation reply, which goes out through the client connection. Plain C.
 */
#ifndef ZORV2000_PARAM_VALID_H
#define ZORV2000_PARAM_VALID_H

#include <stdint.h>

#include "zorv2000/dapi2.h"
#include "zorv2000/genstr.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Words --------------------------------------------------------------- */

/* ParameterTypeToStr(): "int32", "uint32", "bool", "float", "string" for 0
 * to 4, "invalid" for any other number. ParameterTypeStrToType(): the
 * number of a word, ignoring letter case; -1 for any other text or null. */
ZORV_API const char* ParameterTypeToStr(int32_t type);
ZORV_API int32_t ParameterTypeStrToType(const char* word);
/* ParameterValidFlagToStr(): "valid", "id not recognized", "value too big",
 * "value too small", "value bad" for 0 to 4, "valid flag invalid" for any
 * other number. ParameterValidFlagStrToType(): back, ignoring letter case;
 * -1 for any other text or null. */
ZORV_API const char* ParameterValidFlagToStr(int32_t flag);
ZORV_API int32_t ParameterValidFlagStrToType(const char* word);

/* ---- The predefined parameter ----------------------------------------------
 */

/* Id of the parameter that sets the percentage of the test to run. */
#define ZORV_DAPI2_PERCENT_TO_TEST "ZORV_DAPI2_PERCENT_TO_TEST"

/* IsPredefinedParameter(): 1 when the id is exactly
 * "ZORV_DAPI2_PERCENT_TO_TEST", else 0 (also for null). */
ZORV_API int IsPredefinedParameter(const Dapi2Parameter* param);
/* ProcessPredefinedParameters(): sets the percentage to test to 100 and
 * *percentOk to 1; then every predefined parameter of `list` gets the
 * bounds 0 and 100 and, by its value as a float: 0 < value <= 100 becomes
 * the percentage; above 100 flag 2 ("value too big"), 0 or below flag 3
 * ("value too small"), not a number flag 4 ("value bad"), each with
 * *percentOk 0. Returns 1; 0 for a null argument or when out of memory. */
ZORV_API int ProcessPredefinedParameters(Dapi2ParamList* list, int* percentOk);

/* ---- The definitions file ---------------------------------------------------
 */

/* Dapi2GetParamPrivateProfileString(): reads key "%s[%u][%u]" (keyBase,
 * test, index) of `section` of the INI file `defFile` into `buffer` (size
 * bytes, always terminated). *found is 1 when the key's value is not empty;
 * otherwise `def` ("" for null) is stored and *found is 0. Returns the
 * stored length. A key name over 255 bytes is never found. */
ZORV_API int Dapi2GetParamPrivateProfileString(
    const char* defFile, const char* section, const char* keyBase, int32_t test,
    int32_t index, const char* def, char* buffer, uint32_t size, int* found);
/* GetParamIndex(): *index becomes the first index whose
 * szParameterId[test][index] of section "Module" equals `id` exactly, or -1
 * when the indices run out (at the first missing key) first. Returns 1, 0
 * for a null argument. */
ZORV_API int GetParamIndex(const char* defFile, int32_t test, const char* id,
                           int32_t* index);
/* AssignParameterFieldsFromIniFileByIndex(): reads the definition at
 * `index` into `param`, in this order: type (missing: stop), name (missing:
 * stop), description, must-be-set, recommend-validate, mask, default
 * value, minimum (each when present), maximum (missing: stop). Type words
 * are those of ParameterTypeToStr(); the "i" keys take "0", "1", "true" or
 * "false" in any letter case; the default and the bounds are converted by
 * the parameter's type (dapi2.h). Returns 1; 0 when a value does not
 * convert or memory runs out (fields read so far stay). */
ZORV_API int AssignParameterFieldsFromIniFileByIndex(const char* defFile,
                                                     int32_t test,
                                                     int32_t index,
                                                     Dapi2Parameter* param);
/* AssignParameterFieldsFromIniFile(): finds the parameter's index and reads
 * its definition; a parameter whose id is not defined is left as it is.
 * 1, or 0 as above. */
ZORV_API int AssignParameterFieldsFromIniFile(const char* defFile, int32_t test,
                                              Dapi2Parameter* param);
/* GetParamIniInfo(): AssignParameterFieldsFromIniFile() for every parameter
 * of the list; 0 at the first failure. */
ZORV_API int GetParamIniInfo(const char* defFile, int32_t test,
                             Dapi2ParamList* list);

/* ---- The validation reply ---------------------------------------------------
 */

/* AppendValidateParmsXMLResultsForParameter(): appends
 * "<PARAMETER><ID>id</ID><VALID_FLAG>word</VALID_FLAG>" and, when set,
 * "<MIN_VALUE>..</MIN_VALUE>" and "<MAX_VALUE>..</MAX_VALUE>", then
 * "</PARAMETER>" to `text` (texts as they are, unescaped). */
ZORV_API int AppendValidateParmsXMLResultsForParameter(
    const Dapi2Parameter* param, CGenStr* text);
/* AppendValidateParmsXMLResults(): "<PARAM_VALIDATION_RESULTS>", every
 * parameter of the list in order, "</PARAM_VALIDATION_RESULTS>". */
ZORV_API int AppendValidateParmsXMLResults(const Dapi2ParamList* list,
                                           CGenStr* text);

/* Results of ZorvClientCreateResponse(). */
enum ZorvResponseStatus {
  ZORV_RESPONSE_OK = 0,
  ZORV_RESPONSE_HEADER = 1,    /* the header did not build */
  ZORV_RESPONSE_NO_MEMORY = 2, /* no buffer for the DATA element */
  ZORV_RESPONSE_DATA = 3,      /* the DATA element did not build (null
                                * text) */
  ZORV_RESPONSE_MESSAGE = 4    /* the message does not fit messageSize */
};
/* ZorvClientCreateResponse(): a whole "TRANSACTION_RESPONSE" message to
 * process `pid` with the transaction id as its RE and `dataText` inside
 * DATA, into `messageBuffer`. Returns a ZorvResponseStatus. */
ZORV_API int ZorvClientCreateResponse(uint32_t pid, uint32_t transactionId,
                                      const char* dataText, char* messageBuffer,
                                      uint32_t messageSize);
/* SendValidateParmsResults(): the validation reply for `list` to the
 * requester, in a message of at most 4095 bytes. 1 when sent; 0 when it
 * cannot be built (too long included) or sent. */
ZORV_API int SendValidateParmsResults(uint32_t senderPid,
                                      uint32_t transactionId,
                                      const Dapi2ParamList* list);

/* ---- Tokens and request texts
 * ------------------------------------------------
 */

/* ParseParamValidToken(): splits "param=ID,VALUE" (the head "param" in any
 * letter case; VALUE runs to the end and may hold commas). *isParam is 1
 * with `id` and `value` filled, or 0 for any other token (no "=", another
 * head, no ",", an empty id or value). Returns 1; 0 only when out of
 * memory. `id` and `value` must be initialised strings. */
ZORV_API int ParseParamValidToken(const CGenStr* token, int* isParam,
                                  CGenStr* id, CGenStr* value);
/* AddParamToParamListFromTokenStrings(): appends a new parameter with that
 * id and value text. 1, or 0 when out of memory (nothing appended). */
ZORV_API int AddParamToParamListFromTokenStrings(Dapi2ParamList* list,
                                                 const CGenStr* id,
                                                 const CGenStr* value);
/* AddParamToParamListFromToken(), ..C_Str(): appends the parameter of one
 * token; any other token is skipped with 1. */
ZORV_API int AddParamToParamListFromToken(Dapi2ParamList* list,
                                          const CGenStr* token);
ZORV_API int AddParamToParamListFromTokenC_Str(Dapi2ParamList* list,
                                               const char* token);
/* AssignParamListFromStr(), ..C_Str(): every parameter token of a
 * ":"-separated text, in order (a value cannot hold ":"). */
ZORV_API int AssignParamListFromStr(Dapi2ParamList* list, const CGenStr* text);
ZORV_API int AssignParamListFromC_Str(Dapi2ParamList* list, const char* text);

/* What a program asks a module to run. Fields in this order and width. */
typedef struct TestExecRequest {
  char* moduleName;          /* owned copy; null until set */
  int32_t test;              /* -1: all tests */
  int32_t device;            /* -1: all devices */
  float percent;             /* 0 < percent <= 100 in use */
  Dapi2ParamList* paramList; /* owned */
} TestExecRequest;

/* TestExecRequestConstruct(): test, device and percent 0, no name, a new
 * empty parameter list. 1, or 0 when out of memory (nothing allocated).
 * TestExecRequestDestruct(): frees the name and the list. */
ZORV_API int TestExecRequestConstruct(TestExecRequest* req);
ZORV_API void TestExecRequestDestruct(TestExecRequest* req);
/* Accessors. SetModuleName copies (1, or 0 for a null argument or when out
 * of memory, the old name kept). Getters of a null request give null, 0 or
 * 0.0. */
ZORV_API const char* TestExecRequestGetModuleName(const TestExecRequest* req);
ZORV_API int TestExecRequestSetModuleName(TestExecRequest* req,
                                          const char* name);
ZORV_API int32_t TestExecRequestGetTest(const TestExecRequest* req);
ZORV_API void TestExecRequestSetTest(TestExecRequest* req, int32_t test);
ZORV_API int32_t TestExecRequestGetDevice(const TestExecRequest* req);
ZORV_API void TestExecRequestSetDevice(TestExecRequest* req, int32_t device);
ZORV_API float TestExecRequestGetPercent(const TestExecRequest* req);
ZORV_API void TestExecRequestSetPercent(TestExecRequest* req, float percent);
ZORV_API Dapi2ParamList* TestExecRequestGetParamList(TestExecRequest* req);
ZORV_API const Dapi2ParamList* TestExecRequestGetParamListConst(
    const TestExecRequest* req);

/* AssignTestExecRequestFromStr(): fills a constructed request from
 * MODULE:TEST:DEVICE:%PERCENT:param=..: (rules in docs/module-data.md):
 *   "mod"                    test -1, device -1, percent unchanged
 *   "mod:3:7:%50:param=A,1"  test 3, device 7, percent 50, parameter A
 *   "mod:%50"                test -1, device -1, percent 50
 *   "mod:3:param=A,1"        test 3, device -1, percent 100, parameter A
 * TEST and DEVICE take their leading decimal digits (optional sign; 0 when
 * none; held at the 32-bit limits), PERCENT the leading decimal fraction
 * after "%". Returns 1; 0 when out of memory or the request has no
 * parameter list. An empty text sets nothing. */
ZORV_API int AssignTestExecRequestFromStr(TestExecRequest* req,
                                          const CGenStr* text);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_PARAM_VALID_H */
