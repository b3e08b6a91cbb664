#include "scenarios.h"

#include <sys/mount.h>

namespace mounter_test {

namespace {

using Prepare = std::function<void(const Device&)>;

void start_over(const Device& device) {
    while (umount2(device.at(mount_point).c_str(), UMOUNT_NOFOLLOW) == 0) {
    }
    for (const char* top : {"/opt/usr", "/opt/down", "/usr/bin/zels"}) {
        device.remove(top);
    }
}

void install_old_version(const Device& device) {
    start_over(device);
    device.make_layout();
    device.put_tree(mount_point, "2.0");
    // Larger than what is copied at a time.
    device.write(mounted_library, std::string(1'500'000, 'l'));
    device.write(agent_library, "the old library");
    device.write(player_library, "the old player");
    device.write(std::string(player_res) + "/old/page", "the old page");
}

void install_no_resources(const Device& device) {
    install_old_version(device);
    device.remove(player_res);
}

Prepare store_image(const std::string& type) {
    return [type](const Device& device) {
        start_over(device);
        device.make_layout();
        device.put_image(stored_image, "1.0", type);
    };
}

Prepare mount_image(const std::string& type, const std::string& next_version = "") {
    return [type, next_version](const Device& device) {
        store_image(type)(device);
        EXPECT_TRUE(ended(device.run(mount_words), 0));
        if (!next_version.empty()) {
            device.put_image(stored_image, next_version, type);
        }
    };
}

Prepare download_image(uid_t owner) {
    return [owner](const Device& device) {
        store_image("squashfs")(device);
        device.put_image(downloaded_image, "2.0");
        device.give(downloaded_image, owner, 0);
    };
}

}  // namespace

std::vector<Scenario> scenarios() {
    const auto create = [](const char* what) { return Words{"--create", what}; };
    const auto remove = [](const char* what) { return Words{"--remove", what}; };
    const std::string squashfs = "squashfs";
    const std::string erofs = "erofs";
    return {
        {"CreateDirectory", create("create_path_apps_adagent"), start_over, agent_data, ""},
        {"CreateManifest", create("create_file_apps_zeladagent_xml"), start_over, cache_manifest,
         ""},
        {"RemoveLibraries", remove("remove_usr_lib_file"), install_old_version, agent_library,
         player_library},
        {"RemoveLibraryPath", remove("remove_usr_lib_path"), install_old_version, usr_lib, ""},
        {"RemoveImage", remove("remove_zel_adagent_img_file"), store_image(squashfs), stored_image,
         ""},
        {"RemoveResources", remove("remove_player_res_path"), install_old_version, player_res, ""},
        {"MountSquashfs", mount_words, store_image(squashfs), mount_point, stored_image},
        {"MountErofs", mount_words, store_image(erofs), mount_point, stored_image},
        {"MountOverOldsquashfs", mount_words, mount_image(squashfs, "2.0"), mount_point,
         stored_image, true},
        {"MountOverOlderofs", mount_words, mount_image(erofs, "2.0"), mount_point, stored_image,
         true},
        {"Unmount", umount_words, mount_image(squashfs), mount_point, ""},
        {"ReplaceByRename", replace_words, download_image(0), stored_image, downloaded_image},
        {"ReplaceByCopy", replace_words, download_image(1234), stored_image, downloaded_image},
        {"CopyLibrary", library_words, install_old_version, agent_library, mounted_library},
        {"CopyTree", tree_words, install_old_version, player_res, mounted_res},
        {"CopyTreeAnew", tree_words, install_no_resources, player_res, mounted_res},
    };
}

}  // namespace mounter_test
