#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "framework/Core.h"
#include "framework/CoreCollection.h"
#include "framework/Kiln.h"
#include "framework/Netval.h"

// The host's FIB state in shared memory: the FEC mode and the FEC table with its vias.
namespace Memtab::Fib {

using FecId = uint64_t;

// The position of a via in a FEC's via array. Holds only positions the array can have, so a
// value past the array's bound fails when the index is built, not when it is used.
class ViaIndex {
 public:
  static constexpr uint32_t min = 0;
  static constexpr uint32_t max = 599;

  // Throws Kiln::RangeError when value > max.
  explicit ViaIndex(uint32_t value);

  uint32_t value() const { return value_; }
  friend auto operator<=>(const ViaIndex&, const ViaIndex&) = default;

 private:
  uint32_t value_;
};

// How the FIB lays out FEC tables: one per VRF, or one global table shared by all VRFs.
using FecMode = uint32_t;
constexpr FecMode fecModePerVrf() { return 1; }
constexpr FecMode fecModeGlobal() { return 2; }

// The FIB's current FEC mode. Written by the host; publishes fecModeAttr with the new mode as key
// (notification values: the old and new FecMode) whenever the mode changes.
class FecModeStatus : public Core::Node {
 public:
  using Ptr = Core::Ptr<FecModeStatus>;
  static constexpr Core::AttrId fecModeAttr = 1;

  static Ptr FecModeStatusIs(FecMode initial = fecModeGlobal());

  FecMode fecMode() const { return fecMode_; }
  // Returns whether the mode changed (and was published).
  bool fecModeIs(FecMode fecMode);

  std::string_view typeName() const override { return "Memtab::Fib::FecModeStatus"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  explicit FecModeStatus(FecMode initial) : fecMode_(initial) {}

  FecMode fecMode_;
};

}  // namespace Memtab::Fib

namespace Memtab::FibGen {

// One way out of a FEC: the egress interface and the next hop on it (unset, 0.0.0.0 or :: for a
// directly attached route).
class Via : public Kiln::Value<Via> {
 public:
  static constexpr std::string_view kilnTypeName = "Memtab::FibGen::Via";
  static constexpr auto kilnAttrs() {
    return std::make_tuple(Kiln::attr("intfId", &Via::intfId_), Kiln::attr("hop", &Via::hop_));
  }

  Via() = default;
  Via(Netval::IntfId intfId, const Netval::IpGenAddr& hop) : intfId_(intfId), hop_(hop) {}

  Netval::IntfId intfId() const { return intfId_; }
  const Netval::IpGenAddr& hop() const { return hop_; }

 private:
  Netval::IntfId intfId_;
  Netval::IpGenAddr hop_;
};

// A forwarding equivalence class: its id, up to maxVia vias and up to maxBackupVia backup vias.
// Only the vias in use are stored, so copying a FEC (which readers do on every review) costs
// O(viaCount + backupViaCount), not O(maxVia). Counts beyond the bounds throw Kiln::RangeError
// with Kiln::Array's message; reading an index at or past the count throws it too.
class Fec {
 public:
  static constexpr size_t maxVia = 600;
  static constexpr size_t maxBackupVia = 128;

  Fec() = default;
  explicit Fec(Fib::FecId key) : key_(key) {}
  // Throws Kiln::RangeError when vias holds more than maxVia entries.
  Fec(Fib::FecId key, std::vector<Via> vias);

  // A reference, because the FEC table reads its key through it.
  const Fib::FecId& key() const { return key_; }

  size_t viaCount() const { return vias_.size(); }
  // Grows with default vias or drops the last ones.
  void viaCountIs(size_t count);
  const Via& via(Fib::ViaIndex index) const;
  // Grows the via count to index + 1 when the index is past the count.
  void viaIs(Fib::ViaIndex index, const Via& via);
  std::span<const Via> vias() const { return vias_; }

  size_t backupViaCount() const { return backupVias_.size(); }
  void backupViaCountIs(size_t count);
  const Via& backupVia(size_t index) const;
  // Grows the backup via count to index + 1 when the index is past the count; an index at or
  // past maxBackupVia throws.
  void backupViaIs(size_t index, const Via& via);
  std::span<const Via> backupVias() const { return backupVias_; }

  friend bool operator==(const Fec&, const Fec&) = default;
  // "{key=7, via=[{intfId=Ethernet1, hop=10.0.0.1}], backupVia=[]}".
  friend std::ostream& operator<<(std::ostream& os, const Fec& fec);

 private:
  Fib::FecId key_ = 0;
  std::vector<Via> vias_;
  std::vector<Via> backupVias_;
};

// Raised by a read of the shared-memory FEC table that found the table inconsistent.
struct CorruptionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The host's FEC table (global, or one VRF's). Written by the host; collection fec keyed by
// FecId publishes fecAttr once per FEC inserted, changed or removed (notification values: Fec).
// Readers copy FECs out with fec(id), as from shared memory, and report corrupt reads back.
class ForwardingStatus : public Core::Node {
 public:
  using Ptr = Core::Ptr<ForwardingStatus>;
  using FecColl = Core::Collection<Fib::FecId, Fec, Core::KeyBy<&Fec::key>>;
  static constexpr Core::AttrId fecAttr = 1;

  static Ptr ForwardingStatusIs();

  // Inserts or replaces the FEC under its key; returns whether the table changed.
  bool fecIs(const Fec& fec) { return fec_.set(fec); }
  bool fecDel(Fib::FecId id) { return fec_.del(id); }
  void fecDelAll() { fec_.delAll(); }
  bool fecHas(Fib::FecId id) const { return fec_.has(id); }
  size_t fecCount() const { return fec_.size(); }
  // The stored FEC, null when absent; invalidated by the next change of the table.
  const Fec* fecFind(Fib::FecId id) const { return fec_.find(id); }
  // A copy of the FEC, or the default via-less FEC when absent. Throws CorruptionError while
  // reads are marked corrupt.
  Fec fec(Fib::FecId id) const;
  // The same read into a caller-owned FEC, whose via storage is reused: a reader that keeps one
  // FEC for all its reads copies without allocating. Throws like fec(id), leaving `out` as it was.
  void fecInto(Fib::FecId id, Fec& out) const;
  const FecColl& fec() const { return fec_; }  // iteration

  // Test hook: makes every fec(id) read throw CorruptionError until switched off.
  void corruptReadsIs(bool corrupt) { corruptReads_ = corrupt; }
  bool corruptReads() const { return corruptReads_; }

  // Called by readers that caught a CorruptionError. Const because readers hold a const view.
  void doCorruptionDetected(const std::string& message) const;
  uint32_t corruptionCount() const { return corruptionCount_; }
  const std::string& lastCorruption() const { return lastCorruption_; }

  std::string_view typeName() const override { return "Memtab::FibGen::ForwardingStatus"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  ForwardingStatus() = default;
  // Throws CorruptionError for `id` while reads are marked corrupt.
  void checkRead(Fib::FecId id) const;

  bool corruptReads_ = false;
  mutable uint32_t corruptionCount_ = 0;
  mutable std::string lastCorruption_;
  FecColl fec_{this, fecAttr};
};

}  // namespace Memtab::FibGen
