#include "data_folder.h"

#include <cerrno>

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace ad_agent {
namespace {

std::string part_name(const std::string& name) { return name + PART_SUFFIX; }

/** The step that failed, where, and what errno says of it. */
std::string errno_text(const std::string& step, const std::string& path) {
    const int number = errno;
    return "cannot " + step + " " + path + ": " + g_strerror(number);
}

bool read_all(int fd, std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t length = ::read(fd, text.data() + done, text.size() - done);
        if (length == 0 || (length < 0 && errno != EINTR)) return false;
        if (length > 0) done += static_cast<std::size_t>(length);
    }
    return true;
}

bool write_all(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) return false;
        if (written > 0) done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

std::optional<DataFolder> DataFolder::open(const std::string& path, std::string& error) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
        error = errno_text("open data folder", path);
        return std::nullopt;
    }
    return DataFolder(path, std::move(fd));
}

std::optional<DataFolder> DataFolder::make(const std::string& path, std::string& error) {
    if (g_mkdir_with_parents(path.c_str(), 0755) != 0) {
        error = errno_text("make data folder", path);
        return std::nullopt;
    }
    return open(path, error);
}

std::optional<std::uint64_t> DataFolder::size_of(const std::string& name) const {
    struct stat status = {};
    if (fstatat(fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
}

std::optional<std::string> DataFolder::read(const std::string& name,
                                            std::uint64_t max_bytes) const {
    const UniqueFd file(openat(fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > max_bytes) return std::nullopt;
    std::string text(size, '\0');
    if (!read_all(file.get(), text)) return std::nullopt;
    return text;
}

void DataFolder::remove(const std::string& name) const { unlinkat(fd(), name.c_str(), 0); }

void DataFolder::remove_parts(const std::string& kept) const {
    GDir* const entries = g_dir_open(m_path.c_str(), 0, nullptr);
    if (!entries) return;
    while (const char* name = g_dir_read_name(entries))
        if (g_str_has_suffix(name, PART_SUFFIX) && name != part_name(kept)) remove(name);
    g_dir_close(entries);
}

std::uint64_t DataFolder::free_bytes() const {
    struct statvfs status = {};
    if (fstatvfs(fd(), &status) != 0) return 0;
    return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

bool DataFolder::write(const std::string& name, const std::string& text, std::string& error) const {
    std::optional<PartFile> part = PartFile::create(*this, name, error);
    if (!part) return false;
    if (!write_all(part->fd(), text)) {
        error = errno_text("write", path_of(part->name()));
        return false;
    }
    return part->commit(error);
}

std::optional<PartFile> PartFile::create(const DataFolder& folder, const std::string& name,
                                         std::string& error) {
    remove_leftover(folder, name);
    return resume(folder, name, error);
}

std::optional<PartFile> PartFile::resume(const DataFolder& folder, const std::string& name,
                                         std::string& error) {
    // What is no regular file was not made here.
    const int exclusive = folder.size_of(part_name(name)) ? 0 : O_EXCL;
    if (exclusive) remove_leftover(folder, name);
    UniqueFd fd(openat(folder.fd(), part_name(name).c_str(),
                       O_RDWR | O_CREAT | exclusive | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!fd) {
        error = errno_text("create", folder.path_of(part_name(name)));
        return std::nullopt;
    }
    return PartFile(folder, name, std::move(fd));
}

void PartFile::remove_leftover(const DataFolder& folder, const std::string& name) {
    folder.remove(part_name(name));
}

PartFile::~PartFile() {
    if (m_fd) remove_leftover(m_folder, m_name);
}

bool PartFile::clear(std::string& error) {
    if (ftruncate(fd(), 0) == 0) return true;
    error = errno_text("empty", m_folder.path_of(name()));
    return false;
}

bool PartFile::commit(std::string& error) {
    if (fchmod(fd(), 0644) != 0 || fsync(fd()) != 0) {
        error = errno_text("write", m_folder.path_of(name()));
        return false;
    }
    const int folder = m_folder.fd();
    if (renameat(folder, name().c_str(), folder, m_name.c_str()) != 0) {
        error = errno_text("rename", m_folder.path_of(name()));
        return false;
    }
    m_fd.reset();
    if (fsync(folder) != 0) {
        error = errno_text("sync the folder of", m_folder.path_of(m_name));
        return false;
    }
    return true;
}

}  // namespace ad_agent
