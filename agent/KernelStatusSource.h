#pragma once
// Follows the kernel's links and addresses on the agent's loop: one dump at start, then
// the link and address events of rtnetlink. When the kernel had to drop events (the
// socket's receive buffer overran: ENOBUFS) the whole state is dumped again into a fresh
// model, so nothing is lost; what did not change is not announced again, because the
// receiver applies the model as differences. Each burst of events ends in one call of
// `changed`, from a task.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/KernelStatus.h"
#include "platform/orrin/TaskScheduler.h"

struct mnl_socket;

namespace Agent {

class KernelStatusSource {
 public:
  using Changed = std::function<void(const KernelStatus&)>;
  // The socket broke and could not be replaced; the source stays as it is (the status
  // last known) until its owner makes a new one.
  using Failed = std::function<void(const std::string& error)>;
  KernelStatusSource(Orrin::TaskScheduler& scheduler, Changed changed, Failed failed = {});
  ~KernelStatusSource();
  KernelStatusSource(const KernelStatusSource&) = delete;
  KernelStatusSource& operator=(const KernelStatusSource&) = delete;

  // Subscribes to the events, then dumps; false (and `*error`) when rtnetlink cannot be
  // used. `receiveBuffer` (bytes, 0 the system's) is for tests that make it overrun.
  bool start(std::string* error, int receiveBuffer = 0);
  const KernelStatus& status() const { return status_; }
  // Dumps made so far: one at start, one per overrun.
  uint64_t dumps() const { return dumps_; }
  // Dumps the kernel interrupted (links changed meanwhile) and that were made again.
  uint64_t interruptedDumps() const { return interruptedDumps_; }
  // The event socket broke and the dump that should have replaced it failed.
  bool broken() const { return broken_; }

 private:
  bool dump_(std::string* error);
  bool dumpOnce_(std::string* error, bool* interrupted);
  void handleEvents_();

  Orrin::TaskScheduler& scheduler_;
  Changed changed_;
  Failed failed_;
  mnl_socket* events_ = nullptr;
  KernelStatus status_;
  uint64_t dumps_ = 0;
  uint64_t interruptedDumps_ = 0;
  bool broken_ = false;
  // Event reads land here, allocated once: this runs at every netlink wake-up.
  std::vector<char> eventBuf_ = std::vector<char>(32768);
  Zub::Ptr<Orrin::Task> changedTask_;
};

}  // namespace Agent
