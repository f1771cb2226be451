#include "platform/Toggle/Toggle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>

#include <gtest/gtest.h>

namespace {

class ToggleFiles : public ::testing::Test {
 protected:
  // The toggle directory sits inside a directory of the test's own, so that a file beside it
  // (reachable only by climbing out with "..") exists and must still be ignored.
  void SetUp() override {
    char tmpl[] = "/tmp/bgpcommon-toggle-XXXXXX";
    base_ = mkdtemp(tmpl);
    dir_ = base_ + "/toggles";
    std::filesystem::create_directory(dir_);
    std::ofstream(base_ + "/Outside.json") << R"({"On": true})";
    setenv("BGPCOMMON_TOGGLE_DIR", dir_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("BGPCOMMON_TOGGLE_DIR");
    std::filesystem::remove_all(base_);
  }
  void write(const std::string& name, const std::string& text) { std::ofstream(dir_ + "/" + name) << text; }
  std::string base_, dir_;
};

TEST_F(ToggleFiles, StatesAndDefaults) {
  write("Ira.json", R"({"StaticRouteCommunities": false, "On": true, "Nested": {"enabled": false},
                        "Number": 0, "NestedBad": {"enabled": "yes"}})");
  const std::tuple<const char*, const char*, bool, bool> rows[] = {  // toggle, file, default, state
      {"StaticRouteCommunities", "Ira.json", true, false}, {"On", "Ira.json", false, true},
      {"Nested", "Ira.json", true, false},
      {"Number", "Ira.json", true, true},  // not a boolean: default
      {"NestedBad", "Ira.json", false, false}, {"Absent", "Ira.json", true, true}, {"Absent", "Ira.json", false, false},
      {"On", "Missing.json", false, false},  // absent file
      {"On", "../Outside.json", false, false},  // outside the directory
      {"On", "/etc/passwd", false, false},
  };
  for (const auto& [toggle, file, dflt, state] : rows) EXPECT_EQ(getToggleState(toggle, file, dflt), state) << file;
}

TEST_F(ToggleFiles, MalformedFilesGiveTheDefault) {
  for (const char* text : {"", "{", "[true]", "{\"On\": tru}", "\xff\xfe", "null", "{\"On\": true,}"}) {
    write("Bad.json", text);
    EXPECT_TRUE(getToggleState("On", "Bad.json", true)) << text;
    EXPECT_FALSE(getToggleState("On", "Bad.json", false)) << text;
  }
  std::filesystem::create_directory(dir_ + "/Dir.json");  // unreadable as a file
  // Neither a FIFO (which would block an ordinary open until a writer came; the alarm ends the
  // test if it does) nor a symbolic link, even to a good file, is read.
  write("Good.json", R"({"On": false})");
  ASSERT_EQ(mkfifo((dir_ + "/Fifo.json").c_str(), 0644), 0);
  std::filesystem::create_symlink(dir_ + "/Good.json", dir_ + "/Link.json");
  alarm(5);
  for (const char* file : {"Dir.json", "Fifo.json", "Link.json"}) EXPECT_TRUE(getToggleState("On", file, true)) << file;
  alarm(0);
  EXPECT_FALSE(getToggleState("On", "Good.json", true));
}

}  // namespace
