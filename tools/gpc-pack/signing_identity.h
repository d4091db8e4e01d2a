// The vendor's signing identity: an unencrypted PEM RSA private key, the signer's certificate and
// the CA certificates of its chain, checked against the plug-in's rules before anything is
// signed, and the two page parameters made from it.
#pragma once

#include <string>
#include <vector>

#include "common/CertificateUtil.h"

struct SigningIdentity {
  std::string keyPath;
  GpcCertificateRef signer;
  GpcCertificateList chain;  // the CA certificates, in the order given
};

// Loads the identity. False with a message in `error` when a file cannot be read or holds no
// certificate, the certificate file holds more than one, the key is encrypted, not RSA, too large
// for the plug-in's signing routine or not the signer's, the signer's common name is not the
// vendor's, or the chain is not trusted as the plug-in trusts it.
bool LoadSigningIdentity(const std::string& keyPath, const std::string& certPath,
                         const std::vector<std::string>& chainPaths, SigningIdentity* identity, std::string* error);

// "GpcCertification": base64 DER of the chain's certificates, then of the signer's, joined by "|".
std::string CertificationText(const SigningIdentity& identity);

// "GpcExtSignature" for the digest text `digest`: base64 of its sha1WithRSA signature. False with
// a message when signing fails.
bool SignDigest(const SigningIdentity& identity, const std::string& digest, std::string* signature,
                std::string* error);
