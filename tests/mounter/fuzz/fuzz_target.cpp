// Feeds the command line, what is read of an image before it is trusted, and the keys. The
// first byte chooses: 'c' for words, a line each, 'i' for a header, 't' for a trailer, 'm' for
// a manifest, 'k' for a public key.

#include "command_line.h"
#include "image.h"
#include "keys.h"
#include "manifest.h"
#include "trailer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// Of exactly the input's size, so that reading beyond it is noticed.
using Input = std::vector<uint8_t>;

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

void fuzz_command_line(const Input& text) {
    std::string words(text.begin(), text.end());
    std::vector<const char*> argv = {"ad-mounter", words.c_str()};
    for (char& byte : words) {
        if (byte == '\n') {
            byte = '\0';
            argv.push_back(&byte + 1);
        }
    }
    argv.push_back(nullptr);
    const ad_mounter::Command command =
        ad_mounter::parse_command_line(static_cast<int>(argv.size()) - 1, argv.data());
    require((command.spec == nullptr) == (command.error != nullptr));
    if (command.spec == nullptr) {
        require(command.operation == nullptr);
        return;
    }
    require(argv.size() == command.spec->arguments + 3);
    require((command.operation != nullptr) == (command.spec->arguments > 0));
    if (command.operation != nullptr) {
        require(command.operation->verb == command.spec->verb);
        require(strcmp(argv[2], command.operation->first) == 0);
        require((command.operation->second != nullptr) == (command.spec->arguments == 2));
        require(command.operation->second == nullptr ||
                strcmp(argv[3], command.operation->second) == 0);
    }
}

void fuzz_image_header(const Input& header) {
    for (const uint64_t file_size : {uint64_t{header.size()}, uint64_t{1} << 20, ~uint64_t{0}}) {
        const ad_mounter::Recognition seen =
            ad_mounter::recognise_image(header.data(), header.size(), file_size);
        require(seen.rejection != nullptr || header.size() >= 96);
    }
}

void fuzz_trailer(const Input& bytes) {
    for (const uint64_t file_size : {uint64_t{bytes.size()}, uint64_t{bytes.size()} + 4096}) {
        const ad_mounter::Trailer trailer =
            ad_mounter::parse_trailer(bytes.data(), bytes.size(), file_size);
        if (trailer.rejection == nullptr) {
            require(trailer.length <= bytes.size() && trailer.length < file_size);
            const std::string comment(trailer.signature.comment);
            require(trailer.version[0] != '\0');
            require(comment.find("version:" + std::string(trailer.version)) != std::string::npos);
        }
    }
}

void fuzz_manifest(const Input& text) {
    const std::string all(text.begin(), text.end());
    char version[ad_mounter::version_size];
    if (ad_mounter::version_in_manifest(all, version)) {
        require(strlen(version) < sizeof version && all.find(version) != std::string::npos);
        require(strpbrk(version, " \t\r\n<&") == nullptr);
    }
}

void fuzz_key(const Input& text) {
    ad_mounter::PublicKey key;
    require(!ad_mounter::parse_public_key(std::string(text.begin(), text.end()), key) ||
            text.size() > 56);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::map<uint8_t, void (*)(const Input&)> targets = {{'c', fuzz_command_line},
                                                                      {'i', fuzz_image_header},
                                                                      {'t', fuzz_trailer},
                                                                      {'m', fuzz_manifest},
                                                                      {'k', fuzz_key}};
    if (size > 0 && targets.count(data[0]) > 0) {
        targets.at(data[0])(Input(data + 1, data + size));
    }
    return 0;
}
