/**
 * JSON texts (RFC 8259), put together from the inside out.
 */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ad_ctl {

/** A JSON value as text. */
struct Json {
    std::string text;
};

Json json_text(const std::string& text);
/** An empty text becomes null. */
Json json_optional(const std::string& text);
Json json_number(std::int64_t number);
Json json_boolean(bool value);
Json json_null();
/** A point in time as ISO 8601, 0 as null. */
Json json_time(std::int64_t seconds);

using JsonMembers = std::vector<std::pair<std::string, Json>>;

Json json_object(const JsonMembers& members);
Json json_array(const std::vector<Json>& elements);

/** The outermost object: one member on each line. */
std::string json_document(const JsonMembers& members);

}  // namespace ad_ctl
