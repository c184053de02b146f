// SPDX-License-Identifier: MIT
#include "lists.h"

#include "valueformat_p.h"

#include <strings.h>

namespace veltrax
{

using namespace detail;

void Label::assign(const char* s, size_t length)
{
    if (length > MaxLength)
        length = MaxLength;
    if (length)
        std::memcpy(text, s, length);
    text[length] = 0;
}

// ---- IntList ----------------------------------------------------------------------------

IntList::IntList(const VxIntArray& array)
{
    reserve(array.size());
    for (int v : array)
        append(static_cast<uint32_t>(v));
}

VxIntArray IntList::toVxIntArray() const
{
    VxIntArray out;
    out.reserve(size());
    for (uint32_t v : *this)
        out.push_back(static_cast<int>(v));
    return out;
}

int IntList::serialize(char* buffer) const
{
    const size_t length = 4 + 4 * size();
    if (buffer) {
        store(buffer, static_cast<uint32_t>(size()));
        if (size())
            std::memcpy(buffer, data(), 4 * size());
    }
    return static_cast<int>(length);
}

int IntList::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint32_t n = read<uint32_t>(p, end);
    need(p, end, size_t(n) * 4);
    resize(n);
    if (n)
        std::memcpy(this->data(), p, size_t(n) * 4);
    return static_cast<int>(4 + size_t(n) * 4);
}

void IntList::writeToString(std::string& out) const
{
    out.push_back('[');
    for (size_t i = 0; i < size(); ++i) {
        if (i)
            out.push_back(',');
        appendInteger(out, (*this)[i]);
    }
    out.push_back(']');
}

std::string IntList::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int IntList::readFromString(const char* text)
{
    clear();
    const char* p = skipSpace(text);
    const bool bracket = *p == '[';
    if (bracket)
        ++p;
    for (;;) {
        p = skipSpace(p);
        uint64_t v;
        if (!parseInteger(p, v))
            break;
        append(static_cast<uint32_t>(v));
        p = skipSpace(p);
        if (*p == ',')
            ++p;
    }
    p = skipSpace(p);
    if (bracket && *p == ']')
        ++p;
    return static_cast<int>(p - text);
}

// ---- LabelList --------------------------------------------------------------------------

LabelList::LabelList(const VxStringArray& array)
{
    reserve(array.size());
    for (const VxString& s : array)
        append(Label(s));
}

VxStringArray LabelList::toVxStringArray() const
{
    VxStringArray out;
    out.reserve(size());
    for (const Label& l : *this)
        out.push_back(VxString(l.text, l.length()));
    return out;
}

bool LabelList::contains(const std::string& label) const
{
    for (const Label& l : *this) {
        if (strcasecmp(l.text, label.c_str()) == 0)
            return true;
    }
    return false;
}

int LabelList::serialize(char* buffer) const
{
    if (empty()) {
        if (buffer)
            store(buffer, uint32_t(0));
        return 4;
    }
    size_t length = 4;
    for (const Label& l : *this)
        length += l.length() + 1; // each label and its separator, the last one's being the terminator
    if (buffer) {
        store(buffer, static_cast<uint32_t>(size()));
        for (size_t i = 0; i < size(); ++i) {
            const Label& l = (*this)[i];
            const size_t n = l.length();
            std::memcpy(buffer, l.text, n);
            buffer += n;
            *buffer++ = i + 1 < size() ? ' ' : '\0';
        }
    }
    return static_cast<int>(length);
}

int LabelList::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint32_t n = read<uint32_t>(p, end);
    clear();
    if (n == 0)
        return 4;
    const char* terminator = static_cast<const char*>(p < end ? std::memchr(p, 0, size_t(end - p)) : nullptr);
    if (!terminator)
        throwOutOfRange();
    const size_t textLength = size_t(terminator - p);
    if (textLength < 2 * size_t(n) - 1) {
        // Too short for n labels: the list stays empty and the terminator is not counted.
        // Writers of the past depend on exactly this length, so it is kept.
        reserve(16);
        return static_cast<int>(4 + textLength);
    }
    reserve(n); // bounded: n <= (textLength + 1) / 2
    const char* s = p;
    const char* stop = terminator;
    size_t found = 0;
    while (found < n) {
        while (s < terminator && isSpace(*s))
            ++s;
        if (s == terminator)
            break;
        const char* word = s;
        while (s < terminator && !isSpace(*s))
            ++s;
        for (const char* piece = word; piece < s && found < n; piece += Label::MaxLength) {
            const size_t pieceLength = std::min<size_t>(Label::MaxLength, size_t(s - piece));
            Label l;
            l.assign(piece, pieceLength);
            append(l);
            if (++found == n)
                stop = piece + pieceLength;
        }
    }
    resize(n);
    return static_cast<int>(4 + size_t(stop - p) + 1);
}

namespace
{
void appendQuoted(std::string& out, const char* s)
{
    out.push_back('"');
    for (; *s; ++s) {
        switch (*s) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out.push_back(*s);
        }
    }
    out.push_back('"');
}

// Reads a quoted text at p (which points at the opening quote); false when unterminated.
bool readQuoted(const char*& p, std::string& out)
{
    const char* q = p + 1;
    out.clear();
    while (*q && *q != '"') {
        if (*q == '\\' && q[1]) {
            ++q;
            switch (*q) {
            case 'n':
                out.push_back('\n');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 't':
                out.push_back('\t');
                break;
            default:
                out.push_back(*q);
            }
            ++q;
        } else {
            out.push_back(*q++);
        }
    }
    if (*q != '"')
        return false;
    p = q + 1;
    return true;
}
} // namespace

void LabelList::writeToString(std::string& out) const
{
    out.push_back('[');
    for (size_t i = 0; i < size(); ++i) {
        if (i)
            out.push_back(',');
        appendQuoted(out, (*this)[i].text);
    }
    out.push_back(']');
}

std::string LabelList::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int LabelList::readFromString(const char* text)
{
    clear();
    const char* p = skipSpace(text);
    if (*p != '[')
        return 0;
    ++p;
    std::string label;
    for (;;) {
        p = skipSpace(p);
        if (*p != '"' || !readQuoted(p, label))
            break;
        append(Label(label));
        p = skipSpace(p);
        if (*p == ',')
            ++p;
    }
    p = skipSpace(p);
    if (*p == ']')
        ++p;
    return static_cast<int>(p - text);
}

// ---- BinaryObject -----------------------------------------------------------------------

BinaryObject::BinaryObject(const void* data, uint32_t size)
{
    assign(data, size);
}

BinaryObject::BinaryObject(const std::string& bytes)
{
    if (bytes.size() > UINT32_MAX)
        throw std::length_error("binary object larger than 4 GiB");
    assign(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

BinaryObject::BinaryObject(const BinaryObject& other)
{
    assign(other.m_data, other.m_size);
}

BinaryObject::BinaryObject(BinaryObject&& other) noexcept
    : m_data(other.m_data)
    , m_size(other.m_size)
{
    other.m_data = nullptr;
    other.m_size = 0;
}

BinaryObject& BinaryObject::operator=(const BinaryObject& other)
{
    if (this != &other)
        assign(other.m_data, other.m_size);
    return *this;
}

BinaryObject& BinaryObject::operator=(BinaryObject&& other) noexcept
{
    if (this != &other) {
        delete[] m_data;
        m_data = other.m_data;
        m_size = other.m_size;
        other.m_data = nullptr;
        other.m_size = 0;
    }
    return *this;
}

BinaryObject::~BinaryObject()
{
    delete[] m_data;
}

void BinaryObject::assign(const void* data, uint32_t size)
{
    uint8_t* fresh = size ? new uint8_t[size] : nullptr;
    if (size)
        std::memcpy(fresh, data, size);
    delete[] m_data;
    m_data = fresh;
    m_size = size;
}

void BinaryObject::resize(uint32_t size)
{
    uint8_t* fresh = size ? new uint8_t[size]() : nullptr;
    if (size && m_size)
        std::memcpy(fresh, m_data, std::min(size, m_size));
    delete[] m_data;
    m_data = fresh;
    m_size = size;
}

void BinaryObject::clear()
{
    delete[] m_data;
    m_data = nullptr;
    m_size = 0;
}

bool BinaryObject::operator==(const BinaryObject& other) const
{
    return m_size == other.m_size && (m_size == 0 || std::memcmp(m_data, other.m_data, m_size) == 0);
}

int BinaryObject::serialize(char* buffer) const
{
    if (buffer) {
        store(buffer, m_size);
        if (m_size)
            std::memcpy(buffer, m_data, m_size);
    }
    return static_cast<int>(4 + size_t(m_size));
}

int BinaryObject::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint32_t n = read<uint32_t>(p, end);
    need(p, end, n);
    assign(p, n);
    return static_cast<int>(4 + size_t(n));
}

void BinaryObject::writeToString(std::string& out) const
{
    static const char digits[] = "0123456789ABCDEF";
    out.reserve(out.size() + 2 * size_t(m_size));
    for (uint32_t i = 0; i < m_size; ++i) {
        out.push_back(digits[m_data[i] >> 4]);
        out.push_back(digits[m_data[i] & 15]);
    }
}

std::string BinaryObject::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int BinaryObject::readFromString(const char* text)
{
    size_t n = 0;
    while (hexValue(text[2 * n]) >= 0 && hexValue(text[2 * n + 1]) >= 0 && n < UINT32_MAX)
        ++n;
    resize(0);
    resize(static_cast<uint32_t>(n));
    for (size_t i = 0; i < n; ++i)
        m_data[i] = static_cast<uint8_t>(hexValue(text[2 * i]) << 4 | hexValue(text[2 * i + 1]));
    return static_cast<int>(2 * n);
}

} // namespace veltrax
