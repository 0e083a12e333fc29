#include "MVHTTP.h"

#include <mutex>

namespace {
std::mutex gMutex;
std::shared_ptr<MVHTTP::Backend> gBackend;
}  // namespace

std::shared_ptr<MVHTTP::Backend> MVHTTP::setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(gMutex);
  std::swap(gBackend, backend);
  return backend;
}

MVHTTPResponse MVHTTP::perform(const MVHTTPRequest& request) {
  std::shared_ptr<Backend> backend;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    backend = gBackend;
  }
  if (!backend) {
    MVHTTPResponse response;
    response.failure = MVHTTPFailure::Other;
    response.error = "no HTTP transport on this platform";
    return response;
  }
  return backend->perform(request);
}
