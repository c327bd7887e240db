#include "framework/Store.h"

#include <utility>

#include "framework/CoreDump.h"

namespace Store {

EntityManager::Ptr EntityManager::EntityManagerIs() { return Ptr(new EntityManager()); }

void EntityManager::entityIs(const std::string& path, Core::Ptr<Core::Node> entity) {
  if (!entity) throw Core::NullArgumentError("Store::EntityManager::entityIs: null entity");
  auto [it, inserted] = entities_.try_emplace(path, entity);
  if (!inserted) {
    if (it->second == entity) return;
    it->second = std::move(entity);
  }
  notify(kEntity, &path);
}

void EntityManager::entityDel(const std::string& path) {
  auto it = entities_.find(path);
  if (it == entities_.end()) return;
  // `path` may be the erased member's own key (entityDelAll): publish a copy.
  const std::string key = path;
  entities_.erase(it);
  notify(kEntity, &key);
}

void EntityManager::entityDelAll() {
  while (!entities_.empty()) entityDel(entities_.begin()->first);
}

Core::Ptr<Core::Node> EntityManager::entity(const std::string& path) const {
  auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second;
}

void EntityManager::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "%s\n", "Store::EntityManager");
  ctx.line(indent + 2, "entity: #%zu\n", entities_.size());
  for (const auto& [path, entity] : entities_) {
    ctx.line(indent + 4, "%s\n", path.c_str());
    ctx.dumpChildPointer(entity.get(), indent + 6);
  }
}

}  // namespace Store
