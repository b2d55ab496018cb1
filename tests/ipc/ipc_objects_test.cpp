// Objects crossing between processes over real sockets: callbacks, nesting,
// identity, reference balance, buffer contents and slack.
#include <string.h>

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
}

TEST_F(IpcObjectsTest, CallbackCallsBackIntoTheServerDuringDelivery) {
  Object root = served_.Connect();
  const char payload[] = "nested";
  Counted callback;
  // Delivered from the server while our call to it is still open; calls the
  // server once more from inside the delivery.
  callback.on_call = [root](ObjectArg* in, uint32_t counts) -> int32_t {
    if (counts != 1) return -1;
    ObjectArg again[1] = {in[0]};
    return CallObject(root, kOpChecksum, again, 1);
  };
  ObjectArg args[2] = {Buf(payload, sizeof payload), Obj(callback.AsObject())};
  ObjectArg plain[1] = {Buf(payload, sizeof payload)};
  EXPECT_EQ(CallObject(root, kOpNestedEcho, args, OBJECT_COUNTS(1, 0, 1, 0)), Checksum(plain, 1));
  EXPECT_EQ(callback.calls.load(), 1);
  ObjectRelease(root);
  // The lent callback was retained once while the server held it, and is
  // released once when the connection goes.
  callback.WaitForReleases(callback.retains.load());
  EXPECT_EQ(callback.Held(), 0);
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
  // Our release reached the server before this call did.
  EXPECT_EQ(CallObject(root, kOpDropStored, nullptr, 0), 0);
  EXPECT_EQ(counted.Held(), 0);
  EXPECT_GT(counted.retains.load(), 0);

  ObjectRelease(root);
  served_.harness().root_counts.WaitForReleases(1);
  EXPECT_EQ(served_.harness().root_counts.Held(), 0);
}

TEST_F(IpcObjectsTest, ConcurrentClientsEachGetTheirOwnAnswers) {
  constexpr int kClients = 6;
  constexpr int kCalls = 200;
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([this, c] {
      Object root = served_.Connect();
      Counted callback;
      ASSERT_EQ(Store(root, callback.AsObject()), 0);
      std::vector<uint8_t> data(64 + c * 1000);
      for (int i = 0; i < kCalls; ++i) {
        FillPattern(data.data(), data.size(), static_cast<uint32_t>(c * kCalls + i));
        ObjectArg args[1] = {Buf(data.data(), data.size())};
        ASSERT_EQ(CallObject(root, kOpChecksum, args, 1), Checksum(args, 1));
      }
      ObjectRelease(root);
      callback.WaitForReleases(1);
    });
  }
  for (auto& client : clients) client.join();
}

}  // namespace
}  // namespace ipc_test
