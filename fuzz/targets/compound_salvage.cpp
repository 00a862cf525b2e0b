// Salvaging compound files: no byte of the file comes out twice, and the memory is that of tables and
// directory.

#include "fuzz/targets/memory.h"
#include "fuzz/targets/salvaged.h"

using namespace Vexel::Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    Source source({data, size - 1});
    Observer observer(data[size - 1] % 16 == 1 ? data[size - 1] : 0);
    const MemoryWatch memory;
    const Vexel::SalvageOutcome outcome = Vexel::salvage(source, observer);
    checkOutcome(outcome, observer);
    if (observer.format == Vexel::SalvageFormat::CompoundFile) {
        REQUIRE(observer.contents <= size + 4096);
        REQUIRE(memory.most() <= 0x200000 + 64 * size);
    }
    return 0;
}
