#include "framework/Assert.h"

#include <cstdio>
#include <cstdlib>

#include "framework/CoreSignature.h"

namespace Core {

void assertionFailed(const char* expression, std::string_view unit, int line,
                     const char* function) noexcept {
  std::fprintf(stderr, "Assertion failed: \"%s\" in %.*s line %d, function ", expression,
               static_cast<int>(unit.size()), unit.data(), line);
  // Written a character at a time: nothing here may allocate.
  gccSpellingOut(function, [](char c) { std::fputc(c, stderr); });
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Core
