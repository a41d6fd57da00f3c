#pragma once
// One move-only owner per kind of Windows handle. Closing keeps the thread's
// last error intact, so a caller can still report the error of the call that
// failed before the owner went out of scope.
#include <windows.h>
#include <winsvc.h>

#include <utility>

template <typename Traits> class ScopedHandle {
  public:
    using Type = typename Traits::Type;

    ScopedHandle() = default;
    explicit ScopedHandle(Type handle) : m_handle(handle) {}
    ~ScopedHandle() { Reset(); }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;
    ScopedHandle(ScopedHandle&& other) noexcept : m_handle(other.Release()) {}
    ScopedHandle& operator=(ScopedHandle&& other) noexcept {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }

    [[nodiscard]] bool IsValid() const { return m_handle != Traits::Empty(); }
    explicit operator bool() const { return IsValid(); }
    Type Get() const { return m_handle; }

    void Reset(Type handle = Traits::Empty()) {
        if (IsValid()) {
            DWORD lastError = GetLastError();
            Traits::Close(m_handle);
            SetLastError(lastError);
        }
        m_handle = handle;
    }
    [[nodiscard]] Type Release() { return std::exchange(m_handle, Traits::Empty()); }

  private:
    Type m_handle = Traits::Empty();
};

// CreateFile and CreateNamedPipe report failure as INVALID_HANDLE_VALUE.
struct FileHandleTraits {
    using Type = HANDLE;
    static Type Empty() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { CloseHandle(h); }
};
// Events, processes and threads report failure as NULL.
struct KernelHandleTraits {
    using Type = HANDLE;
    static Type Empty() { return nullptr; }
    static void Close(Type h) { CloseHandle(h); }
};
struct RegKeyTraits {
    using Type = HKEY;
    static Type Empty() { return nullptr; }
    static void Close(Type h) { RegCloseKey(h); }
};
struct ModuleTraits {
    using Type = HMODULE;
    static Type Empty() { return nullptr; }
    static void Close(Type h) { FreeLibrary(h); }
};
// FindFirstFile's search handles close with FindClose.
struct FindHandleTraits {
    using Type = HANDLE;
    static Type Empty() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { FindClose(h); }
};
struct ServiceHandleTraits {
    using Type = SC_HANDLE;
    static Type Empty() { return nullptr; }
    static void Close(Type h) { CloseServiceHandle(h); }
};

using ScopedFile = ScopedHandle<FileHandleTraits>;
using ScopedKernelHandle = ScopedHandle<KernelHandleTraits>;
using ScopedRegKey = ScopedHandle<RegKeyTraits>;
using ScopedModule = ScopedHandle<ModuleTraits>;
using ScopedServiceHandle = ScopedHandle<ServiceHandleTraits>;
using ScopedFind = ScopedHandle<FindHandleTraits>;
