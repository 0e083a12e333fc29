// The Secret Service (org.freedesktop.secrets on the session bus: gnome-keyring,
// KeePassXC, ...) as MVKeychain's keychain, through libsecret.
//
// Items are stored in the default collection with the attributes "acct",
// "desc", "labl" and "svce" and the item name as label, under the schema name
// "com.morvane.Keychain.GenericPassword"; searches ignore the schema name, so
// items that another tool (secret-tool, a password manager) wrote with these
// attributes are found too. The first of several matches is the oldest.
// Locked items are unlocked on search, which may ask the user through the
// keyring's own prompt.
//
// Threads: every call uses libsecret's synchronous operations, which run a
// private main context of their own; they may be made from any thread,
// including the main thread while its loop is running, and never dispatch
// anything onto the main loop.
//
// Without a session bus or without a Secret Service on it, each operation
// writes one line saying so on standard error and finds nothing.
#pragma once

#include <memory>

#include "MVKeychain.h"

namespace quillon {

// Install with MVKeychain::setBackend(). Releasing the backend (setBackend
// with nullptr) closes the connection to the service.
std::unique_ptr<MVKeychainBackend> createSecretServiceKeychain();

}  // namespace quillon
