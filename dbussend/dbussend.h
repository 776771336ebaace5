// D-Bus sending library: a message described by one line of text, sent over sd-bus.
//
// The text has the form of a dbus-send command line, split into words by POSIX shell quoting
// rules (single quotes, double quotes with backslash escapes, backslash outside quotes):
//
//   [dbus-send] [--system|--session] [--dest=NAME] [--type=signal|--type=method_call]
//               [--print-reply] [--reply-timeout=MSEC] OBJECT_PATH INTERFACE.MEMBER [ARG...]
//
// An ARG is TYPE:VALUE with TYPE one of string, int16, uint16, int32, uint32, int64, uint64,
// double, byte, boolean, objpath; or variant:TYPE:VALUE, array:TYPE:V1,V2,... or
// dict:KTYPE:VTYPE:K1,V1,K2,V2,... (list items are separated by "," and empty items are
// skipped). The defaults are the system bus and a signal.
//
// The bus address comes from DBUS_SYSTEM_BUS_ADDRESS / DBUS_SESSION_BUS_ADDRESS (or the usual
// default socket). One connection per bus is kept open for the life of the process and opened
// again after it fails. Not thread-safe: the daemon is single-threaded.
#pragma once

// A parsed message, ready to be sent any number of times. Owned by the caller; release it with
// dbus_send_free.
struct DbusSendMessage;

// Parses text. Returns a new message, or nullptr with *error set to a heap text naming the bad
// word (error may be nullptr when the caller does not want it).
DbusSendMessage* dbus_send_from_string(const char* text, char** error);

// Sends the message. A signal, or a method call without --print-reply, is written out without
// waiting for an answer; a method call with --print-reply waits for the reply and fails on an
// error reply. Returns non-zero on success; 0 on failure with *error set to a heap text.
int dbus_send_send_message(const DbusSendMessage* message, char** error);

// Sends the message as a method call (whatever its --type) and waits for the reply. Returns
// non-zero with *reply set to a heap text of the reply's first argument (integers in decimal,
// booleans as true/false, strings as they are, a variant by its content, the empty text when the
// reply has no argument); 0 with *error set to a heap text on failure.
int dbus_send_send_message_get_string(const DbusSendMessage* message, char** error, char** reply);

// Frees a message; nullptr is ignored.
void dbus_send_free(DbusSendMessage* message);

// Frees an error or reply text handed out by this library; nullptr is ignored.
void dbus_send_free_string(char* text);
