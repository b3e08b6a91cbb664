#include "state_store.h"

#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include <glib.h>

namespace simulated_platform {

StateStore::StateStore(std::string path, Listener on_load, Reporter report)
    : path_(std::move(path)),
      on_load_(std::move(on_load)),
      report_(std::move(report)),
      // Before the first reading, so that no edit falls between the two.
      watch_(path_, [this] { reload(); }) {
    if (watch_.error() != 0)
        report_(path_ + ": edits will go unnoticed: inotify: " + strerror(watch_.error()));
    load(state_);
}

void StateStore::reload() {
    State next;
    if (!load(next)) return;
    const std::vector<Change> changes = changes_between(state_, next);
    state_ = std::move(next);
    on_load_(changes);
}

bool StateStore::load(State& state) {
    gchar* content = nullptr;
    gsize size = 0;
    GError* error = nullptr;
    const bool is_read = g_file_get_contents(path_.c_str(), &content, &size, &error);
    const std::unique_ptr<gchar, decltype(&g_free)> content_owner(content, g_free);
    const std::unique_ptr<GError, decltype(&g_error_free)> error_owner(error, g_error_free);
    if (!is_read) {
        const bool is_missing = g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT);
        if (is_missing && is_missing_known_) return false;
        is_missing_known_ = is_missing;
        report_(std::string(error->message) + "; the state stays as it is");
        return false;
    }
    is_missing_known_ = false;
    std::string reason;
    std::optional<State> parsed = parse_state({content, size}, reason);
    if (!parsed) {
        report_(path_ + ": " + reason + "; the state stays as it is");
        return false;
    }
    state = std::move(*parsed);
    return true;
}

}  // namespace simulated_platform
