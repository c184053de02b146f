// SPDX-License-Identifier: MIT
//
// The byte form of a settings tree: marker, record count, one record per setting.
#include "settingsfile.h"

#include "valueformat_p.h"

namespace veltrax
{

using namespace detail;

namespace
{

// The '#' form is scrambled with a keyed, chained byte stream: each byte is XORed with a
// key byte and with the previous scrambled byte. It keeps casual eyes off the payload;
// it is no protection against anyone who has this source.
constexpr char ScrambleKey[] = "Veltrax/SettingsFile:scrambled-form:2f8c61d4";
constexpr size_t ScrambleKeyLength = sizeof(ScrambleKey) - 1;
constexpr uint8_t ScrambleSeed = 0xA7;

void scramble(char* data, size_t size)
{
    uint8_t previous = ScrambleSeed;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t c = uint8_t(data[i]) ^ uint8_t(ScrambleKey[i % ScrambleKeyLength]) ^ previous;
        data[i] = char(c);
        previous = c;
    }
}

void unscramble(const char* in, char* out, size_t size)
{
    uint8_t previous = ScrambleSeed;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t c = uint8_t(in[i]);
        out[i] = char(c ^ uint8_t(ScrambleKey[i % ScrambleKeyLength]) ^ previous);
        previous = c;
    }
}

bool hasLongZeroRun(const char* data, size_t size)
{
    size_t run = 0;
    for (size_t i = 0; i < size; ++i) {
        run = data[i] == 0 ? run + 1 : 0;
        if (run > 7)
            return true;
    }
    return false;
}

} // namespace

// Reads records from one form. Consecutive records usually share their subtree (the
// writer puts all settings of a node together), so the node of the last record's path is
// kept and reused when the next path is the same, saving the walk from the top.
struct SettingsFileByteReader {
    SettingsFileByteReader(SettingsFile& tree, const char* form, size_t size)
        : tree(tree)
        , form(form)
        , size(size)
    {
    }

    SettingsFile& tree;
    const char* form;
    size_t size;
    std::string cachedPath;
    SettingsFile* cachedNode = nullptr;
    std::string part;
    std::string key;

    size_t readRecord(size_t position)
    {
        if (size <= position + 1)
            throwOutOfRange();
        // The record mark at `position` is not checked.
        const char* name = form + position + 1;
        const char* end = form + size;
        const char* zero = static_cast<const char*>(std::memchr(name, 0, size_t(end - name)));
        if (!zero)
            throwOutOfRange();
        const size_t nameLength = size_t(zero - name);

        // The value is read before the name is looked up, so that a record whose payload
        // fails leaves no trace, not even the subtrees its name would have made.
        Variant value;
        const int consumed = value.deserialize(zero + 1, end);

        const char* lastDot = static_cast<const char*>(memrchr(name, '.', nameLength));
        SettingsFile* node = &tree;
        if (lastDot) {
            const size_t pathLength = size_t(lastDot - name);
            if (cachedNode && cachedPath.size() == pathLength && std::memcmp(cachedPath.data(), name, pathLength) == 0) {
                node = cachedNode;
            } else {
                for (const char* begin = name; begin < lastDot;) {
                    const char* stop = static_cast<const char*>(std::memchr(begin, '.', size_t(lastDot - begin)));
                    if (!stop)
                        stop = lastDot;
                    if (stop > begin) {
                        part.assign(begin, size_t(stop - begin));
                        node = node->childFor(part, true);
                    }
                    begin = stop + 1;
                }
                cachedPath.assign(name, pathLength);
                cachedNode = node;
            }
            key.assign(lastDot + 1, size_t(zero - lastDot - 1));
        } else {
            key.assign(name, nameLength);
        }
        // A name seen before (names that differ only in case) takes the new value.
        const auto [it, inserted] = node->m_settings.try_emplace(key, std::move(value));
        if (!inserted)
            it->second = std::move(value);
        node->setDirty(true);
        return nameLength + 2 + size_t(consumed);
    }
};

void SettingsFile::serialize(VxByteArray& out) const
{
    const size_t start = out.size();
    out.reserve(start + 5 + 200 * size());
    char* header = out.grow(5);
    header[0] = m_encrypted ? '#' : '*';
    std::string prefix;
    prefix.reserve(128);
    const uint32_t count = static_cast<uint32_t>(serializeNode(out, prefix));
    std::memcpy(out.data() + start + 1, &count, 4);
    if (m_encrypted && out.size() - start > 1)
        scramble(out.data() + start + 1, out.size() - start - 1);
}

size_t SettingsFile::serializeSubTree(VxByteArray& out, const std::string& prefix) const
{
    std::string p = prefix;
    return serializeNode(out, p);
}

size_t SettingsFile::serializeNode(VxByteArray& out, std::string& prefix) const
{
    for (const auto& setting : m_settings) {
        const size_t nameLength = prefix.size() + setting.first.size();
        char* p = out.grow(nameLength + 2);
        *p++ = 'W';
        std::memcpy(p, prefix.data(), prefix.size());
        std::memcpy(p + prefix.size(), setting.first.data(), setting.first.size());
        p[nameLength] = 0;
        setting.second.serialize(out);
    }
    size_t count = m_settings.size();
    const size_t length = prefix.size();
    for (const auto& entry : m_subTrees) {
        prefix.append(entry.first);
        prefix.push_back('.');
        count += entry.second->serializeNode(out, prefix);
        prefix.resize(length);
    }
    return count;
}

void SettingsFile::serializeSetting(const std::pair<const std::string, Variant>& setting, VxByteArray& out, const std::string& prefix) const
{
    out.append('W');
    out.append(prefix.data(), prefix.size());
    out.append(setting.first.data(), setting.first.size());
    out.append('\0');
    setting.second.serialize(out);
}

int SettingsFile::deserialize(const VxByteArray& in, int offset)
{
    if (offset < 0)
        throwOutOfRange();
    if (in.size() < size_t(offset) || in.size() - size_t(offset) < 5)
        throw VxException(VXRV_INSUFFICIENTDATA, "Not enough data to deserialize SettingsFile");
    const char* form = in.data() + offset;
    const size_t size = in.size() - size_t(offset);

    std::string plain;
    if (form[0] == '#') {
        m_encrypted = true;
        if (hasLongZeroRun(form + 1, size - 1))
            throw VxException(VXRV_DATAOVERFLOW, "Unacceptably long stretch of empty elements");
        plain.resize(size);
        plain[0] = form[0];
        unscramble(form + 1, &plain[1], size - 1);
        form = plain.data();
    } else {
        m_encrypted = false;
    }

    const uint32_t count = load<uint32_t>(form + 1);
    if (count > 20 && size < 7 * uint64_t(count))
        throw VxException(VXRV_DATAOVERFLOW, "Number of reported settings in file exceeds sensible boundaries");

    clear(std::string());
    // Room for every record in this node: right for the common flat tree, and cheap
    // (buckets only) when the records go to subtrees instead.
    if (m_settings.empty())
        m_settings.reserve(count);
    SettingsFileByteReader reader(*this, form, size);
    size_t position = 5;
    for (uint32_t i = 0; i < count; ++i)
        position += reader.readRecord(position);
    setDirty(false);
    return static_cast<int>(position);
}

int SettingsFile::deserializeSetting(const VxByteArray& in, int position)
{
    if (position < 0)
        throwOutOfRange();
    SettingsFileByteReader reader(*this, in.data(), in.size());
    return static_cast<int>(reader.readRecord(size_t(position)));
}

} // namespace veltrax
