// What was already announced, and how busy a rendering application is.
#include <climits>
#include <sstream>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVTaskEx.h"

using namespace quillon;

bool AppController::isFileRepeated(const std::string& path) {
  auto recent = recentFiles();
  auto it = recent->find(path);
  if (it == recent->end()) return false;
  auto modified = fileModificationDate(path);
  return modified && *modified == it->second;
}

void AppController::recordRecentFile(const std::string& path) {
  auto modified = fileModificationDate(path);
  if (!modified) return;
  std::lock_guard<std::mutex> lock(mutex_);
  auto copy = std::make_shared<FolderMap>(*recentFiles_);
  (*copy)[path] = *modified;
  recentFiles_ = std::move(copy);
}

bool AppController::isFileRepeatedElseRecord(const std::string& path) {
  if (isFileRepeated(path)) return true;
  if (!path.empty()) recordRecentFile(path);
  return false;
}

void AppController::tidyRecentFiles() {
  // The stored date is the file's modification date, so an entry lives at
  // most 60 seconds past the file's last write: long enough to swallow the
  // late events of the same write, short enough to forget quickly.
  Date current = now();
  std::lock_guard<std::mutex> lock(mutex_);
  auto kept = std::make_shared<FolderMap>();
  for (const auto& [path, date] : *recentFiles_)
    if (date - current > -std::chrono::seconds(60)) (*kept)[path] = date;
  recentFiles_ = std::move(kept);
}

void AppController::addRecentBatch(const std::string& batchID) {
  auto last = lastNotificationShown();
  Date current = now();
  std::lock_guard<std::mutex> lock(mutex_);
  // After ten quiet minutes every earlier batch is forgotten.
  bool keep = !last || (*last - current > -std::chrono::seconds(600));
  auto batches = keep ? std::make_shared<std::vector<std::string>>(*recentBatches_)
                      : std::make_shared<std::vector<std::string>>();
  batches->push_back(batchID);
  recentBatches_ = std::move(batches);
}

int AppController::cpuUsageForApplication(const std::string& applicationName) {
  std::string listing = MVTaskEx::stringFromTask("/bin/ps", {"aux"}, 1.0);
  std::vector<std::string> lines;
  std::stringstream ss(listing);
  for (std::string line; std::getline(ss, line, '\n');) lines.push_back(line);
  if (lines.size() < 2) return 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (applicationName.empty() || lines[i].find(applicationName) == std::string::npos) continue;
    std::vector<std::string> fields;
    std::stringstream fs(lines[i]);
    for (std::string field; fs >> field;) fields.push_back(field);
    if (fields.size() < 4) continue;
    // The third column is the processor use; its fraction is cut off.
    std::string cpu = fields[2];
    auto dot = cpu.find('.');
    if (dot != std::string::npos) cpu = cpu.substr(0, dot);
    return static_cast<int>(MVPlistValue(cpu).integerValue());
  }
  return 0;
}

std::string AppController::stripNonNumerals(const std::string& text) {
  std::string digits;
  for (char c : text)
    if (c >= '0' && c <= '9') digits += c;
  return digits;
}

bool AppController::isNumeric(const std::string& text) {
  // True when printing the 32-bit integer reading gives back the same text.
  long long value = MVPlistValue(text).integerValue();
  int printed = static_cast<int>(static_cast<unsigned int>(value & 0xFFFFFFFFLL));
  return std::to_string(printed) == text;
}
