/**
 * Error numbers in words.
 */
#pragma once

#include <cstring>

namespace base {

/**
 * The English text of an errno value, see strerrordesc_np(3); static storage, never null. Unlike
 * strerror(3) it is safe from any thread and brings no message catalogues into a static program.
 */
inline const char* errno_text(int error) {
    const char* text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

}  // namespace base
