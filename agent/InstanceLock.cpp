#include "agent/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/zub/Exception.h"

namespace Agent {

InstanceLock::InstanceLock(const std::string& path, const std::string& what) : path_(path) {
  // The holder removes the file when it ends; a lock taken on a file that was removed
  // meanwhile guards nothing, so the path is checked again after locking (a few times).
  for (int attempt = 0; attempt < 5; ++attempt) {
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) {
      throw Zub::Exception("cannot lock " + what + ": " + path_ + ": " + std::strerror(errno));
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int e = errno;
      ::close(fd_);
      fd_ = -1;
      if (e == EWOULDBLOCK) {
        throw Zub::Exception("another flowexportd uses " + what + " (lock " + path_ + " is held)");
      }
      throw Zub::Exception("cannot lock " + what + ": " + path_ + ": " + std::strerror(e));
    }
    struct stat held {
    }, named{};
    if (::fstat(fd_, &held) == 0 && ::stat(path_.c_str(), &named) == 0 &&
        held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
      return;
    }
    ::close(fd_);
    fd_ = -1;
  }
  throw Zub::Exception("cannot lock " + what + ": " + path_ + " keeps being replaced");
}

InstanceLock::~InstanceLock() {
  if (fd_ < 0) return;
  ::unlink(path_.c_str());  // still held: nobody else can be using this file
  ::close(fd_);
}

std::string InstanceLock::forStatsName(const std::string& statsName) {
  std::string name = statsName;
  while (!name.empty() && name.front() == '/') name.erase(0, 1);
  return "/dev/shm/" + name + ".lock";
}

}  // namespace Agent
