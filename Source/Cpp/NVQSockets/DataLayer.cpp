#include "NVQSockets/Linux/INVQDataLayer.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace NVQ
{

int64_t INVQDataLayer::SendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *)
{
    if (size < 0 || offset < 0)
        return -1;
    // Data layers without a zero-copy path get the bytes the ordinary way.
    unsigned char buffer[16384];
    int64_t done = 0;
    while (done < size) {
        const size_t wanted = static_cast<size_t>(std::min<int64_t>(sizeof(buffer), size - done));
        const ssize_t n = ::pread(fd, buffer, wanted, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || SendData(buffer, static_cast<int>(n)) < 0)
            return -1;
        done += n;
    }
    return size;
}

} // namespace NVQ
