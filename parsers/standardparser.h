// The Standard parser ("Standardparser"): files of "key value" lines, optionally under
// "[section]" headers. A value is bound to a parameter by `mount` = Standard{section}{key}, with
// the section "Root" for keys before the first header; values are "string" scalars.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int standardparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int standardparser_parse(Token* token, const char* group_path);
