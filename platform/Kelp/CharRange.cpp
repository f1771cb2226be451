#include "platform/Kelp/CharRange.h"

#include <fmt/format.h>

#include "platform/Kelp/Exception.h"

namespace Kelp {

char CharRange::next() {
  if (empty()) fail("unexpected end of text");
  return text_[pos_++];
}

bool CharRange::skipIf(std::string_view literal) {
  if (!startsWith(literal)) return false;
  pos_ += literal.size();
  return true;
}

void CharRange::needString(std::string_view literal) {
  if (!skipIf(literal)) fail(fmt::format("expected \"{}\"", quoteExcerpt(literal, literal.size())));
}

void CharRange::needString(std::initializer_list<std::string_view> pieces) {
  std::size_t at = pos_;
  for (std::string_view piece : pieces) {
    if (text_.substr(at, piece.size()) != piece) {
      std::string joined;
      for (std::string_view p : pieces) joined.append(p);
      fail(fmt::format("expected \"{}\"", quoteExcerpt(joined, joined.size())));
    }
    at += piece.size();
  }
  pos_ = at;
}

void CharRange::checkAllDataConsumed() const {
  if (!empty()) fail("unexpected trailing text");
}

void CharRange::fail(std::string_view what) const { failAt(pos_, what); }

void CharRange::failAt(std::size_t position, std::string_view what) const {
  std::string_view tail = position < text_.size() ? text_.substr(position) : std::string_view();
  throw RangeException(fmt::format("{} at offset {}, found \"{}\"", what, position, quoteExcerpt(tail)));
}

std::string quoteExcerpt(std::string_view text, std::size_t limit) {
  std::string out;
  std::size_t n = text.size() < limit ? text.size() : limit;
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '\\' && c != '"') {
      out.push_back(static_cast<char>(c));
    } else if (c == '\\' || c == '"') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else {
      out += fmt::format("\\x{:02x}", c);
    }
  }
  if (n < text.size()) out += "...";
  return out;
}

void rethrowFromDeserializeAttr(const RangeException& e, std::string_view attrName) {
  throw RangeException(fmt::format("{}: {}", attrName, e.what()));
}

void GenericIfImpl::throwUnhashableException(std::string_view typeName) {
  throw UnhashableException(fmt::format("unhashable type: '{}'", typeName));
}

void GenericIfImpl::throwTypeException(std::string_view expected, std::string_view actual) {
  throw TypeException(fmt::format("type error: expected '{}', got '{}'", expected, actual));
}

}  // namespace Kelp
