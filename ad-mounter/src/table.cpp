#include "table.h"

#include <cstring>
#include <iterator>

namespace ad_mounter {

namespace {

constexpr const char* usr_lib = "/opt/usr/lib";
constexpr const char* agent_library = "/opt/usr/lib/libad-agent-fwk.so";
constexpr const char* player_library = "/opt/usr/lib/libad-player-fwk.so";
constexpr const char* agent_data = "/opt/usr/apps/adagent";
constexpr const char* cache_manifest = "/opt/usr/apps/adagent/zelADAgentCache.xml";
constexpr const char* downloaded_image = "/opt/usr/apps/adagent/zelADAgent.img";
constexpr const char* mount_point = "/opt/usr/apps/zelADAgent";
constexpr const char* image_agent_library = "/opt/usr/apps/zelADAgent/libad-agent-fwk.so";
constexpr const char* image_player_library = "/opt/usr/apps/zelADAgent/libad-player-fwk.so";
constexpr const char* image_player_res = "/opt/usr/apps/zelADAgent/adplayer/res";
constexpr const char* download_store = "/opt/down/zels/zelADAgent";
constexpr const char* image_store = "/opt/down/zels/zelADAgent_img";
constexpr const char* image = "/opt/down/zels/zelADAgent_img/zelADAgent.img";
constexpr const char* player_res = "/usr/bin/zels/zelADAgent/adplayer/res";

constexpr VerbForm forms[] = {
    {Verb::create, "--create", 1, "NAME", "make a directory or file where it is missing"},
    {Verb::remove, "--remove", 1, "NAME", "remove what is there"},
    {Verb::mount, "--mount", 2, "IMAGE POINT", "mount the stored image"},
    {Verb::umount, "--umount", 1, "POINT", "unmount it"},
    {Verb::replace_image, "--replaceimg", 2, "DOWNLOADED STORED", "put a new image in place"},
    {Verb::copy_library, "--copylib", 2, "SOURCE DESTINATION", "install a library"},
    {Verb::copy_tree, "--copy_all", 2, "SOURCE DESTINATION", "install a directory tree"},
    {Verb::help, "--help", 0, "", "show this text"},
    {Verb::version, "--version", 0, "", "show the version"},
};

// clang-format off
constexpr Row table[] = {
    // verb                first argument                     second argument  target            kind               mode   owner
    {Verb::create,        "create_path_usr_lib",              nullptr,         usr_lib,          Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_path_apps_adagent",         nullptr,         agent_data,       Kind::directory,   0755,  Owner::caller},
    {Verb::create,        "create_path_apps_zeladagent",      nullptr,         mount_point,      Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_file_apps_zeladagent_xml",  nullptr,         cache_manifest,   Kind::file,        0644,  Owner::caller},
    {Verb::create,        "create_path_zeladagent",           nullptr,         download_store,   Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_path_zeladagent_img",       nullptr,         image_store,      Kind::directory,   0755,  Owner::root},
    {Verb::remove,        "remove_usr_lib_path",              nullptr,         usr_lib,          Kind::tree,        0,     Owner::root},
    {Verb::remove,        "remove_usr_lib_file",              nullptr,         agent_library,    Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_usr_lib_file",              nullptr,         player_library,   Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_zel_adagent_img_file",      nullptr,         image,            Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_player_res_path",           nullptr,         player_res,       Kind::tree,        0,     Owner::root},
    {Verb::mount,         image,                              mount_point,     mount_point,      Kind::mount_point, 0,     Owner::root},
    {Verb::umount,        mount_point,                        nullptr,         mount_point,      Kind::mount_point, 0,     Owner::root},
    {Verb::replace_image, downloaded_image,                   image,           image,            Kind::file,        0644,  Owner::root},
    {Verb::copy_library,  image_agent_library,                agent_library,   agent_library,    Kind::file,        0644,  Owner::root},
    {Verb::copy_library,  image_player_library,               player_library,  player_library,   Kind::file,        0644,  Owner::root},
    {Verb::copy_tree,     image_player_res,                   player_res,      player_res,       Kind::tree,        0,     Owner::root},
};
// clang-format on

}  // namespace

const char* const stored_image = image;
const char* const run_directory = "/run/ad-mounter";
const char* const key_directory = "/usr/lib/ad-mounter/keys";

Entries<VerbForm> verb_forms() { return {std::begin(forms), std::end(forms)}; }

Entries<Row> rows() { return {std::begin(table), std::end(table)}; }

const Row* directory_row(const char* path) {
    for (const Row& row : rows()) {
        if (row.kind == Kind::directory && strcmp(row.target, path) == 0) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace ad_mounter
