// The SMTP session against a scripted peer: the dialogue's bytes, the failure
// codes of the sharp cases, port fallback and the lifetime rules.
#include "SKPSMTPMessage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <regex>
#include <thread>

#include "SMTPRelay.h"
#include "smtp/ScriptedSMTPServer.h"

using namespace quillon_test;

namespace {

// Replies of a well-behaved server; `overrides` maps a command prefix to the
// reply that replaces the usual one.
ScriptedSMTPServer::Reply replies(std::map<std::string, std::string> overrides = {}) {
  return [overrides](const std::string& line) -> std::string {
    for (const auto& [prefix, reply] : overrides)
      if (line.rfind(prefix, 0) == 0) return reply;
    if (line.rfind("EHLO", 0) == 0) return "250-test.example\r\n250-STARTTLS\r\n250-8BITMIME\r\n250 HELP\r\n";
    if (line.rfind("AUTH PLAIN", 0) == 0) return "235 ok\r\n";
    if (line.rfind("AUTH LOGIN", 0) == 0) return "334 VXNlcm5hbWU6\r\n";
    if (line.rfind("MAIL", 0) == 0 || line.rfind("RCPT", 0) == 0) return "250 OK\r\n";
    if (line == "DATA") return "354 go ahead\r\n";
    if (line == ".") return "250 queued\r\n";
    if (line == "QUIT") return "221 bye\r\n#close";
    return "";
  };
}

// A message reporting to `reports`.
std::shared_ptr<SKPSMTPMessage> makeMessage(SMTPReports& reports, std::vector<int> ports) {
  auto message = SKPSMTPMessage::create();
  message->setRelayHost("127.0.0.1");
  message->setRelayPorts(std::move(ports));
  message->setFromEmail("render@studio.example");
  message->setToEmail("editor@studio.example");
  message->setSubject("clip.mov Finished");
  message->setParts({{{kSKPSMTPPartContentTypeKey, "text/plain"},
                      {kSKPSMTPPartContentTransferEncodingKey, "8bit"},
                      {kSKPSMTPPartMessageKey, "Done."}}});
  message->setDelegate(&reports);
  message->setConnectTimeout(1.0);
  message->setTimeoutsForTesting(0.6, 0.6);
  return message;
}

// Sends one message as "ali" with password "sesame" through a scripted
// server and returns what it received.
std::string sendThroughScript(SMTPReports& reports, const std::string& greeting,
                              const std::map<std::string, std::string>& overrides, bool requiresAuth,
                              bool wantsSecure) {
  ScriptedSMTPServer server(greeting, replies(overrides));
  auto message = makeMessage(reports, {server.port()});
  message->setRequiresAuth(requiresAuth);
  message->setWantsSecure(wantsSecure);
  message->setLogin("ali");
  message->setPass("sesame");
  reports.sendAndWait(std::move(message));
  EXPECT_EQ(reports.count(), 1);
  EXPECT_EQ(server.connections(), 1);
  return server.transcript();
}

}  // namespace

TEST(SKPSMTPMessage, WritesTheWholeDialogueByteForByte) {
  setenv("TZ", "UTC", 1);
  setenv("LC_ALL", "C", 1);
  ScriptedSMTPServer server("220 test.example ESMTP\r\n", replies());
  SMTPReports reports;
  auto message = makeMessage(reports, {server.port()});
  message->setToEmail("a@x.example; Bea <b@y.example>,");
  message->setCcEmail("c@z.example");
  message->setBccEmail("hidden@w.example");
  // Outside text cannot add a header or end the data: control characters in
  // header values become spaces, and the text's lines (whatever their line
  // breaks) are sent with CR LF and dot-stuffed.
  message->setSubject("Caf\xC3\xA9 render\r\nBcc: thief@evil.example");
  message->setParts({{{kSKPSMTPPartContentDispositionKey, "inline"},
                      {kSKPSMTPPartContentTypeKey, "text/plain; charset=UTF-8"},
                      {kSKPSMTPPartContentTransferEncodingKey, "8bit"},
                      {kSKPSMTPPartMessageKey, "Gr\xC3\xBC\xC3\x9F" "e\r\n.dot\n.\rRCPT TO:<x@evil.example>"}},
                     {{kSKPSMTPPartContentTypeKey, "application/octet-stream"},
                      {kSKPSMTPPartContentTransferEncodingKey, "base64"},
                      {kSKPSMTPPartMessageKey, "AAEC"}}});
  reports.message = std::move(message);

  // Started from a worker thread; the dialogue and the report stay on the main thread.
  std::atomic<bool> started{false}, returned{false};
  std::thread worker([&, sending = reports.message] { started = sending->send(), returned = true; });
  EXPECT_TRUE(waitUntil([&] { return returned.load(); }, 5));
  worker.join();
  EXPECT_TRUE(started);
  reports.await();
  EXPECT_EQ(reports.sent, 1);
  EXPECT_EQ(reports.count(), 1);
  EXPECT_TRUE(reports.onMainThread);

  // STARTTLS and 8BITMIME are offered but neither wanted nor used without authentication.
  const std::string expected =
      "EHLO localhost\r\n"
      "MAIL FROM:<render@studio.example>\r\n"
      "RCPT TO:<a@x.example>\r\n"
      "RCPT TO:Bea <b@y.example>\r\n"
      "RCPT TO:<>\r\n"
      "RCPT TO:<c@z.example>\r\n"
      "RCPT TO:<hidden@w.example>\r\n"
      "DATA\r\n"
      "Date: @DATE@\r\n"
      "Message-id: <@ID@@127.0.0.1>\r\n"
      "From:render@studio.example\r\n"
      "To:a@x.example; Bea <b@y.example>,\r\n"
      "Cc:c@z.example\r\n"
      "Content-Type: multipart/mixed; boundary=SKPSMTPMessage--Separator--Delimiter\r\n"
      "Mime-Version: 1.0 (SKPSMTPMessage 1.0)\r\n"
      "Subject:Cafe render  Bcc: thief@evil.example\r\n"
      "\r\n"
      "--SKPSMTPMessage--Separator--Delimiter\r\n"
      "Content-Disposition: inline\r\n"
      "Content-Type: text/plain; charset=UTF-8\r\n"
      "Content-Transfer-Encoding: 8bit\r\n"
      "\r\n"
      "Gr\xC3\xBC\xC3\x9F" "e\r\n..dot\r\n..\r\nRCPT TO:<x@evil.example>\r\n"
      "--SKPSMTPMessage--Separator--Delimiter\r\n"
      "Content-Type: application/octet-stream\r\n"
      "Content-Transfer-Encoding: base64\r\n"
      "\r\n"
      "AAEC\r\n"
      "--SKPSMTPMessage--Separator--Delimiter\r\n"
      "\r\n.\r\n"
      "QUIT\r\n";
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  std::string pattern = std::regex_replace(expected, special, R"(\$&)");
  pattern = std::regex_replace(pattern, std::regex("@DATE@"),
                               R"([A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} \+0000)");
  pattern = std::regex_replace(pattern, std::regex("@ID@"), "[0-9A-F]{32}");
  EXPECT_TRUE(std::regex_match(server.transcript(), std::regex(pattern))) << server.transcript();
}

// Every state of the dialogue, ended by the server's answer, its silence or its hanging up.
TEST(SKPSMTPMessage, ReportsEachOutcomeOnceWithItsCode) {
  const char* kDropped = "The connection to the server was interrupted.";
  const char* kTimedOut = "Timeout sending message.";
  struct Case {
    const char* name;
    std::string greeting;
    std::map<std::string, std::string> overrides;
    bool requiresAuth;
    long expectedCode;  // 0: sent
    const char* expectedDescription;
    bool wantsSecure = false;
  };
  std::string noise;  // one unmatched line every 200 ms for 16 seconds
  for (int i = 0; i < 80; ++i) noise += "250-still thinking\r\n|";
  const Case cases[] = {
      {"only CRAM-MD5 offered", "220 hi\r\n", {{"EHLO", "250-AUTH CRAM-MD5 DIGEST-MD5\r\n250 OK\r\n"}}, true, -2,
       "Unsupported login mechanism."},
      {"535 on AUTH", "220 hi\r\n", {{"EHLO", "250-AUTH PLAIN LOGIN\r\n250 OK\r\n"}, {"AUTH", "535 no\r\n"}}, true,
       535, "Invalid username or password."},
      {"530 on RCPT", "220 hi\r\n", {{"RCPT", "530 relay denied\r\n"}}, false, 530, "Relay rejected."},
      {"550 on RCPT", "220 hi\r\n", {{"RCPT", "550 unknown user\r\n"}}, false, 550, "To address rejected."},
      {"550 on MAIL FROM is ignored until the watchdog", "220 hi\r\n", {{"MAIL", "550 sender refused\r\n"}}, false,
       -5, kTimedOut},
      {"550 after the message text", "220 hi\r\n", {{".", "550 rejected\r\n"}}, false, 550, "Failed to logout."},
      {"no reply to QUIT counts as sent", "220 hi\r\n", {{"QUIT", ""}}, false, 0, nullptr},
      {"250 split across reads stalls", "220 hi\r\n", {{"EHLO", "250-test\r\n25|0 OK\r\n"}}, false, -5, kTimedOut},
      {"noise trickled after EHLO does not hold off the watchdog", "220 hi\r\n", {{"EHLO", noise}}, false, -5, kTimedOut},
      {"garbage and an over-long line before the greeting",
       "\x01\xFFnoise\r\n" + std::string(5000, 'x') + "\r\n|220 hi\r\n", {}, false, 0, nullptr},
      {"AUTH LOGIN when PLAIN is missing", "220 hi\r\n",
       {{"EHLO", "250-AUTH LOGIN\r\n250 OK\r\n"}, {"YWxp", "334 UGFzc3dvcmQ6\r\n"}, {"c2VzYW1l", "235 ok\r\n"}}, true,
       0, nullptr},
      // TLS wanted: no encryption, no authentication and no message.
      {"STARTTLS not offered", "220 hi\r\n", {{"EHLO", "250-AUTH PLAIN\r\n250 OK\r\n"}}, true, -6,
       "The server offered no encryption.", true},
      {"STARTTLS not offered, no authentication either", "220 hi\r\n", {{"EHLO", "250-8BITMIME\r\n250 OK\r\n"}},
       false, -6, "The server offered no encryption.", true},
      {"a login prompt instead of the TLS go-ahead", "220 hi\r\n",
       {{"STARTTLS", "334 VXNlcm5hbWU6\r\n"}, {"YWxp", "334 UGFzc3dvcmQ6\r\n"}}, true, -6,
       "The server offered no encryption.", true},
      {"closed before the greeting", "#close", {}, false, -4, kDropped},
      {"closed after STARTTLS", "220 hi\r\n", {{"STARTTLS", "#close"}}, false, -4, kDropped, true},
      {"closed after AUTH PLAIN", "220 hi\r\n", {{"EHLO", "250-AUTH PLAIN\r\n250 OK\r\n"}, {"AUTH", "#close"}},
       true, -4, kDropped},
      {"closed after the message text", "220 hi\r\n", {{".", "#close"}}, false, -4, kDropped},
      // Only a 221 or silence counts as sent once the text was taken.
      {"closed after QUIT without 221", "220 hi\r\n", {{"QUIT", "#close"}}, false, -4, kDropped},
      {"silent after the message text", "220 hi\r\n", {{".", ""}}, false, -5, kTimedOut},
      {"silent after the user name", "220 hi\r\n", {{"EHLO", "250-AUTH LOGIN\r\n250 OK\r\n"}}, true, -5, kTimedOut},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SMTPReports reports;
    const std::string transcript = sendThroughScript(reports, c.greeting, c.overrides, c.requiresAuth, c.wantsSecure);
    EXPECT_EQ(reports.sent, c.expectedCode == 0 ? 1 : 0);
    if (c.expectedCode != 0) {
      ASSERT_EQ(reports.failures.size(), 1u);
      EXPECT_EQ(reports.failures[0].domain, "SKPSMTPMessageError");
      EXPECT_EQ(reports.failures[0].code, c.expectedCode);
      EXPECT_EQ(reports.failures[0].localizedDescription, c.expectedDescription);
    }
    if (c.expectedCode == kSKPSMTPErrorNoEncryption) {
      // The session ends politely, and neither the password nor the message went out.
      EXPECT_TRUE(transcript.ends_with("QUIT\r\n")) << transcript;
      EXPECT_NE(reports.failures[0].localizedRecoverySuggestion.find("Neither your password nor the message"),
                std::string::npos);
      for (const char* never : {"c2VzYW1l", "AUTH", "MAIL FROM"}) EXPECT_EQ(transcript.find(never), std::string::npos) << transcript;
    }
  }
}

TEST(SKPSMTPMessage, ABrokenTlsHandshakeFailsOnceWithTheStreamError) {
  // The server agrees to STARTTLS, then answers the client's hello in plain text or with a fatal alert.
  for (const std::string& answer : {std::string("220 go ahead\r\n|HTTP/1.0 400 nonsense\r\n\r\n#close"),
                                    std::string("220 go ahead\r\n|\x15\x03\x03\x00\x02\x02\x28", 22)}) {
    SCOPED_TRACE(answer);
    SMTPReports reports;
    const std::string transcript = sendThroughScript(reports, "220 hi\r\n", {{"STARTTLS", answer}}, false, true);
    ASSERT_EQ(reports.failures.size(), 1u);
    EXPECT_EQ(reports.failures[0].domain, "OpenSSLErrorDomain");
    EXPECT_NE(reports.failures[0].localizedDescription.find("TLS failure"), std::string::npos);
    EXPECT_EQ(transcript.find("MAIL FROM"), std::string::npos) << "nothing after the hello in plain text";
  }
}

TEST(SKPSMTPMessage, FallsBackToTheNextPortWhenNoGreetingComes) {
  ScriptedSMTPServer silent("", replies()), alsoSilent("", replies()), good("220 hi\r\n", replies());
  // The client reads ports as signed 16-bit numbers: one above never connects.
  ScriptedSMTPServer tooHigh("220 hi\r\n", replies(), 40000);
  ASSERT_GT(tooHigh.port(), 32767);
  SMTPReports reports, exhausted;
  auto message = makeMessage(reports, {tooHigh.port(), silent.port(), good.port()});
  message->setConnectTimeout(0.5);
  reports.sendAndWait(std::move(message));
  EXPECT_EQ(reports.sent, 1);
  EXPECT_EQ(reports.count(), 1);
  EXPECT_EQ(tooHigh.connections(), 0);
  EXPECT_EQ(silent.connections(), 1);
  EXPECT_EQ(good.connections(), 1);

  // No port left: the last silent port ends in -3.
  message = makeMessage(exhausted, {silent.port(), alsoSilent.port()});
  message->setConnectTimeout(0.5);
  exhausted.sendAndWait(std::move(message));
  ASSERT_EQ(exhausted.failures.size(), 1u);
  EXPECT_EQ(exhausted.failures[0].code, -3);
  EXPECT_EQ(exhausted.failures[0].localizedRecoverySuggestion, "Try sending your message again later.");
  EXPECT_EQ(alsoSilent.connections(), 1);
}

TEST(SKPSMTPMessage, PreconditionsAreAssertionsAndEmptyPortsFailAtOnce) {
  const std::pair<std::function<void(SKPSMTPMessage&)>, const char*> cases[] = {
      {[](SKPSMTPMessage& m) { m.setRequiresAuth(true); }, "auth requires login"},
      {[](SKPSMTPMessage& m) { m.setRelayHost(""); }, "send requires relayHost"},
      {[](SKPSMTPMessage& m) { m.setToEmail(""); }, "send requires toEmail"},
      {[](SKPSMTPMessage& m) { m.setParts({}); }, "send requires parts"},
  };
  for (const auto& [spoil, reason] : cases) {
    SMTPReports reports;
    auto message = makeMessage(reports, {25});
    spoil(*message);
    try {
      message->send();
      ADD_FAILURE() << "no assertion for " << reason;
    } catch (const SKPSMTPAssertion& assertion) {
      EXPECT_STREQ(assertion.what(), reason);
    }
    EXPECT_EQ(message->sendState(), kSKPSMTPIdle);
  }

  ScriptedSMTPServer silent("", replies());
  SMTPReports reports, noPorts;
  auto message = makeMessage(reports, {silent.port()});
  ASSERT_TRUE(message->send());
  EXPECT_THROW(message->send(), SKPSMTPAssertion);
  message.reset();  // dropping the message ends the session silently
  MVRunLoop::main().runFor(1.5);
  EXPECT_EQ(reports.count(), 0);

  message = makeMessage(noPorts, {});
  EXPECT_FALSE(message->send());
  ASSERT_EQ(noPorts.failures.size(), 1u);
  EXPECT_EQ(noPorts.failures[0].code, -3);
}
