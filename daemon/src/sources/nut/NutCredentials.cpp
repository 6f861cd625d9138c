#include "NutCredentials.h"

#include <sstream>
#include <stdexcept>

#include "PrivateFile.h"

namespace tarsel::daemon::nut {

namespace {

std::string trimmed(std::string const& text) {
    auto const first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return {};
    }
    auto const last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

}  // namespace

Credentials parseCredentials(std::string const& text) {
    Credentials credentials;
    bool haveUser = false;
    bool havePassword = false;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::string const content = trimmed(line);
        if (content.empty() || content[0] == '#') {
            continue;
        }
        auto const equals = content.find('=');
        std::string const key = trimmed(content.substr(0, equals));
        std::string const value =
            equals == std::string::npos ? "" : trimmed(content.substr(equals + 1));
        std::string const where = "line " + std::to_string(number) + ": ";
        if (equals == std::string::npos || value.empty()) {
            throw std::invalid_argument(where +
                                        "expected \"username = NAME\" or \"password = SECRET\"");
        }
        bool& seen = key == "username" ? haveUser : havePassword;
        if (key != "username" && key != "password") {
            throw std::invalid_argument(where + "unknown setting \"" + key + "\"");
        }
        if (seen) {
            throw std::invalid_argument(where + key + " given twice");
        }
        seen = true;
        (key == "username" ? credentials.username : credentials.password) = value;
    }
    if (!haveUser || !havePassword) {
        throw std::invalid_argument(std::string("no ") + (haveUser ? "password" : "username") +
                                    " given");
    }
    return credentials;
}

Credentials readCredentials(std::string const& path) {
    std::string const text = readPrivateFile(path);
    try {
        return parseCredentials(text);
    } catch (std::invalid_argument const& error) {
        throw std::runtime_error("NUT credentials \"" + path + "\": " + error.what());
    }
}

}  // namespace tarsel::daemon::nut
