#ifndef NVQ_HTTP_HTTPCONTENTTYPES_H
#define NVQ_HTTP_HTTPCONTENTTYPES_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <map>

namespace NVQ
{

// Content types by file extension: a built-in table of the web's common
// types (html, css, js, mjs, json, map, svg, png, jpg, jpeg, gif, webp, avif,
// ico, wasm, woff, woff2, ttf, txt, xml, pdf, mp4, webm, zip, gz, bin),
// changed by a host's own entries. Read-only once serving starts, so any
// number of threads may look types up.
class CHTTPContentTypes
{
  public:
    // The built-in table.
    CHTTPContentTypes();

    // Adds or replaces the type of `extension` (without the dot; letters in
    // either case); an empty type removes the entry. Before serving starts.
    void Set(const KZF::tstring &extension, const KZF::tstring &type);

    // The type for the last extension of the file name that ends `path` (the
    // part after its last '.'), in any letter case; null when unknown.
    const KZF::tstring *Find(const KZF::tstring &path) const;

  private:
    std::map<KZF::tstring, KZF::tstring> m_types; // lower-case extension -> type
};

} // namespace NVQ

#endif
