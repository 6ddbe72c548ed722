// Running the host's system tools.
#include "support/Process.h"

#include <cerrno>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace quelm {
namespace {

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::optional<std::string> existing(const char* path) {
    std::error_code error;
    return std::filesystem::exists(path, error) ? std::optional<std::string>(path) : std::nullopt;
}

} // namespace

const SystemTools& SystemTools::host() {
#if defined(__APPLE__)
    static const SystemTools tools{"/usr/sbin/chown", "/bin/chmod", "/usr/bin/killall",
                                   existing("/usr/sbin/kextcache"), existing("/usr/sbin/nvram")};
#else
    static const SystemTools tools{"/usr/bin/chown", "/usr/bin/chmod", "/usr/bin/killall",
                                   existing("/usr/sbin/kextcache"), std::nullopt};
#endif
    return tools;
}

int runTool(const std::string& program, const std::vector<std::string>& arguments) {
    const pid_t pid = spawn(program, arguments);
    return pid < 0 ? -1 : waitFor(pid);
}

void startTool(const std::string& program, const std::vector<std::string>& arguments) {
    const pid_t pid = spawn(program, arguments);
    if (pid >= 0)
        std::thread([pid] { waitFor(pid); }).detach();
}

} // namespace quelm
