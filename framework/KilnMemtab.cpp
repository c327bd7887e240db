#include "framework/KilnMemtab.h"

#include <utility>

#include "framework/CoreDump.h"

namespace KilnMemtab {

Mount::Ptr Mount::MountIs(Store::EntityManager::Ptr entityManager) {
  if (!entityManager)
    throw Core::NullArgumentError("KilnMemtab::Mount::MountIs: null entity manager");
  return Ptr(new Mount(std::move(entityManager)));
}

bool Mount::doMount(const std::string& path, std::string_view typeName, uint32_t mountInfo) {
  CORE_ASSERT(initialized_);
  if (auto it = mounts_.find(path); it != mounts_.end()) {
    return it->second.entity->typeName() == typeName;
  }
  Core::Ptr<Core::Node> entity = entityManager_->entity(path);
  if (!entity || entity->typeName() != typeName) return false;
  mounts_.emplace(path, Mounted{std::move(entity), mountInfo});
  return true;
}

Core::Ptr<Core::Node> Mount::getEntity(const std::string& path) const {
  auto it = mounts_.find(path);
  return it == mounts_.end() ? nullptr : it->second.entity;
}

void Mount::dumpState(Core::DumpContext& ctx, uint32_t indent) const {
  ctx.line(indent, "%s\n", "KilnMemtab::Mount");
  ctx.line(indent + 2, "mount: #%zu\n", mounts_.size());
  for (const auto& [path, mounted] : mounts_) {
    ctx.line(indent + 4, "%s mountInfo %u\n", path.c_str(), mounted.mountInfo);
    ctx.dumpChildPointer(mounted.entity.get(), indent + 6);
  }
}

}  // namespace KilnMemtab
