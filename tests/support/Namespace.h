#pragma once
// For test programs that need a network of their own: enters a new network namespace
// (and, with `mounts`, a mount namespace with private propagation), through a user
// namespace when not root, and brings its loopback interface up. Call it from main,
// before any thread exists. Returns "" or why it could not.

#include <string>

namespace TestSupport {

std::string enterNetworkNamespace(bool mounts);

}  // namespace TestSupport
