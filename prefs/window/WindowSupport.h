// Small helpers for building the settings window with GTK's C interface:
// signal handlers as C++ callables, accessible names, and the rows that
// several pages use.
#pragma once

#include <adwaita.h>
#include <gtk/gtk.h>

#include <functional>
#include <string>
#include <vector>

namespace settings_window {

using Action = std::function<void()>;

// Runs `action` on a signal whose handler takes only the instance
// ("clicked", "apply", "response" without its argument is not one of them).
void onSignal(gpointer instance, const char* signal, Action action);
// Runs `action` when the property changes ("notify::active").
void onNotify(gpointer instance, const char* property, Action action);
// Runs `action` with the response id of a dialog or native chooser.
void onResponse(gpointer instance, std::function<void(int response)> action);

// What screen readers and the accessibility tests call the control.
void setAccessibleName(GtkWidget* widget, const std::string& name);

// A row with a switch; the switch is the row's control.
GtkSwitch* addSwitchRow(AdwPreferencesGroup* group, const std::string& title, bool active,
                        std::function<void(bool active)> changed, const std::string& tooltip = {});
// A button in the row's end, named for screen readers.
GtkButton* addButton(AdwActionRow* row, const std::string& label, const std::string& accessibleName,
                     const char* iconName = nullptr);
// A combo row over `choices`.
AdwComboRow* addComboRow(AdwPreferencesGroup* group, const std::string& title, const std::vector<std::string>& choices,
                         unsigned selected, std::function<void(unsigned selected)> changed);

// "Watch compressor batches" from "watch compressor batches".
std::string capitalized(std::string text);

}  // namespace settings_window
