// libFuzzer target for what a device sends back: reply headers, sense
// bytes, INQUIRY and capacity data, short and failed reads, and the texts
// of the adapter and ATA identity requests. The unit's system calls are
// replaced by a scripted device that takes every answer from the input;
// the commands, the sense accessors and a whole scan run over it.
#include <errno.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "global/zorv2k_scsi_p.h"
#include "zorv2000/genlist.h"
#include "zorv2000/zorv2k_scsi.h"

namespace {

// The descriptor the scripted device answers on.
const int kDeviceFd = 1000;

struct Stream {
  const uint8_t* data;
  size_t size;
  size_t pos;
};
Stream gIn;

uint8_t nextByte() { return gIn.pos < gIn.size ? gIn.data[gIn.pos++] : 0; }

// Copies the next `n` input bytes (zeros past the end).
void nextBytes(void* out, size_t n) {
  unsigned char* p = (unsigned char*)out;
  for (size_t i = 0; i < n; ++i) p[i] = nextByte();
}

int fakeOpen(const char* path, int, mode_t) {
  if (strcmp(path, "/dev/sg0") == 0 || strcmp(path, "/dev/sda") == 0) {
    return kDeviceFd;
  }
  errno = ENOENT;
  return -1;
}

int fakeClose(int) { return 0; }

ssize_t fakeWrite(int, const void*, size_t count) {
  uint8_t mode = nextByte();
  if (mode == 0xFF) return -1;
  if (mode == 0xFE) return (ssize_t)count / 2;
  return (ssize_t)count;
}

// A full reply of input bytes, a short one, or a failure.
ssize_t fakeRead(int, void* buffer, size_t count) {
  uint8_t mode = nextByte();
  if (mode == 0xFF) return -1;
  size_t n = count;
  if (mode == 0xFE) n = count ? nextByte() % count : 0;
  nextBytes(buffer, n);
  return (ssize_t)n;
}

int fakeIoctl(int, unsigned long request, void* argument) {
  if (nextByte() == 0xFF) {
    errno = EIO;
    return -1;
  }
  switch (request) {
    case SCSI_IOCTL_GET_IDLUN:
      nextBytes(argument, 8);
      return 0;
    case SCSI_IOCTL_GET_BUS_NUMBER:
    case SG_GET_RESERVED_SIZE:
      nextBytes(argument, sizeof(int));
      return 0;
    case SCSI_IOCTL_PROBE_HOST: {
      // As the kernel: at most the length word's bytes, unterminated when
      // the text fills them.
      unsigned int len;
      memcpy(&len, argument, sizeof len);
      size_t n = nextByte() * 8u;
      if (n > len) n = len;
      nextBytes(argument, n);
      return 1;
    }
    case HDIO_GET_IDENTITY:
      nextBytes(argument, 512);
      return 0;
    default:
      return 0;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  gIn = Stream{data, size, 0};
  zorvScsiSyscalls.pfnOpen = fakeOpen;
  zorvScsiSyscalls.pfnClose = fakeClose;
  zorvScsiSyscalls.pfnWrite = fakeWrite;
  zorvScsiSyscalls.pfnRead = fakeRead;
  zorvScsiSyscalls.pfnIoctl = fakeIoctl;
  ZorvScsi_I_pszProcDirectory = "/nonexistent-proc";

  unsigned char buffer[256];
  (void)InquiryCmd(kDeviceFd, buffer, 36);
  (void)Inquiry(kDeviceFd);
  uint32_t last = 0, length = 0;
  (void)GetCapacity(kDeviceFd, &last, &length);
  unsigned char sense[16];
  (void)RequestSense(kDeviceFd, 0, sense);
  (void)TestForMedia(kDeviceFd);
  (void)SpaceCmd(kDeviceFd, 1, -1);
  (void)IsLSDriveSCSI(kDeviceFd);
  (void)IsZIPSCSI(kDeviceFd);
  (void)IsLSDriveIDE(kDeviceFd);
  (void)IsSCSIEmulatedUSB(kDeviceFd);
  char description[64];
  int rc = GetHostDecriptionIOCTL(kDeviceFd, description, sizeof description);
  if (rc == 1 && strlen(description) >= sizeof description) abort();
  struct sg_header header;
  memcpy(&header, ZorvScsi_I_CommandBuffer(), sizeof header);
  (void)HaveSense(&header);
  (void)Sense(&header);
  (void)SenseKey(&header);

  CGenList list;
  ScanScsiDevices(&list);
  CGenListIter it;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const ScanDevice* pDevice = (const ScanDevice*)CGenListIterGetData(it);
    if (strlen(pDevice->description) > 29 || strlen(pDevice->type) > 63) {
      abort();
    }
  }
  CGenListDestruct(&list);
  return 0;
}
