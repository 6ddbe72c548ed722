// A job of the core run on a thread of its own, so that the window stays live while it waits
// on the helper; its events and questions come back to the window's thread.
#pragma once

#include <QMetaObject>
#include <QObject>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace quelm {

class BackgroundJob {
public:
    /// Events go to context's thread; they are dropped once context is gone.
    explicit BackgroundJob(QObject* context) : context_(context) {}
    /// Waits for the work: a question still open gets its fallback answer.
    ~BackgroundJob() {
        closing_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    BackgroundJob(const BackgroundJob&) = delete;
    BackgroundJob& operator=(const BackgroundJob&) = delete;

    /// Runs work on its thread, then done with its result on the context's thread.
    template <class Result>
    void start(std::function<Result()> work, std::function<void(Result)> done) {
        if (thread_.joinable())
            thread_.join();
        thread_ = std::thread([this, work = std::move(work), done = std::move(done)]() mutable {
            auto result = std::make_shared<Result>(work());
            post([done = std::move(done), result] { done(std::move(*result)); });
        });
    }

    /// From the work's thread: runs event on the context's thread, without waiting.
    void post(std::function<void()> event) {
        QMetaObject::invokeMethod(context_, std::move(event), Qt::QueuedConnection);
    }

    /// From the work's thread: asks on the context's thread and waits for the answer.
    template <class T> T ask(std::function<T()> question, T fallback) {
        auto answer = std::make_shared<std::promise<T>>();
        auto future = answer->get_future();
        post([answer, question = std::move(question)] { answer->set_value(question()); });
        using namespace std::chrono_literals;
        while (future.wait_for(50ms) != std::future_status::ready)
            if (closing_)
                return fallback;
        return future.get();
    }

private:
    QObject* context_;
    std::thread thread_;
    std::atomic<bool> closing_ = false;
};

} // namespace quelm
