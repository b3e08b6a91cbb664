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
 * Starts the library: names, in one line, the file that it was loaded from, and
 * notes whether the libraries that were installed last could be loaded: their image
 * is not taken again if not. Does not touch the network.
 * @return AD_AGENT_OK, or AD_AGENT_FAILED when memory runs out
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
 * Leaves an image to install at "/opt/usr/apps/adagent/zelADAgent.img". That is the
 * stored image again, without asking the server, when its version is not the one
 * that the cache manifest records: its installation was cut. Else it is the content
 * server's newest image when that is newer than all that is here, for this firmware,
 * and not one whose library failed to load here before. Either the whole image,
 * checked by size and SHA-256, is there in the end or what was there before; a
 * download that was cut is kept and gone on with by the next call.
 * Blocks for at most the "document" and "image" time-outs together, and ends
 * early when a signal handler runs.
 * @param stored_version  the version of the image in the store as a decimal fraction;
 *                        text that does not start with a number, or NULL, is 0
 * @return AD_AGENT_UPDATE_DOWNLOADED when an image is to be installed, or
 *         AD_AGENT_NO_UPDATE when there is none and in every case of failure
 */
AD_AGENT_API int ad_agent_update(const char* stored_version);

/**
 * Records the version of the libraries that were just installed in the cache
 * manifest, "/opt/usr/apps/adagent/zelADAgentCache.xml", and which image they are of.
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
