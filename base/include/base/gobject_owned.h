/**
 * Owners of references to GObjects. Needs gobject-2.0.
 */
#pragma once

#include <memory>

#include <glib-object.h>

namespace base {

struct GObjectUnref {
    void operator()(void* object) const { g_object_unref(object); }
};

/** One reference to an instance of a GObject class, such as OwnedObject<GDBusConnection>. */
template <typename Type>
using OwnedObject = std::unique_ptr<Type, GObjectUnref>;

}  // namespace base
