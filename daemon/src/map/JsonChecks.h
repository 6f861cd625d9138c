// Typed reads of JSON fields that report problems instead of throwing, so a
// file can be checked completely and every error listed at once.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarsel::daemon {

class JsonView;

/* Field names, looked up by std::string or std::string_view. */
using FieldNames = std::set<std::string, std::less<>>;

/* The reads work on a nlohmann::json or on a JsonView (a document parsed by
 * simdjson): one checking code serves both readings of a file. */
class JsonChecker {
  public:
    using json = nlohmann::json;

    void error(std::string const& where, std::string const& what);
    bool hasErrors() const { return !m_errors.empty(); }
    std::vector<std::string> const& errors() const { return m_errors; }

    /* Each read returns nothing when the field is absent (reporting it when
     * required) or of the wrong type (always reported). */
    template <class Json>
    std::optional<long long> integer(Json const& object, char const* key, std::string const& where,
                                     long long min, long long max, bool required);
    template <class Json>
    std::optional<double> number(Json const& object, char const* key, std::string const& where,
                                 bool required);
    template <class Json>
    std::optional<std::string> text(Json const& object, char const* key, std::string const& where,
                                    bool required);
    template <class Json>
    std::optional<bool> boolean(Json const& object, char const* key, std::string const& where,
                                bool required);

    /* Reports every key of the object that is not in allowed. */
    template <class Json>
    void unknownFields(Json const& object, std::string const& where, FieldNames const& allowed,
                       std::string const& context);

    /* Reports a value that is not an object; true when it is one. */
    template <class Json>
    bool expectObject(Json const& value, std::string const& where);

    static std::string field(std::string const& where, char const* key);
    template <class Json>
    static std::string shortDump(Json const& value);

  private:
    void missing(char const* key, std::string const& where);
    /* read(value) of the field; nothing when it is absent (reported when
     * required). */
    template <class Json, class Read>
    auto readField(Json const& object, char const* key, std::string const& where, bool required,
                   Read read) -> decltype(read(object));
    /* The field read as a Value when isRight accepts it; otherwise reports
     * that `expected` was expected. */
    template <class Value, class Json, class IsRight>
    std::optional<Value> typed(Json const& object, char const* key, std::string const& where,
                               bool required, IsRight isRight, char const* expected);

    std::vector<std::string> m_errors;
};

/* "a, b or c", for messages that list the accepted values. */
std::string joinChoices(std::vector<std::string> const& choices);

}  // namespace tarsel::daemon
