#pragma once
// A late-bound COM object for tests. Its members are registered by name with
// handlers, and every call that reaches it through IDispatch is recorded, so
// that a test can play an automation server (Outlook's object model, a
// Redemption session) and afterwards check what the code under test asked for
// and what it left alone.
#include "e2e_shared/com_object.h"

#include <windows.h>
#include <oaidl.h>
#include <oleauto.h>
#include <wrl/client.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// A VARIANT that owns its content and, unlike UniqueVariant, can be copied and
// moved, so that handlers can return values by value and call records can keep
// the arguments after the caller has cleared its own.
class OwnedVariant {
public:
    OwnedVariant();
    // Deep copy; a VT_BYREF value is copied as the value it points at.
    explicit OwnedVariant(const VARIANT& value);
    OwnedVariant(const OwnedVariant& other);
    OwnedVariant(OwnedVariant&& other) noexcept;
    OwnedVariant& operator=(OwnedVariant other) noexcept;
    ~OwnedVariant();

    const VARIANT& get() const { return value_; }
    // Clears the old content before an API writes a new one.
    VARIANT* put();
    VARTYPE type() const { return value_.vt; }
    bool empty() const { return value_.vt == VT_EMPTY; }

    // A copy for a caller's out parameter (the target is overwritten, not cleared).
    HRESULT copyTo(VARIANT* target) const;
    // The value coerced as automation coerces it; empty or 0 when it can't be.
    std::wstring text() const;
    LONG number() const;

private:
    VARIANT value_;
};

// Values for handlers to return.
OwnedVariant variant(const wchar_t* text);          // VT_BSTR
OwnedVariant variant(const std::wstring& text);     // VT_BSTR
OwnedVariant variant(int value);                    // VT_I4
OwnedVariant variant(long value);                   // VT_I4
OwnedVariant variant(bool value);                   // VT_BOOL
OwnedVariant variant(IDispatch* object);            // VT_DISPATCH with its own reference; null is "Nothing"
OwnedVariant variant(IUnknown* object);             // VT_UNKNOWN with its own reference
OwnedVariant dateVariant(const SYSTEMTIME& time);   // VT_DATE

// Reading the arguments a handler receives, coerced the way automation
// servers coerce them (a VT_BYREF argument is followed).
HRESULT argumentText(const VARIANT& argument, std::wstring& text);
HRESULT argumentNumber(const VARIANT& argument, LONG& value);
HRESULT argumentObject(const VARIANT& argument, Microsoft::WRL::ComPtr<IDispatch>& object);
// True for an optional argument the caller left out (VT_ERROR DISP_E_PARAMNOTFOUND).
bool argumentMissing(const VARIANT& argument);

// One call that arrived through Invoke.
struct DispatchCall {
    std::wstring member;             // as registered
    WORD flags = 0;                  // DISPATCH_METHOD, DISPATCH_PROPERTYGET, ...
    std::vector<OwnedVariant> args;  // natural (call) order; for a put, the value assigned comes last
    HRESULT result = S_OK;           // what the handler answered (before any DISP_E_EXCEPTION wrapping)
};

class DispatchStandIn final : public ComObject<IDispatch> {
public:
    using Getter = std::function<OwnedVariant()>;
    // Arguments in natural order (the first argument of the call first).
    // `result` is always a valid, empty VARIANT; a failed HRESULT reaches the
    // caller as DISP_E_EXCEPTION with the code in EXCEPINFO::scode, the way
    // Outlook reports errors of its object model. DISP_E_* codes pass through.
    using Handler = std::function<HRESULT(const std::vector<VARIANT>& args, VARIANT* result)>;

    // `typeName` names the object in exception texts and helps when a test fails.
    static Microsoft::WRL::ComPtr<DispatchStandIn> create(std::wstring typeName);

    // A read-only property without arguments; a put is refused with DISP_E_MEMBERNOTFOUND.
    DispatchStandIn& property(const std::wstring& name, Getter getter);
    // A method, or a property with arguments; callable as DISPATCH_METHOD or DISPATCH_PROPERTYGET.
    DispatchStandIn& method(const std::wstring& name, Handler handler);
    // A property that a put or putref stores and a get returns.
    DispatchStandIn& settable(const std::wstring& name, OwnedVariant initial = OwnedVariant());

    const std::wstring& typeName() const { return typeName_; }
    // The value a settable member holds now (empty when there is no such member).
    OwnedVariant valueOf(const std::wstring& name) const;

    const std::vector<DispatchCall>& calls() const { return calls_; }
    bool wasCalled(const std::wstring& member) const { return callCount(member) != 0; }
    std::size_t callCount(const std::wstring& member) const;
    // The latest call of `member`, or null.
    const DispatchCall* lastCall(const std::wstring& member) const;
    // Every name asked for through GetIDsOfNames, known or not.
    const std::vector<std::wstring>& namesLookedUp() const { return namesLookedUp_; }
    void clearCalls();

    // IDispatch
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** typeInfo) override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT nameCount, LCID locale,
                                            DISPID* ids) override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT* argumentError) override;

private:
    enum class Kind { Getter, Method, Settable };
    struct Member {
        std::wstring name;
        Kind kind;
        Getter getter;
        Handler handler;
        OwnedVariant value;
    };

    explicit DispatchStandIn(std::wstring typeName);
    ~DispatchStandIn() override = default;
    bool offers(REFIID riid) const override { return riid == IID_IDispatch; }
    Member& define(const std::wstring& name, Kind kind);
    Member* find(const std::wstring& name);
    const Member* find(const std::wstring& name) const;
    HRESULT dispatch(Member& member, WORD flags, const std::vector<VARIANT>& args, const VARIANT* assigned,
                     VARIANT* result);

    std::wstring typeName_;
    std::vector<Member> members_;  // a member's DISPID is its index + 1
    std::vector<DispatchCall> calls_;
    std::vector<std::wstring> namesLookedUp_;
};
