/*
 * dapi2_p.h: internals of the diagnostic module interface.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the module's lists and percentage for the module
 * main and the device-list reader, the value conversions shared with the
 * parameter-validation unit, and the seams through which tests replace the
 * message header builder and the send.
 */
#ifndef ZORV_DAPI2_DAPI2_P_H
#define ZORV_DAPI2_DAPI2_P_H

#include <stdint.h>

#include "zorv2000/dapi2.h"
#include "zorv2000/genlist.h"
#include "zorv2000/genstr.h"

/* Message calls of the module interface: every header it builds and every
 * message it sends (the parameter validation reply of global/param-valid
 * included) goes through this table. Tests replace entries and put
 * them back; unguarded, replace entries only while no other thread runs. */
struct Dapi2MessageCalls {
  int (*pfnCreateMessageHeader)(char* buffer, uint32_t size, const char* to,
                                const char* re, const char* type,
                                const char* lang);
  int (*pfnSendMessage)(const char* text);
};
extern struct Dapi2MessageCalls dapi2MessageCalls;

/* Dapi2_I_PendingList(): devices created but not yet added (not owning).
 * Dapi2_I_DeviceList(): the module's device list (owning; each device is
 * destroyed with Dapi2_I_KillDevice() and freed). Both are constructed on
 * first use: a caller that fills the device list itself constructs it when
 * its count is 0, with ownership and Dapi2_I_KillDeviceData(). */
CGenList* Dapi2_I_PendingList(void);
CGenList* Dapi2_I_DeviceList(void);
/* Dapi2_I_KillDeviceData(): Dapi2_I_KillDevice() in the list's form. */
void Dapi2_I_KillDeviceData(void* data);

/* Dapi2_I_BuildEnumData(): the DATA text of the enumeration message for
 * the device list into `out` (initialised by the caller). 0, or 27 when out
 * of memory (traced as "outofmem1" to "outofmem4"). */
int Dapi2_I_BuildEnumData(CGenStr* out);

/* The running module's parameter list (not owned here; null when none) and
 * the percentage to test. */
void Dapi2_I_SetModuleParamList(Dapi2ParamList* list);
Dapi2ParamList* Dapi2_I_GetModuleParamList(void);
void Dapi2_I_SetPercentageToTest(float percent);

/* Strict conversions of value texts (rules in dapi2.h). 1 when the whole
 * text converts (the value in *out), else 0 with *out unchanged. */
int Dapi2_I_TextToInt32(const char* text, int32_t* out);
int Dapi2_I_TextToUInt32(const char* text, uint32_t* out);
int Dapi2_I_TextToBool(const char* text, int* out);
int Dapi2_I_TextToFloat(const char* text, float* out);

/* Value slots of a parameter. */
enum Dapi2ValueSlot {
  DAPI2_SLOT_VALUE = 0,
  DAPI2_SLOT_DEFAULT = 1,
  DAPI2_SLOT_MIN = 2,
  DAPI2_SLOT_MAX = 3
};
/* Dapi2_I_SetSlotByType(): converts `text` by the parameter's type and
 * stores its plain form in the slot (setting hasDefault, hasMin or hasMax).
 * A type outside 0 to 4 keeps the text as it is, like a string. 1, or 0
 * when the text does not convert or memory runs out (slot unchanged). */
int Dapi2_I_SetSlotByType(Dapi2Parameter* param, int slot, const char* text);

#endif /* ZORV_DAPI2_DAPI2_P_H */
