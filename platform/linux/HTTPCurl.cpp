// MVHTTP through libcurl's easy interface, one handle per request.
#include "HTTPCurl.h"

#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <memory>
#include <mutex>
#include <string>

#include "LazyLibrary.h"
#include "MVHTTP.h"

namespace quillon {
namespace {

#define QUILLON_CURL_FUNCTIONS(X)                                                                   \
  X(curl_global_init) X(curl_easy_init) X(curl_easy_setopt) X(curl_easy_perform)                  \
  X(curl_easy_getinfo) X(curl_easy_cleanup) X(curl_easy_strerror) X(curl_slist_append)            \
  X(curl_slist_free_all)

QUILLON_LAZY_FUNCTIONS(CurlFunctions, QUILLON_CURL_FUNCTIONS);

std::string gMissingReason;  // written once, inside the loader's call_once

void reportCurlMissing(const std::string& reason) {
  gMissingReason = "libcurl cannot be used: " + reason;
  std::fprintf(stderr, "MVHTTP: %s\n", gMissingReason.c_str());
}

constinit LazyLibrary<CurlFunctions> gCurl("libcurl.so.4", &reportCurlMissing);

// curl.h wraps these two in argument-counting macros; the pointers replace them.
#undef curl_easy_setopt
#undef curl_easy_getinfo
#define curl_global_init QUILLON_LAZY_CALL(gCurl, curl_global_init)
#define curl_easy_init QUILLON_LAZY_CALL(gCurl, curl_easy_init)
#define curl_easy_setopt QUILLON_LAZY_CALL(gCurl, curl_easy_setopt)
#define curl_easy_perform QUILLON_LAZY_CALL(gCurl, curl_easy_perform)
#define curl_easy_getinfo QUILLON_LAZY_CALL(gCurl, curl_easy_getinfo)
#define curl_easy_cleanup QUILLON_LAZY_CALL(gCurl, curl_easy_cleanup)
#define curl_easy_strerror QUILLON_LAZY_CALL(gCurl, curl_easy_strerror)
#define curl_slist_append QUILLON_LAZY_CALL(gCurl, curl_slist_append)
#define curl_slist_free_all QUILLON_LAZY_CALL(gCurl, curl_slist_free_all)

constexpr std::size_t kBodyLimit = 64 * 1024;

struct EasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* body = static_cast<std::string*>(user);
  std::size_t bytes = size * count;
  if (body->size() < kBodyLimit) body->append(data, std::min(bytes, kBodyLimit - body->size()));
  return bytes;
}

MVHTTPFailure failureFor(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return MVHTTPFailure::Connection;
    case CURLE_OPERATION_TIMEDOUT:
      return MVHTTPFailure::Timeout;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return MVHTTPFailure::Certificate;
    default:
      return MVHTTPFailure::Other;
  }
}

// The certificate authorities as the curl program finds them.
void setCertificateAuthorities(CURL* handle) {
  if (const char* bundle = std::getenv("CURL_CA_BUNDLE"); bundle && *bundle)
    curl_easy_setopt(handle, CURLOPT_CAINFO, bundle);
  else if (const char* file = std::getenv("SSL_CERT_FILE"); file && *file)
    curl_easy_setopt(handle, CURLOPT_CAINFO, file);
  else if (const char* dir = std::getenv("SSL_CERT_DIR"); dir && *dir)
    curl_easy_setopt(handle, CURLOPT_CAPATH, dir);
}

class CurlHTTP final : public MVHTTP::Backend {
 public:
  MVHTTPResponse perform(const MVHTTPRequest& request) override {
    MVHTTPResponse response;
    if (!load()) {
      response.failure = MVHTTPFailure::Other;
      response.error = gMissingReason;
      return response;
    }
    std::unique_ptr<CURL, EasyDeleter> handle(curl_easy_init());
    if (!handle) {
      response.failure = MVHTTPFailure::Other;
      response.error = "libcurl could not make a request";
      return response;
    }
    CURL* h = handle.get();
    char errorText[CURL_ERROR_SIZE] = {};
    std::unique_ptr<curl_slist, ListDeleter> headers;
    for (const auto& header : request.headers) {
      curl_slist* appended = curl_slist_append(headers.get(), header.c_str());
      if (appended) {
        (void)headers.release();
        headers.reset(appended);
      }
    }
    curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);  // many threads; no SIGALRM for resolver time-outs
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutSeconds * 1000));
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "Quillon");
    setCertificateAuthorities(h);
    if (request.method == "POST") {
      curl_easy_setopt(h, CURLOPT_POST, 1L);
    } else if (request.method != "GET") {
      curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    if (request.method != "GET") {
      curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.body.data());
      curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    }
    if (headers) curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    if (request.basicAuth) {
      curl_easy_setopt(h, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
      curl_easy_setopt(h, CURLOPT_USERNAME, request.username.c_str());
      curl_easy_setopt(h, CURLOPT_PASSWORD, request.password.c_str());
    }
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &collectBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &response.body);

    CURLcode code = curl_easy_perform(h);
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    response.status = static_cast<int>(status);
    curl_off_t retryAfter = 0;
    if (curl_easy_getinfo(h, CURLINFO_RETRY_AFTER, &retryAfter) == CURLE_OK && retryAfter > 0)
      response.retryAfterSeconds = static_cast<double>(retryAfter);
    if (code != CURLE_OK) {
      response.failure = failureFor(code);
      response.error = *errorText ? errorText : curl_easy_strerror(code);
    }
    return response;
  }

 private:
  static bool load() {
    if (!gCurl.load()) return false;
    static std::once_flag initialised;
    std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    return true;
  }
};

}  // namespace

void installCurlHTTP() { MVHTTP::setBackend(std::make_shared<CurlHTTP>()); }

}  // namespace quillon
