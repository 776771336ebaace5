// The network parser ("NWparser"): a network settings file of one assignment per line, in the
// forms KEY=VALUE, export KEY=VALUE and setenv KEY VALUE, all bound to the parameter with `mount`
// = Network{KEY}. Only the keys of the network table are allowed (any other fails the parse);
// each has its scalar type ("ip", "eth_addr", "yes_no", "string").
//
// The parser is not among the six registered at start; its registration function is for
// configurations (and tests) that register it themselves.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int nwparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int nwparser_parse(Token* token, const char* group_path);
