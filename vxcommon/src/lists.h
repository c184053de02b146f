// SPDX-License-Identifier: MIT
//
// The container values a Variant can hold besides the math types: a growable list of
// plain values, integer lists, fixed-size labels and label lists, and counted blocks of
// bytes. Each has a byte form (the payload of its kind in a settings tree's byte form)
// and a readable one-line text form.
//
// Byte forms are read with the bounded readers deserialize(data, end): they never look at
// a byte at or beyond `end` and throw std::out_of_range("index out of range") when the
// payload runs past it. There is deliberately no reader that takes a bare pointer.
#pragma once

#include "vxcommon_export.h"
#include "vxtypes.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace veltrax
{

/**
 * A list of plain values in one block with a capacity and a count, grown with realloc.
 * T must be trivially copyable (the block is moved bytewise). Allocation failure throws
 * std::bad_alloc. New elements made by resize() are zero bytes.
 */
template <typename T> class List
{
    static_assert(std::is_trivially_copyable<T>::value, "List holds trivially copyable values only");

public:
    List() = default;
    explicit List(size_t count) { resize(count); }
    List(std::initializer_list<T> values)
    {
        reserve(values.size());
        for (const T& v : values)
            append(v);
    }
    List(const T* values, size_t count)
    {
        reserve(count);
        if (count)
            std::memcpy(m_data, values, count * sizeof(T));
        m_count = count;
    }
    List(const List& other)
        : List(other.m_data, other.m_count)
    {
    }
    List(List&& other) noexcept
        : m_data(other.m_data)
        , m_count(other.m_count)
        , m_capacity(other.m_capacity)
    {
        other.m_data = nullptr;
        other.m_count = other.m_capacity = 0;
    }
    List& operator=(const List& other)
    {
        if (this != &other) {
            m_count = 0;
            reserve(other.m_count);
            if (other.m_count)
                std::memcpy(m_data, other.m_data, other.m_count * sizeof(T));
            m_count = other.m_count;
        }
        return *this;
    }
    List& operator=(List&& other) noexcept
    {
        if (this != &other) {
            std::free(m_data);
            m_data = other.m_data;
            m_count = other.m_count;
            m_capacity = other.m_capacity;
            other.m_data = nullptr;
            other.m_count = other.m_capacity = 0;
        }
        return *this;
    }
    ~List() { std::free(m_data); }

    size_t size() const { return m_count; }
    size_t count() const { return m_count; }
    bool empty() const { return m_count == 0; }
    size_t capacity() const { return m_capacity; }
    T* data() { return m_data; }
    const T* data() const { return m_data; }
    T* begin() { return m_data; }
    T* end() { return m_data + m_count; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_count; }
    T& operator[](size_t i) { return m_data[i]; }
    const T& operator[](size_t i) const { return m_data[i]; }
    T& at(size_t i)
    {
        if (i >= m_count)
            throw std::out_of_range("index out of range");
        return m_data[i];
    }
    const T& at(size_t i) const { return const_cast<List*>(this)->at(i); }

    /** Makes room for @p capacity elements; never shrinks. */
    void reserve(size_t capacity)
    {
        if (capacity <= m_capacity)
            return;
        if (capacity > SIZE_MAX / sizeof(T))
            throw std::bad_alloc();
        void* fresh = std::realloc(m_data, capacity * sizeof(T));
        if (!fresh)
            throw std::bad_alloc();
        m_data = static_cast<T*>(fresh);
        m_capacity = capacity;
    }
    /** Sets the count; elements beyond the old count are zero bytes. */
    void resize(size_t count)
    {
        if (count > m_capacity)
            reserve(count);
        if (count > m_count)
            std::memset(static_cast<void*>(m_data + m_count), 0, (count - m_count) * sizeof(T));
        m_count = count;
    }
    /** Empties the list; the block is kept. */
    void clear() { m_count = 0; }
    void append(const T& value)
    {
        if (m_count == m_capacity) {
            // The value may live inside our own block, which reserve() may move.
            const T copy = value;
            reserve(m_capacity ? m_capacity * 2 : 16);
            m_data[m_count++] = copy;
            return;
        }
        m_data[m_count++] = value;
    }
    void push_back(const T& value) { append(value); }

    bool operator==(const List& other) const
    {
        if (m_count != other.m_count)
            return false;
        for (size_t i = 0; i < m_count; ++i) {
            if (!(m_data[i] == other.m_data[i]))
                return false;
        }
        return true;
    }
    bool operator!=(const List& other) const { return !(*this == other); }

private:
    T* m_data = nullptr;
    size_t m_count = 0;
    size_t m_capacity = 0;
};

/** A fixed 256-byte text slot: at most 255 characters and a terminating zero. */
struct VXCOMMON_EXPORT Label {
    static constexpr size_t MaxLength = 255;

    Label() { text[0] = 0; }
    /** Copies @p s, cut to its first 255 characters. */
    Label(const char* s) { assign(s, s ? std::strlen(s) : 0); }
    Label(const std::string& s) { assign(s.data(), s.size()); }
    Label(const VxString& s) { assign(s.c_str(), s.size()); }
    void assign(const char* s, size_t length);

    const char* c_str() const { return text; }
    size_t length() const { return strnlen(text, sizeof text); }
    bool empty() const { return text[0] == 0; }
    std::string toStdString() const { return std::string(text, length()); }
    bool operator==(const Label& other) const { return std::strcmp(text, other.text) == 0; }
    bool operator!=(const Label& other) const { return !(*this == other); }

    char text[MaxLength + 1];
};

/** A list of unsigned 32-bit integers. */
class VXCOMMON_EXPORT IntList : public List<uint32_t>
{
public:
    using List<uint32_t>::List;
    IntList() = default;
    IntList(const List<uint32_t>& other)
        : List<uint32_t>(other)
    {
    }
    /** The integers of @p array, as unsigned 32-bit values. */
    explicit IntList(const VxIntArray& array);
    VxIntArray toVxIntArray() const;

    /** Byte form: unsigned 32-bit count n, then n unsigned 32-bit values. Null buffer: length only. */
    int serialize(char* buffer) const;
    /** Reads the byte form from [data, end); returns the bytes consumed. */
    int deserialize(const char* data, const char* end);
    /** Text form: "[1,2,3]", decimal. */
    void writeToString(std::string& out) const;
    std::string toString() const;
    /**
     * Reads the text form: an optional '[', integers (decimal, or hexadecimal after "0x",
     * with an optional sign) separated by commas or white space, an optional ']'. Stops at
     * the first character that does not fit; returns the characters consumed.
     */
    int readFromString(const char* text);
};

/** A list of labels. */
class VXCOMMON_EXPORT LabelList : public List<Label>
{
public:
    using List<Label>::List;
    LabelList() = default;
    LabelList(const List<Label>& other)
        : List<Label>(other)
    {
    }
    explicit LabelList(const VxStringArray& array);
    VxStringArray toVxStringArray() const;
    /** True when some label equals @p label without regard to case. */
    bool contains(const std::string& label) const;

    /**
     * Byte form: unsigned 32-bit count n; when n > 0 the labels joined by single spaces
     * and ended by one zero byte. Null buffer: length only.
     */
    int serialize(char* buffer) const;
    /**
     * Reads the byte form from [data, end). The text is split at runs of white space into
     * at most n labels (longer words are cut into 255-character pieces) and the count is
     * set to n. A text too short for n labels (fewer than 2n - 1 characters) leaves the
     * list empty and is consumed without its terminator: older writers rely on this.
     */
    int deserialize(const char* data, const char* end);
    /** Text form: ["one","two"], with \" \\ \n \r \t escaped inside the quotes. */
    void writeToString(std::string& out) const;
    std::string toString() const;
    /** Reads the text form; returns the characters consumed. */
    int readFromString(const char* text);
};

/** A counted block of bytes, owned and copied by value. */
class VXCOMMON_EXPORT BinaryObject
{
public:
    BinaryObject() = default;
    BinaryObject(const void* data, uint32_t size);
    explicit BinaryObject(const std::string& bytes);
    BinaryObject(const BinaryObject& other);
    BinaryObject(BinaryObject&& other) noexcept;
    BinaryObject& operator=(const BinaryObject& other);
    BinaryObject& operator=(BinaryObject&& other) noexcept;
    ~BinaryObject();

    uint32_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    /** The bytes, or null when the size is 0. */
    const uint8_t* data() const { return m_data; }
    uint8_t* data() { return m_data; }
    /** Replaces the bytes with a copy of @p size bytes at @p data. */
    void assign(const void* data, uint32_t size);
    /** Resizes, keeping the first bytes; new bytes are zero. */
    void resize(uint32_t size);
    void clear();
    std::string toStdString() const { return std::string(reinterpret_cast<const char*>(m_data), m_size); }

    bool operator==(const BinaryObject& other) const;
    bool operator!=(const BinaryObject& other) const { return !(*this == other); }

    /** Byte form: unsigned 32-bit byte count s, then the s bytes. Null buffer: length only. */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    /** Text form: the bytes as upper-case hexadecimal digits, two per byte. */
    void writeToString(std::string& out) const;
    std::string toString() const;
    /** Reads hexadecimal digit pairs until the first character that is not one. */
    int readFromString(const char* text);

private:
    uint8_t* m_data = nullptr;
    uint32_t m_size = 0;
};

} // namespace veltrax
