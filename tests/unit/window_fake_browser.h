// The older names of tests/support/fake_browser.h that the download integration test still uses,
// with its log capture and main-loop helpers.
#pragma once

#include <glib.h>

#include <string>
#include <vector>

#include "../support/fake_browser.h"
#include "gpcnotification.h"
#include "gpctracecatcher.h"
#include "plugin/plugin/npgpcimp.h"

namespace window_test {

using gpctest::Browser;
using gpctest::UrlRequest;
using Environment = gpctest::BrowserEnvironment;
using PageParams = gpctest::EmbedArgs;

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

 private:
  gpc::GPCNotificationCenter::ObserverId m_id = 0;
  std::vector<std::string> m_lines;
};

inline void RunMainLoop(int iterations) {
  for (int i = 0; i < iterations; ++i) g_main_context_iteration(nullptr, FALSE);
}

inline int BusySlots(const CGpcWindow* window) {
  int busy = 0;
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) busy += slot.task != nullptr;
  return busy;
}

}  // namespace window_test
