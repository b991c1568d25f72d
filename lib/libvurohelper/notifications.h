#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "liblog/log.h"
#include "libvurohelper/api.h"
#include "libvurohelper/settings.h"

namespace brenholt::monitoring_modules::libvurohelper::notifications {

struct request_content;

// A notification to carry out: where to write, what, with which credentials.
class VURO_API request : public settings::settings_source {
public:
    // Raises message_deserialization_failed when the bytes are no request.
    request(const void* data, unsigned int size);
    ~request() override;

    const std::string& get(const std::string& key) const override;
    settings::secure_string get_secure(const std::string& key) const override;
    liblog::severity get_log_level() const;
    const std::string& get_message() const;
    const std::string& get_target() const;
    std::uint32_t get_timeout_s() const;
    // For the log: secure values masked.
    std::string to_json() const;

private:
    std::shared_ptr<const request_content> content_;
};

class VURO_API service_interface {
public:
    virtual ~service_interface();
    virtual void send_notification(const request& r) = 0;
    // The serialised response of what the notifications have done so far.
    virtual const std::vector<unsigned char>& get_response() = 0;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::notifications
