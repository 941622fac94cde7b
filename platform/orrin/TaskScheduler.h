#pragma once
// Orrin: the agent's task scheduler and event loop.
//
// A Task runs as soon as possible once scheduled; a TimerTask runs at a deadline.
// Ready tasks run by priority (lower value first), then in the order they became
// ready; timers that fall due together become ready in deadline order, ties in the
// order they were scheduled. `scheduleTaskLowestDelay` never postpones an earlier
// deadline.
//
// Time comes from the scheduler's clock. With a Zub::ManualClock, `advance(d)` moves
// time to each deadline in turn and runs what falls due, deterministically. The
// daemon calls `run()`: an epoll loop over registered file descriptors whose timeout
// is the time to the next deadline.
//
// Tasks are reference-counted and held through Zub::Ptr by their owners; destroying a
// task unschedules it. A task is kept alive while its handler runs.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>

#include "platform/zub/Clock.h"
#include "platform/zub/Ptr.h"

namespace Orrin {

using Duration = std::chrono::nanoseconds;
class TaskScheduler;

class Task : public Zub::PtrInterface {
 public:
  using Handler = std::function<void()>;
  Task(TaskScheduler& scheduler, std::string name, int priority, Handler handler);
  ~Task() override;
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  const std::string& name() const { return name_; }
  int priority() const { return priority_; }
  TaskScheduler& scheduler() const { return scheduler_; }

  // Makes the task ready to run as soon as possible (no-op if it is ready already; a
  // pending deadline is dropped).
  void schedule();
  // Takes the task out of the ready queue and the timer queue.
  void unschedule();
  // Ready, or waiting for a deadline.
  bool scheduled() const { return ready_ || timed_; }
  // This is the task whose handler the scheduler is running now.
  bool running() const;

 private:
  friend class TaskScheduler;
  friend class TimerTask;
  TaskScheduler& scheduler_;
  std::string name_;
  int priority_;
  Handler handler_;
  bool ready_ = false;
  uint64_t readySeq_ = 0;
  bool timed_ = false;
  Zub::Nanoseconds deadline_ = 0;
  uint64_t timerSeq_ = 0;
};

class TimerTask : public Task {
 public:
  using Task::Task;
  // Runs the task after `delay`, unless it is already due earlier (or ready).
  void scheduleTaskLowestDelay(Duration delay);
  // Runs the task after `delay`, replacing any earlier or later deadline.
  void scheduleTaskAfter(Duration delay);
  void stopTimerTask() { unschedule(); }
  // The pending deadline on the scheduler's monotonic clock, if any.
  std::optional<Zub::Nanoseconds> deadline() const {
    return timed_ ? std::optional(deadline_) : std::nullopt;
  }
};

class TaskScheduler {
 public:
  explicit TaskScheduler(Zub::Clock& clock = Zub::System::clock());
  ~TaskScheduler();
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  Zub::Clock& clock() const { return clock_; }
  Zub::Nanoseconds now() const { return clock_.monotonicNs(); }

  // The task whose handler is running, or null.
  const Task* currentTask() const { return current_; }
  // True once the running task has used its time slice; a long loop checks it and
  // reschedules itself to let other work in.
  bool shouldYield() const;
  void timeSliceIs(Duration d) { slice_ = d; }
  Duration timeSlice() const { return slice_; }

  // One pass: timers due now become ready, then every task that was ready at the start
  // of the pass runs. Returns the number of tasks run.
  size_t runPass();
  // Passes until nothing is ready now.
  size_t runReady();
  // Manual clock only: moves time forward by `d`, stopping at every deadline on the
  // way and running what falls due there.
  void advance(Duration d);

  std::optional<Zub::Nanoseconds> nextDeadline() const;
  size_t readyCount() const { return ready_.size(); }
  size_t timerCount() const { return timers_.size(); }

  // Event loop. `handler` receives the epoll events of `fd`.
  using FdHandler = std::function<void(uint32_t events)>;
  void fdIs(int fd, uint32_t events, FdHandler handler);
  void fdDel(int fd);
  // Runs passes and waits for file descriptors until stop().
  void run();
  // One wait of at most `wait` for file descriptors, their handlers, then runReady().
  // Returns the number of descriptors that had events. For tests, which drive the loop
  // step by step on a manual clock.
  size_t pollFds(std::chrono::milliseconds wait);
  void stop() { running_ = false; }

 private:
  friend class Task;
  friend class TimerTask;
  using ReadyKey = std::tuple<int, uint64_t, Task*>;
  using TimerKey = std::tuple<Zub::Nanoseconds, uint64_t, Task*>;

  void makeReady(Task* t);
  void removeReady(Task* t);
  void addTimer(Task* t, Zub::Nanoseconds deadline);
  void removeTimer(Task* t);
  void moveDueTimers();
  void runOne(Task* t);
  size_t waitForFds(int timeoutMs);

  Zub::Clock& clock_;
  std::set<ReadyKey> ready_;
  std::set<TimerKey> timers_;
  uint64_t seq_ = 0;
  Task* current_ = nullptr;
  Zub::Nanoseconds currentStart_ = 0;
  Duration slice_ = std::chrono::milliseconds(5);

  int epollFd_ = -1;
  std::map<int, std::shared_ptr<FdHandler>> fds_;
  bool running_ = false;
};

}  // namespace Orrin
