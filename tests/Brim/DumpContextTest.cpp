#include "platform/Brim/DumpContext.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(DumpContext, WritesIntoAStringOrAFile) {
  std::string text = "> ";
  Brim::DumpContext ctx(text);
  ctx.printf("%s %u\t%.3f\n", "paths", 42u, 1.5);
  std::string expected = "> paths 42\t1.500\n";
  // Lines around the first formatting attempt's room (128 characters), and far beyond it.
  for (std::size_t n : {127u, 128u, 129u, 130u, 300u}) {
    const std::string row = std::string(n - 1, 'x') + "y";
    ctx.printf("%s", row.c_str());
    expected += row;
  }
  ctx.write("%d stays as is");
  ctx.printf("%s", "");
  EXPECT_EQ(text, expected + "%d stays as is");
  EXPECT_EQ(ctx.bytesWritten(), text.size() - 2);

  std::FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  Brim::DumpContext out(f);
  out.printf("Vrf Name : \t %s\n", "blue");
  out.write("end\n");
  EXPECT_EQ(out.bytesWritten(), 22u);
  std::rewind(f);
  char buf[64] = {};
  EXPECT_EQ(std::fread(buf, 1, sizeof buf - 1, f), 22u);
  EXPECT_STREQ(buf, "Vrf Name : \t blue\nend\n");
  std::fclose(f);
}

}  // namespace
