#include "platform/Memtab.h"

#include <string>
#include <utility>

#include "framework/CollectionOps.h"
#include "framework/CoreDump.h"

namespace Memtab::Fib {

ViaIndex::ViaIndex(uint32_t value) : value_(value) {
  if (value > max) {
    throw Kiln::RangeError(
        "Memtab::Fib::ViaIndex::value < Memtab::Fib::ViaIndex::min or > "
        "Memtab::Fib::ViaIndex::max not allowed");
  }
}

FecModeStatus::Ptr FecModeStatus::FecModeStatusIs(FecMode initial) {
  return Ptr(new FecModeStatus(initial));
}

bool FecModeStatus::fecModeIs(FecMode fecMode) {
  if (fecMode == fecMode_) return false;
  const FecMode old = std::exchange(fecMode_, fecMode);
  const FecMode anchored = fecMode_;
  Core::NotifyScope scope(this, fecModeAttr, &old, &anchored);
  notify(fecModeAttr, &anchored);
  return true;
}

void FecModeStatus::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "FecModeStatus\n");
  ctx.line(indent + 2, "fecMode: %u\n", fecMode_);
}

}  // namespace Memtab::Fib

namespace Memtab::FibGen {

namespace {

// The via vectors fail and print exactly like the generated arrays they stand for.
void countIs(std::vector<Via>& vias, size_t count, size_t bound) {
  if (count > bound) Kiln::throwArrayCountTooLarge();
  vias.resize(count);
}

const Via& at(const std::vector<Via>& vias, size_t index) {
  if (index >= vias.size()) Kiln::throwArrayIndexOutOfRange();
  return vias[index];
}

void viaAtIs(std::vector<Via>& vias, size_t index, const Via& via, size_t bound) {
  if (index >= vias.size()) countIs(vias, index + 1, bound);
  vias[index] = via;
}

}  // namespace

Fec::Fec(Fib::FecId key, std::vector<Via> vias) : key_(key), vias_(std::move(vias)) {
  if (vias_.size() > maxVia) Kiln::throwArrayCountTooLarge();
}

void Fec::viaCountIs(size_t count) { countIs(vias_, count, maxVia); }

const Via& Fec::via(Fib::ViaIndex index) const { return at(vias_, index.value()); }

void Fec::viaIs(Fib::ViaIndex index, const Via& via) { viaAtIs(vias_, index.value(), via, maxVia); }

void Fec::backupViaCountIs(size_t count) { countIs(backupVias_, count, maxBackupVia); }

const Via& Fec::backupVia(size_t index) const { return at(backupVias_, index); }

void Fec::backupViaIs(size_t index, const Via& via) {
  viaAtIs(backupVias_, index, via, maxBackupVia);
}

std::ostream& operator<<(std::ostream& os, const Fec& fec) {
  os << "{key=" << fec.key_ << ", via=";
  Kiln::printList(os, fec.vias_);
  os << ", backupVia=";
  Kiln::printList(os, fec.backupVias_);
  return os << '}';
}

ForwardingStatus::Ptr ForwardingStatus::ForwardingStatusIs() { return Ptr(new ForwardingStatus()); }

void ForwardingStatus::checkRead(Fib::FecId id) const {
  if (corruptReads_) {
    throw CorruptionError("Memtab::FibGen::ForwardingStatus: corrupt read of FEC " +
                          std::to_string(id));
  }
}

Fec ForwardingStatus::fec(Fib::FecId id) const {
  checkRead(id);
  return fec_.get(id);
}

void ForwardingStatus::fecInto(Fib::FecId id, Fec& out) const {
  checkRead(id);
  static const Fec absent;
  const Fec* present = fec_.find(id);
  // Copy-assignment keeps out's vectors and their capacity.
  out = present ? *present : absent;
}

void ForwardingStatus::doCorruptionDetected(const std::string& message) const {
  ++corruptionCount_;
  lastCorruption_ = message;
}

void ForwardingStatus::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "ForwardingStatus\n");
  Core::dumpValues(ctx, indent, "fec", fec_);
  if (corruptionCount_ == 0) return;
  ctx.line(indent + 2, "corruptionCount: %u lastCorruption: %s\n", corruptionCount_,
           lastCorruption_.c_str());
}

}  // namespace Memtab::FibGen
