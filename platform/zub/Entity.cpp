#include "platform/zub/Entity.h"

#include <algorithm>

#include "platform/zub/ChildMap.h"

namespace Zub {

std::string Entity::fullName() const {
  if (holders_.empty()) return name_;
  const Holder& h = holders_.front();
  std::string s = h.owner->fullName();
  s.push_back('/');
  if (h.collection && *h.collection) {
    s.append(h.collection);
    s.push_back('/');
  }
  s.append(name_);
  return s;
}

void Reactor::registerGroup_(Detachable* g) {
  if (std::find(groups_.begin(), groups_.end(), g) == groups_.end()) groups_.push_back(g);
}

void Reactor::unwatchAll() {
  subs_.clear();
  for (Detachable* g : groups_) g->detachAll();
}

void Reactor::lastReferenceGone() noexcept {
  if (destroying_) {
    delete this;
    return;
  }
  destroying_ = true;
  // A reference taken during the teardown (a handler that keeps the reactor for a
  // moment) must not start it again: hold one ourselves until the end.
  ref();
  unwatchAll();
  handleDestroyed();
  for (auto it = childMaps_.rbegin(); it != childMaps_.rend(); ++it) (*it)->clear();
  unref();  // deletes now, or when the last reference taken during teardown goes
}

}  // namespace Zub
