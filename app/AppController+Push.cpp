// Telling the user's phone and team chat: the push action of an outcome.
#include <unistd.h>

#include <chrono>
#include <ctime>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "PushTargets.h"

using namespace quillon;

namespace {

std::string stringValue(const MVPlistValue& v) {
  if (const std::string* s = v.string()) return *s;
  return v.isNil() ? std::string() : v.description();
}

std::string rfc3339Now() {
  std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace

PushMessage AppController::pushMessageForRender(const RenderDescription& render, bool success) {
  Message text = messageForRender(render, success);
  PushMessage m;
  m.success = success;
  m.title = text.subject;
  m.body = text.emailBody;
  m.type = stringValue(render["type"]);
  m.fullPath = stringValue(render["fullPath"]);
  m.project = stringValue(render["projectName"]);
  if (m.type == "qmaster") {
    m.batchName = stringValue(render["name"]);
  } else if (!m.fullPath.empty()) {
    m.fileName = render["watchFilename"].isNil() ? lastPathComponent(m.fullPath) : stringValue(render["watchFilename"]);
  }
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) == 0) m.hostName = host;
  m.time = rfc3339Now();
  return m;
}

void AppController::sendPush(const RenderDescription& render, bool success) {
  incrementAsyncJobs();
  PushMessage message = pushMessageForRender(render, success);
  // The secret store and the network may both keep it waiting for seconds.
  MVRunLoop::detachThread([this, message] {
    std::vector<PushResult> results = PushTargets::sendToAll(message);
    if (results.empty()) MVLog::appendLog("Push: no targets in pushTargets");
    decrementAsyncJobs();
  });
}
