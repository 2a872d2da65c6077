#ifndef NVQ_HTTP_HTTPDEFAULTHANDLERINTERNAL_H
#define NVQ_HTTP_HTTPDEFAULTHANDLERINTERNAL_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <cstddef>
#include <cstdint>
#include <sys/stat.h>

// What the two sources of the static file handler share: the file opening
// and reading under both the plain path and the options path. Not installed.

namespace NVQ
{
namespace detail
{

const char c_getMethod[] = "GET";
const int c_pieceSize = 8194;

// A regular file, a directory standing for its index document; -1 if none.
int openRegularFile(KZF::tstring &path, struct stat &status);

// Up to `size` bytes from `offset`; the count read.
size_t readAt(int fd, unsigned char *buffer, size_t size, int64_t offset);

} // namespace detail
} // namespace NVQ

#endif
