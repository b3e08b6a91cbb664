/**
 * The privileged file operations: everything that creates, mounts, replaces,
 * copies or removes in the protected areas is a command line for the external
 * tool ad-mounter, run through the shell.
 *
 * Every function returns 1 for success and 0 for failure, logs what it does,
 * and blocks until the tool has finished. Strings are borrowed for the call.
 */
#ifndef AD_UTILS_H
#define AD_UTILS_H

extern "C" {

/**
 * Runs a command line with system(3).
 * @return 1 when it exited normally with status 0, else 0 (also for null)
 */
int system_cmd(const char* pCommand);

/**
 * Tests with access(2) whether a path exists; symbolic links are followed.
 * @return 1 when it does, else 0 (also for null)
 */
int check_existed(const char* pName);

/** Has the tool create the directory or file that a symbolic name stands for. */
int ad_mounter_create(const char* pName);

/** Has the tool remove the files or the directory that a symbolic name stands for. */
int ad_remove_lib_so_path(const char* pName);

/** Mounts the stored image, creating its mount point when that is missing. */
int ad_mount();

/** Unmounts the stored image. */
int ad_umount();

/** Moves the downloaded image over the stored one. */
int ad_replace_img();

/** Installs both libraries and the player resources from the mounted image. */
int ad_copy();
}

/** Copies one library file and compares the sizes afterwards. */
int ad_copy_lib(const char* pSrc, const char* pDest);

/** Copies the agent library out of the mounted image. */
int ad_copy_lib_fwk();

/** Copies the player library out of the mounted image. */
int ad_copy_lib_player();

/** Copies a directory tree. */
int ad_copy_path(const char* pSrc, const char* pDest);

/** Replaces the player resources by those of the mounted image. */
int ad_copy_player_res();

#endif
