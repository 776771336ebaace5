// The ISP parser ("ISPparser"): the dial-up provider file. A first line "using = NAME", then one
// block per provider: a "[name]" header and fourteen "KEY = value" lines in a fixed reading order.
// Mapping paths: ISP{using}, ISP{isps}{name}{ISPNAME} (the header's name), ISP{isps}{name}{KEY};
// a parameter may also hold a whole block (ISP{isps}{name}), the list (ISP{isps}) or the file
// (ISP). All values are "string" scalars, written as they are. Blocks are written in another key
// order than the reader requires; both orders are kept as the file's readers expect them.
//
// The parser is not among the six registered at start; its registration function is for
// configurations (and tests) that register it themselves.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int ispparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int ispparser_parse(Token* token, const char* group_path);
