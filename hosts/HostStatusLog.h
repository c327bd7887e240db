#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Fwd/FwdNexthopNhIndexResolverCommon.h"
#include "framework/Core.h"
#include "framework/CoreReactor.h"
#include "framework/Hub.h"
#include "hosts/HostOutput.h"

namespace Hosts {

// "red 10.0.0.1 Ethernet1": a request key as the simulator prints and reads it.
std::string keyText(const FwdL3Unicast::NexthopNhIndexResolverKey& key);

// One change of the module's status collection.
struct StatusChange {
  enum class Kind { add, change, del };
  Kind kind = Kind::add;
  FwdL3Unicast::NexthopNhIndexResolverKey key;
  uint32_t nhIndex = 0;  // unused for del
};

// When a status line was written, as its host tells it: the text stamp and, in JSON, one field.
// The simulator's virtual time 12 is {"12ms", "timeMs", 12}.
struct StatusStamp {
  std::string text;
  std::string field;
  uint64_t value = 0;
};

// The stamp of the virtual time `ms`, as the simulator writes it.
StatusStamp virtualTimeStamp(uint64_t ms);

// One status line. Text: "[12ms] status add red 10.0.0.1 Ethernet1 nhIndex 17", "... status
// change ... nhIndex 18", "... status del red 10.0.0.1 Ethernet1". JSON: {"timeMs": 12,
// "event": "add", "vrf": "red", "nexthop": "10.0.0.1", "interface": "Ethernet1", "nhIndex": 17},
// without nhIndex for "del".
std::string statusLine(const StatusChange& change, const StatusStamp& stamp, OutputFormat format);

// Narrates the module's status collection: one statusLine() per change, as it happens, stamped
// by the host (the scheduler's time in milliseconds unless the host says otherwise). Watches the
// collection; writes only to its sink.
class StatusLog : public Core::Reactor {
 public:
  using Ptr = Core::Ptr<StatusLog>;
  using Sink = std::function<void(const std::string& line)>;
  using Stamper = std::function<StatusStamp()>;

  static Ptr StatusLogIs(Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
                         Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink);

  // A null sink drops the lines.
  void sinkIs(Sink sink) { sink_ = std::move(sink); }
  void formatIs(OutputFormat format) { format_ = format; }
  // A null stamper restores the scheduler's time.
  void stamperIs(Stamper stamper) { stamper_ = std::move(stamper); }

  std::string_view typeName() const override { return "Hosts::StatusLog"; }

 private:
  StatusLog(Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
            Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink);

  void handleStatus(const FwdL3Unicast::NexthopNhIndexResolverKey& key);

  Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir_;
  Core::Ptr<const Hub::TaskScheduler> scheduler_;
  Sink sink_;
  Stamper stamper_;
  OutputFormat format_ = OutputFormat::text;

  Core::Slot<StatusLog, FwdL3Unicast::NexthopNhIndexResolverKey, &StatusLog::handleStatus>
      statusSlot_{this, FwdL3Unicast::NexthopNhIndexResolverStatusDir::statusAttr,
                  statusDir_.get()};
};

}  // namespace Hosts
