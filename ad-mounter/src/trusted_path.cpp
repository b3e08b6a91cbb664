#include "trusted_path.h"

#include "base/file_io.h"
#include "operations.h"

#include <cerrno>

#include <fcntl.h>

namespace ad_mounter {

namespace {

bool belongs_to_caller(const char* path) {
    const Operation* operation = find_directory(path);
    return operation != nullptr && operation->owner == Owner::caller;
}

}  // namespace

const char* untrusted_reason(const struct stat& status) {
    if (status.st_uid != 0) {
        return "not owned by root";
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "writable by users other than root"
                                                       : nullptr;
}

Outcome check_component(const Component& component, int directory, int refusal) {
    struct stat status;
    if (fstat(directory, &status) != 0) {
        return Outcome::entry_failed("stat", component.parent, component.name, errno);
    }
    const char* reason = untrusted_reason(status);
    if (reason == nullptr || belongs_to_caller(component.path)) {
        return {};
    }
    return component.parent == AT_FDCWD
               ? Outcome::refused(refusal, "use", "/", reason)
               : Outcome::entry_refused(refusal, "use", component.parent, component.name, reason);
}

Outcome open_trusted_directory(const char* path, const char* shown, base::UniqueFd& directory,
                               int refusal) {
    Outcome outcome;
    directory.reset(walk_path(path, [&](const Component& component) {
        base::UniqueFd fd(
            open_entry(component.parent, component.name, O_RDONLY | O_DIRECTORY, Mounts::cross));
        if (!fd) {
            return -1;
        }
        outcome = check_component(component, fd.get(), refusal);
        return outcome.ok() ? fd.release() : -1;
    }));
    if (directory || !outcome.ok()) {
        return outcome;
    }
    return errno == ELOOP ? Outcome::failed(refusal, "open directory of", shown, errno)
                          : Outcome::failed("open directory of", shown, errno);
}

TrustedText read_trusted_file(int directory, const char* name, char* text, size_t size) {
    TrustedText result;
    const base::UniqueFd file(
        open_entry(directory, name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::cross));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        result.error = errno;
        result.rejection = errno == ELOOP ? "symbolic link not allowed" : nullptr;
        return result;
    }
    result.rejection = S_ISREG(status.st_mode) ? untrusted_reason(status) : "not a regular file";
    const ssize_t length =
        result.rejection == nullptr ? base::read_full(file.get(), text, size) : 0;
    result.error = length < 0 ? errno : 0;
    result.length = length < 0 ? 0 : static_cast<size_t>(length);
    return result;
}

}  // namespace ad_mounter
