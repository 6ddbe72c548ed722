// Whole-file reading with a size cap, and atomic replacement of a file.
#include "support/Files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

std::unexpected<Error> failure(const std::filesystem::path& path, std::string_view what) {
    return std::unexpected(Error{path.string() + ": " + std::string(what)});
}

} // namespace

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

std::expected<std::string, Error> readFileBytes(const std::filesystem::path& path,
                                                std::uintmax_t maxSize) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return failure(path, error ? error.message() : "not a regular file");
    // Read to the end rather than trust the size: /proc files say 0 and a disk may change.
    std::ifstream in(path, std::ios::binary);
    std::string bytes;
    std::string chunk(64 * 1024, '\0');
    while (in) {
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        bytes.append(chunk.data(), static_cast<std::size_t>(in.gcount()));
        if (bytes.size() > maxSize)
            return failure(path, "file too large");
    }
    if (in.bad() || !in.eof())
        return failure(path, "cannot read");
    return bytes;
}

std::expected<void, Error> writeFileAtomically(const std::filesystem::path& path,
                                               std::string_view bytes) {
    std::string temporary = path.parent_path() / ("." + path.filename().string() + ".XXXXXX");
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return failure(path,
                       std::string("cannot create a temporary file: ") + std::strerror(errno));
    bool written = ::fchmod(fd, 0644) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
    written = ::close(fd) == 0 && written;
    written = written && ::rename(temporary.c_str(), path.c_str()) == 0;
    if (!written) {
        const int cause = errno;
        ::unlink(temporary.c_str());
        return failure(path, std::string("cannot write: ") + std::strerror(cause));
    }
    return {};
}

} // namespace quelm
