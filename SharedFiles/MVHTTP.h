// MVHTTP: one HTTP request, made synchronously on the calling thread.
//
// For the few things the agent sends over the web (push notifications). The
// request waits at most its time-out; the answer says what came back or why
// nothing did, sorted into the failures a caller treats differently: a
// connection that could not be made or broke (worth one more try), the
// time-out, a certificate that was refused (never retried), anything else.
//
// Platforms (one Backend each): Linux uses libcurl, loaded at the first
// request, with certificate checks on, the proxy from the environment
// (http_proxy, https_proxy, no_proxy) and HTTP/2 where the server offers it;
// the certificate authorities come from CURL_CA_BUNDLE or SSL_CERT_FILE (or
// the folder SSL_CERT_DIR) when set, as for the curl program, else from the
// system's store. Only http and https URLs are followed; redirects are not.
//
// Threads: perform() may be called from any thread, several at once.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct MVHTTPRequest {
  std::string method = "POST";
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  std::string body;
  // HTTP Basic authentication when `basicAuth` is set.
  bool basicAuth = false;
  std::string username;
  std::string password;
  double timeoutSeconds = 15;
};

enum class MVHTTPFailure { None, Connection, Timeout, Certificate, Other };

struct MVHTTPResponse {
  MVHTTPFailure failure = MVHTTPFailure::None;
  int status = 0;           // the HTTP status when an answer came
  std::string body;         // the first 64 KiB of the answer
  std::optional<double> retryAfterSeconds;  // from a Retry-After header
  std::string error;        // what went wrong, when failure is not None
};

class MVHTTP {
 public:
  class Backend {
   public:
    virtual ~Backend() = default;
    virtual MVHTTPResponse perform(const MVHTTPRequest& request) = 0;
  };

  MVHTTP() = delete;
  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);
  // Without a backend, fails with failure Other.
  static MVHTTPResponse perform(const MVHTTPRequest& request);
};
