// password: the SMTP password, kept in the secret store where the agent's
// mail senders look for it.
#include <iostream>

#include "KeychainSecretService.h"
#include "MVKeychain.h"
#include "PasswordInput.h"
#include "PrefsCommands.h"
#include "QuillonPreferences.h"

using namespace QuillonSettingsKeys;

namespace prefs {

namespace {

// The store keeps as many bytes as the text has characters, so anything
// beyond ASCII would come back cut short and the server would refuse it.
bool isASCII(const std::string& text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

}  // namespace

int runPassword(const Arguments& arguments) {
  const Command& command = *findCommand("password");
  if (arguments.size() > 1) return usageError(command, "password takes at most one action; never the password itself");
  const std::string action = arguments.empty() ? "set" : arguments[0];
  if (action != "set" && action != "status" && action != "delete")
    return usageError(command, "unknown action '" + action + "' (the password is never given on the command line)");

  auto settings = readSettings();
  if (!settings) return kFailed;
  const std::string* sender = (*settings)[kEmailFromAddressKey].string();
  if (!sender || sender->empty())
    return fail("emailFromAddress is not set; the password is stored under the sender address, so set that first");

  const std::string item = MVKeychain::agentItemName(*sender);
  const std::string kind(MVKeychain::kEmailPasswordKind);
  MVKeychain::setBackend(quillon::createSecretServiceKeychain());
  const bool stored = MVKeychain::checkForExistenceOfKeychainItem(item, kind, *sender, "");

  if (action == "status") {
    std::cout << (stored ? "An SMTP password is stored" : "No SMTP password is stored") << " for " << *sender
              << " (item \"" << item << "\")\n";
    return stored ? kSucceeded : kFailed;
  }
  if (action == "delete") {
    if (!stored) {
      std::cout << "No SMTP password is stored for " << *sender << "\n";
      return kSucceeded;
    }
    if (!MVKeychain::deleteKeychainItem(item, kind, *sender, "")) return fail("could not delete \"" + item + "\"");
    std::cout << "Deleted the SMTP password for " << *sender << "\n";
    return kSucceeded;
  }

  std::string error;
  auto password = readSecret("SMTP password for " + *sender, error);
  if (!password) return fail(error + "; nothing was stored");
  if (!isASCII(*password))
    return fail("the password has non-ASCII characters, which the secret store cannot keep whole; nothing was stored");
  const bool saved = stored ? MVKeychain::modifyKeychainItem(item, kind, *sender, "", *password)
                            : MVKeychain::addKeychainItem(item, kind, *sender, *password, "");
  if (!saved) return fail("could not store the password in the secret store (is a keyring running and unlocked?)");
  std::cout << (stored ? "Replaced" : "Stored") << " the SMTP password for " << *sender << " (item \"" << item
            << "\")\n";
  return kSucceeded;
}

}  // namespace prefs
