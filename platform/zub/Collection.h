#pragma once
// Keyed collections of values or of entities, notifying every add, change and delete
// with the member's key.
//
//   Collection<K, V>          hash-ordered map
//   OrderedCollection<K, V>   key-ordered map (iteration in ascending key order)
//
// V is either a value type or Ptr<E> of an entity type E. For entities,
// `is(key, args...)` creates E(key, args...) or returns the existing member; an existing
// member created with other constructor values raises NameInUseException (the entity
// type checks that in `checkReinstantiation(args...)`). For values, `is(key, v)`
// stores v and notifies only if it changed. Lookup of an absent key returns null for
// entities and V{} for values.
//
// Handlers may change the collection while a notification is delivered. Code that
// walks a collection and calls out should walk `keys()`, a snapshot.

#include <map>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "platform/zub/Entity.h"

namespace Zub {

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {
  using Element = T;
};

template <class K, class V, class Map>
class CollectionBase {
 public:
  using Key = K;
  using Value = V;
  static constexpr bool kEntities = IsPtr<V>::value;

  explicit CollectionBase(Entity* owner = nullptr, const char* name = "")
      : owner_(owner), name_(name) {}
  CollectionBase(const CollectionBase&) = delete;
  CollectionBase& operator=(const CollectionBase&) = delete;
  ~CollectionBase() {
    if constexpr (kEntities) {
      for (auto& [k, e] : map_) e->parentIs(nullptr, nullptr);
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

  // Entities: puts an existing entity under k (it may also sit in other collections;
  // the parent link stays with the first owner).
  const V& insert(const K& k, V e) requires kEntities {
    auto it = map_.find(k);
    if (it != map_.end()) {
      if (it->second == e) return it->second;
      it->second = std::move(e);
      const K key = k;
      signal_.emit(key);
      return map_.find(key)->second;
    }
    return insertNew(k, std::move(e));
  }

  // Values: returns true when something changed.
  bool set(const K& k, const V& v) requires(!kEntities) {
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
    if constexpr (kEntities) {
      if (old->parent() == owner_) old->parentIs(nullptr, nullptr);
    }
    signal_.emit(key);
    return true;
  }

  void delAll() {
    for (const K& k : keys()) del(k);
  }

  Signal<K>& signal() { return signal_; }

 private:
  const V& insertNew(const K& k, V e) {
    if constexpr (kEntities) {
      if (!e->parent()) e->parentIs(owner_, name_);
    }
    const K key = k;
    map_.emplace(key, std::move(e));
    signal_.emit(key);
    // The handler may have deleted the member again; answer with what is there now.
    auto it = map_.find(key);
    static const V empty{};
    return it == map_.end() ? empty : it->second;
  }

  Entity* owner_;
  const char* name_;
  Map map_;
  Signal<K> signal_;
};

template <class K, class V>
using Collection = CollectionBase<K, V, std::unordered_map<K, V, Hash<K>>>;
template <class K, class V>
using OrderedCollection = CollectionBase<K, V, std::map<K, V>>;

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
