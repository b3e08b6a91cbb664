// Whatever a server sends as its index is rejected with a reason, or yields values that are safe;
// with a key, no index is accepted unless it is the signed one to the last bit.
#include "base/decimal_version.h"
#include "index_acceptance.h"

#include <array>
#include <cstdlib>

#include <sodium.h>

namespace {

constexpr std::uint64_t highest_serial = 5;
constexpr std::int64_t now = 1795255200;  // 2026-11-21T10:00:00Z

using Bytes = std::basic_string<unsigned char>;

std::string base64(const Bytes& bytes) {
    std::array<char, 128> text = {};
    return sodium_bin2base64(text.data(), text.size(), bytes.data(), bytes.size(),
                             sodium_base64_VARIANT_ORIGINAL);
}

/** An index's maker, with the same key in every run. */
class Maker {
public:
    Maker() {
        const std::array<unsigned char, crypto_sign_SEEDBYTES> seed = {};
        crypto_sign_seed_keypair(key_.key, secret_.data(), seed.data());
    }

    const base::PublicKey& key() const { return key_; }

    std::string sign(const std::string& text) const {
        Bytes hash(64, 0);
        crypto_generichash(hash.data(), hash.size(),
                           reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                           nullptr, 0);
        const Bytes signature = sign(hash);
        const Bytes id(key_.id, sizeof key_.id);
        return text + "# untrusted comment: signature from minisign secret key\n# " +
               base64(Bytes{'E', 'D'} + id + signature) + "\n# trusted comment: c\n# " +
               base64(sign(signature + Bytes{'c'})) + "\n";
    }

private:
    Bytes sign(const Bytes& bytes) const {
        Bytes signature(crypto_sign_BYTES, 0);
        crypto_sign_detached(signature.data(), nullptr, bytes.data(), bytes.size(), secret_.data());
        return signature;
    }

    base::PublicKey key_ = {};
    std::array<unsigned char, crypto_sign_SECRETKEYBYTES> secret_ = {};
};

bool is_safe(const ad_agent::UpdateIndex& index) {
    const auto is_word = [](const std::string& text) {
        return text.find_first_of(" \t\n\\") == std::string::npos && text.size() <= 255;
    };
    const bool is_for_any = index.target.min_firmware.empty() && index.target.max_firmware.empty();
    return base::is_decimal_version(index.version) && index.sha256.size() == 64 && index.size > 0 &&
           index.size <= ad_agent::max_image_size && is_word(index.file) &&
           index.file.find_first_of("/%?#") == std::string::npos && index.file[0] != '.' &&
           is_word(index.target.product) && is_word(index.target.min_firmware) &&
           is_word(index.target.max_firmware) &&
           ad_agent::firmware_mismatch(index.target, "").has_value() != is_for_any;
}

void expect(bool condition) {
    if (!condition) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Maker maker;
    const std::string text(data, data + size);
    const auto accept = [](const std::string& document, const ad_agent::IndexKeys& keys) {
        const ad_agent::IndexSerials serials = {{"0000000000000000", highest_serial}};
        return ad_agent::accept_index(document, keys, serials, now);
    };
    const auto unsigned_index = accept(text, {});
    expect(unsigned_index ? is_safe(unsigned_index->index)
                          : !unsigned_index.error().message.empty());
    expect(!accept(text, {maker.key()}));

    std::string document = maker.sign(text);
    const auto index = accept(document, {maker.key()});
    expect(!index || (is_safe(index->index) && unsigned_index && index->serial >= highest_serial));
    document[size * 31 % document.size()] ^= static_cast<char>(1U << size % 8);
    expect(!accept(document, {maker.key()}));
    return 0;
}
