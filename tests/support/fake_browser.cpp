#include "fake_browser.h"

#include <glib.h>

#include <cstdlib>
#include <filesystem>

#include "gpctracecatcher.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace gpctest {
namespace {

// The browser is C as far as the plug-in can tell: a record it cannot make (memory ran out) is
// dropped, never thrown at the plug-in.
template <typename Record>
void Note(Record record) noexcept {
  try {
    record();
  } catch (...) {
  }
}

NPError Request(const char* url, const char* target, void* notifyData, bool post, const char* buf, uint32_t len,
                bool file = false) {
  FakeBrowser& browser = Browser();
  Note([&] {
    browser.requests.push_back(
        {url ? url : "", target ? target : "(null)", notifyData, post, std::string(buf ? buf : "", buf ? len : 0), file});
  });
  if (browser.onRequest) browser.onRequest();
  if (browser.answers.empty()) return browser.otherwise;
  const NPError answer = browser.answers.front();
  browser.answers.pop_front();
  return answer;
}

NPError GetURL(NPP, const char* url, const char* target) { return Request(url, target, nullptr, false, nullptr, 0); }
NPError GetURLNotify(NPP, const char* url, const char* target, void* data) {
  return Request(url, target, data, false, nullptr, 0);
}
NPError PostURL(NPP, const char* url, const char* target, uint32_t len, const char* buf, NPBool file) {
  return Request(url, target, nullptr, true, buf, len, file);
}
NPError PostURLNotify(NPP, const char* url, const char* target, uint32_t len, const char* buf, NPBool file,
                      void* data) {
  return Request(url, target, data, true, buf, len, file);
}
void Call(const std::string& name) {
  Note([&] { Browser().calls.push_back(name); });
}
NPError NewStream(NPP, NPMIMEType, const char*, NPStream**) { return Call("newstream"), NPERR_NO_ERROR; }
int32_t Write(NPP, NPStream*, int32_t len, void*) { return Call("write"), len; }
NPError DestroyStream(NPP, NPStream*, NPReason) { return Call("destroystream"), NPERR_NO_ERROR; }
void Status(NPP, const char* message) { Call(std::string("status ") + (message ? message : "")); }
void* MemAlloc(uint32_t size) {
  if (Browser().failMemAlloc) return nullptr;
  ++Browser().liveAllocations;
  return std::calloc(1, size);
}
void MemFree(void* pointer) {
  if (pointer != nullptr) --Browser().liveAllocations;
  std::free(pointer);
}
NPError GetValue(NPP, NPNVariable variable, void* value) {
  FakeBrowser& browser = Browser();
  Note([&] { browser.valuesAsked.push_back(variable); });
  if (browser.getValueResult != NPERR_NO_ERROR) return browser.getValueResult;
  const auto found = browser.supports.find(variable);
  *static_cast<NPBool*>(value) = found != browser.supports.end() && found->second;
  return NPERR_NO_ERROR;
}
NPError SetValue(NPP, NPPVariable variable, void* value) {
  Note([&] { Browser().valuesSet.emplace_back(variable, reinterpret_cast<intptr_t>(value)); });
  return Browser().setValueResult;
}

}  // namespace

FakeBrowser& Browser() {
  static FakeBrowser browser;
  return browser;
}

NPNetscapeFuncs BrowserTable(uint16_t version) {
  Browser() = FakeBrowser();
  NPNetscapeFuncs table = {};
  table.size = sizeof table;
  table.version = version;
  table.geturl = GetURL;
  table.posturl = PostURL;
  table.newstream = NewStream;
  table.write = Write;
  table.destroystream = DestroyStream;
  table.status = Status;
  table.memalloc = MemAlloc;
  table.memfree = MemFree;
  table.geturlnotify = GetURLNotify;
  table.posturlnotify = PostURLNotify;
  table.getvalue = GetValue;
  table.setvalue = SetValue;
  return table;
}

void InstallFakeBrowser(uint16_t version) {
  gNetscapeFuncs = BrowserTable(version);
  navMinorVers = version & 0xff;
}

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

EmbedArgs::EmbedArgs(std::initializer_list<std::pair<const char*, const char*>> pairs) {
  for (const auto& pair : pairs) Add(pair.first, pair.second);
}

void EmbedArgs::Add(const char* name, const char* value) {
  m_names.emplace_back(name);
  m_values.emplace_back(value ? value : "");
  m_null.push_back(value == nullptr);
}

char** EmbedArgs::argn() {
  m_argn.clear();
  for (std::string& name : m_names) m_argn.push_back(&name[0]);
  return m_argn.data();
}

char** EmbedArgs::argv() {
  m_argv.clear();
  for (size_t i = 0; i < m_values.size(); ++i) m_argv.push_back(m_null[i] ? nullptr : &m_values[i][0]);
  return m_argv.data();
}

int LogCount(const std::string& fragment) {
  int count = 0;
  for (const CapturedTrace& trace : CapturedTracesSnapshot()) count += trace.text.find(fragment) != std::string::npos;
  return count;
}

}  // namespace gpctest
