#include "maker.h"

#include <cstdlib>

#include <sodium.h>

namespace mounter_test {

namespace {

std::string text_of(const unsigned char* bytes, size_t size) {
    return {reinterpret_cast<const char*>(bytes), size};
}

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string base64(const std::string& bytes) {
    std::string text(sodium_base64_encoded_len(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(text.data(), text.size(), bytes_of(bytes), bytes.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    text.pop_back();
    return text;
}

std::string little_endian(unsigned long number) {
    std::string bytes;
    for (int i = 0; i < 4; ++i) {
        bytes += static_cast<char>(number >> (8 * i) & 0xff);
    }
    return bytes;
}

}  // namespace

std::string SignatureText::trailer() const {
    const std::string text =
        untrusted + '\n' + signature + '\n' + trusted + '\n' + comment_signature + '\n';
    return text + magic +
           little_endian(
               static_cast<unsigned long>(static_cast<long>(text.size()) + length_error)) +
           little_endian(layout);
}

Maker::Maker() {
    if (sodium_init() < 0) {
        abort();
    }
    crypto_sign_keypair(public_.data(), secret_.data());
    randombytes_buf(number_.data(), number_.size());
}

std::string Maker::public_key() const {
    return "untrusted comment: minisign public key\n" +
           base64("Ed" + text_of(number_.data(), number_.size()) +
                  text_of(public_.data(), public_.size())) +
           '\n';
}

SignatureText Maker::sign(const std::string& file_system, const std::string& comment) const {
    unsigned char hash[64];
    unsigned char signature[64];
    crypto_generichash(hash, sizeof hash, bytes_of(file_system), file_system.size(), nullptr, 0);
    crypto_sign_detached(signature, nullptr, hash, sizeof hash, secret_.data());
    SignatureText text;
    text.signature = base64("ED" + text_of(number_.data(), number_.size()) +
                            text_of(signature, sizeof signature));
    text.trusted = "trusted comment: " + comment;
    const std::string both = text_of(signature, sizeof signature) + comment;
    crypto_sign_detached(signature, nullptr, bytes_of(both), both.size(), secret_.data());
    text.comment_signature = base64(text_of(signature, sizeof signature));
    return text;
}

std::string without_trailer(const std::string& image) {
    const auto* end = bytes_of(image) + image.size() - 8;
    const size_t length = end[0] | size_t{end[1]} << 8;
    return image.substr(0, image.size() - 16 - length);
}

}  // namespace mounter_test
