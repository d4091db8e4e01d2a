#include "signing_identity.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "common/hardening.h"
#include "common/packagecheck.h"

namespace {

// The plug-in's signing routine reads the key file only this far.
constexpr off_t kLargestKeyFile = 2045;
constexpr char kChainSeparator[] = "|";

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
typedef std::unique_ptr<BIO, BioDeleter> BioPtr;
typedef std::unique_ptr<EVP_PKEY, KeyDeleter> KeyPtr;

std::string Base64(const unsigned char* bytes, size_t length) {
  std::string text(4 * ((length + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), bytes, static_cast<int>(length));
  text.resize(written > 0 ? static_cast<size_t>(written) : 0);
  return text;
}

// Every certificate of a PEM file (in order), or the one of a DER file.
bool ReadCertificates(const std::string& path, GpcCertificateList* certs, std::string* error) {
  BioPtr file(BIO_new_file(path.c_str(), "rb"));
  if (!file) {
    *error = "cannot read " + path + ": " + strerror(errno);
    ERR_clear_error();
    return false;
  }
  while (X509* x509 = PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr)) {
    certs->push_back(std::make_shared<const GpcCertificate>(x509));
  }
  if (certs->empty() && BIO_reset(file.get()) == 0) {
    if (X509* x509 = d2i_X509_bio(file.get(), nullptr)) certs->push_back(std::make_shared<const GpcCertificate>(x509));
  }
  ERR_clear_error();  // the end of a PEM file reads as an error
  if (certs->empty()) {
    *error = path + " holds no certificate (PEM or DER)";
    return false;
  }
  return true;
}

int NoteKeyPassword(char*, int, int, void* asked) {
  *static_cast<bool*>(asked) = true;
  return -1;
}

// The private key of `path`: a regular file small enough for the signing routine, PEM, RSA and
// not encrypted.
KeyPtr ReadSigningKey(const std::string& path, std::string* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info;
  if (fd < 0 || fstat(fd, &info) != 0) {
    *error = "cannot read the key " + path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return nullptr;
  }
  close(fd);
  if (!S_ISREG(info.st_mode)) {
    *error = "the key " + path + " is no file";
    return nullptr;
  }
  if (info.st_size > kLargestKeyFile) {
    *error = "the key file " + path + " has " + std::to_string(info.st_size) +
             " bytes; the signing routine reads only the first 2045 (a 2048-bit RSA key in PEM fits)";
    return nullptr;
  }
  BioPtr file(BIO_new_file(path.c_str(), "rb"));
  bool asked = false;
  KeyPtr key(file ? PEM_read_bio_PrivateKey(file.get(), nullptr, NoteKeyPassword, &asked) : nullptr);
  ERR_clear_error();
  if (asked) {
    *error = "the key " + path + " is encrypted; gpc-pack signs only with an unencrypted PEM RSA key "
             "(decrypt it with \"openssl rsa -in KEY -out PLAIN.pem\")";
    return nullptr;
  }
  if (!key) {
    *error = path + " holds no PEM private key";
    return nullptr;
  }
  if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
    *error = "the key " + path + " is no RSA key";
    return nullptr;
  }
  return key;
}

// The plug-in's common-name rule for a signer.
bool CheckCommonName(const GpcCertificate& signer, const std::string& certPath, std::string* error) {
  const std::string name = CommonNameOfCert(&signer);
  if (name.empty()) {
    *error = "the signer certificate " + certPath + " has no readable common name; the plug-in would refuse it";
    return false;
  }
  if (!IsVendorCommonName(name)) {
    *error = "the signer's common name \"" + name + "\" ends neither with \"" + kGpcVendorCommonNameSuffix +
             "\" nor with \"" + kGpcVendorOrganisationSuffix + "\"; the plug-in would refuse the package";
    return false;
  }
  return true;
}

}  // namespace

bool LoadSigningIdentity(const std::string& keyPath, const std::string& certPath,
                         const std::vector<std::string>& chainPaths, SigningIdentity* identity, std::string* error) {
  GpcCertificateList signers;
  if (!ReadCertificates(certPath, &signers, error)) return false;
  if (signers.size() != 1) {
    *error = certPath + " holds " + std::to_string(signers.size()) +
             " certificates; give the signer's alone with --cert and its CA certificates with --chain";
    return false;
  }
  GpcCertificateList chain;
  for (const std::string& path : chainPaths) {
    if (!ReadCertificates(path, &chain, error)) return false;
  }
  KeyPtr key = ReadSigningKey(keyPath, error);
  if (!key) return false;
  if (EVP_PKEY_eq(X509_get0_pubkey(signers[0]->x509()), key.get()) != 1) {
    ERR_clear_error();
    *error = "the key " + keyPath + " does not belong to the certificate " + certPath;
    return false;
  }
  if (!CheckCommonName(*signers[0], certPath, error)) return false;
  if (!IsTrustedSigner(signers[0], chain)) {
    *error = "the certificate " + certPath + " is not trusted: it chains " +
             (gpc::GpcHardened() ? "to none of the anchors in " + ShippedAnchorsFolder()
                                 : std::string("neither to a system anchor nor to a certificate given with --chain"));
    return false;
  }
  identity->keyPath = keyPath;
  identity->signer = signers[0];
  identity->chain = chain;
  return true;
}

std::string CertificationText(const SigningIdentity& identity) {
  std::string text;
  GpcCertificateList all = identity.chain;
  all.push_back(identity.signer);
  for (const GpcCertificateRef& cert : all) {
    const GpcBytes der = cert->DerBytes();
    if (!text.empty()) text += kChainSeparator;
    text += Base64(der.data(), der.size());
  }
  return text;
}

bool SignDigest(const SigningIdentity& identity, const std::string& digest, std::string* signature,
                std::string* error) {
  const GpcBytes bytes = SignDataWithSSL(identity.keyPath.c_str(), GpcBytes(digest.begin(), digest.end()));
  if (bytes.empty()) {
    *error = "signing with " + identity.keyPath + " failed";
    return false;
  }
  *signature = Base64(bytes.data(), bytes.size());
  return true;
}
