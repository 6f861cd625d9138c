// How deeply a JSON text nests arrays and objects, found before it is read.
// nlohmann's reader takes any depth, but writing a value out (an error quotes
// the value it refuses) walks it one call per level: a file of a few hundred
// thousand brackets overflowed the stack and ended the daemon, at start or on
// a reload that should have been refused. simdjson stops at 1024 levels; the
// same bound ahead of nlohmann's reading makes both readings agree.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarsel::daemon {

constexpr std::size_t kMaxJsonNesting = 1024;

/* Whether the text nests arrays and objects more than `limit` levels deep;
 * brackets inside strings do not count. Looks no further than the first
 * bracket past the limit. */
bool nestsDeeperThan(std::string_view text, std::size_t limit = kMaxJsonNesting);

/* "arrays and objects nested more than 1024 levels deep", for the error of
 * a file that nestsDeeperThan() refuses. */
std::string tooDeeplyNested();

}  // namespace tarsel::daemon
