#pragma once

#include <string>
#include <thread>

namespace Support {

/// Ends the test program, with a message that names the case at hand, when that hangs or takes memory without
/// end. For code that may do so where nothing else could stop it.
class CaseWatch {
public:
    CaseWatch();
    CaseWatch(const CaseWatch&) = delete;
    CaseWatch& operator=(const CaseWatch&) = delete;

    /// Begins the next case; the one before has ended well.
    static void begin(const std::string& name);

private:
    std::jthread watcher_;
};

} // namespace Support
