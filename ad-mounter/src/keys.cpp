#include "keys.h"

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "directory_reader.h"
#include "operations.h"
#include "path.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* no_key = "no public key installed";
constexpr const char* symbolic_link = "symbolic link not allowed";
constexpr const char* writable = "writable by users other than root";
constexpr size_t max_key_file_size = 1024;

// Whether something is wrong with what is installed rather than with the system.
bool is_installation_error(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

bool only_root_writes(const struct stat& status) {
    return status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Outcome reject_keys(const char* reason) {
    return Outcome::refused(EX_DATAERR, "read keys in", key_directory, reason);
}

// Opens the key directory, provided that only root can put another one in its place.
Outcome open_key_directory(base::UniqueFd& directory) {
    const char* rejection = nullptr;
    directory.reset(walk_path(key_directory, [&rejection](const Component& component) {
        base::UniqueFd fd(
            open_entry(component.parent, component.name, O_RDONLY | O_DIRECTORY, Mounts::cross));
        struct stat status;
        if (!fd || fstat(fd.get(), &status) != 0) {
            return -1;
        }
        if (!only_root_writes(status)) {
            rejection = writable;
            return -1;
        }
        return fd.release();
    }));
    if (rejection != nullptr) {
        return reject_keys(rejection);
    }
    if (!directory && is_installation_error(errno)) {
        return reject_keys(errno == ELOOP ? symbolic_link : no_key);
    }
    return directory ? Outcome() : Outcome::failed("read keys in", key_directory, errno);
}

Outcome reject_key(int directory, const char* name, const char* reason) {
    return Outcome::entry_refused(EX_DATAERR, "read key", directory, name, reason);
}

Outcome load_key(int directory, const char* name, base::PublicKey& key) {
    const base::UniqueFd file(
        open_entry(directory, name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        return errno == ELOOP ? reject_key(directory, name, symbolic_link)
                              : Outcome::entry_failed("read key", directory, name, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return reject_key(directory, name, "not a regular file");
    }
    if (!only_root_writes(status)) {
        return reject_key(directory, name, writable);
    }
    char text[max_key_file_size];
    const ssize_t length = base::read_full(file.get(), text, sizeof text);
    if (length < 0) {
        return Outcome::entry_failed("read key", directory, name, errno);
    }
    return base::parse_public_key({text, static_cast<size_t>(length)}, key)
               ? Outcome()
               : reject_key(directory, name, "not a minisign public key");
}

bool is_key_name(const char* name) {
    const char* suffix = strrchr(name, '.');
    return suffix != nullptr && suffix != name && strcmp(suffix, ".pub") == 0;
}

}  // namespace

Outcome load_keys(Keys& keys) {
    base::UniqueFd directory;
    TRY(open_key_directory(directory));
    DirectoryReader reader(directory.get());
    DirectoryEntry entry;
    keys.count = 0;
    while (reader.next(entry)) {
        if (!is_key_name(entry.name)) {
            continue;
        }
        if (keys.count == max_keys) {
            return reject_keys("too many keys");
        }
        TRY(load_key(directory.get(), entry.name, keys.keys[keys.count++]));
    }
    if (reader.error() != 0) {
        return Outcome::failed("read keys in", key_directory, reader.error());
    }
    return keys.count > 0 ? Outcome() : reject_keys(no_key);
}

}  // namespace ad_mounter
