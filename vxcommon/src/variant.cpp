// SPDX-License-Identifier: MIT
//
// The variant's value: construction, ownership, references, read access, comparison and
// assignment. Conversions, the text forms and the byte form live in their own files.
#include "variant_p.h"

#include <algorithm>
#include <cmath>

namespace veltrax
{

using namespace detail;

namespace
{

template <typename T> Variant referenceTo(Variant::Type kind, T& object)
{
    Variant v;
    v.set(kind, &object, true);
    return v;
}

} // namespace

// ---- construction -----------------------------------------------------------------------

Variant::Variant(bool value)
    : m_type(Bool)
{
    m_store.b = value;
}

Variant::Variant(float value)
    : Variant(double(value))
{
}

Variant::Variant(double value)
    : m_type(Double)
{
    m_store.d = value;
}

Variant::Variant(int value)
    : m_type(Int32)
{
    m_store.i32 = value;
}

Variant::Variant(unsigned int value)
    : Variant(static_cast<int>(value))
{
}

Variant::Variant(long value)
    : m_type(Int64)
{
    m_store.i64 = value;
}

Variant::Variant(unsigned long value)
    : Variant(static_cast<long>(value))
{
}

Variant::Variant(long long value)
    : Variant(static_cast<long>(value))
{
}

Variant::Variant(unsigned long long value)
    : Variant(static_cast<long>(value))
{
}

Variant::Variant(const VxMatrix& value)
    : m_type(Matrix)
    , m_value(new VxMatrix(value))
{
}

Variant::Variant(const veltrax::Tensor& value)
    : m_type(Tensor)
    , m_value(new veltrax::Tensor(value))
{
}

Variant::Variant(const VxQuaternion& value)
    : m_type(Quaternion)
    , m_value(new VxQuaternion(value))
{
}

Variant::Variant(const VxVector& value)
    : m_type(Vector)
    , m_value(new VxVector(value))
{
}

Variant::Variant(const double* values, size_t count)
    : m_type(Vector)
    , m_value(new VxVector(values, count))
{
}

Variant::Variant(const VxIntArray& value)
    : m_type(IntList)
    , m_value(new veltrax::IntList(value))
{
}

Variant::Variant(const veltrax::IntList& value)
    : m_type(IntList)
    , m_value(new veltrax::IntList(value))
{
}

Variant::Variant(const VxStringArray& value)
    : m_type(LabelList)
    , m_value(new veltrax::LabelList(value))
{
}

Variant::Variant(const veltrax::LabelList& value)
    : m_type(LabelList)
    , m_value(new veltrax::LabelList(value))
{
}

Variant::Variant(const veltrax::BinaryObject& value)
    : m_type(BinaryObject)
    , m_value(new veltrax::BinaryObject(value))
{
}

Variant::Variant(const veltrax::MatrixArray& value)
    : m_type(MatrixArray)
    , m_value(new veltrax::MatrixArray(value))
{
}

Variant::Variant(const char* text)
{
    setText(text ? text : "", text ? std::strlen(text) : 0);
}

Variant::Variant(const VxString& text)
{
    setText(text.c_str(), text.size());
}

Variant::Variant(const std::string& text)
{
    setText(text.data(), text.size());
}

Variant::Variant(const Variant& other)
{
    copyValueFrom(other);
}

Variant::Variant(Variant&& other) noexcept
{
    moveFrom(other);
}

Variant& Variant::operator=(const Variant& other)
{
    if (this == &other)
        return *this;
    if (m_isReference && m_type == other.m_type) {
        // Write through to the caller's object.
        const bool written = withValueKind(
            m_type,
            [&](auto kind) {
                as<TypeOf<decltype(kind)>>() = other.as<TypeOf<decltype(kind)>>();
                return true;
            },
            [] {
                return false;
            });
        if (written)
            return *this;
    }
    Variant copy(other);
    clear();
    moveFrom(copy);
    return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept
{
    if (this == &other)
        return *this;
    if (m_isReference && !other.m_isReference && m_type == other.m_type) {
        try {
            return *this = static_cast<const Variant&>(other);
        } catch (...) {
            // Only allocation can fail here; fall through and take the value over instead.
        }
    }
    clear();
    moveFrom(other);
    return *this;
}

Variant::~Variant()
{
    clear();
}

void Variant::moveFrom(Variant& other) noexcept
{
    m_type = other.m_type;
    m_isReference = other.m_isReference;
    m_store = other.m_store;
    m_value = other.m_value;
    m_text.swap(other.m_text);
    other.m_type = Empty;
    other.m_isReference = false;
    other.m_value = nullptr;
}

void Variant::copyValueFrom(const Variant& other)
{
    // Called on an Empty variant.
    if (isStringKind(other.m_type)) {
        m_text = other.m_text;
    } else {
        withScalarKind(
            other.m_type,
            [&](auto kind) {
                using T = TypeOf<decltype(kind)>;
                *reinterpret_cast<T*>(&m_store) = other.as<T>();
            },
            [&] {
                withContainerKind(
                    other.m_type,
                    [&](auto kind) {
                        using T = TypeOf<decltype(kind)>;
                        m_value = new T(other.as<T>());
                    },
                    [] {});
            });
    }
    m_type = other.m_type;
}

void Variant::clear()
{
    if (!m_isReference && m_value) {
        withContainerKind(
            m_type,
            [&](auto kind) {
                delete static_cast<TypeOf<decltype(kind)>*>(m_value);
            },
            [] {});
    }
    m_value = nullptr;
    m_isReference = false;
    m_type = Empty;
    m_store.i64 = 0;
    m_text.clear();
}

void Variant::makeDefault(Type type)
{
    void* value = withContainerKind(
        type,
        [](auto kind) -> void* {
            return new TypeOf<decltype(kind)>;
        },
        []() -> void* {
            return nullptr;
        });
    clear();
    m_type = type;
    m_value = value;
}

void Variant::setText(const char* text, size_t length)
{
    // Texts are zero-terminated in every form, so an embedded zero ends them.
    if (const void* zero = length ? std::memchr(text, 0, length) : nullptr)
        length = size_t(static_cast<const char*>(zero) - text);
    const Type type = length <= ShortStringMax ? ShortString : LongString;
    if (m_type != type)
        makeDefault(type);
    m_text.assign(text, std::min(length, LongStringMax));
}

void Variant::setReference(Type type, void* object)
{
    clear();
    m_type = type;
    m_isReference = true;
    m_value = object;
}

Variant Variant::fromReference(bool& value)
{
    return referenceTo(Bool, value);
}

Variant Variant::fromReference(double& value)
{
    return referenceTo(Double, value);
}

Variant Variant::fromReference(int& value)
{
    return referenceTo(Int32, value);
}

Variant Variant::fromReference(unsigned int& value)
{
    return referenceTo(Int32, value);
}

Variant Variant::fromReference(long& value)
{
    return referenceTo(Int64, value);
}

Variant Variant::fromReference(unsigned long& value)
{
    return referenceTo(Int64, value);
}

Variant Variant::fromReference(VxMatrix& value)
{
    return referenceTo(Matrix, value);
}

Variant Variant::fromReference(veltrax::Tensor& value)
{
    return referenceTo(Tensor, value);
}

Variant Variant::fromReference(VxQuaternion& value)
{
    return referenceTo(Quaternion, value);
}

Variant Variant::fromReference(VxVector& value)
{
    return referenceTo(Vector, value);
}

Variant Variant::fromReference(veltrax::IntList& value)
{
    return referenceTo(IntList, value);
}

Variant Variant::fromReference(veltrax::LabelList& value)
{
    return referenceTo(LabelList, value);
}

Variant Variant::fromReference(veltrax::BinaryObject& value)
{
    return referenceTo(BinaryObject, value);
}

Variant Variant::fromReference(veltrax::MatrixArray& value)
{
    return referenceTo(MatrixArray, value);
}

bool Variant::isReference(const void* object) const
{
    return m_isReference && object && m_value == object;
}

// ---- kinds ------------------------------------------------------------------------------

std::string Variant::nameOfType(int type)
{
    switch (type) {
    case MatrixArray:
        return "MatrixArray";
    case Bool:
        return "bool";
    case Double:
        return "double";
    case Int32:
        return "int32_t";
    case Int64:
        return "int64_t";
    case IntList:
        return "Integer list";
    case Matrix:
        return "Matrix";
    case BinaryObject:
        return "Binary object";
    case Quaternion:
        return "Quaternion";
    case ShortString:
    case LongString:
        return "String";
    case LabelList:
        return "String list";
    case Vector:
        return "Vector";
    case Tensor:
        return "Tensor";
    default:
        return std::string();
    }
}

bool Variant::isKnownType(int type)
{
    return type == Empty || isStringKind(type) || isScalarKind(type) || isContainerKind(type);
}

void Variant::throwBadType(Type target) const
{
    throw VxException(VXRV_BADTYPE, "Type does not allow conversion to " + nameOfType(target));
}

// ---- read access ------------------------------------------------------------------------

const bool& Variant::toConstBool() const
{
    return exactly<bool>(Bool);
}

const int32_t& Variant::toConstInt32() const
{
    return exactly<int32_t>(Int32);
}

const uint32_t& Variant::toConstUint32() const
{
    return exactly<uint32_t>(Int32);
}

const double& Variant::toConstDouble() const
{
    return exactly<double>(Double);
}

const int64_t& Variant::toConstInt64() const
{
    return exactly<int64_t>(Int64);
}

const uint64_t& Variant::toConstUint64() const
{
    return exactly<uint64_t>(Int64);
}

const VxVector& Variant::toConstVector() const
{
    return exactly<VxVector>(Vector);
}

const VxMatrix& Variant::toConstMatrix() const
{
    return exactly<VxMatrix>(Matrix);
}

const veltrax::Tensor& Variant::toConstTensor() const
{
    return exactly<veltrax::Tensor>(Tensor);
}

const veltrax::MatrixArray& Variant::toConstMatrixArray() const
{
    return exactly<veltrax::MatrixArray>(MatrixArray);
}

const VxQuaternion& Variant::toConstQuaternion() const
{
    return exactly<VxQuaternion>(Quaternion);
}

const veltrax::IntList& Variant::toConstIntList() const
{
    return exactly<veltrax::IntList>(IntList);
}

const veltrax::LabelList& Variant::toConstLabelList() const
{
    return exactly<veltrax::LabelList>(LabelList);
}

const veltrax::BinaryObject& Variant::toConstBinaryObject() const
{
    return exactly<veltrax::BinaryObject>(BinaryObject);
}

const char* Variant::toConstCString() const
{
    if (!isString())
        throwBadType(ShortString);
    return m_text.c_str();
}

// ---- comparison and assignment ----------------------------------------------------------

bool Variant::operator==(const Variant& other) const
{
    if (isString() && other.isString())
        return m_text == other.m_text;
    if (m_type != other.m_type)
        return false;
    return withValueKind(
        m_type,
        [&](auto kind) {
            return as<TypeOf<decltype(kind)>>() == other.as<TypeOf<decltype(kind)>>();
        },
        [] {
            return true; // Empty, or the same unknown tag without a value
        });
}

bool Variant::fuzzyIsEqual(const Variant& other, double tolerance) const
{
    if (isScalarKind(m_type) && isScalarKind(other.m_type)) {
        if (m_type != Double && other.m_type != Double)
            return toInt64() == other.toInt64() || std::fabs(double(toInt64()) - double(other.toInt64())) <= tolerance;
        const double a = toDouble();
        const double b = other.toDouble();
        return a == b || std::fabs(a - b) <= tolerance;
    }
    if (m_type == other.m_type) {
        switch (m_type) {
        case Matrix:
            return as<VxMatrix>().fuzzyIsEqual(other.as<VxMatrix>(), tolerance);
        case Vector:
            return as<VxVector>().fuzzyIsEqual(other.as<VxVector>(), tolerance);
        case Quaternion:
            return as<VxQuaternion>().fuzzyIsEqual(other.as<VxQuaternion>(), tolerance);
        case Tensor:
            return as<veltrax::Tensor>().fuzzyIsEqual(other.as<veltrax::Tensor>(), tolerance);
        case MatrixArray:
            return as<veltrax::MatrixArray>().fuzzyIsEqual(other.as<veltrax::MatrixArray>(), tolerance);
        default:
            break;
        }
    }
    return *this == other;
}

void Variant::set(Type type, const void* value, bool asReference)
{
    if (asReference && value && (isScalarKind(type) || isContainerKind(type))) {
        setReference(type, const_cast<void*>(value));
        return;
    }
    Variant fresh;
    fresh.makeDefault(type);
    if (isStringKind(type) && value) {
        const char* text = static_cast<const char*>(value);
        fresh.m_text.assign(text, strnlen(text, stringLimit(type)));
    } else if (value) {
        withValueKind(
            type,
            [&](auto kind) {
                using T = TypeOf<decltype(kind)>;
                if constexpr (std::is_arithmetic_v<T>)
                    std::memcpy(&fresh.as<T>(), value, sizeof(T)); // the caller's number may be unaligned
                else
                    fresh.as<T>() = *static_cast<const T*>(value);
            },
            [] {});
    }
    clear();
    moveFrom(fresh);
}

void Variant::setValueKeepType(const Variant& other)
{
    switch (m_type) {
    case Bool:
        as<bool>() = other.toBool();
        return;
    case Int32:
        as<int32_t>() = other.toInt32();
        return;
    case Int64:
        as<int64_t>() = other.toInt64();
        return;
    case Double:
        as<double>() = other.toDouble();
        return;
    case ShortString:
    case LongString: {
        std::string text;
        if (other.isString() || other.m_type == LabelList)
            text = other.toStdString();
        else
            other.writeContentsToString(text, false);
        m_text.assign(text, 0, strnlen(text.c_str(), stringLimit(m_type)));
        return;
    }
    case Matrix:
        as<VxMatrix>() = other.toMatrix();
        return;
    case Vector:
        as<VxVector>() = other.toVector();
        return;
    case Quaternion:
        as<VxQuaternion>() = other.toQuaternion();
        return;
    case Tensor:
        as<veltrax::Tensor>() = other.toTensor();
        return;
    case MatrixArray:
        as<veltrax::MatrixArray>() = other.toMatrixArray();
        return;
    case IntList:
        as<veltrax::IntList>() = other.toIntList();
        return;
    case LabelList:
        as<veltrax::LabelList>() = other.toLabelList();
        return;
    case BinaryObject:
        as<veltrax::BinaryObject>() = other.toBinaryObject();
        return;
    default:
        *this = other;
        return;
    }
}

void Variant::zeroValue()
{
    switch (m_type) {
    case Bool:
        as<bool>() = false;
        break;
    case Int32:
        as<int32_t>() = 0;
        break;
    case Int64:
        as<int64_t>() = 0;
        break;
    case Double:
        as<double>() = 0.0;
        break;
    case ShortString:
    case LongString:
        m_text.clear();
        break;
    case IntList:
        as<veltrax::IntList>().clear();
        break;
    case LabelList:
        as<veltrax::LabelList>().clear();
        break;
    case BinaryObject:
        as<veltrax::BinaryObject>().clear();
        break;
    case MatrixArray:
        as<veltrax::MatrixArray>().clear();
        break;
    case Quaternion:
        // The identity, not zeros: a zero quaternion is no rotation at all.
        as<VxQuaternion>().setIdentity();
        break;
    case Matrix:
        as<VxMatrix>().eigen().setZero();
        break;
    case Vector:
        as<VxVector>().eigen().setZero();
        break;
    case Tensor:
        as<veltrax::Tensor>().elements().setZero();
        break;
    default:
        break;
    }
}

} // namespace veltrax
