#include "operations.h"

#include <cstring>

namespace ad_mounter {

namespace {

bool equal(const char* one, const char* other) {
    return one == nullptr || other == nullptr ? one == other : strcmp(one, other) == 0;
}

}  // namespace

const Operation* find_directory(const char* path) {
    for (const Operation& operation : operations) {
        if (operation.kind == Kind::directory && equal(operation.target, path)) {
            return &operation;
        }
    }
    return nullptr;
}

bool same_request(const Operation& one, const Operation& other) {
    return one.verb == other.verb && equal(one.first, other.first) &&
           equal(one.second, other.second);
}

}  // namespace ad_mounter
