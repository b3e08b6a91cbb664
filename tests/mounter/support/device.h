// A device of its own for each test: a private mount namespace with a small
// root file system, in which the tool runs chrooted, on its real paths.
#ifndef MOUNTER_TEST_DEVICE_H
#define MOUNTER_TEST_DEVICE_H

#include "maker.h"

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

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
constexpr const char* mounted_library = "/opt/usr/apps/zelADAgent/libad-agent-fwk.so";
constexpr const char* mounted_res = "/opt/usr/apps/zelADAgent/adplayer/res";

using Words = std::vector<std::string>;

const Words mount_words = {"--mount", stored_image, mount_point};
const Words umount_words = {"--umount", mount_point};
const Words replace_words = {"--replaceimg", downloaded_image, stored_image};
const Words library_words = {"--copylib", mounted_library, agent_library};
const Words tree_words = {"--copy_all", mounted_res, player_res};

/** What can be asked to be created. */
constexpr const char* creations[] = {
    "create_path_usr_lib",         "create_path_apps_adagent",
    "create_path_apps_zeladagent", "create_file_apps_zeladagent_xml",
    "create_path_zeladagent",      "create_path_zeladagent_img"};

/** How a run of the tool ended. */
struct Result {
    int status;  ///< the exit status, or minus the number of the signal
    std::string out;
    std::string err;
};

/** Whether a run succeeded and said nothing, or failed so and said it in one line. */
testing::AssertionResult ended(const Result& result, int status);

/** Called in the child, chrooted, last before the tool is executed. */
using BeforeExec = std::function<void()>;

/** A tree: path below its top -> kind and mode, user, group, and the content's hash. */
using Snapshot = std::map<std::string, std::array<size_t, 4>>;

/** Runs a command line; ends the test when it fails. */
void shell(const std::string& line);

/** A field of /proc/PID/status. */
std::string status_field(pid_t pid, const std::string& name);

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
    void set_mode(const std::string& inside, mode_t mode) const;
    /** As "USER:GROUP MODE". */
    std::string owner(const std::string& inside) const;
    Snapshot snapshot(const std::string& inside) const;

    /** Makes all the directories that the tool works in. */
    void make_layout() const;

    /** The libraries and resources of a version, as if an image of it were mounted. */
    void put_tree(const std::string& inside, const std::string& version) const;

    /**
     * Makes a signed image of the same. `type` is "squashfs" or "erofs". The command
     * line `change` may alter the tree first, in which it is run. Made once for each
     * version and type, in /stage/VERSION.TYPE; what is signed is ".unsigned" beside it.
     */
    void put_image(const std::string& inside, const std::string& version,
                   const std::string& type = "squashfs", const std::string& change = "") const;

    /** Whose images the device takes. */
    const Maker& maker() const { return maker_; }

    Result run(const Words& words, const BeforeExec& before_exec = {}) const;

    /** The same in two parts. */
    pid_t start(const Words& words, const BeforeExec& before_exec = {}) const;
    Result wait_for(pid_t pid) const;

    /** Of a run that ended with what waitpid() gave. */
    Result result(int wait_status) const;

    /** Takes the lock that runs hold; closing it gives it back. */
    int hold_lock() const;

    /** The lines of mountinfo for mounts at the mount point, and for images anywhere. */
    Words mounts() const;

    /** Whether there is no temporary, and no mount or loop device but the mounted image's. */
    testing::AssertionResult is_clean(size_t most_mounts = 0) const;

private:
    Words loop_devices() const;

    std::string root_;
    Maker maker_;
};

class DeviceTest : public testing::Test {
protected:
    void SetUp() final;
    virtual void prepare() {}
    Device& device() { return *device_; }

private:
    std::unique_ptr<Device> device_;
};

/** With all the directories that the tool works in. */
class LaidOutTest : public DeviceTest {
protected:
    void prepare() override { device().make_layout(); }
};

}  // namespace mounter_test

#endif
