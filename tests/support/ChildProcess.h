#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

// A program run by a test or a benchmark as a child process, its standard output read line by
// line as it comes. Every wait is bounded; a child still running when the object goes is killed.
namespace TestSupport {

inline constexpr int kChildWaitMs = 5000;

using Clock = std::chrono::steady_clock;

inline int msLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// What a program printed and how it ended.
struct Finished {
  int status = -1;  // exit status, -1 when killed or not ended in time
  std::string out;
  std::string err;
};

// A child process with its standard output and error on pipes.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      std::vector<char*> args;
      for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
  }
  ~ChildProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(outFd_);
    close(errFd_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Reads standard output until a complete line satisfies `match` or `timeoutMs` passes; every
  // line read stays in lines().
  bool waitLine(const std::function<bool(const std::string&)>& match,
                int timeoutMs = kChildWaitMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t checked = 0;
    while (true) {
      for (; checked < lines_.size(); ++checked) {
        if (match(lines_[checked])) return true;
      }
      if (!readSome(outFd_, outText_, msLeft(deadline))) return false;
      splitLines();
    }
  }
  // Waits until `count` lines satisfy `match`.
  bool waitLines(const std::function<bool(const std::string&)>& match, size_t count,
                 int timeoutMs = kChildWaitMs) {
    size_t seen = 0;
    return waitLine([&](const std::string& line) { return match(line) && ++seen == count; },
                    timeoutMs);
  }
  const std::vector<std::string>& lines() const { return lines_; }

  void signal(int sig) const { kill(pid_, sig); }

  // Waits for the exit, reading what is left of both streams; kills it after `timeoutMs`.
  Finished finish(int timeoutMs = kChildWaitMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string err;
    bool outOpen = true;
    bool errOpen = true;
    while ((outOpen || errOpen) && msLeft(deadline) > 0) {
      pollfd fds[2] = {{outOpen ? outFd_ : -1, POLLIN, 0}, {errOpen ? errFd_ : -1, POLLIN, 0}};
      if (poll(fds, 2, msLeft(deadline)) <= 0) break;
      if (fds[0].revents != 0) outOpen = readSome(outFd_, outText_, 0);
      if (fds[1].revents != 0) errOpen = readSome(errFd_, err, 0);
    }
    splitLines();
    Finished done;
    int status = 0;
    if (outOpen || errOpen) kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    if (WIFEXITED(status) && !outOpen && !errOpen) done.status = WEXITSTATUS(status);
    for (const auto& line : lines_) done.out += line + '\n';
    done.out += outText_;
    done.err = err;
    return done;
  }

 private:
  // Appends what `fd` has within `waitMs`; false at its end or when nothing came in time.
  static bool readSome(int fd, std::string& into, int waitMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, waitMs) <= 0) return false;
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    into.append(buf, static_cast<size_t>(n));
    return true;
  }
  void splitLines() {
    size_t end;
    while ((end = outText_.find('\n')) != std::string::npos) {
      lines_.push_back(outText_.substr(0, end));
      outText_.erase(0, end + 1);
    }
  }

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string outText_;
  std::vector<std::string> lines_;
};

}  // namespace TestSupport
