#include "part_file.h"

#include "base/file_io.h"
#include "base/glib_owned.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_agent {

Result<PartFile> PartFile::create(const DataDirectory& directory, const std::string& name) {
    remove(directory, name);
    return resume(directory, name);
}

Result<PartFile> PartFile::resume(const DataDirectory& directory, const std::string& name) {
    const std::string part = name + part_suffix;
    if (!directory.size_of(part)) {
        // Anything but a regular file was not created here.
        remove(directory, name);
    }
    const int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    base::UniqueFd fd(openat(directory.fd(), part.c_str(), flags, 0600));
    if (!fd) {
        return errno_failure("failed to create " + directory.path_of(part));
    }
    return PartFile(directory, name, std::move(fd));
}

void PartFile::remove(const DataDirectory& directory, const std::string& name) {
    directory.remove(name + part_suffix);
}

void PartFile::remove_all_except(const DataDirectory& directory, const std::string& kept) {
    const base::Owned<GDir> entries(g_dir_open(directory.path().c_str(), 0, nullptr));
    while (const char* name = entries ? g_dir_read_name(entries.get()) : nullptr) {
        if (g_str_has_suffix(name, part_suffix) && name != kept + part_suffix) {
            directory.remove(name);
        }
    }
}

PartFile::~PartFile() {
    if (fd_) {
        remove(directory_, name_);
    }
}

Result<> PartFile::clear() {
    if (ftruncate(fd(), 0) != 0) {
        return errno_failure("failed to truncate " + directory_.path_of(name()));
    }
    return {};
}

Result<> PartFile::commit() {
    const std::string path = directory_.path_of(name());
    if (fchmod(fd(), 0644) != 0 || fsync(fd()) != 0) {
        return errno_failure("failed to write " + path);
    }
    const int directory = directory_.fd();
    if (renameat(directory, name().c_str(), directory, name_.c_str()) != 0) {
        return errno_failure("failed to rename " + path);
    }
    fd_.reset();
    if (fsync(directory) != 0) {
        return errno_failure("failed to sync " + directory_.path());
    }
    return {};
}

Result<> replace_file(const DataDirectory& directory, const std::string& name,
                      const std::string& text) {
    auto part = PartFile::create(directory, name);
    if (!part) {
        return Failure(part.error());
    }
    if (!base::write_full(part->fd(), text.data(), text.size())) {
        return errno_failure("failed to write " + directory.path_of(part->name()));
    }
    return part->commit();
}

}  // namespace ad_agent
