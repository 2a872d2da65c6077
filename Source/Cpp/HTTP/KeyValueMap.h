#ifndef NVQ_HTTP_KEYVALUEMAP_H
#define NVQ_HTTP_KEYVALUEMAP_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <map>

namespace NVQ
{

// Header fields and request parameters: names compared bytewise (so
// case-sensitive), one value per name, iterated in byte order of the names.
typedef std::map<KZF::tstring, KZF::tstring> CKeyValueMap;

} // namespace NVQ

#endif
