#pragma once
// Hollin: the agent base. An agent owns its entities, its task scheduler and its
// statistics table, creates its top-level reactors and runs its loop until shutdown.
// Reactors that end the agent's work (the configuration reactor at shutdown) talk to
// it through this interface.

#include "platform/zub/Ptr.h"

namespace Hollin {

class CAgent : public Zub::PtrInterface {
 public:
  // Writes out whatever the agent buffers of its entity and log output before exit.
  virtual void flushEntityLog() {}
  // Asks the agent's loop to finish.
  virtual void exitIs(bool exit) { exit_ = exit; }
  bool exit() const { return exit_; }

 private:
  bool exit_ = false;
};

}  // namespace Hollin
