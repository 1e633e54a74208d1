// The frame of an operation on a handle: finds the object, holds the call against what others do to
// the handle at the same time, and runs the body in RunCall. Null is refused; any other handle that
// isn't live ends the process, as does a call that must not meet another one.
#pragma once

#include <memory>

#include "breach.h"
#include "driver_state.h"
#include "hdc_handles.h"

namespace orla::emulation {

[[nodiscard]] inline CallSubject About(const Server& server) {
    return {server.device()};
}

[[nodiscard]] inline CallSubject About(const Session& session) {
    return {session.device()};
}

template <typename T>
[[nodiscard]] CallSubject About(const T&) {
    return {};
}

[[nodiscard]] inline SessionVisit Visit(Session* session, const void* handle, Call call,
                                        const Caller& caller) {
    return {session, ValueOf(handle), call, caller};
}

struct NoVisit {
    void SetResult(int) const {}
};

template <typename T>
[[nodiscard]] NoVisit Visit(T*, const void*, Call, const Caller&) {
    return {};
}

// An operation on the object of a handle, which is there from the first instruction of the call to
// its last; `body(object, caller)`. Null is refused, and misuse ends the process.
template <typename T, HandleKind kKind, typename Body>
[[nodiscard]] int OnHandle(Call call, HandleTable<T, kKind>& table, const void* handle,
                           Body&& body) noexcept {
    const Caller caller(call);
    const std::shared_ptr<T> object = table.Use(handle, caller);
    if (object == nullptr) {
        return RunCall(call, {}, [] { return kInvalidHandle; });
    }
    auto visit = Visit(object.get(), handle, call, caller);
    const int result = RunCall(call, About(*object), [&]() -> int { return body(object, caller); });
    visit.SetResult(result);
    return result;
}

// Tells the device log, at debug level, what is alive: from the end of the last server on, with
// each handle that is given back. A handle that a call is inside of counts for itself.
void TellWhatIsLeft();

// An operation that gives a handle back; `body(object, caller)`. One that fails leaves it valid.
template <typename T, HandleKind kKind, typename Body>
[[nodiscard]] int Closing(Call call, HandleTable<T, kKind>& table, const void* handle,
                          Body&& body) noexcept {
    const Caller caller(call);
    const std::shared_ptr<T> object = table.BeginClose(handle, caller);
    if (object == nullptr) {
        return RunCall(call, {}, [] { return kInvalidHandle; });
    }
    const int result = RunCall(call, About(*object), [&]() -> int { return body(object, caller); });
    table.EndClose(handle, result == kDone);
    if (result == kDone) {
        TellWhatIsLeft();
    }
    return result;
}

}  // namespace orla::emulation
