// The indexed min-heap against a sorted multiset, with its invariants
// (heap order, position map) checked after every operation.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>

#include "livewire/MinPriorityQueue.h"

namespace {

// Heap order below every slot, and position[] agreeing with the heap for
// live ids and -1 for popped ones.
::testing::AssertionResult consistent(const MinPriorityQueue& q, const std::set<int>& live) {
  if (q.heap.empty() || q.heap[0].index != -1 || q.heap[0].weight != -1.0)
    return ::testing::AssertionFailure() << "sentinel damaged";
  if (q.heap.size() != live.size() + 1) return ::testing::AssertionFailure() << "heap size";
  for (size_t i = 2; i < q.heap.size(); ++i)
    if (q.heap[i / 2].weight > q.heap[i].weight)
      return ::testing::AssertionFailure() << "heap order broken at " << i;
  for (size_t i = 1; i < q.heap.size(); ++i)
    if (q.position.at(q.heap[i].index) != static_cast<int>(i))
      return ::testing::AssertionFailure() << "position of id " << q.heap[i].index;
  for (size_t id = 0; id < q.position.size(); ++id)
    if (!live.count(static_cast<int>(id)) && q.position[id] != -1)
      return ::testing::AssertionFailure() << "popped id " << id << " still has a position";
  return ::testing::AssertionSuccess();
}

// Random pushes, pops and key decreases (as the search does them). The
// reference is a multiset of (weight, id): every pop must return the least
// weight, and an id that holds that weight; ties may come in any order.
TEST(MinPriorityQueue, AgreesWithASortedMultiset) {
  std::mt19937 rng(99);
  for (int round = 0; round < 400; ++round) {
    MinPriorityQueue q;
    std::set<std::pair<double, int>> reference;
    std::map<int, double> weightOf;
    std::set<int> live;
    int nextId = 0;
    const bool fewKeys = round % 2 == 0;  // many ties
    const int ops = 1 + static_cast<int>(rng() % 300);
    for (int op = 0; op < ops; ++op) {
      const unsigned kind = rng() % 10;
      if (kind < 5 || reference.empty()) {  // (the empty pop has its own test)
        const double w = fewKeys ? static_cast<double>(rng() % 4)
                                 : std::uniform_real_distribution<double>(0, 100)(rng);
        q.push(Qnode{nextId, w});
        reference.insert({w, nextId});
        weightOf[nextId] = w;
        live.insert(nextId);
        ++nextId;
      } else if (kind < 8) {
        const Qnode got = q.pop_min();
        const double least = reference.begin()->first;
        ASSERT_EQ(got.weight, least);
        ASSERT_TRUE(reference.count({least, got.index})) << "id " << got.index;
        reference.erase({least, got.index});
        live.erase(got.index);
        ASSERT_EQ(q.position.at(got.index), -1);
      } else if (!live.empty()) {
        // Lower the key of a random live id in place and move it up.
        auto it = live.begin();
        std::advance(it, rng() % live.size());
        const int id = *it;
        const double w = weightOf[id] - static_cast<double>(rng() % 3);
        reference.erase({weightOf[id], id});
        reference.insert({w, id});
        weightOf[id] = w;
        const int at = q.position.at(id);
        q.heap.at(at).weight = w;
        q.prelocate_up(at);
      }
      ASSERT_TRUE(consistent(q, live)) << "round " << round << " op " << op;
    }
  }
}

TEST(MinPriorityQueue, EqualKeysKeepTheirOrderOfArrival) {
  MinPriorityQueue q;
  q.push(Qnode{0, 5.0});
  q.push(Qnode{1, 3.0});
  q.push(Qnode{2, 3.0});
  EXPECT_EQ(q.heap.at(1).index, 1);  // the second 3 stays below the first
  EXPECT_EQ(q.heap.at(3).index, 2);
  const int expected[] = {1, 2, 0};
  for (int id : expected) {
    EXPECT_EQ(q.pop_min().index, id);
    EXPECT_EQ(q.position.at(id), -1);
  }
}

TEST(MinPriorityQueue, EmptyQueuePrintsAndReturnsTheSentinel) {
  MinPriorityQueue q;
  ::testing::internal::CaptureStdout();
  const Qnode first = q.pop_min();
  q.push(Qnode{0, 2.0});
  const Qnode only = q.pop_min();
  const Qnode after = q.pop_min();
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "Empty queue\nEmpty queue\n");
  EXPECT_EQ(first.index, -1);
  EXPECT_EQ(first.weight, -1.0);
  EXPECT_EQ(only.index, 0);
  EXPECT_EQ(after.index, -1);
  EXPECT_EQ(q.heap.size(), 1u);
}

TEST(MinPriorityQueue, AccessOutsideTheArraysThrows) {
  MinPriorityQueue q;
  q.push(Qnode{0, 1.0});
  q.push(Qnode{1, 2.0});
  EXPECT_THROW(q.prelocate_up(5), std::out_of_range);
  Qnode stranger{7, 0.0};
  EXPECT_THROW(q.swap(q.heap.at(1), stranger, q.position), std::out_of_range);
  // An id pushed out of order points past the position map.
  MinPriorityQueue bad;
  bad.push(Qnode{3, 1.0});
  EXPECT_THROW(bad.pop_min(), std::out_of_range);
}

}  // namespace
