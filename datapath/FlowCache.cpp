#include "datapath/FlowCache.h"

#include <sys/mman.h>
#include <sys/random.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "platform/zub/Assert.h"

namespace FlowTracking {

namespace {

constexpr uint8_t kTcpFin = 0x01;
constexpr uint8_t kTcpRst = 0x04;

inline uint64_t rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }

inline __attribute__((always_inline)) void sipRound(uint64_t& v0, uint64_t& v1, uint64_t& v2,
                                                    uint64_t& v3) {
  v0 += v1;
  v1 = rotl(v1, 13);
  v1 ^= v0;
  v0 = rotl(v0, 32);
  v2 += v3;
  v3 = rotl(v3, 16);
  v3 ^= v2;
  v0 += v3;
  v3 = rotl(v3, 21);
  v3 ^= v0;
  v2 += v1;
  v1 = rotl(v1, 17);
  v1 ^= v2;
  v2 = rotl(v2, 32);
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
#define FLOWCACHE_HEAP_ARRAYS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FLOWCACHE_HEAP_ARRAYS 1
#endif
#endif

template <class T>
FlowCache::Array<T>::Array(size_t n) : n_(n) {
#if defined(FLOWCACHE_HEAP_ARRAYS)
  // The sanitizer sees overruns of heap memory only.
  bytes_ = 0;
  p_ = new T[n]();
#else
  constexpr size_t kHuge = size_t{2} << 20;
  bytes_ = (n * sizeof(T) + kHuge - 1) / kHuge * kHuge;
  // A huge page needs an aligned address: one page more is mapped and the ends trimmed.
  void* p =
      ::mmap(nullptr, bytes_ + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  const auto at = reinterpret_cast<uintptr_t>(p);
  const uintptr_t aligned = (at + kHuge - 1) & ~(kHuge - 1);
  if (aligned > at) ::munmap(p, aligned - at);
  if (aligned - at < kHuge)
    ::munmap(reinterpret_cast<void*>(aligned + bytes_), kHuge - (aligned - at));
  p = reinterpret_cast<void*>(aligned);
  ::madvise(p, bytes_, MADV_HUGEPAGE);  // a hint: without it the pages are small ones
  // Not written here: the kernel's zero pages are empty slots, and a record is assigned
  // whole when its flow starts, so memory is taken as flows arrive, not at start.
  static_assert(std::is_trivially_destructible_v<T> && std::is_trivially_copyable_v<T>);
  p_ = static_cast<T*>(p);
#endif
}

template <class T>
FlowCache::Array<T>::~Array() {
  if (!p_) return;
#if defined(FLOWCACHE_HEAP_ARRAYS)
  delete[] p_;
#else
  ::munmap(p_, bytes_);
#endif
}

template class FlowCache::Array<FlowCache::Slot>;
template class FlowCache::Array<FlowRecord>;

// SipHash-1-3 over the key's 48 bytes (six whole words, then the length block).
uint64_t FlowCache::sipHash(const FlowKey& key, const std::array<uint64_t, 2>& secret) {
  uint64_t v0 = 0x736f6d6570736575ULL ^ secret[0];
  uint64_t v1 = 0x646f72616e646f6dULL ^ secret[1];
  uint64_t v2 = 0x6c7967656e657261ULL ^ secret[0];
  uint64_t v3 = 0x7465646279746573ULL ^ secret[1];
  uint64_t words[6];
  std::memcpy(words, &key, sizeof words);
  for (uint64_t m : words) {
    v3 ^= m;
    sipRound(v0, v1, v2, v3);
    v0 ^= m;
  }
  const uint64_t last = uint64_t{sizeof(FlowKey)} << 56;
  v3 ^= last;
  sipRound(v0, v1, v2, v3);
  v0 ^= last;
  v2 ^= 0xff;
  for (int i = 0; i < 3; ++i) sipRound(v0, v1, v2, v3);
  return v0 ^ v1 ^ v2 ^ v3;
}

FlowCache::FlowCache(const Config& config, Hash hash, const std::array<uint64_t, 2>* secret)
    : config_(config), hash_(hash) {
  ZUB_ASSERT_TEXT(config_.capacity > 0 && config_.capacity <= (1u << 30),
                  "capacity > 0 && capacity <= 2^30");
  timeoutsIs(config_.idleTimeoutNs, config_.activeTimeoutNs);
  if (secret) {
    secret_ = *secret;
  } else if (::getrandom(secret_.data(), sizeof secret_, 0) != sizeof secret_) {
    // No entropy yet (early boot): the address of the cache is better than nothing.
    secret_ = {reinterpret_cast<uintptr_t>(this), reinterpret_cast<uintptr_t>(&config_)};
  }
  const uint64_t slots = std::bit_ceil(uint64_t{config_.capacity} * 2);
  mask_ = slots - 1;
  slots_ = Array<Slot>(slots);
  records_ = Array<FlowRecord>(config_.capacity);
  // Indices come from the ended flows first, then from those never used: only the
  // records of flows seen so far are touched.
  free_.reserve(config_.capacity);
}

void FlowCache::timeoutsIs(int64_t idleNs, int64_t activeNs) {
  ZUB_ASSERT_TEXT(idleNs > 0 && activeNs > 0, "idleNs > 0 && activeNs > 0");
  config_.idleTimeoutNs = idleNs;
  config_.activeTimeoutNs = activeNs;
}

uint32_t FlowCache::findSlot(const FlowKey& key, uint64_t h) const {
  const auto tag = static_cast<uint32_t>(h);
  for (uint64_t s = tag & mask_;; s = (s + 1) & mask_) {
    const Slot& slot = slots_[s];
    if (slot.item == 0) return static_cast<uint32_t>(s);
    if (slot.tag == tag && records_[slot.item - 1].key == key) return static_cast<uint32_t>(s);
  }
}

const FlowRecord* FlowCache::find(const FlowKey& key) const {
  const Slot& slot = slots_[findSlot(key, hashOf(key))];
  return slot.item ? &records_[slot.item - 1] : nullptr;
}

void FlowCache::egressIs(const FlowKey& key, uint32_t egressIf) {
  const Slot& slot = slots_[findSlot(key, hashOf(key))];
  if (slot.item) records_[slot.item - 1].egressIf = egressIf;
}

void FlowCache::unlink(List& list, Link prev, Link next, uint32_t i) {
  FlowRecord& r = records_[i];
  (r.*prev == kNone ? list.head : records_[r.*prev].*next) = r.*next;
  (r.*next == kNone ? list.tail : records_[r.*next].*prev) = r.*prev;
}

void FlowCache::append(List& list, Link prev, Link next, uint32_t i) {
  FlowRecord& r = records_[i];
  r.*prev = list.tail;
  r.*next = kNone;
  (list.tail == kNone ? list.head : records_[list.tail].*next) = i;
  list.tail = i;
}

// Takes the record out of the index (backward-shift: later members of its probe run
// move up, so no run has a hole) and out of both lists.
void FlowCache::remove(uint32_t index) {
  uint64_t hole = records_[index].tag & mask_;
  while (slots_[hole].item != index + 1) {
    ZUB_ASSERT_TEXT(slots_[hole].item != 0, "slot of the record");
    hole = (hole + 1) & mask_;
  }
  for (uint64_t s = (hole + 1) & mask_; slots_[s].item != 0; s = (s + 1) & mask_) {
    // The tag is the hash's low half, which holds the home slot: no record is read.
    const uint64_t home = slots_[s].tag & mask_;
    // The entry at s may fill the hole when its home is not within (hole, s].
    if (((s - home) & mask_) >= ((s - hole) & mask_)) {
      slots_[hole] = slots_[s];
      hole = s;
    }
  }
  slots_[hole] = Slot{0, 0};
  unlink(idle_, &FlowRecord::idlePrev, &FlowRecord::idleNext, index);
  unlink(started_, &FlowRecord::startPrev, &FlowRecord::startNext, index);
  free_.push_back(index);
  --size_;
}

void FlowCache::end(uint32_t index, FlowEndReason reason, FlowSink& sink) {
  const FlowRecord& r = records_[index];
  if (r.packets > 0) sink.flowEnded(r, reason);
  remove(index);
}

void FlowCache::restart(uint32_t index, int64_t nowNs) {
  FlowRecord& r = records_[index];
  r.packets = 0;
  r.octets = 0;
  r.tcpFlags = 0;
  r.finOrRst = false;
  r.startNs = nowNs;
  unlink(started_, &FlowRecord::startPrev, &FlowRecord::startNext, index);
  append(started_, &FlowRecord::startPrev, &FlowRecord::startNext, index);
}

FlowRecord* FlowCache::sample(const FlowKey& key, uint64_t h, const FlowSample& s, int64_t nowNs,
                              FlowSink& sink) {
  uint32_t slot = findSlot(key, h);
  uint32_t index;
  const bool created = slots_[slot].item == 0;
  if (!created) {
    index = slots_[slot].item - 1;
    FlowRecord& r = records_[index];
    if (nowNs - r.startNs >= config_.activeTimeoutNs) {
      if (r.packets > 0) sink.flowEnded(r, activeTimeout);
      restart(index, nowNs);
    }
    unlink(idle_, &FlowRecord::idlePrev, &FlowRecord::idleNext, index);
  } else {
    if (free_.empty() && unused_ == config_.capacity) {
      // Full: the least recently seen flow makes room. Its removal may move entries of
      // this key's probe run, so the slot is looked up again.
      ++evictions_;
      end(idle_.head, lackOfResources, sink);
      slot = findSlot(key, h);
    }
    if (free_.empty()) {
      index = unused_++;
    } else {
      index = free_.back();
      free_.pop_back();
    }
    slots_[slot] = Slot{static_cast<uint32_t>(h), index + 1};
    FlowRecord& r = records_[index];
    r = FlowRecord();
    r.key = key;
    r.tag = static_cast<uint32_t>(h);
    r.startNs = nowNs;
    r.firstWallMs = s.wallMs;
    r.tos = s.tos;
    r.egressIf = s.egressIf;
    append(started_, &FlowRecord::startPrev, &FlowRecord::startNext, index);
    ++size_;
  }
  FlowRecord& r = records_[index];
  if (r.packets == 0) r.firstWallMs = s.wallMs;
  r.packets += s.packets;
  r.octets += s.octets;
  r.tcpFlags |= s.tcpFlags;
  r.finOrRst = r.finOrRst || (s.tcpFlags & (kTcpFin | kTcpRst)) != 0;
  r.lastWallMs = s.wallMs;
  r.lastSeenNs = nowNs;
  if (s.egressIf != 0) r.egressIf = s.egressIf;
  append(idle_, &FlowRecord::idlePrev, &FlowRecord::idleNext, index);
  return created ? &r : nullptr;
}

bool FlowCache::expire(int64_t nowNs, size_t budget, FlowSink& sink) {
  size_t done = 0;
  for (;;) {
    const bool idleDue =
        idle_.head != kNone && nowNs - records_[idle_.head].lastSeenNs >= config_.idleTimeoutNs;
    const bool activeDue = started_.head != kNone &&
                           nowNs - records_[started_.head].startNs >= config_.activeTimeoutNs;
    if (!idleDue && !activeDue) return false;
    if (done >= budget) return true;
    if (idleDue) {
      const FlowRecord& r = records_[idle_.head];
      if (r.packets > 0) ++done;
      end(idle_.head, r.finOrRst ? endOfFlow : idleTimeout, sink);
    } else {
      const uint32_t i = started_.head;
      if (records_[i].packets > 0) {
        sink.flowEnded(records_[i], activeTimeout);
        ++done;
      }
      restart(i, nowNs);
    }
  }
}

bool FlowCache::flush(size_t budget, FlowSink& sink) {
  for (size_t done = 0; idle_.head != kNone; ++done) {
    if (done >= budget) return true;
    end(idle_.head, forcedEnd, sink);
  }
  return false;
}

int64_t FlowCache::nextDeadlineNs() const {
  int64_t next = INT64_MAX;
  if (idle_.head != kNone) next = records_[idle_.head].lastSeenNs + config_.idleTimeoutNs;
  if (started_.head != kNone) {
    next = std::min(next, records_[started_.head].startNs + config_.activeTimeoutNs);
  }
  return next;
}

}  // namespace FlowTracking
