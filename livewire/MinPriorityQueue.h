// Indexed binary min-heap of the live-wire search.
//
// Beside the heap, `position` maps every id to its current heap slot, so the
// search can lower an element's key in place and move it up (decrease-key in
// O(log n)). Ids are handed out in push order: the k-th push must carry id k,
// because push appends to `position` without looking at the id.
//
// Every access to `heap` and `position` is checked: an out-of-range slot or
// id throws std::out_of_range.
#pragma once

#include <cstdint>
#include <vector>

#include "support/export.h"

// One heap entry.
struct Qnode {
  int32_t index;  // the element's id (the pixel's number in the search)
  double weight;  // the key; smaller comes first
};

class SEGCORE_EXPORT MinPriorityQueue {
 public:
  // 1-based heap; heap[0] is the sentinel (index -1, weight -1.0).
  // Invariant: heap[i/2].weight <= heap[i].weight for every i >= 2.
  std::vector<Qnode> heap;
  // position[id] = heap slot of that id; -1 once popped.
  std::vector<int> position;

  MinPriorityQueue();

  // Adds node (its index must equal the number of earlier pushes).
  void push(Qnode node);
  // Removes and returns the entry of least weight. On an empty queue prints
  // "Empty queue" to standard output and returns the sentinel (index -1).
  Qnode pop_min();
  // Moves the entry at slot i up while its parent is strictly heavier.
  void prelocate_up(int i);
  // Moves the entry at slot i down while a child is strictly lighter
  // (ties between children go to the left one).
  void prelocate_down(int i);
  // Exchanges two heap entries and then the positions of the ids now at a
  // and b, so the map follows the move.
  void swap(Qnode& a, Qnode& b, std::vector<int>& position);
};
