/**
 * The folder that holds the library's files, and how a file in it is replaced:
 * written aside, fsync(2)ed, renamed, and the folder fsync(2)ed, so that a reader
 * sees the old file or the new one, whole, also after a power cut.
 */
#ifndef AD_AGENT_DATA_FOLDER_H
#define AD_AGENT_DATA_FOLDER_H

#include "unique_fd.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ad_agent {

inline constexpr char PART_SUFFIX[] = ".part";

class DataFolder {
public:
    /** Opens a folder that is there. @return none with the reason in error */
    static std::optional<DataFolder> open(const std::string& path, std::string& error);

    /**
     * Opens a folder and makes it first, with its parents and mode 0755, where it
     * is missing and the process may. @return none with the reason in error
     */
    static std::optional<DataFolder> make(const std::string& path, std::string& error);

    int fd() const { return m_fd.get(); }
    std::string path_of(const std::string& name) const { return m_path + "/" + name; }

    /** Gives a regular file's size in bytes, or none when there is no such file. */
    std::optional<std::uint64_t> size_of(const std::string& name) const;

    /** Gives a small file's contents; none when it is not there, not regular or too long. */
    std::optional<std::string> read(const std::string& name, std::uint64_t max_bytes) const;

    /** Removes a file that may be there. */
    void remove(const std::string& name) const;

    /**
     * Removes the part files of processes that were killed.
     * @param kept  the name of a file whose part file stays
     */
    void remove_parts(const std::string& kept) const;

    /** Gives the bytes that this process may still write here. */
    std::uint64_t free_bytes() const;

    /** Replaces a file's contents. @return whether it did, with the reason in error */
    bool write(const std::string& name, const std::string& text, std::string& error) const;

private:
    DataFolder(std::string path, UniqueFd fd) : m_path(std::move(path)), m_fd(std::move(fd)) {}

    std::string m_path;
    UniqueFd m_fd;
};

/**
 * A file on its way into a folder. It lies there as "NAME.part" and is removed
 * unless it is committed or kept. The folder must outlive it.
 */
class PartFile {
public:
    /** Starts an empty one, in place of what an earlier process left of it. */
    static std::optional<PartFile> create(const DataFolder& folder, const std::string& name,
                                          std::string& error);

    /** Goes on with one that was kept, or starts an empty one. */
    static std::optional<PartFile> resume(const DataFolder& folder, const std::string& name,
                                          std::string& error);

    /** Removes what a process that was killed left. */
    static void remove_leftover(const DataFolder& folder, const std::string& name);

    PartFile(PartFile&& other) noexcept = default;
    PartFile& operator=(PartFile&&) = delete;
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    ~PartFile();

    int fd() const { return m_fd.get(); }
    /** Its name in the folder for now. */
    std::string name() const { return m_name + PART_SUFFIX; }

    /** Gives its size in bytes. */
    std::uint64_t size() const { return m_folder.size_of(name()).value_or(0); }

    /** Takes all bytes away. @return whether it did, with the reason in error */
    bool clear(std::string& error);

    /** Leaves it for a later resume(). */
    void keep() { m_fd.reset(); }

    /** Puts it in its place, readable by all. @return whether it did, with the reason in error */
    bool commit(std::string& error);

private:
    PartFile(const DataFolder& folder, std::string name, UniqueFd fd)
        : m_folder(folder), m_name(std::move(name)), m_fd(std::move(fd)) {}

    const DataFolder& m_folder;
    std::string m_name;
    UniqueFd m_fd;  // given up by a move, a commit and keep()
};

}  // namespace ad_agent

#endif
