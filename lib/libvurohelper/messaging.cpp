#include "libvurohelper/messaging.h"

#include <cstring>

#include <nlohmann/json.hpp>

#include "libvurohelper/exceptions.h"
#include "libvurohelper/proto_writer.h"
#include "libvurohelper/sensitive.h"
#include "vuro.pb.h"

namespace brenholt::monitoring_modules::libvurohelper::messaging {

namespace ex = utils::exceptions;

vuro_message::~vuro_message() = default;

bytes vuro_message::serialize() const { return wrap(type(), payload()); }

// The Envelope written field by field, as protobuf writes it: a message goes out at every
// scan, and the generated code would copy the payload into a message object first.
bytes wrap(message_type type, const std::string& payload) {
    char head[2 * detail::proto_writer::max_number_field];
    detail::proto_writer w(head);
    w.int_field(1, static_cast<int>(type));
    if (!payload.empty()) w.message_head(2, payload.size());
    const auto head_size = static_cast<std::size_t>(w.position() - head);
    const std::size_t size = head_size + payload.size();
    if (size > max_message_size) throw ex::message_too_long(std::to_string(size), std::to_string(max_message_size));
    bytes out(size);
    std::memcpy(out.data(), head, head_size);
    if (!payload.empty()) std::memcpy(out.data() + head_size, payload.data(), payload.size());
    return out;
}

std::string unwrap(const void* data, std::size_t size, message_type expected) {
    const std::string type_name = brenholt::vuro::wire::MessageType_Name(
        static_cast<brenholt::vuro::wire::MessageType>(expected));
    // The payload may hold credentials: the caller gets the one copy, and the envelope's
    // string is wiped before it is released, on every path.
    struct wiped_envelope {
        brenholt::vuro::wire::Envelope message;
        ~wiped_envelope() { detail::wipe(*message.mutable_payload()); }
    } envelope;
    if ((data == nullptr && size != 0) || size > max_message_size ||
        !envelope.message.ParseFromArray(data, static_cast<int>(size)) ||
        envelope.message.type() != static_cast<brenholt::vuro::wire::MessageType>(expected)) {
        throw ex::message_deserialization_failed(type_name, std::to_string(size));
    }
    std::string payload = std::move(*envelope.message.mutable_payload());
    return payload;
}

message_service_interface::~message_service_interface() = default;

message_service::message_service(std::function<void(void*, unsigned long)> deliver)
    : deliver_(std::move(deliver)) {}
message_service::~message_service() = default;

void message_service::send(const vuro_message& message) {
    bytes data = message.serialize();
    deliver_(data.data(), static_cast<unsigned long>(data.size()));
}

module_information_message::module_information_message(const std::string& definition, bool include_texts)
    : definition_(definition), include_texts_(include_texts) {}
module_information_message::~module_information_message() = default;

message_type module_information_message::type() const { return message_type::module_information; }

std::string module_information_message::payload() const {
    brenholt::vuro::wire::ModuleInformation info;
    info.set_include_texts(include_texts_);
    if (include_texts_) {
        info.set_definition(definition_);
    } else {
        // The texts are most of the document; leave them out, keeping the key order.
        nlohmann::ordered_json doc;
        try {
            doc = nlohmann::ordered_json::parse(definition_);
        } catch (const nlohmann::json::exception& e) {
            throw ex::create_protobuf_from_json_failed(e.what());
        }
        if (doc.is_object()) doc.erase("Text");
        info.set_definition(doc.dump());
    }
    return info.SerializeAsString();
}

}  // namespace brenholt::monitoring_modules::libvurohelper::messaging
