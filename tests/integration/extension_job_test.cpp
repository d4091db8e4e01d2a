// The plug-in's whole job as a browser runs it: gpc-host loads the module for a meeting page whose
// extension package lies on an https server on 127.0.0.1. The package is the sample extension
// packed by the 7z tool and signed with certificates made by the openssl tool; the sample then
// fetches files, unpacks one and navigates the page, which shows that it runs on the services.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "platform/bundle.h"
#include "scoped_env.h"

namespace {

using gpchost::HostRun;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";

class ExtensionJob : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared_ = new Shared();
    Shared& s = *shared_;
    mkdir((s.folder.path() + "/pki").c_str(), 0700);
    s.signer = std::make_unique<gpctest::PackageSigner>(s.folder.path() + "/pki");
    s.ok = s.signer->ok() && s.server.Start() && s.faults.Start() && s.server.AddFile("files/readme.txt", "hello") &&
           Pack("1.0.0.1", "files/payload.7z");
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(shared_->ok) << shared_->server.error();
    data_ = std::make_unique<gpctest::TempFolder>("jobdata");
    setenv("XDG_DATA_HOME", data_->path().c_str(), 1);
  }

  // Packs the sample as version `version` and puts it on the server as `name`.
  static bool Pack(const std::string& version, const std::string& name) {
    const std::string archive = shared_->folder.path() + "/package.7z";
    return gpctest::PackExtension(kSampleBundle, version, shared_->folder.path(), archive) &&
           shared_->server.AddFile(name, gpctest::ReadFile(archive));
  }

  // Publishes the package of `version` and returns its page parameters.
  gpctest::PageParams Publish(const std::string& version) {
    EXPECT_TRUE(Pack(version, "client/zrgpcext64.bundle.7z"));
    return shared_->signer->PackageParameters(shared_->server.FilePath("client/zrgpcext64.bundle.7z"));
  }

  // Runs a meeting page asking for extension `version` until the page is navigated to the
  // sample's "done" page or the error page. `trace` receives the run's trace file.
  // `root` replaces the package folder, `overrides` replace parameters of the same name.
  HostRun RunPage(const std::string& version, const gpctest::PageParams& package, std::string* trace,
                  const std::string& root = "", const gpctest::PageParams& overrides = {}) {
    const std::string traceFile = data_->path() + "/run" + std::to_string(++runs_) + ".tvt";
    setenv("GPC_TRACE_FILE", traceFile.c_str(), 1);
    gpctest::NginxTestServer& server = shared_->server;
    std::vector<std::string> args = {"--page-url", "https://127.0.0.1/meeting", "--run-ms", "20000",
                                     "--exit-on-navigate", "127.0.0.1:" + std::to_string(server.https_port()) + "/page/"};
    gpctest::PageParams params = {
        {"gpcsitelock", "0"},
        {"GpcUrlRoot", root.empty() ? server.HttpsUrl("client/") : root},
        {"GpcCompressMethod", "7zip"},
        {"GpcUnpackVersion", "1,0"},
        {"GpcExtVersion", version},
        {"GpcProductVersion", "3,1,0,7"},
        {"MeetingID", "m42"},
        {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
        {"GpcSampleFiles", server.HttpsUrl("files/readme.txt") + "|" + server.HttpsUrl("files/payload.7z")},
        {"GpcSampleUnpackDir", data_->path() + "/unpacked"},
        {"GpcSampleDoneUrl", server.HttpsUrl("page/done")},
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

  std::string Navigation(const HostRun& run) {
    const std::vector<gpchost::JsonEvent> navigations = run.Of("navigate");
    return navigations.empty() ? std::string() : navigations.back().Str("url");
  }

  std::string InstalledVersion() {
    return platform::BundleInfoString(data_->path() + "/Talvo Folder/zrgpcext64.bundle", "CFBundleVersion");
  }

  struct Shared {
    gpctest::TempFolder folder{"job"};
    gpctest::NginxTestServer server;
    gpctest::ScriptedHttpServer faults;
    std::unique_ptr<gpctest::PackageSigner> signer;
    bool ok = false;
  };
  static Shared* shared_;
  std::unique_ptr<gpctest::TempFolder> data_;
  int runs_ = 0;
};
ExtensionJob::Shared* ExtensionJob::shared_ = nullptr;

const char kDownloaded[] = "CGpcExtMgr::GpcGetFileNotify,Load extension : ";

TEST_F(ExtensionJob, InstallsTheExtensionOnceAndAgainForAnotherVersion) {
  std::string trace;
  HostRun first = RunPage("2,0,0,7", Publish("2.0.0.7"), &trace);
  ASSERT_EQ(first.exit_code, 0) << first.stderr_text;
  EXPECT_NE(trace.find(kDownloaded), std::string::npos);
  EXPECT_NE(trace.find("CGpcWindow::InitExtension,Initialize GPC extension,return value =0"), std::string::npos);
  EXPECT_EQ(InstalledVersion(), "2.0.0.7");
  // The extension ran on the services: two fetches, one archive unpacked, the page navigated.
  EXPECT_NE(Navigation(first).find("/page/done?fetched=2&failed=0&unpacked=1"), std::string::npos) << Navigation(first);
  struct stat info;
  EXPECT_EQ(stat((data_->path() + "/unpacked/zrgpcext64.bundle/Contents/Info.plist").c_str(), &info), 0);

  HostRun same = RunPage("2,0,0,7", Publish("2.0.0.7"), &trace);
  ASSERT_EQ(same.exit_code, 0) << same.stderr_text;
  EXPECT_EQ(trace.find("GpcGetFileNotify"), std::string::npos) << "the installed version is not fetched again";
  EXPECT_NE(Navigation(same).find("/page/done?"), std::string::npos);

  HostRun other = RunPage("2,1,0,0", Publish("2.1.0.0"), &trace);
  ASSERT_EQ(other.exit_code, 0) << other.stderr_text;
  EXPECT_NE(trace.find(kDownloaded), std::string::npos);
  EXPECT_EQ(InstalledVersion(), "2.1.0.0");
}

TEST_F(ExtensionJob, ATamperedPackageShowsTheErrorPageAndInstallsNothing) {
  const gpctest::PageParams params = Publish("2.0.0.7");
  // The server now holds another package than the one the page vouches for.
  ASSERT_TRUE(Pack("6.6.6.6", "client/zrgpcext64.bundle.7z"));
  std::string trace;
  HostRun run = RunPage("2,0,0,7", params, &trace);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  EXPECT_NE(Navigation(run).find("/page/error?ErrorType=1&ErrorMsg="), std::string::npos);
  EXPECT_NE(Navigation(run).find("%5B111%5D"), std::string::npos) << Navigation(run);
  EXPECT_EQ(InstalledVersion(), "");
  EXPECT_EQ(trace.find("InitExtension"), std::string::npos);
}

// Faults at the edges of the job, each with the outcome the user sees: the page sent to the error
// page with its message, or the sample extension running (the user's copy, or the copy shipped
// with the plug-in when the user's could not be installed), and what is installed afterwards. The
// user has version 1.0.0.1 installed; the page asks for 2.0.0.7.
enum class Source {
  kScripted,   // the package folder is `fault` on the scripted server
  kTruncated,  // the signed package's first half, vouched for as it is
  kZip,        // a zip archive, vouched for, with "GpcCompressMethod" zip
  kLinkOut,    // a 7z whose bundle holds a link leading out of it
  kManyFiles,  // a 7z with more entries than GPC_7Z_MAX_ENTRIES allows
  kHugeFile,   // a 7z with a file larger than GPC_7Z_MAX_BYTES allows
  kNoEntries,  // a bundle whose executable is a library without the extension's entry points
};

struct FaultCase {
  const char* name;
  Source source;
  const char* fault;      // kScripted: the folder under /client/fault/ or /client/
  rlim_t fileSizeLimit;   // bytes any one file may grow to while the host runs; 0: no limit
  const char* outcome;    // in the page's last navigation
  const char* installed;  // CFBundleVersion of the user's extension afterwards; "": none
};
void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

// A full disk as the host meets it: writes beyond `limit` fail with EFBIG instead of killing it.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t limit) : active_(limit != 0) {
    if (!active_) return;
    getrlimit(RLIMIT_FSIZE, &saved_);
    rlimit lowered = {limit, saved_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lowered);
    previous_ = signal(SIGXFSZ, SIG_IGN);
  }
  ~FileSizeLimit() {
    if (!active_) return;
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, previous_);
  }

 private:
  bool active_;
  rlimit saved_ = {};
  sighandler_t previous_ = SIG_DFL;
};

class FaultJob : public ExtensionJob, public ::testing::WithParamInterface<FaultCase> {
 protected:
  // The sample's bundle as version 2.0.0.7 in a work folder, changed by `change` (a shell
  // command run in the bundle's folder), packed by `pack` (run in the work folder, making
  // "package") and put on the server; returns the signed page parameters.
  gpctest::PageParams Make(const std::string& change, const std::string& pack, const std::string& served) {
    const std::string work = data_->path() + "/work";
    bool ok = false;
    gpctest::ShellOutput("mkdir -p " + gpctest::ShellQuote(work) + " && cd " + gpctest::ShellQuote(work) +
                             " && cp -a " + gpctest::ShellQuote(kSampleBundle) + " zrgpcext64.bundle && cd zrgpcext64.bundle && " +
                             "sed -i 's/1\\.0\\.0\\.1/2.0.0.7/' Contents/Info.plist" + (change.empty() ? "" : " && " + change) +
                             " && cd .. && " + pack,
                         &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(shared_->server.AddFile(served, gpctest::ReadFile(work + "/package")));
    return shared_->signer->PackageParameters(shared_->server.FilePath(served));
  }

  // The page parameters and folder of the case's package.
  gpctest::PageParams Prepare(const FaultCase& c, std::string* root, gpctest::PageParams* overrides) {
    const std::string sevenZip = "7z a -bd -snl package.7z zrgpcext64.bundle >/dev/null && mv package.7z package";
    const std::string folder = std::string("client/") + c.name + "/";
    *root = shared_->server.HttpsUrl(folder);
    const std::string served = folder + "zrgpcext64.bundle.7z";
    switch (c.source) {
      case Source::kScripted:
        *root = shared_->faults.Url(std::string("/client/") + c.fault);
        return Publish("2.0.0.7");
      case Source::kTruncated: {
        gpctest::PageParams unused = Make("", sevenZip, served);
        const std::string whole = gpctest::ReadFile(shared_->server.FilePath(served));
        EXPECT_TRUE(shared_->server.AddFile(served, whole.substr(0, whole.size() / 2)));
        return shared_->signer->PackageParameters(shared_->server.FilePath(served));
      }
      case Source::kZip:
        overrides->push_back({"GpcCompressMethod", "zip"});
        return Make("", "7z a -bd -tzip package.zip zrgpcext64.bundle >/dev/null && mv package.zip package",
                    folder + "zrgpcext64.bundle.zip");
      case Source::kLinkOut:
        return Make("ln -s ../../../escape Contents/escape", sevenZip, served);
      case Source::kManyFiles:
        return Make("mkdir many && for i in $(seq 1 40); do echo $i > many/$i; done", sevenZip, served);
      case Source::kHugeFile:
        return Make("head -c 3000000 /dev/zero > Contents/zeros", sevenZip, served);
      case Source::kNoEntries: {
        const std::string library = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/lib7zip.so";
        return Make("for f in Contents/MacOS/*; do cp " + gpctest::ShellQuote(library) + " \"$f\"; done", sevenZip, served);
      }
    }
    return {};
  }
};

TEST_P(FaultJob, EndsAsSpecifiedAndLeavesNothingHalfWritten) {
  const FaultCase& c = GetParam();
  std::string trace;
  // Version 1.0.0.1 installed, as a page asking for it leaves it.
  ASSERT_EQ(RunPage("1,0,0,1", Publish("1.0.0.1"), &trace).exit_code, 0);
  ASSERT_EQ(InstalledVersion(), "1.0.0.1");

  std::string root;
  gpctest::PageParams overrides;
  const gpctest::PageParams package = Prepare(c, &root, &overrides);
  ScopedEnv entries("GPC_7Z_MAX_ENTRIES", "30");
  ScopedEnv bytes("GPC_7Z_MAX_BYTES", "2000000");
  HostRun run;
  {
    FileSizeLimit disk(c.fileSizeLimit);
    run = RunPage("2,0,0,7", package, &trace, root, overrides);
  }
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  EXPECT_NE(Navigation(run).find(c.outcome), std::string::npos) << Navigation(run);
  EXPECT_EQ(InstalledVersion(), c.installed);
  EXPECT_EQ(gpctest::ShellOutput("ls /tmp | grep -c '^gpc-host-' || true"), "0\n");
}

// A failed download leaves the path empty (111); a full disk while the browser writes the package
// shows 109 (a full disk in a direct download fails it, so the browser fetches it again). A 7z
// package that cannot be unpacked leaves the user without the copy that was removed before
// unpacking, and the copy shipped with the plug-in runs; a zip is refused before anything is
// removed, so the user's copy runs. One that unpacks but lacks the entry points shows 107.
constexpr char kRan[] = "/page/done?fetched=2&failed=0";
constexpr char k111[] = "Error%20%5B111%5D";
INSTANTIATE_TEST_SUITE_P(
    Faults, FaultJob,
    ::testing::Values(FaultCase{"ServerError", Source::kScripted, "fault/status/500/", 0, k111, "1.0.0.1"},
                      FaultCase{"Unauthorized", Source::kScripted, "fault/status/401/", 0, k111, "1.0.0.1"},
                      FaultCase{"ProxyUnauthorized", Source::kScripted, "fault/status/407/", 0, k111, "1.0.0.1"},
                      FaultCase{"ResetMidBody", Source::kScripted, "fault/reset/", 0, k111, "1.0.0.1"},
                      FaultCase{"RedirectLoop", Source::kScripted, "fault/redirect/", 0, k111, "1.0.0.1"},
                      FaultCase{"BodyLongerThanItsLength", Source::kScripted, "fault/overlong/", 0, k111, "1.0.0.1"},
                      FaultCase{"DiskFullDirect", Source::kScripted, "fault/bytes/3000000/", 1000000,
                                "Error%20%5B109%5D", "1.0.0.1"},
                      FaultCase{"DiskFullThroughTheBrowser", Source::kScripted, "fails-once/401/3000000/", 1000000,
                                "Error%20%5B109%5D", "1.0.0.1"},
                      FaultCase{"TruncatedPackage", Source::kTruncated, "", 0, kRan, ""},
                      FaultCase{"ZipPackage", Source::kZip, "", 0, kRan, "1.0.0.1"},
                      FaultCase{"LinkLeadingOut", Source::kLinkOut, "", 0, kRan, ""},
                      FaultCase{"TooManyEntries", Source::kManyFiles, "", 0, kRan, ""},
                      FaultCase{"EntryTooLarge", Source::kHugeFile, "", 0, kRan, ""},
                      FaultCase{"NoEntryPoints", Source::kNoEntries, "", 0, "Error%20%5B107%5D", "2.0.0.7"}),
    [](const ::testing::TestParamInfo<FaultCase>& info) { return info.param.name; });

}  // namespace
