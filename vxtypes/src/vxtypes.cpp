// SPDX-License-Identifier: MIT
#include "vxtypes.h"

#include <chrono>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <new>
#include <thread>

VxTimeStamp VxTimeStamp_now()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

VxTimeStamp VxTime_timeStampNow()
{
    return VxTimeStamp_now();
}

void VxTime_msleep(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::string VxTime_toLocalText(VxTimeStamp ts)
{
    const time_t seconds = static_cast<time_t>(ts / 1000);
    struct tm local {
    };
    localtime_r(&seconds, &local);
    char text[64];
    const size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(text + n, sizeof text - n, ".%03d", static_cast<int>(ts % 1000 < 0 ? ts % 1000 + 1000 : ts % 1000));
    return text;
}

// ---- VxString ---------------------------------------------------------------------------

VxString::VxString(const char* text)
    : m_text(text ? text : "")
{
}

VxString::VxString(const char* text, size_t length)
    : m_text(text ? std::string(text, length) : std::string())
{
}

VxString::VxString(const std::string& text)
    : m_text(text)
{
}

VxString::VxString(std::string&& text) noexcept
    : m_text(std::move(text))
{
}

VxString& VxString::operator+=(const VxString& other)
{
    m_text += other.m_text;
    return *this;
}

VxString operator+(const VxString& a, const VxString& b)
{
    return VxString(a.m_text + b.m_text);
}

// ---- VxByteArray ------------------------------------------------------------------------

VxByteArray::VxByteArray(const void* data, size_t size)
{
    append(data, size);
}

VxByteArray::VxByteArray(const std::string& bytes)
    : VxByteArray(bytes.data(), bytes.size())
{
}

VxByteArray::VxByteArray(const VxByteArray& other)
{
    append(other.m_data, other.m_size);
}

VxByteArray::VxByteArray(VxByteArray&& other) noexcept
    : m_data(other.m_data)
    , m_size(other.m_size)
    , m_capacity(other.m_capacity)
    , m_view(other.m_view)
{
    other.m_data = nullptr;
    other.m_size = other.m_capacity = 0;
    other.m_view = false;
}

VxByteArray& VxByteArray::operator=(const VxByteArray& other)
{
    if (this != &other) {
        clear();
        append(other.m_data, other.m_size);
    }
    return *this;
}

VxByteArray& VxByteArray::operator=(VxByteArray&& other) noexcept
{
    if (this != &other) {
        if (!m_view)
            std::free(m_data);
        m_data = other.m_data;
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        m_view = other.m_view;
        other.m_data = nullptr;
        other.m_size = other.m_capacity = 0;
        other.m_view = false;
    }
    return *this;
}

VxByteArray::~VxByteArray()
{
    if (!m_view)
        std::free(m_data);
}

VxByteArray VxByteArray::view(const void* data, size_t size)
{
    VxByteArray result;
    result.m_data = const_cast<char*>(static_cast<const char*>(data));
    result.m_size = data ? size : 0;
    result.m_capacity = result.m_size;
    result.m_view = true;
    return result;
}

void VxByteArray::detach(size_t minCapacity)
{
    if (!m_view && minCapacity <= m_capacity)
        return;
    size_t capacity = m_view ? m_size : m_capacity;
    if (capacity < 16)
        capacity = 16;
    while (capacity < minCapacity)
        capacity = capacity > SIZE_MAX / 2 ? minCapacity : capacity * 2;
    reallocate(capacity);
}

void VxByteArray::reallocate(size_t capacity)
{
    // A view's bytes belong to somebody else: copied, never realloc'd.
    char* fresh = static_cast<char*>(m_view ? std::malloc(capacity ? capacity : 1) : std::realloc(m_data, capacity ? capacity : 1));
    if (!fresh)
        throw std::bad_alloc();
    if (m_view && m_size)
        std::memcpy(fresh, m_data, m_size);
    m_data = fresh;
    m_capacity = capacity;
    m_view = false;
}

char* VxByteArray::data()
{
    if (m_view)
        detach(m_size);
    return m_data;
}

char& VxByteArray::operator[](size_t index)
{
    return data()[index];
}

void VxByteArray::reserve(size_t capacity)
{
    if (m_view || capacity > m_capacity) {
        if (capacity < m_size)
            capacity = m_size;
        // reserve() asks for an exact size; growth by doubling is append's business.
        reallocate(capacity);
    }
}

void VxByteArray::resize(size_t size)
{
    if (size > m_size) {
        detach(size);
        std::memset(m_data + m_size, 0, size - m_size);
    } else if (m_view) {
        detach(size);
    }
    m_size = size;
}

void VxByteArray::clear()
{
    if (m_view) {
        m_data = nullptr;
        m_capacity = 0;
        m_view = false;
    }
    m_size = 0;
}

void VxByteArray::append(const void* data, size_t size)
{
    if (!size || !data)
        return;
    if (size > SIZE_MAX - m_size)
        throw std::bad_alloc();
    // The source may lie inside our own buffer, which detach() may move.
    const char* src = static_cast<const char*>(data);
    if (m_data && src >= m_data && src < m_data + m_size) {
        const size_t offset = static_cast<size_t>(src - m_data);
        detach(m_size + size);
        std::memmove(m_data + m_size, m_data + offset, size);
    } else {
        detach(m_size + size);
        std::memcpy(m_data + m_size, src, size);
    }
    m_size += size;
}

void VxByteArray::append(const VxByteArray& other)
{
    append(other.m_data, other.m_size);
}

char* VxByteArray::growSlowly(size_t count)
{
    if (count > SIZE_MAX - m_size)
        throw std::bad_alloc();
    detach(m_size + count);
    char* first = m_data + m_size;
    m_size += count;
    return first;
}

void VxByteArray::append(char byte)
{
    detach(m_size + 1);
    m_data[m_size++] = byte;
}

bool VxByteArray::operator==(const VxByteArray& other) const
{
    return m_size == other.m_size && (m_size == 0 || std::memcmp(m_data, other.m_data, m_size) == 0);
}

// ---- VxVersion --------------------------------------------------------------------------

VxVersion::VxVersion(int major, int minor, int revision, int build, int reposVersion, const VxString& extra)
    : m_major(major)
    , m_minor(minor)
    , m_revision(revision)
    , m_build(build)
    , m_reposVersion(reposVersion)
    , m_extra(extra)
{
}

VxVersion VxVersion::fromString(const VxString& text)
{
    int parts[3] = {0, 0, 0};
    const std::string& s = text.toStdString();
    size_t pos = 0;
    for (int i = 0; i < 3; ++i) {
        if (i > 0) {
            if (pos >= s.size() || s[pos] != '.')
                return VxVersion();
            ++pos;
        }
        const size_t start = pos;
        long long value = 0;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
            value = value * 10 + (s[pos] - '0');
            if (value > INT_MAX)
                return VxVersion();
            ++pos;
        }
        if (pos == start)
            return VxVersion();
        parts[i] = static_cast<int>(value);
    }
    if (pos != s.size())
        return VxVersion();
    return VxVersion(parts[0], parts[1], parts[2]);
}

VxString VxVersion::toString() const
{
    return VxString(std::to_string(m_major) + '.' + std::to_string(m_minor) + '.' + std::to_string(m_revision));
}

bool VxVersion::operator==(const VxVersion& other) const
{
    return m_major == other.m_major && m_minor == other.m_minor && m_revision == other.m_revision && m_build == other.m_build
        && m_reposVersion == other.m_reposVersion && m_extra == other.m_extra;
}

// ---- VxDeviceId -------------------------------------------------------------------------

namespace
{
constexpr uint64_t legacyDetailedMask = 0xFFF00000ull;
constexpr uint64_t legacyClassMask = 0xFF000000ull;
constexpr uint64_t modernDetailedMask = 0xFFFFFFFF00000000ull;
constexpr uint64_t modernProductMask = 0xFFFF000000000000ull;

std::string hex(uint64_t value, int digits)
{
    char text[24];
    snprintf(text, sizeof text, "%0*" PRIX64, digits, value);
    return text;
}
}

VxString VxDeviceId::toString() const
{
    return VxString(hex(m_value, isLegacyDeviceId() ? 8 : 16));
}

VxDeviceId VxDeviceId::deviceTypeMask(bool detailed) const
{
    if (isLegacyDeviceId())
        return VxDeviceId(detailed ? legacyDetailedMask : legacyClassMask);
    return VxDeviceId(detailed ? modernDetailedMask : modernProductMask);
}

VxDeviceId VxDeviceId::deviceType(bool detailed) const
{
    return VxDeviceId(m_value & deviceTypeMask(detailed).m_value);
}

VxString VxDeviceId::toDeviceTypeString(bool detailed) const
{
    const VxDeviceId type = deviceType(detailed);
    return VxString(std::string(isLegacyDeviceId() ? "L-" : "M-") + hex(type.m_value, isLegacyDeviceId() ? 8 : 16));
}

// ---- Results and exceptions -------------------------------------------------------------

const char* VxResultValue_toString(VxResultValue value)
{
    switch (value) {
    case VXRV_OK:
        return "VXRV_OK";
    case VXRV_ERROR:
        return "VXRV_ERROR";
    case VXRV_INVALIDPARAM:
        return "VXRV_INVALIDPARAM";
    case VXRV_INVALIDOPERATION:
        return "VXRV_INVALIDOPERATION";
    case VXRV_NOTIMPLEMENTED:
        return "VXRV_NOTIMPLEMENTED";
    case VXRV_INSUFFICIENTDATA:
        return "VXRV_INSUFFICIENTDATA";
    case VXRV_OUTOFMEMORY:
        return "VXRV_OUTOFMEMORY";
    case VXRV_NOTFOUND:
        return "VXRV_NOTFOUND";
    case VXRV_BADTYPE:
        return "VXRV_BADTYPE";
    case VXRV_DATAOVERFLOW:
        return "VXRV_DATAOVERFLOW";
    }
    return "VXRV_UNKNOWN";
}

VxException::VxException(VxResultValue result, const VxString& text)
    : m_result(result)
    , m_text(text)
{
}

const char* VxException::what() const noexcept
{
    return m_text.c_str();
}

// ---- VxFile -----------------------------------------------------------------------------

VxFile::VxFile(VxFile&& other) noexcept
    : m_file(other.m_file)
    , m_name(std::move(other.m_name))
{
    other.m_file = nullptr;
}

VxFile& VxFile::operator=(VxFile&& other) noexcept
{
    if (this != &other) {
        close();
        m_file = other.m_file;
        m_name = std::move(other.m_name);
        other.m_file = nullptr;
    }
    return *this;
}

VxFile::~VxFile()
{
    close();
}

bool VxFile::write(const char* data, size_t size)
{
    if (!m_file)
        return false;
    return size == 0 || fwrite(data, 1, size, m_file) == size;
}

bool VxFile::flush()
{
    return m_file && fflush(m_file) == 0;
}

void VxFile::close()
{
    if (m_file) {
        fclose(m_file);
        m_file = nullptr;
    }
}

// A log writes many short lines; a larger stdio buffer means fewer write calls.
static void useLargeBuffer(FILE* file)
{
    if (file)
        setvbuf(file, nullptr, _IOFBF, 64 * 1024);
}

VxFile VxFile_openText(const VxString& name)
{
    VxFile file;
    file.m_name = name;
    // "r+" refuses to create the file and never truncates; we then write at the end.
    file.m_file = fopen(name.c_str(), "r+");
    if (file.m_file && fseek(file.m_file, 0, SEEK_END) != 0)
        file.close();
    useLargeBuffer(file.m_file);
    return file;
}

VxFile VxFile_createText(const VxString& name)
{
    VxFile file;
    file.m_name = name;
    file.m_file = fopen(name.c_str(), "w");
    useLargeBuffer(file.m_file);
    return file;
}

// ---- VxLibraryLoader --------------------------------------------------------------------

bool VxLibraryLoader_load(VxLibraryLoader* loader, const VxString& name)
{
    if (!loader || name.empty())
        return false;
    VxLibraryLoader_unload(loader);
    if (name.toStdString().find('/') == std::string::npos) {
        if (const char* path = std::getenv("VX_LIBRARY_PATH")) {
            std::string dirs(path);
            size_t start = 0;
            while (start <= dirs.size() && !loader->handle) {
                size_t end = dirs.find(':', start);
                if (end == std::string::npos)
                    end = dirs.size();
                if (end > start) {
                    const std::string candidate = dirs.substr(start, end - start) + '/' + name.toStdString();
                    loader->handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
                }
                start = end + 1;
            }
        }
    }
    if (!loader->handle)
        loader->handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    return loader->handle != nullptr;
}

bool VxLibraryLoader_isLoaded(const VxLibraryLoader* loader)
{
    return loader && loader->handle;
}

void* VxLibraryLoader_resolve(VxLibraryLoader* loader, const char* symbol)
{
    if (!loader || !loader->handle || !symbol)
        return nullptr;
    return dlsym(loader->handle, symbol);
}

void VxLibraryLoader_unload(VxLibraryLoader* loader)
{
    if (loader && loader->handle) {
        dlclose(loader->handle);
        loader->handle = nullptr;
    }
}
