#include "e2e_shared/dispatch_standin.h"
#include "common/com_ptr.h"

#include "common/strings.h"

#include <utility>

using Microsoft::WRL::ComPtr;

// ---- OwnedVariant ----

OwnedVariant::OwnedVariant() { VariantInit(&value_); }

OwnedVariant::OwnedVariant(const VARIANT& value)
{
    VariantInit(&value_);
    VariantCopyInd(&value_, const_cast<VARIANT*>(&value));
}

OwnedVariant::OwnedVariant(const OwnedVariant& other)
{
    VariantInit(&value_);
    VariantCopy(&value_, const_cast<VARIANT*>(&other.value_));
}

OwnedVariant::OwnedVariant(OwnedVariant&& other) noexcept
{
    // A VARIANT is a plain record: moving it is copying the bits and leaving
    // the source empty, so no reference or string changes hands twice.
    value_ = other.value_;
    VariantInit(&other.value_);
}

OwnedVariant& OwnedVariant::operator=(OwnedVariant other) noexcept
{
    std::swap(value_, other.value_);
    return *this;
}

OwnedVariant::~OwnedVariant() { VariantClear(&value_); }

VARIANT* OwnedVariant::put()
{
    VariantClear(&value_);
    return &value_;
}

HRESULT OwnedVariant::copyTo(VARIANT* target) const
{
    if (!target)
        return E_POINTER;
    VariantInit(target);
    return VariantCopy(target, const_cast<VARIANT*>(&value_));
}

std::wstring OwnedVariant::text() const
{
    std::wstring result;
    return SUCCEEDED(argumentText(value_, result)) ? result : std::wstring();
}

LONG OwnedVariant::number() const
{
    LONG result = 0;
    return SUCCEEDED(argumentNumber(value_, result)) ? result : 0;
}

OwnedVariant variant(const wchar_t* text)
{
    OwnedVariant result;
    VARIANT* value = result.put();
    value->vt = VT_BSTR;
    value->bstrVal = SysAllocString(text ? text : L"");
    return result;
}

OwnedVariant variant(const std::wstring& text)
{
    OwnedVariant result;
    VARIANT* value = result.put();
    value->vt = VT_BSTR;
    value->bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return result;
}

OwnedVariant variant(int value) { return variant(static_cast<long>(value)); }

OwnedVariant variant(long value)
{
    OwnedVariant result;
    VARIANT* target = result.put();
    target->vt = VT_I4;
    target->lVal = value;
    return result;
}

OwnedVariant variant(bool value)
{
    OwnedVariant result;
    VARIANT* target = result.put();
    target->vt = VT_BOOL;
    target->boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    return result;
}

OwnedVariant variant(IDispatch* object)
{
    OwnedVariant result;
    VARIANT* target = result.put();
    target->vt = VT_DISPATCH;
    target->pdispVal = object;
    if (object)
        object->AddRef();
    return result;
}

OwnedVariant variant(IUnknown* object)
{
    OwnedVariant result;
    VARIANT* target = result.put();
    target->vt = VT_UNKNOWN;
    target->punkVal = object;
    if (object)
        object->AddRef();
    return result;
}

OwnedVariant dateVariant(const SYSTEMTIME& time)
{
    OwnedVariant result;
    VARIANT* target = result.put();
    DATE date = 0;
    if (SystemTimeToVariantTime(const_cast<SYSTEMTIME*>(&time), &date)) {
        target->vt = VT_DATE;
        target->date = date;
    }
    return result;
}

// ---- argument readers ----

HRESULT argumentText(const VARIANT& argument, std::wstring& text)
{
    VARIANT converted;
    VariantInit(&converted);
    // VariantChangeType follows VT_BYREF on its own.
    const HRESULT hr = VariantChangeType(&converted, const_cast<VARIANT*>(&argument), 0, VT_BSTR);
    if (SUCCEEDED(hr))
        text.assign(converted.bstrVal ? converted.bstrVal : L"", SysStringLen(converted.bstrVal));
    VariantClear(&converted);
    return hr;
}

HRESULT argumentNumber(const VARIANT& argument, LONG& value)
{
    VARIANT converted;
    VariantInit(&converted);
    const HRESULT hr = VariantChangeType(&converted, const_cast<VARIANT*>(&argument), 0, VT_I4);
    if (SUCCEEDED(hr))
        value = converted.lVal;
    VariantClear(&converted);
    return hr;
}

HRESULT argumentObject(const VARIANT& argument, ComPtr<IDispatch>& object)
{
    const VARIANT* value = &argument;
    if (value->vt == (VT_BYREF | VT_VARIANT) && value->pvarVal)
        value = value->pvarVal;
    switch (value->vt) {
    case VT_DISPATCH:
        object = value->pdispVal;
        return object ? S_OK : E_POINTER;
    case VT_DISPATCH | VT_BYREF:
        object = value->ppdispVal ? *value->ppdispVal : nullptr;
        return object ? S_OK : E_POINTER;
    case VT_UNKNOWN:
        return value->punkVal ? value->punkVal->QueryInterface(IID_PPV_ARGS(object.ReleaseAndGetAddressOf()))
                              : E_POINTER;
    default:
        return DISP_E_TYPEMISMATCH;
    }
}

bool argumentMissing(const VARIANT& argument)
{
    return argument.vt == VT_ERROR && argument.scode == DISP_E_PARAMNOTFOUND;
}

// ---- DispatchStandIn ----

ComPtr<DispatchStandIn> DispatchStandIn::create(std::wstring typeName)
{
    ComPtr<DispatchStandIn> object;
    object = adoptCom(new DispatchStandIn(std::move(typeName)));
    return object;
}

DispatchStandIn::DispatchStandIn(std::wstring typeName) : typeName_(std::move(typeName)) {}

DispatchStandIn::Member& DispatchStandIn::define(const std::wstring& name, Kind kind)
{
    // Registering a name again replaces the member but keeps its DISPID, so
    // a caller that cached the id still reaches the member.
    Member* member = find(name);
    if (!member) {
        members_.push_back(Member{name, kind, {}, {}, {}});
        member = &members_.back();
    }
    member->kind = kind;
    member->getter = nullptr;
    member->handler = nullptr;
    member->value = OwnedVariant();
    return *member;
}

DispatchStandIn::Member* DispatchStandIn::find(const std::wstring& name)
{
    for (Member& member : members_)
        if (equalsIgnoreCase(member.name, name))
            return &member;
    return nullptr;
}

const DispatchStandIn::Member* DispatchStandIn::find(const std::wstring& name) const
{
    return const_cast<DispatchStandIn*>(this)->find(name);
}

DispatchStandIn& DispatchStandIn::property(const std::wstring& name, Getter getter)
{
    define(name, Kind::Getter).getter = std::move(getter);
    return *this;
}

DispatchStandIn& DispatchStandIn::method(const std::wstring& name, Handler handler)
{
    define(name, Kind::Method).handler = std::move(handler);
    return *this;
}

DispatchStandIn& DispatchStandIn::settable(const std::wstring& name, OwnedVariant initial)
{
    define(name, Kind::Settable).value = std::move(initial);
    return *this;
}

OwnedVariant DispatchStandIn::valueOf(const std::wstring& name) const
{
    const Member* member = find(name);
    return member && member->kind == Kind::Settable ? member->value : OwnedVariant();
}

std::size_t DispatchStandIn::callCount(const std::wstring& member) const
{
    std::size_t count = 0;
    for (const DispatchCall& call : calls_)
        if (equalsIgnoreCase(call.member, member))
            ++count;
    return count;
}

const DispatchCall* DispatchStandIn::lastCall(const std::wstring& member) const
{
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it)
        if (equalsIgnoreCase(it->member, member))
            return &*it;
    return nullptr;
}

void DispatchStandIn::clearCalls()
{
    calls_.clear();
    namesLookedUp_.clear();
}

HRESULT STDMETHODCALLTYPE DispatchStandIn::GetTypeInfoCount(UINT* count)
{
    if (!count)
        return E_POINTER;
    *count = 0;  // names only, like an object without a type library
    return S_OK;
}

HRESULT STDMETHODCALLTYPE DispatchStandIn::GetTypeInfo(UINT, LCID, ITypeInfo** typeInfo)
{
    if (typeInfo)
        *typeInfo = nullptr;
    return DISP_E_BADINDEX;
}

HRESULT STDMETHODCALLTYPE DispatchStandIn::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT nameCount, LCID,
                                                         DISPID* ids)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (!names || !ids || nameCount == 0)
        return E_INVALIDARG;
    for (UINT i = 0; i < nameCount; ++i)
        ids[i] = DISPID_UNKNOWN;
    const std::wstring name = names[0] ? names[0] : L"";
    namesLookedUp_.push_back(name);
    for (std::size_t i = 0; i < members_.size(); ++i) {
        if (equalsIgnoreCase(members_[i].name, name)) {
            ids[0] = static_cast<DISPID>(i + 1);
            // Named parameters are not supported: their names stay unknown.
            return nameCount == 1 ? S_OK : DISP_E_UNKNOWNNAME;
        }
    }
    return DISP_E_UNKNOWNNAME;
}

HRESULT STDMETHODCALLTYPE DispatchStandIn::Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params,
                                                  VARIANT* result, EXCEPINFO* exception, UINT*)
{
    if (riid != IID_NULL)
        return DISP_E_UNKNOWNINTERFACE;
    if (id < 1 || static_cast<std::size_t>(id) > members_.size())
        return DISP_E_MEMBERNOTFOUND;

    DISPPARAMS none{nullptr, nullptr, 0, 0};
    const DISPPARAMS& given = params ? *params : none;
    if (given.cArgs < given.cNamedArgs || (given.cArgs && !given.rgvarg))
        return E_INVALIDARG;

    // A put arrives with its value as the one named argument DISPID_PROPERTYPUT
    // in rgvarg[0]; anything else named is more than these objects support.
    const bool isPut = (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) != 0;
    const VARIANT* assigned = nullptr;
    if (isPut) {
        if (given.cNamedArgs != 1 || !given.rgdispidNamedArgs || given.rgdispidNamedArgs[0] != DISPID_PROPERTYPUT)
            return DISP_E_PARAMNOTOPTIONAL;
        assigned = &given.rgvarg[0];
        if (assigned->vt == (VT_BYREF | VT_VARIANT) && assigned->pvarVal)
            assigned = assigned->pvarVal;
    } else if (given.cNamedArgs != 0) {
        return DISP_E_NONAMEDARGS;
    }

    // IDispatch hands the arguments last to first; handlers get them as the
    // caller wrote them, with a by-reference VARIANT taken as its value.
    std::vector<VARIANT> args;
    for (UINT i = given.cArgs; i > given.cNamedArgs; --i) {
        const VARIANT& argument = given.rgvarg[i - 1];
        args.push_back(argument.vt == (VT_BYREF | VT_VARIANT) && argument.pvarVal ? *argument.pvarVal : argument);
    }

    VARIANT scratch;
    VariantInit(&scratch);
    VARIANT* target = result ? result : &scratch;
    VariantInit(target);

    const std::size_t index = static_cast<std::size_t>(id - 1);
    const HRESULT hr = dispatch(members_[index], flags, args, assigned, target);
    VariantClear(&scratch);

    DispatchCall call;
    call.member = members_[index].name;
    call.flags = flags;
    for (const VARIANT& argument : args)
        call.args.emplace_back(argument);
    if (assigned)
        call.args.emplace_back(*assigned);
    call.result = hr;
    calls_.push_back(std::move(call));

    if (SUCCEEDED(hr) || HRESULT_FACILITY(hr) == FACILITY_DISPATCH)
        return hr;
    if (result)
        VariantClear(result);
    if (exception) {
        *exception = EXCEPINFO{};
        exception->bstrSource = SysAllocString(typeName_.c_str());
        exception->bstrDescription = SysAllocString((members_[index].name + L" failed").c_str());
        exception->scode = hr;
    }
    return DISP_E_EXCEPTION;
}

HRESULT DispatchStandIn::dispatch(Member& member, WORD flags, const std::vector<VARIANT>& args,
                                  const VARIANT* assigned, VARIANT* result)
{
    const bool isGetOrCall = (flags & (DISPATCH_METHOD | DISPATCH_PROPERTYGET)) != 0;
    switch (member.kind) {
    case Kind::Getter: {
        if (assigned || !isGetOrCall)
            return DISP_E_MEMBERNOTFOUND;
        if (!args.empty())
            return DISP_E_BADPARAMCOUNT;
        // A copy, so that a getter that registers members cannot pull the
        // function out from under its own call.
        const Getter getter = member.getter;
        return getter().copyTo(result);
    }
    case Kind::Method: {
        if (assigned || !isGetOrCall)
            return DISP_E_MEMBERNOTFOUND;
        const Handler handler = member.handler;
        return handler(args, result);
    }
    case Kind::Settable:
        if (assigned) {
            if (!args.empty())
                return DISP_E_BADPARAMCOUNT;
            member.value = OwnedVariant(*assigned);
            return S_OK;
        }
        if (!isGetOrCall)
            return DISP_E_MEMBERNOTFOUND;
        if (!args.empty())
            return DISP_E_BADPARAMCOUNT;
        return member.value.copyTo(result);
    }
    return DISP_E_MEMBERNOTFOUND;
}
