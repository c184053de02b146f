// SPDX-License-Identifier: MIT
//
// The variant's byte form: the tag letter, then the payload of its kind.
#include "variant_p.h"

#include <algorithm>

namespace veltrax
{

using namespace detail;

// ---- byte form --------------------------------------------------------------------------

int Variant::serialize(char* buffer) const
{
    char* p = buffer;
    switch (m_type) {
    case Bool:
        if (p) {
            p[0] = char(m_type);
            p[1] = as<bool>() ? 1 : 0;
        }
        return 2;
    case Double:
        if (p) {
            *p++ = char(m_type);
            store(p, as<double>());
        }
        return 9;
    case Int32:
        if (p) {
            *p++ = char(m_type);
            store(p, as<int32_t>());
        }
        return 5;
    case Int64:
        if (p) {
            *p++ = char(m_type);
            store(p, as<int64_t>());
        }
        return 9;
    case ShortString:
    case LongString:
        if (p) {
            *p++ = char(m_type);
            std::memcpy(p, m_text.c_str(), m_text.size() + 1);
        }
        return static_cast<int>(2 + m_text.size());
    default:
        // A container's tag and payload; for Empty and unknown tags the tag alone.
        if (p)
            *p++ = char(m_type);
        return 1
            + withContainerKind(
                m_type,
                [&](auto kind) {
                    return as<TypeOf<decltype(kind)>>().serialize(p);
                },
                [] {
                    return 0;
                });
    }
}

void Variant::serialize(VxByteArray& out) const
{
    // The common kinds directly; the rest measure first, then write.
    switch (m_type) {
    case Bool: {
        char* p = out.grow(2);
        p[0] = char(m_type);
        p[1] = as<bool>() ? 1 : 0;
        return;
    }
    case Int32: {
        char* p = out.grow(5);
        *p++ = char(m_type);
        store(p, as<int32_t>());
        return;
    }
    case Double:
    case Int64: {
        char* p = out.grow(9);
        *p++ = char(m_type);
        store(p, as<int64_t>());
        return;
    }
    case ShortString:
    case LongString: {
        char* p = out.grow(m_text.size() + 2);
        *p++ = char(m_type);
        std::memcpy(p, m_text.c_str(), m_text.size() + 1);
        return;
    }
    default:
        break;
    }
    const int length = serialize(static_cast<char*>(nullptr));
    serialize(out.grow(size_t(length)));
}

int Variant::deserialize(const VxByteArray& in, int position)
{
    if (position < 0)
        throwOutOfRange();
    // At or past the end fewer than 2 bytes remain, too: nothing is read.
    if (size_t(position) >= in.size())
        return 0;
    return deserialize(in.data() + position, in.data() + in.size());
}

int Variant::deserialize(const char* data, const char* end)
{
    if (!data || end - data < 2)
        return 0;
    const Type tag = static_cast<Type>(static_cast<uint8_t>(data[0]));
    const char* p = data + 1;
    switch (tag) {
    case Bool:
        if (tag != m_type)
            makeDefault(tag);
        as<bool>() = *p != 0;
        return 2;
    case Double:
        need(p, end, 8);
        if (tag != m_type)
            makeDefault(tag);
        as<double>() = load<double>(p);
        return 9;
    case Int32:
        need(p, end, 4);
        if (tag != m_type)
            makeDefault(tag);
        as<int32_t>() = load<int32_t>(p);
        return 5;
    case Int64:
        need(p, end, 8);
        if (tag != m_type)
            makeDefault(tag);
        as<int64_t>() = load<int64_t>(p);
        return 9;
    case ShortString:
    case LongString: {
        const char* zero = static_cast<const char*>(std::memchr(p, 0, size_t(end - p)));
        if (!zero)
            throwOutOfRange();
        const size_t length = size_t(zero - p);
        if (tag != m_type)
            makeDefault(tag);
        // A text longer than the kind allows is cut, but consumed whole.
        m_text.assign(p, std::min(length, stringLimit(tag)));
        return static_cast<int>(length + 2);
    }
    default:
        break;
    }
    if (tag != m_type)
        makeDefault(tag);
    // A container's payload follows; Empty, or a tag that is no kind, is the tag alone.
    return 1
        + withContainerKind(
            tag,
            [&](auto kind) {
                return as<TypeOf<decltype(kind)>>().deserialize(p, end);
            },
            [] {
                return 0;
            });
}

} // namespace veltrax
