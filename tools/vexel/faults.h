#pragma once

#include "document.h"

#include <set>
#include <string>

namespace Vexel::Tool {

/// What fails of single nodes or files while a command goes on with the others: of each, one line on standard
/// error.
class Faults {
public:
    void add(const Failure& failure);

    /// That adds what a walk meets.
    Document::FaultHandler handler() {
        return [this](const Failure& failure, const NodePath&) { add(failure); };
    }

    /// Runs `body`; a Failure that it throws is added.
    template <class Body>
    void attempt(const Body& body) {
        try {
            body();
        } catch (const Failure& failure) {
            add(failure);
        }
    }

    bool any() const noexcept { return !told_.empty(); }

    /// Ends the command with status 1 if there were any.
    void finish() const;

private:
    std::set<std::wstring> told_; // what they are about
};

} // namespace Vexel::Tool
