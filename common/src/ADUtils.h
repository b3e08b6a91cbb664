/**
 * The privileged file operations. Each one runs a command line of the external
 * tool ad-mounter through the shell and waits for its end.
 *
 * Every function logs its steps and returns 1 for success and 0 for failure.
 * Strings are borrowed for the call.
 */
#pragma once

extern "C" {

/**
 * Runs a command line with system(3).
 * @return 1 when it exits normally with status 0, else 0; 0 for null
 */
int system_cmd(const char* pCommand);

/**
 * Tests with access(2) whether a path exists, following symbolic links.
 * @return 1 when it does, else 0; 0 for null
 */
int check_existed(const char* pName);

/** Creates the directory or file that a symbolic name such as "create_path_usr_lib" stands for. */
int ad_mounter_create(const char* pName);

/** Removes the files or the directory that a symbolic name stands for. */
int ad_remove_lib_so_path(const char* pName);

/** Mounts the stored image; creates its mount point where missing. */
int ad_mount();

/** Unmounts the stored image. */
int ad_umount();

/** Replaces the stored image with the downloaded one. */
int ad_replace_img();

/** Installs both libraries and the player resources from the mounted image. */
int ad_copy();
}

/** Copies one library file and compares the two files' sizes. */
int ad_copy_lib(const char* pSrc, const char* pDest);

/** Copies the agent library out of the mounted image. */
int ad_copy_lib_fwk();

/** Copies the player library out of the mounted image. */
int ad_copy_lib_player();

/** Copies a directory tree. */
int ad_copy_path(const char* pSrc, const char* pDest);

/** Replaces the player resources with those of the mounted image. */
int ad_copy_player_res();
