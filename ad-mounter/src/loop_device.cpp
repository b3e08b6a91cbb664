#include "loop_device.h"

#include "path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace ad_mounter {

namespace {

constexpr const char* step = "set up loop device for";
// Another process may take the free device that the kernel has named. About a second in all.
constexpr int attach_attempts = 64;
constexpr int attempts_without_pause = 8;
constexpr long pause_nanoseconds = 20'000'000;

void pause_before(int attempt) {
    if (attempt >= attempts_without_pause) {
        const timespec pause = {0, pause_nanoseconds};
        nanosleep(&pause, nullptr);
    }
}

// Opens /dev/loopN and checks that it is that device: udev's names are not the kernel's.
// Returns a descriptor or -1 with errno.
int open_loop_device(unsigned number, char* path, size_t size) {
    snprintf(path, size, "/dev/loop%u", number);
    base::UniqueFd fd(open_path(path, O_RDONLY | O_NONBLOCK));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0) {
        return -1;
    }
    if (!S_ISBLK(status.st_mode) || status.st_rdev != makedev(LOOP_MAJOR, number)) {
        errno = ENODEV;
        return -1;
    }
    return fd.release();
}

// Whether the device is over the whole of `image`, read-only, and detaches itself.
bool is_attached(int loop, int image) {
    loop_info64 info = {};
    struct stat status;
    constexpr unsigned flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    return ioctl(loop, LOOP_GET_STATUS64, &info) == 0 && fstat(image, &status) == 0 &&
           info.lo_device == status.st_dev && info.lo_inode == status.st_ino &&
           info.lo_offset == 0 && info.lo_sizelimit == 0 && (info.lo_flags & flags) == flags;
}

// Before Linux 5.8. The device is read-only because `loop` and `image` are.
int attach_in_two_steps(int loop, int image, const loop_info64& info) {
    if (ioctl(loop, LOOP_SET_FD, image) != 0) {
        return errno;
    }
    if (ioctl(loop, LOOP_SET_STATUS64, &info) == 0) {
        return 0;
    }
    const int error = errno;
    ioctl(loop, LOOP_CLR_FD, 0);
    return error;
}

// Returns 0 or an errno value.
int attach(int loop, int image, const char* file_name) {
    loop_config config = {};
    config.fd = static_cast<unsigned>(image);
    config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    snprintf(reinterpret_cast<char*>(config.info.lo_file_name), sizeof config.info.lo_file_name,
             "%s", file_name);
    int error = ioctl(loop, LOOP_CONFIGURE, &config) == 0 ? 0 : errno;
    // What kernels report for a request that they do not know.
    if (error == EINVAL || error == ENOTTY || error == ENOSYS) {
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        error = attach_in_two_steps(loop, image, config.info);
    }
    if (error == 0 && !is_attached(loop, image)) {
        ioctl(loop, LOOP_CLR_FD, 0);
        error = ENXIO;
    }
    return error;
}

bool is_temporary(int error) { return error == EBUSY || error == EAGAIN || error == ENXIO; }

}  // namespace

Outcome attach_loop_device(int image, const char* file_name, LoopDevice& loop) {
    constexpr const char* control_path = "/dev/loop-control";
    const base::UniqueFd control(open_path(control_path, O_RDWR));
    if (!control) {
        return Outcome::failed("open", control_path, errno);
    }
    int error = 0;
    for (int attempt = 0; attempt < attach_attempts; ++attempt) {
        pause_before(attempt);
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            error = errno;
        } else {
            loop.fd.reset(
                open_loop_device(static_cast<unsigned>(number), loop.path, sizeof loop.path));
            error = loop.fd ? attach(loop.fd.get(), image, file_name) : errno;
            if (error == 0) {
                return {};
            }
            loop.fd.reset();
        }
        if (!is_temporary(error)) {
            return Outcome::failed(step, file_name, error);
        }
    }
    return Outcome::failed(EX_TEMPFAIL, step, file_name, error);
}

bool query_loop_device(dev_t device, LoopBacking& backing) {
    if (major(device) != LOOP_MAJOR) {
        return false;
    }
    char path[32];
    const base::UniqueFd fd(open_loop_device(minor(device), path, sizeof path));
    loop_info64 info = {};
    if (!fd || ioctl(fd.get(), LOOP_GET_STATUS64, &info) != 0 || info.lo_offset != 0 ||
        info.lo_sizelimit != 0) {
        return false;
    }
    backing.device = info.lo_device;
    backing.inode = info.lo_inode;
    memcpy(backing.file_name, info.lo_file_name, sizeof backing.file_name - 1);
    backing.file_name[sizeof backing.file_name - 1] = '\0';
    return true;
}

}  // namespace ad_mounter
