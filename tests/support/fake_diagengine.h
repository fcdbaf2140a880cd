// A scripted stand-in for the diagnostic engine: this process connects to
// the real broker as a client of class "DIAGENGINE", records every message
// that reaches it, byte for byte and in order, and answers the module-side
// requests "LIST_DEVICES:<module>" and "LIST_SYSINFO_DEVICES:<module>" with
// the enumeration XML the test gives it. Start the broker first; start the
// modules (fork and exec) whenever.
//
//   zorvtest::FakeDiagEngine engine;
//   engine.devicesXml = "<DEVICE><DID>7</DID>...</DEVICE>";
//   ASSERT_EQ(0, engine.Open());
//   ... start the module ...
//   engine.WaitForType("DE_NOTIFY", "SHUTDOWN", 10000);
#ifndef ZORV_TESTS_SUPPORT_FAKE_DIAGENGINE_H
#define ZORV_TESTS_SUPPORT_FAKE_DIAGENGINE_H

#include <stdint.h>

#include <string>
#include <vector>

namespace zorvtest {

class FakeDiagEngine {
 public:
  FakeDiagEngine() = default;
  ~FakeDiagEngine();
  FakeDiagEngine(const FakeDiagEngine&) = delete;
  FakeDiagEngine& operator=(const FakeDiagEngine&) = delete;

  // DATA of the answer to "LIST_DEVICES:..." and "LIST_SYSINFO_DEVICES:...".
  std::string devicesXml;
  std::string sysinfoDevicesXml;
  // When false, those requests get no answer.
  bool answerDeviceRequests = true;

  // Pipe layer, thread and connection as "diagengine"/"DIAGENGINE": the
  // open result (0 success).
  int Open();
  // Closes what Open() opened.
  void Close();
  // Takes in what arrived within `timeoutMs` (recording and answering).
  void Pump(int timeoutMs);
  // Pumps until a message of `type` whose DATA contains `dataPart` is among
  // the received ones from index `from` on; false at the limit.
  bool WaitFor(const std::string& type, const std::string& dataPart,
               int timeoutMs, size_t from = 0);
  // Sends `type` with `data` to process `pid`.
  bool SendTo(long pid, const std::string& type, const std::string& data);
  // Every message received, without its "\r\n".
  const std::vector<std::string>& Received() const { return received_; }
  // Received messages that are not device requests, as "TYPE|DATA".
  std::vector<std::string> TypesAndData() const;
  // The device requests received, as their DATA.
  const std::vector<std::string>& Requests() const { return requests_; }

  // A field of a message, "" when missing.
  static std::string Field(const std::string& text, const char* path);

 private:
  void handle(const std::string& text);
  bool pipes_ = false;
  bool open_ = false;
  std::vector<std::string> received_;
  std::vector<std::string> requests_;
};

}  // namespace zorvtest

#endif  // ZORV_TESTS_SUPPORT_FAKE_DIAGENGINE_H
