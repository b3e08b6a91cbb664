#include "log.h"

#include <algorithm>

#include <glib.h>
#include <unistd.h>

namespace ad_agent {
namespace {

bool is_printable(gunichar character) {
    const GUnicodeType type = g_unichar_type(character);
    return g_unichar_isprint(character) && type != G_UNICODE_LINE_SEPARATOR &&
           type != G_UNICODE_PARAGRAPH_SEPARATOR && type != G_UNICODE_PRIVATE_USE;
}

/** Appends an escape with at least so many hexadecimal digits. */
void escape(std::string& line, const char* prefix, int digits, unsigned value) {
    constexpr char hex_digits[] = "0123456789abcdef";
    line += prefix;
    for (int shift = std::max(digits, value > 0xffff ? 6 : 0) * 4; shift > 0;) {
        shift -= 4;
        line += hex_digits[value >> shift & 0xf];
    }
}

}  // namespace

std::string printable(const std::string& text, std::size_t max_length) {
    constexpr char cut[] = "...";
    std::string line;
    std::size_t length_if_cut = 0;
    const char* const end = text.data() + text.size();
    for (const char* next = text.data(); next < end;) {
        const gunichar character = g_utf8_get_char_validated(next, end - next);
        const bool is_valid = g_unichar_validate(character) && character != 0;
        const std::ptrdiff_t size = is_valid ? g_utf8_next_char(next) - next : 1;
        if (is_valid && is_printable(character)) {
            line.append(next, static_cast<std::size_t>(size));
        } else if (is_valid && character > 0x7f) {
            escape(line, "\\u", 4, character);
        } else {
            escape(line, "\\x", 2, static_cast<unsigned char>(*next));
        }
        next += size;
        if (line.size() > max_length) {
            return line.substr(0, length_if_cut) + cut;
        }
        if (line.size() + sizeof cut - 1 <= max_length) {
            length_if_cut = line.size();
        }
    }
    return line;
}

void log_line(const std::string& message) {
    const std::string line = printable("ad-agent: " + message, max_log_line - 1) + '\n';
    // There is nowhere to report a failure.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace ad_agent
