// The module's entry points and browser-call wrappers, driven through a fake browser table.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common/gpctracecatcher.h"
#include "platform/debug_string.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"

#include "gpc/gpc_trace.h"

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

// What the fake browser saw.
struct BrowserLog {
  std::vector<std::string> calls;
  std::vector<std::pair<int, intptr_t>> set_values;
  bool core_graphics = false;
  bool cocoa = false;
  NPError getvalue_result = NPERR_NO_ERROR;
  NPError setvalue_result = NPERR_NO_ERROR;
  void* last_notify_data = nullptr;
  bool memalloc_fails = false;
};
BrowserLog g_log;

// The fake browser is C as far as the plug-in can tell: what it records is dropped, never thrown
// at the plug-in, when memory runs out.
template <typename Record>
void Note(Record record) noexcept {
  try {
    record();
  } catch (...) {
  }
}

NPError FakeGetURL(NPP, const char*, const char*) {
  Note([&] { g_log.calls.push_back("geturl"); });
  return NPERR_NO_ERROR;
}
NPError FakeGetURLNotify(NPP, const char* url, const char*, void* data) {
  Note([&] { g_log.calls.push_back(std::string("geturlnotify ") + url); });
  g_log.last_notify_data = data;
  return NPERR_NO_ERROR;
}
NPError FakePostURLNotify(NPP, const char*, const char*, uint32_t, const char*, NPBool, void*) {
  Note([&] { g_log.calls.push_back("posturlnotify"); });
  return NPERR_NO_ERROR;
}
NPError FakeNewStream(NPP, NPMIMEType, const char*, NPStream**) {
  Note([&] { g_log.calls.push_back("newstream"); });
  return NPERR_NO_ERROR;
}
int32_t FakeWrite(NPP, NPStream*, int32_t len, void*) {
  Note([&] { g_log.calls.push_back("write"); });
  return len;
}
NPError FakeDestroyStream(NPP, NPStream*, NPReason) {
  Note([&] { g_log.calls.push_back("destroystream"); });
  return NPERR_NO_ERROR;
}
void* FakeMemAlloc(uint32_t size) { return g_log.memalloc_fails ? nullptr : std::calloc(1, size); }
void FakeMemFree(void* ptr) { std::free(ptr); }
void* FakeGetJavaEnv(void) {
  Note([&] { g_log.calls.push_back("getJavaEnv"); });
  return nullptr;
}
NPError FakeGetValue(NPP, NPNVariable variable, void* value) {
  Note([&] { g_log.calls.push_back("getvalue " + std::to_string(variable)); });
  if (g_log.getvalue_result != NPERR_NO_ERROR) return g_log.getvalue_result;
  bool answer = variable == NPNVsupportsCoreGraphicsBool ? g_log.core_graphics
                : variable == NPNVsupportsCocoaBool      ? g_log.cocoa
                                                         : false;
  *static_cast<NPBool*>(value) = answer;
  return NPERR_NO_ERROR;
}
NPError FakeSetValue(NPP, NPPVariable variable, void* value) {
  Note([&] { g_log.set_values.emplace_back(variable, reinterpret_cast<intptr_t>(value)); });
  return g_log.setvalue_result;
}

NPNetscapeFuncs MakeBrowser(uint16_t version) {
  NPNetscapeFuncs funcs;
  std::memset(&funcs, 0, sizeof funcs);
  funcs.size = sizeof funcs;
  funcs.version = version;
  funcs.geturl = FakeGetURL;
  funcs.newstream = FakeNewStream;
  funcs.write = FakeWrite;
  funcs.destroystream = FakeDestroyStream;
  funcs.memalloc = FakeMemAlloc;
  funcs.memfree = FakeMemFree;
  funcs.getJavaEnv = FakeGetJavaEnv;
  funcs.geturlnotify = FakeGetURLNotify;
  funcs.posturlnotify = FakePostURLNotify;
  funcs.getvalue = FakeGetValue;
  funcs.setvalue = FakeSetValue;
  return funcs;
}

bool IsAllZero(const void* data, size_t size) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < size; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

// Each test starts as a freshly loaded module would.
class EntryPoints : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&gNetscapeFuncs, 0, sizeof gNetscapeFuncs);
    navMinorVers = 0;
    g_log = BrowserLog();
    std::memset(&plugin_, 0, sizeof plugin_);
    plugin_.size = sizeof plugin_;
    platform::SetDebugStrSink([this](const std::string& text) { debug_strings_.push_back(text); });
  }
  void TearDown() override {
    gpc::GPCTraceCatcher::releaseGlobal();
    platform::SetDebugStrSink(nullptr);
    platform::SetSystemVersionOverride(0);
  }

  // Each load starts the trace catcher again; a browser loads a module once, so the previous
  // one is ended first.
  NPError Load(uint16_t version) {
    gpc::GPCTraceCatcher::releaseGlobal();
    browser_ = MakeBrowser(version);
    return NP_Initialize(&browser_, &plugin_);
  }

  NPNetscapeFuncs browser_;
  NPPluginFuncs plugin_;
  std::vector<std::string> debug_strings_;
};

// The plug-in's table as the browser handed it, its size field aside.
bool UntouchedPastSize(const NPPluginFuncs& table) {
  return IsAllZero(reinterpret_cast<const char*>(&table) + sizeof table.size, sizeof table - sizeof table.size);
}

TEST_F(EntryPoints, RefusesMissingTables) {
  EXPECT_EQ(NP_Initialize(nullptr, &plugin_), NPERR_INVALID_FUNCTABLE_ERROR);
  EXPECT_TRUE(UntouchedPastSize(plugin_));
  EXPECT_EQ(NP_GetEntryPoints(nullptr), NPERR_INVALID_FUNCTABLE_ERROR);
}

// A table shorter than the plug-in's is refused before a byte of it is written.
TEST_F(EntryPoints, RefusesShortPluginTable) {
  struct {
    NPPluginFuncs funcs;
    unsigned char beyond[16];
  } table;
  for (uint16_t size : {uint16_t(0), uint16_t(4), uint16_t(offsetof(NPPluginFuncs, event)),
                        uint16_t(sizeof(NPPluginFuncs) - 1)}) {
    std::memset(&table, 0, sizeof table);
    table.funcs.size = size;
    EXPECT_EQ(NP_GetEntryPoints(&table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&table) + sizeof table.funcs.size,
                          sizeof table - sizeof table.funcs.size))
        << size;
    browser_ = MakeBrowser(0x0013);
    gpc::GPCTraceCatcher::releaseGlobal();
    EXPECT_EQ(NP_Initialize(&browser_, &table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    EXPECT_EQ(table.funcs.newp, nullptr) << size;
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
  browser_ = MakeBrowser(0x0013);
  const size_t reach = offsetof(NPNetscapeFuncs, geturlnotify);
  std::memcpy(&table, &browser_, reach);
  table.funcs.size = static_cast<uint16_t>(reach);
  ASSERT_EQ(NP_Initialize(&table.funcs, &plugin_), NPERR_NO_ERROR);
  EXPECT_EQ(gNetscapeFuncs.geturl, &FakeGetURL);
  EXPECT_EQ(gNetscapeFuncs.memfree, &FakeMemFree);
  EXPECT_TRUE(IsAllZero(reinterpret_cast<char*>(&gNetscapeFuncs) + reach, sizeof gNetscapeFuncs - reach));
  EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/", nullptr, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(NPN_GetValue(nullptr, NPNVxDisplay, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_TRUE(g_log.calls.empty());
}

TEST_F(EntryPoints, RefusesBrowserOfAnotherMajorVersionAndCopiesNothing) {
  for (uint16_t version : {uint16_t(0x0100), uint16_t(0x0113), uint16_t(0xffff)}) {
    EXPECT_EQ(Load(version), NPERR_INCOMPATIBLE_VERSION_ERROR) << version;
    EXPECT_TRUE(IsAllZero(&gNetscapeFuncs, sizeof gNetscapeFuncs)) << version;
    EXPECT_EQ(navMinorVers, 0);
    EXPECT_TRUE(UntouchedPastSize(plugin_)) << "plug-in table written for " << version;
  }
  // With no browser functions, the wrappers fail instead of calling anything.
  EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(NPN_MemAlloc(16), nullptr);
  EXPECT_TRUE(g_log.calls.empty());
}

TEST_F(EntryPoints, CurrentBrowserGetsTheFullTable) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  EXPECT_EQ(navMinorVers, 19);
  EXPECT_EQ(gNetscapeFuncs.version, 0x0013);
  EXPECT_EQ(gNetscapeFuncs.size, sizeof(NPNetscapeFuncs));
  EXPECT_EQ(plugin_.version, 18);
  EXPECT_EQ(plugin_.size, sizeof(void*) == 8 ? 120 : 60);
  EXPECT_NE(plugin_.newp, nullptr);
  EXPECT_NE(plugin_.destroy, nullptr);
  EXPECT_NE(plugin_.setwindow, nullptr);
  EXPECT_NE(plugin_.newstream, nullptr);
  EXPECT_NE(plugin_.destroystream, nullptr);
  EXPECT_NE(plugin_.asfile, nullptr);
  EXPECT_NE(plugin_.writeready, nullptr);
  EXPECT_NE(plugin_.write, nullptr);
  EXPECT_NE(plugin_.print, nullptr);
  EXPECT_NE(plugin_.event, nullptr);
  EXPECT_NE(plugin_.urlnotify, nullptr);
  EXPECT_EQ(plugin_.javaClass, nullptr);
  // The plug-in answers no query and takes no setting.
  EXPECT_EQ(plugin_.getvalue(nullptr, NPPVpluginNameString, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(plugin_.setvalue(nullptr, NPNVxDisplay, nullptr), NPERR_GENERIC_ERROR);

  int datum = 0;
  EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/a", "_top", &datum), NPERR_NO_ERROR);
  EXPECT_EQ(g_log.last_notify_data, &datum);
  EXPECT_EQ(NPN_PostURLNotify(nullptr, "http://127.0.0.1/b", nullptr, 1, "x", false, nullptr),
            NPERR_NO_ERROR);
  EXPECT_EQ(g_log.calls, (std::vector<std::string>{"geturlnotify http://127.0.0.1/a", "posturlnotify"}));
}

TEST_F(EntryPoints, TheTableExtentStopsAtSetValue) {
  // A browser's longer table keeps whatever lies past the plug-in's extent.
  struct {
    NPPluginFuncs funcs;
    void* beyond[4];
  } table;
  std::memset(&table, 0xAB, sizeof table);
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  ASSERT_EQ(NP_GetEntryPoints(&table.funcs), NPERR_NO_ERROR);
  EXPECT_EQ(table.funcs.size, sizeof(NPPluginFuncs));
  for (void* slot : table.beyond) EXPECT_EQ(reinterpret_cast<uintptr_t>(slot), UINTPTR_MAX / 0xFF * 0xAB);
}

TEST_F(EntryPoints, BrowserWithoutNotificationsGetsNoNotifyCalls) {
  ASSERT_EQ(Load(8), NPERR_NO_ERROR);
  EXPECT_EQ(plugin_.urlnotify, nullptr);
  EXPECT_EQ(gNetscapeFuncs.geturlnotify, nullptr);
  EXPECT_EQ(gNetscapeFuncs.getJavaEnv, nullptr);
  EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/", nullptr, nullptr),
            NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_EQ(NPN_PostURLNotify(nullptr, "http://127.0.0.1/", nullptr, 0, "", false, nullptr),
            NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_TRUE(g_log.calls.empty());

  // Stream output arrived with version 8.
  NPStream* stream = nullptr;
  char byte = 'x';
  EXPECT_EQ(NPN_NewStream(nullptr, const_cast<char*>("text/plain"), "_blank", &stream), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_Write(nullptr, stream, 1, &byte), 1);
  EXPECT_EQ(NPN_DestroyStream(nullptr, stream, NPRES_DONE), NPERR_NO_ERROR);
  EXPECT_EQ(g_log.calls, (std::vector<std::string>{"newstream", "write", "destroystream"}));
}

TEST_F(EntryPoints, BrowserWithoutStreamOutputIsNotCalledForIt) {
  ASSERT_EQ(Load(7), NPERR_NO_ERROR);
  char byte = 'x';
  EXPECT_EQ(NPN_NewStream(nullptr, const_cast<char*>("text/plain"), nullptr, nullptr),
            NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_EQ(NPN_Write(nullptr, nullptr, 1, &byte), NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_EQ(NPN_DestroyStream(nullptr, nullptr, NPRES_DONE), NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_TRUE(g_log.calls.empty());
  EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(g_log.calls, std::vector<std::string>{"geturl"});
}

TEST_F(EntryPoints, EntryPointsBeforeInitializeLeaveNotificationUnset) {
  ASSERT_EQ(NP_GetEntryPoints(&plugin_), NPERR_NO_ERROR);
  EXPECT_NE(plugin_.newp, nullptr);
  EXPECT_EQ(plugin_.urlnotify, nullptr);
  // Initialising afterwards with only the browser table does not fill it in either.
  browser_ = MakeBrowser(0x0013);
  ASSERT_EQ(NP_Initialize(&browser_, nullptr), NPERR_NO_ERROR);
  EXPECT_EQ(plugin_.urlnotify, nullptr);
}

TEST_F(EntryPoints, VersionReportsThePluginsOwnWhateverTheBrowser) {
  for (uint16_t version : {uint16_t(0x0013), uint16_t(0x0007), uint16_t(0x0100)}) {
    std::memset(&gNetscapeFuncs, 0, sizeof gNetscapeFuncs);
    Load(version);
    int major = -1, minor = -1, browser_major = -1, browser_minor = -1;
    NPN_Version(&major, &minor, &browser_major, &browser_minor);
    EXPECT_EQ(major, 0);
    EXPECT_EQ(minor, 18);
    if (version <= 0xff) {
      EXPECT_EQ(browser_major, 0);
      EXPECT_EQ(browser_minor, version);
    } else {  // refused: the table stays empty
      EXPECT_EQ(browser_major, 0);
      EXPECT_EQ(browser_minor, 0);
    }
  }
}

TEST_F(EntryPoints, JavaEnvIsTheStoredPointerNotItsResult) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_GetJavaEnv(), reinterpret_cast<void*>(&FakeGetJavaEnv));
  EXPECT_TRUE(g_log.calls.empty());
}

// ---- Model negotiation -----------------------------------------------------------------------

class Negotiation : public EntryPoints {
 protected:
  NPError NewInstance() {
    char type[] = "application/x-talvo-gpc";
    return plugin_.newp(type, &npp_, NP_EMBED, 0, nullptr, nullptr, nullptr);
  }
  void DestroyInstance() {
    if (npp_.pdata != nullptr) plugin_.destroy(&npp_, nullptr);
  }
  void TearDown() override {
    DestroyInstance();
    EntryPoints::TearDown();
  }
  NPP_t npp_{nullptr, nullptr};
};

TEST_F(Negotiation, OldSystemAsksForNothing) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  g_log.core_graphics = g_log.cocoa = true;
  platform::SetSystemVersionOverride(0x1058);
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_NE(npp_.pdata, nullptr);
  for (const std::string& call : g_log.calls) EXPECT_NE(call.rfind("getvalue", 0), 0u) << call;
  EXPECT_TRUE(g_log.set_values.empty());
}

TEST_F(Negotiation, CoreGraphicsWithoutCocoaSetsOnlyTheDrawingModel) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  g_log.core_graphics = true;
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_NE(npp_.pdata, nullptr);
  EXPECT_EQ(g_log.set_values,
            (std::vector<std::pair<int, intptr_t>>{{NPPVpluginDrawingModel, NPDrawingModelCoreGraphics}}));
}

TEST_F(Negotiation, BothModelsAreSetAndRefusalsDoNotStopTheInstance) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  g_log.core_graphics = g_log.cocoa = true;
  g_log.setvalue_result = NPERR_GENERIC_ERROR;
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_NE(npp_.pdata, nullptr);
  EXPECT_EQ(g_log.set_values, (std::vector<std::pair<int, intptr_t>>{
                                  {NPPVpluginDrawingModel, NPDrawingModelCoreGraphics},
                                  {NPPVpluginEventModel, NPEventModelCocoa}}));
}

TEST_F(Negotiation, FailedQueriesSetNothing) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  g_log.core_graphics = g_log.cocoa = true;
  g_log.getvalue_result = NPERR_GENERIC_ERROR;
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_NE(npp_.pdata, nullptr);
  EXPECT_TRUE(g_log.set_values.empty());
}

TEST_F(Negotiation, BrowserWithoutGetValueStillGetsAnInstance) {
  browser_ = MakeBrowser(0x0013);
  browser_.getvalue = nullptr;
  ASSERT_EQ(NP_Initialize(&browser_, &plugin_), NPERR_NO_ERROR);
  EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_TRUE(g_log.set_values.empty());
}

// Every handler answers for an NPP without instance data: never created, refused, or destroyed.
TEST_F(Negotiation, HandlersWithoutAnInstanceAnswerAndTouchNothing) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto callEach = [this](NPP npp, const char* state) {
    NPWindow window{};
    NPStream stream{};
    stream.url = "http://127.0.0.1/s";
    uint16_t stype = 0;
    char block[4] = {};
    NPPrint print{};
    EXPECT_EQ(plugin_.setwindow(npp, &window), NPERR_INVALID_INSTANCE_ERROR) << state;
    EXPECT_EQ(plugin_.event(npp, nullptr), 0) << state;
    EXPECT_EQ(plugin_.newstream(npp, nullptr, &stream, false, &stype), npp ? NPERR_NO_ERROR : NPERR_INVALID_INSTANCE_ERROR)
        << state;
    EXPECT_EQ(plugin_.writeready(npp, &stream), 0x0FFFFFFF) << state;
    EXPECT_EQ(plugin_.write(npp, &stream, 0, 4, block), 4) << state;
    EXPECT_EQ(plugin_.destroystream(npp, &stream, NPRES_DONE), npp ? NPERR_NO_ERROR : NPERR_INVALID_INSTANCE_ERROR)
        << state;
    plugin_.asfile(npp, &stream, "/tmp/x");
    plugin_.urlnotify(npp, "http://127.0.0.1/s", NPRES_DONE, nullptr);
    plugin_.print(npp, &print);
    EXPECT_EQ(plugin_.destroy(npp, nullptr), npp ? NPERR_NO_ERROR : NPERR_INVALID_INSTANCE_ERROR) << state;
  };
  callEach(nullptr, "null");
  callEach(&npp_, "never created");
  g_log.memalloc_fails = true;
  EXPECT_EQ(NewInstance(), NPERR_OUT_OF_MEMORY_ERROR);
  g_log.memalloc_fails = false;
  EXPECT_EQ(npp_.pdata, nullptr);
  callEach(&npp_, "refused");
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  DestroyInstance();
  callEach(&npp_, "destroyed");
  EXPECT_EQ(npp_.pdata, nullptr);
}

// What a client of the instance's provider receives when the browser writes a block.
struct SapLog {
  std::vector<int32_t> lengths;  // of every GPC_STREAM_DATA
  static int Record(GPCMessage* message) {
    if (message->type == GPC_STREAM_DATA) static_cast<SapLog*>(message->context)->lengths.push_back(message->payload.data.length);
    return 0;
  }
};

// A block with a negative length, or none behind a positive one, is refused: never read, never
// passed on, never judged as the host page's URL.
TEST_F(Negotiation, BadBlocksAreRefusedUnread) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  CGpcWindow* window = static_cast<InstanceRecord*>(npp_.pdata)->gpcWindow;
  SapLog sapLog;
  void* sap = nullptr;
  ASSERT_EQ(GpcRegisterStreamSap(&SapLog::Record, &sapLog, window, &sap), GPC_RESULT_OK);
  void* request = nullptr;
  ASSERT_EQ(GpcGetStream(sap, "http://127.0.0.1/data", 0, &request), GPC_RESULT_OK);
  NPStream data{};
  data.url = "http://127.0.0.1/data";
  data.notifyData = request;
  NPStream hostSite{};
  hostSite.url = "https://www.talvo.us/page";
  hostSite.notifyData = reinterpret_cast<void*>(100);
  uint16_t stype = 0;
  ASSERT_EQ(plugin_.newstream(&npp_, nullptr, &data, false, &stype), NPERR_NO_ERROR);
  const int32_t halted = window->m_bHalted;
  char block[8] = "abcdefg";
  for (NPStream* stream : {&data, &hostSite}) {
    EXPECT_LT(plugin_.write(&npp_, stream, 0, -5, block), 0);
    EXPECT_LT(plugin_.write(&npp_, stream, 0, INT32_MIN, block), 0);
    EXPECT_LT(plugin_.write(&npp_, stream, 0, 8, nullptr), 0);
  }
  EXPECT_TRUE(sapLog.lengths.empty());
  EXPECT_EQ(window->m_bHalted, halted);
  EXPECT_TRUE(window->m_vectorFrameTarget.empty()) << "no error page for a block never read";
  EXPECT_EQ(plugin_.write(&npp_, &data, 0, 7, block), 7);
  EXPECT_EQ(sapLog.lengths, std::vector<int32_t>{7});
  plugin_.destroystream(&npp_, &data, NPRES_DONE);
}

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

TEST_F(Negotiation, NoExceptionLeavesAnEntryPointWhenMemoryRunsOut) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto ensureInstance = [this] {
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
  const long kOk = NPERR_NO_ERROR, kOutOfMemory = NPERR_OUT_OF_MEMORY_ERROR;
  const long kServiceOk = GPC_RESULT_OK, kServiceOutOfMemory = kGpcServiceOutOfMemory;
  const std::vector<BoundaryCall> calls = {
      {"NP_GetValue", [&] { return long(NP_GetValue(nullptr, NPPVpluginNameString, &text)); }, {kOk, kOutOfMemory}},
      {"NP_GetEntryPoints", [&] { return long(NP_GetEntryPoints(&plugin_)); }, {kOk, kOutOfMemory}},
      {"NP_Initialize", [&] { return long(NP_Initialize(&browser_, &plugin_)); }, {kOk, kOutOfMemory},
       [] { gpc::GPCTraceCatcher::releaseGlobal(); }},
      // Refused, it leaves no instance data behind.
      {"NPP_New", [&] { return NewInstance() == kOk ? kOk : npp_.pdata == nullptr ? kOutOfMemory : -1; },
       {kOk, kOutOfMemory}, [this] { DestroyInstance(); }},
      {"NPP_SetWindow", [&] { return long(plugin_.setwindow(&npp_, &npWindow)); }, {kOk, kOutOfMemory},
       ensureInstance},
      {"NPP_HandleEvent", [&] { return long(plugin_.event(&npp_, nullptr)); }, {0}, ensureInstance},
      {"NPP_NewStream", [&] { return long(plugin_.newstream(&npp_, nullptr, &hostSite, false, &stype)); },
       {kOk, kOutOfMemory}, ensureInstance},
      {"NPP_WriteReady", [&] { return long(plugin_.writeready(&npp_, &hostSite)); }, {0x0FFFFFFF}, ensureInstance},
      {"NPP_Write",
       [&] { return long(plugin_.write(&npp_, &hostSite, 0, int32_t(pageUrl.size()), &pageUrl[0])); },
       {long(pageUrl.size()), -1}, ensureInstance},
      {"NPP_DestroyStream", [&] { return long(plugin_.destroystream(&npp_, &hostSite, NPRES_DONE)); },
       {kOk, kOutOfMemory}, ensureInstance},
      {"NPP_StreamAsFile", [&] { return plugin_.asfile(&npp_, &hostSite, "/tmp/x"), 0L; }, {}, ensureInstance},
      {"NPP_URLNotify", [&] { return plugin_.urlnotify(&npp_, "https://www.talvo.us/x", NPRES_DONE, nullptr), 0L; },
       {}, ensureInstance},
      {"NPP_Print", [&] { return plugin_.print(&npp_, &print), 0L; }, {}, ensureInstance},
      {"NPP_Destroy", [&] { return long(plugin_.destroy(&npp_, nullptr)); }, {kOk, kOutOfMemory}, ensureInstance},
      {"GpcRegisterStreamSap",
       [&] {
         void* sap = nullptr;
         return long(GpcRegisterStreamSap(&SapLog::Record, nullptr, window(), &sap));
       },
       {kServiceOk, kServiceOutOfMemory}, ensureInstance},
      {"GpcGetStream",
       [&] {
         void* stream = nullptr;
         return long(GpcGetStream(window()->m_streamSap, "https://www.talvo.us/f", 0, &stream));
       },
       {kServiceOk, GPC_ERR_REQUEST_PENDING, kServiceOutOfMemory}, ensureInstance},
      {"GpcSetParam", [&] { return long(GpcSetParam(window(), "Name", "value")); }, {kServiceOk, kServiceOutOfMemory},
       ensureInstance},
      {"GpcGetParam", [&] { return long(GpcGetParam(window(), "GpcUrlRoot") != nullptr); }, {}, ensureInstance},
      {"GpcChangeLocation", [&] { return long(GpcChangeLocation(window(), "https://www.talvo.us/n", "_top")); },
       {kServiceOk, kServiceOutOfMemory}, ensureInstance},
      {"GpcGetFileAtUrl", [&] { return long(GpcGetFileAtUrl(window(), nullptr, nullptr, "https://www.talvo.us/f")); },
       {kServiceOk, kServiceOutOfMemory}, ensureInstance},
      {"GpcShowMessage", [&] { return long(GpcShowMessage(window(), "text")); }, {kServiceOk, kServiceOutOfMemory},
       ensureInstance},
      {"GpcOutputDebugString", [&] { return GpcOutputDebugString(window(), "text"), 0L; }, {}, ensureInstance},
      {"GpcGetPluginDir", [&] { return long(GpcGetPluginDir(folder, sizeof folder)); }, {}},
      {"GpcTracePost", [&] { return long(GpcTracePost("Extension", 2, "text")); }, {0, 1}},
      {"GpcTraceQueryWarnings", [&] { return long(GpcTraceQueryWarnings(1, answer, sizeof answer) >= -1); }, {1}},
      {"NP_Shutdown", [&] { return long(NP_Shutdown()); }, {kOk, kOutOfMemory}, [this] { DestroyInstance(); }},
  };
  for (const BoundaryCall& entry : calls) CallWithEachAllocationFailing(entry);
}

// ---- Debug strings -----------------------------------------------------------------------------

TEST_F(Negotiation, DebugStringsFollowTheLifeOfTheModule) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  NPWindow window{};
  plugin_.setwindow(&npp_, &window);
  plugin_.event(&npp_, nullptr);
  DestroyInstance();
  NP_Shutdown();
  EXPECT_EQ(debug_strings_, (std::vector<std::string>{
                                "plugin,NP_Initialize start", "plugin,NP_Initialize end",
                                "plugin,NP_GetEntryPoints start", "Private_Initialize",
                                "plugin,NP_GetEntryPoints end", "Private_New", "Private_Destroy",
                                "Private_Shutdown", "NP_Shutdown", "Private_Shutdown"}));
}

// The catcher collects from NP_Initialize on; ending an instance ends the collected trace.
TEST_F(Negotiation, TraceCatcherLivesFromInitializeToInstanceEnd) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  bool seen = false;
  for (const auto& entry : gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo())
    seen = seen || gpc::traceContent(*entry) == "plugin,NP_GetEntryPoints end";
  EXPECT_TRUE(seen);
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  DestroyInstance();
  EXPECT_TRUE(gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo().empty());
  gpc::GPCTraceCatcher::releaseGlobal();
}

TEST_F(EntryPoints, RefusedInitializationStillTellsTheDebugSink) {
  EXPECT_EQ(Load(0x0100), NPERR_INCOMPATIBLE_VERSION_ERROR);
  EXPECT_EQ(debug_strings_,
            (std::vector<std::string>{"plugin,NP_Initialize start", "plugin,NP_Initialize end"}));
}

// ---- Unix module entry points --------------------------------------------------------------------

TEST(ModuleEntryPoints, DescribeThePlugin) {
  EXPECT_EQ(std::string(NP_GetMIMEDescription()).rfind("application/x-talvo-gpc:", 0), 0u);
  const char* text = nullptr;
  EXPECT_EQ(NP_GetValue(nullptr, NPPVpluginNameString, &text), NPERR_NO_ERROR);
  ASSERT_NE(text, nullptr);
  EXPECT_NE(std::string(text).find("GPC"), std::string::npos);
  text = nullptr;
  EXPECT_EQ(NP_GetValue(nullptr, NPPVpluginDescriptionString, &text), NPERR_NO_ERROR);
  EXPECT_NE(text, nullptr);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginNameString, nullptr), NPERR_NO_ERROR);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginWindowBool, &text), NPERR_NO_ERROR);
}

TEST(ModuleEntryPoints, TheBundledModuleExportsOnlyTheEntryPoints) {
  std::string module = std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS/libnpgpc.so";
  void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  for (const char* name : {"NP_GetMIMEDescription", "NP_GetValue", "NP_Initialize", "NP_GetEntryPoints",
                           "NP_Shutdown"})
    EXPECT_NE(dlsym(handle, name), nullptr) << name;
  for (const char* name : {"gNetscapeFuncs", "navMinorVers", "gResFile"})
    EXPECT_EQ(dlsym(handle, name), nullptr) << name;
  dlclose(handle);
}

}  // namespace
