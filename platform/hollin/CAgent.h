#pragma once
// Hollin: the agent base. An agent owns its entities, its task scheduler and its
// statistics table, creates its top-level reactors and runs its loop until shutdown.
// The base provides the loop: the scheduler's epoll loop with the signals an agent
// answers (SIGTERM and SIGINT end it, SIGHUP asks it to re-read its configuration),
// delivered through a signalfd so that handlers run on the reactor thread like
// everything else.

#include <memory>

#include "platform/orrin/TaskScheduler.h"
#include "platform/zub/Ptr.h"

namespace Hollin {

class CAgent : public Zub::PtrInterface {
 public:
  CAgent();
  ~CAgent() override;

  Orrin::TaskScheduler& scheduler() { return *scheduler_; }

  // Runs until exitIs(true). Signals are blocked for the process and read from a
  // signalfd while the loop runs.
  void run();
  // Blocks the agent's signals (SIGTERM, SIGINT, SIGHUP) for the process. A daemon calls
  // it first thing, before it loads its configuration: a signal that arrives while the
  // agent starts then waits and is answered as soon as the loop runs (a SIGHUP reloads
  // once started, a SIGTERM stops cleanly) instead of killing a half-started process.
  static void blockSignals();

  // Writes out whatever the agent buffers of its entity and log output before exit.
  virtual void flushEntityLog() {}
  // Asks the loop to finish.
  virtual void exitIs(bool exit);
  bool exit() const { return exit_; }

 protected:
  // SIGTERM / SIGINT: the agent shuts down (and calls exitIs(true) when done).
  virtual void handleTerminate(int signal) {
    (void)signal;
    exitIs(true);
  }
  // SIGHUP.
  virtual void handleHangup() {}

 private:
  void handleSignalFd();

  std::unique_ptr<Orrin::TaskScheduler> scheduler_;
  int signalFd_ = -1;
  bool exit_ = false;
};

}  // namespace Hollin
