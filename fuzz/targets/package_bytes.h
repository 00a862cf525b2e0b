#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Packages for the fuzzer: mutation that keeps the checksums of the first bytes and of the header right, so
/// that what stands behind them is reached, and headers made by their grammar.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace Vexel::Fuzz {

/// As LLVMFuzzerCustomMutator, which this is.
std::size_t mutatePackage(std::uint8_t* data, std::size_t size, std::size_t most, unsigned seed);

} // namespace Vexel::Fuzz
