// Objects whose making may fail without taking a control path down: no exception leaves it.
#pragma once

#include <exception>
#include <memory>
#include <utility>

#include "hdc/log_side.h"

namespace analysis::nedra::common {

// std::make_shared; null, with a log line, when memory is out or the constructor throws.
template <typename T, typename... Args>
[[nodiscard]] std::shared_ptr<T> MakeShared(Args&&... args) noexcept {
    try {
        return std::make_shared<T>(std::forward<Args>(args)...);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

}  // namespace analysis::nedra::common
