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
//
// Handlers see the value as it is when they run, not as it was when the change began:
// a handler that changes the same attribute again makes the remaining subscribers of
// the outer delivery see the newer value (and the nested delivery runs first). Handlers
// must therefore be idempotent: "evaluate the current state", never "apply this delta".
//
// A handler that throws ends the delivery: the change is already stored, the
// subscribers after the thrower are not called for it, and the exception reaches the
// code that made the change. The signal itself stays consistent (its delivery depth is
// restored and slots retired during the delivery are freed), so later changes are
// delivered normally.

#include <cstdint>
#include <functional>
#include <map>
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
    DepthGuard guard(*this);
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
  }

  uint32_t depth() const { return depth_; }
  size_t slotCount() const { return slots_.size(); }

 private:
  // Restores the depth on every way out of deliver(), a throwing handler included.
  struct DepthGuard {
    explicit DepthGuard(SignalCore& c) : core(c) { ++core.depth_; }
    ~DepthGuard() {
      if (--core.depth_ == 0 && core.dirty_) core.compact();
    }
    SignalCore& core;
  };
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

// Something a reactor detaches at its teardown.
class Detachable {
 public:
  virtual void detachAll() = 0;

 protected:
  ~Detachable() = default;
};

// A group of subscriptions dropped together, e.g. those on one input entity that a
// reactor re-binds when the input changes.
class Subscriptions final : public Detachable {
 public:
  Subscriptions() = default;
  Subscriptions(Subscriptions&&) = default;
  Subscriptions& operator=(Subscriptions&&) = default;
  ~Subscriptions() = default;
  void add(Subscription s) { subs_.push_back(std::move(s)); }
  void clear() {
    // Move out first: destroying a subscription may run code that touches this group.
    std::vector<Subscription> old;
    old.swap(subs_);
  }
  void detachAll() override { clear(); }
  size_t size() const { return subs_.size(); }

 private:
  std::vector<Subscription> subs_;
};

// One group of subscriptions per key: observers of collection members that come and go
// (a member's attributes are watched while the member exists).
template <class K>
class KeyedSubscriptions final : public Detachable {
 public:
  void add(const K& key, Subscription s) { groups_[key].add(std::move(s)); }
  // Drops the key's subscriptions.
  void erase(const K& key) {
    auto it = groups_.find(key);
    if (it == groups_.end()) return;
    Subscriptions old = std::move(it->second);
    groups_.erase(it);
  }
  bool has(const K& key) const { return groups_.count(key) != 0; }
  size_t size() const { return groups_.size(); }
  void detachAll() override {
    std::map<K, Subscriptions> old;
    old.swap(groups_);
  }

 private:
  std::map<K, Subscriptions> groups_;
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
  // Slots held, retired ones included.
  size_t slotsForTest() const { return core_ ? core_->slotCount() : 0; }

 private:
  struct TypedSlot final : SignalCore::Slot {
    explicit TypedSlot(Handler f) : fn(std::move(f)) {}
    Handler fn;
  };
  Ptr<SignalCore> core_;
};

}  // namespace Zub
