#pragma once
// The children of a reactor: one child reactor per key of the collection it mirrors,
// owned by the map alone.
//
//   class FtTemplateSm : public Zub::Reactor {
//     Zub::ChildMap<Zub::Name, FtExporterSm> ftExporterSm_{this};
//     void handleExporters(const Zub::Name& name) {
//       auto hwExp = ...; auto expInfo = ...;
//       ftExporterSm_.reconcile(name, hwExp && expInfo, [&] {
//         return Zub::makeReactor<FtExporterSm>(...);
//       });
//     }
//   };
//
// reconcile() is the one place where "look up; keep, create or erase the child" is
// written: a wanted key keeps its child (or gets a new one from `make`), an unwanted
// key loses it. An optional `keep(child)` predicate replaces a child whose inputs
// changed (the old one is torn down before the new one is made).
//
// No accessor hands out an owning pointer, so a child never outlives its map, and the
// map is cleared by the framework when its reactor is torn down, before any member of
// the reactor is destroyed. Erasing a child drops the map's reference: the child is torn
// down at once (Entity.h), unless a notification is being delivered to the child right
// now, in which case the delivery holds it and the teardown runs when the child's
// handler returns. Either way the map no longer lists the key when the teardown runs.

#include <iterator>
#include <map>
#include <vector>

#include "platform/zub/Assert.h"
#include "platform/zub/Entity.h"

namespace Zub {

class ChildMapBase {
 public:
  explicit ChildMapBase(Reactor* owner) { owner->childMaps_.push_back(this); }
  ChildMapBase(const ChildMapBase&) = delete;
  ChildMapBase& operator=(const ChildMapBase&) = delete;
  virtual void clear() = 0;

 protected:
  ~ChildMapBase() = default;
};

template <class K, class Sm>
class ChildMap final : public ChildMapBase {
 public:
  explicit ChildMap(Reactor* owner) : ChildMapBase(owner) {}
  ~ChildMap() { clear(); }

  // The child of `key`, or null.
  Sm* get(const K& key) const {
    auto it = children_.find(key);
    return it == children_.end() ? nullptr : it->second.get();
  }
  bool has(const K& key) const { return children_.count(key) != 0; }
  size_t size() const { return children_.size(); }
  bool empty() const { return children_.empty(); }
  // The keys in ascending order: a snapshot to walk while calling out.
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(children_.size());
    for (const auto& kv : children_) out.push_back(kv.first);
    return out;
  }
  // Calls fn(key, child) for each child in key order; fn must not add or erase.
  template <class F>
  void forEach(F&& fn) const {
    for (const auto& [k, c] : children_) fn(k, *c);
  }

  // Keeps, creates or erases the child of `key`; returns the child, or null when not
  // wanted. `make()` returns a Ptr<Sm> (typically from makeReactor).
  template <class Make>
  Sm* reconcile(const K& key, bool wanted, Make&& make) {
    return reconcile(key, wanted, std::forward<Make>(make), [](const Sm&) { return true; });
  }
  template <class Make, class Keep>
  Sm* reconcile(const K& key, bool wanted, Make&& make, Keep&& keep) {
    if (!wanted) {
      erase(key);
      return nullptr;
    }
    if (Sm* existing = get(key)) {
      if (keep(static_cast<const Sm&>(*existing))) return existing;
      erase(key);
    }
    Ptr<Sm> child = make();
    if (!child) return nullptr;
    // Making the child must not reconcile the same key again (two children, one key).
    ZUB_ASSERT_TEXT(!has(key), "child created twice for one key");
    Sm* raw = child.get();
    children_[key] = std::move(child);
    return raw;
  }

  // Drops the child of `key`; true when there was one.
  bool erase(const K& key) {
    auto it = children_.find(key);
    if (it == children_.end()) return false;
    Ptr<Sm> retired = std::move(it->second);
    children_.erase(it);
    retired = nullptr;  // teardown now, or when a delivery to the child ends
    return true;
  }

  // Drops every child, highest key first.
  void clear() override {
    while (!children_.empty()) erase(std::prev(children_.end())->first);
  }

 private:
  std::map<K, Ptr<Sm>> children_;
};

}  // namespace Zub
