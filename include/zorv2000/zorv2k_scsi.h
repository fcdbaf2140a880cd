/*
 * zorv2k_scsi.h: single SCSI and MMC commands through the Linux SCSI generic
 * driver's read/write interface, and a scan that pairs every generic device
 * with its disk, tape or CD node and sorts it into a device type.
 *
 * Commands share one library-wide command buffer, INQUIRY buffer, pack-id
 * counter and SG buffer size: send commands from one thread at a time.
 * Status of a command (the transport's, see handle_scsi_cmd()): 0 success,
 * -1 refused arguments or a failed write or read, otherwise the driver's
 * error number, the target, host or driver status, or the additional sense
 * code x 256 + its qualifier (0x3A00: no medium). Plain C; the debug log
 * log() is declared for C++ only (see the end of this file).
 */
#ifndef ZORV2000_ZORV2K_SCSI_H
#define ZORV2000_ZORV2K_SCSI_H

#include <scsi/sg.h>
#include <stdint.h>

#include "zorv2000/genlist.h"
#include "zorv2000/zorv-api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the driver's request/reply header (struct sg_header). The CDB
 * follows it at this offset of a request, outgoing data after the CDB. */
#define ZORV_SG_HEADER_SIZE 36
/* Largest SG buffer size IncreaseReservedSizeIOCTL() accepts. */
#define ZORV_SG_MAX_BUFFER 0x20000
/* SG buffer size until IncreaseReservedSizeIOCTL() sets another: the
 * driver's own default reserve. */
#define ZORV_SG_DEFAULT_BUFFER 32768
/* Bytes of the INQUIRY data that Inquiry() keeps. */
#define ZORV_INQUIRY_BUFFER 96

/* One device found by ScanScsiDevices(). The strings are separate heap
 * copies owned by the record (and the record by the list). */
typedef struct ScanDevice {
  char* name;        /* paired node (/dev/sda, /dev/st0, ...); "" if none */
  char* sgName;      /* generic node (/dev/sg0, ...) */
  char* description; /* vendor(8) " " product(16) revision(4) */
  char* type;   /* "HD", "LSDRIVE", "ZIP", "FD", "TAPE", "OPTICAL", "OTHER" or
                   "" when a peripheral qualifier is set */
  int32_t host; /* host adapter number */
  int32_t bus;  /* channel */
  int32_t id;   /* target id */
  int32_t lun;  /* logical unit */
} ScanDevice;

/* ---- transport --------------------------------------------------------- */

/* handle_scsi_cmd(): sends the request in `request` (header space, then a
 * CDB of cdbLength bytes at offset 36, then outLength bytes of outgoing
 * data) with one write() and reads the reply (header, then inLength bytes)
 * into `reply` with one read(); without a reply buffer only the 36-byte
 * header is read, into `request`. Fills reply_len, twelve_byte (CDB of 12),
 * result 0, pack_id (the library-wide counter, incremented) and zeroes the
 * sense bytes. Returns 0; -1 for a zero CDB length, a null request, a
 * request or reply longer than the SG buffer size, a short write, a failed
 * or short read; the first non-zero of result, target, host and driver
 * status when no sense data came; with sense data, 0 for a deferred error
 * (response code 0x71), else sense byte 12 x 256 + byte 13. */
ZORV_API int handle_scsi_cmd(int fd, uint32_t cdbLength, uint32_t outLength,
                             unsigned char* request, uint32_t inLength,
                             unsigned char* reply);

/* ---- command builders ---------------------------------------------------
 * All take the open generic descriptor first and return the transport's
 * status unless stated. Buffers for incoming data must hold the length
 * named; outgoing data is copied, the caller keeps its buffer. */

/* InquiryCmd(): INQUIRY of `dwBufferSize` bytes into `buffer`; -1 (traced
 * "dwBufferSize<36") below 36 bytes, -1 above 65535 or for a null buffer. */
ZORV_API int InquiryCmd(int fd, unsigned char* buffer, uint32_t dwBufferSize);
/* Inquiry(): INQUIRY of 96 bytes into the library-wide buffer; returns that
 * buffer (valid until the next Inquiry()), or null on failure. */
ZORV_API unsigned char* Inquiry(int fd);
/* ReadVariableCmd(): READ(6), variable length, 2048 bytes into `buffer`. */
ZORV_API int ReadVariableCmd(int fd, unsigned char* buffer);
/* ReadFixedCmd(): READ(6), fixed, one block; 2048 bytes into `buffer`. */
ZORV_API int ReadFixedCmd(int fd, unsigned char* buffer);
/* Read10Cmd(): READ(10) of blockCount blocks of blockSize bytes from
 * `lba` into `buffer` of bufferSize bytes. -1 before anything is sent when
 * blockSize x blockCount exceeds 0xFFFF or bufferSize, or for a null
 * buffer. */
ZORV_API int Read10Cmd(int fd, uint32_t lba, uint32_t blockSize,
                       uint32_t blockCount, unsigned char* buffer,
                       uint32_t bufferSize);
/* ReadBlock(): READ(10) of blockCount (at most 65535) blocks of blockSize
 * bytes from `lba`; `buffer` holds blockSize x blockCount bytes. */
ZORV_API int ReadBlock(int fd, uint32_t lba, uint32_t blockSize,
                       uint32_t blockCount, unsigned char* buffer);
/* ReadDvdStructureCmd(): READ DVD STRUCTURE (12-byte CDB) of `format` for
 * `layer`, `length` bytes into `buffer`. */
ZORV_API int ReadDvdStructureCmd(int fd, uint8_t layer, uint8_t format,
                                 unsigned char* buffer, uint16_t length);
/* ReadTrackInformation(): READ TRACK INFORMATION; addressType 0 (LBA),
 * 1 (track) or 2 (session) in byte 1, `trackOrAddress` in bytes 2-5. */
ZORV_API int ReadTrackInformation(int fd, uint8_t addressType,
                                  uint32_t trackOrAddress,
                                  unsigned char* buffer, uint16_t length);
/* ReadDiscInformation(): READ DISC INFORMATION, `length` bytes. */
ZORV_API int ReadDiscInformation(int fd, unsigned char* buffer,
                                 uint16_t length);
/* ZORV_ReadATIP(): READ TOC/PMA/ATIP, format 4 (ATIP); `msf` non-zero asks
 * for minute/second/frame addresses. */
ZORV_API int ZORV_ReadATIP(int fd, int msf, unsigned char* buffer,
                           uint16_t length);
/* ZORV_GetSenseData10(): MODE SENSE(10) of page `pageCode` (page control
 * bits included), `length` bytes. */
ZORV_API int ZORV_GetSenseData10(int fd, uint8_t pageCode,
                                 unsigned char* buffer, uint16_t length);
/* ZORV_SetSenseData10(): MODE SELECT(10) with the page-format bit of the
 * parameter list `data` (`length` bytes); `savePages` non-zero also sets
 * the save-pages bit. */
ZORV_API int ZORV_SetSenseData10(int fd, const unsigned char* data,
                                 uint16_t length, int savePages);
/* ZORV_SetCDSpeed(): SET CD SPEED (12-byte CDB), speeds in kB/s, 0xFFFF
 * the drive's maximum. */
ZORV_API int ZORV_SetCDSpeed(int fd, uint16_t readSpeed, uint16_t writeSpeed);
/* ZORV_SynchronizeCache(): SYNCHRONIZE CACHE(10) of the whole medium. */
ZORV_API int ZORV_SynchronizeCache(int fd);
/* Write10Cmd(), WriteBlocks(): WRITE(10) of blockCount (at most 65535)
 * blocks of blockSize bytes from `data` to `lba`. */
ZORV_API int Write10Cmd(int fd, uint32_t lba, uint32_t blockSize,
                        uint32_t blockCount, const unsigned char* data);
ZORV_API int WriteBlocks(int fd, uint32_t lba, uint32_t blockSize,
                         uint32_t blockCount, const unsigned char* data);
/* ReadPositionCmd(): READ POSITION, short form: 20 bytes into `buffer`. */
ZORV_API int ReadPositionCmd(int fd, unsigned char* buffer);
/* SpaceCmd(): SPACE(6) by `count` (24 bits, two's complement) units of
 * `code` (0 blocks, 1 filemarks, ...). A transport status of 1 becomes 0.
 * BackwardSpaceCmd(): the same with the count negated. */
ZORV_API int SpaceCmd(int fd, uint8_t code, int32_t count);
ZORV_API int BackwardSpaceCmd(int fd, uint8_t code, int32_t count);
/* Blank(): BLANK (12-byte CDB) with `blankingType` in byte 1. */
ZORV_API int Blank(int fd, uint8_t blankingType);
/* FormatDVDUnit(): FORMAT UNIT with format data (byte 1 = 0x11) and the
 * caller's parameter list of `length` bytes. */
ZORV_API int FormatDVDUnit(int fd, const unsigned char* parameterList,
                           uint16_t length);
/* ReadFormatCapacityCmd(): READ FORMAT CAPACITIES in a 12-byte CDB,
 * `length` bytes. */
ZORV_API int ReadFormatCapacityCmd(int fd, unsigned char* buffer,
                                   uint16_t length);
/* GetConfigurationCmd(): GET CONFIGURATION with `requestType` (byte 1) from
 * `startingFeature`, `length` bytes. */
ZORV_API int GetConfigurationCmd(int fd, uint8_t requestType,
                                 uint16_t startingFeature,
                                 unsigned char* buffer, uint16_t length);
/* CloseTrackSessionCmd(): CLOSE TRACK/SESSION, all fields zero, 12 bytes. */
ZORV_API int CloseTrackSessionCmd(int fd);
/* ReadCapacityCmd(): READ CAPACITY(10), `length` bytes (8 are defined)
 * as the device sends them (big-endian). */
ZORV_API int ReadCapacityCmd(int fd, unsigned char* buffer, uint32_t length);
/* GetCapacity(): READ CAPACITY(10); the last block address and the block
 * length in host order (each output may be null). */
ZORV_API int GetCapacity(int fd, uint32_t* lastBlock, uint32_t* blockLength);
/* StartCmd(): START STOP UNIT, start; `lun` in bits 5-7 of byte 1. */
ZORV_API int StartCmd(int fd, uint8_t lun);
/* ReadyCmd(): TEST UNIT READY, sent as a 12-byte CDB. */
ZORV_API int ReadyCmd(int fd);
/* SeekCmd(): SEEK(10) to `lba`. */
ZORV_API int SeekCmd(int fd, uint32_t lba);
/* ErrorCmd(): a 6-byte CDB with operation code 0x33. */
ZORV_API int ErrorCmd(int fd);
/* SelfDiagCommand(): SEND DIAGNOSTIC, self-test, for `lun`. */
ZORV_API int SelfDiagCommand(int fd, uint8_t lun);
/* RequestSense(): REQUEST SENSE with allocation length 0; the sense comes
 * in the reply header and its 16 bytes are copied to `sense` (when not
 * null). */
ZORV_API int RequestSense(int fd, uint8_t lun, unsigned char* sense);
/* TestForMedia(): ReadyCmd(); its non-zero status as it is; else 0x3A00
 * when the reply holds sense data with additional sense code 0x3A, -1 for
 * other sense data, 0 without. */
ZORV_API int TestForMedia(int fd);

/* ---- sense data of a reply header (0 for a null header) ---------------- */

/* HaveSense(): the target status is 1 (CHECK CONDITION) or 17 (COMMAND
 * TERMINATED), or the driver status has its sense bit 0x08. */
ZORV_API int HaveSense(const struct sg_header* header);
/* SenseErrorCode(): response code, sense byte 0 & 0x7F. */
ZORV_API int SenseErrorCode(const struct sg_header* header);
/* SenseKey(): sense byte 2 & 0x0F. */
ZORV_API int SenseKey(const struct sg_header* header);
/* SC(): sense byte 12, the additional sense code. ASC(): sense byte 13,
 * its qualifier (the names are one step off the usual terms). */
ZORV_API int SC(const struct sg_header* header);
ZORV_API int ASC(const struct sg_header* header);
/* Sense(): byte 12 x 256 + byte 13. */
ZORV_API int Sense(const struct sg_header* header);

/* ---- byte order -------------------------------------------------------- */

/* LittleEndianToBigEndianDword(), InvertDWord(): the four bytes reversed.
 * LittleEndianToBigEndianWord(), InvertWord(): the two bytes swapped. */
ZORV_API uint32_t LittleEndianToBigEndianDword(uint32_t value);
ZORV_API uint32_t InvertDWord(uint32_t value);
ZORV_API uint16_t LittleEndianToBigEndianWord(uint16_t value);
ZORV_API uint16_t InvertWord(uint16_t value);

/* ---- descriptor requests ----------------------------------------------- */

/* IncreaseReservedSizeIOCTL(): sets the driver's reserved buffer to `size`
 * and reads it back; 0 and the size becomes the library-wide SG buffer
 * size; -1 for a size above 0x20000 or below 0, a failed request or a
 * different read-back. */
ZORV_API int IncreaseReservedSizeIOCTL(int fd, int32_t size);
/* GetScsiIdSGIOCTL(): SG_GET_SCSI_ID into *id; 0, or -1. */
ZORV_API int GetScsiIdSGIOCTL(int fd, struct sg_scsi_id* id);
/* GetSectorCountIoctl(): BLKGETSIZE (512-byte sectors) into *count; 1 on
 * success, 0 on failure. */
ZORV_API int GetSectorCountIoctl(int fd, unsigned long* count);
/* GetHostBusIdLunIOCTL(): the host adapter number, channel, target id and
 * lun of the device; 0, or -1 when a request fails (outputs may be null). */
ZORV_API int GetHostBusIdLunIOCTL(int fd, int32_t* host, int32_t* bus,
                                  int32_t* id, int32_t* lun);
/* GetHostDecriptionIOCTL(): the host adapter's description, cut to fit
 * `size` bytes; 1 when the adapter answered with one, else 0 (the text is
 * then empty). */
ZORV_API int GetHostDecriptionIOCTL(int fd, char* description, uint32_t size);

/* ---- scan and probes --------------------------------------------------- */

/* ScanScsiDevices(): constructs `list` (owning, zero-filled nodes) and adds
 * one ScanDevice per generic device that opens and answers the address
 * requests, from /dev/sg0 to /dev/sg255 and /dev/sga to /dev/sgz. Returns 0.
 * Destroy the list with CGenListDestruct(). */
ZORV_API int ScanScsiDevices(CGenList* list);
/* TestScanScanScsi(): scans and prints every record on standard output. */
ZORV_API void TestScanScanScsi(void);
/* GetCorrespondingSGDevice(): for a block device `fd`, opens /dev/sga to
 * /dev/sgz in turn and keeps the first whose channel, id and lun equal fd's
 * (the host is not compared): 0 with that open descriptor in *sgFd (the
 * caller closes it); 1 when none matches or fd's address cannot be read
 * (*sgFd is then -1). */
ZORV_API int GetCorrespondingSGDevice(int fd, int* sgFd);
/* IsLSDriveIDE(), IsZIPIDE(): whether the ATA model text of the drive
 * contains "LS-120" or "LS-240" / "ZIP", "Zip" or "zip"; 0 when the
 * identify request fails. */
ZORV_API int IsLSDriveIDE(int fd);
ZORV_API int IsZIPIDE(int fd);
/* IsLSDriveSCSI(), IsZIPSCSI(): the same tests on the INQUIRY vendor,
 * product and revision; 0 when INQUIRY fails. */
ZORV_API int IsLSDriveSCSI(int fd);
ZORV_API int IsZIPSCSI(int fd);
/* IsSCSIEmulatedUSB(): whether the host adapter's description contains
 * "USB", "Usb" or "usb". */
ZORV_API int IsSCSIEmulatedUSB(int fd);

#ifdef __cplusplus
}

/* log(): appends `text` to "debugout.txt" in the current directory. 0, or
 * -1 for a null text or when the open yields a descriptor below 1. C++
 * linkage on purpose: an unmangled "log" would take the place of the math
 * library's log() in every program that loads this library. C programs do
 * not see it. Overloads ::log(double); call it with a text (log(0) is
 * ambiguous). */
ZORV_API int log(const char* text);
#endif

#endif /* ZORV2000_ZORV2K_SCSI_H */
