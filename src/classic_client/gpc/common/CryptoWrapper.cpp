// The binding keeps libcrypto's classic SHA, RSA, PEM and AES entry points on purpose: they are
// the functions its slots stand for.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "common/CryptoWrapper.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <openssl/objects.h>

#include <memory>
#include <vector>

namespace {

CryptoWrapper* g_sharedCryptoWrapper = nullptr;
bool g_libraryMissingForTesting = false;

// A handle on the libcrypto that is linked into this module: the library that holds SHA1_Update,
// asked for without loading anything new. Null when the loader knows no such library.
void* HandleOfLinkedLibcrypto() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&::SHA1_Update), &info) == 0 || info.dli_fname == nullptr) {
    return nullptr;
  }
  return dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
}

struct EvpPkeyDeleter {
  void operator()(EVP_PKEY* key) const { ::EVP_PKEY_free(key); }
};
struct EvpPkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { ::EVP_PKEY_CTX_free(ctx); }
};
struct X509SigDeleter {
  void operator()(X509_SIG* sig) const { ::X509_SIG_free(sig); }
};

// A key context for the raw PKCS #1 v1.5 operations on `rsa`: type-1 padding, no digest.
std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxDeleter> RawPkcs1Context(RSA* rsa, bool forSigning) {
  std::unique_ptr<EVP_PKEY, EvpPkeyDeleter> key(::EVP_PKEY_new());
  if (!key || ::EVP_PKEY_set1_RSA(key.get(), rsa) != 1) return nullptr;
  std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxDeleter> ctx(::EVP_PKEY_CTX_new(key.get(), nullptr));
  if (!ctx) return nullptr;
  const int started =
      forSigning ? ::EVP_PKEY_sign_init(ctx.get()) : ::EVP_PKEY_verify_recover_init(ctx.get());
  if (started != 1 || ::EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) {
    return nullptr;
  }
  return ctx;
}

// The DER DigestInfo SEQUENCE { SEQUENCE { OID of `type`, NULL }, OCTET STRING m }, exactly as
// the classic RSA_sign encoded it. Empty when `type` names no object.
std::vector<unsigned char> EncodeDigestInfo(int type, const unsigned char* m, unsigned int length) {
  std::vector<unsigned char> encoded;
  ASN1_OBJECT* algorithm = ::OBJ_nid2obj(type);
  if (algorithm == nullptr || ::OBJ_length(algorithm) == 0) return encoded;
  std::unique_ptr<X509_SIG, X509SigDeleter> digestInfo(::X509_SIG_new());
  if (!digestInfo) return encoded;
  X509_ALGOR* algor = nullptr;
  ASN1_OCTET_STRING* digest = nullptr;
  ::X509_SIG_getm(digestInfo.get(), &algor, &digest);
  if (::X509_ALGOR_set0(algor, algorithm, V_ASN1_NULL, nullptr) != 1 ||
      ::ASN1_OCTET_STRING_set(digest, m, static_cast<int>(length)) != 1) {
    return encoded;
  }
  const int size = ::i2d_X509_SIG(digestInfo.get(), nullptr);
  if (size <= 0) return encoded;
  encoded.resize(static_cast<size_t>(size));
  unsigned char* out = encoded.data();
  if (::i2d_X509_SIG(digestInfo.get(), &out) != size) encoded.clear();
  return encoded;
}

}  // namespace

int GpcRsaSign(int type, const unsigned char* m, unsigned int m_length, unsigned char* sigret,
               unsigned int* siglen, RSA* rsa) {
  if (type != NID_sha1WithRSA) return ::RSA_sign(type, m, m_length, sigret, siglen, rsa);
  if (m == nullptr || sigret == nullptr || siglen == nullptr || rsa == nullptr) return 0;
  const std::vector<unsigned char> digestInfo = EncodeDigestInfo(type, m, m_length);
  const int modulusSize = ::RSA_size(rsa);
  if (digestInfo.empty() || modulusSize <= 0 ||
      digestInfo.size() > static_cast<size_t>(modulusSize) - RSA_PKCS1_PADDING_SIZE) {
    return 0;
  }
  auto ctx = RawPkcs1Context(rsa, true);
  size_t length = static_cast<size_t>(modulusSize);
  if (!ctx ||
      ::EVP_PKEY_sign(ctx.get(), sigret, &length, digestInfo.data(), digestInfo.size()) != 1) {
    return 0;
  }
  *siglen = static_cast<unsigned int>(length);
  return 1;
}

int GpcRsaVerify(int type, const unsigned char* m, unsigned int m_length,
                 const unsigned char* sigbuf, unsigned int siglen, RSA* rsa) {
  if (type != NID_sha1WithRSA) return ::RSA_verify(type, m, m_length, sigbuf, siglen, rsa);
  if (m == nullptr || sigbuf == nullptr || rsa == nullptr) return 0;
  const int modulusSize = ::RSA_size(rsa);
  // As the classic RSA_verify: a signature is exactly as long as the modulus.
  if (modulusSize <= 0 || siglen != static_cast<unsigned int>(modulusSize)) return 0;
  const std::vector<unsigned char> expected = EncodeDigestInfo(type, m, m_length);
  auto ctx = RawPkcs1Context(rsa, false);
  if (expected.empty() || !ctx) return 0;
  std::vector<unsigned char> recovered(static_cast<size_t>(modulusSize));
  size_t length = recovered.size();
  if (::EVP_PKEY_verify_recover(ctx.get(), recovered.data(), &length, sigbuf, siglen) != 1) {
    return 0;
  }
  // Only the exact encoding that signing produces is accepted; the comparison of equal-length
  // records takes the same time wherever they differ.
  if (length != expected.size()) return 0;
  return ::CRYPTO_memcmp(recovered.data(), expected.data(), length) == 0 ? 1 : 0;
}

CryptoWrapper* CryptoWrapper::sharedInstance() {
  if (g_sharedCryptoWrapper == nullptr) g_sharedCryptoWrapper = new CryptoWrapper();
  return g_sharedCryptoWrapper;
}

void CryptoWrapper::destorySharedInstance() {
  delete g_sharedCryptoWrapper;
  g_sharedCryptoWrapper = nullptr;
}

void CryptoWrapper::SetLibraryMissingForTesting(bool missing) {
  g_libraryMissingForTesting = missing;
}

CryptoWrapper::CryptoWrapper() {
  if (g_libraryMissingForTesting) return;
  myDllInstance = HandleOfLinkedLibcrypto();
  if (myDllInstance != nullptr) FillSlots();
}

CryptoWrapper::~CryptoWrapper() {
  if (myDllInstance != nullptr) dlclose(myDllInstance);
}

// In table order. SHA_Init starts the same state as SHA-1's, which is what its users expect;
// the RSA_sign and RSA_verify slots also handle the sha1WithRSA identifier (see GpcRsaSign).
void CryptoWrapper::FillSlots() {
  mySHA_Init = &::SHA1_Init;
  mySHA1_Update = &::SHA1_Update;
  mySHA1_Final = &::SHA1_Final;
  mySHA256_Init = &::SHA256_Init;
  mySHA256_Update = &::SHA256_Update;
  mySHA256_Final = &::SHA256_Final;
  myBIO_free = &::BIO_free;
  myBIO_new = &::BIO_new;
  myBIO_free_all = &::BIO_free_all;
  myBIO_new_mem_buf = &::BIO_new_mem_buf;
  myBIO_set_flags = &::BIO_set_flags;
  myBIO_f_base64 = &::BIO_f_base64;
  myBIO_push = &::BIO_push;
  myBIO_read = &::BIO_read;
  myRSA_free = &::RSA_free;
  myRSA_verify = &GpcRsaVerify;
  myAES_set_encrypt_key = &::AES_set_encrypt_key;
  myAES_cbc_encrypt = &::AES_cbc_encrypt;
  myEVP_PKEY_free = &::EVP_PKEY_free;
  myEVP_PKEY_get1_RSA = &::EVP_PKEY_get1_RSA;
  myX509_free = &::X509_free;
  myX509_get_pubkey = &::X509_get_pubkey;
  myPEM_read_bio_RSAPrivateKey = &::PEM_read_bio_RSAPrivateKey;
  myd2i_X509 = &::d2i_X509;
  myRSA_sign = &GpcRsaSign;
}
