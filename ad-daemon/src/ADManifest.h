/**
 * Loading manifests: small XML files, parsed by TinyXML.
 */
#pragma once

#include <tinyxml.h>

/**
 * Loads the file that the document is named after. Leaves the document empty,
 * as for a file that does not parse, when the file cannot be a manifest: when it
 * is no regular file, or larger or with more elements than any manifest.
 */
void LoadManifest(TiXmlDocument* pDocument);
