/*
 * ini-profile_p.h: internals of the INI profile reader.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the lookup worker, which other programs of the
 * framework link, and a view of the speed cache for tests.
 */
#ifndef ZORV_GLOBAL_INI_PROFILE_P_H
#define ZORV_GLOBAL_INI_PROFILE_P_H

#include <stdint.h>

#include "zorv2000/ini-profile.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zorv_I_GetPrivateProfileString(): the lookup behind every reader of this
 * unit. With a buffer, stores the value (or `def`, "" when null) in at most
 * `size` bytes, the last byte always NUL, and returns the stored length.
 * With a null buffer, allocates value length + 4 bytes with malloc(), hands
 * them over through *allocated (the caller frees them) and returns the
 * length; a missing key then returns 0 and *allocated stays null. With a
 * null key: 1 when the section exists, else 0. Reads the speed cache when
 * one is set, whatever `path` names. Not thread-safe. */
ZORV_API int Zorv_I_GetPrivateProfileString(const char* section,
                                            const char* key, const char* def,
                                            char* buffer, uint32_t size,
                                            const char* path, char** allocated);

#ifdef __cplusplus
}
#endif

/* Zorv_I_SpeedIniCached(), Zorv_I_SpeedIniSize(), Zorv_I_SpeedIniPtr():
 * whether a file is cached, and the cache's 16-bit size and read position,
 * for tests. */
int Zorv_I_SpeedIniCached(void);
uint16_t Zorv_I_SpeedIniSize(void);
uint16_t Zorv_I_SpeedIniPtr(void);

#endif /* ZORV_GLOBAL_INI_PROFILE_P_H */
