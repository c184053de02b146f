// SPDX-License-Identifier: MIT
//
// The text form of a settings tree (".vxa" files): one "dotted.name=T:value" line per
// setting, and the file operations around it.
#include "settingsfile.h"

#include "journaller.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>

namespace veltrax
{

namespace
{

constexpr char HeaderStart[] = "; VXA file created by ";
constexpr char DefaultCreator[] = "Veltrax (tm)";
constexpr char MakerLine[] = "; Settings of Veltrax software: one dotted.name=T:value per line\n";

template <typename Map> std::vector<typename Map::const_pointer> sortedEntries(const Map& map)
{
    std::vector<typename Map::const_pointer> entries;
    entries.reserve(map.size());
    for (const auto& entry : map)
        entries.push_back(&entry);
    std::sort(entries.begin(), entries.end(), [](auto a, auto b) {
        return CaseInsensitiveLess()(a->first, b->first);
    });
    return entries;
}

std::string withExtension(const std::string& filename)
{
    const QFileInfo info(QString::fromStdString(filename));
    if (info.suffix().isEmpty())
        return filename + ".vxa";
    return filename;
}

bool readFile(const std::string& filename, std::string& text)
{
    QFile file(QString::fromStdString(filename));
    if (!file.open(QIODevice::ReadOnly)) {
        JERROR("cannot open " << filename << ": " << file.errorString());
        return false;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        JERROR("cannot read " << filename << ": " << file.errorString());
        return false;
    }
    text.assign(bytes.constData(), size_t(bytes.size()));
    return true;
}

} // namespace

void SettingsFile::writeVxaString(const std::string& filter, std::string& out, const std::string& creator) const
{
    out.clear();
    if (creator != "-") {
        out += HeaderStart;
        out += creator.empty() ? std::string(DefaultCreator) : creator;
        out.push_back('\n');
        out += MakerLine;
    }
    writeVxaStringSubTree(filter, out, std::string());
}

void SettingsFile::writeVxaStringSubTree(const std::string& filter, std::string& out, const std::string& prefix) const
{
    for (auto entry : sortedEntries(m_subTrees))
        entry->second->writeVxaStringSubTree(filter, out, prefix + entry->first + ".");
    for (auto entry : sortedEntries(m_settings)) {
        if (!startsWithNoCase(entry->first, filter))
            continue;
        out += prefix;
        out += entry->first;
        out.push_back('=');
        const int length = entry->second.writeToString(out);
        if (length == 0 || out.back() != '\n')
            out.push_back('\n');
    }
}

void SettingsFile::readVxaString(const std::string& text, const std::string& filter, const std::string& prefix)
{
    std::string line;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos)
            end = text.size();
        line.assign(text, begin, end - begin);
        begin = end + 1;
        if (line.empty() || line[0] == ';')
            continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string name = line.substr(0, eq);
        if (!startsWithNoCase(name, filter))
            continue;
        size_t valueStart = eq + 1;
        if (valueStart < line.size() && line[valueStart] == '=')
            ++valueStart;
        Variant value;
        value.readFromString(line.c_str() + valueStart, false);
        try {
            setSetting(prefix + name, value);
        } catch (const VxException& e) {
            JDEBUG("skipping " << name << ": " << e.text().toStdString());
        }
    }
    setDirty(true);
}

bool SettingsFile::open(const std::string& filename)
{
    const std::string name = withExtension(filename);
    std::string text;
    if (!readFile(name, text))
        return false;
    SettingsFile read;
    read.readVxaString(text);
    swapContent(read);
    m_filename = name;
    setDirty(false);
    return true;
}

bool SettingsFile::create(const std::string& filename)
{
    SettingsFile nothing;
    swapContent(nothing);
    m_filename = withExtension(filename);
    if (!writeVxa(m_filename))
        return false;
    setDirty(false);
    return true;
}

bool SettingsFile::save()
{
    if (m_filename.empty()) {
        JERROR("no file to save to");
        return false;
    }
    if (!writeVxa(m_filename))
        return false;
    setDirty(false);
    return true;
}

bool SettingsFile::close()
{
    bool ok = true;
    if (m_autoSaveOnExit && m_modified && !m_filename.empty())
        ok = save();
    m_filename.clear();
    return ok;
}

bool SettingsFile::readVxa(const std::string& filename, const std::string& filter, const std::string& prefix)
{
    std::string text;
    if (!readFile(withExtension(filename), text))
        return false;
    readVxaString(text, filter, prefix);
    return true;
}

bool SettingsFile::writeVxa(const std::string& filename, const std::string& filter, const std::string& creator) const
{
    const std::string name = withExtension(filename);
    std::string text;
    writeVxaString(filter, text, creator);
    // Write a new file and move it into place, so a crash never leaves half a file.
    QSaveFile file(QString::fromStdString(name));
    if (!file.open(QIODevice::WriteOnly)) {
        JERROR("cannot create " << name << ": " << file.errorString());
        return false;
    }
    if (file.write(text.data(), qint64(text.size())) != qint64(text.size()) || !file.commit()) {
        JERROR("cannot write " << name << ": " << file.errorString());
        return false;
    }
    return true;
}

bool SettingsFile::import(const std::string& filename, const std::string& prefix)
{
    return readVxa(filename, std::string(), prefix);
}

} // namespace veltrax
