// Page parameters. Input: lines of "name=value" (a line without "=" is a name whose value is NULL);
// the lines up to a line "--" go to NPP_New, those after it through SetParameter one by one. Every
// parameter is then read back, and indexed access must end at the count.
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

void ReadAll(CGpcWindow* window) {
  const int count = GpcGetParamCount(window);
  const char* name = nullptr;
  const char* value = nullptr;
  for (int i = 0; i < count; ++i) {
    if (!window->GetParameterAt(i, &name, &value)) fuzz::Fail("parameter %d of %d is missing", i, count);
    const char* found = name ? GpcGetParam(window, name) : nullptr;
    g_sink += (name ? strlen(name) : 0) + (value ? strlen(value) : 0) + (found ? strlen(found) : 0);
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
    const Pair pair = Split(line);
    if (!afterSeparator && line == "--") {
      afterSeparator = true;
    } else if (afterSeparator && later.size() < 256) {
      later.push_back(pair);
    } else if (!afterSeparator && page.argc() < 256) {
      // A product version that climbs out of the data folder would write the parameter file
      // outside the scratch folder (reported separately).
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
    for (const Pair& pair : later) {
      window->SetParameter(pair.name.c_str(), pair.hasValue ? pair.value.c_str() : nullptr);
    }
    ReadAll(window);
  } else if (npp.pdata != nullptr) {
    fuzz::Fail("a refused instance left its data behind");
  }
  g_harness->plugin().destroy(&npp, nullptr);
  g_harness->EndRun();
  return 0;
}
