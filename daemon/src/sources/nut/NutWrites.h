// What a Modbus write becomes at upsd, and what upsd's answer becomes for
// the Modbus client. Pure text and tables: no sockets, no data store, so
// every rule is checked with literal values.
//
// Outcomes, as the client sees them:
//   upsd (or its driver, through command tracking) did it       normal answer
//   ACCESS-DENIED, USERNAME-REQUIRED, PASSWORD-REQUIRED,
//   PASSWORD-INCORRECT, INVALID-USERNAME, INVALID-PASSWORD      0x01 Illegal Function
//   VAR-NOT-SUPPORTED, CMD-NOT-SUPPORTED, READONLY,
//   UNKNOWN-COMMAND                                             0x02 Illegal Data Address
//   INVALID-VALUE, TOO-LONG, INVALID-ARGUMENT                   0x03 Illegal Data Value
//   SET-FAILED, INSTCMD-FAILED, any other error, tracking
//   answered an error (the driver did not do it)                0x04 Server Device Failure
//   too many writes waiting for this UPS                        0x06 Server Device Busy
//   upsd unreachable or silent, DATA-STALE,
//   DRIVER-NOT-CONNECTED, UNKNOWN-UPS, tracking still PENDING   0x0B Gateway Target Failed
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kq/value.h"

namespace tarsel::daemon::nut {

/* Each instant command upsd offers for a UPS is a boolean channel of this
 * prefix and the command's name ("instcmd.beeper.disable"): a coil over it
 * runs the command when written ON. */
constexpr char const* kCommandPrefix = "instcmd.";
std::string commandChannelName(std::string const& command);
/* The command of a command channel; nothing for any other name. */
std::optional<std::string> commandOfChannel(std::string const& channel);

/* One request to upsd on behalf of a Modbus write. */
struct Command {
    enum class Kind { SetVariable, InstantCommand };
    Kind kind = Kind::SetVariable;
    std::string ups;
    std::string name;   // variable or command
    std::string value;  // SetVariable only

    /* The protocol line: SET VAR <ups> <var> "<value>" or INSTCMD <ups> <cmd>. */
    std::string line() const;
};

/* A word in double quotes, with NUT's escapes (\" and \\). */
std::string quotedWord(std::string const& text);

/* A store value as upsd takes it: integers in decimal, decimals in the
 * shortest text that reads back as the same number, booleans as 1 or 0,
 * texts as they are. Nothing for a value with no such text (invalid, bytes,
 * not finite, a text with control characters). */
std::optional<std::string> nutText(kq::CValue const& value);

/* The exception code for an error upsd answered ("ACCESS-DENIED", the word
 * after "ERR"); see the table above. */
std::uint8_t exceptionForError(std::string const& error);

/* What upsd made of a command, as the client that sent it found out. */
struct CommandResult {
    enum class Status {
        Done,      // OK, and tracking (when upsd offers it) said SUCCESS
        Refused,   // ERR <error> from upsd
        Failed,    // tracking said the driver did not do it (ERR <error>)
        NoAnswer,  // upsd unreachable, silent, or tracking still PENDING
    };
    Status status = Status::NoAnswer;
    std::string detail;    // upsd's words, or why there were none
    bool tracked = false;  // upsd tracked the command
};

/* The exception code and the audit text of a result. */
struct Outcome {
    std::uint8_t exception = 0;
    std::string text;
};
Outcome outcomeOf(Command const& command, CommandResult const& result);

}  // namespace tarsel::daemon::nut
