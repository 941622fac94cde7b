// The task scheduler on a manual clock, and the real epoll loop once.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/orrin/TaskScheduler.h"

namespace {

using namespace std::chrono_literals;

class SchedulerTest : public ::testing::Test {
 protected:
  Zub::ManualClock clock;
  Orrin::TaskScheduler sched{clock};
  std::vector<std::string> ran;
  // Times (seconds on the manual clock) at which each task ran.
  std::vector<double> at;

  Zub::Ptr<Orrin::TimerTask> timer(const std::string& name, int prio = 2) {
    return Zub::Ptr<Orrin::TimerTask>(new Orrin::TimerTask(sched, name, prio, [this, name] {
      ran.push_back(name);
      at.push_back(Zub::secondsFromNs(clock.monotonicNs()));
    }));
  }
};

TEST_F(SchedulerTest, LowestDelayNeverPostponesAnEarlierDeadline) {
  auto a = timer("a");
  a->scheduleTaskLowestDelay(10s);
  a->scheduleTaskLowestDelay(20s);  // later: ignored
  auto b = timer("b");
  b->scheduleTaskLowestDelay(20s);
  b->scheduleTaskLowestDelay(5s);  // earlier: wins
  sched.advance(30s);
  EXPECT_EQ(ran, (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(at, (std::vector<double>{5.0, 10.0}));
  EXPECT_FALSE(a->scheduled());
}

TEST_F(SchedulerTest, StoppedTimerNeverRuns) {
  auto a = timer("a");
  a->scheduleTaskLowestDelay(1s);
  EXPECT_TRUE(a->scheduled());
  a->stopTimerTask();
  EXPECT_FALSE(a->scheduled());
  sched.advance(5s);
  EXPECT_TRUE(ran.empty());
  // A destroyed task is unscheduled too.
  auto b = timer("b");
  b->scheduleTaskLowestDelay(1s);
  b = nullptr;
  sched.advance(5s);
  EXPECT_TRUE(ran.empty());
  EXPECT_EQ(sched.timerCount(), 0u);
}

TEST_F(SchedulerTest, HandlerReschedulesItself) {
  Zub::Ptr<Orrin::TimerTask> t;
  t = new Orrin::TimerTask(sched, "periodic", 2, [&] {
    EXPECT_TRUE(t->running());
    at.push_back(Zub::secondsFromNs(clock.monotonicNs()));
    t->scheduleTaskLowestDelay(5s);
  });
  t->scheduleTaskLowestDelay(5s);
  sched.advance(16s);
  EXPECT_EQ(at, (std::vector<double>{5.0, 10.0, 15.0}));
  EXPECT_FALSE(t->running());
  EXPECT_EQ(t->deadline(), Zub::nsFromSeconds(20));
}

// Ready tasks run by priority, then in scheduling order; timers due at the same time run
// in the order they were scheduled.
TEST_F(SchedulerTest, ReadyTasksRunByPriorityThenSchedulingOrder) {
  auto low = timer("low", 3), high = timer("high", 1), mid1 = timer("mid1", 2),
       mid2 = timer("mid2", 2);
  low->schedule();
  mid1->schedule();
  high->schedule();
  mid2->schedule();
  mid1->schedule();  // already ready: keeps its place
  sched.runReady();
  auto a = timer("a"), b = timer("b"), c = timer("c");
  c->scheduleTaskLowestDelay(3s);
  clock.tick(Zub::nsFromSeconds(1));
  a->scheduleTaskLowestDelay(2s);  // also due at 3 s
  b->scheduleTaskLowestDelay(2s);
  sched.advance(5s);
  EXPECT_EQ(ran, (std::vector<std::string>{"high", "mid1", "mid2", "low", "c", "a", "b"}));
}

TEST_F(SchedulerTest, ShouldYieldAfterTheTimeSlice) {
  sched.timeSliceIs(10ms);
  std::vector<bool> answers;
  Zub::Ptr<Orrin::Task> t(new Orrin::Task(sched, "loop", 2, [&] {
    answers.push_back(sched.shouldYield());
    clock.tick(Zub::nsFromSeconds(0.009));
    answers.push_back(sched.shouldYield());
    clock.tick(Zub::nsFromSeconds(0.001));
    answers.push_back(sched.shouldYield());
  }));
  EXPECT_FALSE(sched.shouldYield());  // no task running
  t->schedule();
  sched.runReady();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true}));
}

TEST_F(SchedulerTest, OnlyTheRunningTaskSeesItselfRunning) {
  Zub::Ptr<Orrin::Task> other(new Orrin::Task(sched, "other", 2, [] {}));
  Zub::Ptr<Orrin::Task> t;
  t = new Orrin::Task(sched, "me", 2, [&] {
    EXPECT_TRUE(t->running());
    EXPECT_FALSE(other->running());
    EXPECT_EQ(sched.currentTask(), t.get());
    ran.push_back("me");
  });
  t->schedule();
  sched.runReady();
  EXPECT_EQ(ran.size(), 1u);
  EXPECT_FALSE(t->running());
  EXPECT_EQ(sched.currentTask(), nullptr);
}

TEST_F(SchedulerTest, TaskDeletedByItsOwnHandlerFinishesSafely) {
  Zub::Ptr<Orrin::Task> t;
  int after = 0;
  t = new Orrin::Task(sched, "self", 2, [&] {
    t = nullptr;  // the owner drops the task while it runs
    ++after;
  });
  t->schedule();
  sched.runReady();
  EXPECT_EQ(after, 1);
}

TEST(EventLoop, FiresATimerAndAnFdEventAndReturns) {
  Zub::SystemClock clock;
  Orrin::TaskScheduler sched(clock);
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::vector<std::string> events;
  sched.fdIs(fds[0], EPOLLIN, [&](uint32_t) {
    char c;
    ASSERT_EQ(::read(fds[0], &c, 1), 1);
    events.push_back(std::string("fd:") + c);
    sched.stop();
  });
  Zub::Ptr<Orrin::TimerTask> writer(new Orrin::TimerTask(sched, "writer", 2, [&] {
    events.push_back("timer");
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
  }));
  writer->scheduleTaskLowestDelay(20ms);
  // Bounded: a watchdog ends the loop if the events never come.
  Zub::Ptr<Orrin::TimerTask> watchdog(new Orrin::TimerTask(sched, "watchdog", 2, [&] {
    events.push_back("watchdog");
    sched.stop();
  }));
  watchdog->scheduleTaskLowestDelay(5s);
  const auto start = clock.monotonicNs();
  sched.run();
  EXPECT_EQ(events, (std::vector<std::string>{"timer", "fd:x"}));
  EXPECT_GE(clock.monotonicNs() - start, 20'000'000);
  sched.fdDel(fds[0]);
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
