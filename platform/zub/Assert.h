#pragma once
// Fatal assertions: an impossible internal state stops the agent. The failure line
// quotes the condition and names the source file; the Twyx ring of recent trace lines
// follows it, so a crash report carries its last moments. Assertions are never
// compiled out.

namespace Zub {

[[noreturn]] void fatalAssert(const char* text, const char* file, int line);

// Hook run after the report and before abort (the agent flushes its log there).
using FatalHook = void (*)();
void fatalHookIs(FatalHook hook);

}  // namespace Zub

#define ZUB_ASSERT(expr)                             \
  do {                                               \
    if (!(expr)) [[unlikely]]                        \
      ::Zub::fatalAssert(#expr, __FILE__, __LINE__); \
  } while (0)

// The same with an explicit text, where the reported condition is worded differently
// from the code that checks it.
#define ZUB_ASSERT_TEXT(expr, text)                 \
  do {                                              \
    if (!(expr)) [[unlikely]]                       \
      ::Zub::fatalAssert(text, __FILE__, __LINE__); \
  } while (0)

// An unconditional failure with a text, e.g. a base-class operation that every
// derived class must override.
#define ZUB_FATAL(text) ::Zub::fatalAssert(text, __FILE__, __LINE__)
