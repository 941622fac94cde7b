#pragma once
// A daemon started as a child process for end-to-end tests, its output in a file.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Decoders.h"

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
  pid_t group_ = -1;
  std::string logPath_;
};

// What an end-to-end test keeps for one daemon: a directory for its files, a statistics
// name and a control socket of its own, and flowexportctl pointed at them.
struct DaemonRig {
  explicit DaemonRig(const std::string& tag);
  TempDir dir;
  std::string config;  // dir/flowexport.yaml
  std::string stats;   // /flowexport-<tag>-<pid>
  std::string socket;  // dir/control.sock
  // Replaces the file (the configuration unless `path`) the way editors do: a new file
  // renamed over the old one.
  void write(const std::string& text, const std::string& path = "") const;
  // flowexportd on the configuration with these names and `extra` arguments, logging to
  // stderr, which goes to dir/daemon.log.
  std::unique_ptr<Daemon> start(std::vector<std::string> extra = {}) const;
  CommandResult ctl(const std::string& args) const;
};

}  // namespace TestSupport
