#pragma once
// Stova: a fixed-capacity table of fixed-size, trivially copyable records in memory
// shared between one writer process and any number of reader processes.
//
// Layout: a control block (magic, layout version, capacity, record size, generation,
// writer pid) followed by `capacity` slots. Each slot has a sequence counter and a
// used flag in front of the record. The writer makes the counter odd, stores the
// words, makes it even again; a reader copies the slot between two reads of the
// counter and retries when they differ or are odd, so it never sees a torn record and
// never blocks the writer. The table-wide generation moves on every write, so a
// reader can tell cheaply that something changed.
//
// Memory comes from a Segment: a POSIX shared-memory object (shm_open + mmap; the
// writer creates it anew, readers map it read-only and notice a re-created segment by
// its inode) or plain heap memory for tests, where a reader attaches to the writer's
// buffer.

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "platform/zub/Assert.h"
#include "platform/zub/Exception.h"
#include "platform/zub/Types.h"

namespace Stova {

// A mapped region of memory.
class Segment {
 public:
  // A new POSIX shared-memory object `name` ("/flowexport-stats"), replacing any old one.
  static std::unique_ptr<Segment> create(const std::string& name, size_t bytes);
  // Maps an existing object read-only. Raises Zub::ErrnoException when it is absent.
  static std::unique_ptr<Segment> open(const std::string& name);
  // Zeroed heap memory (tests, and a writer that nobody reads).
  static std::unique_ptr<Segment> heap(size_t bytes);
  // A second view of another segment's memory, as a reader in the same process.
  static std::unique_ptr<Segment> alias(const Segment& other);
  ~Segment();
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  uint8_t* data() const { return data_; }
  size_t bytes() const { return bytes_; }
  const std::string& name() const { return name_; }
  // For a shared-memory reader: the name now refers to another object (the writer
  // restarted) or to none.
  bool replaced() const;
  // Made by create() or heap() and holding zeros.
  bool zeroed() const { return zeroed_; }
  // Writer: removes the shared-memory name (the memory stays mapped until destruction).
  void unlink();
  // The user that owns the shared-memory object (this process's for heap memory).
  uid_t ownerUid() const { return ownerUid_; }

 private:
  Segment() = default;
  static std::unique_ptr<Segment> mapped(const std::string& name, void* p, size_t bytes,
                                         ino_t inode);
  std::string name_;
  uint8_t* data_ = nullptr;
  size_t bytes_ = 0;
  bool mapped_ = false;
  bool owner_ = false;   // heap memory to free
  bool zeroed_ = false;  // new, nothing written yet
  ino_t inode_ = 0;
  uid_t ownerUid_ = ::geteuid();
};

struct ControlBlock {
  static constexpr uint64_t kMagic = 0x31305641564f5453ULL;  // "STOVAV01"
  static constexpr uint32_t kLayoutVersion = 1;
  uint64_t magic;
  uint32_t layoutVersion;
  uint32_t capacity;
  uint32_t recordBytes;
  uint32_t slotBytes;
  std::atomic<uint64_t> generation;
  uint64_t writerPid;
  char tableName[64];
};
static_assert(sizeof(ControlBlock) % 8 == 0);

// The untyped table over a segment.
class RawTable {
 public:
  static size_t bytesFor(uint32_t capacity, uint32_t recordBytes);
  // Writer: formats the memory.
  static void format(Segment& seg, const std::string& tableName, uint32_t capacity,
                     uint32_t recordBytes);
  // Attaches to formatted memory; raises Zub::Exception when the control block does not
  // match the expected record size.
  RawTable(Segment& seg, uint32_t recordBytes);

  uint32_t capacity() const { return ctl_->capacity; }
  uint64_t generation() const { return ctl_->generation.load(std::memory_order_acquire); }
  uint64_t writerPid() const { return ctl_->writerPid; }
  std::string tableName() const;

  // Writer side.
  void write(uint32_t slot, const void* record);
  void erase(uint32_t slot);
  void bumpGeneration();
  // Reader side: copies the slot's record into `out`. Never blocks the writer: it
  // retries while the writer is inside the slot, and answers `busy` when no consistent
  // copy could be taken within `patience` (a writer that died half-way, or one that
  // rewrites the slot without pause).
  enum class Read { absent, present, busy };
  Read read(uint32_t slot, void* out,
            std::chrono::milliseconds patience = std::chrono::milliseconds(2000)) const;

 private:
  struct SlotHeader {
    std::atomic<uint64_t> seq;
    uint64_t used;
  };
  SlotHeader* slot(uint32_t i) const {
    return reinterpret_cast<SlotHeader*>(base_ + static_cast<size_t>(i) * ctl_->slotBytes);
  }
  ControlBlock* ctl_;
  uint8_t* base_;
  uint32_t recordBytes_;
};

// A typed table of records T (trivially copyable, size a multiple of 8) keyed by
// T::Key, obtained with `keyOf(record)`. One writer instance per table; readers use
// TableReader.
template <class T>
class Table {
  static_assert(std::is_trivially_copyable_v<T>);
  static_assert(sizeof(T) % 8 == 0, "records are copied in 8-byte words");

 public:
  using Key = typename T::Key;

  Table(std::unique_ptr<Segment> seg, const std::string& tableName, uint32_t capacity)
      : seg_(std::move(seg)) {
    RawTable::format(*seg_, tableName, capacity, sizeof(T));
    raw_.emplace(*seg_, sizeof(T));
    for (uint32_t i = capacity; i > 0; --i) free_.push_back(i - 1);
  }

  Segment& segment() const { return *seg_; }
  uint32_t capacity() const { return raw_->capacity(); }
  size_t size() const { return index_.size(); }
  uint64_t generation() const { return raw_->generation(); }

  // The record of `key`, or nullopt.
  std::optional<T> get(const Key& key) const {
    auto it = index_.find(key);
    if (it == index_.end()) return std::nullopt;
    return records_[it->second];
  }
  // Inserts or replaces the record under its key. Raises Zub::RangeException when the
  // table is full.
  void set(const T& record) {
    const uint32_t slot = slotFor(record.keyOf());
    records_[slot] = record;
    raw_->write(slot, &record);
  }
  // Applies `fn` to the record of `key` (starting from T(key) when absent) in place and
  // writes it once: one lookup, one copy into the shared slot.
  template <class F>
  void update(const Key& key, F&& fn) {
    bool added = false;
    const uint32_t slot = slotFor(key, &added);
    if (added) records_[slot] = T(key);
    fn(records_[slot]);
    raw_->write(slot, &records_[slot]);
  }
  bool del(const Key& key) {
    auto it = index_.find(key);
    if (it == index_.end()) return false;
    raw_->erase(it->second);
    free_.push_back(it->second);
    index_.erase(it);
    return true;
  }
  void delAll() {
    std::vector<Key> keys;
    for (const auto& [k, s] : index_) keys.push_back(k);
    for (const auto& k : keys) del(k);
  }
  // The records in slot order (a snapshot).
  std::vector<T> all() const {
    std::vector<std::pair<uint32_t, Key>> slots;
    for (const auto& [k, s] : index_) slots.emplace_back(s, k);
    std::sort(slots.begin(), slots.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<T> out;
    for (const auto& [s, k] : slots) out.push_back(records_[s]);
    return out;
  }
  void notify() { raw_->bumpGeneration(); }

 private:
  // The slot of `key`, taking a free one for a new key. Raises Zub::RangeException when
  // the table is full.
  uint32_t slotFor(const Key& key, bool* added = nullptr) {
    auto it = index_.find(key);
    if (it != index_.end()) return it->second;
    if (free_.empty()) throw Zub::RangeException("Stova table " + raw_->tableName() + " is full");
    const uint32_t slot = free_.back();
    free_.pop_back();
    index_.emplace(key, slot);
    if (records_.size() <= slot) records_.resize(slot + 1);
    if (added) *added = true;
    return slot;
  }

  std::unique_ptr<Segment> seg_;
  std::optional<RawTable> raw_;
  std::unordered_map<Key, uint32_t, Zub::Hash<Key>> index_;
  std::vector<T> records_;  // the writer's own copy
  std::vector<uint32_t> free_;
};

// A reader of a Table<T> in another process (or a second view in the same one).
template <class T>
class TableReader {
 public:
  explicit TableReader(std::unique_ptr<Segment> seg)
      : seg_(std::move(seg)), raw_(*seg_, sizeof(T)) {}

  uint64_t generation() const { return raw_.generation(); }
  uint64_t writerPid() const { return raw_.writerPid(); }
  bool replaced() const { return seg_->replaced(); }
  // The records in use. Rows that stay busy (a writer that died inside one, or memory
  // somebody else wrote) are left out and counted in `busy`; all of them together get
  // at most `patience`, after which each busy row costs one short look.
  std::vector<T> all(size_t* busy = nullptr,
                     std::chrono::milliseconds patience = std::chrono::milliseconds(500)) const {
    std::vector<T> out;
    T record;
    const auto giveUp = std::chrono::steady_clock::now() + patience;
    for (uint32_t i = 0; i < raw_.capacity(); ++i) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          giveUp - std::chrono::steady_clock::now());
      switch (raw_.read(i, &record, std::max(left, std::chrono::milliseconds(0)))) {
        case RawTable::Read::present:
          out.push_back(record);
          break;
        case RawTable::Read::busy:
          if (busy) ++*busy;
          break;
        case RawTable::Read::absent:
          break;
      }
    }
    return out;
  }
  std::optional<T> get(const typename T::Key& key) const {
    T record;
    for (uint32_t i = 0; i < raw_.capacity(); ++i) {
      if (raw_.read(i, &record) == RawTable::Read::present && record.keyOf() == key) {
        return record;
      }
    }
    return std::nullopt;
  }
  // Reads one slot.
  RawTable::Read readSlot(uint32_t slot, T* out) const { return raw_.read(slot, out); }

 private:
  std::unique_ptr<Segment> seg_;
  RawTable raw_;
};

}  // namespace Stova
