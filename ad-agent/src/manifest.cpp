#include "manifest.h"

#include "glib_owned.h"
#include "log.h"
#include "version.h"

#include <tinyxml.h>

namespace ad_agent {

namespace {

std::string read_version(const std::string& path, const char* root, const char* child) {
    TiXmlDocument document(path);
    if (!document.LoadFile()) {
        // One that is missing or empty is a device's first; what a torn one still
        // shows may be half a number.
        const int reason = document.ErrorId();
        if (reason != TiXmlBase::TIXML_ERROR_OPENING_FILE &&
            reason != TiXmlBase::TIXML_ERROR_DOCUMENT_EMPTY)
            log_line("manifest " + path + ": " + document.ErrorDesc());
        return NO_VERSION;
    }

    const TiXmlElement* element =
        TiXmlHandle(&document).FirstChild(root).FirstChildElement(child).ToElement();
    const char* text = element ? element->GetText() : nullptr;
    return text ? text : NO_VERSION;
}

}  // namespace

std::string read_cache_version(const std::string& path) {
    return read_version(path, "Cache", "SoVersion");
}

std::string read_firmware_copy_version(const std::string& path) {
    return read_version(path, "Zel", "Version");
}

bool write_cache_version(const DataFolder& folder, const std::string& name,
                         const std::string& version, std::string& error) {
    const OwnedText escaped(
        g_markup_escape_text(version.data(), static_cast<gssize>(version.size())));
    return folder.write(
        name, std::string("<Cache><SoVersion>") + escaped.get() + "</SoVersion></Cache>\n", error);
}

}  // namespace ad_agent
