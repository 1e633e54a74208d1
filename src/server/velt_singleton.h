// One object a class, made at its first use: the base of the framework's two process-wide
// registries. Any thread.
//
//     class Registry : public Common::Singleton::Singleton<Registry> { … };
//     Registry::instance().Add(…);
//
// The object is never destroyed: detached threads of the framework may still be on their way
// through it when the process exits, and what it holds is released by ComponentServerCleanup.
#pragma once

namespace Velt::Common::Singleton {

template <typename T>
class Singleton {
public:
    virtual ~Singleton() = default;
    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

    static T& instance() {
        static T* const object = new T;
        return *object;
    }

protected:
    Singleton() = default;
};

}  // namespace Velt::Common::Singleton
