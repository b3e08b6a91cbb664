/**
 * What the Linux platform costs on the real services, in namespaces of their
 * own: how long a change takes to its callback, and what the daemon on it needs
 * while nothing happens.
 */
#include "../../tests/support/line_process.h"
#include "../../tests/support/linux_services.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <dconf.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using test_support::LineProcess;
using test_support::shell;

constexpr int SETTING_CHANGES = 201;
constexpr int NETWORK_CHANGES = 41;
constexpr auto IDLE = 10s;
constexpr auto PATIENCE = 10s;

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "bench-platform-linux: %s\n", what.c_str());
    exit(1);
}

void must(const std::string& command) {
    const test_support::Outcome outcome = shell(command);
    if (outcome.status != 0) fail(command + ": " + outcome.output);
}

/** The time of the probe's next line with a text, in microseconds of CLOCK_MONOTONIC. */
long time_of(LineProcess& probe, const std::string& text) {
    const auto line = probe.await(text, PATIENCE);
    if (!line) fail("no \"" + text + "\" in:\n" + probe.transcript());
    return std::stol(*line);
}

double median_ms(std::vector<long> microseconds) {
    std::sort(microseconds.begin(), microseconds.end());
    return static_cast<double>(microseconds[microseconds.size() / 2]) / 1000;
}

double worst_ms(const std::vector<long>& microseconds) {
    return static_cast<double>(*std::max_element(microseconds.begin(), microseconds.end())) / 1000;
}

void print(const char* what, const std::vector<long>& microseconds, const char* aim) {
    printf("%s: median %.2f ms, worst %.2f ms of %zu%s\n", what, median_ms(microseconds),
           worst_ms(microseconds), microseconds.size(), aim);
    fflush(stdout);
}

void measure_settings() {
    LineProcess probe({PROBE});
    probe.send("watch db/test/value");
    time_of(probe, "watch 0");
    DConfClient* client = dconf_client_new();
    std::vector<long> times;
    for (int i = 0; i < SETTING_CHANGES; ++i) {
        const long begin = g_get_monotonic_time();
        GError* error = nullptr;
        if (!dconf_client_write_sync(client, "/db/test/value", g_variant_new_int32(i), nullptr,
                                     nullptr, &error)) {
            fail(error->message);
        }
        times.push_back(time_of(probe, "setting db/test/value 41 " + std::to_string(i)) - begin);
    }
    g_object_unref(client);
    print("setting written to callback", times, " (aim: 10)");
}

/** Plugs the cable in or pulls it out, at its far end. */
void set_cable(bool in) {
    ifreq request = {};
    strcpy(request.ifr_name, "far0");
    const int socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (ioctl(socket_fd, SIOCGIFFLAGS, &request) != 0) fail("SIOCGIFFLAGS");
    request.ifr_flags =
        static_cast<short>(in ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    if (ioctl(socket_fd, SIOCSIFFLAGS, &request) != 0) fail("SIOCSIFFLAGS");
    close(socket_fd);
}

void measure_network() {
    LineProcess probe({PROBE});
    probe.send("watch-type");
    probe.send("profiles");
    probe.send("watch-profile 0");
    time_of(probe, "watch-profile 0");
    std::vector<long> gained;
    std::vector<long> lost;
    for (int i = 0; i < NETWORK_CHANGES; ++i) {
        long begin = g_get_monotonic_time();
        set_cable(false);
        lost.push_back(time_of(probe, "profile-changed 0 0") - begin);
        std::this_thread::sleep_for(100ms);
        begin = g_get_monotonic_time();
        set_cable(true);
        gained.push_back(time_of(probe, "profile-changed 0 3") - begin);
        std::this_thread::sleep_for(100ms);
    }
    print("cable plugged in to \"connected\"", gained, " (aim: 150)");
    print("cable pulled out to \"disconnected\"", lost,
          " (aim: 150; 50 are NetworkManager's carrier-wait-timeout)");
}

long status_field(const std::string& file, const std::string& name) {
    std::ifstream status(file);
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size(), name) == 0) return std::stol(line.substr(name.size() + 1));
    }
    fail("no " + name + " in " + file);
}

/** How often any thread of a process has been woken. */
long wakeups(const std::string& process) {
    long sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator(process + "/task")) {
        sum += status_field(thread.path().string() + "/status", "voluntary_ctxt_switches");
    }
    return sum;
}

void measure_daemon() {
    must(
        "cd /run && mkdir opt opt-work && "
        "mount -t overlay -o lowerdir=/opt,upperdir=/run/opt,workdir=/run/opt-work opt /opt && "
        "mkdir -p /opt/media/Documents");
    LineProcess daemon({"env", "LD_LIBRARY_PATH=" PLATFORM_FOLDER, ADAGENTD});
    if (!daemon.await(" Network is Working", PATIENCE)) fail(daemon.transcript());
    // One of each change, so that what only they need is there too.
    set_cable(false);
    if (!daemon.await("Current Network State is 0", PATIENCE)) fail(daemon.transcript());
    set_cable(true);
    if (!daemon.await("Network is reconnected", PATIENCE)) fail(daemon.transcript());
    must("dconf write /db/menu_widget/language \"'de_DE'\"");
    if (!daemon.await("m_VConfLanguageChangeCB", PATIENCE)) fail(daemon.transcript());
    std::this_thread::sleep_for(2s);

    const std::string process = "/proc/" + std::to_string(daemon.pid());
    const long before = wakeups(process);
    std::this_thread::sleep_for(IDLE);
    printf("wake-ups of the daemon in ten idle seconds, all threads: %ld (aim: 0)\n",
           wakeups(process) - before);
    printf("resident memory of the daemon, without an agent library: %ld kB (aim: below 8192)\n",
           status_field(process + "/status", "VmRSS:"));
}

}  // namespace

int main(int argc, char** argv) {
    test_support::enter_linux_services(argc, argv);
    if (!test_support::in_linux_services()) {
        fprintf(stderr, "bench-platform-linux: %s\n", test_support::NO_NAMESPACES);
        return 77;
    }
    must(
        "nmcli -t connection add type ethernet con-name wired ifname eth0 ipv4.method manual "
        "ipv4.addresses 10.9.0.2/24 ipv4.gateway 10.9.0.1 ipv6.method disabled");
    must("nmcli -t connection up wired");
    measure_settings();
    measure_network();
    measure_daemon();
    return 0;
}
