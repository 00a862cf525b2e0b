// Salvaging packages, with a header or by the packed streams alone.

#include "fuzz/targets/salvaged.h"

using namespace Vexel::Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    Source source({data, size - 1});
    Observer observer(data[size - 1] % 16 == 1 ? data[size - 1] : 0);
    checkOutcome(Vexel::salvage(source, observer), observer);
    return 0;
}
