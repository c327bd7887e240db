#include "framework/CoreSignature.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

#include "framework/CoreTable.h"
#include "framework/Netval.h"

namespace {

using Core::gccSpelling;

// Signatures and type names as clang 14 and GCC 12 print the same function or type.
struct Spellings {
  const char* clang;
  const char* gcc;
};
constexpr Spellings kSpellings[] = {
    {"virtual void Fwd::Sm::handle(const Fwd::Key &)",
     "virtual void Fwd::Sm::handle(const Fwd::Key&)"},
    {"static void Fwd::Sm::s(uint32_t)", "static void Fwd::Sm::s(uint32_t)"},
    {"void Fwd::Sm::t(T) [T = unsigned int]", "void Fwd::Sm::t(T) [with T = unsigned int]"},
    {"void Fwd::Sm::t(T) [T = std::basic_string<char>]",
     "void Fwd::Sm::t(T) [with T = std::__cxx11::basic_string<char>]"},
    {"auto Fwd::Sm::lam()::(anonymous class)::operator()(int) const",
     "Fwd::Sm::lam()::<lambda(int)>"},
    {"bool Fwd::Sm::operator==(const Fwd::Sm &) const",
     "bool Fwd::Sm::operator==(const Fwd::Sm&) const"},
    {"std::ostream &Fwd::operator<<(std::ostream &, const Fwd::Key &)",
     "std::ostream& Fwd::operator<<(std::ostream&, const Key&)"},
    {"void (anonymous namespace)::Anon::a()", "void {anonymous}::Anon::a()"},
    {"void f() [Key = std::pair<int, std::pair<int, int>>]",
     "void f() [with Key = std::pair<int, std::pair<int, int> >]"},
    {"void f() [Key = std::map<int, std::basic_string<char>>]",
     "void f() [with Key = std::map<int, std::__cxx11::basic_string<char> >]"},
    {"void f() [Key = const char *]", "void f() [with Key = const char*]"},
    {"void f(char *const) [Key = unsigned long]",
     "void f(char* const) [with Key = long unsigned int]"},
    {"int two(A, B) [A = long, B = std::vector<int>]",
     "int two(A, B) [with A = long int; B = std::vector<int>]"},
    {"void f() [A = unsigned long long, B = short, C = unsigned short, D = long long]",
     "void f() [with A = long long unsigned int; B = short int; C = short unsigned int; D = long "
     "long int]"},
    {"void f() [T = std::map<int, int>, U = int]",
     "void f() [with T = std::map<int, int>; U = int]"},
    {"bool X::operator>>(int)", "bool X::operator>>(int)"},
    {"void N::Sm::a(const N::Sm::Ptr &, N::Sm::Ptr)", "void N::Sm::a(const Ptr&, Ptr)"},
    {"void U::x(const U::Coll &, int)", "void U::x(const Coll&, int)"},
    {"void U::y(const U::Other::Coll &, U::Coll)", "void U::y(const Other::Coll&, Coll)"},
    {"void (anonymous namespace)::A::f(const (anonymous namespace)::A::T &)",
     "void {anonymous}::A::f(const T&)"},
    {"void X::longName(long double)", "void X::longName(long double)"},
};

TEST(CoreSignature, ClangSpellingBecomesGccSpelling) {
  for (const Spellings& s : kSpellings) EXPECT_EQ(gccSpelling(s.clang), s.gcc) << s.clang;
}

TEST(CoreSignature, GccSpellingStaysAsItIs) {
  for (const Spellings& s : kSpellings) EXPECT_EQ(gccSpelling(s.gcc), s.gcc) << s.gcc;
}

TEST(CoreSignature, ConstexprIsLeftOutOfTheSignatureOnly) {
  EXPECT_EQ(gccSpelling("constexpr int two(A, B) [with A = int; B = char]"),
            "int two(A, B) [with A = int; B = char]");
  EXPECT_EQ(gccSpelling("static consteval uint32_t X::f()"), "static uint32_t X::f()");
  EXPECT_EQ(gccSpelling("void f() [with auto V = constexprValue]"),
            "void f() [with auto V = constexprValue]");
}

template <class T>
const char* ownSignature() {
  return __PRETTY_FUNCTION__;
}

TEST(CoreSignature, ThisCompilersSignatureIsGccs) {
  EXPECT_EQ(gccSpelling(ownSignature<std::pair<unsigned long, std::string>>()),
            "const char* {anonymous}::ownSignature() [with T = std::pair<long unsigned int, "
            "std::__cxx11::basic_string<char> >]");
}

// The seed hashes the text GCC gives keySeed<Key>(), whatever the compiler.
uint32_t gccKeySeed(std::string_view key) {
  return Core::seedOf(std::string("consteval uint32_t Core::keySeed() [with Key = ") +
                      std::string(key) + "; uint32_t = unsigned int]");
}

TEST(CoreSignature, KeySeedIsTheSameWithEveryCompiler) {
  EXPECT_EQ(Core::keySeed<Netval::IntfId>(), gccKeySeed("Netval::IntfId"));
  EXPECT_EQ(Core::keySeed<uint64_t>(), gccKeySeed("long unsigned int"));
  EXPECT_EQ((Core::keySeed<std::pair<Netval::IpGenAddr, std::pair<int, long>>>()),
            gccKeySeed("std::pair<Netval::IpGenAddr, std::pair<int, long int> >"));
  EXPECT_NE(Core::keySeed<Netval::IntfId>(), Core::keySeed<Netval::IpGenAddr>());
}

TEST(CoreSignature, KeySeedOfReadsEitherCompilersText) {
  static_assert(
      Core::keySeedOf("uint32_t Core::keySeed() [Key = std::pair<int, unsigned long>]") ==
      Core::keySeedOf("consteval uint32_t Core::keySeed() [with Key = std::pair<int, long "
                      "unsigned int>; uint32_t = unsigned int]"));
  static_assert(Core::keySeedOf("consteval uint32_t Core::keySeed() [with Key = Fwd::Key; "
                                "uint32_t = unsigned int]") ==
                Core::seedOf("consteval uint32_t Core::keySeed() [with Key = Fwd::Key; uint32_t = "
                             "unsigned int]"));
  static_assert(Core::keySeedOf("uint32_t Core::keySeed() [Key = Fwd::A]") !=
                Core::keySeedOf("uint32_t Core::keySeed() [Key = Fwd::B]"));
}

}  // namespace
