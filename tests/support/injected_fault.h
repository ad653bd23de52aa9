#pragma once
// Arms the barriers' test seam for as long as it lives: the code that passes
// the named point throws, as if a step inside had failed.
#include "core/exception_barrier.h"

struct InjectedFault {
    explicit InjectedFault(const char* point, InjectedException kind = InjectedException::BadAlloc)
    {
        injectFault(point, kind);
    }
    ~InjectedFault() { disarmFault(); }
    InjectedFault(const InjectedFault&) = delete;
};
