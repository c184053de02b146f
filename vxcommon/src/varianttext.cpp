// SPDX-License-Identifier: MIT
//
// The variant's text forms: JSON, the plain contents, and the tagged "T:value" form.
#include "variant_p.h"

#include <algorithm>
#include <stdexcept>

namespace veltrax
{

using namespace detail;

// ---- JSON and plain text ----------------------------------------------------------------

std::string Variant::toJsonString(bool bare) const
{
    std::string out;
    auto quoted = [&](auto&& writeBody) {
        if (!bare)
            out.push_back('"');
        writeBody();
        if (!bare)
            out.push_back('"');
    };
    switch (m_type) {
    case Bool:
        out = as<bool>() ? "true" : "false";
        break;
    case Double:
        appendDouble(out, as<double>(), 16);
        break;
    case Int32:
        appendInteger(out, as<int32_t>());
        break;
    case Int64:
        appendInteger(out, as<int64_t>());
        break;
    case IntList: {
        out.push_back('[');
        const veltrax::IntList& l = as<veltrax::IntList>();
        for (size_t i = 0; i < l.size(); ++i) {
            if (i)
                out.push_back(',');
            appendInteger(out, l[i]);
        }
        out.push_back(']');
        break;
    }
    case Vector:
    case Quaternion: {
        const double* values = m_type == Vector ? as<VxVector>().data() : as<VxQuaternion>().data();
        const Eigen::Index n = m_type == Vector ? as<VxVector>().size() : 4;
        out.push_back('[');
        for (Eigen::Index i = 0; i < n; ++i) {
            if (i)
                out.push_back(',');
            appendDouble(out, values[i], 16);
        }
        out.push_back(']');
        break;
    }
    case LabelList: {
        // The labels are quoted whatever `bare` says.
        out.push_back('[');
        const veltrax::LabelList& l = as<veltrax::LabelList>();
        for (size_t i = 0; i < l.size(); ++i) {
            if (i)
                out.push_back(',');
            out.push_back('"');
            out += l[i].text;
            out.push_back('"');
        }
        out.push_back(']');
        break;
    }
    case ShortString:
    case LongString:
        if (m_text == "null")
            out = m_text;
        else
            quoted([&] {
                out += m_text;
            });
        break;
    case Matrix:
    case MatrixArray:
    case BinaryObject:
    case Tensor:
        quoted([&] {
            writeContentsToString(out, false);
        });
        break;
    default:
        // What std::string reports when built from a null pointer: there is no text.
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return out;
}

int Variant::writeContentsToString(std::string& text, bool hex) const
{
    const size_t before = text.size();
    switch (m_type) {
    case Bool:
        text.push_back(as<bool>() ? 'Y' : 'N');
        break;
    case Double:
        appendDouble(text, as<double>(), 16);
        break;
    case Int32:
        if (hex) {
            text += "0x";
            appendHex(text, as<uint32_t>());
        } else {
            appendInteger(text, as<int32_t>());
        }
        break;
    case Int64:
        if (hex) {
            text += "0x";
            appendHex(text, as<uint64_t>());
        } else {
            appendInteger(text, as<int64_t>());
        }
        break;
    case ShortString:
    case LongString:
        text += m_text;
        break;
    default:
        withContainerKind(
            m_type,
            [&](auto kind) {
                as<TypeOf<decltype(kind)>>().writeToString(text);
            },
            [] {});
        break;
    }
    return static_cast<int>(text.size() - before);
}

int Variant::writeToString(std::string& text) const
{
    // An Empty value (and an unknown tag that could not stand in a line) writes nothing,
    // which reads back as Empty.
    if (m_type == Empty || m_type <= ' ' || m_type >= 0x7F || m_type == '=' || m_type == ';')
        return 0;
    const size_t before = text.size();
    text.push_back(char(m_type));
    text.push_back(':');
    writeContentsToString(text, false);
    return static_cast<int>(text.size() - before);
}

int Variant::readFromString(const char* text, bool hexText)
{
    if (!text || !*text) {
        clear();
        return 0;
    }
    const Type tag = static_cast<Type>(static_cast<uint8_t>(text[0]));
    if (tag != m_type)
        makeDefault(tag);
    // The value starts after "T:"; a text that ends early has an empty value.
    const char* value = text[1] ? text + 2 : text + 1;
    switch (tag) {
    case Bool: {
        const char c = *value;
        as<bool>() = c == 'Y' || c == 'y' || c == '1';
        return static_cast<int>(value - text) + (c ? 1 : 0);
    }
    case Double: {
        const char* p = value;
        double d;
        if (parseDouble(p, d))
            as<double>() = d;
        return static_cast<int>(p - text);
    }
    case Int32:
    case Int64: {
        const char* p = value;
        uint64_t v;
        if (parseInteger(p, v)) {
            if (tag == Int32)
                as<uint32_t>() = static_cast<uint32_t>(v);
            else
                as<uint64_t>() = v;
        }
        return static_cast<int>(p - text);
    }
    case ShortString:
    case LongString: {
        const size_t rest = std::strlen(value);
        std::string s;
        if (hexText) {
            const size_t limit = stringLimit(tag);
            for (size_t i = 0; i + 1 < rest && s.size() < limit; i += 2) {
                const int hi = hexValue(value[i]);
                const int lo = hexValue(value[i + 1]);
                if (hi < 0 || lo < 0)
                    break;
                s.push_back(char(hi << 4 | lo));
            }
            if (const auto zero = s.find('\0'); zero != std::string::npos)
                s.resize(zero);
        } else {
            s.assign(value, std::min(rest, stringLimit(tag)));
        }
        while (!s.empty() && (s.back() == '\r' || s.back() == '\n'))
            s.pop_back();
        m_text = std::move(s);
        return static_cast<int>(value - text + rest);
    }
    default: {
        const int consumed = withContainerKind(
            tag,
            [&](auto kind) {
                return as<TypeOf<decltype(kind)>>().readFromString(value);
            },
            [] {
                return 0;
            });
        return static_cast<int>(value - text) + consumed;
    }
    }
}

} // namespace veltrax
