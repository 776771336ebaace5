#include "parsers/parserframework.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/logcapture.h"
#include "tests/support/parsertest_support.h"

namespace {

using tessard::test::count_logged;
using tessard::test::read_text;
using tessard::test::write_file;

std::string lines_seen;  // "word@line " for every word passed

// Copies the text through word by word.
int copy_words(Token* token, const char* /*group_path*/) {
  lines_seen.clear();
  for (pif_skipWhitespace(); token->type != TOKEN_EOF; pif_skipWhitespace()) {
    pif_acceptToken(TOKEN_WORD, nullptr);
    lines_seen += std::string(token->text) + "@" + std::to_string(pif_getLineNumber()) + " ";
    pif_syncToken();
  }
  return 0;
}

std::string rewrite(ParseFunction parse, const std::string& input) {
  std::string output;
  EXPECT_EQ(parser_runOnText(parse, input, "t.conf", "root", 0, &output), 0);
  return output;
}

using FrameworkTest = tessard::test::ParserTest;

TEST_F(FrameworkTest, CopyThroughKeepsEveryByteAndCountsLines) {
  const char kText[] = "# c\0mment\n\n\tkey  v #not comment\r\n  #word\n\0last";
  const std::string input(kText, sizeof kText - 1);
  EXPECT_EQ(rewrite(copy_words, input), input);
  EXPECT_EQ(lines_seen, "key@3 v@3 #not@3 comment@3 #word@4 last@5 ");
  EXPECT_EQ(count_logged("Possible corruption in configuration file: t.conf"), 1);
}

// "[a" has no closing bracket: the section accept reads to the end before it fails.
int section_or_string(Token* token, const char* /*group_path*/) {
  for (pif_skipWhitespace(); token->type != TOKEN_EOF; pif_skipWhitespace()) {
    if (!pif_acceptToken(TOKEN_SECTION, nullptr)) pif_acceptToken(TOKEN_STRING, nullptr);
    pif_syncToken();
    pif_syncToken();  // a token is written once
  }
  return 0;
}

TEST_F(FrameworkTest, NothingLostAfterAFailedAcceptAndTokensWrittenOnce) {
  EXPECT_EQ(rewrite(section_or_string, "[a\nkey v\n[b]\n"), "[a\nkey v\n[b]\n");
}

// "|" for each word that ends its line, "." for one that has more after it. On line 3 the rest of
// the file is passed with copy-through off.
std::string blanks_seen;
int words_and_blanks(Token* token, const char* /*group_path*/) {
  blanks_seen.clear();
  for (pif_skipWhitespace(); token->type != TOKEN_EOF; pif_skipWhitespace()) {
    pif_acceptToken(TOKEN_WORD, nullptr);
    pif_syncToken();
    blanks_seen += pif_skipBlanks() ? "|" : ".";
    if (pif_getLineNumber() == 3) {
      pif_setSynchronization(0);
      pif_copyRest();  // dropped: copy-through is off
    }
  }
  return 0;
}

int keep_rest(Token* token, const char* /*group_path*/) {
  pif_acceptToken(TOKEN_WORD, nullptr);
  pif_syncToken();
  blanks_seen = std::string(pif_unreadInput());
  pif_copyRest();
  return token->type == TOKEN_EOF && pif_unreadInput().empty() ? 0 : 1;
}

TEST_F(FrameworkTest, BlanksStopAtTheLineEndAndTheRestIsCopied) {
  const char kText[] = "a b \t\nc\r\n\0d \ne f\ng";
  EXPECT_EQ(rewrite(words_and_blanks, std::string(kText, sizeof kText - 1)),
            std::string("a b \t\nc\r\n\0d ", 12));
  EXPECT_EQ(blanks_seen, ".|||");
  EXPECT_EQ(rewrite(keep_rest, "first  rest\n# of it"), "first  rest\n# of it");
  EXPECT_EQ(blanks_seen, "  rest\n# of it");
}

// Backing files, through the Standard parser.

// A parser named but not registered is tessard_check_test's.
TEST_F(FrameworkTest, NoParserOrNoFileFails) {
  EXPECT_EQ(invoke(param("q", file("a.conf"), "x", nullptr), 1), 1);
  EXPECT_EQ(count_logged("Specified parser (<unknown>) for"), 1);
  EXPECT_EQ(invoke(param("r", "", "x"), 1), 1);  // no "file" option
  EXPECT_NE(access(file("a.conf").c_str(), F_OK), 0);
}

TEST_F(FrameworkTest, MissingFileCreatedInBothModes) {
  Param* p = param("p", file("new.conf"), "Standard{Root}{p}");
  EXPECT_EQ(invoke(p, 1), 0);
  EXPECT_EQ(access(file("new.conf").c_str(), F_OK), 0);
  unlink(file("new.conf").c_str());
  tessard::test::client_sets(p, "v");
  EXPECT_EQ(invoke(p, 0), 0);
  EXPECT_EQ(read_text(file("new.conf")), "");  // a key the file lacks is not added
}

TEST_F(FrameworkTest, RewrittenOnEveryWriteRunKeepingModeAndOwner) {
  write_file(file("a.conf"), "k v\n");
  uid_t uid = geteuid() == 0 ? 1234 : geteuid();  // given away when the process may
  gid_t gid = geteuid() == 0 ? 4321 : getegid();
  ASSERT_EQ(chown(file("a.conf").c_str(), uid, gid) | chmod(file("a.conf").c_str(), 0640), 0);
  ASSERT_EQ(invoke(param("p", file("a.conf"), "Standard{Root}{k}"), 0), 0);
  struct stat after;
  ASSERT_EQ(stat(file("a.conf").c_str(), &after), 0);
  EXPECT_EQ(after.st_mode & 07777, 0640u);
  EXPECT_EQ(after.st_uid, uid);
  EXPECT_EQ(after.st_gid, gid);
  EXPECT_EQ(read_text(file("a.conf")), "k v\n");
  EXPECT_EQ(count_logged("Updated configuration file " + file("a.conf") + "."), 1);
}

// A text that fails to parse, or holds a NUL byte or an unclosed quote, is not rewritten: the
// change waits.
TEST_F(FrameworkTest, FileThatDoesNotParseCleanlyIsKept) {
  const char* const kCases[][3] = {{"Standard2parser", "Standard2{Root}{a}", "a = 1\nb = \"open\n"},
                                   {"Standardparser", "Standard{Root}{a}", "a 1\nb \"open\n"}};
  for (const auto& [parser, mount, text] : kCases) {
    write_file(file("a.conf"), text);
    Param* p = param("p", file("a.conf"), mount, parser);
    tessard::test::client_sets(p, "2");
    EXPECT_EQ(invoke(p, 0), 1) << parser;
    EXPECT_EQ(read_text(file("a.conf")), text);
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
      EXPECT_NE(entry.path().extension(), ".temp");
    }
  }
}

TEST_F(FrameworkTest, SymlinkTargetReplacedLinkKept) {
  write_file(file("real.conf"), "k old\n");
  ASSERT_EQ(symlink("real.conf", file("link.conf").c_str()), 0);
  Param* p = param("p", file("link.conf"), "Standard{Root}{k}");
  tessard::test::client_sets(p, "new");
  ASSERT_EQ(invoke(p, 0), 0);
  struct stat st;
  ASSERT_EQ(lstat(file("link.conf").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(read_text(file("real.conf")), "k new\n");
}

// A writer that waited for the lock works on the file the holder put in place, not on the old one
// the holder's rename took away, so neither change is lost.
TEST_F(FrameworkTest, WaitsForTheFileLockAndRewritesTheFileThenInPlace) {
  write_file(file("a.conf"), "k v\nj w\n");
  Param* p = param("p", file("a.conf"), "Standard{Root}{k}");
  ASSERT_EQ(invoke(p, 1), 0);
  tessard::test::client_sets(p, "new");
  int holder = open(file("a.conf").c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  pid_t child = fork();
  if (child == 0) {
    close(holder);  // the lock stays with the parent's descriptor
    _exit(invoke(p, 0) == 0 ? 0 : 7);
  }
  usleep(200 * 1000);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "written while another process held the lock";
  write_file(file("b.conf"), "k v\nj other\n");
  ASSERT_EQ(rename(file("b.conf").c_str(), file("a.conf").c_str()), 0);
  close(holder);
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(read_text(file("a.conf")), "k new\nj other\n");
}

}  // namespace
