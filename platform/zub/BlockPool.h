#pragma once
// BlockPool<Size>: fixed-size blocks for small objects that exist by the million
// (encoded table rows), without the allocator's 8-byte header and 16-byte rounding per
// object. Blocks come from 64 KiB slabs handed out in address order, so objects made one after
// another sit side by side and a walk over them reads memory in order instead of chasing
// allocations scattered by everything made between them. Freed blocks go to the freeing thread's
// list and are reused first; slabs are kept for the life of the process.
//
// Under AddressSanitizer every block is an ordinary allocation, so use-after-free and
// overflows of pooled objects stay visible.
//
// Use as a class's allocator:
//   static void* operator new(size_t n) { return Zub::BlockPool<48>::allocate(n); }
//   static void operator delete(void* p, size_t n) { Zub::BlockPool<48>::release(p, n); }

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ZUB_BLOCKPOOL_PASSTHROUGH 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZUB_BLOCKPOOL_PASSTHROUGH 1
#endif
#endif

namespace Zub {

template <size_t Size>
class BlockPool {
 public:
  static_assert(Size >= sizeof(void*) && Size % 16 == 0, "blocks keep 16-byte alignment");
  static constexpr size_t kSlabBytes = 64 * 1024;
  static constexpr size_t kBlocksPerSlab = kSlabBytes / Size;

  // A block of Size bytes for an object of `n` bytes (n <= Size).
  static void* allocate(size_t n) {
    if (n > Size) return ::operator new(n);  // a larger derived class
#ifdef ZUB_BLOCKPOOL_PASSTHROUGH
    return ::operator new(Size);
#else
    Local& l = local();
    if (l.free) return std::exchange(l.free, l.free->next);
    if (l.next == l.end) {
      l.next = newSlab();
      l.end = l.next + kBlocksPerSlab * Size;
    }
    void* p = l.next;
    l.next += Size;
    return p;
#endif
  }

  // Gives back a block from allocate(n).
  static void release(void* p, size_t n) noexcept {
    if (!p) return;
    if (n > Size) {
      ::operator delete(p);
      return;
    }
#ifdef ZUB_BLOCKPOOL_PASSTHROUGH
    ::operator delete(p);
#else
    Local& l = local();
    l.free = new (p) FreeBlock{l.free};
#endif
  }

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  struct Local {
    FreeBlock* free = nullptr;
    char* next = nullptr;
    char* end = nullptr;
  };
  static Local& local() {
    thread_local Local l;
    return l;
  }
  // Slabs stay reachable from here, so leak checkers see them as held, not lost.
  static char* newSlab() {
    static std::mutex m;
    static std::vector<char*> slabs;
    // The last kSlabBytes % Size bytes of a slab stay unused.
    char* s = static_cast<char*>(::operator new (kSlabBytes, std::align_val_t{64}));
    const std::lock_guard<std::mutex> g(m);
    slabs.push_back(s);
    return s;
  }
};

}  // namespace Zub
