#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "framework/Core.h"
#include "framework/Store.h"

// The host's shared-memory mount service.
namespace KilnMemtab {

// Mounts of entities that the entity manager publishes, by path and expected type name. A
// reactor builds one, initialises it, mounts and then fetches the entity; a mounted path keeps
// its entity (a counted reference) for the mount's lifetime. Publishes nothing.
class Mount : public Core::Node {
 public:
  using Ptr = Core::Ptr<Mount>;

  // Throws Core::NullArgumentError for a null entity manager.
  static Ptr MountIs(Store::EntityManager::Ptr entityManager);

  // Must run once before the first doMount.
  void handleInitialized() { initialized_ = true; }
  bool initialized() const { return initialized_; }

  // Mounts the entity published at `path` if its typeName() is `typeName`; returns whether the
  // path is mounted with that type. A path already mounted keeps its first entity and
  // `mountInfo`, so every mount of a path yields the very same object.
  bool doMount(const std::string& path, std::string_view typeName, uint32_t mountInfo);
  // The entity mounted at `path`, null when the path is not mounted.
  Core::Ptr<Core::Node> getEntity(const std::string& path) const;
  size_t mountCount() const { return mounts_.size(); }

  std::string_view typeName() const override { return "KilnMemtab::Mount"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  struct Mounted {
    Core::Ptr<Core::Node> entity;
    uint32_t mountInfo;
  };

  explicit Mount(Store::EntityManager::Ptr entityManager)
      : entityManager_(std::move(entityManager)) {}

  Store::EntityManager::Ptr entityManager_;
  bool initialized_ = false;
  std::map<std::string, Mounted, std::less<>> mounts_;
};

}  // namespace KilnMemtab
