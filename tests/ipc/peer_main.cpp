// ipc_test_peer: the other process of the IPC tests.
//   ipc_test_peer hold <socket>  takes a server object and leaves a callback
//                                with the server, says "ready", blocks in a
//                                server call and waits to be killed; says
//                                "called" when called.
//   ipc_test_peer big <socket>   moves 8 MiB each way; exit status 0 if
//                                every byte arrived.
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "harness.h"
#include "tarnsocket/tarn_ipc.h"

namespace {

using ipc_test::Counted;

constexpr uint64_t kBig = 8u << 20;

void Say(const char* line) {
  ssize_t ignored = write(STDOUT_FILENO, line, strlen(line));
  (void)ignored;
}

int32_t Call(Object target, uint32_t op, ObjectArg* args, uint32_t counts) {
  return target.invoke(target.context, op, args, counts);
}

int Hold(Object root) {
  ObjectArg out[1];
  if (Call(root, ipc_test::kOpGetCounted, out, OBJECT_COUNTS(0, 0, 0, 1)) != 0) return 2;
  static Counted callback;
  callback.on_call = [](ObjectArg*, uint32_t) -> int32_t {
    Say("called\n");
    for (;;) pause();
  };
  ObjectArg in[1];
  in[0].o = callback.AsObject();
  if (Call(root, ipc_test::kOpStoreCallback, in, OBJECT_COUNTS(0, 0, 1, 0)) != 0) return 3;
  Say("ready\n");
  // Keeps a call open in the server, so that its worker is busy serving
  // and a server thread calling us reads our answer itself.
  std::thread blocked([root] { Call(root, ipc_test::kOpBlock, nullptr, 0); });
  blocked.detach();
  for (;;) pause();
}

int Big(Object root) {
  std::vector<uint8_t> data(kBig);
  ipc_test::FillPattern(data.data(), kBig, 1);
  ObjectArg args[1];
  args[0].b = ObjectBuf{data.data(), kBig};
  if (Call(root, ipc_test::kOpChecksum, args, 1) != ipc_test::Checksum(args, 1)) return 2;

  static Counted callback;
  callback.on_call = [](ObjectArg* in, uint32_t counts) -> int32_t {
    const bool whole = counts == 1 && in[0].b.size == kBig &&
                       ipc_test::CheckPattern(static_cast<uint8_t*>(in[0].b.ptr), kBig, 2);
    return whole ? 0 : 1;
  };
  ObjectArg store[1];
  store[0].o = callback.AsObject();
  if (Call(root, ipc_test::kOpStoreCallback, store, OBJECT_COUNTS(0, 0, 1, 0)) != 0) return 3;
  uint64_t size = kBig;
  ObjectArg send[1];
  send[0].b = ObjectBuf{&size, sizeof size};
  if (Call(root, ipc_test::kOpSendBig, send, 1) != 0) return 4;
  if (Call(root, ipc_test::kOpDropStored, nullptr, 0) != 0) return 5;
  callback.WaitForReleases(callback.retains.load());
  if (callback.Held() != 0) return 6;
  ObjectRelease(root);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  Object root;
  const int rc = TarnIPC_connect(argv[2], &root);
  if (rc != 0) {
    fprintf(stderr, "connect: %d\n", rc);
    return 1;
  }
  if (strcmp(argv[1], "hold") == 0) return Hold(root);
  if (strcmp(argv[1], "big") == 0) return Big(root);
  return 64;
}
