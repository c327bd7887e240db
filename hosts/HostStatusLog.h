#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"

namespace Hosts {

// "red 10.0.0.1 Ethernet1": a request key as the simulator prints and reads it.
std::string keyText(const FwdL3Unicast::NexthopNhIndexResolverKey& key);

// Narrates the module's status collection: one line per change, as it happens, stamped with
// the virtual time: "[12ms] status add red 10.0.0.1 Ethernet1 nhIndex 17", "... status change
// ... nhIndex 18", "... status del red 10.0.0.1 Ethernet1". Watches the collection; writes only
// to its sink.
class StatusLog : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<StatusLog>;
  using Sink = std::function<void(const std::string& line)>;

  static Ptr StatusLogIs(Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
                         Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink);

  // A null sink drops the lines.
  void sinkIs(Sink sink) { sink_ = std::move(sink); }

  std::string_view typeName() const override { return "Hosts::StatusLog"; }

 private:
  StatusLog(Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
            Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink);

  void handleStatus(const FwdL3Unicast::NexthopNhIndexResolverKey& key);

  Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir_;
  Core::Ptr<const Hub::TaskScheduler> scheduler_;
  Sink sink_;

  Core::Slot<StatusLog, FwdL3Unicast::NexthopNhIndexResolverKey, &StatusLog::handleStatus>
      statusSlot_{this, FwdL3Unicast::NexthopNhIndexResolverStatusDir::statusAttr,
                  statusDir_.get()};
};

}  // namespace Hosts
