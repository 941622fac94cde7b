#pragma once
// A first-in first-out queue whose elements carry an index that increases with each
// insertion (modulo the index type). The index lets a reader remember where it is in
// the queue (e.g. which cached message it sends next) without holding an iterator.
// Indexes wrap; running out of them means the queue holds as many elements as there are
// indexes, an impossible state for every queue of this system, and fails with
// "linkqueue index space full".

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

#include "platform/zub/Assert.h"

namespace Zub {

template <class T, class Index = uint32_t>
class LinkQueue {
 public:
  static constexpr uint64_t kIndexes = uint64_t(std::numeric_limits<Index>::max()) + 1;

  // Appends `v`; returns its index.
  Index enq(T v) {
    ZUB_ASSERT_TEXT(items_.size() < kIndexes, "linkqueue index space full");
    const Index index = static_cast<Index>(head_ + items_.size());
    items_.push_back(std::move(v));
    return index;
  }
  // Removes the oldest element; the queue must not be empty.
  T deq() {
    ZUB_ASSERT(!items_.empty());
    T v = std::move(items_.front());
    items_.pop_front();
    head_ = static_cast<Index>(head_ + 1);
    return v;
  }
  const T& front() const { return items_.front(); }
  // The element with `index`, or null when it is not in the queue.
  const T* at(Index index) const {
    const Index offset = static_cast<Index>(index - head_);
    return offset < items_.size() ? &items_[offset] : nullptr;
  }
  Index headIndex() const { return head_; }
  // The index the next enq() returns.
  Index tailIndex() const { return static_cast<Index>(head_ + items_.size()); }
  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  void clear() {
    items_.clear();
    head_ = 0;
  }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::deque<T> items_;
  Index head_ = 0;
};

}  // namespace Zub
