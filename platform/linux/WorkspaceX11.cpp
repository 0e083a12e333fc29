// The frontmost application under X11, from the window manager's hints.
//
// Xlib is loaded when the frontmost application is first asked for, not
// linked: an agent that never asks need not keep it mapped. Without it the
// answer is "unknown", as when no display opens.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>

#include "DesktopServices.h"
#include "LazyLibrary.h"

namespace quillon::desktop {

namespace {

#define QUILLON_X11_FUNCTIONS(X)                                                                      \
  X(XOpenDisplay) X(XCloseDisplay) X(XFree) X(XGetClassHint) X(XGetWindowProperty) X(XInternAtom) \
  X(XSetErrorHandler) X(XSync)

QUILLON_LAZY_FUNCTIONS(X11Functions, QUILLON_X11_FUNCTIONS);

void reportX11Missing(const std::string& reason) {
  std::fprintf(stderr, "Quillon: the frontmost application is unknown: %s\n", reason.c_str());
}

constinit LazyLibrary<X11Functions> gX11("libX11.so.6", &reportX11Missing);

// Past this point the Xlib names call through the loaded library. Only code
// that runs after gX11.load() succeeded reaches them.
#define XOpenDisplay QUILLON_LAZY_CALL(gX11, XOpenDisplay)
#define XCloseDisplay QUILLON_LAZY_CALL(gX11, XCloseDisplay)
#define XFree QUILLON_LAZY_CALL(gX11, XFree)
#define XGetClassHint QUILLON_LAZY_CALL(gX11, XGetClassHint)
#define XGetWindowProperty QUILLON_LAZY_CALL(gX11, XGetWindowProperty)
#define XInternAtom QUILLON_LAZY_CALL(gX11, XInternAtom)
#define XSetErrorHandler QUILLON_LAZY_CALL(gX11, XSetErrorHandler)
#define XSync QUILLON_LAZY_CALL(gX11, XSync)

struct DisplayClose {
  void operator()(Display* d) const { XCloseDisplay(d); }
};
struct XFreeDeleter {
  void operator()(void* p) const {
    if (p) XFree(p);
  }
};
using XData = std::unique_ptr<unsigned char, XFreeDeleter>;

// Xlib's error handler is process-wide; while we look, a window that
// vanished between two requests must be an ordinary miss, not the default
// handler's exit. The lock keeps two lookups from swapping handlers
// under each other.
std::mutex gErrorHandlerMutex;
int ignoreError(Display*, XErrorEvent*) { return 0; }

class ErrorTrap {
 public:
  explicit ErrorTrap(Display* display) : lock_(gErrorHandlerMutex), display_(display) {
    previous_ = XSetErrorHandler(&ignoreError);
  }
  ~ErrorTrap() {
    XSync(display_, False);
    XSetErrorHandler(previous_);
  }
  ErrorTrap(const ErrorTrap&) = delete;
  ErrorTrap& operator=(const ErrorTrap&) = delete;

 private:
  std::lock_guard<std::mutex> lock_;
  Display* display_;
  int (*previous_)(Display*, XErrorEvent*) = nullptr;
};

// One 32-bit item of a window property (a window id or a number), 0 when missing.
unsigned long cardinalProperty(Display* display, Window window, const char* name) {
  Atom property = XInternAtom(display, name, True);
  if (property == None) return 0;
  Atom actualType = None;
  int format = 0;
  unsigned long count = 0, after = 0;
  unsigned char* raw = nullptr;
  if (XGetWindowProperty(display, window, property, 0, 1, False, AnyPropertyType, &actualType, &format, &count,
                         &after, &raw) != Success)
    return 0;
  XData data(raw);
  // Any 32-bit type: window managers disagree on WINDOW versus CARDINAL.
  if (!data || actualType == None || format != 32 || count < 1) return 0;
  // Xlib hands 32-bit items back as longs.
  return *reinterpret_cast<unsigned long*>(data.get());
}

std::string processName(unsigned long pid) {
  if (pid == 0) return {};
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

bool isWaylandSession() {
  const char* type = std::getenv("XDG_SESSION_TYPE");
  if (type && *type) return std::string(type) == "wayland";
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return wayland && *wayland;
}

}  // namespace

std::string x11FrontmostApplicationName() {
  // Under Wayland the X server sees only its own clients, so its answer would
  // be wrong whenever a native application is in front.
  if (isWaylandSession()) return {};
  const char* name = std::getenv("DISPLAY");
  if (!name || !*name || !gX11.load()) return {};
  std::unique_ptr<Display, DisplayClose> display(XOpenDisplay(name));
  if (!display) return {};

  ErrorTrap trap(display.get());
  Window root = DefaultRootWindow(display.get());
  Window active = cardinalProperty(display.get(), root, "_NET_ACTIVE_WINDOW");
  if (active == 0) return {};

  XClassHint hint{};
  if (XGetClassHint(display.get(), active, &hint)) {
    XData instanceName(reinterpret_cast<unsigned char*>(hint.res_name));
    XData className(reinterpret_cast<unsigned char*>(hint.res_class));
    if (className && *className) return reinterpret_cast<const char*>(className.get());
  }
  return processName(cardinalProperty(display.get(), active, "_NET_WM_PID"));
}

}  // namespace quillon::desktop
