// The mapping interface: binds places in a backing file to parameters.
//
// A parser describes the file it walks as nested sections: a root section, sections inside it,
// lists and scalars. The names of the entered sections form a mapping path (Root{Section}{Key});
// the parameter whose `mount` option equals the path (below the group handed to the root
// section) becomes current, and its status decides the mode:
//
//   status                consuming  producing  copy-through
//   PARAMSTATUS_DEFINED   1          0          on   (the file's value is read into the tree)
//   PARAMSTATUS_LOADED    0          0          on   (the file is copied as it is)
//   PARAMSTATUS_UPDATED   0          1          off  (the parser writes the tree's value)
//   PARAMSTATUS_STORED    0          0          off  (the old value in the file is dropped)
//
// Inside a current parameter, sections, lists and scalars walk its value (a hash, a list, a
// custom scalar). With no parameter current the interface consumes and copy-through is on.
// Enter and leave calls must pair up; misuse is fatal.
#pragma once

// Called by mif_probeRootSection / mif_probeSection for a parameter changed by a client.
using MappingCallback = void (*)(void* argument);

// Resets the state (start-up). Returns 0.
int mif_init();
// Drops every context after a failed parse.
void mif_reset();

// Root section `name`; mounts are searched below the group at `group_path` (null: the whole
// tree). At root level only.
int mif_enterRootSection(const char* name, const char* group_path);
int mif_leaveRootSection();
// Enters and leaves the root section at once; when it maps a parameter changed by a client, runs
// `callback(argument)` afterwards. While consuming, at root level only.
int mif_probeRootSection(const char* name, const char* group_path, MappingCallback callback,
                         void* argument);

int mif_enterSection(const char* name);
int mif_leaveSection();
// Enters and leaves section `name` at once; when it maps a parameter changed by a client, runs
// `callback(argument)` afterwards, so that the parser can write a value the file lacks. A
// parameter whose `type` option says "nosync" is instead marked loaded with its setters
// pending. Does nothing (0) while a parameter is current.
int mif_probeSection(const char* name, MappingCallback callback, void* argument);
// As mif_probeSection, for an entry whose key a file should hold once: probing the key of a value
// written in this run marks the input malformed (a repeated key; see parser_lastInputMalformed).
int mif_probeKey(const char* name, MappingCallback callback, void* argument);

// Producing, over the current hash:
//   mif_enterSectionNext(&name);
//   while (!mif_endOfSections()) { mif_enterSection(name); ...; mif_leaveSection();
//                                  mif_enterSectionNext(&name); }
// `*name` points at the key, owned by the hash.
int mif_enterSectionNext(const char** name);
int mif_endOfSections();

// A scalar of the named custom type ("string", "ip", "ipaddr", ...).
int mif_enterScalar(const char* type_name);
int mif_leaveScalar();

// Consuming: the current value becomes an empty list.
int mif_indicateList();
// Consuming: appends a new element and enters it. Producing: enters the element the iterator
// is at:
//   mif_listSeekNext();
//   while (!mif_endOfList()) { mif_enterList(); ...; mif_leaveList(); mif_listSeekNext(); }
int mif_enterList();
int mif_listSeekNext();
int mif_endOfList();
int mif_leaveList();

// Tells the database that the current parameter's value was written to the file.
int mif_notifyStored();

// Values of the current scalar. The set functions act only while consuming (0 otherwise, -1 when
// the value refuses the text); the get functions only while producing.
int dif_scalarSetString(const char* text);
const char* dif_scalarGetString();
int dif_scalarSetInt(int value);
int dif_scalarGetInt();
// Sets the current custom scalar from its text form; `quote` is kept with the value.
int dif_customScalarSetFromString(const char* text, int quote);
// The text form of the current custom scalar, newly allocated (free it), and the quote kept with
// it in `*quote`. Null when there is no value.
char* dif_customScalarGetAsString(char* quote);
