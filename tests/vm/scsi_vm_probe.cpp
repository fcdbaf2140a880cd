// The program that tools/check-vm.sh runs inside the emulated-device VM, as
// root, against the real kernel drivers. It prints facts, one per line, and
// leaves the judging to the host side:
//   1. the scan as a modern system shows it (TestScanScanScsi() and the
//      records);
//   2. INQUIRY, TEST UNIT READY, TestForMedia, READ CAPACITY and READ(10) of
//      block 0 on every device found, plus the descriptor requests;
//   3. WRITE(10)/WriteBlocks and read-back on the LSI disk (a scratch image);
//   4. the old letter names made as links, the scan again and the generic
//      node of each disk through GetCorrespondingSGDevice();
//   5. the USB floppy test over a /proc tree of this program's own, made
//      from the kernel's real USB device list.
// Built statically from the library's objects.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "global/zorv2k_scsi_p.h"
#include "zorv2000/genlist.h"
#include "zorv2000/zorv2k_scsi.h"

namespace {

// "[text]" of `n` bytes of INQUIRY data, NULs shown as '.'.
void printField(const char* key, const unsigned char* p, int n) {
  printf(" %s=[", key);
  for (int i = 0; i < n; ++i) putchar(p[i] ? p[i] : '.');
  putchar(']');
}

void printRecords(const char* tag, CGenList* list) {
  printf("%s: count=%d\n", tag, (int)CGenListGetCount(list));
  CGenListIter it;
  for (CGenListIterInit(&it, list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const ScanDevice* d = (const ScanDevice*)CGenListIterGetData(it);
    printf("%s-dev: sg=%s name=%s type=%s addr=%d:%d:%d:%d desc=[%s]\n", tag,
           d->sgName, d->name[0] ? d->name : "-", d->type[0] ? d->type : "-",
           (int)d->host, (int)d->bus, (int)d->id, (int)d->lun, d->description);
  }
}

// The commands and descriptor requests on one generic device.
void probeDevice(const ScanDevice* d) {
  const char* sg = d->sgName;
  int fd = open(sg, O_RDWR);
  if (fd < 0) {
    printf("cmd: sg=%s open=%d\n", sg, errno);
    return;
  }
  unsigned char inquiry[96];
  memset(inquiry, 0, sizeof inquiry);
  int rc = InquiryCmd(fd, inquiry, 96);
  printf("cmd: sg=%s inquiry=0x%04x ptype=%d", sg, rc, inquiry[0] & 0x1F);
  printField("vendor", inquiry + 8, 8);
  printField("product", inquiry + 16, 16);
  printField("rev", inquiry + 32, 4);
  printf("\n");

  // TEST UNIT READY, again while a unit attention is reported.
  printf("cmd: sg=%s tur=", sg);
  for (int i = 0; i < 4; ++i) {
    rc = ReadyCmd(fd);
    printf(i ? ",0x%04x" : "0x%04x", rc);
    if (rc != 0x2900 && rc != 0x2800) break;
  }
  struct sg_header reply;
  memcpy(&reply, ZorvScsi_I_CommandBuffer(), sizeof reply);
  printf(" key=%d\n", HaveSense(&reply) ? SenseKey(&reply) : -1);
  printf("cmd: sg=%s media=0x%04x\n", sg, TestForMedia(fd));

  uint32_t last = 0, blockLength = 0;
  rc = GetCapacity(fd, &last, &blockLength);
  printf("cmd: sg=%s capacity=0x%04x last=%lu blocklen=%lu\n", sg, rc,
         (unsigned long)last, (unsigned long)blockLength);
  unsigned char raw[8];
  rc = ReadCapacityCmd(fd, raw, 8);
  printf(
      "cmd: sg=%s readcapacity=0x%04x raw=%02x%02x%02x%02x%02x%02x%02x%02x\n",
      sg, rc, raw[0], raw[1], raw[2], raw[3], raw[4], raw[5], raw[6], raw[7]);

  static unsigned char block[65536];
  uint32_t size = blockLength >= 512 && blockLength <= 4096 ? blockLength : 512;
  memset(block, 0xA5, sizeof block);
  rc = Read10Cmd(fd, 0, size, 1, block, sizeof block);
  int allZero = 1;
  for (uint32_t i = 0; i < size; ++i) allZero &= block[i] == 0;
  printf("cmd: sg=%s read10=0x%04x bytes=%lu zero=%d\n", sg, rc,
         (unsigned long)size, allZero);
  // The 0x10000 bound is the library's own: refused on a real device too.
  printf("cmd: sg=%s read10-64k=%d\n", sg,
         Read10Cmd(fd, 0, 512, 128, block, sizeof block));

  struct sg_scsi_id id;
  memset(&id, 0, sizeof id);
  rc = GetScsiIdSGIOCTL(fd, &id);
  printf("ioctl: sg=%s scsiid=%d addr=%d:%d:%d:%d type=%d\n", sg, rc,
         id.host_no, id.channel, id.scsi_id, id.lun, id.scsi_type);
  char description[256];
  rc = GetHostDecriptionIOCTL(fd, description, sizeof description);
  for (char* p = description; *p; ++p) {
    if (*p == '\n') *p = '|';
  }
  printf("ioctl: sg=%s probehost=%d usb=%d text=[%s]\n", sg, rc,
         IsSCSIEmulatedUSB(fd), description);
  printf("ioctl: sg=%s lsscsi=%d zipscsi=%d lside=%d zipide=%d\n", sg,
         IsLSDriveSCSI(fd), IsZIPSCSI(fd), IsLSDriveIDE(fd), IsZIPIDE(fd));
  // The driver rounds the reserve up to whole pages: an odd size reads
  // back differently and is refused; a page multiple is taken.
  rc = IncreaseReservedSizeIOCTL(fd, 0x10000 + 64);
  printf("ioctl: sg=%s reserve-odd=%d sgsize=%lu\n", sg, rc,
         (unsigned long)ZorvScsi_I_SgBufferSize());
  rc = IncreaseReservedSizeIOCTL(fd, 0x10000 + 4096);
  printf("ioctl: sg=%s reserve=%d sgsize=%lu\n", sg, rc,
         (unsigned long)ZorvScsi_I_SgBufferSize());
  if (rc == 0 && d->type[0] == 'H') {
    // The largest read the library lets through: 127 blocks of 512 bytes
    // (65024), the most below 0x10000.
    rc = Read10Cmd(fd, 0, size, 0xFFFF / size, block, sizeof block);
    printf("cmd: sg=%s read10-big=0x%04x\n", sg, rc);
  }
  IncreaseReservedSizeIOCTL(fd, ZORV_SG_DEFAULT_BUFFER);
  close(fd);
}

// Writes two blocks on a scratch disk and reads them back.
void probeWrite(const char* sg) {
  int fd = open(sg, O_RDWR);
  if (fd < 0) return;
  unsigned char out[1024], in[1024];
  for (int i = 0; i < 1024; ++i) out[i] = (unsigned char)(i * 13 + 1);
  int rcWrite = Write10Cmd(fd, 1, 512, 1, out);
  int rcBlocks = WriteBlocks(fd, 2, 512, 1, out + 512);
  int rcSync = ZORV_SynchronizeCache(fd);
  memset(in, 0, sizeof in);
  int rcRead = Read10Cmd(fd, 1, 512, 2, in, sizeof in);
  printf(
      "write: sg=%s write10=0x%04x writeblocks=0x%04x sync=0x%04x "
      "read10=0x%04x same=%d\n",
      sg, rcWrite, rcBlocks, rcSync, rcRead, memcmp(in, out, 1024) == 0);
  int rcSeek = SeekCmd(fd, 100);
  int rcStart = StartCmd(fd, 0);
  printf("write: sg=%s seek=0x%04x start=0x%04x\n", sg, rcSeek, rcStart);
  close(fd);
}

// The old names as links: /dev/sga.. for the generic nodes found, and
// /dev/scdN for /dev/srN.
void makeLegacyNames(int nGeneric) {
  char link[32], target[32];
  for (int i = 0; i < nGeneric && i < 26; ++i) {
    snprintf(link, sizeof link, "/dev/sg%c", 'a' + i);
    snprintf(target, sizeof target, "sg%d", i);
    if (symlink(target, link) != 0 && errno != EEXIST) perror(link);
  }
  for (int i = 0; i < 10; ++i) {
    snprintf(target, sizeof target, "/dev/sr%d", i);
    if (access(target, F_OK) != 0) continue;
    snprintf(link, sizeof link, "/dev/scd%d", i);
    snprintf(target, sizeof target, "sr%d", i);
    if (symlink(target, link) != 0 && errno != EEXIST) perror(link);
  }
}

void probeCorresponding(const char* blockNode) {
  int fd = open(blockNode, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return;
  int sgFd = -1;
  int rc = GetCorrespondingSGDevice(fd, &sgFd);
  int32_t host = -1, bus = -1, id = -1, lun = -1;
  if (sgFd >= 0) GetHostBusIdLunIOCTL(sgFd, &host, &bus, &id, &lun);
  unsigned long sectors = 0;
  int rcSectors = GetSectorCountIoctl(fd, &sectors);
  printf("corresponding: node=%s rc=%d sgaddr=%d:%d:%d:%d sectors=%d/%lu\n",
         blockNode, rc, (int)host, (int)bus, (int)id, (int)lun, rcSectors,
         sectors);
  if (sgFd >= 0) close(sgFd);
  close(fd);
}

int copyFile(const char* from, const char* to, const char* subclassFrom,
             const char* subclassTo) {
  FILE* in = fopen(from, "r");
  if (!in) return -1;
  FILE* out = fopen(to, "w");
  if (!out) {
    fclose(in);
    return -1;
  }
  char line[1024];
  while (fgets(line, sizeof line, in)) {
    char* p = subclassFrom ? strstr(line, subclassFrom) : NULL;
    if (p && line[0] == 'I') memcpy(p, subclassTo, strlen(subclassTo));
    fputs(line, out);
  }
  fclose(in);
  fclose(out);
  return 0;
}

// The USB floppy test over /tmp/proc-<tag>: the kernel's USB device list
// (subclass rewritten when asked) and a usb-storage entry for `host` with
// the descriptor strings the kernel shows.
void probeUsbFloppy(const char* tag, const char* subclassTo, int host) {
  char dir[64], path[128];
  snprintf(dir, sizeof dir, "/tmp/proc-%s", tag);
  const char* subdirs[] = {"", "/scsi", "/scsi/usb-storage-0", "/bus",
                           "/bus/usb"};
  for (const char* sub : subdirs) {
    snprintf(path, sizeof path, "%s%s", dir, sub);
    mkdir(path, 0755);
  }
  snprintf(path, sizeof path, "%s/bus/usb/devices", dir);
  if (copyFile("/sys/kernel/debug/usb/devices", path,
               subclassTo ? "Sub=06" : NULL, subclassTo) != 0) {
    printf("usbfloppy: tag=%s no-usb-devices-text\n", tag);
    return;
  }
  snprintf(path, sizeof path, "%s/scsi/usb-storage-0/%d", dir, host);
  FILE* entry = fopen(path, "w");
  if (!entry) return;
  fprintf(entry,
          "   Host scsi%d: usb-storage\n       Vendor: QEMU\n      Product: "
          "QEMU USB HARDDRIVE\nSerial Number: SCSIVM-USB0\n",
          host);
  fclose(entry);
  ZorvScsi_I_pszProcDirectory = strdup(dir);
  CGenList list;
  ScanScsiDevices(&list);
  CGenListIter it;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const ScanDevice* d = (const ScanDevice*)CGenListIterGetData(it);
    printf("usbfloppy: tag=%s sg=%s type=%s\n", tag, d->sgName,
           d->type[0] ? d->type : "-");
  }
  CGenListDestruct(&list);
  ZorvScsi_I_pszProcDirectory = "/proc";
}

}  // namespace

int main() {
  setvbuf(stdout, NULL, _IOLBF, 0);
  printf("probe: begin\n");
  printf("proc: scsi=%d bus-usb=%d\n", access("/proc/scsi", F_OK) == 0,
         access("/proc/bus/usb/devices", F_OK) == 0);

  TestScanScanScsi();

  CGenList list;
  ScanScsiDevices(&list);
  printRecords("scan", &list);
  CGenListIter it;
  int nGeneric = 0;
  const char* lsiDisk = NULL;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const ScanDevice* d = (const ScanDevice*)CGenListIterGetData(it);
    probeDevice(d);
    ++nGeneric;
    if (strstr(d->description, "LSI DISK")) lsiDisk = d->sgName;
  }
  if (lsiDisk) probeWrite(lsiDisk);
  CGenListDestruct(&list);

  makeLegacyNames(nGeneric);
  CGenList legacy;
  ScanScsiDevices(&legacy);
  printRecords("legacy", &legacy);
  CGenListDestruct(&legacy);
  static const char* const kBlockNodes[] = {"/dev/sda", "/dev/sdb", "/dev/sdc",
                                            "/dev/sdd"};
  for (const char* node : kBlockNodes) {
    probeCorresponding(node);
  }

  probeUsbFloppy("harddisk", NULL, 3);
  probeUsbFloppy("floppy", "Sub=04", 3);
  probeUsbFloppy("otherhost", "Sub=04", 2);

  printf("log: rc=%d\n", log("written inside the VM\n"));
  printf("probe: end\n");
  return 0;
}
