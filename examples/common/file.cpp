// Reading whole files; writing them through a temporary file in the same folder.
#include "file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"

namespace {

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Failure(path + ": " + what + ": " + std::strerror(errno));
}

// A file that removes itself unless it is committed.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& target)
        : target_(target), name_(target + ".partial-" + std::to_string(getpid())) {
        // Renaming over a device or a folder would replace it or fail late.
        struct stat status;
        if (stat(target.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            throw Failure(target + ": cannot be written: not a regular file");
        descriptor_ = open(name_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor_ < 0) fail(target, "cannot be written");
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (descriptor_ >= 0) close(descriptor_);
        if (!committed_) unlink(name_.c_str());
    }

    void write(const unsigned char* bytes, size_t count) {
        while (count > 0) {
            const ssize_t written = ::write(descriptor_, bytes, count);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) fail(target_, "cannot be written");
            bytes += written;
            count -= static_cast<size_t>(written);
        }
    }

    void commit() {
        const int closed = close(descriptor_);
        descriptor_ = -1;
        if (closed != 0 || rename(name_.c_str(), target_.c_str()) != 0) fail(target_, "cannot be written");
        committed_ = true;
    }

private:
    std::string target_;
    std::string name_;
    int descriptor_ = -1;
    bool committed_ = false;
};

} // namespace

std::vector<unsigned char> readFile(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) fail(path, "cannot be read");
    struct stat status;
    std::vector<unsigned char> bytes;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor);
        throw Failure(path + ": cannot be read: not a regular file");
    }
    bytes.resize(static_cast<size_t>(status.st_size));
    size_t have = 0;
    while (have < bytes.size()) {
        const ssize_t got = read(descriptor, bytes.data() + have, bytes.size() - have);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            const int error = errno;
            close(descriptor);
            errno = error;
            fail(path, "cannot be read");
        }
        if (got == 0) break;
        have += static_cast<size_t>(got);
    }
    bytes.resize(have);
    close(descriptor);
    return bytes;
}

void checkWritable(const std::string& path) {
    TemporaryFile probe(path);
}

void checkApart(const std::vector<std::string>& paths) {
    std::vector<std::filesystem::path> places;
    for (const std::string& path : paths) {
        if (path.empty()) continue;
        places.push_back(std::filesystem::weakly_canonical(std::filesystem::absolute(path)));
        if (std::count(places.begin(), places.end(), places.back()) > 1)
            throw Failure(path + ": is named for two outputs");
    }
}

void writeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
    TemporaryFile file(path);
    file.write(bytes.data(), bytes.size());
    file.commit();
}
