// The Standard2 parser ("Standard2parser"): files of "key = value" (or "key value") lines,
// optionally under "[section]" headers. A value is bound to a parameter by `mount` =
// Standard2{section}{key}, with the section "Root" for keys before the first header; values are
// "string" scalars, written bare or double-quoted. A rewritten "key value" line becomes
// "key = value".
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int standard2parser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int standard2parser_parse(Token* token, const char* group_path);
