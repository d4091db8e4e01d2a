// Certificates, chains and signatures (CertificateUtil.h) and the package check that decides with
// them (packagecheck.h), in the default and the hardened behaviour.
//
// Input: a first byte of switches (bit 0: page form, bit 1: hardened, bit 2: sha256), then
//  - raw form: a 16-bit big-endian length and that many DER bytes of a certificate, another
//    length and the signature's bytes, and the signed data (the rest);
//  - page form: the "GpcCertification" line, the "GpcExtSignature" line and the package's bytes
//    (the rest), whose digest the page is taken to give correctly.
// The system anchors are the seeds' root alone (SSL_CERT_FILE), so that every run reads one
// certificate instead of the machine's whole store.
#include <syslog.h>

#include <cstdarg>
#include <string>

#include "CertificateUtil.h"
#include "CryptoWrapper.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"
#include "hardening.h"
#include "packagecheck.h"

// Failed signatures are written to the system log; a fuzzer must not flood it.
extern "C" void syslog(int, const char*, ...) {}

namespace {

struct State {
  std::string packagePath;
  GpcCertificateRef anchor;
  fuzz::ScratchTrace* trace;
};
State* g_state = nullptr;

GpcBytes Take(fuzz::Reader& reader, size_t length) {
  GpcBytes bytes;
  for (size_t i = 0; i < length && !reader.empty(); ++i) bytes.push_back(reader.Byte());
  return bytes;
}

void CheckCertificate(const GpcCertificateRef& cert, const GpcBytes& signature, const GpcBytes& data) {
  const std::string name = CommonNameOfCert(cert.get());
  if (name.find('\0') != std::string::npos) fuzz::Fail("a common name holds a NUL");
  (void)cert->DerBytes();
  if (RSA* rsa = RSAFromCertification(cert.get())) {
    (void)verifyDataWithSSL(rsa, data, signature);
    CryptoWrapper::sharedInstance()->RSA_free()(rsa);
  }
  (void)TrustCertification(cert, GpcCertificateList{});
  (void)ChainIsTrustedBy(cert, GpcCertificateList{}, GpcCertificateList{g_state->anchor});
}

void RunRaw(fuzz::Reader& reader) {
  const GpcBytes der = Take(reader, reader.Word());
  const GpcBytes signature = Take(reader, reader.Word());
  GpcBytes data;
  while (!reader.empty()) data.push_back(reader.Byte());
  if (GpcCertificateRef cert = SecFromData(der)) CheckCertificate(cert, signature, data);
  // No key verifies anything.
  if (verifyDataWithSSL(nullptr, data, signature)) fuzz::Fail("a signature verified without a key");
}

std::string NextLine(const std::string& text, size_t* at) {
  const size_t end = text.find('\n', *at);
  const std::string line = text.substr(*at, end == std::string::npos ? std::string::npos : end - *at);
  *at = end == std::string::npos ? text.size() : end + 1;
  return line;
}

void RunPage(const std::string& text, bool sha256) {
  size_t at = 0;
  GpcPackageParameters page;
  page.certification = NextLine(text, &at);
  page.signature = NextLine(text, &at);
  page.method = sha256 ? "sha256" : "sha1";
  const std::string package = text.substr(at);
  fuzz::WriteFile(g_state->packagePath, package.data(), package.size());
  page.hash = sha256 ? Sha256OfFile(g_state->packagePath.c_str()) : Sha1OfFile(g_state->packagePath.c_str());
  const GpcPackageVerdict verdict = CheckPackage(g_state->packagePath.c_str(), page, 0x1060);
  if (verdict.accepted() && verdict.message() != 0) fuzz::Fail("an accepted package shows message %d", verdict.message());
  if (!verdict.accepted() && verdict.message() != 111 && verdict.message() != 103) {
    fuzz::Fail("a refused package shows message %d", verdict.message());
  }
  (void)PackageCheckName(verdict.check);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("SSL_CERT_FILE", GPC_FUZZ_ANCHOR_FILE, 1);
  const std::string folder = fuzz::MakeScratchFolder("cert");
  g_state = new State{folder + "/package.7z", SecFromFile(GPC_FUZZ_ANCHOR_DER_FILE), nullptr};
  if (!g_state->anchor) fuzz::Fail("cannot read the anchor %s", GPC_FUZZ_ANCHOR_DER_FILE);
  g_state->trace = new fuzz::ScratchTrace(folder);
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
  g_state->trace->Tick();
  return 0;
}
