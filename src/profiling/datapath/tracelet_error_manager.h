// The error context that a thread hands to those that it starts. Every thread of the agent takes
// the context over when it begins to run; in this daemon it is always empty, and taking it over
// does nothing. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "profiling/config/singleton.h"

namespace Analysis::Nedra::TraceletErrMgr {

struct TraceletErrorContext {
    uint64_t id = 0;
    std::string origin;
    std::string step;
    std::string detail;
};

class TraceletErrorManager
    : public analysis::nedra::common::singleton::Singleton<TraceletErrorManager> {
public:
    // The one context of the process.
    [[nodiscard]] const TraceletErrorContext& GetErrorManagerContext() const {
        static const TraceletErrorContext context;
        return context;
    }

    void SetErrorContext(const TraceletErrorContext& /*context*/) {}

private:
    friend analysis::nedra::common::singleton::Singleton<TraceletErrorManager>;
    TraceletErrorManager() = default;
};

}  // namespace Analysis::Nedra::TraceletErrMgr
