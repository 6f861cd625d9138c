// Finds a device of the data store as a map names it, through the library's
// shared connection, without opening a subscription.
#pragma once

#include <optional>
#include <string>

#include "MapModel.h"

namespace tarsel::daemon {

/* The id of the device `device` names now (by id, by name, or by id and a
 * path of sub-device indexes); nothing when it is not there or the data
 * store cannot say. */
std::optional<unsigned long long> findDevice(DeviceRef const& device);

/* The source's value as text (an attribute, or a channel's value); nothing
 * when its device or channel is not there, its value is invalid, or the data
 * store cannot say. Alarm sources have no text. */
std::optional<std::string> readSourceText(SourceDefinition const& source);

}  // namespace tarsel::daemon
