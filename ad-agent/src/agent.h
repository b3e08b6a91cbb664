/**
 * What the library does, with the configuration and in the folder given to it.
 */
#ifndef AD_AGENT_AGENT_H
#define AD_AGENT_AGENT_H

#include <string>

namespace ad_agent {

/** The cache manifest's name in the data folder. */
inline constexpr char CACHE_MANIFEST_NAME[] = "zelADAgentCache.xml";

/**
 * Each operation reads the configuration and opens the data folder anew, so that
 * an edit of the one and the making of the other count at once. What it did, or
 * why it did not, is told in one line by log_line().
 */
class Agent {
public:
    Agent(std::string configuration, std::string data_folder);

    /** Fetches a configuration document and keeps it. @return whether it did */
    bool fetch_configuration(const std::string& url_path) const;

    /** Downloads a newer image. @return whether there is one in the data folder now */
    bool update(const std::string& installed_version) const;

    /** Records the installed libraries' version. @return whether it did */
    bool set_version(const std::string& version) const;

    /** Gives the recorded version, NO_VERSION for none. */
    std::string version() const;

private:
    std::string m_configuration;
    std::string m_data_folder;
};

}  // namespace ad_agent

#endif
