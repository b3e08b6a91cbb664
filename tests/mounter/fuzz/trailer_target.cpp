// Feeds what is read from an image before it is trusted, and the keys. The first
// byte chooses: 't' for a trailer, 'm' for a manifest, 'k' for a public key.

#include "keys.h"
#include "manifest.h"
#include "trailer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sodium.h>

namespace {

void require(bool holds) {
    if (!holds) {
        abort();
    }
}

std::string text_of(const unsigned char* bytes, size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

std::string base64(const std::string& bytes) {
    char text[200];
    return sodium_bin2base64(text, sizeof text,
                             reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                             sodium_base64_VARIANT_ORIGINAL);
}

// The signed lines, as they are written by the one who signs.
std::string signed_lines(const ad_mounter::Trailer& trailer) {
    return base64("ED" + text_of(trailer.key_id, sizeof trailer.key_id) +
                  text_of(trailer.signature, sizeof trailer.signature)) +
           "\ntrusted comment: " + std::string(trailer.comment, trailer.comment_length) + '\n' +
           base64(text_of(trailer.comment_signature, sizeof trailer.comment_signature)) + '\n';
}

void fuzz_trailer(const uint8_t* data, size_t size) {
    // A copy of exactly this size, so that reading beyond it is noticed.
    const std::vector<uint8_t> bytes(data, data + size);
    for (const uint64_t file_size : {uint64_t{size}, uint64_t{size} + 4096}) {
        const ad_mounter::Trailer trailer =
            ad_mounter::parse_trailer(bytes.data(), bytes.size(), file_size);
        if (trailer.refusal != nullptr) {
            continue;
        }
        require(trailer.length <= size && trailer.length < file_size);
        const std::string all = text_of(bytes.data() + size - trailer.length, trailer.length);
        const size_t line = all.find('\n') + 1;
        const std::string lines = signed_lines(trailer);
        // No byte of it could be another one.
        require(all.compare(line, lines.size(), lines) == 0);
        require(line + lines.size() + ad_mounter::footer_size == trailer.length);
        const std::string word = std::string("version:") + trailer.version;
        require(trailer.version[0] != '\0' && lines.find(word) != std::string::npos);
    }
}

void fuzz_manifest(const uint8_t* data, size_t size) {
    const std::vector<char> text(data, data + size);
    char version[ad_mounter::version_size];
    if (ad_mounter::version_in_manifest(text.data(), text.size(), version)) {
        const std::string all(text.begin(), text.end());
        require(strlen(version) < sizeof version && all.find(version) != std::string::npos);
        require(strpbrk(version, " \t\r\n<&") == nullptr);
    }
}

void fuzz_key(const uint8_t* data, size_t size) {
    const std::vector<char> text(data, data + size);
    ad_mounter::PublicKey key;
    if (ad_mounter::parse_public_key(text.data(), text.size(), key)) {
        require(size > 56);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0 && data[0] == 't') {
        fuzz_trailer(data + 1, size - 1);
    } else if (size > 0 && data[0] == 'm') {
        fuzz_manifest(data + 1, size - 1);
    } else if (size > 0 && data[0] == 'k') {
        fuzz_key(data + 1, size - 1);
    }
    return 0;
}
