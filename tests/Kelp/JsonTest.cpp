// JSON of registered value types, through the registry as generic code (the tool, the Python
// module) prints it, and read back with a JSON parser.
#include "platform/Kelp/Json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "platform/Kelp/Registry.h"
#include "tests/Support/JsonCheck.h"

namespace {

using nlohmann::json;

std::string jsonOfText(std::string_view typeName, std::string_view text) {
  const Kelp::TypeInfo* t = Kelp::findType(typeName);
  if (t == nullptr || t->strepToValue == nullptr) return "(no such type)";
  return t->valueToJson(t->strepToValue(text));
}

// Every registered value type, default-constructed: valid JSON, never {}, every number exact in a
// double, nothing a JSON reader refuses.
TEST(Json, EveryRegisteredValueType) {
  int walked = 0;
  for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
    if (t->kind != Kelp::TypeKind::value || t->defaultValue == nullptr) continue;
    ++walked;
    const std::string text = t->valueToJson(t->defaultValue());
    json j;
    ASSERT_NO_THROW(j = json::parse(text)) << t->name << ": " << text;
    EXPECT_NE(text, "{}") << t->name;
    EXPECT_EQ(testing_support::inexactInDouble(j), "") << t->name << ": " << text;
  }
  EXPECT_GT(walked, 40);
}

TEST(Json, FormsOfValues) {
  // type, long text form, JSON
  const std::tuple<const char*, const char*, const char*> rows[] = {
      // described by functions only: the text form, or a number where that is the natural form
      {"Netzo::IpGenPrefix", "10.0.0.0/8", R"("10.0.0.0/8")"},
      {"Netzo::Ip6Addr", "2001:db8::1", R"("2001:db8::1")"},
      {"Netzo::IpGenAddr", "192.0.2.1", R"("192.0.2.1")"},
      {"Routing::Bgp::AfiSafi", "(afiIpv4, safiUnicast)", "\"(afiIpv4, safiUnicast)\""},
      {"Netzo::AutonomousSystem", "4294967295", "4294967295"},
      {"Netzo::MplsLabel", "1048575", "1048575"},
      {"Routing::Rib::RouteKey", "Value('Routing::Rib::RouteKey', ** {'prefix': 2001:db8::/32})", R"("2001:db8::/32")"},
      // a route target's 64 bits as hex, whatever its size
      {"Routing::Bgp::RouteTarget", "144678142616797189", R"("0x0202000111700005")"},
      {"Routing::Bgp::RouteTarget", "5", R"("0x0000000000000005")"},
      // text: UTF-8 as it is, other bytes as lone surrogates, controls escaped
      {"Routing::Bgp::RfdPolicyAttachment",
       "Value('Routing::Bgp::RfdPolicyAttachment', ** {'policyName': 'p\xc3\xa4 \xf0\x9f\x98\x80\\x01\"\\\\', "
       "'logOnly': False})",
       "{\"policyName\":\"p\xc3\xa4 \xf0\x9f\x98\x80\\u0001\\\"\\\\\",\"logOnly\":false}"},
      {"Routing::Bgp::RfdPolicyAttachment",  // Latin-1, overlong, surrogate, above U+10FFFF, cut short
       "Value('Routing::Bgp::RfdPolicyAttachment', ** {'policyName': 'p\\xe4\\xc0\\xaf\\xed\\xa0\\x80"
       "\\xf4\\x90\\x80\\x80\\xe2\\x82', 'logOnly': False})",
       R"({"policyName":"p\udce4\udcc0\udcaf\udced\udca0\udc80\udcf4\udc90\udc80\udc80\udce2\udc82","logOnly":false})"},
  };
  for (const auto& [type, text, expected] : rows) EXPECT_EQ(jsonOfText(type, text), expected) << type << " " << text;
}

TEST(Json, IntegersBeyondADoubleAreStrings) {
  const std::pair<std::int64_t, const char*> signedRows[] = {
      {std::int64_t{1} << 53, "9007199254740992"},          {(std::int64_t{1} << 53) + 1, "\"9007199254740993\""},
      {-(std::int64_t{1} << 53), "-9007199254740992"},       {-(std::int64_t{1} << 53) - 1, "\"-9007199254740993\""},
      {std::numeric_limits<std::int64_t>::min(), "\"-9223372036854775808\""},
  };
  for (const auto& [v, expected] : signedRows) EXPECT_EQ(Kelp::valueToJson(v), expected) << v;
  EXPECT_EQ(Kelp::valueToJson(std::uint64_t{1} << 53), "9007199254740992");
  EXPECT_EQ(Kelp::valueToJson(UINT64_MAX), "\"18446744073709551615\"");
}

}  // namespace
