// The extension's road inside one instance: a fetched package is checked (digest, certificate
// chain, common name, signature), unpacked by the shipped unpacking library, and the extension
// (the user's, or the one shipped with the plug-in) is loaded and driven. Packages, certificates
// and signatures are made by the 7z and openssl tools; the extension is the built sample.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "extension_package.h"
#include "gpcutil.h"
#include "http_test_server.h"
#include "hardening.h"
#include "platform/bundle.h"
#include "platform/clock.h"
#include "platform/folders.h"
#include "platform/system_version.h"
#include "fake_browser.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace_capture.h"

namespace {

const std::string kShippedBundle = GPC_BUNDLE_DIR;
const std::string kSampleBundle = kShippedBundle + "/Contents/Frameworks/zrgpcext64.bundle";
const std::string kSampleExecutable = kSampleBundle + "/Contents/MacOS/zrgpcext64";
const char kPackageVersion[] = "2.0.0.7";

// Made once: a scratch folder with the signer and a signed package of the sample extension.
struct Fixtures {
  gpctest::TempFolder folder{"extension"};
  std::unique_ptr<gpctest::PackageSigner> signer;
  std::string package;  // kept pristine; each test works on a copy
  bool ok = false;

  Fixtures() {
    const std::string pki = folder.path() + "/pki";
    mkdir(pki.c_str(), 0700);
    signer = std::make_unique<gpctest::PackageSigner>(pki);
    package = folder.path() + "/zrgpcext64.bundle.7z";
    ok = signer->ok() && signer->AddSigner("stranger", "/CN=gpc.signer.talvo.us.example.com") &&
         signer->AddSigner("llc", "/CN=Vantrel Talvo LLC") &&
         signer->AddSigner("evilllc", "/CN=Evil Vantrel Talvo LLC") &&
         gpctest::PackExtension(kSampleBundle, kPackageVersion, folder.path(), package);
  }
};
Fixtures* g_fixtures = nullptr;

class FixturesEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { g_fixtures = new Fixtures(); }
  void TearDown() override { delete g_fixtures; }
};
const auto* const kRegistered = ::testing::AddGlobalTestEnvironment(new FixturesEnvironment);

bool Copy(const std::string& from, const std::string& to) {
  return std::system(("rm -rf " + gpctest::ShellQuote(to) + " && mkdir -p \"$(dirname " + gpctest::ShellQuote(to) +
                      ")\" && cp -a " + gpctest::ShellQuote(from) + " " + gpctest::ShellQuote(to))
                         .c_str()) == 0;
}

// A signer whose common name holds a NUL: "x.talvo.us\0.example", issued by the test root.
std::string ChainWithNulInCommonName(const std::string& pki) {
  FILE* keyFile = fopen((pki + "/root.key").c_str(), "r");
  FILE* certFile = fopen((pki + "/root.pem").c_str(), "r");
  EVP_PKEY* rootKey = keyFile ? PEM_read_PrivateKey(keyFile, nullptr, nullptr, nullptr) : nullptr;
  X509* root = certFile ? PEM_read_X509(certFile, nullptr, nullptr, nullptr) : nullptr;
  if (keyFile) fclose(keyFile);
  if (certFile) fclose(certFile);
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* cert = X509_new();
  static const unsigned char kName[] = "x.talvo.us\0.example";
  X509_NAME* subject = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_NID(subject, NID_commonName, V_ASN1_UTF8STRING, kName, sizeof kName - 1, -1, 0);
  X509_set_issuer_name(cert, X509_get_subject_name(root));
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 77);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600L * 24 * 365);
  X509_set_pubkey(cert, key);
  X509_sign(cert, rootKey, EVP_sha256());
  FILE* out = fopen((pki + "/nul.pem").c_str(), "w");
  PEM_write_X509(out, cert);
  fclose(out);
  out = fopen((pki + "/nul.key").c_str(), "w");
  PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(out);
  X509_free(cert);
  X509_free(root);
  EVP_PKEY_free(key);
  EVP_PKEY_free(rootKey);
  return g_fixtures->signer->Chain("nul");
}

class WindowExtensionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(g_fixtures->ok) << "the signer or the package could not be made";
    platform::SetPluginBundlePathOverride(kShippedBundle);
    window = std::make_unique<CGpcWindow>(&npp);
    window->m_bHalted = 0;
    window->m_bExtMgrStarted = 1;  // these tests drive the manager's steps themselves
    for (const auto& [name, value] :
         {std::pair<const char*, const char*>{"GpcErrorPageUrl", "https://127.0.0.1:9/error"},
          {"LoggingURL", "https://127.0.0.1:9/log?"}, {"MeetingID", "m1"}}) {
      window->SetParameterVector(name, value);
    }
    package = env.dir() + "/package.7z";
    ASSERT_TRUE(Copy(g_fixtures->package, package));
  }
  void TearDown() override {
    window.reset();
    platform::SetPluginBundlePathOverride("");
    platform::SetSystemVersionOverride(0);
    platform::SetWallClockOverride(nullptr);
    gpc::SetHardenedForTesting(-1);
  }

  std::string UserBundle() { return platform::UserApplicationSupportDir() + "/Talvo Folder/zrgpcext64.bundle"; }
  std::string InstalledVersion() { return platform::BundleInfoString(UserBundle(), "CFBundleVersion"); }

  void SetPackageParameters(const gpctest::PageParams& params) {
    for (const auto& [name, value] : params) window->SetParameterVector(name, value);
  }

  // The codes of the messages shown: each error page queued for the whole page.
  std::vector<int> ShownMessages() {
    std::vector<int> codes;
    for (const CFrameTarget* target : window->m_vectorFrameTarget) {
      const std::string& url = target->m_strUrl;
      const size_t open = url.rfind("%5B");
      if (target->m_strTarget == "_top" && url.find("ErrorMsg=") < open && open != std::string::npos)
        codes.push_back(std::atoi(url.c_str() + open + 3));
    }
    return codes;
  }

  void Deliver(const char* path) {
    CGpcExtMgr::GpcGetFileNotify(nullptr, &window->m_extMgr, GPC_GETFILE_COMPLETE, const_cast<char*>(path));
  }

  gpctest::BrowserEnvironment env;
  NPP_t npp{};
  std::unique_ptr<CGpcWindow> window;
  std::string package;
};

// ---- Verification ------------------------------------------------------------------------------

struct VerificationCase {
  const char* name;
  std::function<void(gpctest::PageParams&, const std::string& pki)> change;
  int message;  // 0: accepted and installed
};

void Set(gpctest::PageParams& params, const std::string& name, const std::string& value) {
  for (auto& entry : params) {
    if (entry.first == name) {
      entry.second = value;
      return;
    }
  }
  params.push_back({name, value});
}

const VerificationCase kVerificationCases[] = {
    {"GoodSha256", [](auto&, auto&) {}, 0},
    {"GoodSha1", [](auto& p, auto&) { p = g_fixtures->signer->PackageParameters(p[4].second, "sha1"); }, 0},
    {"SignerOfTheVendorOrganisation",
     [](auto& p, auto&) { p = g_fixtures->signer->PackageParameters(p[4].second, "sha256", "llc"); }, 0},
    {"OldSystemLeavesSha256Unchecked",
     [](auto& p, auto&) {
       platform::SetSystemVersionOverride(0x1058);
       Set(p, "GpcExtHash", "not the digest");
       Set(p, "GpcCertification", "x");
     }, 0},
    // The page's digest differs from the package's in its last character only.
    {"DigestMismatch",
     [](auto& p, auto&) {
       for (auto& [name, value] : p)
         if (name == "GpcExtHash") value.back() = value.back() == '0' ? '1' : '0';
     }, 111},
    {"UpperCaseMethod", [](auto& p, auto&) { Set(p, "GpcHashMethod", "SHA1"); }, 111},
    {"NoDigest", [](auto& p, auto&) { Set(p, "GpcExtHash", ""); }, 111},
    {"CertificationNull", [](auto& p, auto&) { Set(p, "GpcCertification", "null"); }, 111},
    {"NoCertificationWithoutSiteLock",
     [](auto& p, auto&) {
       Set(p, "GpcCertification", "");
       Set(p, "gpcsitelock", "0");
     }, 111},
    {"NoSignature", [](auto& p, auto&) { Set(p, "GpcExtSignature", ""); }, 111},
    {"CertificationOfTenCharacters", [](auto& p, auto&) { Set(p, "GpcCertification", "MIIBCgKCAQ"); }, 103},
    {"LeafThatDoesNotDecode", [](auto& p, auto&) { Set(p, "GpcCertification", "MIIBCgKCAQEAu|bm90IGEgY2VydA=="); }, 103},
    {"UntrustedChain", [](auto& p, auto&) { Set(p, "GpcCertification", g_fixtures->signer->Chain("vendor", false)); }, 103},
    // "gpc.signer.talvo.us.example.com": the vendor's suffix inside the name is not its end.
    {"WrongCommonName",
     [](auto& p, auto&) { p = g_fixtures->signer->PackageParameters(p[4].second, "sha256", "stranger"); }, 103},
    {"NulInCommonName", [](auto& p, auto& pki) { Set(p, "GpcCertification", ChainWithNulInCommonName(pki)); }, 103},
    {"SignatureOfAnotherDigest",
     [](auto& p, auto&) { Set(p, "GpcExtSignature", g_fixtures->signer->Sign(std::string(64, 'b'))); }, 103},
    {"SignatureByAnotherKey",
     [](auto& p, auto&) { Set(p, "GpcExtSignature", g_fixtures->signer->Sign(p[0].second, "stranger")); }, 103},
};

class VerificationTest : public WindowExtensionTest, public ::testing::WithParamInterface<VerificationCase> {};

TEST_P(VerificationTest, InstallsOnlyAGenuinePackage) {
  const VerificationCase& c = GetParam();
  // An older user extension is installed; a refusal must leave it as it is.
  ASSERT_TRUE(gpctest::PackExtension(kSampleBundle, "1.0.0.0", env.dir(), env.dir() + "/old.7z"));
  ASSERT_TRUE(Copy(env.dir() + "/zrgpcext64.bundle", UserBundle()));
  gpctest::PageParams params = g_fixtures->signer->PackageParameters(package);
  params.push_back({"package", package});  // index 4: lets a case re-sign the same file
  c.change(params, g_fixtures->folder.path() + "/pki");
  params.erase(std::remove_if(params.begin(), params.end(), [](auto& p) { return p.first == "package"; }),
               params.end());
  SetPackageParameters(params);
  ClearCapturedTraces();
  Deliver(package.c_str());
  if (c.message == 0) {
    EXPECT_TRUE(ShownMessages().empty());
    EXPECT_FALSE(window->m_bHalted);
    EXPECT_TRUE(window->m_bNeedInitExtension);
    EXPECT_EQ(InstalledVersion(), kPackageVersion);
    EXPECT_FALSE(FileExists(package)) << "an installed package is deleted";
  } else {
    EXPECT_EQ(ShownMessages(), std::vector<int>{c.message});
    EXPECT_TRUE(window->m_bHalted);
    EXPECT_FALSE(window->m_bNeedInitExtension);
    EXPECT_EQ(InstalledVersion(), "1.0.0.0");
    EXPECT_EQ(gpctest::LogCount("Unpack extension from"), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Packages, VerificationTest, ::testing::ValuesIn(kVerificationCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(WindowExtensionTest, OnlyACompletionWithAPathIsLookedAt) {
  SetPackageParameters(g_fixtures->signer->PackageParameters(package));
  CGpcExtMgr::GpcGetFileNotify(nullptr, &window->m_extMgr, GPC_GETFILE_PROGRESS, reinterpret_cast<void*>(4096));
  CGpcExtMgr::GpcGetFileNotify(nullptr, nullptr, GPC_GETFILE_COMPLETE, const_cast<char*>(package.c_str()));
  EXPECT_FALSE(window->m_bHalted);
  EXPECT_TRUE(ShownMessages().empty());

  Deliver(nullptr);  // a failed download
  EXPECT_EQ(ShownMessages(), std::vector<int>{111});
}

TEST_F(WindowExtensionTest, AFailedUnpackStillLoadsWhatIsLeft) {
  ASSERT_EQ(truncate(package.c_str(), 200), 0);
  SetPackageParameters(g_fixtures->signer->PackageParameters(package));
  Deliver(package.c_str());
  EXPECT_TRUE(window->m_bNeedInitExtension);
  EXPECT_FALSE(window->m_bHalted);
}

// ---- The hardened build -----------------------------------------------------------------------

struct HardeningCase {
  const char* name;
  std::function<void(gpctest::PageParams&)> change;
  bool defaultInstalls, hardenedInstalls;
};

const HardeningCase kHardeningCases[] = {
    {"RootShippedInTheBundle", [](auto&) {}, true, true},
    {"RootOnlyOnThePage",
     [](auto& p) { p = g_fixtures->signer->PackageParameters(p[4].second); p.push_back({"unshipped", "1"}); }, true,
     false},
    {"ExpiredChain",
     [](auto&) {
       // 2100: every certificate of the test chain has expired.
       platform::SetWallClockOverride([] { return int64_t{4102444800} * 1000000; });
     },
     true, false},
    {"OrganisationNameWithAPrefix",
     [](auto& p) { p = g_fixtures->signer->PackageParameters(p[4].second, "sha256", "evilllc"); }, true, false},
};

class HardeningTest : public WindowExtensionTest, public ::testing::WithParamInterface<HardeningCase> {};

TEST_P(HardeningTest, TrustsOnlyShippedAnchorsValidChainsAndWholeNames) {
  const HardeningCase& c = GetParam();
  for (const bool hardened : {false, true}) {
    SCOPED_TRACE(hardened ? "hardened" : "default");
    gpc::SetHardenedForTesting(hardened);
    // A plug-in bundle that ships the test root as its anchor (unless the case says otherwise).
    const std::string bundle = env.dir() + "/hardened.plugin";
    ASSERT_TRUE(Copy(kShippedBundle, bundle));
    ASSERT_TRUE(Copy(g_fixtures->package, package));  // the first round installed (and removed) it
    gpctest::PageParams params = g_fixtures->signer->PackageParameters(package);
    params.push_back({"package", package});
    c.change(params);
    bool shipRoot = true;
    for (const auto& p : params) shipRoot = shipRoot && p.first != "unshipped";
    if (shipRoot) {
      ASSERT_TRUE(Copy(g_fixtures->folder.path() + "/pki/root.pem", bundle + "/Contents/Resources/Anchors/root.pem"));
      ASSERT_EQ(std::system(("openssl x509 -in '" + bundle + "/Contents/Resources/Anchors/root.pem' -outform DER -out '" +
                             bundle + "/Contents/Resources/Anchors/root.der'").c_str()), 0);
    }
    platform::SetPluginBundlePathOverride(bundle);
    window = std::make_unique<CGpcWindow>(&npp);
    window->SetParameterVector("GpcErrorPageUrl", "https://127.0.0.1:9/error");
    for (const auto& [name, value] : params)
      if (name != "package" && name != "unshipped") window->SetParameterVector(name, value);
    Deliver(package.c_str());
    EXPECT_EQ(InstalledVersion() == kPackageVersion, hardened ? c.hardenedInstalls : c.defaultInstalls);
    platform::SetWallClockOverride(nullptr);
    RemoveFile(UserBundle());
  }
}

INSTANTIATE_TEST_SUITE_P(Packages, HardeningTest, ::testing::ValuesIn(kHardeningCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(WindowExtensionTest, TheHardenedBuildKeepsTheInstalledExtensionWhenUnpackingFails) {
  for (const bool hardened : {false, true}) {
    gpc::SetHardenedForTesting(hardened);
    ASSERT_TRUE(gpctest::PackExtension(kSampleBundle, "1.0.0.0", env.dir(), env.dir() + "/old.7z"));
    ASSERT_TRUE(Copy(env.dir() + "/zrgpcext64.bundle", UserBundle()));
    ASSERT_TRUE(Copy(g_fixtures->package, package));
    ASSERT_EQ(truncate(package.c_str(), 2000), 0);
    EXPECT_NE(window->UnpackFile(package.c_str(), UserBundle().c_str(), 0), 0u);
    EXPECT_EQ(InstalledVersion(), hardened ? "1.0.0.0" : "") << (hardened ? "hardened" : "default");
    // A whole package replaces the old one in both builds, and leaves no staging folder behind.
    ASSERT_TRUE(Copy(g_fixtures->package, package));
    EXPECT_EQ(window->UnpackFile(package.c_str(), UserBundle().c_str(), 0), 0u);
    EXPECT_EQ(InstalledVersion(), kPackageVersion);
    EXPECT_EQ(gpctest::ShellOutput("ls -A " + gpctest::ShellQuote(UserBundle() + "/..")), "zrgpcext64.bundle\n");
  }
}

// ---- Unpacking ---------------------------------------------------------------------------------

TEST_F(WindowExtensionTest, UnpackReplacesTheBundleAndLeavesNothingWritableByOthers) {
  // A destination whose name holds a quote and blanks, and a file that arrives writable by all.
  const std::string target = env.dir() + "/a \"quoted\" folder/zrgpcext64.bundle/";
  ASSERT_TRUE(Copy(kSampleBundle, env.dir() + "/src/zrgpcext64.bundle"));
  ASSERT_EQ(chmod((env.dir() + "/src/zrgpcext64.bundle/Contents/Info.plist").c_str(), 0666), 0);
  const std::string archive = env.dir() + "/open.7z";
  ASSERT_EQ(std::system(("cd " + gpctest::ShellQuote(env.dir() + "/src") + " && 7z a " + gpctest::ShellQuote(archive) +
                         " zrgpcext64.bundle >/dev/null")
                            .c_str()),
            0);
  ASSERT_TRUE(Copy(kSampleBundle, target + "Contents/stale"));  // an old file that must go

  ClearCapturedTraces();
  const mode_t mask = umask(0);  // modes arrive as the archive has them
  const uint32_t result = window->UnpackFile(archive.c_str(), target.c_str(), 0);
  umask(mask);
  EXPECT_EQ(result, 0u);
  struct stat info;
  ASSERT_EQ(stat((target + "Contents/Info.plist").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  EXPECT_FALSE(FileExists(target + "Contents/stale"));
  EXPECT_FALSE(FileExists(archive));

  // The library stays loaded: a second package needs no second load.
  ASSERT_TRUE(Copy(g_fixtures->package, archive));
  EXPECT_EQ(window->UnpackFile(archive.c_str(), target.c_str(), 0), 0u);
  EXPECT_EQ(gpctest::LogCount("Load 7zip.dylib success"), 1);
}

TEST_F(WindowExtensionTest, UnpackRefusesWhatIsNotA7zArchiveBeforeDeletingAnything) {
  ASSERT_TRUE(Copy(kSampleBundle, UserBundle()));
  const std::string zip = env.dir() + "/package.zip";
  ASSERT_EQ(std::system(("cd " + gpctest::ShellQuote(kSampleBundle + "/..") + " && 7z a -tzip " + gpctest::ShellQuote(zip) +
                         " zrgpcext64.bundle >/dev/null")
                            .c_str()),
            0);
  const std::string shortFile = env.dir() + "/short.7z";
  std::ofstream(shortFile) << "7z\xBC\xAF";
  for (const std::string& source : {zip, shortFile, env.dir() + "/missing.7z"}) {
    EXPECT_EQ(window->UnpackFile(source.c_str(), UserBundle().c_str(), 0), 20009u) << source;
  }
  EXPECT_EQ(window->UnpackFile(nullptr, UserBundle().c_str(), 0), 20100u);
  EXPECT_TRUE(FileExists(UserBundle() + "/Contents/MacOS/zrgpcext64"));
}

TEST_F(WindowExtensionTest, UnpackWithoutTheLibraryRetriesTheLoadButNotTheLookUp) {
  const std::string target = env.dir() + "/out/zrgpcext64.bundle";
  // No library in the bundle: every call tries to load it again, and succeeds once it is there.
  const std::string bundle = env.dir() + "/plugin";
  ASSERT_TRUE(Copy(kShippedBundle + "/Contents/Info.plist", bundle + "/Contents/Info.plist"));
  platform::SetPluginBundlePathOverride(bundle);
  ClearCapturedTraces();
  EXPECT_EQ(window->UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(window->UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(gpctest::LogCount("dlopen lib7zip.dylib failed, path = " + bundle + "/Contents/Frameworks/lib7zip.so"), 2);
  ASSERT_TRUE(Copy(kShippedBundle + "/Contents/Frameworks/lib7zip.so", bundle + "/Contents/Frameworks/lib7zip.so"));
  EXPECT_EQ(window->UnpackFile(package.c_str(), target.c_str(), 0), 0u);

  // A library without the entry (in another bundle: the loader would hand back the library
  // already loaded under the same name): loaded once, then every call fails at once.
  CGpcWindow other(&npp);
  const std::string otherBundle = env.dir() + "/plugin2";
  platform::SetPluginBundlePathOverride(otherBundle);
  ASSERT_TRUE(Copy(kSampleExecutable, otherBundle + "/Contents/Frameworks/lib7zip.so"));
  ASSERT_TRUE(Copy(g_fixtures->package, package));
  EXPECT_EQ(other.UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(other.UnpackFile(package.c_str(), target.c_str(), 0), 20007u);
  EXPECT_EQ(gpctest::LogCount("dlsym lib7zip.dylib failed"), 1);
  EXPECT_EQ(gpctest::LogCount("interface in 7zip.dylib failed!"), 1);
  EXPECT_TRUE(FileExists(target)) << "nothing is deleted before the library is ready";

  platform::SetPluginBundlePathOverride("");
  EXPECT_EQ(CGpcWindow(&npp).UnpackFile(package.c_str(), target.c_str(), 0), 20100u) << "no bundle of its own";
}

TEST_F(WindowExtensionTest, AFailedExtractionRemovesOnlyAnEmptyTargetFolder) {
  ASSERT_EQ(truncate(package.c_str(), 200), 0);
  const std::string target = env.dir() + "/out/zrgpcext64.bundle";
  ASSERT_TRUE(platform::MakeDirectories(target, 0755));
  EXPECT_NE(window->UnpackFile(package.c_str(), target.c_str(), 0), 0u);
  EXPECT_FALSE(FileExists(target));
  EXPECT_TRUE(FileExists(package)) << "the package is kept after a failure";
  EXPECT_NE(GpcUnpackFile(window.get(), package.c_str(), target.c_str()), 0u) << "the service passes the code on";
}

// ---- Loading -----------------------------------------------------------------------------------

struct LoadingCase {
  const char* name;
  // Prepares the user bundle in `bundle`; empty body leaves it missing.
  std::function<bool(const std::string& bundle)> prepare;
  bool userLoaded;
  int messages107;  // how often message 107 is shown
};

bool WithExecutable(const std::string& bundle, const std::function<bool(const std::string&)>& make) {
  return Copy(kSampleBundle, bundle) && make(bundle + "/Contents/MacOS/zrgpcext64");
}

const LoadingCase kLoadingCases[] = {
    {"UserBundle", [](auto& b) { return Copy(kSampleBundle, b); }, true, 0},
    {"MissingUserBundle", [](auto&) { return true; }, false, 0},
    {"UserBundleForAnotherMachine",
     [](auto& b) {
       return WithExecutable(b, [](const std::string& exe) {
         std::fstream file(exe, std::ios::in | std::ios::out | std::ios::binary);
         file.seekp(18);
         file.put('\xb7').put('\0');  // e_machine: AArch64
         return file.good();
       });
     },
     false, 0},
    {"UserBundleWithoutEntryPoints",
     [](auto& b) {
       return WithExecutable(b, [](const std::string& exe) {
         return Copy(kShippedBundle + "/Contents/Frameworks/lib7zip.so", exe);
       });
     },
     true, 1},
    {"UserBundleThatWillNotLoad",
     [](auto& b) {
       return WithExecutable(b, [](const std::string& exe) { return truncate(exe.c_str(), 4096) == 0; });
     },
     true, 2},
};

class LoadingTest : public WindowExtensionTest, public ::testing::WithParamInterface<LoadingCase> {};

TEST_P(LoadingTest, LoadsTheUserOrTheLocalExtension) {
  const LoadingCase& c = GetParam();
  ASSERT_TRUE(c.prepare(UserBundle()));
  window->SetParameterVector("GpcSampleDoneUrl", "https://127.0.0.1:9/done");
  ClearCapturedTraces();
  window->InitExtension();
  const std::string chosen = c.userLoaded ? UserBundle() : kSampleBundle;
  EXPECT_GE(gpctest::LogCount("load GPC extension:" + chosen), 1) << chosen;
  EXPECT_EQ(static_cast<int>(ShownMessages().size()), c.messages107);
  EXPECT_EQ(window->m_bHalted != 0, c.messages107 > 0);
  if (c.messages107 > 0) return;
  EXPECT_NE(window->m_pExtData, nullptr);
  // The extension's heartbeat runs with the instance's: the sample then navigates the page.
  window->OnTimer();
  ASSERT_FALSE(window->m_vectorFrameTarget.empty());
  EXPECT_EQ(window->m_vectorFrameTarget.back()->m_strUrl.rfind("https://127.0.0.1:9/done?fetched=0&failed=0", 0), 0u);
}

INSTANTIATE_TEST_SUITE_P(Bundles, LoadingTest, ::testing::ValuesIn(kLoadingCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(WindowExtensionTest, ALoadedExtensionGetsWindowAndEventsAndIsEndedOnce) {
  ClearCapturedTraces();
  window->ExitExtension();  // nothing loaded: nothing to end
  window->InitExtension();
  ASSERT_NE(window->m_hExtBundle, nullptr);
  NPWindow first{}, second{};
  window->SetWindow(&first);
  window->SetWindow(&second);
  EXPECT_EQ(window->GetPluginNativeWindow(), &first) << "the first record is kept";
  EXPECT_EQ(gpctest::LogCount("GpcSetWindow: window record"), 2);
  EXPECT_FALSE(window->HandleEvent(&first, true));
  window->OnTimer();
  window->ExitExtension();
  window->ExitExtension();
  EXPECT_EQ(gpctest::LogCount("GpcExitInstance after 1 heartbeats and 1 events"), 1);
  EXPECT_EQ(gpctest::LogCount("GpcExitInstance"), 1);
  window->OnTimer();  // nothing of the extension is called any more
  EXPECT_EQ(gpctest::LogCount("GpcExitInstance"), 1);
}

}  // namespace
