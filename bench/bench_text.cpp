// Text work on the way to the user: the XPath query escaping used for every
// preference and project query, Base64 for mail parts and authentication,
// and the subject and bodies of the e-mail and text message for a render.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "AppController.h"
#include "Base64.h"
#include "MVXMLParser.h"

namespace {

// A query as the Premiere parser builds it: a project name with an accent,
// an ampersand and a line break in it.
void BM_EscapeQueryString(benchmark::State& state) {
  const std::string query =
      "//Preferences/Properties/BE.Prefs.Project.Location[@Name='Se\xC3\xB1or & Sons - Spot 30s\r']/Path";
  for (auto _ : state) {
    std::string escaped = MVXMLParser::escapeQueryString(query);
    benchmark::DoNotOptimize(escaped);
  }
}
BENCHMARK(BM_EscapeQueryString);

std::vector<std::uint8_t> sampleBytes(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(i * 131 + 7);
  return bytes;
}

// Arg: bytes encoded. 48 is an AUTH PLAIN credential; 64 KB a log or
// poster-frame attachment.
void BM_Base64Encode(benchmark::State& state) {
  const auto bytes = sampleBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = Base64Additions::encodeBase64ForData(bytes);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Encode)->Arg(48)->Arg(64 * 1024);

void BM_Base64EncodeWrapped(benchmark::State& state) {
  const auto bytes = sampleBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = Base64Additions::encodeWrappedBase64ForData(bytes);
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64EncodeWrapped)->Arg(64 * 1024);

void BM_Base64Decode(benchmark::State& state) {
  const std::string text = Base64Additions::encodeWrappedBase64ForData(sampleBytes(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    auto bytes = Base64Additions::decodeBase64ForString(text);
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64Decode)->Arg(48)->Arg(64 * 1024);

// The subject, e-mail body and text-message body for a finished render, as
// the e-mail and text-message senders compose them.
void BM_ComposeRenderMessage(benchmark::State& state) {
  MVPlistValue render;
  render.set("type", state.range(0) == 0 ? "watchFile" : "fcpRender");
  render.set("watchFilename", "Documentary Final v12.mov");
  render.set("fullPath", "/home/ann/Videos/Renders/Documentary Final v12.mov");
  render.set("projectName", "Documentary");
  for (auto _ : state) {
    AppController::Message message = AppController::messageForRender(render, true);
    benchmark::DoNotOptimize(message);
  }
  state.SetLabel(state.range(0) == 0 ? "watch folder" : "final cut pro");
}
BENCHMARK(BM_ComposeRenderMessage)->Arg(0)->Arg(1);

}  // namespace
