#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "framework/Core.h"

// Agent services of the host: the event loop's task queue and its clock.
namespace Hub {

// The agent's single-threaded task queue on a virtual clock in milliseconds. Callers schedule
// tasks; the owner of the loop (the host, or a test) moves the clock and runs what is due.
// Tasks due at the same time run in the order they were scheduled. Nothing sleeps; it
// publishes no attributes.
class TaskScheduler : public Core::Node {
 public:
  using Time = uint64_t;
  using Task = std::function<void()>;
  using Ptr = Core::Ptr<TaskScheduler>;

  // A scheduler whose clock starts at 0 with an empty queue.
  static Ptr TaskSchedulerIs();

  Time now() const { return now_; }

  // Runs `task` at the current time, after the tasks already queued for that time.
  void schedule(Task task);
  // Runs `task` at `when`; a time already past means the current time.
  void scheduleAt(Time when, Task task);

  // Runs every task due at or before now(), also those that running tasks schedule for now().
  // Returns the number of tasks run. Must not be called from inside a task.
  size_t runUntilIdle();
  // Moves the clock to `target` (not before now()), stopping at each due task's own time to run
  // it, then runs everything due at `target`. Must not be called from inside a task.
  void advanceTo(Time target);
  void advanceBy(Time delta);

  size_t pending() const { return tasks_.size(); }
  std::optional<Time> nextTaskTime() const;

  std::string_view typeName() const override { return "Hub::TaskScheduler"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  // Ordered by due time, then by scheduling order, which makes equal times FIFO.
  using Slot = std::pair<Time, uint64_t>;

  TaskScheduler() = default;
  // Pops the earliest task and runs it; the clock must already be at its time.
  void runNext();

  Time now_ = 0;
  uint64_t nextSeq_ = 0;
  bool running_ = false;
  std::map<Slot, Task> tasks_;
};

}  // namespace Hub
