#include "json.h"
#include "status.h"

namespace ad_ctl {
namespace {

using ad_agent::RefusedImage;

/** Grows with changes that a reader of the document could not ignore. */
constexpr int document_format = 1;

const char* name_of(ServiceState state) {
    switch (state) {
        case ServiceState::running:
            return "running";
        case ServiceState::starting:
            return "starting";
        case ServiceState::failed:
            return "failed";
        default:
            return "stopped";
    }
}

Json texts(const std::vector<std::string>& lines) {
    std::vector<Json> elements;
    elements.reserve(lines.size());
    for (const std::string& line : lines) {
        elements.push_back(json_text(line));
    }
    return json_array(elements);
}

Json service_json(const Service& service) {
    return json_object({{"state", json_text(name_of(service.state))},
                        {"pid", service.pid != 0 ? json_number(service.pid) : json_null()},
                        {"started", json_time(service.started)}});
}

Json choice_json(const Choice& choice, const std::string& version, const Json& seen) {
    return json_object({{"copy", json_text(name_of(choice.copy))},
                        {"version", json_optional(version)},
                        {"reason", json_text(name_of(choice.reason))},
                        {"detail", json_text(choice.detail)},
                        {"seen", seen}});
}

Json image_json(const Status& status) {
    if (!status.snapshot.image) {
        return json_null();
    }
    const StoredImage& image = *status.snapshot.image;
    const ad_agent::ImageTrailer& trailer = image.trailer;
    return json_object({{"size", json_number(static_cast<std::int64_t>(image.size))},
                        {"version", json_optional(trailer.version)},
                        {"product", json_optional(trailer.target.product)},
                        {"min_firmware", json_optional(trailer.target.min_firmware)},
                        {"max_firmware", json_optional(trailer.target.max_firmware)},
                        {"released", json_optional(trailer.released)},
                        {"key", json_optional(trailer.key_id)},
                        {"key_installed", json_boolean(status.has_key)},
                        {"verified", json_boolean(status.is_verified)},
                        {"rejection", json_optional(trailer.rejection.value_or(""))},
                        {"bad", json_optional(image.bad ? reason_text(*image.bad) : "")}});
}

Json download_json(const Status& status) {
    if (!status.download) {
        return json_null();
    }
    const Download& download = *status.download;
    return json_object(
        {{"version", json_optional(download.version)},
         {"received", json_number(static_cast<std::int64_t>(download.received))},
         {"size",
          download.size != 0 ? json_number(static_cast<std::int64_t>(download.size)) : json_null()},
         {"complete", json_boolean(download.is_complete)}});
}

Json server_json(const Status& status) {
    const Snapshot& snapshot = status.snapshot;
    const auto& index = snapshot.index;
    return json_object(
        {{"url", json_optional(snapshot.settings ? snapshot.settings->server_url : "")},
         {"checked", json_time(snapshot.state.check_time)},
         {"checked_url", json_optional(snapshot.state.check_url)},
         {"result", json_optional(snapshot.state.check_result)},
         {"index_version", json_optional(index && *index ? (*index)->version : "")},
         {"index_refused", json_optional(index ? "" : index.error().message)},
         {"next_try", json_text(status.next_try)},
         {"not_before", json_time(status.not_before)}});
}

Json readiness_json(const Status& status) {
    JsonMembers members;
    for (const Check& check : status.readiness) {
        members.emplace_back(check.name, json_object({{"state", json_text(name_of(check.state))},
                                                      {"detail", json_text(check.detail)}}));
    }
    return json_object(members);
}

/** What is common to all refused images. */
JsonMembers refused_members(const RefusedImage& image) {
    return {{"version", json_optional(image.version)},
            {"sha256", json_text(image.sha256)},
            {"time", json_time(image.time)},
            {"reason", json_optional(image.reason)}};
}

Json bad_images_json(const Snapshot& snapshot) {
    std::vector<Json> elements;
    for (const auto& [list, finder] :
         {std::pair(&snapshot.state.bad, "agent"), std::pair(&snapshot.guarded, "guard")}) {
        for (const RefusedImage& image : list->all()) {
            JsonMembers members = refused_members(image);
            members.emplace_back("found_by", json_text(finder));
            elements.push_back(json_object(members));
        }
    }
    return json_array(elements);
}

Json wrong_images_json(const Snapshot& snapshot) {
    std::vector<Json> elements;
    for (const RefusedImage& image : snapshot.state.wrong.all()) {
        JsonMembers members = refused_members(image);
        members.emplace_back("count", json_number(image.count));
        members.emplace_back("not_before", json_time(retry_time(image)));
        elements.push_back(json_object(members));
    }
    return json_array(elements);
}

Json guard_json(const Status& status) {
    const ad_guard::Record& record = status.snapshot.record;
    if (record.library.empty()) {
        return json_null();
    }
    return json_object({{"library", json_text(record.library)},
                        {"starts", json_number(record.starts)},
                        {"confirmed", json_boolean(record.confirmed)},
                        {"failed", json_number(record.failed)},
                        {"interrupted", json_number(record.interrupted)},
                        {"failures_in_24_hours", json_number(status.recent_failures)},
                        {"last_ending", json_optional(record.last_ending)}});
}

}  // namespace

std::string to_json(const Status& status) {
    const Snapshot& snapshot = status.snapshot;
    const auto version_of = [&](const Choice& choice) {
        return choice.copy == Copy::none        ? std::string()
               : choice.copy == Copy::updatable ? snapshot.facts.recorded
                                                : snapshot.facts.builtin;
    };
    const bool is_seen = snapshot.service.loaded != LoadedCopy::unknown;
    return json_document(
        {{"format", json_number(document_format)},
         {"time", json_time(snapshot.time)},
         {"health", json_text(name_of(status.health))},
         {"problems", texts(status.problems)},
         {"service", service_json(snapshot.service)},
         {"running",
          choice_json(status.running, version_of(status.running), json_boolean(is_seen))},
         {"next_start", choice_json(status.next, version_of(status.next), json_null())},
         {"firmware", json_object({{"current", json_optional(snapshot.facts.device.firmware)},
                                   {"recorded", json_optional(snapshot.recorded_firmware)},
                                   {"copy_version", json_text(snapshot.facts.builtin)}})},
         {"installed_version", json_text(snapshot.facts.recorded)},
         {"highest_version", json_text(snapshot.facts.floor)},
         {"image", image_json(status)},
         {"download", download_json(status)},
         {"server", server_json(status)},
         {"readiness", readiness_json(status)},
         {"bad_images", bad_images_json(snapshot)},
         {"wrong_images", wrong_images_json(snapshot)},
         {"guard", guard_json(status)},
         {"unseen", texts(snapshot.unseen)}});
}

}  // namespace ad_ctl
