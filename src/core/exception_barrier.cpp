#include "core/exception_barrier.h"

#include "core/log.h"

#include <atomic>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>

namespace {

Logger logger("korvane");

std::atomic<const char*> armedPoint{nullptr};
std::atomic<InjectedException> armedKind{InjectedException::BadAlloc};

} // namespace

void injectFault(const char* point, InjectedException kind)
{
    armedKind = kind;
    armedPoint = point;
}

void disarmFault()
{
    armedPoint = nullptr;
}

void faultPoint(const char* point)
{
    const char* armed = armedPoint.load(std::memory_order_relaxed);
    if (!armed || std::strcmp(armed, point) != 0)
        return;
    switch (armedKind.load()) {
    case InjectedException::LengthError:
        throw std::length_error("injected length error");
    case InjectedException::SystemError:
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), "injected");
    default:
        throw std::bad_alloc();
    }
}

HRESULT failureOfCurrentException(const char* edge) noexcept
{
    HRESULT hr = E_UNEXPECTED;
    const char* what = "an unknown exception";
    try {
        throw;
    } catch (const std::bad_alloc& e) {
        hr = E_OUTOFMEMORY;
        what = e.what();
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
    }
    // The log line allocates; with the memory gone it may fail too, and then
    // silence is all that is left.
    try {
        KV_ERROR(logger) << edge << " failed with an exception: " << what << ", hr=" << hr;
    } catch (...) {
    }
    return hr;
}

void traceExportedCall(const char* name, const HRESULT* result) noexcept
{
    try {
        if (result) {
            KV_DEBUG(logger) << ")" << name << "=" << *result;
        } else {
            KV_DEBUG(logger) << name << "(";
        }
    } catch (...) {
    }
}
