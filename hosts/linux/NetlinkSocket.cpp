#include "hosts/linux/NetlinkSocket.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "framework/Assert.h"

namespace Hosts::Linux {

namespace {

// Large enough for any datagram of a dump (the kernel fills up to 32 KiB).
constexpr size_t kDatagramBytes = 64 * 1024;

std::string errnoText(int err) { return std::strerror(err); }

}  // namespace

std::string netnsPath(const std::string& name) { return "/run/netns/" + name; }

Netns::Netns(int fd, std::string name) : fd_(fd), name_(std::move(name)) {
  struct stat st {};
  if (fstat(fd_, &st) == 0) {
    dev_ = st.st_dev;
    ino_ = st.st_ino;
  }
}

Netns Netns::own() {
  int fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw NetlinkError("cannot open the own network namespace: " + errnoText(errno));
  return Netns(fd, "");
}

std::optional<Netns> Netns::namedIfPresent(const std::string& name) {
  int fd = open(netnsPath(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw NetlinkError("cannot open network namespace " + netnsPath(name) + ": " +
                       errnoText(errno));
  }
  return Netns(fd, name);
}

Netns Netns::named(const std::string& name) {
  auto netns = namedIfPresent(name);
  if (!netns) throw NetlinkError("no network namespace " + netnsPath(name));
  return std::move(*netns);
}

Netns::Netns(Netns&& other) noexcept
    : fd_(other.fd_), name_(std::move(other.name_)), dev_(other.dev_), ino_(other.ino_) {
  other.fd_ = -1;
}

Netns& Netns::operator=(Netns&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) close(fd_);
    fd_ = other.fd_;
    name_ = std::move(other.name_);
    dev_ = other.dev_;
    ino_ = other.ino_;
    other.fd_ = -1;
  }
  return *this;
}

Netns::~Netns() {
  if (fd_ >= 0) close(fd_);
}

bool Netns::stillNamed() const {
  if (name_.empty()) return true;
  struct stat st {};
  if (stat(netnsPath(name_).c_str(), &st) != 0) return false;
  return st.st_dev == dev_ && st.st_ino == ino_;
}

void Netns::run(const std::function<void()>& fn) const {
  Netns back = own();
  if (back.sameAs(*this)) {
    fn();
    return;
  }
  if (setns(fd_, CLONE_NEWNET) != 0) {
    throw NetlinkError("cannot enter network namespace " +
                       (name_.empty() ? std::string("(own)") : netnsPath(name_)) + ": " +
                       errnoText(errno));
  }
  struct Return {
    const Netns& back;
    ~Return() {
      // Failing to return would leave the thread in a foreign namespace: nothing can go on.
      CORE_ASSERT(setns(back.fd(), CLONE_NEWNET) == 0);
    }
  } returning{back};
  fn();
}

NetlinkSocket::NetlinkSocket(const Netns& netns, const std::vector<unsigned>& groups,
                             int receiveBytes) {
  netns.run([&] { socket_ = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC); });
  if (!socket_) throw NetlinkError("cannot open a netlink socket: " + errnoText(errno));
  auto fail = [&](const std::string& what) {
    const int err = errno;
    mnl_socket_close(socket_);
    socket_ = nullptr;
    throw NetlinkError(what + ": " + errnoText(err));
  };
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0) fail("cannot bind a netlink socket");
  const int fd = mnl_socket_get_fd(socket_);
  // Root may raise the buffer past rmem_max; others get what the limit allows.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBytes, sizeof receiveBytes) != 0 &&
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof receiveBytes) != 0) {
    fail("cannot size a netlink socket's receive buffer");
  }
  const int on = 1;
  // Strict checking makes the kernel honour the dump filters and reject malformed requests;
  // extended acks carry its error text. Both are optional for older kernels.
  setsockopt(fd, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
  setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
  for (unsigned group : groups) {
    if (mnl_socket_setsockopt(socket_, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
      fail("cannot join rtnetlink group " + std::to_string(group));
    }
  }
}

NetlinkSocket::~NetlinkSocket() {
  if (socket_) mnl_socket_close(socket_);
}

int NetlinkSocket::fd() const { return mnl_socket_get_fd(socket_); }

uint32_t NetlinkSocket::portId() const { return mnl_socket_get_portid(socket_); }

NetlinkSocket::ReadResult NetlinkSocket::readOne(std::vector<char>& buf, int timeoutMs) {
  if (buf.size() < kDatagramBytes) buf.resize(kDatagramBytes);
  while (true) {
    if (timeoutMs >= 0) {
      pollfd p{fd(), POLLIN, 0};
      const int ready = poll(&p, 1, timeoutMs);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) throw NetlinkError("cannot wait on a netlink socket: " + errnoText(errno));
      if (ready == 0) return ReadResult::empty;
    }
    sockaddr_nl from{};
    iovec iov{buf.data(), buf.size()};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    const ssize_t n = recvmsg(fd(), &msg, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        if (timeoutMs >= 0) continue;
        buf.clear();
        return ReadResult::empty;
      }
      if (errno == ENOBUFS) {
        buf.clear();
        return ReadResult::overrun;
      }
      throw NetlinkError("cannot read a netlink socket: " + errnoText(errno));
    }
    if (msg.msg_flags & MSG_TRUNC) {
      throw NetlinkError("netlink datagram larger than " + std::to_string(buf.size()) + " bytes");
    }
    if (msg.msg_namelen != sizeof from || from.nl_family != AF_NETLINK || from.nl_pid != 0) {
      ++foreignDropped_;
      continue;
    }
    buf.resize(static_cast<size_t>(n));
    return ReadResult::data;
  }
}

NetlinkSocket::ReadResult NetlinkSocket::read(std::vector<char>& buf) {
  buf.resize(kDatagramBytes);
  return readOne(buf, -1);
}

int NetlinkSocket::transact(const Request& request,
                            const std::function<void(const nlmsghdr*)>& onMessage,
                            bool* interrupted, int timeoutMs) {
  if (interrupted) *interrupted = false;
  if (mnl_socket_sendto(socket_, request.data(), request.size()) < 0) {
    throw NetlinkError("cannot send " + messageTypeName(request.header()->nlmsg_type) + ": " +
                       errnoText(errno));
  }
  const uint32_t seq = request.seq();
  const uint32_t port = portId();
  std::vector<char> buf;
  while (true) {
    const ReadResult r = readOne(buf, timeoutMs);
    if (r == ReadResult::empty) {
      throw NetlinkError("no answer to " + messageTypeName(request.header()->nlmsg_type) +
                         " within " + std::to_string(timeoutMs) + " ms");
    }
    if (r == ReadResult::overrun) {
      throw NetlinkError("answer to " + messageTypeName(request.header()->nlmsg_type) +
                         " lost to a receive buffer overrun");
    }
    std::optional<int> result;
    forEachMessage(buf.data(), buf.size(), [&](const nlmsghdr* nlh) {
      if (result || nlh->nlmsg_seq != seq || nlh->nlmsg_pid != port) return;
      if (interrupted && (nlh->nlmsg_flags & NLM_F_DUMP_INTR)) *interrupted = true;
      if (nlh->nlmsg_type == NLMSG_ERROR) {
        result = errorCode(nlh);
      } else if (nlh->nlmsg_type == NLMSG_DONE) {
        result = 0;
      } else if (nlh->nlmsg_type >= NLMSG_MIN_TYPE) {
        onMessage(nlh);
      }
    });
    if (result) return *result;
  }
}

}  // namespace Hosts::Linux
