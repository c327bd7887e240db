#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Hosts::Linux {

// What a control command answers: on success its output (whole lines, possibly none), otherwise
// the error that refused it.
struct ControlAnswer {
  bool ok = true;
  std::string text;
};

// A control socket: a Unix stream socket, owner-only (mode 0600), that takes one command per line
// and answers each with "ok N" followed by N lines of output, or with one line "error MESSAGE".
// Lines are bounded; a longer one is answered with an error and skipped to its end. Clients may
// come one after another or at once (up to a bound); one that leaves mid-line loses that line.
// Non-blocking: the owner's event loop watches fds() and calls handleReadable.
class ControlServer {
 public:
  using Handler = std::function<ControlAnswer(std::string_view line)>;
  static constexpr size_t kMaxLine = 4096;
  static constexpr size_t kMaxClients = 16;

  // Listens at `path`. A socket left there by a process that is gone is replaced; a live one,
  // or anything at `path` that is not a socket, is refused. Throws std::runtime_error naming
  // the path and the cause.
  ControlServer(std::string path, Handler handler);
  // Closes every connection and removes the socket file.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  const std::string& path() const { return path_; }
  // The listening socket and every connected client: the descriptors to watch for reading.
  std::vector<int> fds() const;
  // Accepts on the listening socket, or reads a client's lines and answers each complete one.
  void handleReadable(int fd);
  size_t clientCount() const { return clients_.size(); }

 private:
  struct Client {
    std::string pending;
    // Set while the rest of an over-long line is being skipped.
    bool skipping = false;
  };

  void accept();
  void read(int fd);
  void answer(int fd, const ControlAnswer& answer);
  void drop(int fd);

  std::string path_;
  Handler handler_;
  int listenFd_ = -1;
  std::map<int, Client> clients_;
};

// The client's side: connects to `path`, sends `command` as one line and returns the answer.
// Throws std::runtime_error when there is no server or the answer is cut short.
ControlAnswer controlRequest(const std::string& path, std::string_view command);

}  // namespace Hosts::Linux
