// A process-wide notification centre whose names carry the type of their object.
#include "support/NotificationCenter.h"

#include "support/Log.h"

#include <algorithm>

namespace quelm {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::add(std::string name, Handler handler) {
    std::lock_guard lock(mutex_);
    const Token token = nextToken_++;
    observers_.push_back({token, std::move(name), std::move(handler)});
    return token;
}

void NotificationCenter::payloadMismatch() {
    fatalError("NotificationCenter::FatalError: a notification was posted with an object of "
               "another type than its observers expect.");
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [token](const Observer& o) { return o.token == token; });
}

void NotificationCenter::deliver(const std::string& name, const std::any& object) {
    std::vector<Handler> handlers;
    {
        // Handlers run unlocked so that they may post, add or remove observers themselves.
        std::lock_guard lock(mutex_);
        for (const auto& observer : observers_)
            if (observer.name == name)
                handlers.push_back(observer.handler);
    }
    for (const auto& handler : handlers)
        handler(object);
}

} // namespace quelm
