/**
 * Digests of files, in lower-case hexadecimal.
 */
#pragma once

#include <string>

/**
 * The SHA-256 (FIPS 180-4) of a file's contents, which are read in chunks.
 * @return 64 hexadecimal digits, or the empty string with errno set when the
 *         file cannot be read
 */
std::string ad_sha256_file(const char* pFile);

/** The same with MD5 (RFC 1321): 32 hexadecimal digits. Not collision-resistant. */
std::string ad_md5_file(const char* pFile);
