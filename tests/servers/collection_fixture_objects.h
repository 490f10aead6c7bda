#pragma once
// The collection and hostile fixtures' objects as the server file's entry
// points reach them, and the counting base both build on.

#include <windows.h>
#include <objbase.h>
#include <oaidl.h>

#include <type_traits>

constexpr int kCollectionLibraryResource = 4;

// A new CollectionFixture, answering iid; the caller owns the one reference.
HRESULT CreateCollectionFixture(REFIID iid, void** out);
// Objects of the collection fixture alive now: makers, collections, enumerators, elements.
LONG LiveCollectionObjects();

// A true count of references, and the fixture's count of live objects that
// its server reports; answers IUnknown, Interface and IDispatch if it is one.
template <typename Interface, volatile LONG& live>
class CCounted : public Interface {
public:
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        const bool answers = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(Interface)) ||
                             (std::is_base_of<IDispatch, Interface>::value && IsEqualIID(iid, IID_IDispatch));
        *out = answers ? static_cast<Interface*>(this) : nullptr;
        if (!answers)
            return E_NOINTERFACE;
        this->AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&references); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references);
        if (left == 0)
            delete this;
        return left;
    }

protected:
    CCounted() { InterlockedIncrement(&live); }
    virtual ~CCounted() { InterlockedDecrement(&live); }

private:
    volatile LONG references = 1;  // the creator's
};
