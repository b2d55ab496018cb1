// The growable array: growth, bulk growth, deep copy, checked access and, through a
// replacement of the non-throwing array new in this binary, every allocation failure.
#include <cstddef>
#include <cstdint>
#include <new>
#include <numeric>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scan/vector.h"
#include "tests/support/log_lines.h"

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
using ::testing::IsEmpty;

std::vector<int> Contents(const vector<int>& v) {
  return std::vector<int>(v.getData(), v.getData() + v.getCount());
}

std::vector<int> Iota(int n) {
  std::vector<int> out(n);
  std::iota(out.begin(), out.end(), 0);
  return out;
}

void Fill(vector<int>& v, int from, int to) {
  for (int i = from; i < to; ++i) ASSERT_EQ(v.push_back(i), 0);
}

// Pushes, a bulk append, slots to fill in place or a reservation (of room in all) land
// on 64 x 2^k slots, the bulk ones in one new block at most.
TEST(VectorTest, GrowsFromSixtyFourByDoubling) {
  const std::vector<int> values = Iota(300);
  const std::tuple<char, int, int, uint32_t, int> cases[] = {
      // push, append, extend or reserve; held; added or room asked for; capacity; blocks made
      {'p', 0, 1, 64, 1},      {'p', 0, 64, 64, 1},  {'p', 0, 65, 128, 2},
      {'a', 0, 0, 0, 0},       {'a', 10, 54, 64, 0}, {'a', 10, 55, 128, 1},
      {'a', 100, 200, 512, 1}, {'e', 0, 1, 64, 1},   {'e', 10, 55, 128, 1},
      {'r', 0, 0, 0, 0},       {'r', 10, 64, 64, 0}, {'r', 10, 129, 256, 1}};
  for (const auto& [op, held, n, capacity, blocks] : cases) {
    SCOPED_TRACE(testing::Message() << op << " " << held << " " << n);
    vector<int> v;
    Fill(v, 0, held);
    allocations = 0;
    if (op == 'p') Fill(v, 0, n);
    if (op == 'e') std::copy_n(values.data() + held, n, v.extend(n));
    EXPECT_EQ(op == 'a' ? v.append(values.data() + held, n) : 0, 0);
    EXPECT_TRUE(op != 'r' || v.reserve(n));
    EXPECT_EQ(v.getCapacity(), capacity);
    EXPECT_EQ(allocations, blocks);
    EXPECT_EQ(Contents(v), Iota(held + (op == 'r' ? 0 : n)));
  }
}

// A failed first block leaves capacity 64 and no storage and is tried again; a failed
// larger one changes nothing. A failed bulk block is not logged: reserve says so, append
// pushes one by one instead.
TEST(VectorTest, FailedBlocksLeaveTheArrayUsable) {
  tesk_test::LogLines log("vector");
  vector<int> v;
  fail_next = true;
  EXPECT_EQ(v.push_back(5), -1);
  EXPECT_EQ(std::make_tuple(v.getData(), v.getCapacity()), std::make_tuple(nullptr, 64u));
  Fill(v, 0, 64);
  const int* block = v.getData();
  fail_next = true;
  EXPECT_FALSE(v.reserve(65));
  fail_next = true;
  EXPECT_EQ(v.push_back(64), -2);
  EXPECT_EQ(v.getData(), block);
  EXPECT_EQ(Contents(v), Iota(64));
  EXPECT_THAT(log.Take(), ElementsAre("E insertion failed -1", "E insertion failed -2"));

  const std::vector<int> values = Iota(164);
  fail_next = true;  // the one block of 256; the fallback's 128 and 256 succeed
  EXPECT_EQ(v.append(values.data() + 64, 100), 0);
  EXPECT_EQ(v.getCapacity(), 256u);
  EXPECT_EQ(Contents(v), values);
  EXPECT_THAT(log.Take(), IsEmpty());
}

// A deep copy keeps the source's capacity, not its count; assigning an array to itself
// changes nothing; a failed copy leaves the target empty.
TEST(VectorTest, Assignment) {
  tesk_test::LogLines log("vector");
  vector<int> source, target;
  Fill(source, 0, 70);
  target.push_back(99);
  target = source;
  EXPECT_EQ(target.getCapacity(), 128u);
  EXPECT_NE(target.getData(), source.getData());
  vector<int>& alias = target;
  target = alias;
  EXPECT_EQ(Contents(target), Iota(70));
  fail_next = true;
  target = source;
  EXPECT_EQ(std::make_tuple(target.getData(), target.getCapacity(), target.getCount()),
            std::make_tuple(nullptr, 0u, 0u));
  EXPECT_THAT(log.Take(), ElementsAre("E assignment failed 2"));
}

// An index at or beyond the count logs and yields element 0. Indexing an array that has no
// storage has no element 0 to fall back on: it logs and then faults, rather than handing
// out some other memory.
TEST(VectorTest, IndexingAtOrBeyondTheCount) {
  tesk_test::LogLines log("vector");
  vector<int> v;
  Fill(v, 0, 2);
  const vector<int>& cv = v;
  EXPECT_EQ(cv[1], 1);
  EXPECT_THAT(log.Take(), IsEmpty());
  for (uint32_t index : {2u, 64u, 0xFFFFFFFFu}) {
    EXPECT_EQ(&cv[index], v.getData());
    EXPECT_EQ(&v[index], v.getData());
    EXPECT_THAT(log.Take(), ElementsAre("E index out of range\n", "E index out of range\n"));
  }
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
