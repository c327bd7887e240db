#include "hosts/HostStatusLog.h"

#include <utility>

namespace Hosts {

std::string keyText(const FwdL3Unicast::NexthopNhIndexResolverKey& key) {
  return key.vrfName().str() + " " + key.nexthop().toString() + " " + key.intfId().name();
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
  std::string line = "[" + std::to_string(scheduler_->now()) + "ms] status ";
  if (!newValue) {
    line += "del " + keyText(key);
  } else {
    line += std::string(added ? "add " : "change ") + keyText(key) + " nhIndex " +
            std::to_string(newValue->nhIndex());
  }
  sink_(line);
}

}  // namespace Hosts
