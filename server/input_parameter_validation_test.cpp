#include "server/input_parameter_validation.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using NameCase = std::tuple<std::string, int, int>;
class NameCheckTest : public ::testing::TestWithParam<NameCase> {};

// text, valid as a template name, valid as a group path
TEST_P(NameCheckTest, AcceptsOnlyItsCharacters) {
  auto [text, template_ok, group_ok] = GetParam();
  EXPECT_EQ(validateTemplateName(text), template_ok);
  EXPECT_EQ(validateGroupPath(text), group_ok);
}

INSTANTIATE_TEST_SUITE_P(Names, NameCheckTest,
                         ::testing::Values(NameCase{"event_rule-1", 1, 1},
                                           NameCase{"root.Network", 0, 1}, NameCase{"", 0, 0},
                                           NameCase{std::string(255, 'a'), 1, 1},
                                           NameCase{std::string(256, 'a'), 0, 0},
                                           NameCase{"a/b", 0, 0}, NameCase{"a b", 0, 0},
                                           NameCase{"\xC3\xA9t\xC3\xA9", 0, 0}));

using FileCase = std::pair<std::string, int>;
class ReadFilePathTest : public ::testing::TestWithParam<FileCase> {};

TEST_P(ReadFilePathTest, AllowsOnlyConfFilesInTheThreeDirectories) {
  EXPECT_EQ(validateReadGroupFilePath(GetParam().first), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(
    Files, ReadFilePathTest,
    ::testing::Values(FileCase{"/usr/etc/param/a.b-c_d.conf", 1},
                      FileCase{"/etc/tessard/portmanager/ports.conf", 1},
                      FileCase{"/etc/dynamic/param/.conf", 0},
                      FileCase{"/etc/dynamic/param/a/b.conf", 0},
                      FileCase{"/etc/dynamic/param/x.cfg", 0},
                      FileCase{"/etc/dynamic/param/conf", 0},
                      FileCase{"/etc/dynamic/param/" + std::string(4071, 'a') + ".conf", 1},
                      FileCase{"/etc/dynamic/param/" + std::string(4072, 'a') + ".conf", 0}));

}  // namespace
