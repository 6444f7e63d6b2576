// A small cache of the two terminal capacities of a pixel's features.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// The terminal capacities of a pixel depend on its three feature bytes and
// the colour models alone, and photos repeat colours often (a working-size
// photo has about half as many colours as pixels, and neighbours repeat
// them). The cache is direct-mapped over the latest triples seen; one per
// thread, for one fill (the models must not change while it is used).
class ColourCache {
 public:
  ColourCache() : m_entries(kSize) {}

  // The capacities of (a, b, c): from the cache, or compute(&source, &sink)
  // stored for the next time.
  template <class Compute>
  void get(uint8_t a, uint8_t b, uint8_t c, float* source, float* sink, Compute compute) {
    const uint32_t key = (uint32_t{a} << 16 | uint32_t{b} << 8 | uint32_t{c}) + 1u;
    Entry& e = m_entries[(key * 2654435761u) >> (32 - kBits)];  // Fibonacci hashing, wraps
    if (e.key != key) {
      compute(&e.source, &e.sink);
      e.key = key;
    }
    *source = e.source;
    *sink = e.sink;
  }

 private:
  static constexpr int kBits = 12;
  static constexpr size_t kSize = size_t{1} << kBits;
  struct Entry {
    uint32_t key = 0;  // the triple + 1; 0 = empty
    float source = 0.0f;
    float sink = 0.0f;
  };
  std::vector<Entry> m_entries;
};
