// A client of the daemon that runs one discovery scan at a time and notes
// when the last byte of its results has arrived.
#ifndef TESK_BENCHMARKS_SCAN_SCAN_CLIENT_H_
#define TESK_BENCHMARKS_SCAN_SCAN_CLIENT_H_

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include <tesk/object.h>

#include "teskclient/request_encoding.h"

namespace bench {

class ScanClient {
 public:
  explicit ScanClient(const std::string& socket_path);
  ~ScanClient();
  ScanClient(const ScanClient&) = delete;
  ScanClient& operator=(const ScanClient&) = delete;

  bool ok() const { return !IsNullObject(service_); }
  // Bytes of the scan method's input buffers.
  size_t RequestBytes() const;

  // Starts a scan of every band and waits for its results. The time from the
  // call to the delivery's arrival in ns, or -1 when the scan failed.
  double Scan();
  // Of the last delivery: its buffers' bytes and its scan records.
  size_t result_bytes() const { return state_->bytes; }
  size_t records() const { return state_->records; }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable arrived;
    bool delivered = false;
    double at_ns = 0;
    size_t bytes = 0;
    size_t records = 0;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  teskclient::EncodedDiscoveryScan request_;
  Object service_ = kNullObject;
  Object callback_ = kNullObject;
};

}  // namespace bench

#endif  // TESK_BENCHMARKS_SCAN_SCAN_CLIENT_H_
