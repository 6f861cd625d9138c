#include "SettingsFile.h"

#include "JsonChecks.h"
#include "JsonNesting.h"

namespace tarsel::daemon {

namespace {

using json = nlohmann::json;

/* One key's value as the texts the option takes, or nothing (reported). */
std::optional<std::vector<std::string>> valueTexts(JsonChecker& checker, json const& object,
                                                   OptionRow const& row) {
    char const* key = row.name.c_str();
    switch (row.kind) {
        case OptionKind::Flag:
            if (auto const value = checker.boolean(object, key, "", false)) {
                return std::vector<std::string>{*value ? "true" : "false"};
            }
            break;
        case OptionKind::Integer:
            if (auto const value = checker.integer(object, key, "", row.min, row.max, false)) {
                return std::vector<std::string>{std::to_string(*value)};
            }
            break;
        case OptionKind::Seconds:
            if (checker.number(object, key, "", false)) {
                return std::vector<std::string>{object.at(row.name).dump()};
            }
            break;
        case OptionKind::Text:
        case OptionKind::Optional:
            if (auto const value = checker.text(object, key, "", false)) {
                return std::vector<std::string>{*value};
            }
            break;
        case OptionKind::List: {
            // One text or an array of texts: "allow-read": "any" reads as ["any"].
            json const& value = object.at(row.name);
            if (value.is_string()) {
                return std::vector<std::string>{value.get<std::string>()};
            }
            bool const texts =
                value.is_array() && std::all_of(value.begin(), value.end(),
                                                [](json const& item) { return item.is_string(); });
            if (texts) {
                return value.get<std::vector<std::string>>();
            }
            checker.error(row.name, "expected a text or an array of texts, got " +
                                        JsonChecker::shortDump(value));
            break;
        }
    }
    return std::nullopt;
}

}  // namespace

SettingsFile parseSettingsFile(std::string const& text, std::string const& label,
                               std::set<std::string> const& refused) {
    SettingsFile settings;
    json root;
    if (nestsDeeperThan(text)) {
        settings.errors.push_back(label + ": not read: " + tooDeeplyNested());
        return settings;
    }
    try {
        root = json::parse(text);
    } catch (json::exception const& error) {
        settings.errors.push_back(label + ": not valid JSON: " + error.what());
        return settings;
    }
    JsonChecker checker;
    if (checker.expectObject(root, "settings")) {
        for (auto const& item : root.items()) {
            std::string const& key = item.key();
            OptionRow const* row = findOption(key);
            if (key == "comment") {
                continue;
            }
            if (row == nullptr) {
                std::optional<std::string> const closest = closestOptionName(key);
                checker.error(
                    key, "unknown setting" + (closest ? "; did you mean " + *closest + "?" : ""));
            } else if (!row->inSettingsFile) {
                checker.error(key, "a command-line option, not a setting");
            } else if (refused.count(key) != 0) {
                checker.error(key, "not allowed in this file");
            } else if (auto texts = valueTexts(checker, root, *row)) {
                settings.values[key] = std::move(*texts);
            }
        }
    }
    for (auto const& error : checker.errors()) {
        settings.errors.push_back(label + ": " + error);
    }
    return settings;
}

}  // namespace tarsel::daemon
