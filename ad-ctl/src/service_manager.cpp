#include "service_manager.h"

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/little_endian.h"
#include "base/unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

// Two D-Bus calls over a socket, written by hand: each library for that would take more memory
// than is allowed to the whole program.
namespace ad_ctl {
namespace {

constexpr char bus_path[] = "/run/dbus/system_bus_socket";
constexpr std::size_t max_message = 64UL * 1024;

enum MessageType : std::uint8_t { method_call = 1, method_return = 2, error_reply = 3 };

/** Writes values as D-Bus aligns them, in little-endian order. */
class Writer {
public:
    void align(std::size_t size) { bytes_.resize((bytes_.size() + size - 1) / size * size, '\0'); }

    void add_number(std::uint32_t number) {
        align(sizeof number);
        for (unsigned shift = 0; shift < 32; shift += 8) {
            bytes_ += static_cast<char>(number >> shift);
        }
    }

    void add_text(const std::string& text) {
        add_number(static_cast<std::uint32_t>(text.size()));
        bytes_ += text + '\0';
    }

    void add_signature(const std::string& signature) {
        bytes_ += static_cast<char>(signature.size());
        bytes_ += signature + '\0';
    }

    /** Adds a header field: a code, and a variant. */
    void add_field(char code, const std::string& type, const std::string& value) {
        align(8);
        bytes_ += code;
        add_signature(type);
        if (type == "g") {
            add_signature(value);
        } else {
            add_text(value);
        }
    }

    const std::string& bytes() const { return bytes_; }

private:
    std::string bytes_;
};

/** Returns a method call with texts as arguments. */
std::string make_call(std::uint32_t serial, const std::string& destination, const std::string& path,
                      const std::string& interface, const std::string& member,
                      const std::vector<std::string>& arguments) {
    Writer body;
    for (const std::string& argument : arguments) {
        body.add_text(argument);
    }
    Writer fields;
    fields.add_field(1, "o", path);
    fields.add_field(2, "s", interface);
    fields.add_field(3, "s", member);
    fields.add_field(6, "s", destination);
    fields.add_field(8, "g", std::string(arguments.size(), 's'));
    Writer header;
    header.add_number('l' | method_call << 8 | 1U << 24);  // no flags, protocol version 1
    header.add_number(static_cast<std::uint32_t>(body.bytes().size()));
    header.add_number(serial);
    header.add_number(static_cast<std::uint32_t>(fields.bytes().size()));
    std::string text = header.bytes() + fields.bytes();
    text.resize((text.size() + 7) / 8 * 8, '\0');
    return text + body.bytes();
}

/** A connection to the system bus. Its reads and writes fail after a second. */
class Bus {
public:
    /** Returns false with errno set if it cannot connect. */
    bool connect() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", bus_path);
        const timeval limit = {1, 0};
        socket_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        return socket_ && setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
               setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
               ::connect(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               authenticate();
    }

    bool send(const std::string& bytes) {
        return base::write_full(fd(), bytes.data(), bytes.size());
    }

    /** Reads messages up to the next reply. Returns false with errno set if there is none. */
    bool receive_reply(std::string& body) {
        for (;;) {
            std::array<unsigned char, 16> header = {};
            if (!read(header.data(), header.size())) {
                return false;
            }
            const std::uint64_t body_size = base::little_endian(&header[4], 4);
            const std::uint64_t fields_size = (base::little_endian(&header[12], 4) + 7) / 8 * 8;
            errno = EBADMSG;
            if (header[0] != 'l' || body_size + fields_size > max_message) {
                return false;
            }
            std::string rest(body_size + fields_size, '\0');
            if (!read(rest.data(), rest.size())) {
                return false;
            }
            errno = EBADMSG;
            if (header[1] == method_return || header[1] == error_reply) {
                body = rest.substr(fields_size);
                return header[1] == method_return;
            }
        }
    }

private:
    int fd() const { return socket_.get(); }

    bool read(void* buffer, std::size_t size) {
        errno = ECONNRESET;
        return base::read_full(fd(), buffer, size) == static_cast<ssize_t>(size);
    }

    bool authenticate() {
        std::string request(1, '\0');
        request += "AUTH EXTERNAL ";
        for (const char digit : std::to_string(geteuid())) {
            request += "3" + std::string(1, digit);  // in hexadecimal
        }
        if (!send(request + "\r\n")) {
            return false;
        }
        std::string answer;
        for (char byte = '\0'; byte != '\n';) {
            if (answer.size() > max_message || !read(&byte, 1)) {
                return false;
            }
            answer += byte;
        }
        errno = EACCES;
        return answer.compare(0, 3, "OK ") == 0 && send("BEGIN\r\n");
    }

    base::UniqueFd socket_;
};

/** Returns the text in a variant, or an empty text if it holds something else. */
std::string text_of(const std::string& variant) {
    constexpr std::size_t length_at = 4;
    constexpr std::size_t text_at = 8;
    if (variant.size() < text_at || variant.compare(0, 2, "\1s") != 0) {
        return "";
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(variant.data());
    return variant.substr(text_at, base::little_endian(bytes + length_at, 4));
}

}  // namespace

tl::expected<std::string, std::string> read_active_state(const char* unit_path) {
    constexpr char daemon[] = "org.freedesktop.DBus";
    const std::string hello = make_call(1, daemon, "/org/freedesktop/DBus", daemon, "Hello", {});
    const std::string get =
        make_call(2, "org.freedesktop.systemd1", unit_path, "org.freedesktop.DBus.Properties",
                  "Get", {"org.freedesktop.systemd1.Unit", "ActiveState"});
    Bus bus;
    std::string body;
    if (bus.connect() && bus.send(hello) && bus.receive_reply(body) && bus.send(get) &&
        bus.receive_reply(body)) {
        return text_of(body);
    }
    return tl::unexpected<std::string>(std::string(bus_path) + ": " + base::errno_text(errno));
}

}  // namespace ad_ctl
