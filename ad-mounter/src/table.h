// The one list of what the tool can be asked to do and to what.
#ifndef AD_MOUNTER_TABLE_H
#define AD_MOUNTER_TABLE_H

#include <cstddef>

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

/** Whose a thing is: root's, or that of the user who called. */
enum class Owner : unsigned char { root, caller };

/** How one verb is written. */
struct VerbForm {
    Verb verb;
    const char* option;
    size_t arguments;
    const char* synopsis;
    const char* summary;
};

/**
 * One thing that can be asked for: the verb, its one or two arguments letter
 * for letter, the path that is changed, what that is, and the mode and owner
 * that it gets. Rows with the same verb and arguments belong together.
 */
// In the order in which the table reads. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Row {
    Verb verb;
    const char* first;
    const char* second;
    const char* target;
    Kind kind;
    mode_t mode;
    Owner owner;
};

/** A run of constant entries, for range-for. */
template <typename Entry>
struct Entries {
    const Entry* first;
    const Entry* last;
    const Entry* begin() const { return first; }
    const Entry* end() const { return last; }
};

Entries<VerbForm> verb_forms();
Entries<Row> rows();

/** The row that makes the directory `path`; null when the table has none. */
const Row* directory_row(const char* path);

/** The stored image, which is what gets mounted. */
extern const char* const stored_image;

/** The tool's own directory, root's alone: the lock and names for the kernel. */
extern const char* const run_directory;

/** The firmware's public keys, by which images are trusted. */
extern const char* const key_directory;

}  // namespace ad_mounter

#endif
