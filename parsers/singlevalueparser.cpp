#include "parsers/singlevalueparser.h"

#include <string_view>

#include "parsers/mappinginterface.h"
#include "parsers/parserframework.h"
#include "parsers/parserutil.h"

namespace {

// Writes the value (changed by a client) in place of the value line, without a line end: the old
// line's end is kept.
void write_value(void* /*argument*/) {
  write_section_value("", "string", TOKEN_LINE);
}

// True when the parse reads another line after the current one: something other than white space
// and "#" comment lines follows. Stops at the first such character, so the look-ahead costs no
// more than the white space that the parse passes next anyway.
bool another_line_follows(std::string_view rest) {
  bool line_start = false;
  for (size_t i = 0; i < rest.size(); ++i) {
    int c = static_cast<unsigned char>(rest[i]);
    if (c == '#' && line_start) {
      i = rest.find('\n', i);
      if (i == std::string_view::npos) {
        return false;
      }
      continue;
    }
    if (c != 0 && !token_isspace(c)) {
      return true;
    }
    line_start = c == '\n';
  }
  return false;
}

// The line just read (its token still to be written through) is the value.
void map_value(const char* text) {
  mif_probeSection("", write_value, nullptr);
  mif_enterSection("");
  mif_enterScalar("string");
  dif_customScalarSetFromString(text, 0);
  mif_leaveScalar();
  pif_syncToken();
  mif_leaveSection();
}

}  // namespace

// Every line would be read into the same parameter, the last one winning; only that last line is
// bound, so that a new value replaces it and the lines before it are kept. The first line is read
// without skipping white space or a comment first; a file without a line gives the empty value.
int singlevalueparser_parse(Token* token, const char* group_path) {
  mif_enterRootSection("Singlevalue", group_path);
  while (token->type != TOKEN_EOF) {
    bool read = pif_acceptToken(TOKEN_LINE, nullptr) != 0;
    if (another_line_follows(pif_unreadInput())) {
      pif_syncToken();
    } else {
      map_value(read ? token->text : "");
    }
    pif_skipWhitespace();
  }
  mif_leaveRootSection();
  return 0;
}

int singlevalueparser_register() {
  return parser_registerParser(singlevalueparser_parse, "SinglevalueParser");
}
