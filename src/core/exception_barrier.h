#pragma once
// The edge between Outlook (or Windows) and the add-in's code. Every COM
// method, exported function, hook replacement, ribbon callback and thread
// function runs its body through `barrier`, so that no C++ exception of ours
// (std::bad_alloc, std::length_error from a substr, std::system_error from a
// mutex, ...) unwinds into Outlook's frames and takes Outlook down. The
// exception is caught, logged at ERROR with the edge's name, and the edge
// answers as it answers any failure.
//
//   HRESULT STDMETHODCALLTYPE Thing::GetData(FORMATETC* format, STGMEDIUM* medium)
//   {
//       return barrier("Thing::GetData", [&] { ...; return hr; });
//   }
//
//   DWORD WINAPI worker(void*) { return barrier("worker", DWORD(1), [] { ...; return DWORD(0); }); }
//
// Exported functions use `exportedCall`, which traces entry and result too.
#include <windows.h>

#include <utility>

// Test seam: a test arms a named point (a barrier's edge name, or a point
// named by faultPoint) and the next code that passes it throws `kind`, as if
// a step inside had failed; one point at a time, armed until disarmed. Nothing
// arms a point outside the tests.
enum class InjectedException { BadAlloc, LengthError, SystemError };
void injectFault(const char* point, InjectedException kind = InjectedException::BadAlloc);
void disarmFault();
void faultPoint(const char* point);

// Inside a catch block: logs the exception in flight at ERROR as
// "<edge> failed with an exception: <what>" and gives its HRESULT
// (E_OUTOFMEMORY for std::bad_alloc, E_UNEXPECTED for any other).
HRESULT failureOfCurrentException(const char* edge) noexcept;

// The body's HRESULT, or the exception's.
template <typename Body>
HRESULT barrier(const char* edge, Body&& body) noexcept
{
    try {
        faultPoint(edge);
        return std::forward<Body>(body)();
    } catch (...) {
        return failureOfCurrentException(edge);
    }
}

// The body's result, or `onFailure` when it threw: for edges whose answer to
// a failure is fixed (S_OK for Outlook's connection events, a thread's exit
// code, "did not run" for a step).
template <typename Result, typename Body>
Result barrier(const char* edge, Result onFailure, Body&& body) noexcept
{
    try {
        faultPoint(edge);
        return std::forward<Body>(body)();
    } catch (...) {
        failureOfCurrentException(edge);
        return onFailure;
    }
}

// An exported function of the DLL: "<name>(" and ")<name>=<hr>" at DEBUG
// around the body, which runs behind the barrier.
void traceExportedCall(const char* name, const HRESULT* result) noexcept;

template <typename Body>
HRESULT exportedCall(const char* name, Body&& body) noexcept
{
    traceExportedCall(name, nullptr);
    const HRESULT hr = barrier(name, std::forward<Body>(body));
    traceExportedCall(name, &hr);
    return hr;
}
