#pragma once
// Entities and reactors.
//
// An entity is a reference-counted object with a name, a parent and attributes. An
// attribute `x` has a getter `x()`, a setter `xIs(v)` that notifies only when the value
// changes, and a signal `xSignal()` that reactors watch. Counters add `xInc(n)`.
// Collections (Collection.h) add `x(key)`, `xIs(key, ...)`, `xDel(key)`, `xDelAll()`.
//
//   class ExporterConfig : public Zub::Entity {
//    public:
//     explicit ExporterConfig(const Zub::Name& name) : Entity(name) {}
//     ZUB_ATTR(FlowTracking::IpfixMtu, ipfixMtu)
//     ZUB_COLL(collectorHostAndPort, Zub::Collection<Zub::String, Nelo::HostAndPort>)
//   };
//
// A reactor (suffix Sm) watches signals through subscriptions it owns. Reactors are
// made by factories that construct the object and then run its handleInitialized(), so
// no virtual call happens in a constructor. When the last reference to a reactor goes,
// the framework tears it down before any member is destroyed: it detaches every
// subscription, runs handleDestroyed() (virtual calls and notifications are safe
// there), and then destroys the reactor's children (ChildMap.h) before deleting it.

#include <string>
#include <utility>
#include <vector>

#include "platform/zub/Exception.h"
#include "platform/zub/Signal.h"
#include "platform/zub/Types.h"

namespace Zub {

class Entity : public PtrInterface {
 public:
  explicit Entity(Name name) : name_(std::move(name)) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  const Name& name() const { return name_; }
  // The collection owner that names this entity: the first collection that took it and
  // still holds it (an entity may sit in several collections at once).
  Entity* parent() const { return holders_.empty() ? nullptr : holders_.front().owner; }
  // The path from the root: parent's full name, the collection's name, this name.
  std::string fullName() const;
  // Entities print as their full name (traces, error texts).
  std::string stringValue() const { return fullName(); }

  // Kept by the collections that hold the entity: each adds itself when it takes the
  // entity and removes itself when it lets go (delete, replace, or its own end).
  void holderIs(Entity* owner, const char* collection) { holders_.push_back({owner, collection}); }
  void holderDel(const Entity* owner, const char* collection) {
    for (auto it = holders_.begin(); it != holders_.end(); ++it) {
      if (it->owner == owner && it->collection == collection) {
        holders_.erase(it);
        return;
      }
    }
  }

 private:
  struct Holder {
    Entity* owner;
    const char* collection;
  };
  Name name_;
  std::vector<Holder> holders_;
};

// Raises the error for a collection member created again with another value of one of
// its constructor parameters.
template <class T>
void checkCtorParam(const Entity& e, const char* attribute, const T& current, const T& given) {
  if (current == given) return;
  throw NameInUseException(str("Reinstantiating the entity with fullName ", e.fullName(),
                               " where constructor parameter attribute '", attribute,
                               "' has a different value of ", given, " than the current value of ",
                               current, " not allowed"));
}

// The same error for a member held through a pointer interface (an entity that is
// shared by several collections and therefore has no single full name). `attribute`
// is the parameter's member name, e.g. "_setId".
template <class T>
void checkPtrCtorParam(const char* attribute, const T& current, const T& given) {
  if (current == given) return;
  throw NameInUseException(
      str("Reinstantiating the pointer interface where constructor parameter "
          "attribute ",
          attribute, " has a different value of ", given, " than the current value of ", current,
          " not allowed"));
}

class ChildMapBase;

class Reactor : public PtrInterface {
 public:
  Reactor() = default;
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;
  // Runs once, right after construction (see makeReactor).
  virtual void handleInitialized() {}
  // Runs once when the last reference goes, after every subscription was detached and
  // before the children and members are destroyed: the place to delete what the reactor
  // wrote. The default does nothing.
  virtual void handleDestroyed() {}
  // True from the start of the teardown on.
  bool destroying() const { return destroying_; }

 protected:
  template <class... A, class F>
  void watch(Signal<A...>& s, F&& f) {
    subs_.add(s.connect(this, std::forward<F>(f)));
  }
  // Watches into a group that the reactor drops on its own (re-bound inputs). The group
  // is a member of the reactor; it is detached with the rest at teardown.
  template <class... A, class F>
  void watch(Subscriptions& group, Signal<A...>& s, F&& f) {
    registerGroup_(&group);
    group.add(s.connect(this, std::forward<F>(f)));
  }
  // Watches into the group of one key (per-member observers added and removed at run
  // time).
  template <class K, class... A, class F>
  void watch(KeyedSubscriptions<K>& groups, const K& key, Signal<A...>& s, F&& f) {
    registerGroup_(&groups);
    groups.add(key, s.connect(this, std::forward<F>(f)));
  }
  void unwatchAll();

 private:
  friend class ChildMapBase;
  void lastReferenceGone() noexcept final;
  void registerGroup_(Detachable* g);

  Subscriptions subs_;
  std::vector<Detachable*> groups_;       // member groups, detached at teardown
  std::vector<ChildMapBase*> childMaps_;  // in declaration order
  bool destroying_ = false;
};

// Constructs a reactor and runs its handleInitialized(); what every exported factory
// does.
template <class T, class... A>
Ptr<T> makeReactor(A&&... a) {
  Ptr<T> p(new T(std::forward<A>(a)...));
  p->handleInitialized();
  return p;
}

}  // namespace Zub

// Declares attribute `name` of type `Type` (default: the remaining arguments, or value
// initialisation). Leaves the access specifier public.
#define ZUB_ATTR(Type, name, ...)                           \
 public:                                                    \
  const Type& name() const { return name##_; }              \
  void name##Is(const Type& v) {                            \
    if (name##_ == v) return;                               \
    name##_ = v;                                            \
    name##Signal_.emit();                                   \
  }                                                         \
  ::Zub::Signal<>& name##Signal() { return name##Signal_; } \
                                                            \
 private:                                                   \
  Type name##_{__VA_ARGS__};                                \
  ::Zub::Signal<> name##Signal_;                            \
                                                            \
 public:

// An attribute with `nameInc(n)`, which adds n (wrapping as the type does).
#define ZUB_COUNTER(Type, name, ...) \
  ZUB_ATTR(Type, name, __VA_ARGS__)  \
  void name##Inc(const Type& n = Type(1)) { name##Is(name##_ + n); }
