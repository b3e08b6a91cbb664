#include "file_watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <glib-unix.h>

namespace simulated_platform {

namespace {

constexpr uint32_t directory_events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR;
constexpr uint32_t ancestor_events = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;

}  // namespace

FileWatch::FileWatch(std::string path, std::function<void()> on_new)
    : path_(std::move(path)),
      on_new_(std::move(on_new)),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!inotify_) {
        error_ = errno;
        return;
    }
    follow();
    source_.reset(g_unix_fd_source_new(inotify_.get(), G_IO_IN));
    // GLib's own cast: the source calls its function with this type's arguments.
    g_source_set_callback(source_.get(), G_SOURCE_FUNC(&FileWatch::dispatch), this, nullptr);
    g_source_attach(source_.get(), nullptr);
}

FileWatch::~FileWatch() {
    if (source_) {
        g_source_destroy(source_.get());
    }
}

gboolean FileWatch::dispatch(gint /*inotify*/, GIOCondition /*condition*/, gpointer self) {
    auto* watch = static_cast<FileWatch*>(self);
    Found found = watch->drain();
    if (found.is_new_directory) {
        watch->follow();
        found.is_new_content = watch->reaches_directory();
    }
    if (found.is_new_content) {
        watch->on_new_();
    }
    return G_SOURCE_CONTINUE;
}

FileWatch::Found FileWatch::drain() {
    Found found;
    alignas(inotify_event) std::array<char, 4096> buffer;
    ssize_t size = 0;
    while ((size = read(inotify_.get(), buffer.data(), buffer.size())) > 0) {
        const char* next = buffer.data();
        while (next < buffer.data() + size) {
            const auto* event = reinterpret_cast<const inotify_event*>(next);
            take(*event, found);
            next += sizeof *event + event->len;
        }
    }
    return found;
}

void FileWatch::take(const inotify_event& event, Found& found) const {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        // Events were lost: look at everything again.
        found.is_new_directory = true;
    }
    for (const Watch& watch : watches_) {
        if (watch.descriptor == event.wd && event.len != 0 && watch.component == event.name) {
            (watch.is_last ? found.is_new_content : found.is_new_directory) = true;
        }
    }
}

/**
 * Watches each directory on the way to the file. From the root down, so that a
 * directory created after its parent was looked at makes an event there.
 */
void FileWatch::follow() {
    const std::vector<Watch> earlier = std::exchange(watches_, {});
    std::size_t slash = 0;
    for (bool is_last = false; !is_last;) {
        const std::string directory = slash == 0 ? "/" : path_.substr(0, slash);
        const std::size_t next = path_.find('/', slash + 1);
        is_last = next == std::string::npos;
        const int descriptor = inotify_add_watch(inotify_.get(), directory.c_str(),
                                                 is_last ? directory_events : ancestor_events);
        if (descriptor < 0) {
            error_ = errno == ENOENT || errno == ENOTDIR ? 0 : errno;
            break;
        }
        watches_.push_back({descriptor, path_.substr(slash + 1, next - slash - 1), is_last});
        slash = next;
    }
    for (const Watch& old : earlier) {
        const bool is_kept =
            std::any_of(watches_.begin(), watches_.end(),
                        [&old](const Watch& watch) { return watch.descriptor == old.descriptor; });
        if (!is_kept) {
            inotify_rm_watch(inotify_.get(), old.descriptor);
        }
    }
}

}  // namespace simulated_platform
