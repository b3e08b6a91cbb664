#include "ad_agent.h"

#include "agent.h"
#include "base/decimal_version.h"
#include "log.h"
#include "version.h"

#include <exception>
#include <string>

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

namespace {

using ad_agent::Agent;
using ad_agent::log_line;

static_assert(AD_AGENT_VERSION_BUFFER_SIZE == base::max_version_length + 1);

constexpr char updatable_library[] = "/opt/usr/lib/libad-agent-fwk.so";

/**
 * Determined while this copy is being loaded: before ad_agent_init() the host removes an
 * updatable copy that it could not load.
 */
const bool had_updatable = access(updatable_library, F_OK) == 0;

/** The library on this device. */
Agent device_agent() { return Agent(ad_agent::device_paths()); }

/** Runs an entry point's work. Running out of memory must not end the host. */
template <typename Work>
int guarded(const char* entry_point, int failed, Work work) {
    try {
        return work();
    } catch (const std::exception& exception) {
        log_line(std::string(entry_point) + ": " + exception.what());
        return failed;
    }
}

int not_supported(const char* entry_point) {
    log_line(std::string(entry_point) + ": not supported");
    return AD_AGENT_NOT_SUPPORTED;
}

}  // namespace

int ad_agent_init() {
    Dl_info info = {};
    const bool is_found = dladdr(reinterpret_cast<void*>(&ad_agent_init), &info) != 0;
    const char* const file = is_found && info.dli_fname ? info.dli_fname : "an unknown file";
    return guarded(__func__, AD_AGENT_FAILED, [&] {
        log_line(std::string("loaded from ") + file);
        device_agent().report_loaded_library(file, had_updatable);
        return AD_AGENT_OK;
    });
}

int ad_agent_clear() { return AD_AGENT_OK; }

int ad_agent_config_server(const char* url_path) {
    return guarded(__func__, AD_AGENT_FAILED, [&] {
        const bool is_current = device_agent().fetch_configuration(url_path ? url_path : "");
        return is_current ? AD_AGENT_OK : AD_AGENT_FAILED;
    });
}

int ad_agent_update(const char* stored_version) {
    return guarded(__func__, AD_AGENT_NO_UPDATE, [&] {
        const bool is_offered =
            device_agent().update(stored_version ? stored_version : ad_agent::no_version);
        return is_offered ? AD_AGENT_UPDATE_DOWNLOADED : AD_AGENT_NO_UPDATE;
    });
}

int ad_agent_set_soversion(const char* version) {
    return guarded(__func__, AD_AGENT_FAILED, [&] {
        const bool is_written =
            device_agent().set_version(version ? version : ad_agent::no_version);
        return is_written ? AD_AGENT_OK : AD_AGENT_FAILED;
    });
}

int ad_agent_get_soversion(char* version) {
    if (!version) {
        return AD_AGENT_FAILED;
    }
    return guarded(__func__, AD_AGENT_FAILED, [&] {
        g_strlcpy(version, device_agent().version().c_str(), AD_AGENT_VERSION_BUFFER_SIZE);
        return AD_AGENT_OK;
    });
}

int ad_agent_register() { return not_supported(__func__); }
int ad_agent_unregister() { return not_supported(__func__); }
int ad_agent_request() { return not_supported(__func__); }
int ad_agent_request_sync() { return not_supported(__func__); }
int ad_agent_report() { return not_supported(__func__); }
int ad_agent_launch() { return not_supported(__func__); }
int ad_agent_psid_get() { return not_supported(__func__); }
