// A settings file of tarsel-modbusd: a JSON object whose keys are the long
// names of the options (those not limited to the command line), checked
// completely so that every error is listed at once, as in a map file.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "OptionTable.h"

namespace tarsel::daemon {

struct SettingsFile {
    OptionValues values;              // as the command line would give them
    std::vector<std::string> errors;  // "LABEL: key: what is wrong", one each
};

/* Reads the text of a settings file; label names it in errors. Keys in
 * refused are errors too (the secrets file cannot name another one). The key
 * "comment" is for the reader and ignored. */
SettingsFile parseSettingsFile(std::string const& text, std::string const& label,
                               std::set<std::string> const& refused = {});

}  // namespace tarsel::daemon
