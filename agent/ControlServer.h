#pragma once
// The daemon's control socket: a Unix stream socket on which a client sends one
// request line (words separated by tabs) and reads the reply ("ok ..." or "error: ...",
// one line or, for the views, "ok" and lines of text) until the daemon closes. The socket
// is created with mode 0600, or 0660 and the given group.
//
// Clients cannot hold the daemon: one that has not sent its line within
// kClientTimeout is closed, at most kMaxClients are served at once (more are answered
// "error: busy"), and running out of descriptors does not make the loop spin.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/orrin/TaskScheduler.h"

namespace Agent {

class ControlServer {
 public:
  using Handler = std::function<std::string(const std::vector<std::string>& words)>;
  static constexpr std::chrono::seconds kClientTimeout{2};
  static constexpr size_t kMaxClients = 64;
  static constexpr size_t kMaxRequest = 4096;
  static constexpr size_t kMaxReply = 64u << 20;
  // Raises Zub::ErrnoException when the socket cannot be made, or Zub::Exception when
  // another daemon answers on it or the path is something other than a socket (that is
  // never removed).
  ControlServer(Orrin::TaskScheduler& scheduler, std::string path, std::optional<gid_t> group,
                Handler handler);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  const std::string& path() const { return path_; }
  size_t clients() const { return clients_.size(); }

 private:
  struct Client {
    std::string received;
    Zub::Nanoseconds since = 0;  // accepted, or the last progress of its reply
    std::string reply;           // once answered: what is written, `sent` bytes of it so far
    size_t sent = 0;
    bool answered = false;
  };
  void handleAccept();
  void handleClient(int fd);
  void answer(int fd, const std::string& text);
  void writeReply(int fd);
  void closeClient(int fd);
  void expireClients();

  Orrin::TaskScheduler& scheduler_;
  std::string path_;
  Handler handler_;
  int listenFd_ = -1;
  dev_t dev_ = 0;  // the socket file this server made: removed at exit only if still there
  ino_t ino_ = 0;
  int spareFd_ = -1;  // given up to accept and refuse a client when descriptors run out
  std::map<int, Client> clients_;
  Zub::Ptr<Orrin::TimerTask> expiry_;
};

// The request line for `words` (a word holds neither tab nor newline), and back: the
// words of the text before the first newline, split at tabs; nullopt while no newline
// has come.
std::string controlRequestLine(const std::vector<std::string>& words);
std::optional<std::vector<std::string>> controlRequestWords(std::string_view received);

// Why connecting to the socket at `path` failed (errno `e`), in words that say what to do:
// permission denied names the group to join, a missing socket asks whether the daemon runs.
std::string connectError(const std::string& path, int e);

// Client side: sends one request and returns the reply line, or nullopt with the
// reason in `error`.
std::optional<std::string> controlRequest(const std::string& path,
                                          const std::vector<std::string>& words,
                                          std::string* error);

}  // namespace Agent
