// The IPC library end to end over real sockets and a real peer process:
// objects crossing both ways, peers that die, stall or send garbage (only their
// connection ends, what they held is released once), and how a service ends.
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frame.h"
#include "gtest/gtest.h"
#include "harness.h"
#include "tests/support/emulator.h"

namespace tarnsocket::ipc_test {
namespace {

// The line the library logs when it ends a connection to this process.
std::string ClosedLine(const std::string& why) {
  return "E tarnsocket: Connection to pid " + std::to_string(getpid()) + " closed: " + why + "\n";
}

template <typename T>
Bytes Raw(const T& value) {
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&value);
  return Bytes(bytes, bytes + sizeof value);
}

// Header fields: body_size, type, depth, reserved, call_id, handle, code, counts.
Bytes Frame(const FrameHeader& header, std::initializer_list<Bytes> body = {}) {
  Bytes bytes = Raw(header);
  for (const Bytes& part : body) bytes.insert(bytes.end(), part.begin(), part.end());
  return bytes;
}

Object Return(Object root, Object in) {
  ObjectArg args[2] = {Obj(in), Obj(kNullObject)};
  EXPECT_EQ(Call(root, kOpReturn, args, OBJECT_COUNTS(0, 0, 1, 1)), 0);
  return args[1].o;
}

class IpcObjectsTest : public ::testing::Test {
 protected:
  // Megabytes go to callbacks, which may take their time under a sanitizer.
  ScopedEnvironment patient_{{"TARN_CALLBACK_TIMEOUT_MS", "10000"}};
  Served served_;
  Object root_ = served_.Connect();
};

int32_t Echo(Object root, uint32_t value, Object target) {
  ObjectArg args[2] = {Buf(&value, sizeof value), Obj(target)};
  return Call(root, kOpEcho, args, OBJECT_COUNTS(1, 0, 1, 0));
}

// Megabytes echoed back to us from two threads at once, both directions full
// while small calls go on: neither end may stop reading while it waits to
// write, or both would wait for the call timeout. The service checks the
// slack behind every buffer it is given.
TEST_F(IpcObjectsTest, BuffersArriveWholeBothWaysWithZeroSlackBehindEach) {
  const Bytes data = Pattern(8u << 20, 1);
  Counted callback;
  callback.on_call = [&data](uint32_t, ObjectArg* in, uint32_t counts) {
    const bool whole = counts == 1 && in[0].b.size == data.size();
    return whole && memcmp(in[0].b.ptr, data.data(), data.size()) == 0 ? 0 : 1;
  };
  ASSERT_EQ(Store(root_, callback.AsObject()), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      ObjectArg args[1] = {Buf(data.data(), data.size())};
      for (int i = 0; i < 2; ++i) EXPECT_EQ(Call(root_, kOpEcho, args, 1), 0);
    });
  }
  // Back to back here: what follows each in our memory must not show there.
  const uint64_t sizes[] = {0, 1, 15, 16, 63, 64, 65, 1000};
  ObjectArg small[8];
  for (unsigned i = 0, at = 0; i < 8; at += sizes[i++]) small[i] = Buf(&data[at], sizes[i]);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(Call(root_, kOpChecksum, small, 8), Checksum(small, 8));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(callback.calls, 4);
  EXPECT_EQ(Store(root_, kNullObject), 0);
  ObjectRelease(root_);
  EXPECT_EQ(callback.Settle(), 0);
}

TEST_F(IpcObjectsTest, ObjectsKeepTheirIdentityAndReferencesBalance) {
  // Ours, passed out and back: the original again.
  Counted mine;
  const Object returned = Return(root_, mine.AsObject());
  EXPECT_EQ(returned.context, &mine);
  ObjectRelease(returned);
  EXPECT_EQ(mine.Settle(), 0);

  // The service's, fetched twice: one proxy; passed back: the original.
  const Object first = Return(root_, kNullObject), second = Return(root_, kNullObject);
  EXPECT_EQ(first.context, second.context);
  const Object back = Return(root_, first);
  EXPECT_EQ(back.context, first.context);
  EXPECT_EQ(Call(back, 0), 7);
  EXPECT_EQ(served_.counted.calls, 1);
  for (Object object : {back, first, second}) ObjectRelease(object);
  EXPECT_GT(served_.counted.retains, 0);
  EXPECT_EQ(served_.counted.Settle(), 0);

  ObjectRelease(root_);
  served_.root.AwaitReleases(1);
  EXPECT_EQ(served_.root.Held(), 0);
}

// Threads on connections of their own, then all on one shared connection.
// Now and then each has its callback called while it waits in its own call,
// and asks from there for a delivery one level less deep.
TEST_F(IpcObjectsTest, ConcurrentCallersAndNestedCallbacks) {
  for (bool shared : {false, true}) {
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 6; ++t) {
      threads.emplace_back([this, t, shared] {
        const Object root = shared ? root_ : served_.Connect();
        Counted callback;
        callback.on_call = [&](uint32_t, ObjectArg* in, uint32_t) {
          const uint32_t depth = *static_cast<uint32_t*>(in[0].b.ptr);
          return depth == 0 ? 100 : Echo(root, depth - 1, callback.AsObject()) + 1;
        };
        for (uint32_t i = 0; i < 200; ++i) {
          const Bytes data = Pattern(64 + t * 1000, t * 1000 + i);
          ObjectArg args[1] = {Buf(data.data(), data.size())};
          ASSERT_EQ(Call(root, kOpChecksum, args, 1), Checksum(args, 1));
          if (i % 50 == 0) {
            ASSERT_EQ(Echo(root, 3, callback.AsObject()), 103);
          }
        }
        EXPECT_EQ(callback.calls, 16);
        if (!shared) ObjectRelease(root);
        EXPECT_EQ(callback.Settle(), 0);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  ObjectRelease(root_);
}

// Not a test of its own: the peer process of the next test, which runs this
// binary again with IPC_PEER_SOCKET set. It holds the service's `counted`,
// leaves a callback and keeps a call open; called back, it says so by calling
// `counted`, then never answers.
TEST(IpcPeer, HoldsUntilKilled) {
  const char* socket_path = getenv("IPC_PEER_SOCKET");
  if (socket_path == nullptr) GTEST_SKIP() << "runs only as another test's peer process";
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Object root;
  ASSERT_EQ(TarnIPC_connect(socket_path, &root), 0);
  const Object counted = Return(root, kNullObject);
  Counted callback;
  callback.on_call = [counted](uint32_t, ObjectArg*, uint32_t) -> int32_t {
    Call(counted, 0);
    for (;;) pause();
  };
  ASSERT_EQ(Store(root, callback.AsObject()), 0);
  // Keeps a service worker busy with this connection, so that a service
  // thread calling us reads our answer itself.
  Call(root, kOpBlock);
}

TEST(IpcPeerFailureTest, KilledClientReleasesWhatItHeldAndItsObjectsFailAtOnce) {
  // Like an event source that delivers under its lock, and whose objects
  // take that lock when released: the death, noticed by the delivering
  // thread, must not run those releases on that thread.
  std::mutex delivery;
  // So long that the failures below can only come from noticing the death.
  setenv("TARN_CALL_TIMEOUT_MS", "600000", 1);
  setenv("TARN_CALLBACK_TIMEOUT_MS", "600000", 1);
  Served served;
  setenv("IPC_PEER_SOCKET", served.path.c_str(), 1);
  std::vector<std::string> command =
      tesk_test::NativeCommand({"/proc/self/exe", "--gtest_filter=IpcPeer.*", "--gtest_brief=1"});
  std::vector<char*> argv = tesk_test::ArgumentPointers(command);
  pid_t peer = -1;
  ASSERT_EQ(posix_spawn(&peer, argv[0], nullptr, nullptr, argv.data(), environ), 0);
  unsetenv("IPC_PEER_SOCKET");
  while (!served.blocked) Pause();
  EXPECT_EQ(served.counted.Held(), 1);  // the library's, for the peer
  const Object callback = served.Stored();
  ASSERT_FALSE(IsNullObject(callback));

  served.counted.on_release = [&delivery] { std::lock_guard<std::mutex> lock(delivery); };
  int32_t delivered = 0;
  std::thread caller([&] {
    std::lock_guard<std::mutex> lock(delivery);
    const char byte = 0;
    ObjectArg args[1] = {Buf(&byte, 1)};
    delivered = Call(callback, 0, args, 1);
  });
  while (served.counted.calls == 0) Pause();  // the peer now sits in its callback
  kill(peer, SIGKILL);
  caller.join();
  served.unblocked = true;
  EXPECT_NE(delivered, 0);
  EXPECT_EQ(Call(callback, 0), TARN_IPC_ERROR_DEAD);
  EXPECT_EQ(served.counted.Settle(), 0);
  served.root.AwaitReleases(1);
  EXPECT_EQ(served.root.Held(), 0);
  waitpid(peer, nullptr, 0);
  unsetenv("TARN_CALL_TIMEOUT_MS");
  unsetenv("TARN_CALLBACK_TIMEOUT_MS");
}

FrameHeader ReadHeader(int fd) {
  FrameHeader header{};
  EXPECT_EQ(recv(fd, &header, sizeof header, MSG_WAITALL), static_cast<ssize_t>(sizeof header));
  return header;
}

// Raw clients that send garbage, dawdle, exceed a limit, or leave a callback
// and then never answer or never read: the service refuses their call with
// an answer at once, or ends only their connection, and says why, while a
// bystander is served throughout.
TEST(IpcPeerFailureTest, BadPeersLoseOnlyTheirConnection) {
  const uint32_t one_obj = OBJECT_COUNTS(0, 0, 1, 0);
  const Bytes store_callback = Frame({8, kFrameInvoke, 0, {}, 1, 0, kOpStore, one_obj},
                                     {Raw(ObjectRef{kRefSenderExport, 5})});
  const Bytes block = Frame({0, kFrameInvoke, 1, {}, 1, 0, kOpBlock, 0});
  const std::string kSizes = "malformed frame: sizes do not add up to the frame";
  const std::string kNeverGiven = "malformed frame: release of references never given";
  const std::string kSlow = "frame not whole within 300 ms";
  const struct {
    std::string why;  // the line logged
    Bytes bytes;
    uint64_t delivered = 0;  // size of calls then made to its callback...
    int calls = 0;           // ...this many, each failing with `result`
    int32_t result = TARN_IPC_ERROR_TIMEOUT;
    int32_t last = 0;     // of the last call, if not `result`
    bool hold = false;    // the client keeps its end open: the service ends it
    int32_t refused = 0;  // the last call is answered with this; the connection stays
  } cases[] = {
      {"peer took no data for 300 ms", store_callback, 16u << 20, 1},
      {"a call of more than 67108864 bytes cannot be sent", store_callback, kMaxBodySize + 1, 1,
       OBJECT_ERROR_INVALID},
      // The first call is waited for; the rest go out one by one as answers
      // come, which they never do. (Last of the rows that call back: this
      // process is then remembered as slow.)
      {"65 calls wait for answers that do not come", store_callback, 64, 66, TARN_IPC_ERROR_TIMEOUT,
       TARN_IPC_ERROR_DEAD},
      {kSlow, Bytes(10), 0, 0, 0, 0, true},
      {kSlow, Frame({100000, kFrameInvoke, 1, {}, 1, 0, 0, 1}, {Raw(uint64_t{99992}), Bytes(5000)}),
       0, 0, 0, 0, true},
      {"call of 2000000 bytes, more than the limit of 1048576",
       Frame({2000000, kFrameInvoke, 1, {}, 1, 0, 0, 0})},
      {"calls refused: nested 200 deep, more than 32",
       Frame({0, kFrameInvoke, 200, {}, 1, 0, kOpChecksum, 0}), 0, 0, 0, 0, false,
       TARN_IPC_ERROR_TOO_DEEP},
      {"calls refused: 2 in flight already", Bytes(), 0, 0, 0, 0, false, TARN_IPC_ERROR_BUSY},
      {"malformed frame: reserved field set", Bytes(64, 0xFF)},
      {"malformed frame: frame too large", Frame({0xFFFFFFF0u, kFrameInvoke, 0, {}, 1, 0, 0, 1})},
      {kSizes, Frame({18, kFrameInvoke, 0, {}, 1, 0, 0, 1}, {Raw(uint64_t{20}), Bytes(10)})},
      // Sizes that wrap around to the 7 bytes carried.
      {kSizes,
       Frame({23, kFrameInvoke, 0, {}, 1, 0, 0, 2}, {Raw(~0ull), Raw(uint64_t{8}), Bytes(7)})},
      {"malformed frame: call of an unknown handle", Frame({0, kFrameInvoke, 0, {}, 1, 99, 0, 0})},
      {kNeverGiven, Frame({0, kFrameRelease, 0, {}, 0, 42, 1, 0})},
      {kNeverGiven, Frame({0, kFrameRelease, 0, {}, 0, 0, 5, 0})},
      {"malformed frame: answer to no call", Frame({0, kFrameReply, 0, {}, 1, 0, 0, 0})},
      {"malformed frame: bad object reference",
       Frame({8, kFrameInvoke, 0, {}, 1, 0, 0, one_obj}, {Raw(ObjectRef{7, 0})})},
      {"malformed frame: unknown handle passed back",
       Frame({8, kFrameInvoke, 0, {}, 1, 0, 0, one_obj}, {Raw(ObjectRef{kRefReceiverExport, 50})})},
      {"peer ended the stream in the middle of a frame",
       Frame({100, kFrameInvoke, 0, {}, 1, 0, 0, 1}, {Bytes(10)})},
  };
  Served served;
  const Object bystander = served.Connect();
  ScopedEnvironment limits({{"TARN_CALLBACK_TIMEOUT_MS", "300"},
                            {"TARN_FRAME_TIMEOUT_MS", "300"},
                            {"TARN_MAX_CALL_BYTES", "1048576"},
                            {"TARN_MAX_CALLS_IN_FLIGHT", "2"}});
  int ended = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    testing::internal::CaptureStderr();
    Bytes bytes = c.bytes;
    if (c.refused == TARN_IPC_ERROR_BUSY) {
      for (uint32_t id = 1; id <= 3; ++id) {
        Bytes call = block;
        call[8] = static_cast<uint8_t>(id);
        bytes.insert(bytes.end(), call.begin(), call.end());
      }
    }
    const int fd = served.RawConnect(bytes);
    if (c.calls > 0) {
      while (IsNullObject(served.Stored())) Pause();
      const Object callback = served.Stored();
      ObjectRetain(callback);
      EXPECT_EQ(Store(bystander, kNullObject), 0);
      // Sizes beyond the frame limit are refused before a byte is read.
      const Bytes data(c.delivered > kMaxBodySize ? 1 : c.delivered, 1);
      for (int i = 0; i < c.calls; ++i) {
        ObjectArg args[1] = {Buf(data.data(), c.delivered)};
        const bool last = i + 1 == c.calls && c.last != 0;
        EXPECT_EQ(Call(callback, 0, args, 1), last ? c.last : c.result);
        EXPECT_EQ(Call(bystander, kOpChecksum), Checksum(nullptr, 0));
      }
      ObjectRelease(callback);
    }
    if (c.refused != 0) {
      const FrameHeader answer = ReadHeader(fd);
      EXPECT_EQ(answer.type, kFrameReply);
      EXPECT_EQ(static_cast<int32_t>(answer.code), c.refused);
      EXPECT_EQ(answer.call_id, 1u + (c.refused == TARN_IPC_ERROR_BUSY ? 2 : 0));
    }
    if (c.refused == TARN_IPC_ERROR_BUSY) {
      served.unblocked = true;  // the two calls in flight may end now
    }
    if (!c.hold) shutdown(fd, SHUT_WR);
    char byte[64];
    while (read(fd, byte, sizeof byte) > 0) {
    }  // ended without a word but the answers owed
    served.root.AwaitReleases(++ended);
    close(fd);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string line = c.refused != 0 ? "W tarnsocket: Connection to pid " +
                                                  std::to_string(getpid()) + ": " + c.why + "\n"
                                            : ClosedLine(c.why);
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(Call(bystander, kOpChecksum), Checksum(nullptr, 0));
  }
  ObjectRelease(bystander);
  served.root.AwaitReleases(ended + 1);
  EXPECT_EQ(served.root.Held(), 0);
}

// A chain of callbacks nested deeper than the limit fails at once with its
// own result, not after a timeout, and holds no worker afterwards.
TEST_F(IpcObjectsTest, CallsNestedTooDeeplyFailAtOnce) {
  Counted callback;
  callback.on_call = [&](uint32_t, ObjectArg* in, uint32_t) {
    const uint32_t depth = *static_cast<uint32_t*>(in[0].b.ptr);
    if (depth == 0) return 100;
    const int32_t inner = Echo(root_, depth - 1, callback.AsObject());
    return inner < 0 ? inner : inner + 1;
  };
  const auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  EXPECT_EQ(Echo(root_, 1000, callback.AsObject()), TARN_IPC_ERROR_TOO_DEEP);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_NE(log.find("calls refused: nested 33 deep, more than 32"), std::string::npos) << log;
  EXPECT_EQ(Echo(root_, 10, callback.AsObject()), 110);
  ObjectRelease(root_);
  EXPECT_EQ(callback.Settle(), 0);
}

// A peer that holds the limit of our objects gets no more (the answer says
// so, the objects are released at once) until it lets one go; another peer
// is not counted against it.
TEST(IpcLimitTest, ExportsPerConnectionAreBounded) {
  ScopedEnvironment limits({{"TARN_MAX_EXPORTS", "3"}});
  Served served;
  const Object greedy = served.Connect(), bystander = served.Connect();
  const auto nth = [](Object root, uint32_t n, Object* out) {
    ObjectArg args[2] = {Buf(&n, sizeof n), Obj(kNullObject)};
    const int32_t result = Call(root, kOpNth, args, OBJECT_COUNTS(1, 0, 0, 1));
    *out = args[1].o;
    return result;
  };
  Object held[3], other[2];
  EXPECT_EQ(nth(greedy, 0, &held[0]), 0);
  EXPECT_EQ(nth(greedy, 1, &held[1]), 0);  // the root is the third
  testing::internal::CaptureStderr();
  EXPECT_EQ(nth(greedy, 2, &held[2]), TARN_IPC_ERROR_TOO_MANY_OBJECTS);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(IsNullObject(held[2]));
  EXPECT_EQ(served.many[2].Settle(), 0);
  EXPECT_NE(log.find("objects refused: 3 exported to it already"), std::string::npos) << log;
  for (uint32_t n = 0; n < 2; ++n) EXPECT_EQ(nth(bystander, n + 2, &other[n]), 0);
  ObjectRelease(held[0]);
  EXPECT_EQ(nth(greedy, 2, &held[2]), 0);
  for (Object object : {held[1], held[2], other[0], other[1], greedy, bystander}) {
    ObjectRelease(object);
  }
  for (Counted& counted : served.many) EXPECT_EQ(counted.Settle(), 0);
}

TEST(IpcServiceTest, RefusesWhatCannotServeAndStopOrShutdownEndsJoin) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int datagram = socket(AF_UNIX, SOCK_DGRAM, 0);
  for (int fd : {datagram, fds[0]}) {
    EXPECT_EQ(TarnIPC_startServiceOnSocket(fd, &Counted::Invoke, nullptr), nullptr);
  }
  for (int fd : {datagram, fds[0], fds[1]}) close(fd);

  for (bool stop : {true, false}) {
    SCOPED_TRACE(stop ? "stop" : "shutdown");
    Served served;
    Object root = served.Connect();
    Counted callback;
    ASSERT_EQ(Store(root, callback.AsObject()), 0);
    testing::internal::CaptureStderr();
    if (stop) TarnIPC_stopService(served.service);
    if (!stop) shutdown(served.fd, SHUT_RDWR);
    TarnIPC_join(served.service);
    EXPECT_EQ(served.root.Held(), 0);
    EXPECT_EQ(Call(root, kOpChecksum), TARN_IPC_ERROR_DEAD);
    EXPECT_EQ(callback.Settle(), 0);  // the client learnt of the end
    ObjectRelease(root);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string ended = "E tarnsocket: Service ends: the listening socket was shut down\n";
    EXPECT_EQ(log.find(ended) != std::string::npos, !stop) << log;
  }
}

}  // namespace
}  // namespace tarnsocket::ipc_test
