#include "bench_stage.h"

#include "commands.h"

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <sched.h>
#include <sys/mount.h>

namespace mounter_bench {

namespace fs = std::filesystem;

namespace {

// Compresses to about a third, as a stripped library does.
void write_library(const fs::path& path, size_t megabytes) {
    std::ofstream file(path, std::ios::binary);
    std::vector<uint32_t> block((size_t{1} << 20) / sizeof(uint32_t));
    uint64_t state = 88172645463325252ULL;
    for (size_t i = 0; i < megabytes; ++i) {
        for (size_t j = 0; j < block.size(); ++j) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            block[j] = j % 16 < 5 ? static_cast<uint32_t>(state) : static_cast<uint32_t>(j % 16);
        }
        file.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
    }
}

void write_resources(const fs::path& top, int files, int directories) {
    for (int i = 0; i < files; ++i) {
        const fs::path directory = top / ("d" + std::to_string(i % directories));
        if (i < directories) {
            fs::create_directories(directory);
        }
        std::ofstream file(directory / ("f" + std::to_string(i)));
        file << std::string(4096, static_cast<char>('a' + i % 26));
    }
}

// As the tool takes it: the signature and its trailer behind the image.
void sign(const std::string& scratch, const std::string& image) {
    const std::string signature = scratch + "/signature";
    run({"minisign", "-S", "-s", scratch + "/maker.key", "-t", "version:1.0", "-m", image, "-x",
         signature});
    std::ifstream file(signature, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const auto length = static_cast<uint32_t>(text.size());
    std::ofstream end(image, std::ios::binary | std::ios::app);
    end << text << "ADIMGSIG";
    for (const uint32_t number : {length, uint32_t{1}}) {
        for (int shift = 0; shift < 32; shift += 8) {
            end.put(static_cast<char>(number >> shift & 0xff));
        }
    }
}

bool mounted(const char* source, const char* target, const char* type, unsigned long flags,
             const char* data) {
    if (mount(source, target, type, flags, data) != 0) {
        perror(("mounter-bench: mounting " + std::string(target)).c_str());
        return false;
    }
    return true;
}

}  // namespace

bool set_stage(const std::string& scratch) {
    if (unshare(CLONE_NEWNS) != 0) {
        perror("mounter-bench: a mount namespace of its own");
        return false;
    }
    const std::string layers = scratch + "/layers";
    fs::create_directories(layers);
    if (!mounted(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        !mounted("tmpfs", "/run", "tmpfs", 0, "mode=0755") ||
        !mounted("tmpfs", layers.c_str(), "tmpfs", 0, nullptr)) {
        return false;
    }
    const std::string ext4 = scratch + "/target.ext4";
    run({"truncate", "-s", "4G", ext4});
    run({"mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", ext4});
    run({"mount", "-o", "loop", ext4, "/opt"});
    for (const std::string name : {"bin", "lib"}) {
        const std::string target = "/usr/" + name;
        const std::string upper = layers + "/upper-" + name;
        const std::string work = layers + "/work-" + name;
        fs::create_directories(upper);
        fs::create_directories(work);
        const std::string options =
            "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
        if (!mounted("overlay", target.c_str(), "overlay", 0, options.c_str())) {
            return false;
        }
    }
    fs::create_directories("/usr/lib/ad-mounter/keys");
    run({"minisign", "-G", "-W", "-s", scratch + "/maker.key", "-p",
         "/usr/lib/ad-mounter/keys/bench.pub"});
    for (const char* directory : {mount_point, "/opt/usr/lib", "/opt/down/zels/zelADAgent_img",
                                  rival, "/opt/zels", "/usr/bin/zels"}) {
        fs::create_directories(directory);
    }
    return mounted("/opt/zels", "/usr/bin/zels", nullptr, MS_BIND, nullptr);
}

long store_image(const std::string& scratch, const ImageContents& contents) {
    const fs::path tree = scratch + "/tree";
    fs::remove_all(tree);
    fs::create_directories(tree / "adplayer/res");
    write_library(tree / "libad-agent-fwk.so", contents.library_megabytes);
    write_resources(tree / "adplayer/res", contents.files, contents.directories);
    std::ofstream(tree / "zelADAgent.xml") << "<Zel><Version>1.0</Version></Zel>\n";
    const std::string image = scratch + "/image";
    fs::remove(image);
    run({"mksquashfs", tree, image, "-comp", "zstd", "-Xcompression-level", "3", "-all-root",
         "-quiet", "-no-progress"});
    fs::remove_all(tree);
    sign(scratch, image);
    fs::copy_file(image, stored_image, fs::copy_options::overwrite_existing);
    run({"sync"});
    return static_cast<long>(fs::file_size(stored_image));
}

}  // namespace mounter_bench
