// The growable array: growth, deep copy, checked access and, through a replacement of
// the non-throwing array new in this binary, every allocation failure with its log line.
#include <cstddef>
#include <cstdint>
#include <new>
#include <numeric>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ky_loc_fw/log_capture.h"
#include "scan/vector.h"

static bool fail_next = false;  // the next non-throwing array new returns null
static int allocations = 0;

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  ++allocations;
  if (std::exchange(fail_next, false)) return nullptr;
  try {  // the throwing form keeps the sanitizers' new/delete pairing
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using ky_loc_fw::vector;
using ::testing::ElementsAre;

class VectorTest : public ::testing::Test {
 protected:
  void SetUp() override { ky_loc_fw::log_set_sink(Sink, &lines_, true); }
  void TearDown() override { ky_loc_fw::log_set_sink(nullptr, nullptr, false); }
  static void Sink(void* lines, char letter, const char* tag, const char* text) {
    static_cast<std::vector<std::string>*>(lines)->push_back(letter + std::string(" ") + tag + " " +
                                                             text);
  }
  std::vector<std::string> lines_;
};

std::vector<int> Contents(const vector<int>& v) {
  return std::vector<int>(v.getData(), v.getData() + v.getCount());
}

std::vector<int> Iota(int n) {
  std::vector<int> out(n);
  std::iota(out.begin(), out.end(), 0);
  return out;
}

void Fill(vector<int>& v, int n) {
  for (int i = 0; i < n; ++i) ASSERT_EQ(v.push_back(i), 0);
}

TEST_F(VectorTest, GrowsFromSixtyFourByDoubling) {
  const std::tuple<int, uint32_t, int> cases[] = {
      {1, 64, 1}, {64, 64, 1}, {65, 128, 2}, {128, 128, 2}};
  for (const auto& [pushes, capacity, blocks] : cases) {
    SCOPED_TRACE(pushes);
    allocations = 0;
    vector<int> v;
    Fill(v, pushes);
    EXPECT_EQ(v.getCapacity(), capacity);
    EXPECT_EQ(allocations, blocks);
    EXPECT_EQ(Contents(v), Iota(pushes));
  }
  EXPECT_TRUE(lines_.empty());
}

TEST_F(VectorTest, FailedFirstAllocationIsRetriedByTheNextPush) {
  vector<int> v;
  fail_next = true;
  EXPECT_EQ(v.push_back(5), -1);
  EXPECT_THAT(lines_, ElementsAre("E vector insertion failed -1"));
  EXPECT_EQ(v.push_back(7), 0);
  EXPECT_EQ(Contents(v), std::vector<int>{7});
  EXPECT_EQ(v.getCapacity(), 64u);
}

TEST_F(VectorTest, FailedGrowthKeepsContents) {
  vector<int> v;
  Fill(v, 64);
  const int* block = v.getData();
  fail_next = true;
  EXPECT_EQ(v.push_back(64), -2);
  EXPECT_EQ(v.getData(), block);
  EXPECT_EQ(Contents(v), Iota(64));
  EXPECT_THAT(lines_, ElementsAre("E vector insertion failed -2"));
  EXPECT_EQ(v.push_back(64), 0);
  EXPECT_EQ(Contents(v), Iota(65));
}

TEST_F(VectorTest, AssignmentIsADeepCopyOfCapacityNotCount) {
  vector<int> source, target;
  Fill(source, 70);
  target.push_back(99);
  target = source;
  EXPECT_EQ(target.getCapacity(), 128u);
  EXPECT_NE(target.getData(), source.getData());
  EXPECT_EQ(Contents(target), Iota(70));

  const int* block = target.getData();
  allocations = 0;
  vector<int>& alias = target;
  target = alias;
  EXPECT_EQ(target.getData(), block);
  EXPECT_EQ(Contents(target), Iota(70));
  EXPECT_EQ(allocations, 0);
}

TEST_F(VectorTest, FailedAssignmentLeavesTargetEmpty) {
  vector<int> source, target;
  source.push_back(1);
  target.push_back(2);
  fail_next = true;
  target = source;
  EXPECT_EQ(target.getData(), nullptr);
  EXPECT_EQ(target.getCapacity(), 0u);
  EXPECT_EQ(target.getCount(), 0u);
  EXPECT_THAT(lines_, ElementsAre("E vector assignment failed 2"));
}

TEST_F(VectorTest, AccessAtOrBeyondCountLogsAndYieldsFirstElement) {
  vector<int> v;
  v.push_back(10);
  v.push_back(11);
  const vector<int>& cv = v;
  for (uint32_t index : {2u, 64u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(index);
    lines_.clear();
    EXPECT_EQ(cv[index], 10);
    EXPECT_EQ(&v[index], v.getData());
    EXPECT_THAT(lines_,
                ElementsAre("E vector index out of range\n", "E vector index out of range\n"));
  }
  lines_.clear();
  EXPECT_EQ(cv[1], 11);
  EXPECT_TRUE(lines_.empty());
}

// A bulk append lands where pushing each element would, in one new block at
// most; should that block fail, it falls back to pushing one by one.
TEST_F(VectorTest, AppendGrowsLikePushesInOneBlock) {
  const std::vector<int> values = Iota(300);
  const std::tuple<int, uint32_t, uint32_t, int> cases[] = {
      // already held, appended, capacity after, blocks made by the append
      {0, 0, 0, 0},    {0, 1, 64, 1},    {0, 64, 64, 1},    {0, 65, 128, 1},
      {10, 54, 64, 0}, {10, 55, 128, 1}, {100, 200, 512, 1}};
  for (const auto& [held, appended, capacity, blocks] : cases) {
    SCOPED_TRACE(testing::Message() << held << " + " << appended);
    vector<int> v;
    Fill(v, held);
    allocations = 0;
    EXPECT_EQ(v.append(values.data() + held, appended), 0);
    EXPECT_EQ(v.getCapacity(), capacity);
    EXPECT_EQ(allocations, blocks);
    EXPECT_EQ(Contents(v), Iota(held + static_cast<int>(appended)));
  }
  vector<int> v;
  Fill(v, 64);
  fail_next = true;  // the one block of 256; the fallback's 128 succeeds
  EXPECT_EQ(v.append(values.data() + 64, 100), 0);
  EXPECT_EQ(v.getCapacity(), 256u);
  EXPECT_EQ(Contents(v), Iota(164));
  EXPECT_TRUE(lines_.empty());
}

// An array without storage has no element 0 to fall back on: the access
// logs and then faults, rather than handing out some other memory.
TEST_F(VectorTest, AccessWithoutStorageLogsThenFaults) {
  vector<int> empty;
  EXPECT_DEATH(
      {
        ky_loc_fw::log_set_sink(nullptr, nullptr, false);  // the line goes to stderr
        volatile int value = empty[0];
        (void)value;
      },
      "index out of range");
}

}  // namespace
