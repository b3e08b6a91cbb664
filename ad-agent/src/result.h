/**
 * How the library's operations report failure.
 */
#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace ad_agent {

/** Why an operation failed: the step, the path or URL, and the reason, on one line. */
struct Error {
    std::string message;
};

/** A value, or the reason why there is none. */
template <typename Value = void>
using Result = tl::expected<Value, Error>;

using Failure = tl::unexpected<Error>;

inline Failure failure(std::string message) { return Failure(Error{std::move(message)}); }

/** A failed system call: `step`, such as "failed to open PATH", and errno(3) in words. */
Failure errno_failure(const std::string& step);

}  // namespace ad_agent
