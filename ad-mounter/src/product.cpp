#include "product.h"

#include "operations.h"
#include "target.h"
#include "trusted_path.h"

#include <cerrno>
#include <cstdio>
#include <string_view>

namespace ad_mounter {

namespace {

// One more than the longest name with its newline, so that a longer one is noticed.
using ProductText = char[base::max_product_length + 2];

Outcome reject_file(const char* reason) {
    return Outcome::refused(EX_DATAERR, "read product in", product_file, reason);
}

// Finds this device's product. It stays empty where the firmware does not name one.
Outcome read_product(ProductText& text, std::string_view& product) {
    Target target;
    const Outcome opened = open_parent(product_file, target, EX_DATAERR);
    if (!opened.ok()) {
        return opened.status() == EX_NOINPUT ? Outcome() : opened;
    }
    const TrustedText read =
        read_trusted_file(target.directory.get(), target.name, text, sizeof text);
    if (read.rejection != nullptr) {
        return reject_file(read.rejection);
    }
    if (read.error != 0) {
        return read.error == ENOENT ? Outcome()
                                    : Outcome::failed("read product in", product_file, read.error);
    }
    product = {text, read.length};
    if (!product.empty() && product.back() == '\n') {
        product.remove_suffix(1);
    }
    return base::is_product(product) ? Outcome() : reject_file("not one word");
}

}  // namespace

Outcome check_product(const base::TrustedComment& comment, const char* path,
                      const char* consequence) {
    ProductText text;
    std::string_view ours;
    TRY(read_product(text, ours));
    if (comment.product == ours) {
        return {};
    }
    const auto print = [](char(&buffer)[80], const char* before, std::string_view product) {
        snprintf(buffer, sizeof buffer, "%s%.*s", product.empty() ? "no product" : before,
                 static_cast<int>(product.size()), product.data());
    };
    char theirs[80];
    char own[80];
    print(theirs, "product ", comment.product);
    print(own, "", ours);
    static char reason[256];
    snprintf(reason, sizeof reason, "signed for %s, this device is %s; %s", theirs, own,
             consequence);
    return Outcome::refused(EX_DATAERR, "verify", path, reason);
}

}  // namespace ad_mounter
