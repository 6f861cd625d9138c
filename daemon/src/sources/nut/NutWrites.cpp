#include "NutWrites.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ExceptionCodes.h"

namespace tarsel::daemon::nut {

namespace {

using exception_code::kGatewayTargetFailed;
using exception_code::kIllegalDataAddress;
using exception_code::kIllegalDataValue;
using exception_code::kIllegalFunction;
using exception_code::kServerDeviceFailure;

struct ErrorCode {
    char const* error;
    std::uint8_t exception;
    char const* fix = nullptr;  // what to look at, where upsd's word alone does not say
};

// upsd answers a wrong password as it answers a user without the right
// (ACCESS-DENIED on the command itself): both are named, in the files the
// operator edits.
constexpr char kWhoMayFix[] =
    "the user or password of --nut-credentials is wrong, or upsd.users does not let that user "
    "do it (\"actions = SET\", the command in \"instcmds\")";

constexpr ErrorCode kErrors[] = {
    // Who may: the credentials, or what upsd.users lets the user do.
    {"ACCESS-DENIED", kIllegalFunction, kWhoMayFix},
    {"USERNAME-REQUIRED", kIllegalFunction, kWhoMayFix},
    {"PASSWORD-REQUIRED", kIllegalFunction, kWhoMayFix},
    {"PASSWORD-INCORRECT", kIllegalFunction, kWhoMayFix},
    {"INVALID-USERNAME", kIllegalFunction, kWhoMayFix},
    {"INVALID-PASSWORD", kIllegalFunction, kWhoMayFix},
    // What: nothing writable at that name.
    {"VAR-NOT-SUPPORTED", kIllegalDataAddress},
    {"CMD-NOT-SUPPORTED", kIllegalDataAddress},
    {"READONLY", kIllegalDataAddress},
    {"UNKNOWN-COMMAND", kIllegalDataAddress},
    // The value.
    {"INVALID-VALUE", kIllegalDataValue},
    {"TOO-LONG", kIllegalDataValue},
    {"INVALID-ARGUMENT", kIllegalDataValue},
    // The UPS behind upsd does not answer.
    {"DATA-STALE", kGatewayTargetFailed},
    {"DRIVER-NOT-CONNECTED", kGatewayTargetFailed},
    {"UNKNOWN-UPS", kGatewayTargetFailed},
};

/* The shortest text of `value` that reads back as exactly `value`: plain
 * decimals (upsd's drivers read "20", not "2e+01") unless the number is
 * very small or very large. */
template <typename Real>
std::string shortestText(Real value, int maxDigits) {
    double const magnitude = std::fabs(static_cast<double>(value));
    bool const plain = magnitude == 0.0 || (magnitude >= 1e-4 && magnitude < 1e15);
    char text[64];
    for (int digits = plain ? 0 : 1; digits <= maxDigits + 4; ++digits) {
        std::snprintf(text, sizeof text, plain ? "%.*f" : "%.*g", digits,
                      static_cast<double>(value));
        if (static_cast<Real>(std::strtod(text, nullptr)) == value) {
            break;
        }
    }
    return text;
}

/* ": what to fix" for an error upsd answered, or nothing. */
std::string fixForError(std::string const& error) {
    for (auto const& known : kErrors) {
        if (error == known.error && known.fix != nullptr) {
            return std::string(": ") + known.fix;
        }
    }
    return "";
}

}  // namespace

std::string commandChannelName(std::string const& command) {
    return kCommandPrefix + command;
}

std::optional<std::string> commandOfChannel(std::string const& channel) {
    std::size_t const length = std::strlen(kCommandPrefix);
    if (channel.size() <= length || channel.compare(0, length, kCommandPrefix) != 0) {
        return std::nullopt;
    }
    return channel.substr(length);
}

std::string quotedWord(std::string const& text) {
    std::string quoted = "\"";
    for (char const c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

std::string Command::line() const {
    if (kind == Kind::InstantCommand) {
        return "INSTCMD " + ups + " " + name;
    }
    return "SET VAR " + ups + " " + name + " " + quotedWord(value);
}

std::optional<std::string> nutText(kq::CValue const& value) {
    using Type = kq::CValue::Type;
    switch (value.type()) {
        case Type::Bool:
            return std::string(value.as_bool() ? "1" : "0");
        case Type::Int32:
        case Type::Int64:
            return std::to_string(value.as_int64());
        case Type::Uint32:
        case Type::Uint64:
            return std::to_string(value.as_uint64());
        case Type::Float:
            if (!std::isfinite(value.as_float())) {
                return std::nullopt;
            }
            return shortestText(value.as_float(), 9);
        case Type::Double:
            if (!std::isfinite(value.as_double())) {
                return std::nullopt;
            }
            return shortestText(value.as_double(), 17);
        case Type::String: {
            // A control character (a newline above all) would end the
            // protocol line and start another: such a text is not sent.
            std::string const text = value.as_string();
            for (char const c : text) {
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    return std::nullopt;
                }
            }
            return text;
        }
        default:
            return std::nullopt;
    }
}

std::uint8_t exceptionForError(std::string const& error) {
    for (auto const& known : kErrors) {
        if (error == known.error) {
            return known.exception;
        }
    }
    return kServerDeviceFailure;  // SET-FAILED, INSTCMD-FAILED and the unforeseen
}

Outcome outcomeOf(Command const& command, CommandResult const& result) {
    std::string const what = command.kind == Command::Kind::InstantCommand
                                 ? "INSTCMD " + command.name
                                 : "SET VAR " + command.name + " " + quotedWord(command.value);
    switch (result.status) {
        case CommandResult::Status::Done:
            return {0, "done (" + what + ": upsd " +
                           (result.tracked ? "tracked it to SUCCESS" : "answered OK, untracked") +
                           ")"};
        case CommandResult::Status::Refused:
            return {exceptionForError(result.detail), "refused by upsd (" + what + ": ERR " +
                                                          result.detail +
                                                          fixForError(result.detail) + ")"};
        case CommandResult::Status::Failed:
            return {kServerDeviceFailure,
                    "failed (" + what + ": upsd tracked it to ERR " + result.detail + ")"};
        case CommandResult::Status::NoAnswer:
            break;
    }
    return {kGatewayTargetFailed, "no outcome (" + what + ": " + result.detail + ")"};
}

}  // namespace tarsel::daemon::nut
