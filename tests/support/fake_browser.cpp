#include "fake_browser.h"

#include <glib.h>

#include <filesystem>

#include "common/gpctracecatcher.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace gpctest {

std::vector<std::string> RunNavigations(CGpcWindow& window) {
  std::vector<std::string> seen;
  for (size_t asked = Browser().requests.size();; asked = Browser().requests.size()) {
    window.CheckLocationChanging();
    if (Browser().requests.size() == asked) return seen;
    const UrlRequest request = Browser().requests.back();
    seen.push_back(request.target + " " + request.url);
    window.OnGetUrlNotify(request.url.c_str(), NPRES_DONE);
  }
}

BrowserEnvironment::BrowserEnvironment() {
  const char* home = getenv("GPC_TEST_HOME");
  const std::string base = home ? home : g_get_tmp_dir();
  m_dir = base + "/browserXXXXXX";
  if (g_mkdtemp(&m_dir[0]) == nullptr) m_dir = base;
  setenv("XDG_DATA_HOME", (m_dir + "/data").c_str(), 1);
  gpc::GPCTraceCatcher::initGlobal();
  InstallFakeBrowser();
}

BrowserEnvironment::~BrowserEnvironment() {
  gpc::GPCTraceCatcher::releaseGlobal();
  std::error_code ignored;
  std::filesystem::remove_all(m_dir, ignored);
}

int LogCount(const std::string& fragment) {
  int count = 0;
  for (const CapturedTrace& trace : CapturedTracesSnapshot()) count += trace.text.find(fragment) != std::string::npos;
  return count;
}

int BusySlots(const CGpcWindow* window) {
  int busy = 0;
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) busy += slot.task != nullptr;
  return busy;
}

}  // namespace gpctest
