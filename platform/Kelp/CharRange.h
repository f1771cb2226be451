#pragma once
// A cursor over text being parsed.
//
// Parsers take a CharRange&, consume what they understand and leave the cursor after it; they do
// not demand that the text ends there. Whoever owns the whole text calls checkAllDataConsumed().
//
//   Kelp::CharRange r("Value('Routing::Bgp::MaxRoutes', ** {...})");
//   Routing::Bgp::MaxRoutes m(r);   // reads up to and including "})"
//   r.checkAllDataConsumed();       // throws if anything is left

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Kelp {

class CharRange {
 public:
  CharRange() = default;
  explicit CharRange(std::string_view text) : text_(text) {}
  explicit CharRange(const char* text) : text_(text) {}
  explicit CharRange(const std::string& text) : text_(text) {}
  // A range views its text: it must not outlive it, so a temporary string is refused.
  CharRange(std::string&&) = delete;

  bool empty() const { return pos_ >= text_.size(); }
  std::size_t position() const { return pos_; }
  std::size_t size() const { return text_.size() - pos_; }
  std::string_view rest() const { return text_.substr(pos_); }
  std::string_view text() const { return text_; }
  // The next character; '\0' at the end.
  char peek() const { return empty() ? '\0' : text_[pos_]; }
  char next();
  void advance(std::size_t n) { pos_ = n > size() ? text_.size() : pos_ + n; }
  bool startsWith(std::string_view literal) const { return rest().substr(0, literal.size()) == literal; }
  // Consumes `literal` if the text continues with it.
  bool skipIf(std::string_view literal);

  // Consumes exactly `literal` or throws RangeException naming it, the offset and what was found.
  void needString(std::string_view literal);
  // The same for a literal given in pieces (matched as if joined; the message shows it joined).
  void needString(std::initializer_list<std::string_view> pieces);
  // Throws RangeException when any character is left.
  void checkAllDataConsumed() const;

  // Throws RangeException "<what> at offset N, found "<excerpt>"".
  [[noreturn]] void fail(std::string_view what) const;
  [[noreturn]] void failAt(std::size_t position, std::string_view what) const;

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

// Quotes an excerpt of text for an error message: printable ASCII as is, other bytes as \xHH,
// at most `limit` bytes then "...".
std::string quoteExcerpt(std::string_view text, std::size_t limit = 24);

}  // namespace Kelp
