#pragma once
// Synchronous change notification.
//
// Every attribute and collection of an entity carries a Signal; a reactor subscribes
// to it and receives an owned Subscription. Notification runs the handlers inside the
// setter, in subscription order. Delivery stays correct when a handler
//   - destroys subscriptions (its own or others'): a removed subscriber is not called
//     again, and its slot is freed only after the outermost delivery ends;
//   - adds subscriptions: they receive the next notification, not the current one;
//   - destroys the reactor that is being notified: the reactor is kept alive until
//     its handler returns;
//   - destroys the entity that owns the signal: delivery stops after that handler.

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "platform/zub/Ptr.h"

namespace Zub {

class SignalCore final : public PtrInterface {
 public:
  struct Slot {
    virtual ~Slot() = default;
    const PtrInterface* owner = nullptr;  // kept alive while its handler runs
    bool alive = true;
  };

  ~SignalCore() override {
    for (Slot* s : slots_) delete s;
  }

  void add(Slot* s) { slots_.push_back(s); }
  void remove(Slot* s);
  size_t size() const;
  bool detached() const { return detached_; }
  void detach() { detached_ = true; }

  // Calls `call(slot)` for every slot alive at the start, robust to changes.
  template <class F>
  void deliver(F&& call) {
    Ptr<SignalCore> self(this);
    ++depth_;
    const size_t n = slots_.size();
    for (size_t i = 0; i < n && !detached_; ++i) {
      Slot* s = slots_[i];
      if (!s->alive) continue;
      if (s->owner && s->owner->references() > 0) {
        Ptr<const PtrInterface> keep(s->owner);
        call(s);
      } else {
        call(s);
      }
    }
    if (--depth_ == 0 && dirty_) compact();
  }

 private:
  void compact();

  std::vector<Slot*> slots_;
  uint32_t depth_ = 0;
  bool dirty_ = false;
  bool detached_ = false;
};

// An owned subscription: destroying (or resetting) it unsubscribes.
class Subscription {
 public:
  Subscription() = default;
  Subscription(Ptr<SignalCore> core, SignalCore::Slot* slot)
      : core_(std::move(core)), slot_(slot) {}
  Subscription(Subscription&& o) noexcept
      : core_(std::move(o.core_)), slot_(std::exchange(o.slot_, nullptr)) {}
  Subscription& operator=(Subscription&& o) noexcept {
    if (this != &o) {
      reset();
      core_ = std::move(o.core_);
      slot_ = std::exchange(o.slot_, nullptr);
    }
    return *this;
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { reset(); }

  void reset() {
    if (core_) core_->remove(slot_);
    core_ = nullptr;
    slot_ = nullptr;
  }
  explicit operator bool() const { return core_ != nullptr; }

 private:
  Ptr<SignalCore> core_;
  SignalCore::Slot* slot_ = nullptr;
};

// A group of subscriptions dropped together, e.g. those on one input entity that a
// reactor re-binds when the input changes.
class Subscriptions {
 public:
  void add(Subscription s) { subs_.push_back(std::move(s)); }
  void clear() {
    // Move out first: destroying a subscription may run code that touches this group.
    std::vector<Subscription> old;
    old.swap(subs_);
  }
  size_t size() const { return subs_.size(); }

 private:
  std::vector<Subscription> subs_;
};

template <class... Args>
class Signal {
 public:
  using Handler = std::function<void(const Args&...)>;

  Signal() = default;
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  ~Signal() {
    if (core_) core_->detach();
  }

  // `owner` (may be null) is kept alive while `fn` runs.
  [[nodiscard]] Subscription connect(const PtrInterface* owner, Handler fn) {
    if (!core_) core_ = Ptr<SignalCore>(new SignalCore());
    auto* slot = new TypedSlot(std::move(fn));
    slot->owner = owner;
    core_->add(slot);
    return Subscription(core_, slot);
  }

  void emit(const Args&... args) const {
    if (!core_) return;
    core_->deliver([&](SignalCore::Slot* s) { static_cast<TypedSlot*>(s)->fn(args...); });
  }

  size_t subscribers() const { return core_ ? core_->size() : 0; }

 private:
  struct TypedSlot final : SignalCore::Slot {
    explicit TypedSlot(Handler f) : fn(std::move(f)) {}
    Handler fn;
  };
  Ptr<SignalCore> core_;
};

}  // namespace Zub
