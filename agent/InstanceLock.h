#pragma once
// InstanceLock: an exclusive lock (flock) on a file that stands for something one daemon
// alone may use, its statistics name or its control socket. It is taken before the
// thing it guards is touched, so a second daemon started by mistake refuses to start
// instead of removing the first one's table or socket. The lock goes with the process,
// however it ends; a daemon that ends normally also removes the file.

#include <memory>
#include <string>

namespace Agent {

class InstanceLock {
 public:
  // Takes the lock on `path` (created if needed), or raises Zub::Exception with
  // "another flowexportd uses <what> (lock <path> is held)" or the reason it could not.
  InstanceLock(const std::string& path, const std::string& what);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;
  const std::string& path() const { return path_; }

  // The lock file that stands for a shared-memory name: beside the object in /dev/shm.
  static std::string forStatsName(const std::string& statsName);
  // The lock file that stands for a control socket: beside it.
  static std::string forControlSocket(const std::string& socketPath) {
    return socketPath + ".lock";
  }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace Agent
