#include "platform/orrin/TaskScheduler.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/zub/Assert.h"
#include "platform/zub/Exception.h"
#include "platform/zub/Glint.h"

namespace Orrin {

namespace {
Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Orrin");
  return f;
}
// Upper bounds that turn a runaway loop into a clear failure instead of a hang.
constexpr size_t kMaxPassesPerRun = 1'000'000;
constexpr size_t kMaxStepsPerAdvance = 10'000'000;
}  // namespace

// ---- Task ----------------------------------------------------------------------------

Task::Task(TaskScheduler& scheduler, std::string name, int priority, Handler handler)
    : scheduler_(scheduler),
      name_(std::move(name)),
      priority_(priority),
      handler_(std::move(handler)) {}

Task::~Task() {
  unschedule();
  if (scheduler_.current_ == this) scheduler_.current_ = nullptr;
}

void Task::schedule() {
  if (ready_) return;
  if (timed_) scheduler_.removeTimer(this);
  scheduler_.makeReady(this);
}

void Task::unschedule() {
  if (ready_) scheduler_.removeReady(this);
  if (timed_) scheduler_.removeTimer(this);
}

bool Task::running() const { return scheduler_.current_ == this; }

void TimerTask::scheduleTaskLowestDelay(Duration delay) {
  if (ready_) return;
  Zub::Nanoseconds at = scheduler_.now() + delay.count();
  if (timed_) {
    if (deadline_ <= at) return;
    scheduler_.removeTimer(this);
  }
  scheduler_.addTimer(this, at);
}

void TimerTask::scheduleTaskAfter(Duration delay) {
  unschedule();
  scheduler_.addTimer(this, scheduler_.now() + delay.count());
}

// ---- TaskScheduler -------------------------------------------------------------------

TaskScheduler::TaskScheduler(Zub::Clock& clock) : clock_(clock) {}

TaskScheduler::~TaskScheduler() {
  for (auto& [p, s, t] : ready_) t->ready_ = false;
  for (auto& [d, s, t] : timers_) t->timed_ = false;
  if (epollFd_ >= 0) ::close(epollFd_);
}

void TaskScheduler::makeReady(Task* t) {
  t->ready_ = true;
  t->readySeq_ = ++seq_;
  ready_.emplace(t->priority_, t->readySeq_, t);
}

void TaskScheduler::removeReady(Task* t) {
  ready_.erase({t->priority_, t->readySeq_, t});
  t->ready_ = false;
}

void TaskScheduler::addTimer(Task* t, Zub::Nanoseconds deadline) {
  t->timed_ = true;
  t->deadline_ = deadline;
  t->timerSeq_ = ++seq_;
  timers_.emplace(deadline, t->timerSeq_, t);
}

void TaskScheduler::removeTimer(Task* t) {
  timers_.erase({t->deadline_, t->timerSeq_, t});
  t->timed_ = false;
}

void TaskScheduler::moveDueTimers() {
  const Zub::Nanoseconds n = now();
  while (!timers_.empty()) {
    auto [deadline, seq, t] = *timers_.begin();
    if (deadline > n) break;
    removeTimer(t);
    makeReady(t);
  }
}

std::optional<Zub::Nanoseconds> TaskScheduler::nextDeadline() const {
  if (timers_.empty()) return std::nullopt;
  return std::get<0>(*timers_.begin());
}

bool TaskScheduler::shouldYield() const {
  return current_ != nullptr && now() - currentStart_ >= slice_.count();
}

void TaskScheduler::runOne(Task* t) {
  removeReady(t);
  Task* saved = current_;
  current_ = t;
  currentStart_ = now();
  GLINT(trace(), 9) << "running task " << t->name_;
  if (t->references() > 0) {
    Zub::Ptr<Task> keep(t);
    if (t->handler_) t->handler_();
    if (current_ == t) current_ = saved;
  } else {
    if (t->handler_) t->handler_();
    if (current_ == t) current_ = saved;
  }
}

size_t TaskScheduler::runPass() {
  moveDueTimers();
  const uint64_t limit = seq_;  // tasks made ready from here on wait for the next pass
  size_t ran = 0;
  for (;;) {
    Task* next = nullptr;
    for (const auto& [prio, seq, t] : ready_) {
      if (seq <= limit) {
        next = t;
        break;
      }
    }
    if (!next) break;
    runOne(next);
    ++ran;
  }
  return ran;
}

size_t TaskScheduler::runReady() {
  size_t total = 0;
  for (size_t pass = 0;; ++pass) {
    ZUB_ASSERT_TEXT(pass < kMaxPassesPerRun, "runReady: tasks keep rescheduling themselves");
    moveDueTimers();
    if (ready_.empty()) return total;
    total += runPass();
  }
}

void TaskScheduler::advance(Duration d) {
  auto* manual = dynamic_cast<Zub::ManualClock*>(&clock_);
  ZUB_ASSERT_TEXT(manual != nullptr, "advance() needs a ManualClock");
  const Zub::Nanoseconds target = now() + d.count();
  runReady();
  for (size_t step = 0;; ++step) {
    ZUB_ASSERT_TEXT(step < kMaxStepsPerAdvance, "advance: timers keep falling due");
    auto next = nextDeadline();
    if (!next || *next > target) break;
    if (*next > now()) manual->monotonicNsIs(*next);
    runReady();
  }
  manual->monotonicNsIs(target);
  runReady();
}

void TaskScheduler::fdIs(int fd, uint32_t events, FdHandler handler) {
  if (epollFd_ < 0) {
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) throw Zub::ErrnoException("epoll_create1", errno);
  }
  epoll_event ev{};
  ev.events = events;
  ev.data.fd = fd;
  int op = fds_.count(fd) ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (::epoll_ctl(epollFd_, op, fd, &ev) < 0) throw Zub::ErrnoException("epoll_ctl", errno);
  fds_[fd] = std::make_shared<FdHandler>(std::move(handler));
}

void TaskScheduler::fdDel(int fd) {
  if (fds_.erase(fd) && epollFd_ >= 0) ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

void TaskScheduler::run() {
  running_ = true;
  while (running_) {
    runPass();
    if (!running_) break;
    moveDueTimers();
    int timeoutMs = -1;
    if (!ready_.empty()) {
      timeoutMs = 0;
    } else if (auto next = nextDeadline()) {
      Zub::Nanoseconds wait = *next - now();
      timeoutMs = wait <= 0 ? 0 : static_cast<int>((wait + 999'999) / 1'000'000);
    }
    waitForFds(timeoutMs);
  }
}

size_t TaskScheduler::pollFds(std::chrono::milliseconds wait) {
  const size_t n = waitForFds(static_cast<int>(wait.count()));
  runReady();
  return n;
}

size_t TaskScheduler::waitForFds(int timeoutMs) {
  if (epollFd_ < 0) {
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) throw Zub::ErrnoException("epoll_create1", errno);
  }
  epoll_event events[16];
  int n = ::epoll_wait(epollFd_, events, 16, timeoutMs);
  if (n < 0) {
    if (errno == EINTR) return 0;
    throw Zub::ErrnoException("epoll_wait", errno);
  }
  for (int i = 0; i < n; ++i) {
    auto it = fds_.find(events[i].data.fd);
    if (it == fds_.end()) continue;
    std::shared_ptr<FdHandler> h = it->second;  // the handler may remove itself
    (*h)(events[i].events);
  }
  return static_cast<size_t>(n);
}

}  // namespace Orrin
