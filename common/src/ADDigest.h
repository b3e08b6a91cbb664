/**
 * Digests of files, in lower-case hexadecimal.
 */
#ifndef AD_DIGEST_H
#define AD_DIGEST_H

#include <string>

/**
 * Takes the SHA-256 (FIPS 180-4) of a file's contents, reading it in pieces.
 * @return 64 hexadecimal digits, or the empty string with errno set when the
 *         file cannot be read
 */
std::string ad_sha256_file(const char* pFile);

/** The same with MD5 (RFC 1321): 32 hexadecimal digits. Not for anything that must be trusted. */
std::string ad_md5_file(const char* pFile);

#endif
