#pragma once
// A directory entity: named entries that are entities themselves (other directories
// included). The agent registers itself in a directory of active agents.

#include "platform/zub/Collection.h"

namespace Zub {

class Dir : public Entity {
 public:
  explicit Dir(const Name& name) : Entity(name) {}

  ZUB_COLL(entry, Collection<Name, Ptr<Entity>>)

  // Creates (or returns) a sub-directory.
  Ptr<Dir> mkdir(const Name& name);
  // The entry of that name if it is a T, null otherwise.
  template <class T>
  Ptr<T> entityPtr(const Name& name) const {
    return ptrCast<T>(entry(name));
  }
  size_t entries() const { return entrySize(); }
};

}  // namespace Zub
