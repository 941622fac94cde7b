#pragma once
// PositionIndex: a hash index over the elements of a dense array (a std::vector that
// removes by moving its last element into the gap). It stores nothing but positions, 4
// bytes each in an open-addressing table kept at most half full, and asks its owner for
// what a position holds: `hashOf(pos)` for its hash, `match(pos)` for equality. A million
// elements cost 8 to 16 bytes each, where a node-based map costs 50 and more.
//
// Linear probing with backward-shift deletion: no tombstones, so a table that lives for
// years of adds and removes never degrades.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace Zub {

class PositionIndex {
 public:
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

  size_t size() const { return size_; }
  void clear() {
    table_.clear();
    size_ = 0;
  }

  // The position whose element matches, or kNone.
  template <class Match>
  uint32_t find(size_t hash, Match&& match) const {
    if (table_.empty()) return kNone;
    for (size_t i = home(hash);; i = next(i)) {
      const uint32_t pos = table_[i];
      if (pos == kNone) return kNone;
      if (match(pos)) return pos;
    }
  }

  // Adds `pos`, whose element hashes to `hash` and is not in the index yet.
  template <class HashOf>
  void insert(size_t hash, uint32_t pos, HashOf&& hashOf) {
    if (2 * (size_ + 1) > table_.size()) grow(hashOf);
    place(hash, pos);
    ++size_;
  }

  // Removes `pos`, whose element hashes to `hash`.
  template <class HashOf>
  void erase(size_t hash, uint32_t pos, HashOf&& hashOf) {
    size_t i = slotOf(hash, pos);
    if (i == kNoSlot) return;
    --size_;
    // Pull later members of the probe run back over the hole while their home allows.
    for (size_t j = next(i);; j = next(j)) {
      const uint32_t moving = table_[j];
      if (moving == kNone) break;
      const size_t h = home(hashOf(moving));
      const bool stays = i <= j ? (i < h && h <= j) : (i < h || h <= j);
      if (stays) continue;
      table_[i] = moving;
      i = j;
    }
    table_[i] = kNone;
  }

  // The element hashing to `hash` moved from position `from` to `to`.
  void move(size_t hash, uint32_t from, uint32_t to) {
    const size_t i = slotOf(hash, from);
    if (i != kNoSlot) table_[i] = to;
  }

 private:
  static constexpr size_t kNoSlot = std::numeric_limits<size_t>::max();

  size_t home(size_t hash) const {
    // Fibonacci hashing spreads weak hashes (pointers, small integers) over the table.
    return (hash * 0x9E3779B97F4A7C15ull) >> shift_;
  }
  size_t next(size_t i) const { return (i + 1) & (table_.size() - 1); }
  size_t slotOf(size_t hash, uint32_t pos) const {
    if (table_.empty()) return kNoSlot;
    for (size_t i = home(hash);; i = next(i)) {
      if (table_[i] == pos) return i;
      if (table_[i] == kNone) return kNoSlot;
    }
  }
  void place(size_t hash, uint32_t pos) {
    size_t i = home(hash);
    while (table_[i] != kNone) i = next(i);
    table_[i] = pos;
  }
  template <class HashOf>
  void grow(HashOf& hashOf) {
    const size_t slots = table_.empty() ? 8 : 2 * table_.size();
    std::vector<uint32_t> old(slots, kNone);
    old.swap(table_);
    shift_ = 64;
    for (size_t s = slots; s > 1; s >>= 1) --shift_;
    for (uint32_t pos : old) {
      if (pos != kNone) place(hashOf(pos), pos);
    }
  }

  std::vector<uint32_t> table_;
  size_t size_ = 0;
  unsigned shift_ = 64;
};

}  // namespace Zub
