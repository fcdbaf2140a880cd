/*
 * nls-commands.h: the NLS engine's commands and the DATA of their answers:
 *
 *   NLS_GETSTRING:<lang>:<tag>     the tag as an element holding <lang> and
 *                                  <EN> with the escaped texts
 *   NLS_REGMOD:<pid>:<file>        SUCCESS or ERROR:<why>
 *   NLS_GETLANGS                   codes joined by ":"
 *   NLS_SET_DEFAULT_LANG:<code>    SUCCESS or ERROR:<why>
 *   NLS_GET_DEFAULT_LANG           the code
 *
 * Anything else is answered "ERROR:unknown command".
 */
#ifndef ZORV_SERVERS_NLSENGINE_NLS_COMMANDS_H
#define ZORV_SERVERS_NLSENGINE_NLS_COMMANDS_H

#include <stdint.h>

#include "zorv2000/genstr.h"

/* Variables one tag may carry; later ones are ignored. */
enum { ZORV_NLS_MAX_VARIABLES = 32 };

/* ZorvNls_I_HandleCommand(): the answer's DATA to `command` (the DATA of an
 * "NLS_COMMAND" message) from process `requester`, into `reply` (replaced).
 * 1, or 0 when out of memory. */
int ZorvNls_I_HandleCommand(uint32_t requester, const char* command,
                            CGenStr* reply);

/* ZorvNls_I_FillVariables(): `text` with every "{name}" replaced by the
 * value of that variable of `tag` (unescaped), into `out` (replaced). "{{"
 * gives "{"; a placeholder without a variable stays as written. 1, or 0
 * when out of memory. */
int ZorvNls_I_FillVariables(const char* text, const char* tag, CGenStr* out);

#endif /* ZORV_SERVERS_NLSENGINE_NLS_COMMANDS_H */
