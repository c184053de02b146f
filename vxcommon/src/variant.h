// SPDX-License-Identifier: MIT
//
// The tagged value of one setting in a settings tree: fifteen kinds from a flag to a
// matrix array. The kind numbers are ASCII letters and double as the tags of the byte
// form, so they must never change.
#pragma once

#include "lists.h"
#include "mathtypes.h"
#include "vxcommon_export.h"
#include "vxtypes.h"

#include <cstdint>
#include <string>

namespace veltrax
{

/**
 * One value of one of fifteen kinds.
 *
 * Flags and numbers live inside the variant; every other kind is a separately allocated
 * object that the variant owns, except for a variant made by fromReference(), which
 * reads and writes an object of the caller in place and never frees it.
 *
 * Texts shorter than 256 characters are ShortString, longer ones LongString cut to
 * their first 16383 characters. A Variant copies deeply.
 *
 * Conversions throw VxException when the kind or the size does not allow them; the
 * variant is unchanged by a failed conversion. Conversion operators are explicit so
 * that comparisons such as `v == 5` stay unambiguous; use the to...() functions or a
 * cast.
 */
class VXCOMMON_EXPORT Variant
{
public:
    /** The kind; the numbers are the byte-form tags. */
    enum Type : uint8_t {
        Empty = 0,
        MatrixArray = 0x41, // 'A'
        Bool = 0x42, // 'B'
        Double = 0x46, // 'F'
        Int32 = 0x49, // 'I'
        Int64 = 0x4A, // 'J'
        IntList = 0x4C, // 'L'
        Matrix = 0x4D, // 'M'
        BinaryObject = 0x4E, // 'N'
        Quaternion = 0x51, // 'Q'
        ShortString = 0x53, // 'S'
        LongString = 0x54, // 'T'
        LabelList = 0x55, // 'U'
        Vector = 0x56, // 'V'
        Tensor = 0x59, // 'Y'
    };

    /** Longest text of a ShortString and of a LongString. */
    static constexpr size_t ShortStringMax = 255;
    static constexpr size_t LongStringMax = 16383;

    Variant() = default;
    Variant(bool value);
    Variant(float value);
    Variant(double value);
    Variant(int value);
    Variant(unsigned int value);
    Variant(long value);
    Variant(unsigned long value);
    Variant(long long value);
    Variant(unsigned long long value);
    Variant(const VxMatrix& value);
    Variant(const veltrax::Tensor& value);
    Variant(const VxQuaternion& value);
    Variant(const VxVector& value);
    Variant(const double* values, size_t count);
    Variant(const VxIntArray& value);
    Variant(const veltrax::IntList& value);
    Variant(const VxStringArray& value);
    Variant(const veltrax::LabelList& value);
    Variant(const veltrax::BinaryObject& value);
    Variant(const veltrax::MatrixArray& value);
    Variant(const char* text);
    Variant(const VxString& text);
    Variant(const std::string& text);

    /** Deep copy; the copy owns its value even when @p other is a reference. */
    Variant(const Variant& other);
    /** Takes over the value (and the reference, if any) of @p other, which becomes Empty. */
    Variant(Variant&& other) noexcept;
    /**
     * Deep copy. A reference variant of the same kind as @p other writes the value into
     * the object it refers to; otherwise this variant lets go of its value first.
     */
    Variant& operator=(const Variant& other);
    Variant& operator=(Variant&& other) noexcept;
    ~Variant();

    /** Variants that read and write the caller's object in place; it must outlive them. */
    static Variant fromReference(bool& value);
    static Variant fromReference(double& value);
    static Variant fromReference(int& value);
    static Variant fromReference(unsigned int& value);
    static Variant fromReference(long& value);
    static Variant fromReference(unsigned long& value);
    static Variant fromReference(VxMatrix& value);
    static Variant fromReference(veltrax::Tensor& value);
    static Variant fromReference(VxQuaternion& value);
    static Variant fromReference(VxVector& value);
    static Variant fromReference(veltrax::IntList& value);
    static Variant fromReference(veltrax::LabelList& value);
    static Variant fromReference(veltrax::BinaryObject& value);
    static Variant fromReference(veltrax::MatrixArray& value);
    /** True when this variant refers to the object at @p object. */
    bool isReference(const void* object) const;
    bool isReference() const { return m_isReference; }

    Type type() const { return m_type; }
    bool empty() const { return m_type == Empty; }
    bool isString() const { return m_type == ShortString || m_type == LongString; }
    /** Display name of this variant's kind. */
    std::string typeName() const { return nameOfType(m_type); }
    /** Display name of kind @p type ("bool", "String", ...); empty for an unknown number. */
    static std::string nameOfType(int type);
    /** True when @p type is one of the fifteen kinds. */
    static bool isKnownType(int type);

    // Scalars. Integer kinds convert bit for bit between signed and unsigned of the same
    // width (Int32 serves both int32_t and uint32_t); floating values are rounded half
    // away from zero (a one-element Tensor's is truncated) and saturate at the target's
    // range. Texts are read after optional white space and sign up to the first character
    // that does not fit: decimal or 0x-hex digits for integer targets, a decimal number
    // (or inf, nan) for floating ones; a text that starts with no number gives 0.
    bool toBool() const;
    int64_t toInt64() const;
    int32_t toInt32() const;
    uint32_t toUint32() const;
    uint64_t toUint64() const;
    float toFloat() const;
    double toDouble() const;
    double toVxReal() const { return toDouble(); }
    explicit operator bool() const { return toBool(); }
    explicit operator long() const { return toInt64(); }
    explicit operator int() const { return toInt32(); }
    explicit operator unsigned int() const { return toUint32(); }
    explicit operator unsigned long() const { return toUint64(); }
    explicit operator float() const { return toFloat(); }
    explicit operator double() const { return toDouble(); }

    /** The text of a string, or the label of a one-label list. */
    std::string toStdString() const;
    VxString toVxString() const;
    explicit operator std::string() const { return toStdString(); }
    explicit operator VxString() const { return toVxString(); }

    // Containers. Each accepts its own kind and the obvious neighbours (documented in the
    // source); any other kind throws "Type does not allow conversion to <kind name>".
    veltrax::BinaryObject toBinaryObject() const;
    veltrax::IntList toIntList() const;
    veltrax::LabelList toLabelList() const;
    VxMatrix toMatrix() const;
    VxVector toVector() const;
    VxQuaternion toQuaternion() const;
    veltrax::Tensor toTensor() const;
    veltrax::MatrixArray toMatrixArray() const;
    VxIntArray toVxIntArray() const;
    VxStringArray toVxStringArray() const;
    explicit operator veltrax::BinaryObject() const { return toBinaryObject(); }
    explicit operator veltrax::IntList() const { return toIntList(); }
    explicit operator veltrax::LabelList() const { return toLabelList(); }
    explicit operator VxMatrix() const { return toMatrix(); }
    explicit operator VxVector() const { return toVector(); }
    explicit operator VxQuaternion() const { return toQuaternion(); }
    explicit operator veltrax::Tensor() const { return toTensor(); }
    explicit operator veltrax::MatrixArray() const { return toMatrixArray(); }
    explicit operator VxIntArray() const { return toVxIntArray(); }
    explicit operator VxStringArray() const { return toVxStringArray(); }

    // Read access to the held value without a copy. The kind must match exactly (Int32
    // for both 32-bit forms, Int64 for both 64-bit forms, either string kind for the C
    // string); otherwise VxException "Type does not allow conversion to <kind name>".
    const bool& toConstBool() const;
    const int32_t& toConstInt32() const;
    const uint32_t& toConstUint32() const;
    const double& toConstDouble() const;
    const double& toConstVxReal() const { return toConstDouble(); }
    const int64_t& toConstInt64() const;
    const uint64_t& toConstUint64() const;
    const VxVector& toConstVector() const;
    const VxMatrix& toConstMatrix() const;
    const veltrax::Tensor& toConstTensor() const;
    const veltrax::MatrixArray& toConstMatrixArray() const;
    const VxQuaternion& toConstQuaternion() const;
    const veltrax::IntList& toConstIntList() const;
    const veltrax::LabelList& toConstLabelList() const;
    const veltrax::BinaryObject& toConstBinaryObject() const;
    const char* toConstCString() const;

    /**
     * JSON text of the value; see the source for the per-kind table. Strings are written
     * as they stand (nothing is escaped) and in quotes unless @p bare; the text "null"
     * is written bare. Throws std::logic_error for Empty and unknown kinds.
     */
    std::string toJsonString(bool bare = false) const;

    /**
     * Same kind and equal value. The two string kinds compare by text; numbers of
     * different kinds are not equal.
     */
    bool operator==(const Variant& other) const;
    bool operator!=(const Variant& other) const { return !(*this == other); }
    /**
     * Like ==, but floating-point values (also inside containers) may differ by
     * @p tolerance, and numbers of different scalar kinds (Bool, Int32, Int64, Double)
     * compare by value.
     */
    bool fuzzyIsEqual(const Variant& other, double tolerance) const;
    /** Same kind. */
    bool typeMatches(const Variant& other) const { return m_type == other.m_type; }

    /**
     * Replaces kind and value with a copy of the object of kind @p type at @p value (for
     * the string kinds a zero-terminated text); a null @p value gives the kind's default.
     * With @p asReference set (and a non-null value of a kind that fromReference()
     * supports) the variant refers to that object instead of copying it.
     */
    void set(Type type, const void* value, bool asReference = false);
    /**
     * Converts the value of @p other into this variant's kind and stores it; an Empty
     * variant simply takes a copy. Strings take the other value's plain text form.
     */
    void setValueKeepType(const Variant& other);
    /** Frees the value (a reference is only forgotten) and makes the variant Empty. */
    void clear();
    /**
     * Resets the value of the present kind in place: false, 0, empty texts and lists,
     * empty containers, and the identity for a quaternion.
     */
    void zeroValue();

    /**
     * Appends the plain text of the value: "Y"/"N", "%.16g", "%d" (or "0x%X" when
     * @p hex), the text of strings, the text form of containers; nothing for Empty.
     * Returns the number of characters appended.
     */
    int writeContentsToString(std::string& text, bool hex = false) const;
    /** Appends tag letter, ':' and the contents; returns the characters appended. */
    int writeToString(std::string& text) const;
    /**
     * Reads the text form made by writeToString() from the zero-terminated @p text.
     * Strings take the rest of the text without trailing CR/LF; with @p hexText they are
     * decoded from hexadecimal. A tag that is no kind gives a variant of that tag
     * without a value (type() returns it, it converts to nothing and is written back as
     * it came); an empty text gives Empty. Returns the characters consumed.
     */
    int readFromString(const char* text, bool hexText = false);

    /** Appends tag and payload to @p out. */
    void serialize(VxByteArray& out) const;
    /** Writes tag and payload to @p buffer and returns their length; a null buffer only measures. */
    int serialize(char* buffer) const;
    /**
     * Reads tag and payload at @p position of @p in; returns the bytes consumed. Fewer
     * than 2 bytes left, or a position past the end: nothing is read and 0 is returned (a
     * negative position throws std::out_of_range). A payload that runs past the
     * data throws std::out_of_range("index out of range"). A tag that is no kind gives
     * a variant of that tag without a value and consumes the tag byte alone.
     */
    int deserialize(const VxByteArray& in, int position);
    /** The same on the bytes [data, end). */
    int deserialize(const char* data, const char* end);

private:
    template <typename T> T& as() const;
    /** The held value when the kind is @p kind; throws as the toConst...() functions do. */
    template <typename T> const T& exactly(Type kind) const;
    void makeDefault(Type type);
    void copyValueFrom(const Variant& other);
    void moveFrom(Variant& other) noexcept;
    void setText(const char* text, size_t length);
    void setReference(Type type, void* object);
    [[noreturn]] void throwBadType(Type target) const;

    Type m_type = Empty;
    bool m_isReference = false;
    // Scalars live in m_store unless the variant is a reference; every other kind
    // (except the strings, kept in m_text) lives behind m_value.
    union {
        bool b;
        double d;
        int32_t i32;
        int64_t i64;
    } m_store {};
    void* m_value = nullptr;
    std::string m_text;
};

} // namespace veltrax
