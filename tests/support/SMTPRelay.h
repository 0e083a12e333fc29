// tests/support/smtp-relay.py with a fresh certificate, and a delegate recording what an SMTP session reports.
#pragma once

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "MVRunLoop.h"
#include "SKPSMTPMessage.h"
#include "ServerProcess.h"

namespace quillon_test {

// One message as the relay received it.
struct RelayMessage {
  int port = 0;
  std::string from, options;
  std::vector<std::string> to;
  std::string raw;

  std::string header(const std::string& name) const {
    std::istringstream lines(raw.substr(0, raw.find("\r\n\r\n")));
    for (std::string line; std::getline(lines, line);)
      if (line.compare(0, name.size() + 1, name + ":") == 0) {
        if (line.back() == '\r') line.pop_back();
        return line.substr(std::min(line.find_first_not_of(' ', name.size() + 1), line.size()));
      }
    return "<no " + name + " header>";
  }
  // The text of the text/plain part, up to the next boundary line.
  std::string body() const {
    auto part = raw.find("Content-Type: text/plain"), at = raw.find("boundary=");
    if (part == std::string::npos || at == std::string::npos) return "<no text part>";
    std::string boundary = "\r\n--" + raw.substr(at + 9, raw.find("\r\n", at) - at - 9);
    auto start = raw.find("\r\n\r\n", part) + 4;
    return raw.substr(start, raw.find(boundary, start) - start);
  }
};

class SMTPRelay {
 public:
  // `options`: smtp-relay.py's own (--port, --user, --implicit-tls...).
  explicit SMTPRelay(const std::vector<std::string>& options = {}) {
    static const std::string certDir = [] {
      std::string dir = makeTempDir("relay-cert");
      return makeCertificate(dir, false) ? dir : "";
    }();  // one for all the relays of the test
    dir_ = makeTempDir("relay");
    if (certDir.empty()) return;
    certificate_ = certDir + "/cert.pem";
    std::vector<std::string> arguments{"--cert", certDir + "/cert.pem", "--key", certDir + "/key.pem", "--out", dir_ + "/out"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    server_ = std::make_unique<ServerProcess>("smtp-relay.py", arguments, dir_);
    std::istringstream ports(server_->ready());
    for (int port; ports >> port;) ports_.push_back(port);
  }

  bool isReady() const { return !ports_.empty(); }
  int port(std::size_t index = 0) const { return index < ports_.size() ? ports_[index] : 0; }
  std::string certificate() const { return certificate_; }
  std::string log() const { return server_ ? server_->log() : "no certificate"; }
  // Every byte received so far, decrypted where TLS was used.
  std::string wire() const { return fileExists(dir_ + "/out/wire") ? readFile(dir_ + "/out/wire") : ""; }
  void forget() { std::filesystem::remove_all(dir_ + "/out"), std::filesystem::create_directories(dir_ + "/out"); }

  // In the order the relay received them.
  std::vector<RelayMessage> messages() const {
    std::vector<int> numbers;  // they go on counting after forget()
    for (const auto& entry : std::filesystem::directory_iterator(dir_ + "/out"))
      if (entry.path().extension() == ".envelope") numbers.push_back(std::stoi(entry.path().stem()));
    std::sort(numbers.begin(), numbers.end());
    std::vector<RelayMessage> all;
    for (int n : numbers) {
      std::string base = dir_ + "/out/" + std::to_string(n);
      RelayMessage m;
      std::istringstream lines(readFile(base + ".envelope"));
      for (std::string line; std::getline(lines, line);) {
        auto space = line.find(' ');
        std::string key = line.substr(0, space), value = space == std::string::npos ? "" : line.substr(space + 1);
        if (key == "PORT") m.port = std::stoi(value);
        if (key == "FROM") m.from = value;
        if (key == "OPTIONS") m.options = value;
        if (key == "TO") m.to.push_back(value);
      }
      m.raw = readFile(base + ".eml");
      all.push_back(std::move(m));
    }
    return all;
  }

 private:
  std::string dir_, certificate_;
  std::unique_ptr<ServerProcess> server_;
  std::vector<int> ports_;
};

// Records every report of a session and, as the e-mail notification does,
// drops the only reference to the message inside the callback.
struct SMTPReports : SKPSMTPMessageDelegate {
  std::shared_ptr<SKPSMTPMessage> message;
  int sent = 0;
  std::vector<SKPSMTPError> failures;
  bool onMainThread = true;

  void messageSent(const std::shared_ptr<SKPSMTPMessage>&) override {
    ++sent;
    onMainThread &= MVRunLoop::main().isMainThread();
    message.reset();
  }
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>&, const SKPSMTPError& error) override {
    failures.push_back(error);
    onMainThread &= MVRunLoop::main().isMainThread();
    message.reset();
  }
  int count() const { return sent + static_cast<int>(failures.size()); }
  // Waits for the first report, and `settle` seconds more for a second one
  // that must not come (longer than the session's watchdog).
  void await(double seconds = 15, double settle = 0.8) {
    waitUntil([&] { return count() > 0; }, seconds);
    MVRunLoop::main().runFor(settle);
  }
  // Sends `m`, keeping it only here, and awaits its report.
  void sendAndWait(std::shared_ptr<SKPSMTPMessage> m, double seconds = 15, double settle = 0.8) {
    m->setDelegate(this);
    message = std::move(m);
    if (message->send()) await(seconds, settle);
  }
};

}  // namespace quillon_test
