#include "hosts/linux/EventLoop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "framework/Assert.h"

namespace Hosts::Linux {

namespace {

int64_t monotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void watch(int epollFd, int fd) {
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &ev) != 0) fail("epoll_ctl");
}

}  // namespace

EventLoop::EventLoop() : startNs_(monotonicNs()) {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) fail("epoll_create1");
  timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (timerFd_ < 0) {
    close(epollFd_);
    fail("timerfd_create");
  }
  watch(epollFd_, timerFd_);
}

EventLoop::~EventLoop() {
  if (signalFd_ >= 0) close(signalFd_);
  close(timerFd_);
  close(epollFd_);
}

uint64_t EventLoop::nowMs() const {
  return static_cast<uint64_t>((monotonicNs() - startNs_) / 1000000);
}

void EventLoop::schedulerIs(Hub::TaskScheduler::Ptr scheduler) {
  scheduler_ = std::move(scheduler);
  if (scheduler_) schedulerOffset_ = scheduler_->now() - nowMs();
}

void EventLoop::fdIs(int fd, Handler onReadable) {
  CORE_ASSERT(fd >= 0 && fd != timerFd_ && fd != signalFd_);
  if (!handlers_.contains(fd)) watch(epollFd_, fd);
  handlers_[fd] = std::make_shared<Handler>(std::move(onReadable));
}

void EventLoop::fdDel(int fd) {
  if (handlers_.erase(fd) != 0) epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::signalsIs(const std::vector<int>& signals, SignalHandler onSignal) {
  sigset_t set;
  sigemptyset(&set);
  for (int s : signals) sigaddset(&set, s);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) fail("sigprocmask");
  const bool fresh = signalFd_ < 0;
  signalFd_ = signalfd(signalFd_, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) fail("signalfd");
  if (fresh) watch(epollFd_, signalFd_);
  onSignal_ = std::move(onSignal);
}

void EventLoop::advance() {
  if (scheduler_) scheduler_->advanceTo(nowMs() + schedulerOffset_);
}

void EventLoop::armTimer() {
  itimerspec spec{};  // all zero: disarmed
  if (scheduler_) {
    if (auto next = scheduler_->nextTaskTime()) {
      const uint64_t nowSched = nowMs() + schedulerOffset_;
      const uint64_t delayMs = *next > nowSched ? *next - nowSched : 0;
      // A due task still needs a non-zero value to arm the timer.
      const int64_t ns = delayMs == 0 ? 1 : static_cast<int64_t>(delayMs) * 1000000;
      spec.it_value.tv_sec = ns / 1000000000;
      spec.it_value.tv_nsec = ns % 1000000000;
    }
  }
  if (timerfd_settime(timerFd_, 0, &spec, nullptr) != 0) fail("timerfd_settime");
}

void EventLoop::runOnce(int maxWaitMs) {
  advance();
  waitAndHandle(maxWaitMs);
  advance();
}

void EventLoop::waitAndHandle(int maxWaitMs) {
  armTimer();
  epoll_event events[16];
  const int n = epoll_wait(epollFd_, events, 16, maxWaitMs);
  if (n < 0 && errno != EINTR) fail("epoll_wait");
  for (int i = 0; i < n; ++i) {
    const int fd = events[i].data.fd;
    if (fd == timerFd_) {
      uint64_t expirations;
      [[maybe_unused]] ssize_t r = read(timerFd_, &expirations, sizeof expirations);
    } else if (fd == signalFd_) {
      signalfd_siginfo info;
      while (read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (onSignal_) onSignal_(static_cast<int>(info.ssi_signo));
      }
    } else if (auto it = handlers_.find(fd); it != handlers_.end()) {
      // Held, so that the handler may remove itself.
      std::shared_ptr<Handler> handler = it->second;
      (*handler)();
    }
  }
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) runOnce(-1);
}

bool EventLoop::runUntil(const std::function<bool()>& done, int timeoutMs) {
  const uint64_t deadline = nowMs() + static_cast<uint64_t>(timeoutMs);
  while (true) {
    // Checked between running the due tasks and waiting: a task may be what completes it.
    advance();
    if (done()) return true;
    const uint64_t now = nowMs();
    if (now >= deadline) return false;
    waitAndHandle(static_cast<int>(deadline - now));
  }
}

}  // namespace Hosts::Linux
