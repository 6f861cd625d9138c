// The data accessor under a numeric-string encoder. That encoder throws out
// of its change callback when the text has no digits (an empty attribute:
// a rating the UPS has not reported yet, or no longer reports), and a data
// accessor of a device attribute hands every attribute of the device to its
// listener whenever any one of them changes. Left alone, each change of a
// device's name or location would fail a listener in the data store for
// every such entry. The throw is kept inside the entry: its value is simply
// not pushed, and a read of it still answers as the encoder does (an error
// line and Server Device Failure) so the fault stays visible.
#pragma once

#include <functional>
#include <memory>

#include "modbus/CdsDataAccessor.h"

namespace tarsel::daemon {

class QuietNumberSource : public modbus::CdsDataAccessor {
  public:
    explicit QuietNumberSource(std::unique_ptr<modbus::CdsDataAccessor> inner);

    void setCValue(kq::CValue const& value) override { m_inner->setCValue(value); }
    kq::CValue getCValue() const override { return m_inner->getCValue(); }
    bool isExitingInCds() const override { return m_inner->isExitingInCds(); }
    void setUpdateCallback(std::function<void(kq::CValue const&)> callback) override;

  private:
    std::unique_ptr<modbus::CdsDataAccessor> m_inner;
};

}  // namespace tarsel::daemon
