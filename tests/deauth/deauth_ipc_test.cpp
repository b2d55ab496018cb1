// The deauth monitor served over the real IPC library on a Unix socket,
// with kernel-shaped disconnect events fed to its detector through a
// socket pair, and real client processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "deauth/deauth_monitor.h"
#include "deauth/deauth_monitor_object.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"
#include "tests/deauth/kernel_message.h"
#include "tests/deauth/test_support.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace {

using deauth_test::DatagramPair;
using deauth_test::DisconnectEvent;
using deauth_test::EventRecorder;
using deauth_test::FakeCallback;

// A client callback as the monitor sees it, wrapped so that the test can
// count what the monitor does with it; everything is passed on.
class TrackedCallback {
 public:
  explicit TrackedCallback(Object inner) : inner_(inner) {}

  Object object() { return Object{&TrackedCallback::Invoke, this}; }

  int retains() { return Get(retains_); }
  int releases() { return Get(releases_); }
  int deliveries() { return Get(deliveries_); }
  int bad_deliveries() { return Get(bad_deliveries_); }
  void WaitForReleases(int n) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return releases_ >= n; });
  }

 private:
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<TrackedCallback*>(context);
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      switch (op & OBJECT_OP_MASK) {
        case OBJECT_OP_RETAIN:
          ++self->retains_;
          break;
        case OBJECT_OP_RELEASE:
          ++self->releases_;
          break;
        default:
          ++self->deliveries_;
          if (counts != OBJECT_COUNTS(1, 0, 0, 0) || args[0].b.size != sizeof(DeauthEvent)) {
            ++self->bad_deliveries_;
          }
          break;
      }
      self->changed_.notify_all();
    }
    return self->inner_.invoke(self->inner_.context, op, args, counts);
  }

  int Get(const int& field) {
    std::lock_guard<std::mutex> lock(mutex_);
    return field;
  }

  Object inner_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int retains_ = 0;
  int releases_ = 0;
  int deliveries_ = 0;
  int bad_deliveries_ = 0;  // not one 16-byte record
};

// The served root: interface 30 is the real monitor object, except that
// each registered callback is wrapped in a TrackedCallback first.
class HarnessRoot {
 public:
  Object object() { return Object{&HarnessRoot::RootInvoke, this}; }

  // The index-th registration made through the IPC library, once made.
  TrackedCallback* WaitForRegistration(size_t index) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return registrations_.size() > index; });
    return registrations_[index].get();
  }

 private:
  static int32_t RootInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    const int32_t result = root_invoke(nullptr, op, args, counts);
    // Only the monitor is served here: scans would start the location client.
    if (result != OBJECT_OK || (op & OBJECT_OP_MASK) != OBJECT_OP_METHOD) return result;
    if (args[1].o.invoke != &deauth_monitor_invoke) {
      args[1].o = kNullObject;
      return OBJECT_ERROR_INVALID;
    }
    args[1].o = Object{&HarnessRoot::MonitorInvoke, context};
    return OBJECT_OK;
  }

  static int32_t MonitorInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* self = static_cast<HarnessRoot*>(context);
    if ((op & OBJECT_OP_MASK) != OBJECT_OP_METHOD || counts != OBJECT_COUNTS(0, 0, 1, 1)) {
      return deauth_monitor_invoke(nullptr, op, args, counts);
    }
    auto tracked = std::make_unique<TrackedCallback>(args[0].o);
    ObjectArg wrapped[2];
    wrapped[0].o = tracked->object();
    wrapped[1].o = kNullObject;
    const int32_t result = deauth_monitor_invoke(nullptr, op, wrapped, counts);
    args[1].o = wrapped[1].o;
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->registrations_.push_back(std::move(tracked));
    self->changed_.notify_all();
    return result;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<TrackedCallback>> registrations_;
};

// A child process whose stdout the test reads line by line.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fdopen(fds[0], "r");
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    if (out_ != nullptr) fclose(out_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0 && out_ != nullptr; }

  // The next line without its newline; empty at the end of the output.
  std::string ReadLine() {
    char line[512];
    if (fgets(line, sizeof line, out_) == nullptr) return "";
    std::string text(line);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }

  void Signal(int signo) { kill(pid_, signo); }

  // The wait status.
  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
};

class DeauthOverIpcTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The monitor is a process-wide singleton: its detector listens once,
    // on a pair that stands in for the kernel's nl80211 socket.
    static DatagramPair kernel;
    static const bool listening = DeauthMonitor::Get().StartListenerForTesting(
        kernel.TakeFirst(), deauth_test::kNl80211Family);
    ASSERT_TRUE(listening);
    kernel_ = &kernel;
  }

  void SetUp() override {
    socket_path_ = dir_.Join("tesk");
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listen_fd_, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socket_path_.size(), sizeof address.sun_path);
    strcpy(address.sun_path, socket_path_.c_str());
    ASSERT_EQ(bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    service_ = TarnIPC_startServiceOnSocket(listen_fd_, root_.object().invoke, &root_);
    ASSERT_NE(service_, nullptr);

    // An in-process registration marks the end of each delivery round.
    sentinel_token_ = Register(sentinel_.object());
  }

  void TearDown() override {
    if (!IsNullObject(sentinel_token_)) ObjectRelease(sentinel_token_);
    if (service_ != nullptr) {
      TarnIPC_stopService(service_);
      TarnIPC_join(service_);
    }
    if (listen_fd_ >= 0) close(listen_fd_);
  }

  static Object Register(Object callback) {
    ObjectArg args[2];
    args[0].o = callback;
    args[1].o = kNullObject;
    EXPECT_EQ(deauth_monitor_invoke(nullptr, 0, args, OBJECT_COUNTS(0, 0, 1, 1)), 0);
    return args[1].o;
  }

  // Injects events as the kernel would send them and waits until the
  // monitor has delivered the last of them to every registration.
  void InjectAndWait(const std::vector<DeauthEvent>& events) {
    for (const DeauthEvent& e : events) {
      ASSERT_TRUE(kernel_->Send(DisconnectEvent(static_cast<uint32_t>(e.wiphy),
                                                static_cast<uint32_t>(e.ifindex),
                                                static_cast<uint16_t>(e.reason), e.by_ap != 0)));
    }
    delivered_ += events.size();
    recorder_.WaitFor(delivered_);
  }

  static DatagramPair* kernel_;
  tesk_test::TempDir dir_;
  std::string socket_path_;
  int listen_fd_ = -1;
  void* service_ = nullptr;
  HarnessRoot root_;
  EventRecorder recorder_;
  FakeCallback sentinel_{&recorder_};
  Object sentinel_token_ = kNullObject;
  size_t delivered_ = 0;
};

DatagramPair* DeauthOverIpcTest::kernel_ = nullptr;

TEST_F(DeauthOverIpcTest, KilledClientIsDroppedFromTheListeners) {
  Child client({DEAUTH_IPC_CLIENT, socket_path_});
  ASSERT_TRUE(client.started());
  ASSERT_EQ(client.ReadLine(), "registered");
  TrackedCallback* callback = root_.WaitForRegistration(0);
  EXPECT_EQ(callback->retains(), 1);

  InjectAndWait({{1, 4, 7, 1}});
  EXPECT_EQ(client.ReadLine(), "event 1 4 7 1 size 16");

  client.Signal(SIGKILL);
  const int status = client.Wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  // The library drops the dead client's token; the monitor then releases
  // the callback. Blocks until it does (the test's own timeout catches a hang).
  callback->WaitForReleases(1);

  InjectAndWait({{2, 5, 3, 0}});
  EXPECT_EQ(callback->retains(), 1);
  EXPECT_EQ(callback->releases(), 1);
  EXPECT_EQ(callback->deliveries(), 1) << "nothing delivered after the drop";
  EXPECT_EQ(callback->bad_deliveries(), 0);
}

TEST_F(DeauthOverIpcTest, TeskctlWatchPrintsEachEventInOrder) {
#ifndef TESKCTL
  GTEST_SKIP() << "teskctl is not built in this tree";
#else
  struct Mode {
    std::vector<std::string> options;
    std::vector<std::string> lines;
  };
  const Mode modes[] = {
      {{"--json"},
       {R"({"wiphy":1,"ifindex":4,"reason":7,"by_ap":true})",
        R"({"wiphy":0,"ifindex":3,"reason":0,"by_ap":false})",
        R"({"wiphy":2,"ifindex":9,"reason":65535,"by_ap":false})"}},
      {{},
       {"disconnect: wiphy 1, ifindex 4, reason 7, by access point",
        "disconnect: wiphy 0, ifindex 3, reason 0, local",
        "disconnect: wiphy 2, ifindex 9, reason 65535, local"}},
  };
  size_t registration = 0;
  for (const Mode& mode : modes) {
    std::vector<std::string> argv = {TESKCTL, "--socket", socket_path_};
    argv.insert(argv.end(), mode.options.begin(), mode.options.end());
    argv.push_back("watch");
    Child watch(argv);
    ASSERT_TRUE(watch.started());
    TrackedCallback* callback = root_.WaitForRegistration(registration++);

    InjectAndWait({{1, 4, 7, 1}, {0, 3, 0, 0}, {2, 9, 65535, 0}});
    for (const std::string& line : mode.lines) EXPECT_EQ(watch.ReadLine(), line);

    watch.Signal(SIGINT);
    const int status = watch.Wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
    // teskctl released its token on the way out; the monitor let go of it.
    callback->WaitForReleases(1);
    EXPECT_EQ(callback->retains(), 1);
    EXPECT_EQ(callback->deliveries(), 3);
    EXPECT_EQ(callback->bad_deliveries(), 0);
  }
#endif
}

TEST_F(DeauthOverIpcTest, TeskctlWatchEndsWhenTheDaemonGoes) {
#ifndef TESKCTL
  GTEST_SKIP() << "teskctl is not built in this tree";
#else
  Child watch({TESKCTL, "--socket", socket_path_, "watch"});
  ASSERT_TRUE(watch.started());
  TrackedCallback* callback = root_.WaitForRegistration(0);

  TarnIPC_stopService(service_);
  TarnIPC_join(service_);
  service_ = nullptr;
  const int status = watch.Wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << "wait status " << status;
  callback->WaitForReleases(1);
  EXPECT_EQ(callback->retains(), 1);
#endif
}

}  // namespace
