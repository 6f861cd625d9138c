#include "modbus/RegistersDataAccessor.h"

namespace modbus {

void RegistersDataAccessor::setByteOrder(ByteOrder byteOrder) {
    m_byteOrder = byteOrder;
}

}  // namespace modbus
