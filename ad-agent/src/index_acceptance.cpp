#include "index_acceptance.h"

#include "utc_time.h"

#include <algorithm>

namespace ad_agent {
namespace {

Result<> check_publication(const Publication& publication, const IndexSerials& accepted,
                           std::int64_t now) {
    std::uint64_t highest = 0;
    for (const auto& [key_id, serial] : accepted) {
        highest = std::max(highest, serial);
    }
    if (publication.serial < highest) {
        return failure("serial " + std::to_string(publication.serial) + " is older than " +
                       std::to_string(highest) + ", the highest accepted here");
    }
    if (now >= publication.issued && now >= publication.expires) {
        return failure("expired at " + format_utc(publication.expires) + ", it is " +
                       format_utc(now));
    }
    return {};
}

}  // namespace

IndexSerials serials_of(const IndexKeys& keys, const IndexSerials& all) {
    IndexSerials serials;
    for (const auto& [key_id, serial] : all) {
        const auto has_id = [&id = key_id](const base::PublicKey& key) {
            return key_id_text(key.id) == id;
        };
        if (std::any_of(keys.begin(), keys.end(), has_id)) {
            serials.emplace_back(key_id, serial);
        }
    }
    return serials;
}

Result<AcceptedIndex> accept_index(const std::string& document, const IndexKeys& keys,
                                   const IndexSerials& serials, std::int64_t now) {
    AcceptedIndex accepted;
    std::string text = document;
    if (!keys.empty()) {
        auto verified = verify_index(document, keys);
        if (!verified) {
            return failure("index refused: " + verified.error().message);
        }
        const auto publication = parse_publication(verified->text);
        const auto checked = publication.and_then([&](const Publication& read) {
            return check_publication(read, serials_of(keys, serials), now);
        });
        if (!checked) {
            return failure("index refused: " + checked.error().message);
        }
        accepted.key_id = verified->key_id;
        accepted.serial = publication->serial;
        text = std::move(verified->text);
    }
    auto index = parse_update_index(text);
    if (!index) {
        return Failure(index.error());
    }
    accepted.index = std::move(*index);
    return accepted;
}

}  // namespace ad_agent
