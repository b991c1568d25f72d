#pragma once

#include <string>

#include "liblog/log.h"

namespace brenholt::monitoring_modules::libvurohelper {

namespace sensors {
// What the dispatcher sees of a sensor.
class sensor_interface {
public:
    virtual ~sensor_interface() = default;
    virtual int get_id() const = 0;
    virtual void log_debug(const std::string& text) = 0;
    virtual void log(const std::string& text, liblog::severity level) = 0;
    virtual void scan() = 0;
};
}  // namespace sensors

namespace checks {
// Note the order: log before log_debug, unlike sensor_interface.
class check_interface {
public:
    virtual ~check_interface() = default;
    virtual int get_id() const = 0;
    virtual void log(const std::string& text, liblog::severity level) = 0;
    virtual void log_debug(const std::string& text) = 0;
};
}  // namespace checks

}  // namespace brenholt::monitoring_modules::libvurohelper
