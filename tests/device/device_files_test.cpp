// The device build files (Android.bp, the init .rc, the SELinux policy) name
// the same binary, socket and types as each other and as the code: a rename
// on one side that the others miss would only show on a device, as a daemon
// that init cannot start or that nobody may connect to.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string Read(const fs::path& path) {  // relative to the source tree, or absolute
  std::ifstream in(fs::path(TESK_SOURCE_DIR) / path, std::ios::binary);
  EXPECT_TRUE(in) << path;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// Group 1 of the first match of pattern in text; empty when none.
std::string Find(const std::string& text, const std::string& pattern) {
  std::smatch m;
  return std::regex_search(text, m, std::regex(pattern)) ? m[1].str() : "";
}

// The quoted strings of a blueprint list property, e.g. srcs: [ "a", "b" ].
std::vector<std::string> BlueprintList(const std::string& bp, const std::string& property) {
  const std::string body = Find(bp, "\\n\\s*" + property + ":\\s*\\[([^\\]]*)\\]");
  std::vector<std::string> items;
  const std::regex quoted("\"([^\"]*)\"");
  for (std::sregex_iterator it(body.begin(), body.end(), quoted), end; it != end; ++it) {
    items.push_back((*it)[1]);
  }
  return items;
}

// Whether policy grants source every one of perms on target (type:class),
// in rules "allow source target { p q };" or "allow source target p;".
bool Allows(const std::string& policy, const std::string& source, const std::string& target,
            std::set<std::string> perms) {
  const std::regex rule("allow\\s+" + source + "\\s+" + target + "\\s+(\\{([^}]*)\\}|(\\w+))\\s*;");
  for (std::sregex_iterator it(policy.begin(), policy.end(), rule), end; it != end; ++it) {
    for (const std::string& p : Words((*it)[2].matched ? (*it)[2] : (*it)[3])) perms.erase(p);
  }
  return perms.empty();
}

TEST(DeviceFiles, AgreeWithEachOtherTheCodeAndTheBuild) {
  const std::string bp = Read("Android.bp"), te = Read("sepolicy/tesk.te");
  const std::string macros = Read("sepolicy/te_macros"), labels = Read("sepolicy/file_contexts");
  const std::string rc = Read(BlueprintList(bp, "init_rc").at(0));
  const std::vector<std::string> service = Words(Find(rc, "(?:^|\\n)\\s*service\\s+(.*)"));
  const std::vector<std::string> socket = Words(Find(rc, "(?:^|\\n)\\s*socket\\s+(.*)"));
  ASSERT_EQ(service.size(), 2u);  // NAME PATH
  ASSERT_EQ(socket.size(), 5u);   // NAME TYPE MODE OWNER GROUP
  const std::string domain = Find(te, "init_daemon_domain\\((\\w+)\\)");
  const std::string exec_type = Find(labels, service[1] + "\\s+u:object_r:(\\w+):s0");
  const std::string socket_type =
      Find(labels, "/dev/socket/" + socket[0] + "\\s+u:object_r:(\\w+):s0");
  const std::string socket_class = "unix_" + socket[1] + "_socket";
  const std::pair<std::string, std::string> same[] = {
      {Find(bp, "\\n\\s*name:\\s*\"([^\"]*)\""), TESK_DAEMON_NAME},  // the CMake daemon's
      {Find(bp, "\\n\\s*vendor:\\s*(\\w+)"), "true"},
      {service[0], TESK_DAEMON_NAME},
      {service[1], "/vendor/bin/" TESK_DAEMON_NAME},
      {domain, TESK_DAEMON_NAME},
      {exec_type, domain + "_exec"},
      {Find(te, "\\btype\\s+(\\w+)\\s*,\\s*exec_type"), exec_type},
      {Find(te, "\\btype\\s+(\\w+)\\s*,\\s*file_type"), socket_type},
      {socket[0], Find(Read("service/main.cpp"), "android_get_control_socket\\(\"(\\w+)\"\\)")},
      {socket[1], "stream"},  // the only kind the IPC library serves
      {socket[2], "0660"},    // clients must write the socket file to connect; others get nothing
  };
  for (const auto& [value, expected] : same) EXPECT_EQ(value, expected);
  EXPECT_NE(socket_type, "");
  EXPECT_TRUE(Allows(te, domain, "self:" + socket_class, {"listen", "accept"}));
  EXPECT_TRUE(
      Allows(te, domain, "self:netlink_generic_socket", {"create", "setopt", "read", "write"}));
  // What the domains given tesk_client() may do: write the file, connect.
  EXPECT_NE(macros.find("define(`" + domain + "_client'"), std::string::npos);
  EXPECT_TRUE(Allows(macros, "\\$1", socket_type + ":sock_file", {"write"}));
  EXPECT_TRUE(Allows(macros, "\\$1", domain + ":" + socket_class, {"connectto"}));

  // Android.bp builds what CMake builds.
  std::vector<std::string> tree;
  std::string code;
  for (const char* folder : {"service", "dispatch", "scan", "deauth"}) {
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(TESK_SOURCE_DIR) / folder)) {
      const fs::path file = fs::relative(entry.path(), TESK_SOURCE_DIR);
      if (file.extension() == ".cpp") tree.push_back(file.string());
      if (file.extension() == ".cpp" || file.extension() == ".h") code += Read(file);
    }
  }
  std::sort(tree.begin(), tree.end());
  std::vector<std::string> srcs = BlueprintList(bp, "srcs");
  std::sort(srcs.begin(), srcs.end());
  EXPECT_EQ(srcs, tree);
  // The include path that platform/boundary_check.cmake compiles the daemon
  // with (the daemon's root, the wire contract, the platform's interfaces),
  // and the platform libraries it links.
  EXPECT_EQ(BlueprintList(bp, "local_include_dirs"),
            (std::vector<std::string>{".", "contract/include", "platform/include"}));
  EXPECT_EQ(BlueprintList(bp, "shared_libs"),
            (std::vector<std::string>{"libcutils", "libvela_client"}));
  // The dlopened library, by the name that the built daemon opens.
  const std::vector<std::string> required = BlueprintList(bp, "required");
  ASSERT_EQ(required.size(), 1u);
  EXPECT_NE(Read(TESK_DAEMON_PATH).find(required[0] + ".so"), std::string::npos) << required[0];
  // Every -D setting is one that the daemon's code reads.
  for (const std::string& flag : BlueprintList(bp, "cflags")) {
    if (flag.rfind("-D", 0) == 0) {
      EXPECT_NE(code.find(flag.substr(2, flag.find('=') - 2)), std::string::npos) << flag;
    }
  }
}

}  // namespace
