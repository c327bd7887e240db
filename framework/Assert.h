#pragma once

#include <string_view>

// Assertions of the module's invariants. They are never compiled out: a broken invariant prints
// the expression as written, the source unit, the line and the full function signature (as GCC
// spells it, see CoreSignature.h) on one line to stderr, then aborts the process.
namespace Core {

[[noreturn]] void assertionFailed(const char* expression, std::string_view unit, int line,
                                  const char* function) noexcept;

// The source unit of a file path: its base name without directory and extension.
consteval std::string_view sourceUnit(std::string_view path) {
  auto slash = path.find_last_of('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  auto dot = path.find('.');
  return dot == std::string_view::npos ? path : path.substr(0, dot);
}

}  // namespace Core

#define CORE_ASSERT(expr) ((expr) ? void(0) : ::Core::assertionFailed(#expr, ::Core::sourceUnit(__FILE__), __LINE__, __PRETTY_FUNCTION__))
