#include "framework/Hub.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Hub::TaskScheduler;
using ::testing::ElementsAre;
using Time = TaskScheduler::Time;

// Records which task ran and what the clock said while it ran.
struct Ran {
  std::string name;
  Time at;
  bool operator==(const Ran&) const = default;
};

class TaskSchedulerTest : public ::testing::Test {
 protected:
  TaskScheduler::Task record(std::string name) {
    return [this, name] { runs.push_back({name, scheduler->now()}); };
  }

  TaskScheduler::Ptr scheduler = TaskScheduler::TaskSchedulerIs();
  std::vector<Ran> runs;
};

TEST_F(TaskSchedulerTest, StartsAtZeroAndIdle) {
  EXPECT_EQ(scheduler->now(), 0u);
  EXPECT_EQ(scheduler->pending(), 0u);
  EXPECT_FALSE(scheduler->nextTaskTime().has_value());
  EXPECT_EQ(scheduler->runUntilIdle(), 0u);
  EXPECT_EQ(scheduler->typeName(), "Hub::TaskScheduler");
}

TEST_F(TaskSchedulerTest, EqualTimesRunInSchedulingOrder) {
  scheduler->schedule(record("a"));
  scheduler->schedule(record("b"));
  scheduler->scheduleAt(0, record("c"));
  scheduler->scheduleAt(7, record("d"));
  scheduler->scheduleAt(7, record("e"));
  scheduler->scheduleAt(7, record("f"));

  EXPECT_EQ(scheduler->runUntilIdle(), 3u);
  scheduler->advanceTo(7);

  EXPECT_THAT(runs, ElementsAre(Ran{"a", 0}, Ran{"b", 0}, Ran{"c", 0}, Ran{"d", 7}, Ran{"e", 7},
                                Ran{"f", 7}));
}

TEST_F(TaskSchedulerTest, ScheduleAtRunsInTimeOrderNotSchedulingOrder) {
  scheduler->scheduleAt(30, record("thirty"));
  scheduler->scheduleAt(10, record("ten"));
  scheduler->scheduleAt(20, record("twenty"));
  EXPECT_EQ(scheduler->nextTaskTime(), 10u);

  scheduler->advanceTo(30);

  EXPECT_THAT(runs, ElementsAre(Ran{"ten", 10}, Ran{"twenty", 20}, Ran{"thirty", 30}));
  EXPECT_EQ(scheduler->pending(), 0u);
}

TEST_F(TaskSchedulerTest, PastTimeRunsAtNowAfterTasksQueuedForNow) {
  scheduler->advanceTo(50);
  scheduler->schedule(record("queued"));
  scheduler->scheduleAt(10, record("late"));
  EXPECT_EQ(scheduler->nextTaskTime(), 50u);

  EXPECT_EQ(scheduler->runUntilIdle(), 2u);

  EXPECT_THAT(runs, ElementsAre(Ran{"queued", 50}, Ran{"late", 50}));
}

TEST_F(TaskSchedulerTest, TaskScheduledForNowByATaskRunsInTheSamePass) {
  scheduler->schedule([this] {
    runs.push_back({"outer", scheduler->now()});
    scheduler->schedule(record("inner"));
  });
  scheduler->schedule(record("second"));

  EXPECT_EQ(scheduler->runUntilIdle(), 3u);

  // The inner task queues behind the task that was already waiting.
  EXPECT_THAT(runs, ElementsAre(Ran{"outer", 0}, Ran{"second", 0}, Ran{"inner", 0}));
  EXPECT_EQ(scheduler->pending(), 0u);
}

TEST_F(TaskSchedulerTest, TaskScheduledForLaterByATaskWaitsForTheClock) {
  scheduler->schedule([this] {
    runs.push_back({"outer", scheduler->now()});
    scheduler->scheduleAt(scheduler->now() + 5, record("later"));
  });

  EXPECT_EQ(scheduler->runUntilIdle(), 1u);
  EXPECT_EQ(scheduler->pending(), 1u);
  EXPECT_EQ(scheduler->nextTaskTime(), 5u);

  scheduler->advanceBy(5);

  EXPECT_THAT(runs, ElementsAre(Ran{"outer", 0}, Ran{"later", 5}));
}

TEST_F(TaskSchedulerTest, RunUntilIdleCountsOnlyDueTasks) {
  scheduler->schedule(record("a"));
  scheduler->schedule(record("b"));
  scheduler->scheduleAt(1, record("notYet"));

  EXPECT_EQ(scheduler->runUntilIdle(), 2u);
  EXPECT_EQ(scheduler->runUntilIdle(), 0u);
  EXPECT_EQ(scheduler->pending(), 1u);
  EXPECT_EQ(scheduler->now(), 0u);
}

TEST_F(TaskSchedulerTest, AdvanceByRunsEachTaskAtItsOwnTime) {
  scheduler->scheduleAt(3, record("three"));
  scheduler->scheduleAt(8, [this] {
    runs.push_back({"eight", scheduler->now()});
    // Lands between this task and the target: the walk must stop there too.
    scheduler->scheduleAt(12, record("twelve"));
    // Lands after the target: must wait.
    scheduler->scheduleAt(40, record("forty"));
  });

  scheduler->advanceBy(20);

  EXPECT_THAT(runs, ElementsAre(Ran{"three", 3}, Ran{"eight", 8}, Ran{"twelve", 12}));
  EXPECT_EQ(scheduler->now(), 20u);
  EXPECT_EQ(scheduler->pending(), 1u);
  EXPECT_EQ(scheduler->nextTaskTime(), 40u);
}

TEST_F(TaskSchedulerTest, NothingRunsEarly) {
  scheduler->scheduleAt(10, record("ten"));

  scheduler->advanceTo(9);
  EXPECT_TRUE(runs.empty());
  EXPECT_EQ(scheduler->runUntilIdle(), 0u);
  EXPECT_TRUE(runs.empty());

  scheduler->advanceBy(1);
  EXPECT_THAT(runs, ElementsAre(Ran{"ten", 10}));
}

TEST_F(TaskSchedulerTest, AdvanceEndsAtTargetWithoutTasks) {
  scheduler->advanceBy(25);
  scheduler->advanceBy(0);
  EXPECT_EQ(scheduler->now(), 25u);
}

TEST_F(TaskSchedulerTest, ThrowingTaskLeavesSchedulerUsable) {
  scheduler->schedule([] { throw std::runtime_error("task failed"); });
  scheduler->schedule(record("after"));

  EXPECT_THROW(scheduler->runUntilIdle(), std::runtime_error);
  EXPECT_EQ(scheduler->runUntilIdle(), 1u);
  EXPECT_THAT(runs, ElementsAre(Ran{"after", 0}));
}

TEST(TaskSchedulerDeathTest, BrokenCallsAssert) {
  auto scheduler = TaskScheduler::TaskSchedulerIs();
  EXPECT_DEATH(scheduler->schedule(nullptr), "Assertion failed: \"task\"");
  scheduler->advanceTo(10);
  EXPECT_DEATH(scheduler->advanceTo(9), "target >= now_");
  scheduler->schedule([&scheduler] { scheduler->runUntilIdle(); });
  EXPECT_DEATH(scheduler->runUntilIdle(), "!running_");
}

TEST(TaskSchedulerLifetime, DroppingTheSchedulerFreesQueuedTasksAndWhatTheyHold) {
  const int64_t before = Core::Node::liveCount();
  {
    auto scheduler = TaskScheduler::TaskSchedulerIs();
    auto held = TaskScheduler::TaskSchedulerIs();
    scheduler->scheduleAt(100, [held] { held->schedule([] {}); });
    EXPECT_EQ(Core::Node::liveCount(), before + 2);
  }
  EXPECT_EQ(Core::Node::liveCount(), before);
}

}  // namespace
