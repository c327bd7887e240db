#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "framework/Core.h"

// The host's entity directory.
namespace Store {

// Every entity the host publishes, by path (for example "forwardingGen/vrf/status/red"). The
// host writes it; the mount service reads it. Holds a counted reference to each entity and
// publishes kEntity with the path as key whenever the entity at a path appears, changes or goes.
class EntityManager : public Core::Node {
 public:
  using Ptr = Core::Ptr<EntityManager>;
  static constexpr Core::AttrId kEntity = 1;

  static Ptr EntityManagerIs();

  // Publishes `entity` at `path`, replacing whatever was there. Throws Core::NullArgumentError
  // for a null entity.
  void entityIs(const std::string& path, Core::Ptr<Core::Node> entity);
  void entityDel(const std::string& path);
  void entityDelAll();
  // The entity at `path`, null when there is none.
  Core::Ptr<Core::Node> entity(const std::string& path) const;
  bool entityHas(const std::string& path) const { return entities_.contains(path); }
  size_t entityCount() const { return entities_.size(); }

  std::string_view typeName() const override { return "Store::EntityManager"; }
  void dumpState(Core::DumpContext& ctx, uint32_t indent) const override;

 private:
  EntityManager() = default;

  // Ordered so that dumps list paths the same way in every run.
  std::map<std::string, Core::Ptr<Core::Node>, std::less<>> entities_;
};

}  // namespace Store
