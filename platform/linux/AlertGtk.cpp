// Alerts as GTK 3 message dialogs, and the choice between a dialog and a
// notification for each alert.
//
// GTK is not linked: mapping it and the score of libraries it brings costs an
// always-running agent about 5 MB of resident pages, for alerts that come
// rarely, if ever. It is loaded when the first alert is to be shown; without
// it every alert becomes a notification.
#include <gtk/gtk.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "LazyLibrary.h"
#include "MVRunLoop.h"
#include "PowerAlertServices.h"

namespace quillon {

namespace {

// Every GTK and GDK function used below, the type functions behind the
// GTK_WINDOW() style casts included.
#define QUILLON_GTK_FUNCTIONS(X)                                                                               \
  X(gtk_init_check) X(gtk_widget_get_type) X(gtk_window_get_type) X(gtk_dialog_get_type) X(gtk_box_get_type)   \
  X(gtk_button_get_type) X(gtk_toggle_button_get_type) X(gtk_message_dialog_get_type) X(gtk_message_dialog_new) \
  X(gtk_message_dialog_format_secondary_text) X(gtk_message_dialog_get_message_area) X(gtk_window_set_title)     \
  X(gtk_window_get_title) X(gtk_window_set_keep_above) X(gtk_window_set_urgency_hint) X(gtk_window_present)     \
  X(gtk_window_list_toplevels) X(gtk_window_get_transient_for) X(gtk_dialog_add_button)                         \
  X(gtk_dialog_set_default_response) X(gtk_check_button_new_with_label) X(gtk_toggle_button_set_active)         \
  X(gtk_toggle_button_get_active) X(gtk_box_pack_end) X(gtk_button_get_label) X(gtk_widget_show)                \
  X(gtk_widget_hide) X(gtk_widget_destroy) X(gtk_widget_get_visible) X(gtk_widget_grab_focus)                  \
  X(gtk_widget_get_window) X(gtk_widget_translate_coordinates) X(gtk_widget_get_allocated_width)               \
  X(gtk_widget_get_allocated_height) X(gdk_window_get_state) X(gdk_window_get_origin) X(gdk_display_get_default)

QUILLON_LAZY_FUNCTIONS(GtkFunctions, QUILLON_GTK_FUNCTIONS);

void reportGtkMissing(const std::string& reason) {
  std::fprintf(stderr, "Quillon: alerts are shown as notifications: %s\n", reason.c_str());
}

constinit LazyLibrary<GtkFunctions> gGtk("libgtk-3.so.0", &reportGtkMissing);

// Past this point the GTK names call through the loaded library. Only code
// that runs after gGtk.load() succeeded reaches them.
#define gtk_init_check QUILLON_LAZY_CALL(gGtk, gtk_init_check)
#define gtk_widget_get_type QUILLON_LAZY_CALL(gGtk, gtk_widget_get_type)
#define gtk_window_get_type QUILLON_LAZY_CALL(gGtk, gtk_window_get_type)
#define gtk_dialog_get_type QUILLON_LAZY_CALL(gGtk, gtk_dialog_get_type)
#define gtk_box_get_type QUILLON_LAZY_CALL(gGtk, gtk_box_get_type)
#define gtk_button_get_type QUILLON_LAZY_CALL(gGtk, gtk_button_get_type)
#define gtk_toggle_button_get_type QUILLON_LAZY_CALL(gGtk, gtk_toggle_button_get_type)
#define gtk_message_dialog_get_type QUILLON_LAZY_CALL(gGtk, gtk_message_dialog_get_type)
#define gtk_message_dialog_new QUILLON_LAZY_CALL(gGtk, gtk_message_dialog_new)
#define gtk_message_dialog_format_secondary_text QUILLON_LAZY_CALL(gGtk, gtk_message_dialog_format_secondary_text)
#define gtk_message_dialog_get_message_area QUILLON_LAZY_CALL(gGtk, gtk_message_dialog_get_message_area)
#define gtk_window_set_title QUILLON_LAZY_CALL(gGtk, gtk_window_set_title)
#define gtk_window_get_title QUILLON_LAZY_CALL(gGtk, gtk_window_get_title)
#define gtk_window_set_keep_above QUILLON_LAZY_CALL(gGtk, gtk_window_set_keep_above)
#define gtk_window_set_urgency_hint QUILLON_LAZY_CALL(gGtk, gtk_window_set_urgency_hint)
#define gtk_window_present QUILLON_LAZY_CALL(gGtk, gtk_window_present)
#define gtk_window_list_toplevels QUILLON_LAZY_CALL(gGtk, gtk_window_list_toplevels)
#define gtk_window_get_transient_for QUILLON_LAZY_CALL(gGtk, gtk_window_get_transient_for)
#define gtk_dialog_add_button QUILLON_LAZY_CALL(gGtk, gtk_dialog_add_button)
#define gtk_dialog_set_default_response QUILLON_LAZY_CALL(gGtk, gtk_dialog_set_default_response)
#define gtk_check_button_new_with_label QUILLON_LAZY_CALL(gGtk, gtk_check_button_new_with_label)
#define gtk_toggle_button_set_active QUILLON_LAZY_CALL(gGtk, gtk_toggle_button_set_active)
#define gtk_toggle_button_get_active QUILLON_LAZY_CALL(gGtk, gtk_toggle_button_get_active)
#define gtk_box_pack_end QUILLON_LAZY_CALL(gGtk, gtk_box_pack_end)
#define gtk_button_get_label QUILLON_LAZY_CALL(gGtk, gtk_button_get_label)
#define gtk_widget_show QUILLON_LAZY_CALL(gGtk, gtk_widget_show)
#define gtk_widget_hide QUILLON_LAZY_CALL(gGtk, gtk_widget_hide)
#define gtk_widget_destroy QUILLON_LAZY_CALL(gGtk, gtk_widget_destroy)
#define gtk_widget_get_visible QUILLON_LAZY_CALL(gGtk, gtk_widget_get_visible)
#define gtk_widget_grab_focus QUILLON_LAZY_CALL(gGtk, gtk_widget_grab_focus)
#define gtk_widget_get_window QUILLON_LAZY_CALL(gGtk, gtk_widget_get_window)
#define gtk_widget_translate_coordinates QUILLON_LAZY_CALL(gGtk, gtk_widget_translate_coordinates)
#define gtk_widget_get_allocated_width QUILLON_LAZY_CALL(gGtk, gtk_widget_get_allocated_width)
#define gtk_widget_get_allocated_height QUILLON_LAZY_CALL(gGtk, gtk_widget_get_allocated_height)
#define gdk_window_get_state QUILLON_LAZY_CALL(gGtk, gdk_window_get_state)
#define gdk_window_get_origin QUILLON_LAZY_CALL(gGtk, gdk_window_get_origin)
#define gdk_display_get_default QUILLON_LAZY_CALL(gGtk, gdk_display_get_default)

constexpr const char* kWindowTitle = "Quillon";
constexpr const char* kSuppressionLabel = "Do not show this message again";
constexpr const char* kPlatformDefaultButton = "OK";

// Response ids of our own: GTK's negative ids have meanings of their own
// (-1 is "no response"), so the alert's codes cannot be used directly.
constexpr gint kDefaultResponse = 100;
constexpr gint kAlternateResponse = 101;
constexpr gint kOtherResponse = 102;

// A toplevel dialog that is destroyed when its owner goes. GTK owns
// toplevels through its window list; the extra reference keeps the pointer
// valid even when the window was destroyed under us (with its parent).
struct DialogDestroy {
  void operator()(GtkWidget* dialog) const {
    if (!dialog) return;
    gtk_widget_destroy(dialog);
    g_object_unref(dialog);
  }
};
using DialogPtr = std::unique_ptr<GtkWidget, DialogDestroy>;

class GtkShownAlert;

// The dialogs up now, for shownGtkAlertsForTesting. Main thread only, like
// every widget.
std::vector<GtkShownAlert*> gShown;

class GtkShownAlert final : public MVAlert::Backend::Shown {
 public:
  GtkShownAlert(const MVAlert::Request& request, std::function<void(MVAlert::ReturnCode)> ended)
      : ended_(std::move(ended)), hasAlternate_(request.alternateButton.has_value()) {
    GtkWindow* parent = request.parentWindow ? GTK_WINDOW(request.parentWindow) : nullptr;
    // "%s": the message is shown as it stands, a "%" in it included.
    GtkWidget* dialog = gtk_message_dialog_new(parent, GTK_DIALOG_DESTROY_WITH_PARENT, GTK_MESSAGE_WARNING,
                                               GTK_BUTTONS_NONE, "%s", request.messageText.c_str());
    dialog_.reset(GTK_WIDGET(g_object_ref(dialog)));
    if (!request.informativeText.empty())
      gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", request.informativeText.c_str());
    gtk_window_set_title(GTK_WINDOW(dialog), kWindowTitle);

    // Left to right as the user reads them: other, alternate, then the
    // default button at the end of the row.
    if (request.otherButton) addButton(*request.otherButton, kOtherResponse);
    if (request.alternateButton) addButton(*request.alternateButton, kAlternateResponse);
    GtkWidget* defaultButton = addButton(request.defaultButton.value_or(kPlatformDefaultButton), kDefaultResponse);
    gtk_dialog_set_default_response(GTK_DIALOG(dialog), kDefaultResponse);

    if (request.suppressionBinding) {
      suppressionKey_ = *request.suppressionBinding;
      GtkWidget* area = gtk_message_dialog_get_message_area(GTK_MESSAGE_DIALOG(dialog));
      suppression_ = gtk_check_button_new_with_label(kSuppressionLabel);
      gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(suppression_),
                                   MVAlert::suppressionValueForKeyPath(suppressionKey_));
      g_signal_connect(suppression_, "toggled", G_CALLBACK(&GtkShownAlert::toggled), this);
      gtk_box_pack_end(GTK_BOX(area), suppression_, FALSE, FALSE, 0);
      gtk_widget_show(suppression_);
    }

    g_signal_connect(dialog, "response", G_CALLBACK(&GtkShownAlert::responded), this);
    // An agent's alert comes unasked: it has to rise above whatever the
    // user is working in, or a countdown could run out unseen.
    gtk_window_set_keep_above(GTK_WINDOW(dialog), TRUE);
    gtk_window_set_urgency_hint(GTK_WINDOW(dialog), TRUE);
    gtk_widget_grab_focus(defaultButton);
    gtk_window_present(GTK_WINDOW(dialog));

    gShown.push_back(this);
  }

  ~GtkShownAlert() override {
    std::erase(gShown, this);
    // The signal handlers point at this object.
    g_signal_handlers_disconnect_by_data(dialog_.get(), this);
    if (suppression_) g_signal_handlers_disconnect_by_data(suppression_, this);
  }

  bool isVisible() const override { return gtk_widget_get_visible(dialog_.get()); }

  void orderOut() override {
    gtk_widget_hide(dialog_.get());
    ended_ = nullptr;
  }

  GtkWidget* dialog() const { return dialog_.get(); }

  ShownAlertDescription describe() const {
    ShownAlertDescription d;
    d.title = gtk_window_get_title(GTK_WINDOW(dialog_.get()));
    gchar* text = nullptr;
    gchar* secondary = nullptr;
    g_object_get(dialog_.get(), "text", &text, "secondary-text", &secondary, nullptr);
    d.messageText = text ? text : "";
    d.informativeText = secondary ? secondary : "";
    g_free(text);
    g_free(secondary);
    for (GtkWidget* button : buttons_) {
      d.buttons.push_back(gtk_button_get_label(GTK_BUTTON(button)));
      d.buttonCentres.push_back(centreOnScreen(button));
    }
    if (suppression_) {
      d.suppressionLabel = gtk_button_get_label(GTK_BUTTON(suppression_));
      d.suppressionCentre = centreOnScreen(suppression_);
      d.suppressionChecked = gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(suppression_));
    }
    GdkWindow* window = gtk_widget_get_window(dialog_.get());
    d.keepAbove = window && (gdk_window_get_state(window) & GDK_WINDOW_STATE_ABOVE);
    return d;
  }

 private:
  GtkWidget* addButton(const std::string& title, gint response) {
    GtkWidget* button = gtk_dialog_add_button(GTK_DIALOG(dialog_.get()), title.c_str(), response);
    buttons_.push_back(button);
    return button;
  }

  std::pair<int, int> centreOnScreen(GtkWidget* widget) const {
    gint x = 0, y = 0, originX = 0, originY = 0;
    gtk_widget_translate_coordinates(widget, dialog_.get(), gtk_widget_get_allocated_width(widget) / 2,
                                     gtk_widget_get_allocated_height(widget) / 2, &x, &y);
    if (GdkWindow* window = gtk_widget_get_window(dialog_.get())) gdk_window_get_origin(window, &originX, &originY);
    return {originX + x, originY + y};
  }

  static void responded(GtkDialog*, gint response, gpointer data) {
    auto* self = static_cast<GtkShownAlert*>(data);
    MVAlert::ReturnCode code = MVAlert::kDefaultReturn;
    switch (response) {
      case kDefaultResponse: code = MVAlert::kDefaultReturn; break;
      case kAlternateResponse: code = MVAlert::kAlternateReturn; break;
      case kOtherResponse: code = MVAlert::kOtherReturn; break;
      default:
        // Escape or the window's close button: a refusal when the alert
        // offers one, an acknowledgement otherwise.
        code = self->hasAlternate_ ? MVAlert::kAlternateReturn : MVAlert::kDefaultReturn;
        break;
    }
    // Like a sheet, the dialog leaves the screen before the end is told.
    gtk_widget_hide(self->dialog_.get());
    // The callback may hold the alert; dropping it here ends that cycle.
    auto ended = std::exchange(self->ended_, nullptr);
    if (ended) ended(code);
  }

  static void toggled(GtkToggleButton* button, gpointer data) {
    auto* self = static_cast<GtkShownAlert*>(data);
    MVAlert::setSuppressionValue(gtk_toggle_button_get_active(button), self->suppressionKey_);
  }

  DialogPtr dialog_;
  std::vector<GtkWidget*> buttons_;  // owned by the dialog
  GtkWidget* suppression_ = nullptr;  // owned by the dialog
  std::string suppressionKey_;
  std::function<void(MVAlert::ReturnCode)> ended_;
  bool hasAlternate_;
};

// Widgets belong to the main thread; an alert's last reference may drop elsewhere.
struct MainThreadDelete {
  void operator()(GtkShownAlert* shown) const {
    if (!MVRunLoop::hasMain() || MVRunLoop::main().isMainThread()) {
      delete shown;
      return;
    }
    std::unique_ptr<GtkShownAlert> owned(shown);
    auto moved = std::make_shared<std::unique_ptr<GtkShownAlert>>(std::move(owned));
    MVRunLoop::main().performOnMainThread([moved] { moved->reset(); }, false);
  }
};

class GtkAlerts final : public MVAlert::Backend {
 public:
  std::shared_ptr<Shown> show(const MVAlert::Request& request,
                              std::function<void(MVAlert::ReturnCode)> ended) override {
    return std::shared_ptr<GtkShownAlert>(new GtkShownAlert(request, std::move(ended)), MainThreadDelete{});
  }

  bool hasAttachedSheet(MVWindowRef window) override {
    if (!window) return false;
    bool attached = false;
    GList* toplevels = gtk_window_list_toplevels();
    for (GList* item = toplevels; item; item = item->next) {
      GtkWindow* candidate = GTK_WINDOW(item->data);
      if (gtk_window_get_transient_for(candidate) == GTK_WINDOW(window) && GTK_IS_DIALOG(candidate) &&
          gtk_widget_get_visible(GTK_WIDGET(candidate)))
        attached = true;
    }
    g_list_free(toplevels);
    return attached;
  }

  void makeKeyAndOrderFront(MVWindowRef window) override {
    if (window) gtk_window_present(GTK_WINDOW(window));
  }
};

bool displayAvailable() {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if (!(x11 && *x11) && !(wayland && *wayland)) return false;
  // Asked again at each alert: a display that was away may be back.
  return gGtk.load() && gtk_init_check(nullptr, nullptr);
}

// Chooses for each alert: a dialog when a display opens, a notification
// otherwise. Parent windows exist only where GTK runs.
class LinuxAlerts final : public MVAlert::Backend {
 public:
  std::shared_ptr<Shown> show(const MVAlert::Request& request,
                              std::function<void(MVAlert::ReturnCode)> ended) override {
    if (displayAvailable()) return dialogs_->show(request, std::move(ended));
    MVAlert::Request freeStanding = request;
    freeStanding.parentWindow = nullptr;
    return notifications_->show(freeStanding, std::move(ended));
  }
  // A window exists only once GTK was loaded and opened a display.
  bool hasAttachedSheet(MVWindowRef window) override {
    return window && gGtk.loaded() && gdk_display_get_default() && dialogs_->hasAttachedSheet(window);
  }
  void makeKeyAndOrderFront(MVWindowRef window) override {
    if (window && gGtk.loaded() && gdk_display_get_default()) dialogs_->makeKeyAndOrderFront(window);
  }

 private:
  std::shared_ptr<MVAlert::Backend> dialogs_ = createGtkAlertBackend();
  std::shared_ptr<MVAlert::Backend> notifications_ = createNotificationAlertBackend();
};

}  // namespace

std::shared_ptr<MVAlert::Backend> createGtkAlertBackend() { return std::make_shared<GtkAlerts>(); }

std::vector<ShownAlertDescription> shownGtkAlertsForTesting() {
  std::vector<ShownAlertDescription> shown;
  if (!gGtk.loaded()) return shown;
  for (GtkShownAlert* alert : gShown)
    if (gtk_widget_get_visible(alert->dialog())) shown.push_back(alert->describe());
  return shown;
}

void installPowerAndAlertServices() {
  MVAlert::setBackend(std::make_shared<LinuxAlerts>());
  MVPower::setBackend(createSessionPowerBackend(createLogindPowerBackend()));
}

}  // namespace quillon
