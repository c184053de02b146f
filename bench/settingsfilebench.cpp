// SPDX-License-Identifier: MIT
//
// Settings-tree byte form against the same data as JSON through nlohmann::json (dump and
// parse) and as nested QVariantMaps through QDataStream (write and read), with memcpy of
// as many bytes as our form as the floor.
//
// The tree: 100 000 settings of mixed kinds over 1 000 leaf subtrees three levels deep
// (10 x 10 x 10), 100 settings each: 32- and 64-bit integers, doubles, short strings,
// booleans, and every thousandth a 256-byte binary object, every 997th a 3-vector.
#include "benchcommon.h"
#include "settingsfile.h"

#include <nlohmann/json.hpp>

#include <QDataStream>
#include <QVariantMap>

#include <vector>

namespace
{

struct Item {
    std::string group[3];
    std::string name;
    int kind;
    size_t index;
};

std::vector<Item> makeItems(size_t count)
{
    std::vector<Item> items;
    items.reserve(count);
    const size_t perLeaf = std::max<size_t>(1, count / 1000);
    for (size_t i = 0; i < count; ++i) {
        const size_t leaf = (i / perLeaf) % 1000;
        Item it;
        it.group[0] = "group" + std::to_string(leaf / 100);
        it.group[1] = "section" + std::to_string(leaf / 10 % 10);
        it.group[2] = "node" + std::to_string(leaf % 10);
        it.name = "setting" + std::to_string(i % perLeaf);
        it.index = i;
        it.kind = i % 1000 == 999 ? 5 : i % 997 == 996 ? 6 : static_cast<int>(i % 5);
        items.push_back(it);
    }
    return items;
}

std::string binaryBytes(size_t i)
{
    std::string b(256, '\0');
    for (size_t k = 0; k < b.size(); ++k)
        b[k] = static_cast<char>((i * 31 + k) & 0xFF);
    return b;
}

std::string hex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

veltrax::SettingsFile makeTree(const std::vector<Item>& items)
{
    veltrax::SettingsFile tree;
    for (const Item& it : items) {
        const std::string label = it.group[0] + '.' + it.group[1] + '.' + it.group[2] + '.' + it.name;
        switch (it.kind) {
        case 0:
            tree.setSetting(label, veltrax::Variant(static_cast<int>(it.index)));
            break;
        case 1:
            tree.setSetting(label, veltrax::Variant(it.index * 0.25 + 0.1));
            break;
        case 2:
            tree.setSetting(label, veltrax::Variant("value " + std::to_string(it.index)));
            break;
        case 3:
            tree.setSetting(label, veltrax::Variant(it.index % 2 == 0));
            break;
        case 4:
            tree.setSetting(label, veltrax::Variant(static_cast<long long>(it.index) << 20));
            break;
        case 5: {
            const std::string b = binaryBytes(it.index);
            tree.setSetting(label, veltrax::Variant(veltrax::BinaryObject(b.data(), static_cast<uint32_t>(b.size()))));
            break;
        }
        default:
            tree.setSetting(label, veltrax::Variant(VxVector {1.0, 2.0, double(it.index)}));
            break;
        }
    }
    return tree;
}

nlohmann::json makeJson(const std::vector<Item>& items)
{
    nlohmann::json root = nlohmann::json::object();
    for (const Item& it : items) {
        nlohmann::json& leaf = root[it.group[0]][it.group[1]][it.group[2]];
        switch (it.kind) {
        case 0:
            leaf[it.name] = static_cast<int>(it.index);
            break;
        case 1:
            leaf[it.name] = it.index * 0.25 + 0.1;
            break;
        case 2:
            leaf[it.name] = "value " + std::to_string(it.index);
            break;
        case 3:
            leaf[it.name] = it.index % 2 == 0;
            break;
        case 4:
            leaf[it.name] = static_cast<long long>(it.index) << 20;
            break;
        case 5:
            leaf[it.name] = hex(binaryBytes(it.index));
            break;
        default:
            leaf[it.name] = {1.0, 2.0, double(it.index)};
            break;
        }
    }
    return root;
}

QVariantMap makeVariantMap(const std::vector<Item>& items)
{
    QVariantMap root;
    // Build bottom-up per leaf so each map is filled once, not copied per setting.
    std::map<std::string, QVariantMap> leaves;
    for (const Item& it : items) {
        QVariantMap& leaf = leaves[it.group[0] + '.' + it.group[1] + '.' + it.group[2]];
        const QString name = QString::fromStdString(it.name);
        switch (it.kind) {
        case 0:
            leaf.insert(name, static_cast<int>(it.index));
            break;
        case 1:
            leaf.insert(name, it.index * 0.25 + 0.1);
            break;
        case 2:
            leaf.insert(name, QString::fromStdString("value " + std::to_string(it.index)));
            break;
        case 3:
            leaf.insert(name, it.index % 2 == 0);
            break;
        case 4:
            leaf.insert(name, static_cast<qlonglong>(it.index) << 20);
            break;
        case 5:
            leaf.insert(name, QByteArray::fromStdString(binaryBytes(it.index)));
            break;
        default:
            leaf.insert(name, QVariant::fromValue(QVariantList {1.0, 2.0, double(it.index)}));
            break;
        }
    }
    std::map<std::string, std::map<std::string, QVariantMap>> mid;
    for (auto& l : leaves) {
        const std::string& path = l.first;
        const size_t d1 = path.find('.'), d2 = path.find('.', d1 + 1);
        mid[path.substr(0, d2)][path.substr(d2 + 1)] = l.second;
    }
    std::map<std::string, QVariantMap> top;
    for (auto& m : mid) {
        const size_t d1 = m.first.find('.');
        QVariantMap sections;
        for (auto& n : m.second)
            sections.insert(QString::fromStdString(n.first), n.second);
        QVariantMap& group = top[m.first.substr(0, d1)];
        group.insert(QString::fromStdString(m.first.substr(d1 + 1)), sections);
    }
    for (auto& t : top)
        root.insert(QString::fromStdString(t.first), t.second);
    return root;
}

} // namespace

int main()
{
    const size_t count = bench::scaled(100000);
    const int repeats = 5;
    const std::vector<Item> items = makeItems(count);

    const veltrax::SettingsFile tree = makeTree(items);
    const nlohmann::json json = makeJson(items);
    const QVariantMap map = makeVariantMap(items);

    VxByteArray ours;
    const double oursWrite = bench::bestOf(repeats, [&] {
        VxByteArray out;
        tree.serialize(out);
        ours = std::move(out);
    });
    std::string jsonText;
    const double jsonWrite = bench::bestOf(repeats, [&] {
        jsonText = json.dump();
    });
    QByteArray streamBytes;
    const double streamWrite = bench::bestOf(repeats, [&] {
        QByteArray out;
        QDataStream ds(&out, QIODevice::WriteOnly);
        ds << map;
        streamBytes = std::move(out);
    });

    int consumed = 0;
    const double oursRead = bench::bestOf(repeats, [&] {
        veltrax::SettingsFile back;
        consumed = back.deserialize(ours, 0);
    });
    if (consumed != static_cast<int>(ours.size())) {
        std::fprintf(stderr, "deserialize consumed %d of %zu bytes\n", consumed, ours.size());
        return 1;
    }
    const double jsonRead = bench::bestOf(repeats, [&] {
        auto back = nlohmann::json::parse(jsonText);
        (void)back;
    });
    const double streamRead = bench::bestOf(repeats, [&] {
        QDataStream ds(streamBytes);
        QVariantMap back;
        ds >> back;
    });
    std::vector<char> target(ours.size());
    const double floor = bench::bestOf(repeats, [&] {
        std::memcpy(target.data(), ours.data(), ours.size());
    });

    const std::string n = std::to_string(count) + " settings";
    const double mb = ours.size() / 1e6;
    std::fprintf(stderr, "byte form %zu bytes, JSON %zu bytes, QDataStream %d bytes\n", ours.size(), jsonText.size(), int(streamBytes.size()));
    bench::row("byte form serialize, " + n, oursWrite * 1e3, "nlohmann::json dump", jsonWrite * 1e3, "ms", false, ">= 2.0");
    bench::row("byte form serialize, " + n, oursWrite * 1e3, "QDataStream << QVariantMap", streamWrite * 1e3, "ms", false, ">= 1.0");
    bench::row("byte form deserialize, " + n, oursRead * 1e3, "nlohmann::json parse", jsonRead * 1e3, "ms", false, ">= 2.0");
    bench::row("byte form deserialize, " + n, oursRead * 1e3, "QDataStream >> QVariantMap", streamRead * 1e3, "ms", false, ">= 1.0");
    bench::row("byte form serialize, " + std::to_string(int(mb)) + " MB", oursWrite * 1e3, "memcpy (floor)", floor * 1e3, "ms", false, "");
    return 0;
}
