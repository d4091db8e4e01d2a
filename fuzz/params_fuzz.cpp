// Page parameters: the embed parameters a page hands to NPP_New, then the parameters an extension
// sets through SetParameter.
//
// Input: lines of "name=value" (a line without "=" is a name whose value is NULL). The lines up to
// a line "--" are the page's; those after it are set one by one through SetParameter. Every
// stored parameter must then read back as set.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_browser.h"
#include "plugin/plugin/npgpc_text.h"

namespace {

constexpr size_t kMostParameters = 256;

fuzz::PluginHarness* g_harness = nullptr;

struct Pair {
  std::string name;
  std::string value;
  bool hasValue;
};

Pair ParsePair(const std::string& line) {
  size_t equals = line.find('=');
  if (equals == std::string::npos) return {line, std::string(), false};
  return {line.substr(0, equals), line.substr(equals + 1), true};
}

// The parameter file goes to a folder named by the product version: a version that climbs out
// of the data folder would write outside the fuzzer's scratch folder (reported separately).
bool ClimbsOutOfTheDataFolder(const std::vector<Pair>& page) {
  for (const Pair& pair : page) {
    if (GpcNamesEqual(pair.name.c_str(), "gpcproductversion")) {
      return pair.hasValue && strstr(pair.value.c_str(), "..") != nullptr;
    }
  }
  return false;
}

void CheckReadsBack(CGpcWindow* window, const Pair& pair, bool accepted) {
  if (!accepted || pair.name.empty() || pair.value.empty()) return;
  const char* name = pair.name.c_str();
  const char* stored = window->m_serviceTable.GpcGetParam(window, name);
  if (stored == nullptr) fuzz::Fail("parameter %s was accepted but reads back as none", name);
  // The URL root is stored as corrected (http becomes https); everything else as given.
  if (GpcNamesEqual(name, "GpcUrlRoot")) return;
  if (strcmp(stored, pair.value.c_str()) != 0) fuzz::Fail("parameter %s reads back as %s", name, stored);
}

void CheckIndexedAccess(CGpcWindow* window) {
  const int count = window->m_serviceTable.GpcGetParamCount(window);
  for (int i = 0; i < count; ++i) {
    const char* name = nullptr;
    const char* value = nullptr;
    if (!window->GetParameterAt(i, &name, &value)) fuzz::Fail("parameter %d of %d is missing", i, count);
    if (name != nullptr) (void)strlen(name);
    if (value != nullptr) (void)strlen(value);
  }
  const char* name = nullptr;
  const char* value = nullptr;
  if (window->GetParameterAt(count, &name, &value)) fuzz::Fail("a parameter past the last one exists");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_harness = new fuzz::PluginHarness("params");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<Pair> page, later;
  bool afterSeparator = false;
  for (const std::string& line : fuzz::SplitLines(fuzz::AsText(data, size))) {
    if (!afterSeparator && line == "--") {
      afterSeparator = true;
      continue;
    }
    std::vector<Pair>& list = afterSeparator ? later : page;
    if (list.size() < kMostParameters) list.push_back(ParsePair(line));
  }
  if (ClimbsOutOfTheDataFolder(page)) return -1;

  // The browser hands C strings over: each ends at its first NUL.
  std::vector<char*> argn, argv;
  for (Pair& pair : page) {
    argn.push_back(&pair.name[0]);
    argv.push_back(pair.hasValue ? &pair.value[0] : nullptr);
  }

  g_harness->BeginRun();
  NPP_t npp{};
  const NPError created = g_harness->New(&npp, static_cast<int16_t>(page.size()), argn.data(), argv.data());
  if (created == NPERR_NO_ERROR) {
    CGpcWindow* window = fuzz::PluginHarness::WindowOf(&npp);
    if (window == nullptr) fuzz::Fail("NPP_New succeeded without an instance");
    CheckIndexedAccess(window);
    for (Pair& pair : later) {
      // Again as C strings, as an extension passes them.
      Pair given{pair.name.c_str(), pair.value.c_str(), pair.hasValue};
      const bool accepted = window->SetParameter(given.name.c_str(), given.hasValue ? given.value.c_str() : nullptr);
      CheckReadsBack(window, given, accepted);
    }
    CheckIndexedAccess(window);
  } else if (npp.pdata != nullptr) {
    fuzz::Fail("a refused instance left its data behind");
  }
  g_harness->plugin().destroy(&npp, nullptr);
  g_harness->EndRun();
  return 0;
}
