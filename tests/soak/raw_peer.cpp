#include "tests/soak/raw_peer.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <tesk/object.h>

#include "frame.h"
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
void Append(Bytes* bytes, const T& value) {
  const auto* raw = reinterpret_cast<const uint8_t*>(&value);
  bytes->insert(bytes->end(), raw, raw + sizeof value);
}

}  // namespace

Bytes InvokeFrame(uint32_t call_id, uint32_t handle, uint32_t op, const std::vector<Bytes>& buffers,
                  uint32_t callback_handle, unsigned out_objs) {
  const unsigned in_objs = callback_handle != 0 ? 1 : 0;
  Bytes meta;
  size_t data = 0;
  for (const Bytes& buffer : buffers) {
    Append(&meta, uint64_t{buffer.size()});
    data += buffer.size();
  }
  if (in_objs != 0) Append(&meta, ObjectRef{tarnsocket::kRefSenderExport, callback_handle});
  const uint32_t counts =
      OBJECT_COUNTS(static_cast<unsigned>(buffers.size()), 0, in_objs, out_objs);
  Bytes frame;
  frame.reserve(sizeof(FrameHeader) + meta.size() + data);
  Append(&frame, Header(tarnsocket::kFrameInvoke, static_cast<uint32_t>(meta.size() + data),
                        call_id, handle, op, counts));
  frame.insert(frame.end(), meta.begin(), meta.end());
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

std::vector<MalformedFrame> MalformedFrames() {
  using tarnsocket::kFrameInvoke;
  using tarnsocket::kFrameRelease;
  using tarnsocket::kFrameReply;
  auto header_only = [](const FrameHeader& header) {
    Bytes bytes;
    Append(&bytes, header);
    return bytes;
  };
  Bytes noise(64);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 37 + 11);
  Bytes bad_sizes = header_only(Header(kFrameInvoke, 12, 1, 0, 0, OBJECT_COUNTS(1, 0, 0, 1)));
  Append(&bad_sizes, uint64_t{100});
  Append(&bad_sizes, uint32_t{1});
  Bytes bad_ref = header_only(Header(kFrameInvoke, 8, 1, 0, 0, OBJECT_COUNTS(0, 0, 1, 1)));
  Append(&bad_ref, ObjectRef{7, 1});
  return {
      {"unknown frame type", header_only(Header(9, 0, 1, 0, 0, 0))},
      {"body over the frame limit", header_only(Header(kFrameInvoke, (64u << 20) + 1, 1, 0, 0, 0))},
      {"output buffers declared",
       header_only(Header(kFrameInvoke, 0, 1, 0, 0, OBJECT_COUNTS(0, 1, 0, 0)))},
      {"retain sent as a call", header_only(Header(kFrameInvoke, 0, 1, 0, OBJECT_OP_RETAIN, 0))},
      {"call on a handle never given", InvokeFrame(1, 77, 0, {{1, 0, 0, 0}}, 0, 1)},
      {"release of a handle never given", header_only(Header(kFrameRelease, 0, 0, 77, 1, 0))},
      {"answer to no call", header_only(Header(kFrameReply, 0, 999, 0, 0, 0))},
      {"buffer sizes beyond the body", bad_sizes},
      {"object reference of no kind", bad_ref},
      {"noise", noise},
  };
}

}  // namespace tesk_soak
