// Certificates, trust decisions and sha1WithRSA signatures, on certificates, keys and signatures made
// here with the openssl tool.
#include <gtest/gtest.h>

#include <memory>
#include <tuple>

#include "common/CertificateUtil.h"
#include "common/CryptoWrapper.h"
#include "common/hardening.h"
#include "common/packagecheck.h"
#include "platform/clock.h"
#include "platform/trust_panel.h"
#include "scoped_env.h"
#include "security_test_tools.h"
#include "trace_capture.h"

namespace {

using securitytest::MustRun;
using securitytest::ScratchFolder;

GpcBytes Bytes(const std::string& text) { return GpcBytes(text.begin(), text.end()); }

// Every certificate and key the tests use, made once: the vendor's root and signer ("vendor"), an
// intermediate CA and what it issued, self-signed ones, and broken ones.
struct Pki {
  ScratchFolder folder;
  gpctest::PackageSigner signer{folder.path()};
  Pki() {
    EXPECT_TRUE(signer.ok() && signer.AddSigner("root2", "/CN=Other Root", true) &&
                signer.AddSigner("self", "/CN=Self Signed Signer", true) &&
                signer.AddSigner("two_names", "/CN=first name/CN=Vantrel Talvo LLC", true) &&
                signer.AddSigner("no_name", "/O=No Name Org", true) &&
                signer.AddSigner("nul", "/CN=x.talvo.us#.example"));
    const std::string issue = "openssl x509 -req -CAcreateserial -days 3650 ";
    MustRun("cd '" + folder.path() + "' && openssl req -new -newkey rsa:2048 -nodes -keyout inter.key -subj "
            "/CN=Inter -addext basicConstraints=critical,CA:TRUE -out inter.csr && " +
            issue + "-copy_extensions copy -in inter.csr -CA root.pem -CAkey root.key -out inter.pem && " +
            issue + "-in vendor.csr -CA inter.pem -CAkey inter.key -out inter_leaf.pem && " +
            issue + "-in inter.csr -CA vendor.pem -CAkey vendor.key -out by_vendor.pem && "
            "openssl x509 -in self.pem -addtrust anyExtendedKeyUsage -trustout -out trusted_self.pem && "
            "openssl x509 -in self.pem -addreject anyExtendedKeyUsage -trustout -out rejected_self.pem && "
            "cat root.pem trusted_self.pem > system.anchors && : > empty.anchors && "
            "mkdir hashed && cp root.pem hashed/ && openssl rehash hashed && "
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ec.key "
            "-subj /CN=ec -out ec.pem && "
            "for use in code:keyUsage=digitalSignature,extendedKeyUsage=codeSigning tls:extendedKeyUsage=serverAuth "
            "enc:keyUsage=keyEncipherment; do echo \"${use#*:}\" | tr , '\\n' > use.ext && " + issue +
            "-in vendor.csr -CA root.pem -CAkey root.key -extfile use.ext -out ${use%%:*}_leaf.pem; done && "
            "for c in *.pem; do openssl x509 -in $c -outform DER -out ${c%pem}der; done");
    std::string der = gpctest::ReadFile(folder / "vendor.der");
    der.back() ^= 1;  // the signature's last byte
    gpctest::WriteFile(folder / "bad_sig.der", der);
    der = gpctest::ReadFile(folder / "nul.der");
    der[der.find("x.talvo.us#") + 10] = '\0';
    gpctest::WriteFile(folder / "nul.der", der);
  }
};

std::string Path(const std::string& file) {
  static Pki pki;
  return pki.folder / file;
}
GpcCertificateRef Cert(const std::string& name) { return SecFromFile(Path(name + ".der").c_str()); }
GpcCertificateList Certs(const std::vector<std::string>& names) {
  GpcCertificateList certs;
  for (const std::string& name : names) certs.push_back(Cert(name));
  return certs;
}

TEST(Certificates, ExactlyOneDerCertificateItsCommonNameAndKey) {
  const GpcBytes der = Bytes(gpctest::ReadFile(Path("vendor.der")));
  ASSERT_TRUE(Cert("vendor"));
  EXPECT_EQ(Cert("vendor")->DerBytes(), der);
  GpcBytes trailing = der;
  trailing.push_back(0);
  for (const GpcBytes& bytes : {GpcBytes(), trailing, GpcBytes(der.begin(), der.end() - 1),
                                Bytes(gpctest::ReadFile(Path("vendor.pem")))}) {
    EXPECT_FALSE(SecFromData(bytes)) << bytes.size() << " bytes";
  }
  for (const char* file : {"missing.der", "."}) EXPECT_FALSE(SecFromFile(Path(file).c_str())) << file;
  for (const auto& [cert, name] : std::vector<std::pair<std::string, std::string>>{
           {"vendor", "gpc.signer.talvo.us"}, {"two_names", "Vantrel Talvo LLC"}, {"no_name", ""},
           {"nul", ""}}) {
    ASSERT_TRUE(Cert(cert)) << cert;
    EXPECT_EQ(CommonNameOfCert(Cert(cert).get()), name) << cert;
  }
  RSA* rsa = RSAFromCertification(Cert("vendor").get());
  EXPECT_NE(rsa, nullptr);
  CryptoWrapper::sharedInstance()->RSA_free()(rsa);
  EXPECT_EQ(RSAFromCertification(Cert("ec").get()), nullptr);
}

TEST(Certificates, VendorNamesEndWithTheVendorsSuffix) {
  const std::tuple<const char*, bool, bool> cases[] = {  // name, by default, hardened
      {"gpc.signer.talvo.us", true, true}, {"talvo.us", false, true}, {".talvo.us", true, false},
      {"gpc.signer.talvo.us.example.com", false, false}, {"xtalvo.us", false, false}, {"", false, false},
      {"Vantrel Talvo LLC", true, true}, {"Evil Vantrel Talvo LLC", true, false}};
  for (const auto& [name, byDefault, hardened] : cases) {
    gpc::SetHardenedForTesting(0);
    EXPECT_EQ(IsVendorCommonName(name), byDefault) << name;
    gpc::SetHardenedForTesting(1);
    EXPECT_EQ(IsVendorCommonName(name), hardened) << name << " (hardened)";
  }
  gpc::SetHardenedForTesting(-1);
}

constexpr GpcTrustResult kProceed = kGpcTrustResultProceed, kGood = kGpcTrustResultUnspecified, kFailed = kGpcTrustResultRecoverableTrustFailure,
                         kFatal = kGpcTrustResultFatalTrustFailure;
constexpr uint32_t kExpired = kGpcCertStatusExpired, kNotYet = kGpcCertStatusNotValidYet,
                   kRoot = kGpcCertStatusIsRoot, kAnchor = kGpcCertStatusIsInAnchors,
                   kSettings = kGpcCertStatusTrustSettingsTrust,
                   kShownStatus = kExpired | kNotYet | kRoot | kAnchor | kSettings;

// The trust panel as the user answers it, counting how often it is shown.
struct Panel {
  bool answer = false;
  int shown = 0;
  platform::TrustPanelRequest last;
  Panel() {
    platform::SetTrustPanelHandler([this](const platform::TrustPanelRequest& request) {
      ++shown;
      last = request;
      return answer;
    });
  }
  ~Panel() { platform::SetTrustPanelHandler(nullptr); }
};

struct TrustCase {
  const char *name, *leaf;
  std::vector<std::string> page;   // the page's certificates: extra anchors, or intermediates when hardened
  const char* system;              // SSL_CERT_FILE: a file of the test PKI, "" or null for the machine's anchors;
                                   // a folder ("x/"): SSL_CERT_DIR, on a machine without an anchors file
  int year;                        // of the clock, 0 for now
  GpcTrustResult first;            // of the first evaluation
  uint32_t leafStatus;             // among kShownStatus
  bool panel, accepted, hardened;  // the user is asked (and says "cancel"); the default and strict decisions
};

const TrustCase kTrustCases[] = {
    {"chain to a page anchor", "vendor", {"root"}, nullptr, 0, kGood, 0, false, true, true},
    {"intermediate alone on the page", "inter_leaf", {"inter"}, nullptr, 0, kGood, 0, false, true, true},
    {"intermediate missing", "inter_leaf", {"root"}, nullptr, 0, kFailed, 0, true, false, false},
    {"expired chain", "vendor", {"root"}, nullptr, 2040, kFailed, kExpired, false, true, false},
    {"chain not valid yet", "vendor", {"root"}, nullptr, 2000, kFailed, kNotYet, true, false, false},
    {"self-signed", "self", {}, nullptr, 0, kFailed, kRoot, true, false, false},
    {"self-signed on the page", "self", {"self"}, nullptr, 0, kGood, kRoot | kAnchor, false, true, false},
    {"page anchor not valid yet", "self", {"self"}, nullptr, 2000, kFailed, kNotYet | kRoot | kAnchor, true,
     false, false},
    {"bad signature", "bad_sig", {"root"}, nullptr, 0, kFatal, 0, true, false, false},
    {"signer without CA rights", "by_vendor", {"vendor", "root"}, nullptr, 0, kFailed, 0, true, false, false},
    {"system anchors stand in for the page's", "vendor", {}, "root.pem", 0, kGood, 0, false, true, true},
    {"trust settings of a system anchor", "self", {}, "system.anchors", 2000, kFailed,
     kNotYet | kRoot | kAnchor | kSettings, false, true, false},
    {"trusted system anchor in time", "self", {}, "system.anchors", 0, kProceed, kRoot | kAnchor | kSettings, false,
     true, false},
    {"system anchor its settings reject", "self", {}, "rejected_self.pem", 0, kFatal, kRoot, true, false, false},
    {"empty SSL_CERT_FILE: the machine's anchors", "vendor", {"root"}, "", 0, kGood, 0, false, true, true},
    {"no system anchors: the page's are ignored", "vendor", {"root"}, "empty.anchors", 0, kFailed, 0, true,
     false, true},
    {"unreadable system anchors", "vendor", {"root"}, "missing.pem", 0, kFailed, 0, true, false, true},
    {"anchors only in a hashed folder", "vendor", {}, "hashed/", 0, kGood, 0, false, true, true},
};

TEST(Trust, OutcomesOfChains) {
  for (const TrustCase& c : kTrustCases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<ScopedEnv> system;
    const bool folder = c.system != nullptr && *c.system && std::string(c.system).back() == '/';
    if (c.system != nullptr)
      system = std::make_unique<ScopedEnv>("SSL_CERT_FILE", folder ? Path("missing.pem") : *c.system ? Path(c.system) : "");
    ScopedEnv folderOfAnchors("SSL_CERT_DIR", folder ? Path(c.system).c_str() : nullptr);
    const int64_t micros = (c.year - 1970) * int64_t{31556952} * 1000000;
    if (c.year != 0) platform::SetWallClockOverride([micros] { return micros; });
    const GpcCertificateRef leaf = Cert(c.leaf);
    const GpcCertificateList page = Certs(c.page);
    GpcTrustResult result = kGpcTrustResultInvalid;
    GpcTrustPtr trust;
    std::vector<uint32_t> records;
    ASSERT_EQ(EvaluateCert(leaf, page, policyForOID(kGpcX509BasicPolicyOID), &result, &trust), 0);
    ASSERT_TRUE(trust->GetStatusRecords(&records) && !records.empty());
    EXPECT_EQ(result, c.first);
    EXPECT_EQ(records[0] & kShownStatus, c.leafStatus);

    Panel panel;
    const GpcTrustPtr decided = TrustCertification(leaf, page);
    EXPECT_EQ(decided != nullptr, c.accepted);
    // An expired chain is accepted by a second evaluation that allows expiry.
    EXPECT_EQ(decided ? decided->actionFlags() : 0u, c.leafStatus & kExpired ? 0x9u : 0u);
    EXPECT_EQ(panel.shown, c.panel ? 1 : 0);
    if (c.panel) {
      EXPECT_EQ(panel.last.commonName, CommonNameOfCert(leaf.get()));
      EXPECT_NE(panel.last.subject.find("CN=" + panel.last.commonName), std::string::npos) << panel.last.subject;
      EXPECT_EQ(panel.last.leafStatus & kShownStatus, c.leafStatus);
      EXPECT_EQ(panel.last.alternateButtonTitle, "Cancel");
      panel.answer = true;
      EXPECT_TRUE(TrustCertification(leaf, page));
    }
    EXPECT_EQ(ChainIsTrustedBy(leaf, page, Certs({"root"})), c.hardened);
    platform::SetWallClockOverride(nullptr);
  }
}

TEST(Trust, AnchorCountsAndRefusedArguments) {
  ScopedEnv system("SSL_CERT_FILE", Path("root.pem"));
  ClearCapturedTraces();
  ASSERT_TRUE(TrustCertification(Cert("vendor"), Certs({"inter", "root"})));
  // The page's certificates are added to the system's.
  EXPECT_TRUE(TraceContains(1, "EvaluateCert, SecTrustCopyAnchorCertificates status: 0, counts: 1"));
  EXPECT_TRUE(TraceContains(1, "EvaluateCert, all anchor certificates count: 3"));
  GpcTrustResult result = kGpcTrustResultInvalid;
  GpcTrustPtr trust;
  EXPECT_EQ(EvaluateCert(nullptr, {}, policyForOID(kGpcX509BasicPolicyOID), &result, &trust),
            kGpcTrustErrNoCertificateList);
  EXPECT_EQ(EvaluateCert(Cert("vendor"), {}, policyForOID("1.2.3.4"), &result, &trust), kGpcTrustErrParam);
  EXPECT_FALSE(TrustCertification(Cert("self"), {}));  // without a handler the panel answers "cancel"
  // Shipped anchors need not be roots: an intermediate or the signer itself may be pinned.
  EXPECT_TRUE(ChainIsTrustedBy(Cert("inter_leaf"), {}, Certs({"inter"})) &&
              ChainIsTrustedBy(Cert("vendor"), {}, Certs({"vendor"})));
  EXPECT_FALSE(ChainIsTrustedBy(Cert("inter_leaf"), {}, Certs({"vendor"})));
  // A signer whose certificate names other uses (a web server's, a key for encryption) signs nothing.
  for (const auto& [leaf, trusted] : {std::pair{"code_leaf", true}, {"tls_leaf", false}, {"enc_leaf", false}})
    EXPECT_EQ(ChainIsTrustedBy(Cert(leaf), {}, Certs({"root"})), trusted) << leaf;
}

const std::string kSha1Text = "a9993e364706816aba3e25717850c26c9cd0d89d";
const std::string kSha256Text = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// The tool's raw RSA operation with the private key `key` on a PKCS #1 block of 256 bytes: 00, `type`,
// `padding` bytes (0: enough to fill the block), 00, the DigestInfo of `digest` (its byte `at` set to
// `value` when `at` is not 0), `trailer`.
GpcBytes Sign(const std::string& digest, size_t padding = 0, unsigned char type = 1,
              const GpcBytes& trailer = {}, size_t at = 0, unsigned char value = 0,
              const std::string& key = Path("vendor.key")) {
  GpcBytes info = Bytes(gpctest::DigestInfo(digest)), block = {0x00, type};
  if (at != 0) info[at] = value;
  if (padding == 0) padding = 253 - info.size() - trailer.size();
  block.insert(block.end(), padding, type == 2 ? 0x5a : 0xff);
  block.push_back(0x00);
  block.insert(block.end(), info.begin(), info.end());
  block.insert(block.end(), trailer.begin(), trailer.end());
  ScratchFolder folder;
  gpctest::WriteFile(folder / "block", std::string(block.begin(), block.end()));
  MustRun("openssl rsautl -sign -raw -inkey '" + key + "' -in '" + (folder / "block") + "' -out '" +
          (folder / "sig") + "'");
  return Bytes(gpctest::ReadFile(folder / "sig"));
}

TEST(Signatures, OnlyTheWholeExpectedBlockOfTheWholeTextVerifies) {
  std::string zeroText;  // a text whose signature starts with a zero byte
  GpcBytes zeroFirst;
  for (int n = 0; n < 4096 && (zeroFirst.empty() || zeroFirst[0] != 0); ++n)
    zeroFirst = SignDataWithSSL(Path("vendor.key").c_str(), Bytes(zeroText = std::to_string(n)));
  ASSERT_EQ(zeroFirst.at(0), 0);
  RSA* rsa = RSAFromCertification(Cert("vendor").get());
  ASSERT_NE(rsa, nullptr);
  std::string lastChanged = kSha1Text;
  lastChanged.back() = '0';
  const GpcBytes good = Sign(kSha1Text);
  GpcBytes longer = good;
  longer.insert(longer.begin(), 0);
  const std::tuple<const char*, GpcBytes, std::string, bool> cases[] = {  // name, signature, text, verifies
      {"a sha1 digest text", good, kSha1Text, true},
      {"no text", good, "", false},
      {"no signature", {}, kSha1Text, false},
      {"a signature one zero byte short", GpcBytes(zeroFirst.begin() + 1, zeroFirst.end()), zeroText, false},
      {"a signature with a zero byte more", longer, kSha1Text, false},
      {"a sha256 digest text", Sign(kSha256Text), kSha256Text, true},
      {"another key", Sign(kSha1Text, 0, 1, {}, 0, 0, Path("root.key")), kSha1Text, false},
      {"the text's last character changed", good, lastChanged, false},
      {"the text's first 40 characters", Sign(kSha256Text), kSha256Text.substr(0, 40), false},
      {"the sha1 OID instead of sha1WithRSA", Sign(kSha1Text, 0, 1, {}, 10, 0x1a), kSha1Text, false},
      {"parameters other than NULL", Sign(kSha1Text, 0, 1, {}, 11, 0x04), kSha1Text, false},
      {"garbage after the DigestInfo", Sign(kSha1Text, 0, 1, GpcBytes(8, 0x41)), kSha1Text, false},
      {"a short padding string", Sign(kSha1Text, 7, 1, GpcBytes(198 - 7, 0x00)), kSha1Text, false},
      {"block type 2", Sign(kSha1Text, 0, 2), kSha1Text, false},
  };
  for (const auto& [name, signature, text, verifies] : cases) {
    EXPECT_EQ(verifyDataWithSSL(rsa, Bytes(text), signature), verifies) << name;
  }
  CryptoWrapper::SetLibraryMissingForTesting(true);
  CryptoWrapper::destorySharedInstance();
  EXPECT_FALSE(verifyDataWithSSL(rsa, Bytes(kSha1Text), good));
  EXPECT_TRUE(SignDataWithSSL(Path("vendor.key").c_str(), Bytes(kSha1Text)).empty());
  EXPECT_FALSE(Cert("vendor"));
  CryptoWrapper::SetLibraryMissingForTesting(false);
  CryptoWrapper::destorySharedInstance();
  CryptoWrapper::sharedInstance()->RSA_free()(rsa);
}

TEST(Signatures, OwnSignaturesAreTheToolsAndNeedAnUnencryptedRsaKeyInTheFirst2045Bytes) {
  for (const std::string& text : {kSha1Text, kSha256Text}) {
    EXPECT_EQ(SignDataWithSSL(Path("vendor.key").c_str(), Bytes(text)), Sign(text));  // deterministic
  }
  ScratchFolder folder;
  MustRun("openssl genrsa -aes128 -passout pass:secret -out '" + (folder / "locked.key") + "' 2048");
  const std::string key = gpctest::ReadFile(Path("vendor.key"));
  // Its last byte, the closing line's last dash, is byte 2046.
  const std::string cut = std::string(2046 - key.size(), '#') + "\n" + key.substr(0, key.size() - 1);
  gpctest::WriteFile(folder / "cut.key", cut);
  gpctest::WriteFile(folder / "fits.key", cut.substr(80));
  for (const auto& [path, dataSize, signatureSize] : std::vector<std::tuple<std::string, size_t, size_t>>{
           {folder / "fits.key", 40, 256}, {folder / "cut.key", 40, 0}, {folder / "locked.key", 40, 0},
           {Path("vendor.key"), 300, 0}}) {  // more than the key can carry
    EXPECT_EQ(SignDataWithSSL(path.c_str(), GpcBytes(dataSize, 'a')).size(), signatureSize) << path;
  }
}

}  // namespace
