/*
 * zorv2k_scsi_p.h: internals of the SCSI command layer and device scan.
 *
 * Not part of the library's interface: never installed, never included from
 * a public header. Holds the scan's name sequences and record destructor
 * (exported for the framework's own tools), the system-call table and the
 * /dev and /proc directories through which tests put prepared devices and
 * files in place of the real ones, and read-only views of the unit state.
 */
#ifndef ZORV_GLOBAL_ZORV2K_SCSI_P_H
#define ZORV_GLOBAL_ZORV2K_SCSI_P_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "zorv2000/zorv-api.h"
#include "zorv2000/zorv2k_scsi.h"

/* Buffer sizes of the two name sequences ("/dev/sg255" and "/dev/scdz"
 * with their NUL, plus one spare byte for the generic names). */
enum { SCAN_SG_NAME_SIZE = 11, SCAN_NODE_NAME_SIZE = 10 };

#ifdef __cplusplus
extern "C" {
#endif

/* ScanDevice_I_GetNextSGName(): the generic name after `name` (11 bytes):
 * "" -> "/dev/sg0", decimal up to "/dev/sg255", then "/dev/sga" to
 * "/dev/sgz", then "" (the end). Any other text also becomes "". */
ZORV_API void ScanDevice_I_GetNextSGName(char* name);
/* ScanDevice_I_GetNextSD_ST_SR_SCDName(): the paired-node name after `name`
 * (10 bytes): "" -> "/dev/sd0"; the last character runs 0-9 then a-z; after
 * z the family moves on sd, st, sr, scd, each from 0; after "/dev/scdz"
 * (or for any other text) "". */
ZORV_API void ScanDevice_I_GetNextSD_ST_SR_SCDName(char* name);
/* ScanDevice_I_DeviceDestructorFun(): destroy function of the scan list:
 * frees the record's strings; the list then frees the record. */
ZORV_API void ScanDevice_I_DeviceDestructorFun(void* data);

#ifdef __cplusplus
}
#endif

/* System calls of the unit. Every open, close, read, write, ioctl and fcntl
 * of the command layer, the scan and log() goes through this table; tests
 * replace entries (a fake generic device, failing requests) and put them
 * back. Unguarded: replace entries only while no other thread sends. */
struct ZorvScsiSyscalls {
  int (*pfnOpen)(const char* path, int flags, mode_t mode);
  int (*pfnClose)(int fd);
  ssize_t (*pfnRead)(int fd, void* buffer, size_t count);
  ssize_t (*pfnWrite)(int fd, const void* buffer, size_t count);
  int (*pfnIoctl)(int fd, unsigned long request, void* argument);
  int (*pfnFcntl)(int fd, int command, int argument);
};
extern struct ZorvScsiSyscalls zorvScsiSyscalls;

/* The real calls, for putting a table entry back. */
int ZorvScsi_I_RealOpen(const char* path, int flags, mode_t mode);
int ZorvScsi_I_RealClose(int fd);
ssize_t ZorvScsi_I_RealRead(int fd, void* buffer, size_t count);
ssize_t ZorvScsi_I_RealWrite(int fd, const void* buffer, size_t count);
int ZorvScsi_I_RealIoctl(int fd, unsigned long request, void* argument);
int ZorvScsi_I_RealFcntl(int fd, int command, int argument);

/* Directory that stands for "/dev" when device nodes are opened ("/dev"
 * unless a test points it at prepared files), and the one that stands for
 * "/proc" in the USB floppy test. Records keep the "/dev/..." names.
 * Unguarded: change them only while no scan runs. */
extern const char* ZorvScsi_I_pszDevDirectory;
extern const char* ZorvScsi_I_pszProcDirectory;

/* ZorvScsi_I_IsUsbFloppy(): the USB floppy test of the scan for host
 * adapter `host`: 1 when the usb-storage entry of that host and the USB
 * device list describe a UFI floppy with the same vendor and product. */
int ZorvScsi_I_IsUsbFloppy(int32_t host);

/* Views of the unit state for tests. */
/* ZorvScsi_I_SgBufferSize(): the library-wide SG buffer size. */
uint32_t ZorvScsi_I_SgBufferSize(void);
/* ZorvScsi_I_NextPackId(): the pack id the next command will carry. */
int32_t ZorvScsi_I_NextPackId(void);
/* ZorvScsi_I_CommandBuffer(): the shared command buffer, whose first 36
 * bytes hold the reply header of the last command sent without a reply
 * buffer. */
unsigned char* ZorvScsi_I_CommandBuffer(void);

#endif /* ZORV_GLOBAL_ZORV2K_SCSI_P_H */
