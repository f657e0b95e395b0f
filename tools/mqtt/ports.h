// Names that the bridge registers beside its own: what is posted to them leaves the device.
#ifndef QOR_MQTT_PORTS_H
#define QOR_MQTT_PORTS_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qor/flat.h"
#include "settings.h"

namespace qormqtt {

class ports {
public:
    // fnCarry handles a message; the threads of the names call it.
    typedef std::function<int(const mappedName&, simpMSG*)> carrier;
    explicit ports(const carrier& fnCarry);
    ~ports();

    // Registers new names and gives up those that are no longer there. A name that is in use is tried again by the next
    // call.
    void setNames(const std::vector<mappedName>& names);

private:
    class port;
    carrier m_fnCarry;
    std::map<std::string, std::unique_ptr<port>> m_ports;
};

}  // namespace qormqtt

#endif
