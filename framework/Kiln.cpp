#include "framework/Kiln.h"

namespace Kiln {

void throwStringTooLong() { throw RangeError("Kiln::String::bytes > maxLength() not allowed"); }

void throwArrayCountTooLarge() { throw RangeError("Kiln::Array::count > maxCount() not allowed"); }

void throwArrayIndexOutOfRange() { throw RangeError("Kiln::Array::index >= count() not allowed"); }

}  // namespace Kiln

namespace Kiln::detail {

void CompactText::assign(std::string_view text) {
  clear();
  if (text.size() <= kInPlace) {
    std::memcpy(bytes_, text.data(), text.size());
    bytes_[kInPlace] = char(kInPlace - text.size());
    return;
  }
  CORE_ASSERT(text.size() <= UINT32_MAX);
  char* copy = new char[text.size() + 1];
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  const auto size = static_cast<uint32_t>(text.size());
  std::memcpy(bytes_, &copy, sizeof copy);
  std::memcpy(bytes_ + sizeof copy, &size, sizeof size);
  bytes_[kInPlace] = char(kOnHeap);
}

void CompactText::release() { delete[] heapText(); }

std::string forAttr(std::string_view attr) {
  if (attr.empty()) return {};
  return " for attribute '" + std::string(attr) + "'";
}

bool Parser::consume(std::string_view token) {
  if (text_.substr(pos_, token.size()) != token) return false;
  pos_ += token.size();
  return true;
}

void Parser::expect(std::string_view token, std::string_view where) {
  if (consume(token)) return;
  std::string what = "expected '" + std::string(token) + "'";
  if (!where.empty()) what += (where.front() == ' ' ? "" : " ") + std::string(where);
  fail(what, pos_);
}

void Parser::expectAttr(std::string_view name) {
  if (!consume(name)) fail("expected attribute '" + std::string(name) + "'", pos_);
  expect("=", "after attribute '" + std::string(name) + "'");
}

std::string_view Parser::token() {
  size_t end = text_.find_first_of(",}]", pos_);
  if (end == std::string_view::npos) end = text_.size();
  std::string_view tok = text_.substr(pos_, end - pos_);
  pos_ = end;
  return tok;
}

std::string Parser::quoted(std::string_view attr) {
  size_t start = pos_;
  expect("\"", "to open the string" + forAttr(attr));
  std::string out;
  while (pos_ < text_.size()) {
    char c = text_[pos_++];
    if (c == '"') return out;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (pos_ == text_.size() || (text_[pos_] != '"' && text_[pos_] != '\\')) {
      fail("bad escape in string" + forAttr(attr), pos_ - 1);
    }
    out += text_[pos_++];
  }
  fail("unterminated string" + forAttr(attr), start);
}

void Parser::expectEnd() {
  if (pos_ != text_.size()) fail("unexpected text after the value", pos_);
}

void Parser::fail(std::string_view what, size_t offset, std::string_view cause) const {
  std::string message = std::string(what) + " at offset " + std::to_string(offset);
  if (!cause.empty()) message += ": " + std::string(cause);
  throw ParseError(message);
}

void printQuoted(std::ostream& os, std::string_view s) {
  os << '"';
  for (char c : s) {
    if (c == '"' || c == '\\') os << '\\';
    os << c;
  }
  os << '"';
}

}  // namespace Kiln::detail
