// A device of its own for each test: a private mount namespace with a small
// root file system, in which the tool runs chrooted, on its real paths.
#ifndef MOUNTER_TEST_DEVICE_H
#define MOUNTER_TEST_DEVICE_H

#include "maker.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace mounter_test {

constexpr const char* usr_lib = "/opt/usr/lib";
constexpr const char* agent_library = "/opt/usr/lib/libad-agent-fwk.so";
constexpr const char* player_library = "/opt/usr/lib/libad-player-fwk.so";
constexpr const char* agent_data = "/opt/usr/apps/adagent";
constexpr const char* cache_manifest = "/opt/usr/apps/adagent/zelADAgentCache.xml";
constexpr const char* downloaded_image = "/opt/usr/apps/adagent/zelADAgent.img";
constexpr const char* mount_point = "/opt/usr/apps/zelADAgent";
constexpr const char* stored_image = "/opt/down/zels/zelADAgent_img/zelADAgent.img";
constexpr const char* key_directory = "/usr/lib/ad-mounter/keys";
constexpr const char* device_key = "/usr/lib/ad-mounter/keys/device.pub";
constexpr const char* player_res = "/usr/bin/zels/zelADAgent/adplayer/res";

using Words = std::vector<std::string>;

const Words mount_words = {"--mount", stored_image, mount_point};
const Words umount_words = {"--umount", mount_point};
const Words replace_words = {"--replaceimg", downloaded_image, stored_image};
const Words library_words = {"--copylib", std::string(mount_point) + "/libad-agent-fwk.so",
                             agent_library};
const Words tree_words = {"--copy_all", std::string(mount_point) + "/adplayer/res", player_res};

/** How a run of the tool ended. */
struct Result {
    int status;  ///< the exit status, or minus the number of the signal
    std::string out;
    std::string err;
};

/** Extras of a run. */
struct RunOptions {
    uid_t user = 0;
    gid_t group = 0;
    bool empty_argument_vector = false;
    Words environment;
    /** Called in the child, chrooted, last before the tool is executed. */
    std::function<void()> before_exec;
};

/** A tree as text: path below its top -> kind, mode, owner and content. */
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(const std::string& top);

/** Runs a command line; ends the test when it fails. */
void shell(const std::string& line);

class Device {
public:
    Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device();

    /** Why there can be no device here; empty when there can. */
    static std::string missing_rights();

    /** The test's own path of a path inside. */
    std::string at(const std::string& inside) const { return root_ + inside; }

    void make_directory(const std::string& inside) const;
    void write(const std::string& inside, const std::string& content) const;
    std::string read(const std::string& inside) const;
    bool exists(const std::string& inside) const;
    void remove(const std::string& inside) const;
    void give(const std::string& inside, uid_t user, gid_t group) const;

    /** Makes all the directories that the tool works in. */
    void make_layout() const;

    /**
     * Makes a signed image with the libraries and resources of a version and puts it
     * at `inside`. `type` is "squashfs" or "erofs". `change` may alter the tree
     * first; its argument is the tree's path. Made once for each version and type.
     */
    void put_image(const std::string& inside, const std::string& version,
                   const std::string& type = "squashfs",
                   const std::function<void(const std::string&)>& change = {}) const;

    /** Whose images the device takes. */
    const Maker& maker() const { return maker_; }

    /** The same tree without an image, as if it were mounted. */
    void put_tree(const std::string& inside, const std::string& version) const;

    Result run(const Words& words, const RunOptions& options = {}) const;

    /** In a child: chroots and executes the tool; does not return. */
    [[noreturn]] void execute(const Words& words, const RunOptions& options) const;

    /** Installs the tool set-user-ID with this group. */
    void install_set_user_id(gid_t group) const;

    /** The lines of mountinfo for mounts at the mount point. */
    std::vector<std::string> mounts() const;

    /** Loop devices whose file is this device's stored or downloaded image. */
    Words loop_devices() const;

    /** Names of temporaries that a run left. */
    Words leftovers() const;

private:
    std::string root_;
    Maker maker_;
};

class DeviceTest : public testing::Test {
protected:
    void SetUp() override {
        const std::string missing = Device::missing_rights();
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
        device_ = std::make_unique<Device>();
    }
    Device& device() { return *device_; }

private:
    std::unique_ptr<Device> device_;
};

/** A failed run says one line: "ad-mounter: VERB: STEP: PATH: REASON". */
testing::AssertionResult is_one_line(const Result& result);

}  // namespace mounter_test

#endif
