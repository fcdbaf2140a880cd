// Tests of the SCSI command layer against the fake generic device: the
// request header, every status path of the transport, every builder's CDB
// byte for byte, refused arguments, sense accessors, byte order and the
// descriptor requests.
#include "zorv2000/zorv2k_scsi.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "global/memory-alloc_p.h"
#include "global/zorv2k_scsi_p.h"
#include "support/fake_sg.h"
#include "support/test_support.h"

using zorvtest::FakeSgDevice;
using zorvtest::FakeSgReply;
using zorvtest::FakeSgRequest;
using zorvtest::MakeInquiry;
using zorvtest::MakeSense;
using zorvtest::ScopedFakeSg;

namespace {

typedef std::vector<unsigned char> Bytes;

// "12 00 ff" -> bytes.
Bytes hex(const char* text) {
  Bytes out;
  const char* p = text;
  while (*p) {
    while (*p == ' ') ++p;
    if (!*p) break;
    out.push_back(
        (unsigned char)strtoul(std::string(p, 2).c_str(), nullptr, 16));
    p += 2;
  }
  return out;
}

std::string toHex(const Bytes& bytes) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    snprintf(b, sizeof b, i ? " %02x" : "%02x", bytes[i]);
    s += b;
  }
  return s;
}

// A pattern for incoming data: byte i is (i * 7 + 3) & 0xFF.
Bytes pattern(size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) out[i] = (unsigned char)(i * 7 + 3);
  return out;
}

// Runs `body` with the program's trace category on and returns standard
// error (each test is its own process; tracing reads its switches once).
template <typename Body>
std::string traced(Body body) {
  setenv("ZORV_TRACE", "all", 1);
  zorvtest::FdCapture capture(2);
  capture.Start();
  body();
  return capture.Stop();
}

// A request buffer with room for header, CDB and data.
struct Request {
  Bytes bytes = Bytes(ZORV_SG_MAX_BUFFER, 0);
  unsigned char* Data() { return bytes.data(); }
  void SetCdb(const Bytes& cdb) {
    memcpy(bytes.data() + 36, cdb.data(), cdb.size());
  }
};

FakeSgReply checkCondition(unsigned char responseCode, unsigned char key,
                           unsigned char asc, unsigned char ascq) {
  FakeSgReply reply;
  reply.targetStatus = 1;
  reply.sense = MakeSense(responseCode, key, asc, ascq);
  return reply;
}

}  // namespace

// ---- the request header -------------------------------------------------

// 6-byte CDB, 4 bytes out, 10 in: 46 bytes sent; reply_len 46, pack_id 0,
// result 0, twelve_byte 0, sense zeroed.
TEST(HandleScsiCmd, FillsHeaderAndSendsCdbAndData) {
  FakeSgDevice device(0, 0, 0, 0);
  FakeSgReply reply;
  reply.data = pattern(10);
  device.QueueReply(reply);
  Request request;
  memset(request.Data() + 20, 0xEE, 16);  // stale sense bytes
  request.SetCdb(hex("15 10 00 00 04 00"));
  memcpy(request.Data() + 42, "\x01\x02\x03\x04", 4);
  Bytes in(46, 0);
  EXPECT_EQ(0,
            handle_scsi_cmd(device.Fd(), 6, 4, request.Data(), 10, in.data()));
  FakeSgRequest got = device.LastRequest();
  ASSERT_EQ(46u, got.bytes.size());
  struct sg_header h = got.Header();
  EXPECT_EQ(46, h.reply_len);
  EXPECT_EQ(0, h.pack_id);
  EXPECT_EQ(0, h.result);
  EXPECT_EQ(0u, h.twelve_byte);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(0, h.sense_buffer[i]) << i;
  EXPECT_EQ("15 10 00 00 04 00", toHex(got.Cdb(6)));
  EXPECT_EQ("01 02 03 04", toHex(got.OutData(6)));
  EXPECT_EQ(pattern(10), Bytes(in.begin() + 36, in.end()));
  EXPECT_EQ(1, ZorvScsi_I_NextPackId());
}

// A 12-byte CDB sets twelve_byte; 6 and 10-byte CDBs clear it.
TEST(HandleScsiCmd, TwelveByteFlagFollowsCdbLength) {
  struct Row {
    const char* name;
    uint32_t cdbLength;
    unsigned expected;
  } rows[] = {{"6 bytes", 6, 0},
              {"10 bytes", 10, 0},
              {"12 bytes", 12, 1},
              {"6 after 12", 6, 0}};
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(0, handle_scsi_cmd(device.Fd(), row.cdbLength, 0, request.Data(),
                                 0, nullptr));
    FakeSgRequest got = device.LastRequest();
    EXPECT_EQ(36u + row.cdbLength, got.bytes.size());
    EXPECT_EQ(row.expected, got.Header().twelve_byte);
  }
}

// Pack ids 0, 1, 2 for three commands; a refused command takes none.
TEST(HandleScsiCmd, PackIdCountsSentCommands) {
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  for (int i = 0; i < 3; ++i) {
    handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr);
    EXPECT_EQ(i, device.LastRequest().Header().pack_id);
  }
  EXPECT_EQ(-1, handle_scsi_cmd(device.Fd(), 0, 0, request.Data(), 0, nullptr));
  EXPECT_EQ(3, ZorvScsi_I_NextPackId());
}

// Zero CDB length or no request buffer: -1, nothing sent.
TEST(HandleScsiCmd, RefusesZeroCdbAndMissingRequest) {
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  Bytes reply(100);
  EXPECT_EQ(
      -1, handle_scsi_cmd(device.Fd(), 0, 0, request.Data(), 0, reply.data()));
  EXPECT_EQ(-1, handle_scsi_cmd(device.Fd(), 6, 0, nullptr, 0, reply.data()));
  EXPECT_EQ(0u, device.RequestCount());
}

// Request or reply of 32769 bytes (default SG buffer size 32768): -1.
TEST(HandleScsiCmd, RefusesRequestOrReplyLongerThanSgBufferSize) {
  EXPECT_EQ(32768u, ZorvScsi_I_SgBufferSize());
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  Bytes reply(ZORV_SG_MAX_BUFFER);
  EXPECT_EQ(-1, handle_scsi_cmd(device.Fd(), 6, 32768 - 36 - 6 + 1,
                                request.Data(), 0, nullptr));
  EXPECT_EQ(-1, handle_scsi_cmd(device.Fd(), 6, 0, request.Data(),
                                32768 - 36 + 1, reply.data()));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, handle_scsi_cmd(device.Fd(), 6, 32768 - 36 - 6, request.Data(),
                               0, nullptr));
  EXPECT_EQ(0, handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 32768 - 36,
                               reply.data()));
  EXPECT_EQ(2u, device.RequestCount());
}

// Deliberate: 32733 incoming bytes without a reply buffer are refused,
// although only the header would be read.
TEST(HandleScsiCmd, RefusesOverlongIncomingLengthEvenWithoutReplyBuffer) {
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  EXPECT_EQ(-1, handle_scsi_cmd(device.Fd(), 6, 0, request.Data(),
                                32768 - 36 + 1, nullptr));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 32768 - 36,
                               nullptr));
  EXPECT_EQ(36, device.LastRequest().Header().reply_len);
}

// No reply buffer: reply_len 36 whatever the incoming length, and the reply
// header lands in the request buffer.
TEST(HandleScsiCmd, WithoutReplyBufferReadsHeaderIntoRequest) {
  FakeSgDevice device(0, 0, 0, 0);
  device.QueueReply(checkCondition(0x70, 2, 0x3A, 0));
  Request request;
  EXPECT_EQ(0x3A00,
            handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 100, nullptr));
  EXPECT_EQ(36, device.LastRequest().Header().reply_len);
  struct sg_header h;
  memcpy(&h, request.Data(), sizeof h);
  EXPECT_EQ(1u, h.target_status);
  EXPECT_EQ(0x3A, h.sense_buffer[12]);
}

// ---- transport failures ---------------------------------------------------

namespace {
ssize_t shortWrite(int fd, const void* buffer, size_t count) {
  return write(fd, buffer, count - 1);
}
ssize_t failingWrite(int, const void*, size_t) {
  errno = EIO;
  return -1;
}
// Writes, then marks the header's result as a driver would on a refused
// request.
ssize_t writeSettingResult(int fd, const void* buffer, size_t count) {
  ssize_t n = write(fd, buffer, count);
  int result = 22;
  memcpy((char*)buffer + 12, &result, sizeof result);
  return n;
}
ssize_t failingRead(int, void*, size_t) {
  errno = EIO;
  return -1;
}

class ScopedWriteRead {
 public:
  ScopedWriteRead(ssize_t (*pfnWrite)(int, const void*, size_t),
                  ssize_t (*pfnRead)(int, void*, size_t))
      : saved_(zorvScsiSyscalls) {
    if (pfnWrite) zorvScsiSyscalls.pfnWrite = pfnWrite;
    if (pfnRead) zorvScsiSyscalls.pfnRead = pfnRead;
  }
  ~ScopedWriteRead() { zorvScsiSyscalls = saved_; }

 private:
  ZorvScsiSyscalls saved_;
};
}  // namespace

// Short or failed write, a result set on the request, failed or short
// read: -1 each.
TEST(HandleScsiCmd, TransportFailuresGiveMinusOne) {
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  Bytes reply(100);
  {
    ScopedWriteRead seam(shortWrite, nullptr);
    EXPECT_EQ(-1,
              handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
  {
    ScopedWriteRead seam(failingWrite, nullptr);
    EXPECT_EQ(-1,
              handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
  // The fake answered the short request; drain nothing, the next reads
  // take their own replies. Start clean with a new device for the rest.
  FakeSgDevice second(0, 0, 0, 0);
  {
    ScopedWriteRead seam(writeSettingResult, nullptr);
    EXPECT_EQ(-1,
              handle_scsi_cmd(second.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
  FakeSgDevice third(0, 0, 0, 0);
  {
    ScopedWriteRead seam(nullptr, failingRead);
    EXPECT_EQ(-1,
              handle_scsi_cmd(third.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
  FakeSgDevice fourth(0, 0, 0, 0);
  FakeSgReply shortReply;
  shortReply.replyLength = 50;
  fourth.QueueReply(shortReply);
  EXPECT_EQ(-1, handle_scsi_cmd(fourth.Fd(), 10, 0, request.Data(), 20,
                                reply.data()));
}

// ---- status rules -------------------------------------------------------

// Without sense data: the first non-zero of result, target, host, driver.
TEST(HandleScsiCmd, ReturnsFirstNonZeroStatusWithoutSense) {
  struct Row {
    const char* name;
    int result;
    unsigned target, host, driver;
    int expected;
  } rows[] = {
      {"all zero", 0, 0, 0, 0, 0},
      {"result", 5, 0, 0, 0, 5},
      {"target busy", 0, 4, 0, 0, 4},
      {"host", 0, 0, 7, 0, 7},
      {"driver without sense bit", 0, 0, 0, 6, 6},
      {"result before host", 5, 0, 7, 0, 5},
      {"target before host", 0, 4, 7, 0, 4},
      {"host before driver", 0, 0, 7, 2, 7},
      {"target 2 is no sense status", 0, 2, 0, 0, 2},
  };
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeSgReply reply;
    reply.result = row.result;
    reply.targetStatus = row.target;
    reply.hostStatus = row.host;
    reply.driverStatus = row.driver;
    reply.sense = MakeSense(0x70, 5, 0x24, 0);  // present but not flagged
    device.QueueReply(reply);
    EXPECT_EQ(row.expected,
              handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
}

// With sense: ASC x 256 + ASCQ. Deliberate: a deferred error (0x71)
// gives 0.
TEST(HandleScsiCmd, SenseGivesCodesAndDeferredErrorGivesZero) {
  struct Row {
    const char* name;
    unsigned target, driver;
    unsigned char response, asc, ascq;
    int expected;
  } rows[] = {
      {"check condition, no medium", 1, 0, 0x70, 0x3A, 0x00, 0x3A00},
      {"command terminated", 17, 0, 0x70, 0x04, 0x01, 0x0401},
      {"driver sense bit", 0, 0x08, 0x70, 0x20, 0x00, 0x2000},
      {"driver sense bit among others", 0, 0x18, 0x70, 0x24, 0x00, 0x2400},
      {"deferred error", 1, 0, 0x71, 0x3A, 0x00, 0},
      {"deferred with valid bit", 1, 0, 0xF1, 0x3A, 0x00, 0},
      {"current with valid bit", 1, 0, 0xF0, 0x3A, 0x01, 0x3A01},
      {"check condition without code", 1, 0, 0x70, 0x00, 0x00, 0},
  };
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeSgReply reply;
    reply.targetStatus = row.target;
    reply.driverStatus = row.driver;
    reply.sense = MakeSense(row.response, 2, row.asc, row.ascq);
    device.QueueReply(reply);
    EXPECT_EQ(row.expected,
              handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr));
  }
}

// The entry trace line, at the program's level.
TEST(HandleScsiCmd, TracesEntryLine) {
  FakeSgDevice device(0, 0, 0, 0);
  Request request;
  std::string text = traced(
      [&] { handle_scsi_cmd(device.Fd(), 6, 0, request.Data(), 0, nullptr); });
  EXPECT_NE(std::string::npos,
            text.find(":handle_scsi_cmd():zorv2k_scsi.cpp:"));
  EXPECT_NE(std::string::npos,
            text.find(" ************Enter HANDLE SCSI CMD*********************"
                      "****\n"));
}

// ---- every builder, byte for byte --------------------------------------

namespace {

struct BuilderRow {
  const char* name;
  std::function<int(int fd, unsigned char* in)> call;
  const char* cdb;    // expected CDB bytes
  uint32_t inLength;  // incoming bytes
  Bytes out;          // expected outgoing data
  const char* entryText;
  const char* failText;
};

Bytes gOut16 = pattern(16);
Bytes gOut1024 = pattern(1024);
Bytes gOut12 = pattern(12);

std::vector<BuilderRow> builderRows() {
  return {
      {"InquiryCmd 36",
       [](int fd, unsigned char* in) { return InquiryCmd(fd, in, 36); },
       "12 00 00 00 24 00",
       36,
       {},
       "**** Entering Inquiry Command\n",
       "Inquiry failed\n"},
      {"InquiryCmd 300",
       [](int fd, unsigned char* in) { return InquiryCmd(fd, in, 300); },
       "12 00 00 01 2c 00",
       300,
       {},
       "**** Entering Inquiry Command\n",
       "Inquiry failed\n"},
      {"ReadVariableCmd",
       [](int fd, unsigned char* in) { return ReadVariableCmd(fd, in); },
       "08 00 00 08 00 00",
       2048,
       {},
       "**** Entering Read Variable Command\n",
       "Read Variable failed\n"},
      {"ReadFixedCmd",
       [](int fd, unsigned char* in) { return ReadFixedCmd(fd, in); },
       "08 01 00 00 01 00",
       2048,
       {},
       "**** Entering Read Fixed Command\n",
       "Read Fixed failed\n"},
      {"Read10Cmd",
       [](int fd, unsigned char* in) {
         return Read10Cmd(fd, 0x01020304, 512, 3, in, 1536);
       },
       "28 00 01 02 03 04 00 00 03 00",
       1536,
       {},
       "**** Entering Read (10) Command\n",
       "Read (10) failed\n"},
      {"ReadBlock",
       [](int fd, unsigned char* in) {
         return ReadBlock(fd, 0x0A0B0C0D, 2048, 2, in);
       },
       "28 00 0a 0b 0c 0d 00 00 02 00",
       4096,
       {},
       "**** Entering Read Block Command\n",
       "Read Block failed\n"},
      {"ReadDvdStructureCmd",
       [](int fd, unsigned char* in) {
         return ReadDvdStructureCmd(fd, 1, 0x0E, in, 0x0804);
       },
       "ad 00 00 00 00 00 01 0e 08 04 00 00",
       0x0804,
       {},
       "**** Entering Read DVD Structure Command\n",
       "Read DVD Structure failed\n"},
      {"ReadTrackInformation",
       [](int fd, unsigned char* in) {
         return ReadTrackInformation(fd, 1, 5, in, 28);
       },
       "52 01 00 00 00 05 00 00 1c 00",
       28,
       {},
       "**** Entering Read Track Information Command\n",
       "Read Track Information failed\n"},
      {"ReadTrackInformation masks address type",
       [](int fd, unsigned char* in) {
         return ReadTrackInformation(fd, 0xFE, 0x11223344, in, 28);
       },
       "52 02 11 22 33 44 00 00 1c 00",
       28,
       {},
       "**** Entering Read Track Information Command\n",
       "Read Track Information failed\n"},
      {"ReadDiscInformation",
       [](int fd, unsigned char* in) {
         return ReadDiscInformation(fd, in, 34);
       },
       "51 00 00 00 00 00 00 00 22 00",
       34,
       {},
       "**** Entering Read Disc Information Command\n",
       "Read Disc Information failed\n"},
      {"ZORV_ReadATIP msf",
       [](int fd, unsigned char* in) { return ZORV_ReadATIP(fd, 1, in, 28); },
       "43 02 04 00 00 00 00 00 1c 00",
       28,
       {},
       "**** Entering Read ATIP Command\n",
       "Read ATIP failed\n"},
      {"ZORV_ReadATIP lba",
       [](int fd, unsigned char* in) { return ZORV_ReadATIP(fd, 0, in, 28); },
       "43 00 04 00 00 00 00 00 1c 00",
       28,
       {},
       "**** Entering Read ATIP Command\n",
       "Read ATIP failed\n"},
      {"ZORV_GetSenseData10",
       [](int fd, unsigned char* in) {
         return ZORV_GetSenseData10(fd, 0x2A, in, 0x100);
       },
       "5a 00 2a 00 00 00 00 01 00 00",
       0x100,
       {},
       "**** Entering Mode Sense (10) Command\n",
       "Mode Sense (10) failed\n"},
      {"ZORV_SetSenseData10",
       [](int fd, unsigned char*) {
         return ZORV_SetSenseData10(fd, gOut16.data(), 16, 0);
       },
       "55 10 00 00 00 00 00 00 10 00", 0, gOut16,
       "**** Entering Mode Select (10) Command\n", "Mode Select (10) failed\n"},
      {"ZORV_SetSenseData10 save pages",
       [](int fd, unsigned char*) {
         return ZORV_SetSenseData10(fd, gOut16.data(), 16, 1);
       },
       "55 11 00 00 00 00 00 00 10 00", 0, gOut16,
       "**** Entering Mode Select (10) Command\n", "Mode Select (10) failed\n"},
      {"ZORV_SetCDSpeed",
       [](int fd, unsigned char*) {
         return ZORV_SetCDSpeed(fd, 0x1234, 0xFFFF);
       },
       "bb 00 12 34 ff ff 00 00 00 00 00 00",
       0,
       {},
       "**** Entering Set CD Speed Command\n",
       "Set CD Speed failed\n"},
      {"ZORV_SynchronizeCache",
       [](int fd, unsigned char*) { return ZORV_SynchronizeCache(fd); },
       "35 00 00 00 00 00 00 00 00 00",
       0,
       {},
       "**** Entering Synchronize Cache Command\n",
       "Synchronize Cache failed\n"},
      {"Write10Cmd",
       [](int fd, unsigned char*) {
         return Write10Cmd(fd, 7, 512, 2, gOut1024.data());
       },
       "2a 00 00 00 00 07 00 00 02 00", 0, gOut1024,
       "**** Entering Write (10) Command\n", "Write (10) failed\n"},
      {"WriteBlocks",
       [](int fd, unsigned char*) {
         return WriteBlocks(fd, 0x01000000, 512, 2, gOut1024.data());
       },
       "2a 00 01 00 00 00 00 00 02 00", 0, gOut1024,
       "**** Entering Write Blocks Command\n", "Write Blocks failed\n"},
      {"ReadPositionCmd",
       [](int fd, unsigned char* in) { return ReadPositionCmd(fd, in); },
       "34 00 00 00 00 00 00 00 00 00",
       20,
       {},
       "**** Entering Read Position Command\n",
       "Read Position failed\n"},
      {"SpaceCmd forward",
       [](int fd, unsigned char*) { return SpaceCmd(fd, 1, 3); },
       "11 01 00 00 03 00",
       0,
       {},
       "**** Entering Space Command\n",
       "Space failed\n"},
      {"SpaceCmd negative",
       [](int fd, unsigned char*) { return SpaceCmd(fd, 1, -2); },
       "11 01 ff ff fe 00",
       0,
       {},
       "**** Entering Space Command\n",
       "Space failed\n"},
      {"SpaceCmd 24-bit count",
       [](int fd, unsigned char*) { return SpaceCmd(fd, 0, 0x123456); },
       "11 00 12 34 56 00",
       0,
       {},
       "**** Entering Space Command\n",
       "Space failed\n"},
      {"BackwardSpaceCmd",
       [](int fd, unsigned char*) { return BackwardSpaceCmd(fd, 0, 3); },
       "11 00 ff ff fd 00",
       0,
       {},
       "**** Entering Backward Space Command\n",
       "Backward Space failed\n"},
      {"Blank",
       [](int fd, unsigned char*) { return Blank(fd, 1); },
       "a1 01 00 00 00 00 00 00 00 00 00 00",
       0,
       {},
       "**** Entering Blank Command\n",
       "Blank failed\n"},
      {"FormatDVDUnit",
       [](int fd, unsigned char*) {
         return FormatDVDUnit(fd, gOut12.data(), 12);
       },
       "04 11 00 00 00 00", 0, gOut12, "**** Entering Format Unit Command\n",
       "Format Unit failed\n"},
      {"ReadFormatCapacityCmd",
       [](int fd, unsigned char* in) {
         return ReadFormatCapacityCmd(fd, in, 252);
       },
       "23 00 00 00 00 00 00 00 fc 00 00 00",
       252,
       {},
       "**** Entering Get Configuration Command\n",
       "Read Format Capacity failed\n"},
      {"GetConfigurationCmd",
       [](int fd, unsigned char* in) {
         return GetConfigurationCmd(fd, 2, 0x0107, in, 8);
       },
       "46 02 01 07 00 00 00 00 08 00",
       8,
       {},
       "**** Entering Get Configuration Command\n",
       "Get Configuration failed\n"},
      {"CloseTrackSessionCmd",
       [](int fd, unsigned char*) { return CloseTrackSessionCmd(fd); },
       "5b 00 00 00 00 00 00 00 00 00 00 00",
       0,
       {},
       "**** Entering Close Track Session Command\n",
       "Close Track Session failed\n"},
      {"ReadCapacityCmd",
       [](int fd, unsigned char* in) { return ReadCapacityCmd(fd, in, 8); },
       "25 00 00 00 00 00 00 00 00 00",
       8,
       {},
       "**** Entering Read Capacity Command\n",
       "Read Capacity failed\n"},
      {"StartCmd",
       [](int fd, unsigned char*) { return StartCmd(fd, 2); },
       "1b 40 00 00 01 00",
       0,
       {},
       "**** Entering Start Unit Command\n",
       "Start Unit failed\n"},
      {"ReadyCmd",
       [](int fd, unsigned char*) { return ReadyCmd(fd); },
       "00 00 00 00 00 00 00 00 00 00 00 00",
       0,
       {},
       "**** Entering Test Unit Ready Command\n",
       "Test Unit Ready failed\n"},
      {"SeekCmd",
       [](int fd, unsigned char*) { return SeekCmd(fd, 0x11223344); },
       "2b 00 11 22 33 44 00 00 00 00",
       0,
       {},
       "**** Entering Seek (10) Command\n",
       "Seek (10) failed\n"},
      {"ErrorCmd",
       [](int fd, unsigned char*) { return ErrorCmd(fd); },
       "33 00 00 00 00 00",
       0,
       {},
       "**** Entering Error Command\n",
       "Error Command failed\n"},
      {"SelfDiagCommand",
       [](int fd, unsigned char*) { return SelfDiagCommand(fd, 1); },
       "1d 24 00 00 00 00",
       0,
       {},
       "**** Entering Send Diagnostic Command\n",
       "Send Diagnostic failed\n"},
      {"RequestSense",
       [](int fd, unsigned char*) { return RequestSense(fd, 3, nullptr); },
       "03 60 00 00 00 00",
       0,
       {},
       "**** Entering Request Sense Command\n",
       "Request Sense failed\n"},
  };
}

}  // namespace

// Each builder's CDB, length flag, reply length, outgoing data, and the
// incoming data handed to the caller.
TEST(CommandBuilders, SendCdbBytesAndCopyData) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  ASSERT_EQ(0, IncreaseReservedSizeIOCTL(device.Fd(), 0x20000));
  for (const BuilderRow& row : builderRows()) {
    SCOPED_TRACE(row.name);
    FakeSgReply reply;
    reply.data = pattern(row.inLength);
    device.QueueReply(reply);
    Bytes in(row.inLength + 1, 0xCC);
    EXPECT_EQ(0, row.call(device.Fd(), in.data()));
    FakeSgRequest got = device.LastRequest();
    Bytes expectedCdb = hex(row.cdb);
    size_t cdbLength = expectedCdb.size();
    EXPECT_EQ(36 + cdbLength + row.out.size(), got.bytes.size());
    EXPECT_EQ(row.cdb, toHex(got.Cdb(cdbLength)));
    EXPECT_EQ(cdbLength == 12 ? 1u : 0u, got.Header().twelve_byte);
    EXPECT_EQ(36 + (int)row.inLength, got.Header().reply_len);
    EXPECT_EQ(row.out, got.OutData(cdbLength));
    if (row.inLength > 0) {
      EXPECT_EQ(pattern(row.inLength), Bytes(in.begin(), in.end() - 1));
    }
    EXPECT_EQ(0xCC, in.back()) << "wrote past the incoming length";
  }
}

// Each builder returns the transport's status and traces its two lines.
TEST(CommandBuilders, ReturnStatusAndTraceEntryAndFailureLines) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  ASSERT_EQ(0, IncreaseReservedSizeIOCTL(device.Fd(), 0x20000));
  for (const BuilderRow& row : builderRows()) {
    SCOPED_TRACE(row.name);
    device.QueueReply(checkCondition(0x70, 5, 0x24, 0x00));
    Bytes in(row.inLength + 1, 0);
    int rc = -2;
    std::string text = traced([&] { rc = row.call(device.Fd(), in.data()); });
    EXPECT_EQ(0x2400, rc);
    EXPECT_NE(std::string::npos, text.find(row.entryText)) << text;
    EXPECT_NE(std::string::npos, text.find(std::string(" ") + row.failText))
        << text;
  }
}

// Deliberate: READ FORMAT CAPACITIES, CLOSE TRACK/SESSION and TEST UNIT
// READY go out as 12-byte CDBs.
TEST(CommandBuilders, SendsShortCommandsAsTwelveByteCdbs) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes in(252);
  ReadFormatCapacityCmd(device.Fd(), in.data(), 252);
  EXPECT_EQ(36u + 12u, device.LastRequest().bytes.size());
  EXPECT_EQ(1u, device.LastRequest().Header().twelve_byte);
  CloseTrackSessionCmd(device.Fd());
  EXPECT_EQ(1u, device.LastRequest().Header().twelve_byte);
  ReadyCmd(device.Fd());
  EXPECT_EQ(1u, device.LastRequest().Header().twelve_byte);
  EXPECT_EQ(36u + 12u, device.LastRequest().bytes.size());
}

// Deliberate: READ FORMAT CAPACITIES traces the Get Configuration entry.
TEST(ReadFormatCapacityCmd, TracesGetConfigurationEntryLine) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes in(12);
  std::string text =
      traced([&] { ReadFormatCapacityCmd(device.Fd(), in.data(), 12); });
  EXPECT_NE(std::string::npos,
            text.find(":ReadFormatCapacityCmd():zorv2k_scsi.cpp:"));
  EXPECT_NE(std::string::npos,
            text.find(" **** Entering Get Configuration Command\n"));
}

// ---- refused arguments ------------------------------------------------------

// 35 bytes -> -1 with "dwBufferSize<36", nothing sent.
TEST(InquiryCmd, RefusesBufferBelowThirtySixBytes) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes in(64);
  int rc = 0;
  std::string text =
      traced([&] { rc = InquiryCmd(device.Fd(), in.data(), 35); });
  EXPECT_EQ(-1, rc);
  EXPECT_NE(std::string::npos, text.find(" dwBufferSize<36\n")) << text;
  EXPECT_EQ(-1, InquiryCmd(device.Fd(), nullptr, 36));
  EXPECT_EQ(-1, InquiryCmd(device.Fd(), in.data(), 0x10000));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, InquiryCmd(device.Fd(), in.data(), 36));
}

// 512 x 128 = 0x10000 bytes: refused before anything is sent; 0xFFFF goes.
TEST(Read10Cmd, RefusesSixtyFourKibibytesBeforeSending) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  ASSERT_EQ(0, IncreaseReservedSizeIOCTL(device.Fd(), 0x20000));
  Bytes in(0x20000);
  EXPECT_EQ(-1, Read10Cmd(device.Fd(), 0, 512, 128, in.data(), 0x20000));
  EXPECT_EQ(-1, Read10Cmd(device.Fd(), 0, 0x10000, 1, in.data(), 0x20000));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, Read10Cmd(device.Fd(), 0, 0xFFFF, 1, in.data(), 0xFFFF));
  EXPECT_EQ(36 + 0xFFFF, device.LastRequest().Header().reply_len);
  EXPECT_EQ(0, Read10Cmd(device.Fd(), 0, 511, 128, in.data(), 0xFFFF));
  EXPECT_EQ(2u, device.RequestCount());
}

// More than the caller's buffer, a null buffer, or a product that would
// wrap in 32 bits: refused.
TEST(Read10Cmd, RefusesLengthBeyondCallersBuffer) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes in(2048);
  EXPECT_EQ(-1, Read10Cmd(device.Fd(), 0, 512, 5, in.data(), 2048));
  EXPECT_EQ(-1, Read10Cmd(device.Fd(), 0, 512, 1, nullptr, 2048));
  EXPECT_EQ(
      -1, Read10Cmd(device.Fd(), 0, 0x10000, 0x10000, in.data(), 0xFFFFFFFFu));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, Read10Cmd(device.Fd(), 0, 512, 4, in.data(), 2048));
}

// Outgoing data that does not fit the SG buffer size: -1, nothing sent.
TEST(Write10Cmd, RefusesDataBeyondSgBufferSize) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes data(0x20000);
  EXPECT_EQ(-1, Write10Cmd(device.Fd(), 0, 512, 64, data.data()));  // 32768
  EXPECT_EQ(-1, WriteBlocks(device.Fd(), 0, 512, 0x10000, data.data()));
  EXPECT_EQ(-1, Write10Cmd(device.Fd(), 0, 512, 1, nullptr));
  EXPECT_EQ(0u, device.RequestCount());
  EXPECT_EQ(0, Write10Cmd(device.Fd(), 0, 512, 63, data.data()));
  EXPECT_EQ(36u + 10u + 63u * 512u, device.LastRequest().bytes.size());
}

// Incoming data beyond the SG buffer size: the transport refuses it.
TEST(ReadBlock, RefusesReplyBeyondSgBufferSize) {
  FakeSgDevice device(0, 0, 0, 0);
  Bytes in(0x20000);
  EXPECT_EQ(-1, ReadBlock(device.Fd(), 0, 2048, 16, in.data()));  // 32768
  EXPECT_EQ(-1, ReadBlock(device.Fd(), 0, 1, 0x10000, in.data()));
  EXPECT_EQ(-1, ReadBlock(device.Fd(), 0, 512, 1, nullptr));
  EXPECT_EQ(0u, device.RequestCount());
}

// A reply buffer that cannot be allocated: traced and -1.
TEST(CommandBuilders, TraceFailedReplyBufferAllocation) {
  FakeSgDevice device(0, 0, 0, 0);
  ZorvMemAllocCalls saved = zorvMemAllocCalls;
  zorvMemAllocCalls.pfnMalloc = [](size_t) -> void* { return nullptr; };
  Bytes in(64);
  int rcInquiry = 0, rcCapacity = 0;
  uint32_t last = 0;
  std::string text = traced([&] {
    rcInquiry = InquiryCmd(device.Fd(), in.data(), 36);
    rcCapacity = GetCapacity(device.Fd(), &last, nullptr);
  });
  zorvMemAllocCalls = saved;
  EXPECT_EQ(-1, rcInquiry);
  EXPECT_EQ(-1, rcCapacity);
  EXPECT_NE(std::string::npos, text.find(" ZorvAlloc pszCapbuffer failed\n"));
  EXPECT_NE(std::string::npos, text.find(" ZorvAlloc pszCapBuffer failed\n"));
  EXPECT_EQ(0u, device.RequestCount());
}

// ---- builders with their own answers ----------------------------------

// 96 bytes into the library's buffer; null when the command fails.
TEST(Inquiry, ReturnsLibraryBufferOrNull) {
  FakeSgDevice device(0, 0, 0, 0);
  device.inquiry = MakeInquiry(5, "QEMU", "VIRTIO CD-ROM", "2.5+");
  unsigned char* p = Inquiry(device.Fd());
  ASSERT_NE(nullptr, p);
  EXPECT_EQ("12 00 00 00 60 00", toHex(device.LastRequest().Cdb(6)));
  EXPECT_EQ(36 + 96, device.LastRequest().Header().reply_len);
  EXPECT_EQ(0, memcmp(p, device.inquiry.data(), 96));
  EXPECT_EQ(p, Inquiry(device.Fd()));
  device.QueueReply(checkCondition(0x70, 5, 0x24, 0));
  EXPECT_EQ(nullptr, Inquiry(device.Fd()));
}

// 00 01 ff ff 00 00 08 00 -> last block 0x1FFFF, block length 2048.
TEST(GetCapacity, ConvertsToHostOrder) {
  FakeSgDevice device(0, 0, 0, 0);
  FakeSgReply reply;
  reply.data = hex("00 01 ff ff 00 00 08 00");
  device.QueueReply(reply);
  uint32_t last = 0, length = 0;
  EXPECT_EQ(0, GetCapacity(device.Fd(), &last, &length));
  EXPECT_EQ(0x1FFFFu, last);
  EXPECT_EQ(2048u, length);
  EXPECT_EQ(44, device.LastRequest().Header().reply_len);
  device.QueueReply(checkCondition(0x70, 2, 0x3A, 0));
  last = 7;
  EXPECT_EQ(0x3A00, GetCapacity(device.Fd(), &last, &length));
  EXPECT_EQ(7u, last);
  EXPECT_EQ(0, GetCapacity(device.Fd(), nullptr, nullptr));
}

// Deliberate: a status of 1 (FILEMARK DETECTED, sense 00/01) counts as done
// for both space commands; other sense is returned.
TEST(SpaceCmd, TurnsStatusOneIntoZero) {
  FakeSgDevice device(0, 0, 0, 0);
  device.QueueReply(checkCondition(0x70, 0, 0x00, 0x01));
  EXPECT_EQ(0, SpaceCmd(device.Fd(), 1, 1));
  device.QueueReply(checkCondition(0x70, 0, 0x00, 0x01));
  EXPECT_EQ(0, BackwardSpaceCmd(device.Fd(), 1, 1));
  FakeSgReply hostOne;
  hostOne.hostStatus = 1;
  device.QueueReply(hostOne);
  EXPECT_EQ(0, SpaceCmd(device.Fd(), 0, 5));
  device.QueueReply(checkCondition(0x70, 3, 0x00, 0x05));  // end of data
  EXPECT_EQ(5, SpaceCmd(device.Fd(), 0, 5));
  device.QueueReply(checkCondition(0x70, 3, 0x14, 0x00));
  EXPECT_EQ(0x1400, BackwardSpaceCmd(device.Fd(), 0, 5));
}

// The negation of the count wraps like the 24-bit field it fills.
TEST(BackwardSpaceCmd, NegatesCountIntoTwentyFourBits) {
  FakeSgDevice device(0, 0, 0, 0);
  BackwardSpaceCmd(device.Fd(), 1, -4);
  EXPECT_EQ("11 01 00 00 04 00", toHex(device.LastRequest().Cdb(6)));
  BackwardSpaceCmd(device.Fd(), 1, INT32_MIN);
  EXPECT_EQ("11 01 00 00 00 00", toHex(device.LastRequest().Cdb(6)));
}

// The sense of the reply header goes to the caller.
TEST(RequestSense, CopiesSenseOfReplyHeader) {
  FakeSgDevice device(0, 0, 0, 0);
  FakeSgReply reply;
  reply.driverStatus = 0x08;
  reply.sense = MakeSense(0x70, 6, 0x29, 0x00);
  device.QueueReply(reply);
  unsigned char sense[16] = {0};
  EXPECT_EQ(0x2900, RequestSense(device.Fd(), 0, sense));
  EXPECT_EQ(MakeSense(0x70, 6, 0x29, 0x00), Bytes(sense, sense + 16));
  device.QueueReply(FakeSgReply());
  EXPECT_EQ(0, RequestSense(device.Fd(), 0, sense));
  EXPECT_EQ(Bytes(16, 0), Bytes(sense, sense + 16));
}

// Ready -> 0; NOT READY/3A -> 0x3A00 as returned; deferred 3A -> 0x3A00;
// other deferred sense -> -1; transport failure -> -1.
TEST(TestForMedia, ReportsMediumNotPresent) {
  struct Row {
    const char* name;
    FakeSgReply reply;
    int expected;
  } rows[] = {
      {"ready", FakeSgReply(), 0},
      {"no medium", checkCondition(0x70, 2, 0x3A, 0x00), 0x3A00},
      {"becoming ready", checkCondition(0x70, 2, 0x04, 0x01), 0x0401},
      {"deferred no medium", checkCondition(0x71, 2, 0x3A, 0x02), 0x3A00},
      {"deferred other", checkCondition(0x71, 2, 0x04, 0x00), -1},
      {"short reply", FakeSgReply(), -1},
  };
  rows[5].reply.replyLength = 20;
  FakeSgDevice device(0, 0, 0, 0);
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    device.QueueReply(row.reply);
    EXPECT_EQ(row.expected, TestForMedia(device.Fd()));
    EXPECT_EQ(1u, device.LastRequest().Header().twelve_byte);
  }
}

// ---- sense accessors ------------------------------------------------------

namespace {
struct sg_header headerWith(unsigned target, unsigned driver,
                            const Bytes& sense) {
  struct sg_header h;
  memset(&h, 0, sizeof h);
  h.target_status = target;
  h.driver_status = driver;
  if (!sense.empty()) {
    memcpy(h.sense_buffer, sense.data(), std::min(sense.size(), (size_t)16));
  }
  return h;
}
}  // namespace

TEST(HaveSense, TargetStatusOneOrSeventeenOrDriverSenseBit) {
  struct Row {
    unsigned target, driver;
    int expected;
  } rows[] = {{0, 0, 0},     {1, 0, 1},    {17, 0, 1},   {2, 0, 0},
              {4, 0, 0},     {0, 0x08, 1}, {0, 0x18, 1}, {0, 0x07, 0},
              {16, 0x10, 0}, {31, 0, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.target) + "/" + std::to_string(row.driver));
    struct sg_header h = headerWith(row.target, row.driver, {});
    EXPECT_EQ(row.expected, HaveSense(&h) ? 1 : 0);
  }
  EXPECT_EQ(0, HaveSense(nullptr));
}

// f1 00 f6 ... 3a 07: code 0x71, key 6, SC 0x3A, ASC 7, Sense 0x3A07.
TEST(SenseAccessors, ReadTheirBytes) {
  Bytes sense = MakeSense(0xF1, 0xF6, 0x3A, 0x07);
  struct sg_header h = headerWith(1, 0, sense);
  EXPECT_EQ(0x71, SenseErrorCode(&h));
  EXPECT_EQ(6, SenseKey(&h));
  EXPECT_EQ(0x3A, SC(&h));
  EXPECT_EQ(0x3A07, Sense(&h));
  EXPECT_EQ(0, SenseErrorCode(nullptr));
  EXPECT_EQ(0, SenseKey(nullptr));
  EXPECT_EQ(0, SC(nullptr));
  EXPECT_EQ(0, ASC(nullptr));
  EXPECT_EQ(0, Sense(nullptr));
}

// Deliberate: ASC() is the qualifier, sense byte 13; SC() the code.
TEST(ASC, ReturnsQualifierByteThirteen) {
  struct sg_header h = headerWith(1, 0, MakeSense(0x70, 2, 0x3A, 0x02));
  EXPECT_EQ(0x02, ASC(&h));
  EXPECT_EQ(0x3A, SC(&h));
}

// ---- byte order -----------------------------------------------------------

TEST(LittleEndianToBigEndianDword, ReversesFourBytes) {
  EXPECT_EQ(0x78563412u, LittleEndianToBigEndianDword(0x12345678u));
  EXPECT_EQ(0x78563412u, InvertDWord(0x12345678u));
  EXPECT_EQ(0x000000FFu, InvertDWord(0xFF000000u));
  EXPECT_EQ(0u, InvertDWord(0u));
}

// Every 16-bit value: swapped, and back again.
TEST(LittleEndianToBigEndianWord, SwapsEveryWordAndBack) {
  for (uint32_t v = 0; v <= 0xFFFF; ++v) {
    uint16_t w = (uint16_t)v;
    uint16_t swapped = LittleEndianToBigEndianWord(w);
    ASSERT_EQ((uint16_t)((w >> 8) | (w << 8)), swapped) << v;
    ASSERT_EQ(swapped, InvertWord(w));
    ASSERT_EQ(w, InvertWord(swapped));
  }
}

// ---- descriptor requests -----------------------------------------------

// 0x20000 is taken; 0x20001 and negative sizes are refused without asking.
TEST(IncreaseReservedSizeIOCTL, SetsSgBufferSizeUpToLimit) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  EXPECT_EQ(0, IncreaseReservedSizeIOCTL(device.Fd(), 0x20000));
  EXPECT_EQ(0x20000u, ZorvScsi_I_SgBufferSize());
  EXPECT_EQ(0x20000, device.reservedSize);
  EXPECT_EQ(-1, IncreaseReservedSizeIOCTL(device.Fd(), 0x20001));
  EXPECT_EQ(-1, IncreaseReservedSizeIOCTL(device.Fd(), -1));
  EXPECT_EQ(0x20000, device.reservedSize);
  EXPECT_EQ(0, IncreaseReservedSizeIOCTL(device.Fd(), 4096));
  EXPECT_EQ(4096u, ZorvScsi_I_SgBufferSize());
}

// A read-back that differs, or a failing request: -1, size unchanged.
TEST(IncreaseReservedSizeIOCTL, FailsOnDifferentReadBackOrFailedRequest) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  device.reservedCap = 65536;
  EXPECT_EQ(-1, IncreaseReservedSizeIOCTL(device.Fd(), 100000));
  EXPECT_EQ(32768u, ZorvScsi_I_SgBufferSize());
  device.failingIoctls = {SG_SET_RESERVED_SIZE};
  EXPECT_EQ(-1, IncreaseReservedSizeIOCTL(device.Fd(), 1000));
  device.failingIoctls = {SG_GET_RESERVED_SIZE};
  EXPECT_EQ(-1, IncreaseReservedSizeIOCTL(device.Fd(), 1000));
  EXPECT_EQ(32768u, ZorvScsi_I_SgBufferSize());
}

TEST(GetScsiIdSGIOCTL, FillsIdOrFails) {
  FakeSgDevice device(2, 0, 5, 1);
  device.inquiry = MakeInquiry(1, "Linux", "scsi_debug", "0191");
  ScopedFakeSg fake;
  struct sg_scsi_id id;
  memset(&id, 0, sizeof id);
  EXPECT_EQ(0, GetScsiIdSGIOCTL(device.Fd(), &id));
  EXPECT_EQ(2, id.host_no);
  EXPECT_EQ(5, id.scsi_id);
  EXPECT_EQ(1, id.lun);
  EXPECT_EQ(1, id.scsi_type);
  EXPECT_EQ(-1, GetScsiIdSGIOCTL(device.Fd(), nullptr));
  device.failingIoctls = {SG_GET_SCSI_ID};
  EXPECT_EQ(-1, GetScsiIdSGIOCTL(device.Fd(), &id));
}

TEST(GetSectorCountIoctl, TrueWithCountFalseOnFailure) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  unsigned long count = 0;
  EXPECT_EQ(0, GetSectorCountIoctl(device.Fd(), &count));
  device.hasSectors = true;
  device.sectors = 131072;
  EXPECT_EQ(1, GetSectorCountIoctl(device.Fd(), &count));
  EXPECT_EQ(131072ul, count);
  EXPECT_EQ(0, GetSectorCountIoctl(device.Fd(), nullptr));
}

// The packed word gives id, lun and channel; the host comes from the bus
// number request (300 does not fit the packed word's byte).
TEST(GetHostBusIdLunIOCTL, UnpacksAddressAndAsksHostSeparately) {
  FakeSgDevice device(300, 1, 5, 3);
  ScopedFakeSg fake;
  int32_t host = -1, bus = -1, id = -1, lun = -1;
  EXPECT_EQ(0, GetHostBusIdLunIOCTL(device.Fd(), &host, &bus, &id, &lun));
  EXPECT_EQ(300, host);
  EXPECT_EQ(1, bus);
  EXPECT_EQ(5, id);
  EXPECT_EQ(3, lun);
  EXPECT_EQ(
      0, GetHostBusIdLunIOCTL(device.Fd(), nullptr, nullptr, nullptr, nullptr));
  device.failingIoctls = {SCSI_IOCTL_GET_IDLUN};
  EXPECT_EQ(-1, GetHostBusIdLunIOCTL(device.Fd(), &host, &bus, &id, &lun));
  device.failingIoctls = {SCSI_IOCTL_GET_BUS_NUMBER};
  EXPECT_EQ(-1, GetHostBusIdLunIOCTL(device.Fd(), &host, &bus, &id, &lun));
}

// 1 with the text; 0 when the adapter gives none; cut to the caller's size.
TEST(GetHostDecriptionIOCTL, AnswersOnlyWhenRequestReturnsOne) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  char text[64];
  strcpy(text, "stale");
  EXPECT_EQ(0, GetHostDecriptionIOCTL(device.Fd(), text, sizeof text));
  EXPECT_STREQ("", text);
  device.hasProbeText = true;
  device.probeText = "Virtio SCSI HBA";
  EXPECT_EQ(1, GetHostDecriptionIOCTL(device.Fd(), text, sizeof text));
  EXPECT_STREQ("Virtio SCSI HBA", text);
  EXPECT_EQ(1, GetHostDecriptionIOCTL(device.Fd(), text, 7));
  EXPECT_STREQ("Virtio", text);
  EXPECT_EQ(1, GetHostDecriptionIOCTL(device.Fd(), nullptr, 0));
}

// A description longer than the request's buffer arrives unterminated and
// is cut safely.
TEST(GetHostDecriptionIOCTL, CutsOverlongUnterminatedText) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  device.hasProbeText = true;
  device.probeText = std::string(5000, 'x');
  std::vector<char> text(4096, '#');
  EXPECT_EQ(1, GetHostDecriptionIOCTL(device.Fd(), text.data(), 4096));
  EXPECT_EQ(1023u, strlen(text.data()));
}

TEST(IsSCSIEmulatedUSB, LooksForUsbInAdapterText) {
  struct Row {
    const char* text;
    int expected;
  } rows[] = {{"usb-storage 2-1:1.0", 1}, {"Virtio SCSI HBA", 0},
              {"USB Mass Storage", 1},    {"Usb bridge", 1},
              {"sym-2.2.3", 0},           {"uSB", 0}};
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  EXPECT_EQ(0, IsSCSIEmulatedUSB(device.Fd()));
  device.hasProbeText = true;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    device.probeText = row.text;
    EXPECT_EQ(row.expected, IsSCSIEmulatedUSB(device.Fd()));
  }
}

TEST(IsLSDriveIDE, LooksForLsModelInAtaIdentity) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  EXPECT_EQ(0, IsLSDriveIDE(device.Fd()));  // the request fails
  EXPECT_EQ(0, IsZIPIDE(device.Fd()));
  device.hasAtaModel = true;
  device.ataModel = "LS-120 VER5 00 UHD Floppy";
  EXPECT_EQ(1, IsLSDriveIDE(device.Fd()));
  EXPECT_EQ(0, IsZIPIDE(device.Fd()));
  device.ataModel = "MATSHITA LS-240 DRIVE";
  EXPECT_EQ(1, IsLSDriveIDE(device.Fd()));
  device.ataModel = "LS-12O";
  EXPECT_EQ(0, IsLSDriveIDE(device.Fd()));
}

TEST(IsZIPIDE, LooksForZipInAnySpelling) {
  FakeSgDevice device(0, 0, 0, 0);
  ScopedFakeSg fake;
  device.hasAtaModel = true;
  for (const char* model :
       {"IOMEGA ZIP 100 ATAPI", "Iomega Zip 250", "zip drive"}) {
    SCOPED_TRACE(model);
    device.ataModel = model;
    EXPECT_EQ(1, IsZIPIDE(device.Fd()));
    EXPECT_EQ(0, IsLSDriveIDE(device.Fd()));
  }
  device.ataModel = "ZiP";
  EXPECT_EQ(0, IsZIPIDE(device.Fd()));
  // A model using all 40 characters, without a terminator.
  device.ataModel = std::string(37, 'A') + "ZIP";
  EXPECT_EQ(1, IsZIPIDE(device.Fd()));
}

TEST(IsZIPSCSI, LooksAtInquiryText) {
  FakeSgDevice device(0, 0, 0, 0);
  device.inquiry = MakeInquiry(0, "IOMEGA", "ZIP 100", "E.08");
  EXPECT_EQ(1, IsZIPSCSI(device.Fd()));
  EXPECT_EQ(0, IsLSDriveSCSI(device.Fd()));
  device.inquiry = MakeInquiry(0, "MKE", "LS-240 COSM", "1.0");
  EXPECT_EQ(0, IsZIPSCSI(device.Fd()));
  EXPECT_EQ(1, IsLSDriveSCSI(device.Fd()));
  device.QueueReply(checkCondition(0x70, 5, 0x24, 0));
  EXPECT_EQ(0, IsLSDriveSCSI(device.Fd()));
}

// NUL bytes inside the INQUIRY fields do not hide a later match.
TEST(IsLSDriveSCSI, SeesPastNulBytesInInquiryFields) {
  FakeSgDevice device(0, 0, 0, 0);
  device.inquiry = MakeInquiry(0, "", "", "");
  memset(device.inquiry.data() + 8, 0, 20);
  memcpy(device.inquiry.data() + 28, "LS-120", 6);
  EXPECT_EQ(1, IsLSDriveSCSI(device.Fd()));
}
