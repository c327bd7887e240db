#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "framework/Hub.h"

namespace Hosts::Linux {

// The host's event loop: epoll over the file descriptors handed to it (netlink sockets, the
// daemon's own), a timerfd, and optionally a signalfd. It drives a Hub::TaskScheduler by the
// monotonic clock: before and after every wait the scheduler advances to the current time in
// milliseconds, and the timer is armed for its next task, so a task runs when it is due and
// nothing ever sleeps in a loop. Single-threaded: handlers run on the thread that runs the loop.
class EventLoop {
 public:
  using Handler = std::function<void()>;
  using SignalHandler = std::function<void(int signal)>;

  // Throws std::system_error when epoll or timerfd fail.
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The scheduler the loop drives from now on; its clock is kept at the loop's milliseconds.
  // Its current time is taken to be now.
  void schedulerIs(Hub::TaskScheduler::Ptr scheduler);
  const Hub::TaskScheduler::Ptr& scheduler() const { return scheduler_; }

  // Calls `onReadable` whenever `fd` is readable (level-triggered), until fdDel. A handler may
  // add and remove descriptors, its own included.
  void fdIs(int fd, Handler onReadable);
  void fdDel(int fd);
  bool fdHas(int fd) const { return handlers_.contains(fd); }

  // Blocks `signals` for the process's threads and calls `onSignal` for each that arrives.
  void signalsIs(const std::vector<int>& signals, SignalHandler onSignal);

  // Runs the scheduler's due tasks, waits at most `maxWaitMs` (-1: until something happens)
  // for a descriptor, the timer or a signal, handles what came, and runs the due tasks again.
  void runOnce(int maxWaitMs);
  // Runs until stop() is called (by a handler or a task).
  void run();
  void stop() { stopped_ = true; }
  // Runs until `done()` holds, checked after every round, or `timeoutMs` passes; returns
  // whether it holds. For tests and start-up waits: the wait is always bounded.
  bool runUntil(const std::function<bool()>& done, int timeoutMs);

  // Milliseconds of the monotonic clock since the loop was made.
  uint64_t nowMs() const;

 private:
  void advance();
  void armTimer();
  // Waits at most `maxWaitMs` and handles what came.
  void waitAndHandle(int maxWaitMs);

  int epollFd_ = -1;
  int timerFd_ = -1;
  int signalFd_ = -1;
  int64_t startNs_ = 0;
  uint64_t schedulerOffset_ = 0;  // scheduler time = nowMs() + offset
  Hub::TaskScheduler::Ptr scheduler_;
  std::map<int, std::shared_ptr<Handler>> handlers_;
  SignalHandler onSignal_;
  bool stopped_ = false;
};

}  // namespace Hosts::Linux
