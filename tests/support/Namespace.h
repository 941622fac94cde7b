#pragma once
// For test programs that need a network of their own: enters a new network namespace
// (and, with `mounts`, a mount namespace with private propagation), through a user
// namespace when not root, and brings its loopback interface up. Call it from main,
// before any thread exists. Returns "" or why it could not.

#include <sys/types.h>

#include <string>

namespace TestSupport {

std::string enterNetworkNamespace(bool mounts);

// A network namespace beside the test's, held by a child process that waits in it (at
// most two minutes); gone with the object.
class PeerNamespace {
 public:
  PeerNamespace();
  ~PeerNamespace();
  PeerNamespace(const PeerNamespace&) = delete;
  PeerNamespace& operator=(const PeerNamespace&) = delete;
  bool ok() const { return pid_ > 0; }
  std::string path() const { return "/proc/" + std::to_string(pid_) + "/ns/net"; }
  pid_t pid() const { return pid_; }
  // Runs a shell command in the namespace; a failure fails the calling test.
  void run(const std::string& command) const;
  // A socket that lives in this namespace (-1 when it cannot be made).
  int socket(int domain, int type) const;

 private:
  pid_t pid_ = -1;
};

}  // namespace TestSupport
