// SPDX-License-Identifier: MIT
// Values shared by the variant and settings-tree tests.
#pragma once

#include "settingsfile.h"
#include "variant.h"

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QStringList>

#include <initializer_list>
#include <string>

Q_DECLARE_METATYPE(veltrax::Variant)

inline veltrax::LabelList labels(std::initializer_list<const char*> texts)
{
    veltrax::LabelList l;
    for (const char* t : texts)
        l.append(veltrax::Label(t));
    return l;
}

// One value of every kind, each with some content, named for test rows.
inline QList<QPair<QByteArray, veltrax::Variant>> everyKind()
{
    using veltrax::Variant;
    return {
        {"empty", Variant()},
        {"bool", Variant(true)},
        {"double", Variant(-1.25e-7)},
        {"int32", Variant(-123456)},
        {"int64", Variant(-1234567890123L)},
        {"int list", Variant(veltrax::IntList {0, 1, 0xFFFFFFFFu})},
        {"empty int list", Variant(veltrax::IntList())},
        {"matrix", Variant(VxMatrix(2, 3, {1, 2, 3, 4, 5, 6}))},
        {"binary object", Variant(veltrax::BinaryObject("a\0b\xff", 4))},
        {"quaternion", Variant(VxQuaternion(0.5, -0.5, 0.5, -0.5))},
        {"short string", Variant("xy")},
        {"empty string", Variant("")},
        {"long string", Variant(std::string(16383, 'L'))},
        {"label list", Variant(labels({"one", "two", std::string(255, 'w').c_str()}))},
        {"empty label list", Variant(veltrax::LabelList())},
        {"vector", Variant(VxVector {1, -2, 3.5})},
        {"tensor", Variant(veltrax::Tensor({2, 2, 1}, {1, 2, 3, 4}))},
        {"rank 0 tensor", Variant(veltrax::Tensor({}, {7}))},
        {"matrix array", Variant(veltrax::MatrixArray {VxMatrix(1, 2, {1, 2}), VxMatrix(0, 0)})},
    };
}

// The tree's settings as sorted "name=T:value" lines.
inline QStringList lines(const veltrax::SettingsFile& tree)
{
    QStringList got;
    for (const auto& setting : tree.flattened()) {
        std::string line = setting.first + "=";
        setting.second.writeToString(line);
        got << QString::fromStdString(line);
    }
    got.sort();
    return got;
}
