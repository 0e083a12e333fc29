// The keychain as items of the Secret Service, through libsecret.
//
// libsecret is loaded when the keychain is first used, not linked: the agent
// reads a password only when it sends mail. Without the library the keychain
// fails as it does when no Secret Service can be reached.
#include "KeychainSecretService.h"

#include <libsecret/secret.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "LazyLibrary.h"

namespace quillon {
namespace {

constexpr MVKeychainStatus errSecNoSuchAttr = -25303;
constexpr MVKeychainStatus errSecNoDefaultKeychain = -25307;
constexpr const char* kSchemaName = "com.morvane.Keychain.GenericPassword";
constexpr const char* kSecretContentType = "text/plain";
// The attributes that identify one of our items.
constexpr const char* kItemAttributes[] = {"acct", "desc", "labl", "svce"};
constexpr const char* kCannotReachService =
    "cannot reach the Secret Service (a session bus with a keyring such as gnome-keyring is needed)";

// ---- libsecret, loaded on first use ----

// Every libsecret function used below, the one behind SECRET_ERROR included.
// GLib and GIO stay linked: the rest of the agent needs them anyway.
#define QUILLON_SECRET_FUNCTIONS(X)                                                                     \
  X(secret_error_get_quark) X(secret_service_get_sync) X(secret_service_disconnect)                   \
  X(secret_service_search_sync) X(secret_collection_for_alias_sync) X(secret_item_create_sync)        \
  X(secret_item_load_secret_sync) X(secret_item_get_secret) X(secret_item_set_secret_sync)            \
  X(secret_item_delete_sync) X(secret_item_get_attributes) X(secret_item_get_label)                   \
  X(secret_item_get_created) X(secret_item_get_modified) X(secret_value_new) X(secret_value_get)      \
  X(secret_value_unref)

QUILLON_LAZY_FUNCTIONS(SecretFunctions, QUILLON_SECRET_FUNCTIONS);

void reportSecretMissing(const std::string& reason) {
  std::fprintf(stderr, "MVKeychain: %s: %s\n", kCannotReachService, reason.c_str());
  std::fflush(stderr);
}

constinit LazyLibrary<SecretFunctions> gSecret("libsecret-1.so.0", &reportSecretMissing);

// Past this point the libsecret names call through the loaded library. Only
// code that runs after gSecret.load() succeeded reaches them.
#define secret_error_get_quark QUILLON_LAZY_CALL(gSecret, secret_error_get_quark)
#define secret_service_get_sync QUILLON_LAZY_CALL(gSecret, secret_service_get_sync)
#define secret_service_disconnect QUILLON_LAZY_CALL(gSecret, secret_service_disconnect)
#define secret_service_search_sync QUILLON_LAZY_CALL(gSecret, secret_service_search_sync)
#define secret_collection_for_alias_sync QUILLON_LAZY_CALL(gSecret, secret_collection_for_alias_sync)
#define secret_item_create_sync QUILLON_LAZY_CALL(gSecret, secret_item_create_sync)
#define secret_item_load_secret_sync QUILLON_LAZY_CALL(gSecret, secret_item_load_secret_sync)
#define secret_item_get_secret QUILLON_LAZY_CALL(gSecret, secret_item_get_secret)
#define secret_item_set_secret_sync QUILLON_LAZY_CALL(gSecret, secret_item_set_secret_sync)
#define secret_item_delete_sync QUILLON_LAZY_CALL(gSecret, secret_item_delete_sync)
#define secret_item_get_attributes QUILLON_LAZY_CALL(gSecret, secret_item_get_attributes)
#define secret_item_get_label QUILLON_LAZY_CALL(gSecret, secret_item_get_label)
#define secret_item_get_created QUILLON_LAZY_CALL(gSecret, secret_item_get_created)
#define secret_item_get_modified QUILLON_LAZY_CALL(gSecret, secret_item_get_modified)
#define secret_value_new QUILLON_LAZY_CALL(gSecret, secret_value_new)
#define secret_value_get QUILLON_LAZY_CALL(gSecret, secret_value_get)
#define secret_value_unref QUILLON_LAZY_CALL(gSecret, secret_value_unref)

// ---- RAII for the GLib and libsecret objects used here ----

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

struct GHashTableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using GHashTablePtr = std::unique_ptr<GHashTable, GHashTableUnref>;

struct SecretValueUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueUnref>;

struct GFree {
  void operator()(gpointer memory) const { g_free(memory); }
};
using GCharPtr = std::unique_ptr<gchar, GFree>;

// Collects a GError that a call hands back through its GError** argument.
class ErrorSlot {
 public:
  GError** out() { return &raw_; }
  GErrorPtr take() { return GErrorPtr(std::exchange(raw_, nullptr)); }
  ~ErrorSlot() {
    if (raw_) g_error_free(raw_);
  }

 private:
  GError* raw_ = nullptr;
};

// ---- console lines ----

void consoleLine(const std::string& line) {
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

std::string errorText(const GError* error) { return error && error->message ? error->message : "unknown error"; }

// Told once per process: the rest of the program behaves as if the data
// simply were not there.
void tellOnce(std::atomic<bool>& told, const char* line) {
  if (!told.exchange(true)) consoleLine(line);
}
std::atomic<bool> gToldNoApplicationLists{false};
std::atomic<bool> gToldNoCertificates{false};
constexpr const char* kNoApplicationLists =
    "MVKeychain: the Secret Service keeps no per-item lists of trusted applications; "
    "every application of this user session can read the stored passwords";
constexpr const char* kNoCertificates = "MVKeychain: the Secret Service keeps no certificates; none are listed";

MVKeychainStatus statusForError(const GError* error) {
  if (error && error->domain == SECRET_ERROR) {
    switch (error->code) {
      case SECRET_ERROR_IS_LOCKED: return errSecInteractionNotAllowed;
      case SECRET_ERROR_NO_SUCH_OBJECT: return errSecItemNotFound;
      case SECRET_ERROR_ALREADY_EXISTS: return errSecDuplicateItem;
      default: break;
    }
  }
  if (error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) return errSecAuthFailed;
  return errSecNotAvailable;
}

MVKeychainStatus reportFailure(const char* what, const GError* error) {
  consoleLine(std::string("MVKeychain: ") + what + ": " + errorText(error));
  return statusForError(error);
}

// ---- values ----

// D-Bus carries attribute values as UTF-8 strings. The length rule may have
// cut a value inside a character; that partial character is dropped.
std::optional<std::string> attributeText(const std::string& bytes) {
  std::string text = bytes;
  const gchar* end = nullptr;
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end)) {
    std::size_t valid = static_cast<std::size_t>(end - text.data());
    // Only an incomplete final character may be dropped; anything else is
    // not text at all.
    if (g_utf8_get_char_validated(end, static_cast<gssize>(text.size() - valid)) != static_cast<gunichar>(-2))
      return std::nullopt;
    text.resize(valid);
  }
  return text;
}

std::string validLabel(const std::string& label) {
  GCharPtr valid(g_utf8_make_valid(label.data(), static_cast<gssize>(label.size())));
  return valid ? std::string(valid.get()) : std::string();
}

// The keychain's date attributes read "YYYYMMDDhhmmssZ" in UTC.
std::string keychainDate(guint64 secondsSinceEpoch) {
  std::time_t time = static_cast<std::time_t>(secondsSinceEpoch);
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[32];
  std::size_t length = std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &utc);
  return std::string(text, length);
}

const char* attributeName(MVKeychainAttrType type) {
  switch (type) {
    case kSecAccountItemAttr: return "acct";
    case kSecDescriptionItemAttr: return "desc";
    case kSecLabelItemAttr: return "labl";
    case kSecServiceItemAttr: return "svce";
    default: return nullptr;
  }
}

// The identifying attributes of a stored item, by name.
std::optional<std::string> lookupAttribute(GHashTable* attributes, const char* name) {
  if (!attributes) return std::nullopt;
  auto* value = static_cast<const gchar*>(g_hash_table_lookup(attributes, name));
  if (!value) return std::nullopt;
  return std::string(value);
}

// The Secret Service, null when it cannot be reached. Every use of the
// keychain starts here, so this is where libsecret is loaded.
GObjectPtr<SecretService> connectToService() {
  if (!gSecret.load()) return nullptr;
  ErrorSlot error;
  GObjectPtr<SecretService> service(secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, error.out()));
  if (!service) reportFailure(kCannotReachService, error.take().get());
  return service;
}

// Our items' schema. A static one, as libsecret allows, rather than one from
// secret_schema_new(): it exists before libsecret is loaded, and the
// identifying attributes are fixed.
const SecretSchema* itemSchema() {
  static const SecretSchema schema = [] {
    SecretSchema made{};
    made.name = kSchemaName;
    made.flags = SECRET_SCHEMA_DONT_MATCH_NAME;
    int index = 0;
    for (const char* name : kItemAttributes) made.attributes[index++] = {name, SECRET_SCHEMA_ATTRIBUTE_STRING};
    return made;
  }();
  return &schema;
}

// ---- one stored item ----

class SecretServiceItem final : public MVKeychainItem {
 public:
  explicit SecretServiceItem(GObjectPtr<SecretItem> item) : item_(std::move(item)) {}

  SecretItem* get() const { return item_.get(); }

  MVKeychainStatus copyPassword(std::string& password) const override {
    ErrorSlot error;
    if (!secret_item_load_secret_sync(item_.get(), nullptr, error.out()))
      return reportFailure("cannot read the password", error.take().get());
    SecretValuePtr value(secret_item_get_secret(item_.get()));
    password.clear();
    if (!value) return errSecSuccess;  // an item without a secret: no password data
    gsize length = 0;
    const gchar* bytes = secret_value_get(value.get(), &length);
    password.assign(bytes, length);
    return errSecSuccess;
  }

  MVKeychainStatus copyAttribute(MVKeychainAttrType type, std::string& value) const override {
    if (type == kSecCreationDateItemAttr) {
      value = keychainDate(secret_item_get_created(item_.get()));
      return errSecSuccess;
    }
    if (type == kSecModDateItemAttr) {
      value = keychainDate(secret_item_get_modified(item_.get()));
      return errSecSuccess;
    }
    GHashTablePtr attributes(secret_item_get_attributes(item_.get()));
    std::string name = MVFourCharCodeString(type);
    if (auto found = lookupAttribute(attributes.get(), name.c_str())) {
      value = *found;
      return errSecSuccess;
    }
    // Items written without a "labl" attribute still have a visible name.
    if (type == kSecLabelItemAttr) {
      GCharPtr label(secret_item_get_label(item_.get()));
      if (label) {
        value = label.get();
        return errSecSuccess;
      }
    }
    return errSecNoSuchAttr;
  }

  MVKeychainStatus setPassword(std::string_view password) override {
    SecretValuePtr value(secret_value_new(password.data(), static_cast<gssize>(password.size()), kSecretContentType));
    ErrorSlot error;
    if (!secret_item_set_secret_sync(item_.get(), value.get(), nullptr, error.out()))
      return reportFailure("cannot change the password", error.take().get());
    return errSecSuccess;
  }

  MVKeychainStatus remove() override {
    ErrorSlot error;
    if (!secret_item_delete_sync(item_.get(), nullptr, error.out()))
      return reportFailure("cannot delete the item", error.take().get());
    return errSecSuccess;
  }

  MVKeychainStatus copyTrustedApplications(std::vector<std::string>& paths) const override {
    tellOnce(gToldNoApplicationLists, kNoApplicationLists);
    paths.clear();
    return errSecSuccess;
  }

  MVKeychainStatus setTrustedApplications(const std::vector<std::string>&) override {
    tellOnce(gToldNoApplicationLists, kNoApplicationLists);
    return errSecSuccess;
  }

 private:
  GObjectPtr<SecretItem> item_;
};

// ---- the keychain ----

class SecretServiceKeychain final : public MVKeychainBackend {
 public:
  SecretServiceKeychain() = default;

  ~SecretServiceKeychain() override {
    // Drops the shared connection, so that the session bus may go away
    // (at log-out, or at the end of a test) without taking this process along.
    // Without libsecret loaded there is none.
    if (gSecret.loaded()) secret_service_disconnect();
  }

  SecretServiceKeychain(const SecretServiceKeychain&) = delete;
  SecretServiceKeychain& operator=(const SecretServiceKeychain&) = delete;

  MVKeychainStatus search(const MVKeychainAttributeList& attributes,
                          std::vector<std::unique_ptr<MVKeychainItem>>& matches) override {
    matches.clear();
    GHashTablePtr table = attributeTable(attributes);
    if (!table) return errSecParam;
    auto service = connectToService();
    if (!service) return errSecNotAvailable;

    ErrorSlot error;
    GList* found = secret_service_search_sync(service.get(), itemSchema(), table.get(),
                                              static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_UNLOCK),
                                              nullptr, error.out());
    GErrorPtr failure = error.take();
    if (failure) return reportFailure("cannot search the keyring", failure.get());

    std::vector<GObjectPtr<SecretItem>> items;
    for (GList* node = found; node; node = node->next) items.emplace_back(static_cast<SecretItem*>(node->data));
    g_list_free(found);  // the items now belong to `items`
    // The service answers in no particular order; the oldest item is "the first".
    std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
      return secret_item_get_created(a.get()) < secret_item_get_created(b.get());
    });
    for (auto& item : items) matches.push_back(std::make_unique<SecretServiceItem>(std::move(item)));
    return errSecSuccess;
  }

  MVKeychainStatus createItem(const MVKeychainAttributeList& attributes, const std::string& label,
                              std::string_view password,
                              const std::vector<std::string>& trustedApplications) override {
    if (!trustedApplications.empty()) tellOnce(gToldNoApplicationLists, kNoApplicationLists);
    GHashTablePtr table = attributeTable(attributes);
    if (!table) return errSecParam;

    // Like a keychain, refuse a second item with the same identity rather
    // than silently replacing or duplicating it.
    std::vector<std::unique_ptr<MVKeychainItem>> existing;
    MVKeychainStatus status = search(attributes, existing);
    if (status != errSecSuccess) return status;
    for (const auto& item : existing)
      if (hasExactly(static_cast<const SecretServiceItem&>(*item), table.get())) return errSecDuplicateItem;

    auto service = connectToService();
    if (!service) return errSecNotAvailable;
    ErrorSlot error;
    GObjectPtr<SecretCollection> collection(
        secret_collection_for_alias_sync(service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr,
                                         error.out()));
    GErrorPtr failure = error.take();
    if (failure) return reportFailure("cannot open the default keyring", failure.get());
    if (!collection) {
      consoleLine("MVKeychain: the Secret Service has no default keyring to store the item in");
      return errSecNoDefaultKeychain;
    }

    std::string visibleName = validLabel(label.empty() ? attributes.front().value : label);
    SecretValuePtr value(secret_value_new(password.data(), static_cast<gssize>(password.size()), kSecretContentType));
    // Never "replace": the service would overwrite any item whose attributes
    // include these, such as the same account's item for another host.
    GObjectPtr<SecretItem> created(secret_item_create_sync(collection.get(), itemSchema(), table.get(),
                                                           visibleName.c_str(), value.get(), SECRET_ITEM_CREATE_NONE,
                                                           nullptr, error.out()));
    failure = error.take();
    if (!created) return reportFailure("cannot store the item", failure.get());
    return errSecSuccess;
  }

  MVKeychainStatus copyCertificates(std::vector<std::vector<std::uint8_t>>& certificates) override {
    tellOnce(gToldNoCertificates, kNoCertificates);
    certificates.clear();
    return errSecSuccess;
  }

 private:
  // The attribute list as the string table that libsecret takes; null when a
  // value is not text.
  static GHashTablePtr attributeTable(const MVKeychainAttributeList& attributes) {
    GHashTablePtr table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    for (const auto& attribute : attributes) {
      const char* name = attributeName(attribute.type);
      auto text = attributeText(attribute.value);
      if (!name || !text) {
        consoleLine("MVKeychain: attribute '" + MVFourCharCodeString(attribute.type) +
                    "' cannot be stored in the Secret Service");
        return nullptr;
      }
      g_hash_table_insert(table.get(), g_strdup(name), g_strdup(text->c_str()));
    }
    return table;
  }

  // True when the item carries the same identifying attributes, no more and no fewer.
  static bool hasExactly(const SecretServiceItem& item, GHashTable* wanted) {
    GHashTablePtr stored(secret_item_get_attributes(item.get()));
    for (const char* name : kItemAttributes) {
      auto mine = lookupAttribute(wanted, name);
      auto theirs = lookupAttribute(stored.get(), name);
      if (mine != theirs) return false;
    }
    return true;
  }
};

}  // namespace

std::unique_ptr<MVKeychainBackend> createSecretServiceKeychain() { return std::make_unique<SecretServiceKeychain>(); }

}  // namespace quillon
