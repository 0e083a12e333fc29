// Reading a secret without it ever appearing on the command line: from
// standard input when that is a pipe or file, else from the terminal with
// echo turned off.
#pragma once

#include <optional>
#include <string>

// None, with `error` set, when nothing could be read or the two typed
// entries differ. One trailing line end of piped input is dropped.
std::optional<std::string> readSecret(const std::string& prompt, std::string& error);
