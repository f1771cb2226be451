#include "platform/Brim/DumpContext.h"

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(DumpContext, WritesIntoAStringOrAFile) {
  std::string text = "> ";
  Brim::DumpContext ctx(text);
  ctx.printf("%s %u\t%.3f\n", "paths", 42u, 1.5);
  const std::string wide(300, 'x');  // longer than the first formatting attempt
  ctx.printf("[%s]", wide.c_str());
  ctx.write("%d stays as is");
  ctx.printf("%s", "");
  EXPECT_EQ(text, "> paths 42\t1.500\n[" + wide + "]%d stays as is");
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
