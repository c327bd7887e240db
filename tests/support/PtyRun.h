#pragma once

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

// Runs a program on a new pseudo-terminal, as a user at a terminal would: waits for its prompt,
// types a line, and so on; every wait is bounded.
namespace PtyRun {

class Terminal {
 public:
  // Starts `program` with `args` on a pseudo-terminal; `env` entries ("NAME=VALUE") are added.
  Terminal(const std::string& program, const std::vector<std::string>& args,
           const std::vector<std::string>& env) {
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(program.c_str()));
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
  }
  ~Terminal() {
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0) close(master_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool started() const { return pid_ > 0 && master_ >= 0; }

  // Reads until the output holds `text` `count` times in all; false after 10 s without it.
  bool waitFor(const std::string& text, size_t count = 1) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (occurrences(text) < count) {
      if (std::chrono::steady_clock::now() > deadline || !readSome(100)) return false;
    }
    return true;
  }
  // Types `keys` (a line ends with "\r", as the Enter key sends it) once the line editor reads
  // the terminal key by key: typed while the terminal is still in line mode (between the prompt
  // and the editor's switch, or between two lines), keys would be taken by the terminal instead.
  void type(const std::string& keys) {
    waitForKeyMode();
    for (size_t done = 0; done < keys.size();) {
      const ssize_t n = write(master_, keys.data() + done, keys.size() - done);
      if (n <= 0) return;
      done += static_cast<size_t>(n);
    }
  }
  // Waits, 10 s at most, until the terminal no longer collects whole lines (the line editor has
  // switched it to reading key by key).
  bool waitForKeyMode() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    termios mode{};
    while (tcgetattr(master_, &mode) == 0 && (mode.c_lflag & ICANON) != 0) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      readSome(5);
    }
    return true;
  }
  // Reads to the end of the output and returns the exit status (-1 when the program did not end
  // within 10 s or did not exit).
  int finish() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline && readSome(100)) {
    }
    int status = 0;
    for (int i = 0; i < 100; ++i) {
      const pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return status_;
      }
      usleep(100 * 1000);
    }
    return -1;
  }
  const std::string& output() const { return output_; }

 private:
  size_t occurrences(const std::string& text) const {
    size_t n = 0;
    for (size_t at = output_.find(text); at != std::string::npos; at = output_.find(text, at + 1))
      ++n;
    return n;
  }
  // False at the end of the output (the terminal closed).
  bool readSome(int timeoutMs) {
    pollfd fd{master_, POLLIN, 0};
    const int ready = poll(&fd, 1, timeoutMs);
    if (ready < 0) return errno == EINTR;
    if (ready == 0) return true;
    char buffer[4096];
    const ssize_t n = read(master_, buffer, sizeof buffer);
    if (n <= 0) return false;
    output_.append(buffer, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int master_ = -1;
  int status_ = -1;
  std::string output_;
};

}  // namespace PtyRun
