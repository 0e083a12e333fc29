// A scripted SMTP peer on 127.0.0.1 answering each client line from a reply
// function: "|" in a reply is a 200 ms pause, a trailing "#close" hangs up, ""
// says nothing; after a "354" the message text counts as the one line ".".
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class ScriptedSMTPServer {
 public:
  using Reply = std::function<std::string(const std::string& line)>;

  // `greeting` ("" for none) is sent on accept; the port is taken from [portBase, portBase + 12000).
  ScriptedSMTPServer(std::string greeting, Reply reply, int portBase = 20000)
      : greeting_(std::move(greeting)), reply_(std::move(reply)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // The client reads ports as signed 16-bit numbers, so by default stay below 32768.
    for (int attempt = 0; attempt < 4000; ++attempt) {
      address.sin_port = htons(static_cast<uint16_t>(portBase + (::getpid() * 7 + attempt) % 12000));
      if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
    }
    ::listen(listener_, 8);
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedSMTPServer() {
    stop_ = true;
    thread_.join();
    ::close(listener_);
  }

  int port() const { return port_; }
  int connections() const { return connections_; }
  std::string transcript() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return transcript_;
  }

 private:
  bool waitReadable(int fd) {
    pollfd p{fd, POLLIN, 0};
    while (!stop_)
      if (::poll(&p, 1, 20) > 0) return true;
    return false;
  }

  void serve() {
    while (waitReadable(listener_)) {
      int client = ::accept(listener_, nullptr, nullptr);
      if (client < 0) continue;
      ++connections_;
      talk(client);
      ::close(client);
    }
  }

  // Sends a reply; false when it asked to close.
  bool sendReply(int client, std::string reply) {
    const bool close = reply.ends_with("#close");
    if (close) reply.resize(reply.size() - 6);
    std::size_t start = 0;
    while (true) {
      std::size_t bar = reply.find('|', start);
      std::string piece = reply.substr(start, bar - start);
      if (!piece.empty() && ::send(client, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) return false;
      if (bar == std::string::npos) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      start = bar + 1;
    }
    return !close;
  }

  void talk(int client) {
    if (!greeting_.empty() && !sendReply(client, greeting_)) return;
    std::string pending;
    bool inData = false;
    char buffer[4096];
    while (waitReadable(client)) {
      ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        transcript_.append(buffer, static_cast<std::size_t>(n));
      }
      pending.append(buffer, static_cast<std::size_t>(n));
      while (true) {
        const std::size_t end = pending.find(inData ? "\r\n.\r\n" : "\r\n");
        if (end == std::string::npos) break;
        std::string line = inData ? "." : pending.substr(0, end);
        pending.erase(0, end + (inData ? 5 : 2));
        const std::string reply = reply_(line);
        inData = reply.starts_with("354");
        if (!sendReply(client, reply)) return;
      }
    }
  }

  std::string greeting_;
  Reply reply_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  mutable std::mutex mutex_;
  std::string transcript_;
  std::thread thread_;
};
