// The process name as the library reads it at load, for names a test chooses.
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/support.h"

namespace {

std::string LogOf(const std::string &name) {
  return tqtest::ReadFile("/tmp/tqredis/" + name + ".limitlog");
}

std::string EnterLine(const std::string &name) {
  const std::string log = LogOf(name);
  return log.substr(0, log.find('\n') + 1);
}

// The text of the line after the time stamp and its blank.
std::string AfterStamp(const std::string &line) {
  return line.size() > 25 ? line.substr(25) : "";
}

}  // namespace

TEST(ProcName, FifteenCharacterNameLosesOnlyTheNewline) {
  const std::string name = "abcdefghijklmno";
  const auto child = tqtest::RunProbe(name, {"state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("name=[abcdefghijklmno]\n"), std::string::npos) << child.out;
  EXPECT_TRUE(std::regex_match(
      AfterStamp(EnterLine(name)),
      std::regex(R"(^\[abcdefghijklmno\]<tqredis_initial, \d+>:>>>>abcdefghijklmno enter\r\n$)")))
      << EnterLine(name);
}

TEST(ProcName, LongerNameIsTheKernelsFifteenCharacters) {
  const auto child = tqtest::RunProbe("abcdefghijklmnopqrstuvwxyz", {"state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("name=[abcdefghijklmno]\n"), std::string::npos) << child.out;
}

TEST(ProcName, ShortNameIsKeptWhole) {
  const auto child = tqtest::RunProbe("p", {"state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("name=[p]\n"), std::string::npos) << child.out;
}

TEST(ProcName, BlanksAndShellCharactersAreKeptAsText) {
  const std::string name = "a b;$(x)|`y`&";
  const auto child = tqtest::RunProbe(name, {"state"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("name=[" + name + "]\n"), std::string::npos) << child.out;
  EXPECT_EQ(AfterStamp(EnterLine(name)).find("[" + name + "]<tqredis_initial, "), 0u)
      << EnterLine(name);
}

TEST(ProcName, FormatDirectivesInTheNameAreNeverInterpreted) {
  const std::string name = "%s%n%x%p%d";
  const auto child = tqtest::RunProbe(name, {"state", "cfg", "0", "2", "init", "0"});
  ASSERT_EQ(child.exit_code, 0);
  EXPECT_NE(child.out.find("name=[%s%n%x%p%d]\n"), std::string::npos) << child.out;
  // The console line of the set-type message carries the name verbatim.
  EXPECT_NE(child.out.find("[%s%n%x%p%d]<tqredis_init, "), std::string::npos)
      << child.out;
  EXPECT_NE(LogOf(name).find(">>>>%s%n%x%p%d enter\r\n"), std::string::npos);
}
