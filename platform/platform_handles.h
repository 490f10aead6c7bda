#pragma once
// Small owners for platform resources, so that no algorithm releases by hand.
// Move-only; Reset adopts, Release gives away, Put frees what was held before
// handing out the address for an out-parameter.

#include <windows.h>
#include <objbase.h>
#include <oaidl.h>
#include <oleauto.h>

#include <utility>

namespace MetaObj {

template <typename T, typename Closer, T kNone>
class UniqueResource {
public:
    UniqueResource() = default;
    explicit UniqueResource(T value) : value(value) {}
    UniqueResource(UniqueResource&& other) noexcept : value(other.Release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    ~UniqueResource() { Reset(); }

    T Get() const { return value; }
    explicit operator bool() const { return value != kNone; }
    T* Put()
    {
        Reset();
        return &value;
    }
    void Reset(T adopted = kNone)
    {
        if (value != kNone)
            Closer()(value);
        value = adopted;
    }
    T Release() { return std::exchange(value, kNone); }

private:
    T value = kNone;
};

struct RegKeyCloser {
    void operator()(HKEY key) const { RegCloseKey(key); }
};
struct CoTaskMemCloser {
    void operator()(void* memory) const { CoTaskMemFree(memory); }
};

struct BstrCloser {
    void operator()(BSTR text) const { SysFreeString(text); }
};
using RegKey = UniqueResource<HKEY, RegKeyCloser, nullptr>;
using CoTaskMemText = UniqueResource<LPOLESTR, CoTaskMemCloser, nullptr>;
using Bstr = UniqueResource<BSTR, BstrCloser, nullptr>;

// Destroying an array frees what its elements own: texts, VARIANTs, references.
struct SafeArrayCloser {
    void operator()(SAFEARRAY* array) const { SafeArrayDestroy(array); }
};
using SafeArray = UniqueResource<SAFEARRAY*, SafeArrayCloser, nullptr>;

// A description that must go back to the object that gave it: TYPEATTR to its
// ITypeInfo, TLIBATTR to its ITypeLib. The owner must outlive this.
template <typename Owner, typename Description, void (STDMETHODCALLTYPE Owner::*Give)(Description*)>
class BorrowedDescription {
public:
    explicit BorrowedDescription(Owner* owner) : owner(owner) {}
    BorrowedDescription(const BorrowedDescription&) = delete;
    BorrowedDescription& operator=(const BorrowedDescription&) = delete;
    ~BorrowedDescription()
    {
        if (description != nullptr)
            (owner->*Give)(description);
    }
    Description** Put() { return &description; }
    const Description* operator->() const { return description; }
    explicit operator bool() const { return description != nullptr; }

private:
    Owner* owner;
    Description* description = nullptr;
};
using TypeAttr = BorrowedDescription<ITypeInfo, TYPEATTR, &ITypeInfo::ReleaseTypeAttr>;
using LibAttr = BorrowedDescription<ITypeLib, TLIBATTR, &ITypeLib::ReleaseTLibAttr>;

// One counted reference. Adopting never adds a reference; copying does.
template <typename T>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(std::nullptr_t) {}
    ComPtr(const ComPtr& other) : ptr(other.ptr)
    {
        if (ptr != nullptr)
            ptr->AddRef();
    }
    ComPtr(ComPtr&& other) noexcept : ptr(std::exchange(other.ptr, nullptr)) {}
    ComPtr& operator=(ComPtr other) noexcept
    {
        std::swap(ptr, other.ptr);
        return *this;
    }
    ~ComPtr() { Reset(); }

    static ComPtr Adopt(T* owned)
    {
        ComPtr result;
        result.ptr = owned;
        return result;
    }

    T* Get() const { return ptr; }
    T* operator->() const { return ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    T** Put()
    {
        Reset();
        return &ptr;
    }
    void** PutVoid() { return reinterpret_cast<void**>(Put()); }
    void Reset()
    {
        if (ptr != nullptr)
            std::exchange(ptr, nullptr)->Release();
    }
    // Hands the reference over; the caller owns it now.
    T* Detach() { return std::exchange(ptr, nullptr); }

    template <typename U>
    HRESULT As(ComPtr<U>& out) const
    {
        return ptr->QueryInterface(__uuidof(U), out.PutVoid());
    }

private:
    T* ptr = nullptr;
};

}  // namespace MetaObj
