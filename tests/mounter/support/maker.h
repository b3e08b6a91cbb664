// An image's maker: a key of its own, and what it signs.
#ifndef MOUNTER_TEST_MAKER_H
#define MOUNTER_TEST_MAKER_H

#include <array>
#include <cstdint>
#include <string>

namespace mounter_test {

/** The lines of a signature, and how its trailer ends. */
struct SignatureText {
    std::string untrusted = "untrusted comment: signature of an update image";
    std::string signature;
    std::string trusted;
    std::string comment_signature;
    std::string magic = "ADIMGSIG";
    size_t length_error = 0;  ///< added to the length that the trailer tells
    uint32_t layout = 1;

    std::string trailer() const;
};

class Maker {
public:
    Maker();

    /** The public key file. */
    std::string public_key() const;

    SignatureText sign(const std::string& file_system, const std::string& trusted_comment) const;

    /** The bytes followed by their trailer. */
    std::string signed_image(const std::string& file_system, const std::string& version) const {
        return file_system + sign(file_system, "version:" + version).trailer();
    }

    /** Takes the other one's key number, so that only the keys differ. */
    void take_number_of(const Maker& other) { number_ = other.number_; }

private:
    std::string number_;
    std::array<unsigned char, 32> public_ = {};
    std::array<unsigned char, 64> secret_ = {};
};

}  // namespace mounter_test

#endif
