#include "SettingsStore.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "SessionBusNotices.h"

namespace {

// "<path>.damaged", or "<path>.damaged-2" and on when that is taken: an
// earlier copy is the user's too.
std::string freeBackupPath(const std::string& path) {
  std::string candidate = path + ".damaged";
  for (int n = 2; ::access(candidate.c_str(), F_OK) == 0; ++n) candidate = path + ".damaged-" + std::to_string(n);
  return candidate;
}

}  // namespace

SettingsStore::SettingsStore(std::string path) : path_(std::move(path)) {
  file_ = SettingsFile::load(path_, problem_);
}

const MVPlistValue& SettingsStore::operator[](const std::string& key) const {
  static const MVPlistValue nil;
  return file_ ? (*file_)[key] : nil;
}

SettingsStore::Outcome SettingsStore::edit(const std::function<bool(SettingsFile& settings)>& change) {
  Outcome outcome;
  std::string error;
  auto file = SettingsFile::load(path_, error);
  std::string keptAs;
  if (!file) {
    // The user has asked for a change, so a new file is started; the damaged
    // one stays beside it for whoever wants to look at it.
    keptAs = freeBackupPath(path_);
    if (std::rename(path_.c_str(), keptAs.c_str()) != 0) {
      outcome.message = error + "; it could not be set aside (" + std::strerror(errno) + "), so nothing was saved";
      return outcome;
    }
    file = SettingsFile::load(path_, error);
    if (!file) {
      outcome.message = error;
      return outcome;
    }
  }
  if (!change(*file)) return outcome;
  if (!file->save(error)) {
    outcome.message = error;
    return outcome;
  }
  file_ = std::move(file);
  problem_.clear();
  outcome.saved = true;
  if (!keptAs.empty()) outcome.message = "The unreadable settings file was kept as " + keptAs + ".";
  std::string busProblem;
  if (!postConfigUpdate(busProblem)) {
    if (!outcome.message.empty()) outcome.message += " ";
    outcome.message += "Saved, but " + busProblem + ": a running agent will not reload until told.";
  }
  return outcome;
}

SettingsStore::Outcome SettingsStore::changedElsewhere() {
  Outcome outcome;
  problem_.clear();
  file_ = SettingsFile::load(path_, problem_);
  outcome.saved = true;
  std::string busProblem;
  if (!postConfigUpdate(busProblem))
    outcome.message = "Saved, but " + busProblem + ": a running agent will not reload until told.";
  return outcome;
}
