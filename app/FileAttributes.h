// Small file-attribute readers used by the controller. None reports errors:
// an unreadable item simply has no date, size or type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MVFileManager.h"
#include "MVPlistValue.h"

namespace quillon {

std::optional<MVPlistValue::Date> fileModificationDate(const std::string& path);
std::optional<std::uint64_t> fileSize(const std::string& path);
bool isDirectory(const std::string& path);
// The names in a folder, in listing order, without "." and ".."; empty when
// the folder cannot be read.
inline std::vector<std::string> folderEntries(const std::string& folder) {
  return MVFileManager::folderEntries(folder);
}
bool pathExists(const std::string& path);
// The classic four-character type code from the "user.com.apple.FinderInfo"
// extended attribute (bytes 0-3), where the file system carries one; 0 otherwise.
std::uint32_t fileTypeCode(const std::string& path);

std::string lastPathComponent(const std::string& path);
std::string deletingLastPathComponent(const std::string& path);
std::string pathExtension(const std::string& path);
std::string deletingPathExtension(const std::string& name);
std::string lowercase(std::string text);
bool hasPrefix(const std::string& text, const std::string& prefix);
bool hasSuffix(const std::string& text, const std::string& suffix);
bool contains(const std::string& text, const std::string& part);
std::string trimWhitespace(const std::string& text);
// Removes percent escapes ("%20" -> " "); nullopt when an escape is malformed
// or the result is not UTF-8, as the platform's decoder answers nothing then.
std::optional<std::string> removingPercentEncoding(const std::string& text);

}  // namespace quillon
