#include "platform/Kelp/TextForm.h"

#include <gtest/gtest.h>

#include <tuple>

#include "platform/Kelp/EnumType.h"
#include "tests/Support/ValueConformance.h"

namespace Kelp {
namespace {

using testing_support::rangeMessage;

TEST(TextForm, UnsignedWidthsAndLimits) {
  const std::tuple<const char*, std::uint64_t, const char*> rows[] = {  // text, limit, error (nullptr: accepted)
      {"0", 255, nullptr}, {"255", 255, nullptr}, {"65535", 65535, nullptr}, {"18446744073709551615", ~0ull, nullptr},
      {"256", 255, "number above 255 at offset 0, found \"256\""},
      {"18446744073709551616", ~0ull, "number above 18446744073709551615 at offset 0, found \"18446744073709551616\""},
      {"", 255, "expected an unsigned number at offset 0, found \"\""},
      {"-1", 255, "expected an unsigned number at offset 0, found \"-1\""},
      {"+1", 255, "expected an unsigned number at offset 0, found \"+1\""},
      {"01", 255, "leading zero in a number at offset 0, found \"01\""},
      {"00", 255, "leading zero in a number at offset 0, found \"00\""},
  };
  for (const auto& [text, max, error] : rows) {
    CharRange r(text);
    std::uint64_t v = 0;
    EXPECT_EQ(rangeMessage([&] { v = parseUnsigned(r, max); }), error ? error : "(accepted)");
    if (error == nullptr) EXPECT_TRUE(v == std::stoull(text) && r.empty()) << text;
  }
  EXPECT_EQ(strepToValue<std::uint8_t>("200"), 200);
  EXPECT_THROW(strepToValue<std::uint16_t>("65536"), RangeException);
  EXPECT_EQ(valueToStrep(std::uint64_t{18446744073709551615ull}), "18446744073709551615");

  // dectol: a whole text, its errors naming the caller's type.
  EXPECT_EQ(dectol("18446744073709551615", "RouteTarget"), 18446744073709551615ull);
  EXPECT_EQ(dectol("00018446744073709551615", "RouteTarget"), 18446744073709551615ull);
  EXPECT_EQ(dectol("000", "RouteTarget"), 0u);
  for (const char* bad : {"", "12a", "-3", " 1", "18446744073709551616", "0a"}) {
    EXPECT_EQ(rangeMessage([&] { dectol(bad, "RouteTarget"); }),
              "RouteTarget: expected a decimal number of at most 64 bits, found \"" + std::string(bad) + "\"");
  }
}

// Any byte string survives print then parse (the configuration samples carry every byte through
// the value types), and the printed form stays one quoted token on one line.
TEST(TextForm, QuotedTexts) {
  String all;
  for (int c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
  const String text = valueToStrep(all);
  EXPECT_TRUE(text.front() == '\'' && text.back() == '\'' && text.find_first_of("\n\r") == String::npos) << text;
  EXPECT_EQ(strepToValue<String>(text), all);
  EXPECT_EQ(valueToStrep(String("it's")), "'it\\'s'");
  Bytes b = {0, 1, 'a', 0xff};
  EXPECT_EQ(valueToStrep(b), "b'\\x00\\x01a\\xff'");
  EXPECT_EQ(strepToValue<Bytes>(valueToStrep(b)), b);

  const std::pair<const char*, const char*> bad[] = {
      {"abc", "expected \"'\" at offset 0, found \"abc\""},
      {"'abc", "unterminated quoted text at offset 0, found \"'abc\""},
      {"'ab\\", "unterminated quoted text at offset 0, found \"'ab\\\\\""},
      {"'\\q'", "unknown escape at offset 1, found \"\\\\q'\""},
      {"'\\x4'", "bad \\x escape at offset 1, found \"\\\\x4'\""},
  };
  for (const auto& [in, message] : bad) EXPECT_EQ(rangeMessage([&] { strepToValue<String>(in); }), message) << in;
}

// Declared and described in one list: scoped and not, with and without initializers, in a class.
KELP_ENUM(enum class, Colour, std::uint8_t, "Test::Colour", named,
          red, green,      // 0 and 1; a comment, with a comma
          blue = 7,
          mixed = (4 | 8), // an initializer in parentheses, then a trailing comma
)
KELP_ENUM(enum, Mark, std::uint16_t, "Test::Mark", any, markA = 3, markB)
struct Palette {
  KELP_MEMBER_ENUM(enum class, Tone, std::uint32_t, "Test::Palette::Tone", named, warm = 2, cool)
};

template <typename E>
std::string entriesText() {
  std::string out(enumDescOf<E>.typeName);
  for (const EnumEntryInfo& e : enumDescOf<E>.entries) out += " " + std::string(e.name) + "=" + std::to_string(e.value);
  return out;
}

TEST(EnumType, NamesNumbersAndLookups) {
  EXPECT_EQ(entriesText<Colour>(), "Test::Colour red=0 green=1 blue=7 mixed=12");
  EXPECT_EQ(entriesText<Mark>(), "Test::Mark markA=3 markB=4");
  EXPECT_EQ(entriesText<Palette::Tone>(), "Test::Palette::Tone warm=2 cool=3");
  EXPECT_EQ(valueToStrep(static_cast<Colour>(9)), "9");  // a value without a name
  // Text gives a name, or the number of a named enumerator; nothing else.
  const std::pair<const char*, const char*> texts[] = {
      {"blue", "(accepted)"}, {"7", "(accepted)"},
      {"9", "no Test::Colour enumerator numbered 9 at offset 0, found \"9\""},
      {"256", "number above 255 at offset 0, found \"256\""},
      {"7a", "expected a Test::Colour enumerator at offset 0, found \"7a\""},
      {"purple", "expected a Test::Colour enumerator at offset 0, found \"purple\""},
      {"", "expected a Test::Colour enumerator at offset 0, found \"\""},
  };
  for (const auto& [text, message] : texts) {
    Colour parsed{};
    EXPECT_EQ(rangeMessage([&] { parsed = strepToValue<Colour>(text); }), message) << text;
    if (std::string_view(message) == "(accepted)") EXPECT_EQ(parsed, Colour::blue) << text;
  }
  EXPECT_EQ(strepToValue<Mark>("9"), Mark(9));  // EnumNumbers::any
  EXPECT_EQ(ColourInstance(7u)->name, "blue");
  EXPECT_EQ(Palette::ToneInstance(String("cool"))->value, 3u);
  EXPECT_TRUE(ColourInstance(3u) == nullptr && ColourInstance(String("Green")) == nullptr);
  Colour c{};
  CharRange r("red, rest");
  sequenceToValue(r, &c);
  EXPECT_EQ(c, Colour::red);
  EXPECT_EQ(r.rest(), ", rest");
}

}  // namespace
}  // namespace Kelp
