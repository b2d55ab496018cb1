// One disconnect event delivered by the daemon's deauth monitor, served
// through the IPC library, to 100 watching client processes; against 100
// raw round trips of the same 16-byte record (4 bytes back, like a call's
// result) to 100 processes. Everything runs on one core; event and raw
// rounds alternate and their medians are compared.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include <tesk/deauth_event.h>
#include <tesk/interfaces.h>

#include "benchmarks/support/bench_support.h"
#include "deauth/deauth_monitor.h"
#include "service/root_object.h"
#include "tarnsocket/tarn_ipc.h"
#include "teskclient/callback_object.h"
#include "teskclient/session.h"

namespace {

constexpr int kWatchers = 100;
constexpr size_t kAnswer = 4;

// A raw peer: answers each event record with 4 bytes.
[[noreturn]] void RawPeer(int fd) {
  prctl(PR_SET_NAME, "raw peer");  // for profiles
  DeauthEvent event{};
  uint32_t answer = 0;
  while (bench::ReadFull(fd, &event, sizeof event) && bench::WriteFull(fd, &answer, kAnswer)) {
  }
  _exit(0);
}

// A watcher: once `start` ends, connects, registers a callback with the
// monitor, says so on `ready` and waits to be killed.
[[noreturn]] void Watcher(const std::string& path, int start, int ready) {
  prctl(PR_SET_NAME, "watcher");
  char byte;
  (void)!read(start, &byte, 1);
  Object root = kNullObject, monitor = kNullObject;
  byte = 0;
  if (teskclient::Connect(path, &root) == 0 &&
      teskclient::OpenService(root, kInterfaceDeauthMonitor, &monitor) == OBJECT_OK) {
    static std::atomic<long> events{0};
    Object callback = teskclient::MakeCallbackObject([](const ObjectArg* args, uint32_t) {
      if (static_cast<const DeauthEvent*>(args[0].b.ptr)->reason != 0) ++events;
    });
    ObjectArg args[2];
    args[0].o = callback;
    args[1].o = kNullObject;
    if (monitor.invoke(monitor.context, OBJECT_OP_METHOD, args, kDeauthRegisterCounts) ==
        OBJECT_OK) {
      byte = 1;
    }
  }
  bench::WriteFull(ready, &byte, 1);
  for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const bench::Options options = bench::ParseOptions(argc, argv);
  if (!bench::PinToOneCore()) std::printf("@note could not pin to one core\n");
  const std::string path = "/tmp/tesk_bench_fanout_" + std::to_string(getpid());
  unlink(path.c_str());

  // Every child is forked before this process starts a thread.
  std::vector<pid_t> children;
  std::vector<int> raw;
  for (int i = 0; i < kWatchers; ++i) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 1;
    const pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      RawPeer(fds[1]);
    }
    close(fds[1]);
    children.push_back(pid);
    raw.push_back(fds[0]);
  }
  int start[2], ready[2];
  if (pipe(start) != 0 || pipe(ready) != 0) return 1;
  for (int i = 0; i < kWatchers; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      close(start[1]);
      close(ready[0]);
      for (int fd : raw) close(fd);
      Watcher(path, start[0], ready[1]);
    }
    children.push_back(pid);
  }
  close(start[0]);
  close(ready[1]);

  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  void* service = nullptr;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    service = TarnIPC_startServiceOnSocket(listener, root_invoke, nullptr);
  }
  close(start[1]);  // the watchers connect
  int registered = 0;
  for (char byte = 0; registered < kWatchers && bench::ReadFull(ready[0], &byte, 1) && byte == 1;) {
    ++registered;
  }

  const int rounds = options.quick ? 3 : 400;
  std::vector<double> event_ns, raw_ns;
  bool ok = service != nullptr && registered == kWatchers;
  for (int r = 0; r < rounds && ok; ++r) {
    const double before = bench::NowNs();
    DeauthMonitor::Get().OnDeauth(1, 4, 7, true);
    const double middle = bench::NowNs();
    const DeauthEvent event{1, 4, 7, 1};
    uint32_t answer = 0;
    for (int fd : raw) {
      ok =
          ok && bench::WriteFull(fd, &event, sizeof event) && bench::ReadFull(fd, &answer, kAnswer);
    }
    event_ns.push_back(middle - before);
    raw_ns.push_back(bench::NowNs() - middle);
  }
  const std::string figure = "one event to " + std::to_string(kWatchers) + " watching processes";
  if (ok) {
    const double event = bench::Median(event_ns), base = bench::Median(raw_ns);
    bench::PrintRow(bench::RatioRow(figure + ", one core", bench::FormatNs(event),
                                    bench::FormatNs(base), event / base, 1.3));
  } else {
    bench::PrintNotMeasured(figure, std::to_string(registered) + " of " +
                                        std::to_string(kWatchers) + " watchers registered");
  }

  for (pid_t pid : children) kill(pid, SIGKILL);
  for (pid_t pid : children) waitpid(pid, nullptr, 0);
  for (int fd : raw) close(fd);
  if (service != nullptr) {
    TarnIPC_stopService(service);
    TarnIPC_join(service);
  }
  close(listener);
  unlink(path.c_str());
  return 0;
}
