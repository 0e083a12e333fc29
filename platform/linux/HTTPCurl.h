// libcurl as MVHTTP's transport. libcurl is loaded at the first request, so
// an agent that never pushes never maps it (or OpenSSL through it).
#pragma once

namespace quillon {

// Installs the libcurl backend with MVHTTP::setBackend().
void installCurlHTTP();

}  // namespace quillon
