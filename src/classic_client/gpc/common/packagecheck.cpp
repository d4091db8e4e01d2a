#include "common/packagecheck.h"

#include <dirent.h>

#include <cstring>
#include <vector>

#include "common/CertificateUtil.h"
#include "common/CryptoWrapper.h"
#include "common/NSString+Hex.h"
#include "common/hardening.h"
#include "platform/bundle.h"

namespace {

// Below this system version sha256 packages are installed unchecked.
const uint32_t kSha256SystemVersion = 0x1060;
// A chain this short cannot hold a certificate.
const size_t kShortestCertification = 10;
const char kChainSeparator = '|';

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t length = strlen(suffix);
  return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

// The hardened build's anchors: the DER certificates ("*.der") in the plug-in bundle's
// Contents/Resources/Anchors. Never the page's.
GpcCertificateList ShippedAnchors() {
  GpcCertificateList anchors;
  const std::string folder = ShippedAnchorsFolder();
  if (folder.empty()) return anchors;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return anchors;
  while (const dirent* entry = readdir(dir)) {
    if (EndsWith(entry->d_name, ".der")) {
      if (GpcCertificateRef cert = SecFromFile((folder + "/" + entry->d_name).c_str())) anchors.push_back(cert);
    }
  }
  closedir(dir);
  return anchors;
}

// The chain's leaf (its last piece) and the intermediates before it that decode.
GpcCertificateRef DecodeChain(const std::string& certification, GpcCertificateList* intermediates) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t bar; (bar = certification.find(kChainSeparator, start)) != std::string::npos; start = bar + 1) {
    pieces.push_back(certification.substr(start, bar - start));
  }
  pieces.push_back(certification.substr(start));
  for (size_t i = 0; i + 1 < pieces.size(); ++i) {
    if (GpcCertificateRef cert = SecFromData(base64Decode(pieces[i].c_str()))) intermediates->push_back(cert);
  }
  return SecFromData(base64Decode(pieces.back().c_str()));
}

GpcPackageCheck CheckCertificateAndSignature(const GpcPackageParameters& page, const std::string& digest) {
  if (page.certification.size() <= kShortestCertification) return GpcPackageCheck::kCertificationShort;
  GpcCertificateList intermediates;
  GpcCertificateRef leaf = DecodeChain(page.certification, &intermediates);
  if (!leaf) return GpcPackageCheck::kLeafUnreadable;
  if (!IsTrustedSigner(leaf, intermediates)) return GpcPackageCheck::kUntrusted;
  const std::string commonName = CommonNameOfCert(leaf.get());
  if (commonName.empty()) return GpcPackageCheck::kNoCommonName;
  if (!IsVendorCommonName(commonName)) return GpcPackageCheck::kForeignCommonName;
  RSA* key = RSAFromCertification(leaf.get());
  if (key == nullptr) return GpcPackageCheck::kNoPublicKey;
  const bool verified =
      verifyDataWithSSL(key, GpcBytes(digest.begin(), digest.end()), base64Decode(page.signature.c_str()));
  CryptoWrapper::sharedInstance()->RSA_free()(key);
  return verified ? GpcPackageCheck::kAccepted : GpcPackageCheck::kBadSignature;
}

}  // namespace

std::string ShippedAnchorsFolder() {
  const std::string bundle = platform::PluginBundlePath();
  return bundle.empty() ? bundle : bundle + "/Contents/Resources/Anchors";
}

bool IsTrustedSigner(const GpcCertificateRef& leaf, const GpcCertificateList& intermediates) {
  if (gpc::GpcHardened()) return ChainIsTrustedBy(leaf, intermediates, ShippedAnchors());
  // The page's certificates become anchors, and expiry is forgiven.
  return TrustCertification(leaf, intermediates) != nullptr;
}

GpcPackageParameters ReadPackageParameters(const std::function<const char*(const char* name)>& lookup) {
  auto text = [&lookup](const char* name) {
    const char* value = lookup(name);
    return std::string(value ? value : "");
  };
  GpcPackageParameters page;
  page.hash = text("GpcExtHash");
  page.method = text("GpcHashMethod");
  page.signature = text("GpcExtSignature");
  page.certification = text("GpcCertification");
  page.siteLock = text("gpcsitelock");
  return page;
}

bool IsVendorCommonName(const std::string& name) {
  if (gpc::GpcHardened()) {
    return name == kGpcVendorCommonNameSuffix + 1 || name == kGpcVendorOrganisationSuffix ||
           (EndsWith(name, kGpcVendorCommonNameSuffix) && name.size() > strlen(kGpcVendorCommonNameSuffix));
  }
  return EndsWith(name, kGpcVendorCommonNameSuffix) || EndsWith(name, kGpcVendorOrganisationSuffix);
}

int GpcPackageVerdict::message() const {
  switch (check) {
    case GpcPackageCheck::kAccepted:
    case GpcPackageCheck::kAcceptedUnchecked:
      return 0;
    case GpcPackageCheck::kMissing:
    case GpcPackageCheck::kDigestMismatch:
    case GpcPackageCheck::kNoSignature:
      return 111;
    default:
      return 103;
  }
}

GpcPackageVerdict CheckPackage(const char* path, const GpcPackageParameters& page, uint32_t systemVersion) {
  GpcPackageVerdict verdict;
  // Without digest and certificate a package is never installed, whatever the site-lock mode.
  if (path == nullptr || page.hash.empty() || page.certification.empty() || page.certification == "null") {
    verdict.check = GpcPackageCheck::kMissing;
    return verdict;
  }
  // The hardened build takes no SHA-1 digest: a collision could pass a file off as one the vendor signed.
  if (page.method == "sha1" && !gpc::GpcHardened()) {
    verdict.digest = Sha1OfFile(path);
  } else if (page.method == "sha256") {
    // The hardened build checks every package: the system version comes from the environment.
    if (systemVersion < kSha256SystemVersion && !gpc::GpcHardened()) {
      verdict.check = GpcPackageCheck::kAcceptedUnchecked;
      return verdict;
    }
    verdict.digest = Sha256OfFile(path);
  }
  if (verdict.digest != page.hash) {
    verdict.check = GpcPackageCheck::kDigestMismatch;
  } else if (page.signature.empty()) {
    verdict.check = GpcPackageCheck::kNoSignature;
  } else {
    verdict.check = CheckCertificateAndSignature(page, verdict.digest);
  }
  return verdict;
}

const char* PackageCheckName(GpcPackageCheck check) {
  switch (check) {
    case GpcPackageCheck::kAccepted: return "accepted";
    case GpcPackageCheck::kAcceptedUnchecked: return "accepted unchecked (sha256 on an old system)";
    case GpcPackageCheck::kMissing: return "no package, digest or certificate chain";
    case GpcPackageCheck::kDigestMismatch: return "digest mismatch";
    case GpcPackageCheck::kNoSignature: return "no signature";
    case GpcPackageCheck::kCertificationShort: return "certificate chain too short";
    case GpcPackageCheck::kLeafUnreadable: return "signer certificate unreadable";
    case GpcPackageCheck::kUntrusted: return "certificate chain not trusted";
    case GpcPackageCheck::kNoCommonName: return "signer has no readable common name";
    case GpcPackageCheck::kForeignCommonName: return "signer's common name is not the vendor's";
    case GpcPackageCheck::kNoPublicKey: return "signer has no RSA key";
    case GpcPackageCheck::kBadSignature: return "signature does not verify";
  }
  return "unknown";
}
