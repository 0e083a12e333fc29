#include "SettingsWindow.h"

#include <gio/gdesktopappinfo.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "AgentControl.h"
#include "MVEncryption.h"
#include "MVKeychain.h"
#include "PushTargets.h"
#include "QuillonPreferences.h"
#include "SampleNotices.h"
#include "SettingsCatalog.h"
#include "SettingsStore.h"
#include "TextCarriers.h"
#include "WindowSupport.h"

using namespace QuillonSettingsKeys;
using namespace settings_window;

namespace {

// Which folders the agent polls instead of trusting kernel events (network
// and FUSE mounts); a list of paths beside the watch folders.
constexpr const char* kPolledFoldersKey = "watchFoldersPolled";
// How often the agent's state is looked at again while the window is open.
constexpr unsigned kAgentStateSeconds = 2;

enum class Page { Watched, Actions, Mail, Text, Push };

// The page a key belongs on, by what it is about; a key added to the
// catalogue later lands on the page its name suggests.
Page pageOf(const std::string& key) {
  if (key.rfind("watch", 0) == 0) return Page::Watched;
  if (key.find("mail") != std::string::npos || key.find("Mail") != std::string::npos) return Page::Mail;
  if (key.find("Text") != std::string::npos || key.rfind("txt", 0) == 0) return Page::Text;
  if (key.find("push") != std::string::npos || key.find("Push") != std::string::npos) return Page::Push;
  return Page::Actions;
}

// Row titles in the window's words; a key missing here is titled by its
// meaning in the catalogue.
const std::map<std::string, const char*>& rowTitles() {
  static const std::map<std::string, const char*> titles = {
      {kWatchQmasterKey, "Compressor"},
      {kWatchFCPRendersKey, "Final Cut Pro"},
      {kWatchAvidRendersKey, "Avid Media Composer"},
      {kWatchAMEQueueKey, "Adobe Media Encoder"},
      {kWatchPremiereRendersKey, "Adobe Premiere Pro"},
      {kOnlyWhenInactiveKey, "Only while the editing application is in the background"},
      {kNotifyGrowlKey, "Show a notification"},
      {kNotifySoundKey, "Play a sound"},
      {kNotifyFinderKey, "Show the file in the file manager"},
      {kNotifyQuickTimeKey, "Open the file in the video player"},
      {kNotifySendToAppKey, "Open the file with an application"},
      {kSendToAppPathKey, "Application"},
      {kNotifyRunScriptKey, "Run a script"},
      {kScriptPathKey, "Script"},
      {kLogoutActionKey, "Afterwards"},
      {kNotifyEmailKey, "Send an e-mail"},
      {kEmailServerKey, "Outgoing mail server"},
      {kEmailPortKey, "Port"},
      {kEmailUseTLSKey, "Encrypted connection (TLS)"},
      {kEmailUseAuthKey, "Log in to the server"},
      {kEmailAccountNameKey, "Account name"},
      {kEmailFromAddressKey, "From address"},
      {kEmailToAddressKey, "To addresses"},
      {kNotifyTextKey, "Send a text message"},
      {kSelectedTextCarrierKey, "Mobile carrier"},
      {kNotifyPushKey, "Send a push notification"},
      {kTxtMessagePhoneNumberKey, "Phone number"},
  };
  return titles;
}

std::string titleOf(const SettingDescription& setting) {
  auto found = rowTitles().find(setting.key);
  return found != rowTitles().end() ? found->second : capitalized(setting.meaning);
}

// The mail page follows the order in which a mail account is usually set up.
int mailRank(const std::string& key) {
  static const std::vector<std::string> order = {kNotifyEmailKey,       kEmailServerKey,      kEmailPortKey,
                                                 kEmailUseTLSKey,       kEmailUseAuthKey,     kEmailAccountNameKey,
                                                 kEmailFromAddressKey,  kEmailToAddressKey};
  auto found = std::find(order.begin(), order.end(), key);
  return found == order.end() ? static_cast<int>(order.size()) : static_cast<int>(found - order.begin());
}

std::string digitsOf(const std::string& text) {
  std::string digits;
  for (char c : text)
    if (c >= '0' && c <= '9') digits += c;
  return digits;
}

bool isASCII(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}

class Window {
 public:
  explicit Window(AdwApplication* application) : store_(QuillonPreferences::settingsPath()) {
    window_ = ADW_PREFERENCES_WINDOW(adw_preferences_window_new());
    gtk_window_set_application(GTK_WINDOW(window_), GTK_APPLICATION(application));
    gtk_window_set_title(GTK_WINDOW(window_), "Quillon Settings");
    gtk_window_set_default_size(GTK_WINDOW(window_), 640, 720);
    adw_preferences_window_set_search_enabled(window_, FALSE);

    pages_[Page::Watched] = addPage("watched", "Watched", "folder-videos-symbolic");
    pages_[Page::Actions] = addPage("actions", "When a Render Ends", "preferences-system-notifications-symbolic");
    pages_[Page::Mail] = addPage("mail", "E-mail", "mail-send-symbolic");
    pages_[Page::Text] = addPage("text", "Text Message", "phone-symbolic");

    addProblemGroup();
    addAgentGroup();
    addSettingRows();
    addTestGroup(Page::Mail, "Send test e-mail", false);
    addTestGroup(Page::Text, "Send test text", true);

    // The window owns this object: it goes when the window does.
    g_object_set_data_full(G_OBJECT(window_), "quillon-settings", this,
                           [](gpointer self) { delete static_cast<Window*>(self); });
    agentTimer_ = g_timeout_add_seconds(
        kAgentStateSeconds,
        [](gpointer self) -> gboolean {
          static_cast<Window*>(self)->showAgentState();
          return G_SOURCE_CONTINUE;
        },
        this);
  }
  ~Window() {
    if (agentTimer_) g_source_remove(agentTimer_);
  }

  void present() { gtk_window_present(GTK_WINDOW(window_)); }

 private:
  AdwPreferencesPage* addPage(const char* name, const char* title, const char* icon) {
    GtkWidget* page = adw_preferences_page_new();
    adw_preferences_page_set_name(ADW_PREFERENCES_PAGE(page), name);
    adw_preferences_page_set_title(ADW_PREFERENCES_PAGE(page), title);
    adw_preferences_page_set_icon_name(ADW_PREFERENCES_PAGE(page), icon);
    adw_preferences_window_add(window_, ADW_PREFERENCES_PAGE(page));
    return ADW_PREFERENCES_PAGE(page);
  }

  AdwPreferencesGroup* addGroup(Page page, const char* title, const char* description = nullptr) {
    GtkWidget* group = adw_preferences_group_new();
    if (title) adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(group), title);
    if (description) adw_preferences_group_set_description(ADW_PREFERENCES_GROUP(group), description);
    adw_preferences_page_add(pages_[page], ADW_PREFERENCES_GROUP(group));
    return ADW_PREFERENCES_GROUP(group);
  }

  void toast(const std::string& text) {
    AdwToast* toast = adw_toast_new(text.c_str());
    adw_toast_set_timeout(toast, 8);
    adw_preferences_window_add_toast(window_, toast);
  }

  // Writes one change; false when nothing was saved (the user was told why).
  bool change(const std::function<bool(SettingsFile&)>& edit) {
    auto outcome = store_.edit(edit);
    if (!outcome.message.empty()) toast(outcome.message);
    if (outcome.saved && problemGroup_) gtk_widget_set_visible(GTK_WIDGET(problemGroup_), FALSE);
    return outcome.saved;
  }
  bool setValue(const std::string& key, MVPlistValue value) {
    return change([&](SettingsFile& file) {
      if (file[key] == value) return false;
      file.set(key, std::move(value));
      return true;
    });
  }
  bool removeValue(const std::string& key) {
    return change([&](SettingsFile& file) { return file.remove(key); });
  }
  std::string text(const std::string& key) const {
    const std::string* value = store_[key].string();
    return value ? *value : std::string();
  }

  // A damaged file is named, with what will happen to it, and left alone.
  void addProblemGroup() {
    if (store_.problem().empty()) return;
    const std::string description = store_.problem() +
                                    ".\nThe window shows the defaults. The file is left as it is until you change a "
                                    "setting; it is then kept beside the new one as " +
                                    store_.path() + ".damaged.";
    problemGroup_ = addGroup(Page::Watched, "The settings file cannot be read", description.c_str());
  }

  void addAgentGroup() {
    AdwPreferencesGroup* group = addGroup(Page::Watched, "Quillon Agent");
    agentRow_ = ADW_ACTION_ROW(adw_action_row_new());
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(agentRow_), "Agent");
    adw_preferences_group_add(group, GTK_WIDGET(agentRow_));
    startButton_ = addButton(agentRow_, "Start", "Start the agent");
    onSignal(startButton_, "clicked", [this] {
      std::string error;
      if (!AgentControl::start(error)) toast("The agent could not be started: " + error);
      showAgentState();
    });
    const AgentState state = AgentControl::state();
    loginSwitch_ = addSwitchRow(group, "Start at login", state.startsAtLogin, [this](bool on) {
      if (updatingLogin_) return;
      std::string error;
      if (!AgentControl::setStartAtLogin(on, error)) toast("Start at login could not be changed: " + error);
      showAgentState();
    });
    showAgentState();
  }

  void showAgentState() {
    const AgentState state = AgentControl::state();
    std::string subtitle = state.running ? "Running" : "Not running";
    subtitle += state.systemd ? " (systemd user unit quillon.service)" : "";
    adw_action_row_set_subtitle(agentRow_, subtitle.c_str());
    gtk_widget_set_sensitive(GTK_WIDGET(startButton_), !state.running);
    updatingLogin_ = true;
    gtk_switch_set_active(loginSwitch_, state.startsAtLogin);
    updatingLogin_ = false;
  }

  void addSettingRows() {
    std::vector<const SettingDescription*> settings;
    for (const auto& setting : allSettings()) settings.push_back(&setting);
    std::stable_sort(settings.begin(), settings.end(),
                     [](auto* a, auto* b) { return mailRank(a->key) < mailRank(b->key); });
    std::map<Page, AdwPreferencesGroup*> groups;
    auto groupFor = [&](Page page) {
      if (!groups[page]) {
        static const std::map<Page, const char*> titles = {{Page::Watched, "Editing Applications"},
                                                           {Page::Actions, "Actions"},
                                                           {Page::Mail, "Mail Account"},
                                                           {Page::Text, "Text Message"},
                                                           {Page::Push, "Push Notifications"}};
        if (!pages_[page]) pages_[page] = addPage("push", "Push", "send-to-symbolic");
        groups[page] = addGroup(page, titles.at(page));
      }
      return groups[page];
    };
    for (const SettingDescription* setting : settings) {
      const std::string key = setting->key;
      if (key == kPolledFoldersKey || key == kTxtMessageNumberKey) continue;  // edited with the folders and the number
      AdwPreferencesGroup* group = groupFor(pageOf(key));
      switch (setting->kind) {
        case SettingKind::Switch: addSwitch(group, *setting); break;
        case SettingKind::LogoutAction: addLogoutAction(group, *setting); break;
        case SettingKind::ApplicationPath: addApplicationChoice(group, *setting); break;
        case SettingKind::ScriptPath: addFileChoice(group, *setting); break;
        case SettingKind::FolderList: addFolderList(*setting); break;
        case SettingKind::PhoneNumber: addPhoneNumber(group, *setting); break;
        case SettingKind::Carrier: addCarrierChoice(group, *setting); break;
        case SettingKind::PushTargetList: addPushTargets(); break;
        default: addEntry(group, *setting); break;
      }
      if (key == kEmailAccountNameKey) addPassword(group);
    }
  }

  void addSwitch(AdwPreferencesGroup* group, const SettingDescription& setting) {
    const MVPlistValue& value = store_[setting.key];
    // Only exactly 1 is on; an absent key is on where its default is.
    const bool active = value.isNil() ? std::string(setting.whenAbsent) == "on" : value.integerValue() == 1;
    const std::string key = setting.key;
    addSwitchRow(
        group, titleOf(setting), active, [this, key](bool on) { setValue(key, MVPlistValue(on ? 1 : 0)); },
        capitalized(setting.meaning));
  }

  void addLogoutAction(AdwPreferencesGroup* group, const SettingDescription& setting) {
    const long long stored = store_[setting.key].integerValue();
    // As the agent reads it: 0 or less nothing, any value above 2 shuts down.
    const unsigned selected = stored <= 0 ? 0 : stored >= 3 ? 3 : static_cast<unsigned>(stored);
    const std::string key = setting.key;
    addComboRow(group, titleOf(setting), {"Nothing", "Sleep", "Log out", "Shut down"}, selected,
                [this, key](unsigned choice) { setValue(key, MVPlistValue(static_cast<long long>(choice))); });
  }

  void addApplicationChoice(AdwPreferencesGroup* group, const SettingDescription& setting) {
    const std::string key = setting.key;
    const std::string stored = text(key);
    // The installed applications that the desktop shows, by name; the
    // setting keeps the path of the chosen one's desktop entry.
    auto paths = std::make_shared<std::vector<std::string>>(1);
    std::vector<std::string> names = {"None"};
    std::vector<std::pair<std::string, std::string>> apps;
    GList* all = g_app_info_get_all();
    for (GList* item = all; item; item = item->next) {
      GAppInfo* info = G_APP_INFO(item->data);
      const char* file = G_IS_DESKTOP_APP_INFO(info) ? g_desktop_app_info_get_filename(G_DESKTOP_APP_INFO(info)) : nullptr;
      if (file && g_app_info_should_show(info)) apps.emplace_back(g_app_info_get_display_name(info), file);
    }
    g_list_free_full(all, g_object_unref);
    std::sort(apps.begin(), apps.end());
    unsigned selected = 0;
    for (const auto& [name, file] : apps) {
      if (file == stored) selected = static_cast<unsigned>(names.size());
      names.push_back(name);
      paths->push_back(file);
    }
    if (!stored.empty() && selected == 0) {  // chosen elsewhere: kept and shown as it is
      selected = static_cast<unsigned>(names.size());
      names.push_back(stored);
      paths->push_back(stored);
    }
    addComboRow(group, titleOf(setting), names, selected, [this, key, paths](unsigned choice) {
      if (choice == 0 || choice >= paths->size())
        removeValue(key);
      else
        setValue(key, MVPlistValue((*paths)[choice]));
    });
  }

  // Opens the desktop's file chooser; `chosen` gets the path.
  void chooseFile(const char* title, GtkFileChooserAction action, std::function<void(const std::string&)> chosen) {
    GtkFileChooserNative* chooser =
        gtk_file_chooser_native_new(title, GTK_WINDOW(window_), action, "_Select", "_Cancel");
    gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(chooser), TRUE);
    onResponse(chooser, [chooser, chosen = std::move(chosen)](int response) {
      if (response == GTK_RESPONSE_ACCEPT) {
        GFile* file = gtk_file_chooser_get_file(GTK_FILE_CHOOSER(chooser));
        if (char* path = file ? g_file_get_path(file) : nullptr) {
          chosen(path);
          g_free(path);
        }
        if (file) g_object_unref(file);
      }
      gtk_native_dialog_destroy(GTK_NATIVE_DIALOG(chooser));
      g_object_unref(chooser);
    });
    gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
  }

  void addFileChoice(AdwPreferencesGroup* group, const SettingDescription& setting) {
    const std::string key = setting.key;
    const std::string title = titleOf(setting);
    AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
    const std::string stored = text(key);
    adw_action_row_set_subtitle(row, stored.empty() ? "None" : stored.c_str());
    adw_preferences_group_add(group, GTK_WIDGET(row));
    onSignal(addButton(row, "Choose…", "Choose " + title), "clicked", [this, key, row, setting] {
      chooseFile("Choose a Script", GTK_FILE_CHOOSER_ACTION_OPEN, [this, key, row, setting](const std::string& path) {
        ParsedSetting parsed = parseSetting(setting, path);
        if (!parsed.error.empty()) return toast(parsed.error);
        if (setValue(key, parsed.value)) adw_action_row_set_subtitle(row, path.c_str());
      });
    });
    onSignal(addButton(row, "Clear", "Clear " + title, "edit-clear-symbolic"), "clicked", [this, key, row] {
      if (removeValue(key)) adw_action_row_set_subtitle(row, "None");
    });
  }

  // One row per folder with its polling switch and a remove button.
  void addFolderList(const SettingDescription& setting) {
    const std::string key = setting.key;
    AdwPreferencesGroup* group =
        addGroup(pageOf(key), key == kWatchFoldersKey ? "Watch Folders" : capitalized(setting.meaning).c_str(),
                 key == kWatchFoldersKey ? "A new file in one of these folders counts as a finished render." : nullptr);
    GtkWidget* add = gtk_button_new_with_label("Add Folder…");
    gtk_widget_add_css_class(add, "flat");
    setAccessibleName(add, "Add folder");
    adw_preferences_group_set_header_suffix(group, add);
    auto rows = std::make_shared<std::vector<GtkWidget*>>();
    auto rebuild = std::make_shared<std::function<void()>>();
    *rebuild = [this, key, group, rows] {
      for (GtkWidget* row : *rows) adw_preferences_group_remove(group, row);
      rows->clear();
      const auto* folders = store_[key].array();
      if (!folders) return;
      const bool pollable = key == kWatchFoldersKey && findSetting(kPolledFoldersKey);
      const auto* polled = store_[kPolledFoldersKey].array();
      for (const auto& entry : *folders) {
        if (!entry.string()) continue;
        const std::string folder = *entry.string();
        AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
        adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), folder.c_str());
        adw_preferences_group_add(group, GTK_WIDGET(row));
        rows->push_back(GTK_WIDGET(row));
        if (pollable) {
          GtkWidget* poll = gtk_switch_new();
          gtk_switch_set_active(GTK_SWITCH(poll), polled && std::count(polled->begin(), polled->end(), entry) > 0);
          gtk_widget_set_valign(poll, GTK_ALIGN_CENTER);
          gtk_widget_set_tooltip_text(poll, "Look for changes every few seconds (network and FUSE folders)");
          setAccessibleName(poll, "Poll " + folder);
          adw_action_row_add_suffix(row, poll);
          onNotify(poll, "active", [this, folder, poll] {
            const bool on = gtk_switch_get_active(GTK_SWITCH(poll));
            change([&](SettingsFile& file) { return editList(file, kPolledFoldersKey, folder, on); });
          });
        }
        onSignal(addButton(row, "Remove", "Remove " + folder, "list-remove-symbolic"), "clicked",
                 [this, key, folder, group, row, rows] {
                   const bool removed = change([&](SettingsFile& file) {
                     editList(file, kPolledFoldersKey, folder, false);
                     return editList(file, key, folder, false);
                   });
                   if (!removed) return;
                   rows->erase(std::remove(rows->begin(), rows->end(), GTK_WIDGET(row)), rows->end());
                   adw_preferences_group_remove(group, GTK_WIDGET(row));
                 });
      }
    };
    onSignal(add, "clicked", [this, key, rebuild] {
      chooseFile("Add a Watch Folder", GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, [this, key, rebuild](const std::string& path) {
        if (change([&](SettingsFile& file) { return editList(file, key, absolutePath(path), true); })) (*rebuild)();
      });
    });
    (*rebuild)();
  }

  // Adds `path` to or removes it from the list `key`; false when it was
  // already so. A value that is no list is not touched.
  static bool editList(SettingsFile& file, const std::string& key, const std::string& path, bool present) {
    MVPlistValue list = file[key];
    if (list.isNil()) list = MVPlistValue(MVPlistValue::Array{});
    if (!list.isArray()) return false;
    auto& items = *list.array();
    auto found = std::find(items.begin(), items.end(), MVPlistValue(path));
    if ((found != items.end()) == present) return false;
    if (present)
      items.push_back(MVPlistValue(path));
    else
      items.erase(found);
    if (items.empty())
      file.remove(key);
    else
      file.set(key, std::move(list));
    return true;
  }

  AdwEntryRow* addEntryRow(AdwPreferencesGroup* group, const std::string& title, const std::string& value,
                           std::function<void(AdwEntryRow*)> applied, GtkWidget* row = nullptr) {
    if (!row) row = adw_entry_row_new();
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title.c_str());
    gtk_editable_set_text(GTK_EDITABLE(row), value.c_str());
    adw_entry_row_set_show_apply_button(ADW_ENTRY_ROW(row), TRUE);
    adw_preferences_group_add(group, row);
    AdwEntryRow* entry = ADW_ENTRY_ROW(row);
    onSignal(row, "apply", [entry, applied = std::move(applied)] { applied(entry); });
    return entry;
  }

  void addEntry(AdwPreferencesGroup* group, const SettingDescription& setting) {
    const std::string key = setting.key;
    const MVPlistValue& value = store_[key];
    addEntryRow(group, titleOf(setting), value.isNil() ? "" : displayValue(setting, value),
                [this, key, setting](AdwEntryRow* row) {
                  const std::string typed = gtk_editable_get_text(GTK_EDITABLE(row));
                  gtk_widget_remove_css_class(GTK_WIDGET(row), "error");
                  if (typed.find_first_not_of(" \t") == std::string::npos) return (void)removeValue(key);
                  ParsedSetting parsed = parseSetting(setting, typed);
                  if (!parsed.error.empty()) {
                    gtk_widget_add_css_class(GTK_WIDGET(row), "error");
                    return toast(parsed.error);
                  }
                  setValue(key, parsed.value);
                });
  }

  void addPassword(AdwPreferencesGroup* group) {
    addEntryRow(
        group, "Password", "",
        [this](AdwEntryRow* row) {
          const std::string password = gtk_editable_get_text(GTK_EDITABLE(row));
          const std::string sender = text(kEmailFromAddressKey);
          // The store names the password after the sender, as the agent looks for it.
          if (sender.empty()) return toast("Set the from address first: the password is stored under it.");
          if (!isASCII(password))
            return toast("The password has non-ASCII characters, which the secret store cannot keep whole.");
          const std::string item = MVKeychain::agentItemName(sender);
          const std::string kind(MVKeychain::kEmailPasswordKind);
          const bool exists = MVKeychain::checkForExistenceOfKeychainItem(item, kind, sender, "");
          const bool saved = exists ? MVKeychain::modifyKeychainItem(item, kind, sender, "", password)
                                    : MVKeychain::addKeychainItem(item, kind, sender, password, "");
          if (!saved) return toast("The password could not be stored: is a keyring running and unlocked?");
          gtk_editable_set_text(GTK_EDITABLE(row), "");
          toast("The password for " + sender + " is stored in the keyring.");
        },
        adw_password_entry_row_new());
  }

  void addPhoneNumber(AdwPreferencesGroup* group, const SettingDescription& setting) {
    std::string shown;
    if (const auto* stored = store_[setting.key].data(); stored && !stored->empty()) {
      const auto plain = MVEncryption::AESDecryptData(*stored, MVEncryption::kTextMessagePassphrase);
      shown.assign(plain.begin(), plain.end());
      while (!shown.empty() && (shown.back() == ' ' || shown.back() == '\0')) shown.pop_back();
    }
    addEntryRow(group, titleOf(setting), shown, [this](AdwEntryRow* row) {
      std::string number = gtk_editable_get_text(GTK_EDITABLE(row));
      const auto first = number.find_first_not_of(' ');
      number = first == std::string::npos ? "" : number.substr(first, number.find_last_not_of(' ') - first + 1);
      gtk_widget_remove_css_class(GTK_WIDGET(row), "error");
      if (number.empty()) {
        change([](SettingsFile& file) { return file.remove(kTxtMessagePhoneNumberKey) | file.remove(kTxtMessageNumberKey); });
        return;
      }
      const bool allowed = number.find_first_not_of("0123456789 +-().") == std::string::npos;
      const std::size_t digits = digitsOf(number).size();
      // E.164 numbers have at most 15 digits; fewer than 3 is surely a typo.
      if (!allowed || digits < 3 || digits > 15) {
        gtk_widget_add_css_class(GTK_WIDGET(row), "error");
        return toast("'" + number + "' is not a phone number: use 3 to 15 digits, with spaces and + - ( ) . if you like.");
      }
      MVPlistValue encrypted(MVEncryption::AESEncryptData(
          std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(number.data()), number.size()),
          MVEncryption::kTextMessagePassphrase));
      change([&](SettingsFile& file) {
        // Failed renders are texted only when the second key is set too.
        file.set(kTxtMessagePhoneNumberKey, encrypted);
        file.set(kTxtMessageNumberKey, encrypted);
        return true;
      });
    });
  }

  void addCarrierChoice(AdwPreferencesGroup* group, const SettingDescription& setting) {
    std::string error;
    auto carriers = loadTextCarriers(error);
    if (!carriers) {
      AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
      adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), titleOf(setting).c_str());
      adw_action_row_set_subtitle(row, error.c_str());
      adw_preferences_group_add(group, GTK_WIDGET(row));
      return;
    }
    // The agent texts through "att" when nothing is chosen.
    std::string chosen = text(setting.key);
    if (chosen.empty()) chosen = "att";
    auto identifiers = std::make_shared<std::vector<std::string>>();
    std::vector<std::string> names;
    unsigned selected = 0;
    for (const auto& carrier : *carriers) {
      if (carrier.identifier == chosen) selected = static_cast<unsigned>(names.size());
      names.push_back(carrier.name + (carrier.country.empty() ? "" : " (" + carrier.country + ")"));
      identifiers->push_back(carrier.identifier);
    }
    const std::string key = setting.key;
    addComboRow(group, titleOf(setting), names, selected, [this, key, identifiers](unsigned choice) {
      if (choice < identifiers->size()) setValue(key, MVPlistValue((*identifiers)[choice]));
    });
  }

  // The targets as the settings list them (secrets masked), a row to add
  // one by its URL, and a test that pushes to all of them.
  void addPushTargets() {
    AdwPreferencesGroup* group =
        addGroup(Page::Push, "Push Targets",
                 "Phones and team chats, as URLs such as ntfys://ntfy.sh/topic or discord://ID/TOKEN. Tokens are "
                 "kept in the keyring; the settings show them masked.");
    auto rows = std::make_shared<std::vector<GtkWidget*>>();
    auto rebuild = std::make_shared<std::function<void()>>();
    *rebuild = [this, group, rows] {
      for (GtkWidget* row : *rows) adw_preferences_group_remove(group, row);
      rows->clear();
      for (const PushTargetEntry& entry : PushTargets::list()) {
        AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
        adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), entry.stored.c_str());
        if (!entry.url) adw_action_row_set_subtitle(row, entry.problem.c_str());
        adw_preferences_group_add(group, GTK_WIDGET(row));
        rows->push_back(GTK_WIDGET(row));
        const std::string stored = entry.stored;
        onSignal(addButton(row, "Remove", "Remove push target " + stored, "list-remove-symbolic"), "clicked",
                 [this, stored, group, row, rows] {
                   std::string error;
                   if (!PushTargets::remove(stored, error)) return toast(error);
                   afterPushChange();
                   rows->erase(std::remove(rows->begin(), rows->end(), GTK_WIDGET(row)), rows->end());
                   adw_preferences_group_remove(group, GTK_WIDGET(row));
                 });
      }
    };
    AdwPreferencesGroup* addGroupRow = addGroup(Page::Push, nullptr);
    addEntryRow(addGroupRow, "Add push target URL", "", [this, rebuild](AdwEntryRow* row) {
      const std::string url = gtk_editable_get_text(GTK_EDITABLE(row));
      gtk_widget_remove_css_class(GTK_WIDGET(row), "error");
      std::string error;
      if (!PushTargets::add(url, error)) {
        gtk_widget_add_css_class(GTK_WIDGET(row), "error");
        return toast(error);
      }
      gtk_editable_set_text(GTK_EDITABLE(row), "");
      afterPushChange();
      (*rebuild)();
    });
    (*rebuild)();
    addPushTest();
  }

  void afterPushChange() {
    auto outcome = store_.changedElsewhere();
    if (!outcome.message.empty()) toast(outcome.message);
  }

  // Sending blocks on the network, so it runs on a worker; the outcome comes
  // back to the main thread for the window.
  void addPushTest() {
    AdwPreferencesGroup* group = addGroup(Page::Push, "Test");
    AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), "Test result");
    adw_action_row_set_subtitle(row, "Not tested yet");
    adw_action_row_set_subtitle_lines(row, 0);
    adw_preferences_group_add(group, GTK_WIDGET(row));
    GtkButton* button = addButton(row, "Send test push", "Send test push");
    onSignal(button, "clicked", [row, button] {
      adw_action_row_set_subtitle(row, "Sending…");
      gtk_widget_set_sensitive(GTK_WIDGET(button), FALSE);
      // GLib's idle queue is invisible to the thread checker, so the text
      // is handed over under a lock of our own.
      struct Delivery {
        GtkWidget* row;
        GtkWidget* button;
        std::mutex lock;
        std::string text;
      };
      auto* delivery = new Delivery{GTK_WIDGET(g_object_ref(row)), GTK_WIDGET(g_object_ref(button)), {}, {}};
      std::thread([delivery] {
        const std::vector<PushResult> results = PushTargets::sendTest();
        std::string text;
        for (const PushResult& result : results)
          text += (text.empty() ? "" : "\n") + result.target + ": " + (result.sent ? "sent" : "failed") +
                  (result.detail.empty() ? "" : " (" + result.detail + ")");
        if (results.empty()) text = "Nothing was sent: there is no push target.";
        {
          std::lock_guard<std::mutex> hold(delivery->lock);
          delivery->text = std::move(text);
        }
        g_idle_add(
            [](gpointer data) -> gboolean {
              auto* arrived = static_cast<Delivery*>(data);
              std::string text;
              {
                std::lock_guard<std::mutex> hold(arrived->lock);
                text = std::move(arrived->text);
              }
              adw_action_row_set_subtitle(ADW_ACTION_ROW(arrived->row), text.c_str());
              gtk_widget_set_sensitive(arrived->button, TRUE);
              g_object_unref(arrived->row);
              g_object_unref(arrived->button);
              {
                std::lock_guard<std::mutex> hold(arrived->lock);  // the worker is done with it
              }
              delete arrived;
              return G_SOURCE_REMOVE;
            },
            delivery);
      }).detach();
    });
  }

  // A button that sends a sample with the saved settings, and the outcome
  // beneath it: "Sent ..." or the mail client's own words.
  void addTestGroup(Page page, const char* label, bool textMessage) {
    AdwPreferencesGroup* group = addGroup(page, "Test");
    AdwActionRow* row = ADW_ACTION_ROW(adw_action_row_new());
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), "Test result");
    adw_action_row_set_subtitle(row, "Not tested yet");
    adw_action_row_set_subtitle_lines(row, 0);
    adw_preferences_group_add(group, GTK_WIDGET(row));
    GtkButton* button = addButton(row, label, label);
    onSignal(button, "clicked", [this, row, button, textMessage] {
      if (notices_.busy()) return;
      adw_action_row_set_subtitle(row, "Sending…");
      gtk_widget_set_sensitive(GTK_WIDGET(button), FALSE);
      notices_.send(store_, textMessage, [row, button](bool, const std::string& outcome) {
        adw_action_row_set_subtitle(row, outcome.c_str());
        gtk_widget_set_sensitive(GTK_WIDGET(button), TRUE);
      });
    });
  }

  SettingsStore store_;
  SampleNotices notices_;
  AdwPreferencesWindow* window_ = nullptr;
  std::map<Page, AdwPreferencesPage*> pages_;
  AdwPreferencesGroup* problemGroup_ = nullptr;
  AdwActionRow* agentRow_ = nullptr;
  GtkButton* startButton_ = nullptr;
  GtkSwitch* loginSwitch_ = nullptr;
  bool updatingLogin_ = false;
  guint agentTimer_ = 0;
};

}  // namespace

void presentSettingsWindow(AdwApplication* application) {
  // Owned by its window (see the constructor).
  auto* window = new Window(application);
  window->present();
}
