#pragma once

#include <string>
#include <thread>

namespace Support {

/// Ends the test program, with a message that names the case at hand, when that hangs, takes memory without
/// end or crashes. For code that may do so where nothing else could stop it.
class CaseWatch {
public:
    CaseWatch();
    CaseWatch(const CaseWatch&) = delete;
    CaseWatch& operator=(const CaseWatch&) = delete;
    ~CaseWatch();

    /// Begins the next case; the one before has ended well.
    static void begin(const std::string& name);

private:
    void* handler_;
    std::jthread watcher_;
};

} // namespace Support
