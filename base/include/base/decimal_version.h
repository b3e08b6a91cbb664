/**
 * Versions of images: decimal fractions such as 1.05, compared exactly. No exceptions, no
 * allocation.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace base {

/** The length of the longest version. */
constexpr size_t max_version_length = 19;

namespace detail {

inline bool has_only_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](char byte) { return byte >= '0' && byte <= '9'; });
}

// The part before the decimal point and the one after it, which may be empty.
struct DecimalParts {
    std::string_view whole;
    std::string_view fraction;
};

// Not substr(), which would link the support for exceptions.
inline DecimalParts split_decimal(std::string_view text) {
    const size_t point = std::min(text.find('.'), text.size());
    const size_t rest = std::min(point + 1, text.size());
    return {{text.data(), point}, {text.data() + rest, text.size() - rest}};
}

}  // namespace detail

/** Whether `text` is a version: digits, or digits, a point and digits; 19 characters at most. */
inline bool is_decimal_version(std::string_view text) {
    const detail::DecimalParts parts = detail::split_decimal(text);
    return text.size() <= max_version_length && detail::has_only_digits(parts.whole) &&
           (parts.whole.size() == text.size() || detail::has_only_digits(parts.fraction));
}

/**
 * Compares two versions as numbers, without rounding: 1.1 equals 1.10 and is lower than 1.9.
 * Returns a value below, equal to or above 0, as strcmp(3) does. Both must be versions.
 */
inline int compare_versions(std::string_view one, std::string_view other) {
    detail::DecimalParts a = detail::split_decimal(one);
    detail::DecimalParts b = detail::split_decimal(other);
    for (std::string_view* whole : {&a.whole, &b.whole}) {
        whole->remove_prefix(std::min(whole->find_first_not_of('0'), whole->size()));
    }
    for (std::string_view* fraction : {&a.fraction, &b.fraction}) {
        fraction->remove_suffix(fraction->size() - 1 - fraction->find_last_not_of('0'));
    }
    if (a.whole.size() != b.whole.size()) {
        return a.whole.size() < b.whole.size() ? -1 : 1;
    }
    const int whole = a.whole.compare(b.whole);
    // A fraction that is the beginning of a longer one is the lower one, as compare() has it.
    return whole != 0 ? whole : a.fraction.compare(b.fraction);
}

}  // namespace base
