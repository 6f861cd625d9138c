// The named conversion functions that composite entries of a register map
// can use: how several data-store values become one block of registers or
// discretes, and back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kq/value.h"

namespace tarsel::daemon {

/* What a map file may rely on about one named function. */
struct CompositeFunction {
    char const* name;
    bool registers;  // true: composite-registers; false: composite-discretes
    std::size_t minSources;
    std::size_t maxSources;
    bool writable;            // false: the entry must live in a read-only table
    std::uint16_t fixedSize;  // 0: one register or discrete per source
    char const* summary;

    /* The block size the function produces for that many sources. */
    std::uint16_t sizeFor(std::size_t sources) const {
        return fixedSize != 0 ? fixedSize : static_cast<std::uint16_t>(sources);
    }
};

std::vector<CompositeFunction> const& compositeFunctions();
CompositeFunction const* findCompositeFunction(std::string const& name);

struct RegisterConversions {
    std::function<std::vector<uint16_t>(std::vector<kq::CValue> const&)> dataToRegisters;
    std::function<std::vector<kq::CValue>(std::vector<uint16_t> const&)> registersToData;
    std::function<std::string(std::vector<kq::CValue> const&)> dataToString;
};

struct DiscreteConversions {
    std::function<std::vector<bool>(std::vector<kq::CValue> const&)> dataToDiscretes;
    std::function<std::vector<kq::CValue>(std::vector<bool> const&)> discretesToData;
};

/* The functions of a composite-registers entry; throws std::invalid_argument
 * for a name that is not a register function. */
RegisterConversions makeRegisterConversions(std::string const& name, std::size_t sourceCount);
/* Likewise for a composite-discretes entry. */
DiscreteConversions makeDiscreteConversions(std::string const& name, std::size_t sourceCount);

}  // namespace tarsel::daemon
