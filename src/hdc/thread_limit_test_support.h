// For one file of a test program that wants the system to run out of threads: stands in front of
// what all threads of the program are made with. test_support.h says how many it gives.
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

#include "hdc/test_support.h"

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*routine)(void*), void* argument) {
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    if (orla::test::threadsLeft == 0) {
        orla::test::onRefused();
        return EAGAIN;
    }
    if (orla::test::threadsLeft > 0) {
        --orla::test::threadsLeft;
    }
    return real(thread, attributes, routine, argument);
}
