// Compares the tool with the commands that do the same by hand: medians of
// interleaved runs on the same files, with the file caches warm.

#include "bench_stage.h"
#include "commands.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace mounter_bench {

namespace {

namespace fs = std::filesystem;

const std::string tool = AD_MOUNTER_TOOL;
const std::string library_source = std::string(mount_point) + "/libad-agent-fwk.so";
const std::string tree_source = std::string(mount_point) + "/adplayer/res";
const std::string rival_library = std::string(rival) + "/library";
const std::string rival_tree = std::string(rival) + "/tree";

const Command mount_command = {tool, "--mount", stored_image, mount_point};
const Command umount_command = {tool, "--umount", mount_point};
const Command replace_command = {tool, "--replaceimg", downloaded_image, stored_image};
const Command library_command = {tool, "--copylib", library_source, agent_library};
const Command tree_command = {tool, "--copy_all", tree_source, player_res};
const Command remove_command = {tool, "--remove", "remove_player_res_path"};

using Work = std::function<void()>;

// One row: ours and theirs in turn, each after its own untimed preparation.
struct Row {
    const char* name;
    double at_most;
    int runs;
    Work prepare_ours;
    Work ours;
    Work prepare_theirs;
    Work theirs;
};

void nothing() {}

bool print_row(const Row& row) {
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < row.runs; ++i) {
        row.prepare_ours();
        ours.push_back(timed(row.ours));
        row.prepare_theirs();
        theirs.push_back(timed(row.theirs));
    }
    const double ratio = median(ours) / median(theirs);
    printf("%-38s %10.3f %10.3f %8.2f %8.2f  %s\n", row.name, median(ours) / 1e3,
           median(theirs) / 1e3, ratio, row.at_most, ratio <= row.at_most ? "met" : "MISSED");
    fflush(stdout);
    return ratio <= row.at_most;
}

std::string in_words(const Command& command) {
    std::string words;
    for (const std::string& word : command) {
        words += (words.empty() ? "" : " ") + word;
    }
    return words;
}

void with_image_mounted(const Work& work) {
    run(mount_command);
    work();
    run(umount_command);
}

void run_mount_by_hand() { run({"mount", "-o", "loop,ro", stored_image, mount_point}); }

// A small image, which the tool verifies and mount(8) does not.
bool print_mount_rows() {
    const auto shell = [](const std::string& line) { run({"sh", "-c", line}); };
    const std::string by_hand = in_words({"mount", "-o", "loop,ro", stored_image, mount_point});
    const std::string off_by_hand = std::string("umount ") + mount_point;
    const Row direct = {"mount + unmount, unverified by hand",
                        0.40,
                        41,
                        nothing,
                        [] {
                            run(mount_command);
                            run(umount_command);
                        },
                        nothing,
                        [] {
                            run_mount_by_hand();
                            run({"umount", mount_point});
                        }};
    const Row through_shell = {"the same through sh -c",
                               0.60,
                               41,
                               nothing,
                               [&] {
                                   shell(in_words(mount_command));
                                   shell(in_words(umount_command));
                               },
                               nothing,
                               [&] {
                                   shell(by_hand);
                                   shell(off_by_hand);
                               }};
    const bool first = print_row(direct);
    return print_row(through_shell) && first;
}

// What it costs that each mount reads the whole image.
bool print_verification_rows() {
    run(mount_command);
    const Row alone = {
        "verifying what is mounted (b2sum)", 1.30, 41, nothing, [] { run(mount_command); }, nothing,
        [] {
                           run({"b2sum", stored_image}); }};
    const bool first = print_row(alone);
    run(umount_command);
    const Row whole = {"mount + unmount (b2sum, mount, umount)",
                       1.0,
                       41,
                       nothing,
                       [] {
                           run(mount_command);
                           run(umount_command);
                       },
                       nothing,
                       [] {
                           run({"b2sum", stored_image});
                           run_mount_by_hand();
                           run({"umount", mount_point});
                       }};
    const auto download = [] {
        fs::create_directories(fs::path(downloaded_image).parent_path());
        fs::copy_file(stored_image, downloaded_image);
        run({"sync"});
    };
    const Row replacement = {"replacing it (b2sum, mv, sync)",
                             1.30,
                             11,
                             download,
                             [] { run(replace_command); },
                             [&] {
                                 fs::remove(rival_library);
                                 download();
                             },
                             [] {
                                 run({"b2sum", downloaded_image});
                                 run({"mv", downloaded_image, rival_library});
                                 run({"sync", rival_library});
                             }};
    const bool second = print_row(whole);
    return print_row(replacement) && first && second;
}

bool print_copy_rows() {
    const auto settle = [] { run({"sync"}); };
    const Row library = {"one 100 MB library, durable",
                         0.90,
                         11,
                         [&] {
                             fs::remove(agent_library);
                             settle();
                         },
                         [] { run(library_command); },
                         [&] {
                             fs::remove(rival_library);
                             settle();
                         },
                         [] {
                             run({"cp", library_source, rival_library});
                             run({"sync", rival_library});
                         }};
    const Row tree = {"5,000 files in 200 directories",
                      0.70,
                      11,
                      [&] {
                          fs::remove_all(player_res);
                          settle();
                      },
                      [] { run(tree_command); },
                      [&] {
                          fs::remove_all(rival_tree);
                          settle();
                      },
                      [] {
                          run({"cp", "-a", tree_source, rival_tree});
                          run({"sync", "-f", rival_tree});
                      }};
    const Row removal = {"removing that tree",
                         1.0,
                         11,
                         [&] {
                             fs::remove_all(player_res);
                             fs::create_directories(fs::path(player_res).parent_path());
                             run({"cp", "-a", tree_source, player_res});
                             settle();
                         },
                         [] { run(remove_command); },
                         [&] {
                             fs::remove_all(rival_tree);
                             run({"cp", "-a", tree_source, rival_tree});
                             settle();
                         },
                         [] {
                             run({"rm", "-rf", rival_tree});
                         }};
    const bool first = print_row(library);
    const bool second = print_row(tree);
    return print_row(removal) && first && second;
}

bool print_memory() {
    printf("\nPeak memory in kB (at most 4096)\n");
    bool met = true;
    for (const size_t megabytes : {16, 256, 1024}) {
        store_image({megabytes, 400, 20});
        run(mount_command);
        const long library = peak_memory(library_command);
        const long tree = peak_memory(tree_command);
        const long umount = peak_memory(umount_command);
        fs::create_directories(fs::path(downloaded_image).parent_path());
        fs::copy_file(stored_image, downloaded_image);
        // A user's, so that it is copied.
        fs::permissions(downloaded_image, fs::perms(0666));
        const long replace = peak_memory(replace_command);
        const long mount = peak_memory(mount_command);
        run(umount_command);
        printf(
            "%5zu MB library: --copylib %ld, --copy_all %ld, --replaceimg %ld, --mount %ld, "
            "--umount %ld\n",
            megabytes, library, tree, replace, mount, umount);
        fflush(stdout);
        for (const long peak : {library, tree, replace, mount, umount}) {
            met = met && peak < 4096;
        }
    }
    return met;
}

void print_curve() {
    printf("\nTrees of 4 kB files: ms for the copy, microseconds for each file, peak kB\n");
    for (const int files : {1000, 5000, 20000}) {
        store_image({1, files, files / 25});
        with_image_mounted([files] {
            std::vector<double> copies;
            std::vector<double> removals;
            long peak = 0;
            for (int i = 0; i < 5; ++i) {
                run({"sync"});
                copies.push_back(timed([] { run(tree_command); }));
                removals.push_back(timed([] { run(remove_command); }));
            }
            peak = peak_memory(tree_command);
            printf("%6d files: copy %8.1f ms, %5.1f us; removal %7.1f ms, %5.1f us; %ld kB\n",
                   files, median(copies) / 1e3, median(copies) / files, median(removals) / 1e3,
                   median(removals) / files, peak);
            fflush(stdout);
        });
    }
}

int measure() {
    if (!set_stage()) {
        return 1;
    }
    printf("%-38s %10s %10s %8s %8s\n", "work (milliseconds)", "ours", "theirs", "ratio",
           "at most");
    bool met = print_row({"start and refuse (--help)", 1.8, 801, nothing,
                          [] {
                              run({tool, "--help"});
                          },
                          nothing, [] { run({EMPTY_PROGRAM}); }});
    store_image({1, 20, 1});
    met = print_mount_rows() && met;
    const long size = store_image({100, 5000, 200});
    met = print_verification_rows() && met;
    with_image_mounted([&met] { met = print_copy_rows() && met; });
    printf("(the image: %.1f MB of zstd squashfs)\n", static_cast<double>(size) / 1e6);
    met = print_memory() && met;
    print_curve();
    return met ? 0 : 2;
}

}  // namespace

}  // namespace mounter_bench

int main() {
    try {
        return mounter_bench::measure();
    } catch (const std::exception& error) {
        fprintf(stderr, "mounter-bench: %s\n", error.what());
        return 1;
    }
}
