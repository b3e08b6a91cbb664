/**
 * Reading files that may turn out to be anything: a directory, a FIFO, a device
 * or far larger than expected. Nothing here logs.
 */
#pragma once

#include <string>

/** More than any version file or manifest needs. */
constexpr long AD_SMALL_FILE_SIZE = 65536;

/**
 * Opens a file for reading; see open(2). Unlike fopen(3), does not wait for a
 * FIFO's writer.
 * @return a descriptor that the caller closes, or -1 with errno set
 */
int ad_open_file(const char* pFile);

/**
 * Reads a regular file of at most AD_SMALL_FILE_SIZE bytes.
 * @param pText  receives the contents; empty when the file is of another kind,
 *               larger, or cannot be read
 * @return false when the file cannot be opened
 */
bool ad_read_small_file(const char* pFile, std::string* pText);
