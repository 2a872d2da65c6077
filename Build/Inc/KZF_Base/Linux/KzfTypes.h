#ifndef KZF_BASE_LINUX_KZFTYPES_H
#define KZF_BASE_LINUX_KZFTYPES_H

#include <string>

namespace KZF
{

// The foundation's text type: a narrow byte string. Texts are kept as the
// bytes that arrived; UTF-8 conversions are the identity.
typedef std::string tstring;

} // namespace KZF

#endif
