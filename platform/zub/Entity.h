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
// A reactor (suffix Sm) watches signals through subscriptions it owns; destroying the
// reactor unsubscribes it. Reactors are made by factories that construct the object
// and then run its handleInitialized(), so no virtual call happens in a constructor.

#include <string>
#include <utility>

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
  Entity* parent() const { return parent_; }
  // The path from the root: parent's full name, the collection's name, this name.
  std::string fullName() const;
  // Entities print as their full name (traces, error texts).
  std::string stringValue() const { return fullName(); }

  // Set by the collection that holds the entity; cleared when it lets go.
  void parentIs(Entity* parent, const char* collection) {
    parent_ = parent;
    collection_ = collection;
  }

 private:
  Name name_;
  Entity* parent_ = nullptr;
  const char* collection_ = nullptr;
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

class Reactor : public PtrInterface {
 public:
  Reactor() = default;
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;
  // Runs once, right after construction (see makeReactor).
  virtual void handleInitialized() {}

 protected:
  template <class... A, class F>
  void watch(Signal<A...>& s, F&& f) {
    subs_.add(s.connect(this, std::forward<F>(f)));
  }
  // Watches into a group that the reactor drops on its own (re-bound inputs).
  template <class... A, class F>
  void watch(Subscriptions& group, Signal<A...>& s, F&& f) {
    group.add(s.connect(this, std::forward<F>(f)));
  }
  void unwatchAll() { subs_.clear(); }

 private:
  Subscriptions subs_;
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
