/**
 * The tables of everything that the tool can be asked to do, and to which paths.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include <linux/capability.h>
#include <sys/types.h>

namespace ad_mounter {

enum class Verb : unsigned char {
    help,
    version,
    create,
    remove,
    mount,
    umount,
    replace_image,
    copy_library,
    copy_tree,
};

enum class Kind : unsigned char { directory, file, tree, mount_point };

/** Who becomes the owner of something new. */
enum class Owner : unsigned char { root, caller };

/** The real user and group of the process that started the tool. */
struct Caller {
    uid_t user;
    gid_t group;
};

/** How a verb is written, and the privileges that it needs. */
struct CommandSpec {
    Verb verb;
    const char* option;
    size_t arguments;
    const char* synopsis;
    const char* summary;
    uint64_t capabilities;  ///< one bit for each of capabilities(7) to keep
};

/**
 * One operation: the verb and its arguments, letter for letter, the path that it changes, what
 * is there, and the mode and owner that it gets. A request may stand for several operations.
 */
// In reading order. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Operation {
    Verb verb;
    const char* first;
    const char* second;
    const char* target;
    Kind kind;
    mode_t mode;
    Owner owner;
    uint64_t limit = 0;  ///< how many bytes an image may have
};

/** 2 GiB. An image must fit beside the one that it replaces. */
inline constexpr uint64_t max_image_size = uint64_t{2} << 30;

/** The stored image, the only file that is ever mounted. */
inline constexpr const char* stored_image = "/opt/down/zels/zelADAgent_img/zelADAgent.img";

/** The highest version ever stored: text of root's. */
inline constexpr const char* version_floor = "/opt/down/zels/zelADAgent_img/zelADAgent.floor";

/** The name of this product, if it has one; part of the firmware. */
inline constexpr const char* product_file = "/usr/lib/ad-mounter/product";

/** The tool's runtime directory: root's alone, for the lock and for labels of mounts. */
inline constexpr const char* run_directory = "/run/ad-mounter";

/** The public keys of the image's maker; part of the firmware. */
inline constexpr const char* key_directory = "/usr/lib/ad-mounter/keys";

namespace detail {

inline constexpr const char* usr_lib = "/opt/usr/lib";
inline constexpr const char* agent_library = "/opt/usr/lib/libad-agent-fwk.so";
inline constexpr const char* player_library = "/opt/usr/lib/libad-player-fwk.so";
inline constexpr const char* agent_data = "/opt/usr/apps/adagent";
inline constexpr const char* cache_manifest = "/opt/usr/apps/adagent/zelADAgentCache.xml";
inline constexpr const char* downloaded_image = "/opt/usr/apps/adagent/zelADAgent.img";
inline constexpr const char* mount_point = "/opt/usr/apps/zelADAgent";
inline constexpr const char* image_agent_library = "/opt/usr/apps/zelADAgent/libad-agent-fwk.so";
inline constexpr const char* image_player_library = "/opt/usr/apps/zelADAgent/libad-player-fwk.so";
inline constexpr const char* image_player_res = "/opt/usr/apps/zelADAgent/adplayer/res";
inline constexpr const char* download_store = "/opt/down/zels/zelADAgent";
inline constexpr const char* image_store = "/opt/down/zels/zelADAgent_img";
inline constexpr const char* player_res = "/usr/bin/zels/zelADAgent/adplayer/res";

inline constexpr uint64_t mounting = 1U << CAP_SYS_ADMIN;
inline constexpr uint64_t any_file = 1U << CAP_DAC_OVERRIDE;
inline constexpr uint64_t any_owner = 1U << CAP_FOWNER;
inline constexpr uint64_t changing_owner = 1U << CAP_CHOWN;
inline constexpr uint64_t new_files = any_file | any_owner | changing_owner;

}  // namespace detail

/** Every command, in the order of --help. Replacing an image mounts it to read its manifest. */
inline constexpr CommandSpec command_specs[] = {
    {Verb::create, "--create", 1, "NAME", "create a directory or file unless it exists",
     detail::new_files},
    {Verb::remove, "--remove", 1, "NAME", "remove files or a directory tree",
     detail::any_file | detail::any_owner},
    {Verb::mount, "--mount", 2, "IMAGE MOUNTPOINT", "mount the stored image",
     detail::mounting | detail::any_file},
    {Verb::umount, "--umount", 1, "MOUNTPOINT", "unmount it", detail::mounting | detail::any_file},
    {Verb::replace_image, "--replaceimg", 2, "DOWNLOADED STORED",
     "replace the stored image with the downloaded one", detail::mounting | detail::new_files},
    {Verb::copy_library, "--copylib", 2, "SOURCE DESTINATION", "install a library",
     detail::new_files},
    {Verb::copy_tree, "--copy_all", 2, "SOURCE DESTINATION", "install a directory tree",
     detail::new_files},
    {Verb::help, "--help", 0, "", "display this help", 0},
    {Verb::version, "--version", 0, "", "display the version", 0},
};

// clang-format off
/** Every operation, in the order of --help and of execution. */
inline constexpr Operation operations[] = {
    // verb                first argument                     second argument         target                  kind               mode   owner          limit
    {Verb::create,        "create_path_usr_lib",              nullptr,                detail::usr_lib,        Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_path_apps_adagent",         nullptr,                detail::agent_data,     Kind::directory,   0755,  Owner::caller},
    {Verb::create,        "create_path_apps_zeladagent",      nullptr,                detail::mount_point,    Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_file_apps_zeladagent_xml",  nullptr,                detail::cache_manifest, Kind::file,        0644,  Owner::caller},
    {Verb::create,        "create_path_zeladagent",           nullptr,                detail::download_store, Kind::directory,   0755,  Owner::root},
    {Verb::create,        "create_path_zeladagent_img",       nullptr,                detail::image_store,    Kind::directory,   0755,  Owner::root},
    {Verb::remove,        "remove_usr_lib_path",              nullptr,                detail::usr_lib,        Kind::tree,        0,     Owner::root},
    {Verb::remove,        "remove_usr_lib_file",              nullptr,                detail::agent_library,  Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_usr_lib_file",              nullptr,                detail::player_library, Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_zel_adagent_img_file",      nullptr,                stored_image,           Kind::file,        0,     Owner::root},
    {Verb::remove,        "remove_player_res_path",           nullptr,                detail::player_res,     Kind::tree,        0,     Owner::root},
    {Verb::mount,         stored_image,                       detail::mount_point,    detail::mount_point,    Kind::mount_point, 0,     Owner::root,   max_image_size},
    {Verb::umount,        detail::mount_point,                nullptr,                detail::mount_point,    Kind::mount_point, 0,     Owner::root},
    {Verb::replace_image, detail::downloaded_image,           stored_image,           stored_image,           Kind::file,        0644,  Owner::root,   max_image_size},
    {Verb::copy_library,  detail::image_agent_library,        detail::agent_library,  detail::agent_library,  Kind::file,        0644,  Owner::root},
    {Verb::copy_library,  detail::image_player_library,       detail::player_library, detail::player_library, Kind::file,        0644,  Owner::root},
    {Verb::copy_tree,     detail::image_player_res,           detail::player_res,     detail::player_res,     Kind::tree,        0,     Owner::root},
};
// clang-format on

/** The operation that creates the directory `path`; null when there is none. */
const Operation* find_directory(const char* path);

/** Whether the same command line asks for both operations. */
bool same_request(const Operation& one, const Operation& other);

}  // namespace ad_mounter
