// gpc-pack as the vendor uses it: the sample extension packed and signed with a root and signers
// made by the openssl tool, the package opened by the 7z tool and by the plug-in itself (through
// gpc-host, from nginx on 127.0.0.1), broken packages refused by `verify` for the reason the
// plug-in would give, and bad input to `pack` refused without leaving anything behind.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "platform/bundle.h"
#include "scoped_env.h"

namespace {

using gpctest::PageParams;
using gpctest::ShellQuote;
using gpctest::ToolRun;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
const std::string kPackTool = std::string(GPC_BIN_DIR) + "/gpc-pack";
const char* const kParamNames[] = {"GpcExtName",      "GpcExtVersion",   "GpcCompressMethod", "GpcHashMethod",
                                   "GpcExtHash",      "GpcExtSignature", "GpcCertification"};

bool Shell(const std::string& command) {
  bool ok = false;
  gpctest::ShellOutput("(" + command + ") >/dev/null 2>&1", &ok);
  return ok;
}

// The names in a folder, sorted.
std::vector<std::string> Listing(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (const dirent* item = readdir(dir)) {
      if (std::string(item->d_name) != "." && std::string(item->d_name) != "..") names.push_back(item->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string PageVersionOfSample() {
  std::string version = platform::BundleInfoString(kSampleBundle, "CFBundleVersion");
  std::replace(version.begin(), version.end(), '.', ',');
  return version;
}

class GpcPack : public ::testing::Test {
 protected:
  // One package for the whole suite: packing and signing is what every case starts from.
  static void SetUpTestSuite() {
    shared_ = new Shared();
    Shared& s = *shared_;
    const std::string& root = s.folder.path();
    mkdir((root + "/pki").c_str(), 0700);
    mkdir((root + "/out").c_str(), 0700);
    s.signer = std::make_unique<gpctest::PackageSigner>(root + "/pki");
    if (!s.signer->ok() || !s.signer->AddSigner("foreign", "/CN=gpc.signer.example.com")) return;
    s.package = root + "/out/zrgpcext64.bundle.7z";
    s.packed = Pack({"--key", s.signer->Path("vendor.key"), "--cert", s.signer->Path("vendor.pem"), "--chain",
                     s.signer->Path("root.pem"), "--out", root + "/out", kSampleBundle});
    // The JSON object is the last line; the HTML element comes before it.
    const std::string& out = s.packed.out;
    const size_t json = out.rfind('{');
    s.html = out.substr(0, json == std::string::npos ? 0 : json);
    s.paramsFile = root + "/params.json";
    if (json == std::string::npos || !gpctest::WriteFile(s.paramsFile, out.substr(json))) return;
    const gpchost::JsonEvent object{out.substr(json)};
    for (const char* name : kParamNames) s.params.emplace_back(name, object.Str(name));
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }
  void SetUp() override { ASSERT_EQ(shared_->packed.exitCode, 0) << shared_->packed.err; }

  static ToolRun Pack(std::vector<std::string> args) {
    args.insert(args.begin(), {kPackTool, "pack", "--format", "both"});
    return gpctest::RunTool(args);
  }
  static ToolRun Verify(const std::string& package, const PageParams& overrides) {
    std::vector<std::string> args = {kPackTool, "verify", "--package", package, "--params", shared_->paramsFile};
    for (const auto& [name, value] : overrides) args.insert(args.end(), {"--param", name + "=" + value});
    return gpctest::RunTool(args);
  }
  static std::string Param(const char* name) {
    for (const auto& [given, value] : shared_->params) {
      if (given == name) return value;
    }
    return std::string();
  }
  std::string Scratch(const std::string& name) {
    const std::string path = shared_->folder.path() + "/" + name;
    EXPECT_TRUE(Shell("rm -rf " + ShellQuote(path) + " && mkdir -p " + ShellQuote(path)));
    return path;
  }

  struct Shared {
    gpctest::TempFolder folder{"gpcpack"};
    std::unique_ptr<gpctest::PackageSigner> signer;
    std::string package, paramsFile, html;
    ToolRun packed;
    PageParams params;
  };
  static Shared* shared_;
};
GpcPack::Shared* GpcPack::shared_ = nullptr;

TEST_F(GpcPack, PackageExtractsWithThe7zToolToTheBundleFolder) {
  const std::string into = Scratch("extracted");
  ASSERT_TRUE(Shell("cd " + ShellQuote(into) + " && 7z x -y " + ShellQuote(shared_->package)));
  EXPECT_EQ(Listing(into), std::vector<std::string>{"zrgpcext64.bundle"});
  EXPECT_TRUE(Shell("diff -r " + ShellQuote(kSampleBundle) + " " + ShellQuote(into + "/zrgpcext64.bundle")));
  struct stat original, extracted;
  ASSERT_EQ(stat((kSampleBundle + "/Contents/MacOS/zrgpcext64").c_str(), &original), 0);
  ASSERT_EQ(stat((into + "/zrgpcext64.bundle/Contents/MacOS/zrgpcext64").c_str(), &extracted), 0);
  EXPECT_EQ(extracted.st_mode & 07777, original.st_mode & 07777);
}

TEST_F(GpcPack, PrintsThePageParametersAsHtmlAndJsonAndTheyPassVerify) {
  EXPECT_EQ(Param("GpcExtName"), "zrgpcext64");
  EXPECT_EQ(Param("GpcExtVersion"), PageVersionOfSample());
  EXPECT_EQ(Param("GpcCompressMethod"), "7zip");
  EXPECT_EQ(Param("GpcHashMethod"), "sha256");
  EXPECT_EQ(Param("GpcExtHash"), gpctest::FileDigest(shared_->package, "sha256"));
  // The root first, the signer last.
  EXPECT_EQ(Param("GpcCertification"), shared_->signer->Chain());
  EXPECT_EQ(Param("GpcExtSignature"), shared_->signer->Sign(Param("GpcExtHash")));
  EXPECT_EQ(shared_->html.rfind("<embed type=\"application/x-talvo-gpc\"", 0), 0u) << shared_->html;
  for (const auto& [name, value] : shared_->params) {
    EXPECT_NE(shared_->html.find(name + "=\"" + value + "\""), std::string::npos) << name;
  }
  const ToolRun verify = Verify(shared_->package, {});
  EXPECT_EQ(verify.exitCode, 0) << verify.err;
  EXPECT_EQ(verify.out, "ok\n");
}

TEST_F(GpcPack, VerifyRefusesEachBrokenVariantForThePluginsReason) {
  const gpctest::PackageSigner& signer = *shared_->signer;
  const std::string hash = Param("GpcExtHash");
  struct Case {
    const char* what;
    bool tamper;
    PageParams overrides;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"tampered archive", true, {}, "digest mismatch (message 111)\n"},
      {"signature by another key", false, {{"GpcExtSignature", signer.Sign(hash, "foreign")}},
       "signature does not verify (message 103)\n"},
      {"signer with a foreign common name", false,
       {{"GpcCertification", signer.Chain("foreign")}, {"GpcExtSignature", signer.Sign(hash, "foreign")}},
       "signer's common name is not the vendor's (message 103)\n"},
      {"\"null\" chain", false, {{"GpcCertification", "null"}},
       "no package, digest or certificate chain (message 111)\n"},
      {"another extension name", false, {{"GpcExtName", "other"}},
       "the archive's top folder is \"zrgpcext64.bundle\", not \"other.bundle\"\n"},
      {"another version", false, {{"GpcExtVersion", "9,9"}},
       "the bundle's version \"" + PageVersionOfSample() + "\" does not match GpcExtVersion \"9,9\"\n"},
  };
  const std::string tampered = shared_->folder.path() + "/tampered.bundle.7z";
  std::string bytes = gpctest::ReadFile(shared_->package);
  ASSERT_GT(bytes.size(), 100u);
  bytes[bytes.size() / 2] ^= 0x01;
  ASSERT_TRUE(gpctest::WriteFile(tampered, bytes));
  for (const Case& c : cases) {
    const ToolRun run = Verify(c.tamper ? tampered : shared_->package, c.overrides);
    EXPECT_EQ(run.exitCode, 1) << c.what << ": " << run.err;
    EXPECT_EQ(run.out, c.expected) << c.what;
  }
}

TEST_F(GpcPack, PackRefusesBadInputAndLeavesNothingBehind) {
  const gpctest::PackageSigner& signer = *shared_->signer;
  const std::string work = Scratch("bad");
  const std::string noPlist = work + "/noplist/zrgpcext64.bundle", linkOut = work + "/linkout/zrgpcext64.bundle";
  const std::string encrypted = work + "/encrypted.key";
  ASSERT_TRUE(Shell("mkdir -p " + ShellQuote(work + "/noplist") + " " + ShellQuote(work + "/linkout") + " && cp -a " +
                    ShellQuote(kSampleBundle) + " " + ShellQuote(noPlist) + " && cp -a " + ShellQuote(kSampleBundle) +
                    " " + ShellQuote(linkOut) + " && rm " + ShellQuote(noPlist + "/Contents/Info.plist") +
                    " && ln -s ../../../../etc/passwd " + ShellQuote(linkOut + "/Contents/MacOS/passwd") +
                    " && openssl rsa -in " + ShellQuote(signer.Path("vendor.key")) +
                    " -aes256 -passout pass:secret -out " + ShellQuote(encrypted)));
  struct Case {
    const char* what;
    std::string key, bundle;
    bool existing;  // an older package already lies in the output folder
    std::vector<std::string> extra;
    int exitCode;
    const char* message;
  };
  const std::string vendorKey = signer.Path("vendor.key");
  const std::vector<Case> cases = {
      {"missing Info.plist", vendorKey, noPlist, false, {}, 1, "Contents/Info.plist"},
      {"key of another signer", signer.Path("foreign.key"), kSampleBundle, false, {}, 1, "does not belong to"},
      {"existing output", vendorKey, kSampleBundle, true, {}, 1, "exists; use --force"},
      {"unreadable key", work + "/absent.key", kSampleBundle, false, {}, 1, "cannot read the key"},
      {"encrypted key", encrypted, kSampleBundle, false, {}, 1, "is encrypted"},
      {"link out of the bundle", vendorKey, linkOut, false, {}, 1, "leads out of the bundle"},
      {"unknown option", vendorKey, kSampleBundle, false, {"--sign-harder"}, 2, "unknown option \"--sign-harder\""},
  };
  for (const Case& c : cases) {
    const std::string out = Scratch("bad/out");
    if (c.existing) {
      ASSERT_TRUE(gpctest::WriteFile(out + "/zrgpcext64.bundle.7z", "older"));
    }
    std::vector<std::string> args = {"--key", c.key, "--cert", signer.Path("vendor.pem"), "--chain",
                                     signer.Path("root.pem"), "--out", out, c.bundle};
    args.insert(args.begin(), c.extra.begin(), c.extra.end());
    const ToolRun run = Pack(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.what << ": " << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << c.what << ": " << run.err;
    EXPECT_EQ(run.out, "") << c.what;
    // Neither a package nor a temporary file: only what was there before.
    EXPECT_EQ(Listing(out), c.existing ? std::vector<std::string>{"zrgpcext64.bundle.7z"} : std::vector<std::string>{})
        << c.what;
    if (c.existing) {
      EXPECT_EQ(gpctest::ReadFile(out + "/zrgpcext64.bundle.7z"), "older") << c.what;
    }
  }
}

TEST_F(GpcPack, ThePluginInstallsAndRunsThePackedExtension) {
  gpctest::NginxTestServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  ASSERT_TRUE(server.AddFile("client/zrgpcext64.bundle.7z", gpctest::ReadFile(shared_->package)));
  const std::string data = Scratch("data");
  ScopedEnv home("XDG_DATA_HOME", data);
  ScopedEnv trace("GPC_TRACE_FILE", data + "/run.tvt");
  PageParams params = {
      {"gpcsitelock", "0"},
      {"GpcUrlRoot", server.HttpsUrl("client/")},
      {"GpcUnpackVersion", "1,0"},
      {"GpcProductVersion", "3,1,0,7"},
      {"MeetingID", "m42"},
      {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
      {"GpcSampleDoneUrl", server.HttpsUrl("page/done")},
  };
  params.insert(params.end(), shared_->params.begin(), shared_->params.end());
  std::vector<std::string> args = {"--page-url", "https://127.0.0.1/meeting", "--run-ms", "20000",
                                   "--exit-on-navigate", "/page/"};
  for (const auto& [name, value] : params) args.insert(args.end(), {"--param", name + "=" + value});
  const gpchost::HostRun run = gpchost::RunHost(args);
  std::string events;
  for (const gpchost::JsonEvent& event : run.events) events += event.line + "\n";
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text << events;
  const std::vector<gpchost::JsonEvent> navigations = run.Of("navigate");
  ASSERT_FALSE(navigations.empty());
  EXPECT_NE(navigations.back().Str("url").find("/page/done?"), std::string::npos) << navigations.back().Str("url");
  EXPECT_EQ(platform::BundleInfoString(data + "/Talvo Folder/zrgpcext64.bundle", "CFBundleVersion"),
            platform::BundleInfoString(kSampleBundle, "CFBundleVersion"));
  EXPECT_NE(gpctest::ReadFile(data + "/run.tvt").find("CGpcExtMgr::GpcGetFileNotify,Load extension : "),
            std::string::npos);
}

}  // namespace
