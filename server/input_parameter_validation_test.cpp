#include "server/input_parameter_validation.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

TEST(NameCheck, AcceptsOnlyItsCharacters) {
  // text, valid as a template name, valid as a group path
  const std::tuple<std::string, int, int> cases[] = {{"event_rule-1", 1, 1},
                                                     {"root.Network", 0, 1},
                                                     {"", 0, 0},
                                                     {std::string(255, 'a'), 1, 1},
                                                     {std::string(256, 'a'), 0, 0},
                                                     {"a/b", 0, 0},
                                                     {"a b", 0, 0},
                                                     {"\xC3\xA9t\xC3\xA9", 0, 0}};
  for (const auto& [text, template_ok, group_ok] : cases) {
    EXPECT_EQ(validateTemplateName(text), template_ok) << text;
    EXPECT_EQ(validateGroupPath(text), group_ok) << text;
  }
}

TEST(ReadFilePath, AllowsOnlyConfFilesInTheThreeDirectories) {
  const std::string dir = "/etc/dynamic/param/";
  const std::pair<std::string, int> cases[] = {{"/usr/etc/param/a.b-c_d.conf", 1},
                                               {"/etc/tessard/portmanager/ports.conf", 1},
                                               {dir + ".conf", 0},
                                               {dir + "a/b.conf", 0},
                                               {dir + "x.cfg", 0},
                                               {dir + "conf", 0},
                                               {dir + std::string(4071, 'a') + ".conf", 1},
                                               {dir + std::string(4072, 'a') + ".conf", 0}};
  for (const auto& [path, valid] : cases) {
    EXPECT_EQ(validateReadGroupFilePath(path), valid) << path.substr(0, 40);
  }
}

}  // namespace
