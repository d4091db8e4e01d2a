// A fake browser for the instance's unit tests: fills the plug-in's copy of the browser table
// with functions that record what the plug-in asked for, and collects the plug-in's log lines.
#pragma once

#include <glib.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "gpcnotification.h"
#include "gpctracecatcher.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"

namespace window_test {

struct UrlRequest {
  std::string url;
  std::string target;  // "(null)" when none was given
  void* notifyData;
};

struct FakeBrowser {
  std::vector<UrlRequest> requests;
  std::deque<NPError> answers;  // answers to the next requests; NPERR_NO_ERROR once empty
  std::function<void()> onRequest;  // runs inside each request, before it is answered
  bool failMemAlloc = false;
  int liveAllocations = 0;
};

inline FakeBrowser& Browser() {
  static FakeBrowser browser;
  return browser;
}

inline NPError FakeGetURLNotify(NPP, const char* url, const char* target, void* notifyData) {
  FakeBrowser& browser = Browser();
  browser.requests.push_back({url ? url : "", target ? target : "(null)", notifyData});
  if (browser.onRequest) browser.onRequest();
  if (browser.answers.empty()) return NPERR_NO_ERROR;
  NPError answer = browser.answers.front();
  browser.answers.pop_front();
  return answer;
}

inline void* FakeMemAlloc(uint32_t size) {
  if (Browser().failMemAlloc) return nullptr;
  ++Browser().liveAllocations;
  return std::calloc(1, size);
}

inline void FakeMemFree(void* pointer) {
  if (pointer != nullptr) --Browser().liveAllocations;
  std::free(pointer);
}

// Installs the fake table (a browser of NPAPI minor version 27) and forgets earlier calls.
inline void InstallFakeBrowser() {
  Browser() = FakeBrowser();
  gNetscapeFuncs = NPNetscapeFuncs();
  gNetscapeFuncs.size = sizeof(NPNetscapeFuncs);
  gNetscapeFuncs.version = 27;
  gNetscapeFuncs.geturlnotify = FakeGetURLNotify;
  gNetscapeFuncs.memalloc = FakeMemAlloc;
  gNetscapeFuncs.memfree = FakeMemFree;
  navMinorVers = 27;
}

// Gives the instance its own data folder (under GPC_TEST_HOME when ctest provides one), a trace
// catcher and a fake browser; undoes the overrides afterwards.
class Environment {
 public:
  Environment() {
    const char* home = getenv("GPC_TEST_HOME");
    std::string base = home ? std::string(home) : std::string(g_get_tmp_dir());
    char pattern[] = "windowtestXXXXXX";
    m_dir = base + "/" + pattern;
    if (g_mkdtemp(&m_dir[0]) == nullptr) m_dir = base;
    setenv("XDG_DATA_HOME", (m_dir + "/data").c_str(), 1);
    gpc::GPCTraceCatcher::initGlobal();
    InstallFakeBrowser();
  }
  ~Environment() {
    gpc::GPCTraceCatcher::releaseGlobal();
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
  }
  const std::string& dir() const { return m_dir; }

 private:
  std::string m_dir;
};

// Collects the text of every log line posted while it lives.
class LogCapture {
 public:
  LogCapture() {
    m_id = gpc::GPCNotificationCenter::defaultCenter().addObserver(
        "TRACENOTIFICATIONNotification", [this](const gpc::GPCNotification& note) {
          if (note.userInfo) {
            if (auto text = note.userInfo->GetString("ContentKey")) m_lines.push_back(*text);
          }
        });
  }
  ~LogCapture() { gpc::GPCNotificationCenter::defaultCenter().removeObserver(m_id); }
  bool Contains(const std::string& text) const {
    for (const std::string& line : m_lines)
      if (line.find(text) != std::string::npos) return true;
    return false;
  }
  int CountExact(const std::string& text) const {
    int count = 0;
    for (const std::string& line : m_lines)
      if (line == text) ++count;
    return count;
  }
  const std::vector<std::string>& lines() const { return m_lines; }
  int Count(const std::string& text) const {
    int count = 0;
    for (const std::string& line : m_lines)
      if (line.find(text) != std::string::npos) ++count;
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

// Page parameters as the browser hands them over.
class PageParams {
 public:
  PageParams(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    for (const auto& pair : pairs) Add(pair.first, pair.second);
  }
  void Add(const char* name, const char* value) {
    m_names.emplace_back(name);
    m_values.emplace_back(value ? value : "");
    m_nullValue.push_back(value == nullptr);
  }
  int argc() const { return static_cast<int>(m_names.size()); }
  char** argn() {
    Rebuild();
    return m_argn.data();
  }
  char** argv() {
    Rebuild();
    return m_argv.data();
  }

 private:
  void Rebuild() {
    m_argn.clear();
    m_argv.clear();
    for (size_t i = 0; i < m_names.size(); ++i) {
      m_argn.push_back(&m_names[i][0]);
      m_argv.push_back(m_nullValue[i] ? nullptr : &m_values[i][0]);
    }
  }
  std::vector<std::string> m_names, m_values;
  std::vector<bool> m_nullValue;
  std::vector<char*> m_argn, m_argv;
};

// How many of the instance's download slots hold a task.
inline int BusySlots(const CGpcWindow* window) {
  int busy = 0;
  for (const GpcDownloadSlot& slot : window->m_downloadSlots) busy += slot.task != nullptr;
  return busy;
}

}  // namespace window_test
