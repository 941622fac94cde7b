#pragma once
// The software data path's flow cache: sampled packets aggregated into flow records by
// their flow key, ended by the tracker's timeouts.
//
// - Open addressing over a power-of-two slot array (load at most one half), linear
//   probing on a 32-bit tag before the record is touched, backward-shift deletion (no
//   tombstones; the tag gives each entry's home slot, so deleting reads no record). The
//   hash is keyed with a secret drawn at start: keys come from the network, and a flood
//   of colliding keys must not turn probing into a scan.
// - Records live in a pool allocated once; nothing is allocated per packet.
// - Two intrusive lists order the records: by last sample (idle expiry pops the head)
//   and by record start (active expiry pops the head). A sample is O(1), a tick
//   O(expired), and each tick does at most a budget of exports.
//
// End reasons, as IPFIX flowEndReason: 1 idle timeout (3 when a FIN or RST was seen), 2
// active timeout (the record restarts: counters from zero, start now; a record that
// then sees no sample ends silently), 4 forced end (flush), 5 lack of resources (the
// cache was full: its least recently seen flow made room).

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace FlowTracking {

// Compared as bytes: unused bytes are zero.
struct FlowKey {
  std::array<uint8_t, 16> src{};
  std::array<uint8_t, 16> dst{};
  uint32_t ingressIf = 0;
  uint32_t vrfId = 0;
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
  uint8_t protocol = 0;
  uint8_t ipVersion = 0;
  uint16_t pad = 0;
  // Six words compared at once (no call to memcmp on the packet path).
  friend bool operator==(const FlowKey& a, const FlowKey& b) {
    const auto* x = reinterpret_cast<const unsigned char*>(&a);
    const auto* y = reinterpret_cast<const unsigned char*>(&b);
    uint64_t differ = 0;
    for (size_t i = 0; i < 48; i += 8) {
      uint64_t u, v;
      std::memcpy(&u, x + i, 8);
      std::memcpy(&v, y + i, 8);
      differ |= u ^ v;
    }
    return differ == 0;
  }
};
static_assert(sizeof(FlowKey) == 48);

// What one sample adds to its flow.
struct FlowSample {
  uint32_t packets = 1;  // wire packets (segments)
  uint64_t octets = 0;
  uint8_t tos = 0;
  uint8_t tcpFlags = 0;
  uint32_t egressIf = 0;
  int64_t wallMs = 0;  // when it was seen, wall time
};

enum FlowEndReason : uint8_t {
  idleTimeout = 1,
  activeTimeout = 2,
  endOfFlow = 3,
  forcedEnd = 4,
  lackOfResources = 5,
};

// Two cache lines: the key and counters in the first, times and links in the second.
struct alignas(64) FlowRecord {
  FlowKey key;
  uint64_t packets = 0;
  uint64_t octets = 0;
  int64_t firstWallMs = 0;
  int64_t lastWallMs = 0;
  int64_t lastSeenNs = 0;  // monotonic
  int64_t startNs = 0;     // monotonic: when this record began
  uint32_t egressIf = 0;
  uint8_t tos = 0;
  uint8_t tcpFlags = 0;   // OR of the samples' flags
  bool finOrRst = false;  // a sample had FIN or RST: an idle end is reason 3
  uint8_t pad_ = 0;
  // List links (record indexes; kNone at the ends).
  uint32_t idlePrev = 0, idleNext = 0, startPrev = 0, startNext = 0;
  uint32_t tag = 0;  // the key's hash, lower half: removal finds the slot without hashing
};
static_assert(sizeof(FlowRecord) == 128);

class FlowSink {
 public:
  virtual ~FlowSink() = default;
  virtual void flowEnded(const FlowRecord& record, FlowEndReason reason) = 0;
};

class FlowCache {
 public:
  using Hash = uint64_t (*)(const FlowKey& key, const std::array<uint64_t, 2>& secret);
  static uint64_t sipHash(const FlowKey& key, const std::array<uint64_t, 2>& secret);
  // A keyed hash of the key's six words, in the manner of wyhash: each pair of words,
  // mixed with the secret, is multiplied into 128 bits and folded. Without the secret
  // (from getrandom at start) nobody can choose keys that collide; it costs four
  // multiplies where SipHash-1-3 costs nine rounds.
  static uint64_t keyedHash(const FlowKey& key, const std::array<uint64_t, 2>& secret) {
    uint64_t w[6];
    std::memcpy(w, &key, sizeof w);
    constexpr uint64_t kP0 = 0xa0761d6478bd642fULL, kP1 = 0xe7037ed1a0b428dbULL,
                       kP2 = 0x8ebc6af09c88c6e3ULL;
    const uint64_t s0 = secret[0] ^ kP0, s1 = secret[1] ^ kP1;
    uint64_t h = mum(w[0] ^ s0, w[1] ^ s1);
    h = mum(w[2] ^ s1 ^ h, w[3] ^ kP2);
    h = mum(w[4] ^ s0 ^ h, w[5] ^ s1);
    return mum(h ^ kP0, sizeof(FlowKey) ^ kP1 ^ secret[0]);
  }

  struct Config {
    uint32_t capacity = 65536;
    int64_t idleTimeoutNs = 15'000'000'000;
    int64_t activeTimeoutNs = 300'000'000'000;
  };
  // `hash` is for tests that force collisions (null: the keyed hash, inlined); the
  // secret is random unless given.
  explicit FlowCache(const Config& config, Hash hash = nullptr,
                     const std::array<uint64_t, 2>* secret = nullptr);

  // Adds a sample to its flow (a new one when there is none; when the cache is full
  // its least recently seen flow ends first, reason 5). A flow past its active timeout
  // ends (reason 2) and restarts with this sample.
  // Returns whether the sample started a new flow.
  bool sample(const FlowKey& key, const FlowSample& s, int64_t nowNs, FlowSink& sink) {
    return sample(key, hashOf(key), s, nowNs, sink) != nullptr;
  }
  // The same with the key's hash already made: a batch of samples is hashed, and its
  // slots fetched, before the first is added. Returns the record of a flow this sample
  // started (for its egress interface), null when the flow existed.
  FlowRecord* sample(const FlowKey& key, uint64_t hash, const FlowSample& s, int64_t nowNs,
                     FlowSink& sink);
  uint64_t hashOf(const FlowKey& key) const {
    return hash_ ? hash_(key, secret_) : keyedHash(key, secret_);
  }
  // Starts fetching what a look-up of this hash reads first: its home slot.
  void prefetchSlot(uint64_t hash) const { __builtin_prefetch(&slots_[hash & mask_]); }
  // Then the record that the home slot names, when its tag matches (most keys are
  // found at home).
  void prefetchRecord(uint64_t hash) const {
    const Slot& slot = slots_[hash & mask_];
    if (slot.item != 0 && slot.tag == static_cast<uint32_t>(hash)) {
      __builtin_prefetch(&records_[slot.item - 1]);
    }
  }
  // Ends the flows whose timeouts have passed at `nowNs`, at most `budget` of them
  // (records that end silently do not count). Returns whether more are due.
  bool expire(int64_t nowNs, size_t budget, FlowSink& sink);
  // Ends every flow (reason 4), at most `budget`; returns whether flows remain.
  bool flush(size_t budget, FlowSink& sink);
  // When the next flow falls due, or INT64_MAX for an empty cache.
  int64_t nextDeadlineNs() const;

  size_t size() const { return size_; }
  uint32_t capacity() const { return config_.capacity; }
  const Config& config() const { return config_; }
  void timeoutsIs(int64_t idleNs, int64_t activeNs);
  uint64_t evictions() const { return evictions_; }
  const FlowRecord* find(const FlowKey& key) const;
  // Calls `f` with each flow, the most recently seen first, until it returns false.
  template <class F>
  void forEach(F&& f) const {
    for (uint32_t i = idle_.tail; i != kNone; i = records_[i].idlePrev) {
      if (!f(records_[i])) return;
    }
  }
  // The egress interface of `key`'s flow, when it is in the cache.
  void egressIs(const FlowKey& key, uint32_t egressIf);
  // Bytes held per flow of capacity (record and slots).
  static constexpr size_t kBytesPerFlow = sizeof(FlowRecord) + 2 * 8 + sizeof(uint32_t);

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFF;
  struct Slot {
    uint32_t tag;   // the hash's lower half: compared before the key, and the home slot
    uint32_t item;  // record index + 1; 0 empty
  };
  struct List {
    uint32_t head = kNone, tail = kNone;
  };
  using Link = uint32_t FlowRecord::*;

  uint32_t findSlot(const FlowKey& key, uint64_t h) const;
  void remove(uint32_t index);
  void end(uint32_t index, FlowEndReason reason, FlowSink& sink);
  void restart(uint32_t index, int64_t nowNs);
  void unlink(List& list, Link prev, Link next, uint32_t i);
  void append(List& list, Link prev, Link next, uint32_t i);
  static uint64_t mum(uint64_t a, uint64_t b) {
    const unsigned __int128 r = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
  }

  Config config_;
  Hash hash_;
  std::array<uint64_t, 2> secret_;
  uint64_t mask_;
  // Arrays of a fixed size, on huge pages where the kernel gives them: a large cache is
  // read at random, and 4 KiB pages would cost a page walk on most look-ups.
  template <class T>
  class Array {
   public:
    Array() = default;
    explicit Array(size_t n);
    ~Array();
    Array(Array&& o) noexcept : p_(o.p_), n_(o.n_), bytes_(o.bytes_) { o.p_ = nullptr; }
    Array& operator=(Array&& o) noexcept {
      std::swap(p_, o.p_);
      std::swap(n_, o.n_);
      std::swap(bytes_, o.bytes_);
      return *this;
    }
    T& operator[](size_t i) { return p_[i]; }
    const T& operator[](size_t i) const { return p_[i]; }
    size_t size() const { return n_; }

   private:
    T* p_ = nullptr;
    size_t n_ = 0;
    size_t bytes_ = 0;
  };
  Array<Slot> slots_;
  Array<FlowRecord> records_;
  std::vector<uint32_t> free_;  // indices of ended flows
  uint32_t unused_ = 0;         // indices from here on were never used
  List idle_, started_;
  size_t size_ = 0;
  uint64_t evictions_ = 0;
};

}  // namespace FlowTracking
