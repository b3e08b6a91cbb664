/**
 * The agent library, libad-agent-fwk.so: the entry points that it exports to the
 * daemon that hosts it.
 *
 * They are plain C functions, looked up by name with dlsym(3) and called from one
 * thread. None of them keeps a pointer that it is passed, throws, starts a thread or
 * ends the process. A failure is logged as one line on standard error, "ad-agent: " and
 * the reason, and reported by the return value.
 *
 * The library reads "/opt/etc/ad-agent.conf" anew in each call that needs it and keeps
 * its files in "/opt/usr/apps/adagent"; docs/agent-library.md describes both, and the
 * requests that it sends to the content server.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define AD_AGENT_API __attribute__((visibility("default")))

/** What the entry points return, unless they say otherwise. */
enum {
    AD_AGENT_OK = 0,
    /** It failed; a line on standard error has the reason. */
    AD_AGENT_FAILED = -1,
    /** This library does not implement the function. */
    AD_AGENT_NOT_SUPPORTED = -2
};

/** What ad_agent_update() returns. */
enum { AD_AGENT_NO_UPDATE = 0, AD_AGENT_UPDATE_DOWNLOADED = 1 };

/** The size of ad_agent_get_soversion()'s buffer: 19 characters and a NUL. */
#define AD_AGENT_VERSION_BUFFER_SIZE 20

/**
 * Starts the library: logs the file that it was loaded from, and records whether the
 * libraries that were installed last could be loaded; if not, their image is not
 * installed again. Does not use the network.
 * @return AD_AGENT_OK, or AD_AGENT_FAILED if memory runs out
 */
AD_AGENT_API int ad_agent_init(void);

/**
 * Stops using the library, before it is unloaded. It holds nothing between calls: the
 * function may be called at any time, or never.
 * @return AD_AGENT_OK
 */
AD_AGENT_API int ad_agent_clear(void);

/**
 * Fetches a configuration document from the content server and stores it in the data
 * directory. On failure the previously stored document is kept.
 * Blocks for at most the "document" time-out and two seconds, and returns early if a
 * signal handler runs.
 * @param url_path  the document's path below the server's URL, such as "/TileAd/v2",
 *                  which is stored as "TileAd-v2.json"
 * @return AD_AGENT_OK or AD_AGENT_FAILED
 */
AD_AGENT_API int ad_agent_config_server(const char* url_path);

/**
 * Leaves an image to install at "/opt/usr/apps/adagent/zelADAgent.img". That is the
 * stored image, without a request to the server, if its version is not the one in the
 * cache manifest: its installation was interrupted. Otherwise it is the content server's
 * newest image, provided that it is newer than every copy on the device, is for this
 * product and firmware, and is not one whose library failed to load here. Where the
 * firmware has keys for it, the server's index must be signed and must not have expired.
 * The image is verified by size and SHA-256 before it replaces an earlier download, and its
 * trailer must state what the index does; ad-mounter verifies its signature. An
 * interrupted download is kept and resumed by the next call.
 * Blocks for at most the "document" and "image" time-outs together and a few seconds,
 * and returns early if a signal handler runs.
 * @param stored_version  the version of the stored image, a decimal fraction; text that
 *                        does not start with a number, and NULL, count as 0
 * @return AD_AGENT_UPDATE_DOWNLOADED if there is an image to install; AD_AGENT_NO_UPDATE
 *         if there is none, and on failure
 */
AD_AGENT_API int ad_agent_update(const char* stored_version);

/**
 * Records the version of the libraries that were just installed in the cache manifest,
 * "/opt/usr/apps/adagent/zelADAgentCache.xml", and which image they came from.
 * @param version  the version, UTF-8 text; NULL stands for "0.00"
 * @return AD_AGENT_OK or AD_AGENT_FAILED
 */
AD_AGENT_API int ad_agent_set_soversion(const char* version);

/**
 * Reads the version from the cache manifest.
 * @param version  the caller's buffer of AD_AGENT_VERSION_BUFFER_SIZE bytes, which
 *                 receives at most 19 characters of the version and a NUL; "0.00" if
 *                 none is recorded
 * @return AD_AGENT_OK, or AD_AGENT_FAILED if `version` is NULL or memory runs out
 */
AD_AGENT_API int ad_agent_get_soversion(char* version);

/**
 * Provided for hosts that look all of them up. This library serves no advertisements:
 * each function logs that it is not supported, ignores its arguments and returns
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
