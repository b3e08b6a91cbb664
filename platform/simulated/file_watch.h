/**
 * Notices new content of a file.
 */
#pragma once

#include "base/glib_owned.h"
#include "base/unique_fd.h"

#include <functional>
#include <string>
#include <vector>

#include <glib.h>
#include <sys/inotify.h>

namespace simulated_platform {

/**
 * Watches a file through inotify(7), as a source of GLib's default main context.
 *
 * It watches the file's directory, so that a file renamed over the old one is
 * noticed too, and that directory's ancestors, so that the directory may be
 * created or replaced later. A file counts as new when it was closed after
 * writing or moved into place, and when its directory appeared. Removing it does
 * not count, and neither do a hard link and a mount over a directory.
 */
class FileWatch {
public:
    /**
     * @param path    absolute
     * @param on_new  called by the main context, once for everything since its
     *                last call; it may read the file but not destroy the watch
     */
    FileWatch(std::string path, std::function<void()> on_new);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    /** 0, or the errno(3) value with which the watch could not be set up. */
    int error() const { return error_; }

private:
    struct Watch {
        int descriptor;
        /** The next component of the file's path in that directory. */
        std::string component;
        bool is_last;
    };
    struct Found {
        bool is_new_content = false;
        bool is_new_directory = false;
    };

    static gboolean dispatch(gint inotify, GIOCondition condition, gpointer self);
    Found drain();
    void take(const inotify_event& event, Found& found) const;
    void follow();
    bool reaches_directory() const { return !watches_.empty() && watches_.back().is_last; }

    std::string path_;
    std::function<void()> on_new_;
    base::UniqueFd inotify_;
    int error_ = 0;
    base::Owned<GSource> source_;
    /** From the root down, as far as the directories exist. */
    std::vector<Watch> watches_;
};

}  // namespace simulated_platform
