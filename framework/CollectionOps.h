#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/CoreDump.h"
#include "framework/Kiln.h"

// Operations every entity with collection attributes repeats: get-or-create of an owned child,
// and the dump of a collection as a count line followed by its members.
namespace Core {

// Returns the child stored under `key`, creating it with `create(key)` and inserting it first
// when there is none; only a creation changes (and publishes on) the collection.
template <class Coll, class Create>
typename Coll::member_type childIs(Coll& coll, const typename Coll::key_type& key, Create create) {
  return coll.getOrInsert(key, create);
}

// The line "<name>: #<count>" at indent + 2 that starts the dump of a collection attribute.
inline void dumpCount(DumpContext& ctx, uint32_t indent, const char* name, size_t count) {
  ctx.line(indent + 2, "%s: #%u\n", name, static_cast<unsigned>(count));
}

// The count line, then memberLine(member, indent + 4) for each member in the collection's order.
template <class Coll, class MemberLine>
void dumpMembers(DumpContext& ctx, uint32_t indent, const char* name, const Coll& coll,
                 MemberLine memberLine) {
  dumpCount(ctx, indent, name, coll.size());
  for (const auto& member : coll) memberLine(member, indent + 4);
}

// The count line, then one line per member with its text form.
template <class Coll>
void dumpValues(DumpContext& ctx, uint32_t indent, const char* name, const Coll& coll) {
  dumpMembers(ctx, indent, name, coll, [&ctx](const auto& member, uint32_t at) {
    ctx.line(at, "%s\n", Kiln::toText(member).c_str());
  });
}

// The count line, then one line per member of a Map: "<key> -> <value>".
template <class Coll>
void dumpMapEntries(DumpContext& ctx, uint32_t indent, const char* name, const Coll& coll) {
  dumpMembers(ctx, indent, name, coll, [&ctx](const auto& entry, uint32_t at) {
    ctx.line(at, "%s -> %s\n", Kiln::toText(entry.key).c_str(), Kiln::toText(entry.value).c_str());
  });
}

// The count line, then each owned child's own dump (see DumpContext::dumpChild).
template <class Coll>
void dumpChildren(DumpContext& ctx, uint32_t indent, const char* name, const Coll& coll) {
  dumpMembers(ctx, indent, name, coll,
              [&ctx](const auto& child, uint32_t at) { ctx.dumpChild(child.get(), at); });
}

}  // namespace Core
