// The process-wide binding to libcrypto. Every digest, base64 decoding, certificate key
// extraction and RSA operation of the plug-in calls libcrypto through the function slots of this
// one object, so a missing library shows up in one place.
//
// libcrypto is linked into the plug-in. Creating the binding takes a handle on that already
// mapped library (with immediate binding) and fills the 25 slots, in table order, with the
// library's functions. When no handle can be had, the object still exists with every slot empty;
// each user then fails cleanly. The binding itself logs nothing.
#pragma once

#include <cstddef>

#include <openssl/aes.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

class CryptoWrapper {
 public:
  // Signatures of the slots, as libcrypto declares the functions.
  typedef int (*SHA_Init_t)(SHA_CTX*);
  typedef int (*SHA1_Update_t)(SHA_CTX*, const void*, size_t);
  typedef int (*SHA1_Final_t)(unsigned char*, SHA_CTX*);
  typedef int (*SHA256_Init_t)(SHA256_CTX*);
  typedef int (*SHA256_Update_t)(SHA256_CTX*, const void*, size_t);
  typedef int (*SHA256_Final_t)(unsigned char*, SHA256_CTX*);
  typedef int (*BIO_free_t)(BIO*);
  typedef BIO* (*BIO_new_t)(const BIO_METHOD*);
  typedef void (*BIO_free_all_t)(BIO*);
  typedef BIO* (*BIO_new_mem_buf_t)(const void*, int);
  typedef void (*BIO_set_flags_t)(BIO*, int);
  typedef const BIO_METHOD* (*BIO_f_base64_t)(void);
  typedef BIO* (*BIO_push_t)(BIO*, BIO*);
  typedef int (*BIO_read_t)(BIO*, void*, int);
  typedef void (*RSA_free_t)(RSA*);
  typedef int (*RSA_verify_t)(int, const unsigned char*, unsigned int, const unsigned char*,
                              unsigned int, RSA*);
  typedef int (*AES_set_encrypt_key_t)(const unsigned char*, const int, AES_KEY*);
  typedef void (*AES_cbc_encrypt_t)(const unsigned char*, unsigned char*, size_t, const AES_KEY*,
                                    unsigned char*, const int);
  typedef void (*EVP_PKEY_free_t)(EVP_PKEY*);
  typedef RSA* (*EVP_PKEY_get1_RSA_t)(EVP_PKEY*);
  typedef void (*X509_free_t)(X509*);
  typedef EVP_PKEY* (*X509_get_pubkey_t)(X509*);
  typedef RSA* (*PEM_read_bio_RSAPrivateKey_t)(BIO*, RSA**, pem_password_cb*, void*);
  typedef X509* (*d2i_X509_t)(X509**, const unsigned char**, long);
  typedef int (*RSA_sign_t)(int, const unsigned char*, unsigned int, unsigned char*,
                            unsigned int*, RSA*);

  // The process-wide binding, created on first use (from the main thread; not locked).
  static CryptoWrapper* sharedInstance();
  // Releases the binding; the next sharedInstance() creates a new one.
  static void destorySharedInstance();

  // Makes every binding created from now on behave as if libcrypto could not be had: no handle,
  // every slot empty. Lets tests check that each user fails cleanly. False restores loading.
  static void SetLibraryMissingForTesting(bool missing);

  // True when the library handle is held (and the slots are filled).
  bool IsLoaded() const { return myDllInstance != nullptr; }

  SHA_Init_t SHA_Init() const { return mySHA_Init; }
  SHA1_Update_t SHA1_Update() const { return mySHA1_Update; }
  SHA1_Final_t SHA1_Final() const { return mySHA1_Final; }
  SHA256_Init_t SHA256_Init() const { return mySHA256_Init; }
  SHA256_Update_t SHA256_Update() const { return mySHA256_Update; }
  SHA256_Final_t SHA256_Final() const { return mySHA256_Final; }
  BIO_free_t BIO_free() const { return myBIO_free; }
  BIO_new_t BIO_new() const { return myBIO_new; }
  BIO_free_all_t BIO_free_all() const { return myBIO_free_all; }
  BIO_new_mem_buf_t BIO_new_mem_buf() const { return myBIO_new_mem_buf; }
  BIO_set_flags_t BIO_set_flags() const { return myBIO_set_flags; }
  BIO_f_base64_t BIO_f_base64() const { return myBIO_f_base64; }
  BIO_push_t BIO_push() const { return myBIO_push; }
  BIO_read_t BIO_read() const { return myBIO_read; }
  RSA_free_t RSA_free() const { return myRSA_free; }
  RSA_verify_t RSA_verify() const { return myRSA_verify; }
  AES_set_encrypt_key_t AES_set_encrypt_key() const { return myAES_set_encrypt_key; }
  AES_cbc_encrypt_t AES_cbc_encrypt() const { return myAES_cbc_encrypt; }
  EVP_PKEY_free_t EVP_PKEY_free() const { return myEVP_PKEY_free; }
  EVP_PKEY_get1_RSA_t EVP_PKEY_get1_RSA() const { return myEVP_PKEY_get1_RSA; }
  X509_free_t X509_free() const { return myX509_free; }
  X509_get_pubkey_t X509_get_pubkey() const { return myX509_get_pubkey; }
  PEM_read_bio_RSAPrivateKey_t PEM_read_bio_RSAPrivateKey() const {
    return myPEM_read_bio_RSAPrivateKey;
  }
  d2i_X509_t d2i_X509() const { return myd2i_X509; }
  RSA_sign_t RSA_sign() const { return myRSA_sign; }

  CryptoWrapper(const CryptoWrapper&) = delete;
  CryptoWrapper& operator=(const CryptoWrapper&) = delete;

 private:
  CryptoWrapper();   // takes the library handle and fills the slots
  ~CryptoWrapper();  // gives the handle back

  void FillSlots();

  void* myDllInstance = nullptr;
  SHA_Init_t mySHA_Init = nullptr;
  SHA1_Update_t mySHA1_Update = nullptr;
  SHA1_Final_t mySHA1_Final = nullptr;
  SHA256_Init_t mySHA256_Init = nullptr;
  SHA256_Update_t mySHA256_Update = nullptr;
  SHA256_Final_t mySHA256_Final = nullptr;
  BIO_free_t myBIO_free = nullptr;
  BIO_new_t myBIO_new = nullptr;
  BIO_free_all_t myBIO_free_all = nullptr;
  BIO_new_mem_buf_t myBIO_new_mem_buf = nullptr;
  BIO_set_flags_t myBIO_set_flags = nullptr;
  BIO_f_base64_t myBIO_f_base64 = nullptr;
  BIO_push_t myBIO_push = nullptr;
  BIO_read_t myBIO_read = nullptr;
  RSA_free_t myRSA_free = nullptr;
  RSA_verify_t myRSA_verify = nullptr;
  AES_set_encrypt_key_t myAES_set_encrypt_key = nullptr;
  AES_cbc_encrypt_t myAES_cbc_encrypt = nullptr;
  EVP_PKEY_free_t myEVP_PKEY_free = nullptr;
  EVP_PKEY_get1_RSA_t myEVP_PKEY_get1_RSA = nullptr;
  X509_free_t myX509_free = nullptr;
  X509_get_pubkey_t myX509_get_pubkey = nullptr;
  PEM_read_bio_RSAPrivateKey_t myPEM_read_bio_RSAPrivateKey = nullptr;
  d2i_X509_t myd2i_X509 = nullptr;
  RSA_sign_t myRSA_sign = nullptr;
};

// The PKCS #1 v1.5 signature routines behind the RSA_sign and RSA_verify slots. libcrypto 3 no
// longer encodes a DigestInfo for the sha1WithRSA identifier (NID 115, 1.3.14.3.2.29), which the
// plug-in's package signatures use; for that type these build the DigestInfo themselves around
// the data as given (it is not hashed again) and use the raw private- and public-key operations.
// Every other type goes to libcrypto's own RSA_sign / RSA_verify.
int GpcRsaSign(int type, const unsigned char* m, unsigned int m_length, unsigned char* sigret,
               unsigned int* siglen, RSA* rsa);
int GpcRsaVerify(int type, const unsigned char* m, unsigned int m_length,
                 const unsigned char* sigbuf, unsigned int siglen, RSA* rsa);
