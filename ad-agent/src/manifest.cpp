#include "manifest.h"

#include "base/glib_owned.h"
#include "log.h"
#include "part_file.h"
#include "regular_file.h"
#include "version.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <tinyxml.h>

namespace ad_agent {
namespace {

/** The parser recurses into nested elements: this size bounds the stack it takes. */
constexpr std::uint64_t max_manifest_size = 16ULL * 1024;

std::string read_version(const std::string& path, const char* root, const char* child) {
    // Missing before the first update, and empty after ad-mounter has created it.
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || status.st_size == 0) {
        return no_version;
    }
    const auto text = read_regular_file(AT_FDCWD, path, 0, max_manifest_size);
    if (!text) {
        log_line("ignoring manifest: " + text.error().message);
        return no_version;
    }
    TiXmlDocument document;
    document.Parse(text->c_str());
    if (document.Error()) {
        // A torn one may end in half a number.
        log_line("ignoring manifest " + path + ": " + document.ErrorDesc());
        return no_version;
    }
    const TiXmlElement* const element =
        TiXmlHandle(&document).FirstChild(root).FirstChildElement(child).ToElement();
    const char* const version = element ? element->GetText() : nullptr;
    return version ? version : no_version;
}

}  // namespace

std::string read_cache_version(const std::string& path) {
    return read_version(path, "Cache", "SoVersion");
}

std::string read_firmware_copy_version(const std::string& path) {
    return read_version(path, "Zel", "Version");
}

Result<> write_cache_version(const DataDirectory& directory, const std::string& version) {
    const base::Owned<char> escaped(
        g_markup_escape_text(version.data(), static_cast<gssize>(version.size())));
    return replace_file(
        directory, cache_manifest_name,
        std::string("<Cache><SoVersion>") + escaped.get() + "</SoVersion></Cache>\n");
}

}  // namespace ad_agent
