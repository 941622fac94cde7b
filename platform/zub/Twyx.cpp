#include "platform/zub/Twyx.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/zub/Clock.h"

namespace Zub::Twyx {

namespace {
struct Line {
  Nanoseconds ns;
  char text[kLineBytes];
  uint16_t len;
};
Line ring[kLines];
uint64_t written = 0;  // lines recorded so far; the next goes to written % kLines

// Formats one kept line as "[seconds.micros] text" into buf; returns its length.
size_t format(const Line& l, char* buf, size_t size) {
  long long us = l.ns / 1000;
  int n = snprintf(buf, size, "[%lld.%06lld] ", us / 1'000'000, us % 1'000'000);
  size_t used = n > 0 ? static_cast<size_t>(n) : 0;
  size_t copy = std::min<size_t>(l.len, size - used - 1);
  std::memcpy(buf + used, l.text, copy);
  used += copy;
  buf[used] = '\0';
  return used;
}
}  // namespace

void record(std::string_view facility, int level, std::string_view text) {
  Line& l = ring[written % kLines];
  ++written;
  l.ns = System::monotonicNs();
  int n = snprintf(l.text, sizeof l.text, "%.*s/%d ", static_cast<int>(facility.size()),
                   facility.data(), level);
  size_t used = n > 0 ? std::min<size_t>(static_cast<size_t>(n), sizeof l.text - 1) : 0;
  size_t copy = std::min(text.size(), sizeof l.text - used);
  std::memcpy(l.text + used, text.data(), copy);
  l.len = static_cast<uint16_t>(used + copy);
}

std::vector<std::string> lines() {
  std::vector<std::string> out;
  uint64_t first = written > kLines ? written - kLines : 0;
  for (uint64_t i = first; i < written; ++i) {
    const Line& l = ring[i % kLines];
    out.emplace_back(l.text, l.len);
  }
  return out;
}

void clear() { written = 0; }

void dump(int fd) {
  static const char head[] = "---- Twyx: most recent trace lines ----\n";
  static const char tail[] = "---- end of Twyx ----\n";
  auto put = [fd](const char* p, size_t n) {
    while (n > 0) {
      ssize_t w = ::write(fd, p, n);
      if (w <= 0) return;
      p += w;
      n -= static_cast<size_t>(w);
    }
  };
  put(head, sizeof head - 1);
  uint64_t first = written > kLines ? written - kLines : 0;
  char buf[kLineBytes + 32];
  for (uint64_t i = first; i < written; ++i) {
    size_t n = format(ring[i % kLines], buf, sizeof buf - 1);
    buf[n++] = '\n';
    put(buf, n);
  }
  put(tail, sizeof tail - 1);
}

}  // namespace Zub::Twyx
