// A settings key read. Each read parses the whole settings file on purpose
// (a change made by the preferences application counts at the next read),
// so its cost is that of parsing a typical file: every key set, a few watch
// folders, a stored phone number.
#include <benchmark/benchmark.h>

#include <string>

#include "MVPropertyList.h"
#include "QuillonPreferences.h"
#include "bench_support.h"

namespace {

void writeTypicalSettings(MVPropertyList::Format format) {
  using namespace QuillonSettingsKeys;
  MVPlistValue settings;
  MVPlistValue::Array folders;
  for (int i = 0; i < 8; ++i)
    folders.emplace_back(quillon_bench::benchHome() + "/Videos/Renders/Project " + std::to_string(i));
  settings.set(kWatchFoldersKey, folders);
  for (const char* key : {kWatchQmasterKey, kWatchFCPRendersKey, kWatchAvidRendersKey, kWatchAMEQueueKey,
                          kWatchPremiereRendersKey, kNotifyGrowlKey, kNotifySoundKey, kNotifyFinderKey,
                          kNotifyEmailKey, kEmailUseAuthKey, kEmailUseTLSKey})
    settings.set(key, 1);
  for (const char* key : {kOnlyWhenInactiveKey, kNotifyQuickTimeKey, kNotifySendToAppKey, kNotifyTextKey,
                          kNotifyRunScriptKey, kLogoutActionKey})
    settings.set(key, 0);
  settings.set(kSendToAppPathKey, "/usr/bin/vlc");
  settings.set(kScriptPathKey, quillon_bench::benchHome() + "/bin/after-render.sh");
  settings.set(kEmailFromAddressKey, "editor@example.com");
  settings.set(kEmailToAddressKey, "editor@example.com;producer@example.com");
  settings.set(kEmailServerKey, "smtp.example.com");
  settings.set(kEmailAccountNameKey, "editor@example.com");
  settings.set(kEmailPortKey, 587);
  settings.set(kSelectedTextCarrierKey, "att");
  settings.set(kTxtMessagePhoneNumberKey, MVPlistValue::Data(48, 0x5a));
  if (!MVPropertyList::write(QuillonPreferences::settingsPath(), settings, format))
    std::abort();  // nothing to measure without the file
}

// Arg 0: the XML file the preferences application writes; 1: the same keys
// in a binary property list.
void BM_SettingsKeyRead(benchmark::State& state) {
  writeTypicalSettings(state.range(0) == 0 ? MVPropertyList::Format::XML : MVPropertyList::Format::Binary);
  for (auto _ : state) {
    bool on = QuillonPreferences::isEqualToOne(QuillonSettingsKeys::kNotifyEmailKey);
    benchmark::DoNotOptimize(on);
  }
  state.SetLabel(state.range(0) == 0 ? "xml" : "binary");
}
BENCHMARK(BM_SettingsKeyRead)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_SettingsWatchFoldersRead(benchmark::State& state) {
  writeTypicalSettings(MVPropertyList::Format::XML);
  for (auto _ : state) {
    MVPlistValue folders = QuillonPreferences::objectForPreferenceDictionaryKey(QuillonSettingsKeys::kWatchFoldersKey);
    benchmark::DoNotOptimize(folders);
  }
}
BENCHMARK(BM_SettingsWatchFoldersRead)->Unit(benchmark::kMicrosecond);

}  // namespace
