// The Camsettings parser ("Camsettingsparser"): camera settings files of "[section]" headers,
// each followed by "TYPE KEY VALUE" lines. The file must begin with a header, and nothing may
// follow VALUE on its line. A value is bound to a parameter by `mount` = Camsettings{section}{KEY}
// and becomes a scalar of the line's TYPE ("int", "ip", "yes_no", ...). These are also the
// parameter list files of the master configuration's `paramfile`.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int camsettingsparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int camsettingsparser_parse(Token* token, const char* group_path);
