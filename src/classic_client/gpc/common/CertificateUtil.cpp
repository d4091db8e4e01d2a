#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "common/CertificateUtil.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <openssl/x509_vfy.h>
#include <syslog.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/CryptoWrapper.h"
#include "common/gpcutil.h"
#include "platform/clock.h"
#include "platform/trust_panel.h"
#include "common/trace.h"

// A bad argument or a missing crypto function is logged and the function gives its failure
// value; nothing aborts.
#define CERT_SOURCE_PATH "src/classic_client/gpc/common/CertificateUtil.cpp"
#define CERT_ASSERT_OR_RETURN(condition, failure)                                  \
  do {                                                                             \
    if (!GPC_ASSERT_TEXT(condition, #condition, CERT_SOURCE_PATH)) return failure; \
  } while (0)

const char* const kGpcX509BasicPolicyOID = "1.2.840.113635.100.1.2";

namespace {

constexpr int kSignatureType = NID_sha1WithRSA;  // 115, 1.3.14.3.2.29
constexpr size_t kKeyFileBufferSize = 2046;      // the key file is read up to one byte less
constexpr size_t kSignatureBufferSize = 1048576;
constexpr const char* kSignatureFailureLog = "SignDataWithSSL RSA_sign return failed!";

void LogToSystem(const char* text) { syslog(LOG_ERR, "%s", text); }

struct X509StoreDeleter {
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
struct X509StoreCtxDeleter {
  void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};
struct X509StackDeleter {
  void operator()(STACK_OF(X509) * certs) const { sk_X509_pop_free(certs, X509_free); }
};

GpcCertificateRef ShareX509(X509* x509) {
  if (x509 == nullptr || X509_up_ref(x509) != 1) return nullptr;
  return std::make_shared<const GpcCertificate>(x509);
}

bool IsSelfSigned(X509* x509) { return X509_self_signed(x509, 0) == 1; }

// ---- System anchors ------------------------------------------------------------------------

// The file of the system's trusted certificates: SSL_CERT_FILE when set, else libcrypto's
// default (on Debian the ca-certificates bundle under /etc/ssl/certs).
const char* SystemAnchorsFile() {
  const char* fromEnvironment = getenv(X509_get_default_cert_file_env());
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
  return X509_get_default_cert_file();
}

// Reads every certificate of the system anchors file, with any trust settings it carries.
// Returns 0, or kGpcTrustErrAnchorsUnreadable when the file cannot be opened.
int CopySystemAnchorCertificates(GpcCertificateList* anchors) {
  anchors->clear();
  BIO* file = BIO_new_file(SystemAnchorsFile(), "r");
  if (file == nullptr) {
    ERR_clear_error();
    return kGpcTrustErrAnchorsUnreadable;
  }
  while (X509* x509 = PEM_read_bio_X509_AUX(file, nullptr, nullptr, nullptr)) {
    anchors->push_back(std::make_shared<const GpcCertificate>(x509));
  }
  BIO_free(file);
  ERR_clear_error();  // the end of the file reads as an error
  return 0;
}

// ---- Evaluation ----------------------------------------------------------------------------

// What the verifier reports while it walks the chain. Every complaint is recorded and the walk
// goes on, so that each certificate's status is known at the end.
struct ChainReport {
  uint32_t actionFlags = 0;
  bool anyError = false;
  bool anyFatal = false;
  std::vector<uint32_t> statusByDepth;

  void AddStatus(int depth, uint32_t bits) {
    if (depth < 0) return;
    if (statusByDepth.size() <= static_cast<size_t>(depth)) statusByDepth.resize(depth + 1, 0);
    statusByDepth[depth] |= bits;
  }
};

bool IsFatalVerifyError(int error) {
  switch (error) {
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
    case X509_V_ERR_CERT_REVOKED:
    case X509_V_ERR_CERT_REJECTED:
    case X509_V_ERR_OUT_OF_MEM:
      return true;
    default:
      return false;
  }
}

int RecordVerifyStep(int ok, X509_STORE_CTX* ctx) {
  if (ok) return 1;
  auto* report = static_cast<ChainReport*>(X509_STORE_CTX_get_app_data(ctx));
  const int error = X509_STORE_CTX_get_error(ctx);
  const int depth = X509_STORE_CTX_get_error_depth(ctx);
  if (error == X509_V_ERR_CERT_HAS_EXPIRED) {
    X509* current = X509_STORE_CTX_get_current_cert(ctx);
    const uint32_t allowing = (current != nullptr && IsSelfSigned(current))
                                  ? kGpcTrustActionAllowExpiredRoot
                                  : kGpcTrustActionAllowExpired;
    if (report->actionFlags & allowing) return 1;
    report->AddStatus(depth, kGpcCertStatusExpired);
  } else if (error == X509_V_ERR_CERT_NOT_YET_VALID) {
    report->AddStatus(depth, kGpcCertStatusNotValidYet);
  }
  report->anyError = true;
  if (IsFatalVerifyError(error)) report->anyFatal = true;
  return 1;
}

const GpcCertificate* FindSameCertificate(X509* x509, const GpcCertificateList& list) {
  for (const GpcCertificateRef& candidate : list) {
    if (candidate && X509_cmp(candidate->x509(), x509) == 0) return candidate.get();
  }
  return nullptr;
}

// Trust settings travel with a certificate in the anchors as "TRUSTED CERTIFICATE" data: a
// purpose it is trusted for, or one it is rejected for.
uint32_t TrustSettingsBits(const GpcCertificate* anchor) {
  if (anchor == nullptr) return 0;
  const STACK_OF(ASN1_OBJECT)* rejected = X509_get0_reject_objects(anchor->x509());
  if (rejected != nullptr && sk_ASN1_OBJECT_num(rejected) > 0) {
    return kGpcCertStatusTrustSettingsDeny;
  }
  const STACK_OF(ASN1_OBJECT)* trusted = X509_get0_trust_objects(anchor->x509());
  if (trusted != nullptr && sk_ASN1_OBJECT_num(trusted) > 0) {
    return kGpcCertStatusTrustSettingsFoundUser | kGpcCertStatusTrustSettingsTrust;
  }
  return 0;
}

uint32_t StatusOfChainMember(X509* x509, size_t index, const GpcCertificateList& anchors) {
  uint32_t bits = index == 0 ? kGpcCertStatusIsInInputCerts : 0;
  if (IsSelfSigned(x509)) bits |= kGpcCertStatusIsRoot;
  const GpcCertificate* anchor = FindSameCertificate(x509, anchors);
  const uint32_t settings = TrustSettingsBits(anchor);
  // A certificate whose settings reject it counts as no anchor at all.
  if (anchor != nullptr && !(settings & kGpcCertStatusTrustSettingsDeny)) {
    bits |= kGpcCertStatusIsInAnchors;
  }
  return bits | settings;
}

GpcTrustResult ResultOf(const ChainReport& report, uint32_t leafStatus) {
  if (report.anyFatal) return kGpcTrustResultFatalTrustFailure;
  if (report.anyError) return kGpcTrustResultRecoverableTrustFailure;
  if (leafStatus & kGpcCertStatusTrustSettingsTrust) return kGpcTrustResultProceed;
  return kGpcTrustResultUnspecified;
}

std::string NameLine(const X509_NAME* name) {
  if (name == nullptr) return std::string();
  char line[512];
  if (X509_NAME_oneline(name, line, sizeof line) == nullptr) return std::string();
  return line;
}

// ---- Trust decision ------------------------------------------------------------------------

bool AnyExpired(const std::vector<uint32_t>& records) {
  for (uint32_t status : records) {
    if (status & kGpcCertStatusExpired) return true;
  }
  return false;
}

// The decision by the leaf's status bits, once the evaluation itself gave no verdict.
bool AcceptByLeafStatus(uint32_t status, const GpcTrust& trust) {
  if (status & (kGpcCertStatusTrustSettingsFoundUser | kGpcCertStatusTrustSettingsFoundAdmin |
                kGpcCertStatusTrustSettingsFoundSystem | kGpcCertStatusTrustSettingsTrust)) {
    return true;
  }
  const bool rootMissingFromAnchors =
      (status & (kGpcCertStatusIsInAnchors | kGpcCertStatusIsRoot)) == kGpcCertStatusIsRoot;
  if (!(status & kGpcCertStatusNotValidYet) && !rootMissingFromAnchors &&
      (status & kGpcCertStatusIsInAnchors)) {
    return true;
  }
  return displayPanelForTrust(trust);
}

int RefuseKeyPassword(char*, int, int, void*) { return 0; }

// The key file's text, cut to the first 2045 bytes and terminated; empty when unreadable.
std::string ReadKeyFileHead(const char* keyPath) {
  FILE* file = fopen(keyPath, "rbe");
  if (file == nullptr) return std::string();
  char buffer[kKeyFileBufferSize];
  memset(buffer, 0, sizeof buffer);
  const size_t got = fread(buffer, 1, sizeof buffer - 1, file);
  fclose(file);
  return std::string(buffer, got);
}

}  // namespace

// ---- GpcCertificate ------------------------------------------------------------------------

GpcCertificate::GpcCertificate(X509* x509) : m_pX509(x509) {}

GpcCertificate::~GpcCertificate() { X509_free(m_pX509); }

GpcBytes GpcCertificate::DerBytes() const {
  GpcBytes der;
  const int size = i2d_X509(m_pX509, nullptr);
  if (size <= 0) return der;
  der.resize(static_cast<size_t>(size));
  unsigned char* out = der.data();
  if (i2d_X509(m_pX509, &out) != size) der.clear();
  return der;
}

// ---- GpcTrust ------------------------------------------------------------------------------

GpcTrust::GpcTrust(GpcCertificateRef leaf, GpcTrustPolicyRef policy)
    : m_leaf(std::move(leaf)), m_policy(std::move(policy)) {}

GpcTrust::~GpcTrust() = default;

void GpcTrust::SetAnchorCertificates(const GpcCertificateList& anchors) {
  m_anchors = anchors;
  m_bAnchorsInstalled = true;
}

bool GpcTrust::GetStatusRecords(std::vector<uint32_t>* records) const {
  if (!m_bEvaluated || records == nullptr) return false;
  *records = m_vectorStatus;
  return true;
}

int GpcTrust::Evaluate(GpcTrustResult* result) {
  std::unique_ptr<X509_STORE, X509StoreDeleter> store(X509_STORE_new());
  std::unique_ptr<X509_STORE_CTX, X509StoreCtxDeleter> ctx(X509_STORE_CTX_new());
  if (!store || !ctx || !m_leaf) return kGpcTrustErrInternal;
  if (m_bAnchorsInstalled) {
    for (const GpcCertificateRef& anchor : m_anchors) {
      if (anchor) X509_STORE_add_cert(store.get(), anchor->x509());
    }
  } else {
    X509_STORE_set_default_paths(store.get());
  }
  if (X509_STORE_CTX_init(ctx.get(), store.get(), m_leaf->x509(), nullptr) != 1) {
    ERR_clear_error();
    return kGpcTrustErrInternal;
  }
  // Anchors are trusted as they are, whether self-signed or not; time is the plug-in's clock.
  X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
  X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(platform::WallClockMicros() / 1000000));
  ChainReport report;
  report.actionFlags = m_nActionFlags;
  X509_STORE_CTX_set_app_data(ctx.get(), &report);
  X509_STORE_CTX_set_verify_cb(ctx.get(), RecordVerifyStep);
  const int verified = X509_verify_cert(ctx.get());
  if (verified < 0) {
    ERR_clear_error();
    return kGpcTrustErrInternal;
  }
  if (verified == 0) {  // stopped without asking us: a failure we did not see
    report.anyError = true;
    report.anyFatal = true;
  }

  // The anchors the verifier saw, for the in-anchors bits.
  GpcCertificateList anchors = m_anchors;
  if (!m_bAnchorsInstalled) {
    std::unique_ptr<STACK_OF(X509), X509StackDeleter> all(X509_STORE_get1_all_certs(store.get()));
    for (int i = 0; all && i < sk_X509_num(all.get()); ++i) {
      GpcCertificateRef anchor = ShareX509(sk_X509_value(all.get(), i));
      if (anchor) anchors.push_back(anchor);
    }
  }
  m_chain.clear();
  STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx.get());
  for (int i = 0; chain != nullptr && i < sk_X509_num(chain); ++i) {
    GpcCertificateRef member = ShareX509(sk_X509_value(chain, i));
    if (!member) break;
    m_chain.push_back(member);
  }
  if (m_chain.empty()) m_chain.push_back(m_leaf);

  m_vectorStatus.assign(m_chain.size(), 0);
  for (size_t i = 0; i < m_chain.size(); ++i) {
    m_vectorStatus[i] = StatusOfChainMember(m_chain[i]->x509(), i, anchors);
    if (i < report.statusByDepth.size()) m_vectorStatus[i] |= report.statusByDepth[i];
  }
  m_nResult = ResultOf(report, m_vectorStatus[0]);
  m_bEvaluated = true;
  ERR_clear_error();
  if (result != nullptr) *result = m_nResult;
  return 0;
}

// ---- Certificates --------------------------------------------------------------------------

GpcCertificateRef SecFromData(const unsigned char* bytes, size_t length) {
  if (bytes == nullptr || length == 0 || length > static_cast<size_t>(LONG_MAX)) return nullptr;
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  CERT_ASSERT_OR_RETURN(crypto->d2i_X509() != NULL, nullptr);
  const unsigned char* cursor = bytes;
  X509* x509 = crypto->d2i_X509()(nullptr, &cursor, static_cast<long>(length));
  if (x509 == nullptr) {
    ERR_clear_error();
    return nullptr;
  }
  if (cursor != bytes + length) {  // more than one certificate's worth of bytes
    X509_free(x509);
    return nullptr;
  }
  return std::make_shared<const GpcCertificate>(x509);
}

GpcCertificateRef SecFromData(const GpcBytes& bytes) {
  return SecFromData(bytes.empty() ? nullptr : bytes.data(), bytes.size());
}

GpcCertificateRef SecFromFile(const char* path) {
  CERT_ASSERT_OR_RETURN(path != NULL, nullptr);
  FILE* file = fopen(path, "rbe");
  if (file == nullptr) return nullptr;
  GpcBytes contents;
  unsigned char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) {
    contents.insert(contents.end(), chunk, chunk + got);
  }
  const bool failed = ferror(file) != 0;
  fclose(file);
  if (failed) return nullptr;
  return SecFromData(contents);
}

std::string CommonNameOfCert(const GpcCertificate* cert) {
  if (cert == nullptr) return std::string();
  const X509_NAME* subject = X509_get_subject_name(cert->x509());
  int index = -1;
  for (int next = -1; (next = X509_NAME_get_index_by_NID(subject, NID_commonName, next)) >= 0;) {
    index = next;
  }
  if (index < 0) return std::string();
  const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  unsigned char* utf8 = nullptr;
  const int length = ASN1_STRING_to_UTF8(&utf8, value);
  if (length < 0) {
    ERR_clear_error();
    return std::string();
  }
  std::string name(reinterpret_cast<const char*>(utf8), static_cast<size_t>(length));
  OPENSSL_free(utf8);
  // A name with a NUL in it reads differently as C text ("x.talvo.us\0.example"): unreadable.
  if (name.find('\0') != std::string::npos) return std::string();
  return name;
}

RSA* RSAFromCertification(const GpcCertificate* cert) {
  if (cert == nullptr) return nullptr;
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  CERT_ASSERT_OR_RETURN(crypto->d2i_X509() != NULL && crypto->X509_get_pubkey() != NULL &&
                            crypto->X509_free() != NULL && crypto->EVP_PKEY_get1_RSA() != NULL &&
                            crypto->EVP_PKEY_free() != NULL,
                        nullptr);
  const GpcBytes der = cert->DerBytes();
  if (der.empty()) return nullptr;
  const unsigned char* cursor = der.data();
  X509* x509 = crypto->d2i_X509()(nullptr, &cursor, static_cast<long>(der.size()));
  if (x509 == nullptr) return nullptr;
  EVP_PKEY* publicKey = crypto->X509_get_pubkey()(x509);
  crypto->X509_free()(x509);
  if (publicKey == nullptr) return nullptr;
  RSA* rsa = crypto->EVP_PKEY_get1_RSA()(publicKey);
  crypto->EVP_PKEY_free()(publicKey);
  ERR_clear_error();  // a key of another kind leaves a complaint behind
  return rsa;
}

// ---- Trust ---------------------------------------------------------------------------------

GpcTrustPolicyRef policyForOID(const char* oid) {
  if (oid == nullptr || strcmp(oid, kGpcX509BasicPolicyOID) != 0) return nullptr;
  auto policy = std::make_shared<GpcTrustPolicy>();
  policy->oid = oid;
  return policy;
}

namespace {

// A certificate that names its uses must allow digital signatures and code signing: a web server's
// certificate from the same anchor signs no extension. One that names none allows any use.
bool AllowsCodeSigning(X509* cert) {
  const uint32_t usage = X509_get_key_usage(cert), extended = X509_get_extended_key_usage(cert);
  return (usage & KU_DIGITAL_SIGNATURE) != 0 && (extended & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

}  // namespace

bool ChainIsTrustedBy(const GpcCertificateRef& leaf, const GpcCertificateList& intermediates,
                      const GpcCertificateList& anchors) {
  if (!leaf || anchors.empty()) return false;
  std::unique_ptr<X509_STORE, X509StoreDeleter> store(X509_STORE_new());
  std::unique_ptr<X509_STORE_CTX, X509StoreCtxDeleter> ctx(X509_STORE_CTX_new());
  std::unique_ptr<STACK_OF(X509), X509StackDeleter> untrusted(sk_X509_new_null());
  if (!store || !ctx || !untrusted) return false;
  for (const GpcCertificateRef& anchor : anchors) {
    if (anchor) X509_STORE_add_cert(store.get(), anchor->x509());
  }
  for (const GpcCertificateRef& intermediate : intermediates) {
    if (intermediate && X509_up_ref(intermediate->x509()) == 1 &&
        sk_X509_push(untrusted.get(), intermediate->x509()) == 0) {
      X509_free(intermediate->x509());
    }
  }
  bool trusted = false;
  if (X509_STORE_CTX_init(ctx.get(), store.get(), leaf->x509(), untrusted.get()) == 1) {
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
    X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(platform::WallClockMicros() / 1000000));
    // An anchor need not be a root: the vendor may ship its intermediate, or the signer itself.
    X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
    trusted = X509_verify_cert(ctx.get()) == 1 && AllowsCodeSigning(leaf->x509());
  }
  ERR_clear_error();
  return trusted;
}

int EvaluateCert(const GpcCertificateRef& cert, const GpcCertificateList& extraAnchors,
                 const GpcTrustPolicyRef& policy, GpcTrustResult* result, GpcTrustPtr* trust) {
  if (!cert) return kGpcTrustErrNoCertificateList;
  if (!policy) return kGpcTrustErrParam;
  GpcTrustPtr evaluation(new GpcTrust(cert, policy));

  GpcCertificateList anchors;
  const int anchorStatus = CopySystemAnchorCertificates(&anchors);
  MacInfoTrace("EvaluateCert, SecTrustCopyAnchorCertificates status: %i, counts: %i", anchorStatus,
               static_cast<int>(anchors.size()));
  // Without system anchors the extra ones are not installed either: the default anchors apply.
  if (anchorStatus == 0 && !anchors.empty()) {
    for (const GpcCertificateRef& extra : extraAnchors) {
      if (extra) anchors.push_back(extra);
    }
    MacInfoTrace("EvaluateCert, all anchor certificates count: %i",
                 static_cast<int>(anchors.size()));
    evaluation->SetAnchorCertificates(anchors);
  }

  GpcTrustResult evaluated = kGpcTrustResultInvalid;
  const int status = evaluation->Evaluate(&evaluated);
  if (result != nullptr) *result = evaluated;
  MacInfoTrace("EvaluateCert, SecTrustEvaluate result: %i", static_cast<int>(evaluated));
  if (trust != nullptr) *trust = std::move(evaluation);
  return status;
}

GpcTrustPtr TrustCertification(const GpcCertificateRef& cert,
                               const GpcCertificateList& extraAnchors) {
  GpcTrustPolicyRef policy = policyForOID(kGpcX509BasicPolicyOID);
  if (!policy) return nullptr;
  GpcTrustResult result = kGpcTrustResultInvalid;
  GpcTrustPtr trust;
  if (EvaluateCert(cert, extraAnchors, policy, &result, &trust) != 0 || !trust) return nullptr;
  if (result == kGpcTrustResultProceed || result == kGpcTrustResultUnspecified) return trust;

  std::vector<uint32_t> records;
  if (!trust->GetStatusRecords(&records) || records.empty()) return trust;
  if (result == kGpcTrustResultRecoverableTrustFailure && AnyExpired(records)) {
    // Expiry alone never stops a package: evaluate again allowing it, and accept the outcome.
    trust->SetActionFlags(kGpcTrustActionAllowExpired | kGpcTrustActionAllowExpiredRoot);
    GpcTrustResult second = kGpcTrustResultInvalid;
    trust->Evaluate(&second);
    return trust;
  }
  if (AcceptByLeafStatus(records[0], *trust)) return trust;
  return nullptr;
}

bool displayPanelForTrust(const GpcTrust& trust) {
  platform::TrustPanelRequest request;
  if (trust.leaf()) {
    request.subject = NameLine(X509_get_subject_name(trust.leaf()->x509()));
    request.issuer = NameLine(X509_get_issuer_name(trust.leaf()->x509()));
    request.commonName = CommonNameOfCert(trust.leaf().get());
  }
  std::vector<uint32_t> records;
  if (trust.GetStatusRecords(&records) && !records.empty()) request.leafStatus = records[0];
  request.result = trust.result();
  request.alternateButtonTitle = "Cancel";
  return platform::DisplayTrustPanel(request);
}

// ---- Signatures ----------------------------------------------------------------------------

bool verifyDataWithSSL(RSA* rsa, const GpcBytes& data, const GpcBytes& signature) {
  if (rsa == nullptr) return false;
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  CERT_ASSERT_OR_RETURN(crypto->RSA_verify() != NULL, false);
  static const unsigned char kNothing = 0;
  const int verified = crypto->RSA_verify()(kSignatureType, data.empty() ? &kNothing : data.data(),
                                            static_cast<unsigned int>(data.size()),
                                            signature.empty() ? &kNothing : signature.data(),
                                            static_cast<unsigned int>(signature.size()), rsa);
  ERR_clear_error();
  if (verified == 1) return true;
  LogToSystem(kSignatureFailureLog);
  return false;
}

GpcBytes SignDataWithSSL(const char* keyPath, const GpcBytes& data) {
  CERT_ASSERT_OR_RETURN(keyPath != NULL, GpcBytes());
  CryptoWrapper* crypto = CryptoWrapper::sharedInstance();
  CERT_ASSERT_OR_RETURN(crypto->BIO_new_mem_buf() != NULL && crypto->BIO_free() != NULL &&
                            crypto->PEM_read_bio_RSAPrivateKey() != NULL &&
                            crypto->RSA_sign() != NULL && crypto->RSA_free() != NULL,
                        GpcBytes());
  const std::string pem = ReadKeyFileHead(keyPath);
  if (pem.empty()) return GpcBytes();
  BIO* source = crypto->BIO_new_mem_buf()(pem.data(), static_cast<int>(pem.size()));
  if (source == nullptr) return GpcBytes();
  // Only an unencrypted key will do: an encrypted one is refused rather than asked about.
  RSA* key = crypto->PEM_read_bio_RSAPrivateKey()(source, nullptr, RefuseKeyPassword, nullptr);
  crypto->BIO_free()(source);
  if (key == nullptr) {
    ERR_clear_error();
    return GpcBytes();
  }
  static const unsigned char kNothing = 0;
  GpcBytes signature(kSignatureBufferSize);
  unsigned int length = 0;
  const int signedOk =
      crypto->RSA_sign()(kSignatureType, data.empty() ? &kNothing : data.data(),
                         static_cast<unsigned int>(data.size()), signature.data(), &length, key);
  crypto->RSA_free()(key);
  ERR_clear_error();
  if (signedOk != 1) {
    LogToSystem(kSignatureFailureLog);
    return GpcBytes();
  }
  signature.resize(length);
  return signature;
}
