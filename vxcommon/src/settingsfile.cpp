// SPDX-License-Identifier: MIT
//
// The settings tree itself: paths, single settings, structure and bulk operations.
// The byte, text and JSON forms live in settingsfile{byteform,textform,json}.cpp.
#include "settingsfile.h"

#include "journaller.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

namespace veltrax
{

namespace
{
inline unsigned char lower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? c | 0x20 : c;
}
} // namespace

namespace
{
// ASCII upper-case letters of eight bytes at once turned into lower case; other bytes,
// including those of multi-byte UTF-8 sequences, stay as they are.
inline uint64_t lower8(uint64_t x)
{
    constexpr uint64_t ones = 0x0101010101010101ull;
    constexpr uint64_t highBits = 0x8080808080808080ull;
    const uint64_t seven = x & ~highBits;
    const uint64_t atLeastA = seven + (0x80 - 'A') * ones;
    const uint64_t aboveZ = seven + (0x80 - 'Z' - 1) * ones;
    const uint64_t upper = atLeastA & ~aboveZ & ~x & highBits;
    return x | (upper >> 2);
}

inline uint64_t mix(uint64_t h, uint64_t word)
{
    h ^= word;
    h *= 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
}
} // namespace

size_t CaseInsensitiveHash::operator()(const std::string& key) const
{
    // The same value as hashing a lower-cased copy, without making the copy; eight bytes
    // per step because this runs once per record when a byte form is read.
    const char* p = key.data();
    size_t n = key.size();
    uint64_t h = 0x243F6A8885A308D3ull ^ n;
    for (; n >= 8; n -= 8, p += 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
        h = mix(h, lower8(word));
    }
    if (n) {
        uint64_t word = 0;
        for (size_t i = 0; i < n; ++i)
            word |= uint64_t(static_cast<unsigned char>(p[i])) << (8 * i);
        h = mix(h, lower8(word));
    }
    return size_t(h ^ (h >> 32));
}

bool CaseInsensitiveEqual::operator()(const std::string& a, const std::string& b) const noexcept
{
    if (a.size() != b.size())
        return false;
    if (std::memcmp(a.data(), b.data(), a.size()) == 0)
        return true;
    for (size_t i = 0; i < a.size(); ++i) {
        if (lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

bool CaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const noexcept
{
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

bool startsWithNoCase(const std::string& text, const std::string& prefix)
{
    return text.size() >= prefix.size() && strncasecmp(text.c_str(), prefix.c_str(), prefix.size()) == 0;
}

bool endsWithNoCase(const std::string& text, const std::string& postfix)
{
    return text.size() >= postfix.size() && strcasecmp(text.c_str() + (text.size() - postfix.size()), postfix.c_str()) == 0;
}

namespace
{
const SettingsFile& sharedEmptyTree()
{
    static const SettingsFile empty;
    return empty;
}

[[noreturn]] void throwTooDeep()
{
    throw VxException(VXRV_DATAOVERFLOW, "Setting name nested too deeply");
}
} // namespace

// ---- life cycle -------------------------------------------------------------------------

SettingsFile::SettingsFile() = default;

SettingsFile::SettingsFile(SettingsFile* parent, const std::string& label)
    : m_parent(parent)
    , m_label(label)
{
}

SettingsFile::SettingsFile(const SettingsFile& other)
{
    copyContentFrom(other);
    m_modified = other.m_modified;
    m_encrypted = other.m_encrypted;
}

SettingsFile::SettingsFile(SettingsFile&& other) noexcept
{
    swapContent(other);
    m_modified = other.m_modified;
    m_encrypted = other.m_encrypted;
    m_filename.swap(other.m_filename);
    m_autoSaveOnExit = other.m_autoSaveOnExit;
    other.m_autoSaveOnExit = false;
}

SettingsFile& SettingsFile::operator=(const SettingsFile& other)
{
    if (this != &other) {
        // Copy first: other may be an ancestor or a descendant of this node.
        SettingsFile copy(other);
        swapContent(copy);
        m_encrypted = other.m_encrypted;
        setDirty(true);
    }
    return *this;
}

SettingsFile& SettingsFile::operator=(SettingsFile&& other)
{
    if (this != &other) {
        SettingsFile taken(std::move(other));
        swapContent(taken);
        m_encrypted = taken.m_encrypted;
        setDirty(true);
    }
    return *this;
}

SettingsFile::~SettingsFile()
{
    if (m_autoSaveOnExit && !m_parent && m_modified && !m_filename.empty()) {
        try {
            save();
        } catch (...) {
            JERROR("could not save " << m_filename << " on exit");
        }
    }
    deleteSubTrees();
}

void SettingsFile::deleteSubTrees()
{
    for (auto& entry : m_subTrees)
        delete entry.second;
    m_subTrees.clear();
}

void SettingsFile::copyContentFrom(const SettingsFile& other)
{
    // Called on a node without content.
    m_settings = other.m_settings;
    m_subTrees.reserve(other.m_subTrees.size());
    for (const auto& entry : other.m_subTrees) {
        auto child = std::unique_ptr<SettingsFile>(new SettingsFile(this, entry.first));
        child->copyContentFrom(*entry.second);
        child->m_modified = entry.second->m_modified;
        child->m_encrypted = entry.second->m_encrypted;
        m_subTrees.emplace(entry.first, child.release());
    }
}

void SettingsFile::swapContent(SettingsFile& other)
{
    m_settings.swap(other.m_settings);
    m_subTrees.swap(other.m_subTrees);
    for (auto& entry : m_subTrees)
        entry.second->m_parent = this;
    for (auto& entry : other.m_subTrees)
        entry.second->m_parent = &other;
}

int SettingsFile::depth() const
{
    int d = 0;
    for (const SettingsFile* p = m_parent; p; p = p->m_parent)
        ++d;
    return d;
}

// ---- paths ------------------------------------------------------------------------------

std::pair<std::string, std::string> SettingsFile::splitLabel(const std::string& label)
{
    if (label.empty() || label == ".")
        return {};
    const size_t dot = label.find('.');
    if (dot == std::string::npos)
        return {label, std::string()};
    if (dot + 1 == label.size())
        return {label.substr(0, dot), std::string(".")};
    return {label.substr(0, dot), label.substr(dot + 1)};
}

SettingsFile* SettingsFile::childFor(const std::string& label, bool create)
{
    auto it = m_subTrees.find(label);
    if (it != m_subTrees.end())
        return it->second;
    if (!create)
        return nullptr;
    if (depth() >= MaxDepth)
        throwTooDeep();
    auto child = std::unique_ptr<SettingsFile>(new SettingsFile(this, label));
    SettingsFile* raw = child.get();
    m_subTrees.emplace(label, raw);
    child.release();
    return raw;
}

const SettingsFile* SettingsFile::childFor(const std::string& label) const
{
    auto it = m_subTrees.find(label);
    return it == m_subTrees.end() ? nullptr : it->second;
}

// Descends through the non-empty dot-separated parts of label[0, end): "a..b" and ".a.b."
// walk a, then b. Walks in place, so no copies of the tail are made.
SettingsFile* SettingsFile::descend(const std::string& label, size_t end, bool create)
{
    SettingsFile* node = this;
    std::string part;
    for (size_t begin = 0; begin < end;) {
        const size_t dot = std::min(label.find('.', begin), end);
        if (dot > begin) {
            part.assign(label, begin, dot - begin);
            node = node->childFor(part, create);
            if (!node)
                return nullptr;
        }
        begin = dot + 1;
    }
    return node;
}

// Walking a dotted label by splitLabel() ends in the node reached through the non-empty
// parts before the last dot, at the label after the last dot ("a." names the setting ""
// of subtree a, "a..b" the setting b of a).
Variant* SettingsFile::locate(const std::string& label, bool create, SettingsFile** owner)
{
    const size_t lastDot = label.rfind('.');
    SettingsFile* node = this;
    std::string tail;
    if (lastDot != std::string::npos) {
        node = descend(label, lastDot, create);
        if (!node)
            return nullptr;
        tail.assign(label, lastDot + 1, std::string::npos);
    }
    const std::string& key = lastDot == std::string::npos ? label : tail;
    if (owner)
        *owner = node;
    if (!create) {
        auto it = node->m_settings.find(key);
        return it == node->m_settings.end() ? nullptr : &it->second;
    }
    return &node->m_settings.try_emplace(key).first->second;
}

Variant* SettingsFile::findValue(const std::string& label, bool create)
{
    return locate(label, create, nullptr);
}

const Variant* SettingsFile::findValue(const std::string& label) const
{
    return const_cast<SettingsFile*>(this)->locate(label, false, nullptr);
}

SettingsFile* SettingsFile::findSubTree(const std::string& label, bool create)
{
    return descend(label, label.size(), create);
}

const SettingsFile* SettingsFile::findSubTree(const std::string& label) const
{
    return const_cast<SettingsFile*>(this)->findSubTree(label, false);
}

Variant& SettingsFile::findValueRef(const std::string& label)
{
    return *locate(label, true, nullptr);
}

SettingsFile& SettingsFile::findSubTreeRef(const std::string& label)
{
    return *findSubTree(label, true);
}

// ---- single settings --------------------------------------------------------------------

Variant SettingsFile::setting(const std::string& label) const
{
    const Variant* v = findValue(label);
    return v ? *v : Variant();
}

Variant SettingsFile::setting(const std::string& prefix, const std::string& label) const
{
    return setting(prefix + label);
}

Variant SettingsFile::settingThrow(const std::string& label) const
{
    const Variant* v = findValue(label);
    if (!v)
        throw VxException(VXRV_NOTFOUND, "Setting " + label + " not found");
    return *v;
}

Variant SettingsFile::defaultSetting(const std::string& label, const Variant& fallback) const
{
    const Variant* v = findValue(label);
    return v ? *v : fallback;
}

bool SettingsFile::hasSetting(const std::string& label) const
{
    return findValue(label) != nullptr;
}

bool SettingsFile::hasSetting(const std::string& prefix, const std::string& label) const
{
    return hasSetting(prefix + label);
}

bool SettingsFile::getSetting(const std::string& label, Variant& value) const
{
    const Variant* v = findValue(label);
    if (!v)
        return false;
    value = *v;
    return true;
}

bool SettingsFile::getSetting(const std::string& prefix, const std::string& label, Variant& value) const
{
    return getSetting(prefix + label, value);
}

Variant SettingsFile::getSetting(const char* prefix, const char* label) const
{
    return setting(std::string(prefix ? prefix : "") + (label ? label : ""));
}

void SettingsFile::setSetting(const std::string& label, const Variant& value)
{
    SettingsFile* owner = nullptr;
    Variant* v = locate(label, true, &owner);
    *v = value;
    owner->setDirty(true);
}

void SettingsFile::setSetting(const std::string& prefix, const std::string& label, const Variant& value)
{
    setSetting(prefix + label, value);
}

void SettingsFile::addSetting(const char* label, const char* value)
{
    setSetting(std::string(label ? label : ""), Variant(value ? value : ""));
}

bool SettingsFile::setSettingIfValid(const std::string& label, const Variant& value)
{
    if (value.empty())
        return false;
    setSetting(label, value);
    return true;
}

Variant& SettingsFile::operator[](const std::string& label)
{
    SettingsFile* owner = nullptr;
    Variant* v = locate(label, true, &owner);
    owner->setDirty(true);
    return *v;
}

SettingsFile& SettingsFile::operator<<(const Setting& setting)
{
    setSetting(setting.first, setting.second);
    return *this;
}

// ---- subtrees and structure -------------------------------------------------------------

const SettingsFile& SettingsFile::subTree(const std::string& label) const
{
    const SettingsFile* node = findSubTree(label);
    return node ? *node : sharedEmptyTree();
}

SettingsFile& SettingsFile::subTree(const std::string& label)
{
    return *findSubTree(label, true);
}

bool SettingsFile::hasSubTree(const std::string& label, bool existsOnly) const
{
    // As in subTree(), the empty label names this node itself.
    const SettingsFile* node = findSubTree(label);
    if (!node)
        return false;
    return existsOnly || !node->empty();
}

LabelList SettingsFile::subTrees(bool nonEmptyOnly) const
{
    LabelList out;
    out.reserve(m_subTrees.size());
    for (const auto& entry : m_subTrees) {
        if (!nonEmptyOnly || !entry.second->empty())
            out.append(Label(entry.first));
    }
    return out;
}

LabelList SettingsFile::settingLabels() const
{
    LabelList out;
    out.reserve(m_settings.size());
    for (const auto& entry : m_settings)
        out.append(Label(entry.first));
    return out;
}

size_t SettingsFile::clear(const std::string& label)
{
    const auto [head, tail] = splitLabel(label);
    size_t removed = 0;
    const CaseInsensitiveEqual equal;
    for (auto& entry : m_subTrees) {
        if (!startsWithNoCase(entry.first, head))
            continue;
        if (tail.empty())
            removed += entry.second->clear(std::string());
        else if (equal(entry.first, head))
            removed += entry.second->clear(tail);
    }
    if (tail.empty()) {
        if (head.empty()) {
            removed += m_settings.size();
            m_settings.clear();
        } else {
            for (auto it = m_settings.begin(); it != m_settings.end();) {
                if (startsWithNoCase(it->first, head)) {
                    it = m_settings.erase(it);
                    ++removed;
                } else {
                    ++it;
                }
            }
        }
    }
    if (removed)
        setDirty(true);
    return removed;
}

size_t SettingsFile::erase(const std::string& label)
{
    SettingsFile* owner = nullptr;
    locate(label, false, &owner);
    if (!owner)
        return 0;
    const size_t lastDot = label.rfind('.');
    const std::string key = lastDot == std::string::npos ? label : label.substr(lastDot + 1);
    size_t removed = owner->m_settings.erase(key);
    auto it = owner->m_subTrees.find(key);
    if (it != owner->m_subTrees.end() && !key.empty()) {
        removed += it->second->size();
        delete it->second;
        owner->m_subTrees.erase(it);
    }
    if (removed)
        owner->setDirty(true);
    return removed;
}

size_t SettingsFile::removeEmptySubTrees()
{
    size_t removed = 0;
    for (auto it = m_subTrees.begin(); it != m_subTrees.end();) {
        SettingsFile* child = it->second;
        if (child->empty()) {
            // Count the whole empty branch.
            std::vector<const SettingsFile*> pending {child};
            while (!pending.empty()) {
                const SettingsFile* n = pending.back();
                pending.pop_back();
                ++removed;
                for (const auto& e : n->m_subTrees)
                    pending.push_back(e.second);
            }
            delete child;
            it = m_subTrees.erase(it);
        } else {
            removed += child->removeEmptySubTrees();
            ++it;
        }
    }
    return removed;
}

size_t SettingsFile::size() const
{
    size_t n = m_settings.size();
    for (const auto& entry : m_subTrees)
        n += entry.second->size();
    return n;
}

bool SettingsFile::empty() const
{
    if (!m_settings.empty())
        return false;
    for (const auto& entry : m_subTrees) {
        if (!entry.second->empty())
            return false;
    }
    return true;
}

std::string SettingsFile::getFullName(const std::string& label) const
{
    std::vector<const std::string*> parts;
    for (const SettingsFile* n = this; n->m_parent; n = n->m_parent)
        parts.push_back(&n->m_label);
    std::string name;
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
        if (!name.empty())
            name.push_back('.');
        name += **it;
    }
    if (!label.empty()) {
        if (!name.empty())
            name.push_back('.');
        name += label;
    }
    return name;
}

SettingsFile& SettingsFile::root()
{
    SettingsFile* n = this;
    while (n->m_parent)
        n = n->m_parent;
    return *n;
}

const SettingsFile& SettingsFile::root() const
{
    return const_cast<SettingsFile*>(this)->root();
}

void SettingsFile::setDirty(bool dirty)
{
    if (dirty) {
        for (SettingsFile* n = this; n && !n->m_modified; n = n->m_parent)
            n->m_modified = true;
        return;
    }
    m_modified = false;
    for (auto& entry : m_subTrees)
        entry.second->setDirty(false);
}

bool SettingsFile::isValid() const
{
    return this != &sharedEmptyTree();
}

// ---- bulk operations --------------------------------------------------------------------

template <typename Visitor> void SettingsFile::visit(std::string& prefix, Visitor&& visitor) const
{
    const size_t length = prefix.size();
    for (const auto& entry : m_settings) {
        prefix.append(entry.first);
        visitor(prefix, entry.second);
        prefix.resize(length);
    }
    for (const auto& entry : m_subTrees) {
        prefix.append(entry.first);
        prefix.push_back('.');
        entry.second->visit(prefix, visitor);
        prefix.resize(length);
    }
}

template <typename Predicate> size_t SettingsFile::removeIf(std::string& prefix, Predicate&& predicate)
{
    const size_t length = prefix.size();
    size_t removed = 0;
    for (auto it = m_settings.begin(); it != m_settings.end();) {
        prefix.append(it->first);
        const bool remove = predicate(prefix);
        prefix.resize(length);
        if (remove) {
            it = m_settings.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    for (auto& entry : m_subTrees) {
        prefix.append(entry.first);
        prefix.push_back('.');
        removed += entry.second->removeIf(prefix, predicate);
        prefix.resize(length);
    }
    if (removed)
        setDirty(true);
    return removed;
}

namespace
{
template <typename Predicate> std::vector<SettingsFile::Setting> collect(const SettingsFile& tree, Predicate&& predicate)
{
    std::vector<SettingsFile::Setting> out;
    for (auto& s : tree.flattened()) {
        if (predicate(s.first))
            out.push_back(std::move(s));
    }
    return out;
}

size_t storeAll(SettingsFile& target, const std::vector<SettingsFile::Setting>& settings)
{
    for (const auto& s : settings)
        target.setSetting(s.first, s.second);
    return settings.size();
}
} // namespace

size_t SettingsFile::copyTo(SettingsFile& target, const std::string& prefix) const
{
    return storeAll(target, collect(*this, [&](const std::string& name) {
        return startsWithNoCase(name, prefix);
    }));
}

size_t SettingsFile::copyToExcept(SettingsFile& target, const std::string& prefix) const
{
    return storeAll(target, collect(*this, [&](const std::string& name) {
        return !startsWithNoCase(name, prefix);
    }));
}

size_t SettingsFile::copyToPostfix(SettingsFile& target, const std::string& postfix) const
{
    return storeAll(target, collect(*this, [&](const std::string& name) {
        return endsWithNoCase(name, postfix);
    }));
}

size_t SettingsFile::replacePrefix(const std::string& oldPrefix, const std::string& newPrefix)
{
    auto moving = collect(*this, [&](const std::string& name) {
        return startsWithNoCase(name, oldPrefix);
    });
    for (const auto& s : moving)
        erase(s.first);
    for (auto& s : moving)
        setSetting(newPrefix + s.first.substr(oldPrefix.size()), s.second);
    return moving.size();
}

namespace
{
/** Copies into @p tree the values @p source has for the names of @p tree that match. */
template <typename Predicate> size_t updateFrom(SettingsFile& tree, const SettingsFile& source, Predicate&& matches)
{
    size_t updated = 0;
    for (const auto& s : collect(tree, matches)) {
        if (const Variant* v = source.findValue(s.first)) {
            tree.setSetting(s.first, Variant(*v));
            ++updated;
        }
    }
    return updated;
}
}

size_t SettingsFile::updateValues(const SettingsFile& source, const std::string& prefix)
{
    return updateFrom(*this, source, [&](const std::string& name) {
        return startsWithNoCase(name, prefix);
    });
}

size_t SettingsFile::updateValuesPostfix(const SettingsFile& source, const std::string& postfix)
{
    return updateFrom(*this, source, [&](const std::string& name) {
        return endsWithNoCase(name, postfix);
    });
}

size_t SettingsFile::clearPostfix(const std::string& postfix)
{
    std::string prefix;
    return removeIf(prefix, [&](const std::string& name) {
        return endsWithNoCase(name, postfix);
    });
}

size_t SettingsFile::clearExcept(const std::string& keep)
{
    std::string prefix;
    return removeIf(prefix, [&](const std::string& name) {
        return !startsWithNoCase(name, keep);
    });
}

size_t SettingsFile::clearExceptPostfix(const std::string& postfix)
{
    std::string prefix;
    return removeIf(prefix, [&](const std::string& name) {
        return !endsWithNoCase(name, postfix);
    });
}

void SettingsFile::getAll(SortedSettings& out, const std::string& prefix) const
{
    std::string name = prefix;
    visit(name, [&](const std::string& full, const Variant& value) {
        out[full] = value;
    });
}

void SettingsFile::getAll(HashedSettings& out, const std::string& prefix) const
{
    std::string name = prefix;
    visit(name, [&](const std::string& full, const Variant& value) {
        out[full] = value;
    });
}

std::vector<SettingsFile::Setting> SettingsFile::flattened() const
{
    std::vector<Setting> out;
    out.reserve(size());
    std::string name;
    visit(name, [&](const std::string& full, const Variant& value) {
        out.emplace_back(full, value);
    });
    std::sort(out.begin(), out.end(), [](const Setting& a, const Setting& b) {
        return CaseInsensitiveLess()(a.first, b.first);
    });
    return out;
}

size_t SettingsFile::import(const SettingsFile& other, const std::string& prefix)
{
    const auto settings = other.flattened();
    for (const auto& s : settings)
        setSetting(prefix + s.first, s.second);
    return settings.size();
}

} // namespace veltrax
