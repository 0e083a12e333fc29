// Sending a push: one HTTP request per target in the form its service
// documents, all targets at once, each within its own time-out and with one
// retry when the service was unreachable or said "later".
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "AppController.h"
#include "MVCrashLog.h"
#include "MVHTTP.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "PushTargets.h"

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<double> gTimeoutSeconds{PushTargets::kTimeoutSeconds};
// Long enough for a service that dropped a connection to take the next one.
constexpr double kRetryPauseSeconds = 1.0;

// ---- text encodings ----

// Valid UTF-8 as it stands; each byte of a broken sequence becomes U+FFFD,
// so that a file name in another encoding still makes valid JSON.
std::string validUTF8(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    std::size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    bool ok = len > 0 && i + len <= text.size();
    for (std::size_t k = 1; ok && k < len; ++k) ok = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
    if (ok) {
      out.append(text, i, len);
      i += len;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

std::string json(const std::string& text) {
  std::string out = "\"";
  for (char ch : validUTF8(text)) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (ch) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", c);
          out += escape;
        } else {
          out += ch;
        }
    }
  }
  return out + "\"";
}

std::string jsonOrNull(const std::string& text) { return text.empty() ? "null" : json(text); }

// Percent-encodes all but the unreserved characters and `keep`.
std::string percentEncoded(const std::string& text, const char* keep = "") {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || ch == '-' || ch == '.' || ch == '_' || ch == '~' || (ch != 0 && std::strchr(keep, ch))) {
      out += ch;
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string formField(const char* name, const std::string& value) {
  return std::string(name) + "=" + percentEncoded(validUTF8(value));
}

// ---- the request of each service ----

std::string apiBase(const char* variable, const char* standard) {
  const char* value = std::getenv(variable);
  std::string base = value && *value ? value : standard;
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base;
}

std::string origin(const PushTarget& t) { return std::string(t.tls ? "https" : "http") + "://" + t.host; }

// The segments before the last one, as a path prefix ("/a/b" or "").
std::string prefix(const PushTarget& t) {
  std::string out;
  for (std::size_t i = 0; i + 1 < t.path.size(); ++i) out += "/" + percentEncoded(t.path[i]);
  return out;
}

std::string hostWithoutPort(const std::string& host) {
  if (!host.empty() && host[0] == '[') return host.substr(0, host.find(']') + 1);
  return host.substr(0, host.find(':'));
}

MVHTTPRequest jsonPost(std::string url, std::string body) {
  MVHTTPRequest request;
  request.url = std::move(url);
  request.body = std::move(body);
  request.headers.push_back("Content-Type: application/json");
  return request;
}

std::string plainText(const PushMessage& m) { return m.title + "\n\n" + m.body; }

std::string webhookDocument(const PushMessage& m) {
  return "{\"event\":" + json(m.success ? "render.finished" : "render.failed") + ",\"type\":" + jsonOrNull(m.type) +
         ",\"fileName\":" + jsonOrNull(m.fileName) + ",\"fullPath\":" + jsonOrNull(m.fullPath) +
         ",\"project\":" + jsonOrNull(m.project) + ",\"batchName\":" + jsonOrNull(m.batchName) +
         ",\"hostName\":" + jsonOrNull(m.hostName) + ",\"time\":" + json(m.time) + ",\"title\":" + json(m.title) +
         ",\"message\":" + json(m.body) + "}";
}

// The one request that delivers `m` to `t` (for Matrix, once the room is known).
MVHTTPRequest requestFor(const PushTarget& t, const PushMessage& m, const std::string& matrixRoomID) {
  const bool ok = m.success;
  switch (t.service) {
    case PushService::Ntfy: {
      MVHTTPRequest r = jsonPost(origin(t) + prefix(t) + "/",
                                 "{\"topic\":" + json(t.path.back()) + ",\"title\":" + json(m.title) +
                                     ",\"message\":" + json(m.body) + ",\"priority\":" + (ok ? "3" : "4") +
                                     ",\"tags\":[" + (ok ? "\"white_check_mark\"" : "\"warning\"") + "]}");
      if (t.hasPassword) {
        r.basicAuth = true;
        r.username = t.user;
        r.password = t.password;
      } else if (!t.user.empty()) {
        r.headers.push_back("Authorization: Bearer " + t.user);  // an access token
      }
      return r;
    }
    case PushService::Pushover: {
      MVHTTPRequest r;
      r.url = apiBase("QUILLON_PUSHOVER_API", "https://api.pushover.net") + "/1/messages.json";
      r.headers.push_back("Content-Type: application/x-www-form-urlencoded");
      r.body = formField("token", t.path[0]) + "&" + formField("user", t.user) + "&" + formField("title", m.title) +
               "&" + formField("message", m.body) + "&" + formField("priority", ok ? "0" : "1");
      return r;
    }
    case PushService::Gotify: {
      MVHTTPRequest r = jsonPost(origin(t) + prefix(t) + "/message",
                                 "{\"title\":" + json(m.title) + ",\"message\":" + json(m.body) +
                                     ",\"priority\":" + (ok ? "5" : "8") + "}");
      r.headers.push_back("X-Gotify-Key: " + t.path.back());
      return r;
    }
    case PushService::Telegram:
      return jsonPost(apiBase("QUILLON_TELEGRAM_API", "https://api.telegram.org") + "/bot" +
                          percentEncoded(t.path[0], ":") + "/sendMessage",
                      "{\"chat_id\":" + json(t.path[1]) + ",\"text\":" + json(plainText(m)) + "}");
    case PushService::Discord:
      return jsonPost(apiBase("QUILLON_DISCORD_API", "https://discord.com") + "/api/webhooks/" +
                          percentEncoded(t.path[0]) + "/" + percentEncoded(t.path[1]),
                      "{\"embeds\":[{\"title\":" + json(m.title) + ",\"description\":" + json(m.body) +
                          ",\"color\":" + (ok ? "3066993" : "15158332") + "}]}");
    case PushService::Slack:
      return jsonPost(apiBase("QUILLON_SLACK_API", "https://hooks.slack.com") + "/services/" +
                          percentEncoded(t.path[0]) + "/" + percentEncoded(t.path[1]) + "/" + percentEncoded(t.path[2]),
                      "{\"text\":" + json(m.title) + ",\"attachments\":[{\"color\":" + (ok ? "\"good\"" : "\"danger\"") +
                          ",\"title\":" + json(m.title) + ",\"text\":" + json(m.body) + "}]}");
    case PushService::Matrix: {
      // A transaction id per message: a retried request is then sent once only.
      static std::atomic<unsigned> counter{0};
      std::string txn = "quillon." + std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                        std::chrono::system_clock::now().time_since_epoch())
                                                        .count()) +
                        "." + std::to_string(++counter);
      MVHTTPRequest r = jsonPost("https://" + t.host + "/_matrix/client/v3/rooms/" + percentEncoded(matrixRoomID) +
                                     "/send/m.room.message/" + txn,
                                 "{\"msgtype\":\"m.text\",\"body\":" + json(plainText(m)) + "}");
      r.method = "PUT";
      r.headers.push_back("Authorization: Bearer " + (t.hasPassword ? t.password : t.user));
      return r;
    }
    case PushService::JSON: {
      MVHTTPRequest r = jsonPost(origin(t) + (t.rawPath.empty() ? "/" : t.rawPath), webhookDocument(m));
      if (!t.user.empty() || t.hasPassword) {
        r.basicAuth = true;
        r.username = t.user;
        r.password = t.password;
      }
      return r;
    }
  }
  return {};
}

// ---- delivery with the one retry ----

bool succeeded(const MVHTTPResponse& r) { return r.failure == MVHTTPFailure::None && r.status >= 200 && r.status < 300; }

double secondsLeft(Clock::time_point deadline) {
  return std::chrono::duration<double>(deadline - Clock::now()).count();
}

MVHTTPResponse timedOut() {
  MVHTTPResponse r;
  r.failure = MVHTTPFailure::Timeout;
  r.error = "timed out";
  return r;
}

MVHTTPResponse performWithRetry(MVHTTPRequest request, Clock::time_point deadline, int& attempts) {
  for (int attempt = 1;; ++attempt) {
    double left = secondsLeft(deadline);
    if (left <= 0) return timedOut();
    request.timeoutSeconds = left;
    MVHTTPResponse r = MVHTTP::perform(request);
    ++attempts;
    bool retryable = r.failure == MVHTTPFailure::Connection ||
                     (r.failure == MVHTTPFailure::None && (r.status >= 500 || r.status == 429));
    if (!retryable || attempt == 2) return r;
    double pause = r.retryAfterSeconds.value_or(kRetryPauseSeconds);
    if (pause >= secondsLeft(deadline)) {
      r.error = "asked to wait " + std::to_string(static_cast<long>(pause)) + " s, past the time-out";
      return r;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(pause));
  }
}

// The room id of a Matrix target: as given, or what the server's directory
// answers for an alias.
std::optional<std::string> matrixRoom(const PushTarget& t, Clock::time_point deadline, int& attempts,
                                      MVHTTPResponse& failure) {
  std::string room = t.path[0];
  if (room.find(':') == std::string::npos) room += ":" + hostWithoutPort(t.host);
  if (room[0] == '!') return room;
  MVHTTPRequest lookup;
  lookup.method = "GET";
  lookup.url = "https://" + t.host + "/_matrix/client/v3/directory/room/" + percentEncoded(room);
  lookup.headers.push_back("Authorization: Bearer " + (t.hasPassword ? t.password : t.user));
  failure = performWithRetry(lookup, deadline, attempts);
  if (!succeeded(failure)) return std::nullopt;
  // {"room_id": "!abc:host", "servers": [...]}: the one string we need.
  const std::string& body = failure.body;
  auto key = body.find("\"room_id\"");
  auto open = key == std::string::npos ? key : body.find('"', body.find(':', key + 9));
  auto close = open == std::string::npos ? open : body.find('"', open + 1);
  if (close == std::string::npos || body[open + 1] != '!') {
    failure.failure = MVHTTPFailure::Other;
    failure.error = "the server named no room for " + room;
    return std::nullopt;
  }
  return body.substr(open + 1, close - open - 1);
}

std::string describe(const MVHTTPResponse& r) {
  if (r.failure != MVHTTPFailure::None) {
    std::string kind = r.failure == MVHTTPFailure::Certificate ? "certificate refused: "
                       : r.failure == MVHTTPFailure::Timeout   ? "no answer in time: "
                       : r.failure == MVHTTPFailure::Connection ? "cannot connect: "
                                                                : "";
    return kind + r.error;
  }
  std::string text = "HTTP " + std::to_string(r.status);
  if (!succeeded(r) && !r.error.empty()) text += " (" + r.error + ")";
  return text;
}

PushResult deliver(const std::string& url, const PushMessage& message) {
  PushResult result;
  result.target = PushTargets::mask(url);
  std::string error;
  auto target = PushTargets::parse(url, error);
  if (!target) {
    result.detail = error;
    return result;
  }
  Clock::time_point deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(gTimeoutSeconds.load()));
  std::string room;
  MVHTTPResponse response;
  if (target->service == PushService::Matrix) {
    int lookups = 0;  // the room's lookup is not an attempt at the message
    auto found = matrixRoom(*target, deadline, lookups, response);
    if (!found) {
      result.attempts = lookups;
      result.status = response.status;
      result.detail = describe(response);
      return result;
    }
    room = *found;
  }
  response = performWithRetry(requestFor(*target, message, room), deadline, result.attempts);
  result.status = response.status;
  result.sent = succeeded(response);
  result.detail = describe(response);
  return result;
}

void logResult(const PushResult& r) {
  std::string tries = r.attempts > 1 ? " after " + std::to_string(r.attempts) + " attempts" : std::string();
  if (r.sent)
    MVLog::appendLog("Push to %@ sent (%@)%@", r.target, r.detail, tries);
  else
    MVLog::appendLog("Push to %@ failed: %@%@", r.target, r.detail, tries);
}

}  // namespace

std::vector<PushResult> PushTargets::send(const std::vector<std::string>& urls, const PushMessage& message) {
  std::vector<PushResult> results(urls.size());
  std::vector<std::thread> senders;
  for (std::size_t i = 0; i < urls.size(); ++i)
    senders.emplace_back([&, i] {
      MVCrashLog::prepareThread();
      results[i] = deliver(urls[i], message);
      logResult(results[i]);
    });
  for (auto& sender : senders) sender.join();
  return results;
}

std::vector<PushResult> PushTargets::sendToAll(const PushMessage& message) {
  std::vector<std::string> urls;
  std::vector<PushResult> unreadable;
  for (const auto& entry : list()) {
    if (entry.url) {
      urls.push_back(*entry.url);
    } else {
      PushResult r;
      r.target = entry.stored;
      r.detail = entry.problem;
      logResult(r);
      unreadable.push_back(std::move(r));
    }
  }
  std::vector<PushResult> results = send(urls, message);
  results.insert(results.end(), unreadable.begin(), unreadable.end());
  return results;
}

PushMessage PushTargets::sampleMessage() {
  const std::string file = "Quillon test.mov";
  MVPlistValue render{MVPlistValue::Dictionary{}};
  render.set("type", "watchFile");
  render.set("watchFilename", file);
  render.set("fullPath", MVAppendPathComponent(MVLocalPaths::movieDirectory(), file));
  return AppController::pushMessageForRender(render, true);
}

std::vector<PushResult> PushTargets::sendTest() { return sendToAll(sampleMessage()); }

void PushTargets::setTimeoutForTesting(double seconds) { gTimeoutSeconds = seconds > 0 ? seconds : kTimeoutSeconds; }
