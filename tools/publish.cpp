// A test plan's result published to an MQTT broker, retained, so that a
// factory's systems that subscribe later still get each station's last one.
#include "plan_sinks.hpp"

#ifndef ZELTOCOM_MQTT

bool PublishResult(const nlohmann::ordered_json& /*result*/, const std::string& /*url*/,
                   std::string* error) {
  *error = "built without MQTT support";
  return false;
}

#else

#include <mosquitto.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// For the connection and the broker's acknowledgement together.
constexpr auto kAnswerTime = std::chrono::seconds(5);
constexpr int kDefaultPort = 1883;

struct Broker {
  std::string host;
  int port = kDefaultPort;
  std::optional<std::string> user;
  std::optional<std::string> password;
  // HOST:PORT, as the errors name it.
  std::string Name() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  }
};

std::optional<int> ParsePort(const std::string& text) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  const int port = std::stoi(text);
  return port >= 1 && port <= 65535 ? std::optional<int>(port) : std::nullopt;
}

// mqtt://[USER[:PASSWORD]@]HOST[:PORT][/], HOST a name, an IPv4 address or
// an IPv6 one in brackets; the scheme may be left out.
std::optional<Broker> ParseBroker(const std::string& given, std::string* error) {
  std::string url = given;
  const std::size_t scheme = url.find("://");
  if (scheme != std::string::npos) {
    if (url.substr(0, scheme) != "mqtt") {
      *error = given + ": only mqtt:// brokers are supported (no TLS, no WebSockets)";
      return std::nullopt;
    }
    url.erase(0, scheme + 3);
  }
  if (!url.empty() && url.back() == '/') url.pop_back();
  Broker broker;
  const std::size_t at = url.rfind('@');
  if (at != std::string::npos) {
    const std::string credentials = url.substr(0, at);
    const std::size_t colon = credentials.find(':');
    broker.user = credentials.substr(0, colon);
    if (colon != std::string::npos) broker.password = credentials.substr(colon + 1);
    url.erase(0, at + 1);
  }
  std::string port;
  if (!url.empty() && url.front() == '[') {
    const std::size_t close = url.find(']');
    if (close != std::string::npos) {
      broker.host = url.substr(1, close - 1);
      port = url.substr(close + 1);
    }
  } else {
    const std::size_t colon = url.find(':');
    broker.host = url.substr(0, colon);
    if (colon != std::string::npos) port = url.substr(colon);
  }
  const bool portOk = port.empty() || (port.front() == ':' && ParsePort(port.substr(1)));
  if (broker.host.empty() || broker.host.find_first_of("/?# ") != std::string::npos || !portOk) {
    *error = "--mqtt: expected mqtt://HOST[:PORT], got '" + given + "'";
    return std::nullopt;
  }
  if (!port.empty()) broker.port = *ParsePort(port.substr(1));
  return broker;
}

// A topic level holds no wildcard and no separator: those become '_', and
// so does an empty name.
std::string TopicLevel(const Json& name) {
  std::string level = name.is_string() ? name.get<std::string>() : std::string();
  for (char& c : level) {
    if (c == '+' || c == '#' || c == '/' || c == '\0') c = '_';
  }
  return level.empty() ? "_" : level;
}

// What the library's callbacks report, read by the loop that runs them (the
// same thread).
struct Exchange {
  std::optional<int> connack;  // the broker's answer to the connection
  int messageId = -1;
  bool acknowledged = false;
};

struct FreeClient {
  void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};

// The library's reason for `code`; for a system error, the system's.
std::string Reason(int code) {
  return code == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(code);
}

// Runs the client's network loop until `done` or the deadline; the
// library's error code of a failed round, MOSQ_ERR_SUCCESS when done, or
// nothing at the deadline.
std::optional<int> LoopUntil(mosquitto* client, Clock::time_point deadline,
                             const std::function<bool()>& done) {
  while (!done()) {
    if (Clock::now() >= deadline) return std::nullopt;
    const int looped = mosquitto_loop(client, 100, 1);
    if (looped != MOSQ_ERR_SUCCESS) return looped;
  }
  return MOSQ_ERR_SUCCESS;
}

std::string NoAnswer() { return "no answer within " + std::to_string(kAnswerTime.count()) + " s"; }

std::string Unreachable(const Broker& broker, const std::string& reason) {
  return "Unable to reach the MQTT broker at " + broker.Name() + ": " + reason;
}

bool Connect(mosquitto* client, const Broker& broker, Exchange& exchange,
             Clock::time_point deadline, std::string* error) {
  if (broker.user) {
    mosquitto_username_pw_set(client, broker.user->c_str(),
                              broker.password ? broker.password->c_str() : nullptr);
  }
  const int started = mosquitto_connect_async(client, broker.host.c_str(), broker.port, 10);
  if (started != MOSQ_ERR_SUCCESS) {
    *error = Unreachable(broker, Reason(started));
    return false;
  }
  const std::optional<int> looped =
      LoopUntil(client, deadline, [&] { return exchange.connack.has_value(); });
  if (!looped || *looped != MOSQ_ERR_SUCCESS) {
    *error = Unreachable(broker, looped ? Reason(*looped) : NoAnswer());
    return false;
  }
  if (*exchange.connack != 0) {
    *error = "The MQTT broker at " + broker.Name() +
             " refused the connection: " + mosquitto_connack_string(*exchange.connack);
    return false;
  }
  return true;
}

bool Publish(mosquitto* client, const Broker& broker, const std::string& topic,
             const std::string& payload, Exchange& exchange, Clock::time_point deadline,
             std::string* error) {
  const int sent = mosquitto_publish(client, &exchange.messageId, topic.c_str(),
                                     static_cast<int>(payload.size()), payload.data(), 1, true);
  if (sent != MOSQ_ERR_SUCCESS) {
    *error = "Unable to publish to the MQTT broker at " + broker.Name() + ": " + Reason(sent);
    return false;
  }
  const std::optional<int> looped =
      LoopUntil(client, deadline, [&] { return exchange.acknowledged; });
  if (!looped || *looped != MOSQ_ERR_SUCCESS) {
    *error = "The MQTT broker at " + broker.Name() +
             " did not acknowledge the result: " + (looped ? Reason(*looped) : NoAnswer());
    return false;
  }
  return true;
}

}  // namespace

bool PublishResult(const nlohmann::ordered_json& result, const std::string& url,
                   std::string* error) {
  static const int initialised = mosquitto_lib_init();
  if (initialised != MOSQ_ERR_SUCCESS) {
    *error = "the MQTT library did not start: " + Reason(initialised);
    return false;
  }
  const std::optional<Broker> broker = ParseBroker(url, error);
  if (!broker) return false;
  const Json station = result.is_object() ? result.value("station", Json()) : Json();
  const Json plan = result.is_object() ? result.value("plan", Json()) : Json();
  const std::string topic = "zeltocom/" + TopicLevel(station) + "/" + TopicLevel(plan) + "/result";
  const std::string payload = result.dump(-1, ' ', false, Json::error_handler_t::replace);

  Exchange exchange;
  const std::unique_ptr<mosquitto, FreeClient> client(mosquitto_new(nullptr, true, &exchange));
  if (!client) {
    *error = "Unable to create an MQTT client: " + Reason(MOSQ_ERR_ERRNO);
    return false;
  }
  mosquitto_connect_callback_set(client.get(), [](mosquitto*, void* data, int code) {
    static_cast<Exchange*>(data)->connack = code;
  });
  mosquitto_publish_callback_set(client.get(), [](mosquitto*, void* data, int id) {
    auto* waiting = static_cast<Exchange*>(data);
    if (id == waiting->messageId) waiting->acknowledged = true;
  });
  const Clock::time_point deadline = Clock::now() + kAnswerTime;
  const bool published = Connect(client.get(), *broker, exchange, deadline, error) &&
                         Publish(client.get(), *broker, topic, payload, exchange, deadline, error);
  mosquitto_disconnect(client.get());
  return published;
}

#endif
