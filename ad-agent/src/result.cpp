#include "result.h"

#include "base/errno_text.h"

#include <cerrno>

namespace ad_agent {

Failure errno_failure(const std::string& step) {
    return failure(step + ": " + base::errno_text(errno));
}

}  // namespace ad_agent
