#include "livewire/MinPriorityQueue.h"

#include <cstddef>
#include <cstdio>
#include <stdexcept>

MinPriorityQueue::MinPriorityQueue() : heap{Qnode{-1, -1.0}} {}

void MinPriorityQueue::push(Qnode node) {
  heap.push_back(node);
  const int last = static_cast<int>(heap.size()) - 1;
  position.push_back(last);
  prelocate_up(last);
}

Qnode MinPriorityQueue::pop_min() {
  if (heap.size() <= 1) {
    std::fputs("Empty queue\n", stdout);
    std::fflush(stdout);
    return heap.at(0);
  }
  const Qnode result = heap.at(1);
  position.at(result.index) = -1;
  if (heap.size() == 2) {
    heap.pop_back();
    return result;
  }
  heap.at(1) = heap.back();
  heap.pop_back();
  position.at(heap.at(1).index) = 1;
  prelocate_down(1);
  return result;
}

void MinPriorityQueue::prelocate_up(int i) {
  // Equal keys stay where they are.
  while (i >= 2) {
    const int p = i / 2;
    if (!(heap.at(p).weight > heap.at(i).weight)) return;
    swap(heap.at(p), heap.at(i), position);
    i = p;
  }
}

void MinPriorityQueue::prelocate_down(int i) {
  if (i < 0) throw std::out_of_range("MinPriorityQueue::prelocate_down: negative slot");
  if (i == 0) return;  // the sentinel never moves
  // Slot arithmetic in size_t: 2i cannot overflow.
  const size_t last = heap.size() - 1;
  size_t at = static_cast<size_t>(i);
  for (;;) {
    const size_t left = 2 * at;
    if (left > last) return;  // no child
    if (left == last) {       // only a left child: one comparison ends it
      if (heap.at(left).weight < heap.at(at).weight) swap(heap.at(at), heap.at(left), position);
      return;
    }
    const size_t child = heap.at(left + 1).weight < heap.at(left).weight ? left + 1 : left;
    if (!(heap.at(at).weight > heap.at(child).weight)) return;
    swap(heap.at(at), heap.at(child), position);
    at = child;
  }
}

void MinPriorityQueue::swap(Qnode& a, Qnode& b, std::vector<int>& position) {
  const Qnode t = a;
  a = b;
  b = t;
  int& pa = position.at(a.index);
  int& pb = position.at(b.index);
  const int tp = pa;
  pa = pb;
  pb = tp;
}
