/**
 * What the library does, with the configuration and in the folder given to it.
 */
#ifndef AD_AGENT_AGENT_H
#define AD_AGENT_AGENT_H

#include "places.h"

#include <string>
#include <utility>

namespace ad_agent {

/**
 * Each operation reads the configuration and opens the data folder anew, so that
 * an edit of the one and the making of the other count at once. What it did, or
 * why it did not, is told by log_line().
 */
class Agent {
public:
    explicit Agent(Places places) : m_places(std::move(places)) {}

    /**
     * Tells which copy of the library the host has loaded, so that an installed one
     * which could not be loaded is known and its image not taken again.
     * @param file                 the copy's file
     * @param updatable_was_there  whether the updatable copy was there meanwhile: a
     *                             host that loads the firmware's then has failed to
     *                             load the updatable one
     */
    void loaded_from(const std::string& file, bool updatable_was_there) const;

    /** Fetches a configuration document and keeps it. @return whether it did */
    bool fetch_configuration(const std::string& url_path) const;

    /** Looks for an image to install. @return whether there is one in the data folder now */
    bool update(const std::string& stored_version) const;

    /** Records the installed libraries' version. @return whether it did */
    bool set_version(const std::string& version) const;

    /** Gives the recorded version, NO_VERSION for none. */
    std::string version() const;

private:
    Places m_places;
};

}  // namespace ad_agent

#endif
