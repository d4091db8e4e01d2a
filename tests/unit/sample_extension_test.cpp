// The sample extension as the plug-in meets it: the executable of the bundle shipped in the plug-in,
// loaded with dlopen and driven through a browser-side service table that records every request.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "gpc/gpc_extension.h"

namespace {

const char kExecutable[] = GPC_BUNDLE_DIR "/Contents/Frameworks/zrgpcext64.bundle/Contents/MacOS/zrgpcext64";

using Params = std::vector<std::pair<std::string, std::string>>;

// The browser side of one instance: what the plug-in would answer, and what the extension asked.
struct FakeBrowser {
  int major = GPC_SERVICE_VERSION_MAJOR;
  Params params;
  uint32_t fetchResult = GPC_RESULT_OK;
  uint32_t unpackResult = GPC_RESULT_OK;

  struct Fetch {
    GpcGetFileNotifyProc callback;
    void* context;
    std::string url;
  };
  std::vector<Fetch> fetches;
  std::vector<std::string> unpacks;      // "archive -> folder"
  std::vector<std::string> navigations;  // "url target"
  std::vector<std::string> debugLines;
  int stopDownloads = 0;
};

FakeBrowser* gBrowser = nullptr;  // for GpcGetVersion, the one service without an instance
FakeBrowser& Browser(void* instance) { return *static_cast<FakeBrowser*>(instance); }

uint32_t FakeGetVersion(int* major, int* minor) {
  if (major) *major = gBrowser->major;
  if (minor) *minor = 0;
  return GPC_RESULT_OK;
}
int FakeGetParamCount(void* instance) { return static_cast<int>(Browser(instance).params.size()); }
const char* FakeGetParam(void* instance, const char* name) {
  for (const auto& param : Browser(instance).params)
    if (param.first == name) return param.second.c_str();
  return nullptr;
}
int FakeGetParamAt(void* instance, int index, const char** name, const char** value) {
  const Params& params = Browser(instance).params;
  if (index >= 0 && static_cast<size_t>(index) < params.size()) {
    *name = params[index].first.c_str();
    *value = params[index].second.c_str();
  }
  return 1;
}
uint32_t FakeChangeLocation(void* instance, const char* url, const char* target) {
  Browser(instance).navigations.push_back(std::string(url) + " " + target);
  return GPC_RESULT_OK;
}
uint32_t FakeGetFileAtUrl(void* instance, GpcGetFileNotifyProc callback, void* context, const char* url) {
  Browser(instance).fetches.push_back({callback, context, url});
  return Browser(instance).fetchResult;
}
uint32_t FakeUnpackFile(void* instance, const char* archive, const char* destination) {
  Browser(instance).unpacks.push_back(std::string(archive) + " -> " + destination);
  return Browser(instance).unpackResult;
}
void FakeStopDownload(void* instance) { ++Browser(instance).stopDownloads; }
void FakeOutputDebugString(void* instance, const char* text) { Browser(instance).debugLines.push_back(text); }

// The six entry points, resolved once for the whole program.
struct SampleModule {
  void* handle = nullptr;
  GpcInitInstanceProc init = nullptr;
  GpcExitInstanceProc exit = nullptr;
  GpcHeartbeatProc heartbeat = nullptr;
  GpcActionNotifyProc actionNotify = nullptr;
  GpcSetWindowProc setWindow = nullptr;
  GpcHandleEventProc handleEvent = nullptr;
};

template <typename Proc>
void Resolve(void* handle, const char* name, Proc* proc) {
  *proc = reinterpret_cast<Proc>(dlsym(handle, name));
}

const SampleModule& Module() {
  static SampleModule module = [] {
    SampleModule loaded;
    loaded.handle = dlopen(kExecutable, RTLD_NOW | RTLD_LOCAL);
    if (loaded.handle == nullptr) return loaded;
    Resolve(loaded.handle, GPC_ENTRY_INIT_INSTANCE, &loaded.init);
    Resolve(loaded.handle, GPC_ENTRY_EXIT_INSTANCE, &loaded.exit);
    Resolve(loaded.handle, GPC_ENTRY_HEARTBEAT, &loaded.heartbeat);
    Resolve(loaded.handle, GPC_ENTRY_ACTION_NOTIFY, &loaded.actionNotify);
    Resolve(loaded.handle, GPC_ENTRY_SET_WINDOW, &loaded.setWindow);
    Resolve(loaded.handle, GPC_ENTRY_HANDLE_EVENT, &loaded.handleEvent);
    return loaded;
  }();
  return module;
}

class SampleExtensionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(Module().handle, nullptr) << dlerror();
    ASSERT_TRUE(Module().init && Module().exit && Module().heartbeat && Module().actionNotify &&
                Module().setWindow && Module().handleEvent);
    gBrowser = &browser;
    table.GpcGetVersion = FakeGetVersion;
    table.GpcGetParamCount = FakeGetParamCount;
    table.GpcGetParam = FakeGetParam;
    table.GpcGetParamAt = FakeGetParamAt;
    table.GpcChangeLocation = FakeChangeLocation;
    table.GpcGetFileAtUrl = FakeGetFileAtUrl;
    table.GpcUnpackFile = FakeUnpackFile;
    table.GpcStopDownload = FakeStopDownload;
    table.GpcOutputDebugString = FakeOutputDebugString;
  }
  void TearDown() override {
    if (datum != nullptr) Module().exit(&browser, datum);
    gBrowser = nullptr;
  }

  int32_t Init() { return Module().init(&browser, &table, &datum); }
  void Exit() {
    Module().exit(&browser, datum);
    datum = nullptr;
  }
  void Heartbeat() { Module().heartbeat(&browser, datum); }
  // The local path lives only during the callback, as in the plug-in's browser download mode.
  void Complete(size_t fetch, const char* path) {
    const FakeBrowser::Fetch& request = browser.fetches.at(fetch);
    std::string local = path ? path : "";
    request.callback(&browser, request.context, GPC_GETFILE_COMPLETE, path ? &local[0] : nullptr);
  }
  void Progress(size_t fetch, uintptr_t bytes) {
    const FakeBrowser::Fetch& request = browser.fetches.at(fetch);
    request.callback(&browser, request.context, GPC_GETFILE_PROGRESS, reinterpret_cast<void*>(bytes));
  }
  std::vector<std::string> FetchedUrls() const {
    std::vector<std::string> urls;
    for (const auto& fetch : browser.fetches) urls.push_back(fetch.url);
    return urls;
  }

  FakeBrowser browser;
  GpcServiceTable table{};
  void* datum = nullptr;
};

TEST(SampleExtensionModule, ExportsExactlyTheSixEntryPoints) {
  FILE* nm = popen((std::string("nm -D --defined-only '") + kExecutable + "'").c_str(), "r");
  ASSERT_NE(nm, nullptr);
  std::set<std::string> names;
  char line[512];
  while (fgets(line, sizeof line, nm) != nullptr) {
    std::string text(line);
    text.erase(text.find_last_not_of("\r\n") + 1);
    names.insert(text.substr(text.find_last_of(' ') + 1));
  }
  ASSERT_EQ(pclose(nm), 0);
  EXPECT_EQ(names, (std::set<std::string>{"GpcActionNotify", "GpcExitInstance", "GpcHandleEvent",
                                           "GpcHeartbeat", "GpcInitInstance", "GpcSetWindow"}));
}

struct Scenario {
  const char* name;
  Params params;
  uint32_t fetchResult;
  uint32_t unpackResult;
  std::vector<std::pair<size_t, const char*>> completions;  // fetch index, local path (null: failed)
  std::vector<std::string> fetches;
  std::vector<std::string> unpacks;
  std::vector<std::string> navigations;
};

// Failure messages name the scenario instead of dumping its bytes.
void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

const char kFiles[] = "GpcSampleFiles";
const char kUnpackDir[] = "GpcSampleUnpackDir";
const char kDoneUrl[] = "GpcSampleDoneUrl";

const Scenario kScenarios[] = {
    {"ArchiveUnpackedPlainFileNot",
     {{kFiles, "http://h/a.7z|http://h/b.txt"}, {kUnpackDir, "/u"}, {kDoneUrl, "http://h/done"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {{1, "/l/b"}, {0, "/l/a"}},
     {"http://h/a.7z", "http://h/b.txt"},
     {"/l/a -> /u"},
     {"http://h/done?fetched=2&failed=0&unpacked=1&params=3 _top"}},
    {"FailedFetchCountedAndDoneUrlWithQuery",
     {{kFiles, "http://h/a.7z|http://h/c.7z"}, {kUnpackDir, "/u"}, {kDoneUrl, "http://h/done?from=x"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {{0, nullptr}, {1, "/l/c"}},
     {"http://h/a.7z", "http://h/c.7z"},
     {"/l/c -> /u"},
     {"http://h/done?from=x&fetched=1&failed=1&unpacked=1&params=3 _top"}},
    {"FailedUnpackNotCounted",
     {{kFiles, "http://h/a.7z"}, {kUnpackDir, "/u"}, {kDoneUrl, "http://h/done"}},
     GPC_RESULT_OK, GPC_ERR_NOT_7Z_ARCHIVE,
     {{0, "/l/a"}},
     {"http://h/a.7z"},
     {"/l/a -> /u"},
     {"http://h/done?fetched=1&failed=0&unpacked=0&params=3 _top"}},
    {"NoUnpackDirNoUnpacking",
     {{kFiles, "http://h/a.7z"}, {kDoneUrl, "http://h/done"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {{0, "/l/a"}},
     {"http://h/a.7z"},
     {},
     {"http://h/done?fetched=1&failed=0&unpacked=0&params=2 _top"}},
    {"EmptyEntriesSkippedOnlyDot7zEndingsUnpacked",
     {{kFiles, "|http://h/a||http://h/b.7z.txt|"}, {kUnpackDir, "/u"}, {kDoneUrl, "http://h/done"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {{0, "/l/a"}, {1, "/l/b"}},
     {"http://h/a", "http://h/b.7z.txt"},
     {},
     {"http://h/done?fetched=2&failed=0&unpacked=0&params=3 _top"}},
    {"NoFilesNavigatesWithZerosOnFirstHeartbeat",
     {{"Other", "x"}, {kDoneUrl, "http://h/done"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {},
     {},
     {},
     {"http://h/done?fetched=0&failed=0&unpacked=0&params=2 _top"}},
    {"RefusedFetchesCountAsFailed",
     {{kFiles, "http://h/a|http://h/b"}, {kDoneUrl, "http://h/done"}},
     GPC_ERR_NO_INSTANCE, GPC_RESULT_OK,
     {},
     {"http://h/a", "http://h/b"},
     {},
     {"http://h/done?fetched=0&failed=2&unpacked=0&params=2 _top"}},
    {"NoDoneUrlNavigatesNowhere",
     {{kFiles, "http://h/a.7z"}, {kUnpackDir, "/u"}},
     GPC_RESULT_OK, GPC_RESULT_OK,
     {{0, "/l/a"}},
     {"http://h/a.7z"},
     {"/l/a -> /u"},
     {}},
    {"NothingAtAll", {}, GPC_RESULT_OK, GPC_RESULT_OK, {}, {}, {}, {}},
};

class SampleExtensionScenarioTest : public SampleExtensionTest,
                                    public ::testing::WithParamInterface<Scenario> {};

TEST_P(SampleExtensionScenarioTest, FetchesUnpacksAndNavigatesOnceWhenDone) {
  const Scenario& scenario = GetParam();
  browser.params = scenario.params;
  browser.fetchResult = scenario.fetchResult;
  browser.unpackResult = scenario.unpackResult;
  ASSERT_EQ(Init(), 0);
  ASSERT_NE(datum, nullptr);
  EXPECT_EQ(FetchedUrls(), scenario.fetches);
  EXPECT_TRUE(browser.navigations.empty());

  for (size_t index = 0; index < scenario.completions.size(); ++index) {
    if (index > 0) {
      EXPECT_TRUE(browser.navigations.empty()) << "before completion " << index;
    }
    Complete(scenario.completions[index].first, scenario.completions[index].second);
  }
  // Archives are unpacked inside their completion, and the last completion navigates at once.
  EXPECT_EQ(browser.unpacks, scenario.unpacks);
  if (!scenario.completions.empty()) {
    EXPECT_EQ(browser.navigations, scenario.navigations);
  }

  int event = 0;
  EXPECT_EQ(Module().handleEvent(&browser, &event, true, datum), 0);
  Module().setWindow(&browser, nullptr, datum);
  Heartbeat();
  Heartbeat();
  EXPECT_EQ(browser.navigations, scenario.navigations);
  Exit();
  EXPECT_EQ(browser.stopDownloads, 0);
}

INSTANTIATE_TEST_SUITE_P(Pages, SampleExtensionScenarioTest, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& info) { return info.param.name; });

TEST_F(SampleExtensionTest, InitFailsWithoutServicesOrOnAnotherMajorVersion) {
  browser.params = {{kFiles, "http://h/a"}, {kDoneUrl, "http://h/done"}};
  EXPECT_NE(Module().init(&browser, nullptr, &datum), 0);
  EXPECT_EQ(datum, nullptr);
  for (int major : {GPC_SERVICE_VERSION_MAJOR - 1, GPC_SERVICE_VERSION_MAJOR + 1}) {
    browser.major = major;
    EXPECT_NE(Init(), 0) << major;
    EXPECT_EQ(datum, nullptr) << major;
  }
  EXPECT_TRUE(browser.fetches.empty());
}

TEST_F(SampleExtensionTest, EveryEntryPointToleratesANullDatum) {
  browser.params = {{kDoneUrl, "http://h/done"}};
  int event = 0;
  Module().heartbeat(&browser, nullptr);
  Module().actionNotify(&browser, nullptr);
  Module().setWindow(&browser, nullptr, nullptr);
  EXPECT_EQ(Module().handleEvent(&browser, &event, false, nullptr), 0);
  Module().exit(&browser, nullptr);
  EXPECT_TRUE(browser.navigations.empty());
  EXPECT_TRUE(browser.debugLines.empty());
}

TEST_F(SampleExtensionTest, ExitStopsDownloadsOnlyWhileSomeArePending) {
  struct Case {
    size_t completed;
    int stops;
  };
  for (const Case& c : {Case{0, 1}, Case{1, 1}, Case{2, 0}}) {
    browser = FakeBrowser{};
    browser.params = {{kFiles, "http://h/a|http://h/b"}};
    ASSERT_EQ(Init(), 0);
    for (size_t index = 0; index < c.completed; ++index) Complete(index, "/l/x");
    Exit();
    EXPECT_EQ(browser.stopDownloads, c.stops) << c.completed << " completed";
  }
}

// Without the plug-in's trace function in reach, lines go to GpcOutputDebugString. Page text that
// looks like format directives must arrive as written.
TEST_F(SampleExtensionTest, TracesParametersAndProgressVerbatim) {
  if (dlsym(RTLD_DEFAULT, "GpcTracePost") != nullptr) GTEST_SKIP() << "GpcTracePost is reachable";
  browser.params = {{"Note", "100%s %n done"}, {kFiles, "http://h/a%d"}};
  ASSERT_EQ(Init(), 0);
  Progress(0, 1234);
  Complete(0, "/l/a");

  bool listedNote = false;
  bool tracedProgress = false;
  for (const std::string& line : browser.debugLines) {
    listedNote = listedNote || line.find("Note=100%s %n done") != std::string::npos;
    tracedProgress = tracedProgress || (line.find("http://h/a%d") != std::string::npos &&
                                        line.find("1234") != std::string::npos);
  }
  EXPECT_TRUE(listedNote);
  EXPECT_TRUE(tracedProgress);
}

}  // namespace
