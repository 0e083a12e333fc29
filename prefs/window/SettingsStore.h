// SettingsStore: the settings file as the settings window edits it.
//
// Every change is made to the file as it is on disk at that moment (another
// program, quillon-prefs for one, may have changed it meanwhile), written
// whole and atomically in the form it had, and then the agent is told to
// reload. A file that cannot be read is left exactly as it is until the user
// changes a setting; then it is kept beside the new one under another name,
// never deleted.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "SettingsFile.h"

class SettingsStore {
 public:
  explicit SettingsStore(std::string path);

  const std::string& path() const { return path_; }
  // Why the file on disk could not be read; empty when it could.
  const std::string& problem() const { return problem_; }
  // The value as last read or written; nil for every key of a damaged file.
  const MVPlistValue& operator[](const std::string& key) const;

  struct Outcome {
    bool saved = false;
    std::string message;  // for the user: why nothing was saved, or what else happened
  };
  // `edit` answers false when it changed nothing; nothing is written then.
  Outcome edit(const std::function<bool(SettingsFile& settings)>& edit);
  // After another part of the program wrote the file: reads it again and
  // tells the agent.
  Outcome changedElsewhere();

 private:
  std::string path_;
  std::optional<SettingsFile> file_;
  std::string problem_;
};
