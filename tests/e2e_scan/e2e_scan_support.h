// Shared by the end-to-end scan tests: a daemon started on a scenario of
// the simulated location service, an in-process client that collects one
// delivery, and teskctl run as a separate process.
#ifndef TESK_TESTS_E2E_SCAN_E2E_SCAN_SUPPORT_H_
#define TESK_TESTS_E2E_SCAN_E2E_SCAN_SUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "service/object.h"
#include "teskclient/request_encoding.h"
#include "teskclient/result_decoding.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temp_dir.h"

namespace e2e_scan {

using Bytes = std::vector<uint8_t>;

// Long enough for any machine; a test that waits this long has failed.
constexpr std::chrono::seconds kPatience{30};

// The daemon on its own socket, its location service following `scenario`.
class ScenarioDaemon {
 public:
  explicit ScenarioDaemon(const std::string& scenario);
  // Fails the test when a sanitizer in the daemon reported anything.
  ~ScenarioDaemon();
  tesk_test::DaemonProcess& daemon() { return *daemon_; }
  const std::string& socket_path() const { return daemon_->socket_path(); }

 private:
  tesk_test::TempDir dir_;
  std::unique_ptr<tesk_test::DaemonProcess> daemon_;
};

// Whatever one callback object was given, copied during the call.
struct Collected {
  std::mutex mutex;
  std::condition_variable changed;
  int deliveries = 0;
  uint32_t counts = 0;
  std::vector<uint64_t> sizes;
  bool decoded = false;
  teskclient::DiscoveryResults discovery;
  teskclient::RangingResults ranging;
};

// One connection to the daemon, with one interface open.
class Client {
 public:
  Client(const std::string& socket_path, uint32_t interface_id);
  ~Client();
  bool ok() const { return !IsNullObject(service_); }

  int32_t StartDiscovery(const teskclient::DiscoveryScanPlan& plan);
  int32_t StartRanging(const teskclient::RangingScanPlan& plan);
  // Waits for the first delivery; false if none came within kPatience.
  bool WaitForDelivery();
  void ReleaseHandle();

  std::shared_ptr<Collected> collected() const { return collected_; }

 private:
  Object service_ = kNullObject;
  Object callback_ = kNullObject;
  Object handle_ = kNullObject;
  std::shared_ptr<Collected> collected_ = std::make_shared<Collected>();
};

// A running teskctl; its stdout goes to a pipe read by Finish.
class Teskctl {
 public:
  explicit Teskctl(const std::vector<std::string>& args);
  ~Teskctl();
  pid_t pid() const { return pid_; }
  // Waits for the end: exit code (128 + signal when killed) and stdout.
  int Finish(std::string* out = nullptr);

 private:
  pid_t pid_ = -1;
  int out_fd_ = -1;
};

Bytes Ie(uint8_t id, const Bytes& data);
std::string Hex(const Bytes& bytes);
// The value of `key` in a flat JSON line, as written (strings with their
// quotes and escapes); empty when absent.
std::string JsonField(const std::string& line, const std::string& key);
std::vector<std::string> Lines(const std::string& text);

}  // namespace e2e_scan

#endif  // TESK_TESTS_E2E_SCAN_E2E_SCAN_SUPPORT_H_
