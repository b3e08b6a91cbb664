/**
 * Tells when a file has new content.
 */
#pragma once

#include "descriptor.h"

#include <functional>
#include <string>
#include <vector>

#include <glib.h>
#include <sys/inotify.h>

namespace simulated_platform {

/**
 * Watches a file through inotify(7), as a source of GLib's default main
 * context.
 *
 * What is watched is the file's directory, so that a file renamed over the old
 * one is seen too, and the directories that lead there, so that it may be made
 * later or anew. A file counts as new when it was closed after writing or moved
 * to its place, and when its directory came into being. Its removal does not
 * count, nor do a hard link and a mount over a directory.
 */
class FileWatch {
public:
    /**
     * @param path    absolute
     * @param on_new  called by the main context, once for all that has piled up
     *                since it ran last; it may read the file but not destroy
     *                the watch
     */
    FileWatch(std::string path, std::function<void()> on_new);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    /** 0, or the errno(3) of what kept this from watching when it was made. */
    int error() const { return error_; }

private:
    struct Watch {
        int descriptor;
        /** The name in that directory that leads on to the file, or is its own. */
        std::string awaited;
        bool is_last;
    };
    struct Found {
        bool content = false;
        bool place = false;
    };

    static gboolean dispatch(gint inotify, GIOCondition condition, gpointer self);
    Found drain();
    void take(const inotify_event& event, Found& found) const;
    void follow();
    bool reaches_directory() const { return !watches_.empty() && watches_.back().is_last; }

    std::string path_;
    std::function<void()> on_new_;
    Descriptor inotify_;
    int error_ = 0;
    GSource* source_ = nullptr;
    /** From the root down, as far as there are directories. */
    std::vector<Watch> watches_;
};

}  // namespace simulated_platform
