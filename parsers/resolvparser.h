// The resolver configuration parser ("Resolvparser"): the name server file of "nameserver ADDR",
// "search DOMAINS" and "domain DOMAINS" lines. Bound through the root section "Resolv" to the
// parameters Search ("string", from search or domain lines) and Nameserver0, Nameserver1, ...
// ("ipaddr", one per nameserver line in file order). An empty Search and a name server of
// 0.0.0.0 are written as no line; lines of other keywords are kept as they are.
#pragma once

#include "parsers/token.h"

// Registers the parser with the framework; the result of parser_registerParser.
int resolvparser_register();
// The parse function (see ParseFunction in parsers/parserframework.h).
int resolvparser_parse(Token* token, const char* group_path);
