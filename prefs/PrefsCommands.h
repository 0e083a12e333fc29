// The commands of quillon-prefs, shared between the files that implement
// them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "SettingsFile.h"

namespace prefs {

using Arguments = std::vector<std::string>;

inline constexpr int kSucceeded = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsageError = 2;

struct Command {
  const char* name;
  const char* usage;    // arguments after the name
  const char* summary;  // one line for the list of commands
  const char* details;  // the rest of "help <command>"
  int (*run)(const Arguments& arguments);
};

const std::vector<Command>& commands();
const Command* findCommand(const std::string& name);

// "quillon-prefs: <message>" on standard error; returns kFailed.
int fail(const std::string& message);
// The message and the command's usage line on standard error; returns kUsageError.
int usageError(const Command& command, const std::string& message);

// Loads the settings file, lets `edit` change it and, when `edit` answers
// true, writes it back and tells the agent. Prints `edit`'s error and
// changes nothing when it answers false with an error.
int editSettings(const std::function<bool(SettingsFile& settings, std::string& error)>& edit);
// Loads the settings file for reading; none after printing the reason.
std::optional<SettingsFile> readSettings();

int runShow(const Arguments& arguments);
int runGet(const Arguments& arguments);
int runSet(const Arguments& arguments);
int runUnset(const Arguments& arguments);
int runWatchFolders(const Arguments& arguments);
int runPassword(const Arguments& arguments);
int runPhone(const Arguments& arguments);
int runCarriers(const Arguments& arguments);
int runCarrier(const Arguments& arguments);
int runTest(const Arguments& arguments);
int runPush(const Arguments& arguments);
// Sends a sample push to every target and prints each outcome.
int testPush();
int runHelp(const Arguments& arguments);

// Stores `identifier` as the text carrier after checking the carrier table.
bool setTextCarrier(SettingsFile& settings, const std::string& identifier, std::string& error);

}  // namespace prefs
