// push: the phone and team-chat targets, each kept as its masked form in the
// settings and its whole URL in the secret store.
#include <iostream>

#include "HTTPCurl.h"
#include "KeychainSecretService.h"
#include "MVKeychain.h"
#include "PrefsCommands.h"
#include "PrefsTool.h"
#include "PushTargets.h"
#include "SessionBusNotices.h"

namespace prefs {

namespace {

void tellAgent() {
  std::string problem;
  if (!postConfigUpdate(problem))
    std::cerr << "quillon-prefs: saved, but " << problem << ": a running agent will not reload until told\n";
}

// The secret store stays open for the command only.
struct SecretStore {
  SecretStore() { MVKeychain::setBackend(quillon::createSecretServiceKeychain()); }
  ~SecretStore() { MVKeychain::setBackend(nullptr); }
};

}  // namespace

int runPush(const Arguments& arguments) {
  const Command& command = *findCommand("push");
  const std::string action = arguments.empty() ? "list" : arguments[0];
  SecretStore store;
  if (action == "list" && arguments.size() <= 1) {
    auto entries = PushTargets::list();
    if (entries.empty()) std::cout << "No push targets ('quillon-prefs push add URL' adds one)\n";
    for (std::size_t i = 0; i < entries.size(); ++i) {
      std::cout << "  " << i + 1 << "  " << entries[i].stored;
      if (!entries[i].url) std::cout << "  (" << entries[i].problem << ")";
      std::cout << "\n";
    }
    return kSucceeded;
  }
  if ((action == "add" || action == "remove") && arguments.size() == 2) {
    std::string error, which;
    bool ok = action == "add" ? PushTargets::add(arguments[1], error, &which)
                              : PushTargets::remove(arguments[1], error, &which);
    if (!ok) return fail(error);
    std::cout << (action == "add" ? "Added " : "Removed ") << which << "\n";
    tellAgent();
    return kSucceeded;
  }
  return usageError(command, "push takes 'list', 'add URL' or 'remove NUMBER|URL'");
}

int testPush() {
  startToolLog();
  SecretStore store;
  quillon::installCurlHTTP();
  auto results = PushTargets::sendTest();
  if (results.empty()) return fail("no push targets ('quillon-prefs push add URL'); nothing was sent");
  bool all = true;
  for (const auto& r : results) {
    std::cout << (r.sent ? "sent    " : "FAILED  ") << r.target << "  " << r.detail << "\n";
    all = all && r.sent;
  }
  return all ? kSucceeded : kFailed;
}

}  // namespace prefs
