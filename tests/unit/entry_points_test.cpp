// The module's entry points and browser-call wrappers, driven through a fake browser table.
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <utility>
#include <vector>

#include "common/gpctracecatcher.h"
#include "platform/debug_string.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"

extern "C" {
const char* NP_GetMIMEDescription(void);
NPError NP_GetValue(void* future, NPPVariable variable, void* value);
NPError NP_Initialize(NPNetscapeFuncs* browserFuncs, NPPluginFuncs* pluginFuncs);
NPError NP_GetEntryPoints(NPPluginFuncs* pluginFuncs);
NPError NP_Shutdown(void);
}

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

NPError FakeGetURL(NPP, const char*, const char*) {
  g_log.calls.push_back("geturl");
  return NPERR_NO_ERROR;
}
NPError FakeGetURLNotify(NPP, const char* url, const char*, void* data) {
  g_log.calls.push_back(std::string("geturlnotify ") + url);
  g_log.last_notify_data = data;
  return NPERR_NO_ERROR;
}
NPError FakePostURLNotify(NPP, const char*, const char*, uint32_t, const char*, NPBool, void*) {
  g_log.calls.push_back("posturlnotify");
  return NPERR_NO_ERROR;
}
NPError FakeNewStream(NPP, NPMIMEType, const char*, NPStream**) {
  g_log.calls.push_back("newstream");
  return NPERR_NO_ERROR;
}
int32_t FakeWrite(NPP, NPStream*, int32_t len, void*) {
  g_log.calls.push_back("write");
  return len;
}
NPError FakeDestroyStream(NPP, NPStream*, NPReason) {
  g_log.calls.push_back("destroystream");
  return NPERR_NO_ERROR;
}
void* FakeMemAlloc(uint32_t size) { return g_log.memalloc_fails ? nullptr : std::calloc(1, size); }
void FakeMemFree(void* ptr) { std::free(ptr); }
void* FakeGetJavaEnv(void) {
  g_log.calls.push_back("getJavaEnv");
  return nullptr;
}
NPError FakeGetValue(NPP, NPNVariable variable, void* value) {
  g_log.calls.push_back("getvalue " + std::to_string(variable));
  if (g_log.getvalue_result != NPERR_NO_ERROR) return g_log.getvalue_result;
  bool answer = variable == NPNVsupportsCoreGraphicsBool ? g_log.core_graphics
                : variable == NPNVsupportsCocoaBool      ? g_log.cocoa
                                                         : false;
  *static_cast<NPBool*>(value) = answer;
  return NPERR_NO_ERROR;
}
NPError FakeSetValue(NPP, NPPVariable variable, void* value) {
  g_log.set_values.emplace_back(variable, reinterpret_cast<intptr_t>(value));
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
