// SPDX-License-Identifier: MIT
//
// The JSON form of a settings tree. Lists travel in a tree as subtrees item0, item1, ...
// with a count setting itemCount; a subtree without settings is an empty array.
#include "settingsfile.h"

#include "journaller.h"

#include <nlohmann/json.hpp>

#include <climits>

namespace veltrax
{

namespace
{

constexpr char ItemCount[] = "itemCount";
constexpr size_t TrustedItemCount = 65536;

std::string itemLabel(size_t i)
{
    return "item" + std::to_string(i);
}

// The index of a label "item<decimal>" (any case).
bool itemIndex(const std::string& label, size_t& index)
{
    if (label.size() < 5 || label.size() > 14 || !startsWithNoCase(label, "item"))
        return false;
    index = 0;
    for (size_t i = 4; i < label.size(); ++i) {
        if (label[i] < '0' || label[i] > '9')
            return false;
        index = index * 10 + size_t(label[i] - '0');
    }
    return true;
}

// Deepest nesting of arrays and objects in a JSON text, counted outside strings, so that
// no recursion below (nor the parser's document) can be driven arbitrarily deep.
bool nestsDeeperThan(const std::string& text, int limit)
{
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit)
                return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

void storeJson(SettingsFile& node, const std::string& key, const nlohmann::json& value);

void storeObject(SettingsFile& node, const nlohmann::json& object)
{
    for (const auto& item : object.items()) {
        if (item.key().find('\0') != std::string::npos)
            continue; // cannot be a label of any form
        storeJson(node, item.key(), item.value());
    }
}

void storeArray(SettingsFile& node, const std::string& key, const nlohmann::json& array)
{
    if (array.empty()) {
        node.findSubTreeRef(key);
        return;
    }
    bool allStrings = true;
    bool allNumbers = true;
    bool allSmallUnsigned = true;
    for (const auto& e : array) {
        allStrings = allStrings && e.is_string();
        allNumbers = allNumbers && e.is_number();
        allSmallUnsigned = allSmallUnsigned && e.is_number_unsigned() && e.get<uint64_t>() <= UINT32_MAX;
    }
    if (allStrings) {
        LabelList labels;
        labels.reserve(array.size());
        for (const auto& e : array)
            labels.append(Label(e.get_ref<const std::string&>()));
        node.setSetting(key, labels);
    } else if (allSmallUnsigned) {
        IntList values;
        values.reserve(array.size());
        for (const auto& e : array)
            values.append(static_cast<uint32_t>(e.get<uint64_t>()));
        node.setSetting(key, values);
    } else if (allNumbers) {
        VxVector values(Eigen::Index(array.size()));
        for (size_t i = 0; i < array.size(); ++i)
            values[Eigen::Index(i)] = array[i].get<double>();
        node.setSetting(key, values);
    } else {
        SettingsFile& list = node.findSubTreeRef(key);
        for (size_t i = 0; i < array.size(); ++i)
            storeJson(list, itemLabel(i), array[i]);
        list.setSetting(ItemCount, Variant(static_cast<int>(std::min<size_t>(array.size(), INT_MAX))));
    }
}

void storeJson(SettingsFile& node, const std::string& key, const nlohmann::json& value)
{
    switch (value.type()) {
    case nlohmann::json::value_t::object:
        storeObject(node.findSubTreeRef(key), value);
        break;
    case nlohmann::json::value_t::array:
        storeArray(node, key, value);
        break;
    case nlohmann::json::value_t::string:
        node.setSetting(key, Variant(value.get_ref<const std::string&>()));
        break;
    case nlohmann::json::value_t::boolean:
        node.setSetting(key, Variant(value.get<bool>()));
        break;
    case nlohmann::json::value_t::number_integer:
        node.setSetting(key, Variant(value.get<int64_t>()));
        break;
    case nlohmann::json::value_t::number_unsigned:
        // Int64 holds unsigned 64-bit values bit for bit.
        node.setSetting(key, Variant(static_cast<long>(value.get<uint64_t>())));
        break;
    case nlohmann::json::value_t::number_float:
        node.setSetting(key, Variant(value.get<double>()));
        break;
    case nlohmann::json::value_t::null:
        // The writer renders the text "null" as a bare null.
        node.setSetting(key, Variant("null"));
        break;
    default:
        break;
    }
}

} // namespace

void SettingsFile::writeJsonString(std::string& out) const
{
    writeJsonObject(out);
}

void SettingsFile::writeJsonObject(std::string& out) const
{
    out.push_back('{');
    bool first = true;
    for (const auto& setting : m_settings) {
        if (!first)
            out.push_back(',');
        first = false;
        out.push_back('"');
        out += setting.first;
        out += "\":";
        out += setting.second.toJsonString(false);
    }
    for (const auto& entry : m_subTrees) {
        const SettingsFile& sub = *entry.second;
        if (!first)
            out.push_back(',');
        first = false;
        out.push_back('"');
        out += entry.first;
        out += "\":";
        if (sub.empty()) {
            out += "[]";
            continue;
        }
        const Variant* count = sub.findValue(ItemCount);
        const SettingsFile* item0 = sub.childFor(std::string("item0"));
        if (!count && !(item0 && !item0->empty())) {
            sub.writeJsonObject(out);
            continue;
        }
        // A list. Without a usable itemCount, the items run from item0 to the first gap.
        // Missing items below the count are written as {}; a count beyond
        // TrustedItemCount is believed only as far as the items that exist, so that a
        // bogus count cannot make the text grow without bound.
        size_t items = 0;
        bool counted = false;
        if (count) {
            try {
                items = size_t(std::max<int32_t>(count->toInt32(), 0));
                counted = true;
            } catch (const VxException&) {
            }
        }
        if (!counted) {
            while (sub.childFor(itemLabel(items)))
                ++items;
        } else if (items > TrustedItemCount) {
            size_t last = 0;
            for (const auto& child : sub.m_subTrees) {
                size_t index = 0;
                if (itemIndex(child.first, index) && index < items)
                    last = std::max(last, index + 1);
            }
            items = std::max(last, TrustedItemCount);
        }
        out.push_back('[');
        for (size_t i = 0; i < items; ++i) {
            if (i)
                out.push_back(',');
            const SettingsFile* item = sub.childFor(itemLabel(i));
            if (item)
                item->writeJsonObject(out);
            else
                out += "{}";
        }
        out.push_back(']');
    }
    out.push_back('}');
}

bool SettingsFile::readJsonString(const std::string& text)
{
    if (nestsDeeperThan(text, MaxDepth)) {
        JDEBUG("JSON text nests too deeply");
        return false;
    }
    const nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        JDEBUG("not a JSON object");
        return false;
    }
    SettingsFile read;
    try {
        storeObject(read, document);
    } catch (const VxException& e) {
        JDEBUG("JSON text not stored: " << e.text().toStdString());
        return false;
    }
    swapContent(read);
    setDirty(true);
    return true;
}

} // namespace veltrax
