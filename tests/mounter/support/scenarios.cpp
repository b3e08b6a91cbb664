#include "scenarios.h"

#include <sys/mount.h>
#include <sysexits.h>
#include <unistd.h>

namespace mounter_test {

namespace {

const std::string image_library = std::string(mount_point) + "/libad-agent-fwk.so";
const std::string image_resources = std::string(mount_point) + "/adplayer/res";

void unmount_all(const Device& device) {
    while (umount2(device.at(mount_point).c_str(), UMOUNT_NOFOLLOW) == 0) {
    }
}

void start_over(const Device& device) {
    unmount_all(device);
    for (const char* top : {"/opt/usr", "/opt/down", "/usr/bin/zels"}) {
        device.remove(top);
    }
}

void lay_out(const Device& device) {
    start_over(device);
    device.make_layout();
}

void fill_mount_point(const Device& device, const std::string& version) {
    device.put_tree(mount_point, version);
}

void install_old_version(const Device& device) {
    lay_out(device);
    fill_mount_point(device, "2.0");
    device.write(agent_library, "the old library");
    device.write(player_library, "the old player");
    device.write(std::string(player_res) + "/old/page", "the old page");
}

void store_image(const Device& device, const std::string& type) {
    lay_out(device);
    device.put_image(stored_image, "1.0", type);
}

Scenario mount_over_old(const std::string& type) {
    return {"MountOverOld" + type,
            mount_words,
            [type](const Device& device) {
                store_image(device, type);
                device.run(mount_words);
                device.put_image(stored_image, "2.0", type);
            },
            {mount_point},
            {stored_image},
            0,
            true};
}

std::vector<Scenario> mount_scenarios() {
    return {
        {"MountSquashfs",
         mount_words,
         [](const Device& device) { store_image(device, "squashfs"); },
         {mount_point},
         {stored_image}},
        {"MountErofs",
         mount_words,
         [](const Device& device) { store_image(device, "erofs"); },
         {mount_point},
         {stored_image}},
        mount_over_old("squashfs"),
        mount_over_old("erofs"),
        {"Unmount",
         umount_words,
         [](const Device& device) {
             store_image(device, "squashfs");
             device.run(mount_words);
         },
         {mount_point},
         {}},
    };
}

std::vector<Scenario> install_scenarios() {
    const auto downloaded = [](uid_t owner) {
        return [owner](const Device& device) {
            lay_out(device);
            device.put_image(stored_image, "1.0");
            device.put_image(downloaded_image, "2.0");
            device.give(downloaded_image, owner, 0);
        };
    };
    return {
        {"ReplaceByRename",
         replace_words,
         downloaded(0),
         {stored_image},
         {downloaded_image},
         EX_NOINPUT},
        {"ReplaceByCopy",
         replace_words,
         downloaded(1234),
         {stored_image},
         {downloaded_image},
         EX_NOINPUT},
        {"CopyLibrary",
         library_words,
         [](const Device& device) {
             install_old_version(device);
             device.write(image_library, std::string(1'500'000, 'l'));
         },
         {agent_library},
         {image_library}},
        {"CopyTree", tree_words, install_old_version, {player_res}, {image_resources}},
        {"CopyTreeAnew",
         tree_words,
         [](const Device& device) {
             install_old_version(device);
             device.remove(player_res);
         },
         {player_res},
         {image_resources}},
    };
}

std::vector<Scenario> plain_scenarios() {
    return {
        {"CreateDirectory", {"--create", "create_path_apps_adagent"}, start_over, {agent_data}, {}},
        {"CreateManifest",
         {"--create", "create_file_apps_zeladagent_xml"},
         start_over,
         {cache_manifest},
         {}},
        {"RemoveLibraries",
         {"--remove", "remove_usr_lib_file"},
         install_old_version,
         {agent_library},
         {player_library}},
        {"RemoveLibraryPath",
         {"--remove", "remove_usr_lib_path"},
         install_old_version,
         {usr_lib},
         {}},
        {"RemoveImage",
         {"--remove", "remove_zel_adagent_img_file"},
         [](const Device& device) { store_image(device, "squashfs"); },
         {stored_image},
         {}},
        {"RemoveResources",
         {"--remove", "remove_player_res_path"},
         install_old_version,
         {player_res},
         {}},
    };
}

}  // namespace

std::vector<Scenario> scenarios() {
    std::vector<Scenario> all = plain_scenarios();
    for (const auto& more : {mount_scenarios(), install_scenarios()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

std::vector<Snapshot> state(const Device& device, const Scenario& scenario) {
    std::vector<Snapshot> seen;
    for (const std::string& path : scenario.changed) {
        seen.push_back(snapshot(device.at(path)));
    }
    return seen;
}

}  // namespace mounter_test
