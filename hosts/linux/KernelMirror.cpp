#include "hosts/linux/KernelMirror.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>
#include <variant>

namespace Hosts::Linux {

namespace {

// Large enough for a burst of notifications and a dump answer of 10,000s of routes.
constexpr int kReceiveBytes = 16 << 20;
constexpr int kDumpAttempts = 5;

// Reconciles one map: changes and additions first, in key order, then removals.
template <class Map, class Tell>
void diff(Map& current, Map& fresh, Tell tell, std::vector<std::function<void()>>& removals) {
  for (auto& [key, value] : fresh) {
    auto it = current.find(key);
    if (it == current.end()) {
      auto added = current.emplace(key, value).first;
      tell(nullptr, &added->second);
    } else if (!(it->second == value)) {
      auto before = it->second;
      it->second = value;
      tell(&before, &it->second);
    }
  }
  for (auto it = current.begin(); it != current.end();) {
    if (fresh.contains(it->first)) {
      ++it;
      continue;
    }
    auto node = current.extract(it++);
    removals.push_back([tell, value = std::move(node.mapped())] { tell(&value, nullptr); });
  }
}

}  // namespace

KernelMirror::KernelMirror(const Netns& netns, MirrorListener* listener)
    : listener_(listener),
      events_(netns, {RTNLGRP_LINK, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEIGH, RTNLGRP_NEXTHOP},
              kReceiveBytes),
      requests_(netns, {}, kReceiveBytes) {}

void KernelMirror::start() { reconcile(dump()); }

void KernelMirror::resync() {
  ++counters_.resyncs;
  reconcile(dump());
}

void KernelMirror::clear() { reconcile(KernelState{}); }

int KernelMirror::write(const Request& request) {
  return requests_.transact(request, [](const nlmsghdr*) {});
}

void KernelMirror::dumpInto(KernelState& into, uint16_t type, uint8_t family) {
  for (int attempt = 1;; ++attempt) {
    KernelState part;
    bool interrupted = false;
    const int rc = requests_.transact(
        dumpRequest(type, family, requests_.nextSeq()),
        [&](const nlmsghdr* nlh) {
          try {
            auto m = parseMessage(nlh);
            if (!m || m->del) return;
            std::visit(
                [&](auto& fact) {
                  using T = std::decay_t<decltype(fact)>;
                  if constexpr (std::is_same_v<T, Link>) {
                    part.links[fact.ifindex] = fact;
                  } else if constexpr (std::is_same_v<T, Nexthop>) {
                    part.nexthops[fact.id] = fact;
                  } else if constexpr (std::is_same_v<T, FdbEntry>) {
                    part.fdb[fact.key()] = fact;
                  } else if constexpr (std::is_same_v<T, Neighbour>) {
                    part.neighbours[fact.key()] = fact;
                  } else {
                    part.routes[fact.key()] = fact;
                  }
                },
                m->fact);
          } catch (const NetlinkError& e) {
            ++counters_.refused;
            lastRefusal_ = e.what();
          }
        },
        &interrupted);
    // A kernel without nexthop objects refuses their dump: it simply has none.
    if (rc == -EOPNOTSUPP || rc == -EINVAL) {
      if (type == RTM_GETNEXTHOP) return;
    }
    if (rc != 0) {
      throw NetlinkError("dump " + messageTypeName(type) + " failed: " + std::strerror(-rc));
    }
    if (!interrupted || attempt == kDumpAttempts) {
      into.links.merge(part.links);
      into.nexthops.merge(part.nexthops);
      into.fdb.merge(part.fdb);
      into.neighbours.merge(part.neighbours);
      into.routes.merge(part.routes);
      return;
    }
  }
}

KernelState KernelMirror::dump() {
  KernelState fresh;
  dumpInto(fresh, RTM_GETLINK, AF_UNSPEC);
  dumpInto(fresh, RTM_GETNEXTHOP, AF_UNSPEC);
  dumpInto(fresh, RTM_GETNEIGH, AF_BRIDGE);
  dumpInto(fresh, RTM_GETNEIGH, AF_INET);
  dumpInto(fresh, RTM_GETROUTE, AF_INET);
  return fresh;
}

void KernelMirror::reconcile(KernelState fresh) {
  // Additions and changes go from the bottom up (links before what uses them), removals from the
  // top down (routes before the links they use).
  std::vector<std::function<void()>> removals;
  MirrorListener* l = listener_;
  diff(
      state_.links, fresh.links, [l](const Link* b, const Link* a) { l->linkChanged(b, a); },
      removals);
  std::vector<std::function<void()>> linkRemovals = std::move(removals);
  removals.clear();
  diff(
      state_.nexthops, fresh.nexthops,
      [l](const Nexthop* b, const Nexthop* a) { l->nexthopChanged(b, a); }, removals);
  auto nexthopRemovals = std::move(removals);
  removals.clear();
  diff(
      state_.fdb, fresh.fdb, [l](const FdbEntry* b, const FdbEntry* a) { l->fdbChanged(b, a); },
      removals);
  auto fdbRemovals = std::move(removals);
  removals.clear();
  diff(
      state_.neighbours, fresh.neighbours,
      [l](const Neighbour* b, const Neighbour* a) { l->neighbourChanged(b, a); }, removals);
  auto neighbourRemovals = std::move(removals);
  removals.clear();
  diff(
      state_.routes, fresh.routes, [l](const Route* b, const Route* a) { l->routeChanged(b, a); },
      removals);
  for (auto* list :
       {&removals, &neighbourRemovals, &fdbRemovals, &nexthopRemovals, &linkRemovals}) {
    for (auto& tell : *list) tell();
  }
}

void KernelMirror::apply(const Message& m) {
  MirrorListener* l = listener_;
  auto update = [&](auto& map, const auto& key, const auto& fact, auto tell) {
    auto it = map.find(key);
    if (m.del) {
      if (it == map.end()) return;
      auto before = std::move(it->second);
      map.erase(it);
      tell(&before, nullptr);
    } else if (it == map.end()) {
      auto added = map.emplace(key, fact).first;
      tell(nullptr, &added->second);
    } else if (!(it->second == fact)) {
      auto before = it->second;
      it->second = fact;
      tell(&before, &it->second);
    }
  };
  std::visit(
      [&](const auto& fact) {
        using T = std::decay_t<decltype(fact)>;
        if constexpr (std::is_same_v<T, Link>) {
          auto it = state_.links.find(fact.ifindex);
          const bool wasUp = it != state_.links.end() && it->second.up;
          if (m.del || (wasUp && !fact.up)) refreshWanted_ = true;
          update(state_.links, fact.ifindex, fact,
                 [l](const Link* b, const Link* a) { l->linkChanged(b, a); });
        } else if constexpr (std::is_same_v<T, Nexthop>) {
          update(state_.nexthops, fact.id, fact,
                 [l](const Nexthop* b, const Nexthop* a) { l->nexthopChanged(b, a); });
        } else if constexpr (std::is_same_v<T, FdbEntry>) {
          update(state_.fdb, fact.key(), fact,
                 [l](const FdbEntry* b, const FdbEntry* a) { l->fdbChanged(b, a); });
        } else if constexpr (std::is_same_v<T, Neighbour>) {
          update(state_.neighbours, fact.key(), fact,
                 [l](const Neighbour* b, const Neighbour* a) { l->neighbourChanged(b, a); });
        } else {
          update(state_.routes, fact.key(), fact,
                 [l](const Route* b, const Route* a) { l->routeChanged(b, a); });
        }
      },
      m.fact);
}

void KernelMirror::readEvents() {
  bool overrun = false;
  while (true) {
    const NetlinkSocket::ReadResult r = events_.read(buf_);
    if (r == NetlinkSocket::ReadResult::empty) break;
    if (r == NetlinkSocket::ReadResult::overrun) {
      overrun = true;
      continue;  // what is still queued is newer than the loss: read it, then resync
    }
    try {
      forEachMessage(buf_.data(), buf_.size(), [&](const nlmsghdr* nlh) {
        try {
          if (auto m = parseMessage(nlh)) {
            ++counters_.notifications;
            apply(*m);
          }
        } catch (const NetlinkError& e) {
          ++counters_.refused;
          lastRefusal_ = e.what();
        }
      });
    } catch (const NetlinkError& e) {
      ++counters_.refused;
      lastRefusal_ = e.what();
    }
  }
  if (overrun) {
    refreshWanted_ = false;
    resync();
  } else if (refreshWanted_) {
    refreshWanted_ = false;
    ++counters_.linkRefreshes;
    reconcile(dump());
  }
}

}  // namespace Hosts::Linux
