#include "data_folder.h"

#include <cerrno>

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>

namespace ad_agent {
namespace {

std::string part_name(const std::string& name) { return name + PART_SUFFIX; }

/** The step that failed, where, and what errno says of it. */
std::string errno_text(const std::string& step, const std::string& path) {
    const int number = errno;
    return "cannot " + step + " " + path + ": " + g_strerror(number);
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

std::optional<std::uint64_t> DataFolder::size_of(const std::string& name) const {
    struct stat status = {};
    if (fstatat(fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
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
    UniqueFd fd(openat(folder.fd(), part_name(name).c_str(),
                       O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
        error = errno_text("create", folder.path_of(part_name(name)));
        return std::nullopt;
    }
    return PartFile(folder, name, std::move(fd));
}

void PartFile::remove_leftover(const DataFolder& folder, const std::string& name) {
    unlinkat(folder.fd(), part_name(name).c_str(), 0);
}

PartFile::~PartFile() {
    if (m_fd) remove_leftover(m_folder, m_name);
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
