// Certificates, chains and signatures (CertificateUtil.h) and the package check that decides with
// them (packagecheck.h), in the default and the hardened behaviour.
// Input: a byte of switches (1: page form, 2: hardened, 4: sha256), then
//  - raw form: a 16-bit big-endian length and that many DER bytes of a certificate, another length
//    and the signature's bytes, and the signed data (the rest);
//  - page form: the "GpcCertification" line, the "GpcExtSignature" line and the package's bytes
//    (the rest), whose digest the page is taken to give correctly.
// The system anchors are the seeds' root alone (SSL_CERT_FILE), not the machine's whole store.
#include <syslog.h>

#include <algorithm>
#include <string>

#include "common/CertificateUtil.h"
#include "common/CryptoWrapper.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "common/hardening.h"
#include "common/packagecheck.h"

// Failed signatures are written to the system log; a fuzzer must not flood it.
extern "C" void syslog(int, const char*, ...) {}

namespace {

std::string g_package;
GpcCertificateRef g_anchor;
fuzz::ScratchTrace* g_trace = nullptr;

GpcBytes Take(fuzz::Reader& reader, size_t length) {
  GpcBytes bytes;
  while (bytes.size() < length && !reader.empty()) bytes.push_back(reader.Byte());
  return bytes;
}

void RunRaw(fuzz::Reader& reader) {
  const GpcBytes der = Take(reader, reader.Word()), signature = Take(reader, reader.Word());
  const GpcBytes data = Take(reader, SIZE_MAX);
  if (verifyDataWithSSL(nullptr, data, signature)) fuzz::Fail("a signature verified without a key");
  const GpcCertificateRef cert = SecFromData(der);
  if (!cert) return;
  if (CommonNameOfCert(cert.get()).find('\0') != std::string::npos) fuzz::Fail("a common name holds a NUL");
  (void)cert->DerBytes();
  if (RSA* rsa = RSAFromCertification(cert.get())) {
    (void)verifyDataWithSSL(rsa, data, signature);
    CryptoWrapper::sharedInstance()->RSA_free()(rsa);
  }
  (void)TrustCertification(cert, GpcCertificateList{});
  (void)ChainIsTrustedBy(cert, GpcCertificateList{}, GpcCertificateList{g_anchor});
}

void RunPage(const std::string& text, bool sha256) {
  size_t at = 0;
  auto line = [&text, &at] {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string piece = text.substr(at, end - at);
    at = std::min(end + 1, text.size());
    return piece;
  };
  GpcPackageParameters page;
  page.certification = line();
  page.signature = line();
  page.method = sha256 ? "sha256" : "sha1";
  fuzz::WriteFile(g_package, text.data() + at, text.size() - at);
  page.hash = sha256 ? Sha256OfFile(g_package.c_str()) : Sha1OfFile(g_package.c_str());
  const GpcPackageVerdict verdict = CheckPackage(g_package.c_str(), page, 0x1060);
  const int message = verdict.message();
  if (verdict.accepted() ? message != 0 : message != 111 && message != 103) {
    fuzz::Fail("a %s package shows message %d", verdict.accepted() ? "accepted" : "refused", message);
  }
  (void)PackageCheckName(verdict.check);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("SSL_CERT_FILE", GPC_FUZZ_ANCHOR_FILE, 1);
  const std::string folder = fuzz::MakeScratchFolder("cert");
  g_package = folder + "/package.7z";
  g_anchor = SecFromFile(GPC_FUZZ_ANCHOR_DER_FILE);
  if (!g_anchor) fuzz::Fail("cannot read the anchor %s", GPC_FUZZ_ANCHOR_DER_FILE);
  g_trace = new fuzz::ScratchTrace(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Reader reader(data, size);
  const uint8_t switches = reader.Byte();
  gpc::SetHardenedForTesting((switches & 2) != 0 ? 1 : 0);
  if ((switches & 1) == 0) {
    RunRaw(reader);
  } else {
    RunPage(size > 0 ? fuzz::AsText(data + 1, size - 1) : std::string(), (switches & 4) != 0);
  }
  gpc::SetHardenedForTesting(-1);
  g_trace->Tick();
  return 0;
}
