#include "maker.h"

#include <cstdlib>

#include <sodium.h>

namespace mounter_test {

namespace {

std::string text_of(const void* bytes, size_t size) {
    return {static_cast<const char*>(bytes), size};
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string base64(const std::string& bytes) {
    char text[200];
    return sodium_bin2base64(text, sizeof text, bytes_of(bytes), bytes.size(),
                             sodium_base64_VARIANT_ORIGINAL);
}

}  // namespace

std::string SignatureText::trailer() const {
    const std::string text =
        untrusted + '\n' + signature + '\n' + trusted + '\n' + comment_signature + '\n';
    // As they are on this machine: the lowest byte first.
    const uint32_t numbers[] = {static_cast<uint32_t>(text.size() + length_error), layout};
    return text + magic + text_of(numbers, sizeof numbers);
}

Maker::Maker() : number_(8, '\0') {
    if (sodium_init() < 0) {
        abort();
    }
    crypto_sign_keypair(public_.data(), secret_.data());
    randombytes_buf(number_.data(), number_.size());
}

std::string Maker::public_key() const {
    return "untrusted comment: minisign public key\n" +
           base64("Ed" + number_ + text_of(public_.data(), public_.size())) + '\n';
}

SignatureText Maker::sign(const std::string& file_system,
                          const std::string& trusted_comment) const {
    unsigned char hash[64];
    unsigned char signature[64];
    crypto_generichash(hash, sizeof hash, bytes_of(file_system), file_system.size(), nullptr, 0);
    crypto_sign_detached(signature, nullptr, hash, sizeof hash, secret_.data());
    SignatureText text;
    text.signature = base64("ED" + number_ + text_of(signature, sizeof signature));
    text.trusted = "trusted comment: " + trusted_comment;
    const std::string both = text_of(signature, sizeof signature) + trusted_comment;
    crypto_sign_detached(signature, nullptr, bytes_of(both), both.size(), secret_.data());
    text.comment_signature = base64(text_of(signature, sizeof signature));
    return text;
}

}  // namespace mounter_test
