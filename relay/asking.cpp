// Asking a relay that runs, over its Unix socket.
#include "relay/asking.h"

#include "relay/messages.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

#include <httplib.h>
#include <sys/socket.h>

namespace relay {

namespace {

constexpr int longestAnswer = 90; // seconds: some wait for a minute

std::string problemIn(const std::string& body, int status) {
    const nlohmann::json object = nlohmann::json::parse(body, nullptr, false);
    const bool isTold =
        object.is_object() && object.contains("error") && object["error"].is_string();
    return isTold ? shown(object["error"].get<std::string>())
                  : "the relay answered with status " + std::to_string(status);
}

} // namespace

Answer ask(const std::string& socket, const std::string& method, const std::string& path,
           const Query& query) {
    httplib::Client client(socket, 80);
    client.set_address_family(AF_UNIX);
    client.set_read_timeout(longestAnswer);
    httplib::Params params(query.begin(), query.end());
    httplib::Request request;
    request.method = method;
    request.path = httplib::append_query_params("/v1/" + path, params);
    request.set_header("Host", "relay");
    const httplib::Result result = client.send(request);
    Answer answer;
    if (!result) {
        answer.problem =
            "no relay answers at " + socket + ": " + httplib::to_string(result.error());
        return answer;
    }
    answer.status = result->status;
    answer.text = result->body;
    answer.seenTo = std::strtoll(result->get_header_value("Skarn-Seen-To").c_str(), nullptr, 10);
    if (answer.status >= 300) {
        answer.problem = problemIn(answer.text, answer.status);
    }
    return answer;
}

} // namespace relay
