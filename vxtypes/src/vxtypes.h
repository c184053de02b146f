// SPDX-License-Identifier: MIT
//
// The suite's types library, as far as this library uses it: clock and sleep, strings,
// byte arrays (owning or viewing), arrays, versions, device identifiers, result values
// and exceptions, text files for the journal and run-time library loading.
#pragma once

#include "vxtypes_export.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <string>
#include <vector>

/** Milliseconds since 1970-01-01 00:00:00 UTC. */
using VxTimeStamp = int64_t;

/** Wall-clock time in milliseconds since the epoch. */
VXTYPES_EXPORT VxTimeStamp VxTimeStamp_now();
/** Same clock as VxTimeStamp_now(); both names are in use across the suite. */
VXTYPES_EXPORT VxTimeStamp VxTime_timeStampNow();
/** Sleeps the calling thread for at least @p ms milliseconds. */
VXTYPES_EXPORT void VxTime_msleep(uint32_t ms);
/** Local date and time of @p ts as "YYYY-MM-DD hh:mm:ss.zzz". */
VXTYPES_EXPORT std::string VxTime_toLocalText(VxTimeStamp ts);

/** UTF-8 text. Converts implicitly from C strings and std::string. */
class VXTYPES_EXPORT VxString
{
public:
    VxString() = default;
    VxString(const char* text);
    VxString(const char* text, size_t length);
    VxString(const std::string& text);
    VxString(std::string&& text) noexcept;

    const char* c_str() const { return m_text.c_str(); }
    size_t size() const { return m_text.size(); }
    size_t length() const { return m_text.size(); }
    bool empty() const { return m_text.empty(); }
    const std::string& toStdString() const { return m_text; }
    std::string& str() { return m_text; }
    operator const std::string&() const { return m_text; }

    VxString& operator+=(const VxString& other);
    friend VxString operator+(const VxString& a, const VxString& b);
    bool operator==(const VxString& other) const { return m_text == other.m_text; }
    bool operator!=(const VxString& other) const { return m_text != other.m_text; }
    bool operator<(const VxString& other) const { return m_text < other.m_text; }

private:
    std::string m_text;
};

/**
 * A run of bytes. Normally it owns a copy of its bytes; view() makes one that only
 * points at bytes owned elsewhere (no copy, never freed, must not outlive them).
 * Appending to or reserving in a view first copies the viewed bytes into owned storage.
 * Capacity grows by doubling, so repeated appends are amortised linear.
 */
class VXTYPES_EXPORT VxByteArray
{
public:
    VxByteArray() = default;
    VxByteArray(const void* data, size_t size);
    explicit VxByteArray(const std::string& bytes);
    VxByteArray(const VxByteArray& other);
    VxByteArray(VxByteArray&& other) noexcept;
    VxByteArray& operator=(const VxByteArray& other);
    VxByteArray& operator=(VxByteArray&& other) noexcept;
    ~VxByteArray();

    /** A non-owning array over @p size bytes at @p data. */
    static VxByteArray view(const void* data, size_t size);

    const char* data() const { return m_data; }
    char* data();
    size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    size_t capacity() const { return m_capacity; }
    bool isView() const { return m_view; }
    void reserve(size_t capacity);
    /** Changes the size; new bytes are zero. */
    void resize(size_t size);
    void clear();
    void append(const void* data, size_t size);
    void append(const VxByteArray& other);
    void append(char byte);
    /**
     * Grows the array by @p count bytes left uninitialised and returns a pointer to the
     * first of them, for writers that fill them in place (growth by doubling, as append).
     */
    char* grow(size_t count)
    {
        // Inline fast path: writers call this once or twice per record.
        if (!m_view && count <= m_capacity - m_size) {
            char* first = m_data + m_size;
            m_size += count;
            return first;
        }
        return growSlowly(count);
    }
    char operator[](size_t index) const { return m_data[index]; }
    char& operator[](size_t index);
    std::string toStdString() const { return std::string(m_data ? m_data : "", m_size); }
    bool operator==(const VxByteArray& other) const;
    bool operator!=(const VxByteArray& other) const { return !(*this == other); }

private:
    void detach(size_t minCapacity);
    void reallocate(size_t capacity);
    char* growSlowly(size_t count);

    char* m_data = nullptr;
    size_t m_size = 0;
    size_t m_capacity = 0;
    bool m_view = false;
};

/** A growable array; a std::vector with the suite's spelling of a few members. */
template <typename T> class VxArray : public std::vector<T>
{
public:
    using std::vector<T>::vector;
    VxArray() = default;
    VxArray(const std::vector<T>& v)
        : std::vector<T>(v)
    {
    }
    void append(const T& value) { this->push_back(value); }
    size_t count() const { return this->size(); }
    bool isEmpty() const { return this->empty(); }
};
using VxIntArray = VxArray<int>;
using VxStringArray = VxArray<VxString>;

/** major.minor.revision, a build number, a repository version and an extra text. */
class VXTYPES_EXPORT VxVersion
{
public:
    VxVersion() = default;
    VxVersion(int major, int minor, int revision, int build = 0, int reposVersion = 0, const VxString& extra = VxString());

    int major() const { return m_major; }
    int minor() const { return m_minor; }
    int revision() const { return m_revision; }
    int build() const { return m_build; }
    int reposVersion() const { return m_reposVersion; }
    const VxString& extra() const { return m_extra; }

    /**
     * Reads "major.minor.revision" (three decimal numbers separated by dots, nothing
     * else around them). Any other text, or a number beyond 32 bits, gives 0.0.0.
     */
    static VxVersion fromString(const VxString& text);
    /** "major.minor.revision". */
    VxString toString() const;

    bool operator==(const VxVersion& other) const;
    bool operator!=(const VxVersion& other) const { return !(*this == other); }

private:
    int m_major = 0;
    int m_minor = 0;
    int m_revision = 0;
    int m_build = 0;
    int m_reposVersion = 0;
    VxString m_extra;
};

/**
 * A device identifier.
 *
 * Legacy identifiers fit in 32 bits: the top 8 bits are the device class, the next 4 the
 * product family within it, the low 20 bits the serial number. Their text is 8 upper-case
 * hexadecimal digits ("0330A1B2").
 *
 * Modern identifiers use all 64 bits: bits 48-63 are the product code, bits 32-47 the
 * variant, the low 32 bits the serial number. Their text is 16 hexadecimal digits. Any
 * value above 0xFFFFFFFF is modern.
 *
 * The "device type" keeps only the type bits (class, or class and family for legacy;
 * product, or product and variant for modern); the "device type mask" is the mask of those
 * bits as an identifier of its own.
 */
class VXTYPES_EXPORT VxDeviceId
{
public:
    VxDeviceId() = default;
    explicit VxDeviceId(uint64_t value)
        : m_value(value)
    {
    }
    uint64_t toInt() const { return m_value; }
    bool isLegacyDeviceId() const { return m_value <= 0xFFFFFFFFull; }
    /** The identifier as hexadecimal text (8 digits legacy, 16 modern). */
    VxString toString() const;
    /** The identifier with only its type bits; @p detailed keeps family/variant too. */
    VxDeviceId deviceType(bool detailed = true) const;
    /** The mask of the type bits as an identifier. */
    VxDeviceId deviceTypeMask(bool detailed = true) const;
    /** Text of the device type: "L-" and 8 digits for legacy, "M-" and 16 for modern. */
    VxString toDeviceTypeString(bool detailed = true) const;
    bool operator==(const VxDeviceId& other) const { return m_value == other.m_value; }
    bool operator!=(const VxDeviceId& other) const { return m_value != other.m_value; }

private:
    uint64_t m_value = 0;
};

/** Result codes carried by VxException. The numbers are part of the suite's ABI. */
enum VxResultValue : int {
    VXRV_OK = 0,
    VXRV_ERROR = 1,
    VXRV_INVALIDPARAM = 33,
    VXRV_INVALIDOPERATION = 34,
    VXRV_NOTIMPLEMENTED = 40,
    VXRV_INSUFFICIENTDATA = 41,
    VXRV_OUTOFMEMORY = 42,
    VXRV_NOTFOUND = 262,
    VXRV_BADTYPE = 270,
    VXRV_DATAOVERFLOW = 278,
};

/** Name of a result value ("VXRV_NOTFOUND"), or "VXRV_UNKNOWN". */
VXTYPES_EXPORT const char* VxResultValue_toString(VxResultValue value);

/** The support library's exception: a result value and a fixed text. */
class VXTYPES_EXPORT VxException : public std::exception
{
public:
    VxException(VxResultValue result, const VxString& text);
    VxResultValue resultValue() const noexcept { return m_result; }
    const VxString& text() const noexcept { return m_text; }
    const char* what() const noexcept override;

private:
    VxResultValue m_result;
    VxString m_text;
};

/** A text file, written only (the journal's file). Closes itself when destroyed. */
class VXTYPES_EXPORT VxFile
{
public:
    VxFile() = default;
    VxFile(const VxFile&) = delete;
    VxFile& operator=(const VxFile&) = delete;
    VxFile(VxFile&& other) noexcept;
    VxFile& operator=(VxFile&& other) noexcept;
    ~VxFile();

    bool isOpen() const { return m_file != nullptr; }
    const VxString& name() const { return m_name; }
    /** Writes all bytes; false when the file is closed or the write failed. */
    bool write(const char* data, size_t size);
    bool write(const std::string& text) { return write(text.data(), text.size()); }
    bool flush();
    void close();

private:
    friend VXTYPES_EXPORT VxFile VxFile_openText(const VxString&);
    friend VXTYPES_EXPORT VxFile VxFile_createText(const VxString&);
    FILE* m_file = nullptr;
    VxString m_name;
};

/** Opens an existing text file for writing at its end (never truncates); closed on failure. */
VXTYPES_EXPORT VxFile VxFile_openText(const VxString& name);
/** Creates a text file, or empties an existing one, for writing; closed on failure. */
VXTYPES_EXPORT VxFile VxFile_createText(const VxString& name);

/**
 * Run-time library loading (dlopen). VxLibraryLoader_load first tries every directory of
 * the colon-separated environment variable VX_LIBRARY_PATH, then the system's own search
 * (LD_LIBRARY_PATH, the loader cache), so tests and packagers can put a library first.
 */
struct VxLibraryLoader {
    void* handle = nullptr;
};
VXTYPES_EXPORT bool VxLibraryLoader_load(VxLibraryLoader* loader, const VxString& name);
VXTYPES_EXPORT bool VxLibraryLoader_isLoaded(const VxLibraryLoader* loader);
VXTYPES_EXPORT void* VxLibraryLoader_resolve(VxLibraryLoader* loader, const char* symbol);
VXTYPES_EXPORT void VxLibraryLoader_unload(VxLibraryLoader* loader);
