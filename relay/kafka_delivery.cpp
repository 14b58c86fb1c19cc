// Delivering to Kafka: confirmed by all replicas that are in sync, without repeats by the library,
// and given up by nobody but the relay.
#include "relay/broker_delivery.h"
#include "relay/messages.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include <librdkafka/rdkafka.h>

namespace relay {

namespace {

using Options = std::unique_ptr<rd_kafka_conf_t, decltype(&rd_kafka_conf_destroy)>;

/// What the settings say, and on top of it what the promise rests on. Throws.
Options optionsOf(const BrokerSettings& settings) {
    Options options(rd_kafka_conf_new(), &rd_kafka_conf_destroy);
    const auto set = [&options](const std::string& name, const std::string& value) {
        std::array<char, 512> why{};
        if (rd_kafka_conf_set(options.get(), name.c_str(), value.c_str(), why.data(), why.size()) !=
            RD_KAFKA_CONF_OK) {
            throw std::runtime_error(shown(why.data()));
        }
    };
    for (const auto& [name, value] : settings.options) {
        set(name, value);
    }
    set("bootstrap.servers", settings.broker);
    set("acks", "all");
    set("enable.idempotence", "true");
    set("message.timeout.ms", "0"); // else the library gives up a message after five minutes
    return options;
}

/// For the library, which only reads it.
void* pointerTo(const std::string& text) {
    return const_cast<char*>(text.data()); // NOLINT(*-const-cast)
}

class KafkaDelivery : public BrokerDelivery {
public:
    using BrokerDelivery::BrokerDelivery;

protected:
    /// Begins to connect. What hinders it is told while something is to be sent.
    void connect() override {
        Options options = optionsOf(settings);
        std::array<char, 512> why{};
        if (!settings.passwordFile.empty()) {
            rd_kafka_conf_set(options.get(), "sasl.password", password("").c_str(), why.data(),
                              why.size());
        }
        rd_kafka_conf_set_opaque(options.get(), this);
        rd_kafka_conf_set_dr_msg_cb(options.get(), &delivered);
        rd_kafka_conf_set_error_cb(options.get(), &hindered);
        // Its log says nothing that these two don't.
        rd_kafka_conf_set_log_cb(options.get(),
                                 [](const rd_kafka_t*, int, const char*, const char*) {});
        hindrance = 0;
        refusal = RD_KAFKA_RESP_ERR_NO_ERROR;
        producer.reset(rd_kafka_new(RD_KAFKA_PRODUCER, options.get(), why.data(), why.size()));
        if (producer == nullptr) {
            throw std::runtime_error(shown(why.data()));
        }
        static_cast<void>(options.release()); // the producer's now
    }

    void disconnect() override { producer.reset(); }

    void publish(const Message& message) override {
        std::array<rd_kafka_vu_t, 6> parts{};
        parts[0].vtype = RD_KAFKA_VTYPE_TOPIC;
        parts[0].u.cstr = settings.topic.c_str();
        parts[1].vtype = RD_KAFKA_VTYPE_VALUE;
        parts[1].u.mem = {pointerTo(message.body), message.body.size()};
        parts[2].vtype = RD_KAFKA_VTYPE_MSGFLAGS;
        parts[2].u.i = RD_KAFKA_MSG_F_COPY;
        parts[3].vtype = RD_KAFKA_VTYPE_HEADER;
        parts[3].u.header = {"message-id", message.id.data(),
                             static_cast<ssize_t>(message.id.size())};
        parts[4].vtype = RD_KAFKA_VTYPE_OPAQUE;
        parts[4].u.ptr = reinterpret_cast<void*>(message.number); // NOLINT: a number, not a place
        parts[5].vtype = RD_KAFKA_VTYPE_KEY;
        parts[5].u.mem = {pointerTo(message.key), message.key.size()};
        // Without a key the library chooses the partition.
        const std::size_t count = message.key.empty() ? parts.size() - 1 : parts.size();
        const std::unique_ptr<rd_kafka_error_t, decltype(&rd_kafka_error_destroy)> error(
            rd_kafka_produceva(producer.get(), parts.data(), count), &rd_kafka_error_destroy);
        if (error != nullptr) {
            throw std::runtime_error(std::string("sending: ") + rd_kafka_error_string(error.get()));
        }
    }

    void listen(std::chrono::milliseconds limit) override {
        rd_kafka_poll(producer.get(), static_cast<int>(limit.count()));
        if (refusal != RD_KAFKA_RESP_ERR_NO_ERROR) {
            throw std::runtime_error(std::string("a record was refused: ") +
                                     rd_kafka_err2str(refusal));
        }
    }

private:
    // The library calls these two from within listen.
    static void delivered(rd_kafka_t* /*producer*/, const rd_kafka_message_t* message, void* of) {
        auto& self = *static_cast<KafkaDelivery*>(of);
        if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
            self.confirm(reinterpret_cast<std::uint64_t>(message->_private), false); // NOLINT
            self.obstacle.clear();
            self.hindrance = 0;
        } else if (self.refusal == RD_KAFKA_RESP_ERR_NO_ERROR) {
            self.refusal = message->err;
        }
    }

    static void hindered(rd_kafka_t* /*producer*/, int error, const char* reason, void* of) {
        auto& self = *static_cast<KafkaDelivery*>(of);
        // Told once, not for each attempt and broker. Brokers also close what was idle for long: no
        // matter while nothing is to be sent.
        const bool isNew = error != self.hindrance && error != RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN;
        if (isNew && !self.isIdle()) {
            self.obstacle = shown(reason);
            self.hindrance = error;
        }
    }

    std::unique_ptr<rd_kafka_t, decltype(&rd_kafka_destroy)> producer{nullptr, &rd_kafka_destroy};
    int hindrance = 0;                                        // the error that the obstacle tells
    rd_kafka_resp_err_t refusal = RD_KAFKA_RESP_ERR_NO_ERROR; // the first one of this producer
};

} // namespace

std::unique_ptr<Delivery> makeKafkaDelivery(const RunPattern& runs,
                                            const std::shared_ptr<Subscription>& to) {
    return std::make_unique<KafkaDelivery>(runs, to);
}

std::string mistakeForKafka(const BrokerSettings& settings) {
    try {
        optionsOf(settings);
    } catch (const std::runtime_error& error) {
        return std::string("cannot be used: ") + error.what();
    }
    return {};
}

} // namespace relay
