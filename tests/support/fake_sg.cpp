// The fake SCSI generic device: a socketpair served by a thread that plays
// the driver, and a registry that answers opens and ioctls for the fakes.
#include "support/fake_sg.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace zorvtest {

namespace {

// Largest message the fake driver takes or sends.
constexpr size_t kMaxMessage = 0x40000;

struct Registry {
  std::mutex mutex;
  std::map<std::string, FakeSgDevice*> paths;
  std::map<int, FakeSgDevice*> fds;
  std::set<int> dups;
  std::vector<std::string> opened;
  std::vector<std::string> attempts;
};

Registry& registry() {
  static Registry* pRegistry = new Registry();
  return *pRegistry;
}

FakeSgDevice* deviceOf(int fd) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.fds.find(fd);
  return it == r.fds.end() ? nullptr : it->second;
}

int fakeOpen(const char* path, int flags, mode_t) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.attempts.push_back(path);
  auto it = r.paths.find(path);
  if (it == r.paths.end()) {
    errno = ENOENT;
    return -1;
  }
  int fd = dup(it->second->Fd());
  if (fd < 0) return -1;
  // The status flags belong to the shared socket, as with a reopened node
  // they would not; set them as this open asks.
  int now = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL,
        (flags & O_NONBLOCK) ? (now | O_NONBLOCK) : (now & ~O_NONBLOCK));
  r.fds[fd] = it->second;
  r.dups.insert(fd);
  r.opened.push_back(path);
  return fd;
}

int fakeClose(int fd) {
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.dups.erase(fd)) r.fds.erase(fd);
  }
  return close(fd);
}

int fakeIoctl(int fd, unsigned long request, void* argument) {
  FakeSgDevice* pDevice = deviceOf(fd);
  if (!pDevice) {
    errno = ENOTTY;
    return -1;
  }
  if (pDevice->failingIoctls.count(request)) {
    errno = EIO;
    return -1;
  }
  switch (request) {
    case SCSI_IOCTL_GET_IDLUN: {
      int32_t words[2] = {(int32_t)((uint32_t)(pDevice->id & 0xFF) |
                                    (uint32_t)(pDevice->lun & 0xFF) << 8 |
                                    (uint32_t)(pDevice->bus & 0xFF) << 16 |
                                    (uint32_t)(pDevice->host & 0xFF) << 24),
                          0};
      memcpy(argument, words, sizeof words);
      return 0;
    }
    case SCSI_IOCTL_GET_BUS_NUMBER: {
      int32_t host = pDevice->host;
      memcpy(argument, &host, sizeof host);
      return 0;
    }
    case SG_SET_RESERVED_SIZE: {
      int size;
      memcpy(&size, argument, sizeof size);
      if (size < 0) {
        errno = EINVAL;
        return -1;
      }
      pDevice->reservedSize = std::min(size, pDevice->reservedCap);
      return 0;
    }
    case SG_GET_RESERVED_SIZE:
      memcpy(argument, &pDevice->reservedSize, sizeof(int));
      return 0;
    case SG_GET_SCSI_ID: {
      struct sg_scsi_id id;
      memset(&id, 0, sizeof id);
      id.host_no = pDevice->host;
      id.channel = pDevice->bus;
      id.scsi_id = pDevice->id;
      id.lun = pDevice->lun;
      id.scsi_type = pDevice->inquiry.empty() ? 0 : pDevice->inquiry[0];
      memcpy(argument, &id, sizeof id);
      return 0;
    }
    case SCSI_IOCTL_PROBE_HOST: {
      if (!pDevice->hasProbeText) return 0;
      // As the kernel does: the length word first, then at most that many
      // bytes, the terminator only when the text is shorter.
      unsigned int len;
      memcpy(&len, argument, sizeof len);
      size_t n = pDevice->probeText.size();
      if (len > n) len = (unsigned int)n + 1;
      memcpy(argument, pDevice->probeText.c_str(), len);
      return 1;
    }
    case HDIO_GET_IDENTITY: {
      if (!pDevice->hasAtaModel) {
        errno = EINVAL;
        return -1;
      }
      unsigned char identify[512];
      memset(identify, 0, sizeof identify);
      std::string model = pDevice->ataModel;
      model.resize(40, ' ');
      memcpy(identify + 54, model.data(), 40);
      memcpy(argument, identify, sizeof identify);
      return 0;
    }
    case BLKGETSIZE:
      if (!pDevice->hasSectors) {
        errno = ENOTTY;
        return -1;
      }
      memcpy(argument, &pDevice->sectors, sizeof(unsigned long));
      return 0;
    default:
      errno = ENOTTY;
      return -1;
  }
}

}  // namespace

struct sg_header FakeSgRequest::Header() const {
  struct sg_header header;
  memset(&header, 0, sizeof header);
  if (!bytes.empty()) {
    memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  }
  return header;
}

std::vector<unsigned char> FakeSgRequest::Cdb(size_t n) const {
  if (bytes.size() <= 36) return {};
  size_t end = std::min(bytes.size(), 36 + n);
  return std::vector<unsigned char>(bytes.begin() + 36, bytes.begin() + end);
}

std::vector<unsigned char> FakeSgRequest::OutData(size_t cdbLength) const {
  if (bytes.size() <= 36 + cdbLength) return {};
  return std::vector<unsigned char>(bytes.begin() + 36 + (long)cdbLength,
                                    bytes.end());
}

std::vector<unsigned char> MakeSense(unsigned char responseCode,
                                     unsigned char key, unsigned char asc,
                                     unsigned char ascq) {
  std::vector<unsigned char> sense(16, 0);
  sense[0] = responseCode;
  sense[2] = key;
  sense[7] = 8;
  sense[12] = asc;
  sense[13] = ascq;
  return sense;
}

std::vector<unsigned char> MakeInquiry(unsigned char type,
                                       const std::string& vendor,
                                       const std::string& product,
                                       const std::string& revision) {
  std::vector<unsigned char> data(96, 0);
  data[0] = type;
  data[2] = 5;
  data[4] = 91;
  auto put = [&](size_t at, std::string text, size_t width) {
    text.resize(width, ' ');
    memcpy(data.data() + at, text.data(), width);
  };
  put(8, vendor, 8);
  put(16, product, 16);
  put(32, revision, 4);
  return data;
}

FakeSgDevice::FakeSgDevice(int hostNo, int busNo, int idNo, int lunNo)
    : host(hostNo), bus(busNo), id(idNo), lun(lunNo) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) != 0) abort();
  int size = (int)kMaxMessage;
  for (int fd : pair) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  libraryFd_ = pair[0];
  driverFd_ = pair[1];
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.fds[libraryFd_] = this;
  }
  thread_ = std::thread([this] { serve(); });
}

FakeSgDevice::~FakeSgDevice() {
  shutdown(driverFd_, SHUT_RDWR);
  thread_.join();
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    for (auto it = r.fds.begin(); it != r.fds.end();) {
      it = it->second == this ? r.fds.erase(it) : std::next(it);
    }
    for (auto it = r.paths.begin(); it != r.paths.end();) {
      it = it->second == this ? r.paths.erase(it) : std::next(it);
    }
  }
  close(libraryFd_);
  close(driverFd_);
}

void FakeSgDevice::QueueReply(const FakeSgReply& reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_.push_back(reply);
}

std::vector<FakeSgRequest> FakeSgDevice::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

size_t FakeSgDevice::RequestCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_.size();
}

FakeSgRequest FakeSgDevice::LastRequest() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_.empty() ? FakeSgRequest() : requests_.back();
}

void FakeSgDevice::serve() {
  std::vector<unsigned char> buffer(kMaxMessage);
  for (;;) {
    ssize_t n = recv(driverFd_, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    FakeSgRequest request;
    request.bytes.assign(buffer.begin(), buffer.begin() + n);
    FakeSgReply reply;
    bool bQueued = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
      if (!replies_.empty()) {
        reply = replies_.front();
        replies_.pop_front();
        bQueued = true;
      }
    }
    std::vector<unsigned char> cdb = request.Cdb(1);
    if (!bQueued && !cdb.empty() && cdb[0] == 0x12) reply.data = inquiry;

    struct sg_header header = request.Header();
    size_t replyLen = header.reply_len < 36 ? 36 : (size_t)header.reply_len;
    replyLen = std::min(replyLen, kMaxMessage);
    header.result = reply.result;
    header.target_status = reply.targetStatus & 0x1F;
    header.host_status = reply.hostStatus & 0xFF;
    header.driver_status = reply.driverStatus & 0xFF;
    memset(header.sense_buffer, 0, sizeof header.sense_buffer);
    if (!reply.sense.empty()) {
      memcpy(header.sense_buffer, reply.sense.data(),
             std::min(reply.sense.size(), sizeof header.sense_buffer));
    }
    std::vector<unsigned char> out(replyLen, 0);
    memcpy(out.data(), &header, sizeof header);
    if (!reply.data.empty()) {
      memcpy(out.data() + 36, reply.data.data(),
             std::min(reply.data.size(), replyLen - 36));
    }
    if (reply.delayMs > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
    }
    size_t nSend = reply.replyLength >= 0
                       ? std::min((size_t)reply.replyLength, out.size())
                       : out.size();
    send(driverFd_, out.data(), nSend, MSG_NOSIGNAL);
  }
}

ScopedFakeSg::ScopedFakeSg() : saved_(zorvScsiSyscalls) {
  zorvScsiSyscalls.pfnOpen = fakeOpen;
  zorvScsiSyscalls.pfnClose = fakeClose;
  zorvScsiSyscalls.pfnIoctl = fakeIoctl;
}

ScopedFakeSg::~ScopedFakeSg() {
  zorvScsiSyscalls = saved_;
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (int fd : r.dups) {
    r.fds.erase(fd);
    close(fd);
  }
  r.dups.clear();
  r.paths.clear();
  r.opened.clear();
  r.attempts.clear();
}

void ScopedFakeSg::Register(const std::string& path, FakeSgDevice* device) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.paths[path] = device;
}

std::vector<std::string> ScopedFakeSg::Opened() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.opened;
}

std::vector<std::string> ScopedFakeSg::Attempts() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.attempts;
}

int ScopedFakeSg::OpenCount() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return (int)r.dups.size();
}

}  // namespace zorvtest
