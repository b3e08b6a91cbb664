#include "cache_manifest.h"

#include "glib_owned.h"
#include "log.h"
#include "version.h"

#include <tinyxml.h>

namespace ad_agent {

std::string read_cache_version(const std::string& path) {
    TiXmlDocument document(path);
    if (!document.LoadFile()) {
        // One that is missing or empty is a device's first; what a torn one still
        // shows may be half a number.
        const int reason = document.ErrorId();
        if (reason != TiXmlBase::TIXML_ERROR_OPENING_FILE &&
            reason != TiXmlBase::TIXML_ERROR_DOCUMENT_EMPTY)
            log_line("cache manifest " + path + ": " + document.ErrorDesc());
        return NO_VERSION;
    }

    const TiXmlElement* element =
        TiXmlHandle(&document).FirstChild("Cache").FirstChildElement("SoVersion").ToElement();
    const char* text = element ? element->GetText() : nullptr;
    return text ? text : NO_VERSION;
}

bool write_cache_version(const DataFolder& folder, const std::string& name,
                         const std::string& version, std::string& error) {
    const OwnedText escaped(
        g_markup_escape_text(version.data(), static_cast<gssize>(version.size())));
    return folder.write(
        name, std::string("<Cache><SoVersion>") + escaped.get() + "</SoVersion></Cache>\n", error);
}

}  // namespace ad_agent
