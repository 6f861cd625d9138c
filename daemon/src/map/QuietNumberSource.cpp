#include "QuietNumberSource.h"

#include <stdexcept>
#include <utility>

namespace tarsel::daemon {

QuietNumberSource::QuietNumberSource(std::unique_ptr<modbus::CdsDataAccessor> inner)
    : m_inner(std::move(inner)) {}

void QuietNumberSource::setUpdateCallback(std::function<void(kq::CValue const&)> callback) {
    if (!callback) {
        m_inner->setUpdateCallback(nullptr);
        return;
    }
    m_inner->setUpdateCallback([callback = std::move(callback)](kq::CValue const& value) {
        try {
            callback(value);
        } catch (std::logic_error const&) {
            // std::invalid_argument or std::out_of_range from the text's
            // conversion: a value the encoder cannot read is not pushed.
        }
    });
}

}  // namespace tarsel::daemon
