/**
 * The agent library, libad-agent-fwk.so: what it exports to the daemon that
 * hosts it.
 *
 * The functions are plain C functions, found by name with dlsym(3) and called
 * from one thread. None of them keeps a pointer that it is given, throws, starts
 * a thread or ends the process. A failure costs one line on standard error,
 * "ad-agent: " and what went wrong, and the result below.
 *
 * The library reads "/opt/etc/ad-agent.conf" anew at each call that needs it and
 * keeps its files in "/opt/usr/apps/adagent"; docs/agent-library.md describes
 * both, and what it asks of the content server.
 */
#ifndef AD_AGENT_H
#define AD_AGENT_H

#ifdef __cplusplus
extern "C" {
#endif

#define AD_AGENT_API __attribute__((visibility("default")))

/** What the entry points return, except where they say otherwise. */
enum {
    AD_AGENT_OK = 0,
    /** It failed, and a line on standard error says why. */
    AD_AGENT_FAILED = -1,
    /** This library does not do that. */
    AD_AGENT_NOT_SUPPORTED = -2
};

/** What ad_agent_update() returns. */
enum { AD_AGENT_NO_UPDATE = 0, AD_AGENT_UPDATE_DOWNLOADED = 1 };

/** The room that ad_agent_get_soversion() needs: 19 characters and a NUL. */
#define AD_AGENT_VERSION_BUFFER_SIZE 20

/**
 * Starts the library: names, in one line, the file that it was loaded from.
 * Touches neither the network nor a file.
 * @return AD_AGENT_OK
 */
AD_AGENT_API int ad_agent_init(void);

/**
 * Ends the use of the library, before it is unloaded. There is nothing that it
 * holds between calls, so this may be called at any time, or not at all.
 * @return AD_AGENT_OK
 */
AD_AGENT_API int ad_agent_clear(void);

/**
 * Fetches a configuration document from the content server and keeps it in the
 * data folder. The document kept before stays when the new one cannot be had.
 * Blocks for at most the "document" time-out, and ends early when a signal
 * handler runs.
 * @param url_path  the document's path below the server's URL, such as
 *                  "/TileAd/v2", which is kept as "TileAd-v2.json"
 * @return AD_AGENT_OK or AD_AGENT_FAILED
 */
AD_AGENT_API int ad_agent_config_server(const char* url_path);

/**
 * Asks the content server for its newest image and downloads it to
 * "/opt/usr/apps/adagent/zelADAgent.img" when it is newer than the installed
 * one: when its version is the greater number. Either the whole image, checked
 * by size and SHA-256, is there in the end or what was there before.
 * Blocks for at most the "document" and "image" time-outs together, and ends
 * early when a signal handler runs.
 * @param installed_version  the installed image's version as a decimal fraction;
 *                           text that does not start with a number, or NULL, is 0
 * @return AD_AGENT_UPDATE_DOWNLOADED, or AD_AGENT_NO_UPDATE when there is nothing
 *         newer and in every case of failure
 */
AD_AGENT_API int ad_agent_update(const char* installed_version);

/**
 * Records the version of the libraries that were just installed in the cache
 * manifest, "/opt/usr/apps/adagent/zelADAgentCache.xml".
 * @param version  the version, UTF-8 text
 * @return AD_AGENT_OK or AD_AGENT_FAILED
 */
AD_AGENT_API int ad_agent_set_soversion(const char* version);

/**
 * Reads the version that the cache manifest records.
 * @param version  the caller's buffer of AD_AGENT_VERSION_BUFFER_SIZE bytes; gets
 *                 at most 19 characters of the version and a NUL, or "0.00" when
 *                 none is recorded
 * @return AD_AGENT_OK, or AD_AGENT_FAILED for a null pointer
 */
AD_AGENT_API int ad_agent_get_soversion(char* version);

/**
 * Names kept for programs that look all of them up. This library serves no
 * advertisement: each says so in one line, ignores what it is given and returns
 * AD_AGENT_NOT_SUPPORTED.
 */
AD_AGENT_API int ad_agent_register(void);
AD_AGENT_API int ad_agent_unregister(void);
AD_AGENT_API int ad_agent_request(void);
AD_AGENT_API int ad_agent_request_sync(void);
AD_AGENT_API int ad_agent_report(void);
AD_AGENT_API int ad_agent_launch(void);
AD_AGENT_API int ad_agent_psid_get(void);

#ifdef __cplusplus
}
#endif

#endif
