#include "trusted_index.h"

#include "cached_document.h"
#include "index_acceptance.h"
#include "index_signature.h"
#include "log.h"

#include <algorithm>
#include <ctime>

namespace ad_agent {
namespace {

constexpr char index_path[] = "/update.ini";
constexpr char index_name[] = "update.ini";
constexpr std::uint64_t max_index_size = 64ULL * 1024;

/** Returns where the index is, and a check that accepts it into `accepted`. */
DocumentSource index_source(const IndexKeys& keys, const DeviceState& state,
                            AcceptedIndex& accepted) {
    // Of the cached index, too: a server cannot keep one alive by confirming it.
    const auto validate = [&keys, &state, &accepted,
                           now = std::time(nullptr)](const std::string& text) -> Result<> {
        auto result = accept_index(text, keys, state.index_serials, now);
        if (!result) {
            return Failure(result.error());
        }
        accepted = std::move(*result);
        return {};
    };
    return {index_path, index_name, max_index_size, validate};
}

/** Remembers the serial number of an accepted index. */
Result<> record_serial(const DataDirectory& directory, const AcceptedIndex& accepted,
                       const IndexKeys& keys, DeviceState& state) {
    IndexSerials serials = serials_of(keys, state.index_serials);
    const auto known = std::find_if(serials.begin(), serials.end(), [&](const auto& entry) {
        return entry.first == accepted.key_id;
    });
    if (known == serials.end()) {
        serials.emplace_back(accepted.key_id, accepted.serial);
    } else {
        known->second = accepted.serial;
    }
    if (serials == state.index_serials) {
        return {};
    }
    state.index_serials = std::move(serials);
    return write_state(directory, state);
}

void warn_not_authenticated(const Settings& settings, const std::string& key_directory) {
    const bool is_plain = settings.server_url.compare(0, 5, "http:") == 0 || !settings.verify;
    log_line("update: index not authenticated: no key in " + key_directory +
             (is_plain
                  ? ", and anyone on the network can replace what " + settings.server_url + " sends"
                  : ""));
}

}  // namespace

std::string index_url(const Settings& settings) { return settings.server_url + index_path; }

Result<UpdateIndex> fetch_index(const Settings& settings, const DataDirectory& directory,
                                const std::string& key_directory, DeviceState& state) {
    const auto keys = load_index_keys(key_directory);
    if (!keys) {
        return Failure(keys.error());
    }
    if (keys->empty()) {
        warn_not_authenticated(settings, key_directory);
    }
    AcceptedIndex accepted;
    const auto document = fetch_document(settings, directory, index_source(*keys, state, accepted));
    if (!document) {
        return Failure(document.error());
    }
    if (!keys->empty()) {
        const auto recorded = record_serial(directory, accepted, *keys, state);
        if (!recorded) {
            return Failure(recorded.error());
        }
    }
    return accepted.index;
}

Result<std::optional<UpdateIndex>> read_cached_index(const DataDirectory& directory,
                                                     const std::string& key_directory,
                                                     const DeviceState& state) {
    const auto keys = load_index_keys(key_directory);
    if (!keys) {
        return Failure(keys.error());
    }
    const auto text = directory.read(index_name, max_index_size);
    if (!text) {
        return std::optional<UpdateIndex>();
    }
    auto accepted = accept_index(*text, *keys, state.index_serials, std::time(nullptr));
    if (!accepted) {
        return Failure(accepted.error());
    }
    return std::optional<UpdateIndex>(std::move(accepted->index));
}

Result<UpdateIndex> probe_index(const Settings& settings, const std::string& key_directory,
                                const DeviceState& state) {
    const auto keys = load_index_keys(key_directory);
    if (!keys) {
        return Failure(keys.error());
    }
    AcceptedIndex accepted;
    const auto text = fetch_uncached(settings, index_source(*keys, state, accepted));
    if (!text) {
        return Failure(text.error());
    }
    return accepted.index;
}

}  // namespace ad_agent
