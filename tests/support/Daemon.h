#pragma once
// A daemon started as a child process for end-to-end tests, its output in a file.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace TestSupport {

class Daemon {
 public:
  Daemon(std::string program, std::vector<std::string> args, std::string logPath);
  ~Daemon();  // kills the process if it still runs
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return pid_; }
  // Sends a signal.
  void signal(int sig) const;
  // Waits for the exit (bounded); returns the exit status, or -1 on timeout / a signal.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool running() const { return pid_ > 0; }
  std::string log() const;
  // Waits until the log contains `text` (bounded); true if it does.
  bool waitForLog(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  pid_t pid_ = -1;
  std::string logPath_;
};

}  // namespace TestSupport
