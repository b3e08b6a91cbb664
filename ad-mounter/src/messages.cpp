#include "messages.h"

#include "base/file_io.h"

#include <cstddef>
#include <cstring>

#include <unistd.h>

namespace ad_mounter {

namespace {

// One line, assembled first so that lines of concurrent processes do not interleave. Bytes
// other than printable ASCII become '?': arguments and file names are the caller's, and a
// terminal would interpret them.
class Line {
public:
    Line() { add("ad-mounter: "); }

    Line& add(const char* text) {
        for (; *text != '\0' && used_ < capacity; ++text) {
            const auto byte = static_cast<unsigned char>(*text);
            text_[used_++] = byte < 0x20 || byte >= 0x7f ? '?' : *text;
        }
        return *this;
    }

    void write_to(int fd) {
        text_[used_++] = '\n';
        // There is nowhere left to report a failure to.
        (void)!write(fd, text_, used_);
    }

private:
    static constexpr size_t capacity = 1023;
    char text_[capacity + 1];
    size_t used_ = 0;
};

}  // namespace

void report(const char* option, const Outcome& outcome) {
    Line line;
    if (option != nullptr) {
        line.add(option).add(": ");
    }
    line.add("failed to ").add(outcome.step()).add(" ").add(outcome.path());
    line.add(": ").add(outcome.reason()).write_to(STDERR_FILENO);
}

void report_usage(const char* reason, const char* argument) {
    Line line;
    line.add(reason);
    if (argument != nullptr) {
        line.add(": ").add(argument);
    }
    line.add("; see --help").write_to(STDERR_FILENO);
}

bool print(const char* text) { return base::write_full(STDOUT_FILENO, text, strlen(text)); }

}  // namespace ad_mounter
