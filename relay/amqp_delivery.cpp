// Delivering to a broker that speaks AMQP 0-9-1: persistent messages, each confirmed by the broker,
// none taken for delivered that no queue got.
#include "relay/broker_delivery.h"
#include "relay/messages.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <amqp.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/time.h>

namespace relay {

namespace {

constexpr amqp_channel_t channel = 1;
constexpr timeval answerLimit = {10, 0};  // for each step of the connecting
constexpr timeval farewellLimit = {2, 0}; // for the broker's answer to a goodbye
constexpr int frameSize = 131072;
constexpr std::size_t longestKey = 255; // bytes, by the protocol

/// Why the certificate of the broker that this thread connected to last was not accepted.
thread_local std::string certificateProblem;

/// Called by OpenSSL for each certificate of a chain. The library would only say that it failed.
int judge(int isRight, X509_STORE_CTX* context) {
    if (isRight == 0) {
        certificateProblem = X509_verify_cert_error_string(X509_STORE_CTX_get_error(context));
    }
    return isRight;
}

/// For the library, which only reads it.
amqp_bytes_t bytesOf(const std::string& text) {
    return {text.size(), const_cast<char*>(text.data())}; // NOLINT(*-const-cast)
}

std::string textOf(const amqp_bytes_t& bytes) {
    return shown(std::string(static_cast<const char*>(bytes.bytes), bytes.len));
}

void check(const std::string& step, int status) {
    if (status != AMQP_STATUS_OK) {
        throw std::runtime_error(step + ": " + amqp_error_string2(status));
    }
}

/// Throws if the broker closes the channel or the connection by this.
void checkClosing(const std::string& step, const amqp_method_t& method) {
    if (method.id == AMQP_CHANNEL_CLOSE_METHOD) {
        const auto* close = static_cast<const amqp_channel_close_t*>(method.decoded);
        throw std::runtime_error(step + ": " + textOf(close->reply_text));
    }
    if (method.id == AMQP_CONNECTION_CLOSE_METHOD) {
        const auto* close = static_cast<const amqp_connection_close_t*>(method.decoded);
        throw std::runtime_error(step + ": " + textOf(close->reply_text));
    }
}

void check(const std::string& step, const amqp_rpc_reply_t& reply) {
    if (reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION) {
        check(step, reply.library_error);
    } else if (reply.reply_type == AMQP_RESPONSE_SERVER_EXCEPTION) {
        checkClosing(step, reply.reply);
    }
}

class AmqpDelivery : public BrokerDelivery {
public:
    using BrokerDelivery::BrokerDelivery;

protected:
    void connect() override {
        link.reset(amqp_new_connection());
        logIn();
        amqp_channel_open(link.get(), channel);
        check("opening a channel", amqp_get_rpc_reply(link.get()));
        if (settings.declare) {
            declare();
        }
        amqp_confirm_select(link.get(), channel);
        check("asking for confirmations", amqp_get_rpc_reply(link.get()));
    }

    void disconnect() override { link.reset(); }

    void publish(const Message& message) override {
        amqp_basic_properties_t properties{};
        properties._flags = AMQP_BASIC_CONTENT_TYPE_FLAG | AMQP_BASIC_DELIVERY_MODE_FLAG |
                            AMQP_BASIC_MESSAGE_ID_FLAG;
        properties.content_type = amqp_cstring_bytes("application/json");
        properties.delivery_mode = AMQP_DELIVERY_PERSISTENT;
        properties.message_id = bytesOf(message.id);
        // The nameless exchange leads to the queue that the key names.
        const std::string key =
            settings.queue.empty() ? message.key.substr(0, longestKey) : settings.queue;
        // Mandatory: a broker confirms what no queue gets, too, and throws it away.
        check("sending",
              amqp_basic_publish(link.get(), channel, bytesOf(settings.exchange), bytesOf(key), 1,
                                 0, &properties, bytesOf(message.body)));
    }

    void listen(std::chrono::milliseconds limit) override {
        timeval left = {limit.count() / 1000, limit.count() % 1000 * 1000};
        amqp_frame_t frame;
        int status = AMQP_STATUS_OK;
        while ((status = amqp_simple_wait_frame_noblock(link.get(), &frame, &left)) ==
               AMQP_STATUS_OK) {
            if (frame.frame_type == AMQP_FRAME_METHOD) {
                takeIn(frame.payload.method);
            }
            amqp_maybe_release_buffers(link.get());
            left = {0, 0};
        }
        check("the connection is lost", status == AMQP_STATUS_TIMEOUT ? AMQP_STATUS_OK : status);
    }

private:
    struct Closing {
        void operator()(amqp_connection_state_t ending) const {
            amqp_set_rpc_timeout(ending, &farewellLimit);
            amqp_connection_close(ending, AMQP_REPLY_SUCCESS);
            amqp_destroy_connection(ending);
        }
    };

    void logIn() {
        std::string url = settings.broker;
        amqp_connection_info address{}; // it points into the URL
        check("reading " + settings.broker, amqp_parse_url(url.data(), &address));
        amqp_set_handshake_timeout(link.get(), &answerLimit);
        amqp_set_rpc_timeout(link.get(), &answerLimit);
        amqp_socket_t* const socket =
            address.ssl != 0 ? secureSocket() : amqp_tcp_socket_new(link.get());
        certificateProblem.clear();
        const int status =
            amqp_socket_open_noblock(socket, address.host, address.port, &answerLimit);
        const std::string step = "connecting to " + settings.broker;
        if (!certificateProblem.empty()) {
            throw std::runtime_error(step +
                                     ": its certificate is not accepted: " + certificateProblem);
        }
        check(step, status);

        // To be told when the broker stops taking messages must be asked for.
        amqp_table_entry_t blocked{};
        blocked.key = amqp_cstring_bytes("connection.blocked");
        blocked.value.kind = AMQP_FIELD_KIND_BOOLEAN;
        blocked.value.value.boolean = 1;
        amqp_table_entry_t capabilities{};
        capabilities.key = amqp_cstring_bytes("capabilities");
        capabilities.value.kind = AMQP_FIELD_KIND_TABLE;
        capabilities.value.value.table = {1, &blocked};
        const amqp_table_t properties = {1, &capabilities};
        check("logging in as " + settings.user,
              amqp_login_with_properties(link.get(), address.vhost, 0, frameSize,
                                         static_cast<int>(settings.heartbeat), &properties,
                                         AMQP_SASL_METHOD_PLAIN, settings.user.c_str(),
                                         password("guest").c_str()));
    }

    /// One that talks only to a broker whose certificate is valid and has the host's name.
    amqp_socket_t* secureSocket() {
        amqp_socket_t* const socket = amqp_ssl_socket_new(link.get());
        SSL_CTX_set_verify(static_cast<SSL_CTX*>(amqp_ssl_socket_get_context(socket)),
                           SSL_VERIFY_PEER, judge);
        amqp_ssl_socket_set_verify_peer(socket, 1);
        amqp_ssl_socket_set_verify_hostname(socket, 1);
        amqp_ssl_socket_set_ssl_versions(socket, AMQP_TLSv1_2, AMQP_TLSvLATEST);
        check("reading " + settings.caFile,
              amqp_ssl_socket_set_cacert(socket, settings.caFile.c_str()));
        if (!settings.certificate.empty()) {
            check("reading " + settings.certificate + " and " + settings.privateKey,
                  amqp_ssl_socket_set_key(socket, settings.certificate.c_str(),
                                          settings.privateKey.c_str()));
        }
        return socket;
    }

    /// Makes the exchange or the queue, or makes sure that it is durable.
    void declare() {
        if (settings.queue.empty()) {
            amqp_exchange_declare(link.get(), channel, bytesOf(settings.exchange),
                                  amqp_cstring_bytes("topic"), 0, 1, 0, 0, amqp_empty_table);
        } else {
            amqp_queue_declare(link.get(), channel, bytesOf(settings.queue), 0, 1, 0, 0,
                               amqp_empty_table);
        }
        check("declaring " + settings.exchange + settings.queue, amqp_get_rpc_reply(link.get()));
    }

    void takeIn(const amqp_method_t& method) {
        if (method.id == AMQP_BASIC_ACK_METHOD) {
            const auto* ack = static_cast<const amqp_basic_ack_t*>(method.decoded);
            confirm(ack->delivery_tag, ack->multiple != 0);
        } else if (method.id == AMQP_BASIC_NACK_METHOD) {
            throw std::runtime_error("a queue refuses records; it may be full");
        } else if (method.id == AMQP_BASIC_RETURN_METHOD) {
            const auto* back = static_cast<const amqp_basic_return_t*>(method.decoded);
            throw std::runtime_error("no queue takes what has the routing key \"" +
                                     textOf(back->routing_key) + "\": " + textOf(back->reply_text));
        } else if (method.id == AMQP_CONNECTION_BLOCKED_METHOD) {
            const auto* blocked = static_cast<const amqp_connection_blocked_t*>(method.decoded);
            obstacle = "the broker takes nothing for now: " + textOf(blocked->reason);
        } else if (method.id == AMQP_CONNECTION_UNBLOCKED_METHOD) {
            obstacle.clear();
        } else {
            checkClosing("the broker has closed the connection", method);
        }
    }

    std::unique_ptr<amqp_connection_state_t_, Closing> link;
};

} // namespace

std::unique_ptr<Delivery> makeAmqpDelivery(const RunPattern& runs,
                                           const std::shared_ptr<Subscription>& to) {
    return std::make_unique<AmqpDelivery>(runs, to);
}

} // namespace relay
