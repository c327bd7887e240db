#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Core {

void assertionFailed(const char* expression, std::string_view unit, int line,
                     const char* function) noexcept {
  std::fprintf(stderr, "Assertion failed: \"%s\" in %.*s line %d, function %s\n", expression,
               static_cast<int>(unit.size()), unit.data(), line, function);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Core
