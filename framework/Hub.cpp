#include "framework/Hub.h"

#include <algorithm>
#include <cinttypes>

#include "framework/CoreDump.h"

namespace Hub {

TaskScheduler::Ptr TaskScheduler::TaskSchedulerIs() { return Ptr(new TaskScheduler()); }

void TaskScheduler::schedule(Task task) { scheduleAt(now_, std::move(task)); }

void TaskScheduler::scheduleAt(Time when, Task task) {
  CORE_ASSERT(task);
  tasks_.emplace(Slot{std::max(when, now_), nextSeq_++}, std::move(task));
}

std::optional<TaskScheduler::Time> TaskScheduler::nextTaskTime() const {
  if (tasks_.empty()) return std::nullopt;
  return tasks_.begin()->first.first;
}

void TaskScheduler::runNext() {
  auto it = tasks_.begin();
  CORE_ASSERT(it->first.first <= now_);
  // The task leaves the queue before it runs so that it may schedule, and the queue may grow,
  // while it runs.
  Task task = std::move(it->second);
  tasks_.erase(it);
  // A task that throws must not leave the scheduler marked as running.
  struct Running {
    bool& flag;
    explicit Running(bool& f) : flag(f) { flag = true; }
    ~Running() { flag = false; }
  } running(running_);
  task();
}

size_t TaskScheduler::runUntilIdle() {
  CORE_ASSERT(!running_);
  size_t ran = 0;
  while (!tasks_.empty() && tasks_.begin()->first.first <= now_) {
    runNext();
    ++ran;
  }
  return ran;
}

void TaskScheduler::advanceTo(Time target) {
  CORE_ASSERT(!running_);
  CORE_ASSERT(target >= now_);
  // Tasks scheduled on the way for a time not after `target` join the walk in order.
  while (!tasks_.empty() && tasks_.begin()->first.first <= target) {
    now_ = tasks_.begin()->first.first;
    runNext();
  }
  now_ = target;
}

void TaskScheduler::advanceBy(Time delta) { advanceTo(now_ + delta); }

void TaskScheduler::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "%s\n", "Hub::TaskScheduler");
  ctx.line(indent + 2, "now: %" PRIu64 "\n", now_);
  ctx.line(indent + 2, "tasks: #%zu\n", tasks_.size());
}

}  // namespace Hub
