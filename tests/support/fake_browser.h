// The browser as the plug-in sees it in tests, benches and fuzzers: one NPNetscapeFuncs table that
// records what the plug-in asks for and answers as the test says. Header-only and free of GoogleTest.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "plugin/plugin/npplugin.h"

class CGpcWindow;

namespace gpctest {

// One GET or POST the plug-in asked for; a navigation is a GET with a target.
struct UrlRequest {
  std::string url;
  std::string target;  // "(null)" when none was given
  void* notifyData;
  bool post;
  std::string body;
  bool bodyIsFile;  // a POST of the file named by `body`
};

struct FakeBrowser {
  // What the browser saw.
  std::vector<UrlRequest> requests;
  int streamCalls = 0;  // newstream, write and destroystream
  int valuesAsked = 0;  // getvalue calls
  std::vector<std::pair<int, intptr_t>> valuesSet;
  // How it answers.
  std::deque<NPError> answers;      // to the next URL requests; `otherwise` once empty
  NPError otherwise = NPERR_NO_ERROR;
  std::function<void()> onRequest;  // runs inside each URL request, before it is answered
  std::map<int, bool> supports;     // getvalue answers for boolean variables; false when absent
  NPError getValueResult = NPERR_NO_ERROR;
  NPError setValueResult = NPERR_NO_ERROR;
  bool failMemAlloc = false;
  int liveAllocations = 0;
};

// The one fake browser of the process.
inline FakeBrowser& Browser() {
  static FakeBrowser browser;
  return browser;
}

namespace calls {
// The browser is C as far as the plug-in can tell: a record it cannot make (memory ran out) is
// dropped, never thrown at the plug-in.
template <typename Record>
void Note(Record record) noexcept {
  try {
    record();
  } catch (...) {
  }
}
// A URL request as the browser takes it: recorded, then answered.
inline NPError Request(const char* url, const char* target, void* data, bool post, const char* buf, uint32_t len,
                       bool file) {
  FakeBrowser& browser = Browser();
  Note([&] {
    browser.requests.push_back(
        {url ? url : "", target ? target : "(null)", data, post, std::string(buf ? buf : "", buf ? len : 0), file});
  });
  if (browser.onRequest) browser.onRequest();
  if (browser.answers.empty()) return browser.otherwise;
  const NPError answer = browser.answers.front();
  browser.answers.pop_front();
  return answer;
}
}  // namespace calls

// A full table of NPAPI version `version` calling into Browser(); forgets earlier calls.
inline NPNetscapeFuncs BrowserTable(uint16_t version = 27) {
  Browser() = FakeBrowser();
  NPNetscapeFuncs table = {};
  using calls::Request;
  table.size = sizeof table;
  table.version = version;
  table.geturl = [](NPP, const char* url, const char* target) {
    return Request(url, target, nullptr, false, nullptr, 0, false);
  };
  table.geturlnotify = [](NPP, const char* url, const char* target, void* data) {
    return Request(url, target, data, false, nullptr, 0, false);
  };
  table.posturl = [](NPP, const char* url, const char* target, uint32_t len, const char* buf, NPBool file) {
    return Request(url, target, nullptr, true, buf, len, file);
  };
  table.posturlnotify = [](NPP, const char* url, const char* target, uint32_t len, const char* buf, NPBool file,
                           void* data) { return Request(url, target, data, true, buf, len, file); };
  table.newstream = [](NPP, NPMIMEType, const char*, NPStream**) { return ++Browser().streamCalls, NPError(0); };
  table.write = [](NPP, NPStream*, int32_t len, void*) { return ++Browser().streamCalls, len; };
  table.destroystream = [](NPP, NPStream*, NPReason) { return ++Browser().streamCalls, NPError(0); };
  table.memalloc = [](uint32_t size) -> void* {
    if (Browser().failMemAlloc) return nullptr;
    ++Browser().liveAllocations;
    return std::calloc(1, size);
  };
  table.memfree = [](void* pointer) {
    Browser().liveAllocations -= pointer != nullptr;
    std::free(pointer);
  };
  table.getvalue = [](NPP, NPNVariable variable, void* value) {
    FakeBrowser& browser = Browser();
    ++browser.valuesAsked;
    if (browser.getValueResult != NPERR_NO_ERROR) return browser.getValueResult;
    const auto found = browser.supports.find(variable);
    *static_cast<NPBool*>(value) = found != browser.supports.end() && found->second;
    return NPError(NPERR_NO_ERROR);
  };
  table.setvalue = [](NPP, NPPVariable variable, void* value) {
    calls::Note([&] { Browser().valuesSet.emplace_back(variable, reinterpret_cast<intptr_t>(value)); });
    return Browser().setValueResult;
  };
  return table;
}

// Puts that table into the plug-in's copy, as NP_Initialize would.
inline void InstallFakeBrowser(uint16_t version = 27) {
  gNetscapeFuncs = BrowserTable(version);
  navMinorVers = version & 0xff;
}

// Embed parameters as the browser hands them to NPP_New (a null value stays null).
class EmbedArgs {
 public:
  EmbedArgs(std::initializer_list<std::pair<const char*, const char*>> pairs = {}) {
    for (const auto& pair : pairs) Add(pair.first, pair.second);
  }
  void Add(const char* name, const char* value) {
    m_names.push_back(name);
    m_values.push_back(value ? value : "");
    m_null.push_back(value == nullptr);
  }
  int16_t argc() const { return static_cast<int16_t>(m_names.size()); }
  char** argn() {
    m_argn.clear();
    for (std::string& name : m_names) m_argn.push_back(&name[0]);
    return m_argn.data();
  }
  char** argv() {
    m_argv.clear();
    for (size_t i = 0; i < m_values.size(); ++i) m_argv.push_back(m_null[i] ? nullptr : &m_values[i][0]);
    return m_argv.data();
  }

 private:
  std::vector<std::string> m_names, m_values;
  std::vector<bool> m_null;
  std::vector<char*> m_argn, m_argv;
};

// ---- In the test support library ------------------------------------------------------------

// Lets the instance ask for each navigation it has queued, the browser finishing each at once;
// answers what the browser was asked, as "<target> <url>" ("(null)" for no target).
std::vector<std::string> RunNavigations(CGpcWindow& window);

// A fresh data folder (under GPC_TEST_HOME when ctest gives one), a trace catcher and the fake
// browser for one test; the folder goes with the object.
class BrowserEnvironment {
 public:
  BrowserEnvironment();
  ~BrowserEnvironment();
  const std::string& dir() const { return m_dir; }

 private:
  std::string m_dir;
};

// How many log lines posted since the last ClearCapturedTraces() hold `fragment`.
int LogCount(const std::string& fragment);
// How many of the instance's five download slots hold a task.
int BusySlots(const CGpcWindow* window);

}  // namespace gpctest
