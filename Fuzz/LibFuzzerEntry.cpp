// Compiled once per fuzz binary with NVQ_FUZZ_TARGET naming its entry point.
#include "FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return NVQ_FUZZ_TARGET(data, size);
}
