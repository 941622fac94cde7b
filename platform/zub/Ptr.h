#pragma once
// Intrusive reference counting for entities, reactors, tasks and packets.
//
// Everything in the agent runs on one thread, so the count is a plain integer.
// An object starts with a count of zero; the first Ptr that takes it owns it and the
// last one to let go hands it to lastReferenceGone(), which deletes it. Objects derived
// from PtrInterface must therefore live on the heap. Reactors override the hook to tear
// down (detach, run their teardown handler) while the whole object is still intact.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Zub {

class PtrInterface {
 public:
  PtrInterface() = default;
  // Copying an object never copies its count.
  PtrInterface(const PtrInterface&) noexcept {}
  PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }
  virtual ~PtrInterface() = default;

  void ref() const noexcept { ++refs_; }
  void unref() const noexcept {
    if (--refs_ == 0) const_cast<PtrInterface*>(this)->lastReferenceGone();
  }
  uint32_t references() const noexcept { return refs_; }

 protected:
  // Runs when the last reference goes; the default deletes the object.
  virtual void lastReferenceGone() noexcept { delete this; }

 private:
  mutable uint32_t refs_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->ref();
  }
  Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o)
  noexcept : Ptr(o.get()) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->unref();
  }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without dropping the reference (used by converting moves).
  T* release() noexcept { return std::exchange(p_, nullptr); }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  friend auto operator<=>(const Ptr& a, const Ptr& b) noexcept {
    return std::compare_three_way()(a.p_, b.p_);
  }

 private:
  T* p_ = nullptr;
};

template <class T, class... A>
Ptr<T> make(A&&... a) {
  return Ptr<T>(new T(std::forward<A>(a)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Zub

template <class T>
struct std::hash<Zub::Ptr<T>> {
  size_t operator()(const Zub::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
