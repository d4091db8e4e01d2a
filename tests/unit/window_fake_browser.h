// The one fake browser of tests/support/fake_browser.h under the names the instance's
// integration tests and fuzz targets use, with their log capture and main-loop helpers.
#pragma once

#include <glib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "../support/fake_browser.h"
#include "gpcnotification.h"
#include "gpctracecatcher.h"
#include "plugin/plugin/npgpcimp.h"

namespace window_test {

using gpctest::Browser;
using gpctest::FakeBrowser;
using gpctest::InstallFakeBrowser;
using gpctest::UrlRequest;
using Environment = gpctest::BrowserEnvironment;  // needs the test support library
using PageParams = gpctest::EmbedArgs;
constexpr auto FakeGetURLNotify = gpctest::calls::GetURLNotify;
constexpr auto FakeMemAlloc = gpctest::calls::MemAlloc;
constexpr auto FakeMemFree = gpctest::calls::MemFree;

// Collects the text of every log line posted while it lives.
class LogCapture {
 public:
  LogCapture() {
    m_id = gpc::GPCNotificationCenter::defaultCenter().addObserver(
        "TRACENOTIFICATIONNotification", [this](const gpc::GPCNotification& note) {
          if (note.userInfo)
            if (auto text = note.userInfo->GetString("ContentKey")) m_lines.push_back(*text);
        });
  }
  ~LogCapture() { gpc::GPCNotificationCenter::defaultCenter().removeObserver(m_id); }
  const std::vector<std::string>& lines() const { return m_lines; }
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  int Count(const std::string& text) const {
    int count = 0;
    for (const std::string& line : m_lines) count += line.find(text) != std::string::npos;
    return count;
  }
  int CountExact(const std::string& text) const {
    int count = 0;
    for (const std::string& line : m_lines) count += line == text;
    return count;
  }

 private:
  gpc::GPCNotificationCenter::ObserverId m_id = 0;
  std::vector<std::string> m_lines;
};

// Runs the default main context for at most `iterations` non-blocking rounds.
inline void RunMainLoop(int iterations) {
  for (int i = 0; i < iterations; ++i) g_main_context_iteration(nullptr, FALSE);
}

// How many of the instance's download slots hold a task.
inline int BusySlots(const CGpcWindow* window) {
  int busy = 0;
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) busy += slot.task != nullptr;
  return busy;
}

}  // namespace window_test
