// Certificates and signatures of extension packages: certificates from DER bytes, their common
// name and RSA key, the decision whether a signing certificate is trusted, and PKCS #1 v1.5
// sha1WithRSA signatures over a digest text.
//
// Trust is evaluated with libcrypto's X.509 verification against the system's anchor
// certificates (the ca-certificates bundle, or the file named by SSL_CERT_FILE) plus the anchors
// that the caller passes. Its outcome is mapped onto results 1-7 and per-certificate status bits,
// and from those onto an accept/reject decision; a certificate that cannot be trusted on its own
// is put to the user through the trust panel (platform/trust_panel.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/types.h>

#include "common/NSString+Hex.h"

// A certificate: the parsed form of its DER bytes. Shared by whoever holds it.
class GpcCertificate {
 public:
  // Takes ownership of `x509`.
  explicit GpcCertificate(X509* x509);
  ~GpcCertificate();
  GpcCertificate(const GpcCertificate&) = delete;
  GpcCertificate& operator=(const GpcCertificate&) = delete;

  X509* x509() const { return m_pX509; }  // still owned by the certificate
  GpcBytes DerBytes() const;              // empty when it cannot be encoded

 private:
  X509* m_pX509;
};
typedef std::shared_ptr<const GpcCertificate> GpcCertificateRef;
typedef std::vector<GpcCertificateRef> GpcCertificateList;

// Results of an evaluation.
enum GpcTrustResult {
  kGpcTrustResultInvalid = 0,
  kGpcTrustResultProceed = 1,       // trusted, and trust settings say so explicitly
  kGpcTrustResultConfirm = 2,
  kGpcTrustResultDeny = 3,
  kGpcTrustResultUnspecified = 4,   // the chain reaches an anchor
  kGpcTrustResultRecoverableTrustFailure = 5,  // expired, not yet valid, untrusted root, ...
  kGpcTrustResultFatalTrustFailure = 6,        // bad signature, rejected or unreadable fields
  kGpcTrustResultOtherError = 7,
};

// Status bits of one certificate of an evaluated chain.
constexpr uint32_t kGpcCertStatusExpired = 0x1;
constexpr uint32_t kGpcCertStatusNotValidYet = 0x2;
constexpr uint32_t kGpcCertStatusIsInInputCerts = 0x4;
constexpr uint32_t kGpcCertStatusIsInAnchors = 0x8;
constexpr uint32_t kGpcCertStatusIsRoot = 0x10;
constexpr uint32_t kGpcCertStatusIsFromNet = 0x20;
constexpr uint32_t kGpcCertStatusTrustSettingsFoundUser = 0x40;
constexpr uint32_t kGpcCertStatusTrustSettingsFoundAdmin = 0x80;
constexpr uint32_t kGpcCertStatusTrustSettingsFoundSystem = 0x100;
constexpr uint32_t kGpcCertStatusTrustSettingsTrust = 0x200;
constexpr uint32_t kGpcCertStatusTrustSettingsDeny = 0x400;

// Trust action flags for a re-evaluation.
constexpr uint32_t kGpcTrustActionAllowExpired = 0x1;
constexpr uint32_t kGpcTrustActionAllowExpiredRoot = 0x8;

// Status codes of EvaluateCert besides 0 (success).
constexpr int kGpcTrustErrNoCertificateList = -108;  // the certificate list could not be made
constexpr int kGpcTrustErrParam = -50;               // no policy
constexpr int kGpcTrustErrAnchorsUnreadable = -36;   // the system anchors could not be read
constexpr int kGpcTrustErrInternal = -2070;          // the verifier itself failed

// The identifier of the basic X.509 path-validation policy, the one the plug-in asks for.
extern const char* const kGpcX509BasicPolicyOID;

// A trust policy: how a chain is validated. The basic X.509 policy checks signatures, validity
// dates and CA constraints up to an anchor, and no key usage or host name.
struct GpcTrustPolicy {
  std::string oid;
};
typedef std::shared_ptr<const GpcTrustPolicy> GpcTrustPolicyRef;

// One evaluation of one certificate: its anchors, the last result and the status of every
// certificate of the chain that was built.
class GpcTrust {
 public:
  GpcTrust(GpcCertificateRef leaf, GpcTrustPolicyRef policy);
  ~GpcTrust();
  GpcTrust(const GpcTrust&) = delete;
  GpcTrust& operator=(const GpcTrust&) = delete;

  // Installs exactly these anchors. Without this the default anchors (the system's) are used.
  void SetAnchorCertificates(const GpcCertificateList& anchors);
  void SetActionFlags(uint32_t flags) { m_nActionFlags = flags; }
  uint32_t actionFlags() const { return m_nActionFlags; }

  // Builds and verifies the chain. Returns 0 and sets `result` when the evaluation ran, or
  // kGpcTrustErrInternal when the verifier could not run.
  int Evaluate(GpcTrustResult* result);

  GpcTrustResult result() const { return m_nResult; }
  const GpcCertificateRef& leaf() const { return m_leaf; }
  // The chain of the last evaluation, leaf first.
  const GpcCertificateList& chain() const { return m_chain; }
  // Copies the status bits of the chain's certificates, leaf first. False before any evaluation.
  bool GetStatusRecords(std::vector<uint32_t>* records) const;

 private:
  GpcCertificateRef m_leaf;
  GpcTrustPolicyRef m_policy;
  GpcCertificateList m_anchors;
  bool m_bAnchorsInstalled = false;
  uint32_t m_nActionFlags = 0;
  GpcTrustResult m_nResult = kGpcTrustResultInvalid;
  bool m_bEvaluated = false;
  GpcCertificateList m_chain;
  std::vector<uint32_t> m_vectorStatus;
};
typedef std::unique_ptr<GpcTrust> GpcTrustPtr;

// A certificate from DER bytes; null for null or empty input and for bytes that are not exactly
// one DER certificate.
GpcCertificateRef SecFromData(const unsigned char* bytes, size_t length);
GpcCertificateRef SecFromData(const GpcBytes& bytes);
// The same for the contents of a file; null when the file cannot be read.
GpcCertificateRef SecFromFile(const char* path);

// The subject's common name as UTF-8 (the most specific one when there are several); empty when
// there is none, it holds a NUL character, or `cert` is null.
std::string CommonNameOfCert(const GpcCertificate* cert);

// The certificate's RSA public key, owned by the caller (free it with the binding's RSA_free);
// null when the certificate is null or its key is not RSA.
RSA* RSAFromCertification(const GpcCertificate* cert);

// The policy for `oid`: only the basic X.509 policy exists. Null for any other identifier.
GpcTrustPolicyRef policyForOID(const char* oid);

// Evaluates `cert` against the system anchors followed by `extraAnchors` (installed only when the
// system anchors could be read and are not empty; otherwise the default anchors are used and
// `extraAnchors` are ignored). Returns the status (0 = success); hands out the trust object
// through `trust` once it exists, and the result through `result`.
int EvaluateCert(const GpcCertificateRef& cert, const GpcCertificateList& extraAnchors,
                 const GpcTrustPolicyRef& policy, GpcTrustResult* result, GpcTrustPtr* trust);

// The trust object when `cert` is accepted, null when it is rejected. Lenient on purpose where
// the package check adds its own tests: an expired certificate is accepted after a second
// evaluation that allows expiry, and so is a chain without status records.
GpcTrustPtr TrustCertification(const GpcCertificateRef& cert,
                               const GpcCertificateList& extraAnchors);

// Strict: true only when `leaf` chains through `intermediates` (never trusted themselves) to one of
// `anchors`, every certificate valid at the plug-in's clock's time, and the leaf, where it names its
// uses, made for signing code. No system anchors, no expiry allowance, no question to the user.
bool ChainIsTrustedBy(const GpcCertificateRef& leaf, const GpcCertificateList& intermediates,
                      const GpcCertificateList& anchors);

// Asks the user about the evaluated certificate. True when the user chose to continue.
bool displayPanelForTrust(const GpcTrust& trust);

// True when `signature` is the PKCS #1 v1.5 sha1WithRSA signature of `data` (placed in the
// DigestInfo as given, not hashed) under `rsa`. False for a null key and for every failure; a
// failure is also written to the system log.
bool verifyDataWithSSL(RSA* rsa, const GpcBytes& data, const GpcBytes& signature);

// Signs `data` the same way with the unencrypted PEM RSA private key at `keyPath` (read up to
// 2045 bytes). Returns the signature, or no bytes when the key cannot be read or signing fails.
GpcBytes SignDataWithSSL(const char* keyPath, const GpcBytes& data);
