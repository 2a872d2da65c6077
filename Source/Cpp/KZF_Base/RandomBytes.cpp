#include "KZF_Utilities/Linux/Hash.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KZF
{

namespace
{

// The system call directly rather than getrandom(3): C libraries of older
// device toolchains lack the wrapper while their kernels have the call.
// Answers false when it is not available, so /dev/urandom takes over.
bool fromGetrandom(unsigned char *p, size_t size)
{
#ifdef SYS_getrandom
    while (size > 0) {
        const long n = syscall(SYS_getrandom, p, size, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        // Large requests may be answered in parts.
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
#else
    (void)p;
    return size == 0;
#endif
}

bool fromUrandom(unsigned char *p, size_t size)
{
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    while (size > 0) {
        const ssize_t n = ::read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        p += n;
        size -= static_cast<size_t>(n);
    }
    ::close(fd);
    return size == 0;
}

} // namespace

bool RandomBytes(void *out, size_t size)
{
    unsigned char *p = static_cast<unsigned char *>(out);
    return fromGetrandom(p, size) || fromUrandom(p, size);
}

} // namespace KZF
