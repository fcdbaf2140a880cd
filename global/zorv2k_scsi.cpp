/*
 * zorv2k_scsi.cpp: SCSI and MMC commands through the SCSI generic driver's
 * write()/read() interface, the descriptor requests, and the device scan
 * that pairs generic nodes with disk, tape and CD nodes.
 * No locks: the command buffer, the INQUIRY buffer, the pack-id counter and
 * the SG buffer size are shared and unguarded, so commands go out from one
 * thread at a time. Every system call goes through zorvScsiSyscalls.
 */
#include "zorv2000/zorv2k_scsi.h"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <linux/hdreg.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "global/genstr_p.h"
#include "global/zorv2k_scsi_p.h"
#include "zorv2000/genlist.h"
#include "zorv2000/memory-alloc.h"
#include "zorv2000/tracing.h"

static_assert(sizeof(struct sg_header) == ZORV_SG_HEADER_SIZE,
              "the driver's header is 36 bytes");

/* Offsets and bits of the reply header and the sense data. */
enum {
  SENSE_RESPONSE_DEFERRED = 0x71,
  TARGET_CHECK_CONDITION = 1,     /* CHECK CONDITION shifted right once */
  TARGET_COMMAND_TERMINATED = 17, /* COMMAND TERMINATED shifted likewise */
  DRIVER_SENSE_BIT = 0x08,
  ASC_MEDIUM_NOT_PRESENT = 0x3A
};

/* Longest CDB the builders write. */
enum { CDB_MAX = 12 };

/* Largest allocation length of the 16-bit length fields. */
enum { MAX_ALLOCATION_LENGTH = 0xFFFF };

/* Bytes of INQUIRY data the scan asks for, and its description's length. */
enum { SCAN_INQUIRY_LENGTH = 36, SCAN_DESCRIPTION_SIZE = 30 };
/* Type text kept in a record (63 characters and the NUL). */
enum { SCAN_TYPE_SIZE = 64 };
/* Line buffer of the /proc readers. */
enum { PROC_LINE_SIZE = 512 };
/* Path buffers. */
enum { PATH_SIZE = 1024 };
/* The ATA identify data and the place of its 40-character model text. */
enum { ATA_IDENTIFY_SIZE = 512, ATA_MODEL_OFFSET = 54, ATA_MODEL_LENGTH = 40 };
/* Buffer of the host adapter description request. */
enum { HOST_DESCRIPTION_SIZE = 1024 };

/* The unit's process-wide state. */
static struct {
  /* unguarded: one thread sends commands; header, CDB and outgoing data of
   * the request being built, and the reply header of commands without a
   * reply buffer */
  alignas(8) unsigned char abCommand[ZORV_SG_MAX_BUFFER];
  /* unguarded as above: Inquiry()'s 96 bytes */
  unsigned char abInquiry[ZORV_INQUIRY_BUFFER];
  /* unguarded as above: pack id of the next command */
  int32_t nextPackId;
  /* unguarded as above: largest request or reply, header included */
  uint32_t sgBufferSize;
} scsiState = {{0}, {0}, 0, ZORV_SG_DEFAULT_BUFFER};

/* ---- system-call table ------------------------------------------------- */

int ZorvScsi_I_RealOpen(const char* path, int flags, mode_t mode) {
  return open(path, flags, mode);
}
int ZorvScsi_I_RealClose(int fd) { return close(fd); }
ssize_t ZorvScsi_I_RealRead(int fd, void* buffer, size_t count) {
  return read(fd, buffer, count);
}
ssize_t ZorvScsi_I_RealWrite(int fd, const void* buffer, size_t count) {
  return write(fd, buffer, count);
}
int ZorvScsi_I_RealIoctl(int fd, unsigned long request, void* argument) {
  return ioctl(fd, request, argument);
}
int ZorvScsi_I_RealFcntl(int fd, int command, int argument) {
  return fcntl(fd, command, argument);
}

struct ZorvScsiSyscalls zorvScsiSyscalls = {
    ZorvScsi_I_RealOpen,  ZorvScsi_I_RealClose, ZorvScsi_I_RealRead,
    ZorvScsi_I_RealWrite, ZorvScsi_I_RealIoctl, ZorvScsi_I_RealFcntl};

const char* ZorvScsi_I_pszDevDirectory = "/dev";
const char* ZorvScsi_I_pszProcDirectory = "/proc";

/* ---- small helpers --------------------------------------------------------
 */

/* putBig16(), putBig32(): big-endian fields of a CDB. */
static void putBig16(unsigned char* p, uint32_t value) {
  p[0] = (unsigned char)(value >> 8);
  p[1] = (unsigned char)value;
}

static void putBig32(unsigned char* p, uint32_t value) {
  p[0] = (unsigned char)(value >> 24);
  p[1] = (unsigned char)(value >> 16);
  p[2] = (unsigned char)(value >> 8);
  p[3] = (unsigned char)value;
}

/* getBig32(): a big-endian field of returned data. */
static uint32_t getBig32(const unsigned char* p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 |
         (uint32_t)p[3];
}

/* newCdb(): the CDB area of the command buffer, cleared. */
static unsigned char* newCdb(void) {
  unsigned char* pCdb = scsiState.abCommand + ZORV_SG_HEADER_SIZE;
  memset(pCdb, 0, CDB_MAX);
  return pCdb;
}

/* Which text an allocation failure of commandIn() traces. */
enum AllocText { ALLOC_TEXT_CAPBUFFER, ALLOC_TEXT_CAPBUFFER_UPPER };

/* commandIn(): sends the CDB already in the command buffer and copies
 * `length` bytes of incoming data to `buffer`, through a zeroed reply
 * buffer of 36 + length bytes from the tracked allocator. */
static int commandIn(int fd, uint32_t cdbLength, unsigned char* buffer,
                     uint32_t length, AllocText text) {
  unsigned char* pReply =
      (unsigned char*)ZorvAlloc(ZORV_SG_HEADER_SIZE + length);
  if (!pReply) {
    if (text == ALLOC_TEXT_CAPBUFFER) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvAlloc pszCapbuffer failed\n");
    } else {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "ZorvAlloc pszCapBuffer failed\n");
    }
    return -1;
  }
  int rc =
      handle_scsi_cmd(fd, cdbLength, 0, scsiState.abCommand, length, pReply);
  if (length > 0) memcpy(buffer, pReply + ZORV_SG_HEADER_SIZE, length);
  ZorvFree(pReply);
  return rc;
}

/* commandOut(): copies `length` bytes of outgoing data behind the CDB and
 * sends; -1 without copying when the request would not fit the SG buffer
 * size. */
static int commandOut(int fd, uint32_t cdbLength, const unsigned char* data,
                      uint32_t length) {
  uint64_t nRequest = (uint64_t)ZORV_SG_HEADER_SIZE + cdbLength + length;
  if (nRequest > scsiState.sgBufferSize) return -1;
  if (length > 0) {
    if (!data) return -1;
    memcpy(scsiState.abCommand + ZORV_SG_HEADER_SIZE + cdbLength, data, length);
  }
  return handle_scsi_cmd(fd, cdbLength, length, scsiState.abCommand, 0, NULL);
}

/* commandNone(): sends the CDB in the command buffer; the reply header
 * comes back into the command buffer. */
static int commandNone(int fd, uint32_t cdbLength) {
  return handle_scsi_cmd(fd, cdbLength, 0, scsiState.abCommand, 0, NULL);
}

/* replyHeader(): a copy of the header at `p`. */
static struct sg_header replyHeader(const unsigned char* p) {
  struct sg_header header;
  memcpy(&header, p, sizeof header);
  return header;
}

/* ---- transport ------------------------------------------------------------
 */

/* handle_scsi_cmd(): one write of the request, one read of the reply. */
int handle_scsi_cmd(int fd, uint32_t cdbLength, uint32_t outLength,
                    unsigned char* request, uint32_t inLength,
                    unsigned char* reply) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "************Enter HANDLE SCSI CMD*************************\n");
  if (cdbLength == 0 || !request) return -1;
  uint64_t nRequest = (uint64_t)cdbLength + outLength + ZORV_SG_HEADER_SIZE;
  uint64_t nReply = (uint64_t)inLength + ZORV_SG_HEADER_SIZE;
  /* Deliberate: the incoming length is checked before a missing reply
   * buffer cuts the reply to the header, so a caller that names more data
   * than fits is refused either way. */
  if (nRequest > scsiState.sgBufferSize || nReply > scsiState.sgBufferSize) {
    return -1;
  }
  if (!reply) {
    nReply = ZORV_SG_HEADER_SIZE;
    reply = request;
  }

  struct sg_header header = replyHeader(request);
  header.reply_len = (int)nReply;
  header.twelve_byte = cdbLength == 12 ? 1 : 0;
  header.result = 0;
  header.pack_id = scsiState.nextPackId++;
  memset(header.sense_buffer, 0, sizeof header.sense_buffer);
  memcpy(request, &header, sizeof header);

  ssize_t nWritten = zorvScsiSyscalls.pfnWrite(fd, request, (size_t)nRequest);
  if (nWritten < 0 || (uint64_t)nWritten != nRequest) return -1;
  if (replyHeader(request).result != 0) return -1;

  ssize_t nRead = zorvScsiSyscalls.pfnRead(fd, reply, (size_t)nReply);
  if (nRead < 0 || (uint64_t)nRead != nReply) return -1;

  header = replyHeader(reply);
  int target = (int)header.target_status;
  int host = (int)header.host_status;
  int driver = (int)header.driver_status;
  if (header.result == 0 && target == 0 && host == 0 && driver == 0) return 0;
  if (target != TARGET_CHECK_CONDITION && target != TARGET_COMMAND_TERMINATED &&
      !(driver & DRIVER_SENSE_BIT)) {
    if (header.result != 0) return header.result;
    if (target != 0) return target;
    if (host != 0) return host;
    return driver;
  }
  /* Deliberate: a deferred error belongs to an earlier command; this one
   * succeeded. */
  if ((header.sense_buffer[0] & 0x7F) == SENSE_RESPONSE_DEFERRED) return 0;
  return header.sense_buffer[12] * 256 + header.sense_buffer[13];
}

/* ---- command builders -----------------------------------------------------
 */

/* InquiryCmd(): INQUIRY into the caller's buffer. */
int InquiryCmd(int fd, unsigned char* buffer, uint32_t dwBufferSize) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Inquiry Command\n");
  if (dwBufferSize < 36) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "dwBufferSize<36\n");
    return -1;
  }
  if (dwBufferSize > MAX_ALLOCATION_LENGTH || !buffer) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x12;
  putBig16(pCdb + 3, dwBufferSize);
  int rc = commandIn(fd, 6, buffer, dwBufferSize, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Inquiry failed\n");
  return rc;
}

/* Inquiry(): INQUIRY of 96 bytes into the library's buffer. */
unsigned char* Inquiry(int fd) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Inquiry (96) Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x12;
  pCdb[4] = ZORV_INQUIRY_BUFFER;
  int rc = commandIn(fd, 6, scsiState.abInquiry, ZORV_INQUIRY_BUFFER,
                     ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Inquiry (96) failed\n");
    return NULL;
  }
  return scsiState.abInquiry;
}

/* ReadVariableCmd(): READ(6) of 2048 bytes, variable-length mode. */
int ReadVariableCmd(int fd, unsigned char* buffer) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read Variable Command\n");
  if (!buffer) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x08;
  pCdb[1] = 0;
  pCdb[2] = 0;
  putBig16(pCdb + 3, 2048);
  int rc = commandIn(fd, 6, buffer, 2048, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Variable failed\n");
  return rc;
}

/* ReadFixedCmd(): READ(6) of one fixed block, 2048 bytes. */
int ReadFixedCmd(int fd, unsigned char* buffer) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read Fixed Command\n");
  if (!buffer) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x08;
  pCdb[1] = 1;
  pCdb[4] = 1;
  int rc = commandIn(fd, 6, buffer, 2048, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Fixed failed\n");
  return rc;
}

/* fillRead10(): READ(10) of `count` blocks from `lba`. */
static void fillRead10(uint32_t lba, uint32_t count) {
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x28;
  putBig32(pCdb + 2, lba);
  putBig16(pCdb + 7, count);
}

/* Read10Cmd(): READ(10), at most 0xFFFF bytes. */
int Read10Cmd(int fd, uint32_t lba, uint32_t blockSize, uint32_t blockCount,
              unsigned char* buffer, uint32_t bufferSize) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read (10) Command\n");
  uint64_t nBytes = (uint64_t)blockSize * blockCount;
  if (nBytes > MAX_ALLOCATION_LENGTH || nBytes > bufferSize || !buffer ||
      blockCount > MAX_ALLOCATION_LENGTH) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                  "Read (10) refused: %lu blocks of %lu bytes\n",
                  (unsigned long)blockCount, (unsigned long)blockSize);
    return -1;
  }
  fillRead10(lba, blockCount);
  int rc = commandIn(fd, 10, buffer, (uint32_t)nBytes, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read (10) failed\n");
  return rc;
}

/* ReadBlock(): READ(10) into a buffer of blockSize x blockCount bytes. */
int ReadBlock(int fd, uint32_t lba, uint32_t blockSize, uint32_t blockCount,
              unsigned char* buffer) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read Block Command\n");
  uint64_t nBytes = (uint64_t)blockSize * blockCount;
  /* The transport bounds the length by the SG buffer size; this keeps the
   * product from wrapping on the way there. */
  if (!buffer || blockCount > MAX_ALLOCATION_LENGTH ||
      nBytes > ZORV_SG_MAX_BUFFER) {
    return -1;
  }
  fillRead10(lba, blockCount);
  int rc = commandIn(fd, 10, buffer, (uint32_t)nBytes, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Block failed\n");
  return rc;
}

/* ReadDvdStructureCmd(): READ DVD STRUCTURE in a 12-byte CDB. */
int ReadDvdStructureCmd(int fd, uint8_t layer, uint8_t format,
                        unsigned char* buffer, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read DVD Structure Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0xAD;
  pCdb[6] = layer;
  pCdb[7] = format;
  putBig16(pCdb + 8, length);
  int rc = commandIn(fd, 12, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read DVD Structure failed\n");
  return rc;
}

/* ReadTrackInformation(): READ TRACK INFORMATION. */
int ReadTrackInformation(int fd, uint8_t addressType, uint32_t trackOrAddress,
                         unsigned char* buffer, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "**** Entering Read Track Information Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x52;
  pCdb[1] = (unsigned char)(addressType & 0x03);
  putBig32(pCdb + 2, trackOrAddress);
  putBig16(pCdb + 7, length);
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Track Information failed\n");
  }
  return rc;
}

/* ReadDiscInformation(): READ DISC INFORMATION. */
int ReadDiscInformation(int fd, unsigned char* buffer, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "**** Entering Read Disc Information Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x51;
  putBig16(pCdb + 7, length);
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Disc Information failed\n");
  }
  return rc;
}

/* ZORV_ReadATIP(): READ TOC/PMA/ATIP, format 4. */
int ZORV_ReadATIP(int fd, int msf, unsigned char* buffer, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read ATIP Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x43;
  pCdb[1] = (unsigned char)((msf ? 1 : 0) * 2);
  pCdb[2] = 4;
  putBig16(pCdb + 7, length);
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read ATIP failed\n");
  return rc;
}

/* ZORV_GetSenseData10(): MODE SENSE(10). */
int ZORV_GetSenseData10(int fd, uint8_t pageCode, unsigned char* buffer,
                        uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Mode Sense (10) Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x5A;
  pCdb[2] = pageCode;
  putBig16(pCdb + 7, length);
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Mode Sense (10) failed\n");
  return rc;
}

/* ZORV_SetSenseData10(): MODE SELECT(10), page format. */
int ZORV_SetSenseData10(int fd, const unsigned char* data, uint16_t length,
                        int savePages) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Mode Select (10) Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x55;
  pCdb[1] = (unsigned char)(0x10 | (savePages ? 0x01 : 0x00));
  putBig16(pCdb + 7, length);
  int rc = commandOut(fd, 10, data, length);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Mode Select (10) failed\n");
  return rc;
}

/* ZORV_SetCDSpeed(): SET CD SPEED. */
int ZORV_SetCDSpeed(int fd, uint16_t readSpeed, uint16_t writeSpeed) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Set CD Speed Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0xBB;
  putBig16(pCdb + 2, readSpeed);
  putBig16(pCdb + 4, writeSpeed);
  int rc = commandNone(fd, 12);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Set CD Speed failed\n");
  return rc;
}

/* ZORV_SynchronizeCache(): SYNCHRONIZE CACHE(10). */
int ZORV_SynchronizeCache(int fd) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Synchronize Cache Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x35;
  int rc = commandNone(fd, 10);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Synchronize Cache failed\n");
  return rc;
}

/* fillWrite10(): WRITE(10) of `count` blocks to `lba`; -1 when the count
 * or the byte count cannot be sent. */
static int fillWrite10(uint32_t lba, uint32_t blockSize, uint32_t count,
                       uint32_t* pBytes) {
  uint64_t nBytes = (uint64_t)blockSize * count;
  if (count > MAX_ALLOCATION_LENGTH || nBytes > ZORV_SG_MAX_BUFFER) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x2A;
  putBig32(pCdb + 2, lba);
  putBig16(pCdb + 7, count);
  *pBytes = (uint32_t)nBytes;
  return 0;
}

/* Write10Cmd(): WRITE(10). */
int Write10Cmd(int fd, uint32_t lba, uint32_t blockSize, uint32_t blockCount,
               const unsigned char* data) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Write (10) Command\n");
  uint32_t nBytes = 0;
  int rc = fillWrite10(lba, blockSize, blockCount, &nBytes);
  if (rc == 0) rc = commandOut(fd, 10, data, nBytes);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Write (10) failed\n");
  return rc;
}

/* WriteBlocks(): WRITE(10), under its own trace lines. */
int WriteBlocks(int fd, uint32_t lba, uint32_t blockSize, uint32_t blockCount,
                const unsigned char* data) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Write Blocks Command\n");
  uint32_t nBytes = 0;
  int rc = fillWrite10(lba, blockSize, blockCount, &nBytes);
  if (rc == 0) rc = commandOut(fd, 10, data, nBytes);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Write Blocks failed\n");
  return rc;
}

/* ReadPositionCmd(): READ POSITION, 20 bytes. */
int ReadPositionCmd(int fd, unsigned char* buffer) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read Position Command\n");
  if (!buffer) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x34;
  int rc = commandIn(fd, 10, buffer, 20, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Position failed\n");
  return rc;
}

/* fillSpace(): SPACE(6) with a 24-bit two's-complement count. */
static void fillSpace(uint8_t code, uint32_t count) {
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x11;
  pCdb[1] = code;
  pCdb[2] = (unsigned char)(count >> 16);
  pCdb[3] = (unsigned char)(count >> 8);
  pCdb[4] = (unsigned char)count;
}

/* SpaceCmd(): SPACE(6) forward (or backward for a negative count). */
int SpaceCmd(int fd, uint8_t code, int32_t count) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Space Command\n");
  fillSpace(code, (uint32_t)count);
  int rc = commandNone(fd, 6);
  /* Deliberate: status 1 is sense 0x00/0x01, FILEMARK DETECTED, which a
   * tape reports when spacing stops at a filemark; it counts as done. */
  if (rc == 1) rc = 0;
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Space failed\n");
  return rc;
}

/* BackwardSpaceCmd(): SPACE(6) with the count negated. */
int BackwardSpaceCmd(int fd, uint8_t code, int32_t count) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Backward Space Command\n");
  fillSpace(code, 0u - (uint32_t)count);
  int rc = commandNone(fd, 6);
  /* Deliberate: status 1 counts as done, as in SpaceCmd(). */
  if (rc == 1) rc = 0;
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Backward Space failed\n");
  return rc;
}

/* Blank(): BLANK. */
int Blank(int fd, uint8_t blankingType) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Blank Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0xA1;
  pCdb[1] = blankingType;
  int rc = commandNone(fd, 12);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Blank failed\n");
  return rc;
}

/* FormatDVDUnit(): FORMAT UNIT with the caller's parameter list. */
int FormatDVDUnit(int fd, const unsigned char* parameterList, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Format Unit Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x04;
  pCdb[1] = 0x11;
  int rc = commandOut(fd, 6, parameterList, length);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Format Unit failed\n");
  return rc;
}

/* ReadFormatCapacityCmd(): READ FORMAT CAPACITIES. */
int ReadFormatCapacityCmd(int fd, unsigned char* buffer, uint16_t length) {
  /* Deliberate: the entry line names Get Configuration; trace readers
   * match it. */
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Get Configuration Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x23;
  putBig16(pCdb + 7, length);
  /* Deliberate: sent as a 12-byte CDB, as the drives this was written for
   * accept it. */
  int rc = commandIn(fd, 12, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Format Capacity failed\n");
  }
  return rc;
}

/* GetConfigurationCmd(): GET CONFIGURATION. */
int GetConfigurationCmd(int fd, uint8_t requestType, uint16_t startingFeature,
                        unsigned char* buffer, uint16_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Get Configuration Command\n");
  if (!buffer && length) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x46;
  pCdb[1] = requestType;
  putBig16(pCdb + 2, startingFeature);
  putBig16(pCdb + 7, length);
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Get Configuration failed\n");
  return rc;
}

/* CloseTrackSessionCmd(): CLOSE TRACK/SESSION, all fields zero. */
int CloseTrackSessionCmd(int fd) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM,
                "**** Entering Close Track Session Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x5B;
  /* Deliberate: 12 bytes although the command has 10, like
   * ReadFormatCapacityCmd(). */
  int rc = commandNone(fd, 12);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Close Track Session failed\n");
  }
  return rc;
}

/* ReadCapacityCmd(): READ CAPACITY(10) as the device sends it. */
int ReadCapacityCmd(int fd, unsigned char* buffer, uint32_t length) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Read Capacity Command\n");
  if (!buffer && length) return -1;
  if (length > ZORV_SG_MAX_BUFFER) return -1;
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x25;
  int rc = commandIn(fd, 10, buffer, length, ALLOC_TEXT_CAPBUFFER_UPPER);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Read Capacity failed\n");
  return rc;
}

/* GetCapacity(): READ CAPACITY(10) in host order. */
int GetCapacity(int fd, uint32_t* lastBlock, uint32_t* blockLength) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Get Capacity Command\n");
  unsigned char abData[8];
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x25;
  int rc = commandIn(fd, 10, abData, 8, ALLOC_TEXT_CAPBUFFER_UPPER);
  if (rc != 0) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Get Capacity failed\n");
    return rc;
  }
  if (lastBlock) *lastBlock = getBig32(abData);
  if (blockLength) *blockLength = getBig32(abData + 4);
  return 0;
}

/* StartCmd(): START STOP UNIT with the start bit. */
int StartCmd(int fd, uint8_t lun) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Start Unit Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x1B;
  pCdb[1] = (unsigned char)(lun << 5);
  pCdb[4] = 1;
  int rc = commandNone(fd, 6);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Start Unit failed\n");
  return rc;
}

/* ReadyCmd(): TEST UNIT READY. */
int ReadyCmd(int fd) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Test Unit Ready Command\n");
  newCdb();
  /* Deliberate: a 12-byte CDB of zeros, not the command's 6 bytes; the
   * driver still sends the 6-byte command it knows for operation code 0. */
  int rc = commandNone(fd, 12);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Test Unit Ready failed\n");
  return rc;
}

/* SeekCmd(): SEEK(10). */
int SeekCmd(int fd, uint32_t lba) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Seek (10) Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x2B;
  putBig32(pCdb + 2, lba);
  int rc = commandNone(fd, 10);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Seek (10) failed\n");
  return rc;
}

/* ErrorCmd(): operation code 0x33 in a 6-byte CDB. */
int ErrorCmd(int fd) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Error Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x33;
  int rc = commandNone(fd, 6);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Error Command failed\n");
  return rc;
}

/* SelfDiagCommand(): SEND DIAGNOSTIC with the self-test bit. */
int SelfDiagCommand(int fd, uint8_t lun) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Send Diagnostic Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x1D;
  pCdb[1] = (unsigned char)(lun * 32 + 4);
  int rc = commandNone(fd, 6);
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Send Diagnostic failed\n");
  return rc;
}

/* RequestSense(): REQUEST SENSE; the sense bytes of the reply header. */
int RequestSense(int fd, uint8_t lun, unsigned char* sense) {
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "**** Entering Request Sense Command\n");
  unsigned char* pCdb = newCdb();
  pCdb[0] = 0x03;
  pCdb[1] = (unsigned char)(lun << 5);
  int rc = commandNone(fd, 6);
  if (sense) {
    struct sg_header header = replyHeader(scsiState.abCommand);
    memcpy(sense, header.sense_buffer, sizeof header.sense_buffer);
  }
  if (rc != 0) ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "Request Sense failed\n");
  return rc;
}

/* TestForMedia(): TEST UNIT READY read for "medium not present". */
int TestForMedia(int fd) {
  int rc = ReadyCmd(fd);
  if (rc != 0) return rc;
  struct sg_header header = replyHeader(scsiState.abCommand);
  if (!HaveSense(&header)) return 0;
  if (SC(&header) == ASC_MEDIUM_NOT_PRESENT) return 0x3A00;
  return -1;
}

/* ---- sense accessors ------------------------------------------------------
 */

int HaveSense(const struct sg_header* header) {
  if (!header) return 0;
  int target = (int)header->target_status;
  return target == TARGET_CHECK_CONDITION ||
         target == TARGET_COMMAND_TERMINATED ||
         (header->driver_status & DRIVER_SENSE_BIT) != 0;
}

int SenseErrorCode(const struct sg_header* header) {
  return header ? header->sense_buffer[0] & 0x7F : 0;
}

int SenseKey(const struct sg_header* header) {
  return header ? header->sense_buffer[2] & 0x0F : 0;
}

int SC(const struct sg_header* header) {
  return header ? header->sense_buffer[12] : 0;
}

/* ASC(): Deliberate: the qualifier under the code's name; callers pair
 * SC() and ASC() this way. */
int ASC(const struct sg_header* header) {
  return header ? header->sense_buffer[13] : 0;
}

int Sense(const struct sg_header* header) {
  return header ? header->sense_buffer[12] * 256 + header->sense_buffer[13] : 0;
}

/* ---- byte order -----------------------------------------------------------
 */

uint32_t LittleEndianToBigEndianDword(uint32_t value) {
  return (value >> 24) | ((value >> 8) & 0x0000FF00u) |
         ((value << 8) & 0x00FF0000u) | (value << 24);
}

uint32_t InvertDWord(uint32_t value) {
  return LittleEndianToBigEndianDword(value);
}

uint16_t LittleEndianToBigEndianWord(uint16_t value) {
  return (uint16_t)((value >> 8) | (value << 8));
}

uint16_t InvertWord(uint16_t value) {
  return LittleEndianToBigEndianWord(value);
}

/* ---- descriptor requests --------------------------------------------------
 */

/* IncreaseReservedSizeIOCTL(): the driver's reserve and the SG buffer
 * size. */
int IncreaseReservedSizeIOCTL(int fd, int32_t size) {
  if (size < 0 || size > ZORV_SG_MAX_BUFFER) return -1;
  int value = (int)size;
  if (zorvScsiSyscalls.pfnIoctl(fd, SG_SET_RESERVED_SIZE, &value) < 0) {
    return -1;
  }
  int readBack = -1;
  if (zorvScsiSyscalls.pfnIoctl(fd, SG_GET_RESERVED_SIZE, &readBack) < 0) {
    return -1;
  }
  if (readBack != size) return -1;
  scsiState.sgBufferSize = (uint32_t)size;
  return 0;
}

/* GetScsiIdSGIOCTL(): SG_GET_SCSI_ID. */
int GetScsiIdSGIOCTL(int fd, struct sg_scsi_id* id) {
  if (!id) return -1;
  return zorvScsiSyscalls.pfnIoctl(fd, SG_GET_SCSI_ID, id) < 0 ? -1 : 0;
}

/* GetSectorCountIoctl(): BLKGETSIZE. */
int GetSectorCountIoctl(int fd, unsigned long* count) {
  if (!count) return 0;
  return zorvScsiSyscalls.pfnIoctl(fd, BLKGETSIZE, count) < 0 ? 0 : 1;
}

/* GetHostBusIdLunIOCTL(): SCSI_IOCTL_GET_IDLUN, then the host number. */
int GetHostBusIdLunIOCTL(int fd, int32_t* host, int32_t* bus, int32_t* id,
                         int32_t* lun) {
  /* The request fills two words: the packed address and a host id. */
  int32_t aIdLun[2] = {0, 0};
  if (zorvScsiSyscalls.pfnIoctl(fd, SCSI_IOCTL_GET_IDLUN, aIdLun) < 0) {
    return -1;
  }
  int32_t hostNumber = 0;
  if (zorvScsiSyscalls.pfnIoctl(fd, SCSI_IOCTL_GET_BUS_NUMBER, &hostNumber) <
      0) {
    return -1;
  }
  uint32_t packed = (uint32_t)aIdLun[0];
  if (id) *id = (int32_t)(packed & 0xFF);
  if (lun) *lun = (int32_t)((packed >> 8) & 0xFF);
  if (bus) *bus = (int32_t)((packed >> 16) & 0xFF);
  if (host) *host = hostNumber;
  return 0;
}

/* GetHostDecriptionIOCTL(): SCSI_IOCTL_PROBE_HOST. */
int GetHostDecriptionIOCTL(int fd, char* description, uint32_t size) {
  if (description && size > 0) description[0] = '\0';
  /* The request reads the buffer's length from its first word and writes
   * at most that many bytes, not always with a terminator. */
  union {
    unsigned int length;
    char text[HOST_DESCRIPTION_SIZE];
  } probe;
  memset(&probe, 0, sizeof probe);
  probe.length = HOST_DESCRIPTION_SIZE - 1;
  if (zorvScsiSyscalls.pfnIoctl(fd, SCSI_IOCTL_PROBE_HOST, &probe) != 1) {
    return 0;
  }
  probe.text[HOST_DESCRIPTION_SIZE - 1] = '\0';
  if (description && size > 0) {
    size_t nCopy = strlen(probe.text);
    if (nCopy > size - 1) nCopy = size - 1;
    memcpy(description, probe.text, nCopy);
    description[nCopy] = '\0';
  }
  return 1;
}

/* ---- the scan -------------------------------------------------------------
 */

/* openNode(): opens "/dev/<rest>" under the device directory. */
static int openNode(const char* name, int flags) {
  char path[PATH_SIZE];
  const char* pPath = name;
  if (strcmp(ZorvScsi_I_pszDevDirectory, "/dev") != 0 &&
      strncmp(name, "/dev/", 5) == 0) {
    int n = snprintf(path, sizeof path, "%s/%s", ZorvScsi_I_pszDevDirectory,
                     name + 5);
    if (n < 0 || (size_t)n >= sizeof path) return -1;
    pPath = path;
  }
  return zorvScsiSyscalls.pfnOpen(pPath, flags, 0);
}

/* ScanDevice_I_GetNextSGName(): /dev/sg0 .. /dev/sg255, /dev/sga .. z. */
void ScanDevice_I_GetNextSGName(char* name) {
  if (!name) return;
  static const char kPrefix[] = "/dev/sg";
  const size_t nPrefix = sizeof kPrefix - 1;
  size_t len = strnlen(name, SCAN_SG_NAME_SIZE);
  if (len == 0) {
    strcpy(name, "/dev/sg0");
    return;
  }
  if (len >= SCAN_SG_NAME_SIZE || len <= nPrefix ||
      strncmp(name, kPrefix, nPrefix) != 0) {
    name[0] = '\0';
    return;
  }
  const char* pSuffix = name + nPrefix;
  size_t nSuffix = len - nPrefix;
  if (nSuffix == 1 && pSuffix[0] >= 'a' && pSuffix[0] <= 'z') {
    if (pSuffix[0] == 'z') {
      name[0] = '\0';
    } else {
      name[nPrefix] = (char)(pSuffix[0] + 1);
    }
    return;
  }
  int value = 0;
  for (size_t i = 0; i < nSuffix; ++i) {
    if (pSuffix[i] < '0' || pSuffix[i] > '9' || nSuffix > 3) {
      name[0] = '\0';
      return;
    }
    value = value * 10 + (pSuffix[i] - '0');
  }
  /* Deliberate: 256 is never tried; after 255 come the letter names of
   * old device setups. */
  if (value >= 255) {
    strcpy(name, "/dev/sga");
  } else {
    /* value + 1 is 1 to 255 here: three digits at most. */
    snprintf(name, SCAN_SG_NAME_SIZE, "/dev/sg%u",
             (unsigned)(unsigned char)(value + 1));
  }
}

/* ScanDevice_I_GetNextSD_ST_SR_SCDName(): sd, st, sr, scd with 0-9, a-z. */
void ScanDevice_I_GetNextSD_ST_SR_SCDName(char* name) {
  if (!name) return;
  static const char* const kFamilies[] = {"/dev/sd", "/dev/st", "/dev/sr",
                                          "/dev/scd"};
  const size_t nFamilies = sizeof kFamilies / sizeof kFamilies[0];
  size_t len = strnlen(name, SCAN_NODE_NAME_SIZE);
  if (len == 0) {
    strcpy(name, "/dev/sd0");
    return;
  }
  for (size_t f = 0; f < nFamilies; ++f) {
    size_t nPrefix = strlen(kFamilies[f]);
    if (len != nPrefix + 1 || strncmp(name, kFamilies[f], nPrefix) != 0) {
      continue;
    }
    char last = name[nPrefix];
    if ((last >= '0' && last <= '8') || (last >= 'a' && last <= 'y')) {
      name[nPrefix] = (char)(last + 1);
    } else if (last == '9') {
      name[nPrefix] = 'a';
    } else if (last == 'z' && f + 1 < nFamilies) {
      snprintf(name, SCAN_NODE_NAME_SIZE, "%s0", kFamilies[f + 1]);
    } else {
      name[0] = '\0';
    }
    return;
  }
  name[0] = '\0';
}

/* ScanDevice_I_DeviceDestructorFun(): the record's strings. */
void ScanDevice_I_DeviceDestructorFun(void* data) {
  ScanDevice* pDevice = (ScanDevice*)data;
  if (!pDevice) return;
  free(pDevice->name);
  free(pDevice->sgName);
  free(pDevice->description);
  free(pDevice->type);
  pDevice->name = NULL;
  pDevice->sgName = NULL;
  pDevice->description = NULL;
  pDevice->type = NULL;
}

/* findPairedNode(): the first disk, tape or CD node with the same address,
 * into `name` (SCAN_NODE_NAME_SIZE bytes); "" when none. */
static void findPairedNode(int32_t host, int32_t bus, int32_t id, int32_t lun,
                           char* name) {
  name[0] = '\0';
  ScanDevice_I_GetNextSD_ST_SR_SCDName(name);
  while (name[0] != '\0') {
    int fd = openNode(name, O_RDONLY | O_NONBLOCK);
    if (fd >= 0) {
      ZORV_TRACE_AT(ZORV_TRC_DIAG, "Opened %s\n", name);
      int32_t h = -1, b = -1, i = -1, l = -1;
      if (GetHostBusIdLunIOCTL(fd, &h, &b, &i, &l) == 0 && h == host &&
          b == bus && i == id && l == lun) {
        ZORV_TRACE_AT(ZORV_TRC_DIAG, "Match %s == %d \n", name, fd);
        zorvScsiSyscalls.pfnClose(fd);
        return;
      }
      zorvScsiSyscalls.pfnClose(fd);
      ZORV_TRACE_AT(ZORV_TRC_DIAG, "Closed %s\n", name);
    }
    ScanDevice_I_GetNextSD_ST_SR_SCDName(name);
  }
}

/* containsAny(): whether `text` contains one of the null-ended needles. */
static int containsAny(const char* text, const char* const* needles) {
  for (; *needles; ++needles) {
    if (strstr(text, *needles)) return 1;
  }
  return 0;
}

static const char* const kLsNames[] = {"LS-120", "LS-240", NULL};
static const char* const kZipNames[] = {"ZIP", "Zip", "zip", NULL};
static const char* const kUsbNames[] = {"USB", "Usb", "usb", NULL};

/* copyAfter(): a heap copy of `text` without trailing white space, or null
 * when memory is short. */
static char* copyAfter(const char* text) {
  size_t len = strlen(text);
  while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r' ||
                     text[len - 1] == ' ' || text[len - 1] == '\t')) {
    --len;
  }
  char* pCopy = (char*)malloc(len + 1);
  if (!pCopy) return NULL;
  memcpy(pCopy, text, len);
  pCopy[len] = '\0';
  return pCopy;
}

/* replaceText(): frees *pText and puts a copy of `text` there. */
static void replaceText(char** pText, const char* text) {
  free(*pText);
  *pText = copyAfter(text);
}

/* readUsbStorageEntry(): "Vendor:" and "Product:" of the usb-storage entry
 * file `path`. */
static void readUsbStorageEntry(const char* path, char** pVendor,
                                char** pProduct) {
  FILE* pFile = fopen(path, "r");
  if (!pFile) return;
  char line[PROC_LINE_SIZE];
  while (fgets(line, sizeof line, pFile)) {
    /* The value starts one blank after the colon; a line that ends sooner
     * has none. */
    const char* pMatch = strstr(line, "Vendor:");
    if (pMatch && strlen(pMatch) >= 8) replaceText(pVendor, pMatch + 8);
    pMatch = strstr(line, "Product:");
    if (pMatch && strlen(pMatch) >= 9) replaceText(pProduct, pMatch + 9);
  }
  fclose(pFile);
}

/* usbListHasFloppy(): walks the USB device list for a UFI floppy interface
 * whose device strings equal `vendor` and `product`. */
static int usbListHasFloppy(const char* vendor, const char* product) {
  char path[PATH_SIZE];
  int n = snprintf(path, sizeof path, "%s/bus/usb/devices",
                   ZorvScsi_I_pszProcDirectory);
  if (n < 0 || (size_t)n >= sizeof path) return 0;
  FILE* pFile = fopen(path, "r");
  if (!pFile) return 0;
  char* pManufacturer = NULL;
  char* pUsbProduct = NULL;
  int bFloppy = 0;
  char line[PROC_LINE_SIZE];
  while (!bFloppy && fgets(line, sizeof line, pFile)) {
    if (line[0] == 'S') {
      const char* pMatch = strstr(line, "Manufacturer=");
      if (pMatch) replaceText(&pManufacturer, pMatch + 13);
      pMatch = strstr(line, "Product=");
      if (pMatch) replaceText(&pUsbProduct, pMatch + 8);
    } else if (line[0] == 'I') {
      const char* pClass = strstr(line, "Cls=");
      if (!pClass || strtol(pClass + 4, NULL, 10) != 8) continue;
      const char* pSub = strstr(line, "Sub=");
      if (!pSub || strtol(pSub + 4, NULL, 10) != 4) continue;
      if (vendor && product && pManufacturer && pUsbProduct &&
          strcmp(pManufacturer, vendor) == 0 &&
          strcmp(pUsbProduct, product) == 0) {
        bFloppy = 1;
      }
    }
  }
  fclose(pFile);
  free(pManufacturer);
  free(pUsbProduct);
  return bFloppy;
}

/* ZorvScsi_I_IsUsbFloppy(): each usb-storage directory's entry for `host`
 * against the USB device list. */
int ZorvScsi_I_IsUsbFloppy(int32_t host) {
  char pattern[PATH_SIZE];
  int n = snprintf(pattern, sizeof pattern, "%s/scsi/usb-storage-*",
                   ZorvScsi_I_pszProcDirectory);
  if (n < 0 || (size_t)n >= sizeof pattern) return 0;
  glob_t found;
  memset(&found, 0, sizeof found);
  if (glob(pattern, 0, NULL, &found) != 0) {
    globfree(&found);
    return 0;
  }
  int bFloppy = 0;
  for (size_t i = 0; i < found.gl_pathc && !bFloppy; ++i) {
    char path[PATH_SIZE];
    n = snprintf(path, sizeof path, "%s/%i", found.gl_pathv[i], (int)host);
    if (n < 0 || (size_t)n >= sizeof path) continue;
    char* pVendor = NULL;
    char* pProduct = NULL;
    readUsbStorageEntry(path, &pVendor, &pProduct);
    bFloppy = usbListHasFloppy(pVendor, pProduct);
    free(pVendor);
    free(pProduct);
  }
  globfree(&found);
  return bFloppy;
}

/* typeOf(): the device type for the INQUIRY data and description. */
static const char* typeOf(const unsigned char* inquiry, const char* desc,
                          int32_t host) {
  /* Deliberate: with a peripheral qualifier set (byte 0 above 31) the type
   * stays empty rather than guessing. */
  if (inquiry[0] > 31) return "";
  switch (inquiry[0]) {
    case 0:
      if (containsAny(desc, kLsNames)) return "LSDRIVE";
      if (containsAny(desc, kZipNames)) return "ZIP";
      if (ZorvScsi_I_IsUsbFloppy(host)) return "FD";
      return "HD";
    case 1:
      return "TAPE";
    case 5:
    case 7:
      return "OPTICAL";
    default:
      return "OTHER";
  }
}

/* addRecord(): a new record at the end of `list`; traced and left out when
 * memory is short. */
static void addRecord(CGenList* list, const char* name, const char* sgName,
                      const char* description, const char* type, int32_t host,
                      int32_t bus, int32_t id, int32_t lun) {
  ScanDevice* pDevice = (ScanDevice*)calloc(1, sizeof(ScanDevice));
  if (pDevice) {
    pDevice->name = CGenStr_I_CopyText(name);
    pDevice->sgName = CGenStr_I_CopyText(sgName);
    pDevice->description = CGenStr_I_CopyText(description);
    char typeText[SCAN_TYPE_SIZE];
    snprintf(typeText, sizeof typeText, "%s", type);
    pDevice->type = CGenStr_I_CopyText(typeText);
    pDevice->host = host;
    pDevice->bus = bus;
    pDevice->id = id;
    pDevice->lun = lun;
  }
  if (!pDevice || !pDevice->name || !pDevice->sgName || !pDevice->description ||
      !pDevice->type || !CGenListPushBack(list, pDevice)) {
    ZORV_TRACE_AT(ZORV_TRC_DIAG, "No memory for the record of %s\n", sgName);
    ScanDevice_I_DeviceDestructorFun(pDevice);
    free(pDevice);
  }
}

/* scanOne(): the record of one generic device, when it opens and answers
 * the address requests. */
static void scanOne(CGenList* list, const char* sgName) {
  int fd = openNode(sgName, O_RDWR | O_NONBLOCK);
  if (fd < 0) return;
  /* Non-blocking only for the open: the commands wait for their reply. */
  int flags = zorvScsiSyscalls.pfnFcntl(fd, F_GETFL, 0);
  if (flags >= 0) zorvScsiSyscalls.pfnFcntl(fd, F_SETFL, flags & ~O_NONBLOCK);

  int32_t host = 0, bus = 0, id = 0, lun = 0;
  if (GetHostBusIdLunIOCTL(fd, &host, &bus, &id, &lun) != 0) {
    zorvScsiSyscalls.pfnClose(fd);
    return;
  }
  char name[SCAN_NODE_NAME_SIZE];
  findPairedNode(host, bus, id, lun, name);

  unsigned char abInquiry[SCAN_INQUIRY_LENGTH];
  memset(abInquiry, 0, sizeof abInquiry);
  char description[SCAN_DESCRIPTION_SIZE] = "";
  const char* type = "OTHER";
  if (InquiryCmd(fd, abInquiry, SCAN_INQUIRY_LENGTH) == 0) {
    /* Vendor, blank, product and revision; a NUL inside a field ends that
     * field early. */
    snprintf(description, sizeof description, "%.8s %.16s%.4s",
             (const char*)abInquiry + 8, (const char*)abInquiry + 16,
             (const char*)abInquiry + 32);
    type = typeOf(abInquiry, description, host);
  }
  addRecord(list, name, sgName, description, type, host, bus, id, lun);
  zorvScsiSyscalls.pfnClose(fd);
}

/* ScanScsiDevices(): every generic name in turn. */
int ScanScsiDevices(CGenList* list) {
  if (!list) return 0;
  CGenListConstruct(list, 1, ScanDevice_I_DeviceDestructorFun);
  char sgName[SCAN_SG_NAME_SIZE] = "";
  ScanDevice_I_GetNextSGName(sgName);
  while (sgName[0] != '\0') {
    scanOne(list, sgName);
    ScanDevice_I_GetNextSGName(sgName);
  }
  return 0;
}

/* TestScanScanScsi(): the scan on standard output. */
void TestScanScanScsi(void) {
  CGenList list;
  printf("TestScanScanScsi() - 1\n");
  ScanScsiDevices(&list);
  printf("TestScanScanScsi() - 2\n");
  CGenListIter it;
  for (CGenListIterInit(&it, &list); !CGenListIterAtEnd(it);
       CGenListIterAdv(&it)) {
    const ScanDevice* pDevice = (const ScanDevice*)CGenListIterGetData(it);
    printf("Name   :%s\n", pDevice->name);
    printf("SGName :%s\n", pDevice->sgName);
    printf("Desc   :%s\n", pDevice->description);
    printf("Host   :%d\n", (int)pDevice->host);
    printf("Bus    :%d\n", (int)pDevice->bus);
    printf("Id     :%d\n", (int)pDevice->id);
    printf("Lun    :%d\n", (int)pDevice->lun);
  }
  fflush(stdout);
  CGenListDestruct(&list);
}

/* GetCorrespondingSGDevice(): /dev/sga .. /dev/sgz by channel, id, lun. */
int GetCorrespondingSGDevice(int fd, int* sgFd) {
  if (sgFd) *sgFd = -1;
  int32_t bus = 0, id = 0, lun = 0;
  if (GetHostBusIdLunIOCTL(fd, NULL, &bus, &id, &lun) != 0) return 1;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    char name[SCAN_SG_NAME_SIZE];
    snprintf(name, sizeof name, "/dev/sg%c", letter);
    int candidate = openNode(name, O_RDWR);
    if (candidate < 0) continue;
    int32_t b = -1, i = -1, l = -1;
    /* Deliberate: the host is not compared; a block device and its generic
     * node on another adapter with the same channel, id and lun match. */
    if (GetHostBusIdLunIOCTL(candidate, NULL, &b, &i, &l) == 0 && b == bus &&
        i == id && l == lun) {
      if (sgFd) {
        *sgFd = candidate;
      } else {
        zorvScsiSyscalls.pfnClose(candidate);
      }
      return 0;
    }
    zorvScsiSyscalls.pfnClose(candidate);
  }
  return 1;
}

/* ataModelContains(): whether the drive's ATA model text has a needle. */
static int ataModelContains(int fd, const char* const* needles) {
  unsigned char abIdentify[ATA_IDENTIFY_SIZE];
  memset(abIdentify, 0, sizeof abIdentify);
  if (zorvScsiSyscalls.pfnIoctl(fd, HDIO_GET_IDENTITY, abIdentify) < 0) {
    return 0;
  }
  char model[ATA_MODEL_LENGTH + 1];
  memcpy(model, abIdentify + ATA_MODEL_OFFSET, ATA_MODEL_LENGTH);
  model[ATA_MODEL_LENGTH] = '\0';
  return containsAny(model, needles);
}

/* inquiryContains(): whether the INQUIRY vendor, product and revision have
 * a needle. */
static int inquiryContains(int fd, const char* const* needles) {
  const unsigned char* pData = Inquiry(fd);
  if (!pData) return 0;
  char text[28 + 1];
  for (int i = 0; i < 28; ++i) {
    char ch = (char)pData[8 + i];
    text[i] = ch ? ch : ' ';
  }
  text[28] = '\0';
  return containsAny(text, needles);
}

int IsLSDriveIDE(int fd) { return ataModelContains(fd, kLsNames); }

int IsZIPIDE(int fd) { return ataModelContains(fd, kZipNames); }

int IsLSDriveSCSI(int fd) { return inquiryContains(fd, kLsNames); }

int IsZIPSCSI(int fd) { return inquiryContains(fd, kZipNames); }

/* IsSCSIEmulatedUSB(): the adapter description names USB. */
int IsSCSIEmulatedUSB(int fd) {
  char description[HOST_DESCRIPTION_SIZE];
  if (GetHostDecriptionIOCTL(fd, description, sizeof description) != 1) {
    return 0;
  }
  return containsAny(description, kUsbNames);
}

/* log(): appends to "debugout.txt" in the current directory. */
int log(const char* text) {
  if (!text) return -1;
  int fd = zorvScsiSyscalls.pfnOpen("debugout.txt", O_RDWR | O_CREAT | O_APPEND,
                                    0666);
  /* Deliberate: descriptor 0 counts as a failure: it is the slot of a
   * closed standard input, where debug text does not belong. It is closed
   * again. */
  if (fd < 1) {
    if (fd == 0) zorvScsiSyscalls.pfnClose(fd);
    return -1;
  }
  size_t nLeft = strlen(text);
  while (nLeft > 0) {
    ssize_t n = zorvScsiSyscalls.pfnWrite(fd, text, nLeft);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text += n;
    nLeft -= (size_t)n;
  }
  zorvScsiSyscalls.pfnClose(fd);
  return 0;
}

/* ---- views for tests ------------------------------------------------------
 */

uint32_t ZorvScsi_I_SgBufferSize(void) { return scsiState.sgBufferSize; }

int32_t ZorvScsi_I_NextPackId(void) { return scsiState.nextPackId; }

unsigned char* ZorvScsi_I_CommandBuffer(void) { return scsiState.abCommand; }
