#include "device.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <grp.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mounter_test {

namespace fs = std::filesystem;

namespace {

// Present on every system, and covered only in our own namespace.
constexpr const char* place_for_root = "/mnt";

void check(bool good, const std::string& what) {
    if (!good) {
        fprintf(stderr, "device: %s: %s\n", what.c_str(), strerror(errno));
        abort();
    }
}

std::string slurp(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The tool's file, opened before anything is mounted over it.
int tool_file() {
    static const int fd = open(AD_MOUNTER_TOOL, O_RDONLY | O_CLOEXEC);
    check(fd >= 0, AD_MOUNTER_TOOL);
    return fd;
}

void bind_mount(const std::string& source, const std::string& target) {
    fs::create_directories(target);
    check(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, target);
}

std::string describe(const fs::path& path) {
    struct stat status;
    check(lstat(path.c_str(), &status) == 0, path);
    std::ostringstream text;
    text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ':' << status.st_gid
         << ' ';
    if (S_ISLNK(status.st_mode)) {
        text << fs::read_symlink(path).string();
    } else if (S_ISREG(status.st_mode)) {
        text << std::hash<std::string>()(slurp(path)) << '/' << status.st_size;
    }
    return text.str();
}

// Some ten kB that differ from version to version.
std::string library_content(const std::string& version) {
    std::string content;
    for (int i = 0; content.size() < 40'000; ++i) {
        content += version + ':' + std::to_string(i * 7919) + '\n';
    }
    return content;
}

Result collect(pid_t pid, int out, int err) {
    Result result = {};
    for (auto [fd, text] : {std::pair(out, &result.out), std::pair(err, &result.err)}) {
        char buffer[4096];
        ssize_t got = 0;
        while ((got = ::read(fd, buffer, sizeof buffer)) > 0) {
            text->append(buffer, static_cast<size_t>(got));
        }
        close(fd);
    }
    int status = 0;
    check(waitpid(pid, &status, 0) == pid, "waitpid");
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return result;
}

}  // namespace

void shell(const std::string& line) {
    // The tests' own fixed lines. NOLINTNEXTLINE(cert-env33-c)
    check(system((line + " > /dev/null 2>&1").c_str()) == 0, line);
}

Snapshot snapshot(const std::string& top) {
    Snapshot all;
    if (!fs::exists(fs::symlink_status(top))) {
        return all;
    }
    all["."] = describe(top);
    if (fs::is_directory(fs::symlink_status(top))) {
        for (const auto& entry : fs::recursive_directory_iterator(top)) {
            all[entry.path().lexically_relative(top)] = describe(entry.path());
        }
    }
    return all;
}

std::string Device::missing_rights() {
    if (geteuid() != 0) {
        return "needs root for a mount namespace and loop devices";
    }
    if (access("/dev/loop-control", W_OK) != 0) {
        return "needs /dev/loop-control";
    }
    tool_file();
    static const bool separated = unshare(CLONE_NEWNS) == 0 &&
                                  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return separated ? "" : "needs a mount namespace of its own";
}

Device::Device() : root_(place_for_root) {
    check(mount("device", root_.c_str(), "tmpfs", 0, "mode=0755") == 0, root_);
    for (const char* directory : {"/opt", "/run", "/tool", "/usr/bin", "/stage", "/home"}) {
        fs::create_directories(at(directory));
    }
    bind_mount("/proc", at("/proc"));
    bind_mount("/dev", at("/dev"));
    // A tool built with the sanitizers is linked dynamically.
    for (const char* directory : {"/usr/lib", "/layer/upper", "/layer/work"}) {
        fs::create_directories(at(directory));
    }
    const std::string layers =
        "lowerdir=/usr/lib,upperdir=" + at("/layer/upper") + ",workdir=" + at("/layer/work");
    check(mount("usr-lib", at("/usr/lib").c_str(), "overlay", 0, layers.c_str()) == 0, layers);
    write(device_key, maker_.public_key());
    for (const char* directory : {"/lib", "/lib64"}) {
        if (fs::is_symlink(directory)) {
            fs::create_symlink(std::string("usr") + directory, at(directory));
        } else if (fs::exists(directory)) {
            bind_mount(directory, at(directory));
        }
    }
    if (fs::exists("/usr/lib64")) {
        bind_mount("/usr/lib64", at("/usr/lib64"));
    }
    const std::string source = "/proc/self/fd/" + std::to_string(tool_file());
    fs::copy_file(source, at("/tool/ad-mounter"));
    fs::permissions(at("/tool/ad-mounter"), fs::perms(0755));
}

Device::~Device() {
    while (umount2(at(mount_point).c_str(), UMOUNT_NOFOLLOW) == 0) {
    }
    // Nothing is left to find unless the tool is broken; the next test is not to suffer from it.
    for (const std::string& name : loop_devices()) {
        const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        ioctl(fd, LOOP_CLR_FD, 0);
        close(fd);
    }
    umount2(root_.c_str(), MNT_DETACH);
}

void Device::make_directory(const std::string& inside) const { fs::create_directories(at(inside)); }

void Device::write(const std::string& inside, const std::string& content) const {
    fs::create_directories(fs::path(at(inside)).parent_path());
    std::ofstream(at(inside), std::ios::binary) << content;
}

std::string Device::read(const std::string& inside) const { return slurp(at(inside)); }

bool Device::exists(const std::string& inside) const {
    return fs::exists(fs::symlink_status(at(inside)));
}

void Device::remove(const std::string& inside) const { fs::remove_all(at(inside)); }

void Device::give(const std::string& inside, uid_t user, gid_t group) const {
    check(lchown(at(inside).c_str(), user, group) == 0, inside);
}

void Device::make_layout() const {
    for (const char* directory : {usr_lib, agent_data, mount_point, "/opt/down/zels/zelADAgent",
                                  "/opt/down/zels/zelADAgent_img"}) {
        make_directory(directory);
    }
    make_directory(fs::path(player_res).parent_path());
}

void Device::put_tree(const std::string& inside, const std::string& version) const {
    write(inside + "/libad-agent-fwk.so", "agent " + library_content(version));
    write(inside + "/libad-player-fwk.so", "player " + library_content(version));
    write(inside + "/zelADAgent.xml", "<Zel><Version>" + version + "</Version></Zel>");
    write(inside + "/adplayer/res/page.html", "page " + version);
    write(inside + "/adplayer/res/bin/player.sh", "#!/bin/sh\n# " + version + "\n");
    fs::permissions(at(inside + "/adplayer/res/bin/player.sh"), fs::perms(0775));
    write(inside + "/adplayer/res/empty", "");
    fs::permissions(at(inside + "/adplayer/res/empty"), fs::perms(0400));
    write(inside + "/adplayer/res/a/b/c/deep", library_content(version).substr(0, 7'000));
    fs::create_symlink("../page.html", at(inside + "/adplayer/res/bin/link"));
}

void Device::put_image(const std::string& inside, const std::string& version,
                       const std::string& type,
                       const std::function<void(const std::string&)>& change) const {
    const std::string made = "/stage/" + version + '.' + type;
    if (change || !exists(made)) {
        remove("/stage/tree");
        remove(made);
        put_tree("/stage/tree", version);
        if (change) {
            change(at("/stage/tree"));
        }
        shell(type == "squashfs"
                  ? "mksquashfs " + at("/stage/tree") + ' ' + at(made) + " -quiet -no-progress"
                  : "mkfs.erofs " + at(made) + ' ' + at("/stage/tree"));
        write(made, maker_.signed_image(read(made), version));
    }
    fs::create_directories(fs::path(at(inside)).parent_path());
    fs::remove(at(inside));
    fs::copy_file(at(made), at(inside));
    fs::permissions(at(inside), fs::perms(0644));
    if (change) {
        remove(made);
    }
}

void Device::execute(const Words& words, const RunOptions& options) const {
    check(chroot(root_.c_str()) == 0 && chdir("/") == 0, "chroot");
    if (options.user != 0) {
        check(setgroups(0, nullptr) == 0 && setgid(options.group) == 0 && setuid(options.user) == 0,
              "setuid");
    }
    std::string name = "ad-mounter";
    std::vector<char*> argv;
    if (!options.empty_argument_vector) {
        argv.push_back(name.data());
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
    }
    argv.push_back(nullptr);
    std::vector<char*> environment;
    for (const std::string& variable : options.environment) {
        environment.push_back(const_cast<char*>(variable.c_str()));
    }
    environment.push_back(nullptr);
    if (options.before_exec) {
        options.before_exec();
    }
    execve("/tool/ad-mounter", argv.data(), environment.data());
    _exit(126);
}

Result Device::run(const Words& words, const RunOptions& options) const {
    int out[2];
    int err[2];
    check(pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0, "pipe2");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execute(words, options);
    }
    close(out[1]);
    close(err[1]);
    return collect(pid, out[0], err[0]);
}

void Device::install_set_user_id(gid_t group) const {
    const std::string tool = at("/tool/ad-mounter");
    check(chown(tool.c_str(), 0, group) == 0 && chmod(tool.c_str(), 04750) == 0, tool);
}

std::vector<std::string> Device::mounts() const {
    std::ifstream list("/proc/self/mountinfo");
    std::vector<std::string> found;
    for (std::string line; std::getline(list, line);) {
        if (line.find(' ' + at(mount_point) + ' ') != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

Words Device::loop_devices() const {
    Words found;
    for (const auto& entry : fs::directory_iterator("/sys/block")) {
        const std::string file = slurp(entry.path() / "loop/backing_file");
        const std::string name = "/dev/" + entry.path().filename().string();
        if (file.find("/zelADAgent.img") == std::string::npos) {
            continue;
        }
        // Other tests' devices show the same path: only the file system tells them apart.
        const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        loop_info64 info = {};
        struct stat here;
        check(stat(root_.c_str(), &here) == 0, root_);
        if (fd >= 0 && ioctl(fd, LOOP_GET_STATUS64, &info) == 0 && info.lo_device == here.st_dev) {
            found.push_back(name);
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    return found;
}

Words Device::leftovers() const {
    Words found;
    for (const char* top : {"/opt", "/usr/bin", "/run"}) {
        for (const auto& entry : fs::recursive_directory_iterator(at(top))) {
            const std::string name = entry.path().filename();
            if (name.find(".ad-mounter") != std::string::npos || name.find("image-") == 0) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

testing::AssertionResult is_one_line(const Result& result) {
    const size_t end = result.err.find('\n');
    if (end != std::string::npos && end + 1 == result.err.size() &&
        result.err.compare(0, 12, "ad-mounter: ") == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << "status " << result.status << " with: [" << result.err << "]";
}

}  // namespace mounter_test
