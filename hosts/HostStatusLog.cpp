#include "hosts/HostStatusLog.h"

#include <utility>

namespace Hosts {

namespace {

void appendKeyText(std::string& out, const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  out += key.vrfName().str();
  out += ' ';
  out += key.nexthop().toString();
  out += ' ';
  out += key.intfId().name();
}

}  // namespace

std::string keyText(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  std::string text;
  appendKeyText(text, key);
  return text;
}

Json keyJson(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  return {{"vrf", key.vrfName().str()},
          {"nexthop", key.nexthop().toString()},
          {"interface", key.intfId().name()}};
}

StatusStamp virtualTimeStamp(uint64_t ms) { return {std::to_string(ms) + "ms", "timeMs", ms}; }

std::string statusLine(const StatusChange& change, const StatusStamp& stamp, OutputFormat format) {
  static constexpr const char* kEvents[] = {"add", "change", "del"};
  const char* event = kEvents[static_cast<size_t>(change.kind)];
  const bool del = change.kind == StatusChange::Kind::del;
  if (format == OutputFormat::json) {
    Json line = {{stamp.field, stamp.value}, {"event", event}};
    line.update(keyJson(change.key));
    if (!del) line["nhIndex"] = change.nhIndex;
    return line.dump();
  }
  // Appended in place: one line per status change, the simulator's and the agent's main output.
  std::string line;
  line.reserve(96);
  line += '[';
  line += stamp.text;
  line += "] status ";
  line += event;
  line += ' ';
  appendKeyText(line, change.key);
  if (!del) {
    line += " nhIndex ";
    line += std::to_string(change.nhIndex);
  }
  return line;
}

StatusLog::Ptr StatusLog::StatusLogIs(
    Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
    Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink) {
  return Ptr(new StatusLog(std::move(statusDir), std::move(scheduler), std::move(sink)));
}

StatusLog::StatusLog(Core::Ptr<const FwdL3Unicast::NexthopNhIndexResolverStatusDir> statusDir,
                     Core::Ptr<const Hub::TaskScheduler> scheduler, Sink sink)
    : statusDir_(std::move(statusDir)), scheduler_(std::move(scheduler)), sink_(std::move(sink)) {
  CORE_ASSERT(statusDir_ && scheduler_);
}

void StatusLog::handleStatus(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  if (!sink_) return;
  using Status = FwdL3Unicast::NexthopNhIndexResolverStatus;
  const auto values = Core::getNotifyValues<Status>(
      statusDir_.get(), FwdL3Unicast::NexthopNhIndexResolverStatusDir::statusAttr);
  // Outside a publication (never expected) the stored state still tells what is there now.
  const Status current = statusDir_->status(key);
  const Status* newValue =
      values.present ? values.newValue : (statusDir_->statusHas(key) ? &current : nullptr);
  const bool added = values.present ? values.oldValue == nullptr : true;
  StatusChange change{StatusChange::Kind::del, key, 0};
  if (newValue) {
    change.kind = added ? StatusChange::Kind::add : StatusChange::Kind::change;
    change.nhIndex = newValue->nhIndex();
  }
  const StatusStamp stamp = stamper_ ? stamper_() : virtualTimeStamp(scheduler_->now());
  sink_(statusLine(change, stamp, format_));
}

}  // namespace Hosts
