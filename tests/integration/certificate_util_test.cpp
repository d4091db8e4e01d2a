// Certificates, trust decisions and sha1WithRSA signatures, against certificates, keys and
// signatures made here with the openssl tool.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "CertificateUtil.h"
#include "CryptoWrapper.h"
#include "NSString+Hex.h"
#include "platform/clock.h"
#include "platform/trust_panel.h"
#include "security_test_tools.h"
#include "scoped_env.h"
#include "trace_capture.h"

namespace {

using securitytest::MustRun;
using securitytest::ReadFile;
using securitytest::ScratchFolder;
using securitytest::WriteFile;

constexpr const char* kOpensslConfig = R"([ req ]
distinguished_name = dn
prompt = no
[ dn ]
CN = unused
[ v3_ca ]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ v3_leaf ]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
subjectKeyIdentifier = hash
[ ca ]
default_ca = testca
[ testca ]
database = ./index.txt
new_certs_dir = ./newcerts
serial = ./serial
default_md = sha256
policy = policy_any
unique_subject = no
[ policy_any ]
commonName = optional
organizationName = optional
)";

// Every certificate and key the tests use, made once for the whole program.
class TestPki {
 public:
  TestPki() {
    WriteFile(dir_ / "openssl.cnf", kOpensslConfig);
    WriteFile(dir_ / "index.txt", "");
    WriteFile(dir_ / "serial", "1000\n");
    MustRun(In() + "mkdir newcerts");
    NewKey("root");
    NewKey("inter");
    NewKey("leaf");
    NewKey("other");
    MustRun(In() +
            "openssl req -x509 -config openssl.cnf -extensions v3_ca -key root.key -days 3650 "
            "-subj '/CN=Test Root CA' -out root.pem");
    MustRun(In() +
            "openssl req -new -config openssl.cnf -key inter.key -subj '/CN=Test Intermediate CA' "
            "-out inter.csr");
    Issue("inter.csr", "root", "inter", "20200101000000Z", "20990101000000Z", "v3_ca");
    MustRun(In() +
            "openssl req -new -config openssl.cnf -key leaf.key "
            "-subj '/O=Vantrel/CN=gpc.signer.talvo.us' -out leaf.csr");
    Issue("leaf.csr", "root", "leaf", "20200101000000Z", "20990101000000Z", "v3_leaf");
    Issue("leaf.csr", "inter", "leaf_of_inter", "20200101000000Z", "20990101000000Z", "v3_leaf");
    Issue("leaf.csr", "root", "expired", "20200101000000Z", "20210101000000Z", "v3_leaf");
    Issue("leaf.csr", "root", "not_yet_valid", "20980101000000Z", "20990101000000Z", "v3_leaf");
    MustRun(In() +
            "openssl req -x509 -config openssl.cnf -extensions v3_leaf -key other.key -days 365 "
            "-subj '/CN=Self Signed Signer' -out self_signed.pem");
    MustRun(In() +
            "openssl req -x509 -config openssl.cnf -extensions v3_leaf -key other.key -days 365 "
            "-subj '/CN=first name/CN=Vantrel Talvo LLC' -out two_names.pem");
    MustRun(In() +
            "openssl req -x509 -config openssl.cnf -extensions v3_leaf -key other.key -days 365 "
            "-subj '/O=No Name Org' -out no_name.pem");
    MustRun(In() +
            "openssl req -x509 -config openssl.cnf -extensions v3_leaf -newkey ec "
            "-pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ec.key -days 365 "
            "-subj '/CN=Elliptic' -out ec.pem");
    // A self-signed certificate that is not valid yet, and the same with trust settings.
    MustRun(In() +
            "openssl req -new -config openssl.cnf -key other.key -subj '/CN=Future Self' "
            "-out future.csr");
    MustRun(In() +
            "openssl ca -batch -notext -config openssl.cnf -selfsign -keyfile other.key "
            "-in future.csr -startdate 20980101000000Z -enddate 20990101000000Z "
            "-extensions v3_leaf -out future_self.pem");
    MustRun(In() +
            "openssl x509 -in future_self.pem -addtrust anyExtendedKeyUsage -trustout "
            "-out future_self_trusted.pem");
    for (const char* name : {"root", "inter", "leaf", "leaf_of_inter", "expired", "not_yet_valid",
                             "self_signed", "two_names", "no_name", "ec", "future_self"}) {
      MustRun(In() + "openssl x509 -in " + name + ".pem -outform DER -out " + name + ".der");
    }
  }

  std::string Path(const std::string& name) const { return dir_ / name; }
  GpcCertificateRef Cert(const std::string& name) const {
    return SecFromFile(Path(name + ".der").c_str());
  }
  // Runs a shell command inside the scratch folder.
  std::string In() const { return "cd '" + dir_.path() + "' && "; }

 private:
  void NewKey(const std::string& name) {
    MustRun(In() + "openssl genrsa -out " + name + ".key 2048");
  }
  void Issue(const std::string& csr, const std::string& ca, const std::string& out,
             const std::string& start, const std::string& end, const std::string& extensions) {
    MustRun(In() + "openssl ca -batch -notext -config openssl.cnf -cert " + ca + ".pem -keyfile " +
            ca + ".key -in " + csr + " -startdate " + start + " -enddate " + end + " -extensions " +
            extensions + " -out " + out + ".pem");
  }

  ScratchFolder dir_;
};

const TestPki* g_pki = nullptr;

const TestPki& Pki() { return *g_pki; }

// Makes the certificates before the first test and removes them after the last.
class PkiEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { g_pki = new TestPki(); }
  void TearDown() override {
    delete g_pki;
    g_pki = nullptr;
  }
};
::testing::Environment* const g_pkiEnvironment =
    ::testing::AddGlobalTestEnvironment(new PkiEnvironment);


// ---- Certificates --------------------------------------------------------------------------

TEST(Certificates, FromDerBytesAndFiles) {
  const GpcBytes der = ReadFile(Pki().Path("leaf.der"));
  GpcCertificateRef fromData = SecFromData(der);
  ASSERT_TRUE(fromData);
  EXPECT_EQ(fromData->DerBytes(), der);
  GpcCertificateRef fromFile = SecFromFile(Pki().Path("leaf.der").c_str());
  ASSERT_TRUE(fromFile);
  EXPECT_EQ(fromFile->DerBytes(), der);
}

TEST(Certificates, BadBytesGiveNone) {
  const GpcBytes der = ReadFile(Pki().Path("leaf.der"));
  EXPECT_FALSE(SecFromData(nullptr, 10));
  EXPECT_FALSE(SecFromData(GpcBytes()));
  EXPECT_FALSE(SecFromData(GpcBytes{0xde, 0xad, 0xbe, 0xef, 0x00, 0x01}));
  EXPECT_FALSE(SecFromData(GpcBytes(der.begin(), der.end() - 1)));
  GpcBytes trailing = der;
  trailing.push_back(0);
  EXPECT_FALSE(SecFromData(trailing));
  GpcBytes pemText = ReadFile(Pki().Path("leaf.pem"));
  EXPECT_FALSE(SecFromData(pemText));
  ClearCapturedTraces();
  EXPECT_FALSE(SecFromFile(nullptr));
  EXPECT_TRUE(TraceContains(3, "ASSERT path != NULL failed at file "
                               "src/classic_client/gpc/common/CertificateUtil.cpp, line "));
  EXPECT_FALSE(SecFromFile(Pki().Path("missing.der").c_str()));
  EXPECT_FALSE(SecFromFile(Pki().Path("newcerts").c_str()));
}

TEST(Certificates, CommonName) {
  EXPECT_EQ(CommonNameOfCert(Pki().Cert("leaf").get()), "gpc.signer.talvo.us");
  EXPECT_EQ(CommonNameOfCert(Pki().Cert("two_names").get()), "Vantrel Talvo LLC");
  EXPECT_EQ(CommonNameOfCert(Pki().Cert("no_name").get()), "");
  EXPECT_EQ(CommonNameOfCert(nullptr), "");
}

TEST(Certificates, RsaKeyOfCertificate) {
  RSA* rsa = RSAFromCertification(Pki().Cert("leaf").get());
  ASSERT_NE(rsa, nullptr);
  CryptoWrapper::sharedInstance()->RSA_free()(rsa);
  EXPECT_EQ(RSAFromCertification(Pki().Cert("ec").get()), nullptr);
  EXPECT_EQ(RSAFromCertification(nullptr), nullptr);
}

// ---- Trust ---------------------------------------------------------------------------------

class Trust : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::SetTrustPanelHandler([this](const platform::TrustPanelRequest& request) {
      ++panelShown_;
      lastRequest_ = request;
      return panelAnswer_;
    });
  }
  void TearDown() override { platform::SetTrustPanelHandler(nullptr); }

  GpcTrustPtr Decide(const std::string& leaf, std::initializer_list<const char*> anchors) {
    GpcCertificateList extra;
    for (const char* name : anchors) extra.push_back(Pki().Cert(name));
    return TrustCertification(Pki().Cert(leaf), extra);
  }
  GpcTrustResult FirstResult(const std::string& leaf, std::initializer_list<const char*> anchors,
                             std::vector<uint32_t>* records = nullptr) {
    GpcCertificateList extra;
    for (const char* name : anchors) extra.push_back(Pki().Cert(name));
    GpcTrustResult result = kGpcTrustResultInvalid;
    GpcTrustPtr trust;
    EXPECT_EQ(EvaluateCert(Pki().Cert(leaf), extra, policyForOID(kGpcX509BasicPolicyOID), &result,
                           &trust),
              0);
    if (records != nullptr && trust) trust->GetStatusRecords(records);
    return result;
  }

  bool panelAnswer_ = false;
  int panelShown_ = 0;
  platform::TrustPanelRequest lastRequest_;
};

TEST_F(Trust, ChainToAnExtraAnchorIsAccepted) {
  EXPECT_EQ(FirstResult("leaf", {"root"}), kGpcTrustResultUnspecified);
  GpcTrustPtr trust = Decide("leaf", {"root"});
  ASSERT_TRUE(trust);
  EXPECT_EQ(trust->chain().size(), 2u);
  // Intermediates arrive as extra anchors too; either way the chain is trusted.
  EXPECT_TRUE(Decide("leaf_of_inter", {"inter", "root"}));
  EXPECT_TRUE(Decide("leaf_of_inter", {"inter"}));
  EXPECT_EQ(panelShown_, 0);
}

TEST_F(Trust, ChainWithoutItsAnchorGoesToThePanel) {
  EXPECT_EQ(FirstResult("leaf", {}), kGpcTrustResultRecoverableTrustFailure);
  EXPECT_FALSE(Decide("leaf", {}));
  EXPECT_FALSE(Decide("leaf_of_inter", {"root"}));  // the intermediate is missing
  EXPECT_EQ(panelShown_, 2);
  EXPECT_EQ(lastRequest_.commonName, "gpc.signer.talvo.us");
  EXPECT_EQ(lastRequest_.alternateButtonTitle, "Cancel");
}

TEST_F(Trust, ExpiredLeafUnderAGoodChainIsAcceptedOnSecondEvaluation) {
  std::vector<uint32_t> records;
  EXPECT_EQ(FirstResult("expired", {"root"}, &records), kGpcTrustResultRecoverableTrustFailure);
  ASSERT_FALSE(records.empty());
  EXPECT_TRUE(records[0] & kGpcCertStatusExpired);
  GpcTrustPtr trust = Decide("expired", {"root"});
  ASSERT_TRUE(trust);
  EXPECT_EQ(trust->actionFlags(), kGpcTrustActionAllowExpired | kGpcTrustActionAllowExpiredRoot);
  EXPECT_EQ(trust->result(), kGpcTrustResultUnspecified);
  EXPECT_EQ(panelShown_, 0);
}

TEST_F(Trust, ClockPastTheEndOfAGoodLeafCountsAsExpiry) {
  platform::SetWallClockOverride([] { return int64_t{4200000000} * 1000000; });  // year 2103
  GpcTrustPtr trust = Decide("leaf", {"root"});
  platform::SetWallClockOverride(nullptr);
  ASSERT_TRUE(trust);
  EXPECT_EQ(trust->actionFlags(), kGpcTrustActionAllowExpired | kGpcTrustActionAllowExpiredRoot);
}

TEST_F(Trust, SelfSignedOutsideEveryAnchorListNeedsTheUser) {
  std::vector<uint32_t> records;
  FirstResult("self_signed", {}, &records);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0] & (kGpcCertStatusIsRoot | kGpcCertStatusIsInAnchors), kGpcCertStatusIsRoot);

  EXPECT_FALSE(Decide("self_signed", {}));
  EXPECT_EQ(panelShown_, 1);
  panelAnswer_ = true;
  EXPECT_TRUE(Decide("self_signed", {}));
  EXPECT_EQ(panelShown_, 2);
}

TEST_F(Trust, DefaultPanelAnswerIsCancel) {
  platform::SetTrustPanelHandler(nullptr);
  EXPECT_FALSE(Decide("self_signed", {}));
}

TEST_F(Trust, SelfSignedPassedAsAnchorIsAccepted) {
  EXPECT_EQ(FirstResult("self_signed", {"self_signed"}), kGpcTrustResultUnspecified);
  EXPECT_TRUE(Decide("self_signed", {"self_signed"}));
  EXPECT_EQ(panelShown_, 0);
}

TEST_F(Trust, NotYetValidLeafGoesToThePanel) {
  std::vector<uint32_t> records;
  EXPECT_EQ(FirstResult("not_yet_valid", {"root"}, &records),
            kGpcTrustResultRecoverableTrustFailure);
  ASSERT_FALSE(records.empty());
  EXPECT_TRUE(records[0] & kGpcCertStatusNotValidYet);
  EXPECT_FALSE(Decide("not_yet_valid", {"root"}));
  EXPECT_EQ(panelShown_, 1);
  EXPECT_TRUE(lastRequest_.leafStatus & kGpcCertStatusNotValidYet);
  panelAnswer_ = true;
  EXPECT_TRUE(Decide("not_yet_valid", {"root"}));
}

TEST_F(Trust, NotYetValidAnchorNeedsTheUserEvenInTheAnchors) {
  EXPECT_FALSE(Decide("future_self", {"future_self"}));
  EXPECT_EQ(panelShown_, 1);
  EXPECT_TRUE(lastRequest_.leafStatus & kGpcCertStatusIsInAnchors);
}

TEST_F(Trust, TrustSettingsInTheSystemAnchorsAccept) {
  ScratchFolder folder;
  const std::string bundle = folder / "anchors.pem";
  MustRun("cat '" + Pki().Path("root.pem") + "' '" + Pki().Path("future_self_trusted.pem") +
          "' > '" + bundle + "'");
  ScopedEnv anchors("SSL_CERT_FILE", bundle);
  std::vector<uint32_t> records;
  FirstResult("future_self", {}, &records);
  ASSERT_FALSE(records.empty());
  EXPECT_TRUE(records[0] & kGpcCertStatusTrustSettingsTrust);
  EXPECT_TRUE(Decide("future_self", {}));
  EXPECT_EQ(panelShown_, 0);
}

TEST_F(Trust, SystemAnchorsStandInForTheExtraOnes) {
  ScratchFolder folder;
  const std::string bundle = folder / "anchors.pem";
  MustRun("cp '" + Pki().Path("root.pem") + "' '" + bundle + "'");
  ScopedEnv anchors("SSL_CERT_FILE", bundle);
  EXPECT_TRUE(Decide("leaf", {}));
  EXPECT_TRUE(Decide("leaf_of_inter", {"inter"}));
}

TEST_F(Trust, ExtraAnchorsAreIgnoredWithoutSystemAnchors) {
  ScratchFolder folder;
  WriteFile(folder / "empty.pem", "");
  {
    ScopedEnv anchors("SSL_CERT_FILE", folder / "empty.pem");
    EXPECT_FALSE(Decide("leaf", {"root"}));
  }
  {
    ScopedEnv anchors("SSL_CERT_FILE", folder / "missing.pem");
    EXPECT_FALSE(Decide("leaf", {"root"}));
  }
  EXPECT_EQ(panelShown_, 2);
}

TEST_F(Trust, EvaluationLogsItsAnchorsAndResult) {
  ClearCapturedTraces();
  EXPECT_TRUE(Decide("leaf", {"inter", "root"}));
  int systemCount = -1, allCount = -1, status = -1, result = -1;
  for (const CapturedTrace& trace : CapturedTracesSnapshot()) {
    if (trace.level != 1) continue;
    sscanf(trace.text.c_str(), "EvaluateCert, SecTrustCopyAnchorCertificates status: %i, counts: %i",
           &status, &systemCount);
    sscanf(trace.text.c_str(), "EvaluateCert, all anchor certificates count: %i", &allCount);
    sscanf(trace.text.c_str(), "EvaluateCert, SecTrustEvaluate result: %i", &result);
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(systemCount, 0);
  EXPECT_EQ(allCount, systemCount + 2);
  EXPECT_EQ(result, kGpcTrustResultUnspecified);

  ScratchFolder folder;
  WriteFile(folder / "empty.pem", "");
  ScopedEnv anchors("SSL_CERT_FILE", folder / "empty.pem");
  ClearCapturedTraces();
  Decide("leaf", {"root"});
  EXPECT_TRUE(TraceContains(1, "EvaluateCert, SecTrustCopyAnchorCertificates status: 0, counts: 0"));
  EXPECT_FALSE(TraceContains(1, "EvaluateCert, all anchor certificates count"));
}

TEST_F(Trust, BadArguments) {
  GpcTrustResult result = kGpcTrustResultInvalid;
  GpcTrustPtr trust;
  EXPECT_EQ(EvaluateCert(nullptr, {}, policyForOID(kGpcX509BasicPolicyOID), &result, &trust),
            kGpcTrustErrNoCertificateList);
  EXPECT_EQ(EvaluateCert(Pki().Cert("leaf"), {}, nullptr, &result, &trust), kGpcTrustErrParam);
  EXPECT_FALSE(policyForOID("1.2.3.4"));
  EXPECT_FALSE(policyForOID(nullptr));
  EXPECT_FALSE(TrustCertification(nullptr, {}));
  EXPECT_FALSE(TrustCertification(SecFromData(GpcBytes{1, 2, 3}), {}));
  EXPECT_EQ(panelShown_, 0);
}

// ---- Signatures ----------------------------------------------------------------------------

const char kSha1Text[] = "a9993e364706816aba3e25717850c26c9cd0d89d";
const char kSha256Text[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const GpcBytes kSha1WithRsaOid = {0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1D};
const GpcBytes kSha1Oid = {0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A};

GpcBytes Bytes(const std::string& text) { return GpcBytes(text.begin(), text.end()); }

GpcBytes DerOf(unsigned char tag, const GpcBytes& content) {
  GpcBytes der = {tag, static_cast<unsigned char>(content.size())};
  der.insert(der.end(), content.begin(), content.end());
  return der;
}

// SEQUENCE { SEQUENCE { oid [, NULL] }, OCTET STRING data }
GpcBytes DigestInfo(const std::string& data, const GpcBytes& oid = kSha1WithRsaOid,
                    bool withNull = true) {
  GpcBytes algorithm = oid;
  if (withNull) algorithm.insert(algorithm.end(), {0x05, 0x00});
  GpcBytes body = DerOf(0x30, algorithm);
  const GpcBytes digest = DerOf(0x04, Bytes(data));
  body.insert(body.end(), digest.begin(), digest.end());
  return DerOf(0x30, body);
}

class Signatures : public ::testing::Test {
 protected:
  void SetUp() override {
    rsa_ = RSAFromCertification(Pki().Cert("leaf").get());
    ASSERT_NE(rsa_, nullptr);
  }
  void TearDown() override { CryptoWrapper::sharedInstance()->RSA_free()(rsa_); }

  // Signs a DigestInfo raw (PKCS #1 type 1 padding, no digest) with the tool.
  GpcBytes ToolSignature(const GpcBytes& digestInfo, const std::string& key = "leaf") {
    WriteFile(folder_ / "tbs.bin", digestInfo);
    MustRun("openssl rsautl -sign -inkey '" + Pki().Path(key + ".key") + "' -in '" +
            (folder_ / "tbs.bin") + "' -out '" + (folder_ / "tool.sig") + "'");
    return ReadFile(folder_ / "tool.sig");
  }

  RSA* rsa_ = nullptr;
  ScratchFolder folder_;
};

TEST_F(Signatures, ToolSignatureVerifies) {
  EXPECT_TRUE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), ToolSignature(DigestInfo(kSha1Text))));
  EXPECT_TRUE(verifyDataWithSSL(rsa_, Bytes(kSha256Text), ToolSignature(DigestInfo(kSha256Text))));
}

TEST_F(Signatures, EveryChangedBitIsRefused) {
  const GpcBytes signature = ToolSignature(DigestInfo(kSha256Text));
  ASSERT_EQ(signature.size(), 256u);
  for (size_t bit = 0; bit < signature.size() * 8; ++bit) {
    GpcBytes changed = signature;
    changed[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    ASSERT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha256Text), changed)) << "signature bit " << bit;
  }
  const GpcBytes data = Bytes(kSha256Text);
  for (size_t bit = 0; bit < data.size() * 8; ++bit) {
    GpcBytes changed = data;
    changed[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    ASSERT_FALSE(verifyDataWithSSL(rsa_, changed, signature)) << "data bit " << bit;
  }
}

TEST_F(Signatures, OtherKeyOidOrDigestLengthIsRefused) {
  EXPECT_FALSE(
      verifyDataWithSSL(rsa_, Bytes(kSha1Text), ToolSignature(DigestInfo(kSha1Text), "other")));
  EXPECT_FALSE(
      verifyDataWithSSL(rsa_, Bytes(kSha1Text), ToolSignature(DigestInfo(kSha1Text, kSha1Oid))));
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text),
                                 ToolSignature(DigestInfo(kSha1Text, kSha1WithRsaOid, false))));
  // The digest text of the other length, signed or checked.
  const GpcBytes sha256Signature = ToolSignature(DigestInfo(kSha256Text));
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), sha256Signature));
  EXPECT_FALSE(
      verifyDataWithSSL(rsa_, Bytes(std::string(kSha256Text).substr(0, 40)), sha256Signature));
  // The raw text without any DigestInfo around it.
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), ToolSignature(Bytes(kSha1Text))));
}

// A whole PKCS #1 block (as many bytes as the modulus) made by hand: 00, `type`, `padding`, 00,
// `payload`, then `trailer`. Padding is cut or grown so the block fills 256 bytes.
GpcBytes Block(unsigned char type, size_t padding, const GpcBytes& payload, const GpcBytes& trailer = {}) {
  GpcBytes block = {0x00, type};
  block.insert(block.end(), padding, type == 0x02 ? 0x5a : 0xff);
  block.push_back(0x00);
  block.insert(block.end(), payload.begin(), payload.end());
  block.insert(block.end(), trailer.begin(), trailer.end());
  return block;
}

TEST_F(Signatures, OnlyTheWholeExpectedBlockVerifies) {
  const GpcBytes info = DigestInfo(kSha1Text);
  const size_t fullPadding = 256 - 3 - info.size();
  GpcBytes nonNullParameters = info;
  nonNullParameters[2 + 2 + 7] = 0x04;  // the parameters' NULL (05 00) becomes an empty OCTET STRING
  const GpcBytes shortInfo = DigestInfo(std::string(kSha1Text).substr(0, 39));
  struct Case {
    const char* name;
    GpcBytes block;
    bool verifies;
  } cases[] = {
      {"the expected block", Block(0x01, fullPadding, info), true},
      {"garbage after the DigestInfo", Block(0x01, fullPadding - 8, info, GpcBytes(8, 0x41)), false},
      {"a short padding string", Block(0x01, 7, info, GpcBytes(fullPadding - 7, 0x00)), false},
      {"block type 2", Block(0x02, fullPadding, info), false},
      {"parameters other than NULL", Block(0x01, fullPadding, nonNullParameters), false},
      {"a digest one character short", Block(0x01, fullPadding + 1, shortInfo), false},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(c.block.size(), 256u) << c.name;
    WriteFile(folder_ / "block.bin", c.block);
    MustRun("openssl rsautl -sign -raw -inkey '" + Pki().Path("leaf.key") + "' -in '" + (folder_ / "block.bin") +
            "' -out '" + (folder_ / "block.sig") + "'");
    EXPECT_EQ(verifyDataWithSSL(rsa_, Bytes(kSha1Text), ReadFile(folder_ / "block.sig")), c.verifies) << c.name;
  }
}

// With exponent 3 a signature whose cube merely starts with 00 01 FF 00 DigestInfo can be computed
// without the key (garbage fills the rest): a verifier that parses a prefix would take it.
TEST_F(Signatures, ACubeRootForgeryForAnExponent3KeyIsRefused) {
  MustRun("cd '" + folder_.path() + "' && openssl genrsa -3 -out e3.key 2048 && openssl req -x509 -new -key e3.key "
          "-subj '/CN=gpc.signer.talvo.us' -days 30 -out e3.pem && openssl x509 -in e3.pem -outform DER -out e3.der");
  RSA* e3 = RSAFromCertification(SecFromFile((folder_ / "e3.der").c_str()).get());
  ASSERT_NE(e3, nullptr);
  const GpcBytes prefix = Block(0x01, 1, DigestInfo(kSha1Text));
  std::string hex;
  for (unsigned char byte : prefix) hex += "0123456789abcdef"[byte >> 4], hex += "0123456789abcdef"[byte & 15];
  WriteFile(folder_ / "forge.py",
            "import sys\n"
            "prefix = bytes.fromhex(sys.argv[1]); k = 256\n"
            "target = int.from_bytes(prefix + bytes(k - len(prefix)), 'big')\n"
            "lo, hi = 0, 1 << (8 * k // 3 + 8)\n"
            "while lo < hi:\n"
            "    mid = (lo + hi) // 2\n"
            "    lo, hi = (mid + 1, hi) if mid ** 3 < target else (lo, mid)\n"
            "assert (lo ** 3).to_bytes(k, 'big').startswith(prefix)\n"
            "sys.stdout.buffer.write(lo.to_bytes(k, 'big'))\n");
  MustRun("python3 '" + (folder_ / "forge.py") + "' " + hex + " > '" + (folder_ / "forged.sig") + "'");
  const GpcBytes forged = ReadFile(folder_ / "forged.sig");
  ASSERT_EQ(forged.size(), 256u);
  EXPECT_FALSE(verifyDataWithSSL(e3, Bytes(kSha1Text), forged));
  // The same key's real signature verifies: the refusal is the forgery's, not the key's.
  WriteFile(folder_ / "real.bin", DigestInfo(kSha1Text));
  MustRun("openssl rsautl -sign -inkey '" + (folder_ / "e3.key") + "' -in '" + (folder_ / "real.bin") + "' -out '" +
          (folder_ / "real.sig") + "'");
  EXPECT_TRUE(verifyDataWithSSL(e3, Bytes(kSha1Text), ReadFile(folder_ / "real.sig")));
  CryptoWrapper::sharedInstance()->RSA_free()(e3);
}

TEST_F(Signatures, MalformedSignaturesAndNullKeyAreRefused) {
  const GpcBytes signature = ToolSignature(DigestInfo(kSha1Text));
  EXPECT_FALSE(verifyDataWithSSL(nullptr, Bytes(kSha1Text), signature));
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), GpcBytes()));
  EXPECT_FALSE(
      verifyDataWithSSL(rsa_, Bytes(kSha1Text), GpcBytes(signature.begin() + 1, signature.end())));
  GpcBytes longer = signature;
  longer.insert(longer.begin(), 0);
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), longer));
  EXPECT_FALSE(verifyDataWithSSL(rsa_, GpcBytes(), signature));
}

TEST_F(Signatures, OwnSignatureRecoversToTheDigestInfoAndMatchesTheTool) {
  for (const char* text : {kSha1Text, kSha256Text}) {
    const GpcBytes signature = SignDataWithSSL(Pki().Path("leaf.key").c_str(), Bytes(text));
    ASSERT_EQ(signature.size(), 256u);
    WriteFile(folder_ / "own.sig", signature);
    MustRun("openssl pkeyutl -verifyrecover -certin -inkey '" + Pki().Path("leaf.pem") + "' -in '" +
            (folder_ / "own.sig") + "' -out '" + (folder_ / "recovered.bin") + "'");
    EXPECT_EQ(ReadFile(folder_ / "recovered.bin"), DigestInfo(text));
    // PKCS #1 v1.5 is deterministic: the same bytes as the tool's signature.
    EXPECT_EQ(signature, ToolSignature(DigestInfo(text)));
    EXPECT_TRUE(verifyDataWithSSL(rsa_, Bytes(text), signature));
  }
}

TEST_F(Signatures, SigningWithoutAUsableKeyGivesNothing) {
  EXPECT_TRUE(SignDataWithSSL(nullptr, Bytes(kSha1Text)).empty());
  EXPECT_TRUE(SignDataWithSSL(Pki().Path("missing.key").c_str(), Bytes(kSha1Text)).empty());
  EXPECT_TRUE(SignDataWithSSL(Pki().Path("leaf.pem").c_str(), Bytes(kSha1Text)).empty());
  EXPECT_TRUE(SignDataWithSSL(Pki().Path("ec.key").c_str(), Bytes(kSha1Text)).empty());
  MustRun("openssl genrsa -aes128 -passout pass:secret -out '" + (folder_ / "locked.key") +
          "' 2048");
  EXPECT_TRUE(SignDataWithSSL((folder_ / "locked.key").c_str(), Bytes(kSha1Text)).empty());
  // Only the first 2045 bytes of the file are read: a key that ends past them is cut off.
  const GpcBytes key = ReadFile(Pki().Path("leaf.key"));
  std::string padded(2045 - key.size() + 40, '#');
  padded += "\n" + std::string(key.begin(), key.end());
  WriteFile(folder_ / "cut.key", padded);
  EXPECT_TRUE(SignDataWithSSL((folder_ / "cut.key").c_str(), Bytes(kSha1Text)).empty());
  padded.erase(0, 80);  // now it fits, comment line and all
  WriteFile(folder_ / "fits.key", padded);
  EXPECT_EQ(SignDataWithSSL((folder_ / "fits.key").c_str(), Bytes(kSha1Text)).size(), 256u);
  // More data than a 2048-bit key can carry.
  EXPECT_TRUE(SignDataWithSSL(Pki().Path("leaf.key").c_str(), GpcBytes(300, 'a')).empty());
}

TEST_F(Signatures, WithoutTheLibraryNothingVerifiesOrSigns) {
  const GpcBytes signature = ToolSignature(DigestInfo(kSha1Text));
  CryptoWrapper::SetLibraryMissingForTesting(true);
  CryptoWrapper::destorySharedInstance();
  EXPECT_FALSE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), signature));
  EXPECT_TRUE(SignDataWithSSL(Pki().Path("leaf.key").c_str(), Bytes(kSha1Text)).empty());
  EXPECT_FALSE(SecFromData(ReadFile(Pki().Path("leaf.der"))));
  CryptoWrapper::SetLibraryMissingForTesting(false);
  CryptoWrapper::destorySharedInstance();
  EXPECT_TRUE(verifyDataWithSSL(rsa_, Bytes(kSha1Text), signature));
}

}  // namespace
