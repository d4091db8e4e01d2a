// The browser as the plug-in sees it in unit tests and benches: one NPNetscapeFuncs table whose
// functions record what the plug-in asks for (URL requests, streams, status, values, settings)
// and answer as the test says. Free of GoogleTest, so the benches can use it too.
#pragma once

#include <cstdint>
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
  std::vector<std::string> calls;  // the other calls: "newstream", "write", "destroystream", "status <text>"
  std::vector<int> valuesAsked;    // NPNVariable of every getvalue
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
FakeBrowser& Browser();
// A full table of NPAPI version `version` calling into Browser(); forgets earlier calls.
NPNetscapeFuncs BrowserTable(uint16_t version = 27);
// Puts that table into the plug-in's copy, as NP_Initialize would.
void InstallFakeBrowser(uint16_t version = 27);

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

// Embed parameters as the browser hands them to NPP_New (a null value stays null).
class EmbedArgs {
 public:
  EmbedArgs(std::initializer_list<std::pair<const char*, const char*>> pairs);
  void Add(const char* name, const char* value);
  int16_t argc() const { return static_cast<int16_t>(m_names.size()); }
  char** argn();
  char** argv();

 private:
  std::vector<std::string> m_names, m_values;
  std::vector<bool> m_null;
  std::vector<char*> m_argn, m_argv;
};

// How many log lines posted since the last ClearCapturedTraces() hold `fragment`.
int LogCount(const std::string& fragment);

}  // namespace gpctest
