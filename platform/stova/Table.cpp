#include "platform/stova/Table.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Stova {

// ---- Segment ---------------------------------------------------------------------------

std::unique_ptr<Segment> Segment::create(const std::string& name, size_t bytes) {
  ::shm_unlink(name.c_str());  // a new writer starts from a new object
  int fd = ::shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0644);
  if (fd < 0) throw Zub::ErrnoException("shm_open " + name, errno);
  ::fchmod(fd, 0644);  // readable by any process whatever the umask
  if (::ftruncate(fd, static_cast<off_t>(bytes)) < 0) {
    int e = errno;
    ::close(fd);
    ::shm_unlink(name.c_str());
    throw Zub::ErrnoException("ftruncate " + name, e);
  }
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  struct stat st {};
  ::fstat(fd, &st);
  ::close(fd);
  if (p == MAP_FAILED) {
    int e = errno;
    ::shm_unlink(name.c_str());
    throw Zub::ErrnoException("mmap " + name, e);
  }
  auto s = mapped(name, p, bytes, st.st_ino);
  s->zeroed_ = true;
  return s;
}

std::unique_ptr<Segment> Segment::mapped(const std::string& name, void* p, size_t bytes,
                                         ino_t inode) {
  std::unique_ptr<Segment> s(new Segment());
  s->name_ = name;
  s->data_ = static_cast<uint8_t*>(p);
  s->bytes_ = bytes;
  s->mapped_ = true;
  s->inode_ = inode;
  return s;
}

std::unique_ptr<Segment> Segment::open(const std::string& name) {
  int fd = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) throw Zub::ErrnoException("shm_open " + name, errno);
  struct stat st {};
  if (::fstat(fd, &st) < 0 || st.st_size < static_cast<off_t>(sizeof(ControlBlock))) {
    int e = errno ? errno : EINVAL;
    ::close(fd);
    throw Zub::ErrnoException("fstat " + name, e);
  }
  const size_t bytes = static_cast<size_t>(st.st_size);
  void* p = ::mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) throw Zub::ErrnoException("mmap " + name, errno);
  auto s = mapped(name, p, bytes, st.st_ino);
  s->ownerUid_ = st.st_uid;
  return s;
}

std::unique_ptr<Segment> Segment::heap(size_t bytes) {
  std::unique_ptr<Segment> s(new Segment());
  s->data_ = static_cast<uint8_t*>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
  std::memset(s->data_, 0, bytes);
  s->bytes_ = bytes;
  s->owner_ = true;
  s->zeroed_ = true;
  return s;
}

std::unique_ptr<Segment> Segment::alias(const Segment& other) {
  std::unique_ptr<Segment> s(new Segment());
  s->name_ = other.name_;
  s->data_ = other.data_;
  s->bytes_ = other.bytes_;
  s->inode_ = other.inode_;
  return s;
}

Segment::~Segment() {
  if (mapped_) ::munmap(data_, bytes_);
  if (owner_) std::free(data_);
}

bool Segment::replaced() const {
  if (!mapped_) return false;
  int fd = ::shm_open(name_.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return true;
  struct stat st {};
  bool changed = ::fstat(fd, &st) < 0 || st.st_ino != inode_;
  ::close(fd);
  return changed;
}

void Segment::unlink() {
  if (mapped_ && !name_.empty()) ::shm_unlink(name_.c_str());
}

// ---- RawTable --------------------------------------------------------------------------

namespace {
uint32_t slotBytesFor(uint32_t recordBytes) {
  return static_cast<uint32_t>(sizeof(std::atomic<uint64_t>) + sizeof(uint64_t) +
                               (recordBytes + 7) / 8 * 8);
}

// Word copies with atomic accesses: the reader runs concurrently with the writer, and
// the sequence counter decides afterwards whether the copy is usable. Each word is
// stored with release and loaded with acquire instead of fencing around relaxed words:
// a reader that sees any word of a write then sees that write's odd counter, and
// ThreadSanitizer follows this (it does not model fences). On x86 both are plain moves.
void storeWords(uint64_t* dst, const void* src, size_t words) {
  const auto* s = static_cast<const uint8_t*>(src);
  for (size_t i = 0; i < words; ++i) {
    uint64_t w;
    std::memcpy(&w, s + i * 8, 8);
    std::atomic_ref<uint64_t>(dst[i]).store(w, std::memory_order_release);
  }
}
void loadWords(void* dst, const uint64_t* src, size_t words) {
  auto* d = static_cast<uint8_t*>(dst);
  for (size_t i = 0; i < words; ++i) {
    uint64_t w =
        std::atomic_ref<uint64_t>(const_cast<uint64_t&>(src[i])).load(std::memory_order_acquire);
    std::memcpy(d + i * 8, &w, 8);
  }
}
}  // namespace

size_t RawTable::bytesFor(uint32_t capacity, uint32_t recordBytes) {
  return sizeof(ControlBlock) + static_cast<size_t>(capacity) * slotBytesFor(recordBytes);
}

void RawTable::format(Segment& seg, const std::string& tableName, uint32_t capacity,
                      uint32_t recordBytes) {
  ZUB_ASSERT(seg.bytes() >= bytesFor(capacity, recordBytes));
  // A new segment is zero already: its pages are left untouched until a record needs
  // them, so a large table costs no memory while it is mostly empty.
  if (!seg.zeroed()) std::memset(seg.data(), 0, bytesFor(capacity, recordBytes));
  auto* ctl = reinterpret_cast<ControlBlock*>(seg.data());
  ctl->layoutVersion = ControlBlock::kLayoutVersion;
  ctl->capacity = capacity;
  ctl->recordBytes = recordBytes;
  ctl->slotBytes = slotBytesFor(recordBytes);
  ctl->generation.store(0, std::memory_order_relaxed);
  ctl->writerPid = static_cast<uint64_t>(::getpid());
  std::strncpy(ctl->tableName, tableName.c_str(), sizeof ctl->tableName - 1);
  // The magic goes last, released: a reader that sees it sees a formatted table.
  std::atomic_ref<uint64_t>(ctl->magic).store(ControlBlock::kMagic, std::memory_order_release);
}

RawTable::RawTable(Segment& seg, uint32_t recordBytes)
    : ctl_(reinterpret_cast<ControlBlock*>(seg.data())),
      base_(seg.data() + sizeof(ControlBlock)),
      recordBytes_(recordBytes) {
  // The size first: a segment smaller than the control block has none to look at.
  const bool whole = seg.bytes() >= sizeof(ControlBlock);
  const uint64_t magic =
      whole ? std::atomic_ref<uint64_t>(ctl_->magic).load(std::memory_order_acquire) : 0;
  if (!whole || magic != ControlBlock::kMagic ||
      ctl_->layoutVersion != ControlBlock::kLayoutVersion || ctl_->recordBytes != recordBytes ||
      ctl_->slotBytes != slotBytesFor(recordBytes) ||
      seg.bytes() < bytesFor(ctl_->capacity, recordBytes)) {
    throw Zub::Exception("Stova: segment " + seg.name() +
                         " does not hold a table of this layout (magic, version, record size "
                         "or capacity differ)");
  }
}

std::string RawTable::tableName() const {
  return std::string(ctl_->tableName, strnlen(ctl_->tableName, sizeof ctl_->tableName));
}

void RawTable::write(uint32_t i, const void* record) {
  SlotHeader* s = slot(i);
  const uint64_t seq = s->seq.load(std::memory_order_relaxed);
  s->seq.store(seq + 1, std::memory_order_relaxed);
  // Released: whoever sees this (or a word after it) sees the odd counter before it.
  std::atomic_ref<uint64_t>(s->used).store(1, std::memory_order_release);
  storeWords(reinterpret_cast<uint64_t*>(s + 1), record, (recordBytes_ + 7) / 8);
  s->seq.store(seq + 2, std::memory_order_release);
  bumpGeneration();
}

void RawTable::erase(uint32_t i) {
  SlotHeader* s = slot(i);
  const uint64_t seq = s->seq.load(std::memory_order_relaxed);
  s->seq.store(seq + 1, std::memory_order_relaxed);
  std::atomic_ref<uint64_t>(s->used).store(0, std::memory_order_release);
  s->seq.store(seq + 2, std::memory_order_release);
  bumpGeneration();
}

void RawTable::bumpGeneration() {
  // Single writer: a load and a store, no read-modify-write needed.
  ctl_->generation.store(ctl_->generation.load(std::memory_order_relaxed) + 1,
                         std::memory_order_release);
}

RawTable::Read RawTable::read(uint32_t i, void* out, std::chrono::milliseconds patience) const {
  SlotHeader* s = slot(i);
  std::chrono::steady_clock::time_point giveUp{};
  for (uint64_t tries = 1;; ++tries) {
    const uint64_t before = s->seq.load(std::memory_order_acquire);
    if ((before & 1) == 0) {
      // Acquired, so the second look at the counter comes after every word was read.
      const uint64_t used = std::atomic_ref<uint64_t>(s->used).load(std::memory_order_acquire);
      if (used) loadWords(out, reinterpret_cast<const uint64_t*>(s + 1), (recordBytes_ + 7) / 8);
      if (s->seq.load(std::memory_order_relaxed) == before) {
        return used ? Read::present : Read::absent;
      }
    }
    // The writer is inside this slot: look at the clock now and then.
    if (tries % 4096 == 0) {
      const auto now = std::chrono::steady_clock::now();
      if (giveUp == std::chrono::steady_clock::time_point{}) {
        giveUp = now + patience;
      } else if (now >= giveUp) {
        return Read::busy;
      }
    }
  }
}

}  // namespace Stova
