// Feeds what is parsed of an image before it is trusted, and keys. The first byte selects the
// parser: 'i' for a header, 't' for a trailer, 'm' for a manifest, 'k' for a public key.

#include "image.h"
#include "manifest.h"
#include "minisign.h"
#include "trailer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// Of exactly the input's size, so that reading past its end is noticed.
using Input = std::vector<uint8_t>;

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

std::string_view view(const Input& input) {
    return {reinterpret_cast<const char*>(input.data()), input.size()};
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
            require(trailer.version[0] != '\0');
            require(trailer.signature.comment.find("version:" + std::string(trailer.version)) !=
                    std::string_view::npos);
        }
    }
}

void fuzz_manifest(const Input& text) {
    char version[ad_mounter::version_size];
    if (ad_mounter::version_in_manifest(view(text), version)) {
        require(strlen(version) < sizeof version &&
                view(text).find(version) != std::string_view::npos);
        require(strpbrk(version, " \t\r\n<&") == nullptr);
    }
}

void fuzz_key(const Input& text) {
    ad_mounter::PublicKey key;
    require(!ad_mounter::parse_public_key(view(text), key) || text.size() > 56);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::map<uint8_t, void (*)(const Input&)> parsers = {
        {'i', fuzz_image_header}, {'t', fuzz_trailer}, {'m', fuzz_manifest}, {'k', fuzz_key}};
    if (size > 0 && parsers.count(data[0]) > 0) {
        parsers.at(data[0])(Input(data + 1, data + size));
    }
    return 0;
}
