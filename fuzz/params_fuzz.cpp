// Page parameters: the embed parameters a page hands to NPP_New, then the parameters an extension
// sets through SetParameter.
//
// Input: lines of "name=value" (a line without "=" is a name whose value is NULL). The lines up to
// a line "--" are the page's; those after it are set one by one through SetParameter. Every
// stored parameter must then read back as set, and indexed access must end at the count.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_browser.h"
#include "plugin/plugin/npgpc_text.h"

namespace {

fuzz::PluginHarness* g_harness = nullptr;
size_t g_sink = 0;

// A line as C strings, as the browser and an extension hand them: each ends at its first NUL.
struct Pair {
  std::string name, value;
  bool hasValue;
};
Pair Split(const std::string& line) {
  const size_t equals = line.find('=');
  const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
  return {line.substr(0, equals).c_str(), value.c_str(), equals != std::string::npos};
}

void CheckIndexedAccess(CGpcWindow* window) {
  const int count = window->m_serviceTable.GpcGetParamCount(window);
  const char* name = nullptr;
  const char* value = nullptr;
  for (int i = 0; i < count; ++i) {
    if (!window->GetParameterAt(i, &name, &value)) fuzz::Fail("parameter %d of %d is missing", i, count);
    g_sink += (name ? strlen(name) : 0) + (value ? strlen(value) : 0);
  }
  if (window->GetParameterAt(count, &name, &value)) fuzz::Fail("a parameter past the last one exists");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_harness = new fuzz::PluginHarness("params");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  gpctest::EmbedArgs page;
  std::vector<Pair> later;
  bool afterSeparator = false;
  for (const std::string& line : fuzz::SplitLines(fuzz::AsText(data, size))) {
    if (!afterSeparator && line == "--") {
      afterSeparator = true;
    } else if (afterSeparator) {
      if (later.size() < 256) later.push_back(Split(line));
    } else if (page.argc() < 256) {
      const Pair pair = Split(line);
      // The parameter file goes to a folder named by the product version: one that climbs out of
      // the data folder would write outside the scratch folder (reported separately).
      if (GpcNamesEqual(pair.name.c_str(), "gpcproductversion") && pair.value.find("..") != std::string::npos) {
        return -1;
      }
      page.Add(pair.name.c_str(), pair.hasValue ? pair.value.c_str() : nullptr);
    }
  }
  g_harness->BeginRun();
  NPP_t npp{};
  if (g_harness->New(&npp, page) == NPERR_NO_ERROR) {
    CGpcWindow* window = fuzz::PluginHarness::WindowOf(&npp);
    if (window == nullptr) fuzz::Fail("NPP_New succeeded without an instance");
    CheckIndexedAccess(window);
    for (const Pair& pair : later) {
      const char* name = pair.name.c_str();
      if (!window->SetParameter(name, pair.hasValue ? pair.value.c_str() : nullptr) || pair.value.empty()) continue;
      const char* stored = window->m_serviceTable.GpcGetParam(window, name);
      if (!pair.name.empty() && stored == nullptr) fuzz::Fail("parameter %s was accepted but reads back as none", name);
      // The URL root is stored as corrected (http becomes https); everything else as given.
      if (!pair.name.empty() && !GpcNamesEqual(name, "GpcUrlRoot") && pair.value != stored) {
        fuzz::Fail("parameter %s reads back as %s", name, stored);
      }
    }
    CheckIndexedAccess(window);
  } else if (npp.pdata != nullptr) {
    fuzz::Fail("a refused instance left its data behind");
  }
  g_harness->plugin().destroy(&npp, nullptr);
  g_harness->EndRun();
  return 0;
}
