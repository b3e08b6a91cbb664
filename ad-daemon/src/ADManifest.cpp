#include "ADManifest.h"

#include "ADFile.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

namespace {

/**
 * TinyXML recurses into nested elements, with about 250 bytes of stack a level.
 * Siblings count as well: where an element ends in malformed text, only TinyXML
 * itself knows.
 */
constexpr int MAX_ELEMENTS = 2000;

bool HasTooManyElements(const std::string& strText) {
    int nElements = 0;
    for (size_t nAt = strText.find('<'); nAt != std::string::npos;
         nAt = strText.find('<', nAt + 1)) {
        const char cNext = strText[nAt + 1];
        if (cNext != '/' && cNext != '!' && cNext != '?') ++nElements;
    }
    return nElements > MAX_ELEMENTS;
}

}  // namespace

void LoadManifest(TiXmlDocument* pDocument) {
    // TinyXML parses the bytes that were checked rather than the file, which may change, and
    // stops at the first NUL.
    std::string strText;
    ad_read_small_file(pDocument->Value(), &strText);
    strText.resize(strlen(strText.c_str()));
    if (strText.empty() || HasTooManyElements(strText)) return;

    // TinyXML skips as many bytes as the first byte of a UTF-8 character announces, also past
    // the end of the text.
    strText += "\n\n\n";
    FILE* pFile = fmemopen(strText.data(), strText.size(), "rb");
    if (!pFile) return;
    try {
        pDocument->LoadFile(pFile);
    } catch (const std::exception&) {
        pDocument->Clear();
    }
    fclose(pFile);
}
