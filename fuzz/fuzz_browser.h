// The browser side of the instance targets: the module starts once through NP_Initialize with the
// fake browser table; instances live in a scratch data and temporary folder emptied after each run.
#pragma once

#include <cstdlib>
#include <string>

#include "fake_browser.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "plugin/plugin/npgpcimp.h"

namespace fuzz {

class PluginHarness {
 public:
  explicit PluginHarness(const char* name) : m_scratch(MakeScratchFolder(name)), m_trace(m_scratch) {
    MakeFolder(m_scratch + "/data");
    MakeFolder(m_scratch + "/tmp");
    setenv("XDG_DATA_HOME", (m_scratch + "/data").c_str(), 1);
    setenv("TMPDIR", (m_scratch + "/tmp").c_str(), 1);
    NPNetscapeFuncs browser = gpctest::BrowserTable();
    m_plugin.size = sizeof m_plugin;
    if (NP_Initialize(&browser, &m_plugin) != NPERR_NO_ERROR) Fail("NP_Initialize refused the fake browser");
  }
  const NPPluginFuncs& plugin() const { return m_plugin; }
  void BeginRun() { gpctest::Browser() = gpctest::FakeBrowser(); }
  // After the run's instances are gone no browser memory may be left; the folders are emptied.
  void EndRun() {
    if (gpctest::Browser().liveAllocations != 0) Fail("%d blocks never freed", gpctest::Browser().liveAllocations);
    EmptyFolder(m_scratch + "/data");
    EmptyFolder(m_scratch + "/tmp");
    m_trace.Tick();
  }
  NPError New(NPP instance, gpctest::EmbedArgs& page) {
    return m_plugin.newp(const_cast<char*>("application/x-talvo-gpc"), instance, NP_EMBED, page.argc(), page.argn(),
                         page.argv(), nullptr);
  }
  static CGpcWindow* WindowOf(NPP instance) {
    auto* record = static_cast<InstanceRecord*>(instance->pdata);
    return record != nullptr ? record->gpcWindow : nullptr;
  }

 private:
  std::string m_scratch;
  ScratchTrace m_trace;
  NPPluginFuncs m_plugin{};
};

}  // namespace fuzz
