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
#include "tvt_reader.h"
#include "gpc/gpc_trace.h"
#include "platform/debug_string.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"

// Allocation that, once armed, lets that many more allocations succeed and fails every one after.
thread_local long t_allocationsBeforeFailure = -1;  // -1: disarmed
thread_local bool t_allocationFailed = false;
void* AllocateOrFail(std::size_t size) noexcept {
  if (t_allocationsBeforeFailure == 0) return t_allocationFailed = true, nullptr;
  if (t_allocationsBeforeFailure > 0) --t_allocationsBeforeFailure;
  return std::malloc(size == 0 ? 1 : size);
}
void* AllocateOrThrow(std::size_t size) {
  if (void* memory = AllocateOrFail(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrFail(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrFail(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using gpctest::Browser;

// A table as a browser hands it, with bytes of the browser's own past its end.
template <typename Table>
struct Padded {
  Table funcs;
  unsigned char beyond[16];
};
// Whether bytes [from, to) of `data` all hold `value`.
bool AllBytes(const void* data, size_t from, size_t to, unsigned char value) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  return std::all_of(bytes + from, bytes + to, [value](unsigned char b) { return b == value; });
}

// Each test starts as a freshly loaded module would.
class EntryPoints : public ::testing::Test {
 protected:
  void SetUp() override {
    gNetscapeFuncs = NPNetscapeFuncs{};
    navMinorVers = 0;
    plugin_.size = sizeof plugin_;
    platform::SetDebugStrSink([this](const std::string& text) { debug_strings_.push_back(text); });
  }
  void TearDown() override {
    if (npp_.pdata != nullptr) plugin_.destroy(&npp_, nullptr);
    gpc::GPCTraceCatcher::releaseGlobal();
    platform::SetDebugStrSink(nullptr);
    platform::SetSystemVersionOverride(0);
  }
  // A browser loads a module once: each load ends the previous one's trace catcher first.
  NPError Load(uint16_t version, NPPluginFuncs* plugin = nullptr) {
    gpc::GPCTraceCatcher::releaseGlobal();
    browser_ = gpctest::BrowserTable(version);
    return NP_Initialize(&browser_, plugin ? plugin : &plugin_);
  }
  NPError NewInstance() {
    return plugin_.newp(const_cast<char*>("application/x-talvo-gpc"), &npp_, NP_EMBED, 0, nullptr, nullptr, nullptr);
  }
  NPNetscapeFuncs browser_ = gpctest::BrowserTable(0x0013);
  NPPluginFuncs plugin_{};
  NPP_t npp_{nullptr, nullptr};
  std::vector<std::string> debug_strings_;
};

// Tables that are missing, short, or of another major version are refused before a byte of the
// plug-in's table (or of what follows it) is written; a browser table is copied exactly as far
// as it reaches, and what lies past its end is never taken for a function.
TEST_F(EntryPoints, TablesAreTakenOnlyAsFarAsTheyReach) {
  EXPECT_EQ(NP_Initialize(nullptr, &plugin_), NPERR_INVALID_FUNCTABLE_ERROR);
  for (uint16_t version : {0x0100, 0x0113, 0xffff}) {
    EXPECT_EQ(Load(version), NPERR_INCOMPATIBLE_VERSION_ERROR) << version;
    EXPECT_TRUE(AllBytes(&gNetscapeFuncs, 0, sizeof gNetscapeFuncs, 0)) << version;
    EXPECT_TRUE(AllBytes(&plugin_, sizeof plugin_.size, sizeof plugin_, 0)) << version;
  }
  EXPECT_EQ(NP_GetEntryPoints(nullptr), NPERR_INVALID_FUNCTABLE_ERROR);
  for (size_t size : {size_t(0), offsetof(NPPluginFuncs, event), sizeof(NPPluginFuncs) - 1}) {
    Padded<NPPluginFuncs> table{};
    table.funcs.size = static_cast<uint16_t>(size);
    EXPECT_EQ(NP_GetEntryPoints(&table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    EXPECT_EQ(Load(0x0013, &table.funcs), NPERR_INVALID_FUNCTABLE_ERROR) << size;
    EXPECT_TRUE(AllBytes(&table, sizeof table.funcs.size, sizeof table, 0)) << size;
  }
  gNetscapeFuncs = NPNetscapeFuncs{};
  Padded<NPNetscapeFuncs> browser;
  std::memset(&browser, 0xAB, sizeof browser);
  const size_t reach = offsetof(NPNetscapeFuncs, posturl);  // ends right after geturl
  std::memcpy(&browser, &browser_, reach);
  browser.funcs.size = static_cast<uint16_t>(reach);
  gpc::GPCTraceCatcher::releaseGlobal();
  ASSERT_EQ(NP_Initialize(&browser.funcs, &plugin_), NPERR_NO_ERROR);
  EXPECT_EQ(NPN_GetURL(nullptr, "http://127.0.0.1/", nullptr), NPERR_NO_ERROR);
  EXPECT_TRUE(AllBytes(&gNetscapeFuncs, reach, sizeof gNetscapeFuncs, 0));
  EXPECT_EQ(NPN_PostURL(nullptr, "http://127.0.0.1/p", nullptr, 1, "x", false), NPERR_GENERIC_ERROR);
  EXPECT_EQ(Browser().requests.size(), 1u);
  // A browser's longer plug-in table keeps whatever lies past the plug-in's extent.
  Padded<NPPluginFuncs> longer;
  std::memset(&longer, 0xAB, sizeof longer);
  ASSERT_EQ(NP_GetEntryPoints(&longer.funcs), NPERR_NO_ERROR);
  EXPECT_EQ(longer.funcs.size, sizeof(NPPluginFuncs));
  EXPECT_TRUE(AllBytes(longer.beyond, 0, sizeof longer.beyond, 0xAB));
}

// Which wrappers reach the browser, by the browser's minor version; entry points asked for before
// NP_Initialize know no browser version, so offer no notifications.
TEST_F(EntryPoints, OlderBrowsersAreNotCalledForWhatTheyLack) {
  const struct {
    uint16_t version;
    bool notifications, streamOutput;
  } cases[] = {{8, false, true}, {7, false, false}, {9, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.version);
    ASSERT_EQ(Load(c.version), NPERR_NO_ERROR);
    EXPECT_EQ(plugin_.urlnotify != nullptr, c.notifications);
    int version[4] = {};
    NPN_Version(&version[0], &version[1], &version[2], &version[3]);
    EXPECT_EQ(std::vector<int>(version, version + 4), std::vector<int>({0, 18, 0, c.version}));
    EXPECT_EQ(gNetscapeFuncs.getJavaEnv != nullptr || gNetscapeFuncs.geturlnotify != nullptr, c.notifications);
    const NPError notifyAnswer = c.notifications ? NPERR_NO_ERROR : NPERR_INCOMPATIBLE_VERSION_ERROR;
    EXPECT_EQ(NPN_GetURLNotify(nullptr, "http://127.0.0.1/", nullptr, nullptr), notifyAnswer);
    EXPECT_EQ(NPN_PostURLNotify(nullptr, "http://127.0.0.1/", nullptr, 0, "", false, nullptr), notifyAnswer);
    EXPECT_EQ(Browser().requests.size(), c.notifications ? 2u : 0u);
    NPStream* stream = nullptr;
    char byte = 'x';
    const NPError streamAnswer = c.streamOutput ? NPERR_NO_ERROR : NPERR_INCOMPATIBLE_VERSION_ERROR;
    EXPECT_EQ(NPN_NewStream(nullptr, const_cast<char*>("text/plain"), "_blank", &stream), streamAnswer);
    EXPECT_EQ(NPN_Write(nullptr, stream, 1, &byte), c.streamOutput ? 1 : NPERR_INCOMPATIBLE_VERSION_ERROR);
    EXPECT_EQ(NPN_DestroyStream(nullptr, stream, NPRES_DONE), streamAnswer);
    EXPECT_EQ(Browser().streamCalls, c.streamOutput ? 3 : 0);
  }
  SetUp();
  plugin_ = NPPluginFuncs{};
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
    uint32_t system;
    bool cocoa, hasGetValue;
    NPError getValue, setValue;
    std::vector<std::pair<int, intptr_t>> set;
  } cases[] = {
      {0x1058, true, true, NPERR_NO_ERROR, NPERR_NO_ERROR, {}},  // an older system asks nothing
      {0x1060, false, true, NPERR_NO_ERROR, NPERR_NO_ERROR, {kDrawing}},
      {0, true, true, NPERR_NO_ERROR, NPERR_GENERIC_ERROR, {kDrawing, kEvents}},  // both refused
      {0, true, true, NPERR_GENERIC_ERROR, NPERR_NO_ERROR, {}},                    // queries fail
      {0, true, false, NPERR_NO_ERROR, NPERR_NO_ERROR, {}},                        // no getvalue
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    platform::SetSystemVersionOverride(c.system);
    browser_ = gpctest::BrowserTable(0x0013);
    if (!c.hasGetValue) browser_.getvalue = nullptr;
    gpc::GPCTraceCatcher::releaseGlobal();
    ASSERT_EQ(NP_Initialize(&browser_, &plugin_), NPERR_NO_ERROR);
    Browser().supports = {{NPNVsupportsCoreGraphicsBool, true}, {NPNVsupportsCocoaBool, c.cocoa}};
    Browser().getValueResult = c.getValue;
    Browser().setValueResult = c.setValue;
    EXPECT_EQ(NewInstance(), NPERR_NO_ERROR);
    EXPECT_NE(npp_.pdata, nullptr);
    EXPECT_EQ(Browser().valuesAsked == 0, c.system == 0x1058 || !c.hasGetValue);
    EXPECT_EQ(Browser().valuesSet, c.set);
    plugin_.destroy(&npp_, nullptr);
  }
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
  // The plug-in answers no query and takes no setting.
  EXPECT_EQ(plugin_.getvalue(nullptr, NPPVpluginNameString, nullptr), NPERR_GENERIC_ERROR);
  EXPECT_EQ(plugin_.setvalue(nullptr, NPNVxDisplay, nullptr), NPERR_GENERIC_ERROR);
  Browser().failMemAlloc = true;
  EXPECT_EQ(NewInstance(), NPERR_OUT_OF_MEMORY_ERROR);
  Browser().failMemAlloc = false;
  EXPECT_EQ(npp_.pdata, nullptr);
  callEach(&npp_, "refused");
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  plugin_.destroy(&npp_, nullptr);
  callEach(&npp_, "destroyed");
  EXPECT_TRUE(Browser().requests.empty());
  // So do the services an extension calls.
  EXPECT_EQ(GpcSetHook(nullptr), GPC_ERR_NO_INSTANCE);
  EXPECT_EQ(GpcCheckDigitalSignature(nullptr, "/tmp/x"), 0);
  EXPECT_EQ(GpcCheckDigitalSignature(&npp_, "/tmp/x"), 1);
}

int IgnoreMessage(GPCMessage*) { return 0; }

// Each entry point, as a browser or an extension calls it, runs with allocation failing from its
// first allocation on, then from its second, and so on (further apart as the count grows) until a
// run meets no failure: no exception may leave it, and a refused instance leaves no data behind.
TEST_F(EntryPoints, NoExceptionLeavesAnEntryPointWhenMemoryRunsOut) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto ensure = [this] {
    if (npp_.pdata == nullptr) {
      ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
    }
  };
  const auto destroy = [this] { plugin_.destroy(&npp_, nullptr); };
  const auto window = [this] { return static_cast<InstanceRecord*>(npp_.pdata)->gpcWindow; };
  const auto np = [](long e) { return e == NPERR_NO_ERROR || e == NPERR_OUT_OF_MEMORY_ERROR; };
  const auto served = [](long e) { return e == GPC_RESULT_OK || e == kGpcServiceOutOfMemory; };
  NPWindow npWindow{};
  NPStream hostSite{};
  hostSite.url = "https://www.talvo.us/page";
  hostSite.notifyData = reinterpret_cast<void*>(NOTIFICATION_GET_HOSTSITE);
  char page[] = "https://www.talvo.us/page";
  const int32_t length = sizeof page - 1;
  uint16_t stype = 0;
  NPPrint print{};
  const char* text = nullptr;
  char buffer[64];
  void* out = nullptr;
  const struct {
    const char* name;
    std::function<bool()> call;  // whether the answer is one the entry point may give
    std::function<void()> prepare;
  } calls[] = {
      {"NP_GetValue", [&] { return np(NP_GetValue(nullptr, NPPVpluginNameString, &text)); }, {}},
      {"NP_GetEntryPoints", [&] { return np(NP_GetEntryPoints(&plugin_)); }, {}},
      {"NP_Initialize", [&] { return np(NP_Initialize(&browser_, &plugin_)); }, gpc::GPCTraceCatcher::releaseGlobal},
      // Refused, it leaves no instance data behind.
      {"NPP_New", [&] { return NewInstance() == NPERR_NO_ERROR || npp_.pdata == nullptr; }, destroy},
      {"NPP_SetWindow", [&] { return np(plugin_.setwindow(&npp_, &npWindow)); }, ensure},
      {"NPP_HandleEvent", [&] { return plugin_.event(&npp_, nullptr) == 0; }, ensure},
      {"NPP_NewStream", [&] { return np(plugin_.newstream(&npp_, nullptr, &hostSite, false, &stype)); }, ensure},
      {"NPP_WriteReady", [&] { return plugin_.writeready(&npp_, &hostSite) == 0x0FFFFFFF; }, ensure},
      {"NPP_Write", [&] { return plugin_.write(&npp_, &hostSite, 0, length, page) / length != 0; }, ensure},
      {"NPP_DestroyStream", [&] { return np(plugin_.destroystream(&npp_, &hostSite, NPRES_DONE)); }, ensure},
      {"NPP_StreamAsFile", [&] { return plugin_.asfile(&npp_, &hostSite, "/tmp/x"), true; }, ensure},
      {"NPP_URLNotify", [&] { return plugin_.urlnotify(&npp_, page, NPRES_DONE, nullptr), true; }, ensure},
      {"NPP_Print", [&] { return plugin_.print(&npp_, &print), true; }, ensure},
      {"NPP_Destroy", [&] { return np(plugin_.destroy(&npp_, nullptr)); }, ensure},
      {"GpcRegisterStreamSap", [&] { return served(GpcRegisterStreamSap(&IgnoreMessage, nullptr, window(), &out)); },
       ensure},
      {"GpcGetStream",
       [&] {
         const uint32_t answer = GpcGetStream(window()->m_streamSap, page, 0, &out);
         return served(answer) || answer == GPC_ERR_REQUEST_PENDING;
       },
       ensure},
      {"GpcSetParam", [&] { return served(GpcSetParam(window(), "Name", "value")); }, ensure},
      {"GpcGetParam", [&] { return GpcGetParam(window(), "GpcUrlRoot"), true; }, ensure},
      {"GpcChangeLocation", [&] { return served(GpcChangeLocation(window(), page, "_top")); }, ensure},
      {"GpcGetFileAtUrl", [&] { return served(GpcGetFileAtUrl(window(), nullptr, nullptr, page)); }, ensure},
      {"GpcShowMessage", [&] { return served(GpcShowMessage(window(), "text")); }, ensure},
      {"GpcOutputDebugString", [&] { return GpcOutputDebugString(window(), "text"), true; }, ensure},
      {"GpcGetPluginDir", [&] { return GpcGetPluginDir(buffer, sizeof buffer) < sizeof buffer; }, {}},
      {"GpcTracePost", [&] { return GpcTracePost("Extension", 2, "text") / 2 == 0; }, {}},
      {"GpcTraceQueryWarnings", [&] { return GpcTraceQueryWarnings(1, buffer, sizeof buffer) >= -1; }, {}},
      {"NP_Shutdown", [&] { return np(NP_Shutdown()); }, destroy},
  };
  for (const auto& entry : calls) {
    for (long allowed = 0;; allowed += 1 + allowed / 8) {
      if (entry.prepare) entry.prepare();
      bool answered = false, escaped = false;
      t_allocationFailed = false;
      t_allocationsBeforeFailure = allowed;
      try {
        answered = entry.call();
      } catch (...) {
        escaped = true;
      }
      t_allocationsBeforeFailure = -1;
      ASSERT_FALSE(escaped) << "an exception left " << entry.name << " when allocation " << allowed << " failed";
      EXPECT_TRUE(answered) << entry.name << " gave a wrong answer when allocation " << allowed << " failed";
      if (!t_allocationFailed) break;
    }
  }
}

// The debug strings follow the life of the module; the trace catcher collects from NP_Initialize
// on, ending the last instance ends the collected trace, a later instance starts it again, and
// NP_Shutdown ends it.
TEST_F(EntryPoints, DebugStringsAndCollectedTraceFollowTheModule) {
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  const auto collected = [] { return gpc::GPCTraceCatcher::sharedInstance()->allTraceInfo(); };
  ASSERT_FALSE(collected().empty());
  EXPECT_EQ(gpc::traceContent(*collected().back()), "plugin,NP_GetEntryPoints end");
  // Asked as an extension asks, which never makes a catcher of its own.
  const auto collecting = [] { char answer[64]; return GpcTraceQueryWarnings(0, answer, sizeof answer) >= 0; };
  NPP_t other{nullptr, nullptr};
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  ASSERT_EQ(plugin_.newp(const_cast<char*>("application/x-talvo-gpc"), &other, NP_EMBED, 0, nullptr, nullptr, nullptr),
            NPERR_NO_ERROR);
  plugin_.destroy(&npp_, nullptr);
  EXPECT_TRUE(collecting());
  plugin_.destroy(&other, nullptr);
  EXPECT_FALSE(collecting());
  // The later instance is traced from its first line on: the trace file gets its "NPP_New".
  const char* traceFile = getenv("GPC_TRACE_FILE");
  const auto starts = [&] {
    const std::vector<std::string> records = tvttest::Records(traceFile ? traceFile : "/tmp/tlvgpc.tvt");
    return std::count_if(records.begin(), records.end(),
                         [](const std::string& r) { return r.find("|NPWRAP : NPP_New") != std::string::npos; });
  };
  const auto startsBefore = starts();
  ASSERT_EQ(NewInstance(), NPERR_NO_ERROR);
  EXPECT_TRUE(collecting());
  EXPECT_EQ(starts(), startsBefore + 1);
  plugin_.destroy(&npp_, nullptr);
  NP_Shutdown();
  EXPECT_EQ(debug_strings_, (std::vector<std::string>{"plugin,NP_Initialize start", "plugin,NP_Initialize end",
                                                      "plugin,NP_GetEntryPoints start", "Private_Initialize",
                                                      "plugin,NP_GetEntryPoints end", "Private_New", "Private_New",
                                                      "Private_Destroy", "Private_Shutdown", "Private_Destroy",
                                                      "Private_Shutdown", "Private_New", "Private_Destroy",
                                                      "Private_Shutdown", "NP_Shutdown", "Private_Shutdown"}));
  ASSERT_EQ(Load(0x0013), NPERR_NO_ERROR);
  NP_Shutdown();
  EXPECT_FALSE(collecting());
}

TEST(ModuleEntryPoints, DescribeThePluginAndExportOnlyTheEntryPoints) {
  EXPECT_EQ(std::string(NP_GetMIMEDescription()).rfind("application/x-talvo-gpc:gpc:", 0), 0u);
  const char* name = nullptr;
  const char* description = nullptr;
  ASSERT_EQ(NP_GetValue(nullptr, NPPVpluginNameString, &name), NPERR_NO_ERROR);
  ASSERT_EQ(NP_GetValue(nullptr, NPPVpluginDescriptionString, &description), NPERR_NO_ERROR);
  EXPECT_STREQ(name, "Talvo GPC");
  EXPECT_NE(description, nullptr);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginNameString, nullptr), NPERR_NO_ERROR);
  EXPECT_NE(NP_GetValue(nullptr, NPPVpluginWindowBool, &name), NPERR_NO_ERROR);
  void* handle = dlopen((std::string(GPC_BUNDLE_DIR) + "/Contents/MacOS/libnpgpc.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  for (const char* symbol : {"NP_GetMIMEDescription", "NP_GetValue", "NP_Initialize", "NP_GetEntryPoints",
                             "NP_Shutdown", "gNetscapeFuncs", "navMinorVers", "gResFile"}) {
    EXPECT_EQ(dlsym(handle, symbol) != nullptr, std::string(symbol).rfind("NP_", 0) == 0) << symbol;
  }
  dlclose(handle);
}

}  // namespace
