// Peers that die, stall or send garbage: only their own connection ends,
// everything they held is released once, and the service goes on.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "frame.h"
#include "gtest/gtest.h"
#include "harness.h"
#include "ipc_test_support.h"
#include "tarnsocket/tarn_ipc.h"

namespace ipc_test {
namespace {

using tarnsocket::FrameHeader;
using tarnsocket::ObjectRef;

// Sets the call timeout for connections made while it lives.
class ScopedTimeout {
 public:
  explicit ScopedTimeout(const char* ms) { setenv("TARN_CALL_TIMEOUT_MS", ms, 1); }
  ~ScopedTimeout() { unsetenv("TARN_CALL_TIMEOUT_MS"); }
};

std::vector<uint8_t> Frame(FrameHeader header, const std::vector<uint8_t>& body = {}) {
  std::vector<uint8_t> bytes(sizeof header + body.size());
  memcpy(bytes.data(), &header, sizeof header);
  if (!body.empty()) memcpy(bytes.data() + sizeof header, body.data(), body.size());
  return bytes;
}

FrameHeader Invoke(uint32_t handle, uint32_t op, uint32_t counts, uint32_t body_size) {
  FrameHeader header{};
  header.type = tarnsocket::kFrameInvoke;
  header.call_id = 1;
  header.handle = handle;
  header.code = op;
  header.counts = counts;
  header.body_size = body_size;
  return header;
}

std::vector<uint8_t> RefBytes(uint32_t kind, uint32_t handle) {
  ObjectRef ref{kind, handle};
  std::vector<uint8_t> bytes(sizeof ref);
  memcpy(bytes.data(), &ref, sizeof ref);
  return bytes;
}

void WriteAll(int fd, const std::vector<uint8_t>& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// Blocks until the peer ends the connection.
void DrainUntilClosed(int fd) {
  char sink[4096];
  while (read(fd, sink, sizeof sink) > 0) {
  }
}

// A raw client that leaves an object of its own with the server as a
// callback and then never reads again.
int StoreRawCallback(ServedHarness* served) {
  const int fd = served->RawConnect();
  WriteAll(fd, Frame(Invoke(0, kOpStoreCallback, OBJECT_COUNTS(0, 0, 1, 0), 8),
                     RefBytes(tarnsocket::kRefSenderExport, 5)));
  FrameHeader reply{};
  EXPECT_EQ(read(fd, &reply, sizeof reply), static_cast<ssize_t>(sizeof reply));
  EXPECT_EQ(reply.type, tarnsocket::kFrameReply);
  EXPECT_EQ(reply.code, 0u);
  return fd;
}

TEST(IpcPeerDeathTest, KilledClientReleasesWhatItHeldAndItsObjectsFailAtOnce) {
  // A long timeout: the failures below can only come from noticing the death.
  ScopedTimeout timeout("600000");
  ServedHarness served;
  Harness& harness = served.harness();
  PeerProcess peer("hold", served.path());
  ASSERT_EQ(peer.ReadLine(), "ready");
  EXPECT_EQ(harness.counted.Held(), 1);  // the library's reference for the peer
  Object callback = harness.Stored();
  ASSERT_FALSE(IsNullObject(callback));
  harness.WaitBlocked();

  // Like an event source that delivers under its lock, and whose objects
  // take that lock when released: the peer's death, noticed by the
  // delivering thread, must not run those releases on that thread.
  std::mutex delivery;
  harness.counted.on_release = [&delivery] { std::lock_guard<std::mutex> lock(delivery); };
  int32_t waiting_result = 0;
  std::thread caller([&] {
    std::lock_guard<std::mutex> lock(delivery);
    const char byte = 0;
    ObjectArg args[1];
    args[0].b = ObjectBuf{const_cast<char*>(&byte), 1};
    waiting_result = CallObject(callback, 0, args, 1);
  });
  ASSERT_EQ(peer.ReadLine(), "called");  // the peer now sits in its callback
  peer.Kill();
  caller.join();
  harness.Unblock();
  EXPECT_NE(waiting_result, 0);
  EXPECT_EQ(CallObject(callback, 0, nullptr, 0), TARN_IPC_ERROR_DEAD);

  harness.counted.WaitForReleases(harness.counted.retains.load());
  harness.root_counts.WaitForReleases(1);
  EXPECT_EQ(harness.counted.Held(), 0);
  EXPECT_EQ(harness.root_counts.Held(), 0);
  EXPECT_EQ(peer.Wait(), 128 + SIGKILL);
}

struct StallCase {
  const char* name;
  uint64_t size;       // of the buffer delivered to the stalled client
  const char* logged;  // part of the line that reports it
};

class IpcStallTest : public ::testing::TestWithParam<StallCase> {};

TEST_P(IpcStallTest, StalledClientTimesOutAndIsDropped) {
  ScopedTimeout timeout("300");
  ServedHarness served;
  StderrCapture log;
  const int fd = StoreRawCallback(&served);
  std::vector<uint8_t> data(GetParam().size, 1);
  ObjectArg args[1];
  args[0].b = ObjectBuf{data.data(), data.size()};
  EXPECT_EQ(CallObject(served.harness().Stored(), 0, args, 1), TARN_IPC_ERROR_TIMEOUT);
  served.harness().root_counts.WaitForReleases(1);
  EXPECT_EQ(served.harness().root_counts.Held(), 0);
  const std::string text = log.Text();
  EXPECT_NE(text.find(" E tarnsocket: Connection to pid "), std::string::npos) << text;
  EXPECT_NE(text.find(GetParam().logged), std::string::npos) << text;
  // Others are still served.
  Object root = served.Connect();
  ObjectArg none[1];
  EXPECT_EQ(CallObject(root, kOpChecksum, none, 0), 0);
  ObjectRelease(root);
  close(fd);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IpcStallTest,
    ::testing::Values(StallCase{"NoAnswer", 64, "no answer within 300 ms"},
                      StallCase{"StopsReading", 16u << 20, "peer took no data for 300 ms"}),
    [](const ::testing::TestParamInfo<StallCase>& param_info) { return param_info.param.name; });

struct MalformedCase {
  const char* name;
  std::vector<uint8_t> bytes;
  bool end_stream;  // half-close after writing
  const char* logged;
};

FrameHeader Typed(uint8_t type, uint32_t handle, uint32_t code, uint32_t counts) {
  FrameHeader header{};
  header.type = type;
  header.handle = handle;
  header.code = code;
  header.counts = counts;
  return header;
}

std::vector<MalformedCase> MalformedCases() {
  std::vector<uint8_t> size20(8);
  const uint64_t twenty = 20;
  memcpy(size20.data(), &twenty, 8);
  size20.resize(18);
  FrameHeader reply = Typed(tarnsocket::kFrameReply, 0, 0, 0);
  reply.call_id = 77;
  FrameHeader huge = Invoke(0, 0, 1, 0xFFFFFFF0u);
  FrameHeader truncated = Invoke(0, 0, 1, 100);
  std::vector<uint8_t> cut = Frame(truncated, std::vector<uint8_t>(10, 0));
  return {
      {"Garbage", std::vector<uint8_t>(64, 0xFF), false, "malformed frame: reserved field set"},
      {"UnknownType", Frame(Typed(9, 0, 0, 0)), false, "malformed frame: unknown frame type"},
      {"HugeLength", Frame(huge), false, "malformed frame: frame too large"},
      {"OutputBuffers", Frame(Invoke(0, 0, OBJECT_COUNTS(0, 1, 0, 0), 0)), false,
       "output buffers are not supported"},
      {"CountsHighBits", Frame(Invoke(0, 0, 0x10000, 0)), false, "malformed frame: bad counts"},
      {"SizesDoNotAddUp", Frame(Invoke(0, 0, 1, 18), size20), false,
       "sizes do not add up to the frame"},
      {"UnknownTarget", Frame(Invoke(99, 0, 0, 0)), false, "call of an unknown handle"},
      {"ReleaseUnknown", Frame(Typed(tarnsocket::kFrameRelease, 42, 1, 0)), false,
       "release of references never given"},
      {"ReleaseTooMany", Frame(Typed(tarnsocket::kFrameRelease, 0, 5, 0)), false,
       "release of references never given"},
      {"AnswerToNoCall", Frame(reply), false, "malformed frame: answer to no call"},
      {"BadRefKind", Frame(Invoke(0, 0, OBJECT_COUNTS(0, 0, 1, 0), 8), RefBytes(7, 0)), false,
       "malformed frame: bad object reference"},
      {"UnknownPassedBack",
       Frame(Invoke(0, 0, OBJECT_COUNTS(0, 0, 1, 0), 8),
             RefBytes(tarnsocket::kRefReceiverExport, 50)),
       false, "unknown handle passed back"},
      {"RetainAsCall", Frame(Invoke(0, OBJECT_OP_RETAIN, 0, 0)), false,
       "retain or release sent as a call"},
      {"Truncated", cut, true, "peer stopped in the middle of a frame"},
  };
}

class IpcMalformedTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(IpcMalformedTest, EndsOnlyThatConnection) {
  ServedHarness served;
  Object bystander = served.Connect();
  StderrCapture log;
  const int fd = served.RawConnect();
  WriteAll(fd, GetParam().bytes);
  if (GetParam().end_stream) shutdown(fd, SHUT_WR);
  DrainUntilClosed(fd);
  close(fd);
  EXPECT_NE(log.Text().find(GetParam().logged), std::string::npos) << log.Text();
  ObjectArg none[1];
  EXPECT_EQ(CallObject(bystander, kOpChecksum, none, 0), 0);
  ObjectRelease(bystander);
  served.harness().root_counts.WaitForReleases(2);
  EXPECT_EQ(served.harness().root_counts.Held(), 0);
}

INSTANTIATE_TEST_SUITE_P(Cases, IpcMalformedTest, ::testing::ValuesIn(MalformedCases()),
                         [](const ::testing::TestParamInfo<MalformedCase>& param_info) {
                           return param_info.param.name;
                         });

TEST(IpcServiceTest, RefusesSocketsThatCannotServe) {
  const int datagram = socket(AF_UNIX, SOCK_DGRAM, 0);
  EXPECT_EQ(TarnIPC_startServiceOnSocket(datagram, Counted::Invoke, nullptr), nullptr);
  close(datagram);
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  EXPECT_EQ(TarnIPC_startServiceOnSocket(pipe_fds[0], Counted::Invoke, nullptr), nullptr);
  close(pipe_fds[0]);
  close(pipe_fds[1]);
}

TEST(IpcServiceTest, EndsWhenTheListeningSocketIsShutDown) {
  Counted root;
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // Abstract name: nothing to clean up.
  snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "ipc_end_%d", getpid());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  void* service = TarnIPC_startServiceOnSocket(fd, Counted::Invoke, &root);
  ASSERT_NE(service, nullptr);
  StderrCapture log;
  shutdown(fd, SHUT_RDWR);
  TarnIPC_join(service);
  EXPECT_NE(log.Text().find("E tarnsocket: Service ends: "), std::string::npos) << log.Text();
  close(fd);
}

TEST(IpcServiceTest, StopClosesConnectionsAndReleasesWhatPeersHeld) {
  ServedHarness served;
  Object root = served.Connect();
  Counted callback;
  ObjectArg args[1];
  args[0].o = callback.AsObject();
  ASSERT_EQ(CallObject(root, kOpStoreCallback, args, OBJECT_COUNTS(0, 0, 1, 0)), 0);
  TarnIPC_stopService(served.service());
  TarnIPC_join(served.service());
  EXPECT_EQ(served.harness().root_counts.Held(), 0);
  EXPECT_EQ(CallObject(root, kOpChecksum, args, 0), TARN_IPC_ERROR_DEAD);
  // The client learns of the end and drops its reference on our callback.
  callback.WaitForReleases(1);
  EXPECT_EQ(callback.Held(), 0);
  ObjectRelease(root);
}

}  // namespace
}  // namespace ipc_test
