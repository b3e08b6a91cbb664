#include "state_store.h"

#include "base/errno_text.h"
#include "base/glib_owned.h"

#include <optional>
#include <utility>

namespace simulated_platform {

StateStore::StateStore(std::string path, Listener on_load, Reporter report)
    : path_(std::move(path)),
      on_load_(std::move(on_load)),
      report_(std::move(report)),
      // Before the first reading, so that no edit falls between the two.
      watch_(path_, [this] { reload(); }) {
    if (watch_.error() != 0) {
        report_("failed to watch " + path_ + ": " + base::errno_text(watch_.error()) +
                "; edits will not be noticed");
    }
    load(state_);
}

void StateStore::reload() {
    State next;
    if (!load(next)) {
        return;
    }
    const std::vector<Change> changes = changes_between(state_, next);
    state_ = std::move(next);
    on_load_(changes);
}

bool StateStore::load(State& state) {
    gchar* content = nullptr;
    gsize size = 0;
    GError* failure = nullptr;
    const bool is_read = g_file_get_contents(path_.c_str(), &content, &size, &failure) != FALSE;
    const base::Owned<char> text(content);
    const base::Owned<GError> error(failure);
    if (!is_read) {
        const bool is_missing =
            g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT) != FALSE;
        if (!is_missing || !is_known_missing_) {
            report_(std::string(error->message) + "; keeping the previous state");
        }
        is_known_missing_ = is_missing;
        return false;
    }
    is_known_missing_ = false;
    std::string reason;
    std::optional<State> parsed = parse_state({text.get(), size}, reason);
    if (!parsed) {
        report_(path_ + ": " + reason + "; keeping the previous state");
        return false;
    }
    state = *std::move(parsed);
    return true;
}

}  // namespace simulated_platform
