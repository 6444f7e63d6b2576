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

// Heap order below every slot; position[] agrees with the heap for live ids
// and is -1 for popped ones.
::testing::AssertionResult consistent(const MinPriorityQueue& q, const std::set<int>& live) {
  if (q.heap.empty() || q.heap[0].index != -1 || q.heap[0].weight != -1.0 ||
      q.heap.size() != live.size() + 1)
    return ::testing::AssertionFailure() << "sentinel or size";
  for (size_t i = 2; i < q.heap.size(); ++i)
    if (q.heap[i / 2].weight > q.heap[i].weight)
      return ::testing::AssertionFailure() << "order at " << i;
  for (size_t i = 1; i < q.heap.size(); ++i)
    if (q.position.at(q.heap[i].index) != static_cast<int>(i))
      return ::testing::AssertionFailure() << "position of id " << q.heap[i].index;
  for (size_t id = 0; id < q.position.size(); ++id)
    if (!live.count(static_cast<int>(id)) && q.position[id] != -1)
      return ::testing::AssertionFailure() << "popped id " << id << " still has a position";
  return ::testing::AssertionSuccess();
}

// Random pushes, pops and key decreases (as the search does them). Every pop
// returns the least weight and an id holding it; ties may come in any order.
TEST(MinPriorityQueue, AgreesWithASortedMultiset) {
  std::mt19937 rng(99);
  for (int round = 0; round < 400; ++round) {
    MinPriorityQueue q;
    std::set<std::pair<double, int>> reference;
    std::map<int, double> weightOf;
    std::set<int> live;
    const int ops = 1 + static_cast<int>(rng() % 300);
    for (int op = 0; op < ops; ++op) {
      const unsigned kind = rng() % 10;
      if (kind < 5 || reference.empty()) {
        const int id = static_cast<int>(weightOf.size());
        const double w = round % 2 ? std::uniform_real_distribution<double>(0, 100)(rng)
                                   : static_cast<double>(rng() % 4);  // many ties
        q.push(Qnode{id, w});
        reference.insert({w, id});
        weightOf[id] = w;
        live.insert(id);
      } else if (kind < 8) {
        const Qnode got = q.pop_min();
        ASSERT_EQ(got.weight, reference.begin()->first);
        ASSERT_EQ(reference.erase({got.weight, got.index}), 1u) << "id " << got.index;
        live.erase(got.index);
      } else if (!live.empty()) {  // lower a live id's key in place and move it up
        auto it = live.begin();
        std::advance(it, rng() % live.size());
        const double w = weightOf[*it] - static_cast<double>(rng() % 3);
        reference.erase({weightOf[*it], *it});
        reference.insert({w, *it});
        weightOf[*it] = w;
        const int at = q.position.at(*it);
        q.heap.at(at).weight = w;
        q.prelocate_up(at);
      }
      ASSERT_TRUE(consistent(q, live)) << "round " << round << " op " << op;
    }
  }
}

// Equal keys leave in their order of arrival; an empty queue prints a line
// and returns the sentinel; access outside the arrays throws.
TEST(MinPriorityQueue, TiesEmptyQueueAndBadAccess) {
  MinPriorityQueue q;
  for (const Qnode& n : {Qnode{0, 5.0}, Qnode{1, 3.0}, Qnode{2, 3.0}}) q.push(n);
  ::testing::internal::CaptureStdout();
  for (int id : {1, 2, 0}) EXPECT_EQ(q.pop_min().index, id);
  const Qnode empty = q.pop_min();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Empty queue\n");
  EXPECT_EQ(empty.index, -1);
  EXPECT_EQ(empty.weight, -1.0);
  EXPECT_EQ(q.heap.size(), 1u);

  EXPECT_THROW(q.prelocate_up(5), std::out_of_range);
  MinPriorityQueue bad;  // an id pushed out of order points past the position map
  bad.push(Qnode{3, 1.0});
  EXPECT_THROW(bad.pop_min(), std::out_of_range);
}

}  // namespace
