// SPDX-License-Identifier: MIT
#include "variant.h"

#include "valueformat_p.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <strings.h>

namespace veltrax
{

using namespace detail;

namespace
{

bool isScalarKind(int type)
{
    return type == Variant::Bool || type == Variant::Double || type == Variant::Int32 || type == Variant::Int64;
}

bool isContainerKind(int type)
{
    switch (type) {
    case Variant::MatrixArray:
    case Variant::IntList:
    case Variant::Matrix:
    case Variant::BinaryObject:
    case Variant::Quaternion:
    case Variant::LabelList:
    case Variant::Vector:
    case Variant::Tensor:
        return true;
    default:
        return false;
    }
}

[[noreturn]] void throwScalarType()
{
    throw VxException(VXRV_BADTYPE, "Type does not allow conversion to scalar");
}

[[noreturn]] void throwScalarSize()
{
    throw VxException(VXRV_BADTYPE, "Size does not allow conversion to scalar");
}

bool anyNonZero(const double* values, Eigen::Index count)
{
    // "Largest and smallest element both 0" is the same as "no element differs from 0";
    // a NaN counts as non-zero, as it does for a Double.
    for (Eigen::Index i = 0; i < count; ++i) {
        if (values[i] != 0.0)
            return true;
    }
    return false;
}

// The value of a kind that converts to a number, before it is narrowed to a target.
struct Scalar {
    enum Kind {
        Integer, // i holds the value
        Integer32, // i holds a 32-bit value, sign-extended
        Real, // d, rounded half away from zero for integer targets
        RealTruncated, // d, truncated for integer targets
        Text, // text, read as a number
    } kind
        = Integer;
    int64_t i = 0;
    double d = 0;
    std::string text;
};

template <typename T> T truncateSaturated(double x)
{
    if (std::isnan(x))
        return 0;
    x = std::trunc(x);
    if (x <= double(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    if (x >= double(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return static_cast<T>(x);
}

uint64_t textToInteger(const std::string& text)
{
    const char* p = text.c_str();
    uint64_t v = 0;
    return parseInteger(p, v) ? v : 0;
}

double textToDouble(const std::string& text)
{
    const char* p = text.c_str();
    double v = 0;
    return parseDouble(p, v) ? v : 0.0;
}

// Integer targets: the low bits for integer sources, rounding/truncation with saturation
// for floating sources.
template <typename T> T toIntegerTarget(const Scalar& s)
{
    switch (s.kind) {
    case Scalar::Integer:
    case Scalar::Integer32:
        return static_cast<T>(static_cast<uint64_t>(s.i));
    case Scalar::Real:
        return saturate<T>(s.d);
    case Scalar::RealTruncated:
        return truncateSaturated<T>(s.d);
    case Scalar::Text:
        return static_cast<T>(textToInteger(s.text));
    }
    return 0;
}

size_t stringLimit(int type)
{
    return type == Variant::ShortString ? Variant::ShortStringMax : Variant::LongStringMax;
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
        switch (m_type) {
        case Bool:
            as<bool>() = other.as<bool>();
            return *this;
        case Double:
            as<double>() = other.as<double>();
            return *this;
        case Int32:
            as<int32_t>() = other.as<int32_t>();
            return *this;
        case Int64:
            as<int64_t>() = other.as<int64_t>();
            return *this;
        case Matrix:
            as<VxMatrix>() = other.as<VxMatrix>();
            return *this;
        case Vector:
            as<VxVector>() = other.as<VxVector>();
            return *this;
        case Quaternion:
            as<VxQuaternion>() = other.as<VxQuaternion>();
            return *this;
        case Tensor:
            as<veltrax::Tensor>() = other.as<veltrax::Tensor>();
            return *this;
        case MatrixArray:
            as<veltrax::MatrixArray>() = other.as<veltrax::MatrixArray>();
            return *this;
        case IntList:
            as<veltrax::IntList>() = other.as<veltrax::IntList>();
            return *this;
        case LabelList:
            as<veltrax::LabelList>() = other.as<veltrax::LabelList>();
            return *this;
        case BinaryObject:
            as<veltrax::BinaryObject>() = other.as<veltrax::BinaryObject>();
            return *this;
        default:
            break;
        }
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
    switch (other.m_type) {
    case Bool:
        m_store.b = other.as<bool>();
        break;
    case Double:
        m_store.d = other.as<double>();
        break;
    case Int32:
        m_store.i32 = other.as<int32_t>();
        break;
    case Int64:
        m_store.i64 = other.as<int64_t>();
        break;
    case ShortString:
    case LongString:
        m_text = other.m_text;
        break;
    case Matrix:
        m_value = new VxMatrix(other.as<VxMatrix>());
        break;
    case Vector:
        m_value = new VxVector(other.as<VxVector>());
        break;
    case Quaternion:
        m_value = new VxQuaternion(other.as<VxQuaternion>());
        break;
    case Tensor:
        m_value = new veltrax::Tensor(other.as<veltrax::Tensor>());
        break;
    case MatrixArray:
        m_value = new veltrax::MatrixArray(other.as<veltrax::MatrixArray>());
        break;
    case IntList:
        m_value = new veltrax::IntList(other.as<veltrax::IntList>());
        break;
    case LabelList:
        m_value = new veltrax::LabelList(other.as<veltrax::LabelList>());
        break;
    case BinaryObject:
        m_value = new veltrax::BinaryObject(other.as<veltrax::BinaryObject>());
        break;
    default:
        break;
    }
    m_type = other.m_type;
}

template <typename T> T& Variant::as() const
{
    if (!m_isReference && isScalarKind(m_type))
        return *reinterpret_cast<T*>(const_cast<decltype(m_store)*>(&m_store));
    return *static_cast<T*>(m_value);
}

void Variant::clear()
{
    if (!m_isReference && m_value) {
        switch (m_type) {
        case Matrix:
            delete static_cast<VxMatrix*>(m_value);
            break;
        case Vector:
            delete static_cast<VxVector*>(m_value);
            break;
        case Quaternion:
            delete static_cast<VxQuaternion*>(m_value);
            break;
        case Tensor:
            delete static_cast<veltrax::Tensor*>(m_value);
            break;
        case MatrixArray:
            delete static_cast<veltrax::MatrixArray*>(m_value);
            break;
        case IntList:
            delete static_cast<veltrax::IntList*>(m_value);
            break;
        case LabelList:
            delete static_cast<veltrax::LabelList*>(m_value);
            break;
        case BinaryObject:
            delete static_cast<veltrax::BinaryObject*>(m_value);
            break;
        default:
            break;
        }
    }
    m_value = nullptr;
    m_isReference = false;
    m_type = Empty;
    m_store.i64 = 0;
    m_text.clear();
}

void Variant::makeDefault(Type type)
{
    void* value = nullptr;
    switch (type) {
    case Matrix:
        value = new VxMatrix;
        break;
    case Vector:
        value = new VxVector;
        break;
    case Quaternion:
        value = new VxQuaternion;
        break;
    case Tensor:
        value = new veltrax::Tensor;
        break;
    case MatrixArray:
        value = new veltrax::MatrixArray;
        break;
    case IntList:
        value = new veltrax::IntList;
        break;
    case LabelList:
        value = new veltrax::LabelList;
        break;
    case BinaryObject:
        value = new veltrax::BinaryObject;
        break;
    default:
        break;
    }
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
    Variant v;
    v.setReference(Bool, &value);
    return v;
}

Variant Variant::fromReference(double& value)
{
    Variant v;
    v.setReference(Double, &value);
    return v;
}

Variant Variant::fromReference(int& value)
{
    Variant v;
    v.setReference(Int32, &value);
    return v;
}

Variant Variant::fromReference(unsigned int& value)
{
    Variant v;
    v.setReference(Int32, &value);
    return v;
}

Variant Variant::fromReference(long& value)
{
    Variant v;
    v.setReference(Int64, &value);
    return v;
}

Variant Variant::fromReference(unsigned long& value)
{
    Variant v;
    v.setReference(Int64, &value);
    return v;
}

Variant Variant::fromReference(VxMatrix& value)
{
    Variant v;
    v.setReference(Matrix, &value);
    return v;
}

Variant Variant::fromReference(veltrax::Tensor& value)
{
    Variant v;
    v.setReference(Tensor, &value);
    return v;
}

Variant Variant::fromReference(VxQuaternion& value)
{
    Variant v;
    v.setReference(Quaternion, &value);
    return v;
}

Variant Variant::fromReference(VxVector& value)
{
    Variant v;
    v.setReference(Vector, &value);
    return v;
}

Variant Variant::fromReference(veltrax::IntList& value)
{
    Variant v;
    v.setReference(IntList, &value);
    return v;
}

Variant Variant::fromReference(veltrax::LabelList& value)
{
    Variant v;
    v.setReference(LabelList, &value);
    return v;
}

Variant Variant::fromReference(veltrax::BinaryObject& value)
{
    Variant v;
    v.setReference(BinaryObject, &value);
    return v;
}

Variant Variant::fromReference(veltrax::MatrixArray& value)
{
    Variant v;
    v.setReference(MatrixArray, &value);
    return v;
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
    return type == Empty || type == ShortString || type == LongString || isScalarKind(type) || isContainerKind(type);
}

void Variant::throwBadType(Type target) const
{
    throw VxException(VXRV_BADTYPE, "Type does not allow conversion to " + nameOfType(target));
}

// ---- scalar conversions -----------------------------------------------------------------

namespace
{
Scalar scalarOf(const Variant& v)
{
    Scalar s;
    switch (v.type()) {
    case Variant::Bool:
        s.i = v.toConstBool() ? 1 : 0;
        return s;
    case Variant::Int32:
        s.kind = Scalar::Integer32;
        s.i = v.toConstInt32();
        return s;
    case Variant::Int64:
        s.i = v.toConstInt64();
        return s;
    case Variant::Double:
        s.kind = Scalar::Real;
        s.d = v.toConstDouble();
        return s;
    case Variant::Matrix: {
        const VxMatrix& m = v.toConstMatrix();
        if (m.rows() != 1 || m.cols() != 1)
            throwScalarSize();
        s.kind = Scalar::Real;
        s.d = m(0, 0);
        return s;
    }
    case Variant::MatrixArray: {
        const MatrixArray& a = v.toConstMatrixArray();
        if (a.size() != 1 || a[0].rows() != 1 || a[0].cols() != 1)
            throwScalarSize();
        s.kind = Scalar::Real;
        s.d = a[0](0, 0);
        return s;
    }
    case Variant::Vector: {
        const VxVector& x = v.toConstVector();
        if (x.size() != 1)
            throwScalarSize();
        s.kind = Scalar::Real;
        s.d = x[0];
        return s;
    }
    case Variant::Tensor: {
        const Tensor& t = v.toConstTensor();
        if (t.size() != 1)
            throwScalarSize();
        s.kind = Scalar::RealTruncated;
        s.d = t[0];
        return s;
    }
    case Variant::IntList: {
        const IntList& l = v.toConstIntList();
        if (l.size() != 1)
            throwScalarSize();
        s.i = l[0];
        return s;
    }
    case Variant::BinaryObject: {
        const BinaryObject& b = v.toConstBinaryObject();
        if (b.size() != 8)
            throwScalarSize();
        s.i = load<int64_t>(reinterpret_cast<const char*>(b.data()));
        return s;
    }
    case Variant::ShortString:
    case Variant::LongString:
        s.kind = Scalar::Text;
        s.text = v.toConstCString();
        return s;
    case Variant::LabelList: {
        const LabelList& l = v.toConstLabelList();
        if (l.size() != 1)
            throwScalarSize();
        s.kind = Scalar::Text;
        s.text = l[0].toStdString();
        return s;
    }
    default:
        throwScalarType();
    }
}
} // namespace

bool Variant::toBool() const
{
    switch (m_type) {
    case Bool:
        return as<bool>();
    case Double:
        return as<double>() != 0.0;
    case Int32:
        return as<int32_t>() != 0;
    case Int64:
        return as<int64_t>() != 0;
    case IntList: {
        const veltrax::IntList& l = as<veltrax::IntList>();
        return std::any_of(l.begin(), l.end(), [](uint32_t x) {
            return x != 0;
        });
    }
    case Matrix:
        return anyNonZero(as<VxMatrix>().data(), as<VxMatrix>().size());
    case Vector:
        return anyNonZero(as<VxVector>().data(), as<VxVector>().size());
    case Tensor:
        return anyNonZero(as<veltrax::Tensor>().elements().data(), as<veltrax::Tensor>().size());
    case MatrixArray:
        for (const VxMatrix& m : as<veltrax::MatrixArray>().matrices()) {
            if (anyNonZero(m.data(), m.size()))
                return true;
        }
        return false;
    case BinaryObject:
        return as<veltrax::BinaryObject>().size() != 0;
    case Quaternion:
        return as<VxQuaternion>().isValid(0);
    case ShortString:
    case LongString:
        return !m_text.empty();
    case LabelList: {
        const veltrax::LabelList& l = as<veltrax::LabelList>();
        const Label* last = nullptr;
        for (const Label& label : l) {
            if (!last || strcasecmp(label.text, last->text) > 0)
                last = &label;
        }
        return last && !last->empty();
    }
    default:
        throw VxException(VXRV_BADTYPE, "Type does not allow conversion to bool");
    }
}

int64_t Variant::toInt64() const
{
    return toIntegerTarget<int64_t>(scalarOf(*this));
}

int32_t Variant::toInt32() const
{
    return toIntegerTarget<int32_t>(scalarOf(*this));
}

uint32_t Variant::toUint32() const
{
    return toIntegerTarget<uint32_t>(scalarOf(*this));
}

uint64_t Variant::toUint64() const
{
    const Scalar s = scalarOf(*this);
    if (s.kind == Scalar::Integer32) // an unsigned 32-bit value widens without its sign
        return static_cast<uint32_t>(s.i);
    return toIntegerTarget<uint64_t>(s);
}

double Variant::toDouble() const
{
    const Scalar s = scalarOf(*this);
    switch (s.kind) {
    case Scalar::Integer:
    case Scalar::Integer32:
        return double(s.i);
    case Scalar::Real:
    case Scalar::RealTruncated:
        return s.d;
    case Scalar::Text:
        return textToDouble(s.text);
    }
    return 0;
}

float Variant::toFloat() const
{
    return static_cast<float>(toDouble());
}

std::string Variant::toStdString() const
{
    if (isString())
        return m_text;
    if (m_type == LabelList && as<veltrax::LabelList>().size() == 1)
        return as<veltrax::LabelList>()[0].toStdString();
    throw VxException(VXRV_BADTYPE, "Type does not allow conversion to String");
}

VxString Variant::toVxString() const
{
    return VxString(toStdString());
}

// ---- container conversions --------------------------------------------------------------

veltrax::BinaryObject Variant::toBinaryObject() const
{
    if (m_type == BinaryObject)
        return as<veltrax::BinaryObject>();
    if (isString())
        return veltrax::BinaryObject(m_text);
    throwBadType(BinaryObject);
}

veltrax::IntList Variant::toIntList() const
{
    switch (m_type) {
    case IntList:
        return as<veltrax::IntList>();
    case Bool:
    case Int32:
    case Int64:
        return veltrax::IntList {toUint32()};
    default:
        throwBadType(IntList);
    }
}

veltrax::LabelList Variant::toLabelList() const
{
    if (m_type == LabelList)
        return as<veltrax::LabelList>();
    if (isString())
        return veltrax::LabelList {Label(m_text)};
    throwBadType(LabelList);
}

VxMatrix Variant::toMatrix() const
{
    switch (m_type) {
    case Matrix:
        return as<VxMatrix>();
    case MatrixArray:
        if (as<veltrax::MatrixArray>().size() == 1)
            return as<veltrax::MatrixArray>()[0];
        break;
    case Vector:
        return VxMatrix(as<VxVector>().eigen());
    case Tensor: {
        const veltrax::Tensor& t = as<veltrax::Tensor>();
        if (t.rank() == 2) {
            VxMatrix m(Eigen::Index(t.shape()[0]), Eigen::Index(t.shape()[1]));
            std::copy_n(t.elements().data(), t.size(), m.data());
            return m;
        }
        if (t.rank() < 2)
            return VxMatrix(t.elements());
        break;
    }
    case Bool:
    case Int32:
    case Int64:
    case Double:
        return VxMatrix(1, 1, {toDouble()});
    default:
        break;
    }
    throwBadType(Matrix);
}

VxVector Variant::toVector() const
{
    switch (m_type) {
    case Vector:
        return as<VxVector>();
    case Quaternion:
        return VxVector(as<VxQuaternion>().data(), 4);
    case Matrix: {
        const VxMatrix& m = as<VxMatrix>();
        if (m.rows() <= 1 || m.cols() <= 1)
            return VxVector(m.data(), size_t(m.size()));
        break;
    }
    case Tensor:
        if (as<veltrax::Tensor>().rank() <= 1)
            return VxVector(as<veltrax::Tensor>().elements());
        break;
    case IntList: {
        const veltrax::IntList& l = as<veltrax::IntList>();
        VxVector v(Eigen::Index(l.size()));
        for (size_t i = 0; i < l.size(); ++i)
            v[Eigen::Index(i)] = l[i];
        return v;
    }
    case Bool:
    case Int32:
    case Int64:
    case Double:
        return VxVector {toDouble()};
    default:
        break;
    }
    throwBadType(Vector);
}

VxQuaternion Variant::toQuaternion() const
{
    if (m_type == Quaternion)
        return as<VxQuaternion>();
    if (m_type == Vector && as<VxVector>().size() == 4) {
        const VxVector& v = as<VxVector>();
        return VxQuaternion(v[0], v[1], v[2], v[3]);
    }
    throwBadType(Quaternion);
}

veltrax::Tensor Variant::toTensor() const
{
    switch (m_type) {
    case Tensor:
        return as<veltrax::Tensor>();
    case Matrix: {
        const VxMatrix& m = as<VxMatrix>();
        veltrax::Tensor t({uint64_t(m.rows()), uint64_t(m.cols())});
        std::copy_n(m.data(), m.size(), t.elements().data());
        return t;
    }
    case Vector: {
        const VxVector& v = as<VxVector>();
        veltrax::Tensor t({uint64_t(v.size())});
        t.elements() = v.eigen();
        return t;
    }
    case Bool:
    case Int32:
    case Int64:
    case Double: {
        veltrax::Tensor t;
        t[0] = toDouble();
        return t;
    }
    default:
        throwBadType(Tensor);
    }
}

veltrax::MatrixArray Variant::toMatrixArray() const
{
    if (m_type == MatrixArray)
        return as<veltrax::MatrixArray>();
    if (m_type == Matrix)
        return veltrax::MatrixArray {as<VxMatrix>()};
    throwBadType(MatrixArray);
}

VxIntArray Variant::toVxIntArray() const
{
    return toIntList().toVxIntArray();
}

VxStringArray Variant::toVxStringArray() const
{
    return toLabelList().toVxStringArray();
}

// ---- read access ------------------------------------------------------------------------

const bool& Variant::toConstBool() const
{
    if (m_type != Bool)
        throwBadType(Bool);
    return as<bool>();
}

const int32_t& Variant::toConstInt32() const
{
    if (m_type != Int32)
        throwBadType(Int32);
    return as<int32_t>();
}

const uint32_t& Variant::toConstUint32() const
{
    if (m_type != Int32)
        throwBadType(Int32);
    return as<uint32_t>();
}

const double& Variant::toConstDouble() const
{
    if (m_type != Double)
        throwBadType(Double);
    return as<double>();
}

const int64_t& Variant::toConstInt64() const
{
    if (m_type != Int64)
        throwBadType(Int64);
    return as<int64_t>();
}

const uint64_t& Variant::toConstUint64() const
{
    if (m_type != Int64)
        throwBadType(Int64);
    return as<uint64_t>();
}

const VxVector& Variant::toConstVector() const
{
    if (m_type != Vector)
        throwBadType(Vector);
    return as<VxVector>();
}

const VxMatrix& Variant::toConstMatrix() const
{
    if (m_type != Matrix)
        throwBadType(Matrix);
    return as<VxMatrix>();
}

const veltrax::Tensor& Variant::toConstTensor() const
{
    if (m_type != Tensor)
        throwBadType(Tensor);
    return as<veltrax::Tensor>();
}

const veltrax::MatrixArray& Variant::toConstMatrixArray() const
{
    if (m_type != MatrixArray)
        throwBadType(MatrixArray);
    return as<veltrax::MatrixArray>();
}

const VxQuaternion& Variant::toConstQuaternion() const
{
    if (m_type != Quaternion)
        throwBadType(Quaternion);
    return as<VxQuaternion>();
}

const veltrax::IntList& Variant::toConstIntList() const
{
    if (m_type != IntList)
        throwBadType(IntList);
    return as<veltrax::IntList>();
}

const veltrax::LabelList& Variant::toConstLabelList() const
{
    if (m_type != LabelList)
        throwBadType(LabelList);
    return as<veltrax::LabelList>();
}

const veltrax::BinaryObject& Variant::toConstBinaryObject() const
{
    if (m_type != BinaryObject)
        throwBadType(BinaryObject);
    return as<veltrax::BinaryObject>();
}

const char* Variant::toConstCString() const
{
    if (!isString())
        throwBadType(ShortString);
    return m_text.c_str();
}

// ---- JSON and plain text ----------------------------------------------------------------

std::string Variant::toJsonString(bool bare) const
{
    std::string out;
    auto quoted = [&](auto&& writeBody) {
        if (!bare)
            out.push_back('"');
        writeBody();
        if (!bare)
            out.push_back('"');
    };
    switch (m_type) {
    case Bool:
        out = as<bool>() ? "true" : "false";
        break;
    case Double:
        appendDouble(out, as<double>(), 16);
        break;
    case Int32:
        appendInteger(out, as<int32_t>());
        break;
    case Int64:
        appendInteger(out, as<int64_t>());
        break;
    case IntList: {
        out.push_back('[');
        const veltrax::IntList& l = as<veltrax::IntList>();
        for (size_t i = 0; i < l.size(); ++i) {
            if (i)
                out.push_back(',');
            appendInteger(out, l[i]);
        }
        out.push_back(']');
        break;
    }
    case Vector:
    case Quaternion: {
        const double* values = m_type == Vector ? as<VxVector>().data() : as<VxQuaternion>().data();
        const Eigen::Index n = m_type == Vector ? as<VxVector>().size() : 4;
        out.push_back('[');
        for (Eigen::Index i = 0; i < n; ++i) {
            if (i)
                out.push_back(',');
            appendDouble(out, values[i], 16);
        }
        out.push_back(']');
        break;
    }
    case LabelList: {
        // The labels are quoted whatever `bare` says.
        out.push_back('[');
        const veltrax::LabelList& l = as<veltrax::LabelList>();
        for (size_t i = 0; i < l.size(); ++i) {
            if (i)
                out.push_back(',');
            out.push_back('"');
            out += l[i].text;
            out.push_back('"');
        }
        out.push_back(']');
        break;
    }
    case ShortString:
    case LongString:
        if (m_text == "null")
            out = m_text;
        else
            quoted([&] {
                out += m_text;
            });
        break;
    case Matrix:
    case MatrixArray:
    case BinaryObject:
    case Tensor:
        quoted([&] {
            writeContentsToString(out, false);
        });
        break;
    default:
        // What std::string reports when built from a null pointer: there is no text.
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return out;
}

int Variant::writeContentsToString(std::string& text, bool hex) const
{
    const size_t before = text.size();
    switch (m_type) {
    case Bool:
        text.push_back(as<bool>() ? 'Y' : 'N');
        break;
    case Double:
        appendDouble(text, as<double>(), 16);
        break;
    case Int32:
        if (hex) {
            text += "0x";
            appendHex(text, as<uint32_t>());
        } else {
            appendInteger(text, as<int32_t>());
        }
        break;
    case Int64:
        if (hex) {
            text += "0x";
            appendHex(text, as<uint64_t>());
        } else {
            appendInteger(text, as<int64_t>());
        }
        break;
    case ShortString:
    case LongString:
        text += m_text;
        break;
    case Matrix:
        as<VxMatrix>().writeToString(text);
        break;
    case Vector:
        as<VxVector>().writeToString(text);
        break;
    case Quaternion:
        as<VxQuaternion>().writeToString(text);
        break;
    case Tensor:
        as<veltrax::Tensor>().writeToString(text);
        break;
    case MatrixArray:
        as<veltrax::MatrixArray>().writeToString(text);
        break;
    case IntList:
        as<veltrax::IntList>().writeToString(text);
        break;
    case LabelList:
        as<veltrax::LabelList>().writeToString(text);
        break;
    case BinaryObject:
        as<veltrax::BinaryObject>().writeToString(text);
        break;
    default:
        break;
    }
    return static_cast<int>(text.size() - before);
}

int Variant::writeToString(std::string& text) const
{
    // An Empty value (and an unknown tag that could not stand in a line) writes nothing,
    // which reads back as Empty.
    if (m_type == Empty || m_type <= ' ' || m_type >= 0x7F || m_type == '=' || m_type == ';')
        return 0;
    const size_t before = text.size();
    text.push_back(char(m_type));
    text.push_back(':');
    writeContentsToString(text, false);
    return static_cast<int>(text.size() - before);
}

int Variant::readFromString(const char* text, bool hexText)
{
    if (!text || !*text) {
        clear();
        return 0;
    }
    const Type tag = static_cast<Type>(static_cast<uint8_t>(text[0]));
    if (tag != m_type)
        makeDefault(tag);
    // The value starts after "T:"; a text that ends early has an empty value.
    const char* value = text[1] ? text + 2 : text + 1;
    switch (tag) {
    case Bool: {
        const char c = *value;
        as<bool>() = c == 'Y' || c == 'y' || c == '1';
        return static_cast<int>(value - text) + (c ? 1 : 0);
    }
    case Double: {
        const char* p = value;
        double d;
        if (parseDouble(p, d))
            as<double>() = d;
        return static_cast<int>(p - text);
    }
    case Int32:
    case Int64: {
        const char* p = value;
        uint64_t v;
        if (parseInteger(p, v)) {
            if (tag == Int32)
                as<uint32_t>() = static_cast<uint32_t>(v);
            else
                as<uint64_t>() = v;
        }
        return static_cast<int>(p - text);
    }
    case ShortString:
    case LongString: {
        const size_t rest = std::strlen(value);
        std::string s;
        if (hexText) {
            const size_t limit = stringLimit(tag);
            for (size_t i = 0; i + 1 < rest && s.size() < limit; i += 2) {
                const int hi = hexValue(value[i]);
                const int lo = hexValue(value[i + 1]);
                if (hi < 0 || lo < 0)
                    break;
                s.push_back(char(hi << 4 | lo));
            }
            if (const auto zero = s.find('\0'); zero != std::string::npos)
                s.resize(zero);
        } else {
            s.assign(value, std::min(rest, stringLimit(tag)));
        }
        while (!s.empty() && (s.back() == '\r' || s.back() == '\n'))
            s.pop_back();
        m_text = std::move(s);
        return static_cast<int>(value - text + rest);
    }
    case Matrix:
        return static_cast<int>(value - text) + as<VxMatrix>().readFromString(value);
    case Vector:
        return static_cast<int>(value - text) + as<VxVector>().readFromString(value);
    case Quaternion:
        return static_cast<int>(value - text) + as<VxQuaternion>().readFromString(value);
    case Tensor:
        return static_cast<int>(value - text) + as<veltrax::Tensor>().readFromString(value);
    case MatrixArray:
        return static_cast<int>(value - text) + as<veltrax::MatrixArray>().readFromString(value);
    case IntList:
        return static_cast<int>(value - text) + as<veltrax::IntList>().readFromString(value);
    case LabelList:
        return static_cast<int>(value - text) + as<veltrax::LabelList>().readFromString(value);
    case BinaryObject:
        return static_cast<int>(value - text) + as<veltrax::BinaryObject>().readFromString(value);
    default:
        return static_cast<int>(value - text);
    }
}

// ---- comparison and writing -------------------------------------------------------------

bool Variant::operator==(const Variant& other) const
{
    if (isString() && other.isString())
        return m_text == other.m_text;
    if (m_type != other.m_type)
        return false;
    switch (m_type) {
    case Bool:
        return as<bool>() == other.as<bool>();
    case Double:
        return as<double>() == other.as<double>();
    case Int32:
        return as<int32_t>() == other.as<int32_t>();
    case Int64:
        return as<int64_t>() == other.as<int64_t>();
    case Matrix:
        return as<VxMatrix>() == other.as<VxMatrix>();
    case Vector:
        return as<VxVector>() == other.as<VxVector>();
    case Quaternion:
        return as<VxQuaternion>() == other.as<VxQuaternion>();
    case Tensor:
        return as<veltrax::Tensor>() == other.as<veltrax::Tensor>();
    case MatrixArray:
        return as<veltrax::MatrixArray>() == other.as<veltrax::MatrixArray>();
    case IntList:
        return as<veltrax::IntList>() == other.as<veltrax::IntList>();
    case LabelList:
        return as<veltrax::LabelList>() == other.as<veltrax::LabelList>();
    case BinaryObject:
        return as<veltrax::BinaryObject>() == other.as<veltrax::BinaryObject>();
    default:
        return true; // Empty, or the same unknown tag without a value
    }
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
    if (value) {
        switch (type) {
        case Bool:
            fresh.m_store.b = *static_cast<const bool*>(value);
            break;
        case Double:
            std::memcpy(&fresh.m_store.d, value, 8);
            break;
        case Int32:
            std::memcpy(&fresh.m_store.i32, value, 4);
            break;
        case Int64:
            std::memcpy(&fresh.m_store.i64, value, 8);
            break;
        case ShortString:
        case LongString: {
            const char* text = static_cast<const char*>(value);
            fresh.m_text.assign(text, strnlen(text, stringLimit(type)));
            break;
        }
        case Matrix:
            fresh.as<VxMatrix>() = *static_cast<const VxMatrix*>(value);
            break;
        case Vector:
            fresh.as<VxVector>() = *static_cast<const VxVector*>(value);
            break;
        case Quaternion:
            fresh.as<VxQuaternion>() = *static_cast<const VxQuaternion*>(value);
            break;
        case Tensor:
            fresh.as<veltrax::Tensor>() = *static_cast<const veltrax::Tensor*>(value);
            break;
        case MatrixArray:
            fresh.as<veltrax::MatrixArray>() = *static_cast<const veltrax::MatrixArray*>(value);
            break;
        case IntList:
            fresh.as<veltrax::IntList>() = *static_cast<const veltrax::IntList*>(value);
            break;
        case LabelList:
            fresh.as<veltrax::LabelList>() = *static_cast<const veltrax::LabelList*>(value);
            break;
        case BinaryObject:
            fresh.as<veltrax::BinaryObject>() = *static_cast<const veltrax::BinaryObject*>(value);
            break;
        default:
            break;
        }
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

// ---- byte form --------------------------------------------------------------------------

int Variant::serialize(char* buffer) const
{
    char* p = buffer;
    switch (m_type) {
    case Bool:
        if (p) {
            p[0] = char(m_type);
            p[1] = as<bool>() ? 1 : 0;
        }
        return 2;
    case Double:
        if (p) {
            *p++ = char(m_type);
            store(p, as<double>());
        }
        return 9;
    case Int32:
        if (p) {
            *p++ = char(m_type);
            store(p, as<int32_t>());
        }
        return 5;
    case Int64:
        if (p) {
            *p++ = char(m_type);
            store(p, as<int64_t>());
        }
        return 9;
    case ShortString:
    case LongString:
        if (p) {
            *p++ = char(m_type);
            std::memcpy(p, m_text.c_str(), m_text.size() + 1);
        }
        return static_cast<int>(2 + m_text.size());
    case Matrix:
        if (p)
            *p++ = char(m_type);
        return 1 + as<VxMatrix>().serialize(p);
    case Vector:
        if (p)
            *p++ = char(m_type);
        return 1 + as<VxVector>().serialize(p);
    case Quaternion:
        if (p)
            *p++ = char(m_type);
        return 1 + as<VxQuaternion>().serialize(p);
    case Tensor:
        if (p)
            *p++ = char(m_type);
        return 1 + as<veltrax::Tensor>().serialize(p);
    case MatrixArray:
        if (p)
            *p++ = char(m_type);
        return 1 + as<veltrax::MatrixArray>().serialize(p);
    case IntList:
        if (p)
            *p++ = char(m_type);
        return 1 + as<veltrax::IntList>().serialize(p);
    case LabelList:
        if (p)
            *p++ = char(m_type);
        return 1 + as<veltrax::LabelList>().serialize(p);
    case BinaryObject:
        if (p)
            *p++ = char(m_type);
        return 1 + as<veltrax::BinaryObject>().serialize(p);
    default:
        // Empty and unknown tags: the tag alone.
        if (p)
            *p = char(m_type);
        return 1;
    }
}

void Variant::serialize(VxByteArray& out) const
{
    // The common kinds directly; the rest measure first, then write.
    switch (m_type) {
    case Bool: {
        char* p = out.grow(2);
        p[0] = char(m_type);
        p[1] = as<bool>() ? 1 : 0;
        return;
    }
    case Int32: {
        char* p = out.grow(5);
        *p++ = char(m_type);
        store(p, as<int32_t>());
        return;
    }
    case Double:
    case Int64: {
        char* p = out.grow(9);
        *p++ = char(m_type);
        store(p, as<int64_t>());
        return;
    }
    case ShortString:
    case LongString: {
        char* p = out.grow(m_text.size() + 2);
        *p++ = char(m_type);
        std::memcpy(p, m_text.c_str(), m_text.size() + 1);
        return;
    }
    default:
        break;
    }
    const int length = serialize(static_cast<char*>(nullptr));
    serialize(out.grow(size_t(length)));
}

int Variant::deserialize(const VxByteArray& in, int position)
{
    if (position < 0)
        throwOutOfRange();
    // At or past the end fewer than 2 bytes remain, too: nothing is read.
    if (size_t(position) >= in.size())
        return 0;
    return deserialize(in.data() + position, in.data() + in.size());
}

int Variant::deserialize(const char* data, const char* end)
{
    if (!data || end - data < 2)
        return 0;
    const Type tag = static_cast<Type>(static_cast<uint8_t>(data[0]));
    const char* p = data + 1;
    switch (tag) {
    case Bool:
        if (tag != m_type)
            makeDefault(tag);
        as<bool>() = *p != 0;
        return 2;
    case Double:
        need(p, end, 8);
        if (tag != m_type)
            makeDefault(tag);
        as<double>() = load<double>(p);
        return 9;
    case Int32:
        need(p, end, 4);
        if (tag != m_type)
            makeDefault(tag);
        as<int32_t>() = load<int32_t>(p);
        return 5;
    case Int64:
        need(p, end, 8);
        if (tag != m_type)
            makeDefault(tag);
        as<int64_t>() = load<int64_t>(p);
        return 9;
    case ShortString:
    case LongString: {
        const char* zero = static_cast<const char*>(std::memchr(p, 0, size_t(end - p)));
        if (!zero)
            throwOutOfRange();
        const size_t length = size_t(zero - p);
        if (tag != m_type)
            makeDefault(tag);
        // A text longer than the kind allows is cut, but consumed whole.
        m_text.assign(p, std::min(length, stringLimit(tag)));
        return static_cast<int>(length + 2);
    }
    default:
        break;
    }
    if (tag != m_type)
        makeDefault(tag);
    switch (tag) {
    case Matrix:
        return 1 + as<VxMatrix>().deserialize(p, end);
    case Vector:
        return 1 + as<VxVector>().deserialize(p, end);
    case Quaternion:
        return 1 + as<VxQuaternion>().deserialize(p, end);
    case Tensor:
        return 1 + as<veltrax::Tensor>().deserialize(p, end);
    case MatrixArray:
        return 1 + as<veltrax::MatrixArray>().deserialize(p, end);
    case IntList:
        return 1 + as<veltrax::IntList>().deserialize(p, end);
    case LabelList:
        return 1 + as<veltrax::LabelList>().deserialize(p, end);
    case BinaryObject:
        return 1 + as<veltrax::BinaryObject>().deserialize(p, end);
    default:
        return 1; // Empty, or a tag that is no kind: the tag alone
    }
}

} // namespace veltrax
