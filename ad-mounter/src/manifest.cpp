#include "manifest.h"

#include "pinned_path.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* manifest_name = "zelADAgent.xml";
// Far more than a manifest has.
constexpr size_t longest_manifest = 16384;
constexpr const char* blanks = " \t\r\n";

// Markup, taken from the front.
class Markup {
public:
    Markup(const char* text, size_t length) : rest_(text, length) {}

    bool skip(std::string_view expected) {
        if (rest_.compare(0, expected.size(), expected) != 0) {
            return false;
        }
        rest_.remove_prefix(expected.size());
        return true;
    }

    bool skip_past(std::string_view end) {
        const size_t at = rest_.find(end);
        if (at == std::string_view::npos) {
            return false;
        }
        rest_.remove_prefix(at + end.size());
        return true;
    }

    // The rest of a start tag behind its "<". `empty` is for "<name/>".
    bool take_tag(std::string_view& name, bool& empty) {
        const size_t end = rest_.find_first_of(" \t\r\n/><");
        if (end == std::string_view::npos || end == 0) {
            return false;
        }
        name = {rest_.data(), end};
        rest_.remove_prefix(end);
        for (;;) {
            const size_t stop = rest_.find_first_of("\"'/><");
            if (stop == std::string_view::npos || rest_[stop] == '<') {
                return false;
            }
            const char mark = rest_[stop];
            rest_.remove_prefix(stop + 1);
            empty = mark == '/';
            if (mark == '>' || mark == '/') {
                return mark == '>' || skip(">");
            }
            if (!skip_past(mark == '"' ? "\"" : "'")) {
                return false;
            }
        }
    }

    // Text up to the end tag of `name`, without the blanks around it.
    bool take_text(std::string_view name, std::string_view& text) {
        const size_t end = rest_.find('<');
        if (end == std::string_view::npos) {
            return false;
        }
        text = {rest_.data(), end};
        rest_.remove_prefix(end + 1);
        const size_t from = text.find_first_not_of(blanks);
        if (from == std::string_view::npos || !skip("/") || !skip(name)) {
            return false;
        }
        text.remove_prefix(from);
        text.remove_suffix(text.size() - 1 - text.find_last_not_of(blanks));
        // References to characters are not resolved here.
        return text.find('&') == std::string_view::npos;
    }

private:
    std::string_view rest_;
};

// What is no element. False when it has no end or is of a kind not expected here.
bool skip_other(Markup& markup, bool& skipped) {
    skipped = true;
    if (markup.skip("!--")) {
        return markup.skip_past("-->");
    }
    if (markup.skip("?")) {
        return markup.skip_past("?>");
    }
    skipped = false;
    return !markup.skip("!");
}

bool find_version(Markup markup, std::string_view& version) {
    int depth = 0;
    while (markup.skip_past("<")) {
        bool skipped = false;
        if (!skip_other(markup, skipped)) {
            return false;
        }
        if (skipped) {
            continue;
        }
        if (markup.skip("/")) {
            if (--depth < 1 || !markup.skip_past(">")) {
                return false;
            }
            continue;
        }
        std::string_view name;
        bool empty = false;
        if (!markup.take_tag(name, empty) || (empty && depth == 0)) {
            return false;
        }
        if (depth == 1 && name == "Version") {
            return !empty && markup.take_text(name, version);
        }
        depth += empty ? 0 : 1;
    }
    return false;
}

}  // namespace

bool version_in_manifest(const char* text, size_t length, char (&version)[version_size]) {
    std::string_view found;
    return find_version(Markup(text, length), found) && keep_version(found, version);
}

Outcome check_manifest(int top, const char* path, const char* version) {
    constexpr const char* step = "comparing the version";
    const UniqueFd file(
        open_beneath(top, manifest_name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::stay));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        return errno == ENOENT || errno == ELOOP || errno == EIO || errno == EUCLEAN
                   ? Outcome::refused(EX_DATAERR, step, path, "it has no manifest")
                   : Outcome::failed(step, path, errno);
    }
    static char text[longest_manifest];
    const ssize_t length = S_ISREG(status.st_mode) && status.st_size <= ssize_t{sizeof text}
                               ? read(file.get(), text, sizeof text)
                               : -1;
    char found[version_size];
    if (length < 0 || !version_in_manifest(text, static_cast<size_t>(length), found)) {
        return Outcome::refused(EX_DATAERR, step, path, "its manifest names no version");
    }
    return strcmp(found, version) == 0
               ? Outcome()
               : Outcome::refused(EX_DATAERR, step, path, "it is signed for another version");
}

}  // namespace ad_mounter
