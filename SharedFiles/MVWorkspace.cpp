#include "MVWorkspace.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "MVLocalPaths.h"
#include "MVPropertyList.h"

namespace fs = std::filesystem;

namespace {

std::mutex gBackendMutex;
std::shared_ptr<MVWorkspace::Backend> gBackend;

std::shared_ptr<MVWorkspace::Backend> backend() {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  if (!gBackend) gBackend = std::make_shared<MVWorkspace::Backend>();
  return gBackend;
}

std::string bundleIDInFolder(const std::string& folder, const std::string& bundleId) {
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return {};
  std::vector<fs::path> bundles;
  for (const auto& entry : it) {
    if (entry.path().extension() == ".app" && entry.is_directory(ec)) bundles.push_back(entry.path());
  }
  // Sorted, so that two bundles claiming one identifier resolve the same way every time.
  std::sort(bundles.begin(), bundles.end());
  for (const fs::path& bundle : bundles) {
    MVPlistValue info = MVPropertyList::read((bundle / "Contents" / "Info.plist").string());
    const std::string* identifier = info["CFBundleIdentifier"].string();
    if (identifier && *identifier == bundleId) return bundle.string();
  }
  return {};
}

}  // namespace

bool MVWorkspace::Backend::selectFile(const std::string&, const std::string&) { return false; }
bool MVWorkspace::Backend::openFile(const std::string&) { return false; }
bool MVWorkspace::Backend::openFile(const std::string&, const std::string&) { return false; }
std::string MVWorkspace::Backend::frontmostApplicationName() { return {}; }
std::string MVWorkspace::Backend::iconForFile(const std::string&) { return {}; }
std::string MVWorkspace::Backend::absolutePathForAppBundleWithIdentifier(const std::string& bundleId) {
  return searchApplicationFoldersForBundleID(bundleId);
}
std::string MVWorkspace::Backend::applicationWithIdentifier(const std::string&) { return {}; }

std::shared_ptr<MVWorkspace::Backend> MVWorkspace::setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gBackendMutex);
  std::swap(gBackend, backend);
  return backend;
}

bool MVWorkspace::revealFile(const std::string& path) {
  return selectFile(path, fs::path(path).parent_path().string());
}

bool MVWorkspace::selectFile(const std::string& fullPath, const std::string& inFileViewerRootedAtPath) {
  return backend()->selectFile(fullPath, inFileViewerRootedAtPath);
}

bool MVWorkspace::openFile(const std::string& path) { return backend()->openFile(path); }

bool MVWorkspace::openFile(const std::string& path, const std::string& withApplication) {
  if (withApplication.empty()) return openFile(path);
  return backend()->openFile(path, withApplication);
}

std::string MVWorkspace::frontmostApplicationName() { return backend()->frontmostApplicationName(); }

std::string MVWorkspace::iconForFile(const std::string& path) { return backend()->iconForFile(path); }

std::string MVWorkspace::pathForAppWithBundleID(const std::string& bundleId) {
  if (bundleId.empty()) return {};
  return backend()->absolutePathForAppBundleWithIdentifier(bundleId);
}

std::string MVWorkspace::applicationWithIdentifier(const std::string& identifier) {
  if (identifier.empty()) return {};
  return backend()->applicationWithIdentifier(identifier);
}

std::string MVWorkspace::searchApplicationFoldersForBundleID(const std::string& bundleId) {
  for (bool user : {true, false}) {
    std::string folder = MVLocalPaths::applicationDirectory(user);
    if (folder.empty()) continue;
    if (std::string found = bundleIDInFolder(folder, bundleId); !found.empty()) return found;
  }
  return {};
}
