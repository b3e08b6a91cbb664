#include "device.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
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

// The tool, read before anything is mounted over it.
const std::string& tool() {
    static const std::string bytes = slurp(AD_MOUNTER_TOOL);
    return bytes;
}

}  // namespace

testing::AssertionResult ended(const Result& result, int status) {
    const bool one_line = result.err.compare(0, 12, "ad-mounter: ") == 0 &&
                          result.err.find('\n') + 1 == result.err.size();
    if (result.status == status && (status == 0 ? result.err.empty() : one_line)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "status " << result.status << " instead of " << status
                                       << " with: [" << result.err << "]\n";
}

void shell(const std::string& line) {
    // The tests' own fixed lines. NOLINTNEXTLINE(cert-env33-c)
    check(system(("(" + line + ") > /dev/null 2>&1").c_str()) == 0, line);
}

std::string status_field(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; file >> word;) {
        if (word == name + ':') {
            file >> word;
            return word;
        }
    }
    return "";
}

std::string Device::missing_rights() {
#ifdef __x86_64__
    static const bool separated = geteuid() == 0 && access("/dev/loop-control", W_OK) == 0 &&
                                  !tool().empty() && unshare(CLONE_NEWNS) == 0 &&
                                  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return separated ? "" : "needs root, loop devices and a mount namespace of its own";
#else
    return "system calls are only intercepted on x86-64";
#endif
}

// The process's number tells the loop devices of tests that run at once apart.
Device::Device() : root_(place_for_root + std::string("/") + std::to_string(getpid())) {
    umask(022);
    shell(std::string("mount -t tmpfs -o mode=0755 device ") + place_for_root);
    // The host's libraries, below our own keys: a tool with sanitizers is linked dynamically.
    shell("mkdir " + root_ + " && cd " + root_ +
          " && mkdir -p opt run usr/bin usr/lib stage home proc dev layer/upper layer/work"
          " && mount --rbind /proc proc && mount --rbind /dev dev && mount -t overlay usr-lib -o "
          "lowerdir=/usr/lib,upperdir=layer/upper,workdir=layer/work usr/lib"
          " && for i in lib lib64 usr/lib64; do if [ -L /$i ]; then cp -P /$i $i; "
          "elif [ -d /$i ]; then mkdir $i && mount --rbind /$i $i; fi; done");
    write(device_key, maker_.public_key());
    write("/tool/ad-mounter", tool());
    set_mode("/tool/ad-mounter", 0755);
}

Device::~Device() {
    while (umount2(at(mount_point).c_str(), UMOUNT_NOFOLLOW) == 0) {
    }
    // Nothing is left to find unless the tool is broken; the next test is not to suffer from it.
    for (const std::string& name : loop_devices()) {
        shell("losetup -d " + name);
    }
    umount2(place_for_root, MNT_DETACH);
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

void Device::set_mode(const std::string& inside, mode_t mode) const {
    check(chmod(at(inside).c_str(), mode) == 0, inside);
}

std::string Device::owner(const std::string& inside) const {
    struct stat status;
    check(lstat(at(inside).c_str(), &status) == 0, inside);
    std::ostringstream text;
    text << status.st_uid << ':' << status.st_gid << ' ' << std::oct << (status.st_mode & 07777);
    return text.str();
}

Snapshot Device::snapshot(const std::string& inside) const {
    Snapshot all;
    const auto look = [&](const fs::path& path) {
        struct stat status;
        check(lstat(path.c_str(), &status) == 0, path);
        const std::string content = S_ISLNK(status.st_mode)   ? fs::read_symlink(path).string()
                                    : S_ISREG(status.st_mode) ? slurp(path)
                                                              : "";
        all[path.lexically_relative(at(inside))] = {status.st_mode, status.st_uid, status.st_gid,
                                                    std::hash<std::string>()(content)};
    };
    if (exists(inside)) {
        look(at(inside));
    }
    if (fs::is_directory(fs::symlink_status(at(inside)))) {
        for (const auto& entry : fs::recursive_directory_iterator(at(inside))) {
            look(entry.path());
        }
    }
    return all;
}

void Device::make_layout() const {
    for (const char* directory :
         {usr_lib, agent_data, mount_point, "/opt/down/zels/zelADAgent",
          "/opt/down/zels/zelADAgent_img", "/usr/bin/zels/zelADAgent/adplayer"}) {
        make_directory(directory);
    }
}

void Device::put_tree(const std::string& inside, const std::string& version) const {
    const std::string resources = inside + "/adplayer/res";
    write(inside + "/libad-agent-fwk.so", "agent " + version + std::string(40'000, 'a'));
    write(inside + "/libad-player-fwk.so", "player " + version + std::string(40'000, 'p'));
    write(inside + "/zelADAgent.xml", "<Zel><Version>" + version + "</Version></Zel>");
    write(resources + "/page.html", "page " + version);
    write(resources + "/bin/player.sh", "#!/bin/sh\n# " + version + "\n");
    set_mode(resources + "/bin/player.sh", 0775);
    write(resources + "/empty", "");
    set_mode(resources + "/empty", 0400);
    write(resources + "/a/b/c/deep", version + std::string(7'000, 'd'));
    fs::create_symlink("../page.html", at(resources + "/bin/link"));
}

void Device::put_image(const std::string& inside, const std::string& version,
                       const std::string& type, const std::string& change) const {
    const std::string made = "/stage/" + version + '.' + type;
    if (!change.empty() || !exists(made)) {
        remove("/stage/tree");
        remove(made);
        put_tree("/stage/tree", version);
        shell("cd " + at("/stage/tree") + "; " + (change.empty() ? "true" : change));
        shell(type == "squashfs"
                  ? "mksquashfs " + at("/stage/tree") + ' ' + at(made) + " -quiet -no-progress"
                  : "mkfs.erofs " + at(made) + ' ' + at("/stage/tree"));
        fs::rename(at(made), at(made + ".unsigned"));
        write(made, maker_.signed_image(read(made + ".unsigned"), version));
    }
    // A new file: the old one may be mounted.
    remove(inside);
    write(inside, read(made));
    if (!change.empty()) {
        remove(made);
    }
}

pid_t Device::start(const Words& words, const BeforeExec& before_exec) const {
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    dup2(open(at("/stage/out").c_str(), flags, 0600), STDOUT_FILENO);
    dup2(open(at("/stage/err").c_str(), flags, 0600), STDERR_FILENO);
    check(chroot(root_.c_str()) == 0 && chdir("/") == 0, "chroot");
    std::vector<char*> argv = {const_cast<char*>("ad-mounter")};
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    if (before_exec) {
        before_exec();
    }
    char* const environment[] = {nullptr};
    execve("/tool/ad-mounter", argv.data(), environment);
    _exit(126);
}

Result Device::wait_for(pid_t pid) const {
    int status = 0;
    check(waitpid(pid, &status, 0) == pid, "waitpid");
    return result(status);
}

Result Device::result(int wait_status) const {
    return {WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -WTERMSIG(wait_status),
            read("/stage/out"), read("/stage/err")};
}

Result Device::run(const Words& words, const BeforeExec& before_exec) const {
    return wait_for(start(words, before_exec));
}

int Device::hold_lock() const {
    make_directory("/run/ad-mounter");
    set_mode("/run/ad-mounter", 0700);
    const int fd = open(at("/run/ad-mounter/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    check(flock(fd, LOCK_EX) == 0, "flock");
    return fd;
}

Words Device::mounts() const {
    std::ifstream list("/proc/self/mountinfo");
    Words found;
    for (std::string line; std::getline(list, line);) {
        const bool image = line.find(" - squashfs ") != std::string::npos ||
                           line.find(" - erofs ") != std::string::npos;
        if (line.find(' ' + at(image ? "/" : mount_point)) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

// Only looked at from outside: who opens one keeps it from being released.
Words Device::loop_devices() const {
    Words found;
    for (const auto& entry : fs::directory_iterator("/sys/block")) {
        if (slurp(entry.path() / "loop/backing_file").find(at("/")) == 0) {
            found.push_back("/dev/" + entry.path().filename().string());
        }
    }
    return found;
}

testing::AssertionResult Device::is_clean(size_t most_mounts) const {
    const Words mounted = mounts();
    // A run of another test that tries the same device holds it for a moment.
    for (int i = 0; i < 300 && loop_devices().size() > mounted.size(); ++i) {
        usleep(10'000);
    }
    Words left;
    for (const char* top : {"/opt", "/usr/bin", "/run"}) {
        for (const auto& entry : fs::recursive_directory_iterator(at(top))) {
            const std::string name = entry.path().filename();
            if (name.find(".ad-mounter") != std::string::npos || name.find("image-") == 0) {
                left.push_back(name);
            }
        }
    }
    if (mounted.size() <= most_mounts && loop_devices().size() <= mounted.size() && left.empty()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << testing::PrintToString(std::vector<Words>{mounted, loop_devices(), left});
}

void DeviceTest::SetUp() {
    const std::string missing = Device::missing_rights();
    if (!missing.empty()) {
        GTEST_SKIP() << missing;
    }
    device_ = std::make_unique<Device>();
    prepare();
}

}  // namespace mounter_test
