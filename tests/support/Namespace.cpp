#include "tests/support/Namespace.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace TestSupport {

namespace {
bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::trunc);
  f << text;
  return static_cast<bool>(f.flush());
}
}  // namespace

std::string enterNetworkNamespace(bool mounts) {
  auto fail = [](const std::string& what) { return what + ": " + std::strerror(errno); };
  const int flags = CLONE_NEWNET | (mounts ? CLONE_NEWNS : 0);
  if (::unshare(flags) != 0) {
    // Not privileged: a user namespace in which this process is root.
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | flags) != 0) return fail("cannot make a network namespace");
    writeFile("/proc/self/setgroups", "deny");
    if (!writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n") ||
        !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n")) {
      return "cannot map this user into the namespace";
    }
  }
  if (mounts && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return fail("cannot make the mounts private");
  }
  const int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  const bool up = s >= 0 && ::ioctl(s, SIOCGIFFLAGS, &ifr) == 0 &&
                  (ifr.ifr_flags |= IFF_UP, ::ioctl(s, SIOCSIFFLAGS, &ifr) == 0);
  if (s >= 0) ::close(s);
  if (!up) return fail("cannot bring the loopback interface up");
  return "";
}

}  // namespace TestSupport
