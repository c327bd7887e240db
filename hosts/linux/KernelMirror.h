#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hosts/linux/NetlinkMessages.h"
#include "hosts/linux/NetlinkSocket.h"

namespace Hosts::Linux {

// Told of every change of a mirror, after the mirror holds it: `before` is null for an addition,
// `after` null for a removal.
class MirrorListener {
 public:
  virtual ~MirrorListener() = default;
  virtual void linkChanged(const Link* before, const Link* after) = 0;
  virtual void nexthopChanged(const Nexthop* before, const Nexthop* after) = 0;
  virtual void fdbChanged(const FdbEntry* before, const FdbEntry* after) = 0;
  virtual void neighbourChanged(const Neighbour* before, const Neighbour* after) = 0;
  virtual void routeChanged(const Route* before, const Route* after) = 0;
};

// Everything the host reads of one namespace's kernel, by identity.
struct KernelState {
  std::map<int32_t, Link> links;
  std::map<uint32_t, Nexthop> nexthops;
  std::map<FdbEntry::Key, FdbEntry> fdb;
  std::map<Neighbour::Key, Neighbour> neighbours;
  std::map<Route::Key, Route> routes;
};

// One network namespace's links, IPv4 routes, neighbours, bridge fdb entries and nexthop objects,
// mirrored from dumps and kept current from notifications, with every change told to a listener.
//
// The notification socket is subscribed before the first dump, so nothing is missed between the
// two. When the kernel drops notifications (ENOBUFS), or on request, the mirror dumps everything
// again and reconciles: the listener hears only what really differs. A link going down or away
// also re-dumps, because the kernel flushes the routes and nexthop objects of a device without
// telling. Malformed messages are refused, counted and skipped.
class KernelMirror {
 public:
  struct Counters {
    uint64_t resyncs = 0;        // re-dumps after an overrun or on request
    uint64_t linkRefreshes = 0;  // re-dumps after a link went down or away
    uint64_t refused = 0;        // malformed messages skipped
    uint64_t notifications = 0;  // notification messages applied
  };

  // Opens the sockets inside `netns`; nothing is dumped until start(). Throws NetlinkError.
  KernelMirror(const Netns& netns, MirrorListener* listener);
  KernelMirror(const KernelMirror&) = delete;
  KernelMirror& operator=(const KernelMirror&) = delete;

  // Dumps everything; the listener hears each fact as an addition.
  void start();
  // The notification socket's descriptor, for the event loop.
  int fd() const { return events_.fd(); }
  // Applies every notification waiting on the socket (resyncing after an overrun).
  void readEvents();
  // Dumps everything again and reconciles.
  void resync();
  // Tells the listener that everything is gone (the namespace was lost) and forgets it.
  void clear();

  const KernelState& state() const { return state_; }
  const Counters& counters() const { return counters_; }
  // The socket for requests (writes and dumps) inside the namespace.
  NetlinkSocket& requests() { return requests_; }
  // Sends a write request and returns its result (0 or a negative errno).
  int write(const Request& request);
  // The last refusal's text, for traces.
  const std::string& lastRefusal() const { return lastRefusal_; }

 private:
  KernelState dump();
  void dumpInto(KernelState& into, uint16_t type, uint8_t family);
  // Applies `fresh` over the current state and tells the listener of each difference.
  void reconcile(KernelState fresh);
  void apply(const Message& m);

  MirrorListener* listener_;
  NetlinkSocket events_;
  NetlinkSocket requests_;
  KernelState state_;
  Counters counters_;
  std::string lastRefusal_;
  std::vector<char> buf_;
  bool refreshWanted_ = false;
};

}  // namespace Hosts::Linux
