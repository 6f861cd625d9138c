// How NUT's variables stand in the data store: which values are numbers,
// which are the UPS's identity, which belong to an outlet, and what the
// tokens of ups.status are called.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cdsapi/types.h"
#include "kq/value.h"

namespace tarsel::daemon::nut {

/* One UPS's variables as LIST VAR gives them: name -> value. */
using Variables = std::map<std::string, std::string>;

/* The variable of the UPS's state ("OL CHRG", "OB LB", ...). */
constexpr char const* kStatusVariable = "ups.status";

/* The tokens of ups.status served as boolean channels, each under the name
 * "ups.status.<TOKEN>". */
std::vector<std::string> const& statusTokens();
std::string statusChannelName(std::string const& token);

/* The channel that opens the register map, on the UPS's device. */
constexpr char const* kOperatingStatusChannel = "PowerDistribution.Status.OperatingStatus";
/* Its value while upsd reports the UPS's state with fresh data (what opens
 * the map), and while the UPS is there but reports no ups.status yet. */
constexpr unsigned int kOperatingStatusRunning = 16;
constexpr unsigned int kOperatingStatusWaiting = 2;

/* True for the name of a channel the mirror derives itself (a status
 * token's, the operating status): a variable upsd names so is not mirrored,
 * since the two would fight over one channel. */
bool isDerivedName(std::string const& name);

/* The device attribute a variable also sets, if it is one of the UPS's
 * identity or ratings. */
std::optional<cdsapi::DeviceAttribute> identityAttribute(std::string const& variable);

/* The variable that feeds a device attribute; nothing for an attribute no
 * variable feeds. */
std::optional<std::string> identityVariable(cdsapi::DeviceAttribute attribute);

/* True for a name upsd could know a variable or command by: letters,
 * digits, '.', '_' and '-' only (nothing that could end a protocol line). */
bool isNutName(std::string const& name);

/* The store value of a variable: identity texts stay text (a serial number
 * "0042" is no number), other values that read fully as integers become
 * int32 (int64 when larger), decimals become double, the rest text. */
kq::CValue storeValue(std::string const& variable, std::string const& text);

/* The outlet number of "outlet.N.something", N from 1 as NUT numbers
 * outlets; nothing for any other name: the main outlet's "outlet.desc", and
 * "outlet.0.something" too, which NUT reserves for the unit as a whole (the
 * same as the unnumbered outlet.*), not an outlet of its own. */
std::optional<unsigned int> outletNumber(std::string const& variable);
/* "outlet.N", the name of outlet N's sub-device. */
std::string outletDeviceName(unsigned int outlet);

}  // namespace tarsel::daemon::nut
