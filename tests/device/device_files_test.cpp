// The device build files (Android.bp, the init .rc, the SELinux policy) name
// the same binary, socket and types as each other and as the code: a rename
// on one side that the others miss would only show on a device, as a daemon
// that init cannot start or that nobody may connect to.
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "teskclient/session.h"
#include "tests/support/emulator.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string Read(const std::string& relative) {
  std::ifstream in(std::string(TESK_SOURCE_DIR) + "/" + relative, std::ios::binary);
  EXPECT_TRUE(in) << relative;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), {}};
}

// The words of the first line of `text` whose first word is `keyword`,
// leading blanks and comment lines aside.
std::vector<std::string> Directive(const std::string& text, const std::string& keyword) {
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> words = Words(line);
    if (!words.empty() && words[0] == keyword) return words;
  }
  return {};
}

// The quoted strings of a blueprint list property, e.g. srcs: [ "a", "b" ].
std::vector<std::string> BlueprintList(const std::string& bp, const std::string& property) {
  std::smatch list;
  if (!std::regex_search(bp, list, std::regex("\\n\\s*" + property + ":\\s*\\[([^\\]]*)\\]"))) {
    return {};
  }
  std::vector<std::string> items;
  const std::string body = list[1];
  const std::regex quoted("\"([^\"]*)\"");
  for (std::sregex_iterator it(body.begin(), body.end(), quoted), end; it != end; ++it) {
    items.push_back((*it)[1]);
  }
  return items;
}

std::string BlueprintString(const std::string& bp, const std::string& property) {
  std::smatch m;
  return std::regex_search(bp, m, std::regex("\\n\\s*" + property + ":\\s*\"([^\"]*)\""))
             ? m[1].str()
             : "";
}

// Path to type, from file_contexts lines "path u:object_r:type:s0".
std::map<std::string, std::string> FileContexts() {
  std::map<std::string, std::string> labels;
  std::istringstream in(Read("sepolicy/file_contexts"));
  const std::regex label("u:object_r:([a-z0-9_]+):s0");
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> words = Words(line);
    std::smatch m;
    if (words.size() == 2 && std::regex_match(words[1], m, label)) labels[words[0]] = m[1];
  }
  return labels;
}

// The permissions that `policy` grants `source` on `target:cls`, from
// "allow source target:cls { p q };" and "allow source target:cls p;".
std::set<std::string> Allowed(const std::string& policy, const std::string& source,
                              const std::string& target, const std::string& cls) {
  std::set<std::string> perms;
  const std::regex rule("allow\\s+" + std::regex_replace(source, std::regex("\\$"), "\\$") +
                        "\\s+" + target + ":" + cls + "\\s+(\\{([^}]*)\\}|([a-z_]+))\\s*;");
  for (std::sregex_iterator it(policy.begin(), policy.end(), rule), end; it != end; ++it) {
    for (const std::string& p : Words((*it)[2].matched ? (*it)[2] : (*it)[3])) perms.insert(p);
  }
  return perms;
}

bool Includes(const std::set<std::string>& have, const std::set<std::string>& want) {
  for (const std::string& p : want) {
    if (have.count(p) == 0) return false;
  }
  return true;
}

struct Rc {
  std::vector<std::string> service;  // service NAME PATH
  std::vector<std::string> socket;   // socket NAME TYPE MODE OWNER GROUP
};

Rc ReadRc(const std::string& relative) {
  const std::string rc = Read(relative);
  return {Directive(rc, "service"), Directive(rc, "socket")};
}

std::string DaemonDomain(const std::string& te) {
  std::smatch m;
  return std::regex_search(te, m, std::regex("init_daemon_domain\\(([a-z0-9_]+)\\)")) ? m[1].str()
                                                                                      : "";
}

TEST(DeviceFiles, BinaryIsNamedAlikeEverywhere) {
  const std::string bp = Read("Android.bp");
  const std::vector<std::string> rc_files = BlueprintList(bp, "init_rc");
  ASSERT_EQ(rc_files.size(), 1u);
  const Rc rc = ReadRc(rc_files[0]);
  ASSERT_EQ(rc.service.size(), 3u);
  const std::string te = Read("sepolicy/tesk.te");
  const std::string domain = DaemonDomain(te);
  const std::string exec_type = FileContexts()[rc.service[2]];

  struct Row {
    const char* what;
    std::string value;
    std::string expected;
  };
  const Row rows[] = {
      {"Android.bp name against the CMake daemon", BlueprintString(bp, "name"), TESK_DAEMON_NAME},
      {"vendor binary", std::regex_search(bp, std::regex("\\n\\s*vendor:\\s*true")) ? "yes" : "no",
       "yes"},
      {".rc service path", rc.service[2], "/vendor/bin/" + std::string(TESK_DAEMON_NAME)},
      {".rc service name", rc.service[1], TESK_DAEMON_NAME},
      {"daemon domain", domain, TESK_DAEMON_NAME},
      {"label of the binary", exec_type, domain + "_exec"},
      {"exec type declaration",
       std::regex_search(te, std::regex("type\\s+" + exec_type + "\\s*,\\s*exec_type")) ? "yes"
                                                                                        : "no",
       "yes"},
  };
  for (const Row& row : rows) EXPECT_EQ(row.value, row.expected) << row.what;
}

TEST(DeviceFiles, BlueprintBuildsWhatCMakeBuilds) {
  const std::string bp = Read("Android.bp");
  std::vector<std::string> tree;
  std::string code;
  for (const char* folder : {"service", "dispatch", "scan", "deauth"}) {
    for (const fs::directory_entry& entry :
         fs::recursive_directory_iterator(fs::path(TESK_SOURCE_DIR) / folder)) {
      const std::string file = fs::relative(entry.path(), TESK_SOURCE_DIR).string();
      if (entry.path().extension() == ".cpp") tree.push_back(file);
      if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
        code += Read(file);
      }
    }
  }
  std::sort(tree.begin(), tree.end());
  std::vector<std::string> srcs = BlueprintList(bp, "srcs");
  std::sort(srcs.begin(), srcs.end());
  EXPECT_EQ(srcs, tree);

  // Linked platform libraries, and the dlopened one by the name the daemon
  // opens, which is in the built binary.
  const std::vector<std::string> libs = BlueprintList(bp, "shared_libs");
  const std::set<std::string> shared(libs.begin(), libs.end());
  EXPECT_TRUE(Includes(shared, {"libcutils", "libvela_client"}));
  const std::vector<std::string> required = BlueprintList(bp, "required");
  ASSERT_EQ(required.size(), 1u);
  std::ifstream daemon(TESK_DAEMON_PATH, std::ios::binary);
  const std::string binary(std::istreambuf_iterator<char>(daemon), {});
  EXPECT_NE(binary.find(required[0] + ".so"), std::string::npos) << required[0];

  // Every header the daemon includes is found on the device build's include
  // path: the listed folders, or the C library's and the kernel's headers.
  const std::vector<std::string> include_dirs = BlueprintList(bp, "local_include_dirs");
  const auto found = [&](const std::string& header, bool system) {
    for (const std::string& dir : include_dirs) {
      if (fs::exists(fs::path(TESK_SOURCE_DIR) / dir / header)) return true;
    }
    if (!system) return false;
    if (header.find('.') == std::string::npos || fs::exists("/usr/include/" + header)) return true;
    for (const fs::directory_entry& arch : fs::directory_iterator("/usr/include")) {
      if (fs::exists(arch.path() / header)) return true;
    }
    return false;
  };
  const std::regex include_line("#include\\s*([<\"])([^>\"]+)[>\"]");
  for (std::sregex_iterator it(code.begin(), code.end(), include_line), end; it != end; ++it) {
    EXPECT_TRUE(found((*it)[2], (*it)[1] == "<")) << (*it)[2];
  }

  // Every -D setting is one that the daemon's code reads.
  for (const std::string& flag : BlueprintList(bp, "cflags")) {
    if (flag.rfind("-D", 0) != 0) continue;
    const std::string macro = flag.substr(2, flag.find('=') - 2);
    EXPECT_NE(code.find(macro), std::string::npos) << macro;
  }
}

TEST(DeviceFiles, SocketAgreesWithPolicy) {
  const Rc rc = ReadRc(BlueprintList(Read("Android.bp"), "init_rc").at(0));
  ASSERT_EQ(rc.socket.size(), 6u);
  const std::string te = Read("sepolicy/tesk.te");
  const std::string macros = Read("sepolicy/te_macros");
  const std::string domain = DaemonDomain(te);
  const std::string socket_type = FileContexts()["/dev/socket/" + rc.socket[1]];
  const std::string socket_class = "unix_" + rc.socket[2] + "_socket";
  const mode_t mode = static_cast<mode_t>(std::stoul(rc.socket[3], nullptr, 8));

  EXPECT_FALSE(socket_type.empty()) << "no label for /dev/socket/" << rc.socket[1];
  EXPECT_TRUE(std::regex_search(te, std::regex("type\\s+" + socket_type + "\\s*,\\s*file_type")));
  // Clients must write the socket file to connect; others get nothing.
  EXPECT_EQ(mode & 0777, static_cast<mode_t>(0660)) << rc.socket[3];

  struct Row {
    const char* what;
    const std::string& policy;
    std::string source;
    std::string target;
    std::string cls;
    std::set<std::string> needed;
  };
  const Row rows[] = {
      {"daemon serves its socket", te, domain, "self", socket_class, {"listen", "accept"}},
      {"daemon reads nl80211",
       te,
       domain,
       "self",
       "netlink_generic_socket",
       {"create", "setopt", "read", "write"}},
      {"client writes the socket file", macros, "$1", socket_type, "sock_file", {"write"}},
      {"client connects to the daemon", macros, "$1", domain, socket_class, {"connectto"}},
  };
  for (const Row& row : rows) {
    EXPECT_TRUE(Includes(Allowed(row.policy, row.source, row.target, row.cls), row.needed))
        << row.what;
  }
  EXPECT_NE(macros.find("define(`" + domain + "_client'"), std::string::npos);
}

// Started the way the .rc says, the built daemon gets its socket under the
// name it asks for, and the IPC library serves on that type of socket.
TEST(DeviceFiles, DaemonServesOnTheSocketTheRcDeclares) {
  const Rc rc = ReadRc(BlueprintList(Read("Android.bp"), "init_rc").at(0));
  ASSERT_EQ(rc.socket.size(), 6u);
  tesk_test::TempDir dir;
  std::vector<std::string> args = tesk_test::NativeCommand(
      {TESK_HOSTINIT_PATH, "--socket-dir", dir.path(), "--name", rc.socket[1], "--type",
       rc.socket[2], "--mode", rc.socket[3], "--"});
  const std::vector<std::string> daemon = tesk_test::NativeCommand({TESK_DAEMON_PATH});
  args.insert(args.end(), daemon.begin(), daemon.end());
  std::vector<char*> argv = tesk_test::ArgumentPointers(args);
  pid_t launcher = -1;
  ASSERT_EQ(posix_spawn(&launcher, argv[0], nullptr, nullptr, argv.data(), environ), 0);

  const std::string path = dir.Join(rc.socket[1]);
  Object root = kNullObject;
  int connected = -1;
  for (int i = 0; i < 300 && connected != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    connected = teskclient::Connect(path, &root);
  }
  Object scan = kNullObject;
  const int32_t opened =
      connected == 0 ? teskclient::OpenService(root, kInterfaceDiscoveryScan, &scan) : -1;
  if (opened == OBJECT_OK) ObjectRelease(scan);
  if (connected == 0) ObjectRelease(root);
  kill(launcher, SIGTERM);
  waitpid(launcher, nullptr, 0);

  EXPECT_EQ(connected, 0) << path;
  EXPECT_EQ(opened, OBJECT_OK);
}

}  // namespace
