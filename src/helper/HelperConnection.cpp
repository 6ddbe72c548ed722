// The application's side of the channel: a helper process and the calls waiting for replies.
#include "helper/HelperConnection.h"

#include "helper/Channel.h"
#include "support/Files.h"

#include <csignal>
#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace quelm {
namespace {

/// Why the helper's end closed, and its exit status when it exited.
std::pair<std::string, std::optional<int>> exitDescription(int pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid)
        return {"the helper closed the connection", std::nullopt};
    if (WIFSIGNALED(status))
        return {"the helper was killed by signal " + std::to_string(WTERMSIG(status)),
                std::nullopt};
    return {"the helper exited with status " + std::to_string(WEXITSTATUS(status)),
            WEXITSTATUS(status)};
}

} // namespace

std::shared_ptr<HelperConnection>
HelperConnection::launch(const std::string& program, const std::vector<std::string>& arguments,
                         Handlers handlers) {
    // A helper that dies must show as a connection error, not end the application.
    std::signal(SIGPIPE, SIG_IGN);
#if defined(__linux__)
    // No other process of this user may reach the channel through /proc/PID/fd or ptrace.
    if (::prctl(PR_SET_DUMPABLE, 0) != 0)
        return nullptr;
#endif
    int channel[2] = {-1, -1}, wake[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0 ||
        ::pipe2(wake, O_CLOEXEC) != 0) {
        for (const int fd : {channel[0], channel[1], wake[0], wake[1]})
            if (fd >= 0)
                ::close(fd);
        return nullptr;
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, channel[1], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(channel[1]);
    if (spawned != 0) {
        for (const int fd : {channel[0], wake[0], wake[1]})
            ::close(fd);
        return nullptr;
    }
    std::shared_ptr<HelperConnection> connection(
        new HelperConnection(channel[0], wake[0], wake[1], pid, std::move(handlers)));
    std::thread([connection] {
        connection->readerId_ = std::this_thread::get_id();
        connection->readLoop();
        connection->markReaderDone();
    }).detach();
    return connection;
}

HelperConnection::HelperConnection(int channel, int wake, int wakeWriter, int pid,
                                   Handlers handlers)
    : channel_(channel), wake_(wake), wakeWriter_(wakeWriter), pid_(pid),
      handlers_(std::move(handlers)) {
}

HelperConnection::~HelperConnection() {
    invalidate();
    for (const int fd : {channel_, wake_, wakeWriter_})
        ::close(fd);
}

void HelperConnection::invalidate() {
    if (invalidated_.exchange(true))
        return;
    // The helper sees the end of its input and exits once its calls are done; a waiter reaps it.
    {
        std::lock_guard lock(mutex_);
        ::shutdown(channel_, SHUT_WR);
    }
    // The wake pipe is ours and empty: this one byte always fits.
    (void)writeAll(wakeWriter_, "x");
    waitForReader();
    failPending();
    std::thread([pid = pid_] { ::waitpid(pid, nullptr, 0); }).detach();
}

void HelperConnection::call(const OperationEntry& operation, RemoteArguments arguments,
                            ReplyHandler reply) {
    std::optional<std::int64_t> id;
    {
        std::lock_guard lock(mutex_);
        if (operation.reply) {
            id = nextId_++;
            pending_.emplace(*id, Pending{&operation, std::move(reply)});
        }
    }
    const auto frame = encodeFrame(encodeCall({id, &operation, std::move(arguments), {}}));
    {
        std::lock_guard lock(mutex_);
        if (!failed_ && !invalidated_) {
            // A helper that cannot be written to is gone or going: ending our reading side
            // lets the reader report the break once, with the exit status that tells a
            // refused password, before this call is answered.
            if (!writeAll(channel_, frame))
                ::shutdown(channel_, SHUT_RD);
            return;
        }
    }
    // The break was reported, or the connection closed: answer once that report is out.
    waitForReader();
    failPending();
}

void HelperConnection::waitForReader() {
    if (std::this_thread::get_id() == readerId_)
        return;
    std::unique_lock lock(mutex_);
    readerStopped_.wait(lock, [this] { return readerDone_; });
}

std::optional<RemoteValue> HelperConnection::callAndWait(const OperationEntry& operation,
                                                         RemoteArguments arguments) {
    std::promise<std::optional<RemoteValue>> promise;
    auto future = promise.get_future();
    call(operation, std::move(arguments),
         [&promise](const std::optional<RemoteValue>& value) { promise.set_value(value); });
    return future.get();
}

void HelperConnection::markReaderDone() {
    std::lock_guard lock(mutex_);
    readerDone_ = true;
    readerStopped_.notify_all();
}

void HelperConnection::readLoop() {
    std::string buffer;
    char chunk[65536];
    for (;;) {
        pollfd fds[2] = {{channel_, POLLIN, 0}, {wake_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno == EINTR)
            continue;
        if (fds[1].revents)
            return;
        const ssize_t count = ::read(channel_, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return failWithExit();
        buffer.append(chunk, static_cast<std::size_t>(count));
        for (;;) {
            auto frame = takeFrameBody(buffer);
            if (!frame)
                return fail(frame.error().message);
            if (!*frame)
                break;
            handle(**frame);
            if (failed_ || invalidated_)
                return;
        }
    }
}

void HelperConnection::handle(std::string_view frame) {
    const auto message = BinaryPlistDocument::open(frame);
    if (!message)
        return fail("frame is not a property list");
    if (message->entry(message->top(), "op")) {
        const auto value = message->read(message->top());
        auto call = value ? decodeCall(*value, Sender::helper)
                          : std::unexpected(Error{value.error().message});
        if (!call)
            return fail(call.error().message);
        if (handlers_.progress)
            handlers_.progress(std::get<double>(call->arguments.front()));
        return;
    }
    auto reply = decodeReplyEnvelope(*message);
    if (!reply)
        return fail(reply.error().message);
    Pending pending;
    {
        std::lock_guard lock(mutex_);
        const auto found = pending_.find(reply->id);
        if (found == pending_.end())
            return fail("a reply to no call");
        pending = std::move(found->second);
        pending_.erase(found);
    }
    auto value = decodeValue(*message, reply->value, *pending.operation->reply);
    if (!value)
        return fail(std::string(pending.operation->selector) + ": " + value.error().message);
    if (pending.reply)
        pending.reply(std::move(*value));
}

void HelperConnection::failWithExit() {
    const auto [message, status] = exitDescription(pid_);
    fail(message, status);
}

void HelperConnection::fail(const std::string& message, std::optional<int> exitStatus) {
    if (failed_.exchange(true))
        return;
    if (!invalidated_ && handlers_.error)
        handlers_.error(message, exitStatus);
    failPending();
}

void HelperConnection::failPending() {
    std::map<std::int64_t, Pending> abandoned;
    {
        std::lock_guard lock(mutex_);
        abandoned.swap(pending_);
    }
    for (auto& [id, pending] : abandoned)
        if (pending.reply)
            pending.reply(std::nullopt);
}

} // namespace quelm
