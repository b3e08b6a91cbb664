#include "keys.h"

#include "directory_reader.h"
#include "pinned_path.h"
#include "table.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "reading the keys";
constexpr std::string_view algorithm = "Ed";
constexpr std::string_view comment_prefix = "untrusted comment: ";
constexpr size_t longest_key_file = 1024;

Outcome refuse(const char* path, const char* reason) {
    return Outcome::refused(EX_DATAERR, step, path, reason);
}

Outcome fail(const char* path, int error) {
    if (error == ENOENT || error == ENOTDIR) {
        return refuse(path, "no key, so no image is trusted");
    }
    return error == ELOOP ? refuse(path, "a symbolic link is in the way")
                          : Outcome::failed(step, path, error);
}

bool only_root_writes(const struct stat& status) {
    return status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens the directory of keys; nobody but root may be able to put another one
// in its place.
Outcome open_directory(UniqueFd& directory) {
    char component[64];
    directory.reset(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const char* rest = key_directory;;) {
        struct stat status;
        if (!directory.valid() || fstat(directory.get(), &status) != 0) {
            return fail(key_directory, errno);
        }
        if (!only_root_writes(status)) {
            return refuse(key_directory, "others than root can change it");
        }
        if (*rest == '\0') {
            return {};
        }
        const char* name = rest + 1;
        const size_t length = strcspn(name, "/");
        if (length >= sizeof component) {
            return fail(key_directory, ENAMETOOLONG);
        }
        memcpy(component, name, length);
        component[length] = '\0';
        rest = name + length;
        directory.reset(
            open_beneath(directory.get(), component, O_RDONLY | O_DIRECTORY, Mounts::cross));
    }
}

bool is_key_name(const char* name) {
    constexpr std::string_view suffix = ".pub";
    const size_t length = strlen(name);
    return length > suffix.size() && name + length - suffix.size() == suffix;
}

Outcome load_key(int directory, const char* name, PublicKey& key) {
    const UniqueFd file(
        open_beneath(directory, name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        const int error = errno;
        return fail(remember_path(directory, name), error);
    }
    if (!S_ISREG(status.st_mode) || !only_root_writes(status)) {
        return refuse(remember_path(directory, name), S_ISREG(status.st_mode)
                                                          ? "others than root can change it"
                                                          : "not a regular file");
    }
    char text[longest_key_file];
    const ssize_t length = read(file.get(), text, sizeof text);
    if (length < 0) {
        const int error = errno;
        return fail(remember_path(directory, name), error);
    }
    return parse_public_key(text, static_cast<size_t>(length), key)
               ? Outcome()
               : refuse(remember_path(directory, name), "not a minisign public key");
}

}  // namespace

bool parse_public_key(const char* text, size_t length, PublicKey& key) {
    std::string_view rest(text, length);
    const size_t first_end = rest.find('\n');
    if (first_end == std::string_view::npos ||
        rest.compare(0, comment_prefix.size(), comment_prefix) != 0) {
        return false;
    }
    rest.remove_prefix(first_end + 1);
    size_t line = rest.find_first_of("\r\n");
    if (line == std::string_view::npos) {
        line = rest.size();
    }
    unsigned char bytes[algorithm.size() + sizeof(PublicKey)];
    size_t decoded = 0;
    const char* end = nullptr;
    if (sodium_base642bin(bytes, sizeof bytes, rest.data(), line, nullptr, &decoded, &end,
                          sodium_base64_VARIANT_ORIGINAL) != 0 ||
        decoded != sizeof bytes || end != rest.data() + line ||
        memcmp(bytes, algorithm.data(), algorithm.size()) != 0) {
        return false;
    }
    memcpy(key.id, bytes + algorithm.size(), sizeof key.id);
    memcpy(key.key, bytes + algorithm.size() + sizeof key.id, sizeof key.key);
    return true;
}

Outcome load_keys(Keys& keys) {
    UniqueFd directory;
    Outcome outcome = open_directory(directory);
    if (!outcome.ok()) {
        return outcome;
    }
    DirectoryReader reader(directory.get());
    DirectoryEntry entry;
    keys.count = 0;
    while (outcome.ok() && reader.next(entry)) {
        if (!is_key_name(entry.name)) {
            continue;
        }
        if (keys.count == most_keys) {
            return refuse(key_directory, "there are too many keys");
        }
        outcome = load_key(directory.get(), entry.name, keys.keys[keys.count++]);
    }
    if (outcome.ok() && reader.error() != 0) {
        return fail(key_directory, reader.error());
    }
    return outcome.ok() && keys.count == 0 ? fail(key_directory, ENOENT) : outcome;
}

}  // namespace ad_mounter
