// CMD expansion: the exact text for the shell; an area too small at any step refused and wiped.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "messenger/command_exec.h"
#include "scramble/scramble.h"

namespace {
std::string M(const std::string& clear) {  // the scrambled value with the "--10" marker
  char text[512];
  ZUSTRNG_EnMaxim2(text, clear.c_str(), kCommandPasswordKey);
  return "--" + std::string(text + 2);
}

TEST(ExpandCmd, ExactTextAndEveryAreaTooSmall) {
  // The command and the text handed to the shell, or null: refused.
  const std::pair<std::string, const char*> cases[] = {
      {"x\\", "x\\"},
      {"cat <<", "cat <<"},
      {"cat <<-E", "cat <<-E"},
      {"cat << \\E", "cat << \\E"},
      {"cat <<\"E\\$\"", "cat <<\"E\\$\""},
      {"x\n", "x\n"},
      {"$((1))$(x)${x}<<<x", "$((1))$(x)${x}<<<x"},
      {"x --10abc", "x --10ABC"},
      {"x " + M("a b") + " " + M("A"), "x 'a b' A"},
      {"\"$(x) " + M("a$b") + "\"", "\"$(x) \"'a$b'\"\""},
      {"cat <<\\E\n" + M("a$b"), "cat <<\\E\na$b"},
      {"cat <<E\nx\n" + M("a$b"), "cat <<E\nx\na\\$b"},
      {"\"" + M("a$b"), "\"\"'a$b'\""},
      {"'" + M("a'b"), "'a'\\''b"},
      {"\\" + M("a b"), "\\a' b'"},
      {"\"x\\" + M("a$b"), "\"x\\\\\"'a$b'\""},
      {"cat <<E\nx\\" + M("a$b"), "cat <<E\nx\\\\a\\$b"},
      {"cat <<E\nx\nE", "cat <<E\nx\nE"},
      {"${x:-y} " + M("a b"), "${x:-y} 'a b'"},
      {"cat <<'E'\n" + M("a$b"), "cat <<'E'\na$b"},
      {"# " + M("a b"), "# a b"},
      {"$" + M("a b"), nullptr},
      {"$'x' " + M("a$b"), nullptr},
      {"cat <<-E\nx\n" + M("\ty"), nullptr},
      {"\\" + M("\ny"), nullptr},
      {"cat <<" + M("ab"), nullptr},
      {"cat << " + M("ab"), nullptr},
  };
  for (const auto& [command, wanted] : cases) {
    SCOPED_TRACE(command);
    std::vector<char> area(ExpandedCmdSize(command.size()), 'x');
    size_t len = 0;
    if (wanted == nullptr) {
      EXPECT_EQ(expandCmd(command, area.data(), area.size(), &len), -1);
      EXPECT_EQ(std::string(area.data(), area.size()), std::string(area.size(), '\0'));
      continue;
    }
    const std::string want = wanted;
    ASSERT_EQ(expandCmd(command, area.data(), want.size() + 1, &len), 0);
    EXPECT_EQ(std::string(area.data(), len + 1), want + '\0');
    for (size_t size = 0; size <= want.size(); ++size) {
      std::vector<char> small(size, 'x');
      EXPECT_EQ(expandCmd(command, small.data(), size, &len), -1) << size;
      EXPECT_EQ(std::string(small.begin(), small.end()), std::string(size, '\0')) << size;
    }
  }
}
}  // namespace
