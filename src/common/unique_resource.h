#pragma once
// Owning wrappers for the plain Windows handles the add-in opens.
#include <windows.h>
#include <utility>

// Traits name the handle type, its invalid value and how it is closed.
template <typename Traits>
class UniqueResource {
public:
    using Type = typename Traits::Type;

    UniqueResource() = default;
    explicit UniqueResource(Type value) : value_(value) {}
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~UniqueResource() { reset(); }

    Type get() const { return value_; }
    bool valid() const { return value_ != Traits::invalid(); }
    explicit operator bool() const { return valid(); }

    // For APIs that return the resource through an out parameter.
    Type* put()
    {
        reset();
        return &value_;
    }

    Type release() { return std::exchange(value_, Traits::invalid()); }

    void reset(Type value = Traits::invalid())
    {
        if (value_ != Traits::invalid())
            Traits::close(value_);
        value_ = value;
    }

private:
    Type value_ = Traits::invalid();
};

struct FileHandleTraits {
    using Type = HANDLE;
    static HANDLE invalid() { return INVALID_HANDLE_VALUE; }
    static void close(HANDLE h) { ::CloseHandle(h); }
};

struct KernelHandleTraits {
    using Type = HANDLE;
    static HANDLE invalid() { return nullptr; }
    static void close(HANDLE h) { ::CloseHandle(h); }
};

struct RegKeyTraits {
    using Type = HKEY;
    static HKEY invalid() { return nullptr; }
    static void close(HKEY key) { ::RegCloseKey(key); }
};

struct FindHandleTraits {
    using Type = HANDLE;
    static HANDLE invalid() { return INVALID_HANDLE_VALUE; }
    static void close(HANDLE h) { ::FindClose(h); }
};

struct LibraryTraits {
    using Type = HMODULE;
    static HMODULE invalid() { return nullptr; }
    static void close(HMODULE module) { ::FreeLibrary(module); }
};

// A file handle from CreateFileW (invalid is INVALID_HANDLE_VALUE).
using UniqueFile = UniqueResource<FileHandleTraits>;
// A handle whose failure value is null (threads, events, processes).
using UniqueHandle = UniqueResource<KernelHandleTraits>;
using UniqueRegKey = UniqueResource<RegKeyTraits>;
using UniqueFindHandle = UniqueResource<FindHandleTraits>;
using UniqueLibrary = UniqueResource<LibraryTraits>;
