#include "hosts/linux/ControlSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace Hosts::Linux {

namespace {

// How long one answer may wait for a slow reader before the client is dropped.
constexpr int kWriteTimeoutMs = 2000;

std::runtime_error failure(const std::string& what, const std::string& path, int error) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(error));
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
    throw std::runtime_error("control socket path '" + path + "' is empty or over " +
                             std::to_string(sizeof(addr.sun_path) - 1) + " bytes");
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  return addr;
}

// A stream socket connected to `path`, or -1 with errno set.
int connectTo(const std::string& path) {
  const sockaddr_un addr = addressOf(path);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// Writes all of `data`, waiting a bounded time for room; false when the peer is gone or slow.
bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      data.remove_prefix(static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd out{fd, POLLOUT, 0};
      if (::poll(&out, 1, kWriteTimeoutMs) <= 0) return false;
      continue;
    }
    return false;
  }
  return true;
}

std::string framed(const ControlAnswer& answer) {
  if (!answer.ok) {
    std::string message = answer.text;
    for (char& c : message) {
      if (c == '\n') c = ' ';
    }
    return "error " + message + "\n";
  }
  std::string body = answer.text;
  if (!body.empty() && body.back() != '\n') body += '\n';
  size_t lines = 0;
  for (const char c : body) lines += c == '\n';
  return "ok " + std::to_string(lines) + "\n" + body;
}

}  // namespace

ControlServer::ControlServer(std::string path, Handler handler)
    : path_(std::move(path)), handler_(std::move(handler)) {
  const sockaddr_un addr = addressOf(path_);
  struct stat info {};
  if (::lstat(path_.c_str(), &info) == 0) {
    if (!S_ISSOCK(info.st_mode)) {
      throw std::runtime_error("control socket path " + path_ + " exists and is not a socket");
    }
    const int live = connectTo(path_);
    if (live >= 0) {
      ::close(live);
      throw std::runtime_error("control socket " + path_ + " is in use by a running process");
    }
    // Left behind by a process that is gone.
    if (::unlink(path_.c_str()) != 0) throw failure("cannot remove stale socket", path_, errno);
  }
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw failure("cannot create control socket", path_, errno);
  // Owner-only from its first moment: no window in which others could connect.
  const mode_t oldMask = ::umask(0077);
  const int bound = ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  const int bindError = errno;
  ::umask(oldMask);
  if (bound != 0 || ::chmod(path_.c_str(), 0600) != 0 || ::listen(listenFd_, 8) != 0) {
    const int error = bound != 0 ? bindError : errno;
    ::close(listenFd_);
    if (bound == 0) ::unlink(path_.c_str());
    throw failure("cannot listen on control socket", path_, error);
  }
}

ControlServer::~ControlServer() {
  for (const auto& [fd, client] : clients_) ::close(fd);
  ::close(listenFd_);
  ::unlink(path_.c_str());
}

std::vector<int> ControlServer::fds() const {
  std::vector<int> out{listenFd_};
  for (const auto& [fd, client] : clients_) out.push_back(fd);
  return out;
}

void ControlServer::handleReadable(int fd) {
  if (fd == listenFd_) {
    accept();
  } else if (clients_.contains(fd)) {
    read(fd);
  }
}

void ControlServer::accept() {
  while (true) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (clients_.size() >= kMaxClients) {
      writeAll(fd, framed({false, "too many clients"}));
      ::close(fd);
      continue;
    }
    clients_.emplace(fd, Client{});
  }
}

void ControlServer::read(int fd) {
  char buf[4096];
  while (true) {
    const ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
    if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
      drop(fd);
      return;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (ssize_t i = 0; i < n; ++i) {
      // The client may have been dropped by a failed answer.
      auto found = clients_.find(fd);
      if (found == clients_.end()) return;
      Client& client = found->second;
      const char c = buf[i];
      if (c != '\n') {
        if (client.skipping) continue;
        if (client.pending.size() == kMaxLine) {
          client.pending.clear();
          client.skipping = true;
          answer(fd, {false, "line too long (over " + std::to_string(kMaxLine) + " bytes)"});
          continue;
        }
        client.pending += c;
        continue;
      }
      if (client.skipping) {
        client.skipping = false;
        continue;
      }
      std::string line = std::move(client.pending);
      client.pending.clear();
      if (!line.empty() && line.back() == '\r') line.pop_back();
      answer(fd, handler_(line));
    }
    if (!clients_.contains(fd)) return;
  }
}

void ControlServer::answer(int fd, const ControlAnswer& answer) {
  if (!writeAll(fd, framed(answer))) drop(fd);
}

void ControlServer::drop(int fd) {
  if (clients_.erase(fd) != 0) ::close(fd);
}

ControlAnswer controlRequest(const std::string& path, std::string_view command) {
  if (command.find('\n') != std::string_view::npos) {
    throw std::runtime_error("a control command is one line");
  }
  const int fd = connectTo(path);
  if (fd < 0) throw failure("cannot connect to control socket", path, errno);
  std::string line(command);
  line += '\n';
  std::string received;
  bool sent = writeAll(fd, line);
  // Reads until the answer is complete: its first line says how many lines follow.
  size_t need = std::string::npos;
  char buf[4096];
  while (sent) {
    if (need == std::string::npos) {
      const size_t eol = received.find('\n');
      if (eol != std::string::npos) {
        const std::string head = received.substr(0, eol);
        if (head.rfind("error ", 0) == 0) {
          ::close(fd);
          return {false, head.substr(6)};
        }
        size_t count = 0;
        const char* first = head.data() + 3;
        const char* last = head.data() + head.size();
        if (head.rfind("ok ", 0) != 0 || std::from_chars(first, last, count).ptr != last) break;
        need = count;
        received.erase(0, eol + 1);
      }
    }
    if (need != std::string::npos) {
      size_t lines = 0;
      for (const char c : received) lines += c == '\n';
      if (lines >= need) {
        ::close(fd);
        return {true, received};
      }
    }
    const ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    received.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  throw std::runtime_error("control socket " + path + " gave no complete answer");
}

}  // namespace Hosts::Linux
