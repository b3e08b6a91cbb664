#include "manifest.h"

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "path.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace ad_mounter {

namespace {

constexpr const char* manifest_name = "zelADAgent.xml";
constexpr size_t max_manifest_size = 16384;
constexpr const char* blanks = " \t\r\n";

// The rest of a manifest, consumed from the front.
class Markup {
public:
    explicit Markup(std::string_view text) : rest_(text) {}

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

    // Consumes a start tag after its "<". `empty` stands for "<name/>".
    bool consume_tag(std::string_view& name, bool& empty) {
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

    // Consumes text up to the end tag of `name`; returns it without surrounding blanks.
    bool consume_text(std::string_view name, std::string_view& text) {
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
        // Character references are not resolved.
        return text.find('&') == std::string_view::npos;
    }

private:
    std::string_view rest_;
};

// Skips a comment or a processing instruction. False for other markup that is not an element.
bool skip_non_element(Markup& markup, bool& skipped) {
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
        if (!skip_non_element(markup, skipped)) {
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
        if (!markup.consume_tag(name, empty) || (empty && depth == 0)) {
            return false;
        }
        if (depth == 1 && name == "Version") {
            return !empty && markup.consume_text(name, version);
        }
        depth += empty ? 0 : 1;
    }
    return false;
}

}  // namespace

bool version_in_manifest(std::string_view text, char (&version)[version_size]) {
    std::string_view found;
    return find_version(Markup(text), found) && copy_version(found, version);
}

Outcome check_manifest(int top, const char* path, std::string_view version) {
    const auto reject = [path](const char* reason) {
        return Outcome::refused(EX_DATAERR, "check version of", path, reason);
    };
    const auto fail = [&reject, path](int error) {
        // A damaged file system is the image's fault.
        return error == ENOENT || error == ELOOP || error == EIO || error == EUCLEAN
                   ? reject("no readable manifest")
                   : Outcome::failed("read manifest of", path, error);
    };
    const base::UniqueFd file(
        open_entry(top, manifest_name, O_RDONLY | O_NONBLOCK | O_NOCTTY, Mounts::stay));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0) {
        return fail(errno);
    }
    static char text[max_manifest_size];
    if (!S_ISREG(status.st_mode) || status.st_size > off_t{sizeof text}) {
        return reject("manifest is not a small regular file");
    }
    const ssize_t length = base::read_full(file.get(), text, sizeof text);
    if (length < 0) {
        return fail(errno);
    }
    char found[version_size];
    if (!version_in_manifest({text, static_cast<size_t>(length)}, found)) {
        return reject("manifest does not state a version");
    }
    return version == found ? Outcome() : reject("signed for another version");
}

}  // namespace ad_mounter
