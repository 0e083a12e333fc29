// MVKeychain: generic-password items in the user's keychain.
//
// Stores, finds, reads, changes and deletes password items; manages the list
// of applications trusted to read an item; lists the common names of the
// keychain's certificates. The agent uses it to read the SMTP password that
// the preferences application stored (agentItemName / kEmailPasswordKind).
//
// An item is identified by up to four optional strings, each stored as one
// attribute: username "acct", item kind "desc", item name "labl", hostname
// "svce". Only non-empty ones take part; with none at all an operation does
// nothing and answers none/false. An attribute value or password is stored as
// its UTF-8 bytes cut to the string's length in characters (UTF-16 code
// units), as the preferences application has always stored them: only ASCII
// values round-trip whole. Passwords read back are at most 1023 bytes; a
// character cut in two by either limit is dropped, so the result is text.
// Adding an item whose four attributes equal an existing item's fails.
//
// Platforms (one MVKeychainBackend each):
// - A macOS keychain backend does every operation natively, application
//   lists and certificates included.
// - Linux, Secret Service (libsecret; gnome-keyring, KeePassXC...): items live
//   in the default collection with the four attributes; searches match the
//   attributes whatever schema wrote the item (the oldest match is the
//   first), so a password stored with
//   `secret-tool store --label=... acct ... desc ... labl ...` is found. The
//   service keeps no per-item application lists and no certificates: the
//   trusted-application operations and certificateNames answer as a keychain
//   without such data and say so once per process on standard error.
//
// Errors go to the system console (standard error), never to the log file;
// reading the password of an item reports its failure on standard output.
// Nothing throws. Stateless: every operation may be called from any thread.
// A backend must be installed once at start-up with setBackend().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Status codes of keychain operations, with the values of the keychain API
// so that the console lines read the same on every platform.
using MVKeychainStatus = std::int32_t;
inline constexpr MVKeychainStatus errSecSuccess = 0;
inline constexpr MVKeychainStatus errSecUnimplemented = -4;
inline constexpr MVKeychainStatus errSecParam = -50;
inline constexpr MVKeychainStatus errSecAllocate = -108;
inline constexpr MVKeychainStatus errSecNotAvailable = -25291;
inline constexpr MVKeychainStatus errSecAuthFailed = -25293;
inline constexpr MVKeychainStatus errSecDuplicateItem = -25299;
inline constexpr MVKeychainStatus errSecItemNotFound = -25300;
inline constexpr MVKeychainStatus errSecInteractionNotAllowed = -25308;

// A keychain attribute type: a four-character code such as 'acct'.
using MVKeychainAttrType = std::uint32_t;
constexpr MVKeychainAttrType MVFourCharCode(const char (&code)[5]) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}
std::string MVFourCharCodeString(MVKeychainAttrType code);

inline constexpr MVKeychainAttrType kSecAccountItemAttr = MVFourCharCode("acct");
inline constexpr MVKeychainAttrType kSecDescriptionItemAttr = MVFourCharCode("desc");
inline constexpr MVKeychainAttrType kSecLabelItemAttr = MVFourCharCode("labl");
inline constexpr MVKeychainAttrType kSecServiceItemAttr = MVFourCharCode("svce");
inline constexpr MVKeychainAttrType kSecCreationDateItemAttr = MVFourCharCode("cdat");
inline constexpr MVKeychainAttrType kSecModDateItemAttr = MVFourCharCode("mdat");

// The identifying attributes of a search or a new item, in the order
// account, description, label, service. Values are raw bytes (already cut by
// the length rule), not necessarily whole UTF-8.
struct MVKeychainAttribute {
  MVKeychainAttrType type;
  std::string value;
};
using MVKeychainAttributeList = std::vector<MVKeychainAttribute>;

// One stored item, as found by a search. Owned by whoever holds it; the item
// stays usable after the search that found it has ended.
class MVKeychainItem {
 public:
  virtual ~MVKeychainItem() = default;
  MVKeychainItem(const MVKeychainItem&) = delete;
  MVKeychainItem& operator=(const MVKeychainItem&) = delete;

  // The stored password bytes.
  virtual MVKeychainStatus copyPassword(std::string& password) const = 0;
  // The bytes of one attribute; errSecItemNotFound-like codes when absent.
  virtual MVKeychainStatus copyAttribute(MVKeychainAttrType type, std::string& value) const = 0;
  virtual MVKeychainStatus setPassword(std::string_view password) = 0;
  virtual MVKeychainStatus remove() = 0;
  // The applications of the rule that allows reading the secret.
  virtual MVKeychainStatus copyTrustedApplications(std::vector<std::string>& paths) const = 0;
  virtual MVKeychainStatus setTrustedApplications(const std::vector<std::string>& paths) = 0;

 protected:
  MVKeychainItem() = default;
};

// What a platform keychain provides. Implementations must be callable from
// any thread.
class MVKeychainBackend {
 public:
  virtual ~MVKeychainBackend() = default;

  // Generic-password items matching every attribute of the list. An
  // unreachable keychain is a failure status, not an empty result.
  virtual MVKeychainStatus search(const MVKeychainAttributeList& attributes,
                                  std::vector<std::unique_ptr<MVKeychainItem>>& matches) = 0;
  // Creates an item in the default keychain. With trusted applications (the
  // calling application is added first by the backend), only they may read
  // it; without, the keychain's default access applies.
  virtual MVKeychainStatus createItem(const MVKeychainAttributeList& attributes, const std::string& label,
                                      std::string_view password,
                                      const std::vector<std::string>& trustedApplications) = 0;
  // The DER bytes of every certificate in the keychain.
  virtual MVKeychainStatus copyCertificates(std::vector<std::vector<std::uint8_t>>& certificates) = 0;
};

using MVKeychainItemRef = std::unique_ptr<MVKeychainItem>;

class MVKeychain {
 public:
  // The item holding the SMTP password: "Quillon - %@" with the sender
  // address, of kind "Email password", username the sender address.
  static constexpr std::string_view kEmailPasswordKind = "Email password";
  static std::string agentItemName(const std::string& emailFromAddress);

  // Most bytes of a password that a read returns.
  static constexpr std::size_t kPasswordReadLimit = 1023;

  MVKeychain() = delete;

  // Installs the platform keychain (at start-up, or nullptr to release it
  // before the session goes away).
  static void setBackend(std::shared_ptr<MVKeychainBackend> backend);

  static bool checkForExistenceOfKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                              const std::string& username, const std::string& hostname);
  // The first matching item, or none.
  [[nodiscard]] static MVKeychainItemRef keychainItem(const std::string& itemName, const std::string& withItemKind,
                                                      const std::string& username, const std::string& hostname);
  // The password of the first matching item, or none.
  [[nodiscard]] static std::optional<std::string> getPasswordFromKeychainItem(const std::string& itemName,
                                                                             const std::string& itemKind,
                                                                             const std::string& username,
                                                                             const std::string& hostname);
  [[nodiscard]] static std::optional<std::string> getPasswordFromSecKeychainItemRef(const MVKeychainItem* item);

  // True if the item was created. Additional applications (paths) restrict
  // reading to the calling application and them, where the keychain can.
  static bool addKeychainItem(const std::string& itemName, const std::string& withItemKind,
                              const std::string& username, const std::string& password,
                              const std::string& hostname,
                              const std::vector<std::string>& additionalApplications = {});
  // True if the first match's password was replaced.
  static bool modifyKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                 const std::string& username, const std::string& hostname,
                                 const std::string& newPassword);
  // Deletes every match; true if the last deletion succeeded or nothing matched.
  static bool deleteKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                 const std::string& username, const std::string& hostname);
  // Deletes every item with this name and kind, ignoring failures; true if at
  // least one of the two was given.
  static bool deleteAllKeychainItems(const std::string& itemName, const std::string& withItemKind);

  [[nodiscard]] static std::optional<std::string> attributeFromKeychainItemRef(const MVKeychainItem* item,
                                                                              MVKeychainAttrType attribute);

  // Makes the application at `path` the only one trusted to read the item.
  static void addTrustedAppAtPath(const std::string& path, MVKeychainItem* toItemRef);
  static std::vector<std::string> trustedAppsForItemRef(const MVKeychainItem* item);

  // Common names of every certificate in the keychain; none if the keychain
  // cannot be searched.
  [[nodiscard]] static std::optional<std::vector<std::string>> certificateNames();

  // The bytes the keychain stores for a value: its UTF-8 bytes cut to its
  // length in UTF-16 code units.
  static std::string storedBytes(std::string_view value);
};
