// The application's side of the channel: a helper process and the calls waiting for replies.
#pragma once

#include "helper/RemoteProtocol.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quelm {

class HelperConnection {
public:
    /// Runs on the connection's reader thread, never on the caller's.
    struct Handlers {
        std::function<void(double)> progress;
        /// Once, when the channel breaks: the helper exits, crashes or sends garbage. The exit
        /// status comes along when the helper (or the launcher before it) exited.
        std::function<void(const std::string&, std::optional<int>)> error;
    };
    /// The reply's value, or nothing when the connection broke before it came.
    /// Takes the reply by value, so that a large one moves on rather than being copied.
    using ReplyHandler = std::function<void(std::optional<RemoteValue>)>;

    /// Starts program with arguments; its stdin and stdout are one end of a socket pair, the
    /// channel, and its stderr the application's. This process becomes non-dumpable first, so
    /// that no other process of the user can reach the channel. Nothing when the process cannot
    /// be started. The reader thread shares the connection, so that a handler may drop the
    /// last other reference.
    static std::shared_ptr<HelperConnection> launch(const std::string& program,
                                                    const std::vector<std::string>& arguments,
                                                    Handlers handlers);
    ~HelperConnection();
    HelperConnection(const HelperConnection&) = delete;
    HelperConnection& operator=(const HelperConnection&) = delete;

    /// Sends the call; reply runs once with its value, or with nothing once the error handler
    /// has reported the break, so that no caller sees a failed call before the application
    /// hears why. One-way operations take no reply.
    void call(const OperationEntry& operation, RemoteArguments arguments, ReplyHandler reply = {});
    /// The same, waiting for the reply on the calling thread.
    std::optional<RemoteValue> callAndWait(const OperationEntry& operation,
                                           RemoteArguments arguments);
    /// The helper's process (or its launcher's).
    int pid() const { return pid_; }
    /// Closes the channel and stops the reader; no handler runs after it returns (or, when a
    /// handler calls it, after that handler).
    void invalidate();

private:
    struct Pending {
        const OperationEntry* operation;
        ReplyHandler reply;
    };

    HelperConnection(int channel, int wake, int wakeWriter, int pid, Handlers handlers);
    void readLoop();
    void markReaderDone();
    /// Returns once the reader has stopped, and at once on the reader's own thread.
    void waitForReader();
    /// One frame's body: a progress call, or the reply to a pending call.
    void handle(std::string_view frame);
    void fail(const std::string& message, std::optional<int> exitStatus = std::nullopt);
    void failWithExit();
    void failPending();

    int channel_;
    int wake_;
    int wakeWriter_;
    int pid_;
    Handlers handlers_;
    std::mutex mutex_;
    std::map<std::int64_t, Pending> pending_;
    std::int64_t nextId_ = 1;
    std::atomic<bool> failed_ = false;
    std::atomic<bool> invalidated_ = false;
    std::atomic<std::thread::id> readerId_;
    bool readerDone_ = false;
    std::condition_variable readerStopped_;
};

} // namespace quelm
