#include "tests/support/Namespace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tests/support/Decoders.h"

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

PeerNamespace::PeerNamespace() {
  int ready[2];
  if (::pipe(ready) != 0) return;
  pid_ = ::fork();
  if (pid_ == 0) {
    const char ok = ::unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
    if (::write(ready[1], &ok, 1) != 1) ::_exit(1);
    ::sleep(120);  // bounded: the test kills it long before
    ::_exit(0);
  }
  char ok = 'n';
  if (pid_ < 0 || ::read(ready[0], &ok, 1) != 1 || ok != 'y') pid_ = -1;
  ::close(ready[0]);
  ::close(ready[1]);
}

PeerNamespace::~PeerNamespace() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void PeerNamespace::run(const std::string& command) const {
  auto r = runCommand("nsenter --net=" + path() + " " + command);
  ASSERT_EQ(r.status, 0) << command << ": " << r.err;
}

int PeerNamespace::socket(int domain, int type) const {
  const int self = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  const int ns = ::open(path().c_str(), O_RDONLY | O_CLOEXEC);
  int s = -1;
  if (self >= 0 && ns >= 0 && ::setns(ns, CLONE_NEWNET) == 0) {
    s = ::socket(domain, type, 0);
    ::setns(self, CLONE_NEWNET);
  }
  if (self >= 0) ::close(self);
  if (ns >= 0) ::close(ns);
  return s;
}

}  // namespace TestSupport
