#include "file_watch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <glib-unix.h>
#include <sys/stat.h>

namespace simulated_platform {

namespace {

constexpr uint32_t gone_events = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t directory_events = IN_CLOSE_WRITE | IN_MOVED_TO | gone_events | IN_ONLYDIR;
constexpr uint32_t ancestor_events = IN_CREATE | IN_MOVED_TO | gone_events | IN_ONLYDIR;

/** How often to look again when a folder appears while its parent gets watched. */
constexpr int follow_tries = 16;

std::string parent_of(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

bool is_directory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

FileWatch::FileWatch(std::string path, std::function<void()> on_new)
    : path_(std::move(path)),
      name_(name_of(path_)),
      on_new_(std::move(on_new)),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!inotify_) {
        error_ = errno;
        return;
    }
    follow();
    source_ = g_unix_fd_source_new(inotify_.get(), G_IO_IN);
    // GLib's own cast: the source calls this type back through a plain one.
    g_source_set_callback(source_, G_SOURCE_FUNC(&FileWatch::dispatch), this, nullptr);
    g_source_attach(source_, nullptr);
}

FileWatch::~FileWatch() {
    if (!source_) return;
    g_source_destroy(source_);
    g_source_unref(source_);
}

gboolean FileWatch::dispatch(gint, GIOCondition, gpointer self) {
    auto* watch = static_cast<FileWatch*>(self);
    Found found = watch->drain();
    if (found.place) {
        watch->follow();
        found.content = watch->at_directory_;
    }
    if (found.content) watch->on_new_();
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
    if (event.mask & IN_Q_OVERFLOW) found.place = true;
    if (event.wd != watch_) return;
    if (event.mask & (gone_events | IN_IGNORED)) {
        found.place = true;
    } else if (event.len > 0 && awaited_ == event.name) {
        (at_directory_ ? found.content : found.place) = true;
    }
}

void FileWatch::follow() {
    for (int tries = 0; tries < follow_tries; ++tries)
        if (follow_once()) return;
}

/** False when the way to the file grew meanwhile. */
bool FileWatch::follow_once() {
    const int earlier = watch_;
    watch_ = -1;
    std::string below = path_;
    while (watch_ < 0 && below != "/") {
        const std::string directory = parent_of(below);
        at_directory_ = below == path_;
        watch_ = inotify_add_watch(inotify_.get(), directory.c_str(),
                                   at_directory_ ? directory_events : ancestor_events);
        if (watch_ >= 0) break;
        below = directory;
    }
    awaited_ = name_of(below);
    if (earlier >= 0 && earlier != watch_) inotify_rm_watch(inotify_.get(), earlier);
    return at_directory_ || !is_directory(below);
}

}  // namespace simulated_platform
