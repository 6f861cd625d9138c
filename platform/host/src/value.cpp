// Host implementation of the readers of kq::CValue. Every conversion is
// defined for every input: out-of-range numbers saturate, NaN reads as zero,
// and texts are parsed completely or rejected with a ConversionError.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "kq/value.h"

namespace kq {

namespace {

/* ---- Number to number ------------------------------------------------- */

/* An integer into the integer type T, clamped to T's range. */
template <typename T, typename S>
T saturateInteger(S v) {
    static_assert(std::is_integral_v<T> && std::is_integral_v<S>);
    using TL = std::numeric_limits<T>;
    if constexpr (std::is_signed_v<S>) {
        if (v < 0) {
            if constexpr (std::is_unsigned_v<T>) {
                return 0;
            } else {
                return static_cast<long long>(v) < static_cast<long long>(TL::min())
                           ? TL::min()
                           : static_cast<T>(v);
            }
        }
    }
    // v is not negative here, so comparing as unsigned long long is exact.
    auto const magnitude = static_cast<unsigned long long>(v);
    return magnitude > static_cast<unsigned long long>(TL::max()) ? TL::max() : static_cast<T>(v);
}

/* A floating-point value into the integer type T: truncated toward zero,
 * clamped to T's range, NaN as 0. */
template <typename T>
T saturateFloating(double d) {
    static_assert(std::is_integral_v<T>);
    if (std::isnan(d)) {
        return 0;
    }
    double const t = std::trunc(d);
    // 2^digits is one past T's maximum and exactly representable as a double,
    // unlike the maximum of a 64-bit type.
    double const pastMax = std::ldexp(1.0, std::numeric_limits<T>::digits);
    if (t >= pastMax) {
        return std::numeric_limits<T>::max();
    }
    // T's minimum (0 or -2^digits) is exactly representable.
    if (t < static_cast<double>(std::numeric_limits<T>::min())) {
        return std::numeric_limits<T>::min();
    }
    return static_cast<T>(t);
}

/* A double into a float: finite values beyond float's range clamp to its
 * largest finite value; infinities and NaN stay what they are. */
float narrowToFloat(double d) {
    constexpr double kMax = std::numeric_limits<float>::max();
    if (std::isfinite(d) && d > kMax) {
        return std::numeric_limits<float>::max();
    }
    if (std::isfinite(d) && d < -kMax) {
        return std::numeric_limits<float>::lowest();
    }
    return static_cast<float>(d);
}

/* ---- Text to number ---------------------------------------------------- */

[[noreturn]] void throwConversion(std::string const& what, char const* target) {
    throw ConversionError("cannot convert " + what + " to " + target);
}

std::string quoted(std::string const& text) {
    return "\"" + text + "\"";
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

/* What a trimmed text is, as far as the decimal grammar goes. */
enum class NumberForm { NotANumber, Integer, Decimal, NonFinite };

/* [sign] digits, or [sign] (digits [. digits] | . digits) [e [sign] digits],
 * or [sign] inf / infinity / nan (what the float-to-text conversion writes). */
NumberForm classify(std::string_view s) {
    std::size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        ++i;
    }
    std::string_view const unsigned_part = s.substr(i);
    if (equalsIgnoreCase(unsigned_part, "inf") || equalsIgnoreCase(unsigned_part, "infinity") ||
        equalsIgnoreCase(unsigned_part, "nan")) {
        return NumberForm::NonFinite;
    }
    std::size_t intDigits = 0;
    while (i < s.size() && isDigit(s[i])) {
        ++i;
        ++intDigits;
    }
    bool decimal = false;
    std::size_t fracDigits = 0;
    if (i < s.size() && s[i] == '.') {
        decimal = true;
        ++i;
        while (i < s.size() && isDigit(s[i])) {
            ++i;
            ++fracDigits;
        }
    }
    if (intDigits + fracDigits == 0) {
        return NumberForm::NotANumber;
    }
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        decimal = true;
        ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
            ++i;
        }
        std::size_t expDigits = 0;
        while (i < s.size() && isDigit(s[i])) {
            ++i;
            ++expDigits;
        }
        if (expDigits == 0) {
            return NumberForm::NotANumber;
        }
    }
    if (i != s.size()) {
        return NumberForm::NotANumber;
    }
    return decimal ? NumberForm::Decimal : NumberForm::Integer;
}

/* Parses a text of the decimal grammar into F (float or double). A magnitude
 * too large for F clamps to F's largest finite value, one too small gives 0. */
template <typename F>
F parseFloating(std::string_view s) {
    bool const negative = !s.empty() && s.front() == '-';
    if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
        s.remove_prefix(1);  // from_chars takes no '+', and the sign is applied below
    }
    F value = 0;
    auto const [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    (void)end;
    if (ec == std::errc::result_out_of_range) {
        // Tell overflow from underflow by the decimal exponent of the leading digit.
        std::size_t const ePos = s.find_first_of("eE");
        std::string_view const mantissa = s.substr(0, ePos);
        long long exponent = 0;
        if (ePos != std::string_view::npos) {
            std::string_view e = s.substr(ePos + 1);
            bool const eNegative = !e.empty() && e.front() == '-';
            if (!e.empty() && (e.front() == '+' || e.front() == '-')) {
                e.remove_prefix(1);
            }
            for (char c : e) {
                exponent = std::min(exponent * 10 + (c - '0'), 1000000LL);
            }
            exponent = eNegative ? -exponent : exponent;
        }
        std::size_t const firstNonZero = mantissa.find_first_not_of("0.");
        std::size_t const point = std::min(mantissa.find('.'), mantissa.size());
        long long const leadPosition = firstNonZero < point
                                           ? static_cast<long long>(point - firstNonZero - 1)
                                           : -static_cast<long long>(firstNonZero - point);
        value = leadPosition + exponent > 0 ? std::numeric_limits<F>::max() : F(0);
    }
    return negative ? -value : value;
}

/* The value of "inf", "-infinity", "nan" and the like. */
double parseNonFinite(std::string_view s) {
    bool const negative = !s.empty() && s.front() == '-';
    if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
        s.remove_prefix(1);
    }
    if (equalsIgnoreCase(s, "nan")) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    double const inf = std::numeric_limits<double>::infinity();
    return negative ? -inf : inf;
}

/* The integer type T from a text of the Integer form, clamped to T's range. */
template <typename T>
T parseInteger(std::string_view s) {
    if (!s.empty() && s.front() == '+') {
        s.remove_prefix(1);
    }
    bool const negative = !s.empty() && s.front() == '-';
    if (negative) {
        long long v = 0;
        auto const [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
        (void)end;
        if (ec == std::errc::result_out_of_range) {
            return std::numeric_limits<T>::min();
        }
        return saturateInteger<T>(v);
    }
    unsigned long long v = 0;
    auto const [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    (void)end;
    if (ec == std::errc::result_out_of_range) {
        return std::numeric_limits<T>::max();
    }
    return saturateInteger<T>(v);
}

/* The integer type T from any text; throws when the text is no number. */
template <typename T>
T textToInteger(std::string const& text, char const* target) {
    std::string_view const s = trim(text);
    switch (classify(s)) {
        case NumberForm::Integer:
            return parseInteger<T>(s);
        case NumberForm::Decimal:
            return saturateFloating<T>(parseFloating<double>(s));
        case NumberForm::NonFinite:
            return saturateFloating<T>(parseNonFinite(s));
        case NumberForm::NotANumber:
            break;
    }
    throwConversion(quoted(text), target);
}

/* float or double from any text; throws when the text is no number. */
template <typename F>
F textToFloating(std::string const& text, char const* target) {
    std::string_view const s = trim(text);
    switch (classify(s)) {
        case NumberForm::Integer:
        case NumberForm::Decimal:
            return parseFloating<F>(s);
        case NumberForm::NonFinite:
            return static_cast<F>(parseNonFinite(s));
        case NumberForm::NotANumber:
            break;
    }
    throwConversion(quoted(text), target);
}

bool textToBool(std::string const& text) {
    std::string_view const s = trim(text);
    for (char const* word : {"true", "yes", "on"}) {
        if (equalsIgnoreCase(s, word)) {
            return true;
        }
    }
    for (char const* word : {"false", "no", "off"}) {
        if (equalsIgnoreCase(s, word)) {
            return false;
        }
    }
    switch (classify(s)) {
        case NumberForm::Integer:
        case NumberForm::Decimal:
            return parseFloating<double>(s) != 0.0;
        case NumberForm::NonFinite: {
            double const d = parseNonFinite(s);
            return !std::isnan(d) && d != 0.0;
        }
        case NumberForm::NotANumber:
            break;
    }
    throwConversion(quoted(text), "bool");
}

/* ---- Number to text ---------------------------------------------------- */

/* The shortest decimal text that reads back as the same value. */
template <typename F>
std::string floatingToText(F value) {
    if (std::isnan(value)) {
        return "nan";  // the sign of a NaN carries no meaning for a reader
    }
    char buffer[64];
    auto const [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    (void)ec;  // 64 characters hold every float and double
    return std::string(buffer, end);
}

std::string bytesToDebug(CValue::Bytes const& bytes) {
    std::string out = "[";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned>(bytes[i]));
        out += (i == 0 ? "" : " ");
        out += hex;
    }
    return out + "]";
}

template <class... Fs>
struct Overloaded : Fs... {
    using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

/* Reads a stored alternative as the integer type T. */
template <typename T, typename Storage>
[[gnu::noinline]] T readInteger(Storage const& storage, char const* target) {
    return std::visit(
        Overloaded{
            [](std::monostate) -> T { return 0; },
            [](bool b) -> T { return b ? 1 : 0; },
            [](CTimestamp t) -> T { return saturateInteger<T>(t.microseconds); },
            [target](std::string const& s) -> T { return textToInteger<T>(s, target); },
            [target](CValue::Bytes const&) -> T { throwConversion("bytes", target); },
            [](auto v) -> T {
                if constexpr (std::is_floating_point_v<decltype(v)>) {
                    return saturateFloating<T>(v);
                } else {
                    return saturateInteger<T>(v);
                }
            },
        },
        storage);
}

/* as_float() of every other alternative: out of line, so that a float
 * itself is answered without the conversions' stack frame. */
template <typename Storage>
[[gnu::noinline]] float readFloat(Storage const& storage) {
    return std::visit(
        Overloaded{
            [](std::monostate) { return 0.0f; }, [](bool b) { return b ? 1.0f : 0.0f; },
            [](CTimestamp t) { return static_cast<float>(t.microseconds); },
            // Parsed straight into a float: going through a double first could round twice.
            [](std::string const& s) { return textToFloating<float>(s, "float"); },
            [](CValue::Bytes const&) -> float { throwConversion("bytes", "float"); },
            [](double d) { return narrowToFloat(d); },
            [](auto v) { return static_cast<float>(v); },  // float itself and every integer
        },
        storage);
}

/* as_bool() of every other alternative, out of line like readFloat(). */
template <typename Storage>
[[gnu::noinline]] bool readBool(Storage const& storage) {
    return std::visit(Overloaded{
                          [](std::monostate) { return false; },
                          [](bool b) { return b; },
                          [](CTimestamp t) { return t.microseconds != 0; },
                          [](std::string const& s) { return textToBool(s); },
                          [](CValue::Bytes const&) -> bool { throwConversion("bytes", "bool"); },
                          [](auto v) {
                              // NaN compares unequal to everything, so test it first: NaN is false.
                              if constexpr (std::is_floating_point_v<decltype(v)>) {
                                  return !std::isnan(v) && v != 0;
                              } else {
                                  return v != 0;
                              }
                          },
                      },
                      storage);
}

/* Reads a stored alternative as a double (floats widen exactly). */
template <typename Storage>
double readDouble(Storage const& storage) {
    return std::visit(
        Overloaded{
            [](std::monostate) { return 0.0; },
            [](bool b) { return b ? 1.0 : 0.0; },
            [](CTimestamp t) { return static_cast<double>(t.microseconds); },
            [](std::string const& s) { return textToFloating<double>(s, "double"); },
            [](CValue::Bytes const&) -> double { throwConversion("bytes", "double"); },
            [](auto v) { return static_cast<double>(v); },
        },
        storage);
}

}  // namespace

// The readers a served map calls on every request answer a value of their own
// type before any conversion is considered.

bool CValue::as_bool() const {
    if (bool const* same = std::get_if<bool>(&m_value)) {
        return *same;
    }
    return readBool(m_value);
}

int CValue::as_int32() const {
    if (int const* same = std::get_if<int>(&m_value)) {
        return *same;
    }
    return readInteger<int>(m_value, "int32");
}

long long CValue::as_int64() const {
    return readInteger<long long>(m_value, "int64");
}

unsigned int CValue::as_uint32() const {
    if (unsigned int const* same = std::get_if<unsigned int>(&m_value)) {
        return *same;
    }
    return readInteger<unsigned int>(m_value, "uint32");
}

unsigned long long CValue::as_uint64() const {
    return readInteger<unsigned long long>(m_value, "uint64");
}

float CValue::as_float() const {
    if (float const* same = std::get_if<float>(&m_value)) {
        return *same;
    }
    return readFloat(m_value);
}

double CValue::as_double() const {
    return readDouble(m_value);
}

std::string CValue::as_string() const {
    return std::visit(Overloaded{
                          [](std::monostate) { return std::string(); },
                          [](bool b) { return std::string(b ? "1" : "0"); },
                          [](CTimestamp t) { return std::to_string(t.microseconds); },
                          [](std::string const& s) { return s; },
                          [](Bytes const& b) { return std::string(b.begin(), b.end()); },
                          [](auto v) {
                              if constexpr (std::is_floating_point_v<decltype(v)>) {
                                  return floatingToText(v);
                              } else {
                                  return std::to_string(v);
                              }
                          },
                      },
                      m_value);
}

CValue::Bytes CValue::as_bytes() const {
    if (auto const* bytes = std::get_if<Bytes>(&m_value)) {
        return *bytes;
    }
    if (auto const* text = std::get_if<std::string>(&m_value)) {
        return Bytes(text->begin(), text->end());
    }
    if (!isValid()) {
        return {};
    }
    // Numbers have no byte form of their own; their text is not silently taken.
    throwConversion(std::string(typeName(type())) + " " + as_string(), "bytes");
}

std::string CValue::toDebugString() const {
    std::string const name = typeName(type());
    switch (type()) {
        case Type::Invalid:
            return name;
        case Type::Bool:
            return name + (std::get<bool>(m_value) ? " true" : " false");
        case Type::String:
            return name + " " + quoted(std::get<std::string>(m_value));
        case Type::ByteVector:
            return name + " " + bytesToDebug(std::get<Bytes>(m_value));
        default:
            return name + " " + as_string();
    }
}

char const* typeName(CValue::Type type) {
    switch (type) {
        case CValue::Type::Invalid:
            return "invalid";
        case CValue::Type::Bool:
            return "bool";
        case CValue::Type::Int32:
            return "int32";
        case CValue::Type::Int64:
            return "int64";
        case CValue::Type::Uint32:
            return "uint32";
        case CValue::Type::Uint64:
            return "uint64";
        case CValue::Type::Float:
            return "float";
        case CValue::Type::Double:
            return "double";
        case CValue::Type::Timestamp:
            return "timestamp";
        case CValue::Type::String:
            return "string";
        case CValue::Type::ByteVector:
            return "bytes";
    }
    return "unknown";
}

}  // namespace kq
