#include "WindowSupport.h"

#include <cctype>

namespace settings_window {

namespace {

// The handler object lives as long as the signal connection: GLib frees it
// through the destroy notify when the instance goes.
template <typename Callable>
void connectOwned(gpointer instance, const char* signal, GCallback trampoline, Callable callable) {
  auto* owned = new Callable(std::move(callable));
  g_signal_connect_data(instance, signal, trampoline, owned,
                        [](gpointer data, GClosure*) { delete static_cast<Callable*>(data); }, GConnectFlags(0));
}

}  // namespace

void onSignal(gpointer instance, const char* signal, Action action) {
  connectOwned(instance, signal, G_CALLBACK(+[](gpointer, gpointer data) { (*static_cast<Action*>(data))(); }),
               std::move(action));
}

void onNotify(gpointer instance, const char* property, Action action) {
  connectOwned(instance, (std::string("notify::") + property).c_str(),
               G_CALLBACK(+[](gpointer, GParamSpec*, gpointer data) { (*static_cast<Action*>(data))(); }),
               std::move(action));
}

void onResponse(gpointer instance, std::function<void(int response)> action) {
  using Handler = std::function<void(int)>;
  connectOwned(instance, "response",
               G_CALLBACK(+[](gpointer, int response, gpointer data) { (*static_cast<Handler*>(data))(response); }),
               std::move(action));
}

void setAccessibleName(GtkWidget* widget, const std::string& name) {
  gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, name.c_str(), -1);
}

GtkSwitch* addSwitchRow(AdwPreferencesGroup* group, const std::string& title, bool active,
                        std::function<void(bool active)> changed, const std::string& tooltip) {
  GtkWidget* row = adw_action_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  if (!tooltip.empty()) gtk_widget_set_tooltip_text(row, tooltip.c_str());
  GtkWidget* toggle = gtk_switch_new();
  gtk_switch_set_active(GTK_SWITCH(toggle), active);
  gtk_widget_set_valign(toggle, GTK_ALIGN_CENTER);
  // The row names its control for screen readers (by the title).
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), toggle);
  adw_action_row_set_activatable_widget(ADW_ACTION_ROW(row), toggle);
  adw_preferences_group_add(group, row);
  GtkSwitch* result = GTK_SWITCH(toggle);
  onNotify(toggle, "active", [result, changed = std::move(changed)] { changed(gtk_switch_get_active(result)); });
  return result;
}

GtkButton* addButton(AdwActionRow* row, const std::string& label, const std::string& accessibleName,
                     const char* iconName) {
  GtkWidget* button = iconName ? gtk_button_new_from_icon_name(iconName) : gtk_button_new_with_label(label.c_str());
  if (iconName) {
    gtk_widget_set_tooltip_text(button, label.c_str());
    gtk_widget_add_css_class(button, "flat");
  }
  gtk_widget_set_valign(button, GTK_ALIGN_CENTER);
  setAccessibleName(button, accessibleName);
  adw_action_row_add_suffix(row, button);
  return GTK_BUTTON(button);
}

AdwComboRow* addComboRow(AdwPreferencesGroup* group, const std::string& title, const std::vector<std::string>& choices,
                         unsigned selected, std::function<void(unsigned selected)> changed) {
  GtkStringList* model = gtk_string_list_new(nullptr);
  for (const auto& choice : choices) gtk_string_list_append(model, choice.c_str());
  GtkWidget* row = adw_combo_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
  adw_combo_row_set_model(ADW_COMBO_ROW(row), G_LIST_MODEL(model));
  g_object_unref(model);  // the row holds it now
  adw_combo_row_set_selected(ADW_COMBO_ROW(row), selected);
  adw_preferences_group_add(group, row);
  AdwComboRow* combo = ADW_COMBO_ROW(row);
  onNotify(row, "selected", [combo, changed = std::move(changed)] { changed(adw_combo_row_get_selected(combo)); });
  return combo;
}

std::string capitalized(std::string text) {
  if (!text.empty()) text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text;
}

}  // namespace settings_window
