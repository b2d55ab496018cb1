#include "deauth/genl_message.h"

#include <algorithm>
#include <cstring>

namespace {

// Message offsets are aligned in 32 bits, as nlmsg_len is.
uint32_t Align4(uint32_t n) {
  return (n + 3u) & ~3u;
}

uint8_t* Bytes(nlmsghdr* msg) {
  return static_cast<uint8_t*>(static_cast<void*>(msg));
}

// strlcpy: copies what fits, always terminates (capacity > 0), and reports
// the full source length so that the caller can tell truncation.
size_t CopyString(char* dst, const char* src, size_t capacity) {
  const size_t length = strlen(src);
  if (capacity > 0) {
    const size_t n = std::min(length, capacity - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
  }
  return length;
}

}  // namespace

int AddGenlHeader(nlmsghdr* msg, size_t size, uint8_t cmd, uint8_t version) {
  const uint32_t off = Align4(msg->nlmsg_len);
  if (off >= size || size - off < kGenlHeaderSize) return -1;
  // Fixed bytes 16-19, not bytes at off: the header goes right behind a bare
  // netlink header; kept so even for a longer message, where the room check
  // looks at the end.
  uint8_t* bytes = Bytes(msg);
  bytes[kNlmsgHeaderSize] = cmd;
  bytes[kNlmsgHeaderSize + 1] = version;
  bytes[kNlmsgHeaderSize + 2] = 0;
  bytes[kNlmsgHeaderSize + 3] = 0;
  msg->nlmsg_len = (msg->nlmsg_len + 7u) & ~3u;
  return 0;
}

int AddAttribute(nlmsghdr* msg, size_t size, uint16_t type, const char* value) {
  const uint32_t off = Align4(msg->nlmsg_len);
  if (off >= size) return -1;
  const size_t room = size - off;
  if (room < kNlattrHeaderSize + 1) return -1;

  uint8_t* bytes = Bytes(msg);
  char* payload = static_cast<char*>(static_cast<void*>(bytes + off + kNlattrHeaderSize));
  const size_t length = CopyString(payload, value, room - kNlattrHeaderSize);
  // The truncated copy stays behind, but without a header or a new length it
  // is not part of the message.
  if (length + 1 > room - kNlattrHeaderSize) return -1;

  nlattr* attr = static_cast<nlattr*>(static_cast<void*>(bytes + off));
  attr->nla_len = static_cast<uint16_t>(kNlattrHeaderSize + length + 1);
  attr->nla_type = type;
  // Left unaligned: the padding is whatever the zero-filled buffer held, and
  // the next append aligns.
  msg->nlmsg_len = static_cast<uint32_t>(off + kNlattrHeaderSize + length + 1);
  return 0;
}

bool ReadAttribute(const nlattr* attr, void* out, size_t size) {
  if (size + kNlattrHeaderSize > attr->nla_len) return false;
  memcpy(out, AttrAt(attr, kNlattrHeaderSize), size);
  return true;
}

bool CheckStringAttr(const nlattr* attr) {
  if (attr->nla_len < kNlattrHeaderSize + 1) return false;
  return memchr(AttrAt(attr, kNlattrHeaderSize), '\0', attr->nla_len - kNlattrHeaderSize) !=
         nullptr;
}
