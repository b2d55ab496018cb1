// A peer that speaks the IPC wire protocol by hand, for what no well-behaved
// client does: frames sent a byte at a time, results never read, frames
// that break the protocol.
#ifndef TESK_TESTS_SOAK_RAW_PEER_H_
#define TESK_TESTS_SOAK_RAW_PEER_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace tesk_soak {

using Bytes = std::vector<uint8_t>;

// A blocking Unix stream connection, or -1.
int RawConnect(const std::string& socket_path);

// An invoke frame carrying `buffers` and, when `callback_handle` is not 0,
// one object of ours (an export handle of the sender) and one output object.
Bytes InvokeFrame(uint32_t call_id, uint32_t handle, uint32_t op, const std::vector<Bytes>& buffers,
                  uint32_t callback_handle, unsigned out_objs);

bool SendAll(int fd, const Bytes& bytes);

// Asks the root for a service (interface id) and returns its handle, 0 on
// failure.
uint32_t RawOpenService(int fd, uint32_t interface_id);

// Starts a one-shot ranging scan of `targets` targets on the ranging object
// `service`, naming our export 1 as the callback; reads nothing back.
bool RawStartRanging(int fd, uint32_t service, size_t targets);

// True once the peer ended the connection (end of file or reset) within
// `timeout`; anything it sends meanwhile is read and dropped.
bool WaitForEnd(int fd, std::chrono::milliseconds timeout);

struct MalformedFrame {
  const char* what;
  Bytes bytes;
};
// One frame per way of breaking the protocol, each of which must cost the
// sender its connection.
std::vector<MalformedFrame> MalformedFrames();

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_RAW_PEER_H_
