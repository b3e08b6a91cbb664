/**
 * What each verb does. All take an operation of their verb from the table and are called as
 * root, under the lock and with signals blocked.
 */
#pragma once

#include "operations.h"
#include "outcome.h"

namespace ad_mounter {

/** --create: creates the target and its missing parents. What exists stays as it is. */
Outcome create_target(const Operation& operation, const Caller& caller);

/** --remove: removes the target. A missing one is a success. */
Outcome remove_target(const Operation& operation);

/** --mount: verifies and mounts the stored image, unless it is the one that is mounted. */
Outcome mount_image(const Operation& operation);

/** --umount: unmounts every mount of a stored image on top of the mount point. */
Outcome unmount_image(const Operation& operation);

/** --replaceimg: verifies the downloaded image, stores it durably, then removes the download. */
Outcome replace_image(const Operation& operation, const Caller& caller);

/** --copylib: replaces a library by a copy of another file, atomically and durably. */
Outcome copy_library(const Operation& operation, const Caller& caller);

/** --copy_all: replaces a tree by a copy of another one; never leaves a mixture of both. */
Outcome copy_tree(const Operation& operation, const Caller& caller);

}  // namespace ad_mounter
