// Objects crossing between processes over real sockets: callbacks, nesting,
// identity, reference balance, buffer contents and slack.
#include <string.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "harness.h"
#include "ipc_test_support.h"
#include "tarnsocket/tarn_ipc.h"

namespace ipc_test {
namespace {

class IpcObjectsTest : public ::testing::Test {
 protected:
  ServedHarness served_;
};

ObjectArg Buf(const void* data, uint64_t size) {
  ObjectArg arg;
  arg.b = ObjectBuf{const_cast<void*>(data), size};
  return arg;
}

ObjectArg Obj(Object object) {
  ObjectArg arg;
  arg.o = object;
  return arg;
}

int32_t Store(Object root, Object callback) {
  ObjectArg args[1] = {Obj(callback)};
  return CallObject(root, kOpStoreCallback, args, OBJECT_COUNTS(0, 0, 1, 0));
}

TEST_F(IpcObjectsTest, BuffersArriveWholeWithZeroSlackBehindEach) {
  Object root = served_.Connect();
  // Sizes around the slack and alignment, followed in our memory by bytes
  // that must not be what the served side sees behind each buffer.
  std::vector<uint8_t> memory(4096, 0xAB);
  const uint64_t sizes[] = {0, 1, 15, 16, 63, 64, 65, 1000};
  ObjectArg args[8];
  uint64_t offset = 0;
  for (unsigned i = 0; i < 8; ++i) {
    FillPattern(memory.data() + offset, sizes[i], i);
    args[i] = Buf(memory.data() + offset, sizes[i]);
    offset += sizes[i];
  }
  const int32_t expected = Checksum(args, 8);
  EXPECT_EQ(CallObject(root, kOpCheckSlack, args, 8), expected);
  // A body too large to be read in one piece takes the other road.
  std::vector<uint8_t> large(100000);
  FillPattern(large.data(), large.size(), 9);
  ObjectArg two[2] = {Buf(large.data(), large.size()), Buf(memory.data(), 3)};
  EXPECT_EQ(CallObject(root, kOpCheckSlack, two, 2), Checksum(two, 2));
  ObjectRelease(root);
}

TEST_F(IpcObjectsTest, EightMegabytesBothWaysBetweenProcesses) {
  PeerProcess peer("big", served_.path());
  EXPECT_EQ(peer.Wait(), 0);
}

TEST_F(IpcObjectsTest, EightMegabytesBothWaysInOneProcess) {
  Object root = served_.Connect();
  constexpr uint64_t kBig = 8u << 20;
  std::vector<uint8_t> data(kBig);
  FillPattern(data.data(), kBig, 1);
  ObjectArg args[1] = {Buf(data.data(), kBig)};
  EXPECT_EQ(CallObject(root, kOpChecksum, args, 1), Checksum(args, 1));

  Counted callback;
  callback.on_call = [](ObjectArg* in, uint32_t counts) -> int32_t {
    return counts == 1 && in[0].b.size == kBig &&
                   CheckPattern(static_cast<uint8_t*>(in[0].b.ptr), kBig, 2)
               ? 0
               : 1;
  };
  ASSERT_EQ(Store(root, callback.AsObject()), 0);
  uint64_t size = kBig;
  ObjectArg send[1] = {Buf(&size, sizeof size)};
  EXPECT_EQ(CallObject(root, kOpSendBig, send, 1), 0);
  EXPECT_EQ(callback.calls.load(), 1);
  EXPECT_EQ(CallObject(root, kOpDropStored, nullptr, 0), 0);
  ObjectRelease(root);
  callback.WaitForReleases(callback.retains.load());
}

// A callback that, while delivered to, asks the server to deliver to it
// again, until the depth in the buffer runs out: calls nest in both
// directions on one connection.
struct Recursive {
  Object root;
  Counted counted;
  std::atomic<int> deepest{99};
};

int32_t NestedEcho(Object root, Object callback, uint32_t depth) {
  ObjectArg args[2];
  args[0].b = ObjectBuf{&depth, sizeof depth};
  args[1].o = callback;
  return CallObject(root, kOpNestedEcho, args, OBJECT_COUNTS(1, 0, 1, 0));
}

// Both directions full of megabytes while small calls go on: nobody may
// sit on a connection's read side while blocked writing, or the two ends
// would wait for each other until the call timeout.
TEST_F(IpcObjectsTest, BigTransfersBothWaysAtOnceWithSmallCalls) {
  constexpr uint64_t kBig = 4u << 20;
  constexpr int kRounds = 4;
  Object root = served_.Connect();
  Counted callback;
  callback.on_call = [](ObjectArg* in, uint32_t counts) -> int32_t {
    return counts == 1 && in[0].b.size == kBig ? 0 : 1;
  };
  ASSERT_EQ(Store(root, callback.AsObject()), 0);
  std::thread up([root] {
    std::vector<uint8_t> data(kBig, 3);
    ObjectArg args[1] = {Buf(data.data(), kBig)};
    const int32_t expected = Checksum(args, 1);
    for (int i = 0; i < kRounds; ++i) EXPECT_EQ(CallObject(root, kOpChecksum, args, 1), expected);
  });
  std::thread down([root] {
    uint64_t size = kBig;
    ObjectArg args[1] = {Buf(&size, sizeof size)};
    for (int i = 0; i < kRounds; ++i) EXPECT_EQ(CallObject(root, kOpSendBig, args, 1), 0);
  });
  std::thread small([root] {
    const char byte = 5;
    ObjectArg args[1] = {Buf(&byte, 1)};
    for (int i = 0; i < 100; ++i)
      EXPECT_EQ(CallObject(root, kOpChecksum, args, 1), Checksum(args, 1));
  });
  up.join();
  down.join();
  small.join();
  EXPECT_EQ(callback.calls.load(), kRounds);
  EXPECT_EQ(CallObject(root, kOpDropStored, nullptr, 0), 0);
  ObjectRelease(root);
  callback.WaitForReleases(callback.retains.load());
}

TEST_F(IpcObjectsTest, CallbacksCallBackIntoTheServerDuringDelivery) {
  for (uint32_t depth : {0u, 1u, 4u}) {
    Object root = served_.Connect();
    Recursive recursive;
    recursive.root = root;
    Recursive* r = &recursive;
    recursive.counted.on_call = [r](ObjectArg* in, uint32_t counts) -> int32_t {
      uint32_t left;
      if (counts != 1 || in[0].b.size != sizeof left) return -1;
      memcpy(&left, in[0].b.ptr, sizeof left);
      r->deepest = std::min<int>(r->deepest, static_cast<int>(left));
      if (left == 0) return 100;
      return NestedEcho(r->root, r->counted.AsObject(), left - 1) + 1;
    };
    EXPECT_EQ(NestedEcho(root, recursive.counted.AsObject(), depth), 100 + static_cast<int>(depth))
        << depth;
    EXPECT_EQ(recursive.deepest.load(), 0);
    EXPECT_EQ(recursive.counted.calls.load(), static_cast<int>(depth) + 1);
    ObjectRelease(root);
    // Lent to the server on every call; retained once per export, released
    // once each, the last when the connection went.
    recursive.counted.WaitForReleases(recursive.counted.retains.load());
    EXPECT_EQ(recursive.counted.Held(), 0);
  }
}

TEST_F(IpcObjectsTest, ServerThreadReachesClientBlockedInItsOwnCall) {
  Object root = served_.Connect();
  Counted callback;
  ASSERT_EQ(Store(root, callback.AsObject()), 0);
  std::thread blocked([root] { EXPECT_EQ(CallObject(root, kOpBlock, nullptr, 0), 0); });
  served_.harness().WaitBlocked();
  // A daemon-side thread calls the client while the client waits on us.
  Object stored = served_.harness().Stored();
  const char byte = 1;
  ObjectArg args[1] = {Buf(&byte, 1)};
  EXPECT_EQ(CallObject(stored, 0, args, 1), 7);
  served_.harness().Unblock();
  blocked.join();
  EXPECT_EQ(CallObject(root, kOpDropStored, nullptr, 0), 0);
  callback.WaitForReleases(callback.retains.load());
  EXPECT_EQ(callback.Held(), 0);
  ObjectRelease(root);
}

TEST_F(IpcObjectsTest, ObjectsKeepTheirIdentityAndReferencesBalance) {
  Object root = served_.Connect();
  Counted mine;
  // Our object, passed out and returned: we get the original back, not a
  // proxy of a proxy, carrying one reference of its own.
  ObjectArg args[2] = {Obj(mine.AsObject()), Obj(kNullObject)};
  ASSERT_EQ(CallObject(root, kOpReturnInput, args, OBJECT_COUNTS(0, 0, 1, 1)), 0);
  EXPECT_EQ(args[1].o.invoke, mine.AsObject().invoke);
  EXPECT_EQ(args[1].o.context, &mine);
  ObjectRelease(args[1].o);

  // Stored twice: one export entry, one library reference.
  ASSERT_EQ(Store(root, mine.AsObject()), 0);
  ASSERT_EQ(Store(root, mine.AsObject()), 0);
  EXPECT_EQ(CallObject(root, kOpDropStored, nullptr, 0), 0);
  mine.WaitForReleases(mine.retains.load());
  EXPECT_EQ(mine.Held(), 0);

  // The server's object, fetched twice: the same proxy; passed back: the
  // server sees its own object.
  Counted& counted = served_.harness().counted;
  ObjectArg first[1] = {Obj(kNullObject)};
  ObjectArg second[1] = {Obj(kNullObject)};
  ASSERT_EQ(CallObject(root, kOpGetCounted, first, OBJECT_COUNTS(0, 0, 0, 1)), 0);
  ASSERT_EQ(CallObject(root, kOpGetCounted, second, OBJECT_COUNTS(0, 0, 0, 1)), 0);
  EXPECT_EQ(first[0].o.context, second[0].o.context);
  ObjectArg back[2] = {Obj(first[0].o), Obj(kNullObject)};
  ASSERT_EQ(CallObject(root, kOpReturnInput, back, OBJECT_COUNTS(0, 0, 1, 1)), 0);
  EXPECT_EQ(back[1].o.context, first[0].o.context);
  EXPECT_EQ(CallObject(back[1].o, 0, nullptr, 0), 7);
  EXPECT_EQ(counted.calls.load(), 1);
  ObjectRelease(back[1].o);
  ObjectRelease(first[0].o);
  ObjectRelease(second[0].o);
  counted.WaitForReleases(counted.retains.load());
  EXPECT_EQ(counted.Held(), 0);
  EXPECT_GT(counted.retains.load(), 0);

  ObjectRelease(root);
  served_.harness().root_counts.WaitForReleases(1);
  EXPECT_EQ(served_.harness().root_counts.Held(), 0);
}

// Threads calling through separate connections and through one shared
// connection, whose read side they then pass among themselves.
TEST_F(IpcObjectsTest, ConcurrentCallersEachGetTheirOwnAnswers) {
  constexpr int kThreads = 6;
  constexpr int kCalls = 200;
  for (bool shared : {false, true}) {
    Object common = served_.Connect();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([this, t, shared, common] {
        Object root = shared ? common : served_.Connect();
        Counted callback;
        std::vector<uint8_t> data(64 + t * 1000);
        for (int i = 0; i < kCalls; ++i) {
          FillPattern(data.data(), data.size(), static_cast<uint32_t>(t * kCalls + i));
          ObjectArg args[1] = {Buf(data.data(), data.size())};
          ASSERT_EQ(CallObject(root, kOpChecksum, args, 1), Checksum(args, 1));
          if (i % 50 == 0) {
            // Calls that come back to us, interleaved with everyone's.
            ASSERT_EQ(NestedEcho(root, callback.AsObject(), 0), 7);
          }
        }
        if (!shared) ObjectRelease(root);
        callback.WaitForReleases(callback.retains.load());
      });
    }
    for (auto& thread : threads) thread.join();
    ObjectRelease(common);
  }
}

}  // namespace
}  // namespace ipc_test
