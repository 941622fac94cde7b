#include "platform/status/IntfIndexMap.h"

namespace FlowTracking {

uint32_t IntfIndexMap::findIntf(const Nelo::IntfId& intf) const {
  return byIntf_.find(hashIntf(intf), [&](uint32_t pos) { return entries_[pos].intf == intf; });
}

uint32_t IntfIndexMap::findIndex(uint32_t index) const {
  return byIndex_.find(hashIndex(index),
                       [&](uint32_t pos) { return entries_[pos].index == index; });
}

uint32_t IntfIndexMap::intfIndex(const Nelo::IntfId& intf) const {
  const uint32_t pos = findIntf(intf);
  return pos == kNone ? 0 : entries_[pos].index;
}

Nelo::IntfId IntfIndexMap::intfId(uint32_t index) const {
  const uint32_t pos = findIndex(index);
  return pos == kNone ? Nelo::IntfId() : entries_[pos].intf;
}

// Removes the entry at `pos`, moving the last entry into its place.
void IntfIndexMap::erase(uint32_t pos) {
  auto intfHashOf = [this](uint32_t p) { return hashIntf(entries_[p].intf); };
  auto indexHashOf = [this](uint32_t p) { return hashIndex(entries_[p].index); };
  byIntf_.erase(hashIntf(entries_[pos].intf), pos, intfHashOf);
  byIndex_.erase(hashIndex(entries_[pos].index), pos, indexHashOf);
  const uint32_t last = static_cast<uint32_t>(entries_.size() - 1);
  if (pos != last) {
    byIntf_.move(hashIntf(entries_[last].intf), last, pos);
    byIndex_.move(hashIndex(entries_[last].index), last, pos);
    entries_[pos] = std::move(entries_[last]);
  }
  entries_.pop_back();
}

void IntfIndexMap::intfIs(const Nelo::IntfId& intf, uint32_t index) {
  const uint32_t pos = findIntf(intf);
  if (pos != kNone && entries_[pos].index == index) return;
  intfDel(intf);
  const uint32_t holder = findIndex(index);
  if (holder != kNone) {
    // The index moves to this interface.
    const Nelo::IntfId former = entries_[holder].intf;
    erase(holder);
    signal_.emit(former);
  }
  entries_.push_back({intf, index});
  const uint32_t added = static_cast<uint32_t>(entries_.size() - 1);
  byIntf_.insert(hashIntf(intf), added, [this](uint32_t p) { return hashIntf(entries_[p].intf); });
  byIndex_.insert(hashIndex(index), added,
                  [this](uint32_t p) { return hashIndex(entries_[p].index); });
  signal_.emit(intf);
}

void IntfIndexMap::intfDel(const Nelo::IntfId& intf) {
  const uint32_t pos = findIntf(intf);
  if (pos == kNone) return;
  const Nelo::IntfId gone = entries_[pos].intf;
  erase(pos);
  signal_.emit(gone);
}

}  // namespace FlowTracking
