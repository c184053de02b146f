// SPDX-License-Identifier: MIT
#include "mathtypes.h"

#include "valueformat_p.h"

#include <algorithm>
#include <stdexcept>

using namespace veltrax::detail;

namespace
{

void appendElements(std::string& out, const double* values, Eigen::Index count)
{
    for (Eigen::Index i = 0; i < count; ++i) {
        if (i)
            out.push_back(',');
        appendDoubleShortest(out, values[i]);
    }
}

bool elementsFuzzyEqual(const double* a, const double* b, Eigen::Index count, double tolerance)
{
    for (Eigen::Index i = 0; i < count; ++i) {
        if (!(std::fabs(a[i] - b[i]) <= tolerance) && !(a[i] == b[i]))
            return false;
    }
    return true;
}

bool elementsEqual(const double* a, const double* b, Eigen::Index count)
{
    return std::equal(a, a + count, b);
}

/**
 * Reads "[a,b;c,d]" at p: numbers separated by ',' (or white space), rows by ';'.
 * Returns false when the text does not start with '['; an unterminated list ends at the
 * first character that does not fit.
 */
bool readNumberRows(const char*& p, std::vector<double>& values, std::vector<size_t>& rowEnds)
{
    const char* q = skipSpace(p);
    if (*q != '[')
        return false;
    ++q;
    values.clear();
    rowEnds.clear();
    for (;;) {
        q = skipSpace(q);
        double v;
        if (parseDouble(q, v)) {
            values.push_back(v);
            q = skipSpace(q);
            if (*q == ',')
                ++q;
            continue;
        }
        if (*q == ';') {
            rowEnds.push_back(values.size());
            ++q;
            continue;
        }
        break;
    }
    if (!values.empty() || !rowEnds.empty())
        rowEnds.push_back(values.size());
    if (*q == ']')
        ++q;
    p = q;
    return true;
}

} // namespace

// ---- VxVector ---------------------------------------------------------------------------

VxVector::VxVector(Eigen::Index size)
    : m_data(Storage::Zero(size))
{
}

VxVector::VxVector(const double* values, size_t count)
    : m_data(Eigen::Index(count))
{
    if (count)
        std::memcpy(m_data.data(), values, count * sizeof(double));
}

VxVector::VxVector(std::initializer_list<double> values)
    : VxVector(values.begin(), values.size())
{
}

bool VxVector::operator==(const VxVector& other) const
{
    return size() == other.size() && elementsEqual(data(), other.data(), size());
}

bool VxVector::fuzzyIsEqual(const VxVector& other, double tolerance) const
{
    return size() == other.size() && elementsFuzzyEqual(data(), other.data(), size(), tolerance);
}

int VxVector::serialize(char* buffer) const
{
    const size_t n = size_t(size());
    if (buffer) {
        store(buffer, static_cast<uint32_t>(n));
        if (n)
            std::memcpy(buffer, data(), n * 8);
    }
    return static_cast<int>(4 + 8 * n);
}

int VxVector::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint32_t n = read<uint32_t>(p, end);
    need(p, end, size_t(n) * 8);
    m_data.resize(n);
    if (n)
        std::memcpy(m_data.data(), p, size_t(n) * 8);
    return static_cast<int>(4 + size_t(n) * 8);
}

void VxVector::writeToString(std::string& out) const
{
    out.push_back('[');
    appendElements(out, data(), size());
    out.push_back(']');
}

std::string VxVector::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int VxVector::readFromString(const char* text)
{
    const char* p = text;
    std::vector<double> values;
    std::vector<size_t> rows;
    if (!readNumberRows(p, values, rows))
        return 0;
    *this = VxVector(values.data(), values.size());
    return static_cast<int>(p - text);
}

// ---- VxMatrix ---------------------------------------------------------------------------

VxMatrix::VxMatrix(Eigen::Index rows, Eigen::Index cols)
    : m_data(Storage::Zero(rows, cols))
{
}

VxMatrix::VxMatrix(Eigen::Index rows, Eigen::Index cols, std::initializer_list<double> values)
    : m_data(Storage::Zero(rows, cols))
{
    std::copy_n(values.begin(), std::min<size_t>(values.size(), size_t(rows * cols)), m_data.data());
}

bool VxMatrix::operator==(const VxMatrix& other) const
{
    return rows() == other.rows() && cols() == other.cols() && elementsEqual(data(), other.data(), size());
}

bool VxMatrix::fuzzyIsEqual(const VxMatrix& other, double tolerance) const
{
    return rows() == other.rows() && cols() == other.cols() && elementsFuzzyEqual(data(), other.data(), size(), tolerance);
}

int VxMatrix::serialize(char* buffer) const
{
    const size_t n = size_t(size());
    if (buffer) {
        store(buffer, static_cast<uint32_t>(rows()));
        store(buffer, static_cast<uint32_t>(cols()));
        if (n)
            std::memcpy(buffer, data(), n * 8);
    }
    return static_cast<int>(8 + 8 * n);
}

int VxMatrix::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint64_t r = read<uint32_t>(p, end);
    const uint64_t c = read<uint32_t>(p, end);
    const uint64_t n = r * c;
    if (p > end || n > size_t(end - p) / 8)
        throwOutOfRange();
    m_data.resize(Eigen::Index(r), Eigen::Index(c));
    if (n)
        std::memcpy(m_data.data(), p, n * 8);
    return static_cast<int>(8 + n * 8);
}

void VxMatrix::writeToString(std::string& out) const
{
    out.push_back('[');
    for (Eigen::Index r = 0; r < rows() && cols() > 0; ++r) {
        if (r)
            out.push_back(';');
        appendElements(out, data() + r * cols(), cols());
    }
    out.push_back(']');
}

std::string VxMatrix::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int VxMatrix::readFromString(const char* text)
{
    const char* p = text;
    std::vector<double> values;
    std::vector<size_t> rowEnds;
    if (!readNumberRows(p, values, rowEnds))
        return 0;
    // Rows of unequal length are padded with zeros to the longest.
    size_t cols = 0;
    size_t begin = 0;
    for (size_t e : rowEnds) {
        cols = std::max(cols, e - begin);
        begin = e;
    }
    m_data.setZero(Eigen::Index(cols ? rowEnds.size() : 0), Eigen::Index(cols));
    begin = 0;
    for (size_t r = 0; r < rowEnds.size() && cols; ++r) {
        std::copy(values.begin() + long(begin), values.begin() + long(rowEnds[r]), m_data.data() + r * cols);
        begin = rowEnds[r];
    }
    return static_cast<int>(p - text);
}

// ---- VxQuaternion -----------------------------------------------------------------------

bool VxQuaternion::isValid(double tolerance) const
{
    if (!m_wxyz.allFinite())
        return false;
    return std::fabs(m_wxyz.squaredNorm() - 1.0) <= tolerance;
}

bool VxQuaternion::fuzzyIsEqual(const VxQuaternion& other, double tolerance) const
{
    return elementsFuzzyEqual(data(), other.data(), 4, tolerance);
}

int VxQuaternion::serialize(char* buffer) const
{
    if (buffer)
        std::memcpy(buffer, data(), 32);
    return 32;
}

int VxQuaternion::deserialize(const char* data, const char* end)
{
    need(data, end, 32);
    std::memcpy(m_wxyz.data(), data, 32);
    return 32;
}

void VxQuaternion::writeToString(std::string& out) const
{
    out.push_back('[');
    appendElements(out, data(), 4);
    out.push_back(']');
}

std::string VxQuaternion::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int VxQuaternion::readFromString(const char* text)
{
    const char* p = text;
    std::vector<double> values;
    std::vector<size_t> rows;
    if (!readNumberRows(p, values, rows))
        return 0;
    m_wxyz.setZero();
    for (size_t i = 0; i < 4 && i < values.size(); ++i)
        m_wxyz[Eigen::Index(i)] = values[i];
    return static_cast<int>(p - text);
}

namespace veltrax
{

// ---- Tensor -----------------------------------------------------------------------------

namespace
{
// Product of the sizes, or false when it does not fit in 64 bits.
bool elementCount(const std::vector<uint64_t>& shape, uint64_t& count)
{
    count = 1;
    for (uint64_t d : shape) {
        if (d != 0 && count > UINT64_MAX / d)
            return false;
        count *= d;
    }
    return true;
}
} // namespace

Tensor::Tensor()
    : m_elements(Eigen::VectorXd::Zero(1))
{
}

Tensor::Tensor(const std::vector<uint64_t>& shape)
{
    reshape(shape);
}

Tensor::Tensor(const std::vector<uint64_t>& shape, std::initializer_list<double> values)
{
    reshape(shape);
    std::copy_n(values.begin(), std::min<size_t>(values.size(), size_t(size())), m_elements.data());
}

void Tensor::reshape(const std::vector<uint64_t>& shape)
{
    uint64_t n;
    if (!elementCount(shape, n) || n > uint64_t(PTRDIFF_MAX) / 8)
        throw std::length_error("tensor too large");
    m_shape = shape;
    m_elements.setZero(Eigen::Index(n));
}

bool Tensor::operator==(const Tensor& other) const
{
    return m_shape == other.m_shape && size() == other.size() && elementsEqual(m_elements.data(), other.m_elements.data(), size());
}

bool Tensor::fuzzyIsEqual(const Tensor& other, double tolerance) const
{
    return m_shape == other.m_shape && size() == other.size() && elementsFuzzyEqual(m_elements.data(), other.m_elements.data(), size(), tolerance);
}

int Tensor::serialize(char* buffer) const
{
    const size_t length = 8 + 8 * m_shape.size() + 8 * size_t(size());
    if (buffer) {
        store(buffer, static_cast<uint64_t>(m_shape.size()));
        for (uint64_t d : m_shape)
            store(buffer, d);
        if (size())
            std::memcpy(buffer, m_elements.data(), 8 * size_t(size()));
    }
    return static_cast<int>(length);
}

int Tensor::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint64_t rank = read<uint64_t>(p, end);
    if (p > end || rank > size_t(end - p) / 8)
        throwOutOfRange();
    std::vector<uint64_t> shape(rank);
    for (uint64_t& d : shape)
        d = read<uint64_t>(p, end);
    uint64_t n;
    if (!elementCount(shape, n) || n > size_t(end - p) / 8)
        throwOutOfRange();
    m_shape = std::move(shape);
    m_elements.resize(Eigen::Index(n));
    if (n)
        std::memcpy(m_elements.data(), p, n * 8);
    p += n * 8;
    return static_cast<int>(p - data);
}

void Tensor::writeToString(std::string& out) const
{
    out.push_back('(');
    for (size_t i = 0; i < m_shape.size(); ++i) {
        if (i)
            out.push_back(',');
        appendInteger(out, m_shape[i]);
    }
    out += ")[";
    appendElements(out, m_elements.data(), size());
    out.push_back(']');
}

std::string Tensor::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int Tensor::readFromString(const char* text)
{
    const char* p = skipSpace(text);
    if (*p != '(')
        return 0;
    ++p;
    std::vector<uint64_t> shape;
    for (;;) {
        uint64_t d;
        if (!parseInteger(p, d))
            break;
        shape.push_back(d);
        p = skipSpace(p);
        if (*p == ',')
            ++p;
    }
    p = skipSpace(p);
    if (*p != ')')
        return 0;
    ++p;
    std::vector<double> values;
    std::vector<size_t> rows;
    uint64_t n;
    // The text may claim any shape; refuse ones whose elements it could not have listed.
    if (!readNumberRows(p, values, rows) || !elementCount(shape, n) || n > std::max<uint64_t>(values.size(), 1))
        return 0;
    reshape(shape);
    std::copy_n(values.begin(), std::min<size_t>(values.size(), size_t(size())), m_elements.data());
    return static_cast<int>(p - text);
}

// ---- MatrixArray ------------------------------------------------------------------------

bool MatrixArray::fuzzyIsEqual(const MatrixArray& other, double tolerance) const
{
    if (size() != other.size())
        return false;
    for (size_t i = 0; i < size(); ++i) {
        if (!m_matrices[i].fuzzyIsEqual(other.m_matrices[i], tolerance))
            return false;
    }
    return true;
}

int MatrixArray::serialize(char* buffer) const
{
    size_t length = 4;
    if (buffer)
        store(buffer, static_cast<uint32_t>(m_matrices.size()));
    for (const VxMatrix& m : m_matrices) {
        const int n = m.serialize(buffer);
        if (buffer)
            buffer += n;
        length += size_t(n);
    }
    return static_cast<int>(length);
}

int MatrixArray::deserialize(const char* data, const char* end)
{
    const char* p = data;
    const uint32_t k = read<uint32_t>(p, end);
    std::vector<VxMatrix> matrices;
    matrices.reserve(std::min<size_t>(k, size_t(end - p) / 8)); // a matrix takes at least 8 bytes
    for (uint32_t i = 0; i < k; ++i) {
        VxMatrix m;
        p += m.deserialize(p, end);
        matrices.push_back(std::move(m));
    }
    m_matrices = std::move(matrices);
    return static_cast<int>(p - data);
}

void MatrixArray::writeToString(std::string& out) const
{
    out.push_back('{');
    for (size_t i = 0; i < m_matrices.size(); ++i) {
        if (i)
            out.push_back(',');
        m_matrices[i].writeToString(out);
    }
    out.push_back('}');
}

std::string MatrixArray::toString() const
{
    std::string s;
    writeToString(s);
    return s;
}

int MatrixArray::readFromString(const char* text)
{
    const char* p = skipSpace(text);
    if (*p != '{')
        return 0;
    ++p;
    m_matrices.clear();
    for (;;) {
        p = skipSpace(p);
        VxMatrix m;
        const int n = m.readFromString(p);
        if (n == 0)
            break;
        p += n;
        m_matrices.push_back(std::move(m));
        p = skipSpace(p);
        if (*p == ',')
            ++p;
    }
    p = skipSpace(p);
    if (*p == '}')
        ++p;
    return static_cast<int>(p - text);
}

} // namespace veltrax
