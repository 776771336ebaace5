// Setters: how a synchronisation tells the rest of the device that parameters changed: the
// parameter's D-Bus message (option "dbus"), its setter command ("setter") and signals to the
// processes named by "daemon" (with "signal"); plus the group messages "dbusgroupadd" and
// "dbusgroupdel".
//
// A synchronisation that runs setters keeps two lists: the setter commands already run and the
// signals already sent to each process; each command runs and each process gets each signal at
// most once per synchronisation. The database empties them (update_clearRunSetters,
// update_clearSignalledProcesses) when it starts up and at the end of such a synchronisation.
#pragma once

struct Group;
struct Param;

// The setter run of one parameter, called by the setter pass of a synchronisation. mode is the
// synchronisation mode (0 full, 1 signal only, 2 write only); with blockDbus the parameter's
// D-Bus message is held back (and stays due while dbusAtStart is set); removedGroup is the
// owning group's removed flag. Clears setterPending. Setter commands are started detached
// through the shell with one environment variable per entry of the updated-parameter list;
// none run in upgrade mode.
void update_runSetter(Param* param, int mode, int blockDbus, int removedGroup);

// Fills the template with the parameter's value ($VALUE, quoted for single quotes), path ($NAME),
// group number ($GROUPNUM) and group name ($GROUP) and sends it. Nothing is sent in upgrade mode
// or when the value has no text. Failures are logged, a password-typed value masked.
void map_sendParamDbusMessage(const char* dbusTemplate, Param* param);

// Fills a group template ($NAME the group's path, $GROUPNUM, $GROUP its name) and sends it, also
// in upgrade mode. The caller leaves it out for removal or creation reasons 9 and 12.
void map_sendGroupDbusMessage(const char* dbusTemplate, Group* group);

// Signals every process whose program name (the first word of its command line after the last
// "/") is one of the comma-separated daemonList, with the matching entry of the comma-separated
// signalList (numbers, USR1, USR2, HUP, IO; a name without an entry takes the one before it).
// A process gets each signal number at most once per synchronisation. An entry that is none of
// these words sends nothing to its name.
void update_sendSignal(const char* daemonList, const char* signalList);

// New malloc'd text: text with every non-overlapping occurrence of pattern (scanned left to
// right) replaced by replacement; a copy of text for an empty pattern. Fatal when memory runs out.
char* map_replaceAll(const char* text, const char* pattern, const char* replacement);

// Forget the setter commands run / the signals sent in this synchronisation.
void update_clearRunSetters();
void update_clearSignalledProcesses();
