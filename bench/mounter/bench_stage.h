// The device that the benchmark runs on, in a private mount namespace.
#ifndef MOUNTER_BENCH_STAGE_H
#define MOUNTER_BENCH_STAGE_H

#include <string>

namespace mounter_bench {

constexpr const char* mount_point = "/opt/usr/apps/zelADAgent";
constexpr const char* stored_image = "/opt/down/zels/zelADAgent_img/zelADAgent.img";
constexpr const char* downloaded_image = "/opt/usr/apps/adagent/zelADAgent.img";
constexpr const char* agent_library = "/opt/usr/lib/libad-agent-fwk.so";
constexpr const char* player_res = "/usr/bin/zels/zelADAgent/adplayer/res";
/** Where the commands that are compared with write, on the same file system. */
constexpr const char* rival = "/opt/rival";

/**
 * Leaves the machine's mounts alone from here on: a fresh ext4 in a loop device
 * holds /opt and /usr/bin/zels, and /usr/lib has a key. `scratch` is a directory for its file and
 * for what images are made from. False, with a line, where the rights are missing.
 */
bool set_stage(const std::string& scratch);

/** What goes into an image. */
struct ImageContents {
    size_t library_megabytes;
    int files;        ///< small files of 4 kB in the player's resources
    int directories;  ///< over which they are spread
};

/** Makes a zstd squashfs, signs and stores it; returns its size in bytes. */
long store_image(const std::string& scratch, const ImageContents& contents);

}  // namespace mounter_bench

#endif
