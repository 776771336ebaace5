// The shell parser ("ShellParser"): files of shell variable assignments in the forms NAME=value,
// export NAME=value and setenv NAME value. All three bind the variable to the parameter with
// `mount` = Shell{NAME}; values are "string" scalars, read with shell quoting and written back
// between single quotes. Lines of any other form (commands, comments) are copied as they are.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int shellparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int shellparser_parse(Token* token, const char* group_path);
