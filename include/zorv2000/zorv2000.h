/*
 * zorv2000.h: the flat interface of the library in one include. Plain C.
 */
#ifndef ZORV2000_ZORV2000_H
#define ZORV2000_ZORV2000_H

#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/dapi2.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/genlist.h"
#include "zorv2000/genstr.h"
#include "zorv2000/ini-profile.h"
#include "zorv2000/memory-alloc.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/nls-access.h"
#include "zorv2000/param-valid.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/test-common.h"
#include "zorv2000/tracing.h"
#include "zorv2000/zorv-api.h"
#include "zorv2000/zorv2k_scsi.h"

#endif /* ZORV2000_ZORV2000_H */
