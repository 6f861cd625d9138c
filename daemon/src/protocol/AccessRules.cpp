#include "AccessRules.h"

#include <stdexcept>

namespace tarsel::daemon {

namespace {

constexpr std::uint32_t kLoopback = 0x7F000000;  // 127.0.0.0/8

}  // namespace

AccessRules::AccessRules() : m_read{Cidr{0, 0}}, m_write{Cidr{kLoopback, 0xFF000000}} {}

void AccessRules::allowRead(std::optional<Table> table, CidrList list) {
    (table ? m_tableRead[*table] : m_read) = std::move(list);
}

void AccessRules::allowWrite(std::optional<Table> table, CidrList list) {
    (table ? m_tableWrite[*table] : m_write) = std::move(list);
}

CidrList const& AccessRules::listFor(std::map<Table, CidrList> const& tables, CidrList const& all,
                                     Table table) const {
    auto const found = tables.find(table);
    return found != tables.end() ? found->second : all;
}

bool AccessRules::mayRead(Table table, std::uint32_t address) const {
    return listContains(listFor(m_tableRead, m_read, table), address);
}

bool AccessRules::mayWrite(Table table, std::uint32_t address) const {
    return isWritableTable(table) && listContains(listFor(m_tableWrite, m_write, table), address);
}

bool AccessRules::mayConnect(std::uint32_t address) const {
    for (Table const table :
         {Table::Coils, Table::DiscreteInputs, Table::HoldingRegisters, Table::InputRegisters}) {
        if (mayRead(table, address) || mayWrite(table, address)) {
            return true;
        }
    }
    return false;
}

void applyAllowOption(AccessRules& rules, bool write, std::string const& value) {
    std::optional<Table> table;
    std::string list = value;
    std::size_t const equals = value.find('=');
    if (equals != std::string::npos) {
        table = tableFromName(value.substr(0, equals));
        if (!table) {
            throw std::invalid_argument("unknown table \"" + value.substr(0, equals) + "\"");
        }
        list = value.substr(equals + 1);
    }
    if (write) {
        rules.allowWrite(table, parseCidrList(list));
    } else {
        rules.allowRead(table, parseCidrList(list));
    }
}

}  // namespace tarsel::daemon
