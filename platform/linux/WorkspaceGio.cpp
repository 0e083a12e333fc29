// The workspace on a freedesktop desktop: FileManager1 and GIO applications.
#include <gio/gdesktopappinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "DesktopGLib.h"
#include "DesktopServices.h"
#include "MVLog.h"
#include "MVWorkspace.h"

namespace quillon::desktop {

namespace {

namespace fs = std::filesystem;

bool exists(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

bool isExecutableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string fileURI(const std::string& path) {
  GCharPtr uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  return uri ? uri.get() : std::string();
}

bool launch(GAppInfo* app, const std::string& path) {
  GObjectPtr<GFile> file(g_file_new_for_path(path.c_str()));
  GList files = {file.get(), nullptr, nullptr};
  ErrorOut error;
  if (g_app_info_launch(app, &files, nullptr, error.out())) return true;
  MVLog::appendLog("Could not open %@ with %@: %@", path, g_app_info_get_name(app), error.message());
  return false;
}

// The installed application whose name, or desktop id without ".desktop",
// equals `name` ignoring case: what a user would type for "open with".
GObjectPtr<GAppInfo> applicationNamed(const std::string& name) {
  GObjectPtr<GAppInfo> found;
  GList* all = g_app_info_get_all();
  GCharPtr wanted(g_utf8_casefold(name.c_str(), -1));
  for (GList* item = all; item && !found; item = item->next) {
    auto* app = static_cast<GAppInfo*>(item->data);
    std::vector<std::string> names;
    if (const char* n = g_app_info_get_name(app)) names.emplace_back(n);
    if (const char* n = g_app_info_get_display_name(app)) names.emplace_back(n);
    if (const char* id = g_app_info_get_id(app)) {
      std::string s = id;
      if (s.size() > 8 && s.ends_with(".desktop")) s.resize(s.size() - 8);
      names.push_back(s);
    }
    for (const std::string& candidate : names) {
      GCharPtr folded(g_utf8_casefold(candidate.c_str(), -1));
      if (g_strcmp0(folded.get(), wanted.get()) == 0) {
        found.reset(G_APP_INFO(g_object_ref(app)));
        break;
      }
    }
  }
  g_list_free_full(all, g_object_unref);
  return found;
}

class GioWorkspace final : public MVWorkspace::Backend, public std::enable_shared_from_this<GioWorkspace> {
 public:
  bool selectFile(const std::string& fullPath, const std::string& inFileViewerRootedAtPath) override {
    if (!exists(fullPath)) {
      MVLog::appendLog("Cannot reveal %@: no such file", fullPath);
      return false;
    }
    std::string folder = inFileViewerRootedAtPath.empty() ? fs::path(fullPath).parent_path().string()
                                                          : inFileViewerRootedAtPath;
    onMainThread([fullPath, folder] { showItem(fullPath, folder); });
    return true;
  }

  bool openFile(const std::string& path) override {
    if (!exists(path)) {
      MVLog::appendLog("Cannot open %@: no such file", path);
      return false;
    }
    GObjectPtr<GFile> file(g_file_new_for_path(path.c_str()));
    ErrorOut error;
    GObjectPtr<GFileInfo> info(g_file_query_info(file.get(), G_FILE_ATTRIBUTE_STANDARD_CONTENT_TYPE,
                                                 G_FILE_QUERY_INFO_NONE, nullptr, error.out()));
    const char* type = info ? g_file_info_get_content_type(info.get()) : nullptr;
    GObjectPtr<GAppInfo> app(type ? g_app_info_get_default_for_type(type, FALSE) : nullptr);
    if (!app) {
      MVLog::appendLog("No application to open %@ (%s)", path, type ? type : "unknown type");
      return false;
    }
    return launch(app.get(), path);
  }

  bool openFile(const std::string& path, const std::string& withApplication) override {
    if (!exists(path)) {
      MVLog::appendLog("Cannot open %@: no such file", path);
      return false;
    }
    if (withApplication.ends_with(".desktop")) {
      GObjectPtr<GDesktopAppInfo> app(withApplication.find('/') != std::string::npos
                                          ? g_desktop_app_info_new_from_filename(withApplication.c_str())
                                          : g_desktop_app_info_new(withApplication.c_str()));
      if (app) return launch(G_APP_INFO(app.get()), path);
      MVLog::appendLog("Cannot open %@: no application %@", path, withApplication);
      return false;
    }
    if (withApplication.find('/') != std::string::npos) {
      if (isExecutableFile(withApplication)) return spawn(withApplication, path);
      MVLog::appendLog("Cannot open %@: %@ is not an application", path, withApplication);
      return false;
    }
    if (GObjectPtr<GAppInfo> app = applicationNamed(withApplication)) return launch(app.get(), path);
    if (GCharPtr program{g_find_program_in_path(withApplication.c_str())}) return spawn(program.get(), path);
    // Settings written on a Mac name Mac applications ("QuickTime Player");
    // the user's choice on this desktop is the default application.
    MVLog::appendLog("No application %@; opening %@ with its default application", withApplication, path);
    return openFile(path);
  }

  std::string applicationWithIdentifier(const std::string& identifier) override {
    // Desktop entries are named after the application's reverse-DNS identifier.
    GObjectPtr<GDesktopAppInfo> app(g_desktop_app_info_new((identifier + ".desktop").c_str()));
    const char* file = app ? g_desktop_app_info_get_filename(app.get()) : nullptr;
    return file ? file : "";
  }

  std::string frontmostApplicationName() override { return x11FrontmostApplicationName(); }

  std::string iconForFile(const std::string& path) override {
    GObjectPtr<GFile> file(g_file_new_for_path(path.c_str()));
    GObjectPtr<GFileInfo> info(
        g_file_query_info(file.get(), G_FILE_ATTRIBUTE_STANDARD_ICON, G_FILE_QUERY_INFO_NONE, nullptr, nullptr));
    GIcon* icon = info ? g_file_info_get_icon(info.get()) : nullptr;
    if (icon && G_IS_THEMED_ICON(icon)) {
      const gchar* const* names = g_themed_icon_get_names(G_THEMED_ICON(icon));
      if (names && names[0]) return names[0];
    }
    if (icon && G_IS_FILE_ICON(icon)) {
      GCharPtr iconPath(g_file_get_path(g_file_icon_get_file(G_FILE_ICON(icon))));
      if (iconPath) return iconPath.get();
    }
    return {};
  }

 private:
  // Started with the file as its one argument and left to run on its own;
  // GLib's intermediate child means no zombie is left behind.
  static bool spawn(const std::string& program, const std::string& path) {
    const gchar* argv[] = {program.c_str(), path.c_str(), nullptr};
    ErrorOut error;
    if (g_spawn_async(nullptr, const_cast<gchar**>(argv), nullptr,
                      static_cast<GSpawnFlags>(G_SPAWN_STDOUT_TO_DEV_NULL | G_SPAWN_STDERR_TO_DEV_NULL), nullptr,
                      nullptr, nullptr, error.out()))
      return true;
    MVLog::appendLog("Could not open %@ with %@: %@", path, program, error.message());
    return false;
  }

  // Main thread.
  static void showItem(const std::string& fullPath, const std::string& folder) {
    GObjectPtr<GDBusConnection> connection = SessionBus::connection();
    if (!connection) {
      openFolder(folder);
      return;
    }
    const gchar* uris[] = {nullptr, nullptr};
    std::string uri = fileURI(fullPath);
    uris[0] = uri.c_str();
    struct Request {
      std::string folder;
    };
    auto request = std::make_unique<Request>(Request{folder});
    g_dbus_connection_call(
        connection.get(), "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
        "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          std::unique_ptr<Request> request(static_cast<Request*>(data));
          GVariantPtr reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr));
          // No file manager on the bus: the folder alone is the next best thing.
          if (!reply) openFolder(request->folder);
        },
        request.release());
  }

  static void openFolder(const std::string& folder) {
    ErrorOut error;
    if (!g_app_info_launch_default_for_uri(fileURI(folder).c_str(), nullptr, error.out()))
      MVLog::appendLog("Could not show the folder %@: %@", folder, error.message());
  }
};

}  // namespace

std::shared_ptr<MVWorkspace::Backend> createWorkspaceBackend() { return std::make_shared<GioWorkspace>(); }

}  // namespace quillon::desktop
