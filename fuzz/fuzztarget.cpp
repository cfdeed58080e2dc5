// One libFuzzer executable per target; NORVANE_FUZZ_TARGET names the entry of fuzzentries.h it drives.

#include "fuzzentries.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace Norvane::Cloud::Fuzzing;
    run(Target::NORVANE_FUZZ_TARGET, QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    return 0;
}
