// Salvaging packages, with a header or by the packed streams alone. The first byte of the input says when the
// observer stops; the package is what follows, since its last bytes are those of the header.

#include "fuzz/targets/memory.h"
#include "fuzz/targets/package_bytes.h"
#include "fuzz/targets/salvaged.h"

using namespace Vexel::Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    Source source({data + 1, size - 1});
    Observer observer(data[0] % 16 == 1 ? data[0] : 0);
    const MemoryWatch memory;
    checkOutcome(Vexel::salvage(source, observer), observer);
    // What the largest folder may hold, a dictionary as large, and what the decoder takes beside.
    REQUIRE(memory.most() <= 0x1000000 + 2 * 8192 * size);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                               unsigned seed) {
    if (size == 0 || most < 2)
        return LLVMFuzzerMutate(data, size, most);
    if (seed % 16 == 1)
        data[0] = static_cast<std::uint8_t>(seed >> 8);
    return 1 + mutatePackage(data + 1, size - 1, most - 1, seed);
}
