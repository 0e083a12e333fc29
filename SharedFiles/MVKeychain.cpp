#include "MVKeychain.h"


#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <utility>

#include "MVFormat.h"
#include "MVPlistValue.h"
#include "MVOpenSSL.h"

namespace {

constexpr MVKeychainStatus errSecUnknownFormat = -25257;

std::mutex gBackendMutex;
std::shared_ptr<MVKeychainBackend> gBackend;

// The keychain's few errors go to the system console, not to the log file.
template <typename... Args>
void consoleLine(FILE* stream, std::string_view format, const Args&... args) {
  std::string line = MVFormatString(format, args...);
  if (line.empty() || line.back() != '\n') line += '\n';
  std::fputs(line.c_str(), stream);
  std::fflush(stream);
}

std::shared_ptr<MVKeychainBackend> currentBackend() {
  std::lock_guard lock(gBackendMutex);
  if (!gBackend) {
    static std::atomic<bool> told{false};
    if (!told.exchange(true))
      consoleLine(stderr, "MVKeychain: no keychain backend is installed; passwords cannot be stored or read");
  }
  return gBackend;
}

// Keychain statuses are printed as the 16-bit numbers the keychain API uses.
int shortStatus(MVKeychainStatus status) { return static_cast<std::int16_t>(status); }

// Wipes a password copy when it goes out of scope.
class WipedString {
 public:
  explicit WipedString(std::string value) : value_(std::move(value)) {}
  ~WipedString() { MVWipeMemory(value_.data(), value_.size()); }
  WipedString(const WipedString&) = delete;
  WipedString& operator=(const WipedString&) = delete;
  std::string& get() { return value_; }

 private:
  std::string value_;
};

// Account, description, label, service: only the non-empty ones, in that order.
MVKeychainAttributeList attributeList(const std::string& itemName, const std::string& itemKind,
                                      const std::string& username, const std::string& hostname) {
  MVKeychainAttributeList list;
  auto add = [&list](MVKeychainAttrType type, const std::string& value) {
    if (!value.empty()) list.push_back({type, MVKeychain::storedBytes(value)});
  };
  add(kSecAccountItemAttr, username);
  add(kSecDescriptionItemAttr, itemKind);
  add(kSecLabelItemAttr, itemName);
  add(kSecServiceItemAttr, hostname);
  return list;
}

// Searches, writing the console line of a search that cannot be made.
// Returns false when the search failed; `matches` may then be empty.
bool searchItems(const MVKeychainAttributeList& attributes, std::vector<MVKeychainItemRef>& matches) {
  auto backend = currentBackend();
  MVKeychainStatus status = backend ? backend->search(attributes, matches) : errSecNotAvailable;
  if (status != errSecSuccess) {
    consoleLine(stderr, "status %d from SecKeychainSearchCreateFromAttributes\n", shortStatus(status));
    matches.clear();
    return false;
  }
  return true;
}

// Length of the UTF-8 sequence that `lead` begins, 0 for a byte that cannot begin one.
std::size_t utf8SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool isValidUTF8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = utf8SequenceLength(lead);
    if (length == 0 || i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k)
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    auto second = static_cast<unsigned char>(text[i + 1 < text.size() ? i + 1 : i]);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) || (lead == 0xF0 && second < 0x90) ||
        (lead == 0xF4 && second > 0x8F))
      return false;  // overlong forms, surrogates, beyond U+10FFFF
    i += length;
  }
  return true;
}

// Drops a character that the byte limit or the length rule cut in two, so
// that what remains reads as text.
void dropCutCharacter(std::string& bytes) {
  std::size_t start = bytes.size();
  for (std::size_t back = 0; back < 4 && start > 0; ++back) {
    --start;
    auto byte = static_cast<unsigned char>(bytes[start]);
    if ((byte & 0xC0) != 0x80) {
      std::size_t length = utf8SequenceLength(byte);
      if (length > bytes.size() - start) bytes.resize(start);
      return;
    }
  }
}

struct CertificateFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

std::optional<std::string> commonNameOfCertificate(const std::vector<std::uint8_t>& der, bool& parsed) {
  parsed = false;
  if (!MVLoadOpenSSL()) return std::nullopt;
  const unsigned char* cursor = der.data();
  std::unique_ptr<X509, CertificateFree> certificate(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  parsed = certificate != nullptr;
  if (!certificate) return std::nullopt;
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
  if (index < 0) return std::nullopt;
  ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  unsigned char* utf8 = nullptr;
  int length = ASN1_STRING_to_UTF8(&utf8, data);
  if (length < 0) return std::nullopt;
  std::string name(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(length));
  OPENSSL_free(utf8);
  return name;
}

}  // namespace

std::string MVFourCharCodeString(MVKeychainAttrType code) {
  std::string text(4, ' ');
  for (int i = 0; i < 4; ++i) text[static_cast<std::size_t>(i)] = static_cast<char>((code >> (24 - 8 * i)) & 0xFF);
  return text;
}

std::string MVKeychain::agentItemName(const std::string& emailFromAddress) {
  return MVFormatString("Quillon - %@", emailFromAddress);
}

void MVKeychain::setBackend(std::shared_ptr<MVKeychainBackend> backend) {
  std::shared_ptr<MVKeychainBackend> previous;
  {
    std::lock_guard lock(gBackendMutex);
    previous = std::exchange(gBackend, std::move(backend));
  }
  // `previous` is released here, outside the lock: a backend may talk to its
  // service while it shuts down.
}

std::string MVKeychain::storedBytes(std::string_view value) {
  // The length in characters is counted as the platform counts string length:
  // in UTF-16 code units, so a character beyond U+FFFF counts twice.
  std::size_t units = 0;
  for (char c : value) {
    auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return std::string(value.substr(0, std::min(units, value.size())));
}

bool MVKeychain::checkForExistenceOfKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                                 const std::string& username, const std::string& hostname) {
  return keychainItem(itemName, withItemKind, username, hostname) != nullptr;
}

MVKeychainItemRef MVKeychain::keychainItem(const std::string& itemName, const std::string& withItemKind,
                                           const std::string& username, const std::string& hostname) {
  auto attributes = attributeList(itemName, withItemKind, username, hostname);
  if (attributes.empty()) return nullptr;
  std::vector<MVKeychainItemRef> matches;
  if (!searchItems(attributes, matches) || matches.empty()) return nullptr;
  return std::move(matches.front());
}

std::optional<std::string> MVKeychain::getPasswordFromKeychainItem(const std::string& itemName,
                                                                  const std::string& itemKind,
                                                                  const std::string& username,
                                                                  const std::string& hostname) {
  auto item = keychainItem(itemName, itemKind, username, hostname);
  if (!item) return std::nullopt;
  return getPasswordFromSecKeychainItemRef(item.get());
}

std::optional<std::string> MVKeychain::getPasswordFromSecKeychainItemRef(const MVKeychainItem* item) {
  WipedString stored{std::string()};
  MVKeychainStatus status = item ? item->copyPassword(stored.get()) : errSecParam;
  if (status != errSecSuccess) {
    consoleLine(stdout, "Error = %d\n", status);
    return std::nullopt;
  }
  if (stored.get().empty()) return std::nullopt;

  // At most 1023 bytes, read as a C string.
  std::string password = stored.get().substr(0, std::min(kPasswordReadLimit, stored.get().find('\0')));
  dropCutCharacter(password);
  if (!isValidUTF8(password)) {
    MVWipeMemory(password.data(), password.size());
    consoleLine(stderr, "MVKeychain: the stored password is not UTF-8 text");
    return std::nullopt;
  }
  return password;
}

bool MVKeychain::addKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                 const std::string& username, const std::string& password,
                                 const std::string& hostname, const std::vector<std::string>& additionalApplications) {
  auto attributes = attributeList(itemName, withItemKind, username, hostname);
  if (attributes.empty()) return false;
  auto backend = currentBackend();
  WipedString secret(storedBytes(password));
  MVKeychainStatus status = backend ? backend->createItem(attributes, itemName, secret.get(), additionalApplications)
                                    : errSecNotAvailable;
  if (status != errSecSuccess) {
    consoleLine(stderr, "Error creating new item: %d\n", status);
    return false;
  }
  return true;
}

bool MVKeychain::modifyKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                    const std::string& username, const std::string& hostname,
                                    const std::string& newPassword) {
  auto attributes = attributeList(itemName, withItemKind, username, hostname);
  if (attributes.empty()) return false;
  std::vector<MVKeychainItemRef> matches;
  if (!searchItems(attributes, matches)) return false;
  WipedString secret(storedBytes(newPassword));
  // The search matched on exactly these attributes, so only the password
  // needs writing.
  MVKeychainStatus status = matches.empty() ? errSecItemNotFound : matches.front()->setPassword(secret.get());
  if (status != errSecSuccess) {
    consoleLine(stderr, "Error modifying item: %d", status);
    return false;
  }
  return true;
}

bool MVKeychain::deleteKeychainItem(const std::string& itemName, const std::string& withItemKind,
                                    const std::string& username, const std::string& hostname) {
  auto attributes = attributeList(itemName, withItemKind, username, hostname);
  if (attributes.empty()) return false;
  std::vector<MVKeychainItemRef> matches;
  if (!searchItems(attributes, matches)) return false;
  MVKeychainStatus last = errSecSuccess;
  for (auto& item : matches) {
    last = item->remove();
    if (last != errSecSuccess) consoleLine(stderr, "Error deleting item: %d\n", last);
  }
  return last == errSecSuccess;
}

bool MVKeychain::deleteAllKeychainItems(const std::string& itemName, const std::string& withItemKind) {
  auto attributes = attributeList(itemName, withItemKind, std::string(), std::string());
  if (attributes.empty()) return false;
  std::vector<MVKeychainItemRef> matches;
  searchItems(attributes, matches);
  for (auto& item : matches) (void)item->remove();
  return true;
}

std::optional<std::string> MVKeychain::attributeFromKeychainItemRef(const MVKeychainItem* item,
                                                                   MVKeychainAttrType attribute) {
  if (!item) return std::nullopt;
  std::string value;
  if (item->copyAttribute(attribute, value) != errSecSuccess) return std::nullopt;
  dropCutCharacter(value);
  if (!isValidUTF8(value)) return std::nullopt;
  return value;
}

void MVKeychain::addTrustedAppAtPath(const std::string& path, MVKeychainItem* toItemRef) {
  if (!toItemRef) return;
  std::vector<std::string> previous;
  (void)toItemRef->copyTrustedApplications(previous);
  MVPlistValue::Array list(previous.begin(), previous.end());
  consoleLine(stderr, "app path: %@", path);
  consoleLine(stderr, "apps: %@", MVPlistValue(list));
  // The new application replaces the previous ones rather than joining them.
  MVKeychainStatus status = toItemRef->setTrustedApplications({path});
  if (status != errSecSuccess)
    consoleLine(stderr, "MVKeychain: the trusted application could not be stored: %d", status);
}

std::vector<std::string> MVKeychain::trustedAppsForItemRef(const MVKeychainItem* item) {
  std::vector<std::string> paths;
  if (!item || item->copyTrustedApplications(paths) != errSecSuccess) return {};
  std::erase_if(paths, [](const std::string& path) { return path.empty(); });
  return paths;
}

std::optional<std::vector<std::string>> MVKeychain::certificateNames() {
  auto backend = currentBackend();
  std::vector<std::vector<std::uint8_t>> certificates;
  MVKeychainStatus status = backend ? backend->copyCertificates(certificates) : errSecNotAvailable;
  if (status != errSecSuccess) {
    consoleLine(stderr, "Unable to create keychain search: %ld", static_cast<long>(status));
    return std::nullopt;
  }
  std::vector<std::string> names;
  for (const auto& der : certificates) {
    bool parsed = false;
    auto name = commonNameOfCertificate(der, parsed);
    if (!parsed)
      consoleLine(stderr, "Unable to create keychain certificate from data: %ld", static_cast<long>(errSecUnknownFormat));
    else if (name)
      names.push_back(std::move(*name));
  }
  return names;
}
