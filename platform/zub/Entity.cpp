#include "platform/zub/Entity.h"

namespace Zub {

std::string Entity::fullName() const {
  if (!parent_) return name_;
  std::string s = parent_->fullName();
  s.push_back('/');
  if (collection_ && *collection_) {
    s.append(collection_);
    s.push_back('/');
  }
  s.append(name_);
  return s;
}

}  // namespace Zub
