// tests/support/push-server.py, standing for every push service; what each request carried read back.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ServerProcess.h"

namespace quillon_test {

struct PushRequest {
  std::string method, path;
  std::vector<std::string> headers;  // "name: value", names in lower case
  std::map<std::string, std::string> fields;

  bool hasHeader(const std::string& line) const {
    return std::find(headers.begin(), headers.end(), line) != headers.end();
  }
};

class PushServer {
 public:
  // `script`: the JSON answers by path prefix (see push-server.py).
  PushServer(const std::string& certDir, const std::string& script = "{}")
      : dir_(makeTempDir("push-server")),
        server_("push-server.py",
                {"--cert", certDir + "/cert.pem", "--key", certDir + "/key.pem", "--out", dir_ + "/requests",
                 "--script", dir_ + "/script.json"},
                dir_) {
    writeFile(dir_ + "/script.json", script);  // read afresh on every request
  }

  bool isReady() const { return port() > 0; }
  int port() const { return std::atoi(server_.ready().c_str()); }
  std::string base() const { return "https://127.0.0.1:" + std::to_string(port()); }
  std::string log() const { return server_.log(); }

  std::vector<PushRequest> requests() const {
    std::vector<PushRequest> all;
    std::istringstream lines(fileExists(dir_ + "/requests") ? readFile(dir_ + "/requests") : "");
    PushRequest r;
    for (std::string line; std::getline(lines, line);) {
      auto space = line.find(' ');
      std::string key = line.substr(0, space), value = space == std::string::npos ? "" : line.substr(space + 1);
      if (key == "METHOD") r.method = value;
      if (key == "PATH") r.path = value;
      if (key == "HEADER") r.headers.push_back(value);
      if (key == "FIELD") r.fields[value.substr(0, value.find('='))] = value.substr(value.find('=') + 1);
      if (key == "END") all.push_back(std::exchange(r, PushRequest{}));
    }
    return all;
  }
  std::vector<PushRequest> requestsTo(const std::string& pathPrefix) const {
    std::vector<PushRequest> out;
    for (auto& r : requests())
      if (r.path.rfind(pathPrefix, 0) == 0) out.push_back(r);
    return out;
  }

 private:
  std::string dir_;
  ServerProcess server_;
};

}  // namespace quillon_test
