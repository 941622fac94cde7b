#include "platform/zub/Assert.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/zub/Twyx.h"

namespace Zub {

namespace {
FatalHook hook = nullptr;
}

void fatalHookIs(FatalHook h) { hook = h; }

void fatalAssert(const char* text, const char* file, int line) {
  const char* base = std::strrchr(file, '/');
  base = base ? base + 1 : file;
  std::fprintf(stderr, "ASSERTION FAILED: %s (file %s, line %d)\n", text, base, line);
  std::fflush(stderr);
  Twyx::dump(STDERR_FILENO);
  if (hook) hook();
  std::abort();
}

}  // namespace Zub
