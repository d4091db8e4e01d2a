// The plug-in's whole job as a browser runs it: gpc-host loads the module for a meeting page whose
// extension package lies on an https server on 127.0.0.1. The package is the sample extension
// packed by the 7z tool and signed with certificates made by the openssl tool; the sample then
// fetches files, unpacks one and navigates the page, which shows that it runs on the services.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "platform/bundle.h"

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
    s.ok = s.signer->ok() && s.server.Start() && s.server.AddFile("files/readme.txt", "hello") &&
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
  HostRun RunPage(const std::string& version, const gpctest::PageParams& package, std::string* trace) {
    const std::string traceFile = data_->path() + "/run" + std::to_string(++runs_) + ".tvt";
    setenv("GPC_TRACE_FILE", traceFile.c_str(), 1);
    gpctest::NginxTestServer& server = shared_->server;
    std::vector<std::string> args = {"--page-url", "https://127.0.0.1/meeting", "--run-ms", "20000",
                                     "--exit-on-navigate", "127.0.0.1:" + std::to_string(server.https_port()) + "/page/"};
    gpctest::PageParams params = {
        {"gpcsitelock", "0"},
        {"GpcUrlRoot", server.HttpsUrl("client/")},
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

}  // namespace
