// A process-wide notification centre whose names carry the type of their object.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace quelm {

/// The reverse-DNS prefix of every identifier, notification and queue name.
inline constexpr std::string_view kIdentifierPrefix = "org.quelm";

/// A notification name; Payload is the type of the object posted with it.
template <class Payload> struct NotificationName { std::string name; };

/// The name made of the identifier prefix and a dotted suffix (".veskp.quelm.presentvc").
template <class Payload> NotificationName<Payload> notificationName(std::string_view suffix) {
    return {std::string(kIdentifierPrefix) + std::string(suffix)};
}

class NotificationCenter {
public:
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    template <class Payload>
    Token addObserver(const NotificationName<Payload>& name,
                      std::type_identity_t<std::function<void(const Payload&)>> handler) {
        return add(name.name, [handler = std::move(handler)](const std::any& object) {
            const auto* payload = std::any_cast<Payload>(&object);
            if (!payload)
                payloadMismatch();
            handler(*payload);
        });
    }

    /// Calls every observer of the name, on the posting thread, in the order they were added.
    template <class Payload> void post(const NotificationName<Payload>& name, Payload object) {
        deliver(name.name, std::any(std::move(object)));
    }

    void removeObserver(Token token);

private:
    using Handler = std::function<void(const std::any&)>;
    struct Observer {
        Token token;
        std::string name;
        Handler handler;
    };

    Token add(std::string name, Handler handler);
    [[noreturn]] static void payloadMismatch();
    void deliver(const std::string& name, const std::any& object);

    std::mutex mutex_;
    std::vector<Observer> observers_;
    Token nextToken_ = 1;
};

} // namespace quelm
