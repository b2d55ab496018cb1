#include "deauth/family_lookup.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "deauth/errno_text.h"
#include "deauth/genl_message.h"
#include "ky_loc_fw/log.h"

namespace {

constexpr const char* kTag = "tesk";

// Finds group_name in a CTRL_ATTR_MCAST_GROUPS attribute and stores its id.
bool FindGroup(const nlattr* groups_attr, const char* group_name, uint32_t& group_id) {
  AttrParser groups = AttrParser::Nested(groups_attr);
  // Each entry is one group; its own type is an index and not looked at.
  while (const nlattr* group = groups.Next()) {
    AttrParser fields = AttrParser::Nested(group);
    const nlattr* id = nullptr;
    const nlattr* name = nullptr;
    while (const nlattr* field = fields.Next()) {
      if (field->nla_type == CTRL_ATTR_MCAST_GRP_ID && field->nla_len >= kNlattrHeaderSize + 4) {
        id = field;
      } else if (field->nla_type == CTRL_ATTR_MCAST_GRP_NAME && CheckStringAttr(field)) {
        name = field;
      } else {
        continue;
      }
      if (id == nullptr || name == nullptr) continue;
      // The name is known to be terminated; the bound is only an upper limit.
      const char* payload = static_cast<const char*>(static_cast<const void*>(AttrAt(name, 4)));
      if (strncmp(group_name, payload, name->nla_len) != 0) break;
      ReadAttribute(id, &group_id, sizeof group_id);
      return true;
    }
  }
  return false;
}

}  // namespace

bool ReadFamilyReply(const uint8_t* reply, size_t n, const char* group_name, FamilyLookup& lookup) {
  if (BadNetlinkLength(reply, n)) return false;
  // An error reply (or anything but the controller's answer) holds nothing.
  if (n - kNlmsgHeaderSize < kGenlHeaderSize || NetlinkHeader(reply)->nlmsg_type != GENL_ID_CTRL) {
    return true;
  }

  // Only the first message counts, and its attributes are taken to reach to
  // the end of the datagram rather than to its nlmsg_len; kept on purpose.
  const size_t offset = kNlmsgHeaderSize + kGenlHeaderSize;
  AttrParser parser = AttrParser::Over(reply + offset, n - offset);
  while (!(lookup.found_family && lookup.found_group)) {
    const nlattr* attr = parser.Next();
    if (attr == nullptr) break;
    if (attr->nla_type == CTRL_ATTR_FAMILY_ID) {
      lookup.found_family = ReadAttribute(attr, &lookup.family_id, sizeof lookup.family_id);
    } else if (attr->nla_type == CTRL_ATTR_MCAST_GROUPS) {
      lookup.found_group = FindGroup(attr, group_name, lookup.group_id);
    }
  }
  return true;
}

bool QueryFamily(int fd, const char* family_name, const char* group_name, FamilyLookup& lookup) {
  const NetlinkBuffer buffer = AllocateNetlinkBuffer();
  if (!buffer) return false;
  uint8_t* bytes = buffer.get();
  memset(bytes + kNlmsgHeaderSize, 0, kNetlinkBufferSize - kNlmsgHeaderSize);

  nlmsghdr* request = static_cast<nlmsghdr*>(static_cast<void*>(bytes));
  request->nlmsg_len = kNlmsgHeaderSize;
  request->nlmsg_type = GENL_ID_CTRL;
  request->nlmsg_flags = NLM_F_REQUEST;
  request->nlmsg_seq = 1;
  request->nlmsg_pid = static_cast<uint32_t>(getpid());
  // The fixed request always fits.
  AddGenlHeader(request, kNetlinkBufferSize, CTRL_CMD_GETFAMILY, 1);
  AddAttribute(request, kNetlinkBufferSize, CTRL_ATTR_FAMILY_NAME, family_name);

  const ssize_t sent = sendto(fd, bytes, request->nlmsg_len, 0, nullptr, 0);
  if (sent < 0 || static_cast<size_t>(sent) != request->nlmsg_len) {
    const int error = errno;
    // The doubled blank is kept on purpose: log readers match the line as is.
    ky_loc_fw::log_error(kTag, "Failed to send GETFAMILY:  %d (%s)", error,
                         ErrnoText(error).c_str());
    return false;
  }

  memset(bytes, 0, kNetlinkBufferSize);
  const ssize_t n = recvfrom(fd, bytes, kNetlinkBufferSize, 0, nullptr, nullptr);
  if (n < 0) {
    const int error = errno;
    ky_loc_fw::log_error(kTag, "Failed to recv GETFAMILY response: %d (%s)", error,
                         ErrnoText(error).c_str());
    return false;
  }
  if (!ReadFamilyReply(bytes, static_cast<size_t>(n), group_name, lookup)) {
    ky_loc_fw::log_warning(kTag, "Bad Netlink message length");
  }
  ky_loc_fw::log_info(kTag, "family %d group %d", lookup.family_id,
                      static_cast<int>(lookup.group_id));
  return lookup.found_family && lookup.found_group;
}
