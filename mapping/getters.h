// Getters and value constraints: parameters whose value a command produces on demand (option
// "getter"), and integer constraints applied to values freshly loaded from their files (an
// "int:" part of the "type" option, or bounds fetched over D-Bus through "dbustype").
#pragma once

struct Param;

// Refreshes a getter parameter's value from the output of command (run through the shell),
// before the value is read. Does nothing in upgrade mode, for a null command or one beginning
// with "disabled", or when the getter already delivered once and the "type" option contains
// "const". A command that cannot be started leaves the value; a failing "printf"/"echo" command
// is tried three times and then leaves an empty value; any other failing command still provides
// its output.
void map_updateRunGetter(Param* param, const char* command);

// Sends the message text (dbus-send form) as a method call and returns the reply's first
// argument as text, or null after logging why. Free the result with dbus_send_free_string.
char* map_queryDbusString(const char* message);

// The constraint "int:maxlength=%i,min=%i,max=%i" from two integer texts (each read with "%i":
// decimal, 0x-hexadecimal or 0-octal), as a malloc'd text; null when either is null or not an
// integer.
char* map_buildIntConstraint(const char* minText, const char* maxText);

// The constraint step of the check pass, for a value just loaded from its backing file (status
// PARAMSTATUS_DEFINED with synced set): the constraint comes from the "int:" part of the "type"
// option or, without a "type" option and unless blockDbus, from the ",MIN:" and ",MAX:" queries
// of the "dbustype" option. A value out of range is corrected in memory only and logged.
void map_checkParamConstraint(Param* param, int blockDbus);
