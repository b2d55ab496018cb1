// The growable array: growth, deep copy, checked access and, through a
// replacement of the non-throwing array new in this binary, every
// allocation failure with its exact log line.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ky_loc_fw/log.h"
#include "ky_loc_fw/log_capture.h"
#include "scan/vector.h"

namespace {

// Test-controlled failure of the non-throwing array new: the next `fail_next`
// calls return null. Single-threaded tests only.
int fail_next = 0;
int nothrow_array_calls = 0;

}  // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  ++nothrow_array_calls;
  if (fail_next > 0) {
    --fail_next;
    return nullptr;
  }
  // The throwing form keeps the runtime's (and the sanitizers') bookkeeping,
  // so the array delete in the array still matches.
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using ky_loc_fw::vector;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

struct LogLine {
  char letter;
  std::string tag;
  std::string text;
  bool operator==(const LogLine& o) const {
    return letter == o.letter && tag == o.tag && text == o.text;
  }
};

void PrintTo(const LogLine& line, std::ostream* os) {
  *os << line.letter << " " << line.tag << ": \"" << line.text << "\"";
}

// Records every slot's lifetime events so that block handling shows.
struct Probe {
  static std::vector<int>* destroyed;
  static int assignments;

  int value = -1;
  Probe() = default;
  explicit Probe(int v) : value(v) {}
  Probe(const Probe&) = default;
  Probe& operator=(const Probe& other) {
    value = other.value;
    ++assignments;
    return *this;
  }
  ~Probe() {
    if (destroyed != nullptr) destroyed->push_back(value);
  }
};
std::vector<int>* Probe::destroyed = nullptr;
int Probe::assignments = 0;

class VectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fail_next = 0;
    nothrow_array_calls = 0;
    Probe::assignments = 0;
    Probe::destroyed = &destroyed_;
    ky_loc_fw::log_set_sink(&VectorTest::Sink, this, true);
  }
  void TearDown() override {
    ky_loc_fw::log_set_sink(nullptr, nullptr, false);
    Probe::destroyed = nullptr;
    fail_next = 0;
  }

  static void Sink(void* context, char letter, const char* tag, const char* text) {
    static_cast<VectorTest*>(context)->lines_.push_back({letter, tag, text});
  }

  static LogLine VectorError(const char* text) { return {'E', "vector", text}; }

  std::vector<LogLine> lines_;
  std::vector<int> destroyed_;
};

template <typename T>
std::vector<T> Contents(const vector<T>& v) {
  std::vector<T> out;
  for (uint32_t i = 0; i < v.getCount(); ++i) out.push_back(v[i]);
  return out;
}

std::vector<int> Iota(int n, int from = 0) {
  std::vector<int> out;
  for (int i = 0; i < n; ++i) out.push_back(from + i);
  return out;
}

// The location library embeds the array and reads its fields directly.
TEST_F(VectorTest, LayoutIsVtableThenDataCapacityCount) {
  static_assert(sizeof(vector<int>) == 24, "shared layout");
  vector<int> v;
  v.push_back(7);
  v.push_back(8);
  unsigned char raw[sizeof v];
  std::memcpy(raw, static_cast<const void*>(&v), sizeof v);
  const int* data;
  uint32_t capacity, count;
  std::memcpy(&data, raw + 8, sizeof data);
  std::memcpy(&capacity, raw + 16, 4);
  std::memcpy(&count, raw + 20, 4);
  EXPECT_EQ(data, v.getData());
  EXPECT_EQ(capacity, 64u);
  EXPECT_EQ(count, 2u);
}

TEST_F(VectorTest, NewArrayHoldsNoStorage) {
  vector<int> v;
  EXPECT_EQ(v.getData(), nullptr);
  EXPECT_EQ(v.getCapacity(), 0u);
  EXPECT_EQ(v.getCount(), 0u);
  EXPECT_EQ(nothrow_array_calls, 0);
}

TEST_F(VectorTest, GrowsFromSixtyFourByDoubling) {
  struct Case {
    int pushes;
    uint32_t capacity;
    int allocations;
  };
  for (const Case& c : {Case{1, 64, 1}, Case{64, 64, 1}, Case{65, 128, 2}, Case{128, 128, 2},
                        Case{129, 256, 3}, Case{1000, 1024, 5}}) {
    SCOPED_TRACE(c.pushes);
    nothrow_array_calls = 0;
    vector<int> v;
    for (int i = 0; i < c.pushes; ++i) ASSERT_EQ(v.push_back(i), 0);
    EXPECT_EQ(v.getCapacity(), c.capacity);
    EXPECT_EQ(v.getCount(), static_cast<uint32_t>(c.pushes));
    EXPECT_EQ(nothrow_array_calls, c.allocations);
    EXPECT_EQ(Contents(v), Iota(c.pushes));
  }
  EXPECT_THAT(lines_, ::testing::IsEmpty());
}

// A grown block gets every old slot copied in index order, the old block is
// released with array delete (all 64 slots, in reverse order), and the new
// block's spare slots are default values.
TEST_F(VectorTest, GrowthCopiesOldSlotsAndReleasesOldBlock) {
  {
    vector<Probe> v;
    for (int i = 0; i < 64; ++i) v.push_back(Probe(i));
    destroyed_.clear();
    Probe::assignments = 0;

    v.push_back(Probe(64));
    EXPECT_EQ(Probe::assignments, 64 + 1);
    std::vector<int> expected;
    for (int i = 63; i >= 0; --i) expected.push_back(i);
    expected.push_back(64);  // the temporary argument
    EXPECT_EQ(destroyed_, expected);
    EXPECT_EQ(v[64].value, 64);
    EXPECT_EQ(v.getData()[65].value, -1);
    destroyed_.clear();
  }
  // The whole block of 128 goes, highest slot first.
  ASSERT_EQ(destroyed_.size(), 128u);
  EXPECT_EQ(destroyed_.front(), -1);
  EXPECT_THAT(std::vector<int>(destroyed_.end() - 65, destroyed_.end()), ElementsAreArray([] {
                std::vector<int> r = Iota(65);
                return std::vector<int>(r.rbegin(), r.rend());
              }()));
}

TEST_F(VectorTest, FailedFirstAllocationKeepsCapacityAndRetries) {
  vector<int> v;
  fail_next = 1;
  EXPECT_EQ(v.push_back(5), -1);
  EXPECT_EQ(v.getData(), nullptr);
  EXPECT_EQ(v.getCapacity(), 64u);  // deliberately not reset
  EXPECT_EQ(v.getCount(), 0u);
  EXPECT_THAT(lines_, ElementsAre(VectorError("insertion failed -1")));

  // Treated like an empty array: the next call allocates again.
  fail_next = 1;
  EXPECT_EQ(v.push_back(6), -1);
  EXPECT_EQ(v.getCapacity(), 64u);
  EXPECT_EQ(v.push_back(7), 0);
  EXPECT_NE(v.getData(), nullptr);
  EXPECT_EQ(v.getCapacity(), 64u);
  EXPECT_EQ(Contents(v), std::vector<int>{7});
  EXPECT_EQ(nothrow_array_calls, 3);
  EXPECT_EQ(lines_.size(), 2u);
}

TEST_F(VectorTest, FailedGrowthKeepsContents) {
  vector<int> v;
  for (int i = 0; i < 64; ++i) v.push_back(i);
  const int* block = v.getData();

  fail_next = 1;
  EXPECT_EQ(v.push_back(64), -2);
  EXPECT_EQ(v.getData(), block);
  EXPECT_EQ(v.getCapacity(), 64u);
  EXPECT_EQ(Contents(v), Iota(64));
  EXPECT_THAT(lines_, ElementsAre(VectorError("insertion failed -2")));

  EXPECT_EQ(v.push_back(64), 0);
  EXPECT_EQ(v.getCapacity(), 128u);
  EXPECT_EQ(Contents(v), Iota(65));
}

TEST_F(VectorTest, AssignmentCopiesCapacityNotCount) {
  vector<int> source;
  for (int i = 0; i < 70; ++i) source.push_back(i);
  vector<int> target;
  target.push_back(99);

  vector<int>& result = (target = source);
  EXPECT_EQ(&result, &target);
  EXPECT_EQ(target.getCapacity(), 128u);
  EXPECT_EQ(target.getCount(), 70u);
  EXPECT_NE(target.getData(), source.getData());
  EXPECT_EQ(Contents(target), Iota(70));

  // A deep copy: the source can change and go without touching the copy.
  source.push_back(70);
  EXPECT_EQ(target.getCount(), 70u);
  EXPECT_EQ(target.push_back(70), 0);
  EXPECT_EQ(target.getCapacity(), 128u);
}

TEST_F(VectorTest, SelfAssignmentChangesNothing) {
  vector<int> v;
  for (int i = 0; i < 3; ++i) v.push_back(i);
  const int* block = v.getData();
  nothrow_array_calls = 0;
  vector<int>& alias = v;
  v = alias;
  EXPECT_EQ(v.getData(), block);
  EXPECT_EQ(Contents(v), Iota(3));
  EXPECT_EQ(nothrow_array_calls, 0);
}

TEST_F(VectorTest, AssigningAnEmptyArrayReleasesTheBlock) {
  for (bool failed_first : {false, true}) {
    SCOPED_TRACE(failed_first);
    vector<Probe> empty;
    if (failed_first) {  // no storage but capacity 64: still copied as such
      fail_next = 1;
      empty.push_back(Probe(1));
    }
    vector<Probe> target;
    target.push_back(Probe(1));
    target.push_back(Probe(2));
    destroyed_.clear();
    nothrow_array_calls = 0;

    target = empty;
    if (!failed_first) {
      EXPECT_EQ(destroyed_.size(), 64u);  // the old block, every slot
      EXPECT_EQ(target.getData(), nullptr);
      EXPECT_EQ(target.getCapacity(), 0u);
      EXPECT_EQ(nothrow_array_calls, 0);
    } else {
      // The source's capacity of 64 is copied with a block of its own.
      EXPECT_EQ(target.getCapacity(), 64u);
      EXPECT_NE(target.getData(), nullptr);
    }
    EXPECT_EQ(target.getCount(), 0u);
  }
}

TEST_F(VectorTest, FailedAssignmentLeavesTargetEmpty) {
  vector<int> source;
  source.push_back(1);
  vector<int> target;
  target.push_back(2);

  fail_next = 1;
  target = source;
  EXPECT_EQ(target.getData(), nullptr);
  EXPECT_EQ(target.getCapacity(), 0u);
  EXPECT_EQ(target.getCount(), 0u);
  EXPECT_THAT(lines_, ElementsAre(VectorError("assignment failed 2")));

  // Usable afterwards like a new array.
  EXPECT_EQ(target.push_back(3), 0);
  EXPECT_EQ(Contents(target), std::vector<int>{3});
}

TEST_F(VectorTest, AccessAtOrBeyondCountYieldsFirstElement) {
  vector<signed char> v;
  v.push_back(10);
  v.push_back(11);
  const vector<signed char>& cv = v;
  for (uint32_t index : {2u, 63u, 64u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(index);
    lines_.clear();
    EXPECT_EQ(cv[index], 10);
    EXPECT_EQ(&v[index], v.getData());
    EXPECT_THAT(lines_, ElementsAre(VectorError("index out of range\n"),
                                    VectorError("index out of range\n")));
  }
  lines_.clear();
  EXPECT_EQ(cv[1], 11);
  v[1] = 12;
  EXPECT_EQ(cv[1], 12);
  EXPECT_THAT(lines_, ::testing::IsEmpty());
}

}  // namespace
