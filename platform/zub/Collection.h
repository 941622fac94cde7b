#pragma once
// Keyed collections of values or of entities, notifying every add, change and delete
// with the member's key, and sets notifying every insertion and removal with the element.
//
//   Collection<K, V>          hash-ordered map
//   OrderedCollection<K, V>   key-ordered map (iteration in ascending key order)
//   Set<T>                    hash-ordered set (a set of Ptr<const T> is keyed by identity)
//
// V is an entity when it is Ptr<E> with E derived from Entity; anything else, a
// Ptr<const DataRecord> included, is a value. For entities, `is(key, args...)` creates
// E(key, args...) or returns the existing member; an existing member created with
// other constructor values raises NameInUseException (the entity type checks that in
// `checkReinstantiation(args...)`). For values, `is(key, v)` stores v and notifies only
// if it changed. Lookup of an absent key returns null for entities and V{} for values.
// A null pointer, entity or value, is never stored: it raises NullPointerException with
// the text "null _<name> parameter to mutator for <Owner>::<name> not allowed".
//
// An entity may sit in several collections at once (insert()): each collection that
// holds it is one of its holders, and its full name follows the first holder that still
// holds it. A member that is deleted or replaced, or whose collection ends, loses that
// holder at once.
//
// Handlers may change the collection while a notification is delivered. Code that
// walks a collection and calls out should walk `keys()`, a snapshot.

#include <cxxabi.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/zub/Entity.h"
#include "platform/zub/PositionIndex.h"

namespace Zub {

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {
  using Element = T;
};

template <class V>
constexpr bool isEntityPtr() {
  if constexpr (IsPtr<V>::value) {
    return std::is_base_of_v<Entity, std::remove_cv_t<typename IsPtr<V>::Element>>;
  } else {
    return false;
  }
}

// Who holds a collection: the owning entity (null when the owner is not an entity, e.g.
// a reactor), the collection's attribute name and the owner's type for error texts.
class CollectionOwner {
 public:
  CollectionOwner() = default;
  template <class O>
  CollectionOwner(O* owner, const char* name) : name_(name), type_(&typeid(O)) {
    if constexpr (std::is_base_of_v<Entity, O>) entity_ = owner;
  }
  Entity* entity() const { return entity_; }
  const char* name() const { return name_; }

  [[noreturn]] void refuseNull() const {
    throw NullPointerException(str("null _", name_, " parameter to mutator for ", typeName(),
                                   "::", name_, " not allowed"));
  }

  std::string typeName() const {
    if (!type_) return "?";
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> d(
        abi::__cxa_demangle(type_->name(), nullptr, nullptr, &status), std::free);
    return status == 0 && d ? std::string(d.get()) : std::string(type_->name());
  }

 private:
  Entity* entity_ = nullptr;
  const char* name_ = "";
  const std::type_info* type_ = nullptr;
};

template <class K, class V, class Map>
class CollectionBase {
 public:
  using Key = K;
  using Value = V;
  static constexpr bool kEntities = isEntityPtr<V>();
  static constexpr bool kPointers = IsPtr<V>::value;

  CollectionBase() = default;
  template <class O>
  CollectionBase(O* owner, const char* name) : owner_(owner, name) {}
  CollectionBase(const CollectionBase&) = delete;
  CollectionBase& operator=(const CollectionBase&) = delete;
  ~CollectionBase() {
    if constexpr (kEntities) {
      for (auto& [k, e] : map_) release(e);
    }
  }

  // The member, or null / V{} when absent.
  V get(const K& k) const {
    auto it = map_.find(k);
    return it == map_.end() ? V{} : it->second;
  }
  const V* find(const K& k) const {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : &it->second;
  }
  bool has(const K& k) const { return map_.find(k) != map_.end(); }
  size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }

  auto begin() const { return map_.begin(); }
  auto end() const { return map_.end(); }

  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(map_.size());
    for (const auto& kv : map_) out.push_back(kv.first);
    return out;
  }

  // Values: stores V(args...) under k. Entities: creates or returns the member.
  template <class... A>
  decltype(auto) is(const K& k, A&&... args) {
    if constexpr (kEntities) {
      using E = typename IsPtr<V>::Element;
      auto it = map_.find(k);
      if (it != map_.end()) {
        if constexpr (sizeof...(A) > 0) it->second->checkReinstantiation(args...);
        return it->second;
      }
      V e(new E(k, std::forward<A>(args)...));
      return V(insertNew(k, std::move(e)));
    } else {
      set(k, V(std::forward<A>(args)...));
    }
  }

  // Entities: puts an existing entity under k; it may also sit in other collections.
  // A different member under k is replaced (and loses this collection as holder).
  const V& insert(const K& k, V e) requires kEntities {
    if (!e) owner_.refuseNull();
    auto it = map_.find(k);
    if (it != map_.end()) {
      if (it->second == e) return it->second;
      V old = std::move(it->second);
      hold(e);
      it->second = std::move(e);
      release(old);
      const K key = k;
      signal_.emit(key);
      auto now = map_.find(key);
      static const V empty{};
      return now == map_.end() ? empty : now->second;
    }
    return insertNew(k, std::move(e));
  }

  // Values: returns true when something changed.
  bool set(const K& k, const V& v) requires(!kEntities) {
    if constexpr (kPointers) {
      if (!v) owner_.refuseNull();
    }
    auto [it, added] = map_.try_emplace(k, v);
    if (!added) {
      if (it->second == v) return false;
      it->second = v;
    }
    const K key = k;  // the handler may delete the member that `k` refers to
    signal_.emit(key);
    return true;
  }

  bool del(const K& k) {
    auto it = map_.find(k);
    if (it == map_.end()) return false;
    const K key = it->first;
    V old = std::move(it->second);  // released after the notification
    map_.erase(it);
    if constexpr (kEntities) release(old);
    signal_.emit(key);
    return true;
  }

  void delAll() {
    for (const K& k : keys()) del(k);
  }

  Signal<K>& signal() { return signal_; }

 private:
  void hold(const V& e) {
    if (owner_.entity()) e->holderIs(owner_.entity(), owner_.name());
  }
  void release(const V& e) {
    if (e && owner_.entity()) e->holderDel(owner_.entity(), owner_.name());
  }

  const V& insertNew(const K& k, V e) {
    if constexpr (kEntities) {
      if (!e) owner_.refuseNull();
      hold(e);
    }
    const K key = k;
    map_.emplace(key, std::move(e));
    signal_.emit(key);
    // The handler may have deleted the member again; answer with what is there now.
    auto it = map_.find(key);
    static const V empty{};
    return it == map_.end() ? empty : it->second;
  }

  CollectionOwner owner_;
  Map map_;
  Signal<K> signal_;
};

template <class K, class V>
using Collection = CollectionBase<K, V, std::unordered_map<K, V, Hash<K>>>;
template <class K, class V>
using OrderedCollection = CollectionBase<K, V, std::map<K, V>>;

// A set of values (pointers count by identity). Every insertion and removal notifies
// with the element; inserting a present element or removing an absent one does not.
// The elements are kept densely, in insertion order except that a removal moves the last
// element into the gap, so walking a large set reads memory in order.
template <class T>
class Set {
 public:
  using Key = T;
  static constexpr bool kPointers = IsPtr<T>::value;

  Set() = default;
  template <class O>
  Set(O* owner, const char* name) : owner_(owner, name) {}
  Set(const Set&) = delete;
  Set& operator=(const Set&) = delete;

  bool has(const T& v) const { return find(v) != PositionIndex::kNone; }
  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  std::vector<T> elements() const { return items_; }

  // True when the element was added.
  bool insert(const T& v) {
    if constexpr (kPointers) {
      if (!v) owner_.refuseNull();
    }
    if (has(v)) return false;
    items_.push_back(v);
    index_.insert(Hash<T>()(v), static_cast<uint32_t>(items_.size() - 1), hashAt());
    const T copy = v;
    signal_.emit(copy);
    return true;
  }
  bool erase(const T& v) {
    const uint32_t slot = find(v);
    if (slot == PositionIndex::kNone) return false;
    const T old = v;  // released after the notification
    index_.erase(Hash<T>()(v), slot, hashAt());
    const uint32_t last = static_cast<uint32_t>(items_.size() - 1);
    if (slot != last) {
      index_.move(Hash<T>()(items_[last]), last, slot);
      items_[slot] = std::move(items_[last]);
    }
    items_.pop_back();
    signal_.emit(old);
    return true;
  }
  void clear() {
    for (const T& v : elements()) erase(v);
  }

  Signal<T>& signal() { return signal_; }

 private:
  uint32_t find(const T& v) const {
    return index_.find(Hash<T>()(v), [&](uint32_t pos) { return items_[pos] == v; });
  }
  auto hashAt() const {
    return [this](uint32_t pos) { return Hash<T>()(items_[pos]); };
  }

  CollectionOwner owner_;
  std::vector<T> items_;
  PositionIndex index_;  // 4 bytes a slot, at most half full
  Signal<T> signal_;
};

}  // namespace Zub

// Declares collection `name` of type `...` with the accessor family:
//   name(key)            lookup (null / empty value when absent)
//   nameIs(key, ...)     create or set
//   nameDel(key)         remove; nameDelAll()
//   nameHas(key), nameSize(), nameColl() (iteration, keys()), nameSignal()
#define ZUB_COLL(name, ...)                                                             \
 public:                                                                                \
  auto name(const typename __VA_ARGS__::Key& k) const { return name##_.get(k); }        \
  template <class... ZubA>                                                              \
  decltype(auto) name##Is(const typename __VA_ARGS__::Key& k, ZubA&&... a) {            \
    return name##_.is(k, std::forward<ZubA>(a)...);                                     \
  }                                                                                     \
  bool name##Del(const typename __VA_ARGS__::Key& k) { return name##_.del(k); }         \
  void name##DelAll() { name##_.delAll(); }                                             \
  bool name##Has(const typename __VA_ARGS__::Key& k) const { return name##_.has(k); }   \
  size_t name##Size() const { return name##_.size(); }                                  \
  const __VA_ARGS__& name##Coll() const { return name##_; }                             \
  __VA_ARGS__& name##Coll() { return name##_; }                                         \
  ::Zub::Signal<typename __VA_ARGS__::Key>& name##Signal() { return name##_.signal(); } \
                                                                                        \
 private:                                                                               \
  __VA_ARGS__ name##_{this, #name};                                                     \
                                                                                        \
 public:

// Declares set `name` of elements `T` with the accessor family:
//   nameIs(v)            insert; nameDel(v) remove; nameDelAll()
//   nameHas(v), nameSize(), nameColl() (iteration, elements()), nameSignal()
#define ZUB_SET(name, T)                                        \
 public:                                                        \
  bool name##Is(const T& v) { return name##_.insert(v); }       \
  bool name##Del(const T& v) { return name##_.erase(v); }       \
  void name##DelAll() { name##_.clear(); }                      \
  bool name##Has(const T& v) const { return name##_.has(v); }   \
  size_t name##Size() const { return name##_.size(); }          \
  const ::Zub::Set<T>& name##Coll() const { return name##_; }   \
  ::Zub::Signal<T>& name##Signal() { return name##_.signal(); } \
                                                                \
 private:                                                       \
  ::Zub::Set<T> name##_{this, #name};                           \
                                                                \
 public:
