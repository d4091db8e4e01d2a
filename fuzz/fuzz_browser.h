// The browser side of the instance targets: the module is started once through NP_Initialize with
// the unit tests' fake browser table (plus a recording POST), and every instance is made and
// destroyed through the plug-in table it filled, in a scratch data and temporary folder that is
// emptied after each run.
#pragma once

#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "window_fake_browser.h"

namespace fuzz {

inline NPError FakePostURLNotify(NPP instance, const char* url, const char* target, uint32_t, const char*, NPBool,
                                 void* notifyData) {
  return window_test::FakeGetURLNotify(instance, url, target, notifyData);
}

class PluginHarness {
 public:
  explicit PluginHarness(const char* name)
      : m_scratch(MakeScratchFolder(name)),
        m_data(m_scratch + "/data"),
        m_temp(m_scratch + "/tmp"),
        m_trace(m_scratch) {
    MakeFolder(m_data);
    MakeFolder(m_temp);
    setenv("XDG_DATA_HOME", m_data.c_str(), 1);
    setenv("TMPDIR", m_temp.c_str(), 1);

    NPNetscapeFuncs browser{};
    browser.size = sizeof browser;
    browser.version = 27;
    browser.geturlnotify = window_test::FakeGetURLNotify;
    browser.posturlnotify = FakePostURLNotify;
    browser.memalloc = window_test::FakeMemAlloc;
    browser.memfree = window_test::FakeMemFree;
    m_plugin.size = sizeof m_plugin;
    if (NP_Initialize(&browser, &m_plugin) != NPERR_NO_ERROR) Fail("NP_Initialize refused the fake browser");
  }

  const NPPluginFuncs& plugin() const { return m_plugin; }

  // Forgets the browser's earlier requests; call before each run.
  void BeginRun() { window_test::Browser() = window_test::FakeBrowser(); }

  // After the run's instances are destroyed: no browser memory may be left, and the folders are
  // emptied for the next run.
  void EndRun() {
    if (window_test::Browser().liveAllocations != 0) {
      Fail("%d blocks of browser memory were never freed", window_test::Browser().liveAllocations);
    }
    EmptyFolder(m_data);
    EmptyFolder(m_temp);
    m_trace.Tick();
  }

  NPError New(NPP instance, int16_t argc, char** argn, char** argv) {
    return m_plugin.newp(const_cast<char*>("application/x-talvo-gpc"), instance, NP_EMBED, argc, argn, argv,
                         nullptr);
  }

  static CGpcWindow* WindowOf(NPP instance) {
    auto* record = static_cast<InstanceRecord*>(instance->pdata);
    return record != nullptr ? record->gpcWindow : nullptr;
  }

 private:
  std::string m_scratch;
  std::string m_data;
  std::string m_temp;
  ScratchTrace m_trace;
  NPPluginFuncs m_plugin{};
};

}  // namespace fuzz
