// The IPC library end to end over real sockets: objects crossing both ways,
// peers that die, stall or send garbage (only their connection ends, what they
// held is released once).
#include <string.h>

#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "frame.h"
#include "gtest/gtest.h"
#include "harness.h"

namespace tarnsocket::ipc_test {
namespace {

template <typename T>
Bytes Raw(const T& value) {
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&value);
  return Bytes(bytes, bytes + sizeof value);
}

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes bytes;
  for (const Bytes& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
  return bytes;
}

// Header fields: body_size, type, depth, reserved, call_id, handle, code, counts.
Bytes Frame(const FrameHeader& header, std::initializer_list<Bytes> body = {}) {
  return Cat({Raw(header), Cat(body)});
}

// Reads a frame; returns its header.
FrameHeader ReadFrame(int fd) {
  FrameHeader header{};
  EXPECT_EQ(recv(fd, &header, sizeof header, MSG_WAITALL), static_cast<ssize_t>(sizeof header));
  Bytes body(header.body_size);
  if (!body.empty()) {  // a read of nothing would wait for something
    EXPECT_EQ(recv(fd, body.data(), body.size(), MSG_WAITALL), static_cast<ssize_t>(body.size()));
  }
  return header;
}

Bytes Pattern(size_t size, uint32_t seed) {
  std::minstd_rand random(seed);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 8);
  return bytes;
}

int32_t Nth(Object root, uint32_t n, Object* out) {
  ObjectArg args[2] = {Buf(&n, sizeof n), Obj(kNullObject)};
  const int32_t result = Call(root, kOpReturn, args, OBJECT_COUNTS(1, 0, 0, 1));
  *out = args[1].o;
  return result;
}

int32_t Echo(Object root, uint32_t value, Object target) {
  ObjectArg args[2] = {Buf(&value, sizeof value), Obj(target)};
  return Call(root, kOpEcho, args, OBJECT_COUNTS(1, 0, 1, 0));
}

// Called with n, asks while it is called for a delivery of n - 1 to itself:
// the result counts the levels from 100 at the bottom, or is the first failure.
struct Nested : Counted {
  explicit Nested(Object root) {
    on_call = [this, root](uint32_t, ObjectArg* in, uint32_t) {
      const uint32_t depth = *static_cast<uint32_t*>(in[0].b.ptr);
      const int32_t inner = depth == 0 ? 99 : Echo(root, depth - 1, AsObject());
      return inner < 0 ? inner : inner + 1;
    };
  }
};

// Threads on connections of their own and on one shared connection make
// calls of many buffers, while two threads have megabytes echoed back: both directions full at
// once, so neither end may stop reading while it waits to write. Then a chain nested deeper than
// the limit fails at once with its own result and holds no worker afterwards.
TEST(IpcObjectsTest, ConcurrentCallsBothWaysAndNestedCallbacks) {
  // Megabytes go to callbacks, which may take their time under a sanitizer.
  ScopedEnv patient{"TARN_CALLBACK_TIMEOUT_MS", "10000"};
  Served served;
  const Object shared = served.Connect();
  const Bytes big = Pattern(8u << 20, 1);
  Counted echoed;
  echoed.on_call = [&big](uint32_t, ObjectArg* in, uint32_t counts) {
    const bool whole = counts == 1 && in[0].b.size == big.size();
    return whole && memcmp(in[0].b.ptr, big.data(), big.size()) == 0 ? 0 : 1;
  };
  ASSERT_EQ(Store(shared, echoed.AsObject()), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      ObjectArg args[1] = {Buf(big.data(), big.size())};
      for (int i = 0; i < 2; ++i) EXPECT_EQ(Call(shared, kOpEcho, args, 1), 0);
    });
  }
  for (uint32_t t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      const Object root = t % 2 == 0 ? shared : served.Connect();
      for (uint32_t i = 0; i < 200; ++i) {
        // Back to back here: what follows each in our memory must not show there.
        const Bytes data = Pattern(1500, t * 1000 + i);
        const uint64_t sizes[] = {0, 1, 15, 16, 63, 64, 65, 1000 + i};
        ObjectArg args[8];
        for (size_t b = 0, at = 0; b < 8; at += sizes[b++]) args[b] = Buf(&data[at], sizes[b]);
        ASSERT_EQ(Call(root, kOpChecksum, args, 8), Checksum(args, 8));
      }
      if (root.context != shared.context) ObjectRelease(root);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(echoed.calls, 4);

  Nested deep(shared);
  const auto start = std::chrono::steady_clock::now();
  testing::internal::CaptureStderr();
  EXPECT_EQ(Echo(shared, 1000, deep.AsObject()), TARN_IPC_ERROR_TOO_DEEP);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_NE(log.find("calls refused: nested 33 deep, more than 32"), std::string::npos) << log;
  EXPECT_EQ(Echo(shared, 10, deep.AsObject()), 110);
  EXPECT_EQ(Store(shared, kNullObject), 0);
  ObjectRelease(shared);
  EXPECT_EQ(echoed.Settle() + deep.Settle(), 0);
}

// A client's call and a service's call into the client, each larger than
// the socket holds, written at the same moment: each side reads the other's
// while it writes its own, and neither waits for the other to give up.
TEST(IpcObjectsTest, LargeCallsCrossingEachOther) {
  ScopedEnv patient[] = {{"TARN_CALLBACK_TIMEOUT_MS", "10000"}, {"TARN_WAIT_BUDGET_MS", "999"}};
  Served served;
  const Object client = served.Connect();
  Counted callback;
  callback.on_call = [](uint32_t, ObjectArg*, uint32_t) { return 0; };
  ASSERT_EQ(Store(client, callback.AsObject()), 0);
  const Object into_client = served.Stored();
  const Bytes big = Pattern(2u << 20, 2);
  ObjectArg args[1] = {Buf(big.data(), big.size())};
  const int32_t checksum = Checksum(args, 1);
  for (int round = 0; round < 5; ++round) {
    // Past the workers' linger: only the monitors watch the sockets.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::atomic<int> ready{0};
    const auto together = [&ready] {
      ++ready;
      while (ready < 2) std::this_thread::yield();
    };
    std::thread service([&] {
      ObjectArg out[1] = {args[0]};
      together();
      EXPECT_EQ(Call(into_client, 0, out, 1), 0);
    });
    together();
    EXPECT_EQ(Call(client, kOpChecksum, args, 1), checksum);
    service.join();
  }
  EXPECT_EQ(callback.calls, 5);
  EXPECT_EQ(Store(client, kNullObject), 0);
  ObjectRelease(client);
  EXPECT_EQ(callback.Settle(), 0);
}

// A release the service makes while busy waits for a frame to ride on; with
// none coming it still goes, at the monitor's next tick.
TEST(IpcObjectsTest, ReleaseWithNothingToRideOnStillGoes) {
  Served served;
  // Calls in a burst make the service busy (its monitor ticks).
  constexpr uint32_t kBurst = 8;
  Bytes calls;
  for (uint32_t id = 1; id <= kBurst; ++id) {
    calls = Cat({calls, Frame({0, kFrameInvoke, 1, {}, id, 0, kOpChecksum, 0})});
  }
  const int fd = served.RawConnect(Cat(
      {calls, Frame({8, kFrameInvoke, 1, {}, kBurst + 1, 0, kOpStore, OBJECT_COUNTS(0, 0, 1, 0)},
                    {Raw(ObjectRef{kRefSenderExport, 5})})}));
  for (uint32_t i = 0; i <= kBurst; ++i) EXPECT_EQ(ReadFrame(fd).type, kFrameReply);
  Object stored = kNullObject;
  {
    std::lock_guard<std::mutex> lock(served.mutex);
    std::swap(stored, served.stored);
  }
  ObjectRelease(stored);
  const timeval patience{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const FrameHeader release = ReadFrame(fd);
  EXPECT_EQ(release.type, kFrameRelease);
  EXPECT_EQ(release.handle, 5u);
  EXPECT_EQ(release.code, 1u);
  close(fd);
}

// A peer that holds one of the service's objects, leaves a callback, keeps a
// call open (so that a service thread calling it reads its answer itself) and
// dies while called back. Like an event source that delivers under its lock,
// and whose objects take that lock when released: the death, noticed by the
// delivering thread, must not run those releases on that thread.
TEST(IpcPeerFailureTest, DeadPeerReleasesWhatItHeldAndItsObjectsFailAtOnce) {
  // So long that the failures below can only come from noticing the death.
  ScopedEnv call{"TARN_CALL_TIMEOUT_MS", "600000"}, callback{"TARN_CALLBACK_TIMEOUT_MS", "600000"};
  Served served;
  const uint32_t n = 0;
  const int fd = served.RawConnect(
      Cat({Frame({12, kFrameInvoke, 1, {}, 1, 0, kOpReturn, OBJECT_COUNTS(1, 0, 0, 1)},
                 {Raw(uint64_t{4}), Raw(n)}),
           Frame({8, kFrameInvoke, 1, {}, 2, 0, kOpStore, OBJECT_COUNTS(0, 0, 1, 0)},
                 {Raw(ObjectRef{kRefSenderExport, 5})})}));
  EXPECT_EQ(ReadFrame(fd).type + ReadFrame(fd).type, 2 * kFrameReply);
  const Bytes block = Frame({0, kFrameInvoke, 1, {}, 3, 0, kOpBlock, 0});
  ASSERT_EQ(write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
  while (!served.blocked) Pause();
  EXPECT_EQ(served.many[0].Held(), 1);  // the library's, for the peer
  const Object stored = served.Stored();
  ASSERT_FALSE(IsNullObject(stored));

  std::mutex delivery;
  served.many[0].on_release = [&delivery] { std::lock_guard<std::mutex> lock(delivery); };
  int32_t delivered = 0;
  std::thread caller([&] {
    std::lock_guard<std::mutex> lock(delivery);
    const char byte = 0;
    ObjectArg args[1] = {Buf(&byte, 1)};
    delivered = Call(stored, 0, args, 1);
  });
  EXPECT_EQ(ReadFrame(fd).type, kFrameInvoke);
  close(fd);  // the peer sits in its callback, and dies
  caller.join();
  served.unblocked = true;
  EXPECT_NE(delivered, 0);
  EXPECT_EQ(Call(stored, 0), TARN_IPC_ERROR_DEAD);
  EXPECT_EQ(served.many[0].Settle(), 0);
  served.root.AwaitReleases(1);
  EXPECT_EQ(served.root.Held(), 0);
}

// Raw clients that send garbage, dawdle, exceed a limit, or leave a callback
// and then never answer or never read: the service refuses their call with
// an answer at once, or ends only their connection, and says why, while a
// bystander is served throughout.
TEST(IpcPeerFailureTest, BadPeersLoseOnlyTheirConnection) {
  const uint32_t one_obj = OBJECT_COUNTS(0, 0, 1, 0);
  const Bytes store_callback = Frame({8, kFrameInvoke, 0, {}, 1, 0, kOpStore, one_obj},
                                     {Raw(ObjectRef{kRefSenderExport, 5})});
  const auto block = [](uint32_t id) {
    return Frame({0, kFrameInvoke, 1, {}, id, 0, kOpBlock, 0});
  };
  const std::string kSizes = "malformed frame: sizes do not add up to the frame";
  const std::string kNeverGiven = "malformed frame: release of references never given";
  const std::string kReserved = "malformed frame: reserved field set";
  const std::string kSlow = "frame not whole within 300 ms";
  const struct {
    std::string why;  // the line logged
    Bytes bytes;
    int32_t refused = 0;     // its last call is answered with this; the connection stays
    uint64_t delivered = 0;  // size of calls then made to its callback...
    int calls = 0;           // ...this many, each failing with `result`
    int32_t result = TARN_IPC_ERROR_TIMEOUT;
    int32_t last = 0;  // of the last call, if not `result`
  } cases[] = {
      {"peer took no data for 300 ms", store_callback, 0, 16u << 20, 1},
      {"a call of more than 67108864 bytes cannot be sent", store_callback, 0, kMaxBodySize + 1, 1,
       OBJECT_ERROR_INVALID},
      // The first call is waited for; the rest go out one by one as answers
      // come, which they never do. (Last of the rows that call back: this
      // process is then remembered as slow.)
      {"65 calls wait for answers that do not come", store_callback, 0, 64, 66,
       TARN_IPC_ERROR_TIMEOUT, TARN_IPC_ERROR_DEAD},
      // These two keep their end open: the service ends them.
      {kSlow, Bytes(10)},
      {kSlow,
       Frame({100000, kFrameInvoke, 1, {}, 1, 0, 0, 1}, {Raw(uint64_t{99992}), Bytes(5000)})},
      {"call of 2000000 bytes, more than the limit of 1048576",
       Frame({2000000, kFrameInvoke, 1, {}, 1, 0, 0, 0})},
      {"calls refused: nested 200 deep, more than 32",
       Frame({0, kFrameInvoke, 200, {}, 1, 0, kOpChecksum, 0}), TARN_IPC_ERROR_TOO_DEEP},
      {"calls refused: 2 in flight already", Cat({block(1), block(2), block(3)}),
       TARN_IPC_ERROR_BUSY},
      {"malformed frame: unknown frame type", Frame({0, 0, 0, {}, 1, 0, 0, 0})},
      {"malformed frame: output buffers are not supported",
       Frame({0, kFrameInvoke, 1, {}, 1, 0, 0, 0x10})},
      {"malformed frame: retain or release sent as a call",
       Frame({0, kFrameInvoke, 1, {}, 1, 0, 0x1FFFE, 0})},
      {"malformed frame: bad counts", Frame({0, kFrameInvoke, 1, {}, 1, 0, 0, 0x10000})},
      {kReserved, Bytes(64, 0xFF)},
      {kReserved, Frame({0, kFrameRelease, 0, {}, 4, 1, 1, 0})},
      {"malformed frame: frame too large", Frame({0xFFFFFFF0u, kFrameInvoke, 0, {}, 1, 0, 0, 1})},
      {kSizes, Frame({18, kFrameInvoke, 0, {}, 1, 0, 0, 1}, {Raw(uint64_t{20}), Bytes(10)})},
      {kSizes, Frame({7, kFrameInvoke, 1, {}, 1, 0, 0, 1}, {Bytes(7)})},  // shorter than its sizes
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
  // Answered, so accepted: the service read its limits before they change
  // here (the environment is not safe to change while another thread reads it).
  ASSERT_EQ(Store(bystander, kNullObject), 0);
  ScopedEnv limits[] = {{"TARN_CALLBACK_TIMEOUT_MS", "300"},
                        {"TARN_FRAME_TIMEOUT_MS", "300"},
                        {"TARN_MAX_CALL_BYTES", "1048576"},
                        {"TARN_MAX_CALLS_IN_FLIGHT", "2"}};
  const std::string pid = std::to_string(getpid());
  int ended = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    testing::internal::CaptureStderr();
    const int fd = served.RawConnect(c.bytes);
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
      const FrameHeader answer = ReadFrame(fd);
      EXPECT_EQ(answer.type, kFrameReply);
      EXPECT_EQ(static_cast<int32_t>(answer.code), c.refused);
      EXPECT_EQ(answer.call_id, c.refused == TARN_IPC_ERROR_BUSY ? 3u : 1u);
    }
    if (c.refused == TARN_IPC_ERROR_BUSY) served.unblocked = true;  // the two calls may end now
    if (c.why != kSlow) shutdown(fd, SHUT_WR);
    char byte[64];
    while (read(fd, byte, sizeof byte) > 0) {
    }  // ended without a word but the answers owed
    served.root.AwaitReleases(++ended);
    close(fd);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string line = c.refused != 0
                                 ? "W tarnsocket: Connection to pid " + pid + ": "
                                 : "E tarnsocket: Connection to pid " + pid + " closed: ";
    EXPECT_NE(log.find(line + c.why + "\n"), std::string::npos) << log;
    EXPECT_EQ(Call(bystander, kOpChecksum), Checksum(nullptr, 0));
  }
  ObjectRelease(bystander);
  served.root.AwaitReleases(ended + 1);
  EXPECT_EQ(served.root.Held(), 0);
}

// A peer that holds the limit of our objects gets no more (the answer says
// so, the objects are released at once) until it lets one go; another peer
// is not counted against it.
TEST(IpcLimitTest, ExportsPerConnectionAreBounded) {
  ScopedEnv limit{"TARN_MAX_EXPORTS", "3"};
  Served served;
  const Object greedy = served.Connect(), bystander = served.Connect();
  Object held[3], other[2];
  EXPECT_EQ(Nth(greedy, 0, &held[0]) + Nth(greedy, 1, &held[1]), 0);  // the root is the third
  testing::internal::CaptureStderr();
  EXPECT_EQ(Nth(greedy, 2, &held[2]), TARN_IPC_ERROR_TOO_MANY_OBJECTS);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(IsNullObject(held[2]));
  EXPECT_EQ(served.many[2].Settle(), 0);
  EXPECT_NE(log.find("objects refused: 3 exported to it already"), std::string::npos) << log;
  EXPECT_EQ(Nth(bystander, 2, &other[0]) + Nth(bystander, 3, &other[1]), 0);
  ObjectRelease(held[0]);
  EXPECT_EQ(Nth(greedy, 2, &held[2]), 0);
  for (Object object : {held[1], held[2], other[0], other[1], greedy, bystander}) {
    ObjectRelease(object);
  }
  for (Counted& counted : served.many) EXPECT_EQ(counted.Settle(), 0);
}

// Our own object, handed back by the peer and kept by the service, still
// counts against the peer after the peer lets its own reference go, until
// the service lets it go too; meanwhile calls on it reach the object.
TEST(IpcLimitTest, OwnObjectsKeptForThePeerCountAgainstIt) {
  ScopedEnv limit{"TARN_MAX_EXPORTS", "3"};
  Served served;
  const Object greedy = served.Connect();
  Object kept, held, refused;
  ASSERT_EQ(Nth(greedy, 0, &kept), 0);
  ASSERT_EQ(Store(greedy, kept), OBJECT_OK);
  ObjectRelease(kept);
  ASSERT_EQ(Nth(greedy, 1, &held), 0);  // the root, the kept one and this one
  testing::internal::CaptureStderr();
  EXPECT_EQ(Nth(greedy, 2, &refused), TARN_IPC_ERROR_TOO_MANY_OBJECTS);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(Echo(greedy, 5, held), 7);  // the service calls it as its own
  EXPECT_EQ(served.many[1].calls, 1);
  EXPECT_EQ(served.many[0].Held(), 1);  // the library's, for the one kept
  ASSERT_EQ(Store(greedy, kNullObject), OBJECT_OK);
  EXPECT_EQ(served.many[0].Settle(), 0);
  EXPECT_EQ(Nth(greedy, 2, &refused), 0);
  for (Object object : {held, refused, greedy}) ObjectRelease(object);
  for (Counted& counted : served.many) EXPECT_EQ(counted.Settle(), 0);
}

}  // namespace
}  // namespace tarnsocket::ipc_test
