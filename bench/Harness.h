#pragma once
// A small benchmark harness: times a body over many iterations, keeps the best of a
// few trials, and prints results next to a baseline measured in the same run, so the
// figure that matters is a ratio, not a machine-dependent absolute time.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace Bench {

// Keeps the optimiser from discarding a value.
template <class T>
inline void keep(const T& v) {
  asm volatile("" : : "r,m"(v) : "memory");
}

// Nanoseconds per iteration of `body(i)`, best of `trials`.
template <class F>
double nsPerOp(long iterations, F&& body, int trials = 5) {
  double best = 1e300;
  for (int t = 0; t < trials; ++t) {
    auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < iterations; ++i) body(i);
    std::chrono::duration<double, std::nano> d = std::chrono::steady_clock::now() - start;
    best = std::min(best, d.count() / static_cast<double>(iterations));
  }
  return best;
}

// A UDP socket bound to a free 127.0.0.1 port that nobody reads (the kernel drops what
// overflows its buffer): a collector for send-rate measurements. Returns its address.
inline sockaddr_in loopbackSink(int* fd) {
  *fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(*fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  ::getsockname(*fd, reinterpret_cast<sockaddr*>(&a), &len);
  return a;
}

inline void report(const std::string& what, double ns, const std::string& baseline,
                   double baselineNs) {
  std::printf("%-44s %9.1f ns/op | %-34s %9.1f ns/op | ratio %6.2f\n", what.c_str(), ns,
              baseline.c_str(), baselineNs, ns / baselineNs);
}

}  // namespace Bench
