#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "framework/CoreHash.h"

// Function signatures and type names as GCC prints them, whichever compiler built the program.
// Traces, assertion messages and the per-type seeds of hash tables are taken from
// __PRETTY_FUNCTION__, whose text differs between compilers: clang writes "const Foo &" for
// GCC's "const Foo&", "[T = int, U = long]" for "[with T = int; U = long int]",
// "std::pair<int, std::pair<int, int>>" for "... int> >", "(anonymous namespace)" for
// "{anonymous}", "unsigned long" for "long unsigned int", "std::basic_string<char>" for
// "std::__cxx11::basic_string<char>", and a lambda's call operator for GCC's "<lambda(...)>".
// gccSpelling() rewrites those forms and leaves GCC's own text as it is, but for "constexpr" and
// "consteval", which GCC writes before a signature and clang leaves out; so what a program prints
// and how its tables are laid out do not depend on the compiler.
//
// What the text does not carry cannot be rewritten: clang omits the typedefs GCC explains after a
// template's arguments ("; uint32_t = unsigned int"), and writes a template argument in a
// parameter list as the source does ("std::shared_ptr<Key>" for GCC's "std::shared_ptr<Fwd::Key>").
namespace Core {

namespace detail {

constexpr bool identifierChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

constexpr bool operatorChar(char c) {
  return std::string_view("+-*/%^&|~!=<>,").find(c) != std::string_view::npos;
}

// Whether `text` has `word` at `at` as whole words (no identifier character on either side).
constexpr bool wordAt(std::string_view text, size_t at, std::string_view word) {
  if (text.substr(at, word.size()) != word) return false;
  if (at > 0 && identifierChar(text[at - 1])) return false;
  const size_t end = at + word.size();
  return end == text.size() || !identifierChar(text[end]);
}

// Clang's names of the integer types that GCC spells otherwise, longest first. A name is
// rewritten only where the words after it do not make it GCC's own spelling already.
struct IntegerSpelling {
  std::string_view clang;
  std::string_view gcc;
};
inline constexpr IntegerSpelling kIntegerSpellings[] = {
    {"unsigned long long", "long long unsigned int"},
    {"unsigned long", "long unsigned int"},
    {"unsigned short", "short unsigned int"},
    {"long long", "long long int"},
    {"long", "long int"},
    {"short", "short int"},
};

// Standard library types that libstdc++ keeps in its inline namespace __cxx11, which GCC names
// and clang leaves out.
inline constexpr std::string_view kCxx11Types[] = {
    "basic_string<",        "basic_stringstream<", "basic_istringstream<",
    "basic_ostringstream<", "basic_stringbuf<",    "list<",
};

constexpr bool gccIntegerAlready(std::string_view rest) {
  for (std::string_view next : {" int", " long", " unsigned", " double", " short"}) {
    if (rest.starts_with(next) &&
        (rest.size() == next.size() || !identifierChar(rest[next.size()])))
      return true;
  }
  return false;
}

// The position of the ')' that closes the '(' at `open`, or npos.
constexpr size_t closingParen(std::string_view text, size_t open) {
  int depth = 0;
  for (size_t i = open; i < text.size(); ++i) {
    if (text[i] == '(') ++depth;
    if (text[i] == ')' && --depth == 0) return i;
  }
  return std::string_view::npos;
}

// The parameter list of a signature's function, "(...)" with both parentheses, and the scope
// its name is declared in, "N::Sm::" for "void N::Sm::f(int)" ("" for a function at global
// scope or a text that is no signature).
struct SignatureParts {
  size_t open = std::string_view::npos;
  size_t close = std::string_view::npos;
  std::string_view scope;
};

constexpr SignatureParts signatureParts(std::string_view text) {
  SignatureParts parts;
  int angles = 0;
  size_t open = std::string_view::npos;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i).starts_with("(anonymous namespace)")) {
      i += 20;
    } else if (wordAt(text, i, "operator")) {
      i += 8;
      if (text.substr(i).starts_with("()")) ++i;
      while (i + 1 < text.size() && operatorChar(text[i + 1])) ++i;
    } else if (text[i] == '<') {
      ++angles;
    } else if (text[i] == '>' && angles > 0) {
      --angles;
    } else if (text[i] == '(' && angles == 0) {
      open = i;
      break;
    }
  }
  if (open == std::string_view::npos || open == 0) return parts;
  const size_t close = closingParen(text, open);
  if (close == std::string_view::npos) return parts;
  // Back over the function's qualified name.
  size_t begin = open;
  // An operator's symbols, as in "operator<<(" or "operator()(".
  size_t symbols = begin;
  while (symbols > 0 && (operatorChar(text[symbols - 1]) || text[symbols - 1] == ')' ||
                         text[symbols - 1] == '(')) {
    --symbols;
  }
  if (text.substr(0, symbols).ends_with("operator")) begin = symbols;
  while (begin > 0) {
    const char c = text[begin - 1];
    if (identifierChar(c) || c == ':' || c == '~') {
      --begin;
    } else if (c == ')' && text.substr(0, begin).ends_with("(anonymous namespace)")) {
      begin -= 21;
    } else {
      break;
    }
  }
  const std::string_view name = text.substr(begin, open - begin);
  const size_t lastScope = name.rfind("::");
  parts.open = open;
  parts.close = close;
  if (lastScope != std::string_view::npos) parts.scope = name.substr(0, lastScope + 2);
  return parts;
}

}  // namespace detail

// Feeds gccSpelling(text) to `out` one character at a time, in constant expressions too.
template <class Out>
constexpr void gccSpellingOut(std::string_view text, Out&& out) {
  using detail::identifierChar;
  constexpr size_t npos = std::string_view::npos;
  constexpr std::string_view kLambda = "::(anonymous class)::operator()(";
  // A lambda's call operator, "auto Scope::(anonymous class)::operator()(int) const", is GCC's
  // "Scope::<lambda(int)>": no return type, no const.
  if (text.find(kLambda) != std::string_view::npos && text.starts_with("auto ")) {
    text.remove_prefix(5);
  }
  // GCC names a type of the function's own scope (class or namespace) without that scope in the
  // parameter list, clang with it: "void N::Sm::f(const Ptr&)" for "... f(const N::Sm::Ptr &)".
  const detail::SignatureParts parts = detail::signatureParts(text);
  // Depth of <>, () and [] inside the argument list "[with ...]", where clang's ", " between two
  // arguments is GCC's "; ".
  bool inArguments = false;
  int depth = 0;
  size_t i = 0;
  while (i < text.size()) {
    const std::string_view rest = text.substr(i);
    const char c = text[i];
    if (!parts.scope.empty() && i > parts.open && i < parts.close &&
        rest.starts_with(parts.scope) && !identifierChar(text[i - 1]) && text[i - 1] != ':') {
      i += parts.scope.size();
      continue;
    }
    if (rest.starts_with("(anonymous namespace)")) {
      for (char k : std::string_view("{anonymous}")) out(k);
      i += 21;
      continue;
    }
    if (rest.starts_with(kLambda)) {
      const size_t open = i + kLambda.size() - 1;
      const size_t close = detail::closingParen(text, open);
      if (close != std::string_view::npos) {
        for (char k : std::string_view("::<lambda")) out(k);
        gccSpellingOut(text.substr(open, close + 1 - open), out);
        out('>');
        i = close + 1;
        if (text.substr(i).starts_with(" const")) i += 6;
        continue;
      }
    }
    if ((detail::wordAt(text, i, "constexpr") || detail::wordAt(text, i, "consteval")) &&
        text.substr(i + 9).starts_with(" ") && text.substr(0, i).find('(') == npos) {
      // Clang leaves these out of a signature; neither side keeps them.
      i += 10;
      continue;
    }
    if (detail::wordAt(text, i, "operator")) {
      // An operator's name is copied as it is: its '>' closes no template, its '&' is no
      // reference.
      for (char k : std::string_view("operator")) out(k);
      i += 8;
      if (text.substr(i).starts_with("()") || text.substr(i).starts_with("[]")) {
        out(text[i]);
        out(text[i + 1]);
        i += 2;
      }
      while (i < text.size() && detail::operatorChar(text[i])) out(text[i++]);
      continue;
    }
    if (c == ' ' && i + 1 < text.size() && (text[i + 1] == '&' || text[i + 1] == '*')) {
      // Clang's "Foo &x", "Foo &)" and "char *const" are GCC's "Foo& x", "Foo&)", "char* const".
      size_t end = i + 1;
      while (end < text.size() && (text[end] == '&' || text[end] == '*')) ++end;
      for (size_t k = i + 1; k < end; ++k) out(text[k]);
      if (end < text.size() && (identifierChar(text[end]) || text[end] == '(')) out(' ');
      i = end;
      continue;
    }
    if (c == '[' && depth == 0 && !inArguments && i > 0 && text[i - 1] == ' ') {
      // Clang's "[T = int]" after a template's signature is GCC's "[with T = int]".
      size_t name = i + 1;
      while (name < text.size() && identifierChar(text[name])) ++name;
      inArguments = name > i + 1 && text.substr(name).starts_with(" = ");
      const bool alreadyGcc = rest.starts_with("[with ");
      out('[');
      ++i;
      if (inArguments && !alreadyGcc) {
        for (char k : std::string_view("with ")) out(k);
      }
      inArguments = inArguments || alreadyGcc;
      continue;
    }
    if (inArguments) {
      if (c == '<' || c == '(' || c == '[') ++depth;
      if ((c == '>' || c == ')') && depth > 0) --depth;
      if (c == ']' && depth > 0) {
        --depth;
      } else if (c == ']') {
        inArguments = false;
      }
      if (c == ',' && depth == 0) {
        out(';');
        ++i;
        continue;
      }
    }
    if (c == '>' && i + 1 < text.size() && text[i + 1] == '>') {
      // Two closing angle brackets of templates; GCC keeps a blank between them.
      out('>');
      out(' ');
      ++i;
      continue;
    }
    if (identifierChar(c) && (i == 0 || !identifierChar(text[i - 1]))) {
      bool rewritten = false;
      for (const detail::IntegerSpelling& spelling : detail::kIntegerSpellings) {
        if (detail::wordAt(text, i, spelling.clang) &&
            !detail::gccIntegerAlready(text.substr(i + spelling.clang.size()))) {
          for (char k : spelling.gcc) out(k);
          i += spelling.clang.size();
          rewritten = true;
          break;
        }
      }
      if (rewritten) continue;
      if (rest.starts_with("std::") && (i < 2 || text.substr(i - 2, 2) != "::")) {
        for (std::string_view type : detail::kCxx11Types) {
          if (rest.substr(5).starts_with(type)) {
            for (char k : std::string_view("std::__cxx11::")) out(k);
            i += 5;
            break;
          }
        }
      }
      // Copy the whole word, so that no rule matches inside it.
      while (i < text.size() && identifierChar(text[i])) out(text[i++]);
      continue;
    }
    out(c);
    ++i;
  }
}

// `text`, a function signature or a type name as clang or GCC prints it, in GCC's spelling.
inline std::string gccSpelling(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 16);
  gccSpellingOut(text, [&out](char c) { out += c; });
  return out;
}

// The seed of a table keyed by a type that `keySeedFunction` (the __PRETTY_FUNCTION__ of
// Core::keySeed<Key>()) names. It hashes the text GCC gives that function, rebuilt from the
// type's name in GCC's spelling, so that the seed, and so every table's layout, iteration order
// and dump, is the same with every compiler.
constexpr uint32_t keySeedOf(std::string_view keySeedFunction) {
  constexpr std::string_view kHead = "consteval uint32_t Core::keySeed() [with Key = ";
  constexpr std::string_view kTail = "; uint32_t = unsigned int]";
  // GCC: "... [with Key = NAME; uint32_t = unsigned int]"; clang: "... [Key = NAME]".
  size_t begin = keySeedFunction.find("Key = ");
  if (begin == std::string_view::npos) return seedOf(keySeedFunction);
  begin += 6;
  size_t end = begin;
  int depth = 0;
  for (; end < keySeedFunction.size(); ++end) {
    const char c = keySeedFunction[end];
    if (c == '<' || c == '(' || c == '[') ++depth;
    if ((c == '>' || c == ')') && depth > 0) --depth;
    if (c == ']' && depth-- == 0) break;
    if (c == ';' && depth == 0) break;
  }
  const std::string_view name = keySeedFunction.substr(begin, end - begin);
  size_t size = kHead.size() + kTail.size();
  gccSpellingOut(name, [&size](char) { ++size; });
  // seedOf() of the rebuilt text, without building it.
  StringHash h(size, kTypeNameSeed);
  const auto add = [&h](char c) { h.add(c); };
  for (char c : kHead) add(c);
  gccSpellingOut(name, add);
  for (char c : kTail) add(c);
  return h.value();
}

}  // namespace Core
