// SPDX-License-Identifier: MIT
//
// The variant's conversions to numbers, texts and containers.
#include "variant_p.h"

#include <algorithm>
#include <cmath>
#include <strings.h>

namespace veltrax
{

using namespace detail;

namespace
{

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

} // namespace


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

} // namespace veltrax
