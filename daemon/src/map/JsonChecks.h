// Typed reads of JSON fields that report problems instead of throwing, so a
// file can be checked completely and every error listed at once.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tarsel::daemon {

class JsonChecker {
  public:
    using json = nlohmann::json;

    void error(std::string const& where, std::string const& what);
    bool hasErrors() const { return !m_errors.empty(); }
    std::vector<std::string> const& errors() const { return m_errors; }

    /* Each read returns nothing when the field is absent (reporting it when
     * required) or of the wrong type (always reported). */
    std::optional<long long> integer(json const& object, char const* key, std::string const& where,
                                     long long min, long long max, bool required);
    std::optional<double> number(json const& object, char const* key, std::string const& where,
                                 bool required);
    std::optional<std::string> text(json const& object, char const* key, std::string const& where,
                                    bool required);
    std::optional<bool> boolean(json const& object, char const* key, std::string const& where,
                                bool required);

    /* Reports every key of the object that is not in allowed. */
    void unknownFields(json const& object, std::string const& where,
                       std::set<std::string> const& allowed, std::string const& context);

    /* Reports a value that is not an object; true when it is one. */
    bool expectObject(json const& value, std::string const& where);

    static std::string field(std::string const& where, char const* key);
    static std::string shortDump(json const& value);

  private:
    json const* find(json const& object, char const* key, std::string const& where, bool required);

    std::vector<std::string> m_errors;
};

/* "a, b or c", for messages that list the accepted values. */
std::string joinChoices(std::vector<std::string> const& choices);

}  // namespace tarsel::daemon
