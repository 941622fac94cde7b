#pragma once
// The daemon's control socket: a Unix stream socket on which a client sends one
// request line (words separated by tabs) and reads one reply line ("ok ..." or
// "error: ..."). The socket is created with mode 0600, or 0660 and the given group.

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/orrin/TaskScheduler.h"

namespace Agent {

class ControlServer {
 public:
  using Handler = std::function<std::string(const std::vector<std::string>& words)>;
  // Raises Zub::ErrnoException when the socket cannot be made, or Zub::Exception when
  // another daemon answers on it.
  ControlServer(Orrin::TaskScheduler& scheduler, std::string path, std::optional<gid_t> group,
                Handler handler);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  const std::string& path() const { return path_; }

 private:
  void handleAccept();
  void handleClient(int fd);
  void closeClient(int fd);

  Orrin::TaskScheduler& scheduler_;
  std::string path_;
  Handler handler_;
  int listenFd_ = -1;
  std::map<int, std::string> clients_;  // fd -> bytes received so far
};

// Client side: sends one request and returns the reply line, or nullopt with the
// reason in `error`.
std::optional<std::string> controlRequest(const std::string& path,
                                          const std::vector<std::string>& words,
                                          std::string* error);

}  // namespace Agent
