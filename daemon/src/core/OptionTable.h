// The table of tarsel-modbusd's options: the one place an option is added.
// An option's long name is also its key in the settings file, so the command
// line, the settings file, --help and their documentation share one list.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Options.h"

namespace tarsel::daemon {

/* What an option takes, on the command line and in a settings file. */
enum class OptionKind {
    Flag,      // "--verbose" (or "--verbose=false"); true or false in a file
    Text,      // one value; given twice, the last counts
    Integer,   // one integer from min to max
    Seconds,   // one number of seconds, fractions allowed
    List,      // repeatable; an array of texts in a file
    Optional,  // "--describe" alone or "--describe=VALUE"; command line only
};

/* Option values by long name, as texts, in the order given: what the command
 * line or a settings file says, before anything is checked. */
using OptionValues = std::map<std::string, std::vector<std::string>>;

struct OptionRow {
    std::string name;       // long name without "--": also the settings key
    std::string shortName;  // "v" for -v; empty: none
    std::string valueName;  // "FILE", shown in --help
    std::string help;
    OptionKind kind = OptionKind::Text;
    bool inSettingsFile = true;  // false: command line only
    long long min = 0;           // Integer only: the range
    long long max = 0;
    /* Sets the option from one value (each value of a List in turn). Throws
     * std::invalid_argument with a text that reads after the option's name:
     * "expects an integer from 0 to 65535, got \"x\"". */
    std::function<void(Options&, std::string const&)> apply;
};

/* Every option, in the order --help lists them. */
std::vector<OptionRow> const& optionTable();

/* The option of the table with this long name; nullptr for none. */
OptionRow const* findOption(std::string const& name);

/* The long name of the option `name` is most likely a misspelling of (a
 * letter wrong, missing, extra, or two swapped: "prot" for "port"), for an
 * error to suggest; nothing when no name is that close. */
std::optional<std::string> closestOptionName(std::string const& name);

}  // namespace tarsel::daemon
