// SPDX-License-Identifier: MIT
//
// What the files implementing Variant share: the C++ type behind each kind, and the
// dispatchers that turn "do this with the value, whatever its kind" into one generic
// lambda instead of one case per kind.
#pragma once

#include "valueformat_p.h"
#include "variant.h"

#include <cstring>
#include <type_traits>

namespace veltrax
{
namespace detail
{

/** Names the C++ type of a kind; the dispatchers pass one to their lambda. */
template <typename T> struct KindType {
    using type = T;
};

template <typename Kind> using TypeOf = typename std::decay_t<Kind>::type;

/**
 * Calls @p f with KindType<T>() for the scalar kind @p type (held in the variant itself),
 * or @p otherwise() for any other kind.
 */
template <typename F, typename G> inline auto withScalarKind(int type, F&& f, G&& otherwise) -> decltype(otherwise())
{
    switch (type) {
    case Variant::Bool:
        return f(KindType<bool>());
    case Variant::Double:
        return f(KindType<double>());
    case Variant::Int32:
        return f(KindType<int32_t>());
    case Variant::Int64:
        return f(KindType<int64_t>());
    default:
        return otherwise();
    }
}

/** The same for the container kinds, each a separately allocated object. */
template <typename F, typename G> inline auto withContainerKind(int type, F&& f, G&& otherwise) -> decltype(otherwise())
{
    switch (type) {
    case Variant::Matrix:
        return f(KindType<VxMatrix>());
    case Variant::Vector:
        return f(KindType<VxVector>());
    case Variant::Quaternion:
        return f(KindType<VxQuaternion>());
    case Variant::Tensor:
        return f(KindType<veltrax::Tensor>());
    case Variant::MatrixArray:
        return f(KindType<veltrax::MatrixArray>());
    case Variant::IntList:
        return f(KindType<veltrax::IntList>());
    case Variant::LabelList:
        return f(KindType<veltrax::LabelList>());
    case Variant::BinaryObject:
        return f(KindType<veltrax::BinaryObject>());
    default:
        return otherwise();
    }
}

/** Scalar or container kind: every kind but Empty, the strings and unknown tags. */
template <typename F, typename G> inline auto withValueKind(int type, F&& f, G&& otherwise) -> decltype(otherwise())
{
    return withScalarKind(type, f, [&] {
        return withContainerKind(type, f, otherwise);
    });
}

inline bool isScalarKind(int type)
{
    return type == Variant::Bool || type == Variant::Double || type == Variant::Int32 || type == Variant::Int64;
}

inline bool isContainerKind(int type)
{
    return withContainerKind(
        type,
        [](auto) {
            return true;
        },
        [] {
            return false;
        });
}

inline bool isStringKind(int type)
{
    return type == Variant::ShortString || type == Variant::LongString;
}

inline size_t stringLimit(int type)
{
    return type == Variant::ShortString ? Variant::ShortStringMax : Variant::LongStringMax;
}

} // namespace detail

template <typename T> inline T& Variant::as() const
{
    // Scalars are read through the union member of their own type (the unsigned forms through
    // their signed twin, which the aliasing rules allow), never through a cast of the union.
    if constexpr (std::is_arithmetic<T>::value) {
        if (!m_isReference && detail::isScalarKind(m_type)) {
            auto& store = const_cast<decltype(m_store)&>(m_store);
            if constexpr (std::is_same<T, bool>::value)
                return store.b;
            else if constexpr (std::is_same<T, double>::value)
                return store.d;
            else if constexpr (sizeof(T) == sizeof(int32_t) && std::is_integral<T>::value)
                return reinterpret_cast<T&>(store.i32);
            else {
                static_assert(sizeof(T) == sizeof(int64_t) && std::is_integral<T>::value, "not a scalar kind's type");
                return reinterpret_cast<T&>(store.i64);
            }
        }
    }
    return *static_cast<T*>(m_value);
}

template <typename T> inline const T& Variant::exactly(Type kind) const
{
    if (m_type != kind)
        throwBadType(kind);
    return as<T>();
}

} // namespace veltrax
