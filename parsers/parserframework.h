// The parser framework: the registry of backing-file parsers, and the machinery that runs one of
// them over a backing file with a character cursor, the token types of parsers/token.h and
// copy-through of unchanged text into the rewritten file.
//
// One file is processed at a time (the daemon is single-threaded); every pif_* service acts on
// the file being processed and may only be called from inside a parse function.
#pragma once

#include <string>
#include <string_view>

#include "parsers/token.h"

struct Param;

// A parser: gets the framework's current token and the path of the parameter's group (handed on
// to mif_enterRootSection). 0 on success, anything else is a failed parse.
using ParseFunction = int (*)(Token* token, const char* group_path);

struct ParserEntry {
  const char* name;
  ParseFunction parse;
};

constexpr int kMaxParsers = 6;

// Registers the token types and the six parsers of the system; a failed registration is fatal.
// Returns 0.
int parser_init();
// Appends a registry row; the seventh registration is fatal. Returns 0.
int parser_registerParser(ParseFunction parse, const char* name);
// The registered parser of that exact name, or null.
const ParserEntry* parser_find(const char* name);

// Reads (readonly 1) or rewrites (readonly 0) the backing file of `param` with the parser its
// `parser` option names; `group_path` goes to the parse function unchanged. A missing file is
// created; a symbolic link is followed and its target replaced. In write mode the file is
// rewritten through a temporary file beside it, keeping its mode and owner, on every run that
// parsed the file without failure and found it well formed (parser_lastInputMalformed).
// 0 on success, 1 on failure.
int parser_invokeForParam(Param* param, const char* group_path, int readonly);
// Whether the parser of `param` can write `text` so that it reads back as that value and changes
// nothing else: in a line-based format a line break would begin another entry, and a shell value
// reads back only up to kTokenValueMax characters. True for a parameter without a known parser.
bool parser_canHoldValue(Param* param, std::string_view text);

// Runs the parser registered as `parser_name` over `text` exactly as parser_invokeForParam runs
// it over a file's content: read mode (readonly 1) or write mode with the rewritten text stored
// in `*output`. For tests and fuzzing. 0 on success, 1 on failure (unknown parser included).
int parser_parseText(const char* parser_name, std::string_view text, const char* group_path,
                     int readonly, std::string* output);
// The common path of both: runs `parse` over `text`, the content of the file `file_name` (used
// in messages). Also for parse functions that are not registered (tests).
int parser_runOnText(ParseFunction parse, std::string_view text, const char* file_name,
                     const char* group_path, int readonly, std::string* output);

// Whether the input of the last run held a NUL byte, a quote that is never closed or a written
// value's key again (pif_noteProbed). Rewritten,
// such text could pair with quotes of a new value and change other entries, so
// parser_invokeForParam does not rewrite the file.
bool parser_lastInputMalformed();

// Services for parse functions.

// The mapping interface reports each value it wrote in this run, and each parameter whose key a
// parser probes with mif_probeKey; probing a written one again marks the input malformed.
void pif_noteStored(const Param* param);
void pif_noteProbed(const Param* param);

// Recognises a token of `type` at the cursor (with `expected` text where the type takes one).
// 1 and the token becomes current; 0 and the cursor stays, so that another type can be tried.
int pif_acceptToken(int type, const char* expected);
// Copies the current token into `token`; its text is copied into `token`'s own buffer (free it
// with token_clear).
void pif_getToken(Token* token);
// Writes the current token through its type's output function when copy-through is on. A token
// is written at most once.
void pif_syncToken();
// Passes white space and "#" comment lines (copied through); sets TOKEN_EOF at the end of file.
void pif_skipWhitespace();
// Skips white space; 1 when still on the same line and not at the end of the file.
int pif_moreOnLine();
// Passes white space up to the end of the current line (copied through like pif_skipWhitespace)
// without passing the line break. 1 when nothing else follows on the line (a line break or the
// end of the file is next), 0 when a token does. Lets a parser look for the rest of an entry
// without reading into the next line, whose comments a replaced value must not take along.
int pif_skipBlanks();
// The input not read yet, from the cursor to the end of the file, for a parser that must know
// what follows before it writes. Valid until the parse function returns.
std::string_view pif_unreadInput();
// Passes the rest of the input, copied through as it is while copy-through is on, and leaves the
// cursor at the end of the file (TOKEN_EOF): a parse that gives up keeps the text it did not read,
// except inside a value being replaced, whose old text is dropped as usual.
void pif_copyRest();
int pif_getLineNumber();
// Switches copy-through on (1) or off (0).
void pif_setSynchronization(int on);
// 1 while a file is being read without being rewritten.
int pif_isReadonly();
// Writes `text` as a token of `type` with the quote character `quote`. Copy-through must be off
// and the file open for writing.
void pif_outputToken(int type, const char* text, int quote);
// Writes `text` as it is. Copy-through must be off and the file open for writing.
void pif_outputString(const char* text);
// 1 when the output so far ends in "=" and a newline. Copy-through off, write mode.
int pif_checkUninitializedToken();
// Steps the output back one character; what follows is written over it.
void pif_unputChar();
