// A fake SCSI generic device for tests of the SCSI layer, without root or
// hardware. Each FakeSgDevice is a socketpair: the library writes requests
// to one end and reads replies from it, a thread on the other end plays the
// driver (records the request, answers with the status, sense and data a
// test chose). Opens of device names and the ioctls go through the unit's
// system-call table, which ScopedFakeSg points at a registry of fakes.
#ifndef ZORV_TESTS_SUPPORT_FAKE_SG_H
#define ZORV_TESTS_SUPPORT_FAKE_SG_H

#include <scsi/sg.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "global/zorv2k_scsi_p.h"

namespace zorvtest {

// One request as the fake driver received it.
struct FakeSgRequest {
  std::vector<unsigned char> bytes;  // header, CDB, outgoing data
  struct sg_header Header() const;
  // `n` bytes from offset 36 (the CDB); shorter when the request is.
  std::vector<unsigned char> Cdb(size_t n) const;
  // What follows a CDB of `cdbLength` bytes.
  std::vector<unsigned char> OutData(size_t cdbLength) const;
};

// What the fake driver answers to one request.
struct FakeSgReply {
  int result = 0;
  unsigned targetStatus = 0;  // as in the header: CHECK CONDITION is 1
  unsigned hostStatus = 0;
  unsigned driverStatus = 0;
  std::vector<unsigned char> sense;  // up to 16 bytes
  std::vector<unsigned char> data;   // cut or zero-padded to reply_len - 36
  int replyLength = -1;              // bytes sent; -1: reply_len
  int delayMs = 0;                   // wait before answering
};

// Sense data with a response code, a key, ASC and ASCQ.
std::vector<unsigned char> MakeSense(unsigned char responseCode,
                                     unsigned char key, unsigned char asc,
                                     unsigned char ascq);

// INQUIRY data of 96 bytes: type in byte 0, vendor, product, revision
// space-padded into bytes 8-15, 16-31, 32-35.
std::vector<unsigned char> MakeInquiry(unsigned char type,
                                       const std::string& vendor,
                                       const std::string& product,
                                       const std::string& revision);

class FakeSgDevice {
 public:
  // A device at host:bus:id:lun; nothing answers its commands until the
  // fake is registered under a path (or its Fd() is used directly).
  FakeSgDevice(int host, int bus, int id, int lun);
  ~FakeSgDevice();
  FakeSgDevice(const FakeSgDevice&) = delete;
  FakeSgDevice& operator=(const FakeSgDevice&) = delete;

  // The library's end of the socketpair, registered for the ioctls.
  int Fd() const { return libraryFd_; }

  // Replies in order; when none is queued, INQUIRY gets the device's
  // inquiry data and any other command success with zeroed data.
  void QueueReply(const FakeSgReply& reply);
  std::vector<FakeSgRequest> Requests();
  size_t RequestCount();
  FakeSgRequest LastRequest();

  // Device properties answered by the ioctls and the default replies.
  int host, bus, id, lun;
  int reservedSize = 32768;
  int reservedCap = 0x7FFFFFFF;  // read-back is min(requested, cap)
  std::vector<unsigned char> inquiry;
  bool hasProbeText = false;
  std::string probeText;
  bool hasAtaModel = false;
  std::string ataModel;
  bool hasSectors = false;
  unsigned long sectors = 0;
  std::set<unsigned long> failingIoctls;  // these return -1 (EIO)

 private:
  void serve();

  int libraryFd_ = -1;
  int driverFd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  std::deque<FakeSgReply> replies_;
  std::vector<FakeSgRequest> requests_;
};

// Points the SCSI unit's system calls at the fakes while in scope: opening
// a registered path gives a new descriptor of that fake (a dup), any other
// path fails with ENOENT; ioctls on a fake's descriptors are answered from
// its properties; close() of a dup is counted. Read, write and fcntl stay
// real unless a test replaces them.
class ScopedFakeSg {
 public:
  ScopedFakeSg();
  ~ScopedFakeSg();
  // `path` as the library opens it ("/dev/sg0").
  void Register(const std::string& path, FakeSgDevice* device);
  // Every open of a fake path, in order.
  std::vector<std::string> Opened();
  // Every path passed to open(), fake or not, in order.
  std::vector<std::string> Attempts();
  // Descriptors opened through Register()ed paths and not closed yet.
  int OpenCount();

 private:
  ZorvScsiSyscalls saved_;
};

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_FAKE_SG_H
