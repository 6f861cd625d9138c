// Text that goes into the log safely. Clients choose some of what the log
// shows (strings they write, the bytes of their frames); none of it may
// start a new line, move the cursor or recolour a terminal, or look like
// the daemon's own words.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace tarsel::daemon {

/* Escapes control characters (C0 and DEL) as "\n", "\r", "\t" or "\xNN",
 * and so every byte that is not part of well-formed UTF-8; leaves everything
 * else, UTF-8 included, as it is. What every log line goes through, so no
 * line can ever hold a line break or a terminal escape, or be binary to the
 * journal. */
std::string escapeControls(std::string_view text);

/* A value a client chose, between double quotes: backslash, quote, control
 * characters and every byte outside printable ASCII escaped, so the value
 * cannot end early or pass for the text around it. */
std::string quotedValue(std::string_view text);

/* "1,200": counts in summaries, readable at a glance. */
std::string groupedThousands(unsigned long long value);

/* "600", "0.5": a duration in seconds as the options give it, to the
 * millisecond, without trailing zeros. */
std::string secondsText(std::chrono::milliseconds duration);

}  // namespace tarsel::daemon
