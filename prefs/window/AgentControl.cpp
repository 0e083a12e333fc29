#include "AgentControl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "DesktopGLib.h"
#include "MVLocalPaths.h"
#include "MVSingleInstance.h"

using quillon::desktop::ErrorOut;
using quillon::desktop::GCharPtr;
using quillon::desktop::GObjectPtr;
using quillon::desktop::GVariantPtr;
using quillon::desktop::SessionBus;

namespace {

constexpr const char* kUnit = "quillon.service";
constexpr const char* kAgentLock = "quillon-helper";
constexpr int kBusTimeoutMilliseconds = 5000;

GVariantPtr callSystemd(const char* method, GVariant* parameters, const char* replyType, std::string* error = nullptr) {
  GObjectPtr<GDBusConnection> bus = SessionBus::connection();
  if (!bus) {
    if (parameters) g_variant_unref(g_variant_ref_sink(parameters));
    if (error) *error = "no session bus";
    return nullptr;
  }
  ErrorOut failure;
  GVariantPtr reply(g_dbus_connection_call_sync(bus.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                                "org.freedesktop.systemd1.Manager", method, parameters,
                                                G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                kBusTimeoutMilliseconds, nullptr, failure.out()));
  if (!reply && error) *error = failure.message();
  return reply;
}

// "enabled", "disabled", ... or empty when systemd does not know the unit.
std::string unitFileState() {
  GVariantPtr reply = callSystemd("GetUnitFileState", g_variant_new("(s)", kUnit), "(s)");
  if (!reply) return {};
  const gchar* state = nullptr;
  g_variant_get(reply.get(), "(&s)", &state);
  return state;
}

bool unitActive() {
  GVariantPtr reply = callSystemd("LoadUnit", g_variant_new("(s)", kUnit), "(o)");
  if (!reply) return false;
  const gchar* path = nullptr;
  g_variant_get(reply.get(), "(&o)", &path);
  GObjectPtr<GDBusConnection> bus = SessionBus::connection();
  if (!bus) return false;
  GVariantPtr value(g_dbus_connection_call_sync(
      bus.get(), "org.freedesktop.systemd1", path, "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", "org.freedesktop.systemd1.Unit", "ActiveState"), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, kBusTimeoutMilliseconds, nullptr, nullptr));
  if (!value) return false;
  GVariantPtr inner;
  {
    GVariant* v = nullptr;
    g_variant_get(value.get(), "(v)", &v);
    inner.reset(v);
  }
  const gchar* state = g_variant_get_string(inner.get(), nullptr);
  return std::string(state) == "active" || std::string(state) == "activating" || std::string(state) == "reloading";
}

// The agent holds its lock for as long as it runs.
bool lockHeld() {
  const std::string path = MVSingleInstance::lockPath(kAgentLock);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0;
  ::close(fd);
  return held;
}

std::string autostartEntryPath() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  const std::string folder =
      config && *config == '/' ? std::string(config) : MVLocalPaths::userDirectory() + "/.config";
  return folder + "/autostart/quillon.desktop";
}

}  // namespace

std::string AgentControl::agentProgram() {
  std::error_code ec;
  auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    auto beside = self.parent_path() / "quillon-helper";
    if (::access(beside.c_str(), X_OK) == 0) return beside.string();
  }
  GCharPtr found(g_find_program_in_path("quillon-helper"));
  return found ? found.get() : "quillon-helper";
}

AgentState AgentControl::state() {
  AgentState state;
  const std::string fileState = unitFileState();
  if (!fileState.empty()) {
    state.systemd = true;
    state.running = unitActive();
    state.startsAtLogin = fileState == "enabled" || fileState == "enabled-runtime";
    return state;
  }
  state.running = lockHeld();
  std::error_code ec;
  state.startsAtLogin = std::filesystem::exists(autostartEntryPath(), ec);
  return state;
}

bool AgentControl::start(std::string& error) {
  if (state().systemd) return callSystemd("StartUnit", g_variant_new("(ss)", kUnit, "replace"), "(o)", &error) != nullptr;
  const std::string program = agentProgram();
  gchar* argv[] = {const_cast<gchar*>(program.c_str()), nullptr};
  ErrorOut failure;
  if (!g_spawn_async(nullptr, argv, nullptr, G_SPAWN_STDIN_FROM_DEV_NULL, nullptr, nullptr, nullptr, failure.out())) {
    error = "could not start " + program + ": " + failure.message();
    return false;
  }
  return true;
}

bool AgentControl::setStartAtLogin(bool on, std::string& error) {
  if (state().systemd) {
    const gchar* units[] = {kUnit, nullptr};
    if (on)
      return callSystemd("EnableUnitFiles", g_variant_new("(^asbb)", units, FALSE, FALSE), "(ba(sss))", &error) !=
             nullptr;
    return callSystemd("DisableUnitFiles", g_variant_new("(^asb)", units, FALSE), "(a(sss))", &error) != nullptr;
  }
  const std::string path = autostartEntryPath();
  std::error_code ec;
  if (!on) {
    std::filesystem::remove(path, ec);
    if (ec) error = "could not remove " + path + ": " + ec.message();
    return !ec;
  }
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::ofstream entry(path, std::ios::trunc);
  entry << "[Desktop Entry]\nType=Application\nName=Quillon\nComment=Tells you when a render has finished or failed\n"
        << "Exec=\"" << agentProgram() << "\"\nNoDisplay=true\nTerminal=false\nX-GNOME-Autostart-enabled=true\n";
  entry.close();
  if (!entry) error = "could not write " + path;
  return static_cast<bool>(entry);
}
