// Feeds the command line and the image header with whatever libFuzzer finds.
// The first byte chooses: 'c' for words separated by newlines, 'i' for a header.

#include "command_line.h"
#include "image.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

void fuzz_command_line(const std::string& text) {
    std::vector<std::string> words(1);
    for (const char byte : text) {
        if (byte == '\n') {
            words.emplace_back();
        } else {
            words.back() += byte;
        }
    }
    std::vector<const char*> argv = {"ad-mounter"};
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    const ad_mounter::Command command =
        ad_mounter::parse_command_line(static_cast<int>(argv.size()) - 1, argv.data());
    require((command.form == nullptr) == (command.complaint != nullptr));
    if (command.form == nullptr) {
        require(command.row == nullptr);
        return;
    }
    require((command.row != nullptr) == (command.form->arguments > 0));
    require(argv.size() == command.form->arguments + 3);
    if (command.row != nullptr) {
        require(command.row->verb == command.form->verb);
        require(std::string(argv[2]) == command.row->first);
        require((command.row->second != nullptr) == (command.form->arguments == 2));
        require(command.row->second == nullptr || std::string(argv[3]) == command.row->second);
    }
}

void fuzz_image_header(const uint8_t* data, size_t size) {
    // A copy of exactly this size, so that reading beyond it is noticed.
    const std::vector<uint8_t> header(data, data + size);
    for (const uint64_t file_size : {uint64_t{size}, uint64_t{1} << 20, ~uint64_t{0}}) {
        const ad_mounter::Recognition seen =
            ad_mounter::recognise_image(header.data(), header.size(), file_size);
        if (seen.refusal == nullptr) {
            require(size >= 96);
            require(std::string(file_system_name(seen.type)) ==
                    (memcmp(header.data(), "hsqs", 4) == 0 ? "squashfs" : "erofs"));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0 && data[0] == 'c') {
        fuzz_command_line(std::string(data + 1, data + size));
    } else if (size > 0 && data[0] == 'i') {
        fuzz_image_header(data + 1, size - 1);
    }
    return 0;
}
