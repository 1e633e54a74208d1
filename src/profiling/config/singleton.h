// The one object of a manager class of the profiling agent: made at its first use, on whichever
// thread that is, and destroyed when the process runs its exit handlers. There is no way to tear
// it down earlier or to make it again, so a reference to it may be kept.
//
//     class TaskManager : public Singleton<TaskManager> { … };
//     TaskManager::instance().Init();
//
// Any thread may call instance(); the language's guard orders the constructor before every use.
// What the object guards after that is its own business. A constructor must not ask for its own
// instance(). A class that hides its constructor makes Singleton<itself> a friend.
#pragma once

namespace analysis::nedra::common::singleton {

template <typename T>
class Singleton {
public:
    static T& instance() {
        static T value;
        return value;
    }

    virtual ~Singleton() = default;
    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

protected:
    Singleton() = default;
};

}  // namespace analysis::nedra::common::singleton
