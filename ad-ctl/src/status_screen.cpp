#include "log.h"
#include "status.h"
#include "utc_time.h"

namespace ad_ctl {
namespace {

using ad_agent::format_utc;
using ad_agent::RefusedImage;

/** Lines of a label and a text. Further lines of one label leave it out. */
class Screen {
public:
    void add(const char* label, const std::string& text) {
        constexpr std::size_t label_width = 12;
        constexpr std::size_t max_length = 512;
        std::string line = label == last_ ? "" : label;
        last_ = label;
        line.resize(label_width, ' ');
        text_ += line + ad_agent::printable(text, max_length) + "\n";
    }

    const std::string& text() const { return text_; }

private:
    std::string text_;
    std::string last_;
};

void add_health(Screen& screen, const Status& status) {
    if (status.problems.empty()) {
        screen.add("Health", "healthy");
    }
    for (const std::string& problem : status.problems) {
        screen.add("Health", problem);
    }
}

void add_daemon(Screen& screen, const Service& service) {
    switch (service.state) {
        case ServiceState::running:
            screen.add("Daemon", "running since " + format_utc(service.started) + ", process " +
                                     std::to_string(service.pid));
            return;
        case ServiceState::starting:
            screen.add("Daemon", "starting or waiting for its restart");
            return;
        default:
            screen.add("Daemon", service.state == ServiceState::failed ? "failed" : "not running");
    }
}

std::string describe(const Choice& choice, const Snapshot& snapshot) {
    switch (choice.copy) {
        case Copy::updatable:
            return "updatable copy: " + choice.detail;
        case Copy::firmware:
            return "firmware copy, version " + snapshot.facts.builtin + ": " + choice.detail;
        default:
            return "none: " + choice.detail;
    }
}

void add_copies(Screen& screen, const Status& status) {
    const Snapshot& snapshot = status.snapshot;
    const bool is_guess = snapshot.service.state == ServiceState::running &&
                          snapshot.service.loaded == LoadedCopy::unknown;
    screen.add("Running",
               describe(status.running, snapshot) + (is_guess ? " (decided from files)" : ""));
    if (status.next.copy != status.running.copy) {
        screen.add("Next start", describe(status.next, snapshot));
    }
    const std::string& now = snapshot.facts.device.firmware;
    const std::string& recorded = snapshot.recorded_firmware;
    screen.add("Firmware",
               (now.empty() ? "not known" : now) +
                   (recorded == now    ? ""
                    : recorded.empty() ? ", none recorded"
                                       : ", was " + recorded + " when the daemon started last"));
}

std::string signature_text(const Status& status, const ad_agent::ImageTrailer& trailer) {
    return "signed with key " + trailer.key_id +
           (status.has_key ? "" : ", which is not installed") +
           (status.is_verified ? ", verified when it was mounted" : ", not mounted yet");
}

void add_image(Screen& screen, const Status& status) {
    if (!status.snapshot.image) {
        screen.add("Image", "none stored");
        return;
    }
    const StoredImage& image = *status.snapshot.image;
    const ad_agent::ImageTrailer& trailer = image.trailer;
    if (trailer.rejection) {
        screen.add("Image", "stored, but refused: " + *trailer.rejection);
    } else {
        const std::string& product = trailer.target.product;
        screen.add("Image", "version " + trailer.version +
                                (product.empty() ? "" : " for " + product) + ", " +
                                signature_text(status, trailer));
    }
    if (image.bad) {
        screen.add("Image", "bad: " + reason_text(*image.bad));
    }
}

void add_download(Screen& screen, const Status& status) {
    if (!status.download) {
        return;
    }
    const Download& download = *status.download;
    const std::string received = std::to_string(download.received);
    std::string text = download.version.empty() ? "" : "version " + download.version + ": ";
    if (download.is_complete) {
        text += "complete, " + received + " bytes, waits to be stored";
    } else if (download.size == 0) {
        text += received + " bytes";
    } else {
        constexpr std::uint64_t percent = 100;
        text += received + " of " + std::to_string(download.size) + " bytes, " +
                std::to_string(download.received * percent / download.size) + " %";
    }
    screen.add("Download", text);
}

void add_server(Screen& screen, const Status& status) {
    const Snapshot& snapshot = status.snapshot;
    screen.add("Server", snapshot.settings ? snapshot.settings->server_url : "not configured");
    const ad_agent::DeviceState& state = snapshot.state;
    screen.add("Last check", state.check_time == 0
                                 ? "never"
                                 : format_utc(state.check_time) + ": " + state.check_result);
    if (!snapshot.index) {
        screen.add("Index", "not believed: " + snapshot.index.error().message);
    }
    screen.add("Next try",
               status.next_try + (status.not_before == 0
                                      ? ""
                                      : "; version " + (*snapshot.index)->version + " not before " +
                                            format_utc(status.not_before)));
}

/** What is ready, several to a line, and then what is not. */
void add_readiness(Screen& screen, const Status& status) {
    constexpr std::size_t max_width = 68;
    std::string line;
    for (const Check& check : status.readiness) {
        if (check.state != CheckState::ok) {
            continue;
        }
        const std::string item = check.name + ": " + check.detail;
        if (!line.empty() && line.size() + item.size() > max_width) {
            screen.add("Readiness", line);
            line.clear();
        }
        line += (line.empty() ? "" : "; ") + item;
    }
    if (!line.empty()) {
        screen.add("Readiness", line);
    }
    for (const Check& check : status.readiness) {
        if (check.state == CheckState::failed) {
            screen.add("Readiness", check.name + ": FAILED: " + check.detail);
        }
    }
}

void add_bad_images(Screen& screen, const Snapshot& snapshot) {
    for (const auto* list : {&snapshot.state.bad, &snapshot.guarded}) {
        for (const RefusedImage& image : list->all()) {
            screen.add("Bad images", (image.version.empty() ? image.sha256 : image.version) + ": " +
                                         reason_text(image));
        }
    }
    for (const RefusedImage& image : snapshot.state.wrong.all()) {
        screen.add("Wrong image", image.version + ": " + image.reason + ", until " +
                                      format_utc(retry_time(image)));
    }
}

void add_guard(Screen& screen, const Status& status) {
    const ad_guard::Record& record = status.snapshot.record;
    if (record.library.empty()) {
        return;
    }
    screen.add("Guard", std::to_string(record.starts) + " starts, " +
                            (record.confirmed ? "confirmed" : "not confirmed") + ", " +
                            std::to_string(record.failed) + " failed, " +
                            std::to_string(record.interrupted) + " interrupted, " +
                            std::to_string(status.recent_failures) + " in 24 hours" +
                            (record.last_ending.empty() ? "" : "; last " + record.last_ending));
}

}  // namespace

std::string to_screen(const Status& status) {
    Screen screen;
    add_health(screen, status);
    add_daemon(screen, status.snapshot.service);
    add_copies(screen, status);
    add_image(screen, status);
    add_download(screen, status);
    add_server(screen, status);
    add_readiness(screen, status);
    add_bad_images(screen, status.snapshot);
    add_guard(screen, status);
    for (const std::string& unseen : status.snapshot.unseen) {
        screen.add("Not seen", unseen);
    }
    return screen.text();
}

}  // namespace ad_ctl
