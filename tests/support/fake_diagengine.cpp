// The scripted diagnostic engine of the module tests (fake_diagengine.h).
#include "support/fake_diagengine.h"

#include <stdio.h>
#include <time.h>

#include "global/client-connection-manager_p.h"
#include "support/pipe_peer.h"
#include "zorv2000/client-connection-manager.h"
#include "zorv2000/client-messaging-engine.h"
#include "zorv2000/genstr.h"
#include "zorv2000/message-protocol.h"
#include "zorv2000/pipe-lowlevel.h"

namespace zorvtest {

namespace {

// Milliseconds of a monotonic clock.
using zorvtest::MonotonicMs;

}  // namespace

FakeDiagEngine::~FakeDiagEngine() { Close(); }

int FakeDiagEngine::Open() {
  if (!pipes_) {
    ZorvInitPipes();
    ZorvPipeSignalHandle();
    ZorvInitReadWriteThread();
    pipes_ = true;
  }
  int rc =
      ZorvClient_I_OpenConnectionEx(0, "diagengine", "DIAGENGINE", "", nullptr);
  if (rc == 40) rc = 0;
  if (rc == 0) open_ = true;
  return rc;
}

void FakeDiagEngine::Close() {
  if (open_) {
    ZorvFlushWriteFIFO(500);
    ZorvClientCloseConnection();
    open_ = false;
  }
  if (pipes_) {
    ZorvStopReadWriteThread();
    ZorvCleanupPipes();
    pipes_ = false;
  }
}

std::string FakeDiagEngine::Field(const std::string& text, const char* path) {
  CGenStr value;
  if (!CGenStrInit(&value)) return "";
  std::string out;
  if (ZorvXmlGetFieldStr(text.c_str(), path, 0, &value) == 0)
    out = CGenStrC_Str(&value);
  CGenStrDelete(&value);
  return out;
}

bool FakeDiagEngine::SendTo(long pid, const std::string& type,
                            const std::string& data) {
  char header[300];
  std::string to = std::to_string(pid);
  if (ZorvCreateMessageHeader(header, sizeof header, to.c_str(), nullptr,
                              type.c_str(), nullptr) != 0)
    return false;
  std::string message =
      "<MSG>" + std::string(header) + "<DATA>" + data + "</DATA></MSG>\r\n";
  return ZorvClientSendMessage(message.c_str()) == 0;
}

void FakeDiagEngine::handle(const std::string& text) {
  std::string type = Field(text, "MSG/HDR/TYPE");
  std::string data = Field(text, "MSG/DATA");
  bool bSysinfo = data.rfind("LIST_SYSINFO_DEVICES:", 0) == 0;
  bool bDevices = data.rfind("LIST_DEVICES:", 0) == 0;
  if (type == "DE_COMMAND" && (bSysinfo || bDevices)) {
    requests_.push_back(data);
    if (!answerDeviceRequests) return;
    std::string from = Field(text, "MSG/HDR/FROM");
    std::string id = Field(text, "MSG/HDR/ID");
    char header[300];
    if (ZorvCreateMessageHeader(header, sizeof header, from.c_str(), id.c_str(),
                                "TRANSACTION_RESPONSE", nullptr) != 0)
      return;
    std::string reply = "<MSG>" + std::string(header) + "<DATA>" +
                        (bSysinfo ? sysinfoDevicesXml : devicesXml) +
                        "</DATA></MSG>\r\n";
    ZorvClientSendMessage(reply.c_str());
    return;
  }
  received_.push_back(text);
}

void FakeDiagEngine::Pump(int timeoutMs) {
  ZorvClientWaitForMessages((uint32_t)timeoutMs, 0);
  for (;;) {
    ZorvClientMessage* pMessage = ZorvClientGetNextMessage(nullptr);
    if (!pMessage) break;
    std::string text = pMessage->pData ? pMessage->pData : "";
    ZorvClientFreeMessage(pMessage);
    handle(text);
  }
}

bool FakeDiagEngine::WaitFor(const std::string& type,
                             const std::string& dataPart, int timeoutMs,
                             size_t from) {
  int64_t deadline = MonotonicMs() + timeoutMs;
  size_t checked = from;
  for (;;) {
    for (; checked < received_.size(); checked++) {
      const std::string& text = received_[checked];
      if (Field(text, "MSG/HDR/TYPE") == type &&
          Field(text, "MSG/DATA").find(dataPart) != std::string::npos)
        return true;
    }
    if (MonotonicMs() > deadline) return false;
    Pump(10);
  }
}

std::vector<std::string> FakeDiagEngine::TypesAndData() const {
  std::vector<std::string> out;
  for (const std::string& text : received_)
    out.push_back(Field(text, "MSG/HDR/TYPE") + "|" + Field(text, "MSG/DATA"));
  return out;
}

}  // namespace zorvtest
