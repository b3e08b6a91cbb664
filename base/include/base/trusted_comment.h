/**
 * What the trusted comment of an image's signature states about the image. No exceptions, no
 * allocation.
 */
#pragma once

#include "base/decimal_version.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace base {

/** The length of the longest product name, and of the longest firmware version. */
constexpr size_t max_product_length = 63;
constexpr size_t max_firmware_length = 255;

/** Whether `text` is a product's name: a word of A-Z, a-z, 0-9, ".", "_" and "-". */
inline bool is_product(std::string_view text) {
    return !text.empty() && text.size() <= max_product_length &&
           std::all_of(text.begin(), text.end(), [](char byte) {
               return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                      (byte >= '0' && byte <= '9') || byte == '.' || byte == '_' || byte == '-';
           });
}

/** Whether `text` is a firmware version: printable ASCII without blanks and backslashes. */
inline bool is_firmware_version(std::string_view text) {
    return !text.empty() && text.size() <= max_firmware_length &&
           std::all_of(text.begin(), text.end(),
                       [](char byte) { return byte > ' ' && byte <= '~' && byte != '\\'; });
}

/** Whether `text` is a time of ISO 8601 in UTC, to the second: 2026-11-21T10:00:00Z. */
inline bool is_utc_time(std::string_view text) {
    constexpr std::string_view shape = "0000-00-00T00:00:00Z";
    if (text.size() != shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != shape[i]) {
            return false;
        }
    }
    const auto two_digits = [text](size_t at) {
        return (text[at] - '0') * 10 + (text[at + 1] - '0');
    };
    const int year = two_digits(0) * 100 + two_digits(2);
    const int month = two_digits(5);
    const int day = two_digits(8);
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const bool short_month = month == 4 || month == 6 || month == 9 || month == 11;
    const int february = leap ? 29 : 28;
    const int days = month == 2 ? february : (short_month ? 30 : 31);
    return month >= 1 && month <= 12 && day >= 1 && day <= days && two_digits(11) < 24 &&
           two_digits(14) < 60 && two_digits(17) < 60;
}

/** The known words, without their names; views into the comment. Empty where not stated. */
struct TrustedComment {
    std::string_view version;
    std::string_view product;
    std::string_view min_firmware;
    std::string_view max_firmware;
    std::string_view released;
};

namespace detail {

struct KnownWord {
    std::string_view name;
    std::string_view TrustedComment::*value;
    bool (*is_valid)(std::string_view text);
    const char* malformed;
    const char* repeated;
};

inline constexpr KnownWord known_words[] = {
    {"version:", &TrustedComment::version, is_decimal_version,
     "signed comment states a malformed version", "signed comment states two versions"},
    {"product:", &TrustedComment::product, is_product, "signed comment states a malformed product",
     "signed comment states two products"},
    {"min-firmware:", &TrustedComment::min_firmware, is_firmware_version,
     "signed comment states a malformed min-firmware", "signed comment states two min-firmwares"},
    {"max-firmware:", &TrustedComment::max_firmware, is_firmware_version,
     "signed comment states a malformed max-firmware", "signed comment states two max-firmwares"},
    {"released:", &TrustedComment::released, is_utc_time,
     "signed comment states a malformed release time", "signed comment states two release times"},
};

// Stores the value of a word that is known. Returns why it is rejected, or null.
inline const char* take_word(std::string_view word, TrustedComment& comment) {
    for (const KnownWord& known : known_words) {
        if (word.compare(0, known.name.size(), known.name) != 0) {
            continue;
        }
        word.remove_prefix(known.name.size());
        if (!known.is_valid(word)) {
            return known.malformed;
        }
        if (!(comment.*known.value).empty()) {
            return known.repeated;
        }
        comment.*known.value = word;
        return nullptr;
    }
    return nullptr;
}

}  // namespace detail

/**
 * Parses the text after "trusted comment: ": words separated by blanks or tabs. Unknown ones are
 * skipped; a version is required. Returns null, or why the comment is rejected. `comment` points
 * into `text`, of which nothing is verified here.
 */
inline const char* parse_trusted_comment(std::string_view text, TrustedComment& comment) {
    comment = {};
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(" \t"), text.size());
        // Not substr(), which would link the support for exceptions.
        const char* rejection = detail::take_word({text.data(), end}, comment);
        if (rejection != nullptr) {
            return rejection;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return comment.version.empty() ? "signed comment does not state a version" : nullptr;
}

}  // namespace base
