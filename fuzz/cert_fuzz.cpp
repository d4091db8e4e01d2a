// Certificates, chains and signatures as a page gives them, through the package check that decides with
// them, in the default and the hardened behaviour. Input: a byte of switches (2: hardened, 4: sha256), the
// "GpcCertification" line, the "GpcExtSignature" line and the package's bytes (the rest), whose digest the
// page is taken to give correctly. The system anchors are the seeds' root alone (SSL_CERT_FILE).
#include <syslog.h>

#include <algorithm>
#include <string>

#include "common/CertificateUtil.h"
#include "common/hardening.h"
#include "common/packagecheck.h"
#include "fuzz_support.h"
#include "fuzz_trace.h"

// Failed signatures are written to the system log; a fuzzer must not flood it.
extern "C" void syslog(int, const char*, ...) {}

namespace {

std::string g_package;
fuzz::ScratchTrace* g_trace = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("SSL_CERT_FILE", GPC_FUZZ_ANCHOR_FILE, 1);
  const std::string folder = fuzz::MakeScratchFolder("cert");
  g_package = folder + "/package.7z";
  g_trace = new fuzz::ScratchTrace(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text = fuzz::AsText(data + 1, size - 1);
  const bool sha256 = (data[0] & 4) != 0;
  gpc::SetHardenedForTesting((data[0] & 2) != 0 ? 1 : 0);
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
  // The page is told why a package is refused: 111 for what is missing, 103 for what does not verify.
  const int message = verdict.message();
  if (verdict.accepted() ? message != 0 : message != 111 && message != 103) {
    fuzz::Fail("a %s package shows message %d", verdict.accepted() ? "accepted" : "refused", message);
  }
  (void)PackageCheckName(verdict.check);
  gpc::SetHardenedForTesting(-1);
  g_trace->Tick();
  return 0;
}
