#include "MVPremiere.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "MVFileManager.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVWorkspace.h"
#include "MVXMLParser.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kPremiereBundleID = "com.adobe.AdobePremierePro";
constexpr const char* kPremiereNamePrefix = "Adobe Premiere ";
constexpr const char* kProductVersionQuery = "./Configuration/VariableForExMan/Data[@key='ProductVersion']";

bool beginsWithIgnoringCase(const std::string& text, const std::string& prefix) {
  if (text.size() < prefix.size()) return false;
  return std::equal(prefix.begin(), prefix.end(), text.begin(), [](unsigned char a, unsigned char b) {
    return std::tolower(a) == std::tolower(b);
  });
}

// Entry names of `folder` that begin with `prefix`, sorted so that the
// version lists come out the same on every run.
std::vector<std::string> entriesBeginningWith(const std::string& folder, const std::string& prefix) {
  std::vector<std::string> names;
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return names;
  for (const auto& entry : it) {
    std::string name = entry.path().filename().string();
    if (beginsWithIgnoringCase(name, prefix)) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool isDirectory(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

MVPlistValue bundleInfo(const std::string& bundlePath) {
  return MVPropertyList::read(bundlePath + "/Contents/Info.plist");
}

std::string stringOrEmpty(const MVPlistValue& value) {
  const std::string* text = value.string();
  return text ? *text : std::string();
}

// The folder that holds the installed application's own folder, or "".
std::string installedApplicationParentFolder() {
  std::string app = MVWorkspace::pathForAppWithBundleID(kPremiereBundleID);
  if (app.empty()) return {};
  fs::path bundle = fs::path(app);
  if (!bundle.has_filename()) bundle = bundle.parent_path();  // "/x/App.app/"
  return bundle.parent_path().parent_path().string();
}

void appendMissing(MVPremiere::Versions& into, const MVPremiere::Versions& more) {
  for (const std::string& version : more)
    if (std::find(into.begin(), into.end(), version) == into.end()) into.push_back(version);
}

// The installed application's folder first, then the applications folder;
// versions already found there are not repeated.
template <typename PerFolder>
MVPremiere::Versions mergedVersions(const PerFolder& perFolder) {
  MVPremiere::Versions versions;
  if (std::string folder = installedApplicationParentFolder(); !folder.empty()) versions = perFolder(folder);
  appendMissing(versions, perFolder(MVLocalPaths::applicationDirectory(false)));
  return versions;
}

}  // namespace

MVPremiere::Versions MVPremiere::premiereVersions() { return versionsForAppName(kPremiereNamePrefix); }

MVPremiere::Versions MVPremiere::versionsForAppName(const std::string& name) {
  return mergedVersions([&](const std::string& folder) { return versionsForAppName(name, folder); });
}

MVPremiere::Versions MVPremiere::versionsForAppName(const std::string& name, const std::string& inFolder) {
  Versions versions;
  for (const std::string& entry : entriesBeginningWith(inFolder, name)) {
    std::string installation = inFolder + "/" + entry;
    std::string bundle = installation + "/" + entry + ".app";
    if (isDirectory(bundle)) {
      MVPlistValue info = bundleInfo(bundle);
      std::string version = stringOrEmpty(info["CFBundleVersionString"]);
      if (version.empty()) version = stringOrEmpty(info["CFBundleVersion"]);
      if (!version.empty()) versions.push_back(version);
      continue;
    }
    if (std::string version = productVersionInInstallation(installation); !version.empty())
      versions.push_back(version);
  }
  return versions;
}

MVPremiere::Versions MVPremiere::suiteVersions() {
  return mergedVersions([](const std::string& folder) { return suiteVersionsInFolder(folder); });
}

MVPremiere::Versions MVPremiere::suiteVersionsInFolder(const std::string& folder) {
  Versions versions;
  for (const std::string& entry : entriesBeginningWith(folder, kPremiereNamePrefix)) {
    std::string installation = folder + "/" + entry;
    std::string version = productVersionInInstallation(installation);
    if (version.empty()) {
      std::vector<std::string> apps =
          MVFileManager::filesMatchingWildcardPath(installation + "/Adobe Premiere Pro *.app");
      if (apps.empty()) continue;
      version = stringOrEmpty(bundleInfo(apps.front())["CFBundleVersion"]);
      // Suites are known by "major.minor"; "5.5.2" belongs to the 5.5 suite.
      std::size_t first = version.find('.');
      std::size_t second = first == std::string::npos ? first : version.find('.', first + 1);
      if (second != std::string::npos) version.resize(second);
    }
    if (!version.empty()) versions.push_back(version);
  }
  return versions;
}

std::string MVPremiere::productVersionInInstallation(const std::string& installationFolder) {
  std::string path = installationFolder + "/Configuration/XManConfig.xml";
  if (!MVFileManager::fileExistsAtPath(path)) return {};
  std::string error;
  std::optional<MVXMLDocument> document = MVXMLDocument::documentWithContentsOfFile(path, MVXMLDocument::kNone, &error);
  if (!document) {
    MVLog::appendLog("Error loading Adobe installation data at %@: %@", path, error);
    return {};
  }
  std::string version = MVXMLParser::stringValueForQuery(kProductVersionQuery, document->node()).value_or("");
  // Hand-edited installer files sometimes indent the value.
  const char* blanks = " \t\r\n";
  std::size_t start = version.find_first_not_of(blanks);
  if (start == std::string::npos) return {};
  return version.substr(start, version.find_last_not_of(blanks) - start + 1);
}
