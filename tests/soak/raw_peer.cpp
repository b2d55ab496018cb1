#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <tesk/object.h>

#include "frame.h"
#include "tests/soak/soak.h"

namespace tesk_soak {

using tarnsocket::FrameHeader;
using tarnsocket::ObjectRef;

namespace {

FrameHeader Header(uint8_t type, uint32_t body_size, uint32_t call_id, uint32_t handle,
                   uint32_t code, uint32_t counts) {
  // Field by field: any byte the protocol adds later stays zero.
  FrameHeader header{};
  header.type = type;
  header.body_size = body_size;
  header.call_id = call_id;
  header.handle = handle;
  header.code = code;
  header.counts = counts;
  if (type == tarnsocket::kFrameInvoke) header.depth = 1;  // not nested in any call
  return header;
}

template <typename T>
Bytes& Append(Bytes& bytes, const T& value) {
  const auto* raw = reinterpret_cast<const uint8_t*>(&value);
  bytes.insert(bytes.end(), raw, raw + sizeof value);
  return bytes;
}

}  // namespace

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
  const unsigned in_objs = callback_handle != 0 ? 1 : 0;
  Bytes body;
  for (const Bytes& buffer : buffers) Append(body, uint64_t{buffer.size()});
  if (in_objs != 0) Append(body, ObjectRef{tarnsocket::kRefSenderExport, callback_handle});
  for (const Bytes& buffer : buffers) body.insert(body.end(), buffer.begin(), buffer.end());
  const uint32_t counts =
      OBJECT_COUNTS(static_cast<unsigned>(buffers.size()), 0, in_objs, out_objs);
  Bytes frame;
  Append(frame, Header(tarnsocket::kFrameInvoke, static_cast<uint32_t>(body.size()), call_id,
                       handle, op, counts));
  frame.insert(frame.end(), body.begin(), body.end());
  return frame;
}

bool SendAll(int fd, const Bytes& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

uint32_t RawOpenService(int fd, uint32_t interface_id) {
  Bytes id;
  FrameHeader reply{};
  ObjectRef service{};
  auto read = [fd](void* data, size_t size) {
    return recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  };
  if (!SendAll(fd, InvokeFrame(1, 0, OBJECT_OP_METHOD, {Append(id, interface_id)}, 0, 1)) ||
      !read(&reply, sizeof reply) || reply.type != tarnsocket::kFrameReply ||
      reply.code != OBJECT_OK || reply.body_size != sizeof service ||
      !read(&service, sizeof service)) {
    return 0;
  }
  return service.handle;
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

std::vector<Bytes> MalformedFrames() {
  using tarnsocket::kFrameInvoke;
  auto header = [](uint8_t type, uint32_t body_size, uint32_t call_id, uint32_t handle,
                   uint32_t code, uint32_t counts) {
    Bytes bytes;
    return Append(bytes, Header(type, body_size, call_id, handle, code, counts));
  };
  Bytes noise(64);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 37 + 11);
  Bytes bad_sizes = header(kFrameInvoke, 12, 1, 0, 0, OBJECT_COUNTS(1, 0, 0, 1));
  Append(Append(bad_sizes, uint64_t{100}), uint32_t{1});  // buffer sizes beyond the body
  Bytes bad_ref = header(kFrameInvoke, 8, 1, 0, 0, OBJECT_COUNTS(0, 0, 1, 1));
  Append(bad_ref, ObjectRef{7, 1});  // an object reference of no kind
  return {
      header(9, 0, 1, 0, 0, 0),                                     // unknown frame type
      header(kFrameInvoke, (64u << 20) + 1, 1, 0, 0, 0),            // body over the frame limit
      header(kFrameInvoke, 0, 1, 0, 0, OBJECT_COUNTS(0, 1, 0, 0)),  // output buffers declared
      header(kFrameInvoke, 0, 1, 0, OBJECT_OP_RETAIN, 0),           // retain sent as a call
      InvokeFrame(1, 77, 0, {{1, 0, 0, 0}}, 0, 1),                  // call on a handle never given
      header(tarnsocket::kFrameRelease, 0, 0, 77, 1, 0),  // release of a handle never given
      header(tarnsocket::kFrameReply, 0, 999, 0, 0, 0),   // answer to no call
      bad_sizes,
      bad_ref,
      noise,
  };
}

}  // namespace tesk_soak
