// SPDX-License-Identifier: MIT
//
// The math values a Variant can hold: matrix, vector, quaternion, tensor and matrix
// array, all of binary64 elements and kept in Eigen objects so that callers can compute
// with them directly. Each has the byte form of its kind in a settings tree's byte form
// (little-endian, unaligned) and a readable text form:
//
//   VxVector      [1,2.5,-3]
//   VxMatrix      [1,2;3,4]            rows separated by ';' (a matrix without elements is [])
//   VxQuaternion  [w,x,y,z]
//   Tensor        (2,3)[1,2,3,4,5,6]   shape, then the elements in storage order
//   MatrixArray   {[1,2;3,4],[5]}
//
// Numbers in text forms are written in the shortest form that reads back to the same
// binary64 value, independent of the C locale. Readers take what the writers produce
// plus white space between items; they stop at the first character that does not fit
// and return the characters consumed (0 when nothing could be read).
//
// Byte forms are read with bounded readers deserialize(data, end) that never look at a
// byte at or beyond `end` and throw std::out_of_range("index out of range") when the
// payload runs past it.
#pragma once

#include "vxcommon_export.h"

#include <Eigen/Core>
#include <Eigen/Geometry>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

/** A column vector of binary64. */
class VXCOMMON_EXPORT VxVector
{
public:
    using Storage = Eigen::VectorXd;

    VxVector() = default;
    /** @p size elements, all zero. */
    explicit VxVector(Eigen::Index size);
    VxVector(const double* values, size_t count);
    VxVector(std::initializer_list<double> values);
    explicit VxVector(const Storage& values)
        : m_data(values)
    {
    }

    Eigen::Index size() const { return m_data.size(); }
    bool empty() const { return m_data.size() == 0; }
    double& operator[](Eigen::Index i) { return m_data[i]; }
    double operator[](Eigen::Index i) const { return m_data[i]; }
    const double* data() const { return m_data.data(); }
    double* data() { return m_data.data(); }
    void resize(Eigen::Index size) { m_data.setZero(size); }
    Storage& eigen() { return m_data; }
    const Storage& eigen() const { return m_data; }

    bool operator==(const VxVector& other) const;
    bool operator!=(const VxVector& other) const { return !(*this == other); }
    /** Same size and every element within @p tolerance. */
    bool fuzzyIsEqual(const VxVector& other, double tolerance) const;

    /** Byte form: unsigned 32-bit count n, then n binary64. Null buffer: length only. */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    void writeToString(std::string& out) const;
    std::string toString() const;
    int readFromString(const char* text);

private:
    Storage m_data;
};

/** A matrix of binary64, stored row by row. */
class VXCOMMON_EXPORT VxMatrix
{
public:
    using Storage = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

    VxMatrix() = default;
    /** @p rows x @p cols, all zero. */
    VxMatrix(Eigen::Index rows, Eigen::Index cols);
    /** @p rows x @p cols from @p values given row by row (missing ones are zero). */
    VxMatrix(Eigen::Index rows, Eigen::Index cols, std::initializer_list<double> values);
    template <typename Derived>
    explicit VxMatrix(const Eigen::MatrixBase<Derived>& values)
        : m_data(values)
    {
    }

    Eigen::Index rows() const { return m_data.rows(); }
    Eigen::Index cols() const { return m_data.cols(); }
    Eigen::Index size() const { return m_data.size(); }
    bool empty() const { return m_data.size() == 0; }
    double& operator()(Eigen::Index r, Eigen::Index c) { return m_data(r, c); }
    double operator()(Eigen::Index r, Eigen::Index c) const { return m_data(r, c); }
    const double* data() const { return m_data.data(); }
    double* data() { return m_data.data(); }
    void resize(Eigen::Index rows, Eigen::Index cols) { m_data.setZero(rows, cols); }
    Storage& eigen() { return m_data; }
    const Storage& eigen() const { return m_data; }

    bool operator==(const VxMatrix& other) const;
    bool operator!=(const VxMatrix& other) const { return !(*this == other); }
    bool fuzzyIsEqual(const VxMatrix& other, double tolerance) const;

    /** Byte form: 32-bit rows r, 32-bit columns c, r*c binary64 row by row. Null buffer: length only. */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    void writeToString(std::string& out) const;
    std::string toString() const;
    int readFromString(const char* text);

private:
    Storage m_data;
};

/** A quaternion w + xi + yj + zk; the default is the identity. */
class VXCOMMON_EXPORT VxQuaternion
{
public:
    VxQuaternion() = default;
    VxQuaternion(double w, double x, double y, double z)
        : m_wxyz(w, x, y, z)
    {
    }
    explicit VxQuaternion(const Eigen::Quaterniond& q)
        : m_wxyz(q.w(), q.x(), q.y(), q.z())
    {
    }

    double w() const { return m_wxyz[0]; }
    double x() const { return m_wxyz[1]; }
    double y() const { return m_wxyz[2]; }
    double z() const { return m_wxyz[3]; }
    /** Component @p i in storage order w, x, y, z. */
    double operator[](int i) const { return m_wxyz[i]; }
    double& operator[](int i) { return m_wxyz[i]; }
    const double* data() const { return m_wxyz.data(); }
    Eigen::Quaterniond toEigen() const { return Eigen::Quaterniond(w(), x(), y(), z()); }
    void setIdentity() { m_wxyz = Eigen::Vector4d(1, 0, 0, 0); }

    /**
     * A valid quaternion has finite components and a squared norm within @p tolerance of
     * 1, so with tolerance 0 only exact unit quaternions pass.
     */
    bool isValid(double tolerance) const;

    bool operator==(const VxQuaternion& other) const { return m_wxyz == other.m_wxyz; }
    bool operator!=(const VxQuaternion& other) const { return !(*this == other); }
    bool fuzzyIsEqual(const VxQuaternion& other, double tolerance) const;

    /** Byte form: the four binary64 in storage order w, x, y, z (32 bytes). */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    void writeToString(std::string& out) const;
    std::string toString() const;
    int readFromString(const char* text);

private:
    Eigen::Vector4d m_wxyz {1, 0, 0, 0};
};

namespace veltrax
{

/**
 * A tensor of run-time rank: a shape and the elements in one flat array, the last index
 * running fastest. Rank 0 holds one element.
 */
class VXCOMMON_EXPORT Tensor
{
public:
    /** Rank 0, one zero element. */
    Tensor();
    /** The given shape, all elements zero. */
    explicit Tensor(const std::vector<uint64_t>& shape);
    Tensor(const std::vector<uint64_t>& shape, std::initializer_list<double> values);

    size_t rank() const { return m_shape.size(); }
    const std::vector<uint64_t>& shape() const { return m_shape; }
    /** Number of elements: the product of the shape (1 for rank 0). */
    Eigen::Index size() const { return m_elements.size(); }
    const Eigen::VectorXd& elements() const { return m_elements; }
    Eigen::VectorXd& elements() { return m_elements; }
    double& operator[](Eigen::Index i) { return m_elements[i]; }
    double operator[](Eigen::Index i) const { return m_elements[i]; }
    /** Replaces the shape; elements become zero. Throws std::length_error on overflow. */
    void reshape(const std::vector<uint64_t>& shape);

    bool operator==(const Tensor& other) const;
    bool operator!=(const Tensor& other) const { return !(*this == other); }
    bool fuzzyIsEqual(const Tensor& other, double tolerance) const;

    /**
     * Byte form: unsigned 64-bit rank k, k unsigned 64-bit sizes, then the elements.
     * Null buffer: length only.
     */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    void writeToString(std::string& out) const;
    std::string toString() const;
    int readFromString(const char* text);

private:
    std::vector<uint64_t> m_shape;
    Eigen::VectorXd m_elements;
};

/** An array of matrices of any sizes. */
class VXCOMMON_EXPORT MatrixArray
{
public:
    MatrixArray() = default;
    MatrixArray(std::initializer_list<VxMatrix> matrices)
        : m_matrices(matrices)
    {
    }

    size_t size() const { return m_matrices.size(); }
    bool empty() const { return m_matrices.empty(); }
    VxMatrix& operator[](size_t i) { return m_matrices[i]; }
    const VxMatrix& operator[](size_t i) const { return m_matrices[i]; }
    void append(const VxMatrix& m) { m_matrices.push_back(m); }
    void clear() { m_matrices.clear(); }
    std::vector<VxMatrix>& matrices() { return m_matrices; }
    const std::vector<VxMatrix>& matrices() const { return m_matrices; }

    bool operator==(const MatrixArray& other) const { return m_matrices == other.m_matrices; }
    bool operator!=(const MatrixArray& other) const { return !(*this == other); }
    bool fuzzyIsEqual(const MatrixArray& other, double tolerance) const;

    /** Byte form: unsigned 32-bit count k, then k matrices in their byte form. */
    int serialize(char* buffer) const;
    int deserialize(const char* data, const char* end);
    void writeToString(std::string& out) const;
    std::string toString() const;
    int readFromString(const char* text);

private:
    std::vector<VxMatrix> m_matrices;
};

} // namespace veltrax
