// The checks an extension package must pass before it may replace the installed extension: the
// page's digest and certificate chain are there, the file's digest matches, the chain is trusted,
// the signer's common name belongs to the vendor, and the RSA signature over the digest verifies.
// The plug-in and the packaging tool both decide with this one function.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common/CertificateUtil.h"

// What the page says of the package; an absent parameter is the empty string.
struct GpcPackageParameters {
  std::string hash;           // "GpcExtHash"
  std::string method;         // "GpcHashMethod": "sha1" or "sha256", exact
  std::string signature;      // "GpcExtSignature": base64
  std::string certification;  // "GpcCertification": base64 DER certificates joined by "|", signer last
  std::string siteLock;       // "gpcsitelock": only chooses a log line
};

// The package parameters as `lookup` gives them by name (null or empty: absent).
GpcPackageParameters ReadPackageParameters(const std::function<const char*(const char* name)>& lookup);

// The first check a package fails, in the order they are made, or how it was accepted.
enum class GpcPackageCheck {
  kAccepted,
  kAcceptedUnchecked,   // sha256 on a system older than 0x1060: installed without any check
  kMissing,             // no file, no digest, or no certificate chain (empty or "null")
  kDigestMismatch,      // also for a method other than "sha1" and "sha256"
  kNoSignature,
  kCertificationShort,  // 10 characters or fewer
  kLeafUnreadable,      // the last piece is no certificate
  kUntrusted,
  kNoCommonName,        // none, or one holding a NUL character
  kForeignCommonName,   // ends neither with ".talvo.us" nor with "Vantrel Talvo LLC"
  kNoPublicKey,         // the signer's key is not RSA
  kBadSignature,
};

struct GpcPackageVerdict {
  GpcPackageCheck check = GpcPackageCheck::kMissing;
  std::string digest;  // the file's digest as computed (empty when not computed)
  // The message the user is shown for a refusal: 111 (something missing, digest) or 103
  // (certificate, signature); 0 when accepted.
  int message() const;
  bool accepted() const { return check == GpcPackageCheck::kAccepted || check == GpcPackageCheck::kAcceptedUnchecked; }
};

// The common-name suffix of the vendor's service domain, and the vendor's organisation name.
constexpr const char* kGpcVendorCommonNameSuffix = ".talvo.us";
constexpr const char* kGpcVendorOrganisationSuffix = "Vantrel Talvo LLC";

// Whether a signer's common name is the vendor's: it ends with either of the two above (the
// hardened build wants whole labels of the domain, or exactly the organisation).
bool IsVendorCommonName(const std::string& name);

// Whether the plug-in trusts the signer `leaf` with the page's `intermediates`: the system's anchors
// and the page's certificates, expiry forgiven; in the hardened build only the DER certificates
// the plug-in bundle ships in Contents/Resources/Anchors, each valid now.
bool IsTrustedSigner(const GpcCertificateRef& leaf, const GpcCertificateList& intermediates);

// The folder of the hardened build's anchors: Contents/Resources/Anchors of the plug-in bundle;
// empty when no bundle is found.
std::string ShippedAnchorsFolder();

// Checks the file at `path` (null: the download failed) against `page`. `systemVersion` is the
// operating-system version the "sha256" rule depends on.
GpcPackageVerdict CheckPackage(const char* path, const GpcPackageParameters& page, uint32_t systemVersion);

// A short name for a check, for tools and logs ("digest mismatch", ...).
const char* PackageCheckName(GpcPackageCheck check);
