#include "platform/zub/Dir.h"

namespace Zub {

Ptr<Dir> Dir::mkdir(const Name& name) {
  if (auto d = entityPtr<Dir>(name)) return d;
  Ptr<Dir> d(new Dir(name));
  entryColl().insert(name, d);
  return d;
}

}  // namespace Zub
