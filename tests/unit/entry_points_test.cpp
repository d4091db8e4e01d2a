// The module's entry points and browser-call wrappers, driven through the fake browser.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "common/gpctracecatcher.h"
#include "fake_browser.h"
#include "gpc/gpc_trace.h"
#include "platform/debug_string.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"

// ---- An allocator that fails on demand ------------------------------------------------------------
// Armed on a thread, it lets that many more of the thread's allocations succeed and fails every one
// after: the throwing forms throw std::bad_alloc, the others answer null.
namespace {
thread_local long t_allocationsBeforeFailure = -1;  // -1: disarmed
thread_local bool t_allocationFailed = false;

void* AllocateOrFail(std::size_t size) noexcept {
  if (t_allocationsBeforeFailure == 0) {
    t_allocationFailed = true;
    return nullptr;
  }
  if (t_allocationsBeforeFailure > 0) --t_allocationsBeforeFailure;
  return std::malloc(size == 0 ? 1 : size);
}
void* AllocateOrThrow(std::size_t size) {
  if (void* memory = AllocateOrFail(size)) return memory;
  throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrFail(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrFail(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

using gpctest::Browser;

bool IsAllZero(const void* data, size_t size) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; });
}
// The plug-in's table as the browser handed it, its size field aside.
bool UntouchedPastSize(const NPPluginFuncs& table) {
  return IsAllZero(reinterpret_cast<const char*>(&table) + sizeof table.size, sizeof table - sizeof table.size);
}

// Each test starts as a freshly loaded module would.
class EntryPoints : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&gNetscapeFuncs, 0, sizeof gNetscapeFuncs);
    navMinorVers = 0;
    std::memset(&plugin_, 0, sizeof plugin_);
    plugin_.size = sizeof plugin_;
    browser_ = gpctest::BrowserTable(0x0013);
    platform::SetDebugStrSink([this](const std::string& text) { debug_strings_.push_back(text); });
  }
  void TearDown() override {
    if (npp_.pdata != nullptr) plugin_.destroy(&npp_, nullptr);
    gpc::GPCTraceCatcher::releaseGlobal();
    platform::SetDebugStrSink(nullptr);
    platform::SetSystemVersionOverride(0);
  }
  // A browser loads a module once: each load ends the previous one's trace catcher first.
  NPError Load(uint16_t version) {
    gpc::GPCTraceCatcher::releaseGlobal();
    browser_ = gpctest::BrowserTable(version);
    return NP_Initialize(&browser_, &plugin_);
  }
  NPError NewInstance() {
    char type[] = "application/x-talvo-gpc";
    return plugin_.newp(type, &npp_, NP_EMBED, 0, nullptr, nullptr, nullptr);
  }
  void DestroyInstance() {
    if (npp_.pdata != nullptr) plugin_.destroy(&npp_, nullptr);
  }

  NPNetscapeFuncs browser_;
  NPPluginFuncs plugin_;
  NPP_t npp_{nullptr, nullptr};
  std::vector<std::string> debug_strings_;
};

// A missing or short plug-in table is refused before a byte of it (or of what follows) is written.
TEST_F(EntryPoints, RefusesMissingAndShortTables) {
  EXPECT_EQ(NP_Initialize(nullptr, &plugin_), NPERR_INVALID_FUNCTABLE_ERROR);
  EXPECT_TRUE(UntouchedPastSize(plugin_));
  EXPECT_EQ(NP_GetEntryPoints(nullptr), NPERR_INVALID_FUNCTABLE_ERROR);
  struct {
    NPPluginFuncs funcs;
    unsigned char beyond[16];
  } table;
  for (uint16_t size : {uint16_t(0), uint16_t(offsetof(NPPluginFuncs, event)), uint16_t(sizeof(NPPluginFuncs) - 1)}) {
    std::memset(&table, 0, sizeof table);
    table.funcs.size = size;
    EXPECT_EQ(NP_GetEntryPoints(&table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    gpc::GPCTraceCatcher::releaseGlobal();
    EXPECT_EQ(NP_Initialize(&browser_, &table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&table) + sizeof table.funcs.size,
                          sizeof table - sizeof table.funcs.size)) << size;
  }
}

// An older browser's shorter table is copied as far as it reaches; what lies past its end is
// never taken for a function.
TEST_F(EntryPoints, ShortBrowserTableIsCopiedAsFarAsItReaches) {
  struct {
    NPNetscapeFuncs funcs;
    unsigned char beyond[16];
  } table;
  std::memset(&table, 0xAB, sizeof table);
  const size_t reach = offsetof(NPNetscapeFuncs, geturlnotify);
  std::memcpy(&table, &browser_, reach);
  table.funcs.size = static_cast<uint16_t>(reach);
  ASSERT_EQ(NP_Initialize(&table.funcs, &plugin_), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_NO_ERROR);
  EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&gNetscapeFuncs) + reach, sizeof gNetscapeFuncs - reach));
  EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/n", nullptr, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(NPN_GetValue(nullptr, NPNVxDisplay, nullptr), NPERR_GENERIC_ERROR);
  ASSERT_EQ(Browser().requests.size(), 1u);
  EXPECT_EQ(Browser().requests[0].url, "http://127.0.0.1/");
}

TEST_F(EntryPoints, BrowserOfAnotherMajorVersionIsRefusedAndNeverCalled) {
  for (uint16_t version : {uint16_t(0x0100), uint16_t(0x0113), uint16_t(0xffff)}) {
    debug_strings_.clear();
    EXPECT_EQ(Load(version), NPERR_INCOMPATIBLE_VERSION_ERROR) << version;
    EXPECT_TRUE(IsAllZero(&gNetscapeFuncs, sizeof gNetscapeFuncs)) << version;
    EXPECT_TRUE(UntouchedPastSize(plugin_)) << "plug-in table written for " << version;
    EXPECT_EQ(debug_strings_, (std::vector<std::string>{"plugin,NP_Initialize start", "plugin,NP_Initialize end"}));
  }
  int major = -1, minor = -1, browserMajor = -1, browserMinor = -1;
  NPN_Version(&major, &minor, &browserMajor, &browserMinor);
  EXPECT_EQ(std::vector<int>({major, minor, browserMajor, browserMinor}), std::vector<int>({0, 18, 0, 0}));
  EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(NPN_MemAlloc(16), nullptr);
  EXPECT_TRUE(Browser().requests.empty());
}

TEST_F(EntryPoints, CurrentBrowserGetsTheFullTable) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  EXPECT_EQ(plugin_.version, 18);
  EXPECT_EQ(plugin_.size, sizeof(void*) == 8 ? 120 : 60);
  // Every handler from newp to urlnotify is filled in.
  void* handlers[11];
  std::memcpy(handlers, &plugin_.newp, sizeof handlers);
  for (void* handler : handlers) EXPECT_NE(handler, nullptr);
  EXPECT_EQ(plugin_.javaClass, nullptr);
  // The plug-in answers no query and takes no setting.
  EXPECT_EQ(plugin_.getvalue(nullptr, NPPVpluginNameString, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(plugin_.setvalue(nullptr, NPNVxDisplay, nullptr), NPERR_GENERIC_ERROR);
  int major = -1, minor = -1, browserMajor = -1, browserMinor = -1;
  NPN_Version(&major, &minor, &browserMajor, &browserMinor);
  EXPECT_EQ(std::vector<int>({major, minor, browserMajor, browserMinor}), std::vector<int>({0, 18, 0, 19}));

  int datum = 0;
  EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/a", "_top", &datum), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_PostURLNotify(nullptr, "http://127.0.0.1/b", "_self", 1, "x", false, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_PostURL(nullptr, "http://127.0.0.1/c", nullptr, 2, "yz", true), NPERR_NO_ERROR);
  ASSERT_EQ(Browser().requests.size(), 3u);
  const gpctest::UrlRequest& get = Browser().requests[0];
  EXPECT_TRUE(get.url == "http://127.0.0.1/a" && get.target == "_top" && get.notifyData == &datum && !get.post);
  const gpctest::UrlRequest& post = Browser().requests[1];
  EXPECT_TRUE(post.url == "http://127.0.0.1/b" && post.target == "_self" && post.body == "x" && !post.bodyIsFile);
  EXPECT_TRUE(Browser().requests[2].bodyIsFile);
  NPN_Status(nullptr, "working");
  EXPECT_EQ(Browser().calls, std::vector<std::string>{"status working"});

  // A browser's longer table keeps whatever lies past the plug-in's extent.
  struct {
    NPPluginFuncs funcs;
    void* beyond[4];
  } longer;
  std::memset(&longer, 0xAB, sizeof longer);
  ASSERT_EQ(NP_GetEntryPoints(&longer.funcs), NPERR_NO_ERROR);
  EXPECT_EQ(longer.funcs.size, sizeof(NPPluginFuncs));
  for (void* slot : longer.beyond) EXPECT_EQ(reinterpret_cast<uintptr_t>(slot), UINTPTR_MAX / 0xFF * 0xAB);
}

// Which wrappers reach the browser, by the browser's minor version.
TEST_F(EntryPoints, OlderBrowsersAreNotCalledForWhatTheyLack) {
  const struct {
    uint16_t version;
    bool notifications, streamOutput;
  } cases[] = {{8, false, true}, {7, false, false}, {9, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.version);
    ASSERT_EQ(Load(c.version), NPERR_NO_ERROR);
    EXPECT_EQ(plugin_.urlnotify != nullptr, c.notifications);
    EXPECT_EQ(gNetscapeFuncs.getJavaEnv != nullptr || gNetscapeFuncs.geturlnotify != nullptr, c.notifications);
    const NPError notifyAnswer = c.notifications ? NPERR_NO_ERROR : NPERR_INCOMPATIBLE_VERSION_ERROR;
    EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/", nullptr, nullptr), notifyAnswer);
    EXPECT_EQ(NPN_PostURLNotify(nullptr, "http://127.0.0.1/", nullptr, 0, "", false, nullptr), notifyAnswer);
    EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_NO_ERROR);
    EXPECT_EQ(Browser().requests.size(), c.notifications ? 3u : 1u);
    NPStream* stream = nullptr;
    char byte = 'x';
    const NPError streamAnswer = c.streamOutput ? NPERR_NO_ERROR : NPERR_INCOMPATIBLE_VERSION_ERROR;
    EXPECT_EQ(NPN_NewStream(nullptr, const_cast<char*>("text/plain"), "_blank", &stream), streamAnswer);
    EXPECT_EQ(NPN_Write(nullptr, stream, 1, &byte), c.streamOutput ? 1 : NPERR_INCOMPATIBLE_VERSION_ERROR);
    EXPECT_EQ(NPN_DestroyStream(nullptr, stream, NPRES_DONE), streamAnswer);
    EXPECT_EQ(Browser().calls.size(), c.streamOutput ? 3u : 0u);
  }
  // Entry points asked for before NP_Initialize know no browser version: no notifications.
  std::memset(&gNetscapeFuncs, 0, sizeof gNetscapeFuncs);
  navMinorVers = 0;
  std::memset(&plugin_, 0, sizeof plugin_);
  plugin_.size = sizeof plugin_;
  ASSERT_EQ(NP_GetEntryPoints(&plugin_), NPERR_NO_ERROR);
  gpc::GPCTraceCatcher::releaseGlobal();
  ASSERT_EQ(NP_Initialize(&browser_, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(plugin_.urlnotify, nullptr);
}

// From 10.6 on, a new instance asks for each drawing and event model the browser supports.
TEST_F(EntryPoints, NewInstanceNegotiatesTheModelsTheBrowserSupports) {
  const std::pair<int, intptr_t> kDrawing{NPPVpluginDrawingModel, NPDrawingModelCoreGraphics};
  const std::pair<int, intptr_t> kEvents{NPPVpluginEventModel, NPEventModelCocoa};
  const struct {
    const char* name;
    uint32_t system;
    bool coreGraphics, cocoa;
    NPError getValue, setValue;
    std::vector<std::pair<int, intptr_t>> set;
  } cases[] = {
      {"OldSystem", 0x1058, true, true, NPERR_NO_ERROR, NPERR_NO_ERROR, {}},
      {"CoreGraphicsOnly", 0, true, false, NPERR_NO_ERROR, NPERR_NO_ERROR, {kDrawing}},
      {"BothRefused", 0, true, true, NPERR_NO_ERROR, NPERR_GENERIC_ERROR, {kDrawing, kEvents}},
      {"QueriesFail", 0, true, true, NPERR_GENERIC_ERROR, NPERR_NO_ERROR, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    platform::SetSystemVersionOverride(c.system);
    ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
    Browser().supports = {{NPNVsupportsCoreGraphicsBool, c.coreGraphics}, {NPNVsupportsCocoaBool, c.cocoa}};
    Browser().getValueResult = c.getValue;
    Browser().setValueResult = c.setValue;
    EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
    EXPECT_NE(npp_.pdata, nullptr);
    EXPECT_EQ(Browser().valuesAsked.empty(), c.system != 0);
    EXPECT_EQ(Browser().valuesSet, c.set);
    DestroyInstance();
  }
  browser_.getvalue = nullptr;
  ASSERT_EQ(NP_Initialize(&browser_, &plugin_), NPERR_NO_ERROR);
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_TRUE(Browser().valuesSet.empty());
}

// Every handler answers for an NPP without instance data: never created, refused, or destroyed.
TEST_F(EntryPoints, HandlersWithoutAnInstanceAnswerAndTouchNothing) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto callEach = [this](NPP npp, const char* state) {
    SCOPED_TRACE(state);
    NPWindow window{};
    NPStream stream{};
    stream.url = "http://127.0.0.1/s";
    uint16_t stype = 0;
    char block[4] = {};
    NPPrint print{};
    const NPError missing = npp ? NPERR_NO_ERROR : NPERR_INVALID_INSTANCE_ERROR;
    EXPECT_EQ(plugin_.setwindow(npp, &window), NPERR_INVALID_INSTANCE_ERROR);
    EXPECT_EQ(plugin_.event(npp, nullptr), 0);
    EXPECT_EQ(plugin_.newstream(npp, nullptr, &stream, false, &stype), missing);
    EXPECT_EQ(plugin_.writeready(npp, &stream), 0x0FFFFFFF);
    EXPECT_EQ(plugin_.write(npp, &stream, 0, 4, block), 4);
    EXPECT_EQ(plugin_.destroystream(npp, &stream, NPRES_DONE), missing);
    plugin_.asfile(npp, &stream, "/tmp/x");
    plugin_.urlnotify(npp, "http://127.0.0.1/s", NPRES_DONE, nullptr);
    plugin_.print(npp, &print);
    EXPECT_EQ(plugin_.destroy(npp, nullptr), missing);
  };
  callEach(nullptr, "null");
  callEach(&npp_, "never created");
  Browser().failMemAlloc = true;
  EXPECT_EQ(NewInstance(), NPERR_OUT_OF_MEMORY_ERROR);
  Browser().failMemAlloc = false;
  EXPECT_EQ(npp_.pdata, nullptr);
  callEach(&npp_, "refused");
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  DestroyInstance();
  callEach(&npp_, "destroyed");
  EXPECT_EQ(npp_.pdata, nullptr);
  EXPECT_TRUE(Browser().requests.empty());
}

int IgnoreMessage(GPCMessage*) { return 0; }

// ---- Failing allocation ----------------------------------------------------------------------------

// One entry point called as a browser or an extension calls it, with the answers it may give.
struct BoundaryCall {
  const char* name;
  std::function<long()> call;
  std::vector<long> answers = {};      // empty: any answer
  std::function<void()> prepare = {};  // runs before each attempt, allocation working
};

// Runs the call with allocation failing from its first allocation on, then from its second, and
// so on (further apart as the count grows), until a run meets no failure. No exception may leave
// it, and each answer is one it may give.
void CallWithEachAllocationFailing(const BoundaryCall& entry) {
  for (long allowed = 0;; allowed += 1 + allowed / 8) {
    if (entry.prepare) entry.prepare();
    long answer = 0;
    bool escaped = false;
    t_allocationFailed = false;
    t_allocationsBeforeFailure = allowed;
    try {
      answer = entry.call();
    } catch (...) {
      escaped = true;
    }
    t_allocationsBeforeFailure = -1;
    ASSERT_FALSE(escaped) << "an exception left " << entry.name << " when allocation " << allowed << " failed";
    if (!entry.answers.empty()) {
      EXPECT_NE(std::find(entry.answers.begin(), entry.answers.end(), answer), entry.answers.end())
          << entry.name << " answered " << answer << " when allocation " << allowed << " failed";
    }
    if (!t_allocationFailed) return;
  }
}

TEST_F(EntryPoints, NoExceptionLeavesAnEntryPointWhenMemoryRunsOut) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto ensure = [this] {
    if (npp_.pdata == nullptr) {
      ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
    }
  };
  const auto window = [this] { return static_cast<InstanceRecord*>(npp_.pdata)->gpcWindow; };
  NPWindow npWindow{};
  NPStream hostSite{};
  hostSite.url = "https://www.talvo.us/page";
  hostSite.notifyData = reinterpret_cast<void*>(100);
  std::string pageUrl = "https://www.talvo.us/page";
  uint16_t stype = 0;
  NPPrint print{};
  const char* text = nullptr;
  char folder[64];
  char answer[64];
  void* out = nullptr;
  const long kOk = NPERR_NO_ERROR, kNoMemory = NPERR_OUT_OF_MEMORY_ERROR;
  const long kServiceOk = GPC_RESULT_OK, kServiceNoMemory = kGpcServiceOutOfMemory;
  const std::vector<BoundaryCall> calls = {
      {"NP_GetValue", [&] { return long(NP_GetValue(nullptr, NPPVpluginNameString, &text)); }, {kOk, kNoMemory}},
      {"NP_GetEntryPoints", [&] { return long(NP_GetEntryPoints(&plugin_)); }, {kOk, kNoMemory}},
      {"NP_Initialize", [&] { return long(NP_Initialize(&browser_, &plugin_)); }, {kOk, kNoMemory},
       [] { gpc::GPCTraceCatcher::releaseGlobal(); }},
      // Refused, it leaves no instance data behind.
      {"NPP_New", [&] { return NewInstance() == kOk ? kOk : npp_.pdata == nullptr ? kNoMemory : -1; },
       {kOk, kNoMemory}, [this] { DestroyInstance(); }},
      {"NPP_SetWindow", [&] { return long(plugin_.setwindow(&npp_, &npWindow)); }, {kOk, kNoMemory}, ensure},
      {"NPP_HandleEvent", [&] { return long(plugin_.event(&npp_, nullptr)); }, {0}, ensure},
      {"NPP_NewStream", [&] { return long(plugin_.newstream(&npp_, nullptr, &hostSite, false, &stype)); },
       {kOk, kNoMemory}, ensure},
      {"NPP_WriteReady", [&] { return long(plugin_.writeready(&npp_, &hostSite)); }, {0x0FFFFFFF}, ensure},
      {"NPP_Write", [&] { return long(plugin_.write(&npp_, &hostSite, 0, int32_t(pageUrl.size()), &pageUrl[0])); },
       {long(pageUrl.size()), -1}, ensure},
      {"NPP_DestroyStream", [&] { return long(plugin_.destroystream(&npp_, &hostSite, NPRES_DONE)); },
       {kOk, kNoMemory}, ensure},
      {"NPP_StreamAsFile", [&] { return plugin_.asfile(&npp_, &hostSite, "/tmp/x"), 0L; }, {}, ensure},
      {"NPP_URLNotify", [&] { return plugin_.urlnotify(&npp_, "https://www.talvo.us/x", NPRES_DONE, nullptr), 0L; },
       {}, ensure},
      {"NPP_Print", [&] { return plugin_.print(&npp_, &print), 0L; }, {}, ensure},
      {"NPP_Destroy", [&] { return long(plugin_.destroy(&npp_, nullptr)); }, {kOk, kNoMemory}, ensure},
      {"GpcRegisterStreamSap", [&] { return long(GpcRegisterStreamSap(&IgnoreMessage, nullptr, window(), &out)); },
       {kServiceOk, kServiceNoMemory}, ensure},
      {"GpcGetStream", [&] { return long(GpcGetStream(window()->m_streamSap, "https://www.talvo.us/f", 0, &out)); },
       {kServiceOk, GPC_ERR_REQUEST_PENDING, kServiceNoMemory}, ensure},
      {"GpcSetParam", [&] { return long(GpcSetParam(window(), "Name", "value")); }, {kServiceOk, kServiceNoMemory},
       ensure},
      {"GpcGetParam", [&] { return long(GpcGetParam(window(), "GpcUrlRoot") != nullptr); }, {}, ensure},
      {"GpcChangeLocation", [&] { return long(GpcChangeLocation(window(), "https://www.talvo.us/n", "_top")); },
       {kServiceOk, kServiceNoMemory}, ensure},
      {"GpcGetFileAtUrl", [&] { return long(GpcGetFileAtUrl(window(), nullptr, nullptr, "https://www.talvo.us/f")); },
       {kServiceOk, kServiceNoMemory}, ensure},
      {"GpcShowMessage", [&] { return long(GpcShowMessage(window(), "text")); }, {kServiceOk, kServiceNoMemory},
       ensure},
      {"GpcOutputDebugString", [&] { return GpcOutputDebugString(window(), "text"), 0L; }, {}, ensure},
      {"GpcGetPluginDir", [&] { return long(GpcGetPluginDir(folder, sizeof folder)); }, {}},
      {"GpcTracePost", [&] { return long(GpcTracePost("Extension", 2, "text")); }, {0, 1}},
      {"GpcTraceQueryWarnings", [&] { return long(GpcTraceQueryWarnings(1, answer, sizeof answer) >= -1); }, {1}},
      {"NP_Shutdown", [&] { return long(NP_Shutdown()); }, {kOk, kNoMemory}, [this] { DestroyInstance(); }},
  };
  for (const BoundaryCall& entry : calls) CallWithEachAllocationFailing(entry);
}

// The debug strings follow the life of the module; the trace catcher collects from NP_Initialize
// on, and ending the last instance ends the collected trace.
TEST_F(EntryPoints, DebugStringsAndCollectedTraceFollowTheModule) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  bool seen = false;
  for (const auto& entry : gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo())
    seen = seen || gpc::traceContent(*entry) == "plugin,NP_GetEntryPoints end";
  EXPECT_TRUE(seen);
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  NPWindow window{};
  plugin_.setwindow(&npp_, &window);
  plugin_.event(&npp_, nullptr);
  DestroyInstance();
  EXPECT_TRUE(gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo().empty());
  NP_Shutdown();
  EXPECT_EQ(debug_strings_, (std::vector<std::string>{
                                "plugin,NP_Initialize start", "plugin,NP_Initialize end",
                                "plugin,NP_GetEntryPoints start", "Private_Initialize",
                                "plugin,NP_GetEntryPoints end", "Private_New", "Private_Destroy",
                                "Private_Shutdown", "NP_Shutdown", "Private_Shutdown"}));
}

// ---- Unix module entry points --------------------------------------------------------------------

TEST(ModuleEntryPoints, DescribeThePluginAndExportOnlyTheEntryPoints) {
  EXPECT_EQ(std::string(NP_GetMIMEDescription()).rfind("application/x-talvo-gpc:", 0), 0u);
  const char* text = nullptr;
  EXPECT_EQ(NP_GetValue(nullptr, NPPVpluginNameString, &text), NPERR_NO_ERROR);
  EXPECT_NE(std::string(text ? text : "").find("GPC"), std::string::npos);
  text = nullptr;
  EXPECT_EQ(NP_GetValue(nullptr, NPPVpluginDescriptionString, &text), NPERR_NO_ERROR);
  EXPECT_NE(text, nullptr);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginNameString, nullptr), NPERR_NO_ERROR);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginWindowBool, &text), NPERR_NO_ERROR);

  const std::string module = std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS/libnpgpc.so";
  void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  for (const char* name : {"NP_GetMIMEDescription", "NP_GetValue", "NP_Initialize", "NP_GetEntryPoints", "NP_Shutdown"})
    EXPECT_NE(dlsym(handle, name), nullptr) << name;
  for (const char* name : {"gNetscapeFuncs", "navMinorVers", "gResFile"}) EXPECT_EQ(dlsym(handle, name), nullptr) << name;
  dlclose(handle);
}

}  // namespace
