#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <unordered_set>

namespace Core {

class Node;

// Collects one dump: a printf-like writer, the set of entities already dumped, and the rules for
// owned children and child pointers. A line at indent 0 is printed without its "%*c" prefix.
class DumpContext {
 public:
  // Markers printed in place of an entity already dumped in this context and of a null child.
  static constexpr const char* kDuplicateMarker = "(already dumped) ";
  static constexpr const char* kNullChildMarker = "(null)";

  explicit DumpContext(bool generic = false) : generic_(generic) {}

  void printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // Prints `fmt` after `indent` blanks ("%*c" with a blank), or alone at indent 0.
  void line(uint32_t indent, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  const std::string& text() const { return out_; }
  bool generic() const { return generic_; }
  bool seen(const Node* node) const { return seen_.contains(node); }
  void seenIs(const Node* node) { seen_.insert(node); }

  // An owned child: the duplicate marker if already dumped, the generic dump if this context
  // asks for it, otherwise the child's own dumpState; the output always ends with a newline.
  void dumpChild(const Node* child, uint32_t indent);
  // A reference to an entity the dumping object does not own: one line, no recursion.
  void dumpChildPointer(const Node* child, uint32_t indent);
  // The generic dump of an entity: its type name.
  void genericDump(const Node& node, uint32_t indent);

 private:
  void vprint(const char* fmt, va_list args);

  bool generic_;
  std::string out_;
  std::unordered_set<const Node*> seen_;
};

}  // namespace Core
