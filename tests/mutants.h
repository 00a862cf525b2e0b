#pragma once

#include <cstdlib>

/// Whether the change of this number in tests/mutants.txt is to be made in this process. Included into
/// changed sources by scripts/mutants only.
inline bool vexelMutant(int number) noexcept {
    static const int chosen = [] {
        const char* text = std::getenv("VEXEL_MUTANT");
        return text ? std::atoi(text) : 0;
    }();
    return chosen == number;
}
