// Value model of the card platform: the tagged value that travels between the
// data store and its clients.
//
// On the card this header comes from the platform SDK; on a development host it
// is backed by the host implementation in platform/host. Only the API below is
// relied upon by libtarsel_modbus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace kq {

/* A point in time, in microseconds since the Unix epoch. */
struct CTimestamp {
    long long microseconds = 0;

    friend bool operator==(CTimestamp const& a, CTimestamp const& b) {
        return a.microseconds == b.microseconds;
    }
    friend bool operator!=(CTimestamp const& a, CTimestamp const& b) { return !(a == b); }
};

/* Thrown by the as_...() readers when a value cannot be represented in the
 * requested type (a text that is no number, bytes read as a number). */
class ConversionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/*
 * A tagged value. The alternatives and their order are fixed:
 *
 *   index 0  invalid (no value: the item is missing)
 *         1  bool
 *         2  int                 (signed 32-bit)
 *         3  long long           (signed 64-bit)
 *         4  unsigned int        (unsigned 32-bit)
 *         5  unsigned long long  (unsigned 64-bit)
 *         6  float
 *         7  double
 *         8  CTimestamp
 *         9  std::string
 *        10  byte vector
 *
 * Conversions made by the as_...() readers, never undefined behaviour:
 *  - invalid gives the zero of the target type (false, 0, 0.0, empty string) and
 *    never throws: accessors push invalid values whenever an item disappears.
 *  - number to number keeps the value; out of range saturates to the target's
 *    minimum or maximum (a negative number read as unsigned gives 0); a
 *    floating-point value read as an integer is truncated toward zero; NaN gives 0.
 *  - number to bool is a non-zero test (NaN is false).
 *  - bool to number is 0 or 1.
 *  - number to string is decimal text: integers as std::to_string gives them,
 *    floats and doubles in the shortest form that reads back to the same value
 *    ("12.5", "0.1", "1e+20", "nan", "inf"); bool gives "1" or "0".
 *  - string to number is a full decimal parse: surrounding white space is
 *    allowed, anything else left over is an error. Integers ("1500", "-3",
 *    "+7") and decimal numbers ("12.5", "1e3") are accepted; a decimal number
 *    read as an integer is truncated and saturated as above. A text that is no
 *    number throws ConversionError naming the text and the target type.
 *    "inf", "-inf" and "nan" (what floats turn into) read back as themselves;
 *    as integers they saturate or give 0. A magnitude beyond a float's or a
 *    double's range saturates to its largest finite value.
 *  - string to bool: "true"/"false", "yes"/"no", "on"/"off" (any case) or a
 *    number (non-zero is true); anything else throws ConversionError.
 *  - timestamp to number gives its microseconds; to string, its microseconds in
 *    decimal; to bool, a non-zero test.
 *  - bytes to string keeps the bytes; string to bytes likewise. Bytes read as a
 *    number or bool throw ConversionError, and so does any other valid value
 *    read as bytes.
 */
class CValue {
  public:
    using Bytes = std::vector<std::uint8_t>;

    enum class Type : std::size_t {
        Invalid = 0,
        Bool,
        Int32,
        Int64,
        Uint32,
        Uint64,
        Float,
        Double,
        Timestamp,
        String,
        ByteVector,
    };

    CValue() = default;
    CValue(bool v) : m_value(v) {}
    CValue(int v) : m_value(v) {}
    CValue(long long v) : m_value(v) {}
    CValue(unsigned int v) : m_value(v) {}
    CValue(unsigned long long v) : m_value(v) {}
    CValue(float v) : m_value(v) {}
    CValue(double v) : m_value(v) {}
    CValue(CTimestamp v) : m_value(v) {}
    CValue(std::string v) : m_value(std::move(v)) {}
    // Without this a string literal would silently become a bool.
    CValue(char const* v) : m_value(std::string(v)) {}
    CValue(Bytes v) : m_value(std::move(v)) {}

    Type type() const { return static_cast<Type>(m_value.index()); }
    std::size_t index() const { return m_value.index(); }
    bool isValid() const { return m_value.index() != 0; }

    bool as_bool() const;
    int as_int32() const;
    long long as_int64() const;
    unsigned int as_uint32() const;
    unsigned long long as_uint64() const;
    float as_float() const;
    double as_double() const;
    std::string as_string() const;
    Bytes as_bytes() const;

    /* A short readable form for logs and test output, e.g. "float 12.5",
     * "string \"abc\"", "invalid". */
    std::string toDebugString() const;

    /* Equal when both hold the same alternative with equal contents; values of
     * different alternatives are never equal (int 1 != bool true), and two
     * invalid values are equal. */
    friend bool operator==(CValue const& a, CValue const& b) { return a.m_value == b.m_value; }
    friend bool operator!=(CValue const& a, CValue const& b) { return !(a == b); }

  private:
    using Storage = std::variant<std::monostate, bool, int, long long, unsigned int,
                                 unsigned long long, float, double, CTimestamp, std::string, Bytes>;
    Storage m_value;
};

/* Name of a value's alternative ("invalid", "bool", "int32", ...). */
char const* typeName(CValue::Type type);

}  // namespace kq
