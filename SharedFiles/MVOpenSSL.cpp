#include "MVOpenSSL.h"

#include "MVLog.h"

namespace {

void reportOpenSSLMissing(const std::string& reason) {
  MVLog::appendLog("Encryption and secure mail are not available: %s", reason);
}

}  // namespace

// libssl brings libcrypto with it, and its handle finds the functions of both.
constinit quillon::LazyLibrary<MVOpenSSLFunctions> gMVOpenSSL("libssl.so.3", &reportOpenSSLMissing);
