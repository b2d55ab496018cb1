// What the fuzzers of the served objects share: a location service that
// answers at once, a client callback that counts its references, and a
// lenient reader of a peer's frames that turns an invoke into the arguments
// of one call, so that captured sessions seed the corpora.
#ifndef TESK_FUZZ_SUPPORT_SERVED_CALL_H_
#define TESK_FUZZ_SUPPORT_SERVED_CALL_H_

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <tesk/object.h>

#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_test_control.h"

namespace fuzz_support {

// Before the first request: answers come without latency, so that waiting
// for them keeps every run the same, and nothing is logged.
inline void UseInstantService() {
  ky_loc_fw::log_set_sink([](void*, char, const char*, const char*) {}, nullptr, true);
  const std::string text = ky_loc_fw::vela_test::DefaultScenarioText() + "\nlatency 0\n";
  ky_loc_fw::vela_test::SetScenarioText(text.c_str());
}

// Waits for every answer and forgets the requests the service recorded.
inline void SettleService() {
  ky_loc_fw::vela_test::WaitIdle();
  ky_loc_fw::vela_test::Reset();
}

// A client's callback object; deliveries come from the service's thread.
// Once the daemon let go of everything it was handed, every reference it
// took must have been given back.
struct CountingCallback {
  Object object() { return Object{&CountingCallback::Invoke, this}; }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
    const uint32_t o = op & OBJECT_OP_MASK;
    static_cast<CountingCallback*>(context)->held +=
        (o == OBJECT_OP_RETAIN) - (o == OBJECT_OP_RELEASE);
    return OBJECT_OK;
  }
  void CheckBalanced() const {
    if (held != 0) __builtin_trap();
  }
  std::atomic<int> held{0};
};

// One frame of a peer's byte stream: a 24-byte header (body size, type and
// three reserved bytes, call id, handle, code, counts), then the body. For
// an invoke the body holds a u64 size per input buffer, an 8-byte reference
// per input object, then the buffers' bytes. Read leniently: whatever runs
// past the end of the input is cut short.
struct PeerFrame {
  uint8_t type;
  uint32_t handle, code, counts;
  size_t body_size;
  // The call's arguments as a peer makes them, exactly the slots the counts
  // word declares: input buffers as exact-size heap copies (a read past what
  // the peer declared is caught), empty output buffers, input objects (a
  // non-null reference becomes the callback), output objects.
  std::vector<ObjectArg> args;
  std::vector<std::vector<uint8_t>> copies;

  // Reads the frame at *at, which then moves past it; false when no header
  // is left.
  bool Read(const uint8_t* data, size_t size, size_t* at, Object callback) {
    if (size - *at < 24) return false;
    uint32_t words[6];
    memcpy(words, data + *at, sizeof words);
    type = static_cast<uint8_t>(words[1]);
    handle = words[3];
    code = words[4];
    counts = words[5];
    const uint8_t* body = data + *at + sizeof words;
    body_size = std::min<size_t>(words[0], size - *at - sizeof words);
    *at += sizeof words + body_size;
    const unsigned in_bufs = OBJECT_COUNTS_IN_BUFS(counts), in_objs = OBJECT_COUNTS_IN_OBJS(counts);
    args.assign(OBJECT_COUNTS_TOTAL(counts), ObjectArg{});
    copies.assign(in_bufs, {});
    size_t from = (in_bufs + size_t{in_objs}) * 8;
    for (unsigned i = 0; i < in_bufs; ++i) {
      uint64_t declared = 0;
      if ((i + 1) * 8 <= body_size) memcpy(&declared, body + i * 8, sizeof declared);
      const size_t n = std::min<uint64_t>(declared, from < body_size ? body_size - from : 0);
      copies[i].assign(body + std::min(from, body_size), body + std::min(from, body_size) + n);
      args[i].b = ObjectBuf{n == 0 ? nullptr : copies[i].data(), n};
      from += n;
    }
    for (unsigned i = 0; i < in_objs; ++i) {
      const size_t ref = (in_bufs + size_t{i}) * 8;
      const bool null =
          ref + 4 > body_size || (body[ref] | body[ref + 1] | body[ref + 2] | body[ref + 3]) == 0;
      args[in_bufs + OBJECT_COUNTS_OUT_BUFS(counts) + i].o = null ? kNullObject : callback;
    }
    return true;
  }

  unsigned out_objs() const { return OBJECT_COUNTS_OUT_OBJS(counts); }
  Object Output(unsigned i) const { return args[args.size() - out_objs() + i].o; }

  // Calls target with the frame's arguments, the output objects preset to null.
  int32_t Invoke(const Object& target, uint32_t op) {
    for (unsigned i = 0; i < out_objs(); ++i) args[args.size() - out_objs() + i].o = kNullObject;
    return target.invoke(target.context, op, args.empty() ? nullptr : args.data(), counts);
  }
};

}  // namespace fuzz_support

#endif  // TESK_FUZZ_SUPPORT_SERVED_CALL_H_
