// The sample extension as the plug-in meets it: the executable of the bundle shipped in the plug-in,
// loaded with dlopen and driven through a browser-side service table that records every request.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "extension_package.h"
#include "gpc/gpc_extension.h"

namespace {

const char kExecutable[] = GPC_BUNDLE_DIR "/Contents/Frameworks/zrgpcext64.bundle/Contents/MacOS/zrgpcext64";
using Params = std::vector<std::pair<std::string, std::string>>;

// The browser side of one instance: what the plug-in answers, and what the extension asked, in order.
struct FakeBrowser {
  int major = GPC_SERVICE_VERSION_MAJOR;
  Params params;
  uint32_t fetchResult = GPC_RESULT_OK, unpackResult = GPC_RESULT_OK;
  std::vector<std::pair<GpcGetFileNotifyProc, void*>> callbacks;
  uint32_t sapResult = GPC_RESULT_OK;
  std::vector<uint32_t> streamResults;  // GpcGetStream's answers, in turn
  std::pair<GPCStreamMessageProc, void*> sap;
  std::string log;  // "fetch URL, unpack ARCHIVE -> FOLDER, go URL TARGET, stop, sap, stream URL, unsap, "
  std::vector<std::string> debugLines;
};
FakeBrowser* gBrowser = nullptr;  // for GpcGetVersion, the one service without an instance
FakeBrowser& B(void* instance) { return *static_cast<FakeBrowser*>(instance); }

GpcServiceTable Services() {
  GpcServiceTable table{};
  table.GpcGetVersion = [](int* major, int* minor) {
    *major = gBrowser->major;
    *minor = 0;
    return GPC_RESULT_OK;
  };
  table.GpcGetParamCount = [](void* instance) { return static_cast<int>(B(instance).params.size()); };
  table.GpcGetParam = [](void* instance, const char* name) -> const char* {
    for (const auto& param : B(instance).params)
      if (param.first == name) return param.second.c_str();
    return nullptr;
  };
  table.GpcGetParamAt = [](void* instance, int index, const char** name, const char** value) {
    *name = B(instance).params.at(static_cast<size_t>(index)).first.c_str();
    *value = B(instance).params.at(static_cast<size_t>(index)).second.c_str();
    return 1;
  };
  table.GpcChangeLocation = [](void* instance, const char* url, const char* target) {
    B(instance).log += "go " + std::string(url) + " " + target + ", ";
    return GPC_RESULT_OK;
  };
  table.GpcGetFileAtUrl = [](void* instance, GpcGetFileNotifyProc callback, void* context, const char* url) {
    B(instance).callbacks.emplace_back(callback, context);
    B(instance).log += "fetch " + std::string(url) + ", ";
    return B(instance).fetchResult;
  };
  table.GpcUnpackFile = [](void* instance, const char* archive, const char* destination) {
    B(instance).log += "unpack " + std::string(archive) + " -> " + destination + ", ";
    return B(instance).unpackResult;
  };
  table.GpcRegisterStreamSap = [](GPCStreamMessageProc callback, void* context, void* instance, void** sap) {
    B(instance).log += "sap, ";
    B(instance).sap = {callback, context};
    *sap = instance;
    return B(instance).sapResult;
  };
  table.GpcGetStream = [](void* sap, const char* url, int asFile, void**) {
    B(sap).log += "stream " + std::string(url) + (asFile ? " as file, " : ", ");
    const uint32_t result = B(sap).streamResults.at(0);
    B(sap).streamResults.erase(B(sap).streamResults.begin());
    return result;
  };
  table.GpcUnregisterStreamSap = [](void* sap) {
    B(sap).log += "unsap, ";
    return GPC_RESULT_OK;
  };
  table.GpcStopDownload = [](void* instance) { B(instance).log += "stop, "; };
  table.GpcOutputDebugString = [](void* instance, const char* text) { B(instance).debugLines.push_back(text); };
  return table;
}

template <typename Proc>
Proc Entry(const char* name) {
  static void* module = dlopen(kExecutable, RTLD_NOW | RTLD_LOCAL);
  return module ? reinterpret_cast<Proc>(dlsym(module, name)) : nullptr;
}
const auto Init = Entry<GpcInitInstanceProc>(GPC_ENTRY_INIT_INSTANCE);
const auto Exit = Entry<GpcExitInstanceProc>(GPC_ENTRY_EXIT_INSTANCE);
const auto Heartbeat = Entry<GpcHeartbeatProc>(GPC_ENTRY_HEARTBEAT);
const auto ActionNotify = Entry<GpcActionNotifyProc>(GPC_ENTRY_ACTION_NOTIFY);
const auto SetWindow = Entry<GpcSetWindowProc>(GPC_ENTRY_SET_WINDOW);
const auto HandleEvent = Entry<GpcHandleEventProc>(GPC_ENTRY_HANDLE_EVENT);

class SampleExtension : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Init && Exit && Heartbeat && ActionNotify && SetWindow && HandleEvent) << dlerror();
    gBrowser = &browser;
  }
  // The local path lives only during the callback, as in the plug-in's browser download mode.
  void Complete(size_t fetch, const char* path) {
    std::string local = path ? path : "";
    const auto& [callback, context] = browser.callbacks.at(fetch);
    callback(&browser, context, GPC_GETFILE_COMPLETE, path ? &local[0] : nullptr);
  }
  void TickTwiceAndExit() {
    for (int tick = 0; tick < 2; ++tick) {
      browser.log += "tick, ";
      Heartbeat(&browser, datum);
    }
    Exit(&browser, datum);
  }

  FakeBrowser browser;
  GpcServiceTable table = Services();
  void* datum = nullptr;
};

TEST_F(SampleExtension, ExportsExactlyTheSixEntryPoints) {
  bool ok = false;
  const std::string names = gpctest::ShellOutput(
      "nm -D --defined-only " + gpctest::ShellQuote(kExecutable) + " | awk '{print $NF}' | LC_ALL=C sort", &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(names, "GpcActionNotify\nGpcExitInstance\nGpcHandleEvent\nGpcHeartbeat\nGpcInitInstance\nGpcSetWindow\n");
}

// Fetches every listed file, unpacks the .7z ones inside their completion, and navigates once, right
// after the last completion, or at a heartbeat ("tick") when nothing is left to wait for. Exit stops the
// downloads only while some are pending.
TEST_F(SampleExtension, FetchesUnpacksAndNavigatesOnceWhenDone) {
  const char *kFiles = "GpcSampleFiles", *kDir = "GpcSampleUnpackDir", *kDone = "GpcSampleDoneUrl";
  // Navigated at the last completion, before the heartbeats.
  const auto Done = [](const std::string& counts) { return "go d?fetched=" + counts + " _top, tick, tick, "; };
  struct Case {
    const char* name;
    Params params;
    uint32_t fetchResult, unpackResult;
    std::vector<std::pair<size_t, const char*>> completions;  // fetch index, local path (null: failed)
    std::string log;
  } const cases[] = {
      {"archive unpacked, plain file not", {{kFiles, "h/a.7z|h/b.txt"}, {kDir, "/u"}, {kDone, "d"}}, 0, 0,
       {{1, "/l/b"}, {0, "/l/a"}}, "fetch h/a.7z, fetch h/b.txt, unpack /l/a -> /u, " + Done("2&failed=0&unpacked=1&params=3")},
      {"failed fetch, done URL with a query", {{kFiles, "h/a.7z|h/c.7z"}, {kDir, "/u"}, {kDone, "d?x=1"}}, 0, 0,
       {{0, nullptr}, {1, "/l/c"}}, "fetch h/a.7z, fetch h/c.7z, unpack /l/c -> /u, go d?x=1&fetched=1&failed=1&unpacked=1"
       "&params=3 _top, tick, tick, "},
      {"failed unpack not counted", {{kFiles, "h/a.7z"}, {kDir, "/u"}, {kDone, "d"}}, 0, GPC_ERR_NOT_7Z_ARCHIVE,
       {{0, "/l/a"}}, "fetch h/a.7z, unpack /l/a -> /u, " + Done("1&failed=0&unpacked=0&params=3")},
      {"no unpack folder", {{kFiles, "h/a.7z"}, {kDone, "d"}}, 0, 0, {{0, "/l/a"}},
       "fetch h/a.7z, " + Done("1&failed=0&unpacked=0&params=2")},
      {"a folder already there is never replaced", {{kFiles, "h/a.7z"}, {kDir, "/"}, {kDone, "d"}}, 0, 0, {{0, "/l/a"}},
       "fetch h/a.7z, " + Done("1&failed=0&unpacked=0&params=3")},
      {"empty entries skipped, only .7z endings", {{kFiles, "|h/a||h/b.7z.txt|"}, {kDir, "/u"}, {kDone, "d"}}, 0, 0,
       {{0, "/l/a"}, {1, "/l/b"}}, "fetch h/a, fetch h/b.7z.txt, " + Done("2&failed=0&unpacked=0&params=3")},
      {"no files", {{"Other", "x"}, {kDone, "d"}}, 0, 0, {}, "tick, go d?fetched=0&failed=0&unpacked=0&params=2 _top, tick, "},
      {"refused fetches count as failed", {{kFiles, "h/a|h/b"}, {kDone, "d"}}, GPC_ERR_NO_INSTANCE, 0, {},
       "fetch h/a, fetch h/b, tick, go d?fetched=0&failed=2&unpacked=0&params=2 _top, tick, "},
      {"no done URL", {{kFiles, "h/a.7z"}, {kDir, "/u"}}, 0, 0, {{0, "/l/a"}}, "fetch h/a.7z, unpack /l/a -> /u, tick, tick, "},
      {"empty values count as missing", {{kFiles, ""}, {kDone, ""}}, 0, 0, {}, "tick, tick, "},
      {"exit with both pending", {{kFiles, "h/a|h/b"}, {kDone, "d"}}, 0, 0, {}, "fetch h/a, fetch h/b, tick, tick, stop, "},
      {"exit with one pending", {{kFiles, "h/a|h/b"}, {kDone, "d"}}, 0, 0, {{1, "/l/b"}}, "fetch h/a, fetch h/b, tick, tick, stop, "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    browser = FakeBrowser{};
    browser.params = c.params;
    browser.fetchResult = c.fetchResult;
    browser.unpackResult = c.unpackResult;
    ASSERT_EQ(Init(&browser, &table, &datum), 0);
    for (const auto& [fetch, path] : c.completions) Complete(fetch, path);
    int event = 0;
    EXPECT_EQ(HandleEvent(&browser, &event, true, datum), 0);
    SetWindow(&browser, nullptr, datum);
    TickTwiceAndExit();
    EXPECT_EQ(browser.log, c.log);
  }
}

TEST_F(SampleExtension, AFailedInitLeavesNoDatumAndEveryEntryPointToleratesThat) {
  browser.params = {{"GpcSampleFiles", "http://h/a"}, {"GpcSampleDoneUrl", "http://h/d"}};
  EXPECT_NE(Init(&browser, nullptr, &datum), 0);
  for (int major : {GPC_SERVICE_VERSION_MAJOR - 1, GPC_SERVICE_VERSION_MAJOR + 1}) {
    browser.major = major;
    EXPECT_NE(Init(&browser, &table, &datum), 0) << major;
  }
  ASSERT_EQ(datum, nullptr);
  browser.debugLines.clear();
  int event = 0;
  Heartbeat(&browser, nullptr);
  ActionNotify(&browser, nullptr);
  SetWindow(&browser, nullptr, nullptr);
  EXPECT_EQ(HandleEvent(&browser, &event, false, nullptr), 0);
  Exit(&browser, nullptr);
  EXPECT_EQ(browser.log, "");
  EXPECT_TRUE(browser.debugLines.empty());
}

// Without the plug-in's trace function in reach, lines go to GpcOutputDebugString. Page text that
// looks like format directives must arrive as written.
TEST_F(SampleExtension, TracesParametersAndProgressVerbatim) {
  if (dlsym(RTLD_DEFAULT, "GpcTracePost") != nullptr) GTEST_SKIP() << "GpcTracePost is reachable";
  browser.params = {{"Note", "100%s %n done"}, {"GpcSampleFiles", "http://h/a%d"}};
  ASSERT_EQ(Init(&browser, &table, &datum), 0);
  browser.callbacks[0].first(&browser, browser.callbacks[0].second, GPC_GETFILE_PROGRESS, reinterpret_cast<void*>(1234));
  Complete(0, "/l/a");
  Exit(&browser, datum);
  std::string lines;
  for (const std::string& line : browser.debugLines) lines += line + "\n";
  EXPECT_NE(lines.find("Note=100%s %n done"), std::string::npos) << lines;
  EXPECT_THAT(lines, ::testing::ContainsRegex("http://h/a%d[^\n]*1234"));
}

// The stream is read as the browser's copy through an access point of its own and counts as a fetch:
// fetched once the copy was readable and the stream ended normally. A busy provider is asked again
// at its release, the next heartbeat navigates, and exit gives the access point back.
TEST_F(SampleExtension, ReadsItsStreamAsTheBrowsersCopy) {
  constexpr uint32_t kOk = GPC_RESULT_OK, kBusy = GPC_ERR_REQUEST_PENDING, kRefused = GPC_ERR_BROWSER_REFUSED;
  struct Case {
    const char* name;
    uint32_t sapResult;
    std::vector<uint32_t> streamResults;  // one "stream" line each
    const char* messages;  // F copy, U unreadable copy, D destroy, E end, N end by network error, R release
    const char* counts;    // in the done URL; null: still streaming at exit
  } const cases[] = {
      {"copy, then the end", kOk, {kOk}, "FDEN", "1&failed=0"},
      {"no copy", kOk, {kOk}, "E", "0&failed=1"},
      {"unreadable copy", kOk, {kOk}, "UE", "0&failed=1"},
      {"network error", kOk, {kOk}, "FN", "0&failed=1"},
      {"busy, asked again once", kOk, {kBusy, kOk}, "RRFE", "1&failed=0"},
      {"refused", kOk, {kRefused}, "", "0&failed=1"},
      {"refused at the release", kOk, {kBusy, kRefused}, "R", "0&failed=1"},
      {"no access point", GPC_ERR_NO_INSTANCE, {}, "", "0&failed=1"},
      {"exit while streaming", kOk, {kOk}, "F", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    browser = FakeBrowser{};
    browser.params = {{"GpcSampleStream", "h/s"}, {"GpcSampleDoneUrl", "d"}};
    browser.sapResult = c.sapResult;
    browser.streamResults = c.streamResults;
    ASSERT_EQ(Init(&browser, &table, &datum), 0);
    for (const char* m = c.messages; *m != '\0'; ++m) {
      GPCMessage message{};
      message.context = browser.sap.second;
      message.type = *m == 'F' || *m == 'U' ? GPC_STREAM_FILE
                     : *m == 'D' ? GPC_STREAM_DESTROY : *m == 'R' ? GPC_PENDING_RELEASE : GPC_STREAM_DELETE;
      message.payload.destroy.reason = *m == 'N' ? GPC_REASON_NETWORK_ERROR : GPC_REASON_DONE;
      if (message.type == GPC_STREAM_FILE) message.payload.file.fileName = *m == 'F' ? kExecutable : "/nonexistent/copy";
      browser.sap.first(&message);
    }
    TickTwiceAndExit();
    std::string expected = "sap, ";
    for (size_t i = 0; i < c.streamResults.size(); ++i) expected += "stream h/s as file, ";
    expected += c.counts ? "tick, go d?fetched=" + std::string(c.counts) + "&unpacked=0&params=2 _top, tick, " : "tick, tick, ";
    EXPECT_EQ(browser.log, expected + (c.sapResult == kOk ? "unsap, " : ""));
  }
}

}  // namespace
