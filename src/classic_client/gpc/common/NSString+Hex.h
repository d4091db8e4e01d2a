// Digests of package files and the text encodings in which signatures and certificates arrive
// (hexadecimal and one-line base64). All work goes through the crypto binding (CryptoWrapper).
#pragma once

#include <string>
#include <vector>

// Raw bytes, as decoded or signed.
typedef std::vector<unsigned char> GpcBytes;

// The SHA-1 (40 characters) or SHA-256 (64 characters) digest of a file's contents as lower-case
// hexadecimal, streamed in 4096-byte chunks so files of any size can be checked. Returns an empty
// string when the path is null, the file cannot be opened or read, or the file is empty: an empty
// file has no digest rather than the digest of empty input.
std::string Sha1OfFile(const char* path);
std::string Sha256OfFile(const char* path);

// Hexadecimal text to bytes: each pair of characters, upper or lower case, becomes one byte; a
// trailing odd character is ignored. A pair that is not valid hexadecimal gives the value of its
// valid leading part (0 when there is none). A null text gives no bytes.
GpcBytes decodeFromHexidecimal(const char* text);

// The two characters read as one base-16 number (with the leniency above), as a byte.
unsigned char strToChar(char high, char low);

// One unbroken line of base64 to bytes. Text with line breaks, or malformed text, gives whatever
// the decoder produced, possibly nothing; never an error. A null text gives no bytes.
GpcBytes base64Decode(const char* text);
