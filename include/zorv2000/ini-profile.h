/*
 * ini-profile.h: single values from INI files ("[section]", "key=value").
 *
 * Section and key names match ignoring letter case; a value is everything
 * after the first "=" as it stands. Lines are runs of bytes >= 32 of at most
 * 511 bytes (a longer line continues as the next line). There is no comment
 * syntax: ";x=1" is an ordinary key line.
 *
 * Speed access keeps one file in memory while many keys are read. The cache
 * is not keyed by file name: between ZorvSpeedIniAccess() and
 * ZorvEndSpeedIniAccess() every lookup reads the cached file, whatever path
 * it names. Its size and read position are 16-bit counters, so only the
 * first 65535 bytes of a larger file are ever seen (a file of 65536 bytes
 * or more is read as if it were cut there, modulo 65536). Process-wide and
 * unguarded: do not read INI files on several threads at once. Plain C.
 */
#ifndef ZORV2000_INI_PROFILE_H
#define ZORV2000_INI_PROFILE_H

#include <stdint.h>

#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ZorvSpeedIniAccess(): drops any cached file and caches `path`. Returns -1
 * when the file cannot be opened, 0 (and no cache) when memory runs out,
 * else the result of close(). */
ZORV_API int ZorvSpeedIniAccess(const char* path);
/* ZorvEndSpeedIniAccess(): frees the cached file. */
ZORV_API void ZorvEndSpeedIniAccess(void);
/* filelength(): length of the open file `fd`; the file position is kept. */
ZORV_API long filelength(int fd);
/* ZorvGetPrivateProfileString(): copies the value of `key` in `section` of
 * `path` into `buffer` (size bytes, always NUL-terminated), or `def` (an
 * empty text when null) when the key is missing or the file cannot be read.
 * Returns the length stored. With a null key: 1 when the section exists,
 * else 0. */
ZORV_API int ZorvGetPrivateProfileString(const char* section, const char* key,
                                         const char* def, char* buffer,
                                         uint32_t size, const char* path);
/* ZorvGetIniString(): the value as a malloc'ed text owned by the caller, or
 * null when the key is missing or its value is empty. */
ZORV_API char* ZorvGetIniString(const char* path, const char* section,
                                const char* key);
/* ZorvGetIniInt(): the decimal value, `def` when the key is missing, -1
 * when the value is empty. */
ZORV_API int ZorvGetIniInt(const char* path, const char* section, int def,
                           const char* key);
/* GetIniWord(): the hexadecimal value, `def` when missing or not hex. */
ZORV_API uint16_t GetIniWord(const char* path, const char* section,
                             uint16_t def, const char* key);

#ifdef __cplusplus
}
#endif

#endif /* ZORV2000_INI_PROFILE_H */
