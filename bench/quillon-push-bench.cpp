// quillon-push-bench: sends render pushes the way the agent does (target
// parsed, one sending thread per target, libcurl loaded on the first push),
// so that a push can be timed beside curl making the same request.
//
// Usage: quillon-push-bench URL [COUNT]
// Prints, per push, the microseconds from the dispatch call to the server's
// answer; the first includes loading libcurl. Exits 0 when every push was sent.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "HTTPCurl.h"
#include "MVLog.h"
#include "PushTargets.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: quillon-push-bench URL [COUNT]\n");
    return 2;
  }
  const int count = argc == 3 ? std::atoi(argv[2]) : 1;
  MVLog::createNewLog("quillon-push-bench", /*noPrinting=*/true);
  quillon::installCurlHTTP();
  PushMessage message = PushTargets::sampleMessage();
  bool all = true;
  for (int i = 0; i < count; ++i) {
    auto start = std::chrono::steady_clock::now();
    auto results = PushTargets::send({argv[1]}, message);
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    bool sent = !results.empty() && results[0].sent;
    if (!sent) std::fprintf(stderr, "quillon-push-bench: %s\n", results.empty() ? "no result" : results[0].detail.c_str());
    all = all && sent;
    std::printf("%lld\n", static_cast<long long>(micros.count()));
  }
  MVLog::finishWriting();
  return all ? 0 : 1;
}
