#include "tests/soak/raw_peer.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "frame.h"
#include "service/object.h"
#include "tests/soak/scan_plans.h"

namespace tesk_soak {

using tarnsocket::FrameHeader;
using tarnsocket::ObjectRef;

int RawConnect(const std::string& socket_path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path - 1);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

Bytes InvokeFrame(uint32_t call_id, uint32_t handle, uint32_t op, const std::vector<Bytes>& buffers,
                  uint32_t callback_handle, unsigned out_objs) {
  uint64_t sizes[tarnsocket::kMaxSlots] = {};
  for (size_t i = 0; i < buffers.size(); ++i) sizes[i] = buffers[i].size();
  const ObjectRef callback{tarnsocket::kRefSenderExport, callback_handle};
  const unsigned in_objs = callback_handle != 0 ? 1 : 0;
  const uint32_t counts =
      OBJECT_COUNTS(static_cast<unsigned>(buffers.size()), 0, in_objs, out_objs);
  Bytes frame(tarnsocket::kMaxHeadSize);
  frame.resize(tarnsocket::EncodeInvokeHead(frame.data(), call_id, handle, op, counts, sizes,
                                            &callback));
  for (const Bytes& buffer : buffers) frame.insert(frame.end(), buffer.begin(), buffer.end());
  return frame;
}

bool SendAll(int fd, const Bytes& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

namespace {

bool ReadAll(int fd, void* data, size_t size) {
  auto* bytes = static_cast<uint8_t*>(data);
  size_t got = 0;
  while (got < size) {
    const ssize_t n = recv(fd, bytes + got, size - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

uint32_t RawOpenService(int fd, uint32_t interface_id) {
  Bytes id(sizeof interface_id);
  memcpy(id.data(), &interface_id, sizeof interface_id);
  if (!SendAll(fd, InvokeFrame(1, 0, OBJECT_OP_METHOD, {id}, 0, 1))) return 0;
  FrameHeader reply{};
  ObjectRef service{};
  if (!ReadAll(fd, &reply, sizeof reply) || reply.type != tarnsocket::kFrameReply ||
      reply.code != OBJECT_OK || reply.body_size != sizeof service ||
      !ReadAll(fd, &service, sizeof service)) {
    return 0;
  }
  return service.handle;
}

bool RawStartRanging(int fd, uint32_t service, size_t targets) {
  const teskclient::EncodedRangingScan request = RangingScan(targets, false);
  return SendAll(fd, InvokeFrame(2, service, request.op, {request.targets, request.ts}, 1, 1));
}

bool WaitForEnd(int fd, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    uint8_t sink[4096];
    const ssize_t n = recv(fd, sink, sizeof sink, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return true;
  }
}

namespace {

Bytes HeaderOnly(FrameHeader header) {
  Bytes bytes(sizeof header);
  memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

Bytes WithBody(const FrameHeader& header, const Bytes& body) {
  Bytes bytes = HeaderOnly(header);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

}  // namespace

std::vector<MalformedFrame> MalformedFrames() {
  const Bytes id{1, 0, 0, 0};
  std::vector<MalformedFrame> frames;
  FrameHeader h{};
  h = {0, 9, {0, 0, 0}, 1, 0, 0, 0};
  frames.push_back({"unknown frame type", HeaderOnly(h)});
  h = {0, tarnsocket::kFrameRelease, {1, 0, 0}, 0, 0, 1, 0};
  frames.push_back({"reserved bytes set", HeaderOnly(h)});
  h = {(64u << 20) + 1, tarnsocket::kFrameInvoke, {0, 0, 0}, 1, 0, 0, 0};
  frames.push_back({"body over the frame limit", HeaderOnly(h)});
  h = {0, tarnsocket::kFrameInvoke, {0, 0, 0}, 1, 0, 0, OBJECT_COUNTS(0, 1, 0, 0)};
  frames.push_back({"output buffers declared", HeaderOnly(h)});
  h = {0, tarnsocket::kFrameInvoke, {0, 0, 0}, 1, 0, OBJECT_OP_RETAIN, 0};
  frames.push_back({"retain sent as a call", HeaderOnly(h)});
  frames.push_back({"call on a handle never given", InvokeFrame(1, 77, 0, {id}, 0, 1)});
  h = {0, tarnsocket::kFrameRelease, {0, 0, 0}, 0, 77, 1, 0};
  frames.push_back({"release of a handle never given", HeaderOnly(h)});
  h = {0, tarnsocket::kFrameReply, {0, 0, 0}, 999, 0, 0, 0};
  frames.push_back({"answer to no call", HeaderOnly(h)});
  h = {8 + 4, tarnsocket::kFrameInvoke, {0, 0, 0}, 1, 0, 0, OBJECT_COUNTS(1, 0, 0, 1)};
  frames.push_back({"buffer sizes beyond the body", WithBody(h, {100, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0})});
  h = {8, tarnsocket::kFrameInvoke, {0, 0, 0}, 1, 0, 0, OBJECT_COUNTS(0, 0, 1, 1)};
  frames.push_back({"object reference of no kind", WithBody(h, {7, 0, 0, 0, 1, 0, 0, 0})});
  Bytes noise(64);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 37 + 11);
  frames.push_back({"noise", noise});
  return frames;
}

}  // namespace tesk_soak
