#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "libvurohelper/api.h"

namespace brenholt::monitoring_modules::libvurohelper::messaging {

// Largest serialised message the probe accepts.
inline constexpr std::size_t max_message_size = 16u * 1024u * 1024u;

using bytes = std::vector<std::uint8_t>;

// Wire types of the envelope; values match the protobuf enumeration.
enum class message_type : int {
    module_information = 1,
    sensor_scan_result = 2,
    check_result = 3,
    dynamic_channel = 4,
    notification_response = 5,
    sensor_data = 6,
    notification_request = 7,
};

class VURO_API vuro_message {
public:
    virtual ~vuro_message();
    // The enveloped message; raises message_too_long past max_message_size.
    bytes serialize() const;

protected:
    virtual message_type type() const = 0;
    virtual std::string payload() const = 0;
};

// Wraps a payload in the envelope, checking the size limit.
VURO_API bytes wrap(message_type type, const std::string& payload);
// Opens an envelope; raises message_deserialization_failed on bad bytes or a wrong type.
VURO_API std::string unwrap(const void* data, std::size_t size, message_type expected);

class VURO_API message_service_interface {
public:
    virtual ~message_service_interface();
    virtual void send(const vuro_message& message) = 0;
};

class VURO_API message_service : public message_service_interface {
public:
    explicit message_service(std::function<void(void*, unsigned long)> deliver);
    ~message_service() override;
    // Serialises and hands the bytes over once, on the caller's thread.
    void send(const vuro_message& message) override;

private:
    std::function<void(void*, unsigned long)> deliver_;
};

class VURO_API module_information_message : public vuro_message {
public:
    module_information_message(const std::string& definition, bool include_texts);
    ~module_information_message() override;

protected:
    message_type type() const override;
    std::string payload() const override;

private:
    std::string definition_;
    bool include_texts_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::messaging
