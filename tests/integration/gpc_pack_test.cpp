// gpc-pack as the vendor uses it: the sample extension packed and signed with certificates made by
// openssl, the package opened by the 7z tool and by the plug-in itself (through gpc-host, from a loopback
// server), broken packages refused by `verify` for the plug-in's reason, and bad input to `pack` refused
// without leaving anything behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "platform/bundle.h"

namespace {

using gpctest::PageParams;
using gpctest::ShellQuote;
using gpctest::ToolRun;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";
const std::string kPackTool = std::string(GPC_BIN_DIR) + "/gpc-pack";

std::string Sh(const std::string& command, bool* ok = nullptr) { return gpctest::ShellOutput(command, ok); }
std::string SampleVersion() { return platform::BundleInfoString(kSampleBundle, "CFBundleVersion"); }
std::string PageVersion() {
  std::string version = SampleVersion();
  std::replace(version.begin(), version.end(), '.', ',');
  return version;
}

class GpcPack : public ::testing::Test {
 protected:
  // One package for the whole suite: packing and signing is what every case starts from.
  static void SetUpTestSuite() {
    shared_ = new Shared();
    Shared& s = *shared_;
    Sh("mkdir -p " + ShellQuote(s.folder.path()) + "/pki " + ShellQuote(s.folder.path()) + "/out");
    s.signer = std::make_unique<gpctest::PackageSigner>(s.folder.path() + "/pki");
    if (!s.signer->ok() || !s.signer->AddSigner("foreign", "/CN=gpc.signer.example.com")) return;
    s.package = s.folder.path() + "/out/zrgpcext64.bundle.7z";
    s.packed = Pack({"--out", s.folder.path() + "/out", kSampleBundle});
    // The JSON object is the last line; the HTML element comes before it.
    const size_t json = s.packed.out.rfind('{');
    if (json == std::string::npos) return;
    s.html = s.packed.out.substr(0, json);
    s.paramsFile = s.folder.path() + "/params.json";
    gpctest::WriteFile(s.paramsFile, s.packed.out.substr(json));
    for (const char* name : {"GpcExtName", "GpcExtVersion", "GpcCompressMethod", "GpcHashMethod", "GpcExtHash",
                             "GpcExtSignature", "GpcCertification"})
      s.params.emplace_back(name, gpchost::JsonEvent{s.packed.out.substr(json)}.Str(name));
  }
  static void TearDownTestSuite() { delete std::exchange(shared_, nullptr); }
  void SetUp() override { ASSERT_EQ(shared_->packed.exitCode, 0) << shared_->packed.err; }

  // gpc-pack pack with the vendor's key and chain unless `args` name others.
  static ToolRun Pack(const std::vector<std::string>& args, const std::string& format = "both") {
    const gpctest::PackageSigner& signer = *shared_->signer;
    std::vector<std::string> all = {kPackTool, "pack", "--format", format, "--key", signer.Path("vendor.key"),
                                    "--cert", signer.Path("vendor.pem"), "--chain", signer.Path("root.pem")};
    all.insert(all.end(), args.begin(), args.end());
    return gpctest::RunTool(all);
  }
  static ToolRun Verify(const std::string& package, const PageParams& overrides) {
    std::vector<std::string> args = {kPackTool, "verify", "--package", package, "--params", shared_->paramsFile};
    for (const auto& [name, value] : overrides) args.insert(args.end(), {"--param", name + "=" + value});
    return gpctest::RunTool(args);
  }
  static std::string Param(const char* name) {
    for (const auto& [given, value] : shared_->params)
      if (given == name) return value;
    return "";
  }
  std::string Scratch(const std::string& name) {
    const std::string path = shared_->folder.path() + "/" + name;
    Sh("rm -rf " + ShellQuote(path) + " && mkdir -p " + ShellQuote(path));
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

TEST_F(GpcPack, PrintsParametersThatPassVerifyForAPackageThe7zToolExtractsToTheBundle) {
  const PageParams expected = {{"GpcExtName", "zrgpcext64"}, {"GpcExtVersion", PageVersion()}, {"GpcCompressMethod", "7zip"},
                               {"GpcHashMethod", "sha256"}, {"GpcExtHash", gpctest::FileDigest(shared_->package, "sha256")},
                               {"GpcExtSignature", shared_->signer->Sign(Param("GpcExtHash"))},
                               {"GpcCertification", shared_->signer->Chain()}};  // the root first, the signer last
  for (const auto& [name, value] : expected) {
    EXPECT_EQ(Param(name.c_str()), value) << name;
    EXPECT_NE(shared_->html.find(name + "=\"" + value + "\""), std::string::npos) << name;
  }
  EXPECT_EQ(shared_->html.rfind("<embed type=\"application/x-talvo-gpc\"", 0), 0u) << shared_->html;
  const ToolRun verify = Verify(shared_->package, {});
  EXPECT_EQ(verify.exitCode, 0) << verify.err;
  EXPECT_EQ(verify.out, "ok\n");

  const std::string into = Scratch("extracted");
  const std::string list = "find . -printf '%P %y %m %s %l\\n' | LC_ALL=C sort";
  EXPECT_EQ(Sh("cd " + ShellQuote(into) + " && 7z x -y " + ShellQuote(shared_->package) + " >/dev/null && ls && cd " +
               "zrgpcext64.bundle && " + list),
            "zrgpcext64.bundle\n" + Sh("cd " + ShellQuote(kSampleBundle) + " && " + list));
  EXPECT_EQ(Sh("diff -r " + ShellQuote(kSampleBundle) + " " + ShellQuote(into + "/zrgpcext64.bundle") + " && echo same"),
            "same\n");
}

TEST_F(GpcPack, EscapesWhatItPrintsAsJson) {
  const std::string name = "a\\\"b", bundle = Scratch("odd") + "/" + name + ".bundle";
  ASSERT_EQ(Sh("cp -a " + ShellQuote(kSampleBundle) + " " + ShellQuote(bundle) + " && cd " + ShellQuote(bundle) +
               "/Contents/MacOS && mv zrgpcext64 " + ShellQuote(name) + " && echo ok"), "ok\n");
  const ToolRun run = Pack({"--out", Scratch("odd/out"), bundle}, "json");
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(gpchost::JsonEvent{run.out}.Str("GpcExtName"), name) << run.out;
}

TEST_F(GpcPack, VerifyRefusesEachBrokenVariantForThePluginsReason) {
  const gpctest::PackageSigner& signer = *shared_->signer;
  const std::string hash = Param("GpcExtHash"), tampered = shared_->folder.path() + "/tampered.bundle.7z";
  std::string bytes = gpctest::ReadFile(shared_->package);
  bytes[bytes.size() / 2] ^= 0x01;
  ASSERT_TRUE(gpctest::WriteFile(tampered, bytes));
  const struct {
    const char* what;
    std::string package;
    PageParams overrides;
    std::string expected;
  } cases[] = {
      {"tampered archive", tampered, {}, "digest mismatch (message 111)\n"},
      {"signature by another key", shared_->package, {{"GpcExtSignature", signer.Sign(hash, "foreign")}},
       "signature does not verify (message 103)\n"},
      {"signer with a foreign common name", shared_->package,
       {{"GpcCertification", signer.Chain("foreign")}, {"GpcExtSignature", signer.Sign(hash, "foreign")}},
       "signer's common name is not the vendor's (message 103)\n"},
      {"\"null\" chain", shared_->package, {{"GpcCertification", "null"}},
       "no package, digest or certificate chain (message 111)\n"},
      {"another extension name", shared_->package, {{"GpcExtName", "other"}},
       "the archive's top folder is \"zrgpcext64.bundle\", not \"other.bundle\"\n"},
      {"another version", shared_->package, {{"GpcExtVersion", "9,9"}},
       "the bundle's version \"" + PageVersion() + "\" does not match GpcExtVersion \"9,9\"\n"},
  };
  for (const auto& c : cases) {
    const ToolRun run = Verify(c.package, c.overrides);
    EXPECT_EQ(run.exitCode, 1) << c.what << ": " << run.err;
    EXPECT_EQ(run.out, c.expected) << c.what;
  }
}

TEST_F(GpcPack, PackRefusesBadInputAndLeavesNothingBehind) {
  const gpctest::PackageSigner& signer = *shared_->signer;
  const std::string work = Scratch("bad"), noPlist = work + "/n/zrgpcext64.bundle", linkOut = work + "/l/zrgpcext64.bundle";
  bool ok = false;
  Sh("cd " + ShellQuote(work) + " && mkdir n l && cp -a " + ShellQuote(kSampleBundle) + " n/ && cp -a " +
         ShellQuote(kSampleBundle) + " l/ && rm n/zrgpcext64.bundle/Contents/Info.plist && ln -s ../../../../etc/passwd "
         "l/zrgpcext64.bundle/Contents/MacOS/passwd && openssl rsa -in " + ShellQuote(signer.Path("vendor.key")) +
         " -aes256 -passout pass:secret -out encrypted.key 2>/dev/null", &ok);
  ASSERT_TRUE(ok);
  const struct {
    const char* what;
    std::vector<std::string> args;
    bool existing;  // an older package already lies in the output folder
    int exitCode;
    const char* message;
  } cases[] = {
      {"missing Info.plist", {noPlist}, false, 1, "Contents/Info.plist"},
      {"key of another signer", {"--key", signer.Path("foreign.key"), kSampleBundle}, false, 1, "does not belong to"},
      {"existing output", {kSampleBundle}, true, 1, "exists; use --force"},
      {"unreadable key", {"--key", work + "/absent.key", kSampleBundle}, false, 1, "cannot read the key"},
      {"encrypted key", {"--key", work + "/encrypted.key", kSampleBundle}, false, 1, "is encrypted"},
      {"link out of the bundle", {linkOut}, false, 1, "leads out of the bundle"},
      {"unknown option", {"--sign-harder", kSampleBundle}, false, 2, "unknown option \"--sign-harder\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string out = Scratch("bad/out");
    ASSERT_TRUE(!c.existing || gpctest::WriteFile(out + "/zrgpcext64.bundle.7z", "older"));
    std::vector<std::string> args = {"--out", out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolRun run = Pack(args);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    // Neither a package nor a temporary file: only what was there before.
    EXPECT_EQ(Sh("cd " + ShellQuote(out) + " && ls -A && cat * 2>/dev/null"), c.existing ? "zrgpcext64.bundle.7z\nolder" : "");
  }
}

TEST_F(GpcPack, ThePluginInstallsAndRunsThePackedExtension) {
  gpctest::LoopbackServer server;
  ASSERT_TRUE(server.Start()) << server.error();
  ASSERT_TRUE(server.AddFile("client/zrgpcext64.bundle.7z", gpctest::ReadFile(shared_->package)));
  const std::string data = Scratch("data");
  setenv("XDG_DATA_HOME", data.c_str(), 1);
  setenv("GPC_TRACE_FILE", (data + "/run.tvt").c_str(), 1);
  PageParams params = {{"gpcsitelock", "0"}, {"GpcUrlRoot", server.HttpsUrl("client/")}, {"GpcUnpackVersion", "1,0"},
                       {"GpcProductVersion", "3,1,0,7"}, {"MeetingID", "m42"}, {"GpcErrorPageUrl", server.HttpsUrl("page/error")},
                       {"GpcSampleDoneUrl", server.HttpsUrl("page/done")}};
  params.insert(params.end(), shared_->params.begin(), shared_->params.end());
  std::vector<std::string> args = {"--page-url", "https://127.0.0.1/meeting", "--run-ms", "20000", "--exit-on-navigate", "/page/"};
  for (const auto& [name, value] : params) args.insert(args.end(), {"--param", name + "=" + value});
  const gpchost::HostRun run = gpchost::RunHost(args);
  ASSERT_EQ(run.exit_code, 0) << run.stderr_text;
  ASSERT_FALSE(run.Of("navigate").empty());
  EXPECT_NE(run.Of("navigate").back().Str("url").find("/page/done?"), std::string::npos) << run.Of("navigate").back().line;
  EXPECT_EQ(platform::BundleInfoString(data + "/Talvo Folder/zrgpcext64.bundle", "CFBundleVersion"), SampleVersion());
  EXPECT_NE(gpctest::ReadFile(data + "/run.tvt").find("CGpcExtMgr::GpcGetFileNotify,Load extension : "), std::string::npos);
}

}  // namespace
