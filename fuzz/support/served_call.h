// What the fuzzers of the served objects share: a location service that
// answers at once, a client callback that counts its references, and a
// lenient reader of a peer's frames that turns an invoke into the argument
// array of one call, so that captured sessions seed the corpora.
#ifndef TESK_FUZZ_SUPPORT_SERVED_CALL_H_
#define TESK_FUZZ_SUPPORT_SERVED_CALL_H_

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
    static_cast<CountingCallback*>(context)->held += o == OBJECT_OP_RETAIN    ? 1
                                                     : o == OBJECT_OP_RELEASE ? -1
                                                                              : 0;
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
  const uint8_t* body;
  size_t body_size;

  // The frame at *at, which then moves past it; false when no header is left.
  static bool Next(const uint8_t* data, size_t size, size_t* at, PeerFrame* frame) {
    if (size - *at < 24) return false;
    uint32_t words[6];
    memcpy(words, data + *at, sizeof words);
    *at += sizeof words;
    *frame = {static_cast<uint8_t>(words[1]),
              words[3],
              words[4],
              words[5],
              data + *at,
              words[0] < size - *at ? words[0] : size - *at};
    *at += frame->body_size;
    return true;
  }
};

// An invoke's arguments as a peer makes them: input buffers as exact-size
// heap copies (a read past what the peer declared is caught), empty output
// buffers, input objects (a non-null reference becomes callback), then
// output objects preset to null; exactly the slots the counts word declares.
class CallArgs {
 public:
  CallArgs(const PeerFrame& f, Object callback)
      : counts_(f.counts), args_(OBJECT_COUNTS_TOTAL(f.counts)), copies_(in_bufs()) {
    size_t at = (in_bufs() + size_t{in_objs()}) * 8;
    for (unsigned i = 0; i < in_bufs(); ++i) {
      uint64_t declared = 0;
      if ((i + 1) * 8 <= f.body_size) memcpy(&declared, f.body + i * 8, sizeof declared);
      const size_t left = at < f.body_size ? f.body_size - at : 0;
      const size_t n = declared < left ? static_cast<size_t>(declared) : left;
      const uint8_t* from = f.body + (at < f.body_size ? at : 0);
      copies_[i].assign(from, from + n);
      args_[i].b = ObjectBuf{n == 0 ? nullptr : copies_[i].data(), n};
      at += n;
    }
    for (unsigned i = 0; i < in_objs(); ++i) {
      const size_t ref = (in_bufs() + size_t{i}) * 8;
      const bool null = ref + 4 > f.body_size ||
                        (f.body[ref] | f.body[ref + 1] | f.body[ref + 2] | f.body[ref + 3]) == 0;
      args_[in_bufs() + OBJECT_COUNTS_OUT_BUFS(counts_) + i].o = null ? kNullObject : callback;
    }
  }

  unsigned in_bufs() const { return OBJECT_COUNTS_IN_BUFS(counts_); }
  unsigned in_objs() const { return OBJECT_COUNTS_IN_OBJS(counts_); }
  unsigned out_objs() const { return OBJECT_COUNTS_OUT_OBJS(counts_); }
  Object Output(unsigned i) const { return args_[args_.size() - out_objs() + i].o; }

  int32_t Invoke(const Object& target, uint32_t op) {
    for (unsigned i = 0; i < out_objs(); ++i) args_[args_.size() - out_objs() + i].o = kNullObject;
    return target.invoke(target.context, op, args_.empty() ? nullptr : args_.data(), counts_);
  }

 private:
  uint32_t counts_;
  std::vector<ObjectArg> args_;
  std::vector<std::vector<uint8_t>> copies_;
};

}  // namespace fuzz_support

#endif  // TESK_FUZZ_SUPPORT_SERVED_CALL_H_
