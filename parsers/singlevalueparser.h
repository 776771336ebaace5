// The single-value parser ("SinglevalueParser"): a file that holds one value, the last of its
// lines that is neither blank nor a "#" comment line (the first line is read as it stands). The
// value is bound to the parameter with `mount` = Singlevalue{} and is a "string" scalar.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int singlevalueparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int singlevalueparser_parse(Token* token, const char* group_path);
