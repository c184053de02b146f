// SPDX-License-Identifier: MIT
//
// Helpers shared by the value types: little-endian byte access with bounds checks, and
// locale-independent number text (the C library's printf/scanf follow LC_NUMERIC, which
// a Qt application sets from the environment).
#pragma once

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "byte forms are little-endian and copied as they stand");

namespace veltrax
{
namespace detail
{

[[noreturn]] inline void throwOutOfRange()
{
    throw std::out_of_range("index out of range");
}

/** Throws unless [p, p + n) lies within [p, end). */
inline void need(const char* p, const char* end, size_t n)
{
    if (p > end || static_cast<size_t>(end - p) < n)
        throwOutOfRange();
}

template <typename T> inline T load(const char* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T> inline T read(const char*& p, const char* end)
{
    need(p, end, sizeof(T));
    T v = load<T>(p);
    p += sizeof(T);
    return v;
}

template <typename T> inline void store(char*& p, T v)
{
    std::memcpy(p, &v, sizeof v);
    p += sizeof v;
}

/** Appends @p v as printf("%.*g", precision, v) would in the C locale. */
inline void appendDouble(std::string& out, double v, int precision)
{
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::general, precision);
    out.append(buf, r.ptr);
}

/** Appends the shortest text that reads back to the same @p v. */
inline void appendDoubleShortest(std::string& out, double v)
{
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

template <typename T> inline void appendInteger(std::string& out, T v)
{
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

inline void appendHex(std::string& out, uint64_t v)
{
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v, 16);
    for (char* c = buf; c != r.ptr; ++c)
        out.push_back(*c >= 'a' ? char(*c - 'a' + 'A') : *c);
}

inline bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

inline const char* skipSpace(const char* p)
{
    while (isSpace(*p))
        ++p;
    return p;
}

/**
 * Reads a double from the zero-terminated text at @p p, as scanf("%lf") would in the C
 * locale: leading white space, an optional sign, decimal or "inf"/"nan". Advances @p p
 * past it and returns true, or leaves @p p and returns false.
 */
inline bool parseDouble(const char*& p, double& out)
{
    const char* q = skipSpace(p);
    const char* end = q + std::strlen(q);
    bool negative = false;
    if (*q == '+' || *q == '-') {
        negative = *q == '-';
        ++q;
    }
    if (*q == '+' || *q == '-')
        return false;
    double v = 0;
    auto r = std::from_chars(q, end, v, std::chars_format::general);
    if (r.ec == std::errc::result_out_of_range) {
        // Saturate as strtod does: a negative exponent underflows to 0, anything else overflows.
        bool negativeExponent = false;
        for (const char* e = q; e < r.ptr; ++e) {
            if (*e == 'e' || *e == 'E')
                negativeExponent = e[1] == '-';
        }
        v = negativeExponent ? 0.0 : std::numeric_limits<double>::infinity();
    } else if (r.ec != std::errc()) {
        return false;
    }
    out = negative ? -v : v;
    p = r.ptr;
    return true;
}

/**
 * Reads an integer: leading white space, an optional sign, then decimal digits or "0x"
 * and hexadecimal digits. Values wrap modulo 2^64 (so 64-bit unsigned values read back
 * bit for bit). Advances @p p and returns true, or leaves it and returns false.
 */
inline bool parseInteger(const char*& p, uint64_t& out)
{
    const char* q = skipSpace(p);
    bool negative = false;
    if (*q == '+' || *q == '-') {
        negative = *q == '-';
        ++q;
    }
    uint64_t v = 0;
    const char* digits;
    if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X') && std::isxdigit(static_cast<unsigned char>(q[2]))) {
        q += 2;
        digits = q;
        while (std::isxdigit(static_cast<unsigned char>(*q))) {
            const char c = *q++;
            const unsigned d = c <= '9' ? unsigned(c - '0') : unsigned((c | 0x20) - 'a' + 10);
            v = v * 16 + d;
        }
    } else {
        digits = q;
        while (*q >= '0' && *q <= '9')
            v = v * 10 + unsigned(*q++ - '0');
    }
    if (q == digits)
        return false;
    out = negative ? uint64_t(0) - v : v;
    p = q;
    return true;
}

/** Rounds half away from zero. */
inline double roundHalfAway(double x)
{
    return x >= 0 ? std::floor(x + 0.5) : std::ceil(x - 0.5);
}

/** @p x rounded and saturated to the range of T (NaN gives 0). */
template <typename T> inline T saturate(double x)
{
    if (std::isnan(x))
        return 0;
    x = roundHalfAway(x);
    if (x <= double(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    if (x >= double(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return static_cast<T>(x);
}

inline int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace detail
} // namespace veltrax
