#include "hosts/linux/EventLoop.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

namespace {

using Hosts::Linux::EventLoop;

TEST(EventLoop, RunsATaskWhenTheClockReachesIt) {
  EventLoop loop;
  auto scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  loop.schedulerIs(scheduler);
  const uint64_t start = loop.nowMs();
  uint64_t ranAt = 0;
  scheduler->scheduleAt(scheduler->now() + 30, [&] { ranAt = loop.nowMs(); });
  ASSERT_TRUE(loop.runUntil([&] { return ranAt != 0; }, 2000));
  EXPECT_GE(ranAt - start, 30u);
  EXPECT_EQ(scheduler->pending(), 0u);
}

TEST(EventLoop, CallsTheHandlerOfAReadableDescriptor) {
  EventLoop loop;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  int calls = 0;
  loop.fdIs(fds[0], [&] {
    char c;
    ASSERT_EQ(read(fds[0], &c, 1), 1);
    ++calls;
    loop.fdDel(fds[0]);  // a handler may remove itself
  });
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  EXPECT_TRUE(loop.runUntil([&] { return calls == 1; }, 2000));
  EXPECT_FALSE(loop.fdHas(fds[0]));
  close(fds[0]);
  close(fds[1]);
}

TEST(EventLoop, DeliversBlockedSignals) {
  EventLoop loop;
  int got = 0;
  loop.signalsIs({SIGUSR1}, [&](int signal) { got = signal; });
  kill(getpid(), SIGUSR1);
  EXPECT_TRUE(loop.runUntil([&] { return got != 0; }, 2000));
  EXPECT_EQ(got, SIGUSR1);
}

TEST(EventLoop, RunUntilGivesUpAtItsDeadline) {
  EventLoop loop;
  const uint64_t start = loop.nowMs();
  EXPECT_FALSE(loop.runUntil([] { return false; }, 50));
  EXPECT_GE(loop.nowMs() - start, 50u);
}

TEST(EventLoop, StopEndsRun) {
  EventLoop loop;
  auto scheduler = Hub::TaskScheduler::TaskSchedulerIs();
  loop.schedulerIs(scheduler);
  scheduler->scheduleAt(scheduler->now() + 5, [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(scheduler->pending(), 0u);
}

}  // namespace
