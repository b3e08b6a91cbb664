// Feeds what is parsed of an image before it is trusted, and keys. The first byte selects the
// parser: 'i' for a header, 't' for a trailer, 'c' for a trusted comment, 'm' for a manifest, 'k'
// for a public key.

#include "base/image_trailer.h"
#include "image.h"
#include "manifest.h"

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
        const base::Trailer trailer = base::parse_trailer(bytes.data(), bytes.size(), file_size);
        if (trailer.rejection == nullptr) {
            require(trailer.length <= bytes.size() && trailer.length < file_size);
            require(base::is_decimal_version(trailer.comment.version));
        }
    }
}

// An accepted comment is as good as its known words alone, and its versions are ordered.
void fuzz_comment(const Input& text) {
    base::TrustedComment comment;
    if (base::parse_trusted_comment(view(text), comment) != nullptr) {
        return;
    }
    std::string words;
    for (const base::detail::KnownWord& known : base::detail::known_words) {
        const std::string_view value = comment.*known.value;
        require(value.empty() || known.is_valid(value));
        words += value.empty() ? "" : " " + std::string(known.name) + std::string(value);
    }
    base::TrustedComment again;
    require(base::parse_trusted_comment(words, again) == nullptr);
    for (const base::detail::KnownWord& known : base::detail::known_words) {
        require(comment.*known.value == again.*known.value);
    }
    const std::string version(comment.version);
    const std::string longer = version + (version.find('.') == version.npos ? ".01" : "1");
    require(base::compare_versions(version, "0" + version) == 0);
    require(base::compare_versions(version, longer) < 0);
    require(base::compare_versions(longer, version) > 0);
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
    base::PublicKey key;
    require(!base::parse_public_key(view(text), key) || text.size() > 56);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::map<uint8_t, void (*)(const Input&)> parsers = {{'i', fuzz_image_header},
                                                                      {'t', fuzz_trailer},
                                                                      {'c', fuzz_comment},
                                                                      {'m', fuzz_manifest},
                                                                      {'k', fuzz_key}};
    if (size > 0 && parsers.count(data[0]) > 0) {
        parsers.at(data[0])(Input(data + 1, data + size));
    }
    return 0;
}
