// Who may read and who may write, by client address: CIDR allow-lists for a
// listener, per table, and per map entry. Nothing here knows sockets; the
// request handler asks before it touches an encoder.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Cidr.h"
#include "MapModel.h"

namespace tarsel::daemon {

/* One listener's rules. A table without a list of its own follows the
 * listener's list. */
class AccessRules {
  public:
    // Reads from anywhere the listener is reachable; writes from this host
    // only, until the configuration says who else may switch outlets.
    AccessRules();

    void allowRead(std::optional<Table> table, CidrList list);
    void allowWrite(std::optional<Table> table, CidrList list);

    bool mayRead(Table table, std::uint32_t address) const;
    bool mayWrite(Table table, std::uint32_t address) const;
    /* False when the address may neither read nor write any table: its
     * connection is refused at once. */
    bool mayConnect(std::uint32_t address) const;

  private:
    CidrList const& listFor(std::map<Table, CidrList> const& tables, CidrList const& all,
                            Table table) const;

    CidrList m_read;
    CidrList m_write;
    std::map<Table, CidrList> m_tableRead;
    std::map<Table, CidrList> m_tableWrite;
};

/* "[TABLE=]LIST" of --allow-read and --allow-write, into the rules. */
void applyAllowOption(AccessRules& rules, bool write, std::string const& value);

}  // namespace tarsel::daemon
