// The check of a fetched extension package before it replaces the installed extension: the
// page must give a digest and a certificate chain; the file's digest must match, the chain must
// be trusted and belong to the vendor, and the signature over the digest must verify.
#include <cstring>
#include <string>
#include <vector>

#include "CertificateUtil.h"
#include "CryptoWrapper.h"
#include "NSString+Hex.h"
#include "gpctimereporter.h"
#include "gpcutil.h"
#include "platform/system_version.h"
#include "plugin/plugin/npgpcimp.h"
#include "trace.h"

namespace {

const int kMessagePackageIncomplete = 111;
const int kMessagePackageUntrusted = 103;
// Below this system version sha256 packages are installed unchecked.
const uint32_t kSha256SystemVersion = 0x1060;
// A chain this short cannot hold a certificate.
const size_t kShortestCertification = 10;
const char kChainSeparator = '|';
const char kVendorCommonNameSuffix[] = ".talvo.us";
const char kVendorOrganisationSuffix[] = "Vantrel Talvo LLC";

// The page's package parameters; an absent one reads as empty.
struct PackageParameters {
  std::string hash, method, signature, certification, siteLock;
};

std::string ParameterText(CGpcWindow* window, const char* name) {
  const char* value = window->GetParameter(name);
  return value ? value : "";
}

PackageParameters ReadPackageParameters(CGpcWindow* window) {
  PackageParameters page;
  page.hash = ParameterText(window, "GpcExtHash");
  page.method = ParameterText(window, "GpcHashMethod");
  page.signature = ParameterText(window, "GpcExtSignature");
  page.certification = ParameterText(window, "GpcCertification");
  page.siteLock = ParameterText(window, "gpcsitelock");
  return page;
}

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t length = strlen(suffix);
  return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

// Stops the instance with `message` shown; nothing is installed or loaded.
void Refuse(CGpcWindow* window, int message) {
  window->ShowMessage(message, nullptr);
  window->m_bHalted = 1;
}

// The presence gate: a package without digest and certificate is never installed, whatever the
// site-lock mode. True when both are there.
bool HasDigestAndCertificate(const char* path, const PackageParameters& page) {
  const bool noCertification = page.certification.empty() || page.certification == "null";
  if (path != nullptr && !page.hash.empty() && !noCertification) return true;
  if (page.siteLock == "0" && path != nullptr) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,gpcsitelock is 0 means it run not check domain mode. we will check hashvalue of current package but hash or certification is invalid!");
  } else if (page.hash.empty()) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Check domain is pass, but Hash value is nil!");
  } else if (noCertification) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Check domain is pass, but Certification is nil!");
  }
  return false;
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

// The certificate checks and the signature over `digest`; false on the first that fails.
bool CertificateAndSignatureHold(const PackageParameters& page, const std::string& digest) {
  if (page.certification.size() <= kShortestCertification) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,invalid certification!");
    return false;
  }
  GpcCertificateList intermediates;
  GpcCertificateRef leaf = DecodeChain(page.certification, &intermediates);
  if (!leaf) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,invalid certification!");
    return false;
  }
  if (!TrustCertification(leaf, intermediates)) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe!");
    return false;
  }
  const std::string commonName = CommonNameOfCert(leaf.get());
  if (commonName.empty()) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe, No common name!");
    return false;
  }
  if (!EndsWith(commonName, kVendorCommonNameSuffix) && !EndsWith(commonName, kVendorOrganisationSuffix)) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, invalid certification file or cannot believe, common name is not end by %s",
                  kVendorCommonNameSuffix);
    return false;
  }
  RSA* key = RSAFromCertification(leaf.get());
  if (key == nullptr) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, Failed to get public RSA object from certification!");
    return false;
  }
  const GpcBytes signature = base64Decode(page.signature.c_str());
  const bool verified = verifyDataWithSSL(key, GpcBytes(digest.begin(), digest.end()), signature);
  CryptoWrapper::sharedInstance()->RSA_free()(key);
  return verified;
}

// Everything but the presence gate. True to install; on a refusal the message is shown and the
// instance halted.
bool PackageIsGenuine(CGpcWindow* window, const char* path, const PackageParameters& page, uint32_t system) {
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify, start to check site lock");
  std::string digest;
  if (page.method == "sha1") {
    digest = Sha1OfFile(path);
  } else if (page.method == "sha256") {
    if (system < kSha256SystemVersion) {
      MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,10.5 system not support sha256. we just ignore this hash value compare");
      return true;
    }
    digest = Sha256OfFile(path);
  }
  if (digest != page.hash) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,hash value not same,local hash=%s, remote hash= %s!", digest.c_str(),
                  page.hash.c_str());
    Refuse(window, kMessagePackageIncomplete);
    return false;
  }
  if (page.signature.empty()) {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify, GpcExtSignature value is nil!");
    Refuse(window, kMessagePackageIncomplete);
    return false;
  }
  if (!CertificateAndSignatureHold(page, digest)) {
    Refuse(window, kMessagePackageUntrusted);
    return false;
  }
  return true;
}

}  // namespace

void CGpcExtMgr::GpcGetFileNotify(void* instance, void* context, GPCGetFileNotifyMessageType type, void* data) {
  (void)instance;
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,GPCGetFileNotifyMessageType=%d", static_cast<int>(type));
  if (context == nullptr || type != GPC_GETFILE_COMPLETE) return;
  const uint32_t system = platform::SystemVersion();
  CGpcExtMgr* manager = static_cast<CGpcExtMgr*>(context);
  CGpcWindow* window = manager->m_pWindow;
  if (window == nullptr) return;
  manager->RecordTimeStamp(tmr_gpc_finish_download_extension);

  const char* path = static_cast<const char*>(data);
  const PackageParameters page = ReadPackageParameters(window);
  if (!HasDigestAndCertificate(path, page)) {
    Refuse(window, kMessagePackageIncomplete);
    return;
  }
  if (!PackageIsGenuine(window, path, page, system)) return;
  manager->InstallPackage(path);
}

void CGpcExtMgr::InstallPackage(const char* path) {
  const std::string target = GetExtensionPath(false);
  MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,Unpack extension from %s to %s", path, target.c_str());
  const uint32_t result = m_pWindow->UnpackFile(path, target.c_str(), 0);
  RecordTimeStamp(tmr_gpc_finish_update_extension);
  if (result == 0) {
    MacInfoTrace("CGpcExtMgr::GpcGetFileNotify,Load extension : %s", target.c_str());
  } else {
    MacErrorTrace("CGpcExtMgr::GpcGetFileNotify,Fail to decompress extension!");
  }
  // Also after a failed unpack: what is left (the old copy, or the local one) is loaded.
  m_pWindow->m_bNeedInitExtension = true;
}
