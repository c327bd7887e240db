#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hosts/linux/NetlinkMessages.h"

struct mnl_socket;

namespace Hosts::Linux {

// A network namespace held open by a file descriptor: the process's own, or a named one
// (/run/netns/NAME, as `ip netns` makes them). Holding it keeps the namespace alive; whether the
// name still refers to it is `stillNamed()`.
class Netns {
 public:
  // The namespace of the calling thread.
  static Netns own();
  // /run/netns/NAME; throws NetlinkError naming it when it cannot be opened.
  static Netns named(const std::string& name);
  // As named(), but nullopt when the name does not exist.
  static std::optional<Netns> namedIfPresent(const std::string& name);

  Netns(Netns&& other) noexcept;
  Netns& operator=(Netns&& other) noexcept;
  Netns(const Netns&) = delete;
  Netns& operator=(const Netns&) = delete;
  ~Netns();

  // "" for the process's own namespace.
  const std::string& name() const { return name_; }
  int fd() const { return fd_; }
  // Whether both hold the same namespace.
  bool sameAs(const Netns& other) const { return dev_ == other.dev_ && ino_ == other.ino_; }
  // For a named namespace: whether /run/netns/NAME still exists and is this namespace (it is
  // gone after `ip netns del`, or another one after a delete and re-add). Always true for the
  // process's own.
  bool stillNamed() const;

  // Runs `fn` with the calling thread inside this namespace, then moves the thread back (also
  // when `fn` throws). Throws NetlinkError when the namespace cannot be entered.
  void run(const std::function<void()>& fn) const;

 private:
  Netns(int fd, std::string name);

  int fd_ = -1;
  std::string name_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
};

// The path of a named namespace.
std::string netnsPath(const std::string& name);

// A NETLINK_ROUTE socket made inside one namespace, so that everything it reads and writes is
// that namespace's. Accepts only datagrams whose sender is the kernel (port 0); others are
// dropped and counted.
class NetlinkSocket {
 public:
  // Subscribed to the rtnetlink multicast groups `groups` (RTNLGRP_*), with a receive buffer of
  // `receiveBytes` (forced past the system limit where allowed). Non-blocking. Throws
  // NetlinkError when the socket cannot be made.
  NetlinkSocket(const Netns& netns, const std::vector<unsigned>& groups, int receiveBytes);
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;
  ~NetlinkSocket();

  int fd() const;
  uint32_t portId() const;

  // What one read brought.
  enum class ReadResult { data, empty, overrun };
  // Reads one datagram into `buf` (resized to what arrived). `empty` when nothing is pending,
  // `overrun` when the kernel dropped messages for this socket (ENOBUFS): the caller resyncs.
  // A datagram that is not from the kernel is skipped. Throws NetlinkError on other failures,
  // including a datagram larger than the buffer.
  ReadResult read(std::vector<char>& buf);

  // Sends `request` and waits (at most `timeoutMs`) for its answer: every message of a dump
  // is passed to `onMessage` until NLMSG_DONE; an ack's or error's code is returned (0 for
  // success or a finished dump, a negative errno otherwise). Answers to other sequence numbers
  // are skipped. `interrupted` is set when the kernel marks the dump inconsistent
  // (NLM_F_DUMP_INTR): the caller dumps again.
  int transact(const Request& request, const std::function<void(const nlmsghdr*)>& onMessage,
               bool* interrupted = nullptr, int timeoutMs = 5000);
  // The next sequence number for a request on this socket.
  uint32_t nextSeq() { return ++seq_; }

  // Datagrams dropped because they did not come from the kernel.
  uint64_t foreignDropped() const { return foreignDropped_; }

 private:
  // Reads one datagram when one is pending; waits at most `timeoutMs` (-1: not at all).
  ReadResult readOne(std::vector<char>& buf, int timeoutMs);

  mnl_socket* socket_ = nullptr;
  uint32_t seq_ = 0;
  uint64_t foreignDropped_ = 0;
};

}  // namespace Hosts::Linux
