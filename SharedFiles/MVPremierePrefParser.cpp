#include "MVPremierePrefParser.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "MVFileManager.h"
#include "MVFormat.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPremiere.h"
#include "MVPropertyList.h"
#include "MVTaskEx.h"

namespace {

using Paths = MVPremierePrefParser::Paths;

// The version assumed when no installation can be found.
constexpr const char* kFallbackVersion = "7.0";

constexpr const char* kRecentDocumentsQuery =
    "./PremiereData[1]/Preferences[1]/Properties[1]/*[starts-with(name(),'BE.Prefs.MRU.Document.')]/text()";
// Whichever preview location comes first in the project, video or audio.
constexpr const char* kPreviewLocationQuery =
    "(./PremiereData[1]/ScratchDiskSettings[1]/VideoPreviewLocation"
    " | ./PremiereData[1]/ScratchDiskSettings[1]/AudioPreviewLocation)[1]/text()";

constexpr const char* kSameAsProject = "SameAsProject";
constexpr const char* kMyDocuments = "MyDocuments";

constexpr const char* kSpotlightTool = "/usr/bin/mdfind";
constexpr const char* kDefaultsTool = "/usr/bin/defaults";
constexpr double kSpotlightTimeout = 10.0;
constexpr double kDefaultsTimeout = 3.0;

std::mutex gSeamMutex;
std::optional<std::string> gFolderSearchTool;

// "5.0.0" is stored by Premiere under "5.0".
std::string preferenceVersion(const std::string& version) {
  if (version.size() >= 4 && version.compare(version.size() - 4, 4, ".0.0") == 0)
    return version.substr(0, version.size() - 2);
  return version;
}

// Where a version keeps projects, previews and auto-saves unless told otherwise.
std::string defaultFolder(const std::string& version) {
  return MVFormatString("%@/Adobe/Premiere Pro/%@", MVLocalPaths::documentDirectory(true), version);
}

std::string preferenceFilePath(const std::string& version) {
  return MVFormatString("%@/Adobe/Premiere Pro/%@/Adobe Premiere Pro Prefs", MVLocalPaths::appSupportDirectory(true),
                        version);
}

class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

std::optional<std::string> readWholeFile(const std::string& path, std::string* error) {
  ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    *error = MVFormatString("%@: %s", path, std::strerror(errno));
    return std::nullopt;
  }
  std::string bytes;
  char buffer[65536];
  for (;;) {
    ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
    if (got > 0) {
      bytes.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0) {
      return bytes;
    } else if (errno != EINTR) {
      *error = MVFormatString("%@: %s", path, std::strerror(errno));
      return std::nullopt;
    }
  }
}

// The folder that holds `path`: "/a/b.prproj" -> "/a", "/b" -> "/", "b" -> "".
std::string parentFolder(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool contains(const Paths& paths, const std::string& path) {
  return std::find(paths.begin(), paths.end(), path) != paths.end();
}

void addIfMissing(Paths& paths, const std::string& path) {
  if (!contains(paths, path)) paths.push_back(path);
}

bool endsWithIgnoringCase(const std::string& text, const std::string& suffix) {
  if (text.size() < suffix.size()) return false;
  return std::equal(suffix.begin(), suffix.end(), text.end() - static_cast<std::ptrdiff_t>(suffix.size()),
                    [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

bool isDirectory(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

Paths versionsToSearch(const MVPremierePrefParser::Version& version) {
  if (version) return {*version};
  Paths versions = MVPremiere::premiereVersions();
  if (versions.empty()) versions.push_back(kFallbackVersion);
  return versions;
}

// The preview scratch folders a project names; nothing when it cannot be read.
Paths previewFoldersOfProject(const std::string& projectPath, const std::string& versionDefault) {
  MVLog::appendLog("Loading Premiere project file data at %@...", projectPath);
  std::string error;
  std::optional<std::string> bytes = readWholeFile(projectPath, &error);
  if (!bytes) {
    MVLog::appendLog("Error loading Adobe Premiere project data: %@", error);
    return {};
  }
  MVLog::appendLog("Loading Premiere project XML information...");
  std::optional<MVXMLDocument> project = MVXMLDocument::documentWithData(*bytes, MVXMLDocument::kNone, &error);
  if (!project) {
    MVLog::appendLog("Error loading Adobe Premiere project XML: %@", error);
    return {};
  }
  MVLog::appendLog("Getting Premiere preview locations...");
  error.clear();
  std::vector<MVXMLNode> hits = project->nodesForXPath(kPreviewLocationQuery, &error);
  if (!error.empty()) {
    MVLog::appendLog("Error querying Adobe Premiere project XML: %@", error);
    return {};
  }
  Paths folders;
  for (const MVXMLNode& hit : hits) {
    std::string location = hit.stringValue();
    if (location == kSameAsProject)
      folders.push_back(parentFolder(projectPath));
    else if (location == kMyDocuments)
      folders.push_back(versionDefault);
    else
      folders.push_back(location);
  }
  return folders;
}

// Spotlight where it exists; on other systems the locate database, whose
// basename search ("-b") with "-i" finds the same names Spotlight would.
struct FolderSearch {
  std::string tool;
  MVTaskEx::Arguments arguments;
};

std::optional<FolderSearch> folderSearchFor(const std::string& name) {
  if (MVFileManager::fileExistsAtPath(kSpotlightTool))
    return FolderSearch{kSpotlightTool, {MVFormatString("name:\"%@\" kind:folder", name)}};
  std::string tool;
  {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    if (gFolderSearchTool) tool = *gFolderSearchTool;
  }
  if (tool.empty()) {
    for (const char* candidate : {"/usr/bin/plocate", "/usr/bin/locate"}) {
      if (MVTaskEx::isExecutable(candidate)) {
        tool = candidate;
        break;
      }
    }
  }
  if (tool.empty()) return std::nullopt;
  return FolderSearch{tool, {"-b", "-i", "--", name}};
}

// A preference domain as a property list, nil when it cannot be read.
MVPlistValue preferenceDomain(const std::string& domain) {
  if (MVTaskEx::isExecutable(kDefaultsTool)) {
    std::optional<MVTaskEx::Data> output =
        MVTaskEx::dataFromTask(kDefaultsTool, {"export", domain, "-"}, kDefaultsTimeout, true, false);
    if (!output || output->empty()) return {};
    return MVPropertyList::parse(std::string(output->begin(), output->end()));
  }
  return MVPropertyList::read(MVLocalPaths::prefsDirectory(true) + "/" + domain + ".plist");
}

}  // namespace

Paths MVPremierePrefParser::recentScratchDisks(const Version& version, bool fastQuery) {
  Paths versions = versionsToSearch(version);
  Paths result;
  for (const std::string& v : versions) {
    std::string versionDefault = defaultFolder(v);
    std::optional<MVXMLDocument> preferences = xmlDocumentForVersion(v);
    if (!preferences) {
      MVLog::appendLog("Error loading Adobe Premiere preference XML");
      result.push_back(versionDefault);
      continue;
    }
    MVLog::appendLog("Getting recent documents...");
    std::string error;
    std::vector<MVXMLNode> recent = preferences->nodesForXPath(kRecentDocumentsQuery, &error);
    if (!error.empty()) {
      MVLog::appendLog("Error loading recent docs: %@", error);
      result.push_back(versionDefault);
      continue;
    }
    MVLog::appendLog("Checking for recent scratch disks...");
    bool found = false;
    for (const MVXMLNode& entry : recent) {
      std::string projectPath = entry.stringValue();
      // Projects that were moved or deleted since Premiere listed them.
      if (!MVFileManager::fileExistsAtPath(projectPath)) continue;
      if (fastQuery) {
        // Fast mode trusts Premiere's default: previews beside the project.
        std::string folder = parentFolder(projectPath);
        if (!folder.empty()) addIfMissing(result, folder);
        found = true;
        continue;
      }
      for (const std::string& folder : previewFoldersOfProject(projectPath, versionDefault)) {
        if (folder.empty()) continue;
        addIfMissing(result, folder);
        found = true;
      }
    }
    if (!found) result.push_back(versionDefault);
  }
  if (result.empty())
    for (const std::string& v : versions) result.push_back(defaultFolder(v));
  return result;
}

Paths MVPremierePrefParser::recentPathsWithFolderName(const std::string& folderName, const Version& version,
                                                      bool fastQuery) {
  Paths paths;
  for (const std::string& scratch : recentScratchDisks(version, fastQuery))
    paths.push_back(MVAppendPathComponent(scratch, folderName));
  if (std::optional<Paths> found = spotlightSearchForFoldersWithName(folderName))
    for (const std::string& folder : *found) addIfMissing(paths, folder);
  return paths;
}

Paths MVPremierePrefParser::recentRenderPaths(const Version& version, bool fastQuery) {
  return recentPathsWithFolderName(kPreviewFolderName, version, fastQuery);
}

Paths MVPremierePrefParser::recentAutosavePaths(const Version& version, bool fastQuery) {
  return recentPathsWithFolderName(kAutosaveFolderName, version, fastQuery);
}

std::optional<MVXMLDocument> MVPremierePrefParser::xmlDocumentForVersion(const std::string& version) {
  std::string v = preferenceVersion(version);
  MVLog::appendLog("Loading preferences for Premiere %@...", v);
  std::string path = preferenceFilePath(v);
  if (!MVFileManager::fileExistsAtPath(path)) {
    // Newer versions keep one preference folder per user profile under Documents.
    std::string pattern = MVFormatString("%@/Adobe/Premiere Pro/%@/Profile-%@/Adobe Premiere Pro Prefs",
                                         MVLocalPaths::documentDirectory(true), v, MVLocalPaths::username());
    std::vector<std::string> matches = MVFileManager::filesMatchingWildcardPath(pattern);
    if (!matches.empty()) path = matches.front();
  }
  if (!MVFileManager::fileExistsAtPath(path)) {
    MVLog::appendLog("No preference file exists at %@.", path);
    return std::nullopt;
  }
  MVLog::appendLog("Loading preference file data...");
  std::string error;
  std::optional<std::string> bytes = readWholeFile(path, &error);
  if (!bytes) {
    MVLog::appendLog("Error loading Adobe Premiere preference data: %@", error);
    return std::nullopt;
  }
  MVLog::appendLog("Loading preference file XML information...");
  std::optional<MVXMLDocument> document = MVXMLDocument::documentWithData(*bytes, MVXMLDocument::kNone, &error);
  if (!document) {
    MVLog::appendLog("Error loading Adobe Premiere preference XML: %@", error);
    return std::nullopt;
  }
  return document;
}

std::optional<Paths> MVPremierePrefParser::spotlightSearchForFoldersWithName(const std::string& name) {
  std::optional<FolderSearch> search = folderSearchFor(name);
  if (!search) return std::nullopt;
  MVLog::appendLog("Running a Spotlight search for folders called %@...", name);
  std::optional<MVTaskEx::Data> output =
      MVTaskEx::dataFromTask(search->tool, search->arguments, kSpotlightTimeout, true, false);
  if (!output || output->empty()) return std::nullopt;

  std::string text(output->begin(), output->end());
  std::string suffix = "/" + name;
  Paths folders;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    // A search index lags behind the disk: keep only folders that still exist.
    if (endsWithIgnoringCase(line, suffix) && isDirectory(line)) folders.push_back(line);
  }
  return folders;
}

bool MVPremierePrefParser::setStringValue(const std::string& value, const std::string& forNodesWithXPath,
                                          const std::string& version) {
  std::string path = preferenceFilePath(preferenceVersion(version));
  std::string error;
  std::optional<std::string> bytes = readWholeFile(path, &error);
  if (!bytes) {
    MVLog::appendLog("Error loading Adobe Premiere preference data: %@", error);
    return false;
  }
  std::optional<MVXMLDocument> document = MVXMLDocument::documentWithData(*bytes, MVXMLDocument::kNone, &error);
  if (!document) {
    MVLog::appendLog("Error opening XML document: %@", error);
    return false;
  }
  error.clear();
  std::vector<MVXMLNode> hits = document->nodesForXPath(forNodesWithXPath, &error);
  if (!error.empty()) {
    MVLog::appendLog("Error querying XML document: %@", error);
    return false;
  }
  for (MVXMLNode& hit : hits) {
    if (!hit.setStringValue(value)) MVLog::appendLog("Error setting a value for %@ in %@", forNodesWithXPath, path);
  }
  if (!document->writeToFile(path, true)) {
    MVLog::appendLog("Error writing XML document: %@", path);
    return false;
  }
  return true;
}

std::optional<std::string> MVPremierePrefParser::mediaCacheValue(const std::string& key, const Version& version) {
  std::string domain = "com.adobe.Common";
  if (version && !version->empty()) {
    // The common preferences are shared per major version: 7.2.1 uses "7.0".
    std::string v = *version;
    if (std::size_t dot = v.find('.'); dot != std::string::npos) v = v.substr(0, dot) + ".0";
    domain = MVFormatString("com.adobe.Common %@", v);
  }
  MVPlistValue preferences = preferenceDomain(domain);  // kept alive while its strings are read
  const std::string* folder = preferences["Media Cache"][key].string();
  if (!folder) return std::nullopt;
  return *folder;
}

std::optional<std::string> MVPremierePrefParser::mediaCacheFolder(const Version& version) {
  return mediaCacheValue("FolderPath", version);
}

std::optional<std::string> MVPremierePrefParser::mediaDatabaseFolder(const Version& version) {
  return mediaCacheValue("DatabasePath", version);
}

Paths MVPremierePrefParser::mediaCacheFolders() {
  Paths folders;
  for (const std::string& v : versionsToSearch(std::nullopt))
    if (std::optional<std::string> folder = mediaCacheFolder(v)) addIfMissing(folders, *folder);
  return folders;
}

Paths MVPremierePrefParser::mediaDatabaseFolders() {
  Paths folders;
  for (const std::string& v : versionsToSearch(std::nullopt))
    if (std::optional<std::string> folder = mediaDatabaseFolder(v)) addIfMissing(folders, *folder);
  return folders;
}

void MVPremierePrefParser::setFolderSearchToolForTesting(const std::optional<std::string>& path) {
  std::lock_guard<std::mutex> lock(gSeamMutex);
  gFolderSearchTool = path;
}
