// Syntax checks of names and paths that come from clients. Each returns 1 when valid and 0 when
// not, logging the refused text at info level.
#pragma once

#include <string_view>

// ASCII letters, digits, '-' and '_'; 1 to 255 characters.
int validateTemplateName(std::string_view name);
// ASCII letters, digits, '-', '.' and '_'; 1 to 255 characters.
int validateGroupPath(std::string_view path);
// A ".conf" file directly below /usr/etc/param/, /etc/dynamic/param/ or /etc/tessard/portmanager/.
int validateReadGroupFilePath(std::string_view path);
