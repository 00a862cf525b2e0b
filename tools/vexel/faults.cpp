// A node can fail twice, when it is looked for and when it is read; that is told once. What the next one
// would meet as well ends the command.

#include "faults.h"

#include "progress.h"

namespace Vexel::Tool {

void Faults::add(const Failure& failure) {
    if (isDiskFull(failure.status()))
        throw Failure(failure);
    if (!told_.insert(failure.where()).second)
        return;
    const Progress::Hidden hidden(progress());
    report(failure.message());
}

void Faults::finish() const {
    if (any())
        throw SilentFailure(1);
}

} // namespace Vexel::Tool
