#include "framework/CoreDump.h"

#include <cstdio>
#include <string>

#include "framework/Core.h"

namespace Core {

void DumpContext::vprint(const char* fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char buf[512];
  int n = std::vsnprintf(buf, sizeof buf, fmt, copy);
  va_end(copy);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buf) {
    out_.append(buf, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(big.data(), big.size(), fmt, args);
  out_.append(big.data(), static_cast<size_t>(n));
}

void DumpContext::printf(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vprint(fmt, args);
  va_end(args);
}

void DumpContext::line(uint32_t indent, const char* fmt, ...) {
  if (indent != 0) printf("%*c", static_cast<int>(indent), ' ');
  va_list args;
  va_start(args, fmt);
  vprint(fmt, args);
  va_end(args);
}

void DumpContext::dumpChild(const Node* child, uint32_t indent) {
  if (!child) {
    line(indent, "%s\n", kNullChildMarker);
    return;
  }
  if (seen(child)) {
    std::string name(child->typeName());
    line(indent, "%s%s\n", kDuplicateMarker, name.c_str());
    return;
  }
  seenIs(child);
  if (generic_) {
    genericDump(*child, indent);
  } else {
    child->dumpState(*this, indent);
  }
  if (out_.empty() || out_.back() != '\n') out_.push_back('\n');
}

void DumpContext::dumpChildPointer(const Node* child, uint32_t indent) {
  if (!child) {
    line(indent, "%s\n", kNullChildMarker);
    return;
  }
  std::string name(child->typeName());
  line(indent, "-> %s\n", name.c_str());
}

void DumpContext::genericDump(const Node& node, uint32_t indent) {
  std::string name(node.typeName());
  line(indent, "%s\n", name.c_str());
}

}  // namespace Core
