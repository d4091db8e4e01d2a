// The plug-in's whole job as a browser runs it: gpc-host loads the module for a meeting page whose package
// (the sample, packed by 7z, signed by openssl-made certificates) lies on a loopback https server.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "platform/bundle.h"
#include "scoped_env.h"
#include "security_test_tools.h"

namespace {

using gpchost::HostRun;
using gpctest::PageParams;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
constexpr char kRan[] = "/page/done?fetched=2&failed=0&unpacked=1";
constexpr char k107[] = "Error%20%5B107%5D";
constexpr char kInitialized[] = "CGpcWindow::InitExtension,Initialize GPC extension,return value =0";

enum class Source {
  kFault,      // the package folder is the server's scripted fault `text`
  kInstalled,  // the page asks for the version installed already
  kMade,       // the sample as 2.0.0.7, changed by the shell command `text` in its folder, packed by `pack`
  kTampered,   // as kMade, then replaced on the server by another package than the page vouches for
  kDigestTail,  // as kMade, the page's digest differing in its last character
  kInsider,     // as kMade, signed by "gpc.talvo.us.example.com", a name holding the vendor's suffix inside
};
struct FaultCase {
  const char* name;
  Source source;
  const char* text;
  const char* pack;       // run in the bundle's parent folder, makes "package"; null: 7z
  rlim_t fileSizeLimit;   // bytes any one file may grow to while the host runs; 0: no limit
  const char* outcome;    // in the page's last navigation
  const char* installed;  // CFBundleVersion of the user's extension afterwards; "": none
};
void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

class ExtensionJob : public ::testing::TestWithParam<FaultCase> {
 protected:
  static void SetUpTestSuite() {
    shared_ = new Shared();
    Shared& s = *shared_;
    mkdir((s.folder / "pki").c_str(), 0700);
    s.signer = std::make_unique<gpctest::PackageSigner>(s.folder / "pki");
    s.ok = s.signer->ok() && s.server.Start() && s.server.AddFile("files/readme.txt", "hello") &&
           Pack("1.0.0.1", "files/payload.7z") && Pack("1.0.0.1", "client/zrgpcext64.bundle.7z") &&
           s.signer->AddSigner("insider", "/CN=gpc.talvo.us.example.com");
    s.first = s.signer->PackageParameters(s.server.FilePath("client/zrgpcext64.bundle.7z"));
  }
  static void TearDownTestSuite() { delete std::exchange(shared_, nullptr); }
  void SetUp() override { ASSERT_TRUE(shared_->ok) << shared_->server.error(); }

  // Packs the sample as version `version` and puts it on the server as `name`.
  static bool Pack(const std::string& version, const std::string& name) {
    const std::string archive = shared_->folder / "package.7z";
    return gpctest::PackExtension(kSampleBundle, version, shared_->folder.path(), archive) &&
           shared_->server.AddFile(name, gpctest::ReadFile(archive));
  }

  // The case's own package in the server folder client/<name>/; returns its signed page parameters.
  PageParams Make(const FaultCase& c, std::string* root, PageParams* overrides) {
    const std::string folder = std::string("client/") + c.name + "/";
    const bool zip = c.pack != nullptr && std::string(c.pack).find("-tzip") != std::string::npos;
    const std::string served = folder + "zrgpcext64.bundle" + (zip ? ".zip" : ".7z");
    bool ok = false;
    gpctest::ShellOutput("mkdir -p " + data_ / "work" + " && cd " + data_ / "work" + " && cp -a " +
                             gpctest::ShellQuote(kSampleBundle) + " zrgpcext64.bundle && cd zrgpcext64.bundle && " +
                             "sed -i 's/1\\.0\\.0\\.1/2.0.0.7/' Contents/Info.plist && " + c.text + " && cd .. && " +
                             (c.pack ? c.pack : "7z a -bd -snl p.7z zrgpcext64.bundle >/dev/null && mv p.7z package"),
                         &ok);
    EXPECT_TRUE(ok) << c.text;
    EXPECT_TRUE(shared_->server.AddFile(served, gpctest::ReadFile(data_ / "work/package")));
    const PageParams params = shared_->signer->PackageParameters(shared_->server.FilePath(served), "sha256",
                                                                 c.source == Source::kInsider ? "insider" : "vendor");
    EXPECT_TRUE(c.source != Source::kTampered || Pack("6.6.6.6", served));
    for (const auto& [name, value] : params)
      if (name == "GpcExtHash" && c.source == Source::kDigestTail)
        overrides->push_back({name, value.substr(0, value.size() - 1) + (value.back() == '0' ? "1" : "0")});
    if (zip) overrides->push_back({"GpcCompressMethod", "zip"});
    *root = shared_->server.HttpsUrl(folder);
    return params;
  }

  // Runs a page asking for `version` until it shows the sample's "done" page or the error page.
  HostRun RunPage(const std::string& version, const PageParams& package, std::string* trace,
                  const std::string& root = "", const PageParams& overrides = {}) {
    const std::string traceFile = data_ / ("run" + std::to_string(++runs_) + ".tvt");
    ScopedEnv traceTo("GPC_TRACE_FILE", traceFile);
    gpctest::NginxTestServer& server = shared_->server;
    std::vector<std::string> args = {"--page-url", "https://127.0.0.1/meeting", "--run-ms", "20000",
                                     "--exit-on-navigate", "127.0.0.1:" + std::to_string(server.https_port()) + "/page/"};
    PageParams params = {
        {"gpcsitelock", "0"}, {"GpcUrlRoot", root.empty() ? server.HttpsUrl("client/") : root},
        {"GpcCompressMethod", "7zip"}, {"GpcUnpackVersion", "1,0"}, {"GpcExtVersion", version},
        {"GpcProductVersion", "3,1,0,7"}, {"MeetingID", "m42"}, {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
        {"GpcSampleFiles", server.HttpsUrl("files/readme.txt") + "|" + server.HttpsUrl("files/payload.7z")},
        {"GpcSampleUnpackDir", data_ / "unpacked"}, {"GpcSampleDoneUrl", server.HttpsUrl("page/done")},
    };
    params.insert(params.end(), package.begin(), package.end());
    for (auto& [name, value] : params)
      for (const auto& [other, replacement] : overrides)
        if (name == other) value = replacement;
    for (const auto& [name, value] : params) args.insert(args.end(), {"--param", name + "=" + value});
    HostRun run = gpchost::RunHost(args);
    *trace = gpctest::ReadFile(traceFile);
    return run;
  }
  static std::string Navigation(const HostRun& run) {
    const std::vector<gpchost::JsonEvent> navigations = run.Of("navigate");
    return navigations.empty() ? std::string() : navigations.back().Str("url");
  }
  std::string InstalledVersion() {
    return platform::BundleInfoString(data_ / "Talvo Folder/zrgpcext64.bundle", "CFBundleVersion");
  }

  struct Shared {
    securitytest::ScratchFolder folder;
    gpctest::LoopbackServer server;
    std::unique_ptr<gpctest::PackageSigner> signer;
    PageParams first;  // of the package of version 1.0.0.1 in the package folder
    bool ok = false;
  };
  static Shared* shared_;
  securitytest::ScratchFolder data_;
  ScopedEnv dataHome_{"XDG_DATA_HOME", data_.path()};
  int runs_ = 0;
};
ExtensionJob::Shared* ExtensionJob::shared_ = nullptr;

// The user first installs version 1.0.0.1 from a page asking for it and the extension runs. Then each
// case: the page sent to the error page with its message, or the sample running (the user's copy, or
// the copy shipped with the plug-in when the user's could not be installed), and what is installed.
TEST_P(ExtensionJob, EndsAsSpecifiedAndLeavesNothingHalfWritten) {
  const FaultCase& c = GetParam();
  std::string trace;
  HostRun run = RunPage("1,0,0,1", shared_->first, &trace);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  EXPECT_NE(trace.find("CGpcExtMgr::GpcGetFileNotify,Load extension : "), std::string::npos);
  EXPECT_NE(trace.find(kInitialized), std::string::npos);
  EXPECT_NE(Navigation(run).find(kRan), std::string::npos) << Navigation(run);
  EXPECT_EQ(access((data_ / "unpacked/zrgpcext64.bundle/Contents/Info.plist").c_str(), F_OK), 0);
  ASSERT_EQ(InstalledVersion(), "1.0.0.1");

  std::string root;
  PageParams overrides, package = shared_->first;
  if (c.source == Source::kFault) root = shared_->server.Url(std::string("/client/") + c.text);
  if (c.source != Source::kFault && c.source != Source::kInstalled) package = Make(c, &root, &overrides);
  ScopedEnv entries("GPC_7Z_MAX_ENTRIES", "30");
  ScopedEnv bytes("GPC_7Z_MAX_BYTES", "2000000");
  // A full disk as the host meets it: writes beyond the limit fail with EFBIG instead of killing it.
  signal(SIGXFSZ, SIG_IGN);
  rlimit saved = {};
  getrlimit(RLIMIT_FSIZE, &saved);
  const rlimit lowered = {c.fileSizeLimit ? c.fileSizeLimit : saved.rlim_cur, saved.rlim_max};
  setrlimit(RLIMIT_FSIZE, &lowered);
  run = RunPage(c.source == Source::kInstalled ? "1,0,0,1" : "2,0,0,7", package, &trace, root, overrides);
  setrlimit(RLIMIT_FSIZE, &saved);

  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  EXPECT_NE(Navigation(run).find(c.outcome), std::string::npos) << Navigation(run);
  EXPECT_EQ(InstalledVersion(), c.installed);
  EXPECT_EQ(trace.find(kInitialized) != std::string::npos, std::string(c.outcome) == kRan);
  // A refused or failed download halts the instance: no extension is even looked for.
  EXPECT_EQ(trace.find("CGpcWindow::InitExtension") != std::string::npos,
            std::string(c.outcome) == kRan || std::string(c.outcome) == k107);
  EXPECT_TRUE(c.source != Source::kInstalled || trace.find("GpcGetFileNotify") == std::string::npos);
  EXPECT_EQ(gpctest::ShellOutput("ls /tmp | grep -c '^gpc-host-' || true"), "0\n");
}

// A failed download leaves the path empty (111); a full disk while the browser writes the package shows
// 109 (a full disk in a direct download fails it, so the browser fetches it again). A 7z package that
// cannot be unpacked leaves the user without the copy removed before unpacking, and the shipped copy
// runs; a zip is refused before anything is removed. One that unpacks but lacks the entry points: 107.
constexpr char k111[] = "Error%20%5B111%5D";
constexpr char k109[] = "Error%20%5B109%5D";
constexpr char kHalf[] = "7z a -bd p.7z zrgpcext64.bundle >/dev/null && head -c $(($(stat -c %s p.7z) / 2)) p.7z > package";
INSTANTIATE_TEST_SUITE_P(
    Faults, ExtensionJob,
    ::testing::Values(
        FaultCase{"SameVersion", Source::kInstalled, "", nullptr, 0, kRan, "1.0.0.1"},
        FaultCase{"AnotherVersion", Source::kMade, "true", nullptr, 0, kRan, "2.0.0.7"},
        FaultCase{"Tampered", Source::kTampered, "true", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"DigestDifferingAtTheEnd", Source::kDigestTail, "true", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"SignerNameHoldingTheVendorsSuffix", Source::kInsider, "true", nullptr, 0, "Error%20%5B103%5D", "1.0.0.1"},
        FaultCase{"ServerError", Source::kFault, "fault/status/500/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"Unauthorized", Source::kFault, "fault/status/401/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"ProxyUnauthorized", Source::kFault, "fault/status/407/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"ResetMidBody", Source::kFault, "fault/reset/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"RedirectLoop", Source::kFault, "fault/redirect/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"BodyLongerThanItsLength", Source::kFault, "fault/overlong/", nullptr, 0, k111, "1.0.0.1"},
        FaultCase{"DiskFullDirect", Source::kFault, "fault/bytes/3000000/", nullptr, 1000000, k109, "1.0.0.1"},
        FaultCase{"DiskFullThroughTheBrowser", Source::kFault, "fails-once/401/3000000/", nullptr, 1000000, k109,
                  "1.0.0.1"},
        FaultCase{"TruncatedPackage", Source::kMade, "true", kHalf, 0, kRan, ""},
        FaultCase{"ZipPackage", Source::kMade, "true",
                  "7z a -bd -tzip p.zip zrgpcext64.bundle >/dev/null && mv p.zip package", 0, kRan, "1.0.0.1"},
        FaultCase{"LinkLeadingOut", Source::kMade, "ln -s ../../../escape Contents/escape", nullptr, 0, kRan, ""},
        FaultCase{"TooManyEntries", Source::kMade, "mkdir many && for i in $(seq 1 40); do echo $i > many/$i; done",
                  nullptr, 0, kRan, ""},
        FaultCase{"EntryTooLarge", Source::kMade, "head -c 3000000 /dev/zero > Contents/zeros", nullptr, 0, kRan, ""},
        FaultCase{"NoEntryPoints", Source::kMade,
                  "for f in Contents/MacOS/*; do cp '" GPC_BUNDLE_DIR "/Contents/Frameworks/lib7zip.so' \"$f\"; done",
                  nullptr, 0, k107, "2.0.0.7"}),
    [](const ::testing::TestParamInfo<FaultCase>& info) { return info.param.name; });

}  // namespace
