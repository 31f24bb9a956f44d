#pragma once
// The one place where a sample type becomes a C++ type.
//
// The kit sits below every area of the host and includes none of their
// headers: the sample-type enumeration comes in as the template parameter E
// (any enumeration with the IDT_ names), so the host and the plug-in share
// these templates without either exporting a symbol for them.

#include <QtCore/qglobal.h>

#include <type_traits>

namespace pixelkit {

template <class T>
struct Tag
{
    using type = T;
};

// What a dispatch answers for a type it has no C++ type for: false for bool
// callables, a null pointer for those that pick a function, nothing for void.
template <class R>
R unsupported()
{
    if constexpr (std::is_void_v<R>)
        return;
    else
        return R{};
}

// Calls fn(Tag<T>{}) with the C++ type of sample type t and returns its
// answer. Half floats and unknown values have no C++ type here and get
// unsupported<R>() without fn being called.
template <class E, class Fn>
auto withSampleType(E t, Fn&& fn) -> decltype(fn(Tag<quint8>{}))
{
    using R = decltype(fn(Tag<quint8>{}));
    switch (t) {
    case E::IDT_INT8: return fn(Tag<qint8>{});
    case E::IDT_UINT8: return fn(Tag<quint8>{});
    case E::IDT_INT16: return fn(Tag<qint16>{});
    case E::IDT_UINT16: return fn(Tag<quint16>{});
    case E::IDT_INT32: return fn(Tag<qint32>{});
    case E::IDT_UINT32: return fn(Tag<quint32>{});
    case E::IDT_INT64: return fn(Tag<qint64>{});
    case E::IDT_UINT64: return fn(Tag<quint64>{});
    case E::IDT_FLOAT: return fn(Tag<float>{});
    case E::IDT_DOUBLE: return fn(Tag<double>{});
    default: return unsupported<R>();
    }
}

// The same for a pair of pictures: fn(Tag<A>{}, Tag<B>{}).
template <class E, class Fn>
auto withSampleTypes(E a, E b, Fn&& fn) -> decltype(fn(Tag<quint8>{}, Tag<quint8>{}))
{
    return withSampleType(a, [&](auto ta) {
        return withSampleType(b, [&](auto tb) { return fn(ta, tb); });
    });
}

// Calls fn(Tag<T>{}) only for the sample types listed in Allowed (a
// std::tuple of C++ types), unsupported<R>() for every other: the kernels
// that exist for a few types only say which, and no other gets instantiated.
template <class... Allowed>
struct Only
{
    template <class T>
    static constexpr bool has = (std::is_same_v<T, Allowed> || ...);
};

template <class Allowed, class E, class Fn>
auto withSampleTypeIn(E t, Fn&& fn) -> decltype(fn(Tag<quint8>{}))
{
    using R = decltype(fn(Tag<quint8>{}));
    return withSampleType(t, [&](auto tag) -> R {
        if constexpr (Allowed::template has<typename decltype(tag)::type>)
            return fn(tag);
        else
            return unsupported<R>();
    });
}

// Operations that only move samples care about their width, not their type:
// fn(Tag<U>{}) with the unsigned type of 1, 2, 4 or 8 bytes.
template <class Fn>
auto withSampleBytes(unsigned bytes, Fn&& fn) -> decltype(fn(Tag<quint8>{}))
{
    using R = decltype(fn(Tag<quint8>{}));
    switch (bytes) {
    case 1: return fn(Tag<quint8>{});
    case 2: return fn(Tag<quint16>{});
    case 4: return fn(Tag<quint32>{});
    case 8: return fn(Tag<quint64>{});
    default: return unsupported<R>();
    }
}

} // namespace pixelkit
