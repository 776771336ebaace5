// Dynamic groups: groups created from templates and deleted at run time.
//
// All dynamic groups under one parent group P share a group file (<group dir>/p.conf, in the
// master configuration syntax) and a parameter file (<parameter dir>/p.conf, holding the values).
// Creation and deletion never touch these files: they write pending copies in the scratch
// directory (/tmp), and dyn_sync, called first by every map_sync, moves them into place.
#pragma once

// Start-up: keeps the template directories (primary, fallback) and the data directories for the
// life of the daemon, and makes the parameter directory, then the group directory (mode 0775).
// Returns -1 when the parameter directory is missing and cannot be made; otherwise the result of
// create_directory for the group directory (0, or 1 when it failed).
int dyn_init(const char* tmplDir, const char* tmplFallbackDir, const char* groupDir,
             const char* paramDir);

// The directory of the scratch and pending files ("/tmp" for the daemon), set at start-up.
void dyn_setScratchDir(const char* dir);

// Makes the directory PATH (mode 0775) if it does not exist. 0, or 1 (logged, with LABEL naming
// the directory's role) when it cannot be made or checked. An existing non-directory passes.
int create_directory(const char* path, const char* label);

// Looks up OPTION in the group template TEMPLATE_grp.conf (primary directory first): the first
// line holding the option name, an '=' behind it and a double-quoted text gives that text.
// Returns 2 when no group template exists; otherwise 0 with *value a malloc'd text (free() it),
// or null when no line sets the option.
int get_option_from_template(const char* tmpl, const char* option, char** value);

// Creates a dynamic group under PARENTPATH ("root...."; missing parents are made) from the
// templates TMPL_par.conf and TMPL_grp.conf, numbered NUMBER, or the lowest free number for -1.
// The group is named by the parent's first letter and the number (I0, I1 ... under
// root.Net.Interface), loaded into the database with its values read from the pending parameter
// file, and announced by its dbusgroupadd message unless MODE is 9 or 12.
// Returns the new group's name (malloc'd, free() it) or null. *status receives the result of the
// last database insertion: -1 tells "already exists" from other failures.
char* create_new_group(const char* parentPath, int number, const char* tmpl, int* status, int mode);

// Deletes the group at PATH from the database (deferred, reason MODE, or 10 below 9), its block
// from the parent's group file, its sections from the parent's parameter file, and every data
// file whose name begins with the group's prefix. 0, or -1 (root, unknown path, file failures).
int delete_group(const char* path, int mode);

// Installs the pending files of every parent group rewritten since the last synchronisation and
// synchronises those groups (mode 1: only the latter, files stay pending). 0, or -1 if a file
// could not be moved into place (its entry stays for the next synchronisation).
int dyn_sync(int mode);
