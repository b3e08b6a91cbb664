/**
 * Tells when a file has new content.
 */
#pragma once

#include "descriptor.h"

#include <functional>
#include <string>

#include <glib.h>
#include <sys/inotify.h>

namespace simulated_platform {

/**
 * Watches a file through inotify(7), as a source of GLib's default main
 * context.
 *
 * What is watched is the file's directory, so that a file renamed over the old
 * one is seen too; while the directory is missing, its nearest ancestor that is
 * there. A file counts as new when it was closed after writing or moved to its
 * place, and when its directory came into being. Its removal does not count,
 * nor do a mount over the directory and a hard link, which inotify tells
 * nothing of that would be worth a wake-up.
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

    /** 0, or the errno(3) of inotify_init1(2) that keeps this from watching. */
    int error() const { return error_; }

private:
    struct Found {
        bool content = false;
        bool place = false;
    };

    static gboolean dispatch(gint fd, GIOCondition condition, gpointer self);
    Found drain();
    void take(const inotify_event& event, Found& found) const;
    void follow();
    bool follow_once();

    std::string path_;
    std::string name_;
    std::function<void()> on_new_;
    Descriptor inotify_;
    int error_ = 0;
    GSource* source_ = nullptr;
    int watch_ = -1;
    /** The name below the watched directory that leads on to the file. */
    std::string awaited_;
    bool at_directory_ = false;
};

}  // namespace simulated_platform
